// The engine's node store: reference-counted node and atom records taken from
// the engine's arena and recycled through one free list per record kind.
//
// A list is the chain that starts at its head node (kind 1 or 2) and runs
// through the next-sibling links. Atoms do not copy their bytes: they point
// into the text that was parsed, which the owner of the tree keeps alive.
//
// Counting: a fresh record has a count of 1, owned by whoever made it. Every
// pointer kept in a record (next sibling, sublist head, atom) owns one count
// and is set through AssignNode / AssignAtom. A record whose count falls
// below 1 releases what it refers to, is zeroed and goes on its free list.
#ifndef VELK2_ENGINE_STORE_H_
#define VELK2_ENGINE_STORE_H_

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "engine/arena.h"
#include "engine/status.h"
#include "platform/sanitizer.h"

namespace velk2::engine {

// A big ACL makes hundreds of thousands of records, each walked several
// times: the records are packed to 32 bytes, two to a cache line, and the
// free-list link shares its place with a field that only a live record uses.
struct EngineAtom {
  union {
    EngineAtom* free_link;  // only while on the free list
    const uint8_t* bytes;   // only while alive
  };
  const uint8_t* hint;
  int32_t ref_count;
  uint32_t length;
  uint32_t hint_length;  // 0: no display hint
  int32_t keyword_id;    // -1: not a keyword, or the atom has a display hint
  // No flag byte: nothing ever read the one the parser cleared.
};
static_assert(sizeof(EngineAtom) == 32 || sizeof(void*) != 8);

enum NodeKind : int32_t {
  kNodeFree = 0,         // a zeroed record
  kNodeKeywordHead = 1,  // list head that is a keyword: keyword
  kNodeAtomHead = 2,     // list head that is not a keyword: atom
  kNodeAtom = 3,         // atom element: atom
  kNodeSublist = 4,      // sublist element: sublist (the sublist's head node)
};

// The longest list text a head remembers: a longer list keeps no source
// (like a template), so whoever digests it walks its nodes instead.
inline constexpr uint32_t kMaxSourceLength = (1u << 24) - 1;

struct EngineNode {
  union {
    EngineNode* free_link;  // only while on the free list (or being released)
    const uint8_t* source;  // the "(" where this list began in the parsed text, or null
  };
  EngineNode* next;  // next sibling
  // The value, as the kind says; one place holds whichever the kind has.
  // Read it through KeywordOf, AtomOf and SublistOf, which give 0 or null for
  // the other kinds.
  union Value {
    int32_t keyword;
    EngineAtom* atom;
    EngineNode* sublist;
  } value;
  int32_t ref_count;
  uint32_t source_length : 24;  // bytes from "(" to ")" inclusive, set when the list closed
  NodeKind kind : 8;
};
static_assert(sizeof(EngineNode) == 32 || sizeof(void*) != 8);

// The keyword of a keyword head, else 0.
inline int32_t KeywordOf(const EngineNode* node) {
  return node->kind == kNodeKeywordHead ? node->value.keyword : 0;
}
// The atom of an atom head or atom element, else null.
inline EngineAtom* AtomOf(const EngineNode* node) {
  return node->kind == kNodeAtomHead || node->kind == kNodeAtom ? node->value.atom : nullptr;
}
// The head of the list a sublist element holds, else null.
inline EngineNode* SublistOf(const EngineNode* node) {
  return node->kind == kNodeSublist ? node->value.sublist : nullptr;
}
// Where an atom head or atom element keeps its atom, and a sublist element
// its list, for AssignAtom and AssignNode. Only for nodes of those kinds.
inline EngineAtom** AtomSlot(EngineNode* node) {
  return &node->value.atom;
}
inline EngineNode** SublistSlot(EngineNode* node) {
  return &node->value.sublist;
}

// One free list of records of type T: last freed, first reused. T is a plain
// record with the fields |free_link| and |ref_count|.
template <typename T>
class RecordPool {
  static_assert(std::is_trivially_copyable_v<T> && std::is_standard_layout_v<T>);

 public:
  // Take pops a record from the free list, or takes a fresh one from |arena|;
  // either way it comes back zeroed with a count of 1. Null when out of memory.
  T* Take(Arena& arena) {
    T* record = head_;
    if (record != nullptr) {
      VELK2_UNPOISON(record, sizeof(T));
      head_ = record->free_link;
      --free_count_;
    } else {
      record = static_cast<T*>(arena.Allocate(sizeof(T)));
      if (record == nullptr) return nullptr;
    }
    std::memset(static_cast<void*>(record), 0, sizeof(T));
    record->ref_count = 1;
    return record;
  }

  // Give zeroes |record| and pushes it on the free list.
  void Give(T* record) {
    std::memset(static_cast<void*>(record), 0, sizeof(T));
    record->free_link = head_;
    head_ = record;
    ++free_count_;
    VELK2_POISON(record, sizeof(T));
  }

  // Clear forgets the free list (the arena is being reset or destroyed).
  void Clear() {
    head_ = nullptr;
    free_count_ = 0;
  }

  size_t free_count() const { return free_count_; }

 private:
  T* head_ = nullptr;
  size_t free_count_ = 0;
};

// The engine record of one authorization query: the allocator record, the
// arena's control block (taken from the allocator) and the free lists.
// Never shared; each query builds and tears down its own.
class EngineContext {
 public:
  EngineContext() = default;
  EngineContext(const EngineContext&) = delete;
  EngineContext& operator=(const EngineContext&) = delete;
  ~EngineContext();

  // Init takes the arena's control block from |allocator| and initialises
  // the arena in it. Returns 0, kEngineArenaUnavailable (16386) when the
  // block or the first chunk cannot be had, or SPKI_ERR_NULL_PARAM.
  Status Init(const EngineAllocator* allocator);

  // Release forgets the free lists, destroys the arena (every chunk goes back
  // to the allocator) and gives the control block back. Safe to repeat.
  void Release();

  // Reset recycles the whole arena at once: the free lists are forgotten and
  // the arena rewinds to its first chunk. Every record is invalid afterwards.
  void Reset();

  bool initialised() const { return arena_ != nullptr; }
  Arena& arena() { return *arena_; }

  // Scratch memory for one operation (not a record, so not from the arena):
  // taken from and given back to the engine's allocator. Null when out of
  // memory or not initialised.
  void* AllocateScratch(size_t size);
  void FreeScratch(void* block);

  RecordPool<EngineNode>& nodes() { return nodes_; }
  RecordPool<EngineAtom>& atoms() { return atoms_; }

  // The work meter of the operation running on the engine: the reduction and
  // the tag algebra charge their steps to it, so one limit bounds both.
  // Unlimited until SetWorkLimit. ChargeWork is false once the limit is passed.
  void SetWorkLimit(uint64_t limit) {
    work_limit_ = limit;
    work_used_ = 0;
  }
  bool ChargeWork(uint64_t count) {
    work_used_ += count;
    return work_used_ <= work_limit_;
  }
  bool work_exhausted() const { return work_used_ > work_limit_; }
  uint64_t work_used() const { return work_used_; }

 private:
  uint64_t work_limit_ = UINT64_MAX;
  uint64_t work_used_ = 0;
  const EngineAllocator* allocator_ = nullptr;
  Arena* arena_ = nullptr;
  RecordPool<EngineNode> nodes_;
  RecordPool<EngineAtom> atoms_;
};

// EngineInit and EngineRelease: the query's names for Init and Release.
Status EngineInit(EngineContext* engine, const EngineAllocator* allocator);
void EngineRelease(EngineContext* engine);

// NewNode and NewAtom return a zeroed record with a count of 1, or null when
// out of memory (or the engine is not initialised).
inline EngineNode* NewNode(EngineContext& engine) {
  if (!engine.initialised()) return nullptr;
  return engine.nodes().Take(engine.arena());
}
inline EngineAtom* NewAtom(EngineContext& engine) {
  if (!engine.initialised()) return nullptr;
  return engine.atoms().Take(engine.arena());
}

// ReleaseNode drops one count of |node| (null is ignored). A node whose count
// falls below 1 releases its next sibling, its sublist and its atom the same
// way; the walk uses no recursion, so chains of any length and depth are fine.
void ReleaseNode(EngineContext& engine, EngineNode* node);
inline void ReleaseAtom(EngineContext& engine, EngineAtom* atom) {
  if (atom != nullptr && --atom->ref_count < 1) engine.atoms().Give(atom);
}

// DropRecord releases one count of a record through the owner of its pool.
inline void DropRecord(EngineContext& engine, EngineNode* node) {
  ReleaseNode(engine, node);
}
inline void DropRecord(EngineContext& engine, EngineAtom* atom) {
  ReleaseAtom(engine, atom);
}

// AssignCounted takes a count of |record| (if any), releases what |*slot|
// held and stores |record| there. With a null |slot| it only releases
// |record|. AssignNode and AssignAtom are its two uses.
template <typename T>
void AssignCounted(EngineContext& engine, T** slot, T* record) {
  if (slot == nullptr) {
    DropRecord(engine, record);
    return;
  }
  if (record != nullptr) ++record->ref_count;
  T* old = *slot;
  *slot = record;
  DropRecord(engine, old);
}
inline void AssignNode(EngineContext& engine, EngineNode** slot, EngineNode* node) {
  AssignCounted(engine, slot, node);
}
inline void AssignAtom(EngineContext& engine, EngineAtom** slot, EngineAtom* atom) {
  AssignCounted(engine, slot, atom);
}

// Node makers. Each returns a new node with a count of 1 (null when out of
// memory); the ones taking a record take their own count of it.
EngineNode* NewKeywordHead(EngineContext& engine, int32_t keyword);
EngineNode* NewAtomHead(EngineContext& engine, EngineAtom* atom);
EngineNode* NewAtomElement(EngineContext& engine, EngineAtom* atom);
EngineNode* NewSublistElement(EngineContext& engine, EngineNode* head);

// CopyElement returns a new node of the same kind and value as |node| (the
// value shared, with its own count), no next sibling and no source text, so
// that the copy can join another chain.
EngineNode* CopyElement(EngineContext& engine, const EngineNode* node);

// NewAtomOver returns an atom over |length| bytes at |bytes| with an optional
// display hint; the bytes are not copied. The keyword id is looked up when
// there is no hint. NewAtomCopy copies the bytes into the arena first.
EngineAtom* NewAtomOver(EngineContext& engine, const uint8_t* bytes, uint32_t length,
                        const uint8_t* hint = nullptr, uint32_t hint_length = 0);
EngineAtom* NewAtomCopy(EngineContext& engine, const uint8_t* bytes, uint32_t length);

// NewKeywordAtom returns an atom over the keyword's own constant text.
EngineAtom* NewKeywordAtom(EngineContext& engine, int32_t keyword);

// ChainLength returns the number of nodes in the chain that starts at |chain|.
size_t ChainLength(const EngineNode* chain);

// PoolRef<T, Owner>: the one scoped count of a pool record, released through
// its owner when it goes out of scope: engine nodes and atoms (owner: the
// EngineContext) and the reduction's tuples (owner: the reducer). Whoever
// owns a pool gives DropRecord(Owner&, T*).
template <typename T, typename Owner>
class PoolRef {
 public:
  explicit PoolRef(Owner& owner, T* record = nullptr) : owner_(&owner), record_(record) {}
  PoolRef(const PoolRef&) = delete;
  PoolRef& operator=(const PoolRef&) = delete;
  PoolRef(PoolRef&& other) noexcept
      : owner_(other.owner_), record_(std::exchange(other.record_, nullptr)) {}
  ~PoolRef() { reset(); }

  T* get() const { return record_; }
  T* operator->() const { return record_; }
  explicit operator bool() const { return record_ != nullptr; }

  // An out-parameter for functions that store a new count: releases what is
  // held first.
  T** out() {
    reset();
    return &record_;
  }
  // Gives up the count without releasing it.
  [[nodiscard]] T* release() { return std::exchange(record_, nullptr); }
  void reset(T* record = nullptr) {
    T* old = std::exchange(record_, record);
    if (old != nullptr) DropRecord(*owner_, old);
  }

 private:
  Owner* owner_;
  T* record_;
};

using NodeRef = PoolRef<EngineNode, EngineContext>;
using AtomRef = PoolRef<EngineAtom, EngineContext>;

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_STORE_H_
