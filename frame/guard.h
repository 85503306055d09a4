// Guard: the one place where an export turns C++ failures into result codes.
// Exceptions never cross the C interface; running out of memory becomes
// VELK2_ERR_MEM_ALLOC (3) and any other escaped exception VELK2_FAILURE (1).
#ifndef VELK2_FRAME_GUARD_H_
#define VELK2_FRAME_GUARD_H_

#include <new>
#include <type_traits>

#include "frame/result.h"

namespace velk2 {

template <typename F>
Result Guard(F&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return VELK2_ERR_MEM_ALLOC;
  } catch (...) {
    return VELK2_FAILURE;
  }
}

// For exports that return a pointer or a value: |fallback| when the body throws.
template <typename F, typename T>
auto GuardValue(T fallback, F&& body) noexcept -> decltype(body()) {
  try {
    return body();
  } catch (...) {
    return fallback;
  }
}

}  // namespace velk2

#endif  // VELK2_FRAME_GUARD_H_
