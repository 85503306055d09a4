#include "platform/json.h"

#include <cstdlib>

namespace velk2::testing {
namespace {

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool Document(JsonValue* out) {
    if (!Value(out, 0)) return false;
    SkipSpace();
    return pos_ == text_.size() || Fail("trailing data");
  }

  const std::string& error() const { return error_; }

 private:
  bool Fail(const char* what) {
    if (error_.empty()) error_ = std::string(what) + " at offset " + std::to_string(pos_);
    return false;
  }

  void SkipSpace() {
    while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' ||
                                   text_[pos_] == '\n' || text_[pos_] == '\r')) {
      ++pos_;
    }
  }

  bool Peek(char* c) {
    SkipSpace();
    if (pos_ >= text_.size()) return Fail("unexpected end");
    *c = text_[pos_];
    return true;
  }

  bool Literal(std::string_view word) {
    if (text_.substr(pos_, word.size()) != word) return Fail("bad literal");
    pos_ += word.size();
    return true;
  }

  bool Value(JsonValue* out, int depth) {
    if (depth > kMaxJsonDepth) return Fail("nesting too deep");
    char c = 0;
    if (!Peek(&c)) return false;
    switch (c) {
      case '{':
        return Object(out, depth);
      case '[':
        return Array(out, depth);
      case '"':
        out->type = JsonValue::Type::kString;
        return String(&out->text);
      case 't':
        out->type = JsonValue::Type::kBool;
        out->boolean = true;
        return Literal("true");
      case 'f':
        out->type = JsonValue::Type::kBool;
        return Literal("false");
      case 'n':
        out->type = JsonValue::Type::kNull;
        return Literal("null");
      default:
        return Number(out);
    }
  }

  bool Object(JsonValue* out, int depth) {
    out->type = JsonValue::Type::kObject;
    ++pos_;  // '{'
    char c = 0;
    if (!Peek(&c)) return false;
    if (c == '}') return ++pos_, true;
    while (true) {
      std::string key;
      if (!Peek(&c) || c != '"' || !String(&key)) return Fail("expected a member name");
      if (!Peek(&c) || c != ':') return Fail("expected ':'");
      ++pos_;
      JsonValue value;
      if (!Value(&value, depth + 1)) return false;
      out->members.push_back(JsonMember{std::move(key), std::move(value)});
      if (!Peek(&c)) return false;
      ++pos_;
      if (c == '}') return true;
      if (c != ',') return Fail("expected ',' or '}'");
    }
  }

  bool Array(JsonValue* out, int depth) {
    out->type = JsonValue::Type::kArray;
    ++pos_;  // '['
    char c = 0;
    if (!Peek(&c)) return false;
    if (c == ']') return ++pos_, true;
    while (true) {
      JsonValue value;
      if (!Value(&value, depth + 1)) return false;
      out->items.push_back(std::move(value));
      if (!Peek(&c)) return false;
      ++pos_;
      if (c == ']') return true;
      if (c != ',') return Fail("expected ',' or ']'");
    }
  }

  bool Number(JsonValue* out) {
    const size_t start = pos_;
    while (pos_ < text_.size() &&
           std::string_view("+-0123456789.eE").find(text_[pos_]) != std::string_view::npos) {
      ++pos_;
    }
    if (pos_ == start) return Fail("unexpected character");
    const std::string digits(text_.substr(start, pos_ - start));
    char* end = nullptr;
    out->type = JsonValue::Type::kNumber;
    out->number = std::strtod(digits.c_str(), &end);
    return end == digits.c_str() + digits.size() || Fail("bad number");
  }

  bool Hex4(uint32_t* unit) {
    if (text_.size() - pos_ < 4) return Fail("short \\u escape");
    *unit = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = text_[pos_++];
      const int digit = c >= '0' && c <= '9'   ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
      if (digit < 0) return Fail("bad \\u escape");
      *unit = *unit * 16 + static_cast<uint32_t>(digit);
    }
    return true;
  }

  static void AppendUtf8(std::string* out, uint32_t c) {
    if (c < 0x80) {
      out->push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out->push_back(static_cast<char>(0xC0 | (c >> 6)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out->push_back(static_cast<char>(0xE0 | (c >> 12)));
      out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out->push_back(static_cast<char>(0xF0 | (c >> 18)));
      out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }

  // Reads a string starting at its opening quote; \u escapes become UTF-8,
  // surrogate pairs joined, a lone surrogate U+FFFD.
  bool String(std::string* out) {
    ++pos_;  // '"'
    while (true) {
      if (pos_ >= text_.size()) return Fail("unterminated string");
      const char c = text_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return Fail("control character in string");
      if (c != '\\') {
        out->push_back(c);
        continue;
      }
      if (pos_ >= text_.size()) return Fail("unterminated escape");
      const char e = text_[pos_++];
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out->push_back(e);
          break;
        case 'b':
          out->push_back('\b');
          break;
        case 'f':
          out->push_back('\f');
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
        case 'u': {
          uint32_t unit = 0;
          if (!Hex4(&unit)) return false;
          if (unit >= 0xD800 && unit < 0xDC00 && text_.substr(pos_, 2) == "\\u") {
            const size_t mark = pos_;
            pos_ += 2;
            uint32_t low = 0;
            if (!Hex4(&low)) return false;
            if (low >= 0xDC00 && low < 0xE000) {
              unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
            } else {
              pos_ = mark;  // not a pair: the low unit is read on its own next
            }
          }
          AppendUtf8(out, unit >= 0xD800 && unit < 0xE000 ? 0xFFFD : unit);
          break;
        }
        default:
          return Fail("bad escape");
      }
    }
  }

  std::string_view text_;
  size_t pos_ = 0;
  std::string error_;
};

}  // namespace

const JsonValue* JsonValue::Find(std::string_view key) const {
  for (const JsonMember& member : members) {
    if (member.name == key) return &member.value;
  }
  return nullptr;
}

bool ParseJson(std::string_view text, JsonValue* out, std::string* error) {
  Reader reader(text);
  *out = JsonValue();
  if (reader.Document(out)) return true;
  *error = reader.error();
  return false;
}

}  // namespace velk2::testing
