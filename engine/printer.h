// The engine's printer: a node chain back to canonical text, byte for byte
// the canonical encoding. A keyword head prints as its keyword's text, so an
// id without a text entry (such as the one of "sha256") prints as "???".
#ifndef VELK2_ENGINE_PRINTER_H_
#define VELK2_ENGINE_PRINTER_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/status.h"
#include "engine/store.h"

namespace velk2::engine {

// A bounds-checked output cursor: writes stop at |end|.
struct PrintCursor {
  uint8_t* start;
  uint8_t* current;
  uint8_t* end;

  static PrintCursor Over(void* data, size_t length) {
    auto* bytes = static_cast<uint8_t*>(data);
    return {bytes, bytes, bytes + length};
  }
  size_t Written() const { return static_cast<size_t>(current - start); }
};

// PrintedLength stores in |*length| the number of bytes PrintCanonical writes
// for |chain|: 2 for the parentheses plus each node's encoding. A null chain
// counts 2. Returns 0, SPKI_ERR_BAD_SEXP (-130) for a chain nested deeper
// than kMaxNesting, SPKI_ERR_STRING_TOO_LONG (-139) past 4 GiB,
// SPKI_ERR_UNKNOWN (-200) for a node of no known kind.
Status PrintedLength(const EngineNode* chain, size_t* length);

// PrintCanonical writes "(", each node of |chain| and ")" at the cursor; no
// NUL is written. A null chain writes nothing. Returns PrintedLength's errors
// and SPKI_ERR_UNKNOWN (-200) when the cursor has less room than
// PrintedLength (nothing is written then).
Status PrintCanonical(const EngineNode* chain, PrintCursor* cursor);

// PrintToString replaces |*out| with the canonical text of |chain|.
// Out of memory gives SPKI_ERR_NO_MEM (-129).
Status PrintToString(const EngineNode* chain, std::string* out);

// The number of decimal digits of |value| (1 for 0).
uint32_t DecimalDigits(uint64_t value);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_PRINTER_H_
