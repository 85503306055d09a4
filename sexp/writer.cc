// The output forms of atoms and lists: canonical and text buffers, the stored
// form in files and hashes, and the token stream. The byte layouts are binding:
// signatures and digests are computed over them.
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "platform/files.h"
#include "sexp/char_class.h"
#include "sexp/object.h"

namespace velk2 {
namespace {

using sexp_internal::IsPrintableByte;

// Counts how deep the list operations of this thread are nested, so that a
// list nested past kMaxWriteDepth (or appended to itself) is refused instead
// of exhausting the stack. A counter rather than a depth argument keeps the
// virtual operations' signatures, so classes that override them still count.
thread_local uint32_t list_depth = 0;

class NestingScope {
 public:
  NestingScope() : allowed_(++list_depth <= kMaxWriteDepth) {}
  NestingScope(const NestingScope&) = delete;
  NestingScope& operator=(const NestingScope&) = delete;
  ~NestingScope() { --list_depth; }
  bool allowed() const { return allowed_; }

 private:
  bool allowed_;
};

constexpr Result kTooDeep = VELK2_ERR_INVALID_S_EXPRESSION;

// The marker written before an atom of |hint| in the stored form.
const char* HintMarker(DisplayHint hint) {
  switch (hint) {
    case kHintBin:
      return "[bin]";
    case kHintUtf8:
      return "[utf-8]";
    case kHintNum:
      return "[num]";
    default:
      return "";
  }
}

// The length header "%u:" of an atom; returns its size.
// The "%u:" header, without printf: every atom written or hashed formats one.
uint32_t FormatHeader(uint32_t length, char (&header)[16]) {
  char* end = std::to_chars(header, header + sizeof(header) - 2, length).ptr;
  *end++ = ':';
  *end = '\0';
  return static_cast<uint32_t>(end - header);
}

uint32_t SaturatingAdd(uint32_t a, uint32_t b) {
  return a > UINT32_MAX - b ? UINT32_MAX : a + b;
}

Result AppendCanonicalAt(const SexpObject& object, std::string* text) {
  if (!object.IsList()) {
    const SexpAtom& atom = *object.AsAtom();
    char header[16];
    text->append(header, FormatHeader(atom.length(), header));
    if (atom.length() != 0) text->append(reinterpret_cast<const char*>(atom.data()), atom.length());
    return VELK2_SUCCESS;
  }
  NestingScope scope;
  if (!scope.allowed()) return kTooDeep;
  text->push_back('(');
  for (const Ref<SexpObject>& child : object.AsList()->children()) {
    Result result = AppendCanonicalAt(*child, text);
    if (result != VELK2_SUCCESS) return result;
  }
  text->push_back(')');
  // ToCanonicalBuffer's length is 32 bits, UINT32_MAX meaning "cannot".
  if (text->size() >= UINT32_MAX) return kTooDeep;
  return VELK2_SUCCESS;
}

}  // namespace

Result AppendCanonical(const SexpList* list, std::string* text) {
  if (list == nullptr || text == nullptr) return VELK2_ERR_PARAM_NULL;
  return AppendCanonicalAt(*list, text);
}

// ---- Atoms ---------------------------------------------------------------------

Result SexpAtom::HashInto(ZCRY_HASH handle, bool skip_hints) const {
  const uint32_t word = context_word();
  if (!skip_hints) {
    const char* marker = HintMarker(hint());
    if (*marker != '\0') {
      Result result = zcry_HashUpdate(handle, marker, std::strlen(marker), word);
      if (result != VELK2_SUCCESS) return result;
    }
  }
  char header[16];
  uint32_t header_size = FormatHeader(length_, header);
  Result result = zcry_HashUpdate(handle, header, header_size, word);
  if (result != VELK2_SUCCESS || length_ == 0) return result;
  return zcry_HashUpdate(handle, data(), length_, word);
}

uint32_t SexpAtom::CanonicalLength() const {
  char header[16];
  return SaturatingAdd(FormatHeader(length_, header), length_);
}

uint32_t SexpAtom::AdvancedLength() const {
  return SaturatingAdd(length_, 1);
}

Result SexpAtom::WriteCanonical(uint8_t* buffer, uint32_t* position, uint32_t capacity) const {
  if (buffer == nullptr || position == nullptr) return VELK2_ERR_INVALID_PARAM;
  char header[16];
  const uint32_t header_size = FormatHeader(length_, header);
  if (uint64_t{*position} + header_size > capacity) return VELK2_ERR_BUFFER_OVERFLOW;
  std::memcpy(buffer + *position, header, header_size);
  *position += header_size;
  // The header stays written when the data does not fit.
  if (uint64_t{*position} + length_ > capacity) return VELK2_ERR_BUFFER_OVERFLOW;
  if (length_ != 0) std::memcpy(buffer + *position, data(), length_);
  *position += length_;
  return VELK2_SUCCESS;
}

Result SexpAtom::WriteAdvanced(char* buffer, uint32_t* position, uint32_t capacity) const {
  if (buffer == nullptr || position == nullptr) return VELK2_ERR_INVALID_PARAM;
  if (uint64_t{*position} + length_ + 1 >= capacity) return VELK2_ERR_BUFFER_OVERFLOW;
  if (length_ != 0) std::memcpy(buffer + *position, data(), length_);
  *position += length_;
  buffer[*position] = '\0';
  return VELK2_SUCCESS;
}

Result SexpAtom::EmitTokens(TokenCallback callback, void* user, uint32_t /*depth*/) const {
  if (callback == nullptr) return VELK2_SUCCESS;
  const char* bytes = reinterpret_cast<const char*>(data());
  switch (hint_) {
    case kHintNone:
      // Only printable atoms become tokens; an empty one is an empty token.
      for (uint32_t i = 0; i < length_; ++i) {
        if (!IsPrintableByte(data()[i])) return VELK2_SUCCESS;
      }
      callback(length_ ? bytes : "", length_, user);
      return VELK2_SUCCESS;
    case kHintUtf8:
      callback(length_ ? bytes : "", length_, user);
      return VELK2_SUCCESS;
    case kHintNum: {
      // Only the first byte, as a number: the hint marks one-byte values.
      if (length_ == 0) return VELK2_SUCCESS;
      char number[32];
      int size = std::snprintf(number, sizeof(number), "%d", static_cast<int>(data()[0]));
      callback(number, static_cast<size_t>(size), user);
      return VELK2_SUCCESS;
    }
    default:  // binary atoms have no token form
      return VELK2_SUCCESS;
  }
}

Result SexpAtom::WriteToFile(std::FILE* stream) const {
  if (stream == nullptr) return VELK2_ERR_PARAM_NULL;
  const char* marker = HintMarker(hint());
  const size_t marker_size = std::strlen(marker);
  if (WriteBytes(stream, marker, marker_size) != marker_size) return VELK2_ERR_WRITE_FILE;
  char header[16];
  const uint32_t header_size = FormatHeader(length_, header);
  if (WriteBytes(stream, header, header_size) != header_size) return VELK2_ERR_WRITE_FILE;
  if (length_ != 0 && WriteBytes(stream, data(), length_) != length_) {
    return VELK2_ERR_WRITE_FILE;
  }
  return VELK2_SUCCESS;
}

// ---- Lists ---------------------------------------------------------------------

Result SexpList::HashInto(ZCRY_HASH handle, bool skip_hints) const {
  NestingScope scope;
  if (!scope.allowed()) return kTooDeep;
  const uint32_t word = context_word();
  Result result = zcry_HashUpdate(handle, "(", 1, word);
  if (result != VELK2_SUCCESS) return result;
  for (const Ref<SexpObject>& child : children()) {
    result = child->HashInto(handle, skip_hints);
    if (result != VELK2_SUCCESS) return result;
  }
  return zcry_HashUpdate(handle, ")", 1, word);
}

uint32_t SexpList::CanonicalLength() const {
  NestingScope scope;
  if (!scope.allowed()) return UINT32_MAX;
  uint32_t total = 2;
  for (const Ref<SexpObject>& child : children()) {
    total = SaturatingAdd(total, child->CanonicalLength());
  }
  return total;
}

uint32_t SexpList::AdvancedLength() const {
  NestingScope scope;
  if (!scope.allowed()) return UINT32_MAX;
  uint32_t total = 2 + 1;  // "(", ")" and the terminator
  for (const Ref<SexpObject>& child : children()) {
    total = SaturatingAdd(total, child->AdvancedLength());
  }
  if (!children().empty()) {  // one space per gap
    const size_t gaps = children().size() - 1;
    total = SaturatingAdd(total, gaps > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(gaps));
  }
  return total;
}

Result SexpList::WriteCanonical(uint8_t* buffer, uint32_t* position, uint32_t capacity) const {
  if (buffer == nullptr || position == nullptr) return VELK2_ERR_INVALID_PARAM;
  NestingScope scope;
  if (!scope.allowed()) return kTooDeep;
  if (uint64_t{*position} + 1 >= capacity) return VELK2_ERR_BUFFER_OVERFLOW;
  buffer[(*position)++] = '(';
  for (const Ref<SexpObject>& child : children()) {
    // A child that does not fit is passed over on purpose: the ")" check
    // below reports the overflow. Only a refusal to nest deeper stops here.
    if (child->WriteCanonical(buffer, position, capacity) == kTooDeep) return kTooDeep;
  }
  if (uint64_t{*position} + 1 >= capacity) return VELK2_ERR_BUFFER_OVERFLOW;
  buffer[(*position)++] = ')';
  return VELK2_SUCCESS;
}

Result SexpList::WriteAdvanced(char* buffer, uint32_t* position, uint32_t capacity) const {
  if (buffer == nullptr || position == nullptr) return VELK2_ERR_INVALID_PARAM;
  NestingScope scope;
  if (!scope.allowed()) return kTooDeep;
  if (uint64_t{*position} + 1 >= capacity) return VELK2_ERR_BUFFER_OVERFLOW;
  buffer[(*position)++] = '(';
  for (size_t i = 0; i < children().size(); ++i) {
    if (children()[i]->WriteAdvanced(buffer, position, capacity) == kTooDeep) return kTooDeep;
    if (i + 1 == children().size()) break;
    // The separator needs no room check while the children fit; after one
    // did not, it must still stay inside the buffer.
    if (*position >= capacity) return VELK2_ERR_BUFFER_OVERFLOW;
    buffer[(*position)++] = ' ';
  }
  if (uint64_t{*position} + 2 >= capacity) return VELK2_ERR_BUFFER_OVERFLOW;
  buffer[(*position)++] = ')';
  buffer[*position] = '\0';
  return VELK2_SUCCESS;
}

Result SexpList::EmitTokens(TokenCallback callback, void* user, uint32_t depth) const {
  NestingScope scope;
  if (!scope.allowed()) return kTooDeep;
  if (callback == nullptr) return VELK2_SUCCESS;
  if (depth > 0) callback("(", 1, user);
  for (size_t i = 0; i < children().size(); ++i) {
    if (i > 0) callback(" ", 1, user);
    if (children()[i]->EmitTokens(callback, user, depth + 1) == kTooDeep) return kTooDeep;
  }
  if (depth > 0) callback(")", 1, user);
  return VELK2_SUCCESS;
}

Result SexpList::WriteToFile(std::FILE* stream) const {
  if (stream == nullptr) return VELK2_ERR_INVALID_PARAM;
  NestingScope scope;
  if (!scope.allowed()) return kTooDeep;
  if (WriteBytes(stream, "(", 1) != 1) return VELK2_ERR_WRITE_FILE;
  for (const Ref<SexpObject>& child : children()) {
    Result result = child->WriteToFile(stream);
    if (result != VELK2_SUCCESS) return result;
  }
  if (WriteBytes(stream, ")", 1) != 1) return VELK2_ERR_WRITE_FILE;
  return VELK2_SUCCESS;
}

std::string StoredForm(const SexpObject& object) {
  char* bytes = nullptr;
  size_t size = 0;
  std::FILE* stream = open_memstream(&bytes, &size);
  if (stream == nullptr) return {};
  const bool written = object.WriteToFile(stream) == VELK2_SUCCESS;
  const bool closed = std::fclose(stream) == 0;
  std::string stored;
  if (written && closed) {
    try {
      stored.assign(bytes, size);
    } catch (const std::bad_alloc&) {
      stored.clear();
    }
  }
  std::free(bytes);
  return stored;
}

}  // namespace velk2
