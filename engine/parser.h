// The engine's canonical parser: canonical S-expression text, with display
// hints and without any white space, into engine nodes, read through the
// bounds-checked ByteCursor. Atoms point into the parsed text, which must
// outlive the tree.
#ifndef VELK2_ENGINE_PARSER_H_
#define VELK2_ENGINE_PARSER_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "engine/status.h"
#include "engine/store.h"
#include "platform/cursor.h"

namespace velk2::engine {

// ParseLength reads a decimal length (first digit 1-9) and the ":" after it.
// Returns 0 with |*out| set and the cursor after the ":", or
// SPKI_ERR_BAD_LTH_FORMAT (-135), SPKI_ERR_LTH_TOO_BIG (-132) when the value
// passes 214748364 before another digit, SPKI_ERR_COLON_EXPECTED (-136).
Status ParseLength(uint32_t* out, ByteCursor* cursor);

// ParseAtom reads one atom with an optional "[n:hint]" display hint. On
// success |*out| holds a new atom (count 1) whose bytes point into the text.
// Errors: ParseLength's, SPKI_ERR_DISP_HINT_TOO_LONG (-138),
// SPKI_ERR_DISP_HINT_NOT_CLOSED (-137), SPKI_ERR_STRING_TOO_LONG (-139),
// SPKI_ERR_NO_MEM (-129).
Status ParseAtom(EngineContext& engine, EngineAtom** out, ByteCursor* cursor);

// ParseList reads one list. On success |*out| holds the list's head node
// (count 1): kind 1 when the first atom is a keyword (id above 0), else kind
// 2; the head keeps the position and length of the list's text. On failure
// everything made is released and |*out| is null. Errors: the atoms' errors,
// SPKI_ERR_BAD_SEXP_START (-140; the cursor still advances by one),
// SPKI_ERR_BAD_SEXP_FORMAT (-142), SPKI_ERR_SEXP_NOT_CLOSED (-143),
// SPKI_ERR_BAD_SEXP (-130) for lists nested deeper than kMaxNesting,
// SPKI_ERR_NO_MEM (-129), SPKI_ERR_NULL_PARAM (-126).
Status ParseList(EngineContext& engine, EngineNode** out, ByteCursor* cursor);

// ParseText parses |length| bytes that must hold exactly one list; bytes
// after the list give SPKI_ERR_BAD_SEXP_FORMAT (-142).
//
// With |keys|, the head of every `public-key` list is appended to it
// (borrowed: the tree holds it) in the order a walk from the top meets them,
// without looking inside a key: the reduction registers keys in that order,
// and a big ACL is cheaper to note while it is parsed than to walk again.
// After a failure |keys| holds some of them.
Status ParseText(EngineContext& engine, EngineNode** out, const void* text, size_t length,
                 std::vector<EngineNode*>* keys = nullptr);

// ParseTemplate parses the NUL-terminated constant |text| (an engine template
// such as "(1:*5:range)"), then clears the source text and length of every
// node of the result so that nothing points into the constant's framing.
Status ParseTemplate(EngineContext& engine, EngineNode** out, const char* text);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_PARSER_H_
