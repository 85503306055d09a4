// The progress line of the commands that hash a package (verify, manifest
// sign): files and bytes hashed, the share done and the time left, redrawn
// five times a second on stderr when it is a terminal, never elsewhere.
#ifndef VELK2_TOOLS_VELK2_PROGRESS_H_
#define VELK2_TOOLS_VELK2_PROGRESS_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "platform/progress.h"

namespace velk2::cli {

struct ProgressState {
  uint64_t files = 0, bytes = 0;              // hashed so far
  uint64_t total_files = 0, total_bytes = 0;  // 0: not known
  double seconds = 0;                         // since the start
};

// The line's words: "hashed 3/10 files, 1.5/6.0 MiB (25%), 3.0 MiB/s, 2 s
// left"; the share from the bytes when their total is known, else from
// the files; no share and no time left without totals.
std::string ProgressText(const ProgressState& state);
// The text drawn over the line before it in |columns| columns: carriage
// return, the text cut to fit, then erase to the end of the line.
std::string ProgressLine(const std::string& text, size_t columns);

class Progress {
 public:
  // |wanted|: the command was not told --no-progress or --quiet. Nothing is
  // drawn unless stderr is a terminal too, and one that is not "dumb".
  explicit Progress(bool wanted);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool shown() const { return shown_; }
  // What the hashing code advances.
  HashCounters* counters() { return shown_ ? &counters_ : nullptr; }
  // Starts drawing, with the totals when known (0 otherwise).
  void Start(uint64_t files, uint64_t bytes);
  // Draws the last state and ends the line; the destructor does it too.
  void Stop();

 private:
  using Clock = std::chrono::steady_clock;
  void Draw();

  const bool shown_;
  HashCounters counters_;
  uint64_t total_files_ = 0, total_bytes_ = 0;
  Clock::time_point start_;
  std::thread drawer_;
  std::mutex mutex_;
  std::condition_variable stop_;
  bool stopping_ = false;
};

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_PROGRESS_H_
