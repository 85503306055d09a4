#include "engine/store.h"

#include <new>

#include "engine/keywords.h"

namespace velk2::engine {

EngineContext::~EngineContext() {
  Release();
}

Status EngineContext::Init(const EngineAllocator* allocator) {
  Release();
  if (allocator == nullptr || allocator->allocate == nullptr || allocator->free == nullptr) {
    return SPKI_ERR_NULL_PARAM;
  }
  void* block = allocator->allocate(sizeof(Arena), allocator->user);
  if (block == nullptr) return kEngineArenaUnavailable;
  auto* arena = new (block) Arena();
  Status status = arena->Init(allocator);
  if (status != SPKI_OK) {
    arena->~Arena();
    allocator->free(block, allocator->user);
    return status;
  }
  allocator_ = allocator;
  arena_ = arena;
  return SPKI_OK;
}

void EngineContext::Release() {
  nodes_.Clear();
  atoms_.Clear();
  if (arena_ != nullptr) {
    arena_->Destroy();
    arena_->~Arena();
    allocator_->free(arena_, allocator_->user);
  }
  arena_ = nullptr;
  allocator_ = nullptr;
}

void EngineContext::Reset() {
  nodes_.Clear();
  atoms_.Clear();
  if (arena_ != nullptr) arena_->Reset();
}

void* EngineContext::AllocateScratch(size_t size) {
  if (allocator_ == nullptr) return nullptr;
  return allocator_->allocate(size == 0 ? 1 : size, allocator_->user);
}

void EngineContext::FreeScratch(void* block) {
  if (block != nullptr && allocator_ != nullptr) allocator_->free(block, allocator_->user);
}

Status EngineInit(EngineContext* engine, const EngineAllocator* allocator) {
  if (engine == nullptr) return SPKI_ERR_NULL_PARAM;
  return engine->Init(allocator);
}

void EngineRelease(EngineContext* engine) {
  if (engine != nullptr) engine->Release();
}

void ReleaseNode(EngineContext& engine, EngineNode* node) {
  if (node == nullptr || --node->ref_count >= 1) return;
  // Nodes whose count fell below 1 wait on a stack linked through their
  // free-list field, which a live node does not use.
  node->free_link = nullptr;
  EngineNode* pending = node;
  while (pending != nullptr) {
    EngineNode* dead = pending;
    pending = dead->free_link;
    for (EngineNode* child : {dead->next, SublistOf(dead)}) {
      if (child != nullptr && --child->ref_count < 1) {
        child->free_link = pending;
        pending = child;
      }
    }
    ReleaseAtom(engine, AtomOf(dead));
    engine.nodes().Give(dead);
  }
}

EngineNode* NewKeywordHead(EngineContext& engine, int32_t keyword) {
  EngineNode* node = NewNode(engine);
  if (node == nullptr) return nullptr;
  node->kind = kNodeKeywordHead;
  node->value.keyword = keyword;
  return node;
}

namespace {

EngineNode* NewAtomNode(EngineContext& engine, EngineAtom* atom, NodeKind kind) {
  if (atom == nullptr) return nullptr;
  EngineNode* node = NewNode(engine);
  if (node == nullptr) return nullptr;
  node->kind = kind;
  AssignAtom(engine, AtomSlot(node), atom);
  return node;
}

}  // namespace

EngineNode* NewAtomHead(EngineContext& engine, EngineAtom* atom) {
  return NewAtomNode(engine, atom, kNodeAtomHead);
}

EngineNode* NewAtomElement(EngineContext& engine, EngineAtom* atom) {
  return NewAtomNode(engine, atom, kNodeAtom);
}

EngineNode* NewSublistElement(EngineContext& engine, EngineNode* head) {
  if (head == nullptr) return nullptr;
  EngineNode* node = NewNode(engine);
  if (node == nullptr) return nullptr;
  node->kind = kNodeSublist;
  AssignNode(engine, SublistSlot(node), head);
  return node;
}

EngineNode* CopyElement(EngineContext& engine, const EngineNode* node) {
  if (node == nullptr) return nullptr;
  EngineNode* copy = NewNode(engine);
  if (copy == nullptr) return nullptr;
  copy->kind = node->kind;
  switch (node->kind) {
    case kNodeKeywordHead:
      copy->value.keyword = KeywordOf(node);
      break;
    case kNodeAtomHead:
    case kNodeAtom:
      AssignAtom(engine, AtomSlot(copy), AtomOf(node));
      break;
    case kNodeSublist:
      AssignNode(engine, SublistSlot(copy), SublistOf(node));
      break;
    default:
      break;
  }
  return copy;
}

EngineAtom* NewAtomOver(EngineContext& engine, const uint8_t* bytes, uint32_t length,
                        const uint8_t* hint, uint32_t hint_length) {
  EngineAtom* atom = NewAtom(engine);
  if (atom == nullptr) return nullptr;
  atom->bytes = bytes;
  atom->length = length;
  atom->hint = hint_length != 0 ? hint : nullptr;
  atom->hint_length = hint != nullptr ? hint_length : 0;
  atom->keyword_id = atom->hint_length != 0 ? kKeywordNone : KeywordId(bytes, length);
  return atom;
}

EngineAtom* NewAtomCopy(EngineContext& engine, const uint8_t* bytes, uint32_t length) {
  if (!engine.initialised()) return nullptr;
  auto* copy = static_cast<uint8_t*>(engine.arena().Allocate(length));
  if (copy == nullptr) return nullptr;
  if (length != 0) std::memcpy(copy, bytes, length);
  return NewAtomOver(engine, copy, length);
}

EngineAtom* NewKeywordAtom(EngineContext& engine, int32_t keyword) {
  const KeywordText& text = KeywordTextOf(keyword);
  EngineAtom* atom = NewAtomOver(engine, reinterpret_cast<const uint8_t*>(text.text), text.length);
  if (atom != nullptr) atom->keyword_id = keyword;
  return atom;
}

size_t ChainLength(const EngineNode* chain) {
  size_t count = 0;
  for (; chain != nullptr; chain = chain->next) ++count;
  return count;
}

}  // namespace velk2::engine
