// Character classes of the readers and writers, fixed to those of the C
// runtime in its default ("C") locale whatever locale the process has set.
#ifndef VELK2_SEXP_CHAR_CLASS_H_
#define VELK2_SEXP_CHAR_CLASS_H_

#include <cstdint>

namespace velk2::sexp_internal {

// " \t\n\v\f\r".
inline bool IsSpaceByte(int c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
inline bool IsDigitByte(int c) {
  return c >= '0' && c <= '9';
}
// Letters, digits, punctuation and the blank " ": 0x20..0x7E. A tab is a
// control character in the C runtime's class table, so it is not printable.
inline bool IsPrintableByte(int c) {
  return c >= 0x20 && c <= 0x7E;
}

}  // namespace velk2::sexp_internal

#endif  // VELK2_SEXP_CHAR_CLASS_H_
