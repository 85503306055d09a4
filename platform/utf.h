// UTF-8 <-> UTF-16. Ill-formed input (bad bytes, truncated or overlong
// sequences, surrogates in UTF-8, lone surrogates in UTF-16) becomes U+FFFD,
// one replacement per maximal ill-formed subpart.
#ifndef VELK2_PLATFORM_UTF_H_
#define VELK2_PLATFORM_UTF_H_

#include <string>
#include <string_view>

namespace velk2 {

std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

// File names are bytes, and two different names must never become one: the
// lossless pair maps every byte of an ill-formed UTF-8 sequence to the
// reserved code unit U+DC00 + byte (U+DC80..U+DCFF, which well-formed UTF-8
// never yields) and back, so any name round-trips exactly. Well-formed
// UTF-8 converts as with Utf8ToUtf16.
std::u16string FileNameToWide(std::string_view name);
std::string WideToFileName(std::u16string_view name);

// EscapeForDisplay makes text from a file safe to print as one line: control
// characters (C0, DEL, C1), the characters that reorder text on screen
// (bidirectional embeddings, overrides and isolates) and every byte of
// ill-formed UTF-8 become "\xNN" per byte, and "\" becomes "\\"; other
// well-formed UTF-8 passes unchanged.
std::string EscapeForDisplay(std::string_view text);

// AppendHex appends |length| bytes as lowercase hex, two digits a byte: the
// one hex encoder of the library, the engine and the tool. HexString is the
// same as a new string.
void AppendHex(std::string* out, const void* bytes, size_t length);
std::string HexString(const void* bytes, size_t length);

// Length of a NUL-terminated UTF-16 string (0 for null).
size_t WideLength(const char16_t* text);

}  // namespace velk2

#endif  // VELK2_PLATFORM_UTF_H_
