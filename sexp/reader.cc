// The canonical reader and the text parsers.
#include "sexp/reader.h"

#include <cstring>
#include <span>
#include <vector>

#include "frame/guard.h"
#include "sexp/char_class.h"

namespace velk2 {
namespace {

using sexp_internal::IsDigitByte;
using sexp_internal::IsSpaceByte;

// The hint texts the canonical reader accepts, in hint order.
DisplayHint HintFromText(const char* text, size_t size) {
  struct Known {
    const char* text;
    DisplayHint hint;
  };
  static constexpr Known kKnown[] = {{"bin", kHintBin}, {"utf-8", kHintUtf8}, {"num", kHintNum}};
  for (const Known& known : kKnown) {
    if (std::strlen(known.text) == size && std::memcmp(known.text, text, size) == 0) {
      return known.hint;
    }
  }
  return kHintNone;
}

// The longest hint text, in bytes, before the reader gives up on a "[".
constexpr size_t kMaxHintText = 10;
// Length digits the canonical reader takes; a fifth means the atom is too long.
constexpr int kMaxLengthDigits = 4;

// The children of every list still open wait on |pending|, innermost last,
// until their list closes and takes them: the list and its children are one
// allocation (a list growing child by child allocated three times for three).
Result ParseCanonicalListAt(Ref<SexpList>* out, SexpSource* source, Velk2Context* context,
                            uint32_t depth, std::vector<Ref<SexpObject>>& pending) {
  Result result = source->Expect("(", 1, kExpectRequired);
  if (result != VELK2_SUCCESS) return result;
  // The byte loop peeks through the source's cursor, not a virtual call.
  ByteCursor& bytes = *source->cursor();
  const size_t first = pending.size();
  for (;;) {
    const int next = bytes.Peek();
    if (next == ')' || next == -1) break;
    if (next == '(') {
      if (depth >= kMaxReadDepth) return VELK2_ERR_PARSE_FILE;
      Ref<SexpList> child;
      result = ParseCanonicalListAt(&child, source, context, depth + 1, pending);
      if (result != VELK2_SUCCESS) return result;
      pending.push_back(std::move(child));
    } else {
      std::string_view value;
      DisplayHint hint = kHintNone;
      result = ReadAtomSpan(bytes, &value, &hint);
      if (result != VELK2_SUCCESS) return result;
      pending.push_back(SexpAtom::NewWithBytes(context, value, hint));
    }
  }
  result = source->Expect(")", 1, kExpectRequired);
  if (result != VELK2_SUCCESS) return result;
  *out = SexpList::NewWithChildren(context, std::span(pending).subspan(first));
  pending.resize(first);
  return VELK2_SUCCESS;
}

// ---- Text parsers on the cursor -----------------------------------------------
// A NUL-terminated text is a cursor over its strlen bytes, so its end and its
// NUL are the same thing; in a bounded text a NUL byte also ends the text.

bool IsTextEnd(int byte) {
  return byte == -1 || byte == '\0';
}

void SkipSpaceIn(ByteCursor& text) {
  text.SkipWhile([](uint8_t byte) { return IsSpaceByte(byte); });
}

// ExpectLiteralBounded's step: the comparison starts at literal index
// |position|. kOvershoot when the literal reaches past the end unchecked.
constexpr Result kOvershoot = 0xFFFFFFFFu;
Result ExpectLiteralIn(ByteCursor& text, std::string_view literal) {
  const size_t start = text.position();
  for (size_t i = start; i < literal.size(); ++i) {
    const int byte = text.PeekAt(i);
    if (byte == -1) return VELK2_ERR_BUFFER_OVERFLOW;
    if (byte != static_cast<uint8_t>(literal[i])) return VELK2_ERR_UNEXPECTED_CHAR;
  }
  return text.Skip(literal.size()) ? VELK2_SUCCESS : kOvershoot;
}

Result TokenIn(Ref<SexpAtom>* out, ByteCursor& text, Velk2Context* context) {
  SkipSpaceIn(text);
  const uint8_t* start = text.here();
  const size_t count = text.SkipWhile([](uint8_t byte) {
    return byte != '\0' && byte != '(' && byte != ')' && !IsSpaceByte(byte);
  });
  if (count > UINT32_MAX) return VELK2_ERR_MEM_ALLOC;
  Ref<SexpAtom> atom = SexpAtom::New(context);
  Result result = atom->AssignBytes(start, static_cast<uint32_t>(count));
  if (result != VELK2_SUCCESS) return result;
  *out = std::move(atom);
  return VELK2_SUCCESS;
}

Result TextListIn(Ref<SexpList>* out, ByteCursor& text, Velk2Context* context, uint32_t depth) {
  SkipSpaceIn(text);
  if (!text.Match("(")) return VELK2_ERR_UNEXPECTED_CHAR;
  Ref<SexpAtom> first;
  Result result = TokenIn(&first, text, context);
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpList> list = SexpList::New(context);
  result = list->Append(std::move(first));
  if (result != VELK2_SUCCESS) return result;
  for (;;) {
    SkipSpaceIn(text);
    const int next = text.Peek();
    if (IsTextEnd(next)) return VELK2_ERR_INVALID_S_EXPRESSION;
    if (text.Match(")")) break;
    if (next == '(') {
      if (depth >= kMaxReadDepth) return VELK2_ERR_INVALID_S_EXPRESSION;
      Ref<SexpList> child;
      result = TextListIn(&child, text, context, depth + 1);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(child));
    } else {
      Ref<SexpAtom> token;
      result = TokenIn(&token, text, context);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(token));
    }
    if (result != VELK2_SUCCESS) return result;
  }
  *out = std::move(list);
  return VELK2_SUCCESS;
}

Result LengthPrefixedAtomIn(Ref<SexpAtom>* out, ByteCursor& text, Velk2Context* context) {
  SkipSpaceIn(text);
  // The count is read without a digit limit but is checked against the text
  // that is left instead of being trusted.
  uint64_t count = 0;
  bool too_long = false;
  for (int next = text.Peek(); IsDigitByte(next); next = text.Peek()) {
    count = count * 10 + static_cast<uint64_t>(text.Next() - '0');
    if (count > UINT32_MAX) {
      too_long = true;
      count = UINT32_MAX;
    }
  }
  Result result = ExpectLiteralIn(text, ":");
  if (result == kOvershoot) return VELK2_ERR_BUFFER_OVERFLOW;
  if (result != VELK2_SUCCESS) return result;
  const uint8_t* bytes = nullptr;
  if (too_long || !text.Take(count, &bytes)) return VELK2_ERR_BUFFER_OVERFLOW;
  Ref<SexpAtom> atom = SexpAtom::New(context);
  result = atom->AssignBytes(bytes, static_cast<uint32_t>(count));
  if (result != VELK2_SUCCESS) return result;
  *out = std::move(atom);
  return VELK2_SUCCESS;
}

Result LengthPrefixedListIn(Ref<SexpList>* out, ByteCursor& text, Velk2Context* context,
                            uint32_t depth) {
  SkipSpaceIn(text);
  Result result = ExpectLiteralIn(text, "(");
  // Past the end the text has ended inside the list.
  if (result == kOvershoot) return VELK2_ERR_INVALID_S_EXPRESSION;
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpList> list = SexpList::New(context);
  if (IsTextEnd(text.Peek())) return VELK2_ERR_INVALID_S_EXPRESSION;
  if (text.Peek() == ')') {
    // The ")" of an empty list stays unread.
    *out = std::move(list);
    return VELK2_SUCCESS;
  }
  Ref<SexpAtom> first;
  result = LengthPrefixedAtomIn(&first, text, context);
  if (result == VELK2_SUCCESS) result = list->Append(std::move(first));
  if (result != VELK2_SUCCESS) return result;
  for (;;) {
    SkipSpaceIn(text);
    const int next = text.Peek();
    if (IsTextEnd(next)) return VELK2_ERR_INVALID_S_EXPRESSION;
    if (text.Match(")")) break;
    if (next == '(') {
      if (depth >= kMaxReadDepth) return VELK2_ERR_INVALID_S_EXPRESSION;
      Ref<SexpList> child;
      result = LengthPrefixedListIn(&child, text, context, depth + 1);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(child));
    } else {
      Ref<SexpAtom> atom;
      result = LengthPrefixedAtomIn(&atom, text, context);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(atom));
    }
    if (result != VELK2_SUCCESS) return result;
  }
  *out = std::move(list);
  return VELK2_SUCCESS;
}

// The caller's text and position as a cursor; the position goes back to the
// caller when the parse ends, whatever its result. A position past the end
// (a literal skipped over the end) stays where the caller had it.
class TextPosition {
 public:
  TextPosition(const char* text, size_t length, size_t* position)
      : cursor_(text, length), position_(position), valid_(cursor_.Seek(*position)) {}
  ~TextPosition() {
    if (valid_) *position_ = cursor_.position();
  }
  TextPosition(const TextPosition&) = delete;
  TextPosition& operator=(const TextPosition&) = delete;

  bool valid() const { return valid_; }
  ByteCursor& cursor() { return cursor_; }

 private:
  ByteCursor cursor_;
  size_t* position_;
  bool valid_;
};

}  // namespace

// ---- Canonical reader --------------------------------------------------------

namespace {

Result ReadHint(ByteCursor& bytes, DisplayHint* hint) {
  *hint = kHintNone;
  if (!bytes.Match("[")) return VELK2_SUCCESS;
  char text[kMaxHintText];
  size_t size = 0;
  for (;;) {
    const int next = bytes.Next();
    if (next == ']') break;
    if (next == -1 || size == kMaxHintText) return VELK2_ERR_PARSE_FILE;
    text[size++] = static_cast<char>(next);
  }
  *hint = HintFromText(text, size);
  return *hint == kHintNone ? VELK2_ERR_PARSE_FILE : VELK2_SUCCESS;
}

// "n:" and n bytes.
Result ReadAtomBytes(ByteCursor& bytes, std::string_view* value) {
  uint32_t length = 0;
  for (int digits = 0; IsDigitByte(bytes.Peek()); ++digits) {
    if (digits == kMaxLengthDigits) return VELK2_ERR_MAX_BYTE_STRING;
    length = length * 10 + static_cast<uint32_t>(bytes.Next() - '0');
  }
  if (length > kMaxAtomLength) return VELK2_ERR_MAX_BYTE_STRING;
  // The ":" as the source's required literal: past the end, the position
  // moves to the end.
  if (bytes.at_end()) return VELK2_ERR_FILE_OPEN;
  if (!bytes.Match(":")) return VELK2_ERR_INVALID_DATA;
  const uint8_t* start = nullptr;
  if (!bytes.Take(length, &start)) {
    // A short atom is read to the end of the data, where its failure lies.
    bytes.Seek(bytes.size());
    return VELK2_ERR_PARSE_FILE;
  }
  *value = std::string_view(reinterpret_cast<const char*>(start), length);
  return VELK2_SUCCESS;
}

}  // namespace

Result ReadAtomSpan(ByteCursor& bytes, std::string_view* value, DisplayHint* hint) {
  const Result result = ReadHint(bytes, hint);
  return result != VELK2_SUCCESS ? result : ReadAtomBytes(bytes, value);
}

Result ParseCanonicalAtom(SexpAtom* atom, SexpSource* source) {
  if (source == nullptr || atom == nullptr) return VELK2_ERR_PARAM_NULL;
  ByteCursor& bytes = *source->cursor();
  DisplayHint hint = kHintNone;
  Result result = ReadHint(bytes, &hint);
  if (result != VELK2_SUCCESS) return result;
  // From here on a failure leaves the atom empty.
  std::string_view value;
  result = ReadAtomBytes(bytes, &value);
  if (result == VELK2_SUCCESS) {
    result = atom->AssignBytes(value.data(), static_cast<uint32_t>(value.size()), kHintNone);
  }
  if (result != VELK2_SUCCESS) {
    atom->ClearBytes();
    return result;
  }
  atom->set_hint(hint);
  return VELK2_SUCCESS;
}

Result ReadCanonicalAtom(Ref<SexpAtom>* out, SexpSource* source, Velk2Context* context) {
  if (out == nullptr) return VELK2_ERR_PARAM_NULL;
  if (*out != nullptr) return VELK2_ERR_INVALID_PARAM;
  if (source == nullptr) return VELK2_ERR_PARAM_NULL;
  return Guard([&]() -> Result {
    Ref<SexpAtom> atom = SexpAtom::New(context);
    Result result = ParseCanonicalAtom(atom.get(), source);
    if (result == VELK2_SUCCESS) *out = std::move(atom);
    return result;
  });
}

Result ParseCanonicalList(Ref<SexpList>* out, SexpSource* source, Velk2Context* context) {
  if (out == nullptr || *out != nullptr || source == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&] {
    std::vector<Ref<SexpObject>> pending;
    pending.reserve(64);
    return ParseCanonicalListAt(out, source, context, 1, pending);
  });
}

// ---- Text parsers --------------------------------------------------------------

void SkipSpace(const char* text, size_t* position) {
  SkipSpace(text, std::strlen(text), position);
}

void SkipSpace(const char* text, size_t length, size_t* position) {
  TextPosition at(text, length, position);
  if (at.valid()) SkipSpaceIn(at.cursor());
}

Result ExpectLiteralBounded(const char* literal, const char* text, size_t length,
                            size_t* position) {
  if (literal == nullptr || text == nullptr || position == nullptr) return VELK2_ERR_INVALID_PARAM;
  const size_t start = *position;
  const size_t size = std::strlen(literal);
  if (start >= size) {
    // Nothing is compared: the literal is skipped, wherever that leads.
    *position = start + size;
    return VELK2_SUCCESS;
  }
  // Every byte compared lies inside the text, so the literal ends inside it too.
  TextPosition at(text, length, position);
  if (!at.valid()) return VELK2_ERR_BUFFER_OVERFLOW;
  return ExpectLiteralIn(at.cursor(), std::string_view(literal, size));
}

Result ParseToken(Ref<SexpAtom>* out, const char* text, size_t* position, Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr || position == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&]() -> Result {
    TextPosition at(text, std::strlen(text), position);
    if (!at.valid()) return VELK2_ERR_INVALID_PARAM;
    return TokenIn(out, at.cursor(), context);
  });
}

Result ParseTextList(Ref<SexpList>* out, const char* text, size_t* position,
                     Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr || position == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&]() -> Result {
    TextPosition at(text, std::strlen(text), position);
    if (!at.valid()) return VELK2_ERR_INVALID_PARAM;
    return TextListIn(out, at.cursor(), context, 1);
  });
}

Result ParseTextSequence(Ref<SexpList>* out, const char* text, const char* keyword,
                         Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&]() -> Result {
    Ref<SexpList> list;
    Result result = NewKeywordList(&list, keyword, context);
    if (result != VELK2_SUCCESS) return result;
    ByteCursor in(text, std::strlen(text));
    for (;;) {
      SkipSpaceIn(in);
      const int next = in.Peek();
      if (IsTextEnd(next)) break;
      if (next == '(') {
        Ref<SexpList> child;
        result = TextListIn(&child, in, context, 2);
        if (result == VELK2_SUCCESS) result = list->Append(std::move(child));
      } else if (next == ')') {
        // A token would be empty here and the scan would not move on.
        return VELK2_ERR_UNEXPECTED_CHAR;
      } else {
        Ref<SexpAtom> token;
        result = TokenIn(&token, in, context);
        if (result == VELK2_SUCCESS) result = list->Append(std::move(token));
      }
      if (result != VELK2_SUCCESS) return result;
    }
    *out = std::move(list);
    return VELK2_SUCCESS;
  });
}

Result ParseLengthPrefixedAtom(Ref<SexpAtom>* out, const char* text, size_t length,
                               size_t* position, Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr || length == 0 || position == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&]() -> Result {
    TextPosition at(text, length, position);
    if (!at.valid()) return VELK2_ERR_BUFFER_OVERFLOW;
    return LengthPrefixedAtomIn(out, at.cursor(), context);
  });
}

Result ParseLengthPrefixedList(Ref<SexpList>* out, const char* text, size_t length,
                               size_t* position, Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr || position == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&]() -> Result {
    TextPosition at(text, length, position);
    if (!at.valid()) return VELK2_ERR_INVALID_S_EXPRESSION;
    return LengthPrefixedListIn(out, at.cursor(), context, 1);
  });
}

Result ReadTagText(const char* text, Velk2Context* context, Ref<SexpList>* out) {
  return ParseTextSequence(out, text, "tag", context);
}

}  // namespace velk2
