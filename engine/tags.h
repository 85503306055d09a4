// The tag algebra: comparing and intersecting authorization tags held as
// engine node chains. A list stands for itself and everything longer; the
// star forms (*), (* set ...), (* prefix P) and (* range ORDERING bounds...)
// stand for sets of values.
//
// Every function here walks both operands recursively; the walk is bounded
// (kMaxTagDepth nested element comparisons) and refused past it with
// SPKI_ERR_BAD_SEXP (-130). Each returns 0 or a negative engine status and
// hands its answer back through an out-parameter.
#ifndef VELK2_ENGINE_TAGS_H_
#define VELK2_ENGINE_TAGS_H_

#include <cstdint>

#include "engine/status.h"
#include "engine/store.h"

namespace velk2::engine {

enum TagRelation : uint32_t {
  kTagEqual = 0,
  kTagNarrower = 1,     // the first is narrower: it implies the second
  kTagBroader = 2,      // the second is narrower
  kTagDisjoint = 3,     // no intersection
  kTagOverlapping = 4,  // each has something the other lacks
};

// The class of one tag element.
enum ElementClass : int32_t {
  // A star form with an unknown word, or a prefix not followed by exactly one
  // atom: disjoint from everything, (*) included. Inside the comparisons a
  // range that holds no value is treated the same way.
  kClassUnclassifiable = 0,
  kClassKeywordHead = 1,
  kClassAtomHead = 2,
  kClassAtom = 3,
  kClassSublist = 4,  // a sublist that is not a star form
  kClassAll = 11,     // (*)
  kClassSet = 12,     // (* set member...)
  kClassPrefix = 13,  // (* prefix P)
  kClassRange = 14,   // (* range ORDERING (op value)...)
};

// The deepest nesting of element comparisons: a comparison descends into
// both operands, each at most kMaxNesting deep.
inline constexpr int kMaxTagDepth = 2 * kMaxNesting + 4;

ElementClass ClassOf(const EngineNode* element);

// The word node after "*" in a star form: "set", "prefix" or "range".
const EngineNode* StarWord(const EngineNode* element);
// The first member of a set.
const EngineNode* FirstMember(const EngineNode* set);
// The prefix of a (* prefix P) element: exactly one atom, else null (and the
// element is then disjoint from everything).
const EngineAtom* PrefixOf(const EngineNode* prefix);

// Mirror swaps "first narrower" and "second narrower"; the rest stay.
TagRelation Mirror(TagRelation relation);

// The text of a relation for people: "equal", "narrower", "broader",
// "disjoint", "overlapping".
const char* TagRelationName(TagRelation relation);

// CompareTagLists compares two element chains (a list's head and what
// follows). A chain that ends first is broader: (ftp) is broader than
// (ftp host). A pair of disjoint elements makes the lists disjoint.
Status CompareTagLists(EngineContext& engine, const EngineNode* first, const EngineNode* second,
                       TagRelation* relation);

// CompareTagElements compares two elements of any class.
Status CompareTagElements(EngineContext& engine, const EngineNode* first, const EngineNode* second,
                          TagRelation* relation);

// IntersectTagLists stores in |*out| the intersection of two element chains,
// or null when they are disjoint. The result is a chain of its own with its
// own count (the caller releases it or hands it on), which may share nodes
// with the operands: a result equal to an operand is that operand's chain.
// A null |second| gives |first|.
Status IntersectTagLists(EngineContext& engine, EngineNode* first, EngineNode* second,
                         EngineNode** out);

// IntersectTagElements stores in |*out| one new element (no next sibling)
// standing for the intersection of two elements, or null.
Status IntersectTagElements(EngineContext& engine, EngineNode* first, EngineNode* second,
                            EngineNode** out);

// IsInRange: |atom| passes the range's ordering check and lies within its bounds.
Status IsInRange(EngineContext& engine, const EngineAtom* atom, const EngineNode* range,
                 bool* inside);

// IsInSet: |element| compares equal to or narrower than a member of |set|.
Status IsInSet(EngineContext& engine, const EngineNode* element, const EngineNode* set,
               bool* inside);

// CompareSetWith compares a set with another star form (set, prefix or range).
Status CompareSetWith(EngineContext& engine, const EngineNode* set, const EngineNode* other,
                      TagRelation* relation);

// IntersectSet stores in |*out| the intersection of |set| with |element|:
// none, the one element left, or a new set of the elements left.
Status IntersectSet(EngineContext& engine, EngineNode* set, EngineNode* element, EngineNode** out);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_TAGS_H_
