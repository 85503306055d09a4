#include "credentials/date.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

namespace velk2 {

namespace {

// The text's first 19 bytes, a short atom padded with |pad|.
void DateBytes(const SexpAtom* atom, uint8_t pad, uint8_t out[kDateLength]) {
  std::memset(out, pad, kDateLength);
  const uint32_t length = atom->length() < kDateLength ? atom->length() : kDateLength;
  if (length != 0) std::memcpy(out, atom->data(), length);
}

// Negative, zero or positive as a's text sorts before, with or after b's.
std::optional<int> CompareDates(const SexpAtom* a, const SexpAtom* b) {
  if (a == nullptr || b == nullptr) return std::nullopt;
  uint8_t left[kDateLength], right[kDateLength];
  DateBytes(a, 0, left);
  DateBytes(b, 0, right);
  return std::memcmp(left, right, kDateLength);
}

// Digit values are taken as character code minus "0", unchecked.
int Field(const uint8_t* text, int offset, int digits) {
  int value = 0;
  for (int i = 0; i < digits; ++i) value = value * 10 + (text[offset + i] - '0');
  return value;
}

}  // namespace

std::string DateText(int64_t time) {
  const std::time_t seconds = static_cast<std::time_t>(time);
  std::tm fields{};
  if (static_cast<int64_t>(seconds) != time || gmtime_r(&seconds, &fields) == nullptr) return {};
  // A year past 9999 makes the text longer; like a 20-byte buffer, the date
  // keeps its first 19 bytes.
  char text[64];
  std::snprintf(text, sizeof(text), "%04lld-%02d-%02d_%02d:%02d:%02d",
                static_cast<long long>(fields.tm_year) + 1900, fields.tm_mon + 1, fields.tm_mday,
                fields.tm_hour, fields.tm_min, fields.tm_sec);
  return std::string(text, kDateLength);
}

Result WriteDate(SexpAtom* atom, int64_t time) {
  if (atom == nullptr) return VELK2_ERR_INVALID_PARAM;
  const std::string text = DateText(time);
  if (text.empty()) return kDateUnrepresentable;
  return atom->AssignBytes(text.data(), kDateLength, atom->hint());
}

int64_t ReadDate(const SexpAtom* atom) {
  if (atom == nullptr) return 0;
  uint8_t text[kDateLength];
  DateBytes(atom, '0', text);
  std::tm fields{};
  fields.tm_year = Field(text, 0, 4) - 1900;
  fields.tm_mon = Field(text, 5, 2) - 1;
  fields.tm_mday = Field(text, 8, 2);
  fields.tm_hour = Field(text, 11, 2);
  fields.tm_min = Field(text, 14, 2);
  fields.tm_sec = Field(text, 17, 2);
  fields.tm_isdst = 0;
  // timegm reads the fields as UTC; no time zone and no daylight saving apply.
  return static_cast<int64_t>(timegm(&fields));
}

int64_t CurrentTime(int64_t* out) {
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  if (out != nullptr) *out = now;
  return now;
}

bool DateBefore(const SexpAtom* a, const SexpAtom* b) {
  std::optional<int> order = CompareDates(a, b);
  return order && *order < 0;
}

bool DateNotAfter(const SexpAtom* a, const SexpAtom* b) {
  std::optional<int> order = CompareDates(a, b);
  return order && *order <= 0;
}

bool DateAfter(const SexpAtom* a, const SexpAtom* b) {
  std::optional<int> order = CompareDates(a, b);
  return order && *order > 0;
}

bool DateNotBefore(const SexpAtom* a, const SexpAtom* b) {
  std::optional<int> order = CompareDates(a, b);
  return order && *order >= 0;
}

}  // namespace velk2
