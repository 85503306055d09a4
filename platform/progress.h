// Counters that hashing code advances and a caller showing progress reads
// from another thread.
#ifndef VELK2_PLATFORM_PROGRESS_H_
#define VELK2_PLATFORM_PROGRESS_H_

#include <atomic>
#include <cstdint>

namespace velk2 {

// The bytes read so far (counted block by block, so one big file moves
// them too) and the files finished. Relaxed counts: a display needs no
// ordering with the data.
struct HashCounters {
  std::atomic<uint64_t> bytes{0};
  std::atomic<uint64_t> files{0};
};

}  // namespace velk2

#endif  // VELK2_PLATFORM_PROGRESS_H_
