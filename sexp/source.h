// Byte sources of the canonical reader: a buffer that the source owns, filled
// from the caller or from a whole file, read through a ByteCursor.
#ifndef VELK2_SEXP_SOURCE_H_
#define VELK2_SEXP_SOURCE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "frame/result.h"
#include "platform/cursor.h"

namespace velk2 {

// Modes of SexpSource::Expect. A required or optional literal is consumed
// when it matches (the caller decides whether a mismatch is an error); a peek
// never moves the position on a match.
enum ExpectMode : uint32_t {
  kExpectRequired = 0,
  kExpectPeek = 1,
  kExpectOptional = 3,
};

// Expect's length for "the literal's strlen" (any value from 0xFFFFFFFE up).
constexpr uint32_t kLiteralLength = 0xFFFFFFFFu;
// The largest file LoadFile reads (1 MiB), kept on purpose: credential files
// are small and are read whole.
constexpr uint32_t kMaxSourceFileSize = 0x100000;

// Origins of SexpSource::Seek.
enum SeekOrigin : uint32_t {
  kSeekCurrent = 0,  // relative to the position
  kSeekSet = 1,      // absolute
  kSeekEnd = 2,      // counted back from the end
};

class SexpSource {
 public:
  SexpSource() = default;
  SexpSource(const SexpSource&) = delete;
  SexpSource& operator=(const SexpSource&) = delete;
  virtual ~SexpSource() = default;

  // Attach takes |bytes| as the data; the position stays 0.
  // VELK2_ERR_INVALID_DATA (6) when data is already present,
  // VELK2_ERR_INVALID_PARAM (2) when they exceed 2^31 - 1 bytes.
  virtual Result Attach(std::vector<uint8_t> bytes) = 0;
  // LoadFile reads the whole file at |path| as the data. 6 when data is
  // already present or the path does not exist; VELK2_ERR_MEM_ALLOC (3) for a
  // file over kMaxSourceFileSize bytes; VELK2_ERR_FILE_OPEN (7) when it cannot
  // be opened or fewer bytes arrive than its size, and for anything that is
  // not a regular file (a directory, FIFO or device is never read).
  virtual Result LoadFile(const char16_t* path) = 0;
  // Expect matches |literal| (|length| bytes, or its strlen for
  // kLiteralLength) at the position. 2 without data or literal. When it would
  // run past the end VELK2_ERR_FILE_OPEN (7) is returned, and a required
  // literal moves the position to the end (an optional or peeked one leaves
  // it, so that the field is simply absent). A different byte gives
  // VELK2_ERR_INVALID_DATA (6) with the position kept. On a match the
  // required and optional modes move past the literal, any other mode peeks.
  virtual Result Expect(const char* literal, uint32_t length = kLiteralLength,
                        uint32_t mode = kExpectRequired) = 0;
  // Seek moves the position relative to |origin|. -1, position kept, without
  // data, for an unknown origin, or when the target is negative or past the
  // end (the end itself is allowed); 0 on success.
  virtual int Seek(int64_t offset, uint32_t origin) = 0;
  // GetByte: the byte at the position (0..255), moving on by one when
  // |advance|; -1 without data or at the end.
  virtual int GetByte(bool advance) = 0;
  // Read copies |count| bytes, or those up to the end when fewer are left,
  // and returns how many (moving past them when |advance|); -1 without data,
  // with a null buffer, or at the end.
  virtual int32_t Read(void* buffer, uint32_t count, bool advance) = 0;
  // The cursor over the data, for the canonical reader's byte loop (its
  // fast path): the position it moves is the source's own. Never null; empty
  // without data.
  virtual ByteCursor* cursor() = 0;
};

// The one source: a byte buffer held in memory. Its length and position are
// signed 32-bit values, so a source holds at most 2^31 - 1 bytes.
class SexpMemorySource final : public SexpSource {
 public:
  SexpMemorySource() = default;

  Result Attach(std::vector<uint8_t> bytes) override;
  Result LoadFile(const char16_t* path) override;
  Result Expect(const char* literal, uint32_t length = kLiteralLength,
                uint32_t mode = kExpectRequired) override;
  int Seek(int64_t offset, uint32_t origin) override;
  int GetByte(bool advance) override;
  int32_t Read(void* buffer, uint32_t count, bool advance) override;
  ByteCursor* cursor() override { return &cursor_; }

  // AttachCopy attaches a copy of |length| bytes (as Attach).
  Result AttachCopy(const void* bytes, size_t length);

  bool has_data() const { return has_data_; }
  int32_t length() const { return static_cast<int32_t>(cursor_.size()); }
  int32_t position() const { return static_cast<int32_t>(cursor_.position()); }
  const uint8_t* data() const { return data_.data(); }
  // Detach hands the data over and leaves the source without any.
  std::vector<uint8_t> Detach();

 private:
  bool has_data_ = false;
  std::vector<uint8_t> data_;
  ByteCursor cursor_;  // over data_
};

// NewMemorySource and NewFileSource make a source and Attach or LoadFile;
// null when that fails.
std::unique_ptr<SexpMemorySource> NewMemorySource(std::vector<uint8_t> bytes);
std::unique_ptr<SexpMemorySource> NewFileSource(const char16_t* path);

}  // namespace velk2

#endif  // VELK2_SEXP_SOURCE_H_
