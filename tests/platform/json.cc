#include "platform/json.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace velk2::testing {
namespace {

using Type = JsonValue::Type;

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool Document(JsonValue* out) {
    if (!Value(out, 0)) return false;
    SkipSpace();
    return pos_ == text_.size() || Fail("trailing data");
  }

  std::string error;

 private:
  bool Fail(const char* what) {
    if (error.empty()) error = std::string(what) + " at offset " + std::to_string(pos_);
    return false;
  }

  void SkipSpace() {
    while (pos_ < text_.size() && std::string_view(" \t\n\r").find(text_[pos_]) != text_.npos) {
      ++pos_;
    }
  }

  // Consumes the next byte after white space when it is |want|.
  bool Next(char want) {
    SkipSpace();
    return pos_ < text_.size() && text_[pos_] == want && (++pos_, true);
  }

  bool Value(JsonValue* out, int depth) {
    if (depth > kMaxJsonDepth) return Fail("nesting too deep");
    SkipSpace();
    if (pos_ >= text_.size()) return Fail("unexpected end");
    const char c = text_[pos_];
    if (c == '{' || c == '[') return Container(out, depth, c == '{');
    if (c == '"') {
      out->type = Type::kString;
      return String(&out->text);
    }
    for (std::string_view word : {"true", "false", "null"}) {
      if (text_.substr(pos_, word.size()) == word) {
        pos_ += word.size();
        out->type = word == "null" ? Type::kNull : Type::kBool;
        out->boolean = word == "true";
        return true;
      }
    }
    const size_t start = pos_;
    while (pos_ < text_.size() &&
           std::string_view("+-0123456789.eE").find(text_[pos_]) != text_.npos) {
      ++pos_;
    }
    if (pos_ == start) return Fail("unexpected character");
    const std::string digits(text_.substr(start, pos_ - start));
    char* end = nullptr;
    out->type = Type::kNumber;
    out->number = std::strtod(digits.c_str(), &end);
    return end == digits.c_str() + digits.size() || Fail("bad number");
  }

  // An object or an array, from its opening bracket.
  bool Container(JsonValue* out, int depth, bool object) {
    out->type = object ? Type::kObject : Type::kArray;
    ++pos_;
    const char close = object ? '}' : ']';
    if (Next(close)) return true;
    do {
      JsonMember member;
      if (object && (!String(&member.name) || !Next(':'))) return Fail("expected a member name");
      if (!Value(&member.value, depth + 1)) return false;
      if (object) {
        out->members.push_back(std::move(member));
      } else {
        out->items.push_back(std::move(member.value));
      }
    } while (Next(','));
    return Next(close) || Fail("expected ',' or a closing bracket");
  }

  // A string from its opening quote. A \u escape becomes the UTF-8 of its unit
  // and a surrogate U+FFFD: pairs are not joined, as the vectors hold none.
  bool String(std::string* out) {
    if (!Next('"')) return Fail("expected a string");
    static constexpr std::string_view kEscapes = "\"\\/bfnrt", kBytes = "\"\\/\b\f\n\r\t";
    while (pos_ < text_.size()) {
      const char c = text_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return Fail("control character in string");
      if (c != '\\') {
        out->push_back(c);
        continue;
      }
      if (pos_ >= text_.size()) break;
      const char e = text_[pos_++];
      if (kEscapes.find(e) != kEscapes.npos) {
        out->push_back(kBytes[kEscapes.find(e)]);
        continue;
      }
      const std::string hex(text_.substr(pos_, 4));
      if (e != 'u' || hex.size() != 4 ||
          !std::all_of(hex.begin(), hex.end(), [](unsigned char h) { return std::isxdigit(h); })) {
        return Fail("bad escape");
      }
      pos_ += 4;
      unsigned long unit = std::strtoul(hex.c_str(), nullptr, 16);
      if (unit >= 0xD800 && unit < 0xE000) unit = 0xFFFD;
      if (unit < 0x80) {
        out->push_back(static_cast<char>(unit));
      } else if (unit < 0x800) {
        out->append({static_cast<char>(0xC0 | unit >> 6), static_cast<char>(0x80 | (unit & 0x3F))});
      } else {
        out->append({static_cast<char>(0xE0 | unit >> 12),
                     static_cast<char>(0x80 | (unit >> 6 & 0x3F)),
                     static_cast<char>(0x80 | (unit & 0x3F))});
      }
    }
    return Fail("unterminated string");
  }

  std::string_view text_;
  size_t pos_ = 0;
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
  *error = reader.error;
  return false;
}

}  // namespace velk2::testing
