#include "engine/arena.h"

#include <cstdlib>
#include <limits>

#include "platform/sanitizer.h"

namespace velk2::engine {
namespace {

void* HeapAllocate(size_t size, void*) {
  return std::malloc(size);
}
void HeapFree(void* block, void*) {
  std::free(block);
}

constexpr EngineAllocator kHeapAllocator = {HeapAllocate, HeapFree, nullptr};

uint8_t* DataOf(ArenaChunk* chunk) {
  return reinterpret_cast<uint8_t*>(chunk) + chunk->data_offset;
}

}  // namespace

const EngineAllocator* HeapAllocator() {
  return &kHeapAllocator;
}

Status Arena::Init(const EngineAllocator* allocator) {
  if (allocator == nullptr || allocator->allocate == nullptr || allocator->free == nullptr) {
    return SPKI_ERR_NULL_PARAM;
  }
  Destroy();
  allocator_ = allocator;
  user_ = allocator->user;
  first_ = NewChunk(kArenaChunkSize - kArenaChunkHeader);
  if (first_ == nullptr) {
    allocator_ = nullptr;
    user_ = nullptr;
    return kEngineArenaUnavailable;
  }
  current_ = first_;
  used_ = 0;
  return SPKI_OK;
}

ArenaChunk* Arena::NewChunk(size_t capacity) {
  void* block = allocator_->allocate(kArenaChunkHeader + capacity, user_);
  if (block == nullptr) return nullptr;
  auto* chunk = static_cast<ArenaChunk*>(block);
  chunk->next = nullptr;
  chunk->capacity = static_cast<uint32_t>(capacity);
  chunk->data_offset = static_cast<uint32_t>(kArenaChunkHeader);
  VELK2_POISON(DataOf(chunk), capacity);
  return chunk;
}

void* Arena::AllocateSlow(size_t size) {
  if (first_ == nullptr) return nullptr;
  // Bounded so that every chunk's capacity fits its 32-bit field.
  constexpr size_t kLargest = std::numeric_limits<uint32_t>::max() / 2;
  if (size > kLargest) return nullptr;
  if (size == 0) size = 1;
  size = (size + kArenaAlignment - 1) / kArenaAlignment * kArenaAlignment;
  if (current_->capacity - used_ < size) {
    ArenaChunk* next = current_->next;
    if (next == nullptr || next->capacity < size) {
      size_t capacity =
          size + kArenaChunkHeader > kArenaChunkSize ? size : kArenaChunkSize - kArenaChunkHeader;
      ArenaChunk* fresh = NewChunk(capacity);
      if (fresh == nullptr) return nullptr;
      fresh->next = next;
      current_->next = fresh;
      next = fresh;
    }
    current_ = next;
    used_ = 0;
  }
  uint8_t* block = DataOf(current_) + used_;
  used_ += size;
  VELK2_UNPOISON(block, size);
  return block;
}

void Arena::Reset() {
  for (ArenaChunk* chunk = first_; chunk != nullptr; chunk = chunk->next) {
    VELK2_POISON(DataOf(chunk), chunk->capacity);
  }
  current_ = first_;
  used_ = 0;
}

void Arena::Destroy() {
  ArenaChunk* chunk = first_;
  while (chunk != nullptr) {
    ArenaChunk* next = chunk->next;
    VELK2_UNPOISON(DataOf(chunk), chunk->capacity);
    allocator_->free(chunk, user_);
    chunk = next;
  }
  first_ = nullptr;
  current_ = nullptr;
  used_ = 0;
  user_ = nullptr;
  allocator_ = nullptr;
}

size_t Arena::chunk_count() const {
  size_t count = 0;
  for (const ArenaChunk* chunk = first_; chunk != nullptr; chunk = chunk->next) ++count;
  return count;
}

}  // namespace velk2::engine
