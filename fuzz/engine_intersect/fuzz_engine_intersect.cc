// Parses two canonical lists from the input and intersects them as tags. The
// intersection must be narrower than or equal to both operands, an operand
// itself when one implies the other, and none when they are disjoint.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/store.h"
#include "engine/tags.h"
#include "platform/utf.h"

namespace {

using namespace velk2::engine;

std::string Text(const EngineNode* chain) {
  std::string text;
  if (PrintToString(chain, &text) != SPKI_OK) text = "(unprintable)";
  return text;
}

[[noreturn]] void Fail(const char* what, const EngineNode* a, const EngineNode* b,
                       const EngineNode* result) {
  // Escaped: tags hold any bytes, NUL among them.
  std::fprintf(stderr, "fuzz_engine_intersect: %s\n  a: %s\n  b: %s\n  a^b: %s\n", what,
               velk2::EscapeForDisplay(Text(a)).c_str(), velk2::EscapeForDisplay(Text(b)).c_str(),
               result ? velk2::EscapeForDisplay(Text(result)).c_str() : "(none)");
  std::abort();
}

// Whether a set at any depth of |chain| has (*) among its members. Such a set
// stands for everything yet compares narrower than (*), as the algebra defines
// for any set against (*); an intersection may then hold (*) where an operand
// holds the set, and compare broader than it or overlapping with it, but
// never disjoint.
bool HoldsSetOfEverything(const EngineNode* chain, int depth) {
  if (depth > kMaxNesting) return false;
  for (const EngineNode* node = chain; node != nullptr; node = node->next) {
    if (node->kind != kNodeSublist) continue;
    if (ClassOf(node) == kClassSet) {
      for (const EngineNode* m = SublistOf(node)->next->next; m != nullptr; m = m->next) {
        if (ClassOf(m) == kClassAll) return true;
      }
    }
    if (HoldsSetOfEverything(SublistOf(node), depth + 1)) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  EngineContext engine;
  if (engine.Init(HeapAllocator()) != SPKI_OK) std::abort();
  velk2::ByteCursor cursor(data, size);
  NodeRef a(engine);
  NodeRef b(engine);
  if (ParseList(engine, a.out(), &cursor) != SPKI_OK) return 0;
  if (ParseList(engine, b.out(), &cursor) != SPKI_OK) return 0;

  TagRelation relation;
  if (CompareTagLists(engine, a.get(), b.get(), &relation) != SPKI_OK) {
    Fail("comparison of parsed tags failed", a.get(), b.get(), nullptr);
  }
  NodeRef result(engine);
  if (IntersectTagLists(engine, a.get(), b.get(), result.out()) != SPKI_OK) {
    Fail("intersection of parsed tags failed", a.get(), b.get(), nullptr);
  }
  switch (relation) {
    case kTagEqual:
    case kTagNarrower:
      if (result.get() != a.get())
        Fail("expected the first operand", a.get(), b.get(), result.get());
      break;
    case kTagBroader:
      if (result.get() != b.get())
        Fail("expected the second operand", a.get(), b.get(), result.get());
      break;
    case kTagDisjoint:
      if (result) Fail("disjoint tags intersect", a.get(), b.get(), result.get());
      break;
    default:
      break;
  }
  if (!result) return 0;

  // The result prints as canonical text that parses again.
  std::string printed = Text(result.get());
  NodeRef again(engine);
  if (ParseText(engine, again.out(), printed.data(), printed.size()) != SPKI_OK) {
    Fail("result does not re-parse", a.get(), b.get(), result.get());
  }
  // A result disjoint from a copy of itself holds an element that stands for
  // no value at all: it is empty, hence narrower than anything.
  TagRelation to_self;
  if (CompareTagLists(engine, result.get(), again.get(), &to_self) != SPKI_OK) {
    Fail("comparison with the result failed", a.get(), b.get(), result.get());
  }
  if (to_self == kTagDisjoint) return 0;
  // A one-point range ((ge v) (le v)) compares as overlapping with every
  // range that holds its point, itself included; a result holding one may
  // overlap the operands, but is still never broader or disjoint.
  bool one_point = to_self == kTagOverlapping;
  const bool set_of_everything =
      HoldsSetOfEverything(a.get(), 1) || HoldsSetOfEverything(b.get(), 1);

  for (const EngineNode* operand : {a.get(), b.get()}) {
    TagRelation to_operand;
    if (CompareTagLists(engine, result.get(), operand, &to_operand) != SPKI_OK) {
      Fail("comparison with the result failed", a.get(), b.get(), result.get());
    }
    if (to_operand == kTagEqual || to_operand == kTagNarrower) continue;
    if (to_operand == kTagOverlapping && one_point) continue;
    if (to_operand != kTagDisjoint && set_of_everything) continue;
    Fail(to_operand == kTagBroader    ? "result broader than an operand"
         : to_operand == kTagDisjoint ? "result disjoint from an operand"
                                      : "result overlaps an operand",
         a.get(), b.get(), result.get());
  }
  return 0;
}
