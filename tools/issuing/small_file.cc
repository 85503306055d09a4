#include "tools/issuing/small_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/files.h"
#include "tools/issuing/private_key.h"

namespace velk2::issuing {

SmallFileProblem ReadSmallFile(const std::string& path, size_t max_bytes, std::string* out,
                               int* error_number) {
  out->clear();
  *error_number = 0;
  const Descriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat st {};
  if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0) {
    *error_number = errno;
    return SmallFileProblem::kSystem;
  }
  if (!S_ISREG(st.st_mode)) return SmallFileProblem::kNotRegular;
  // One byte more than allowed tells a file that is, or grew, too large.
  out->resize(max_bytes + 1);
  size_t filled = 0;
  while (filled < out->size()) {
    const ssize_t n = ::read(fd.get(), out->data() + filled, out->size() - filled);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *error_number = errno;
      Wipe(out);
      return SmallFileProblem::kSystem;
    }
    if (n == 0) break;
    filled += static_cast<size_t>(n);
  }
  if (filled > max_bytes) {
    Wipe(out);
    return SmallFileProblem::kTooLarge;
  }
  out->resize(filled);
  return SmallFileProblem::kNone;
}

std::string SmallFileProblemText(SmallFileProblem problem, int error_number, size_t max_bytes) {
  switch (problem) {
    case SmallFileProblem::kNone:
      return std::string();
    case SmallFileProblem::kSystem:
      return std::strerror(error_number);
    case SmallFileProblem::kNotRegular:
      return "not a regular file";
    case SmallFileProblem::kTooLarge:
      break;
  }
  return max_bytes % (1 << 20) == 0 ? "larger than " + std::to_string(max_bytes >> 20) + " MiB"
                                    : "larger than " + std::to_string(max_bytes >> 10) + " KiB";
}

}  // namespace velk2::issuing
