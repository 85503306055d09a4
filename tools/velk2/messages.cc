#include "tools/velk2/messages.h"

#include <cstdint>

namespace velk2::cli {

std::string StatusMessage(api::Result code) {
  return api::MessageOf(static_cast<int32_t>(code));
}

std::string StatusText(api::Result code) {
  return std::to_string(static_cast<int32_t>(code)) + " " + StatusMessage(code);
}

}  // namespace velk2::cli
