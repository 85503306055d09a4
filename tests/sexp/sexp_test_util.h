// Helpers of the S-expression tests: parse canonical text, render the output
// forms as strings.
#ifndef VELK2_TESTS_SEXP_SEXP_TEST_UTIL_H_
#define VELK2_TESTS_SEXP_SEXP_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "sexp/object.h"
#include "sexp/reader.h"
#include "sexp/source.h"

namespace velk2::testing {

// Parses |text| as one canonical list; null (with a test failure) when it does not parse.
inline Ref<SexpList> ParseList(std::string_view text) {
  SexpMemorySource source;
  EXPECT_EQ(source.AttachCopy(text.data(), text.size()), VELK2_SUCCESS);
  Ref<SexpList> list;
  Result result = ParseCanonicalList(&list, &source, nullptr);
  EXPECT_EQ(result, VELK2_SUCCESS) << "parsing " << text;
  return list;
}

inline Ref<SexpAtom> MakeAtom(std::string_view bytes, DisplayHint hint = kHintNone) {
  Ref<SexpAtom> atom = SexpAtom::New();
  EXPECT_EQ(atom->AssignBytes(bytes.data(), static_cast<uint32_t>(bytes.size()), hint),
            VELK2_SUCCESS);
  return atom;
}

// The canonical form, written into a buffer one byte larger than needed (a
// list's own writer wants that byte).
inline std::string CanonicalOf(const SexpObject& object) {
  const uint32_t size = object.CanonicalLength();
  std::vector<uint8_t> buffer(size + 1);
  uint32_t position = 0;
  EXPECT_EQ(object.WriteCanonical(buffer.data(), &position, size + 1), VELK2_SUCCESS);
  EXPECT_EQ(position, size);
  return std::string(buffer.begin(), buffer.begin() + position);
}

// The stored form, as WriteToFile writes it.
inline std::string StoredOf(const SexpObject& object) {
  std::string stored = StoredForm(object);
  EXPECT_FALSE(stored.empty());
  return stored;
}

// The text form up to the writer's final position (binary bytes included).
inline std::string AdvancedOf(const SexpObject& object) {
  const uint32_t capacity = object.AdvancedLength() + 1;
  std::vector<char> buffer(capacity);
  uint32_t position = 0;
  EXPECT_EQ(object.WriteAdvanced(buffer.data(), &position, capacity), VELK2_SUCCESS);
  EXPECT_LT(position, capacity);
  EXPECT_EQ(buffer[position], '\0');
  return std::string(buffer.data(), position);
}

// The tokens EmitTokens hands out, in order.
inline std::vector<std::string> TokensOf(const SexpObject& object, uint32_t depth = 0) {
  std::vector<std::string> tokens;
  auto collect = [](const char* bytes, size_t count, void* user) {
    static_cast<std::vector<std::string>*>(user)->emplace_back(bytes, count);
    return 0;
  };
  EXPECT_EQ(object.EmitTokens(collect, &tokens, depth), VELK2_SUCCESS);
  return tokens;
}

// A chain of |depth| nested lists: (((...))).
inline Ref<SexpList> NestedChain(uint32_t depth) {
  Ref<SexpList> inner = SexpList::New();
  for (uint32_t i = 1; i < depth; ++i) {
    Ref<SexpList> outer = SexpList::New();
    EXPECT_EQ(outer->Append(std::move(inner)), VELK2_SUCCESS);
    inner = std::move(outer);
  }
  return inner;
}

}  // namespace velk2::testing

#endif  // VELK2_TESTS_SEXP_SEXP_TEST_UTIL_H_
