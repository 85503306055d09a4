#include "tools/velk2/messages.h"

#include <cstdint>

#include "engine/status.h"
#include "velk2.h"

namespace velk2::cli {
namespace {

bool IsEngineStatus(int32_t status) {
  for (int i = 0; i < engine::SpkiErrorCount(); ++i) {
    if (engine::SpkiErrorCodeAt(i) == status) return true;
  }
  return false;
}

}  // namespace

std::string MessageOf(long long value) {
  // An engine status reaches library callers as a 32-bit result, so
  // 4294967166 and -130 are the same status. Values the engine does not know
  // get the library's answer, "VELK_UNKNOWN_ERROR".
  auto status = static_cast<int32_t>(static_cast<uint32_t>(value));
  if (status < 0 && IsEngineStatus(status)) return engine::SpkiErrorMessageUtf8(status);
  return Velk2ErrorMessageA(static_cast<uint32_t>(value));
}

}  // namespace velk2::cli
