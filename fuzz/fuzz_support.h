// What the fuzz targets share: a property check that stops the run with a
// message, and the stored form of an object.
#ifndef VELK2_FUZZ_FUZZ_SUPPORT_H_
#define VELK2_FUZZ_FUZZ_SUPPORT_H_

#include <cstdio>
#include <cstdlib>
#include <string>

#include "sexp/object.h"

namespace velk2::fuzz {

// Check aborts with |what| when |condition| is false: libFuzzer then keeps
// the input as a crash.
inline void Check(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "property violated: %s\n", what);
    std::abort();
  }
}

// The stored form of |object|, which must be writable.
inline std::string StoredOf(const SexpObject& object) {
  std::string stored = StoredForm(object);
  Check(!stored.empty(), "the stored form can be written");
  return stored;
}

}  // namespace velk2::fuzz

#endif  // VELK2_FUZZ_FUZZ_SUPPORT_H_
