// Reading credentials into tuples: the ACL's entries and the sequence's
// certificates, their issuers and subjects (keys, hashes, names, k-of-n).
#include "engine/reduce.h"

#include <cstring>

#include "engine/dates.h"
#include "engine/keywords.h"
#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/readable.h"
#include "engine/reduce_internal.h"
#include "engine/tags.h"

namespace velk2::engine {
namespace reduce {

Status Reducer::Walk(const EngineNode* list, int depth, bool certificates_only) {
  if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
  for (const EngineNode* node = list->next; node != nullptr; node = node->next) {
    EngineNode* head = KeywordListOf(node);
    if (head == nullptr) continue;
    Status status = SPKI_OK;
    switch (KeywordOf(head)) {
      case kKeywordEntry:
        if (!certificates_only) status = AddCredential(head);
        break;
      case kKeywordCert:
        status = AddCredential(head);
        break;
      case kKeywordAcl:
        if (!certificates_only) status = Walk(head, depth + 1, false);
        break;
      case kKeywordSequence:
        status = Walk(head, depth + 1, certificates_only);
        break;
      default:
        break;
    }
    if (status != SPKI_OK) return status;
  }
  return SPKI_OK;
}

Status Reducer::AddCredential(EngineNode* credential) {
  const bool is_entry = KeywordOf(credential) == kKeywordEntry;
  TupleRef tuple(*this, NewTuple());
  if (!tuple) return SPKI_ERR_NO_MEM;
  FiveTuple* t = tuple.get();
  t->threshold_index = is_entry ? -1 : 0;
  t->origin = is_entry ? kFromAclEntry : kFromCertificate;
  t->source = is_entry ? entries_read_++ : certificates_read_++;

  bool has_subject = false;
  bool relative = false;
  bool has_propagate = false;
  bool has_tag = false;
  for (const EngineNode* node = credential->next; node != nullptr; node = node->next) {
    EngineNode* field = KeywordListOf(node);
    if (field == nullptr) continue;
    Status status = SPKI_OK;
    switch (KeywordOf(field)) {
      case kKeywordIssuer:
        if (is_entry) return SPKI_ERR_ACL_HAS_ISSUER;
        status = ReadIssuer(field, t);
        break;
      case kKeywordSubject:
        has_subject = true;
        status = ReadSubject(field, t, &relative);
        break;
      case kKeywordPropagate:
        if (has_propagate) return SPKI_ERR_TOO_MANY_PROPAGATE;
        has_propagate = true;
        t->propagate = 1;
        break;
      case kKeywordTag:
        if (has_tag) return SPKI_ERR_TOO_MANY_TAGS;
        has_tag = true;
        AssignNode(engine_, &t->tag, field);
        break;
      case kKeywordValid:
        status = ReadPeriod(field, t);
        // A repeated date simply replaces the earlier one.
        if (status == SPKI_ERR_TOO_MANY_NOT_BEFORE || status == SPKI_ERR_TOO_MANY_NOT_AFTER) {
          status = SPKI_OK;
        }
        break;
      default:
        break;
    }
    if (status != SPKI_OK) return status;
  }
  if (!has_subject) return SPKI_ERR_SUBJECT_SYNTAX;
  if (relative) {
    // A name relative to the credential's own issuer.
    if (t->issuer == nullptr) return SPKI_ERR_SUBJECT_SYNTAX;
    t->subject = t->issuer;
  }
  if (Status status = TraceInput(t, is_entry); status != SPKI_OK) return status;

  // A credential outside the period asked about is no error: it vanishes.
  if (validity_) {
    Status status = IntersectValidity(engine_, &t->not_before, &t->not_after, validity_.get());
    if (status == SPKI_ERR_DATE_INTERSECTION) return SPKI_OK;
    if (status != SPKI_OK) return status;
  }
  // Every credential is pruned by the tag asked about, here, at reading.
  if (t->tag == nullptr) {
    if (t->issuer_name == nullptr) AssignNode(engine_, &t->tag, tag_.get());
  } else if (tag_) {
    NodeRef narrowed(engine_);
    bool empty = false;
    Status status = IntersectTags(t->tag, tag_.get(), narrowed.out(), &empty);
    if (status != SPKI_OK) return status;
    if (empty) return SPKI_OK;
    AssignNode(engine_, &t->tag, narrowed.get());
  }
  if (!is_entry && t->issuer == nullptr) return SPKI_ERR_NEEDS_ISSUER;
  if (t->issuer_name != nullptr && t->tag != nullptr) return SPKI_ERR_NAME_AND_TAG;
  // A name defined by a k-of-n subject would be defined by each member
  // alone, so it is refused.
  if (t->issuer_name != nullptr && t->subject == nullptr) return SPKI_ERR_THRESHOLD;

  Status status = Insert(t, false);
  if (status != SPKI_OK) return status;
  return Settle();
}

// The credential's period from a validity list. A big ACL gives most of its
// entries the same period, and the dates follow from the list's text alone:
// a list whose text is that of the last one read takes its dates again
// instead of walking its nodes. Dates are only ever compared by value, so
// sharing them changes nothing. Only a credential's first validity list is
// read this way: a second one replaces dates already there.
Status Reducer::ReadPeriod(const EngineNode* valid, FiveTuple* tuple) {
  const bool first = tuple->not_before == nullptr && tuple->not_after == nullptr;
  const bool has_text = valid->source != nullptr && valid->source_length != 0;
  if (first && has_text && valid->source_length == period_seen_.length &&
      std::memcmp(valid->source, period_seen_.source, period_seen_.length) == 0) {
    AssignAtom(engine_, &tuple->not_before, seen_not_before_.get());
    AssignAtom(engine_, &tuple->not_after, seen_not_after_.get());
    return period_seen_.status;
  }
  const Status status = ReadValidity(engine_, &tuple->not_before, &tuple->not_after, valid);
  if (first && has_text &&
      (status == SPKI_OK || status == SPKI_ERR_TOO_MANY_NOT_BEFORE ||
       status == SPKI_ERR_TOO_MANY_NOT_AFTER)) {
    period_seen_ = {valid->source, valid->source_length, status};
    AssignAtom(engine_, seen_not_before_.out(), tuple->not_before);
    AssignAtom(engine_, seen_not_after_.out(), tuple->not_after);
  }
  return status;
}

// (issuer P) or (issuer (name P N)).
Status Reducer::ReadIssuer(const EngineNode* issuer, FiveTuple* tuple) {
  tuple->issuer = nullptr;
  AssignAtom(engine_, &tuple->issuer_name, nullptr);
  const EngineNode* element = issuer->next;
  EngineNode* inner = KeywordListOf(element);
  if (inner == nullptr || element->next != nullptr) return SPKI_ERR_ISSUER_SYNTAX;
  if (KeywordOf(inner) == kKeywordPublicKey || KeywordOf(inner) == kKeywordHash) {
    return PrincipalOf(inner, &tuple->issuer);
  }
  if (KeywordOf(inner) != kKeywordName) return SPKI_ERR_ISSUER_SYNTAX;
  EngineNode* principal = KeywordListOf(inner->next);
  const EngineNode* name = principal != nullptr ? inner->next->next : nullptr;
  if (principal == nullptr ||
      (KeywordOf(principal) != kKeywordPublicKey && KeywordOf(principal) != kKeywordHash) ||
      name == nullptr || name->kind != kNodeAtom || name->next != nullptr) {
    return SPKI_ERR_ISSUER_SYNTAX;
  }
  Status status = PrincipalOf(principal, &tuple->issuer);
  if (status != SPKI_OK) return status;
  AssignAtom(engine_, &tuple->issuer_name, AtomOf(name));
  return SPKI_OK;
}

// (subject P), (subject (k-of-n ...)) or (subject (name ...)).
Status Reducer::ReadSubject(const EngineNode* subject, FiveTuple* tuple, bool* relative) {
  tuple->subject = nullptr;
  *relative = false;
  AssignAtom(engine_, &tuple->subject_name, nullptr);
  AssignNode(engine_, &tuple->subject_names_rest, nullptr);
  const EngineNode* element = subject->next;
  if (element == nullptr || element->next != nullptr || element->kind != kNodeSublist) {
    return SPKI_ERR_SUBJECT_SYNTAX;
  }
  AssignNode(engine_, &tuple->subject_node, const_cast<EngineNode*>(subject));
  EngineNode* inner = KeywordListOf(element);
  if (inner == nullptr) return SPKI_ERR_PRINCIPAL_EXPECTED;
  switch (KeywordOf(inner)) {
    case kKeywordKOfN:
      // Expanded by the threshold code when the tuple is inserted.
      AssignNode(engine_, &tuple->subject_node, inner);
      return SPKI_OK;
    case kKeywordName:
      return ReadNameSubject(inner, tuple, relative);
    default:
      return PrincipalOf(inner, &tuple->subject);
  }
}

// (name P N1 N2 ...): names relative to P; (name N1 N2 ...): names relative
// to the credential's issuer (|*relative| is set; the caller supplies it).
Status Reducer::ReadNameSubject(const EngineNode* name, FiveTuple* tuple, bool* relative) {
  const EngineNode* first = name->next;
  const EngineNode* n1 = nullptr;
  if (first == nullptr) return SPKI_ERR_SUBJECT_SYNTAX;
  if (first->kind == kNodeSublist) {
    Status status = PrincipalOf(SublistOf(first), &tuple->subject);
    if (status != SPKI_OK) return status;
    n1 = first->next;
    if (n1 == nullptr) return SPKI_ERR_SUBJECT_SYNTAX;
  } else if (first->kind == kNodeAtom) {
    n1 = first;
    *relative = true;
  } else {
    return SPKI_ERR_SUBJECT_SYNTAX;
  }
  if (n1->kind != kNodeAtom) return SPKI_ERR_NAME_SYNTAX;
  AssignAtom(engine_, &tuple->subject_name, AtomOf(n1));
  AssignNode(engine_, &tuple->subject_names_rest, n1->next);
  return SPKI_OK;
}

// Tuples wait on a stack and join one at a time, so a chain of any length
// costs no recursion.
}  // namespace reduce
}  // namespace velk2::engine
