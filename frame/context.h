// The library context: one word that the caller chooses and that every call
// into the crypto module receives unchanged.
#ifndef VELK2_FRAME_CONTEXT_H_
#define VELK2_FRAME_CONTEXT_H_

#include <cstdint>

#include "frame/boundary.h"
#include "velk2.h"

struct Velk2Context : velk2::Tagged<velk2::ClassTag::kContext> {
  explicit Velk2Context(uint32_t context_word = 0) : word(context_word) {}
  uint32_t word;
};

namespace velk2 {

// The crypto module's context value of |context|: its word, or 0 without one.
inline uint32_t ContextWord(const Velk2Context* context) {
  return context ? context->word : 0;
}

}  // namespace velk2

#endif  // VELK2_FRAME_CONTEXT_H_
