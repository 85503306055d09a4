// The memory source: its reads go through the bounds-checked cursor.
#include "sexp/source.h"

#include <cstring>
#include <new>
#include <utility>

#include "platform/files.h"

namespace velk2 {

Result SexpMemorySource::Attach(std::vector<uint8_t> bytes) {
  if (has_data_) return VELK2_ERR_INVALID_DATA;
  if (bytes.size() > static_cast<size_t>(INT32_MAX)) return VELK2_ERR_INVALID_PARAM;
  data_ = std::move(bytes);
  cursor_ = ByteCursor(data_.data(), data_.size());
  has_data_ = true;
  return VELK2_SUCCESS;
}

Result SexpMemorySource::AttachCopy(const void* bytes, size_t length) {
  if (has_data_) return VELK2_ERR_INVALID_DATA;
  if (length != 0 && bytes == nullptr) return VELK2_ERR_INVALID_PARAM;
  if (length > static_cast<size_t>(INT32_MAX)) return VELK2_ERR_INVALID_PARAM;
  try {
    const uint8_t* begin = static_cast<const uint8_t*>(bytes);
    return Attach(std::vector<uint8_t>(begin, begin + length));
  } catch (const std::bad_alloc&) {
    return VELK2_ERR_MEM_ALLOC;
  }
}

Result SexpMemorySource::LoadFile(const char16_t* path) {
  if (has_data_ || path == nullptr) return VELK2_ERR_INVALID_DATA;
  FileStatus status;
  if (StatFile(path, &status) != 0) return VELK2_ERR_INVALID_DATA;
  if (status.size > kMaxSourceFileSize) return VELK2_ERR_MEM_ALLOC;
  // Directories, FIFOs and devices do not open: a credential is a regular file.
  std::vector<uint8_t> bytes;
  const Result result = ReadWholeFile(path, kMaxSourceFileSize, &bytes);
  if (result != VELK2_SUCCESS) return result;
  return Attach(std::move(bytes));
}

std::vector<uint8_t> SexpMemorySource::Detach() {
  std::vector<uint8_t> data = std::move(data_);
  data_.clear();
  cursor_ = ByteCursor();
  has_data_ = false;
  return data;
}

Result SexpMemorySource::Expect(const char* literal, uint32_t length, uint32_t mode) {
  if (!has_data_ || literal == nullptr) return VELK2_ERR_INVALID_PARAM;
  const std::string_view wanted(literal, length >= 0xFFFFFFFEu ? std::strlen(literal) : length);
  if (wanted.size() > cursor_.remaining()) {
    // A required literal that runs past the end leaves the source at its end.
    // An optional or peeked one leaves the position alone: the credential
    // readers take such a field as absent and read on, and a short file (an
    // ACL entry with a small tag) must not lose its last bytes to the attempt.
    if (mode == kExpectRequired) cursor_.Seek(cursor_.size());
    return VELK2_ERR_FILE_OPEN;
  }
  if (!cursor_.StartsWith(wanted)) return VELK2_ERR_INVALID_DATA;
  if (mode == kExpectRequired || mode == kExpectOptional) cursor_.Skip(wanted.size());
  return VELK2_SUCCESS;
}

int SexpMemorySource::Seek(int64_t offset, uint32_t origin) {
  // No target is further away than the buffer is long; bounding the offset
  // first keeps the arithmetic below from wrapping.
  if (!has_data_ || offset < -int64_t{UINT32_MAX} || offset > int64_t{UINT32_MAX}) return -1;
  const int64_t position = static_cast<int64_t>(cursor_.position());
  const int64_t size = static_cast<int64_t>(cursor_.size());
  int64_t target;
  switch (origin) {
    case kSeekCurrent:
      target = position + offset;
      break;
    case kSeekSet:
      target = offset;
      break;
    case kSeekEnd:
      target = size - offset;
      break;
    default:
      return -1;
  }
  if (target < 0 || !cursor_.Seek(static_cast<size_t>(target))) return -1;
  return 0;
}

int SexpMemorySource::GetByte(bool advance) {
  if (!has_data_) return -1;
  return advance ? cursor_.Next() : cursor_.Peek();
}

int32_t SexpMemorySource::Read(void* buffer, uint32_t count, bool advance) {
  if (!has_data_ || buffer == nullptr || cursor_.at_end()) return -1;
  // A short read copies what is left: the caller compares the count.
  const size_t copied = count < cursor_.remaining() ? count : cursor_.remaining();
  std::memcpy(buffer, cursor_.here(), copied);
  if (advance) cursor_.Skip(copied);
  return static_cast<int32_t>(copied);
}

std::unique_ptr<SexpMemorySource> NewMemorySource(std::vector<uint8_t> bytes) {
  auto source = std::make_unique<SexpMemorySource>();
  if (source->Attach(std::move(bytes)) != VELK2_SUCCESS) return nullptr;
  return source;
}

std::unique_ptr<SexpMemorySource> NewFileSource(const char16_t* path) {
  auto source = std::make_unique<SexpMemorySource>();
  if (source->LoadFile(path) != VELK2_SUCCESS) return nullptr;
  return source;
}

}  // namespace velk2
