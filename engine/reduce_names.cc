// Name certificates: definitions "P's N is S" (bucket array 2) and
// references "S is P's N M..." (bucket array 3), each indexed by the digest
// of P's digest and the name, and resolved whichever of the two comes first.
#include <cstring>

#include "engine/dates.h"
#include "engine/reduce_internal.h"

namespace velk2::engine::reduce {
namespace {

bool SameDate(const EngineAtom* a, const EngineAtom* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return CompareAtoms(a, b) == kOrderEqual;
}

}  // namespace

// Files |tuple| under |digest| at the head of |bucket| (the index keeps a
// reference) and records it as accepted.
Status Reducer::IndexName(IndexEntry** bucket, const uint8_t digest[kPrincipalDigestSize],
                          FiveTuple* tuple) {
  IndexEntry* added = index_entries_.Take(engine_.arena());
  if (added == nullptr) return SPKI_ERR_NO_MEM;
  std::memcpy(added->digest, digest, kPrincipalDigestSize);
  RetainTuple(tuple);
  added->tuple = tuple;
  added->next = *bucket;
  *bucket = added;
  return TraceAccepted(tuple);
}

Status Reducer::AddNameDefinition(FiveTuple* tuple) {
  uint8_t digest[kPrincipalDigestSize];
  Status status = NameDigest(tuple->issuer, tuple->issuer_name, digest);
  if (status != SPKI_OK) return status;
  IndexEntry** bucket = &definitions_.buckets[digest[0]];
  // A definition of the same name for the same subject over the same period
  // adds nothing: dropped. Definitions only narrow periods, so name cycles
  // end here.
  for (IndexEntry* entry = *bucket; entry != nullptr; entry = entry->next) {
    status = Step();
    if (status != SPKI_OK) return status;
    const FiveTuple* known = entry->tuple;
    if (std::memcmp(entry->digest, digest, kPrincipalDigestSize) == 0 &&
        known->subject == tuple->subject && known->on_key_path == tuple->on_key_path &&
        SameDate(known->not_before, tuple->not_before) &&
        SameDate(known->not_after, tuple->not_after)) {
      return SPKI_OK;
    }
  }
  status = IndexName(bucket, digest, tuple);
  if (status != SPKI_OK) return status;

  for (IndexEntry* entry = references_.buckets[digest[0]]; entry != nullptr; entry = entry->next) {
    status = Step();
    if (status == SPKI_OK && std::memcmp(entry->digest, digest, kPrincipalDigestSize) == 0) {
      status = Resolve(entry->tuple, tuple);
    }
    if (status != SPKI_OK) return status;
  }
  return SPKI_OK;
}

Status Reducer::AddNameReference(FiveTuple* tuple) {
  uint8_t digest[kPrincipalDigestSize];
  Status status = NameDigest(tuple->subject, tuple->subject_name, digest);
  if (status != SPKI_OK) return status;
  IndexEntry** bucket = &references_.buckets[digest[0]];
  for (IndexEntry* entry = *bucket; entry != nullptr; entry = entry->next) {
    status = Step();
    bool same = false;
    if (status == SPKI_OK && std::memcmp(entry->digest, digest, kPrincipalDigestSize) == 0) {
      status = SameTuple(entry->tuple, tuple, &same);
    }
    if (status != SPKI_OK) return status;
    if (same) return SPKI_OK;
  }
  status = IndexName(bucket, digest, tuple);
  if (status != SPKI_OK) return status;

  for (IndexEntry* entry = definitions_.buckets[digest[0]]; entry != nullptr; entry = entry->next) {
    status = Step();
    if (status == SPKI_OK && std::memcmp(entry->digest, digest, kPrincipalDigestSize) == 0) {
      status = Resolve(tuple, entry->tuple);
    }
    if (status != SPKI_OK) return status;
  }
  return SPKI_OK;
}

// The reference's first pending name is replaced by what the definition
// names; the next pending name, if any, is resolved in turn.
Status Reducer::Resolve(FiveTuple* reference, FiveTuple* definition) {
  EngineAtom* not_before = LaterOf(reference->not_before, definition->not_before);
  EngineAtom* not_after = EarlierOf(reference->not_after, definition->not_after);
  if (not_before != nullptr && not_after != nullptr &&
      CompareAtoms(not_before, not_after) == kOrderAfter) {
    return SPKI_OK;
  }
  const EngineNode* next = reference->subject_names_rest;
  if (next != nullptr && next->kind != kNodeAtom) return SPKI_ERR_NAME_SYNTAX;

  FiveTuple* copy = CopyTuple(reference);
  if (copy == nullptr) return SPKI_ERR_NO_MEM;
  copy->subject = definition->subject;
  copy->on_key_path = definition->on_key_path;
  copy->origin = kFromName;
  copy->source = -1;
  AssignAtom(engine_, &copy->not_before, not_before);
  AssignAtom(engine_, &copy->not_after, not_after);
  AssignAtom(engine_, &copy->subject_name, next != nullptr ? AtomOf(next) : nullptr);
  AssignNode(engine_, &copy->subject_names_rest, next != nullptr ? next->next : nullptr);
  Status status = TraceCreated(copy, {reference, definition});
  if (status == SPKI_OK) status = Insert(copy, true);
  ReleaseTuple(copy);
  return status;
}

}  // namespace velk2::engine::reduce
