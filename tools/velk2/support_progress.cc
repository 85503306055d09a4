// The progress line of the commands that hash a package: drawn on stderr
// when it is a terminal, never elsewhere.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/velk2/progress.h"

namespace velk2::cli {
namespace {

std::string Mebibytes(uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", static_cast<double>(bytes) / (1 << 20));
  return text;
}

// The terminal's width in columns, 80 when it does not say.
size_t TerminalWidth() {
  struct winsize size {};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}

}  // namespace

std::string ProgressText(const ProgressState& state) {
  std::string text = "hashed " + std::to_string(state.files);
  if (state.total_files > 0) text += "/" + std::to_string(state.total_files);
  text += " files, " + Mebibytes(state.bytes);
  // Sizes recorded in the manifest make the bytes the measure; without
  // them, the files are.
  double done = -1;
  if (state.total_bytes > 0) {
    text += "/" + Mebibytes(state.total_bytes);
    done = static_cast<double>(state.bytes) / static_cast<double>(state.total_bytes);
  } else if (state.total_files > 0) {
    done = static_cast<double>(state.files) / static_cast<double>(state.total_files);
  }
  text += " MiB";
  done = std::min(done, 1.0);
  if (done >= 0) text += " (" + std::to_string(static_cast<int>(done * 100)) + "%)";
  if (state.seconds > 0) {
    char rate[48];
    std::snprintf(rate, sizeof rate, ", %.1f MiB/s",
                  static_cast<double>(state.bytes) / (1 << 20) / state.seconds);
    text += rate;
  }
  if (done > 0 && done < 1) {
    text += ", " + std::to_string(static_cast<long>(state.seconds * (1 - done) / done + 0.5)) +
            " s left";
  }
  return text;
}

std::string ProgressLine(const std::string& text, size_t columns) {
  // The text is ASCII: a byte is a column. The last column stays free, so
  // that a terminal that wraps at the margin does not move to a new line.
  const size_t room = columns > 1 ? columns - 1 : 1;
  return "\r" + text.substr(0, room) + "\x1b[K";
}

namespace {

// A terminal that can erase a line: "dumb" ones cannot.
bool DrawableTerminal() {
  if (::isatty(STDERR_FILENO) != 1) return false;
  const char* term = std::getenv("TERM");
  return term == nullptr || std::strcmp(term, "dumb") != 0;
}

}  // namespace

Progress::Progress(bool wanted) : shown_(wanted && DrawableTerminal()) {}

Progress::~Progress() {
  Stop();
}

void Progress::Start(uint64_t files, uint64_t bytes) {
  if (!shown_ || drawer_.joinable()) return;
  total_files_ = files;
  total_bytes_ = bytes;
  start_ = Clock::now();
  drawer_ = std::thread([this] {
    std::unique_lock<std::mutex> lock(mutex_);
    // Five times a second, and between files too: one big file moves it.
    while (!stop_.wait_for(lock, std::chrono::milliseconds(200), [this] { return stopping_; })) {
      Draw();
    }
  });
}

void Progress::Stop() {
  if (!drawer_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  stop_.notify_all();
  drawer_.join();
  Draw();
  std::fputs("\n", stderr);
}

void Progress::Draw() {
  ProgressState state;
  state.files = counters_.files.load(std::memory_order_relaxed);
  state.bytes = counters_.bytes.load(std::memory_order_relaxed);
  state.total_files = total_files_;
  state.total_bytes = total_bytes_;
  state.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  std::fputs(ProgressLine(ProgressText(state), TerminalWidth()).c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace velk2::cli
