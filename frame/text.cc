#include "frame/text.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <string>

#include "platform/utf.h"

namespace velk2 {
namespace {

size_t NarrowLength(const char* text, int32_t bytes) {
  // -1 means "through the NUL"; the NUL itself converts to the terminator.
  return bytes < 0 ? std::strlen(text) : static_cast<size_t>(bytes);
}

}  // namespace

char* WideToUtf8(const char16_t* wide, int32_t units, uint32_t* out_bytes) {
  if (wide == nullptr) return nullptr;
  size_t count = units < 0 ? WideLength(wide) : static_cast<size_t>(units);
  std::string utf8;
  try {
    utf8 = Utf16ToUtf8(std::u16string_view(wide, count));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  char* out = static_cast<char*>(std::malloc(utf8.size() + 1));
  if (out == nullptr) return nullptr;
  std::memcpy(out, utf8.data(), utf8.size());
  out[utf8.size()] = 0;
  if (out_bytes != nullptr) *out_bytes = static_cast<uint32_t>(utf8.size());
  return out;
}

char16_t* Utf8ToWide(const char* text, int32_t bytes, uint32_t* out_bytes) {
  if (text == nullptr) return nullptr;
  std::u16string wide;
  try {
    wide = Utf8ToUtf16(std::string_view(text, NarrowLength(text, bytes)));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  if (wide.size() >= SIZE_MAX / sizeof(char16_t) - 1) return nullptr;
  auto* out = static_cast<char16_t*>(std::malloc((wide.size() + 1) * sizeof(char16_t)));
  if (out == nullptr) return nullptr;
  std::memcpy(out, wide.data(), wide.size() * sizeof(char16_t));
  out[wide.size()] = 0;
  // Bytes, not units: the internal callers size byte buffers with it.
  if (out_bytes != nullptr) *out_bytes = static_cast<uint32_t>(wide.size() * sizeof(char16_t));
  return out;
}

char* DuplicateNarrow(const char* text) {
  if (text == nullptr) return nullptr;
  size_t n = std::strlen(text) + 1;
  char* out = static_cast<char*>(std::malloc(n));
  if (out != nullptr) std::memcpy(out, text, n);
  return out;
}

char16_t* DuplicateWide(const char16_t* text) {
  if (text == nullptr) return nullptr;
  size_t n = WideLength(text) + 1;
  auto* out = static_cast<char16_t*>(std::malloc(n * sizeof(char16_t)));
  if (out != nullptr) std::memcpy(out, text, n * sizeof(char16_t));
  return out;
}

char16_t FoldAscii(char16_t c) {
  return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c - u'A' + u'a') : c;
}

int CompareNoCaseN(const char16_t* a, const char16_t* b, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    char16_t x = FoldAscii(a[i]), y = FoldAscii(b[i]);
    if (x != y) return x < y ? -1 : 1;
    if (x == 0) return 0;
  }
  return 0;
}

int CompareNoCase(const char16_t* a, const char16_t* b) {
  return CompareNoCaseN(a, b, SIZE_MAX);
}

int ParseIntegers(const char* text, int count, long* out) {
  if (text == nullptr || out == nullptr) return 0;
  int stored = 0;
  const char* p = text;
  while (stored < count && *p != 0) {
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(p, &end, 10);
    if (end == p) break;  // no digits
    out[stored++] = value;
    p = end;
    if (*p == 0) break;
    ++p;  // exactly one separator, whatever it is
  }
  return stored;
}

}  // namespace velk2
