#include "tools/velk2/messages.h"

#include <cstdint>

#include "velk2.h"

namespace velk2::cli {

std::string MessageOf(long long value) {
  // TODO(engine): negative engine statuses get the engine's own texts.
  return Velk2ErrorMessageA(static_cast<uint32_t>(value));
}

}  // namespace velk2::cli
