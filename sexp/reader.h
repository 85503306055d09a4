// S-expression readers: the canonical reader of credential files, and the
// text parsers of search arguments and embedded text.
//
// Every reader releases what it built and leaves its out-pointer null on
// failure; the position of a source or text is left where the failure was
// found. Lists nested deeper than kMaxReadDepth are refused.
#ifndef VELK2_SEXP_READER_H_
#define VELK2_SEXP_READER_H_

#include <cstddef>
#include <string_view>

#include "frame/ref.h"
#include "frame/result.h"
#include "platform/cursor.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

// ---- Canonical reader --------------------------------------------------------

// ReadAtomSpan reads one canonical atom, [hint] then "n:" then n bytes, at
// the cursor without copying it: *value points into the cursor's data.
// VELK2_ERR_PARSE_FILE (9) for a bad hint or a short atom (the cursor then
// at the end); VELK2_ERR_MAX_BYTE_STRING (14) for a length over 8192 or of
// too many digits; for the ":" the source's literal codes (7 at the end, 6
// for another byte).
Result ReadAtomSpan(ByteCursor& bytes, std::string_view* value, DisplayHint* hint);

// ParseCanonicalAtom reads one atom ("[hint]" optional, decimal length, ":",
// bytes) into |atom|. VELK2_ERR_PARAM_NULL (38) without source or atom;
// VELK2_ERR_PARSE_FILE (9) for a hint other than "bin", "utf-8", "num", a hint
// over 10 bytes, or fewer bytes than the length; VELK2_ERR_MAX_BYTE_STRING (14)
// for a fifth length digit (at that digit) or a length over 8192; the ":"
// literal's code (6, 7) when it is missing. "0:" and ":" both read an empty
// atom. On failure after the hint the atom is left empty.
Result ParseCanonicalAtom(SexpAtom* atom, SexpSource* source);
// ReadCanonicalAtom: a new atom with |context| filled by ParseCanonicalAtom.
// *out must be null (else 2).
Result ReadCanonicalAtom(Ref<SexpAtom>* out, SexpSource* source, Velk2Context* context);
// ParseCanonicalList reads "(" elements ")" into a new list with |context|.
// *out must be null and the source present (else 2). White space is not
// skipped. The end of the data before ")" gives 7; a list nested deeper than
// kMaxReadDepth gives VELK2_ERR_PARSE_FILE (9) at its "(".
Result ParseCanonicalList(Ref<SexpList>* out, SexpSource* source, Velk2Context* context);

// ---- Text parsers --------------------------------------------------------------

// SkipSpace moves *position over white space (" \t\n\v\f\r"); the bounded
// form stops at |length|.
void SkipSpace(const char* text, size_t* position);
void SkipSpace(const char* text, size_t length, size_t* position);
// ExpectLiteralBounded checks |literal| at *position in |text| of |length|
// bytes and moves past it. 2 for null arguments. The comparison deliberately
// starts at literal index *position rather than 0 (kept: callers only call it
// where the expected byte has been seen), so a one-byte literal is checked
// only at position 0 and merely skipped elsewhere. A byte to compare beyond
// |length| gives VELK2_ERR_BUFFER_OVERFLOW (30); a different byte
// VELK2_ERR_UNEXPECTED_CHAR (28).
Result ExpectLiteralBounded(const char* literal, const char* text, size_t length, size_t* position);
// ParseToken skips white space and takes the bytes up to the next white
// space, "(", ")" or NUL (possibly none) as a new atom. *out must be null and
// text present (else 2).
Result ParseToken(Ref<SexpAtom>* out, const char* text, size_t* position, Velk2Context* context);
// ParseTextList reads "(" token elements... ")" from NUL-terminated text,
// where elements are tokens or nested lists and the first element is always a
// token (empty when "(" follows directly). 28 when the text does not start
// with "(" (after white space), VELK2_ERR_INVALID_S_EXPRESSION (29) when it
// ends inside the list or nests deeper than kMaxReadDepth.
Result ParseTextList(Ref<SexpList>* out, const char* text, size_t* position, Velk2Context* context);
// ParseTextSequence reads every list and token of |text| into a new list
// that starts with the atom |keyword|: "(pkg install)" with keyword "tag"
// gives (tag (pkg install)). An empty text gives the keyword only. A ")"
// outside any list gives 28.
Result ParseTextSequence(Ref<SexpList>* out, const char* text, const char* keyword,
                         Velk2Context* context);

// ReadTagText reads a tag text the one way the library reads one, for every
// export, the tool and the toolkit alike: "(pkg install)" is (tag (pkg
// install)), each top-level element of the text one child, every token an
// atom exactly as typed. There is no other form: a text that is a whole
// (tag ...) is a tag holding a list named "tag". The text reader's codes.
Result ReadTagText(const char* text, Velk2Context* context, Ref<SexpList>* out);
// ParseLengthPrefixedAtom reads "n:" and n bytes from |text| of |length|
// bytes, white space allowed before it. 2 for a non-null *out, null text or
// length 0. The count is checked against the text: VELK2_ERR_BUFFER_OVERFLOW
// (30) when fewer bytes are left. The 8192 limit does not apply.
Result ParseLengthPrefixedAtom(Ref<SexpAtom>* out, const char* text, size_t length,
                               size_t* position, Velk2Context* context);
// ParseLengthPrefixedList reads a list of length-prefixed atoms and nested
// lists, with white space allowed between elements. "()" gives an empty list
// and leaves the position at its ")" (kept so: callers read the ")" as the end
// of the list that holds it). 29 when the text (NUL or |length|) ends inside
// the list or it nests deeper than kMaxReadDepth.
Result ParseLengthPrefixedList(Ref<SexpList>* out, const char* text, size_t length,
                               size_t* position, Velk2Context* context);

}  // namespace velk2

#endif  // VELK2_SEXP_READER_H_
