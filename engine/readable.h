// The readable form of engine S-expressions, for people writing and checking
// tags: (ftp (* set read write)). Tokens and quoted strings are atoms; a
// display hint goes in brackets before its atom: [text]abc.
//
// Grammar: expr = list | atom; list = "(" expr (blank expr)* ")";
// atom = ["[" string "]"] string; string = token | quoted; a token is a run of
// printable ASCII other than ( ) [ ] " \ and blanks; a quoted string is
// "..." with the escapes \" \\ \n \r \t and \xHH.
#ifndef VELK2_ENGINE_READABLE_H_
#define VELK2_ENGINE_READABLE_H_

#include <string>
#include <string_view>

#include "engine/status.h"
#include "engine/store.h"

namespace velk2::engine {

// ReadableToCanonical converts one readable expression (a list or a single
// atom, with blanks around it allowed) to canonical text in |*out|. Errors:
// SPKI_ERR_BAD_SEXP_START (-140) for empty input, SPKI_ERR_BAD_SEXP_FORMAT
// (-142) for a stray ")", a bad escape, an unterminated string or text after
// the expression, SPKI_ERR_SEXP_NOT_CLOSED (-143) when a list is not closed,
// SPKI_ERR_DISP_HINT_NOT_CLOSED (-137), SPKI_ERR_BAD_LTH_FORMAT (-135) for an
// empty string (canonical atoms are never empty), SPKI_ERR_BAD_SEXP (-130)
// past kMaxNesting, SPKI_ERR_NO_MEM (-129).
Status ReadableToCanonical(std::string_view text, std::string* out);

// PrintReadable writes the readable form of the list |chain|; the output
// converts back to the same canonical text. PrintReadableElement does the
// same for one element (an atom or a sublist). Errors: SPKI_ERR_BAD_SEXP
// (-130) past kMaxNesting, SPKI_ERR_UNKNOWN (-200) for a node of no known
// kind, SPKI_ERR_NO_MEM (-129).
Status PrintReadable(const EngineNode* chain, std::string* out);
Status PrintReadableElement(const EngineNode* element, std::string* out);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_READABLE_H_
