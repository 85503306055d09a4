// Messages for any status the tool may print: library result codes, and the
// negative statuses of the authorization engine once it is linked in.
#ifndef VELK2_TOOLS_VELK2_MESSAGES_H_
#define VELK2_TOOLS_VELK2_MESSAGES_H_

#include <string>

namespace velk2::cli {

// The message of |value|: a negative value read as a 32-bit engine status is
// the engine's text; a status of the crypto library says so with its number;
// anything else is the library's message of the result code.
std::string MessageOf(long long value);

// Undecided: whether a result means that the question could not be decided
// (an engine status or a crypto library status passed through), as opposed
// to an answer.
bool Undecided(long long value);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_MESSAGES_H_
