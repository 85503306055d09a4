// Work that must never block, run where blocking cannot hang the tests: in
// a child process that an alarm ends.
#ifndef VELK2_TESTS_MANIFEST_IN_CHILD_H_
#define VELK2_TESTS_MANIFEST_IN_CHILD_H_

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>

namespace velk2::testing {

// Runs |work| in a child process; what it returns comes back through a
// pipe. No value: the child blocked until the alarm ended it, or crashed.
inline std::optional<std::string> InChild(const std::function<std::string()>& work) {
  int fds[2];
  if (::pipe(fds) != 0) return std::nullopt;
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(fds[0]);
    ::alarm(120);
    const std::string out = work();
    for (size_t done = 0; done < out.size();) {
      const ssize_t n = ::write(fds[1], out.data() + done, out.size() - done);
      if (n <= 0) _exit(2);
      done += static_cast<size_t>(n);
    }
    _exit(0);
  }
  ::close(fds[1]);
  std::string out;
  char buffer[4096];
  for (ssize_t n; child > 0 && (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) {
    out.append(buffer, static_cast<size_t>(n));
  }
  ::close(fds[0]);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return std::nullopt;
  }
  return out;
}

}  // namespace velk2::testing

#endif  // VELK2_TESTS_MANIFEST_IN_CHILD_H_
