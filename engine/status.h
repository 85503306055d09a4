// The authorization engine's statuses: 0 for success, a negative SPKI_ERR_*
// code for failure. Every engine function stops at the first non-zero status
// and returns it unchanged through every level.
#ifndef VELK2_ENGINE_STATUS_H_
#define VELK2_ENGINE_STATUS_H_

#include <cstdint>

#include "platform/cursor.h"

namespace velk2::engine {

using Status = int32_t;

inline constexpr Status SPKI_OK = 0;
inline constexpr Status SPKI_ERR_NULL_PARAM = -126;
inline constexpr Status SPKI_ERR_NO_MEM = -129;
// Returned for input nested deeper than kMaxNesting (parser, printer, tag
// algebra, validity): the engine refuses it instead of exhausting the stack.
inline constexpr Status SPKI_ERR_BAD_SEXP = -130;
inline constexpr Status SPKI_ERR_LTH_TOO_BIG = -132;
inline constexpr Status SPKI_ERR_BAD_LTH_FORMAT = -135;
inline constexpr Status SPKI_ERR_COLON_EXPECTED = -136;
inline constexpr Status SPKI_ERR_DISP_HINT_NOT_CLOSED = -137;
inline constexpr Status SPKI_ERR_DISP_HINT_TOO_LONG = -138;
inline constexpr Status SPKI_ERR_STRING_TOO_LONG = -139;
inline constexpr Status SPKI_ERR_BAD_SEXP_START = -140;
inline constexpr Status SPKI_ERR_BAD_SEXP_FORMAT = -142;
inline constexpr Status SPKI_ERR_SEXP_NOT_CLOSED = -143;
inline constexpr Status SPKI_ERR_NOT_HASH = -145;
inline constexpr Status SPKI_ERR_UNKNOWN_HASH = -146;
inline constexpr Status SPKI_ERR_BAD_HASH_FORMAT = -147;
inline constexpr Status SPKI_ERR_HASH_LENGTHS_DIFFER = -149;
inline constexpr Status SPKI_ERR_NO_ACL = -150;
inline constexpr Status SPKI_ERR_ACL_HAS_ISSUER = -151;
inline constexpr Status SPKI_ERR_NEEDS_ISSUER = -152;
inline constexpr Status SPKI_ERR_NAME_AND_TAG = -153;
inline constexpr Status SPKI_ERR_ISSUER_SYNTAX = -155;
inline constexpr Status SPKI_ERR_SUBJECT_SYNTAX = -156;
inline constexpr Status SPKI_ERR_K_OF_N_SYNTAX = -157;
inline constexpr Status SPKI_ERR_ISSUER_UNRESOLVED = -158;
inline constexpr Status SPKI_ERR_TOO_MANY_NOT_BEFORE = -159;
inline constexpr Status SPKI_ERR_TOO_MANY_NOT_AFTER = -160;
inline constexpr Status SPKI_ERR_TOO_MANY_ISSUERS = -161;
inline constexpr Status SPKI_ERR_TOO_MANY_SUBJECTS = -162;
inline constexpr Status SPKI_ERR_TOO_MANY_PROPAGATE = -163;
inline constexpr Status SPKI_ERR_TOO_MANY_TAGS = -164;
inline constexpr Status SPKI_ERR_PRINCIPAL_EXPECTED = -165;
inline constexpr Status SPKI_ERR_THRESHOLD = -166;
inline constexpr Status SPKI_ERR_NAME_SYNTAX = -167;
inline constexpr Status SPKI_ERR_DATE_INTERSECTION = -168;
inline constexpr Status SPKI_ERR_UNKNOWN = -200;

// EngineInit's status when the arena's control block or first chunk cannot
// be obtained from the allocator (hexadecimal 4002; positive, unlike the rest).
inline constexpr Status kEngineArenaUnavailable = 16386;

// The deepest list nesting the parser accepts: the one limit of velk2. Trees
// the engine builds are never deeper than their operands, so the printer, the
// tag algebra and the validity walk use the same figure (the tag algebra twice
// over: a comparison descends into both operands).
using velk2::kMaxNesting;

// IsEngineStatus: whether |code| is a status only the engine gives (a code of
// its table, or kEngineArenaUnavailable). The library passes these through
// to its callers, so a result code may be one: such a result means that the
// question could not be decided, not that the answer is no.
bool IsEngineStatus(Status code);
// SpkiErrorMessage returns the engine's constant UTF-16 text of |code|; a code
// that is not in the table (a gap in the numbering, any positive value) gives
// the text of -200, "Unknown SPKI problem".
const char16_t* SpkiErrorMessage(Status code);

// SpkiErrorMessageUtf8 is the UTF-8 twin of SpkiErrorMessage: the same texts.
const char* SpkiErrorMessageUtf8(Status code);

// The number of rows in the engine's message table (35).
int SpkiErrorCount();

// The code of row |index| (0-based, in table order), or SPKI_ERR_UNKNOWN out of range.
Status SpkiErrorCodeAt(int index);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_STATUS_H_
