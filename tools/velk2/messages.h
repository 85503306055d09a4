// Messages for any status the tool prints: library result codes, the
// authorization engine's statuses and the crypto library's, as the library
// names them (api::MessageOf).
#ifndef VELK2_TOOLS_VELK2_MESSAGES_H_
#define VELK2_TOOLS_VELK2_MESSAGES_H_

#include <string>

#include "trust/tool_api.h"

namespace velk2::cli {

// The message of a status.
std::string StatusMessage(api::Result code);
// "CODE MESSAGE" with the code printed signed.
std::string StatusText(api::Result code);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_MESSAGES_H_
