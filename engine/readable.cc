#include "engine/readable.h"

#include <new>

#include "engine/keywords.h"
#include "platform/utf.h"

namespace velk2::engine {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

bool IsTokenByte(unsigned char c) {
  if (c <= 0x20 || c >= 0x7F) return false;
  return c != '(' && c != ')' && c != '[' && c != ']' && c != '"' && c != '\\';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The readable text, read through the bounds-checked cursor. Peek and Take
// are called only where AtEnd() is false.
class Reader {
 public:
  explicit Reader(std::string_view text) : cursor_(text) {}

  bool AtEnd() const { return cursor_.at_end(); }
  char Peek() const { return static_cast<char>(cursor_.Peek()); }
  char Take() { return static_cast<char>(cursor_.Next()); }
  void SkipBlanks() {
    cursor_.SkipWhile([](uint8_t byte) { return IsBlank(static_cast<char>(byte)); });
  }

  Status Expression(std::string* out, int depth) {
    SkipBlanks();
    if (AtEnd()) return depth == 1 ? SPKI_ERR_BAD_SEXP_START : SPKI_ERR_SEXP_NOT_CLOSED;
    if (Peek() == '(') return List(out, depth);
    if (Peek() == ')') return SPKI_ERR_BAD_SEXP_FORMAT;
    return Atom(out);
  }

 private:
  Status List(std::string* out, int depth) {
    if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
    Take();  // "("
    out->push_back('(');
    bool empty = true;
    for (;;) {
      SkipBlanks();
      if (AtEnd()) return SPKI_ERR_SEXP_NOT_CLOSED;
      if (Peek() == ')') {
        Take();
        // "()" has no head; the canonical parser would refuse it the same way.
        if (empty) return SPKI_ERR_BAD_LTH_FORMAT;
        out->push_back(')');
        return SPKI_OK;
      }
      Status status = Expression(out, depth + 1);
      if (status != SPKI_OK) return status;
      empty = false;
    }
  }

  Status Atom(std::string* out) {
    std::string hint;
    if (Peek() == '[') {
      Take();
      Status status = String(&hint);
      if (status != SPKI_OK) return status;
      if (AtEnd() || Peek() != ']') return SPKI_ERR_DISP_HINT_NOT_CLOSED;
      Take();
      if (AtEnd() || IsBlank(Peek()) || Peek() == '(' || Peek() == ')') {
        return SPKI_ERR_BAD_LTH_FORMAT;  // a hint with no atom after it
      }
    }
    std::string bytes;
    Status status = String(&bytes);
    if (status != SPKI_OK) return status;
    if (!hint.empty()) {
      out->push_back('[');
      AppendString(out, hint);
      out->push_back(']');
    }
    AppendString(out, bytes);
    return SPKI_OK;
  }

  static void AppendString(std::string* out, const std::string& bytes) {
    out->append(std::to_string(bytes.size()));
    out->push_back(':');
    out->append(bytes);
  }

  // A token or a quoted string; never empty.
  Status String(std::string* out) {
    if (AtEnd()) return SPKI_ERR_SEXP_NOT_CLOSED;
    if (Peek() != '"') {
      while (!AtEnd() && IsTokenByte(static_cast<unsigned char>(Peek()))) out->push_back(Take());
      if (out->empty()) return SPKI_ERR_BAD_SEXP_FORMAT;
      return SPKI_OK;
    }
    Take();
    for (;;) {
      if (AtEnd()) return SPKI_ERR_BAD_SEXP_FORMAT;  // unterminated string
      char c = Take();
      if (c == '"') break;
      if (c != '\\') {
        out->push_back(c);
        continue;
      }
      if (AtEnd()) return SPKI_ERR_BAD_SEXP_FORMAT;
      char escape = Take();
      switch (escape) {
        case '"':
        case '\\':
          out->push_back(escape);
          break;
        case 'n':
          out->push_back('\n');
          break;
        case 'r':
          out->push_back('\r');
          break;
        case 't':
          out->push_back('\t');
          break;
        case 'x': {
          int high = AtEnd() ? -1 : HexValue(Take());
          int low = AtEnd() ? -1 : HexValue(Take());
          if (high < 0 || low < 0) return SPKI_ERR_BAD_SEXP_FORMAT;
          out->push_back(static_cast<char>(high * 16 + low));
          break;
        }
        default:
          return SPKI_ERR_BAD_SEXP_FORMAT;
      }
    }
    return out->empty() ? SPKI_ERR_BAD_LTH_FORMAT : SPKI_OK;
  }

  ByteCursor cursor_;
};

void AppendReadableString(std::string* out, const uint8_t* bytes, uint32_t length) {
  bool token = length != 0;
  for (uint32_t i = 0; i < length && token; ++i) token = IsTokenByte(bytes[i]);
  if (token) {
    out->append(reinterpret_cast<const char*>(bytes), length);
    return;
  }
  out->push_back('"');
  for (uint32_t i = 0; i < length; ++i) {
    uint8_t c = bytes[i];
    if (c == '"' || c == '\\') {
      out->push_back('\\');
      out->push_back(static_cast<char>(c));
    } else if (c >= 0x20 && c < 0x7F) {
      out->push_back(static_cast<char>(c));
    } else {
      out->append("\\x");
      AppendHex(out, &c, 1);
    }
  }
  out->push_back('"');
}

void AppendReadableAtom(std::string* out, const EngineAtom* atom) {
  if (atom->hint_length != 0) {
    out->push_back('[');
    AppendReadableString(out, atom->hint, atom->hint_length);
    out->push_back(']');
  }
  AppendReadableString(out, atom->bytes, atom->length);
}

Status AppendChain(std::string* out, const EngineNode* chain, int depth);

Status AppendElement(std::string* out, const EngineNode* node, int depth) {
  switch (node->kind) {
    case kNodeKeywordHead: {
      const KeywordText& text = KeywordTextOf(KeywordOf(node));
      AppendReadableString(out, reinterpret_cast<const uint8_t*>(text.text), text.length);
      return SPKI_OK;
    }
    case kNodeAtomHead:
    case kNodeAtom:
      if (AtomOf(node) == nullptr) return SPKI_ERR_UNKNOWN;
      AppendReadableAtom(out, AtomOf(node));
      return SPKI_OK;
    case kNodeSublist:
      return AppendChain(out, SublistOf(node), depth + 1);
    default:
      return SPKI_ERR_UNKNOWN;
  }
}

Status AppendChain(std::string* out, const EngineNode* chain, int depth) {
  if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
  out->push_back('(');
  for (const EngineNode* node = chain; node != nullptr; node = node->next) {
    if (node != chain) out->push_back(' ');
    Status status = AppendElement(out, node, depth);
    if (status != SPKI_OK) return status;
  }
  out->push_back(')');
  return SPKI_OK;
}

}  // namespace

Status ReadableToCanonical(std::string_view text, std::string* out) {
  if (out == nullptr) return SPKI_ERR_NULL_PARAM;
  out->clear();
  try {
    Reader reader(text);
    Status status = reader.Expression(out, 1);
    if (status == SPKI_OK) {
      reader.SkipBlanks();
      if (!reader.AtEnd()) status = SPKI_ERR_BAD_SEXP_FORMAT;
    }
    if (status != SPKI_OK) out->clear();
    return status;
  } catch (const std::bad_alloc&) {
    out->clear();
    return SPKI_ERR_NO_MEM;
  }
}

Status PrintReadable(const EngineNode* chain, std::string* out) {
  if (out == nullptr) return SPKI_ERR_NULL_PARAM;
  out->clear();
  try {
    Status status = AppendChain(out, chain, 1);
    if (status != SPKI_OK) out->clear();
    return status;
  } catch (const std::bad_alloc&) {
    out->clear();
    return SPKI_ERR_NO_MEM;
  }
}

Status PrintReadableElement(const EngineNode* element, std::string* out) {
  if (out == nullptr || element == nullptr) return SPKI_ERR_NULL_PARAM;
  out->clear();
  try {
    Status status = AppendElement(out, element, 0);
    if (status != SPKI_OK) out->clear();
    return status;
  } catch (const std::bad_alloc&) {
    out->clear();
    return SPKI_ERR_NO_MEM;
  }
}

}  // namespace velk2::engine
