// A small JSON reader for the test vectors (test-only). It takes the whole
// document at once, works through a bounds-checked cursor and refuses nesting
// deeper than kMaxJsonDepth.
#ifndef VELK2_TESTS_PLATFORM_JSON_H_
#define VELK2_TESTS_PLATFORM_JSON_H_

#include <string>
#include <string_view>
#include <vector>

namespace velk2::testing {

constexpr int kMaxJsonDepth = 64;

struct JsonMember;

struct JsonValue {
  enum class Type { kNull, kBool, kNumber, kString, kArray, kObject };
  Type type = Type::kNull;
  bool boolean = false;
  double number = 0;
  std::string text;  // a string's value, UTF-8
  std::vector<JsonValue> items;
  std::vector<JsonMember> members;  // an object's members, in document order

  bool IsString() const { return type == Type::kString; }
  bool IsArray() const { return type == Type::kArray; }
  bool IsObject() const { return type == Type::kObject; }
  // Find returns the member named |key| of an object, or null.
  const JsonValue* Find(std::string_view key) const;
};

struct JsonMember {
  std::string name;
  JsonValue value;
};

// ParseJson reads one JSON document. On failure it returns false and sets
// |error| to a message naming the byte offset.
bool ParseJson(std::string_view text, JsonValue* out, std::string* error);

}  // namespace velk2::testing

#endif  // VELK2_TESTS_PLATFORM_JSON_H_
