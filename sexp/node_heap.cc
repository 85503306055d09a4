// Free lists per block size and per thread, a shared depot between threads,
// and slabs carved from the ordinary heap.
#include "sexp/node_heap.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>

#include "platform/sanitizer.h"

namespace velk2::sexp_internal {

#ifndef VELK2_ASAN
namespace {

// Every block starts with a header word: its size class, or kUnpooled for a
// block too large for any class (taken from the ordinary heap). The object
// follows the header, 8-byte aligned.
constexpr size_t kHeader = 8;
constexpr size_t kGranule = 16;
// Class c holds blocks of (c + 1) * 16 bytes, header included: up to 512.
constexpr size_t kClassCount = 32;
constexpr size_t kLargestBlock = kGranule * kClassCount;
constexpr uint64_t kUnpooled = UINT64_MAX;
constexpr size_t kSlabSize = 256 * 1024;
// A thread keeps at most this many free blocks of one class; past it, a
// batch goes to the depot, where other threads find them. Blocks move
// between a thread and the depot a batch at a time, so that a thread
// freeing and allocating around the limit moves a batch now and then, not
// its whole list each time.
constexpr size_t kCacheLimit = 16384;
constexpr size_t kBatch = 4096;

struct FreeBlock {
  FreeBlock* next;
};

struct FreeList {
  FreeBlock* head;
  size_t count;

  void Push(FreeBlock* block) {
    block->next = head;
    head = block;
    ++count;
  }
  FreeBlock* Pop() {
    FreeBlock* block = head;
    if (block != nullptr) {
      head = block->next;
      --count;
    }
    return block;
  }
  // Moves up to |most| blocks from the front of this list to the front of
  // |to|, walking only those; how many moved.
  size_t MoveFront(size_t most, FreeList& to) {
    FreeBlock* last = nullptr;
    size_t moved = 0;
    for (FreeBlock* block = head; block != nullptr && moved < most; block = block->next) {
      last = block;
      ++moved;
    }
    if (moved == 0) return 0;
    FreeBlock* first = head;
    head = last->next;
    count -= moved;
    last->next = to.head;
    to.head = first;
    to.count += moved;
    return moved;
  }
};

// The blocks that threads gave up or left behind when they ended.
class Depot {
 public:
  // Takes up to |most| blocks from the front of |list|.
  void Give(size_t size_class, FreeList& list, size_t most) {
    std::lock_guard<std::mutex> lock(mutex_);
    list.MoveFront(most, lists_[size_class]);
  }
  // Moves a batch of the class to |list|; false when there is none.
  bool Take(size_t size_class, FreeList& list) {
    std::lock_guard<std::mutex> lock(mutex_);
    return lists_[size_class].MoveFront(kBatch, list) != 0;
  }
  // The uncut rest [next, end) of an ended thread's slab, for the next thread
  // that needs a slab; it holds its own record.
  void GiveRest(char* next, char* end) {
    if (end - next < static_cast<ptrdiff_t>(sizeof(Rest))) return;
    std::lock_guard<std::mutex> lock(mutex_);
    rests_ = ::new (next) Rest{rests_, end};
  }
  // A rest given back, as [*next, *end); false when there is none.
  bool TakeRest(char** next, char** end) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (rests_ == nullptr) return false;
    Rest* rest = rests_;
    rests_ = rest->older;
    *next = reinterpret_cast<char*>(rest);
    *end = rest->end;
    return true;
  }
  // Slabs taken from malloc so far.
  size_t slabs() const { return slabs_.load(std::memory_order_relaxed); }
  void CountSlab() { slabs_.fetch_add(1, std::memory_order_relaxed); }

 private:
  struct Rest {
    Rest* older;
    char* end;
  };
  std::mutex mutex_;
  FreeList lists_[kClassCount] = {};
  Rest* rests_ = nullptr;
  std::atomic<size_t> slabs_{0};
};

// Threads may end after static destructors have run, so the depot is never
// destroyed.
Depot& TheDepot() {
  alignas(Depot) static unsigned char storage[sizeof(Depot)];
  static Depot* const depot = ::new (storage) Depot();
  return *depot;
}

// A thread's blocks. Plain data, so that reaching it costs no guard; the
// first use registers a Flusher, which hands the blocks to the depot when the
// thread ends.
struct Cache {
  FreeList lists[kClassCount];
  char* slab_next;
  char* slab_end;
  bool registered;
};
constinit thread_local Cache cache = {};

struct Flusher {
  ~Flusher() {
    // The slab's uncut rest goes on too: a thread that parses one file and
    // ends would otherwise strand most of a slab.
    if (cache.slab_next != nullptr) TheDepot().GiveRest(cache.slab_next, cache.slab_end);
    cache.slab_next = cache.slab_end = nullptr;
    for (size_t size_class = 0; size_class < kClassCount; ++size_class) {
      FreeList& list = cache.lists[size_class];
      if (list.count != 0) TheDepot().Give(size_class, list, list.count);
    }
  }
};

void Register() {
  thread_local Flusher flusher;
  (void)flusher;
  cache.registered = true;
}

size_t ClassOf(size_t block_size) {
  return (block_size - 1) / kGranule;
}

// The slow path: a block of |size_class| from the depot or a slab.
FreeBlock* Refill(size_t size_class) {
  if (!cache.registered) Register();
  FreeList& list = cache.lists[size_class];
  if (TheDepot().Take(size_class, list)) return list.Pop();
  const size_t block_size = (size_class + 1) * kGranule;
  if (cache.slab_next == nullptr || size_t(cache.slab_end - cache.slab_next) < block_size) {
    // The rest of the old slab (less than one block) is left unused. A rest
    // that an ended thread left is taken before a new slab; blocks are at
    // most kLargestBlock, so a rest too small for this one is rare and is
    // simply dropped.
    char* next = nullptr;
    char* end = nullptr;
    if (!TheDepot().TakeRest(&next, &end) || size_t(end - next) < block_size) {
      next = static_cast<char*>(std::malloc(kSlabSize));
      if (next == nullptr) throw std::bad_alloc();
      end = next + kSlabSize;
      TheDepot().CountSlab();
    }
    cache.slab_next = next;
    cache.slab_end = end;
  }
  FreeBlock* block = reinterpret_cast<FreeBlock*>(cache.slab_next);
  cache.slab_next += block_size;
  return block;
}

bool pooling = true;

}  // namespace

void SetNodePooling(bool enabled) {
  pooling = enabled;
}

size_t NodeSlabCount() {
  return TheDepot().slabs();
}

void* AllocateNode(size_t size) {
  if (size > kLargestBlock - kHeader || !pooling) {
    auto* block = static_cast<uint64_t*>(::operator new(size + kHeader));
    *block = kUnpooled;
    return reinterpret_cast<char*>(block) + kHeader;
  }
  const size_t size_class = ClassOf(size + kHeader);
  FreeBlock* block = cache.lists[size_class].Pop();
  if (block == nullptr) block = Refill(size_class);
  *reinterpret_cast<uint64_t*>(block) = size_class;
  return reinterpret_cast<char*>(block) + kHeader;
}

void FreeNode(void* object) noexcept {
  if (object == nullptr) return;
  char* block = static_cast<char*>(object) - kHeader;
  const uint64_t size_class = *reinterpret_cast<const uint64_t*>(block);
  if (size_class == kUnpooled) {
    ::operator delete(block);
    return;
  }
  if (!cache.registered) Register();
  FreeList& list = cache.lists[size_class];
  list.Push(reinterpret_cast<FreeBlock*>(block));
  if (list.count > kCacheLimit) TheDepot().Give(size_class, list, kBatch);
}

#else  // VELK2_ASAN: every block from the ordinary heap.

void SetNodePooling(bool) {}

size_t NodeSlabCount() {
  return 0;
}

void* AllocateNode(size_t size) {
  return ::operator new(size);
}

void FreeNode(void* object) noexcept {
  ::operator delete(object);
}

#endif

}  // namespace velk2::sexp_internal
