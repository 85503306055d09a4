// Reading the small files a person names on the command line (a
// configuration, a list of patterns, a passphrase): only a regular file,
// opened without blocking, so that a FIFO or a device named by mistake
// fails at once instead of waiting or reading forever.
#ifndef VELK2_TOOLS_ISSUING_SMALL_FILE_H_
#define VELK2_TOOLS_ISSUING_SMALL_FILE_H_

#include <cstddef>
#include <string>

namespace velk2::issuing {

enum class SmallFileProblem { kNone, kSystem, kNotRegular, kTooLarge };

// ReadSmallFile reads the regular file |path| of at most |max_bytes| into
// |out|. On a problem |out| is wiped and empty, and for kSystem
// |error_number| holds the errno of the call that failed.
SmallFileProblem ReadSmallFile(const std::string& path, size_t max_bytes, std::string* out,
                               int* error_number);
// The problem in words: the system's reason, "not a regular file", or
// "larger than 64 KiB" (|max_bytes| in KiB or MiB).
std::string SmallFileProblemText(SmallFileProblem problem, int error_number, size_t max_bytes);

}  // namespace velk2::issuing

#endif  // VELK2_TOOLS_ISSUING_SMALL_FILE_H_
