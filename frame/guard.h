// Guard: the one place where an export turns C++ failures into result codes.
// Exceptions never cross the C interface; running out of memory becomes
// VELK2_ERR_MEM_ALLOC (3) and any other escaped exception VELK2_FAILURE (1).
#ifndef VELK2_FRAME_GUARD_H_
#define VELK2_FRAME_GUARD_H_

#include <new>

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

}  // namespace velk2

#endif  // VELK2_FRAME_GUARD_H_
