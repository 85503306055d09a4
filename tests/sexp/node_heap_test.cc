// The node heap, and the objects the reader makes in one block: a list with
// its children after it, an atom with its bytes after it. Both must behave
// exactly like objects built piece by piece once they are changed.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "sexp/node_heap.h"
#include "sexp_test_util.h"

namespace velk2 {
namespace {

using testing::CanonicalOf;
using testing::MakeAtom;
using testing::ParseList;

std::string Atom(const std::string& bytes) {
  return std::to_string(bytes.size()) + ":" + bytes;
}

// A parsed list keeps its children after the object until it must grow;
// growing, removing and clearing keep every child and their order.
TEST(SexpReadList, ChangesToAListReadInOneBlock) {
  Ref<SexpList> list = ParseList("(1:a(1:b1:c)1:d)");
  ASSERT_NE(list, nullptr);
  SexpObject* inner = list->ChildAt(1);
  ASSERT_EQ(list->RemoveChild(list->ChildAt(0)), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "((1:b1:c)1:d)");
  EXPECT_EQ(list->FirstChild(), inner);
  // Past the room it was read with: the children move to a buffer.
  for (const char* text : {"e", "f", "g", "h", "i"}) {
    ASSERT_EQ(list->AppendTextAtom(text), VELK2_SUCCESS);
  }
  EXPECT_EQ(CanonicalOf(*list), "((1:b1:c)1:d1:e1:f1:g1:h1:i)");
  EXPECT_EQ(list->ChildCount(), 7u);
  EXPECT_EQ(list->LastChild()->AsAtom()->bytes(), "i");
  ASSERT_EQ(list->RemoveChild(inner), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "(1:d1:e1:f1:g1:h1:i)");
  list->ClearChildren();
  EXPECT_EQ(CanonicalOf(*list), "()");
  ASSERT_EQ(list->AppendTextAtom("z"), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "(1:z)");

  // A child taken out of a list read in one block outlives it.
  Ref<SexpList> outer = ParseList("(1:x(1:y2:zz))");
  Ref<SexpObject> taken;
  ASSERT_EQ(outer->RemoveChild(outer->ChildAt(1), &taken), VELK2_SUCCESS);
  outer.reset();
  EXPECT_EQ(CanonicalOf(*taken), "(1:y2:zz)");

  // Empty lists and a list of many children.
  EXPECT_EQ(CanonicalOf(*ParseList("(()())")), "(()())");
  std::string many = "(";
  for (int i = 0; i < 3000; ++i) many += Atom(std::to_string(i));
  many += ")";
  Ref<SexpList> big = ParseList(many);
  ASSERT_EQ(big->ChildCount(), 3000u);
  EXPECT_EQ(big->ChildAt(2999)->AsAtom()->bytes(), "2999");
  EXPECT_EQ(CanonicalOf(*big), many);
}

// An atom read with its bytes after it: resizing within that room keeps the
// block, beyond it takes a buffer, and shrinking comes back.
TEST(SexpReadAtom, ResizingAnAtomReadInOneBlock) {
  const std::string long_value(300, 'q');
  Ref<SexpList> list = ParseList("([bin]" + Atom(long_value) + "3:abc)");
  ASSERT_NE(list, nullptr);
  SexpAtom* atom = list->ChildAt(0)->AsAtom();
  EXPECT_EQ(atom->bytes(), long_value);
  EXPECT_EQ(atom->hint(), kHintBin);
  EXPECT_EQ(list->ChildAt(1)->AsAtom()->bytes(), "abc");

  const std::string shorter(120, 'r');
  ASSERT_EQ(atom->AssignBytes(shorter.data(), 120, kHintUtf8), VELK2_SUCCESS);
  EXPECT_EQ(atom->bytes(), shorter);
  EXPECT_EQ(atom->hint(), kHintUtf8);
  const std::string longer(5000, 's');
  ASSERT_EQ(atom->AssignBytes(longer.data(), 5000), VELK2_SUCCESS);
  EXPECT_EQ(atom->bytes(), longer);
  ASSERT_EQ(atom->AssignBytes("tiny", 4), VELK2_SUCCESS);
  EXPECT_EQ(atom->bytes(), "tiny");
  atom->ClearBytes();
  EXPECT_EQ(atom->data(), nullptr);
  EXPECT_EQ(CanonicalOf(*list), "(0:3:abc)");

  // Every length from none to past the largest pooled block reads back.
  for (size_t length : {0, 1, 16, 17, 80, 81, 200, 487, 488, 489, 600, 8192}) {
    const std::string value(length, static_cast<char>('a' + length % 26));
    std::string text = "(";
    text.append(Atom(value)).append(")");
    Ref<SexpList> read = ParseList(text);
    ASSERT_NE(read, nullptr);
    EXPECT_EQ(read->ChildAt(0)->AsAtom()->bytes(), value) << length;
  }
}

// Blocks made on one thread and freed on another are reused, never handed
// out twice while alive: every block keeps the pattern written into it.
TEST(SexpNodeHeap, BlocksCrossThreadsIntact) {
  constexpr int kRounds = 4;
  constexpr size_t kBlocks = 20000;
  struct Block {
    unsigned char* bytes;
    size_t size;
  };
  auto fill = [](const Block& block) {
    std::memset(block.bytes, static_cast<int>(block.size & 0xFF), block.size);
  };
  auto intact = [](const Block& block) {
    for (size_t i = 0; i < block.size; ++i) {
      if (block.bytes[i] != static_cast<unsigned char>(block.size & 0xFF)) return false;
    }
    return true;
  };
  for (int round = 0; round < kRounds; ++round) {
    std::vector<Block> made(kBlocks);
    std::thread maker([&] {
      for (size_t i = 0; i < kBlocks; ++i) {
        const size_t size = 1 + (i * 37 + static_cast<size_t>(round)) % 700;
        made[i] = {static_cast<unsigned char*>(sexp_internal::AllocateNode(size)), size};
        ASSERT_EQ(reinterpret_cast<uintptr_t>(made[i].bytes) % 8, 0u);
        fill(made[i]);
      }
    });
    maker.join();
    // Half freed here, half on another thread, while this one makes more.
    std::thread freer([&] {
      for (size_t i = 1; i < kBlocks; i += 2) {
        EXPECT_TRUE(intact(made[i]));
        sexp_internal::FreeNode(made[i].bytes);
      }
    });
    std::vector<Block> more;
    for (size_t i = 0; i < kBlocks; i += 2) {
      EXPECT_TRUE(intact(made[i]));
      sexp_internal::FreeNode(made[i].bytes);
      const size_t size = 1 + i % 300;
      more.push_back({static_cast<unsigned char*>(sexp_internal::AllocateNode(size)), size});
      fill(more.back());
    }
    freer.join();
    for (const Block& block : more) {
      EXPECT_TRUE(intact(block));
      sexp_internal::FreeNode(block.bytes);
    }
  }
  sexp_internal::FreeNode(nullptr);
}

// More blocks of one size than a thread keeps: freeing them sends batches to
// the depot, and making them again takes batches back. No block is handed
// out twice while alive, and a block made on another thread that ended is
// found again.
TEST(SexpNodeHeap, BatchesThroughTheDepot) {
  constexpr size_t kCount = 50000;
  constexpr size_t kSize = 40;
  std::vector<void*> blocks;
  for (int round = 0; round < 3; ++round) {
    std::thread([&] {
      for (size_t i = 0; i < kCount; ++i) blocks.push_back(sexp_internal::AllocateNode(kSize));
    }).join();
    std::set<void*> distinct(blocks.begin(), blocks.end());
    EXPECT_EQ(distinct.size(), blocks.size());
    // Freed and made again around the limit, one at a time.
    for (size_t i = 0; i < kCount; ++i) {
      sexp_internal::FreeNode(blocks[i]);
      if (i % 3 == 0)
        blocks[i] = sexp_internal::AllocateNode(kSize);
      else
        blocks[i] = nullptr;
    }
    std::erase(blocks, nullptr);
    distinct = std::set<void*>(blocks.begin(), blocks.end());
    EXPECT_EQ(distinct.size(), blocks.size());
  }
  for (void* block : blocks) sexp_internal::FreeNode(block);
}

// A thread that ends hands on the uncut rest of its slab: threads that one
// after the other each need blocks of a size nobody freed before share one
// slab instead of taking one each.
TEST(SexpNodeHeap, EndedThreadsHandOnTheirSlab) {
  const size_t before = sexp_internal::NodeSlabCount();
  for (size_t size = 8; size <= 480; size += 16) {
    std::thread([size] {
      void* block = sexp_internal::AllocateNode(size);
      std::memset(block, 0x5A, size);
      sexp_internal::FreeNode(block);
    }).join();
  }
  // Two at most: blocks left over by other tests may lie anywhere.
  EXPECT_LE(sexp_internal::NodeSlabCount() - before, 2u);
}

}  // namespace
}  // namespace velk2
