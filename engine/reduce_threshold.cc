// Threshold subjects: (k-of-n K N member...). Each member becomes a tuple of
// its own carrying the block and its member index; tuples that reach member
// i and end at the key arrive in slot i; once k slots hold arrivals that end
// at the same principal, the combinations of k distinct slots are searched
// depth-first over the slots in ascending order, and each complete one
// yields a single tuple for the whole block.
#include <cstring>

#include "engine/dates.h"
#include "engine/keywords.h"
#include "engine/reduce_internal.h"

namespace velk2::engine::reduce {

// The partial result along one path of the search. The tag is borrowed from
// the level that made it.
struct Combination {
  EngineNode* tag;
  EngineAtom* not_before;
  EngineAtom* not_after;
  bool propagate;
};

namespace {

// k and n are one-byte binary values, as certificates carry them.
int32_t OneByteValue(const EngineNode* node) {
  if (node == nullptr || node->kind != kNodeAtom || AtomOf(node)->length != 1) return -1;
  return AtomOf(node)->bytes[0];
}

// The member tuples of one block, released unless handed on.
class Members {
 public:
  explicit Members(Reducer& reducer) : reducer_(reducer) {}
  ~Members() {
    for (int32_t i = 0; i < count_; ++i) reducer_.ReleaseTuple(tuples_[i]);
  }
  Members(const Members&) = delete;
  Members& operator=(const Members&) = delete;

  void Add(FiveTuple* tuple) { tuples_[count_++] = tuple; }
  int32_t count() const { return count_; }
  FiveTuple* at(int32_t i) const { return tuples_[i]; }

 private:
  Reducer& reducer_;
  FiveTuple* tuples_[256] = {};
  int32_t count_ = 0;
};

}  // namespace

Status Reducer::ExpandThreshold(FiveTuple* tuple) {
  EngineNode* group = tuple->subject_node;
  if (!IsKeywordList(group, kKeywordKOfN) || tuple->derived) return SPKI_ERR_THRESHOLD;
  const EngineNode* k_node = group->next;
  const EngineNode* n_node = k_node != nullptr ? k_node->next : nullptr;
  int32_t k = OneByteValue(k_node);
  int32_t n = OneByteValue(n_node);
  if (k < 1 || n < 1 || k > n) return SPKI_ERR_K_OF_N_SYNTAX;
  int32_t count = 0;
  for (const EngineNode* member = n_node->next; member != nullptr; member = member->next) {
    if (member->kind != kNodeSublist) return SPKI_ERR_K_OF_N_SYNTAX;
    ++count;
  }
  if (count != n) return SPKI_ERR_K_OF_N_SYNTAX;

  ThresholdBlock* block = blocks_.Take(engine_.arena());
  if (block == nullptr) return SPKI_ERR_NO_MEM;
  size_t slot_bytes = (static_cast<size_t>(n) + 1) * sizeof(TupleEntry*);
  block->slots = static_cast<TupleEntry**>(engine_.arena().Allocate(slot_bytes));
  if (block->slots == nullptr) {
    blocks_.Give(block);
    return SPKI_ERR_NO_MEM;
  }
  std::memset(static_cast<void*>(block->slots), 0, slot_bytes);
  block->k = static_cast<int16_t>(k);
  block->n = n;
  block->parent_index = tuple->threshold_index;
  block->parent_block = tuple->threshold;
  block->issuer = tuple->issuer;
  AssignNode(engine_, &block->node, group);
  block->next_block = blocks_list_.head;
  blocks_list_.head = block;

  Members members(*this);
  bool repeated[256] = {};
  int16_t index = 0;
  for (const EngineNode* element = n_node->next; element != nullptr; element = element->next) {
    FiveTuple* member = CopyTuple(tuple);
    if (member == nullptr) return SPKI_ERR_NO_MEM;
    members.Add(member);
    member->threshold_index = ++index;
    member->threshold = block;
    member->subject = nullptr;
    AssignAtom(engine_, &member->subject_name, nullptr);
    AssignNode(engine_, &member->subject_names_rest, nullptr);
    EngineNode* inner = SublistOf(element);
    AssignNode(engine_, &member->subject_node, inner);
    if (inner->kind != kNodeKeywordHead) return SPKI_ERR_PRINCIPAL_EXPECTED;
    Status status = SPKI_OK;
    switch (KeywordOf(inner)) {
      case kKeywordKOfN:
        break;  // a nested block, expanded when the member is inserted
      case kKeywordName: {
        bool relative = false;
        status = ReadNameSubject(inner, member, &relative);
        if (status == SPKI_OK && relative) {
          if (tuple->issuer == nullptr) return SPKI_ERR_SUBJECT_SYNTAX;
          member->subject = tuple->issuer;
        }
        break;
      }
      default:
        status = PrincipalOf(inner, &member->subject);
        break;
    }
    if (status != SPKI_OK) return status;
    // A key listed twice is one member: its second slot never fills, so it
    // counts once toward k.
    if (member->subject != nullptr && member->subject_name == nullptr) {
      for (int32_t i = 0; i + 1 < members.count(); ++i) {
        const FiveTuple* earlier = members.at(i);
        if (earlier->subject == member->subject && earlier->subject_name == nullptr) {
          repeated[members.count() - 1] = true;
          break;
        }
      }
    }
  }
  // The pending stack is last in, first out: member 1 is taken first.
  for (int32_t i = members.count() - 1; i >= 0; --i) {
    if (repeated[i]) continue;
    Status status = Insert(members.at(i), false);
    if (status != SPKI_OK) return status;
  }
  return SPKI_OK;
}

Status Reducer::ThresholdArrival(FiveTuple* tuple) {
  ThresholdBlock* block = tuple->threshold;
  const int32_t slot = tuple->threshold_index;
  if (block == nullptr || slot < 1 || slot > block->n) return SPKI_ERR_THRESHOLD;
  // Only tuples that end at the key count; a name still to resolve is not
  // an arrival yet.
  if (!tuple->on_key_path || tuple->subject_name != nullptr) return SPKI_OK;
  Status status = PushTuple(&block->slots[slot], tuple);
  if (status != SPKI_OK) return status;

  // Which slots hold an arrival at the same principal; counted from the back,
  // so that the search knows how many slots can still be filled.
  int32_t reached = 0;
  fillable_[block->n + 1] = 0;
  for (int32_t j = block->n; j >= 1; --j) {
    bool filled = false;
    for (TupleEntry* entry = block->slots[j]; entry != nullptr && !filled; entry = entry->next) {
      status = Step();
      if (status != SPKI_OK) return status;
      filled = entry->tuple->subject == tuple->subject;
    }
    reached += filled ? 1 : 0;
    fillable_[j] = static_cast<int16_t>(fillable_[j + 1] + (filled && j != slot ? 1 : 0));
  }
  if (reached < block->k) return SPKI_OK;
  // Only the combinations holding the new arrival are new.
  Combination start{tuple->tag, tuple->not_before, tuple->not_after, tuple->propagate != 0};
  path_[0] = tuple;
  return Search(block, slot, tuple->subject, &start, 1, 1);
}

Status Reducer::Search(ThresholdBlock* block, int arrival_slot, Principal* subject,
                       Combination* partial, int next_slot, int chosen) {
  if (chosen == block->k) return EmitCombination(block, subject, *partial);
  for (int j = next_slot; j <= block->n; ++j) {
    if (j == arrival_slot) continue;
    // Prune on the slots that can still be filled, not on the slots left:
    // with exactly k members reached, every other path is a dead end.
    if (fillable_[j] < block->k - chosen) break;
    for (TupleEntry* entry = block->slots[j]; entry != nullptr; entry = entry->next) {
      FiveTuple* arrival = entry->tuple;
      if (arrival->subject != subject) {
        Status status = Step();
        if (status != SPKI_OK) return status;
        continue;
      }
      if (stats_.threshold_combinations >= options_.limits.threshold_combinations) {
        return LimitReached("threshold combinations");
      }
      ++stats_.threshold_combinations;
      NodeRef tag(engine_);
      bool empty = false;
      Status status = IntersectTags(partial->tag, arrival->tag, tag.out(), &empty);
      if (status != SPKI_OK) return status;
      if (empty) continue;
      EngineAtom* not_before = LaterOf(partial->not_before, arrival->not_before);
      EngineAtom* not_after = EarlierOf(partial->not_after, arrival->not_after);
      if (not_before != nullptr && not_after != nullptr &&
          CompareAtoms(not_before, not_after) == kOrderAfter) {
        continue;
      }
      Combination next{tag.get(), not_before, not_after,
                       partial->propagate && arrival->propagate != 0};
      path_[chosen] = arrival;
      status = Search(block, arrival_slot, subject, &next, j + 1, chosen + 1);
      if (status != SPKI_OK) return status;
    }
  }
  return SPKI_OK;
}

Status Reducer::EmitCombination(ThresholdBlock* block, Principal* subject,
                                const Combination& done) {
  FiveTuple* tuple = NewTuple();
  if (tuple == nullptr) return SPKI_ERR_NO_MEM;
  tuple->issuer = block->issuer;
  tuple->subject = subject;
  // A block nested in another one arrives, in turn, at its own member index.
  tuple->threshold_index = block->parent_index;
  tuple->threshold = block->parent_block;
  tuple->on_key_path = 1;
  tuple->propagate = done.propagate ? 1 : 0;
  tuple->origin = kFromThreshold;
  AssignNode(engine_, &tuple->subject_node, block->node);
  AssignNode(engine_, &tuple->tag, done.tag);
  AssignAtom(engine_, &tuple->not_before, done.not_before);
  AssignAtom(engine_, &tuple->not_after, done.not_after);
  Status status = TraceCreatedFrom(tuple, path_, block->k);
  if (status == SPKI_OK) status = Insert(tuple, true);
  ReleaseTuple(tuple);
  return status;
}

}  // namespace velk2::engine::reduce
