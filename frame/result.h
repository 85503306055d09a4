// Result codes inside the library: the public VELK2_* values of velk2.h.
#ifndef VELK2_FRAME_RESULT_H_
#define VELK2_FRAME_RESULT_H_

#include <cstdint>

#include "velk2.h"

namespace velk2 {

using Result = VELK2_RESULT;

// The constant UTF-16 message of a code; "VELK_UNKNOWN_ERROR" outside 0..76
// (negative engine statuses included). Same pointer for the same code.
const char16_t* ErrorMessage(Result code);
// The UTF-8 twin of ErrorMessage: same texts, same pointer for the same code.
const char* ErrorMessageUtf8(Result code);

}  // namespace velk2

#endif  // VELK2_FRAME_RESULT_H_
