#include "engine/tags.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "engine/dates.h"
#include "engine/keywords.h"
#include "engine/parser.h"
#include "engine/ranges.h"

namespace velk2::engine {
namespace {

constexpr char kRangeTemplate[] = "(1:*5:range)";
constexpr char kSetTemplate[] = "(1:*3:set)";

// The algebra's own relation: the five it reports, and a tie (each operand
// inside the other, as with two equal ranges, prefixes or sets), told apart
// from a plain "narrower" so that a set of such members is seen to cover the
// other set too. A tie leaves as "narrower": ties go to the first operand.
enum class Relation : uint32_t {
  kEqual = kTagEqual,
  kNarrower = kTagNarrower,
  kBroader = kTagBroader,
  kDisjoint = kTagDisjoint,
  kOverlapping = kTagOverlapping,
  kTie,
};

TagRelation Public(Relation r) {
  return r == Relation::kTie ? kTagNarrower : static_cast<TagRelation>(r);
}

Relation Internal(TagRelation r) {
  return static_cast<Relation>(r);
}

// "first narrower" and "second narrower" swapped; a tie stays a tie.
Relation Mirrored(Relation r) {
  if (r == Relation::kNarrower) return Relation::kBroader;
  if (r == Relation::kBroader) return Relation::kNarrower;
  return r;
}

bool IsPlain(ElementClass c) {
  return c >= kClassKeywordHead && c <= kClassSublist;
}
bool IsStarForm(ElementClass c) {
  return c >= kClassSet && c <= kClassRange;
}
bool InsideOrEqual(Relation r) {
  return r == Relation::kEqual || r == Relation::kNarrower || r == Relation::kTie;
}
bool CoversOrEqual(Relation r) {
  return r == Relation::kEqual || r == Relation::kBroader || r == Relation::kTie;
}

bool SameHints(const EngineAtom* a, const EngineAtom* b) {
  return a->hint_length == b->hint_length &&
         (a->hint_length == 0 || std::memcmp(a->hint, b->hint, a->hint_length) == 0);
}

// A display hint is part of the value: "[text]/pub/x" does not start with the
// plain prefix "/pub/".
bool StartsWith(const EngineAtom* atom, const EngineAtom* prefix) {
  if (atom == nullptr || prefix == nullptr || !SameHints(atom, prefix)) return false;
  return atom->length >= prefix->length &&
         (prefix->length == 0 || std::memcmp(atom->bytes, prefix->bytes, prefix->length) == 0);
}

// Whether every member of |set| is a plain atom.
bool MembersAreAtoms(const EngineNode* set);

// The atoms of a set's members, sorted by hint and bytes (the order only
// serves lookups: two atoms are equal exactly when both agree), in scratch
// memory of the engine's allocator. Sets of plain atoms are common and can
// be long; comparing them through sorted copies costs O(n log n) instead of
// a comparison per pair of members.
class SortedAtoms {
 public:
  explicit SortedAtoms(EngineContext& engine) : engine_(engine) {}
  ~SortedAtoms() { engine_.FreeScratch(atoms_); }
  SortedAtoms(const SortedAtoms&) = delete;
  SortedAtoms& operator=(const SortedAtoms&) = delete;

  // Take sorts the atoms of |set|'s members when they are all plain atoms;
  // taken() tells whether they were. The sort is charged to the work meter.
  Status Take(const EngineNode* set);
  bool taken() const { return taken_; }
  // Reserve makes room for |capacity| atoms added one by one.
  Status Reserve(size_t capacity);
  // Holds: whether an equal atom is here.
  bool Holds(const EngineAtom* atom) const;
  // Within: whether every atom here is in |other|; sets *overlap when some is.
  bool Within(const SortedAtoms& other, bool* overlap) const;

  // The order of CompareAtoms: hints, then bytes up to the first NUL (atoms
  // that agree up to a NUL they share are equal there, so they must be here).
  static bool Less(const EngineAtom* a, const EngineAtom* b) {
    const std::string_view ha(reinterpret_cast<const char*>(a->hint), a->hint_length);
    const std::string_view hb(reinterpret_cast<const char*>(b->hint), b->hint_length);
    if (ha != hb) return ha < hb;
    return UpToNul(a) < UpToNul(b);
  }
  static std::string_view UpToNul(const EngineAtom* atom) {
    const std::string_view bytes(reinterpret_cast<const char*>(atom->bytes), atom->length);
    return bytes.substr(0, bytes.find('\0'));
  }

 private:
  EngineContext& engine_;
  const EngineAtom** atoms_ = nullptr;
  size_t count_ = 0;
  size_t capacity_ = 0;
  bool taken_ = false;
};

// Which members of a set are the first of their equal atoms, for a walk that
// keeps each atom once.
class FirstOccurrences {
 public:
  explicit FirstOccurrences(EngineContext& engine) : engine_(engine) {}
  ~FirstOccurrences() {
    engine_.FreeScratch(ranked_);
    engine_.FreeScratch(first_);
  }
  FirstOccurrences(const FirstOccurrences&) = delete;
  FirstOccurrences& operator=(const FirstOccurrences&) = delete;

  // Mark ranks the members of |set|, all plain atoms.
  Status Mark(const EngineNode* set);
  bool IsFirst(size_t index) const { return first_ != nullptr && first_[index] != 0; }

 private:
  struct Ranked {
    const EngineAtom* atom;
    size_t index;
  };
  EngineContext& engine_;
  Ranked* ranked_ = nullptr;
  uint8_t* first_ = nullptr;
};

// The recursive walks of the algebra, each call one level deeper.
class Algebra {
 public:
  explicit Algebra(EngineContext& engine) : engine_(engine) {}

  Status CompareLists(const EngineNode* a, const EngineNode* b, int depth, Relation* out);
  Status CompareElements(const EngineNode* a, const EngineNode* b, int depth, Relation* out);
  Status InSet(const EngineNode* element, const EngineNode* set, int depth, bool* inside);
  Status CompareSet(const EngineNode* set, const EngineNode* other, int depth, Relation* out);
  Status IntersectLists(EngineNode* a, EngineNode* b, int depth, EngineNode** out);
  Status IntersectElements(EngineNode* a, EngineNode* b, int depth, EngineNode** out);
  Status IntersectSet(EngineNode* set, EngineNode* element, int depth, EngineNode** out);

  Status PrefixRange(const EngineNode* prefix, const EngineNode* range, Relation* out);
  Status RangeRange(const EngineNode* a, const EngineNode* b, Relation* out);
  Status InRange(const EngineAtom* atom, const EngineNode* range, bool* inside);

 private:
  ElementClass Classify(const EngineNode* element);
  Status Copy(const EngineNode* element, EngineNode** out);
  Status AddUnique(NodeRef* front, EngineNode* element, int depth, size_t* count);
  Status FinishSet(NodeRef* front, size_t count, EngineNode** out);
  Status BuildRange(const RangeBounds& bounds, EngineNode** out);
  Status IntersectRanges(const EngineNode* a, ElementClass a_class, const EngineNode* b,
                         ElementClass b_class, EngineNode** out);

  EngineContext& engine_;
};

// A range that holds no value (bounds of the wrong shape, ordering or value,
// or a lower bound above the upper one) stands for nothing, like a star form
// with an unknown word: it is disjoint from everything, (*) included, so
// that no intersection can carry it along.
ElementClass Algebra::Classify(const EngineNode* element) {
  ElementClass element_class = ClassOf(element);
  if (element_class == kClassRange) {
    ScopedBounds scoped(engine_);
    AddRangeElementBounds(engine_, &scoped.bounds, element, 1);
    if (Internal(EvaluateRange(scoped.bounds)) == Relation::kDisjoint) return kClassUnclassifiable;
  }
  return element_class;
}

bool MembersAreAtoms(const EngineNode* set) {
  for (const EngineNode* member = FirstMember(set); member != nullptr; member = member->next) {
    if (ClassOf(member) != kClassAtom) return false;
  }
  return true;
}

Status SortedAtoms::Reserve(size_t capacity) {
  engine_.FreeScratch(atoms_);
  atoms_ = nullptr;
  count_ = capacity_ = 0;
  if (capacity == 0) return SPKI_OK;
  atoms_ = static_cast<const EngineAtom**>(engine_.AllocateScratch(capacity * sizeof(*atoms_)));
  if (atoms_ == nullptr) return SPKI_ERR_NO_MEM;
  capacity_ = capacity;
  return SPKI_OK;
}

Status SortedAtoms::Take(const EngineNode* set) {
  taken_ = false;
  if (!MembersAreAtoms(set)) return SPKI_OK;
  const size_t count = ChainLength(FirstMember(set));
  Status status = Reserve(count);
  if (status != SPKI_OK) return status;
  for (const EngineNode* member = FirstMember(set); member != nullptr; member = member->next) {
    atoms_[count_++] = AtomOf(member);
  }
  // About n log n comparisons.
  uint64_t rounds = 1;
  for (size_t n = count; n > 1; n >>= 1) ++rounds;
  if (!engine_.ChargeWork(static_cast<uint64_t>(count) * rounds)) return SPKI_ERR_UNKNOWN;
  std::sort(atoms_, atoms_ + count_, Less);
  taken_ = true;
  return SPKI_OK;
}

bool SortedAtoms::Holds(const EngineAtom* atom) const {
  return std::binary_search(atoms_, atoms_ + count_, atom, Less);
}

Status FirstOccurrences::Mark(const EngineNode* set) {
  const size_t count = ChainLength(FirstMember(set));
  if (count == 0) return SPKI_OK;
  ranked_ = static_cast<Ranked*>(engine_.AllocateScratch(count * sizeof(Ranked)));
  first_ = static_cast<uint8_t*>(engine_.AllocateScratch(count));
  if (ranked_ == nullptr || first_ == nullptr) return SPKI_ERR_NO_MEM;
  size_t index = 0;
  for (const EngineNode* member = FirstMember(set); member != nullptr; member = member->next) {
    ranked_[index] = {AtomOf(member), index};
    ++index;
  }
  std::sort(ranked_, ranked_ + count, [](const Ranked& a, const Ranked& b) {
    if (SortedAtoms::Less(a.atom, b.atom)) return true;
    if (SortedAtoms::Less(b.atom, a.atom)) return false;
    return a.index < b.index;
  });
  std::memset(first_, 0, count);
  for (size_t i = 0; i < count; ++i) {
    if (i == 0 || SortedAtoms::Less(ranked_[i - 1].atom, ranked_[i].atom)) {
      first_[ranked_[i].index] = 1;
    }
  }
  return SPKI_OK;
}

bool SortedAtoms::Within(const SortedAtoms& other, bool* overlap) const {
  bool all = true;
  size_t j = 0;
  for (size_t i = 0; i < count_; ++i) {
    while (j < other.count_ && Less(other.atoms_[j], atoms_[i])) ++j;
    const bool found = j < other.count_ && !Less(atoms_[i], other.atoms_[j]);
    if (found) {
      *overlap = true;
    } else {
      all = false;
    }
  }
  return all;
}

Status Algebra::CompareLists(const EngineNode* a, const EngineNode* b, int depth, Relation* out) {
  Relation state = Relation::kEqual;
  bool tie = false;  // an element pair tied: a list otherwise equal ties too
  for (;; a = a->next, b = b->next) {
    if (a == b) {
      *out = state == Relation::kEqual && tie ? Relation::kTie : state;
      return SPKI_OK;
    }
    if (a == nullptr) {  // the first is shorter, hence broader
      *out = state == Relation::kEqual || state == Relation::kBroader ? Relation::kBroader
                                                                      : Relation::kOverlapping;
      return SPKI_OK;
    }
    if (b == nullptr) {
      *out = state == Relation::kEqual || state == Relation::kNarrower ? Relation::kNarrower
                                                                       : Relation::kOverlapping;
      return SPKI_OK;
    }
    Relation relation;
    Status status = CompareElements(a, b, depth + 1, &relation);
    if (status != SPKI_OK) return status;
    switch (relation) {
      case Relation::kEqual:
        break;
      case Relation::kTie:
        tie = true;
        break;
      case Relation::kNarrower:
        if (state == Relation::kEqual) state = Relation::kNarrower;
        if (state == Relation::kBroader) state = Relation::kOverlapping;
        break;
      case Relation::kBroader:
        if (state == Relation::kEqual) state = Relation::kBroader;
        if (state == Relation::kNarrower) state = Relation::kOverlapping;
        break;
      case Relation::kOverlapping:
        state = Relation::kOverlapping;
        break;
      default:
        *out = Relation::kDisjoint;
        return SPKI_OK;
    }
  }
}

Status Algebra::CompareElements(const EngineNode* a, const EngineNode* b, int depth,
                                Relation* out) {
  if (depth > kMaxTagDepth) return SPKI_ERR_BAD_SEXP;
  *out = Relation::kDisjoint;
  if (!engine_.ChargeWork(1)) return SPKI_ERR_UNKNOWN;
  if (a == b) {
    *out = Relation::kEqual;
    return SPKI_OK;
  }
  if (a == nullptr || b == nullptr) return SPKI_OK;
  ElementClass ca = Classify(a);
  ElementClass cb = Classify(b);
  if (ca == kClassUnclassifiable || cb == kClassUnclassifiable) return SPKI_OK;

  if (cb == kClassAll) {
    *out = ca == kClassAll ? Relation::kEqual : Relation::kNarrower;
    return SPKI_OK;
  }
  if (ca == kClassAll) {
    *out = Relation::kBroader;
    return SPKI_OK;
  }
  if (cb == kClassSet) {
    if (IsPlain(ca)) {
      bool inside = false;
      Status status = InSet(a, b, depth, &inside);
      if (status == SPKI_OK && inside) *out = Relation::kNarrower;
      return status;
    }
    if (IsStarForm(ca)) {
      Relation relation;
      Status status = CompareSet(b, a, depth, &relation);
      if (status == SPKI_OK) *out = Mirrored(relation);
      return status;
    }
    return SPKI_OK;
  }

  switch (ca) {
    case kClassKeywordHead:
      if (cb == kClassKeywordHead && KeywordOf(a) == KeywordOf(b)) *out = Relation::kEqual;
      return SPKI_OK;
    case kClassAtomHead:
      if (cb == kClassAtomHead && CompareAtoms(AtomOf(a), AtomOf(b)) == kOrderEqual)
        *out = Relation::kEqual;
      return SPKI_OK;
    case kClassAtom:
      if (cb == kClassAtom) {
        if (CompareAtoms(AtomOf(a), AtomOf(b)) == kOrderEqual) *out = Relation::kEqual;
      } else if (cb == kClassPrefix) {
        if (StartsWith(AtomOf(a), PrefixOf(b))) *out = Relation::kNarrower;
      } else if (cb == kClassRange) {
        bool inside = false;
        Status status = InRange(AtomOf(a), b, &inside);
        if (status == SPKI_OK && inside) *out = Relation::kNarrower;
        return status;
      }
      return SPKI_OK;
    case kClassSublist:
      if (cb == kClassSublist) return CompareLists(SublistOf(a), SublistOf(b), depth, out);
      return SPKI_OK;
    case kClassSet:
      if (IsPlain(cb)) {
        bool inside = false;
        Status status = InSet(b, a, depth, &inside);
        if (status == SPKI_OK && inside) *out = Relation::kBroader;
        return status;
      }
      return CompareSet(a, b, depth, out);  // cb is a prefix or a range here
    case kClassPrefix:
      if (cb == kClassAtom) {
        if (StartsWith(AtomOf(b), PrefixOf(a))) *out = Relation::kBroader;
      } else if (cb == kClassPrefix) {
        const EngineAtom* pa = PrefixOf(a);
        const EngineAtom* pb = PrefixOf(b);
        // Equal prefixes tie: 1 for the first operand.
        if (StartsWith(pa, pb)) {
          *out = StartsWith(pb, pa) ? Relation::kTie : Relation::kNarrower;
        } else if (StartsWith(pb, pa)) {
          *out = Relation::kBroader;
        }
      } else if (cb == kClassRange) {
        return PrefixRange(a, b, out);
      }
      return SPKI_OK;
    case kClassRange:
      if (cb == kClassAtom) {
        bool inside = false;
        Status status = InRange(AtomOf(b), a, &inside);
        if (status == SPKI_OK && inside) *out = Relation::kBroader;
        return status;
      }
      if (cb == kClassPrefix) {
        Relation relation;
        Status status = PrefixRange(b, a, &relation);
        if (status == SPKI_OK) *out = Mirrored(relation);
        return status;
      }
      if (cb == kClassRange) return RangeRange(a, b, out);
      return SPKI_OK;
    default:
      return SPKI_OK;
  }
}

Status Algebra::InSet(const EngineNode* element, const EngineNode* set, int depth, bool* inside) {
  *inside = false;
  for (const EngineNode* member = FirstMember(set); member != nullptr; member = member->next) {
    Relation relation;
    Status status = CompareElements(element, member, depth + 1, &relation);
    if (status != SPKI_OK) return status;
    if (InsideOrEqual(relation)) {
      *inside = true;
      return SPKI_OK;
    }
  }
  return SPKI_OK;
}

// A set against another star form. Each pair of members (or each member
// against a prefix or range) is compared once, so nested sets cost the
// product of their sizes, never an exponential walk. The answer is
//   1 when every member of the set is inside the other (an empty set is
//     inside everything);
//   2 when the other is inside the set: every member of another set is
//     covered by some member here, or one member here covers the prefix or
//     range;
//   4 when some pair overlaps at all, else 3.
// Members that stand for nothing add no value to a set and are passed over.
// When both hold, the two tie (and the first operand of the comparison is
// taken as the narrower, as for equal ranges and prefixes).
Status Algebra::CompareSet(const EngineNode* set, const EngineNode* other, int depth,
                           Relation* out) {
  *out = Relation::kDisjoint;
  bool all_inside = true;
  bool covered = false;
  bool overlap = false;
  if (ClassOf(other) == kClassSet) {
    SortedAtoms mine(engine_), theirs(engine_);
    Status status = mine.Take(set);
    if (status == SPKI_OK) status = theirs.Take(other);
    if (status != SPKI_OK) return status;
    if (mine.taken() && theirs.taken()) {
      // Sets of plain atoms: two atoms are equal or disjoint, so a merge of
      // the sorted members answers in O(n log n) what pairing them would.
      all_inside = mine.Within(theirs, &overlap);
      covered = theirs.Within(mine, &overlap);
      *out = all_inside && covered ? Relation::kTie
             : all_inside          ? Relation::kNarrower
             : covered             ? Relation::kBroader
             : overlap             ? Relation::kOverlapping
                                   : Relation::kDisjoint;
      return SPKI_OK;
    }
    size_t count = ChainLength(FirstMember(other));
    auto* hit = static_cast<uint8_t*>(engine_.AllocateScratch(count));
    if (hit == nullptr) return SPKI_ERR_NO_MEM;
    std::memset(hit, 0, count);
    size_t index = 0;
    for (const EngineNode* n = FirstMember(other); n != nullptr; n = n->next, ++index) {
      if (Classify(n) == kClassUnclassifiable) hit[index] = 1;
    }
    for (const EngineNode* m = FirstMember(set); m != nullptr; m = m->next) {
      if (Classify(m) == kClassUnclassifiable) continue;
      bool inside = false;
      size_t j = 0;
      for (const EngineNode* n = FirstMember(other); n != nullptr; n = n->next, ++j) {
        Relation relation;
        Status status = CompareElements(m, n, depth + 1, &relation);
        if (status != SPKI_OK) {
          engine_.FreeScratch(hit);
          return status;
        }
        if (InsideOrEqual(relation)) inside = true;
        if (CoversOrEqual(relation)) hit[j] = 1;
        if (relation != Relation::kDisjoint) overlap = true;
      }
      if (!inside) all_inside = false;
    }
    covered = true;
    for (size_t j = 0; j < count; ++j) covered = covered && hit[j] != 0;
    engine_.FreeScratch(hit);
  } else {
    for (const EngineNode* m = FirstMember(set); m != nullptr; m = m->next) {
      if (Classify(m) == kClassUnclassifiable) continue;
      Relation relation;
      Status status = CompareElements(m, other, depth + 1, &relation);
      if (status != SPKI_OK) return status;
      if (!InsideOrEqual(relation)) all_inside = false;
      if (CoversOrEqual(relation)) covered = true;
      if (relation != Relation::kDisjoint) overlap = true;
    }
  }
  if (all_inside && covered) {
    *out = Relation::kTie;
  } else if (all_inside) {
    *out = Relation::kNarrower;
  } else if (covered) {
    *out = Relation::kBroader;
  } else {
    *out = overlap ? Relation::kOverlapping : Relation::kDisjoint;
  }
  return SPKI_OK;
}

// Range comparisons keep the bounds rule (the operand added first keeps a
// bound on equal values unless the later one is strict), so one order alone
// reports a range that shares a bound with a wider one as overlapping. Both
// orders are evaluated (ranges are leaves, so this costs no recursion) and
// either one finding an operand inside the other decides; inside both ways
// is a tie, reported as 1 like two identical ranges.
// Both arguments are oriented alike: 1 means the first operand is narrower.
Relation CombineOrders(Relation one_order, Relation other_order) {
  bool first_inside = one_order == Relation::kNarrower || other_order == Relation::kNarrower;
  bool second_inside = one_order == Relation::kBroader || other_order == Relation::kBroader;
  if (first_inside && second_inside) return Relation::kTie;
  if (first_inside) return Relation::kNarrower;
  if (second_inside) return Relation::kBroader;
  return one_order;
}

Status Algebra::PrefixRange(const EngineNode* prefix, const EngineNode* range, Relation* out) {
  // The range's bounds go in with source 2 and before the prefix's: the
  // prefix is read in the range's ordering.
  Relation range_first;
  {
    ScopedBounds scoped(engine_);
    AddRangeElementBounds(engine_, &scoped.bounds, range, 2);
    Status status = AddPrefixBounds(engine_, &scoped.bounds, prefix, 1);
    if (status != SPKI_OK) return status;
    range_first = Internal(EvaluateRange(scoped.bounds));
  }
  Relation prefix_first;
  {
    ScopedBounds scoped(engine_);
    const EngineNode* ordering = StarWord(range)->next;  // a valid range: checked above
    if (ordering != nullptr && ordering->kind == kNodeAtom) {
      scoped.bounds.ordering = AtomOf(ordering)->keyword_id;
    }
    Status status = AddPrefixBounds(engine_, &scoped.bounds, prefix, 2);
    if (status != SPKI_OK) return status;
    AddRangeElementBounds(engine_, &scoped.bounds, range, 1);
    prefix_first = Internal(EvaluateRange(scoped.bounds));
  }
  if (range_first == Relation::kDisjoint || range_first == Relation::kEqual) {
    *out = range_first;
    return SPKI_OK;
  }
  *out = CombineOrders(range_first, Mirrored(prefix_first));
  return SPKI_OK;
}

Status Algebra::RangeRange(const EngineNode* a, const EngineNode* b, Relation* out) {
  auto evaluate = [this](const EngineNode* first, const EngineNode* second) {
    ScopedBounds scoped(engine_);
    AddRangeElementBounds(engine_, &scoped.bounds, first, 1);
    AddRangeElementBounds(engine_, &scoped.bounds, second, 2);
    return Internal(EvaluateRange(scoped.bounds));
  };
  Relation a_first = evaluate(a, b);
  if (a_first == Relation::kDisjoint || a_first == Relation::kEqual) {
    *out = a_first;
    return SPKI_OK;
  }
  *out = CombineOrders(a_first, Mirrored(evaluate(b, a)));
  return SPKI_OK;
}

Status Algebra::InRange(const EngineAtom* atom, const EngineNode* range, bool* inside) {
  *inside = false;
  ScopedBounds scoped(engine_);
  const RangeBounds& bounds = scoped.bounds;
  AddRangeElementBounds(engine_, &scoped.bounds, range, 2);
  if (IsInvalid(bounds) || !ValueFits(atom, bounds.ordering)) return SPKI_OK;
  if (bounds.lower != nullptr) {
    AtomOrder order = CompareInOrdering(atom, bounds.lower, bounds.ordering);
    bool above =
        order == kOrderAfter || (order == kOrderEqual && bounds.lower_operator == kKeywordGe);
    if (!above) return SPKI_OK;
  }
  if (bounds.upper != nullptr) {
    AtomOrder order = CompareInOrdering(atom, bounds.upper, bounds.ordering);
    bool below =
        order == kOrderBefore || (order == kOrderEqual && bounds.upper_operator == kKeywordLe);
    if (!below) return SPKI_OK;
  }
  *inside = true;
  return SPKI_OK;
}

Status Algebra::Copy(const EngineNode* element, EngineNode** out) {
  *out = CopyElement(engine_, element);
  return *out != nullptr ? SPKI_OK : SPKI_ERR_NO_MEM;
}

Status Algebra::IntersectLists(EngineNode* a, EngineNode* b, int depth, EngineNode** out) {
  *out = nullptr;
  if (b == nullptr) {
    AssignNode(engine_, out, a);
    return SPKI_OK;
  }
  // The rests are intersected in this loop rather than by recursion, so a
  // long list costs no stack.
  NodeRef result(engine_);
  EngineNode** tail = result.out();
  for (;;) {
    Relation relation;
    Status status = CompareLists(a, b, depth, &relation);
    if (status != SPKI_OK) return status;
    if (InsideOrEqual(relation)) {
      AssignNode(engine_, tail, a);
      break;
    }
    if (relation == Relation::kBroader) {
      AssignNode(engine_, tail, b);
      break;
    }
    if (relation != Relation::kOverlapping) return SPKI_OK;  // disjoint: no result at all
    // Overlapping: both chains are present here.
    EngineNode* element = nullptr;
    status = IntersectElements(a, b, depth + 1, &element);
    if (status != SPKI_OK) return status;
    if (element == nullptr) return SPKI_OK;
    *tail = element;  // the chain owns the element's count
    tail = &element->next;
    if (a->next == nullptr) {
      AssignNode(engine_, tail, b->next);
      break;
    }
    if (b->next == nullptr) {
      AssignNode(engine_, tail, a->next);
      break;
    }
    a = a->next;
    b = b->next;
  }
  *out = result.release();
  return SPKI_OK;
}

Status Algebra::IntersectElements(EngineNode* a, EngineNode* b, int depth, EngineNode** out) {
  *out = nullptr;
  if (depth > kMaxTagDepth) return SPKI_ERR_BAD_SEXP;
  if (!engine_.ChargeWork(1)) return SPKI_ERR_UNKNOWN;
  if (a == nullptr || b == nullptr) return SPKI_OK;
  ElementClass ca = Classify(a);
  ElementClass cb = Classify(b);
  if (ca == kClassUnclassifiable || cb == kClassUnclassifiable) return SPKI_OK;

  if (ca == kClassSublist && cb == kClassSublist) {
    NodeRef contents(engine_);
    Status status = IntersectLists(SublistOf(a), SublistOf(b), depth, contents.out());
    if (status != SPKI_OK || !contents) return status;
    *out = NewSublistElement(engine_, contents.get());
    return *out != nullptr ? SPKI_OK : SPKI_ERR_NO_MEM;
  }
  if (ca == kClassAll) return Copy(b, out);
  if (cb == kClassAll) return Copy(a, out);
  if (ca == kClassSet) return IntersectSet(a, b, depth, out);
  if (cb == kClassSet) return IntersectSet(b, a, depth, out);
  if (ca == kClassPrefix && cb == kClassPrefix) {
    const EngineAtom* pa = PrefixOf(a);
    const EngineAtom* pb = PrefixOf(b);
    if (StartsWith(pa, pb)) return Copy(a, out);
    if (StartsWith(pb, pa)) return Copy(b, out);
    return SPKI_OK;
  }
  if ((ca == kClassPrefix || ca == kClassRange) && (cb == kClassPrefix || cb == kClassRange)) {
    return IntersectRanges(a, ca, b, cb, out);
  }
  Relation relation;
  Status status = CompareElements(a, b, depth, &relation);
  if (status != SPKI_OK) return status;
  if (InsideOrEqual(relation)) return Copy(a, out);
  if (relation == Relation::kBroader) return Copy(b, out);
  return SPKI_OK;
}

Status Algebra::IntersectRanges(const EngineNode* a, ElementClass a_class, const EngineNode* b,
                                ElementClass b_class, EngineNode** out) {
  ScopedBounds scoped(engine_);
  // The range goes in first: its ordering is the one the prefix is read in.
  Status status = SPKI_OK;
  if (a_class == kClassPrefix) {
    AddRangeElementBounds(engine_, &scoped.bounds, b, 2);
    status = AddPrefixBounds(engine_, &scoped.bounds, a, 1);
  } else {
    AddRangeElementBounds(engine_, &scoped.bounds, a, 1);
    if (b_class == kClassPrefix) {
      status = AddPrefixBounds(engine_, &scoped.bounds, b, 2);
    } else {
      AddRangeElementBounds(engine_, &scoped.bounds, b, 2);
    }
  }
  if (status != SPKI_OK) return status;
  if (Internal(EvaluateRange(scoped.bounds)) == Relation::kDisjoint) return SPKI_OK;
  return BuildRange(scoped.bounds, out);
}

// (* range ORDERING (lower-op value) (upper-op value)) from the record.
Status Algebra::BuildRange(const RangeBounds& bounds, EngineNode** out) {
  NodeRef head(engine_);
  Status status = ParseTemplate(engine_, head.out(), kRangeTemplate);
  if (status != SPKI_OK) return status;
  EngineNode* tail = head->next;  // the "range" atom
  AtomRef ordering(engine_, NewKeywordAtom(engine_, bounds.ordering));
  if (!ordering) return SPKI_ERR_NO_MEM;
  tail->next = NewAtomElement(engine_, ordering.get());
  if (tail->next == nullptr) return SPKI_ERR_NO_MEM;
  tail = tail->next;
  struct Bound {
    EngineAtom* value;
    int32_t op;
  };
  const Bound limits[] = {{bounds.lower, bounds.lower_operator},
                          {bounds.upper, bounds.upper_operator}};
  for (const Bound& limit : limits) {
    if (limit.value == nullptr) continue;
    NodeRef op(engine_, NewKeywordHead(engine_, limit.op));
    if (!op) return SPKI_ERR_NO_MEM;
    op->next = NewAtomElement(engine_, limit.value);
    if (op->next == nullptr) return SPKI_ERR_NO_MEM;
    tail->next = NewSublistElement(engine_, op.get());
    if (tail->next == nullptr) return SPKI_ERR_NO_MEM;
    tail = tail->next;
  }
  *out = NewSublistElement(engine_, head.get());
  return *out != nullptr ? SPKI_OK : SPKI_ERR_NO_MEM;
}

// Adds an owned |element| at the front of the result unless an equal one is
// already there.
Status Algebra::AddUnique(NodeRef* front, EngineNode* element, int depth, size_t* count) {
  NodeRef owned(engine_, element);
  for (const EngineNode* kept = front->get(); kept != nullptr; kept = kept->next) {
    Relation relation;
    Status status = CompareElements(kept, element, depth + 1, &relation);
    if (status != SPKI_OK) return status;
    if (relation == Relation::kEqual) return SPKI_OK;
  }
  element->next = front->release();
  front->reset(owned.release());
  ++*count;
  return SPKI_OK;
}

Status Algebra::IntersectSet(EngineNode* set, EngineNode* element, int depth, EngineNode** out) {
  *out = nullptr;
  NodeRef front(engine_);
  size_t count = 0;
  if (ClassOf(element) == kClassSet) {
    SortedAtoms theirs(engine_);
    Status status = theirs.Take(element);
    if (status != SPKI_OK) return status;
    if (theirs.taken() && MembersAreAtoms(set)) {
      // Both sets of plain atoms: a member is kept when the other set holds
      // it, once, in the order of the walk below (each kept member goes to
      // the front), found by binary search instead of by pairing.
      FirstOccurrences first(engine_);
      status = first.Mark(set);
      if (status != SPKI_OK) return status;
      size_t index = 0;
      for (EngineNode* member = const_cast<EngineNode*>(FirstMember(set)); member != nullptr;
           member = member->next, ++index) {
        if (!engine_.ChargeWork(1)) return SPKI_ERR_UNKNOWN;
        if (!first.IsFirst(index) || !theirs.Holds(AtomOf(member))) continue;
        EngineNode* copy = nullptr;
        status = Copy(member, &copy);
        if (status != SPKI_OK) return status;
        copy->next = front.release();
        front.reset(copy);
        ++count;
      }
      return FinishSet(&front, count, out);
    }
  }
  for (EngineNode* member = const_cast<EngineNode*>(FirstMember(set)); member != nullptr;
       member = member->next) {
    Relation relation;
    Status status = CompareElements(member, element, depth + 1, &relation);
    if (status != SPKI_OK) return status;
    NodeRef kept(engine_);
    if (InsideOrEqual(relation)) {
      status = Copy(member, kept.out());
    } else if (relation == Relation::kBroader) {
      status = Copy(element, kept.out());
    } else if (relation == Relation::kOverlapping) {
      status = IntersectElements(member, element, depth + 1, kept.out());
    }
    if (status != SPKI_OK) return status;
    if (!kept) continue;
    if (ClassOf(kept.get()) == kClassSet) {  // a kept set is flattened into its members
      for (const EngineNode* inner = FirstMember(kept.get()); inner != nullptr;
           inner = inner->next) {
        if (Classify(inner) == kClassUnclassifiable) continue;  // adds no value
        EngineNode* copy = nullptr;
        status = Copy(inner, &copy);
        if (status == SPKI_OK) status = AddUnique(&front, copy, depth, &count);
        if (status != SPKI_OK) return status;
      }
    } else {
      status = AddUnique(&front, kept.release(), depth, &count);
      if (status != SPKI_OK) return status;
    }
  }
  return FinishSet(&front, count, out);
}

// The result of a set intersection: nothing, the one element left, or a new
// set of the elements left (|front| in order).
Status Algebra::FinishSet(NodeRef* front, size_t count, EngineNode** out) {
  if (count <= 1) {
    *out = front->release();
    return SPKI_OK;
  }
  NodeRef head(engine_);
  Status status = ParseTemplate(engine_, head.out(), kSetTemplate);
  if (status != SPKI_OK) return status;
  head->next->next = front->release();  // after the "set" atom
  *out = NewSublistElement(engine_, head.get());
  return *out != nullptr ? SPKI_OK : SPKI_ERR_NO_MEM;
}

}  // namespace

const EngineNode* StarWord(const EngineNode* element) {
  return SublistOf(element)->next;
}

const EngineNode* FirstMember(const EngineNode* set) {
  return StarWord(set)->next;
}

const EngineAtom* PrefixOf(const EngineNode* prefix) {
  const EngineNode* value = StarWord(prefix)->next;
  if (value == nullptr || value->kind != kNodeAtom || value->next != nullptr) return nullptr;
  return AtomOf(value);
}

ElementClass ClassOf(const EngineNode* element) {
  if (element == nullptr) return kClassUnclassifiable;
  switch (element->kind) {
    case kNodeKeywordHead:
      return kClassKeywordHead;
    case kNodeAtomHead:
      return kClassAtomHead;
    case kNodeAtom:
      return kClassAtom;
    case kNodeSublist:
      break;
    default:
      return kClassUnclassifiable;
  }
  const EngineNode* head = SublistOf(element);
  if (head == nullptr) return kClassUnclassifiable;
  if (head->kind != kNodeKeywordHead || KeywordOf(head) != kKeywordStar) return kClassSublist;
  const EngineNode* word = head->next;
  if (word == nullptr) return kClassAll;
  if (word->kind != kNodeAtom) return kClassUnclassifiable;
  switch (AtomOf(word)->keyword_id) {
    case kKeywordSet:
      return kClassSet;
    case kKeywordPrefix:
      // Exactly one atom after "prefix"; any other shape stands for nothing.
      return word->next != nullptr && word->next->kind == kNodeAtom && word->next->next == nullptr
                 ? kClassPrefix
                 : kClassUnclassifiable;
    case kKeywordRange:
      return kClassRange;
    default:
      return kClassUnclassifiable;
  }
}

TagRelation Mirror(TagRelation relation) {
  if (relation == kTagNarrower) return kTagBroader;
  if (relation == kTagBroader) return kTagNarrower;
  return relation;
}

const char* TagRelationName(TagRelation relation) {
  switch (relation) {
    case kTagEqual:
      return "equal";
    case kTagNarrower:
      return "narrower";
    case kTagBroader:
      return "broader";
    case kTagOverlapping:
      return "overlapping";
    default:
      return "disjoint";
  }
}

Status CompareTagLists(EngineContext& engine, const EngineNode* first, const EngineNode* second,
                       TagRelation* relation) {
  if (relation == nullptr) return SPKI_ERR_NULL_PARAM;
  Relation internal = Relation::kDisjoint;
  Status status = Algebra(engine).CompareLists(first, second, 0, &internal);
  *relation = Public(internal);
  return status;
}

Status CompareTagElements(EngineContext& engine, const EngineNode* first, const EngineNode* second,
                          TagRelation* relation) {
  if (relation == nullptr) return SPKI_ERR_NULL_PARAM;
  Relation internal = Relation::kDisjoint;
  Status status = Algebra(engine).CompareElements(first, second, 1, &internal);
  *relation = Public(internal);
  return status;
}

Status IntersectTagLists(EngineContext& engine, EngineNode* first, EngineNode* second,
                         EngineNode** out) {
  if (out == nullptr) return SPKI_ERR_NULL_PARAM;
  return Algebra(engine).IntersectLists(first, second, 0, out);
}

Status IntersectTagElements(EngineContext& engine, EngineNode* first, EngineNode* second,
                            EngineNode** out) {
  if (out == nullptr) return SPKI_ERR_NULL_PARAM;
  return Algebra(engine).IntersectElements(first, second, 1, out);
}

Status IsInRange(EngineContext& engine, const EngineAtom* atom, const EngineNode* range,
                 bool* inside) {
  if (inside == nullptr) return SPKI_ERR_NULL_PARAM;
  *inside = false;
  if (atom == nullptr || ClassOf(range) != kClassRange) return SPKI_OK;
  return Algebra(engine).InRange(atom, range, inside);
}

Status IsInSet(EngineContext& engine, const EngineNode* element, const EngineNode* set,
               bool* inside) {
  if (inside == nullptr) return SPKI_ERR_NULL_PARAM;
  *inside = false;
  if (ClassOf(set) != kClassSet) return SPKI_OK;
  return Algebra(engine).InSet(element, set, 1, inside);
}

Status CompareSetWith(EngineContext& engine, const EngineNode* set, const EngineNode* other,
                      TagRelation* relation) {
  if (relation == nullptr) return SPKI_ERR_NULL_PARAM;
  *relation = kTagDisjoint;
  if (ClassOf(set) != kClassSet || !IsStarForm(ClassOf(other))) return SPKI_OK;
  Relation internal = Relation::kDisjoint;
  Status status = Algebra(engine).CompareSet(set, other, 1, &internal);
  *relation = Public(internal);
  return status;
}

Status IntersectSet(EngineContext& engine, EngineNode* set, EngineNode* element, EngineNode** out) {
  if (out == nullptr) return SPKI_ERR_NULL_PARAM;
  *out = nullptr;
  if (ClassOf(set) != kClassSet) return SPKI_OK;
  return Algebra(engine).IntersectSet(set, element, 1, out);
}

}  // namespace velk2::engine
