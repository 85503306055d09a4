// Free lists per block size and per thread, a shared depot between threads,
// and slabs carved from the ordinary heap.
#include "sexp/node_heap.h"

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
// A thread keeps at most this many free blocks of one class; the rest go to
// the depot, where other threads find them.
constexpr size_t kCacheLimit = 16384;

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
  // Moves every block of |other| onto this list.
  void Splice(FreeList& other) {
    if (other.head == nullptr) return;
    FreeBlock* tail = other.head;
    while (tail->next != nullptr) tail = tail->next;
    tail->next = head;
    head = other.head;
    count += other.count;
    other = FreeList{};
  }
};

// The blocks that threads gave up or left behind when they ended.
class Depot {
 public:
  void Give(size_t size_class, FreeList& list) {
    std::lock_guard<std::mutex> lock(mutex_);
    lists_[size_class].Splice(list);
  }
  // Takes every block of the class; false when there are none.
  bool Take(size_t size_class, FreeList& list) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lists_[size_class].head == nullptr) return false;
    list.Splice(lists_[size_class]);
    return true;
  }

 private:
  std::mutex mutex_;
  FreeList lists_[kClassCount] = {};
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
    for (size_t size_class = 0; size_class < kClassCount; ++size_class) {
      if (cache.lists[size_class].count != 0) TheDepot().Give(size_class, cache.lists[size_class]);
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
    // The rest of the old slab (less than one block) is left unused.
    char* slab = static_cast<char*>(std::malloc(kSlabSize));
    if (slab == nullptr) throw std::bad_alloc();
    cache.slab_next = slab;
    cache.slab_end = slab + kSlabSize;
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
  if (list.count > kCacheLimit) TheDepot().Give(size_class, list);
}

#else  // VELK2_ASAN: every block from the ordinary heap.

void SetNodePooling(bool) {}

void* AllocateNode(size_t size) {
  return ::operator new(size);
}

void FreeNode(void* object) noexcept {
  ::operator delete(object);
}

#endif

}  // namespace velk2::sexp_internal
