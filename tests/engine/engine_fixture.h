// A test fixture holding one engine and the trees parsed in a test, with the
// texts they point into.
#ifndef VELK2_TESTS_ENGINE_ENGINE_FIXTURE_H_
#define VELK2_TESTS_ENGINE_ENGINE_FIXTURE_H_

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/readable.h"
#include "engine/store.h"

namespace velk2::engine {

class EngineFixture : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(engine_.Init(HeapAllocator()), SPKI_OK); }
  void TearDown() override {
    for (EngineNode* tree : trees_) ReleaseNode(engine_, tree);
    trees_.clear();
  }

  // Parses canonical text (kept alive by the fixture); null on failure.
  EngineNode* Canonical(std::string_view text) {
    const std::string& kept = texts_.emplace_back(text);
    EngineNode* tree = nullptr;
    Status status = ParseText(engine_, &tree, kept.data(), kept.size());
    EXPECT_EQ(status, SPKI_OK) << "canonical: " << text;
    if (tree != nullptr) trees_.push_back(tree);
    return tree;
  }

  // Parses a readable list such as "(ftp (* set read write))".
  EngineNode* Readable(std::string_view text) {
    std::string canonical;
    Status status = ReadableToCanonical(text, &canonical);
    EXPECT_EQ(status, SPKI_OK) << "readable: " << text;
    if (status != SPKI_OK) return nullptr;
    return Canonical(canonical);
  }

  // One element: "read", "(ftp host)", "(* set a b)"; "head:NAME" gives the
  // head node of the list (NAME).
  EngineNode* Element(std::string_view text) {
    if (text.substr(0, 5) == "head:") {
      return Readable(std::string("(").append(text.substr(5)).append(")"));
    }
    EngineNode* list = Readable(std::string("(element ").append(text).append(")"));
    return list != nullptr ? list->next : nullptr;
  }

  std::string Print(const EngineNode* chain) {
    std::string text;
    EXPECT_EQ(PrintToString(chain, &text), SPKI_OK);
    return text;
  }

  std::string ReadableOf(const EngineNode* element) {
    if (element == nullptr) return "(none)";
    std::string text;
    EXPECT_EQ(PrintReadableElement(element, &text), SPKI_OK);
    return text;
  }

  // Takes ownership of a result so that it is released at the end of the test.
  EngineNode* Keep(EngineNode* tree) {
    if (tree != nullptr) trees_.push_back(tree);
    return tree;
  }

  // A chain built by hand: |depth| lists of |keyword| nested in one another,
  // deeper than the parser allows when |depth| passes kMaxNesting.
  EngineNode* Nested(int32_t keyword, int depth) {
    EngineNode* tree = NewKeywordHead(engine_, keyword);
    for (int i = 0; i < depth; ++i) {
      EngineNode* outer = NewKeywordHead(engine_, keyword);
      outer->next = NewSublistElement(engine_, tree);
      ReleaseNode(engine_, tree);
      tree = outer;
    }
    return Keep(tree);
  }

  EngineContext engine_;
  std::deque<std::string> texts_;
  std::vector<EngineNode*> trees_;
};

}  // namespace velk2::engine

#endif  // VELK2_TESTS_ENGINE_ENGINE_FIXTURE_H_
