// The reduction's story for people: every tuple as it was made and accepted,
// and the result, kept only when the caller asked for a trace.
#include "engine/reduce.h"

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

TraceKind KindOf(uint8_t origin) {
  switch (origin) {
    case kFromAclEntry:
      return TraceKind::kAclEntry;
    case kFromCertificate:
      return TraceKind::kCertificate;
    case kFromChaining:
      return TraceKind::kDerived;
    case kFromName:
      return TraceKind::kName;
    default:
      return TraceKind::kThreshold;
  }
}

std::string AtomText(const EngineAtom* atom) {
  if (atom == nullptr) return std::string();
  return std::string(reinterpret_cast<const char*>(atom->bytes), atom->length);
}

}  // namespace

// ---- trace -----------------------------------------------------------------

Status Reducer::TraceCreated(const FiveTuple* tuple,
                             std::initializer_list<const FiveTuple*> parents) {
  return TraceCreatedFrom(tuple, parents.begin(), static_cast<int>(parents.size()));
}

Status Reducer::TraceCreatedFrom(const FiveTuple* tuple, const FiveTuple* const* parents,
                                 int count) {
  if (!tracing()) return SPKI_OK;
  try {
    std::vector<int>& ids = trace_parents_[tuple->serial];
    for (int i = 0; i < count; ++i) ids.push_back(parents[i]->trace_id);
  } catch (const std::bad_alloc&) {
    return SPKI_ERR_NO_MEM;
  }
  return SPKI_OK;
}

Status Reducer::TraceAccepted(FiveTuple* tuple) {
  if (!tracing()) return SPKI_OK;
  try {
    TraceTuple told;
    told.id = next_trace_id_++;
    tuple->trace_id = told.id;
    told.kind = KindOf(tuple->origin);
    if (tuple->issuer != nullptr) told.issuer = DigestHex(tuple->issuer->digest);
    if (tuple->subject != nullptr) told.subject = DigestHex(tuple->subject->digest);
    told.propagate = tuple->propagate != 0;
    if (tuple->tag != nullptr) {
      Status status = PrintToString(tuple->tag, &told.tag);
      if (status != SPKI_OK) return status;
    }
    told.not_before = AtomText(tuple->not_before);
    told.not_after = AtomText(tuple->not_after);
    auto parents = trace_parents_.find(tuple->serial);
    if (parents != trace_parents_.end()) {
      told.parents = std::move(parents->second);
      trace_parents_.erase(parents);
    }
    told.issuer_name = AtomText(tuple->issuer_name);
    if (tuple->subject_name != nullptr) {
      told.subject_names = AtomText(tuple->subject_name);
      for (const EngineNode* name = tuple->subject_names_rest; name != nullptr; name = name->next) {
        std::string text;
        Status status = PrintReadableElement(name, &text);
        if (status != SPKI_OK) return status;
        told.subject_names += ' ';
        told.subject_names += text;
      }
    }
    told.threshold_index = tuple->threshold_index;
    told.source = tuple->source;
    told.on_key_path = tuple->on_key_path != 0;
    options_.trace->tuples.push_back(std::move(told));
  } catch (const std::bad_alloc&) {
    return SPKI_ERR_NO_MEM;
  }
  return SPKI_OK;
}

Status Reducer::TraceInput(const FiveTuple* tuple, bool is_entry) {
  if (!tracing()) return SPKI_OK;
  try {
    engine::TraceInput read;
    read.source = tuple->source;
    if (tuple->issuer != nullptr) read.issuer = DigestHex(tuple->issuer->digest);
    if (tuple->subject != nullptr) read.subject = DigestHex(tuple->subject->digest);
    (is_entry ? options_.trace->entries : options_.trace->certificates).push_back(std::move(read));
  } catch (const std::bad_alloc&) {
    return SPKI_ERR_NO_MEM;
  }
  return SPKI_OK;
}

Status Reducer::TraceResult(const FiveTuple* tuple) {
  if (!tracing()) return SPKI_OK;
  try {
    options_.trace->result.push_back(tuple->trace_id);
  } catch (const std::bad_alloc&) {
    return SPKI_ERR_NO_MEM;
  }
  return SPKI_OK;
}

}  // namespace reduce

const char* TraceKindName(TraceKind kind) {
  switch (kind) {
    case TraceKind::kAclEntry:
      return "acl entry";
    case TraceKind::kCertificate:
      return "certificate";
    case TraceKind::kDerived:
      return "derived";
    case TraceKind::kName:
      return "name";
    case TraceKind::kThreshold:
      break;
  }
  return "threshold";
}

}  // namespace velk2::engine
