// Allocation failures: a counting operator new that can be told to fail the
// Nth allocation. Every operation must then report VELK2_ERR_MEM_ALLOC (3),
// leave its out-pointer null and give back everything it allocated.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "frame/guard.h"
#include "sexp/display.h"
#include "sexp/node_heap.h"
#include "sexp/reader.h"
#include "sexp_test_util.h"

namespace {

long live_allocations = 0;  // allocations not yet freed
long fail_countdown = -1;   // >= 0: that many allocations succeed, then one fails

void* CountedAllocate(size_t size) {
  if (fail_countdown == 0) {
    fail_countdown = -1;
    throw std::bad_alloc();
  }
  if (fail_countdown > 0) --fail_countdown;
  void* memory = std::malloc(size ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  ++live_allocations;
  return memory;
}

void CountedFree(void* memory) noexcept {
  if (memory == nullptr) return;
  --live_allocations;
  std::free(memory);
}

}  // namespace

void* operator new(size_t size) {
  return CountedAllocate(size);
}
void* operator new[](size_t size) {
  return CountedAllocate(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return CountedAllocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}
void operator delete(void* memory) noexcept {
  CountedFree(memory);
}
void operator delete[](void* memory) noexcept {
  CountedFree(memory);
}
void operator delete(void* memory, size_t) noexcept {
  CountedFree(memory);
}
void operator delete[](void* memory, size_t) noexcept {
  CountedFree(memory);
}

namespace velk2 {
namespace {

// |result|, or 999 when the out-pointer does not agree with it.
template <typename T>
Result Agreeing(Result result, const T& out) {
  return (result == VELK2_SUCCESS) == (out != nullptr) ? result : Result{999};
}

struct Operation {
  const char* name;
  // Runs the operation and releases whatever it made; returns its result.
  std::function<Result()> run;
};

// Objects come from operator new, not from the node heap's free lists, so
// that every one of them is counted and can be made to fail.
class SexpAllocation : public ::testing::Test {
 protected:
  void SetUp() override { sexp_internal::SetNodePooling(false); }
  void TearDown() override { sexp_internal::SetNodePooling(true); }
};

TEST_F(SexpAllocation, EveryFailureIsReportedAndNothingLeaks) {
  const std::string canonical = "(4:cert(6:issuer(4:hash4:sha13:abc))[bin]3:xyz(0:))";
  const std::string prefixed = "(3:acl (5:entry (1:a) 2:bc) 0:)";
  const Operation kOperations[] = {
      {"ParseCanonicalList",
       [&] {
         SexpMemorySource source;
         Result result = source.AttachCopy(canonical.data(), canonical.size());
         if (result != VELK2_SUCCESS) return result;
         Ref<SexpList> list;
         return Agreeing(ParseCanonicalList(&list, &source, nullptr), list);
       }},
      {"ReadCanonicalElements",
       [&] {
         SexpMemorySource source;
         Result result = source.AttachCopy("(1:a)2:bc(0:)", 13);
         if (result != VELK2_SUCCESS) return result;
         std::vector<Ref<SexpObject>> elements;
         return ReadCanonicalElements(&source, nullptr, &elements);
       }},
      {"ParseTextSequence",
       [] {
         Ref<SexpList> list;
         return Agreeing(ParseTextSequence(&list, "(ftp (* set read write)) x", "tag", nullptr),
                         list);
       }},
      {"ParseTextList",
       [] {
         Ref<SexpList> list;
         size_t position = 0;
         return Agreeing(ParseTextList(&list, "(a (b c) d)", &position, nullptr), list);
       }},
      {"ParseLengthPrefixedList",
       [&] {
         Ref<SexpList> list;
         size_t position = 0;
         return Agreeing(
             ParseLengthPrefixedList(&list, prefixed.data(), prefixed.size(), &position, nullptr),
             list);
       }},
      {"NewKeywordListWithText",
       [] {
         Ref<SexpList> list;
         return Agreeing(NewKeywordListWithText(&list, "version", "1", nullptr), list);
       }},
      // Making an object throws std::bad_alloc, which the exports' Guard
      // turns into 3; these run under a Guard as an export would.
      {"SetFilePath",
       [] {
         return Guard([]() -> Result {
           Ref<SexpList> list = SexpList::New();
           list->SetLocation(kStoreVerbatim);
           const Result result = list->SetFilePath(u"some/file/name/long/enough/to/need/a/buffer");
           return Agreeing(result, list->file_path());
         });
       }},
      {"AppendTextAtom and ToAdvancedText",
       [] {
         return Guard([]() -> Result {
           Ref<SexpList> list = SexpList::New();
           Result result = list->AppendTextAtom("hash");
           if (result == VELK2_SUCCESS) result = list->AppendTextAtom("sha1");
           if (result != VELK2_SUCCESS) return result;
           // The text itself is malloc'ed, outside the counted allocations.
           return ToAdvancedText(list.get(), "hash") != nullptr ? VELK2_SUCCESS : 999;
         });
       }},
  };
  for (const Operation& operation : kOperations) {
    bool succeeded = false;
    long injected = 0;
    for (long n = 0; n < 1000 && !succeeded; ++n) {
      const long before = live_allocations;
      fail_countdown = n;
      Result result;
      try {
        result = operation.run();
      } catch (const std::bad_alloc&) {
        fail_countdown = -1;
        ADD_FAILURE() << operation.name << " let std::bad_alloc escape at allocation " << n;
        continue;
      }
      const bool failure_injected = fail_countdown == -1;
      fail_countdown = -1;
      EXPECT_EQ(live_allocations, before) << operation.name << " failing allocation " << n;
      if (failure_injected) {
        ++injected;
        EXPECT_EQ(result, VELK2_ERR_MEM_ALLOC) << operation.name << " failing allocation " << n;
      } else {
        EXPECT_EQ(result, VELK2_SUCCESS) << operation.name;
        succeeded = true;
      }
    }
    EXPECT_TRUE(succeeded) << operation.name;
    EXPECT_GT(injected, 1) << operation.name;  // the operation did allocate
  }
}

// A failed Append leaves the reference with the caller; a failed
// SetAtomValue leaves the atom empty.
TEST_F(SexpAllocation, FailedAppendAndSetAtomValue) {
  Ref<SexpList> list = SexpList::New();
  Ref<SexpAtom> atom = testing::MakeAtom("kept");
  fail_countdown = 0;  // the list's first node
  EXPECT_EQ(list->Append(std::move(atom)), VELK2_ERR_MEM_ALLOC);
  fail_countdown = -1;
  ASSERT_NE(atom, nullptr);
  EXPECT_EQ(atom->bytes(), "kept");
  EXPECT_EQ(list->ChildCount(), 0u);
  EXPECT_EQ(list->Append(Ref<SexpAtom>(atom)), VELK2_SUCCESS);
  EXPECT_EQ(list->ChildCount(), 1u);

  std::string bytes(100, 'n');
  fail_countdown = 0;
  EXPECT_EQ(atom->SetAtomValue(bytes.data(), 100), VELK2_ERR_MEM_ALLOC);
  fail_countdown = -1;
  EXPECT_EQ(atom->length(), 0u);
  EXPECT_EQ(atom->data(), nullptr);
}

}  // namespace
}  // namespace velk2
