// The readable display form.
#include "sexp/display.h"

#include <cstdint>
#include <cstring>

#include "frame/guard.h"
#include "platform/utf.h"
#include "sexp/char_class.h"
#include "sexp/reader.h"

namespace velk2 {
namespace {

using sexp_internal::IsPrintableByte;

// A list whose one-line form is at most this long is kept on one line.
constexpr size_t kInlineLimit = 64;
// Binary atoms up to this many bytes are shown in hex, longer ones in base64.
constexpr uint32_t kMaxHexBytes = 16;

bool IsTokenByte(unsigned char c) {
  static constexpr char kMarks[] = "-./_:*+=";
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::memchr(kMarks, c, sizeof(kMarks) - 1) != nullptr;  // not strchr: it finds a NUL
}

void AppendHexAtom(const uint8_t* bytes, uint32_t length, std::string* out) {
  out->push_back('#');
  AppendHex(out, bytes, length);
  out->push_back('#');
}

void AppendBase64(const uint8_t* bytes, uint32_t length, std::string* out) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  out->push_back('|');
  uint32_t i = 0;
  for (; i + 3 <= length; i += 3) {
    const uint32_t group =
        (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    out->push_back(kAlphabet[(group >> 18) & 63]);
    out->push_back(kAlphabet[(group >> 12) & 63]);
    out->push_back(kAlphabet[(group >> 6) & 63]);
    out->push_back(kAlphabet[group & 63]);
  }
  if (i < length) {
    const bool two = i + 1 < length;
    const uint32_t group = (uint32_t{bytes[i]} << 16) | (two ? uint32_t{bytes[i + 1]} << 8 : 0);
    out->push_back(kAlphabet[(group >> 18) & 63]);
    out->push_back(kAlphabet[(group >> 12) & 63]);
    out->push_back(two ? kAlphabet[(group >> 6) & 63] : '=');
    out->push_back('=');
  }
  out->push_back('|');
}

void AppendAtom(const SexpAtom& atom, std::string* out) {
  switch (atom.hint()) {
    case kHintBin:
      out->append("[bin]");
      break;
    case kHintUtf8:
      out->append("[utf-8]");
      break;
    case kHintNum:
      out->append("[num]");
      break;
    default:
      break;
  }
  const uint8_t* bytes = atom.data();
  const uint32_t length = atom.length();
  bool token = length != 0;
  bool printable = true;
  for (uint32_t i = 0; i < length; ++i) {
    token = token && IsTokenByte(bytes[i]);
    printable = printable && IsPrintableByte(bytes[i]);
  }
  if (token) {
    out->append(reinterpret_cast<const char*>(bytes), length);
  } else if (printable) {
    out->push_back('"');
    for (uint32_t i = 0; i < length; ++i) {
      if (bytes[i] == '"' || bytes[i] == '\\') out->push_back('\\');
      out->push_back(static_cast<char>(bytes[i]));
    }
    out->push_back('"');
  } else if (length <= kMaxHexBytes) {
    AppendHexAtom(bytes, length, out);
  } else {
    AppendBase64(bytes, length, out);
  }
}

// Appends the one-line form of |object| to |out|; false (|out| then holds
// partial text) as soon as it grows past |limit| bytes. Lists nested past the
// writers' limit are cut to "(...)", which bounds the recursion.
bool AppendInline(const SexpObject& object, uint32_t depth, size_t limit, std::string* out) {
  if (const SexpAtom* atom = object.AsAtom()) {
    AppendAtom(*atom, out);
    return out->size() <= limit;
  }
  if (depth >= kMaxWriteDepth) {
    out->append("(...)");
    return out->size() <= limit;
  }
  const SexpList* list = object.AsList();
  out->push_back('(');
  if (out->size() > limit) return false;
  for (size_t i = 0; i < list->ChildCount(); ++i) {
    if (i > 0) out->push_back(' ');
    if (!AppendInline(*list->ChildAt(i), depth + 1, limit, out)) return false;
  }
  out->push_back(')');
  return out->size() <= limit;
}

void AppendIndent(uint32_t depth, std::string* out) {
  out->append(size_t{depth} * 2, ' ');
}

void AppendElement(const SexpObject& object, uint32_t depth, std::string* out) {
  if (const SexpAtom* atom = object.AsAtom()) {
    AppendAtom(*atom, out);
    return;
  }
  if (depth >= kMaxWriteDepth) {
    out->append("(...)");
    return;
  }
  std::string line;
  if (AppendInline(object, depth, kInlineLimit, &line)) {
    out->append(line);
    return;
  }
  const SexpList* list = object.AsList();
  out->push_back('(');
  size_t first = 0;
  if (list->ChildCount() > 0 && !list->ChildAt(0)->IsList()) {
    AppendAtom(*list->ChildAt(0)->AsAtom(), out);
    first = 1;
  }
  for (size_t i = first; i < list->ChildCount(); ++i) {
    out->push_back('\n');
    AppendIndent(depth + 1, out);
    AppendElement(*list->ChildAt(i), depth + 1, out);
  }
  out->push_back(')');
}

}  // namespace

Result ReadCanonicalElements(SexpSource* source, Velk2Context* context,
                             std::vector<Ref<SexpObject>>* elements) {
  if (source == nullptr || elements == nullptr) return VELK2_ERR_PARAM_NULL;
  return Guard([&]() -> Result {
    bool any = false;
    for (int next = source->GetByte(false); next != -1; next = source->GetByte(false)) {
      any = true;
      Result result;
      if (next == '(') {
        Ref<SexpList> list;
        result = ParseCanonicalList(&list, source, context);
        if (result == VELK2_SUCCESS) elements->push_back(std::move(list));
      } else {
        Ref<SexpAtom> atom;
        result = ReadCanonicalAtom(&atom, source, context);
        if (result == VELK2_SUCCESS) elements->push_back(std::move(atom));
      }
      if (result != VELK2_SUCCESS) return result;
    }
    return any ? VELK2_SUCCESS : VELK2_ERR_PARSE_FILE;
  });
}

std::string FormatReadable(const SexpObject& object) {
  std::string out;
  AppendElement(object, 0, &out);
  out.push_back('\n');
  return out;
}

std::string FormatReadableLine(const SexpObject& object) {
  std::string out;
  AppendInline(object, 0, SIZE_MAX, &out);
  return out;
}

}  // namespace velk2
