// The records and the working state of one five-tuple reduction. Private to
// the reduction's own sources.
#ifndef VELK2_ENGINE_REDUCE_INTERNAL_H_
#define VELK2_ENGINE_REDUCE_INTERNAL_H_

#include <cstdint>
#include <initializer_list>
#include <map>
#include <vector>

#include "engine/dates.h"
#include "engine/reduce.h"
#include "engine/status.h"
#include "engine/store.h"

namespace velk2::engine::reduce {

struct FiveTuple;
struct Principal;
struct ThresholdBlock;

// Where a tuple came from, for the trace.
enum TupleOrigin : uint8_t {
  kFromAclEntry = 0,
  kFromCertificate = 1,
  kFromChaining = 2,
  kFromName = 3,
  kFromThreshold = 4,
};

// One entry of a tuple list (issued, subject, root, threshold slot, pending
// work). The entry owns one count of its tuple.
struct TupleEntry {
  TupleEntry* free_link;
  int32_t ref_count;
  TupleEntry* next;
  FiveTuple* tuple;
};

// One distinct principal of the reduction, interned by digest: two
// principals are the same exactly when they are the same record.
struct Principal {
  Principal* free_link;
  int32_t ref_count;
  uint8_t digest[kPrincipalDigestSize];
  // The public-key tree when the principal is known as a key, else the hash
  // list it was first met as; printed as the subject of result entries.
  EngineNode* node;
  uint8_t is_key;
  // Digests of the key's text in the other hash algorithms a hash principal
  // may name, computed when first needed.
  uint8_t has_sha1;
  uint8_t has_rmd160;
  uint8_t sha1[20];
  uint8_t rmd160[20];
  TupleEntry* issued;    // the tuples this principal issued
  TupleEntry* subjects;  // the tuples whose subject is this principal
  uint32_t issued_count;
  uint32_t subject_count;
  Principal* next_key;  // the chain of principals known as keys
};

struct FiveTuple {
  FiveTuple* free_link;
  int32_t ref_count;
  uint8_t on_key_path;
  uint8_t propagate;
  uint8_t derived;                 // joined through chaining, resolution or combination
  uint8_t origin;                  // TupleOrigin
  int16_t threshold_index;         // 0 certificate, -1 ACL entry, 1..n member of a k-of-n
  int32_t source;                  // the credential's position, -1 for a made tuple
  Principal* issuer;               // null for the ACL's tuples
  EngineAtom* issuer_name;         // the local name a name certificate defines
  Principal* subject;              // null for a k-of-n subject not yet expanded
  EngineAtom* subject_name;        // the first name still to resolve
  EngineNode* subject_names_rest;  // the names after it
  ThresholdBlock* threshold;       // the k-of-n block the subject belongs to
  // The credential's raw subject list (a k-of-n list for a threshold
  // subject not yet expanded), kept for equality.
  EngineNode* subject_node;
  EngineNode* tag;  // the tag list's head; null: no tag (everything)
  EngineAtom* not_before;
  EngineAtom* not_after;
  uint32_t serial;   // creation order
  int32_t trace_id;  // 0 until the tuple joins the indexes of a traced reduction
};

// A k-of-n subject: n slots of arrivals (tuples reaching member i that end at
// the key), and where the completed combination goes.
struct ThresholdBlock {
  ThresholdBlock* free_link;
  int32_t ref_count;
  int16_t k;
  int32_t n;
  TupleEntry** slots;            // n + 1 list heads; slot 0 unused
  int16_t parent_index;          // the index the combination carries
  ThresholdBlock* parent_block;  // the outer block of a nested k-of-n, else null
  Principal* issuer;             // the issuer of the credential holding the block
  EngineNode* node;              // the k-of-n list
  ThresholdBlock* next_block;    // every block of the reduction
};

// An index entry: a principal (bucket array 1) or a tuple (arrays 2 and 3)
// under a digest. The entry owns one count of its tuple.
struct IndexEntry {
  IndexEntry* free_link;
  int32_t ref_count;
  IndexEntry* next;
  uint8_t digest[kPrincipalDigestSize];
  Principal* principal;
  FiveTuple* tuple;
};

inline constexpr int kBucketCount = 256;

// The partial result of one path of the threshold search.
struct Combination;

inline EngineNode* Unwrap(EngineNode* node) {
  return node != nullptr && node->kind == kNodeSublist ? SublistOf(node) : node;
}

// The head of the list an element holds when that head is a keyword.
inline EngineNode* KeywordListOf(const EngineNode* element) {
  EngineNode* head = element != nullptr ? SublistOf(element) : nullptr;
  return head != nullptr && head->kind == kNodeKeywordHead ? head : nullptr;
}

// Whether |head| is the head of a list whose keyword is |keyword| (above 0).
inline bool IsKeywordList(const EngineNode* head, int32_t keyword) {
  return head != nullptr && KeywordOf(head) == keyword;
}

inline bool SameBytes(const EngineAtom* a, const EngineAtom* b) {
  if (a == b) return true;
  if (a == nullptr || b == nullptr) return false;
  return a->length == b->length && CompareAtoms(a, b) == kOrderEqual;
}

class Reducer {
 public:
  Reducer(EngineContext& engine, uint32_t crypto_context, const ReduceOptions& options);
  ~Reducer();
  Reducer(const Reducer&) = delete;
  Reducer& operator=(const Reducer&) = delete;

  Status Run(EngineNode* acl, EngineNode* sequence, EngineNode* key, EngineNode* tag,
             EngineNode* validity, EngineNode** result);

  // Counts of tuples, for the scoped holders of the reduction's sources.
  void RetainTuple(FiveTuple* tuple) { ++tuple->ref_count; }
  void ReleaseTuple(FiveTuple* tuple);

 private:
  // ---- principals (reduce_principals.cc)
  Status RegisterKeys(const EngineNode* list, int depth);
  Status RegisterKey(EngineNode* key);
  Status InternKey(EngineNode* key, Principal** out);
  Status InternHash(EngineNode* hash, Principal** out);
  // A `public-key` or `hash` list head, else SPKI_ERR_PRINCIPAL_EXPECTED.
  Status PrincipalOf(EngineNode* head, Principal** out);
  Status NewPrincipal(const uint8_t digest[kPrincipalDigestSize], EngineNode* node,
                      Principal** out);
  Status NameDigest(const Principal* principal, const EngineAtom* name,
                    uint8_t digest[kPrincipalDigestSize]);

  // ---- credentials and chaining (reduce.cc)
  Status Walk(const EngineNode* list, int depth, bool certificates_only);
  Status AddCredential(EngineNode* credential);
  Status ReadIssuer(const EngineNode* issuer, FiveTuple* tuple);
  Status ReadPeriod(const EngineNode* valid, FiveTuple* tuple);
  Status ReadSubject(const EngineNode* subject, FiveTuple* tuple, bool* relative);
  Status ReadNameSubject(const EngineNode* name, FiveTuple* tuple, bool* relative);
  Status Insert(FiveTuple* tuple, bool derived);
  Status Settle();
  Status Process(FiveTuple* tuple);
  Status AddAuthorization(FiveTuple* tuple);
  Status Combine(FiveTuple* first, FiveTuple* second);
  Status SameTuple(const FiveTuple* a, const FiveTuple* b, bool* same);
  Status SameChain(const EngineNode* a, const EngineNode* b, int depth, bool* same);
  Status IntersectTags(EngineNode* a, EngineNode* b, EngineNode** out, bool* empty);
  Status BuildResult(EngineNode** out);
  Status MakeEntry(const FiveTuple* tuple, EngineNode** out);

  // ---- names (reduce_names.cc)
  Status AddNameDefinition(FiveTuple* tuple);
  Status AddNameReference(FiveTuple* tuple);
  Status Resolve(FiveTuple* reference, FiveTuple* definition);
  Status IndexName(IndexEntry** bucket, const uint8_t digest[kPrincipalDigestSize],
                   FiveTuple* tuple);

  // ---- thresholds (reduce_threshold.cc)
  Status ExpandThreshold(FiveTuple* tuple);
  Status ThresholdArrival(FiveTuple* tuple);
  Status Search(ThresholdBlock* block, int arrival_slot, Principal* subject, Combination* partial,
                int next_slot, int chosen);
  Status EmitCombination(ThresholdBlock* block, Principal* subject, const Combination& done);

  // ---- records
  FiveTuple* NewTuple();
  FiveTuple* CopyTuple(const FiveTuple* tuple);
  Status PushTuple(TupleEntry** list, FiveTuple* tuple);
  void ClearTupleList(TupleEntry** list);

  // ---- limits
  Status Step(uint64_t count = 1);
  Status LimitReached(const char* which);

  // ---- trace (all no-ops without a trace)
  bool tracing() const { return options_.trace != nullptr && options_.trace->record_tuples; }
  Status TraceCreated(const FiveTuple* tuple, std::initializer_list<const FiveTuple*> parents);
  Status TraceCreatedFrom(const FiveTuple* tuple, const FiveTuple* const* parents, int count);
  Status TraceAccepted(FiveTuple* tuple);
  Status TraceResult(const FiveTuple* tuple);
  Status TraceInput(const FiveTuple* tuple, bool is_entry);

  // What the reducer holds, each part letting go of its records when the
  // reducer ends. Members end in the reverse of their order here: the lists
  // of tuples first, then the threshold blocks and the principals they
  // point to, then the report; the pools, the counters and the trace's
  // bookkeeping outlive them all.
  // The base of each part: it knows its reducer and is never copied.
  struct Part {
    explicit Part(Reducer& owner) : reducer(owner) {}
    Part(const Part&) = delete;
    Part& operator=(const Part&) = delete;
    Reducer& reducer;
  };
  struct TupleList : Part {  // the root list, the pending work
    using Part::Part;
    ~TupleList() { reducer.ClearTupleList(&head); }
    TupleEntry* head = nullptr;
  };
  struct NameIndex : Part {  // name definitions or references, by digest; owns tuple counts
    using Part::Part;
    ~NameIndex();
    IndexEntry* buckets[kBucketCount] = {};
  };
  struct BlockList : Part {  // every threshold block, with its slots of arrivals
    using Part::Part;
    ~BlockList();
    ThresholdBlock* head = nullptr;
  };
  // Every principal by its whole digest, with the tuples it issued and
  // received: an open-addressed table that grows with the principals, so a
  // lookup costs the same with ten principals or ten thousand.
  struct PrincipalTable : Part {
    using Part::Part;
    ~PrincipalTable();
    Principal* Find(const uint8_t* digest) const;
    // Adds |entry| (its digest set, not yet present); false without memory.
    bool Insert(IndexEntry* entry);

    std::vector<IndexEntry*> slots;  // a power of two long, at most half full
    size_t count = 0;
    IndexEntry* all = nullptr;  // every entry, newest first, through next
    Principal* keys = nullptr;  // the chain of principals known as keys
  };
  // The principal of every key list registered before the walk, by the
  // list's address: the walk meets the same lists again, and finding them
  // here spares digesting every key twice. The lists belong to the trees
  // being reduced, which outlive the reduction, so no other list can take
  // the address of one while the reducer runs. Only a shortcut: a list not
  // found here is interned again, to the same principal.
  struct RegisteredKeys {
    struct Key {
      const EngineNode* list;
      Principal* principal;
    };
    // Adds a registered list; without memory it is simply not kept.
    void Add(const EngineNode* list, Principal* principal);
    Principal* Find(const EngineNode* list);

    std::vector<Key> keys;  // in the order they were registered
    // The walk meets the keys mostly in that order (a certificate's signer,
    // which it does not read, comes in between): it looks a few places from
    // where it last found one before it turns to the table.
    size_t next = 0;
    // keys' positions plus one by address (0: empty), made when first needed;
    // a power of two long, at most half full.
    std::vector<uint32_t> table;
  };
  struct Report : Part {  // the statistics and the engine's work limit, once all is released
    using Part::Part;
    ~Report();
  };

  EngineContext& engine_;
  uint32_t crypto_;
  const ReduceOptions& options_;
  ReductionStats stats_;
  uint32_t next_serial_ = 0;
  int32_t entries_read_ = 0;       // the positions of the credentials read
  int32_t certificates_read_ = 0;
  int32_t live_tuples_ = 0;
  int next_trace_id_ = 1;
  std::map<uint32_t, std::vector<int>> trace_parents_;
  // The arrivals along the current path of the threshold search (k <= 255),
  // and for each slot j of the block searched, how many slots from j on
  // (the new arrival's own left out) hold an arrival at the same principal.
  const FiveTuple* path_[256] = {};
  int16_t fillable_[258] = {};

  RecordPool<FiveTuple> tuples_;
  RecordPool<TupleEntry> entries_;
  RecordPool<Principal> principals_;
  RecordPool<IndexEntry> index_entries_;
  RecordPool<ThresholdBlock> blocks_;

  Report report_{*this};
  PrincipalTable principal_index_{*this};
  BlockList blocks_list_{*this};
  NameIndex definitions_{*this};
  NameIndex references_{*this};
  TupleList root_{*this};
  uint32_t root_count_ = 0;
  TupleList pending_{*this};  // derived tuples waiting to join, newest first

  RegisteredKeys registered_;
  Principal* key_ = nullptr;
  NodeRef tag_{engine_};
  NodeRef validity_{engine_};
  // The text of the last validity list read as a credential's first, with
  // the dates and status it gave (see ReadPeriod).
  struct PeriodSeen {
    const uint8_t* source = nullptr;
    uint32_t length = 0;
    Status status = SPKI_OK;
  } period_seen_;
  AtomRef seen_not_before_{engine_};
  AtomRef seen_not_after_{engine_};
};

inline void DropRecord(Reducer& reducer, FiveTuple* tuple) {
  reducer.ReleaseTuple(tuple);
}

// A scoped count of a tuple.
using TupleRef = PoolRef<FiveTuple, Reducer>;

}  // namespace velk2::engine::reduce

#endif  // VELK2_ENGINE_REDUCE_INTERNAL_H_
