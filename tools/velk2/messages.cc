#include "tools/velk2/messages.h"

#include <cstdint>

#include "trust/authorize.h"
#include "engine/status.h"
#include "platform/zcry.h"
#include "velk2.h"

namespace velk2::cli {
namespace {

// An engine status reaches library callers as a 32-bit result, so
// 4294967166 and -130 are the same status.
int32_t AsStatus(long long value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

}  // namespace

std::string MessageOf(long long value) {
  const int32_t status = AsStatus(value);
  if (status < 0 && IsEngineResult(static_cast<Result>(status))) {
    return engine::SpkiErrorMessageUtf8(status);
  }
  if (status == engine::kEngineArenaUnavailable) {
    return "the authorization engine could not get memory to start";
  }
  // The crypto library's statuses pass through the library unchanged.
  if (ZcryIsStatus(static_cast<uint32_t>(value))) {
    const bool failed = value == ZCRY_E_NO_MEMORY || value == ZCRY_E_INTERNAL;
    return std::string(failed ? "the crypto library failed"
                              : "the crypto library refused the key") +
           " (status " + std::to_string(value) + ")";
  }
  // Values nobody knows get the library's answer, "VELK_UNKNOWN_ERROR".
  return Velk2ErrorMessageA(static_cast<uint32_t>(value));
}

bool Undecided(long long value) {
  return IsUndecided(static_cast<Result>(static_cast<uint32_t>(value)));
}

}  // namespace velk2::cli
