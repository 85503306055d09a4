#include "engine/status.h"

#include <iterator>

namespace velk2::engine {
namespace {

struct SpkiErrorText {
  Status code;
  const char16_t* text;
  const char* utf8;
};

#define VELK2_SPKI_TEXT(code, text) \
  { code, u"" text, text }

// Codes descending from -126 to -168, then -200. The gaps are deliberate:
// those codes do not exist.
constexpr SpkiErrorText kSpkiErrorText[] = {
    VELK2_SPKI_TEXT(SPKI_ERR_NULL_PARAM, "SPKI_ERR_NULL_PARAM"),
    VELK2_SPKI_TEXT(SPKI_ERR_NO_MEM, "SPKI_ERR_NO_MEM"),
    VELK2_SPKI_TEXT(SPKI_ERR_BAD_SEXP, "SPKI_ERR_BAD_SEXP"),
    VELK2_SPKI_TEXT(SPKI_ERR_LTH_TOO_BIG, "SPKI_ERR_LTH_TOO_BIG"),
    VELK2_SPKI_TEXT(SPKI_ERR_BAD_LTH_FORMAT, "SPKI_ERR_BAD_LTH_FORMAT"),
    VELK2_SPKI_TEXT(SPKI_ERR_COLON_EXPECTED, "SPKI_ERR_COLON_EXPECTED"),
    VELK2_SPKI_TEXT(SPKI_ERR_DISP_HINT_NOT_CLOSED, "SPKI_ERR_DISP_HINT_NOT_CLOSED"),
    VELK2_SPKI_TEXT(SPKI_ERR_DISP_HINT_TOO_LONG, "SPKI_ERR_DISP_HINT_TOO_LONG"),
    VELK2_SPKI_TEXT(SPKI_ERR_STRING_TOO_LONG, "SPKI_ERR_STRING_TOO_LONG"),
    VELK2_SPKI_TEXT(SPKI_ERR_BAD_SEXP_START, "SPKI_ERR_BAD_SEXP_START"),
    VELK2_SPKI_TEXT(SPKI_ERR_BAD_SEXP_FORMAT, "SPKI_ERR_BAD_SEXP_FORMAT"),
    VELK2_SPKI_TEXT(SPKI_ERR_SEXP_NOT_CLOSED, "SPKI_ERR_SEXP_NOT_CLOSED"),
    VELK2_SPKI_TEXT(SPKI_ERR_NOT_HASH, "S-exp isn't a (hash...)"),
    VELK2_SPKI_TEXT(SPKI_ERR_UNKNOWN_HASH, "Unknown hash algorithm"),
    VELK2_SPKI_TEXT(SPKI_ERR_BAD_HASH_FORMAT, "Bad format for (hash...)"),
    VELK2_SPKI_TEXT(SPKI_ERR_HASH_LENGTHS_DIFFER, "Hash value lengths differ"),
    VELK2_SPKI_TEXT(SPKI_ERR_NO_ACL,
                    "No ACL was provided for reduction without an ACL, there can be no results"),
    VELK2_SPKI_TEXT(SPKI_ERR_ACL_HAS_ISSUER, "An ACL entry should have no issuer field"),
    VELK2_SPKI_TEXT(SPKI_ERR_NEEDS_ISSUER, "A non-ACL needs an issuer"),
    VELK2_SPKI_TEXT(SPKI_ERR_NAME_AND_TAG, "Credential with both issuer name and authorization"),
    VELK2_SPKI_TEXT(SPKI_ERR_ISSUER_SYNTAX, "Syntax error in (issuer ..)"),
    VELK2_SPKI_TEXT(SPKI_ERR_SUBJECT_SYNTAX, "Syntax error in (subject ..)"),
    VELK2_SPKI_TEXT(SPKI_ERR_K_OF_N_SYNTAX, "Bad k-of-n syntax"),
    // Two blanks after "validated." exactly as the engine has always said it.
    VELK2_SPKI_TEXT(SPKI_ERR_ISSUER_UNRESOLVED,
                    "Issuer could not be resolved to a public key -- so could not have been "
                    "validated.  Rejected during processing."),
    VELK2_SPKI_TEXT(SPKI_ERR_TOO_MANY_NOT_BEFORE, "Too many not-before dates"),
    VELK2_SPKI_TEXT(SPKI_ERR_TOO_MANY_NOT_AFTER, "Too many not-after dates"),
    VELK2_SPKI_TEXT(SPKI_ERR_TOO_MANY_ISSUERS, "Too many issuers"),
    VELK2_SPKI_TEXT(SPKI_ERR_TOO_MANY_SUBJECTS, "Too many subjects"),
    VELK2_SPKI_TEXT(SPKI_ERR_TOO_MANY_PROPAGATE, "Too many propagate fields"),
    VELK2_SPKI_TEXT(SPKI_ERR_TOO_MANY_TAGS, "Too many tag fields"),
    VELK2_SPKI_TEXT(SPKI_ERR_PRINCIPAL_EXPECTED, "Public key or hash expected"),
    VELK2_SPKI_TEXT(SPKI_ERR_THRESHOLD, "Error processing a threshold block"),
    VELK2_SPKI_TEXT(SPKI_ERR_NAME_SYNTAX, "Bad name syntax -- not a list of byte strings"),
    VELK2_SPKI_TEXT(SPKI_ERR_DATE_INTERSECTION, "Date intersection failed"),
    VELK2_SPKI_TEXT(SPKI_ERR_UNKNOWN, "Unknown SPKI problem"),
};

#undef VELK2_SPKI_TEXT

static_assert(std::size(kSpkiErrorText) == 35);

const SpkiErrorText& RowOf(Status code) {
  for (const SpkiErrorText& row : kSpkiErrorText) {
    if (row.code == code) return row;
  }
  return kSpkiErrorText[std::size(kSpkiErrorText) - 1];
}

}  // namespace

const char16_t* SpkiErrorMessage(Status code) {
  return RowOf(code).text;
}

const char* SpkiErrorMessageUtf8(Status code) {
  return RowOf(code).utf8;
}

bool IsEngineStatus(Status code) {
  if (code == kEngineArenaUnavailable) return true;
  for (const SpkiErrorText& row : kSpkiErrorText) {
    if (row.code == code) return true;
  }
  return false;
}

int SpkiErrorCount() {
  return static_cast<int>(std::size(kSpkiErrorText));
}

Status SpkiErrorCodeAt(int index) {
  if (index < 0 || index >= SpkiErrorCount()) return SPKI_ERR_UNKNOWN;
  return kSpkiErrorText[index].code;
}

}  // namespace velk2::engine
