// Parses the input as one canonical list with the engine's parser. What
// parses must print back to text that parses again and prints the same, and
// its readable form must convert back to that same canonical text.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "engine/dates.h"
#include "engine/keywords.h"
#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/readable.h"
#include "engine/store.h"

namespace {

using namespace velk2::engine;

[[noreturn]] void Fail(const char* what, const std::string& detail) {
  std::fprintf(stderr, "fuzz_engine_parse: %s: %s\n", what, detail.c_str());
  std::abort();
}

// Value checks and comparisons of every atom in the tree must not crash, and
// an atom is equal to itself in every ordering.
void CheckAtoms(const EngineNode* chain, int depth) {
  for (const EngineNode* node = chain; node != nullptr; node = node->next) {
    if (node->kind == kNodeSublist && depth < kMaxNesting) CheckAtoms(SublistOf(node), depth + 1);
    const EngineAtom* atom = AtomOf(node);
    if (atom == nullptr) continue;
    (void)IsValidDate(atom);
    (void)IsValidTime(atom);
    (void)IsValidNumber(atom);
    for (int32_t ordering :
         {kKeywordAlpha, kKeywordBinary, kKeywordDate, kKeywordNumeric, kKeywordTime}) {
      if (CompareInOrdering(atom, atom, ordering) != kOrderEqual)
        Fail("atom unequal to itself", "");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The readable reader takes the same bytes; it must never crash, and what it
  // accepts must be canonical text of the right shape.
  std::string converted;
  if (ReadableToCanonical(std::string_view(reinterpret_cast<const char*>(data), size),
                          &converted) == SPKI_OK &&
      converted.empty()) {
    Fail("readable conversion gave nothing", "");
  }

  EngineContext engine;
  if (engine.Init(HeapAllocator()) != SPKI_OK) Fail("engine init", "");
  velk2::ByteCursor cursor(data, size);
  EngineNode* tree = nullptr;
  Status status = ParseList(engine, &tree, &cursor);
  if (status != SPKI_OK) {
    if (tree != nullptr) Fail("tree left after a failure", std::to_string(status));
    if (status >= 0) Fail("non-negative failure", std::to_string(status));
    return 0;
  }
  // A list longer than kMaxSourceLength keeps no text.
  const bool kept = cursor.position() <= kMaxSourceLength;
  if (tree->source != (kept ? data : nullptr) ||
      tree->source_length != (kept ? cursor.position() : 0)) {
    Fail("source text of the head", "");
  }
  CheckAtoms(tree, 1);

  std::string first;
  if (PrintToString(tree, &first) != SPKI_OK) Fail("print", "");
  size_t length = 0;
  if (PrintedLength(tree, &length) != SPKI_OK || length != first.size()) Fail("length", first);

  EngineNode* again = nullptr;
  status = ParseText(engine, &again, first.data(), first.size());
  if (status != SPKI_OK) Fail("printed text does not parse", first);
  std::string second;
  if (PrintToString(again, &second) != SPKI_OK || second != first) Fail("reprint differs", first);

  std::string readable;
  if (PrintReadable(tree, &readable) != SPKI_OK) Fail("readable print", first);
  std::string back;
  if (ReadableToCanonical(readable, &back) != SPKI_OK || back != first) {
    Fail("readable form does not convert back", readable);
  }

  ReleaseNode(engine, again);
  ReleaseNode(engine, tree);
  return 0;
}
