#include "platform/utf.h"

#include <cstdint>

namespace velk2 {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

void AppendUtf16(std::u16string& out, char32_t c) {
  if (c < 0x10000) {
    out.push_back(static_cast<char16_t>(c));
  } else {
    c -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
  }
}

// Decodes one scalar value at |i| and advances |i|. Ill-formed input yields
// U+FFFD and advances over its maximal ill-formed subpart, as the Unicode
// standard recommends: a lead byte followed by the continuation bytes that
// could still have completed a valid sequence.
char32_t DecodeUtf8(std::string_view s, size_t& i) {
  const auto byte = [&](size_t k) { return static_cast<uint8_t>(s[k]); };
  uint8_t b0 = byte(i++);
  if (b0 < 0x80) return b0;
  size_t need;
  char32_t c;
  uint8_t lo = 0x80, hi = 0xBF;  // allowed range of the second byte
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 1;
    c = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    need = 2;
    c = b0 & 0x0F;
    if (b0 == 0xE0) lo = 0xA0;  // no overlong forms
    if (b0 == 0xED) hi = 0x9F;  // no surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    need = 3;
    c = b0 & 0x07;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    return kReplacement;
  }
  for (size_t k = 0; k < need; ++k) {
    if (i >= s.size()) return kReplacement;
    uint8_t b = byte(i);
    if (k == 0 ? (b < lo || b > hi) : (b < 0x80 || b > 0xBF)) return kReplacement;
    c = (c << 6) | (b & 0x3F);
    ++i;
  }
  return c;
}

}  // namespace

void AppendHex(std::string* out, const void* bytes, size_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const auto* b = static_cast<const uint8_t*>(bytes);
  const size_t start = out->size();
  out->resize(start + 2 * length);
  char* to = out->data() + start;
  for (size_t i = 0; i < length; ++i) {
    to[2 * i] = kDigits[b[i] >> 4];
    to[2 * i + 1] = kDigits[b[i] & 15];
  }
}

std::string HexString(const void* bytes, size_t length) {
  std::string out;
  AppendHex(&out, bytes, length);
  return out;
}

std::string EscapeForDisplay(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t start = i;
    const char32_t c = DecodeUtf8(text, i);
    const std::string_view bytes = text.substr(start, i - start);
    const bool ill_formed = c == kReplacement && bytes != "\xEF\xBF\xBD";
    const bool control = c < 0x20 || (c >= 0x7F && c <= 0x9F);
    const bool reorders = c == 0x200E || c == 0x200F || c == 0x061C ||
                          (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
    if (c == '\\') {
      out += "\\\\";
    } else if (ill_formed || control || reorders) {
      for (unsigned char b : bytes) {
        out += "\\x";
        AppendHex(&out, &b, 1);
      }
    } else {
      out.append(bytes);
    }
  }
  return out;
}

std::u16string Utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) AppendUtf16(out, DecodeUtf8(text, i));
  return out;
}

namespace {

// The code point at |i| (advanced past it): a surrogate pair joined, a lone
// surrogate as it is, for the caller to map.
char32_t DecodeUtf16(std::u16string_view text, size_t& i) {
  const char32_t c = text[i++];
  if (c >= 0xD800 && c <= 0xDBFF && i < text.size() && text[i] >= 0xDC00 && text[i] <= 0xDFFF) {
    return 0x10000 + ((c - 0xD800) << 10) + (text[i++] - 0xDC00);
  }
  return c;
}

bool IsSurrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDFFF;
}

}  // namespace

std::string Utf16ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size() * 3);
  for (size_t i = 0; i < text.size();) {
    const char32_t c = DecodeUtf16(text, i);
    AppendUtf8(out, IsSurrogate(c) ? kReplacement : c);
  }
  return out;
}

std::u16string FileNameToWide(std::string_view name) {
  std::u16string out;
  out.reserve(name.size());
  // Most names are ASCII: each byte is its unit.
  size_t i = 0;
  while (i < name.size() && static_cast<unsigned char>(name[i]) < 0x80) out.push_back(name[i++]);
  while (i < name.size()) {
    const size_t start = i;
    const char32_t c = DecodeUtf8(name, i);
    if (c == kReplacement && name.substr(start, i - start) != "\xEF\xBF\xBD") {
      // Every byte of an ill-formed subpart is 0x80 or above.
      for (size_t k = start; k < i; ++k) {
        out.push_back(static_cast<char16_t>(0xDC00 + static_cast<uint8_t>(name[k])));
      }
    } else {
      AppendUtf16(out, c);
    }
  }
  return out;
}

std::string WideToFileName(std::u16string_view name) {
  std::string out;
  size_t i = 0;
  while (i < name.size() && name[i] < 0x80) ++i;
  out.reserve(i == name.size() ? i : name.size() * 3);
  for (size_t k = 0; k < i; ++k) out.push_back(static_cast<char>(name[k]));
  while (i < name.size()) {
    const char32_t c = DecodeUtf16(name, i);
    if (c >= 0xDC80 && c <= 0xDCFF) {
      out.push_back(static_cast<char>(c - 0xDC00));  // a byte FileNameToWide kept
    } else {
      AppendUtf8(out, IsSurrogate(c) ? kReplacement : c);
    }
  }
  return out;
}

size_t WideLength(const char16_t* text) {
  if (text == nullptr) return 0;
  size_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}

}  // namespace velk2
