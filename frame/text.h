// Text utilities: UTF-8/UTF-16 conversion into caller-owned C buffers, copies,
// ASCII case-insensitive comparison and the integer reader of date texts.
#ifndef VELK2_FRAME_TEXT_H_
#define VELK2_FRAME_TEXT_H_

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace velk2 {

// Owner of memory that the library hands to C callers (released with Velk2Free).
struct CFree {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using CBuffer = std::unique_ptr<T, CFree>;

// WideToUtf8 converts |units| UTF-16 units (-1: through the NUL) to a new
// NUL-terminated UTF-8 string; *out_bytes (optional) receives its length
// without the NUL. Null when memory runs out. Ill-formed input becomes U+FFFD.
char* WideToUtf8(const char16_t* wide, int32_t units, uint32_t* out_bytes);
// Utf8ToWide converts |bytes| UTF-8 bytes (-1: through the NUL) to a new
// NUL-terminated UTF-16 string; *out_bytes (optional) receives its length in
// bytes (twice the units) without the NUL. Null when memory runs out.
char16_t* Utf8ToWide(const char* text, int32_t bytes, uint32_t* out_bytes);

// New copies including the NUL; null in, null out; null when memory runs out.
char* DuplicateNarrow(const char* text);
char16_t* DuplicateWide(const char16_t* text);

// Case-insensitive comparisons that fold ASCII letters only.
char16_t FoldAscii(char16_t c);
int CompareNoCase(const char16_t* a, const char16_t* b);
int CompareNoCaseN(const char16_t* a, const char16_t* b, size_t count);

// ParseIntegers reads up to |count| base-10 integers from |text|; after each
// number exactly one character (any) is skipped as a separator. Stops when no
// digits follow, at the end, or when |count| values are stored; returns how
// many were stored.
int ParseIntegers(const char* text, int count, long* out);

}  // namespace velk2

#endif  // VELK2_FRAME_TEXT_H_
