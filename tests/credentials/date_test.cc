#include "credentials/date.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "credentials_test_util.h"

namespace velk2::testing {
namespace {

struct DatePair {
  const char* text;
  int64_t time;
};
// Computed independently as UTC calendar dates.
const DatePair kDates[] = {
    {"1970-01-01_00:00:00", 0},          {"1970-01-01_23:59:59", 86399},
    {"2006-03-01_12:00:00", 1141214400}, {"2006-12-31_23:59:59", 1167609599},
    {"2007-01-01_00:00:00", 1167609600}, {"2000-02-29_12:34:56", 951827696},
    {"2024-07-01_06:30:00", 1719815400},  // daylight saving time in most zones
    {"2038-01-19_03:14:08", 2147483648},  // past 32-bit time
    {"1969-12-31_23:59:59", -1},         {"9999-12-31_23:59:59", 253402300799},
};

// Sets TZ for the life of the object and restores it afterwards.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    old_ ? setenv("TZ", old_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }

 private:
  std::optional<std::string> old_;
};

TEST(DateTest, WritesAndReadsUtcInEveryTimeZone) {
  const char* const kZones[] = {"UTC", "America/New_York", "Asia/Kolkata", "EST5EDT,M3.2.0,M11.1.0",
                                "IST-5:30"};
  for (const char* zone : kZones) {
    SCOPED_TRACE(zone);
    ScopedTimeZone scoped(zone);
    const std::time_t noon = 1141214400;
    std::tm local{};
    localtime_r(&noon, &local);
    EXPECT_EQ(local.tm_gmtoff != 0, std::string(zone) != "UTC") << "the zone is not in force";
    for (const DatePair& d : kDates) {
      EXPECT_EQ(ReadDate(MakeAtom(d.text).get()), d.time) << d.text;
      Ref<SexpAtom> atom = SexpAtom::New();
      ASSERT_EQ(WriteDate(atom.get(), d.time), VELK2_SUCCESS);
      EXPECT_EQ(atom->bytes(), d.text);
    }
  }
}

TEST(DateTest, ReadingDoesNotExamineSeparatorsOrDigits) {
  const int64_t noon = 1141214400;
  const char* const kSameAsNoon[] = {
      "2006/03/01 12:00:00", "2006x03x01x12x00x00", "2006-03-01T12:00:00",
      "2006-03-01_12:00:00 and more",
      // Out-of-range fields are carried over as a calendar conversion does.
      "2006-02-29_12:00:00", "2006-03-01_11:60:00",
      // A short atom reads its missing bytes as "0": the same as zero fields.
      "2006-03-01_12", "2006-03-01_12:00:0"};
  for (const char* text : kSameAsNoon) {
    EXPECT_EQ(ReadDate(MakeAtom(text).get()), noon) << text;
  }
  // Non-digits give a defined, if meaningless, time; the same one each time.
  const int64_t junk = ReadDate(MakeAtom("abcd-ef-gh_ij:kl:mn").get());
  EXPECT_EQ(ReadDate(MakeAtom("abcd-ef-gh_ij:kl:mn").get()), junk);
  EXPECT_EQ(ReadDate(nullptr), 0);
}

TEST(DateTest, WriteDateKeepsHintsAndReportsWhatItCannotWrite) {
  Ref<SexpAtom> atom = MakeAtom("a much longer text than a date");
  atom->set_hint(kHintUtf8);
  ASSERT_EQ(WriteDate(atom.get(), 86399), VELK2_SUCCESS);
  EXPECT_EQ(atom->bytes(), "1970-01-01_23:59:59");
  EXPECT_EQ(atom->hint(), kHintUtf8);

  // A year past 9999 is cut to the first 19 bytes of its text.
  ASSERT_EQ(WriteDate(atom.get(), 253402300800), VELK2_SUCCESS);
  EXPECT_EQ(atom->bytes(), "10000-01-01_00:00:0");
  // Before year 0 the sign takes a digit's place.
  ASSERT_EQ(WriteDate(atom.get(), -62167219201), VELK2_SUCCESS);
  EXPECT_EQ(atom->bytes(), "-001-12-31_23:59:59");

  // A time without a calendar date leaves the atom as it was.
  Ref<SexpAtom> kept = MakeAtom("2006-03-01_12:00:00");
  EXPECT_EQ(WriteDate(kept.get(), INT64_MAX), kDateUnrepresentable);
  EXPECT_EQ(WriteDate(kept.get(), INT64_MIN), kDateUnrepresentable);
  EXPECT_EQ(kept->bytes(), "2006-03-01_12:00:00");
  EXPECT_EQ(WriteDate(nullptr, 0), VELK2_ERR_INVALID_PARAM);
}

TEST(DateTest, OrderingTestsCompareTheTexts) {
  struct Case {
    const char* a;
    const char* b;
    bool before, not_after, after, not_before;
  };
  const Case kCases[] = {
      {"2006-12-31_23:59:59", "2007-01-01_00:00:00", true, true, false, false},
      {"2007-01-01_00:00:00", "2006-12-31_23:59:59", false, false, true, true},
      {"2006-03-01_12:00:00", "2006-03-01_12:00:00", false, true, false, true},
      {"2006-03-01_12:00:00", "2006-03-01_12:00:01", true, true, false, false},
      // Only the first 19 bytes count; the lengths are not compared.
      {"2006-03-01_12:00:00", "2006-03-01_12:00:00Z", false, true, false, true},
      // Bytes compare unsigned.
      {"2006-03-01_12:00:00", "\xFF", true, true, false, false},
      // A short text sorts as if padded with zero bytes.
      {"2006", "2006-03-01_12:00:00", true, true, false, false},
  };
  for (const Case& c : kCases) {
    Ref<SexpAtom> a = MakeAtom(c.a), b = MakeAtom(c.b);
    EXPECT_EQ(DateBefore(a.get(), b.get()), c.before) << c.a << " " << c.b;
    EXPECT_EQ(DateNotAfter(a.get(), b.get()), c.not_after) << c.a << " " << c.b;
    EXPECT_EQ(DateAfter(a.get(), b.get()), c.after) << c.a << " " << c.b;
    EXPECT_EQ(DateNotBefore(a.get(), b.get()), c.not_before) << c.a << " " << c.b;
  }
  // Every test with a missing b (or a) is false.
  Ref<SexpAtom> a = MakeAtom("2006-03-01_12:00:00");
  for (auto test : {&DateBefore, &DateNotAfter, &DateAfter, &DateNotBefore}) {
    EXPECT_FALSE(test(a.get(), nullptr));
    EXPECT_FALSE(test(nullptr, a.get()));
  }
}

}  // namespace
}  // namespace velk2::testing
