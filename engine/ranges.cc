#include "engine/ranges.h"

#include <cstring>

#include "engine/dates.h"
#include "engine/keywords.h"

namespace velk2::engine {
namespace {

bool IsOrdering(int32_t keyword) {
  return keyword == kKeywordAlpha || keyword == kKeywordBinary || keyword == kKeywordDate ||
         keyword == kKeywordNumeric || keyword == kKeywordTime;
}

void Invalidate(EngineContext& engine, RangeBounds* bounds) {
  int32_t ordering = bounds->ordering;
  ClearRangeBounds(engine, bounds);
  bounds->ordering = ordering;
  bounds->upper_source = kRangeInvalid;
}

// The first ordering met fixes the record's; another one invalidates it.
bool TakeOrdering(EngineContext& engine, RangeBounds* bounds, int32_t ordering) {
  if (IsInvalid(*bounds)) return false;
  if (bounds->ordering == -1) {
    bounds->ordering = ordering;
  } else if (bounds->ordering != ordering) {
    Invalidate(engine, bounds);
    return false;
  }
  return true;
}

// Places a bound whose value has been checked (or needs none).
void PlaceBound(EngineContext& engine, RangeBounds* bounds, EngineAtom* value, int32_t op,
                int32_t source) {
  if (op == kKeywordG || op == kKeywordGe) {
    if (bounds->lower != nullptr) {
      switch (CompareInOrdering(value, bounds->lower, bounds->ordering)) {
        case kOrderEqual:
          if (op == kKeywordG && bounds->lower_operator == kKeywordGe) {
            bounds->lower_operator = op;
            bounds->lower_source = source;
          }
          return;
        case kOrderBefore:
          return;
        case kOrderAfter:
          break;
        default:
          Invalidate(engine, bounds);
          return;
      }
    }
    AssignAtom(engine, &bounds->lower, value);
    bounds->lower_operator = op;
    bounds->lower_source = source;
  } else if (op == kKeywordL || op == kKeywordLe) {
    if (bounds->upper != nullptr) {
      switch (CompareInOrdering(value, bounds->upper, bounds->ordering)) {
        case kOrderEqual:
          if (op == kKeywordL && bounds->upper_operator == kKeywordLe) {
            bounds->upper_operator = op;
            bounds->upper_source = source;
          }
          return;
        case kOrderAfter:
          return;
        case kOrderBefore:
          break;
        default:
          Invalidate(engine, bounds);
          return;
      }
    }
    AssignAtom(engine, &bounds->upper, value);
    bounds->upper_operator = op;
    bounds->upper_source = source;
  } else {
    Invalidate(engine, bounds);
  }
}

}  // namespace

bool ValueFits(const EngineAtom* value, int32_t ordering) {
  switch (ordering) {
    case kKeywordAlpha:
    case kKeywordBinary:
      return true;
    case kKeywordDate:
      return IsValidDate(value) == 1;
    case kKeywordTime:
      return IsValidTime(value) == 1;
    case kKeywordNumeric:
      return IsValidNumber(value) == 1;
    default:
      return false;
  }
}

bool IsInvalid(const RangeBounds& bounds) {
  return bounds.upper_source == kRangeInvalid;
}

void ClearRangeBounds(EngineContext& engine, RangeBounds* bounds) {
  if (bounds == nullptr) return;
  AssignAtom(engine, &bounds->lower, nullptr);
  AssignAtom(engine, &bounds->upper, nullptr);
  std::memset(bounds, 0, sizeof(*bounds));
  bounds->ordering = -1;
}

void AddRangeBound(EngineContext& engine, RangeBounds* bounds, EngineAtom* value, int32_t op,
                   int32_t ordering, int32_t source) {
  if (bounds == nullptr || !TakeOrdering(engine, bounds, ordering)) return;
  if (value == nullptr || !ValueFits(value, ordering)) {
    Invalidate(engine, bounds);
    return;
  }
  PlaceBound(engine, bounds, value, op, source);
}

void AddRangeElementBounds(EngineContext& engine, RangeBounds* bounds, const EngineNode* range,
                           int32_t source) {
  if (bounds == nullptr || IsInvalid(*bounds)) return;
  const EngineNode* ordering = ClassOf(range) == kClassRange ? StarWord(range)->next : nullptr;
  if (ordering == nullptr || ordering->kind != kNodeAtom ||
      !IsOrdering(AtomOf(ordering)->keyword_id)) {
    Invalidate(engine, bounds);
    return;
  }
  // The ordering counts even for a range without bounds: (* range numeric)
  // and (* range alpha) share no value.
  int32_t id = AtomOf(ordering)->keyword_id;
  if (!TakeOrdering(engine, bounds, id)) return;
  for (const EngineNode* node = ordering->next; node != nullptr; node = node->next) {
    const EngineNode* op = node->kind == kNodeSublist ? SublistOf(node) : nullptr;
    const EngineNode* value = op != nullptr ? op->next : nullptr;
    if (op == nullptr || op->kind != kNodeKeywordHead || value == nullptr ||
        value->kind != kNodeAtom || value->next != nullptr) {
      Invalidate(engine, bounds);
      return;
    }
    AddRangeBound(engine, bounds, AtomOf(value), KeywordOf(op), id, source);
    if (IsInvalid(*bounds)) return;
  }
}

Status AddPrefixBounds(EngineContext& engine, RangeBounds* bounds, const EngineNode* prefix,
                       int32_t source) {
  if (bounds == nullptr) return SPKI_ERR_NULL_PARAM;
  if (IsInvalid(*bounds)) return SPKI_OK;
  EngineAtom* value =
      ClassOf(prefix) == kClassPrefix ? const_cast<EngineAtom*>(PrefixOf(prefix)) : nullptr;
  // Values that start with P form an interval only where values sort byte by
  // byte; in binary and numeric order a longer value is a larger one.
  int32_t ordering = bounds->ordering;
  if (value == nullptr ||
      (ordering != kKeywordAlpha && ordering != kKeywordDate && ordering != kKeywordTime)) {
    Invalidate(engine, bounds);
    return SPKI_OK;
  }
  // The prefix bounds stand for every value starting with P, which need not
  // be a valid date or time itself ("2004-1"), so they are not checked.
  PlaceBound(engine, bounds, value, kKeywordGe, source);
  uint32_t length = value->length;
  while (length != 0 && value->bytes[length - 1] == 0xFF) --length;
  if (length == 0 || IsInvalid(*bounds)) return SPKI_OK;
  auto* bytes = static_cast<uint8_t*>(engine.arena().Allocate(length));
  if (bytes == nullptr) return SPKI_ERR_NO_MEM;
  std::memcpy(bytes, value->bytes, length);
  ++bytes[length - 1];
  AtomRef successor(engine, NewAtomOver(engine, bytes, length, value->hint, value->hint_length));
  if (!successor) return SPKI_ERR_NO_MEM;
  PlaceBound(engine, bounds, successor.get(), kKeywordL, source);
  return SPKI_OK;
}

TagRelation EvaluateRange(const RangeBounds& bounds) {
  if (IsInvalid(bounds)) return kTagDisjoint;
  if (bounds.lower != nullptr && bounds.upper != nullptr) {
    switch (CompareInOrdering(bounds.lower, bounds.upper, bounds.ordering)) {
      case kOrderEqual:
        return bounds.lower_operator == kKeywordGe && bounds.upper_operator == kKeywordLe
                   ? kTagOverlapping
                   : kTagDisjoint;
      case kOrderBefore:
        break;
      default:
        return kTagDisjoint;
    }
  }
  auto as_relation = [](int32_t source) {
    return source >= 0 && source <= 2 ? static_cast<TagRelation>(source) : kTagDisjoint;
  };
  if (bounds.lower_source == 0) return as_relation(bounds.upper_source);
  if (bounds.lower_source != 1 && bounds.lower_source != 2) return kTagDisjoint;
  if (bounds.upper_source == 0) return as_relation(bounds.lower_source);
  if (bounds.upper_source != 1 && bounds.upper_source != 2) return kTagDisjoint;
  return bounds.lower_source == bounds.upper_source ? static_cast<TagRelation>(bounds.lower_source)
                                                    : kTagOverlapping;
}

}  // namespace velk2::engine
