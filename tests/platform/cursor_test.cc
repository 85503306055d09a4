// The byte cursor: a read succeeds whole and moves, or fails and stays.
#include "platform/cursor.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

namespace velk2 {
namespace {

TEST(ByteCursor, ReadsNeverPassTheEndNorMovePartly) {
  ByteCursor c(std::string_view("(3:abc)"));
  EXPECT_EQ(c.Peek(), '(');
  EXPECT_EQ(c.PeekAt(6), ')');
  EXPECT_EQ(c.PeekAt(7), -1);
  EXPECT_EQ(c.PeekAt(SIZE_MAX), -1);
  EXPECT_TRUE(c.Match("(3"));
  EXPECT_FALSE(c.Match(":abX"));  // a partial match consumes nothing
  EXPECT_EQ(c.position(), 2u);
  EXPECT_FALSE(c.Match(":abc)x"));  // longer than what is left
  EXPECT_EQ(c.position(), 2u);
  EXPECT_EQ(c.Next(), ':');
  const uint8_t* bytes = nullptr;
  EXPECT_FALSE(c.Take(5, &bytes));
  EXPECT_EQ(bytes, nullptr);
  EXPECT_FALSE(c.Skip(SIZE_MAX));
  EXPECT_EQ(c.position(), 3u);
  ASSERT_TRUE(c.Take(3, &bytes));
  EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(bytes), 3), "abc");
  EXPECT_TRUE(c.Match(")"));
  EXPECT_TRUE(c.at_end());
  EXPECT_EQ(c.Next(), -1);
  EXPECT_EQ(c.position(), 7u);
  EXPECT_TRUE(c.Skip(0));
  EXPECT_TRUE(c.Match(""));
  EXPECT_FALSE(c.Seek(8));
  EXPECT_TRUE(c.Seek(0));
  EXPECT_EQ(c.SkipWhile([](uint8_t b) { return b != ':'; }), 2u);
  EXPECT_EQ(c.remaining(), 5u);

  // Bytes above 0x7F come back as 0..255, never as a negative "end".
  const uint8_t high[] = {0xFF, 0x80};
  ByteCursor h(high, 2);
  EXPECT_EQ(h.Next(), 0xFF);
  EXPECT_EQ(h.Peek(), 0x80);

  // Nothing at all, or a null pointer, is an empty cursor.
  for (ByteCursor empty :
       {ByteCursor(), ByteCursor(nullptr, 100), ByteCursor(std::string_view())}) {
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_EQ(empty.Peek(), -1);
    EXPECT_EQ(empty.Next(), -1);
    EXPECT_FALSE(empty.Skip(1));
    EXPECT_FALSE(empty.Match("("));
  }
}

}  // namespace
}  // namespace velk2
