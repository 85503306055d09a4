// Range arithmetic of the tag algebra: the bounds that range and prefix
// elements stand for, gathered from two operands into one record, and which
// operand the tightest bounds came from.
#ifndef VELK2_ENGINE_RANGES_H_
#define VELK2_ENGINE_RANGES_H_

#include <cstdint>

#include "engine/status.h"
#include "engine/store.h"
#include "engine/tags.h"

namespace velk2::engine {

// The working record for range comparison and intersection. Values are
// counted references, set through AssignAtom; ClearRangeBounds drops them.
struct RangeBounds {
  EngineAtom* lower;
  int32_t lower_operator;  // kKeywordG or kKeywordGe
  int32_t lower_source;    // which operand gave the lower bound: 1 or 2
  EngineAtom* upper;
  int32_t upper_operator;  // kKeywordL or kKeywordLe
  int32_t upper_source;    // 1 or 2; kRangeInvalid marks the whole record invalid
  int32_t ordering;        // kKeywordAlpha, Binary, Date, Numeric or Time; -1 while unset
};

inline constexpr int32_t kRangeInvalid = 3;

// ClearRangeBounds releases the values and leaves an empty record with the
// ordering unset. Call it on a zeroed record before first use, and after use.
void ClearRangeBounds(EngineContext& engine, RangeBounds* bounds);

// AddRangeBound adds one bound from operand |source| (1 or 2). The first
// bound fixes the ordering; a bound of another ordering, a value that fails
// the ordering's check (date, time, numeric), an operator other than g, ge,
// l, le or an incomparable value marks the record invalid. The record keeps
// the tightest lower and upper bound and which operand gave each; on equal
// values the bound added first stays unless the later one is strict (g
// against ge, l against le), which then takes its operator and source.
void AddRangeBound(EngineContext& engine, RangeBounds* bounds, EngineAtom* value, int32_t op,
                   int32_t ordering, int32_t source);

// AddRangeElementBounds adds the ordering and every bound of a range element
// (class 14) from operand |source|; any other shape marks the record invalid.
void AddRangeElementBounds(EngineContext& engine, RangeBounds* bounds, const EngineNode* range,
                           int32_t source);

// AddPrefixBounds adds the bounds a prefix element (class 13) stands for, in
// the ordering the record already has: every value that starts with P lies
// in [P, P') where P' is P with its last byte below 0xFF raised by one (no
// upper bound when there is none). That holds only in the byte orderings
// (alpha, date, time); with binary or numeric, or no ordering yet, the
// record is marked invalid. Returns SPKI_ERR_NO_MEM when P' cannot be made.
Status AddPrefixBounds(EngineContext& engine, RangeBounds* bounds, const EngineNode* prefix,
                       int32_t source);

// EvaluateRange: 3 for an invalid or empty record (a lower bound equal to the
// upper one is non-empty only with ge and le, and gives 4); otherwise which
// operand gave the tightest bounds: 0 when neither gave any, 1 or 2 when one
// gave both (or the only one), 4 when they gave one each.
TagRelation EvaluateRange(const RangeBounds& bounds);

bool IsInvalid(const RangeBounds& bounds);
// ValueFits: |value| passes the check of |ordering| (date, time, numeric;
// alpha and binary take any value).
bool ValueFits(const EngineAtom* value, int32_t ordering);

// A RangeBounds released when it goes out of scope.
class ScopedBounds {
 public:
  explicit ScopedBounds(EngineContext& engine) : engine_(engine) {
    std::memset(&bounds, 0, sizeof(bounds));
    bounds.ordering = -1;
  }
  ~ScopedBounds() { ClearRangeBounds(engine_, &bounds); }
  ScopedBounds(const ScopedBounds&) = delete;
  ScopedBounds& operator=(const ScopedBounds&) = delete;

  RangeBounds bounds;

 private:
  EngineContext& engine_;
};

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_RANGES_H_
