// The engine's arena: every engine record comes from chunks taken from the
// engine's allocator record. Records are never freed one by one; the free
// lists of the node store recycle them, and the arena is reset or destroyed
// as a whole.
#ifndef VELK2_ENGINE_ARENA_H_
#define VELK2_ENGINE_ARENA_H_

#include <cstddef>
#include <cstdint>

#include "engine/status.h"
#include "platform/sanitizer.h"

namespace velk2::engine {

// The engine's allocator record: two functions and an opaque word passed to
// both. |allocate| returns null when it has no memory.
struct EngineAllocator {
  void* (*allocate)(size_t size, void* user);
  void (*free)(void* block, void* user);
  void* user;
};

// A plain-heap allocator record (malloc and free), shared by every engine.
const EngineAllocator* HeapAllocator();

// Every request is rounded up to this multiple: 4 on a 32-bit target, the
// pointer size here, so that records holding pointers stay aligned.
inline constexpr size_t kArenaAlignment = alignof(void*) > 4 ? alignof(void*) : 4;

// The size of every ordinary chunk, header included.
inline constexpr size_t kArenaChunkSize = 4096;

// A chunk: its header (link to the next chunk, usable capacity, offset of the
// data) followed by the data.
struct ArenaChunk {
  ArenaChunk* next;
  uint32_t capacity;
  uint32_t data_offset;
};

// The header size: 12 bytes on a 32-bit target, so that the first chunk has
// 4084 usable bytes there; 16 here.
inline constexpr size_t kArenaChunkHeader =
    (sizeof(ArenaChunk) + kArenaAlignment - 1) / kArenaAlignment * kArenaAlignment;

// The arena's control block.
class Arena {
 public:
  Arena() = default;
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;
  ~Arena() { Destroy(); }

  // Init takes the first chunk (kArenaChunkSize bytes) from |allocator|.
  // Returns 0, kEngineArenaUnavailable when the chunk cannot be had, or
  // SPKI_ERR_NULL_PARAM for a null or incomplete allocator record.
  Status Init(const EngineAllocator* allocator);

  // Allocate returns |size| bytes (rounded up to kArenaAlignment), or null
  // when the allocator has no more memory or the arena is not initialised.
  // When the rest of the current chunk is too small, the next chunk already
  // in the chain is used if it is large enough; otherwise a new chunk of
  // max(kArenaChunkSize, size + kArenaChunkHeader) is linked in after the
  // current one.
  void* Allocate(size_t size) {
    // The common case, inline: a small request that fits the current chunk.
    if (size - 1 < kArenaChunkSize && current_ != nullptr) {
      const size_t rounded = (size + kArenaAlignment - 1) / kArenaAlignment * kArenaAlignment;
      if (current_->capacity - used_ >= rounded) {
        uint8_t* block = reinterpret_cast<uint8_t*>(current_) + current_->data_offset + used_;
        used_ += rounded;
        VELK2_UNPOISON(block, rounded);
        return block;
      }
    }
    return AllocateSlow(size);
  }

  // Reset rewinds the arena to the start of its first chunk; every chunk is
  // kept for reuse. Everything allocated before is invalid afterwards.
  void Reset();

  // Destroy gives every chunk back to the allocator.
  void Destroy();

  bool initialised() const { return first_ != nullptr; }
  // The number of chunks in the chain and the bytes used in the current one.
  size_t chunk_count() const;
  size_t used() const { return used_; }
  const ArenaChunk* first_chunk() const { return first_; }
  const ArenaChunk* current_chunk() const { return current_; }

 private:
  ArenaChunk* NewChunk(size_t capacity);
  void* AllocateSlow(size_t size);

  ArenaChunk* first_ = nullptr;
  ArenaChunk* current_ = nullptr;
  size_t used_ = 0;
  void* user_ = nullptr;
  const EngineAllocator* allocator_ = nullptr;
};

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_ARENA_H_
