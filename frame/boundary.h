// The export boundary. Every exported function does, in this order:
//   1. the null checks of its documentation, in the documented order;
//   2. a checked conversion of each opaque pointer it was handed
//      (FromOpaque: the object's class tag is verified before any use, so a
//      stale, foreign or already freed pointer gives an error, not a crash
//      deep inside);
//   3. one Guard around the rest, and nothing below it guards again within
//      the same layer.
// Objects that cross the boundary as opaque pointers derive from Tagged.
#ifndef VELK2_FRAME_BOUNDARY_H_
#define VELK2_FRAME_BOUNDARY_H_

#include <cstdint>

#include "frame/guard.h"
#include "frame/text.h"

namespace velk2 {

// The class tags of objects handed to callers: four letters each, and never
// the value of a pointer or a small count.
enum class ClassTag : uint32_t {
  kContext = 0x5843'3256,              // "V2CX"
  kCertificateSequence = 0x5145'3256,  // "V2EQ"
  kRevocationList = 0x4C52'3256,       // "V2RL"
  kManifestContext = 0x464D'3256,      // "V2MF"
};

// Tagged<kTag>: a base that carries the tag while the object lives and
// clears it when the object dies, so a freed object no longer converts.
template <ClassTag kTag>
class Tagged {
 public:
  bool HasTag() const { return tag_ == kTag; }

 protected:
  Tagged() = default;
  Tagged(const Tagged&) : tag_(kTag) {}
  Tagged& operator=(const Tagged&) { return *this; }
  ~Tagged() { tag_ = ClassTag{0}; }

 private:
  volatile ClassTag tag_ = kTag;
};

// FromOpaque converts a pointer that came through the C interface to the T
// it was made from when it carries T's tag; null for null or another tag.
template <typename T>
T* FromOpaque(void* opaque) {
  if (opaque == nullptr) return nullptr;
  T* object = static_cast<T*>(opaque);
  return object->HasTag() ? object : nullptr;
}

// FromOptionalOpaque converts an argument that may be null: false for a
// pointer that is not a live T (refused), else true with *out set (null for null).
template <typename T>
bool FromOptionalOpaque(void* opaque, T** out) {
  *out = FromOpaque<T>(opaque);
  return opaque == nullptr || *out != nullptr;
}

// WithWide is the A form of an export: it calls |wide_form| with |text|
// converted from UTF-8 to UTF-16 (null stays null) and returns its result
// unchanged; VELK2_ERR_MEM_ALLOC (3) when the copy cannot be made.
template <typename F>
Result WithWide(const char* text, F&& wide_form) {
  CBuffer<char16_t> wide(text != nullptr ? Utf8ToWide(text, -1, nullptr) : nullptr);
  if (text != nullptr && wide == nullptr) return VELK2_ERR_MEM_ALLOC;
  return wide_form(wide.get());
}

}  // namespace velk2

#endif  // VELK2_FRAME_BOUNDARY_H_
