// The canonical reader and the text parsers.
#include "sexp/reader.h"

#include <cstring>

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

Result ParseCanonicalListAt(Ref<SexpList>* out, SexpSource* source, Velk2Context* context,
                            uint32_t depth) {
  Result result = source->Expect("(", 1, kExpectRequired);
  if (result != VELK2_SUCCESS) return result;
  // The byte loop peeks through the source's cursor, not a virtual call.
  ByteCursor& bytes = *source->cursor();
  Ref<SexpList> list = SexpList::New(context);
  for (;;) {
    const int next = bytes.Peek();
    if (next == ')' || next == -1) break;
    if (next == '(') {
      if (depth >= kMaxReadDepth) return VELK2_ERR_PARSE_FILE;
      Ref<SexpList> child;
      result = ParseCanonicalListAt(&child, source, context, depth + 1);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(child));
    } else {
      Ref<SexpAtom> atom = SexpAtom::New(context);
      result = ParseCanonicalAtom(atom.get(), source);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(atom));
    }
    if (result != VELK2_SUCCESS) return result;
  }
  result = source->Expect(")", 1, kExpectRequired);
  if (result != VELK2_SUCCESS) return result;
  *out = std::move(list);
  return VELK2_SUCCESS;
}

// The first byte of the text, or 0 at the end of a bounded text.
char ByteAt(const char* text, size_t length, size_t position) {
  return position < length ? text[position] : '\0';
}

Result ParseTextListAt(Ref<SexpList>* out, const char* text, size_t* position,
                       Velk2Context* context, uint32_t depth) {
  SkipSpace(text, position);
  if (text[*position] != '(') return VELK2_ERR_UNEXPECTED_CHAR;
  ++*position;
  Ref<SexpAtom> first;
  Result result = ParseToken(&first, text, position, context);
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpList> list = SexpList::New(context);
  result = list->Append(std::move(first));
  if (result != VELK2_SUCCESS) return result;
  for (;;) {
    SkipSpace(text, position);
    const char next = text[*position];
    if (next == '\0') return VELK2_ERR_INVALID_S_EXPRESSION;
    if (next == ')') {
      ++*position;
      break;
    }
    if (next == '(') {
      if (depth >= kMaxReadDepth) return VELK2_ERR_INVALID_S_EXPRESSION;
      Ref<SexpList> child;
      result = ParseTextListAt(&child, text, position, context, depth + 1);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(child));
    } else {
      Ref<SexpAtom> token;
      result = ParseToken(&token, text, position, context);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(token));
    }
    if (result != VELK2_SUCCESS) return result;
  }
  *out = std::move(list);
  return VELK2_SUCCESS;
}

Result ParseLengthPrefixedListAt(Ref<SexpList>* out, const char* text, size_t length,
                                 size_t* position, Velk2Context* context, uint32_t depth) {
  SkipSpace(text, length, position);
  Result result = ExpectLiteralBounded("(", text, length, position);
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpList> list = SexpList::New(context);
  char next = ByteAt(text, length, *position);
  if (next == '\0') return VELK2_ERR_INVALID_S_EXPRESSION;
  if (next == ')') {
    // The ")" of an empty list stays unread.
    *out = std::move(list);
    return VELK2_SUCCESS;
  }
  Ref<SexpAtom> first;
  result = ParseLengthPrefixedAtom(&first, text, length, position, context);
  if (result == VELK2_SUCCESS) result = list->Append(std::move(first));
  if (result != VELK2_SUCCESS) return result;
  for (;;) {
    SkipSpace(text, length, position);
    next = ByteAt(text, length, *position);
    if (next == '\0') return VELK2_ERR_INVALID_S_EXPRESSION;
    if (next == ')') {
      ++*position;
      break;
    }
    if (next == '(') {
      if (depth >= kMaxReadDepth) return VELK2_ERR_INVALID_S_EXPRESSION;
      Ref<SexpList> child;
      result = ParseLengthPrefixedListAt(&child, text, length, position, context, depth + 1);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(child));
    } else {
      Ref<SexpAtom> atom;
      result = ParseLengthPrefixedAtom(&atom, text, length, position, context);
      if (result == VELK2_SUCCESS) result = list->Append(std::move(atom));
    }
    if (result != VELK2_SUCCESS) return result;
  }
  *out = std::move(list);
  return VELK2_SUCCESS;
}

}  // namespace

// ---- Canonical reader --------------------------------------------------------

Result ParseCanonicalAtom(SexpAtom* atom, SexpSource* source) {
  if (source == nullptr || atom == nullptr) return VELK2_ERR_PARAM_NULL;

  ByteCursor& bytes = *source->cursor();
  DisplayHint hint = kHintNone;
  if (bytes.Match("[")) {
    char text[kMaxHintText];
    size_t size = 0;
    for (;;) {
      const int next = bytes.Next();
      if (next == ']') break;
      if (next == -1 || size == kMaxHintText) return VELK2_ERR_PARSE_FILE;
      text[size++] = static_cast<char>(next);
    }
    hint = HintFromText(text, size);
    if (hint == kHintNone) return VELK2_ERR_PARSE_FILE;
  }

  // From here on a failure leaves the atom empty.
  auto fail = [atom](Result code) {
    atom->ClearBytes();
    return code;
  };
  uint32_t length = 0;
  for (int digits = 0; IsDigitByte(bytes.Peek()); ++digits) {
    if (digits == kMaxLengthDigits) return fail(VELK2_ERR_MAX_BYTE_STRING);
    length = length * 10 + static_cast<uint32_t>(bytes.Next() - '0');
  }
  if (length > kMaxAtomLength) return fail(VELK2_ERR_MAX_BYTE_STRING);
  Result result = source->Expect(":", 1, kExpectRequired);
  if (result != VELK2_SUCCESS) return fail(result);
  const uint8_t* value = nullptr;
  if (!bytes.Take(length, &value)) {
    // A short atom is read to the end of the data, where its failure lies.
    bytes.Seek(bytes.size());
    return fail(VELK2_ERR_PARSE_FILE);
  }
  result = atom->AssignBytes(value, length, kHintNone);
  if (result != VELK2_SUCCESS) return fail(result);
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
  return Guard([&] { return ParseCanonicalListAt(out, source, context, 1); });
}

// ---- Text parsers --------------------------------------------------------------

void SkipSpace(const char* text, size_t* position) {
  while (IsSpaceByte(static_cast<unsigned char>(text[*position]))) ++*position;
}

void SkipSpace(const char* text, size_t length, size_t* position) {
  while (*position < length && IsSpaceByte(static_cast<unsigned char>(text[*position]))) {
    ++*position;
  }
}

Result ExpectLiteralBounded(const char* literal, const char* text, size_t length,
                            size_t* position) {
  if (literal == nullptr || text == nullptr || position == nullptr) return VELK2_ERR_INVALID_PARAM;
  const size_t start = *position;
  const size_t size = std::strlen(literal);
  for (size_t i = start; i < size; ++i) {
    if (start + i >= length) return VELK2_ERR_BUFFER_OVERFLOW;
    if (text[start + i] != literal[i]) return VELK2_ERR_UNEXPECTED_CHAR;
  }
  *position = start + size;
  return VELK2_SUCCESS;
}

Result ParseToken(Ref<SexpAtom>* out, const char* text, size_t* position, Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr || position == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  SkipSpace(text, position);
  size_t end = *position;
  for (;;) {
    const char next = text[end];
    if (next == '\0' || next == '(' || next == ')' ||
        IsSpaceByte(static_cast<unsigned char>(next))) {
      break;
    }
    ++end;
  }
  if (end - *position > UINT32_MAX) return VELK2_ERR_MEM_ALLOC;
  return Guard([&]() -> Result {
    Ref<SexpAtom> atom = SexpAtom::New(context);
    Result result = atom->AssignBytes(text + *position, static_cast<uint32_t>(end - *position));
    if (result != VELK2_SUCCESS) return result;
    *position = end;
    *out = std::move(atom);
    return VELK2_SUCCESS;
  });
}

Result ParseTextList(Ref<SexpList>* out, const char* text, size_t* position,
                     Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr || position == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&] { return ParseTextListAt(out, text, position, context, 1); });
}

Result ParseTextSequence(Ref<SexpList>* out, const char* text, const char* keyword,
                         Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&]() -> Result {
    Ref<SexpList> list;
    Result result = NewKeywordList(&list, keyword, context);
    if (result != VELK2_SUCCESS) return result;
    size_t position = 0;
    for (;;) {
      SkipSpace(text, &position);
      const char next = text[position];
      if (next == '\0') break;
      if (next == '(') {
        Ref<SexpList> child;
        result = ParseTextListAt(&child, text, &position, context, 2);
        if (result == VELK2_SUCCESS) result = list->Append(std::move(child));
      } else if (next == ')') {
        // A token would be empty here and the scan would not move on.
        return VELK2_ERR_UNEXPECTED_CHAR;
      } else {
        Ref<SexpAtom> token;
        result = ParseToken(&token, text, &position, context);
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
  SkipSpace(text, length, position);
  // The count is read without a digit limit but is checked against the text
  // that is left instead of being trusted.
  uint64_t count = 0;
  bool too_long = false;
  while (*position < length && IsDigitByte(static_cast<unsigned char>(text[*position]))) {
    count = count * 10 + static_cast<uint64_t>(text[*position] - '0');
    if (count > UINT32_MAX) {
      too_long = true;
      count = UINT32_MAX;
    }
    ++*position;
  }
  Result result = ExpectLiteralBounded(":", text, length, position);
  if (result != VELK2_SUCCESS) return result;
  if (too_long || *position > length || count > length - *position) {
    return VELK2_ERR_BUFFER_OVERFLOW;
  }
  return Guard([&]() -> Result {
    Ref<SexpAtom> atom = SexpAtom::New(context);
    result = atom->AssignBytes(text + *position, static_cast<uint32_t>(count));
    if (result != VELK2_SUCCESS) return result;
    *position += count;
    *out = std::move(atom);
    return VELK2_SUCCESS;
  });
}

Result ParseLengthPrefixedList(Ref<SexpList>* out, const char* text, size_t length,
                               size_t* position, Velk2Context* context) {
  if (out == nullptr || *out != nullptr || text == nullptr || position == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&] { return ParseLengthPrefixedListAt(out, text, length, position, context, 1); });
}

}  // namespace velk2
