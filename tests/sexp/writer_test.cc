// The writers: their overflow rules at the exact boundary sizes, the file
// writer, tokens, and the nesting limit of every recursive output.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "sexp_test_util.h"

namespace velk2 {
namespace {

using testing::CanonicalOf;
using testing::MakeAtom;
using testing::NestedChain;
using testing::ParseList;
using testing::StoredOf;
using testing::TokensOf;

struct BoundaryCase {
  uint32_t start;
  uint32_t capacity;
  Result want;
  std::string written;  // the buffer from |start| up to the final position
};

// Runs the canonical or the text writer of |object| over a heap buffer of
// exactly |capacity| bytes, so that any write past it is caught by the sanitizer.
void CheckBoundaries(const SexpObject& object, bool canonical,
                     const std::vector<BoundaryCase>& cases) {
  for (const BoundaryCase& c : cases) {
    std::vector<char> buffer(c.capacity, '.');
    uint32_t position = c.start;
    const Result result = canonical
                              ? object.WriteCanonical(reinterpret_cast<uint8_t*>(buffer.data()),
                                                      &position, c.capacity)
                              : object.WriteAdvanced(buffer.data(), &position, c.capacity);
    EXPECT_EQ(result, c.want) << CanonicalOf(object) << " capacity " << c.capacity;
    ASSERT_GE(position, c.start);
    ASSERT_LE(position, c.capacity);
    EXPECT_EQ(std::string(buffer.data() + c.start, position - c.start), c.written)
        << CanonicalOf(object) << " capacity " << c.capacity;
  }
}

TEST(SexpWriter, CanonicalBoundaries) {
  CheckBoundaries(*MakeAtom("abc", kHintBin), true,
                  {
                      {0, 5, VELK2_SUCCESS, "3:abc"},           // an exact fit
                      {0, 4, VELK2_ERR_BUFFER_OVERFLOW, "3:"},  // the header stays
                      {0, 2, VELK2_ERR_BUFFER_OVERFLOW, "3:"},
                      {0, 1, VELK2_ERR_BUFFER_OVERFLOW, ""},
                      {3, 8, VELK2_SUCCESS, "3:abc"},
                      {3, 7, VELK2_ERR_BUFFER_OVERFLOW, "3:"},
                  });
  CheckBoundaries(*SexpAtom::New(), true,
                  {{0, 2, VELK2_SUCCESS, "0:"}, {0, 1, VELK2_ERR_BUFFER_OVERFLOW, ""}});
  // A list needs one byte beyond its text.
  CheckBoundaries(*ParseList("(1:a)"), true,
                  {
                      {0, 6, VELK2_SUCCESS, "(1:a)"},
                      {0, 5, VELK2_ERR_BUFFER_OVERFLOW, "(1:a"},  // fails at the ")"
                      {0, 4, VELK2_ERR_BUFFER_OVERFLOW, "(1:a"},
                      {0, 3, VELK2_ERR_BUFFER_OVERFLOW, "(1:"},  // data skipped, ")" fails
                      {0, 2, VELK2_ERR_BUFFER_OVERFLOW, "("},
                      {0, 1, VELK2_ERR_BUFFER_OVERFLOW, ""},
                  });
  // A child that does not fit is passed over on purpose and the next one
  // still written; only the ")" check reports an overflow.
  CheckBoundaries(*ParseList("(9:abcdefghi1:x)"), true,
                  {{0, 8, VELK2_SUCCESS, "(9:1:x)"}, {0, 7, VELK2_ERR_BUFFER_OVERFLOW, "(9:1:x"}});
}

TEST(SexpWriter, AdvancedBoundaries) {
  CheckBoundaries(*MakeAtom("abc"), false,
                  {
                      {0, 5, VELK2_SUCCESS, "abc"},
                      {0, 4, VELK2_ERR_BUFFER_OVERFLOW, ""},
                      {2, 7, VELK2_SUCCESS, "abc"},
                      {2, 6, VELK2_ERR_BUFFER_OVERFLOW, ""},
                  });
  CheckBoundaries(*ParseList("(1:a1:b)"), false,
                  {
                      {0, 7, VELK2_SUCCESS, "(a b)"},  // ")" and its NUL fit
                      {0, 6, VELK2_ERR_BUFFER_OVERFLOW, "(a b"},
                      {0, 5, VELK2_ERR_BUFFER_OVERFLOW, "(a "},
                      {0, 1, VELK2_ERR_BUFFER_OVERFLOW, ""},
                  });
  // Children that do not fit leave only their separators, which must stay
  // inside the buffer however many follow.
  CheckBoundaries(*ParseList("(1:a3:bbb3:ccc3:ddd3:eee)"), false,
                  {
                      {0, 4, VELK2_ERR_BUFFER_OVERFLOW, "(a  "},
                      {0, 5, VELK2_ERR_BUFFER_OVERFLOW, "(a   "},
                  });
}

TEST(SexpWriter, NullBuffersAndShortWrites) {
  Ref<SexpList> list = ParseList("([bin]1:a)");
  const SexpObject* atom = list->FirstChild();
  uint32_t position = 0;
  EXPECT_EQ(atom->WriteCanonical(nullptr, &position, 10), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list->WriteCanonical(nullptr, &position, 10), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(atom->WriteAdvanced(nullptr, &position, 10), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list->WriteAdvanced(nullptr, &position, 10), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(atom->WriteToFile(nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(list->WriteToFile(nullptr), VELK2_ERR_INVALID_PARAM);

  // A stream opened for reading accepts no bytes.
  const std::string path =
      std::filesystem::temp_directory_path() / ("velk2_sexp_writer_" + std::to_string(::getpid()));
  std::fclose(std::fopen(path.c_str(), "wb"));
  std::FILE* stream = std::fopen(path.c_str(), "rb");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(list->WriteToFile(stream), VELK2_ERR_WRITE_FILE);
  EXPECT_EQ(atom->WriteToFile(stream), VELK2_ERR_WRITE_FILE);
  std::fclose(stream);
  // The stored form keeps the markers; the stream stays open for the caller.
  stream = std::fopen(path.c_str(), "wb");
  ASSERT_EQ(list->WriteToFile(stream), VELK2_SUCCESS);
  ASSERT_EQ(std::fputs("tail", stream), 1);
  std::fclose(stream);
  std::ifstream in(path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "([bin]1:a)tail");
  std::filesystem::remove(path);
}

TEST(SexpWriter, TokensOfEachHint) {
  struct Case {
    std::string bytes;
    DisplayHint hint;
    std::vector<std::string> want;
  };
  const Case kCases[] = {
      {"ftp", kHintNone, {"ftp"}},
      {"two words!", kHintNone, {"two words!"}},
      {"", kHintNone, {""}},
      {"tab\there", kHintNone, {}},  // not printable
      {"caf\xC3\xA9", kHintNone, {}},
      {"caf\xC3\xA9", kHintUtf8, {"caf\xC3\xA9"}},
      {"abc", kHintBin, {}},
      {"\x01\x02", kHintNum, {"1"}},  // only the first byte
      {"\xFF", kHintNum, {"255"}},
      {"", kHintNum, {}},
      {"x", static_cast<DisplayHint>(9), {}},
  };
  for (const Case& c : kCases) {
    Ref<SexpAtom> atom = MakeAtom(c.bytes, c.hint);
    EXPECT_EQ(TokensOf(*atom), c.want) << c.bytes;
  }
  // Below depth 0 a list brings its own parentheses.
  EXPECT_EQ(TokensOf(*ParseList("(3:tag(3:ftp1:x))"), 1),
            (std::vector<std::string>{"(", "tag", " ", "(", "ftp", " ", "x", ")", ")"}));
}

TEST(SexpWriter, RefusesNestingPastTheLimit) {
  Ref<SexpList> fits = NestedChain(kMaxWriteDepth);
  EXPECT_EQ(fits->CanonicalLength(), 2 * kMaxWriteDepth);
  CBuffer<uint8_t> buffer;
  uint32_t size = 0;
  EXPECT_EQ(ToCanonicalBuffer(fits.get(), &buffer, &size), VELK2_SUCCESS);
  std::string appended;
  EXPECT_EQ(AppendCanonical(fits.get(), &appended), VELK2_SUCCESS);
  EXPECT_EQ(appended.size(), 2 * kMaxWriteDepth);

  Ref<SexpList> deep = NestedChain(kMaxWriteDepth + 1);
  EXPECT_EQ(deep->CanonicalLength(), UINT32_MAX);
  EXPECT_EQ(deep->AdvancedLength(), UINT32_MAX);
  CBuffer<uint8_t> refused;
  EXPECT_EQ(ToCanonicalBuffer(deep.get(), &refused, &size), VELK2_ERR_INVALID_S_EXPRESSION);
  appended.clear();
  EXPECT_EQ(AppendCanonical(deep.get(), &appended), VELK2_ERR_INVALID_S_EXPRESSION);
  EXPECT_EQ(refused, nullptr);
  EXPECT_EQ(ToAdvancedText(deep.get(), nullptr), nullptr);
  std::vector<uint8_t> bytes(4 * kMaxWriteDepth);
  uint32_t position = 0;
  EXPECT_EQ(deep->WriteCanonical(bytes.data(), &position, static_cast<uint32_t>(bytes.size())),
            VELK2_ERR_INVALID_S_EXPRESSION);
  position = 0;
  EXPECT_EQ(deep->WriteAdvanced(reinterpret_cast<char*>(bytes.data()), &position,
                                static_cast<uint32_t>(bytes.size())),
            VELK2_ERR_INVALID_S_EXPRESSION);
  auto ignore = [](const char*, size_t, void*) { return 0; };
  EXPECT_EQ(deep->EmitTokens(ignore, nullptr, 0), VELK2_ERR_INVALID_S_EXPRESSION);
  CBuffer<uint8_t> digest;
  EXPECT_EQ(ComputeHash(deep.get(), &digest, &size, ZCRY_HASH_SHA256, false),
            VELK2_ERR_INVALID_S_EXPRESSION);
  std::FILE* sink = std::fopen("/dev/null", "wb");
  ASSERT_NE(sink, nullptr);
  EXPECT_EQ(deep->WriteToFile(sink), VELK2_ERR_INVALID_S_EXPRESSION);
  std::fclose(sink);
  EXPECT_FALSE(SameCanonicalForm(deep.get(), deep.get()));
}

TEST(SexpWriter, AListHoldingItselfIsRefusedNotRecursedForever) {
  Ref<SexpList> list = ParseList("(1:a)");
  ASSERT_EQ(list->Append(Ref<SexpList>(list)), VELK2_SUCCESS);  // a cycle
  EXPECT_EQ(list->CanonicalLength(), UINT32_MAX);
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  EXPECT_EQ(ComputeHash(list.get(), &digest, &length, ZCRY_HASH_SHA1, true),
            VELK2_ERR_INVALID_S_EXPRESSION);
  // Break the cycle so that the list can be released.
  ASSERT_EQ(list->RemoveChild(list.get()), VELK2_SUCCESS);
  EXPECT_EQ(testing::CanonicalOf(*list), "(1:a)");
}

}  // namespace
}  // namespace velk2
