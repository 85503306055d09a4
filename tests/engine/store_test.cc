// The arena's chunk rules, record recycling and reference counting.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "engine/arena.h"
#include "engine/parser.h"
#include "engine/store.h"

namespace velk2::engine {
namespace {

// An allocator record that counts, remembers request sizes and can be told
// to fail after a number of successful allocations.
struct CountingAllocator {
  std::vector<size_t> sizes;
  int live = 0;
  int successes_left = -1;  // -1: never fail
  EngineAllocator record{&Allocate, &Free, this};

  static void* Allocate(size_t size, void* user) {
    auto* self = static_cast<CountingAllocator*>(user);
    if (self->successes_left == 0) return nullptr;
    if (self->successes_left > 0) --self->successes_left;
    self->sizes.push_back(size);
    ++self->live;
    return std::malloc(size);
  }
  static void Free(void* block, void* user) {
    --static_cast<CountingAllocator*>(user)->live;
    std::free(block);
  }
};

size_t RoundUp(size_t size) {
  return (size + kArenaAlignment - 1) / kArenaAlignment * kArenaAlignment;
}

constexpr size_t kFirstUsable = kArenaChunkSize - kArenaChunkHeader;

TEST(Arena, RoundingAndChunkGrowth) {
  CountingAllocator counting;
  Arena arena;
  ASSERT_EQ(arena.Init(&counting.record), SPKI_OK);
  ASSERT_EQ(counting.sizes, std::vector<size_t>{kArenaChunkSize});
  auto* first = static_cast<uint8_t*>(arena.Allocate(1));
  auto* second = static_cast<uint8_t*>(arena.Allocate(3));
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(second - first, static_cast<ptrdiff_t>(kArenaAlignment));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % kArenaAlignment, 0u);
  EXPECT_EQ(arena.used(), 2 * kArenaAlignment);
  arena.Reset();

  // The whole usable part of the first chunk fits; one more byte needs a new
  // ordinary chunk.
  ASSERT_NE(arena.Allocate(kFirstUsable), nullptr);
  EXPECT_EQ(arena.chunk_count(), 1u);
  ASSERT_NE(arena.Allocate(1), nullptr);
  EXPECT_EQ(arena.chunk_count(), 2u);
  EXPECT_EQ(counting.sizes.back(), kArenaChunkSize);

  // A request larger than an ordinary chunk's usable part (4084 bytes on a
  // 32-bit target) gets a chunk of its own size plus the header.
  for (size_t request : {size_t{4085}, size_t{5000}, size_t{70000}}) {
    void* block = arena.Allocate(request);
    ASSERT_NE(block, nullptr) << request;
    EXPECT_EQ(counting.sizes.back(), RoundUp(request) + kArenaChunkHeader) << request;
    EXPECT_EQ(arena.current_chunk()->capacity, RoundUp(request));
  }
  EXPECT_EQ(arena.chunk_count(), 5u);
  arena.Destroy();
  EXPECT_EQ(counting.live, 0);
  EXPECT_EQ(arena.Allocate(1), nullptr);  // destroyed arenas hand out nothing
}

TEST(Arena, ResetRewindsAndReusesLargeEnoughChunks) {
  CountingAllocator counting;
  Arena arena;
  ASSERT_EQ(arena.Init(&counting.record), SPKI_OK);
  auto* start = static_cast<uint8_t*>(arena.Allocate(16));
  ASSERT_NE(arena.Allocate(5000), nullptr);  // second chunk: 5000 usable
  ASSERT_EQ(arena.chunk_count(), 2u);
  size_t allocations = counting.sizes.size();

  arena.Reset();
  EXPECT_EQ(arena.current_chunk(), arena.first_chunk());
  EXPECT_EQ(arena.used(), 0u);
  EXPECT_EQ(arena.Allocate(16), start);  // rewound to the first chunk's start
  // Does not fit the rest of the first chunk: the next chunk in the chain is
  // large enough, so no new chunk is taken.
  ASSERT_NE(arena.Allocate(4500), nullptr);
  EXPECT_EQ(counting.sizes.size(), allocations);
  EXPECT_EQ(arena.current_chunk(), arena.first_chunk()->next);
  // Too large for what is left and no chunk after it: a new one is linked in.
  ASSERT_NE(arena.Allocate(1000), nullptr);
  EXPECT_EQ(counting.sizes.size(), allocations + 1);
  EXPECT_EQ(arena.chunk_count(), 3u);

  // After a reset, a next chunk too small for a request is skipped by linking
  // a new one in front of it.
  arena.Reset();
  ASSERT_NE(arena.Allocate(kFirstUsable), nullptr);
  ASSERT_NE(arena.Allocate(6000), nullptr);
  EXPECT_EQ(counting.sizes.back(), RoundUp(6000) + kArenaChunkHeader);
  EXPECT_EQ(arena.chunk_count(), 4u);
  EXPECT_EQ(arena.first_chunk()->next, arena.current_chunk());
  EXPECT_EQ(arena.current_chunk()->next->capacity, RoundUp(5000));
  arena.Destroy();
  EXPECT_EQ(counting.live, 0);
}

TEST(Arena, FailuresAreReported) {
  CountingAllocator counting;
  counting.successes_left = 0;
  Arena arena;
  EXPECT_EQ(arena.Init(&counting.record), kEngineArenaUnavailable);
  EXPECT_FALSE(arena.initialised());
  EXPECT_EQ(arena.Init(nullptr), SPKI_ERR_NULL_PARAM);
  EngineAllocator incomplete{nullptr, &CountingAllocator::Free, &counting};
  EXPECT_EQ(arena.Init(&incomplete), SPKI_ERR_NULL_PARAM);

  counting.successes_left = 1;
  ASSERT_EQ(arena.Init(&counting.record), SPKI_OK);
  EXPECT_NE(arena.Allocate(100), nullptr);
  EXPECT_EQ(arena.Allocate(kArenaChunkSize), nullptr);  // needs a chunk the allocator refuses
  EXPECT_EQ(arena.Allocate(SIZE_MAX), nullptr);
  arena.Destroy();
  EXPECT_EQ(counting.live, 0);
}

TEST(EngineContext, InitReleaseAndDestructionGiveEverythingBack) {
  for (int successes : {0, 1}) {  // the control block, then the first chunk
    CountingAllocator counting;
    counting.successes_left = successes;
    EngineContext engine;
    EXPECT_EQ(EngineInit(&engine, &counting.record), kEngineArenaUnavailable) << successes;
    EXPECT_FALSE(engine.initialised());
    EXPECT_EQ(counting.live, 0) << successes;
    EXPECT_EQ(NewNode(engine), nullptr);
  }
  EXPECT_EQ(EngineInit(nullptr, HeapAllocator()), SPKI_ERR_NULL_PARAM);

  CountingAllocator counting;
  {
    EngineContext engine;
    ASSERT_EQ(EngineInit(&engine, &counting.record), SPKI_OK);
    for (int i = 0; i < 1000; ++i) ASSERT_NE(NewNode(engine), nullptr);  // several chunks
    EXPECT_GT(engine.arena().chunk_count(), 1u);
    EngineRelease(&engine);
    EXPECT_EQ(counting.live, 0);
    EngineRelease(&engine);  // repeating is harmless
    ASSERT_EQ(EngineInit(&engine, &counting.record), SPKI_OK);
    ASSERT_NE(NewAtom(engine), nullptr);
  }  // the destructor releases
  EXPECT_EQ(counting.live, 0);
}

TEST(EngineContext, OutOfMemoryWhileParsingIsNoMem) {
  CountingAllocator counting;
  EngineContext engine;
  ASSERT_EQ(EngineInit(&engine, &counting.record), SPKI_OK);
  counting.successes_left = 0;  // the first chunk is all there is
  std::string text = "(4:list";
  for (int i = 0; i < 500; ++i) text += "1:x";
  text += ")";
  EngineNode* tree = nullptr;
  EXPECT_EQ(ParseText(engine, &tree, text.data(), text.size()), SPKI_ERR_NO_MEM);
  EXPECT_EQ(tree, nullptr);
  // What the failed parse made went back to the free lists and is reused.
  EXPECT_GT(engine.nodes().free_count(), 0u);
  EXPECT_NE(NewNode(engine), nullptr);
  EngineRelease(&engine);
  EXPECT_EQ(counting.live, 0);
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(engine_.Init(HeapAllocator()), SPKI_OK); }
  EngineContext engine_;
};

TEST_F(StoreTest, FreedRecordsAreReusedLastFirstAndZeroed) {
  EngineNode* first = NewNode(engine_);
  EngineNode* second = NewNode(engine_);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  first->kind = kNodeKeywordHead;
  first->value.keyword = 119;
  first->source_length = 77;
  second->kind = kNodeKeywordHead;
  ReleaseNode(engine_, first);
  ReleaseNode(engine_, second);
  EXPECT_EQ(engine_.nodes().free_count(), 2u);

  EngineNode* again = NewNode(engine_);
  EXPECT_EQ(again, second);  // last freed, first reused
  EngineNode* then = NewNode(engine_);
  EXPECT_EQ(then, first);
  EXPECT_EQ(then->free_link, nullptr);
  EXPECT_EQ(then->ref_count, 1);
  EXPECT_EQ(then->kind, kNodeFree);
  EXPECT_EQ(then->value.sublist, nullptr);  // the whole value, whatever the kind was
  EXPECT_EQ(then->source_length, 0u);
  EXPECT_EQ(then->next, nullptr);
  EXPECT_EQ(engine_.nodes().free_count(), 0u);

  EngineAtom* atom = NewAtom(engine_);
  atom->length = 9;
  atom->keyword_id = 3;
  ReleaseAtom(engine_, atom);
  EngineAtom* atom_again = NewAtom(engine_);
  EXPECT_EQ(atom_again, atom);
  EXPECT_EQ(atom_again->length, 0u);
  EXPECT_EQ(atom_again->keyword_id, 0);
  EXPECT_EQ(atom_again->ref_count, 1);
  ReleaseNode(engine_, again);
  ReleaseNode(engine_, then);
  ReleaseAtom(engine_, atom_again);

  // A reset forgets the free lists and rewinds the arena.
  EXPECT_EQ(engine_.nodes().free_count(), 2u);
  engine_.Reset();
  EXPECT_EQ(engine_.nodes().free_count(), 0u);
  EXPECT_EQ(NewNode(engine_), first);  // the arena's first record again
}

TEST_F(StoreTest, AssignTakesAndDropsCounts) {
  EngineAtom* atom = NewAtomOver(engine_, reinterpret_cast<const uint8_t*>("tag"), 3);
  ASSERT_NE(atom, nullptr);
  EXPECT_EQ(atom->keyword_id, 119);
  EngineNode* element = NewAtomElement(engine_, atom);
  EXPECT_EQ(atom->ref_count, 2);
  ReleaseAtom(engine_, atom);  // the element keeps it alive
  EXPECT_EQ(atom->ref_count, 1);

  EngineNode* slot = nullptr;
  AssignNode(engine_, &slot, element);
  EXPECT_EQ(element->ref_count, 2);
  AssignNode(engine_, &slot, element);  // same node again: no change
  EXPECT_EQ(element->ref_count, 2);
  AssignNode(engine_, &slot, nullptr);
  EXPECT_EQ(slot, nullptr);
  EXPECT_EQ(element->ref_count, 1);
  size_t free_atoms = engine_.atoms().free_count();
  AssignNode(engine_, nullptr, element);  // no slot: only releases
  EXPECT_EQ(engine_.nodes().free_count(), 1u);
  EXPECT_EQ(engine_.atoms().free_count(), free_atoms + 1);

  EngineAtom* atom_slot = nullptr;
  EngineAtom* hinted = NewAtomOver(engine_, reinterpret_cast<const uint8_t*>("tag"), 3,
                                   reinterpret_cast<const uint8_t*>("text"), 4);
  EXPECT_EQ(hinted->keyword_id, -1);  // hinted atoms are never looked up
  AssignAtom(engine_, &atom_slot, hinted);
  ReleaseAtom(engine_, hinted);
  EXPECT_EQ(atom_slot->ref_count, 1);
  AssignAtom(engine_, nullptr, atom_slot);

  // A tail shared by two chains lives until its last owner goes.
  EngineNode* tail = NewKeywordHead(engine_, 106);
  EngineNode* a = NewKeywordHead(engine_, 1);
  EngineNode* b = NewKeywordHead(engine_, 2);
  AssignNode(engine_, &a->next, tail);
  AssignNode(engine_, &b->next, tail);
  ReleaseNode(engine_, tail);
  ReleaseNode(engine_, a);
  EXPECT_EQ(tail->ref_count, 1);
  EXPECT_EQ(KeywordOf(tail), 106);
  ReleaseNode(engine_, b);
  EXPECT_EQ(engine_.nodes().free_count(), 3u);
}

TEST_F(StoreTest, ReleasingLongAndDeepChainsUsesNoRecursion) {
  // A chain of 200000 elements and a sublist nesting 100000 deep, far past
  // anything the parser accepts; both must go back without exhausting the stack.
  EngineNode* head = NewKeywordHead(engine_, 119);
  EngineNode* tail = head;
  for (int i = 0; i < 200000; ++i) {
    tail->next = NewKeywordHead(engine_, 1);
    tail = tail->next;
  }
  EngineNode* deep = NewKeywordHead(engine_, 3);
  for (int i = 0; i < 100000; ++i) {
    EngineNode* outer = NewKeywordHead(engine_, 3);
    outer->next = NewSublistElement(engine_, deep);
    ReleaseNode(engine_, deep);
    deep = outer;
  }
  tail->next = NewSublistElement(engine_, deep);
  ReleaseNode(engine_, deep);
  ReleaseNode(engine_, head);
  EXPECT_EQ(engine_.nodes().free_count(), 200001u + 1u + 100001u + 100000u);
}

TEST_F(StoreTest, CopyElementSharesTheValueOnly) {
  EngineNode* list = nullptr;
  const char text[] = "(3:ftp4:host)";
  ASSERT_EQ(ParseText(engine_, &list, text, sizeof(text) - 1), SPKI_OK);
  EngineNode* sub = NewSublistElement(engine_, list);
  ReleaseNode(engine_, list);
  sub->next = NewKeywordHead(engine_, 1);
  EngineNode* copy = CopyElement(engine_, sub);
  EXPECT_EQ(copy->kind, kNodeSublist);
  EXPECT_EQ(SublistOf(copy), SublistOf(sub));
  EXPECT_EQ(copy->next, nullptr);
  EXPECT_EQ(list->ref_count, 2);
  EngineNode* head_copy = CopyElement(engine_, list);
  EXPECT_EQ(head_copy->source, nullptr);  // a copy joins another chain: no source text
  EXPECT_EQ(AtomOf(head_copy), AtomOf(list));
  ReleaseNode(engine_, head_copy);
  ReleaseNode(engine_, copy);
  ReleaseNode(engine_, sub);
  EXPECT_EQ(engine_.nodes().free_count(), 6u);

  // PoolRef: out() releases what it held first; release() gives the count up.
  {
    NodeRef held(engine_, NewKeywordHead(engine_, 3));
    EngineNode** slot = held.out();
    EXPECT_EQ(engine_.nodes().free_count(), 6u);
    *slot = NewKeywordHead(engine_, 4);
  }
  EXPECT_EQ(engine_.nodes().free_count(), 6u);  // reused, then released again
  NodeRef kept(engine_, NewKeywordHead(engine_, 5));
  EngineNode* raw = kept.release();
  EXPECT_FALSE(kept);
  ReleaseNode(engine_, raw);
}

}  // namespace
}  // namespace velk2::engine
