// Text from files printed for people: one entry is always one line, and
// nothing in it can move the cursor, recolour the screen or reorder the text.
#include <gtest/gtest.h>

#include <string>

#include "platform/utf.h"

namespace velk2 {
namespace {

TEST(EscapeForDisplay, ControlsReorderingAndIllFormedBytesAreEscaped) {
  struct Case {
    std::string in, want;
  };
  const Case kCases[] = {
      {"plain text (pkg install) 2026-01-01_00:00:00",
       "plain text (pkg install) 2026-01-01_00:00:00"},
      {"evil\nresult: 0 Success\nauthorized: yes",
       "evil\\x0aresult: 0 Success\\x0aauthorized: yes"},
      {"\x1b[2J\x1b[31mred", "\\x1b[2J\\x1b[31mred"},
      {"tab\there\rback", "tab\\x09here\\x0dback"},
      {std::string("nul\0byte", 8), "nul\\x00byte"},
      {"del\x7f", "del\\x7f"},
      {"back\\slash \\x41", "back\\\\slash \\\\x41"},  // an escape in the text cannot pose as one
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x94\x91", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x94\x91"},
      {"\xef\xbf\xbd kept", "\xef\xbf\xbd kept"},  // a real U+FFFD is text
      {"c1 \xc2\x9b", "c1 \\xc2\\x9b"},            // CSI as a C1 control
      {"rlo \xe2\x80\xae gnp.exe", "rlo \\xe2\\x80\\xae gnp.exe"},
      {"isolate \xe2\x81\xa6x\xe2\x81\xa9", "isolate \\xe2\\x81\\xa6x\\xe2\\x81\\xa9"},
      {"bad \xff\xfe", "bad \\xff\\xfe"},
      {"cut \xe2\x82", "cut \\xe2\\x82"},
      {"overlong \xc0\xaf", "overlong \\xc0\\xaf"},
      {"surrogate \xed\xa0\x80", "surrogate \\xed\\xa0\\x80"},
      {"", ""},
  };
  for (const Case& c : kCases) {
    const std::string got = EscapeForDisplay(c.in);
    EXPECT_EQ(got, c.want) << c.in;
    for (unsigned char b : got) EXPECT_TRUE(b >= 0x20 && b != 0x7f) << c.in;
  }
}

}  // namespace
}  // namespace velk2
