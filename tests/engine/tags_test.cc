// The tag algebra: element classes, comparison and intersection of elements
// and lists, ranges, prefixes and sets.
#include <gtest/gtest.h>

#include <algorithm>

#include <string>
#include <tuple>

#include "engine/keywords.h"
#include "engine/ranges.h"
#include "engine/tags.h"
#include "engine_fixture.h"

namespace velk2::engine {
namespace {

class TagsTest : public EngineFixture {
 protected:
  TagRelation CompareElements(const EngineNode* a, const EngineNode* b) {
    TagRelation relation = kTagOverlapping;
    EXPECT_EQ(CompareTagElements(engine_, a, b, &relation), SPKI_OK);
    return relation;
  }
  TagRelation CompareLists(const EngineNode* a, const EngineNode* b) {
    TagRelation relation = kTagOverlapping;
    EXPECT_EQ(CompareTagLists(engine_, a, b, &relation), SPKI_OK);
    return relation;
  }
  TagRelation CompareElementTexts(std::string_view a, std::string_view b) {
    return CompareElements(Element(a), Element(b));
  }
  // The readable intersection of two elements, "(none)" when disjoint.
  std::string IntersectElementTexts(std::string_view a, std::string_view b) {
    EngineNode* out = nullptr;
    EXPECT_EQ(IntersectTagElements(engine_, Element(a), Element(b), &out), SPKI_OK);
    if (out != nullptr) {
      EXPECT_EQ(out->next, nullptr);
    }
    return ReadableOf(Keep(out));
  }
  // The readable intersection of two lists, "(none)" when disjoint.
  std::string IntersectListTexts(std::string_view a, std::string_view b) {
    EngineNode* out = nullptr;
    EXPECT_EQ(IntersectTagLists(engine_, Readable(a), Readable(b), &out), SPKI_OK);
    if (out == nullptr) return "(none)";
    std::string text;
    EXPECT_EQ(PrintReadable(Keep(out), &text), SPKI_OK);
    return text;
  }
};

// One representative of every element class.
constexpr const char* kRepresentatives[] = {
    "read",                           // 3: atom
    "head:tag",                       // 1: keyword head
    "head:ftp",                       // 2: plain head
    "(ftp host)",                     // 4: sublist
    "(*)",                            // 11: everything
    "(* set read (ftp) write)",       // 12: set
    "(* prefix re)",                  // 13: prefix
    "(* range alpha (ge r) (le s))",  // 14: range
};

TEST_F(TagsTest, ClassesOfTheRepresentatives) {
  const ElementClass kWant[] = {kClassAtom, kClassKeywordHead, kClassAtomHead, kClassSublist,
                                kClassAll,  kClassSet,         kClassPrefix,   kClassRange};
  for (size_t i = 0; i < std::size(kRepresentatives); ++i) {
    EXPECT_EQ(ClassOf(Element(kRepresentatives[i])), kWant[i]) << kRepresentatives[i];
  }
  EXPECT_EQ(ClassOf(Element("(* foo a)")), kClassUnclassifiable);
  EXPECT_EQ(ClassOf(Element("(* (set) a)")), kClassUnclassifiable);
  EXPECT_EQ(ClassOf(Element("(* prefix a b)")), kClassUnclassifiable);
  EXPECT_EQ(ClassOf(Element("(* prefix (a))")), kClassUnclassifiable);
  EXPECT_EQ(ClassOf(Element("(* set)")), kClassSet);
  EXPECT_EQ(ClassOf(Element("([x]* set a)")), kClassSublist);  // a hinted "*" is no star
  EXPECT_EQ(ClassOf(nullptr), kClassUnclassifiable);
}

TEST_F(TagsTest, EveryPairOfElementClasses) {
  // Row: first operand; column: second, in the order of kRepresentatives.
  // E equal, N narrower, B broader, D disjoint, O overlapping.
  constexpr TagRelation E = kTagEqual, N = kTagNarrower, B = kTagBroader, D = kTagDisjoint,
                        O = kTagOverlapping;
  const TagRelation kRelation[8][8] = {
      // read  tag  ftp (ftp..) (*) set prefix range
      {E, D, D, D, N, N, N, N},  // read
      {D, E, D, D, N, D, D, D},  // tag
      {D, D, E, D, N, D, D, D},  // ftp
      {D, D, D, E, N, N, D, D},  // (ftp host)
      {B, B, B, B, E, B, B, B},  // (*)
      {B, D, D, B, N, N, O, O},  // set
      {B, D, D, D, N, O, N, N},  // prefix
      {B, D, D, D, N, O, B, N},  // range
  };
  const char* kSet = "(* set read (ftp) write)";
  const char* kPrefix = "(* prefix re)";
  const char* kRange = "(* range alpha (ge r) (le s))";
  const char* kNarrowed = "(* range alpha (ge re) (l rf))";
  const char* kNone = "(none)";
  const char* kMeet[8][8] = {
      {"read", kNone, kNone, kNone, "read", "read", "read", "read"},
      {kNone, "tag", kNone, kNone, "tag", kNone, kNone, kNone},
      {kNone, kNone, "ftp", kNone, "ftp", kNone, kNone, kNone},
      {kNone, kNone, kNone, "(ftp host)", "(ftp host)", "(ftp host)", kNone, kNone},
      {"read", "tag", "ftp", "(ftp host)", "(*)", kSet, kPrefix, kRange},
      {"read", kNone, kNone, "(ftp host)", kSet, "(* set write (ftp) read)", "read", "read"},
      {"read", kNone, kNone, kNone, kPrefix, "read", kPrefix, kNarrowed},
      {"read", kNone, kNone, kNone, kRange, "read", kNarrowed, kRange},
  };
  for (size_t i = 0; i < 8; ++i) {
    for (size_t j = 0; j < 8; ++j) {
      SCOPED_TRACE(std::string(kRepresentatives[i]) + " with " + kRepresentatives[j]);
      // Separate parses: equal elements are never the same node here.
      EXPECT_EQ(CompareElementTexts(kRepresentatives[i], kRepresentatives[j]), kRelation[i][j]);
      EXPECT_EQ(IntersectElementTexts(kRepresentatives[i], kRepresentatives[j]), kMeet[i][j]);
    }
  }
}

TEST_F(TagsTest, CompareElementsSpecialCases) {
  struct Case {
    const char* a;
    const char* b;
    TagRelation want;
  };
  const Case kCases[] = {
      // Membership only looks for a member the element is inside.
      {"(ftp)", "(* set (ftp host) (ftp port))", kTagDisjoint},
      {"delete", "(* set read write)", kTagDisjoint},
      // Sets against sets and other star forms.
      {"(* set read)", "(* set read write)", kTagNarrower},
      {"(* set read write)", "(* set read)", kTagBroader},
      {"(* set a b)", "(* set b c)", kTagOverlapping},
      {"(* set a b)", "(* set c d)", kTagDisjoint},
      {"(* set)", "(* set a)", kTagNarrower},  // the empty set is inside everything
      {"(* set /pub/a /pub/b)", "(* prefix /pub/)", kTagNarrower},
      {"(* prefix /pub/)", "(* set /pub/a)", kTagBroader},
      {"(* set (* prefix /pub/) x)", "(* prefix /pub/a)", kTagBroader},
      {"(* set /pub/a /etc)", "(* prefix /pub/)", kTagOverlapping},
      {"(* set /etc x)", "(* prefix /pub/)", kTagDisjoint},
      {"(* set 5 10)", "(* range numeric (ge 0) (le 100))", kTagNarrower},
      // Prefixes: equal prefixes tie to the first operand.
      {"/etc/passwd", "(* prefix /pub/)", kTagDisjoint},
      {"(* prefix /pub/a)", "(* prefix /pub/)", kTagNarrower},
      {"(* prefix /pub/)", "(* prefix /pub/a)", kTagBroader},
      {"(* prefix /pub/)", "(* prefix /pub/)", kTagNarrower},
      {"(* prefix /a)", "(* prefix /b)", kTagDisjoint},
      {"[text]/pub/x", "(* prefix /pub/)", kTagDisjoint},  // a hint is part of the value
      {"(* prefix)", "x", kTagDisjoint},
      // Prefixes against ranges, in the byte orderings only.
      {"(* prefix abc)", "(* range alpha (ge a) (le b))", kTagNarrower},
      // A bound shared with the range does not hide that the prefix is inside.
      {"(* prefix abc)", "(* range alpha (ge abc) (le abd))", kTagNarrower},
      {"(* prefix abc)", "(* range alpha (ge abc) (l abd))", kTagNarrower},  // a tie
      {"(* prefix abc)", "(* range alpha (ge b))", kTagDisjoint},
      {"(* range alpha (ge a) (le z))", "(* prefix m)", kTagBroader},
      {"(* prefix 2004)", "(* range date (ge 2003) (le 2006))", kTagNarrower},
      {"(* prefix 12)", "(* range numeric (ge 0))", kTagDisjoint},
      {"(* prefix \"\\xff\\xff\")", "(* range binary (ge \"\\x01\"))", kTagDisjoint},
      {"(* prefix \"a\\xff\")", "(* range alpha (ge a) (le b))", kTagNarrower},
      // Elements that stand for nothing are disjoint from everything, (*)
      // and sets holding (*) included: unknown star forms, malformed
      // prefixes, and ranges that are invalid or hold no value.
      {"(* foo)", "(*)", kTagDisjoint},
      {"(* prefix a b)", "(*)", kTagDisjoint},
      {"(* range date (ge 2005-03-01))", "(*)", kTagDisjoint},
      {"(*)", "(* range numeric (g 9) (le 1))", kTagDisjoint},
      {"(* range numeric (ge 5) (l 5))", "(* set (*))", kTagDisjoint},
      {"(* range numeric (ge 5) (le 5))", "(*)", kTagNarrower},  // one point is a value
      {"(* prefix /pub/)", "(* set (*))", kTagNarrower},
      {"(*)", "(* foo)", kTagDisjoint},
      {"(* foo)", "(* foo)", kTagDisjoint},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(CompareElementTexts(c.a, c.b), c.want) << c.a << " vs " << c.b;
  }
  EngineNode* same = Element("(* foo)");
  EXPECT_EQ(CompareElements(same, same), kTagEqual);  // the same node is always equal
  EXPECT_EQ(CompareElements(same, nullptr), kTagDisjoint);
  EXPECT_EQ(CompareElements(nullptr, nullptr), kTagEqual);
}

TEST_F(TagsTest, CompareRealisticTagLists) {
  struct Case {
    const char* a;
    const char* b;
    TagRelation want;
  };
  const Case kCases[] = {
      {"(tag (ftp host read))", "(tag (ftp host))", kTagNarrower},
      {"(tag (ftp host))", "(tag (ftp host read))", kTagBroader},
      {"(tag (ftp host read))", "(tag (ftp host read))", kTagEqual},
      {"(tag (ftp host))", "(tag (http host))", kTagDisjoint},
      {"(tag)", "(tag (ftp))", kTagBroader},
      {"(tag (ftp (* set read write) host))", "(tag (ftp read))", kTagOverlapping},
      {"(tag (* set read write (foo bla) delete))", "(tag (foo bla baz))", kTagBroader},
      {"(tag (* set read write (foo bla) delete))", "(tag write)", kTagBroader},
      {"(tag (ftp (* prefix /pub/)))", "(tag (ftp /pub/file))", kTagBroader},
      {"(tag (ftp /etc/passwd))", "(tag (ftp (* prefix /pub/)))", kTagDisjoint},
      {"(tag (spend (* range numeric (ge 0) (le 5000))))", "(tag (spend 100))", kTagBroader},
      {"(tag (spend 6000))", "(tag (spend (* range numeric (ge 0) (le 5000))))", kTagDisjoint},
      {"(tag (*))", "(tag (ftp host))", kTagBroader},
      {"(tag (ftp host) x)", "(tag (ftp) y)", kTagDisjoint},
      {"(tag (ftp host) (* set x y))", "(tag (ftp) x)", kTagOverlapping},
      {"(tag (ftp host) x)", "(tag (ftp) (* set x y))", kTagNarrower},
      // Bounds written without their own lists are not a range: disjoint.
      {"(tag (spend (* range numeric ge 0 le 5000)))", "(tag (spend 100))", kTagDisjoint},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(CompareLists(Readable(c.a), Readable(c.b)), c.want) << c.a << " vs " << c.b;
  }
  EngineNode* tag = Readable("(tag (ftp))");
  EXPECT_EQ(CompareLists(tag, tag), kTagEqual);
  EXPECT_EQ(CompareLists(tag->next, tag), kTagDisjoint);  // an element against a head
  EXPECT_EQ(CompareLists(nullptr, tag), kTagBroader);     // the empty chain is broadest
  EXPECT_EQ(CompareTagLists(engine_, tag, tag, nullptr), SPKI_ERR_NULL_PARAM);
}

TEST_F(TagsTest, IntersectRealisticTagLists) {
  struct Case {
    const char* a;
    const char* b;
    const char* want;
  };
  const Case kCases[] = {
      {"(tag (ftp host read))", "(tag (ftp host))", "(tag (ftp host read))"},
      {"(tag (ftp host))", "(tag (ftp host read))", "(tag (ftp host read))"},
      {"(tag (ftp (* set read write) host))", "(tag (ftp read))", "(tag (ftp read host))"},
      {"(tag (ftp read))", "(tag (ftp (* set read write) host))", "(tag (ftp read host))"},
      {"(tag (ftp host))", "(tag (http host))", "(none)"},
      {"(tag (spend (* range numeric (ge 0) (le 5000))))",
       "(tag (spend (* range numeric (ge 1000))))",
       "(tag (spend (* range numeric (ge 1000) (le 5000))))"},
      {"(tag (spend (* range numeric (le 10))))", "(tag (spend (* range numeric (g 10))))",
       "(none)"},
      // The lists are compared first, and membership only looks for a member
      // the element is inside: no member holds all of (ftp (* set b c)).
      {"(tag (* set (ftp (* set a b)) http))", "(tag (ftp (* set b c)))", "(none)"},
      {"(tag (ftp (* prefix /pub/)))", "(tag (ftp (* prefix /pub/incoming/)))",
       "(tag (ftp (* prefix /pub/incoming/)))"},
      {"(tag (ftp host) (* set x y))", "(tag (ftp) x)", "(tag (ftp host) x)"},
      {"(tag (*))", "(tag (ftp host))", "(tag (ftp host))"},
      {"(tag (* set a b) c)", "(tag (* set b c))", "(tag b c)"},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(IntersectListTexts(c.a, c.b), c.want) << c.a << " with " << c.b;
  }
  // A result equal to an operand is that operand's chain, with a count of its own.
  EngineNode* narrow = Readable("(tag (ftp host read))");
  EngineNode* broad = Readable("(tag (ftp))");
  EngineNode* out = nullptr;
  ASSERT_EQ(IntersectTagLists(engine_, broad, narrow, &out), SPKI_OK);
  EXPECT_EQ(out, narrow);
  EXPECT_EQ(narrow->ref_count, 2);
  ReleaseNode(engine_, out);
  ASSERT_EQ(IntersectTagLists(engine_, broad, nullptr, &out), SPKI_OK);
  EXPECT_EQ(out, broad);
  ReleaseNode(engine_, out);
  EXPECT_EQ(IntersectTagLists(engine_, broad, narrow, nullptr), SPKI_ERR_NULL_PARAM);
}

TEST_F(TagsTest, SetIntersection) {
  struct Case {
    const char* set;
    const char* element;
    const char* want;
  };
  const Case kCases[] = {
      {"(* set read write)", "read", "read"},  // one member left: the member alone
      {"(* set read write)", "delete", "(none)"},
      {"(* set (ftp) (http))", "(ftp host)", "(ftp host)"},
      {"(* set (* set a b) c)", "(* set a b z)", "(* set b a)"},  // kept sets are flattened
      {"(* set a a b)", "(* set a b)", "(* set b a)"},            // equal elements kept once
      {"(* set (ftp (* set a b)) x)", "(ftp (* set b c))", "(ftp b)"},
      {"(* set (* prefix /pub/) /etc)", "(* prefix /pub/a)", "(* prefix /pub/a)"},
      {"(* set)", "a", "(none)"},
  };
  for (const Case& c : kCases) {
    EngineNode* out = nullptr;
    EXPECT_EQ(IntersectSet(engine_, Element(c.set), Element(c.element), &out), SPKI_OK);
    EXPECT_EQ(ReadableOf(Keep(out)), c.want) << c.set << " with " << c.element;
  }
  EngineNode* out = nullptr;
  EXPECT_EQ(IntersectSet(engine_, Element("(a b)"), Element("a"), &out), SPKI_OK);
  EXPECT_EQ(out, nullptr);  // not a set
  bool inside = true;
  EXPECT_EQ(IsInSet(engine_, Element("b"), Element("(* set a (* set b))"), &inside), SPKI_OK);
  EXPECT_TRUE(inside);
  EXPECT_EQ(IsInSet(engine_, Element("c"), Element("(* set a (* set b))"), &inside), SPKI_OK);
  EXPECT_FALSE(inside);
  TagRelation relation = kTagEqual;
  EXPECT_EQ(CompareSetWith(engine_, Element("(* set a)"), Element("(* set a)"), &relation),
            SPKI_OK);
  EXPECT_EQ(relation, kTagNarrower);  // the tie goes to the first operand
  EXPECT_EQ(CompareSetWith(engine_, Element("(* set a)"), Element("a"), &relation), SPKI_OK);
  EXPECT_EQ(relation, kTagDisjoint);  // only star forms are compared here
}

// Atoms are equal when they agree up to a NUL they share; sets of plain
// atoms, looked up through sorted copies, must agree with the pairwise
// comparison (a fuzzer found an intersection that its own operand overlapped).
TEST_F(TagsTest, AtomsEqualUpToASharedNulInEverySetPath) {
  using namespace std::string_literals;
  EngineNode* a = Canonical(
      "(3:tag(1:*3:set(1:x)2:q\0"
      "2:z\0))"s);
  EngineNode* b = Canonical(
      "(3:tag(1:*3:set2:q\0"
      "3:z\0y))"s);
  EngineNode* atoms_only = Canonical(
      "(3:tag(1:*3:set2:q\0"
      "2:z\0))"s);
  // Equal sets tie, and a tie goes to the first operand.
  EXPECT_EQ(CompareLists(atoms_only, b), kTagNarrower);
  EXPECT_EQ(CompareLists(b, atoms_only), kTagNarrower);
  EngineNode* out = nullptr;
  ASSERT_EQ(IntersectTagLists(engine_, a, b, &out), SPKI_OK);
  ASSERT_NE(out, nullptr);
  Keep(out);
  const TagRelation to_a = CompareLists(out, a), to_b = CompareLists(out, b);
  EXPECT_TRUE(to_a == kTagNarrower || to_a == kTagEqual) << TagRelationName(to_a);
  EXPECT_TRUE(to_b == kTagNarrower || to_b == kTagEqual) << TagRelationName(to_b);
}

TEST_F(TagsTest, RangesInEveryOrdering) {
  struct Case {
    const char* range;
    const char* value;
    bool inside;
  };
  const Case kCases[] = {
      {"(* range alpha (g b) (l d))", "b", false},
      {"(* range alpha (g b) (l d))", "c", true},
      {"(* range alpha (g b) (l d))", "d", false},
      {"(* range alpha (ge b) (le d))", "b", true},
      {"(* range alpha (ge b) (le d))", "d", true},
      {"(* range binary (ge \"\\x10\") (le \"\\x20\"))", "\"\\x00\\x15\"", true},
      {"(* range binary (ge \"\\x10\") (le \"\\x20\"))", "\"\\x10\"", true},
      {"(* range binary (g \"\\x10\") (le \"\\x20\"))", "\"\\x10\"", false},
      {"(* range binary (ge \"\\x10\") (l \"\\x20\"))", "\"\\x01\\x00\"", false},
      {"(* range date (ge 2004-01-01) (l 2005))", "2004-06-15", true},
      {"(* range date (ge 2004-01-01) (l 2005))", "2004-01-01", true},
      {"(* range date (g 2004-01-01) (l 2005))", "2004-01-01", false},
      {"(* range date (ge 2004-01-01) (l 2005))", "2005-01-01", false},
      {"(* range date (ge 2004-01-01) (l 2005))", "2003-12-31", false},
      {"(* range date (ge 2004-01-01) (l 2005))", "2004-03-01", false},  // March
      {"(* range date (ge 2004-01-01) (le 2005))", "2004-13", false},
      {"(* range numeric (g -10) (le 10))", "-10", false},
      {"(* range numeric (g -10) (le 10))", "-9", true},
      {"(* range numeric (g -10) (le 10))", "10", true},
      {"(* range numeric (g -10) (l 10))", "10", false},
      {"(* range numeric (g -10) (le 10))", "11", false},
      {"(* range numeric (g -10) (le 10))", "007", false},  // not a number
      {"(* range numeric (ge 0))", "99999999999999999999", true},
      {"(* range time (ge 08:00) (le 17:30:00))", "12:00", true},
      {"(* range time (ge 08:00) (le 17:30:00))", "07:59:59", false},
      {"(* range time (ge 08:00) (le 17:30:00))", "17:30:00", true},
      {"(* range time (ge 08:00) (l 17:30:00))", "17:30:00", false},
      {"(* range time (ge 08:00) (le 17:30:00))", "25:00", false},
      // One-point ranges hold their point only with ge and le.
      {"(* range numeric (ge 5) (le 5))", "5", true},
      {"(* range numeric (g 5) (le 5))", "5", false},
      {"(* range numeric (ge 5) (l 5))", "5", false},
      // Bad ranges hold nothing.
      {"(* range numeric (ge x))", "1", false},
      {"(* range date (ge 2005-03-01))", "2006", false},
      {"(* range money (ge 1))", "2", false},
      {"(* range numeric (ge 1) (gt 2))", "3", false},
      {"(* range numeric (ge 1 2))", "3", false},
      {"(* range numeric ge 1)", "3", false},
      {"(* range)", "3", false},
      {"(* range numeric)", "3", true},
  };
  for (const Case& c : kCases) {
    bool inside = !c.inside;
    EngineNode* value = Element(c.value);
    ASSERT_EQ(IsInRange(engine_, AtomOf(value), Element(c.range), &inside), SPKI_OK);
    EXPECT_EQ(inside, c.inside) << c.value << " in " << c.range;
    EXPECT_EQ(CompareElementTexts(c.value, c.range), c.inside ? kTagNarrower : kTagDisjoint)
        << c.value << " vs " << c.range;
  }
}

TEST_F(TagsTest, RangeAgainstRange) {
  // Each text is what follows "(* range "; "" as the intersection: none.
  struct Case {
    const char* a;
    const char* b;
    TagRelation want;
    const char* intersection;
  };
  const Case kCases[] = {
      // Identical ranges: the first operand's bounds win ties, so 1, not 0.
      {"numeric (ge 0) (le 10)", "numeric (ge 0) (le 10)", kTagNarrower, "numeric (ge 0) (le 10)"},
      {"numeric (ge 0) (le 10)", "numeric (ge 2) (le 8)", kTagBroader, "numeric (ge 2) (le 8)"},
      {"numeric (ge 0) (le 5)", "numeric (ge 3) (le 10)", kTagOverlapping, "numeric (ge 3) (le 5)"},
      {"numeric (le 2)", "numeric (ge 5)", kTagDisjoint, ""},
      {"numeric (le -5)", "numeric (ge -10)", kTagOverlapping, "numeric (ge -10) (le -5)"},
      // A bound shared with a wider range does not hide the inclusion.
      {"numeric (ge 5)", "numeric (ge 5) (le 10)", kTagBroader, "numeric (ge 5) (le 10)"},
      {"numeric (g 5) (le 10)", "numeric (ge 5) (l 10)", kTagOverlapping, "numeric (g 5) (l 10)"},
      // A strict bound replaces an inclusive one of the same value.
      {"numeric (g 5)", "numeric (ge 5)", kTagNarrower, "numeric (g 5)"},
      {"numeric (ge 5)", "numeric (g 5)", kTagBroader, "numeric (g 5)"},
      {"numeric (le 5)", "numeric (l 5)", kTagBroader, "numeric (l 5)"},
      // Touching ranges meet in one point only when both ends are inclusive.
      {"numeric (ge 0) (le 5)", "numeric (ge 5) (le 9)", kTagOverlapping, "numeric (ge 5) (le 5)"},
      {"numeric (ge 0) (l 5)", "numeric (ge 5) (le 9)", kTagDisjoint, ""},
      // A one-point range against a wider one compares as overlapping.
      {"numeric (ge 5) (le 5)", "numeric (ge 0) (le 10)", kTagOverlapping, "numeric (ge 5) (le 5)"},
      // A range without bounds is everything in its ordering.
      {"alpha", "alpha (ge m)", kTagBroader, "alpha (ge m)"},
      {"time", "time", kTagEqual, "time"},
      // Mixed orderings and invalid bounds are disjoint from everything.
      {"numeric (ge 0)", "alpha (ge a)", kTagDisjoint, ""},
      {"numeric", "alpha", kTagDisjoint, ""},
      {"date (ge 2005-03-01)", "date (ge 2005-03-01)", kTagDisjoint, ""},
      {"date (ge 2004) (le 2005-02)", "date (ge 2004-06)", kTagOverlapping,
       "date (ge 2004-06) (le 2005-02)"},
      {"time (ge 10:00)", "time (le 09:00)", kTagDisjoint, ""},
      {"binary (ge \"\\x00\\x10\")", "binary (ge \"\\x20\")", kTagBroader, "binary (ge \" \")"},
  };
  auto range = [](const char* text) { return "(* range " + std::string(text) + ")"; };
  for (const Case& c : kCases) {
    const std::string a = range(c.a), b = range(c.b);
    SCOPED_TRACE(a + " with " + b);
    EXPECT_EQ(CompareElementTexts(a, b), c.want);
    EXPECT_EQ(IntersectElementTexts(a, b), *c.intersection ? range(c.intersection) : "(none)");
  }
}

TEST_F(TagsTest, RangeBoundsRecord) {
  auto atom = [&](const char* text) { return AtomOf(Element(text)); };
  RangeBounds bounds{};
  ClearRangeBounds(engine_, &bounds);
  EXPECT_EQ(bounds.ordering, -1);
  EXPECT_EQ(EvaluateRange(bounds), kTagEqual);  // neither operand gave a bound

  AddRangeBound(engine_, &bounds, atom("5"), kKeywordGe, kKeywordNumeric, 2);
  EXPECT_EQ(bounds.ordering, kKeywordNumeric);
  EXPECT_EQ(EvaluateRange(bounds), kTagBroader);
  AddRangeBound(engine_, &bounds, atom("9"), kKeywordLe, kKeywordNumeric, 1);
  EXPECT_EQ(EvaluateRange(bounds), kTagOverlapping);
  AddRangeBound(engine_, &bounds, atom("7"), kKeywordGe, kKeywordNumeric, 1);
  EXPECT_EQ(bounds.lower_source, 1);
  EXPECT_EQ(EvaluateRange(bounds), kTagNarrower);
  EXPECT_EQ(bounds.lower->ref_count, 2);  // the record holds a count

  // A bound of another ordering clears and invalidates the record for good.
  AddRangeBound(engine_, &bounds, atom("a"), kKeywordGe, kKeywordAlpha, 1);
  EXPECT_EQ(bounds.upper_source, kRangeInvalid);
  EXPECT_EQ(bounds.lower, nullptr);
  EXPECT_EQ(EvaluateRange(bounds), kTagDisjoint);
  AddRangeBound(engine_, &bounds, atom("1"), kKeywordGe, kKeywordNumeric, 1);
  EXPECT_EQ(EvaluateRange(bounds), kTagDisjoint);

  struct Bad {
    const char* value;
    int32_t op;
    int32_t ordering;
  };
  const Bad kBad[] = {
      {"2005-03-01", kKeywordGe, kKeywordDate}, {"25:00", kKeywordLe, kKeywordTime},
      {"1.5", kKeywordGe, kKeywordNumeric},     {"5", kKeywordSet, kKeywordNumeric},
      {"5", kKeywordGe, kKeywordRange},
  };
  for (const Bad& b : kBad) {
    ClearRangeBounds(engine_, &bounds);
    AddRangeBound(engine_, &bounds, atom(b.value), b.op, b.ordering, 1);
    EXPECT_EQ(EvaluateRange(bounds), kTagDisjoint) << b.value;
  }
  // Incomparable values (different hints) invalidate too.
  ClearRangeBounds(engine_, &bounds);
  AddRangeBound(engine_, &bounds, atom("a"), kKeywordGe, kKeywordAlpha, 1);
  AddRangeBound(engine_, &bounds, atom("[x]b"), kKeywordGe, kKeywordAlpha, 2);
  EXPECT_EQ(EvaluateRange(bounds), kTagDisjoint);
  ClearRangeBounds(engine_, &bounds);
}

TEST_F(TagsTest, NestingIsBounded) {
  // Parsed operands at the parser's limit compare without trouble...
  std::string deep = "(x)";
  for (int i = 0; i < kMaxNesting / 2 - 1; ++i) deep = "(x (* set a " + deep + "))";
  EngineNode* a = Readable(deep);
  EngineNode* b = Readable(deep);
  ASSERT_NE(a, nullptr);
  // Equal sets tie to the first operand, so equal copies compare as narrower.
  EXPECT_EQ(CompareLists(a, b), kTagNarrower);
  EngineNode* out = nullptr;
  ASSERT_EQ(IntersectTagLists(engine_, a, b, &out), SPKI_OK);
  EXPECT_EQ(out, a);
  ReleaseNode(engine_, out);

  // ...while trees built deeper than the algebra allows are refused.
  EngineNode* x = Nested(kKeywordTag, kMaxTagDepth + 1);
  EngineNode* y = Nested(kKeywordTag, kMaxTagDepth + 1);
  TagRelation relation;
  EXPECT_EQ(CompareTagLists(engine_, x, y, &relation), SPKI_ERR_BAD_SEXP);
  EXPECT_EQ(CompareTagElements(engine_, x->next, y->next, &relation), SPKI_ERR_BAD_SEXP);
  EXPECT_EQ(IntersectTagLists(engine_, x, y, &out), SPKI_ERR_BAD_SEXP);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(IntersectTagElements(engine_, x->next, y->next, &out), SPKI_ERR_BAD_SEXP);
}

TEST_F(TagsTest, NestedSetsCostTheProductOfTheirSizes) {
  // Each level compares every pair of members once; an exponential walk
  // would not finish.
  std::string a = "z";
  std::string b = "z";
  for (int i = 0; i < kMaxNesting - 2; ++i) {
    a = "(* set a" + std::to_string(i) + " " + a + ")";
    b = "(* set " + b + " b" + std::to_string(i) + ")";
  }
  TagRelation relation = kTagEqual;
  ASSERT_EQ(CompareTagElements(engine_, Element(a), Element(b), &relation), SPKI_OK);
  EXPECT_EQ(relation, kTagOverlapping);
  EXPECT_EQ(IntersectElementTexts(a, b), "z");
}

// Sets of plain atoms are compared and intersected through sorted copies:
// the work grows like n log n, and the results are those of pairing every
// member with every other.
TEST_F(TagsTest, LongAtomSetsCostNLogN) {
  auto set = [](const char* prefix, int first, int count, int step) {
    std::string text = "(* set";
    for (int i = 0; i < count; ++i) {
      text.append(" ").append(prefix).append(std::to_string(first + i * step));
    }
    return text + ")";
  };
  const uint64_t before = engine_.work_used();
  TagRelation relation = kTagEqual;
  ASSERT_EQ(CompareTagElements(engine_, Element(set("a", 0, 30000, 1)),
                               Element(set("b", 0, 30000, 1)), &relation),
            SPKI_OK);
  EXPECT_EQ(relation, kTagDisjoint);
  EXPECT_EQ(IntersectElementTexts(set("a", 0, 30000, 1), set("b", 0, 30000, 1)), "(none)");
  // The even numbers below 60000 against the multiples of three: 10000 shared,
  // the last kept first.
  const std::string both = IntersectElementTexts(set("n", 0, 30000, 2), set("n", 0, 30000, 3));
  EXPECT_EQ(both.rfind("(* set n59994 n59988 ", 0), 0u) << both.substr(0, 40);
  EXPECT_EQ(std::count(both.begin(), both.end(), ' '), 1 + 10000);
  // Pairing the members would take 900 million comparisons per operation.
  EXPECT_LT(engine_.work_used() - before, 5000000u);

  // The same results as the general walk, which one member that is no atom forces.
  const std::string a = "(* set c a b a d e f c)", b = "(* set f e a x c)";
  const std::string a_mixed = "(* set (p) c a b a d e f c)", b_mixed = "(* set (q) f e a x c)";
  EXPECT_EQ(IntersectElementTexts(a, b), "(* set f e a c)");
  EXPECT_EQ(IntersectElementTexts(a_mixed, b_mixed), "(* set f e a c)");
  const std::tuple<const char*, const char*, TagRelation> kRelations[] = {
      {"(* set a b)", "(* set a b c)", kTagNarrower},
      {"(* set a b c)", "(* set b a)", kTagBroader},
      {"(* set a b)", "(* set b a a)", kTagNarrower},  // a tie goes to the first operand
      {"(* set)", "(* set a)", kTagNarrower},
      {"(* set a)", "(* set)", kTagBroader},
      {"(* set a b)", "(* set b c)", kTagOverlapping},
      {"(* set a)", "(* set b)", kTagDisjoint}};
  for (const auto& [x, y, want] : kRelations) {
    TagRelation got = kTagEqual;
    ASSERT_EQ(CompareSetWith(engine_, Element(x), Element(y), &got), SPKI_OK);
    EXPECT_EQ(got, want) << x << " against " << y;
  }
}

TEST(TagRelation, MirrorAndNames) {
  const std::tuple<TagRelation, TagRelation, const char*> kCases[] = {
      {kTagEqual, kTagEqual, "equal"},
      {kTagNarrower, kTagBroader, "narrower"},
      {kTagBroader, kTagNarrower, "broader"},
      {kTagDisjoint, kTagDisjoint, "disjoint"},
      {kTagOverlapping, kTagOverlapping, "overlapping"}};
  for (const auto& [relation, mirrored, name] : kCases) {
    EXPECT_EQ(Mirror(relation), mirrored) << name;
    EXPECT_STREQ(TagRelationName(relation), name);
  }
}

}  // namespace
}  // namespace velk2::engine
