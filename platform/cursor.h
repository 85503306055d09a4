// ByteCursor: the one way velk2 walks bytes it did not write. A read position
// over bytes that someone else owns, checked against the end on every read.
// Each read either succeeds whole and moves past what it read, or fails and
// leaves the position where it was: there are no partial reads and no way to
// step outside [0, size]. Non-virtual and inline, so the readers' byte loops
// run on it at full speed.
#ifndef VELK2_PLATFORM_CURSOR_H_
#define VELK2_PLATFORM_CURSOR_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace velk2 {

// The deepest list nesting a credential may have: the authorization engine
// refuses anything deeper, the toolkit never writes it, and the library's
// reader derives its own (larger) limit from it.
inline constexpr int kMaxNesting = 64;

class ByteCursor {
 public:
  ByteCursor() = default;
  ByteCursor(const void* data, size_t size)
      : data_(static_cast<const uint8_t*>(data)), size_(data == nullptr ? 0 : size) {}
  explicit ByteCursor(std::string_view text) : ByteCursor(text.data(), text.size()) {}

  size_t size() const { return size_; }
  size_t position() const { return position_; }
  size_t remaining() const { return size_ - position_; }
  bool at_end() const { return position_ == size_; }
  // The first byte, and the byte at the position (for spans that point into
  // the bytes: they stay valid as long as the bytes do).
  const uint8_t* data() const { return data_; }
  const uint8_t* here() const { return data_ + position_; }

  // The byte at the position, or |ahead| bytes further; -1 past the end.
  int Peek() const { return position_ < size_ ? data_[position_] : -1; }
  int PeekAt(size_t ahead) const { return ahead < remaining() ? data_[position_ + ahead] : -1; }
  // The byte at the position, moving past it; -1 (not moved) at the end.
  int Next() { return position_ < size_ ? data_[position_++] : -1; }

  // Skip moves past |count| bytes; false, not moved, when fewer are left.
  bool Skip(size_t count) {
    if (count > remaining()) return false;
    position_ += count;
    return true;
  }
  // Take moves past |count| bytes and points |*bytes| at them; false, not
  // moved, when fewer are left.
  bool Take(size_t count, const uint8_t** bytes) {
    if (count > remaining()) return false;
    *bytes = here();
    position_ += count;
    return true;
  }
  // StartsWith: the bytes at the position begin with |literal|.
  bool StartsWith(std::string_view literal) const {
    return literal.size() <= remaining() &&
           (literal.empty() || std::memcmp(here(), literal.data(), literal.size()) == 0);
  }
  // Match moves past |literal| when the bytes at the position begin with it.
  bool Match(std::string_view literal) { return StartsWith(literal) && Skip(literal.size()); }
  // Seek moves to |position|; false, not moved, past the end.
  bool Seek(size_t position) {
    if (position > size_) return false;
    position_ = position;
    return true;
  }
  // SkipWhile moves past the bytes for which |test| holds; how many.
  template <typename Test>
  size_t SkipWhile(Test test) {
    const size_t start = position_;
    while (position_ < size_ && test(data_[position_])) ++position_;
    return position_ - start;
  }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  size_t position_ = 0;
};

}  // namespace velk2

#endif  // VELK2_PLATFORM_CURSOR_H_
