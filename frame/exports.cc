// The exported frame: context, store roots, versions, conversions, messages.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "frame/boundary.h"
#include "frame/context.h"
#include "frame/paths.h"
#include "frame/result.h"
#include "frame/text.h"
#include "platform/utf.h"
#include "velk2.h"

using namespace velk2;

namespace {

constexpr int32_t kVersionNumber = 10100;

// The A forms of the directory setters drop the result on purpose: they return void.
void SetRootA(Result (*setter)(const char16_t*), const char* path) {
  CBuffer<char16_t> wide(Utf8ToWide(path, -1, nullptr));
  setter(wide.get());
}

}  // namespace

extern "C" {

VELK2_EXPORT VELK2_RESULT Velk2Init(Velk2Context** context_out, uint32_t word) {
  // A null out-pointer is accepted and nothing is made: callers rely on it.
  if (context_out == nullptr) return VELK2_SUCCESS;
  *context_out = nullptr;
  return Guard([&]() -> Result {
    *context_out = std::make_unique<Velk2Context>(word).release();
    return VELK2_SUCCESS;
  });
}

VELK2_EXPORT VELK2_RESULT Velk2FreeContext(Velk2Context* context) {
  if (context == nullptr) return VELK2_SUCCESS;
  // Anything but a live context (freed twice, or another object) is refused
  // rather than freed.
  std::unique_ptr<Velk2Context> owned(FromOpaque<Velk2Context>(context));
  return owned != nullptr ? VELK2_SUCCESS : VELK2_ERR_INVALID_PARAM;
}

VELK2_EXPORT VELK2_RESULT Velk2HomeDirectory(const char16_t* path) {
  return SetHomeDirectory(path);
}

VELK2_EXPORT void Velk2HomeDirectoryA(const char* path) {
  SetRootA(SetHomeDirectory, path);
}

VELK2_EXPORT VELK2_RESULT Velk2GlobalDirectory(const char16_t* path) {
  return SetGlobalDirectory(path);
}

VELK2_EXPORT void Velk2GlobalDirectoryA(const char* path) {
  SetRootA(SetGlobalDirectory, path);
}

VELK2_EXPORT char* Velk2WideToAscii(const char16_t* wide, int32_t length, uint32_t* out_length) {
  char* text = WideToUtf8(wide, length, nullptr);
  if (out_length != nullptr) *out_length = text ? static_cast<uint32_t>(std::strlen(text)) : 0;
  return text;
}

VELK2_EXPORT char16_t* Velk2AsciiToWide(const char* text, int32_t length, uint32_t* out_length) {
  char16_t* wide = Utf8ToWide(text, length, nullptr);
  // Units here, unlike the internal converter, which reports bytes.
  if (out_length != nullptr) *out_length = static_cast<uint32_t>(WideLength(wide));
  return wide;
}

VELK2_EXPORT void Velk2Free(void* pointer) {
  std::free(pointer);
}

VELK2_EXPORT uint32_t Velk2DoNothing(uint32_t value) {
  return value;
}

VELK2_EXPORT int32_t Velk2VersionNumber(void) {
  return kVersionNumber;
}

VELK2_EXPORT const char16_t* Velk2VersionExtra(void) {
  return u"dev";
}

VELK2_EXPORT const char* Velk2VersionExtraA(void) {
  return "dev";
}

VELK2_EXPORT const char16_t* Velk2ErrorMessage(VELK2_RESULT code) {
  return ErrorMessage(code);
}

VELK2_EXPORT const char* Velk2ErrorMessageA(VELK2_RESULT code) {
  return ErrorMessageUtf8(code);
}

VELK2_EXPORT uint32_t FreeFileItemList(FileItem* list) {
  uint32_t freed = 0;
  while (list != nullptr) {
    FileItem* next = list->next;
    std::free(list->wide_name);
    std::free(list->wide_value);
    // The narrow strings may share the wide ones' memory.
    if (static_cast<void*>(list->name) != static_cast<void*>(list->wide_name))
      std::free(list->name);
    if (static_cast<void*>(list->value) != static_cast<void*>(list->wide_value)) {
      std::free(list->value);
    }
    std::free(list);
    list = next;
    ++freed;
  }
  return freed;
}

}  // extern "C"
