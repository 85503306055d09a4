// The five-tuple reduction: reading credentials into tuples, chaining them
// backwards from the key, and the result ACL.
#include "engine/reduce.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "engine/dates.h"
#include "engine/keywords.h"
#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/readable.h"
#include "engine/reduce_internal.h"
#include "engine/tags.h"

namespace velk2::engine {
namespace reduce {
namespace {

// Every result entry is made from this template: the public-key list stands
// for the subject, the propagate element, the tag and the two dates are
// replaced or removed.
constexpr char kEntryTemplate[] =
    "(5:entry(7:subject(10:public-key))(9:propagate)(3:tag)"
    "(5:valid(10:not-before2:nb)(9:not-after2:na)))";

}  // namespace

Reducer::Reducer(EngineContext& engine, uint32_t crypto_context, const ReduceOptions& options)
    : engine_(engine), crypto_(crypto_context), options_(options) {
  engine_.SetWorkLimit(options_.limits.work_steps);
}

Reducer::~Reducer() {
  if (!options_.arena_discarded) return;
  // The arena goes whole right after: every part forgets its records instead
  // of giving them back one by one.
  root_.head = pending_.head = nullptr;
  for (NameIndex* index : {&definitions_, &references_}) {
    std::fill(std::begin(index->buckets), std::end(index->buckets), nullptr);
  }
  blocks_list_.head = nullptr;
  principal_index_.all = nullptr;
}

Reducer::NameIndex::~NameIndex() {
  for (IndexEntry*& bucket : buckets) {
    while (IndexEntry* entry = bucket) {
      bucket = entry->next;
      reducer.ReleaseTuple(entry->tuple);
      reducer.index_entries_.Give(entry);
    }
  }
}

Reducer::BlockList::~BlockList() {
  // Every slot lets go of its arrivals before any block goes.
  for (ThresholdBlock* block = head; block != nullptr; block = block->next_block) {
    for (int32_t i = 1; i <= block->n; ++i) reducer.ClearTupleList(&block->slots[i]);
  }
  while (ThresholdBlock* block = head) {
    head = block->next_block;
    AssignNode(reducer.engine_, &block->node, nullptr);
    reducer.blocks_.Give(block);  // the slot array stays in the arena
  }
}

Reducer::PrincipalTable::~PrincipalTable() {
  // Every principal lets go of its tuples before any principal goes.
  for (IndexEntry* entry = all; entry != nullptr; entry = entry->next) {
    reducer.ClearTupleList(&entry->principal->issued);
    reducer.ClearTupleList(&entry->principal->subjects);
  }
  while (IndexEntry* entry = all) {
    all = entry->next;
    AssignNode(reducer.engine_, &entry->principal->node, nullptr);
    reducer.principals_.Give(entry->principal);
    reducer.index_entries_.Give(entry);
  }
}

namespace {

// Where a digest's probe starts: its first eight bytes (a SHA-256 digest's
// bytes are spread evenly) masked to the table.
size_t SlotOf(const uint8_t* digest, size_t mask) {
  uint64_t word;
  std::memcpy(&word, digest, sizeof word);
  return static_cast<size_t>(word) & mask;
}

}  // namespace

Principal* Reducer::PrincipalTable::Find(const uint8_t* digest) const {
  if (slots.empty()) return nullptr;
  const size_t mask = slots.size() - 1;
  for (size_t i = SlotOf(digest, mask);; i = (i + 1) & mask) {
    const IndexEntry* entry = slots[i];
    if (entry == nullptr) return nullptr;
    if (std::memcmp(entry->digest, digest, kPrincipalDigestSize) == 0) return entry->principal;
  }
}

bool Reducer::PrincipalTable::Insert(IndexEntry* entry) {
  if (2 * (count + 1) > slots.size()) {
    std::vector<IndexEntry*> grown;
    try {
      grown.assign(slots.empty() ? 64 : 2 * slots.size(), nullptr);
    } catch (const std::bad_alloc&) {
      return false;
    }
    const size_t mask = grown.size() - 1;
    for (IndexEntry* e = all; e != nullptr; e = e->next) {
      size_t i = SlotOf(e->digest, mask);
      while (grown[i] != nullptr) i = (i + 1) & mask;
      grown[i] = e;
    }
    slots.swap(grown);
  }
  const size_t mask = slots.size() - 1;
  size_t i = SlotOf(entry->digest, mask);
  while (slots[i] != nullptr) i = (i + 1) & mask;
  slots[i] = entry;
  entry->next = all;
  all = entry;
  ++count;
  return true;
}

Reducer::Report::~Report() {
  if (reducer.options_.stats != nullptr) {
    *reducer.options_.stats = reducer.stats_;
    reducer.options_.stats->live_tuples = static_cast<uint32_t>(reducer.live_tuples_);
  }
  reducer.engine_.SetWorkLimit(UINT64_MAX);
}

// ---- records ---------------------------------------------------------------

FiveTuple* Reducer::NewTuple() {
  FiveTuple* tuple = tuples_.Take(engine_.arena());
  if (tuple == nullptr) return nullptr;
  tuple->serial = ++next_serial_;
  tuple->source = -1;
  ++live_tuples_;
  return tuple;
}

FiveTuple* Reducer::CopyTuple(const FiveTuple* source) {
  FiveTuple* copy = NewTuple();
  if (copy == nullptr) return nullptr;
  copy->on_key_path = source->on_key_path;
  copy->propagate = source->propagate;
  copy->origin = source->origin;
  copy->threshold_index = source->threshold_index;
  copy->source = source->source;
  copy->issuer = source->issuer;
  copy->subject = source->subject;
  copy->threshold = source->threshold;
  AssignAtom(engine_, &copy->issuer_name, source->issuer_name);
  AssignAtom(engine_, &copy->subject_name, source->subject_name);
  AssignNode(engine_, &copy->subject_names_rest, source->subject_names_rest);
  AssignNode(engine_, &copy->subject_node, source->subject_node);
  AssignNode(engine_, &copy->tag, source->tag);
  AssignAtom(engine_, &copy->not_before, source->not_before);
  AssignAtom(engine_, &copy->not_after, source->not_after);
  return copy;
}

void Reducer::ReleaseTuple(FiveTuple* tuple) {
  if (tuple == nullptr || --tuple->ref_count >= 1) return;
  AssignAtom(engine_, &tuple->issuer_name, nullptr);
  AssignAtom(engine_, &tuple->subject_name, nullptr);
  AssignNode(engine_, &tuple->subject_names_rest, nullptr);
  AssignNode(engine_, &tuple->subject_node, nullptr);
  AssignNode(engine_, &tuple->tag, nullptr);
  AssignAtom(engine_, &tuple->not_before, nullptr);
  AssignAtom(engine_, &tuple->not_after, nullptr);
  if (tracing()) trace_parents_.erase(tuple->serial);
  --live_tuples_;
  tuples_.Give(tuple);
}

Status Reducer::PushTuple(TupleEntry** list, FiveTuple* tuple) {
  TupleEntry* entry = entries_.Take(engine_.arena());
  if (entry == nullptr) return SPKI_ERR_NO_MEM;
  RetainTuple(tuple);
  entry->tuple = tuple;
  entry->next = *list;
  *list = entry;
  return SPKI_OK;
}

void Reducer::ClearTupleList(TupleEntry** list) {
  while (TupleEntry* entry = *list) {
    *list = entry->next;
    ReleaseTuple(entry->tuple);
    entries_.Give(entry);
  }
}

// ---- limits ----------------------------------------------------------------

Status Reducer::Step(uint64_t count) {
  const bool within = engine_.ChargeWork(count);
  stats_.work_steps = engine_.work_used();
  if (!within) return LimitReached("work steps");
  return SPKI_OK;
}

Status Reducer::LimitReached(const char* which) {
  if (options_.trace != nullptr) {
    options_.trace->limit_reached = true;
    try {
      options_.trace->limit = which;
    } catch (const std::bad_alloc&) {
      return SPKI_ERR_NO_MEM;
    }
  }
  return kReductionLimitStatus;
}

// ---- the reduction ---------------------------------------------------------

Status Reducer::Run(EngineNode* acl, EngineNode* sequence, EngineNode* key, EngineNode* tag,
                    EngineNode* validity, EngineNode** result) {
  if (result == nullptr) return SPKI_ERR_NULL_PARAM;
  *result = nullptr;
  if (acl == nullptr) return SPKI_ERR_NO_ACL;
  acl = Unwrap(acl);
  sequence = Unwrap(sequence);
  key = Unwrap(key);
  AssignNode(engine_, tag_.out(), Unwrap(tag));
  AssignNode(engine_, validity_.out(), Unwrap(validity));

  // Every key met anywhere is registered first, so that a hash principal met
  // later is matched with its key.
  if (options_.keys != nullptr) {
    for (EngineNode* found : *options_.keys) {
      Status status = RegisterKey(found);
      if (status != SPKI_OK) return status;
    }
  } else {
    for (const EngineNode* tree : {key, acl, sequence}) {
      Status status = RegisterKeys(tree, 1);
      if (status != SPKI_OK) return status;
    }
  }
  if (key != nullptr) {
    Status status = PrincipalOf(key, &key_);
    if (status != SPKI_OK) return status;
    if (tracing()) options_.trace->key = DigestHex(key_->digest);
  }
  Status status = Walk(acl, 1, /*certificates_only=*/false);
  if (status == SPKI_OK && sequence != nullptr) status = Walk(sequence, 1, true);
  if (status != SPKI_OK) return status;
  return BuildResult(result);
}

// The certificate sequence is walked for certificates only: an ACL entry (or
// a whole ACL) smuggled into it would be a root grant that nobody signed.
Status Reducer::Insert(FiveTuple* tuple, bool derived) {
  if (derived) {
    if (stats_.derived_tuples >= options_.limits.derived_tuples) {
      return LimitReached("derived tuples");
    }
    ++stats_.derived_tuples;
  }
  tuple->derived = derived ? 1 : 0;
  return PushTuple(&pending_.head, tuple);
}

Status Reducer::Settle() {
  while (TupleEntry* entry = pending_.head) {
    pending_.head = entry->next;
    FiveTuple* tuple = entry->tuple;  // the entry's count is now ours
    entries_.Give(entry);
    Status status = Process(tuple);
    ReleaseTuple(tuple);
    if (status != SPKI_OK) return status;
  }
  return SPKI_OK;
}

Status Reducer::Process(FiveTuple* tuple) {
  if (tuple->subject == nullptr) return ExpandThreshold(tuple);
  if (tuple->subject_name != nullptr) return AddNameReference(tuple);
  if (!tuple->derived && (key_ == nullptr || tuple->subject == key_)) tuple->on_key_path = 1;
  if (tuple->issuer_name != nullptr) return AddNameDefinition(tuple);
  return AddAuthorization(tuple);
}

Status Reducer::AddAuthorization(FiveTuple* tuple) {
  // A tuple reaching a member of a k-of-n block is only an arrival: it is on
  // no issued list and never chained towards its issuer; only the completed
  // combination is.
  const bool arrival = tuple->threshold_index >= 1;
  if (arrival) {
    Status status = ThresholdArrival(tuple);
    if (status != SPKI_OK) return status;
  } else {
    TupleEntry** issued = &root_.head;
    uint32_t* issued_count = &root_count_;
    if (tuple->issuer != nullptr) {
      issued = &tuple->issuer->issued;
      issued_count = &tuple->issuer->issued_count;
    }
    // A credential's tuple without both dates is never a duplicate: no need
    // to look. An equal tuple has the same issuer and the same subject, so it
    // is on both the issued list and the subject's list (which holds no other
    // tuples of the issued lists than arrivals, and those never compare equal
    // to a tuple that is not one): the shorter list is searched.
    if ((tuple->not_before != nullptr && tuple->not_after != nullptr) || tuple->derived) {
      TupleEntry* candidates =
          *issued_count <= tuple->subject->subject_count ? *issued : tuple->subject->subjects;
      for (TupleEntry* entry = candidates; entry != nullptr; entry = entry->next) {
        Status status = Step();
        bool same = false;
        if (status == SPKI_OK) status = SameTuple(entry->tuple, tuple, &same);
        if (status != SPKI_OK) return status;
        if (same) return SPKI_OK;
      }
    }
    Status status = PushTuple(issued, tuple);
    if (status != SPKI_OK) return status;
    ++*issued_count;
  }
  Status status = PushTuple(&tuple->subject->subjects, tuple);
  if (status != SPKI_OK) return status;
  ++tuple->subject->subject_count;
  status = TraceAccepted(tuple);
  if (status != SPKI_OK) return status;

  if (!arrival && tuple->on_key_path && tuple->issuer != nullptr) {
    for (TupleEntry* entry = tuple->issuer->subjects; entry != nullptr; entry = entry->next) {
      status = Step();
      if (status == SPKI_OK && entry->tuple->propagate) status = Combine(entry->tuple, tuple);
      if (status != SPKI_OK) return status;
    }
  }
  if (tuple->propagate) {
    for (TupleEntry* entry = tuple->subject->issued; entry != nullptr; entry = entry->next) {
      status = Step();
      if (status == SPKI_OK && entry->tuple->on_key_path) status = Combine(tuple, entry->tuple);
      if (status != SPKI_OK) return status;
    }
  }
  return SPKI_OK;
}

// The reduction rule: |first| grants |second|'s issuer with propagate, so
// |first|'s issuer grants |second|'s subject what both grant, for the period
// both cover.
Status Reducer::Combine(FiveTuple* first, FiveTuple* second) {
  NodeRef tag(engine_);
  bool empty = false;
  Status status = IntersectTags(first->tag, second->tag, tag.out(), &empty);
  if (status != SPKI_OK || empty) return status;
  EngineAtom* not_before = LaterOf(first->not_before, second->not_before);
  EngineAtom* not_after = EarlierOf(first->not_after, second->not_after);
  if (not_before != nullptr && not_after != nullptr &&
      CompareAtoms(not_before, not_after) == kOrderAfter) {
    return SPKI_OK;
  }
  TupleRef copy(*this, CopyTuple(second));
  if (!copy) return SPKI_ERR_NO_MEM;
  copy->issuer = first->issuer;
  copy->threshold_index = first->threshold_index;
  copy->threshold = first->threshold;
  copy->origin = kFromChaining;
  copy->source = -1;
  AssignNode(engine_, &copy->tag, tag.get());
  AssignAtom(engine_, &copy->not_before, not_before);
  AssignAtom(engine_, &copy->not_after, not_after);
  status = TraceCreated(copy.get(), {first, second});
  if (status != SPKI_OK) return status;
  return Insert(copy.get(), true);
}

// Stores in |*out| (with its own count) the intersection of two tags; a
// missing tag stands for everything. |*empty| is set when they share nothing.
Status Reducer::IntersectTags(EngineNode* a, EngineNode* b, EngineNode** out, bool* empty) {
  *empty = false;
  if (a == nullptr || b == nullptr) {
    AssignNode(engine_, out, a != nullptr ? a : b);
    return SPKI_OK;
  }
  Status status = IntersectTagLists(engine_, a, b, out);
  // The tag algebra charges its comparisons to the same meter.
  stats_.work_steps = engine_.work_used();
  if (status != SPKI_OK && engine_.work_exhausted()) return LimitReached("work steps");
  if (status == SPKI_OK && *out == nullptr) *empty = true;
  return status;
}

// Duplicate test. A credential's tuple lacking either date is equal to none:
// kept, so two identical undated certificates give two results. A derived
// tuple (|b|) also matches when each date is absent on both: without that a
// self-delegation or a delegation cycle without dates derives the same tuple
// for ever, and no reduction that ends gives another result.
Status Reducer::SameTuple(const FiveTuple* a, const FiveTuple* b, bool* same) {
  *same = false;
  if (a->on_key_path != b->on_key_path || a->propagate != b->propagate ||
      a->threshold_index != b->threshold_index || a->issuer != b->issuer ||
      a->subject != b->subject || a->threshold != b->threshold) {
    return SPKI_OK;
  }
  const bool undated_match = b->derived != 0;
  auto same_date = [undated_match](const EngineAtom* x, const EngineAtom* y) {
    if (x == nullptr || y == nullptr) return undated_match && x == nullptr && y == nullptr;
    return CompareAtoms(x, y) == kOrderEqual;
  };
  if (!same_date(a->not_before, b->not_before) || !same_date(a->not_after, b->not_after)) {
    return SPKI_OK;
  }
  if (!SameBytes(a->issuer_name, b->issuer_name) || !SameBytes(a->subject_name, b->subject_name)) {
    return SPKI_OK;
  }
  bool equal = false;
  Status status = SameChain(a->subject_names_rest, b->subject_names_rest, 1, &equal);
  if (status != SPKI_OK || !equal) return status;
  status = SameChain(a->subject_node, b->subject_node, 1, &equal);
  if (status != SPKI_OK || !equal) return status;
  status = SameChain(a->tag, b->tag, 1, &equal);
  if (status != SPKI_OK || !equal) return status;
  *same = true;
  return SPKI_OK;
}

// Structural equality: the same node kinds in the same order, equal keyword
// ids and atoms, the same length. Every node compared is a work step.
Status Reducer::SameChain(const EngineNode* a, const EngineNode* b, int depth, bool* same) {
  *same = false;
  if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
  for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
    if (a == b) {
      *same = true;  // a shared rest of a chain
      return SPKI_OK;
    }
    Status status = Step();
    if (status != SPKI_OK) return status;
    if (a->kind != b->kind) return SPKI_OK;
    switch (a->kind) {
      case kNodeKeywordHead:
        if (KeywordOf(a) != KeywordOf(b)) return SPKI_OK;
        break;
      case kNodeAtomHead:
      case kNodeAtom:
        if (!SameBytes(AtomOf(a), AtomOf(b))) return SPKI_OK;
        break;
      case kNodeSublist: {
        bool equal = false;
        status = SameChain(SublistOf(a), SublistOf(b), depth + 1, &equal);
        if (status != SPKI_OK || !equal) return status;
        break;
      }
      default:
        return SPKI_OK;
    }
  }
  *same = a == b;
  return SPKI_OK;
}

// ---- the result ------------------------------------------------------------

Status Reducer::BuildResult(EngineNode** out) {
  NodeRef head(engine_, NewKeywordHead(engine_, kKeywordAcl));
  if (!head) return SPKI_ERR_NO_MEM;
  EngineNode* tail = head.get();
  // The root list holds the newest tuple first.
  for (TupleEntry* entry = root_.head; entry != nullptr; entry = entry->next) {
    const FiveTuple* tuple = entry->tuple;
    if (!tuple->on_key_path) continue;
    EngineNode* element = nullptr;
    Status status = MakeEntry(tuple, &element);
    if (status != SPKI_OK) return status;
    tail->next = element;  // the chain owns the element's count
    tail = element;
    status = TraceResult(tuple);
    if (status != SPKI_OK) return status;
  }
  *out = head.release();
  return SPKI_OK;
}

Status Reducer::MakeEntry(const FiveTuple* tuple, EngineNode** out) {
  NodeRef entry(engine_);
  Status status = ParseTemplate(engine_, entry.out(), kEntryTemplate);
  if (status != SPKI_OK) return status;
  // entry -> (subject (public-key)) -> (propagate) -> (tag) -> (valid (not-before nb) (not-after
  // na))
  EngineNode* subject = entry->next;
  EngineNode* propagate = subject->next;
  EngineNode* tag = propagate->next;
  EngineNode* valid = tag->next;
  EngineNode* not_before = SublistOf(valid)->next;
  EngineNode* not_after = not_before->next;

  AssignNode(engine_, SublistSlot(SublistOf(subject)->next), tuple->subject->node);
  // Without a tag of its own the entry keeps the bare (tag): everything.
  if (tuple->tag != nullptr) AssignNode(engine_, SublistSlot(tag), tuple->tag);
  if (tuple->not_before != nullptr) {
    AssignAtom(engine_, AtomSlot(SublistOf(not_before)->next), tuple->not_before);
  }
  if (tuple->not_after != nullptr) {
    AssignAtom(engine_, AtomSlot(SublistOf(not_after)->next), tuple->not_after);
  }
  if (tuple->not_before == nullptr && tuple->not_after == nullptr) {
    AssignNode(engine_, &tag->next, nullptr);
  } else if (tuple->not_before == nullptr) {
    AssignNode(engine_, &SublistOf(valid)->next, not_after);
  } else if (tuple->not_after == nullptr) {
    AssignNode(engine_, &not_before->next, nullptr);
  }
  if (!tuple->propagate) AssignNode(engine_, &subject->next, tag);

  *out = NewSublistElement(engine_, entry.get());
  return *out != nullptr ? SPKI_OK : SPKI_ERR_NO_MEM;
}

}  // namespace reduce

Status Reduce(EngineContext& engine, uint32_t crypto_context, EngineNode* acl, EngineNode* sequence,
              EngineNode* key, EngineNode* tag, EngineNode* validity, EngineNode** result,
              const ReduceOptions& options) {
  if (result == nullptr) return SPKI_ERR_NULL_PARAM;
  *result = nullptr;
  if (!engine.initialised()) return SPKI_ERR_NULL_PARAM;
  Status status;
  EngineNode* reduced = nullptr;
  {
    reduce::Reducer reducer(engine, crypto_context, options);
    status = reducer.Run(acl, sequence, key, tag, validity, &reduced);
  }
  if (status != SPKI_OK) {
    ReleaseNode(engine, reduced);
    return status;
  }
  *result = reduced;
  return SPKI_OK;
}

}  // namespace velk2::engine
