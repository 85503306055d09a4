#include "engine/dates.h"

#include <cstring>

#include "engine/keywords.h"

namespace velk2::engine {
namespace {

bool IsDigit(uint8_t byte) {
  return byte >= '0' && byte <= '9';
}

// The decimal value of |count| digits at |bytes| (already checked to be digits).
int DigitsValue(const uint8_t* bytes, int count) {
  int value = 0;
  for (int i = 0; i < count; ++i) value = value * 10 + (bytes[i] - '0');
  return value;
}

bool SameHints(const EngineAtom* a, const EngineAtom* b) {
  if (a->hint_length != b->hint_length) return false;
  return a->hint_length == 0 || std::memcmp(a->hint, b->hint, a->hint_length) == 0;
}

// Month lengths by month number; March has none, so no March day is valid.
int MonthLength(int month, int year) {
  switch (month) {
    case 1:
    case 5:
    case 7:
    case 8:
    case 10:
    case 12:
      return 31;
    case 4:
    case 6:
    case 9:
    case 11:
      return 30;
    case 2:
      return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0) ? 29 : 28;
    default:
      return 0;
  }
}

AtomOrder CompareBytes(const uint8_t* a, uint32_t a_length, const uint8_t* b, uint32_t b_length) {
  for (uint32_t i = 0;; ++i) {
    unsigned x = i < a_length ? a[i] : 0u;
    unsigned y = i < b_length ? b[i] : 0u;
    if (x < y) return kOrderBefore;
    if (x > y) return kOrderAfter;
    if (x == 0) return kOrderEqual;  // both 0: past both ends, or a shared NUL
  }
}

AtomOrder CompareBinary(const EngineAtom* a, const EngineAtom* b) {
  const uint8_t* x = a->bytes;
  const uint8_t* y = b->bytes;
  uint32_t x_length = a->length;
  uint32_t y_length = b->length;
  while (x_length > y_length) {
    if (*x != 0) return kOrderAfter;
    ++x;
    --x_length;
  }
  while (y_length > x_length) {
    if (*y != 0) return kOrderBefore;
    ++y;
    --y_length;
  }
  // Equal lengths: plain byte order is the numeric order of big-endian
  // numbers, so every byte counts, zero bytes included.
  int order = x_length == 0 ? 0 : std::memcmp(x, y, x_length);
  return order < 0 ? kOrderBefore : order > 0 ? kOrderAfter : kOrderEqual;
}

struct Decimal {
  bool negative;
  const uint8_t* digits;  // leading zeros skipped
  uint32_t length;
};

Decimal ReadDecimal(const EngineAtom* atom) {
  Decimal value{false, atom->bytes, atom->length};
  if (value.length != 0 && (value.digits[0] == '+' || value.digits[0] == '-')) {
    value.negative = value.digits[0] == '-';
    ++value.digits;
    --value.length;
  }
  while (value.length != 0 && value.digits[0] == '0') {
    ++value.digits;
    --value.length;
  }
  // "-0" is zero, not a negative number.
  if (value.length == 0) value.negative = false;
  return value;
}

AtomOrder CompareNumeric(const EngineAtom* a, const EngineAtom* b) {
  Decimal x = ReadDecimal(a);
  Decimal y = ReadDecimal(b);
  // Different signs: the negative value sorts first.
  if (x.negative != y.negative) return x.negative ? kOrderBefore : kOrderAfter;
  AtomOrder magnitude;
  if (x.length != y.length) {
    magnitude = x.length < y.length ? kOrderBefore : kOrderAfter;
  } else {
    int order = x.length == 0 ? 0 : std::memcmp(x.digits, y.digits, x.length);
    magnitude = order < 0 ? kOrderBefore : order > 0 ? kOrderAfter : kOrderEqual;
  }
  if (x.negative && magnitude != kOrderEqual) {
    magnitude = magnitude == kOrderBefore ? kOrderAfter : kOrderBefore;
  }
  return magnitude;
}

// The atom directly after a list's keyword, or null.
EngineAtom* ValueAfterHead(const EngineNode* head) {
  const EngineNode* value = head->next;
  return value != nullptr && value->kind == kNodeAtom ? AtomOf(value) : nullptr;
}

Status ReadValidityAt(EngineContext& engine, EngineAtom** not_before, EngineAtom** not_after,
                      const EngineNode* list, int depth, Status* repeated) {
  if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
  if (list == nullptr || list->kind != kNodeKeywordHead) return SPKI_OK;
  EngineAtom* value = ValueAfterHead(list);
  switch (KeywordOf(list)) {
    case kKeywordNotBefore:
      if (*not_before != nullptr && *repeated == SPKI_OK) *repeated = SPKI_ERR_TOO_MANY_NOT_BEFORE;
      AssignAtom(engine, not_before, value);
      return SPKI_OK;
    case kKeywordNotAfter:
      if (*not_after != nullptr && *repeated == SPKI_OK) *repeated = SPKI_ERR_TOO_MANY_NOT_AFTER;
      AssignAtom(engine, not_after, value);
      return SPKI_OK;
    case kKeywordValid:
      for (const EngineNode* node = list->next; node != nullptr; node = node->next) {
        if (node->kind != kNodeSublist) continue;
        Status status =
            ReadValidityAt(engine, not_before, not_after, SublistOf(node), depth + 1, repeated);
        if (status != SPKI_OK) return status;
      }
      return SPKI_OK;
    default:
      return SPKI_OK;
  }
}

void NarrowNotBefore(EngineContext& engine, EngineAtom** not_before, EngineAtom* value) {
  AssignAtom(engine, not_before, LaterOf(*not_before, value));
}

void NarrowNotAfter(EngineContext& engine, EngineAtom** not_after, EngineAtom* value) {
  AssignAtom(engine, not_after, EarlierOf(*not_after, value));
}

Status IntersectValidityAt(EngineContext& engine, EngineAtom** not_before, EngineAtom** not_after,
                           const EngineNode* list, int depth) {
  if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
  if (list == nullptr || list->kind != kNodeKeywordHead) return SPKI_OK;
  switch (KeywordOf(list)) {
    case kKeywordNotBefore:
      NarrowNotBefore(engine, not_before, ValueAfterHead(list));
      return SPKI_OK;
    case kKeywordNotAfter:
      NarrowNotAfter(engine, not_after, ValueAfterHead(list));
      return SPKI_OK;
    case kKeywordValid:
      for (const EngineNode* node = list->next; node != nullptr; node = node->next) {
        if (node->kind == kNodeAtom) {
          NarrowNotBefore(engine, not_before, AtomOf(node));
          NarrowNotAfter(engine, not_after, AtomOf(node));
        } else if (node->kind == kNodeSublist) {
          Status status =
              IntersectValidityAt(engine, not_before, not_after, SublistOf(node), depth + 1);
          if (status != SPKI_OK) return status;
        }
      }
      return SPKI_OK;
    default:
      return SPKI_OK;
  }
}

}  // namespace

int MatchTemplate(const EngineAtom* atom, const char* tmpl) {
  if (atom == nullptr || tmpl == nullptr || atom->hint_length != 0) return 0;
  size_t template_length = std::strlen(tmpl);
  if (atom->length == 0) return 1;
  if (atom->length > template_length) return 0;
  if (atom->length < template_length && tmpl[atom->length] == '#') return 0;
  for (uint32_t i = 0; i < atom->length; ++i) {
    uint8_t byte = atom->bytes[i];
    if (tmpl[i] == '#' ? !IsDigit(byte) : byte != static_cast<uint8_t>(tmpl[i])) return 0;
  }
  return 1;
}

int IsValidDate(const EngineAtom* atom) {
  if (!MatchTemplate(atom, kDateTemplate)) return 0;
  // Fitting atoms end after a whole number: lengths 4, 7, 10, 13, 16, 19.
  // The empty atom fits the template but names no date.
  if (atom->length == 0) return 0;
  const uint8_t* b = atom->bytes;
  int numbers = (static_cast<int>(atom->length) - 4) / 3 + 1;
  int year = DigitsValue(b, 4);
  if (numbers == 1) return 1;
  int month = DigitsValue(b + 5, 2);
  if (month < 1 || month > 12) return 0;
  if (numbers == 2) return 1;
  if (numbers >= 6 && DigitsValue(b + 17, 2) > 59) return 0;
  if (numbers >= 5 && DigitsValue(b + 14, 2) > 59) return 0;
  if (numbers >= 4 && DigitsValue(b + 11, 2) > 23) return 0;
  int day = DigitsValue(b + 8, 2);
  return day >= 1 && day <= MonthLength(month, year) ? 1 : 0;
}

int IsValidTime(const EngineAtom* atom) {
  if (!MatchTemplate(atom, kTimeTemplate)) return 0;
  if (atom->length == 0) return 0;  // no hour at all
  const uint8_t* b = atom->bytes;
  if (DigitsValue(b, 2) >= 24) return 0;
  if (atom->length >= 5 && DigitsValue(b + 3, 2) >= 60) return 0;
  if (atom->length >= 8 && DigitsValue(b + 6, 2) >= 60) return 0;
  return 1;
}

int IsValidNumber(const EngineAtom* atom) {
  if (atom == nullptr || atom->hint_length != 0) return 0;
  const uint8_t* digits = atom->bytes;
  uint32_t length = atom->length;
  if (length != 0 && (digits[0] == '+' || digits[0] == '-')) {
    ++digits;
    --length;
  }
  for (uint32_t i = 0; i < length; ++i) {
    if (!IsDigit(digits[i])) return 0;
  }
  return length > 1 && digits[0] == '0' ? 0 : 1;
}

AtomOrder CompareAtoms(const EngineAtom* a, const EngineAtom* b) {
  if (a == nullptr || b == nullptr || !SameHints(a, b)) return kOrderIncomparable;
  return CompareBytes(a->bytes, a->length, b->bytes, b->length);
}

AtomOrder CompareInOrdering(const EngineAtom* a, const EngineAtom* b, int32_t ordering) {
  if (a == nullptr || b == nullptr) return kOrderIncomparable;
  switch (ordering) {
    case kKeywordAlpha:
    case kKeywordDate:
    case kKeywordTime:
      return CompareAtoms(a, b);
    case kKeywordBinary:
      return SameHints(a, b) ? CompareBinary(a, b) : kOrderIncomparable;
    case kKeywordNumeric:
      return SameHints(a, b) ? CompareNumeric(a, b) : kOrderIncomparable;
    default:
      return kOrderIncomparable;
  }
}

EngineAtom* LaterOf(EngineAtom* a, EngineAtom* b) {
  if (a == nullptr) return b;
  return b != nullptr && CompareAtoms(a, b) != kOrderAfter ? b : a;
}

EngineAtom* EarlierOf(EngineAtom* a, EngineAtom* b) {
  if (a == nullptr) return b;
  return b != nullptr && CompareAtoms(a, b) != kOrderBefore ? b : a;
}

Status ReadValidity(EngineContext& engine, EngineAtom** not_before, EngineAtom** not_after,
                    const EngineNode* list) {
  if (not_before == nullptr || not_after == nullptr) return SPKI_ERR_NULL_PARAM;
  Status repeated = SPKI_OK;
  Status status = ReadValidityAt(engine, not_before, not_after, list, 1, &repeated);
  return status != SPKI_OK ? status : repeated;
}

Status IntersectValidity(EngineContext& engine, EngineAtom** not_before, EngineAtom** not_after,
                         const EngineNode* list) {
  if (not_before == nullptr || not_after == nullptr) return SPKI_ERR_NULL_PARAM;
  Status status = IntersectValidityAt(engine, not_before, not_after, list, 1);
  if (status != SPKI_OK) return status;
  if (*not_before != nullptr && *not_after != nullptr &&
      CompareAtoms(*not_before, *not_after) == kOrderAfter) {
    return SPKI_ERR_DATE_INTERSECTION;
  }
  return SPKI_OK;
}

}  // namespace velk2::engine
