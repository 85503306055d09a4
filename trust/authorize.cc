#include "trust/authorize.h"

#include <string_view>

#include "acl/acl_entry.h"
#include "engine/query.h"
#include "engine/status.h"
#include "frame/guard.h"
#include "platform/zcry.h"

namespace velk2 {

namespace {

constexpr std::string_view kEmptyAcl = "(3:acl)";

// An engine status (0, a negative code or EngineInit's 16386) as the
// library's 32-bit result, bits unchanged.
Result FromEngine(int32_t status) {
  return static_cast<Result>(status);
}

// The unguarded steps of ConvertToEngine and TagGranted, which AuthorizeKey
// runs under its own Guard.
Result WriteForEngine(const SexpList* object, std::string* text) {
  if (object == nullptr || text == nullptr) return VELK2_ERR_PARAM_NULL;
  text->clear();
  Result result = AppendCanonical(object, text);
  if (result != VELK2_SUCCESS) text->clear();
  return result;
}

bool Granted(const SexpList* requested_tag, const SexpList* granted_tag) {
  if (granted_tag == nullptr) return false;
  if (SameCanonicalForm(requested_tag, granted_tag)) return true;
  // A tag that cannot be written stays empty, which the engine does not
  // parse: it then implies nothing and is implied by nothing.
  std::string requested, granted;
  if (requested_tag != nullptr) (void)WriteForEngine(requested_tag, &requested);
  (void)WriteForEngine(granted_tag, &granted);
  return engine::TagImplies(requested, granted) == 1;
}

}  // namespace

Result ConvertToEngine(const SexpList* object, std::string* text) {
  return Guard([&] { return WriteForEngine(object, text); });
}

Result trust_internal::Authorize(Velk2Context* context, const SexpList* acl,
                                 const SexpList* sequence, const SexpList* subject_key,
                                 const SexpList* requested_tag, const SexpList* validity,
                                 engine::ReductionTrace* trace, std::string* reduced_acl) {
  if (acl == nullptr || sequence == nullptr || subject_key == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  // Every text, the result and the read-back tag are owned here and freed
  // on every path when the frame ends.
  std::string acl_text, sequence_text, key_text, tag_text, validity_text, result_text;
  Result result = WriteForEngine(acl, &acl_text);
  if (result == VELK2_SUCCESS) result = WriteForEngine(sequence, &sequence_text);
  if (result == VELK2_SUCCESS) result = WriteForEngine(subject_key, &key_text);
  if (result == VELK2_SUCCESS && requested_tag != nullptr) {
    result = WriteForEngine(requested_tag, &tag_text);
  }
  if (result == VELK2_SUCCESS && validity != nullptr) {
    result = WriteForEngine(validity, &validity_text);
  }
  if (result != VELK2_SUCCESS) return result;

  const std::string_view tag_view(tag_text);
  const std::string_view validity_view(validity_text);
  const int32_t status =
      engine::ReduceCanonical(ContextWord(context), acl_text, sequence_text, key_text,
                              requested_tag != nullptr ? &tag_view : nullptr,
                              validity != nullptr ? &validity_view : nullptr, &result_text, trace);
  // The engine's codes go to the caller as they are, deliberately not
  // mapped to library codes.
  if (status != 0) return FromEngine(status);
  if (reduced_acl != nullptr) *reduced_acl = result_text;

  if (result_text == kEmptyAcl) return VELK2_ERR_NOT_AUTHORIZED;
  Ref<SexpList> granted;
  result = ExtractEntryTag(&granted, result_text.data(), result_text.size(), context);
  if (result != VELK2_SUCCESS) return result;
  // Nothing was asked for, so nothing can be granted: a forgotten tag must
  // not read as "authorized for whatever the ACL reaches".
  if (requested_tag == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Granted(requested_tag, granted.get()) ? VELK2_SUCCESS : VELK2_ERR_NOT_GRANTED;
}

Result AuthorizeKey(Velk2Context* context, const SexpList* acl, const SexpList* sequence,
                    const SexpList* subject_key, const SexpList* requested_tag,
                    const SexpList* validity, engine::ReductionTrace* trace,
                    std::string* reduced_acl) {
  return Guard([&] {
    return trust_internal::Authorize(context, acl, sequence, subject_key, requested_tag, validity,
                                     trace, reduced_acl);
  });
}

bool IsEngineResult(Result result) {
  return engine::IsEngineStatus(static_cast<int32_t>(result));
}

bool IsUndecided(Result result) {
  return IsEngineResult(result) || ZcryIsStatus(result);
}

bool TagGranted(const SexpList* requested_tag, const SexpList* granted_tag) {
  return Guard([&] {
           return Granted(requested_tag, granted_tag) ? VELK2_SUCCESS : VELK2_ERR_NOT_GRANTED;
         }) == VELK2_SUCCESS;
}

namespace {

// The depth of the deepest list in |object| (an atom is 0), counted no
// further than |limit|.
uint32_t NestingDepth(const SexpObject& object, uint32_t limit) {
  const SexpList* list = object.AsList();
  if (list == nullptr || limit == 0) return 0;
  uint32_t deepest = 0;
  for (const Ref<SexpObject>& child : list->children()) {
    deepest = std::max(deepest, NestingDepth(*child, limit - 1));
  }
  return deepest + 1;
}

}  // namespace

bool FitsTheEngine(const SexpObject& credential) {
  const uint32_t most = static_cast<uint32_t>(engine::kMaxNesting) - 1;
  return NestingDepth(credential, most + 1) <= most;
}

}  // namespace velk2
