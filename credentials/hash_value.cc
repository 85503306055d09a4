#include "credentials/hash_value.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "frame/guard.h"
#include "platform/files.h"
#include "sexp/reader.h"

namespace velk2 {

namespace {

// Looked up in this order: "sha256" first, then "sha1", then "rmd160".
constexpr HashAlgorithm kHashAlgorithms[] = {
    {"sha256", ZCRY_HASH_SHA256, 32},
    {"sha1", ZCRY_HASH_SHA1, 20},
    {"rmd160", ZCRY_HASH_RIPEMD160, 20},
};

// HashFile's read size. Large blocks keep the read loop out of the way of the
// hash: the cost per block is a system call and a copy from the page cache.
constexpr size_t kFileBlockSize = 256 * 1024;

Result DigestLength(uint32_t id, uint32_t* length) {
  zcry_HashInfoRecord info{};
  info.words[0] = sizeof(info);
  Result result = zcry_HashInfo(id, &info);
  if (result == VELK2_SUCCESS) *length = info.words[6];
  return result;
}

}  // namespace

const HashAlgorithm* FindHashAlgorithm(std::string_view name) {
  for (const HashAlgorithm& algorithm : kHashAlgorithms) {
    if (name == algorithm.name) return &algorithm;
  }
  return nullptr;
}

const HashAlgorithm* FindHashAlgorithmById(uint32_t id) {
  for (const HashAlgorithm& algorithm : kHashAlgorithms) {
    if (algorithm.id == id) return &algorithm;
  }
  return nullptr;
}

const HashValue* HashValue::From(const SexpObject* object) {
  const SexpList* list = object ? object->AsList() : nullptr;
  return list && list->ClassFlag() == kClassHashValue ? static_cast<const HashValue*>(list)
                                                      : nullptr;
}

HashValue::~HashValue() {
  if (hash_ != nullptr) zcry_HashFree(hash_, context_word());
}

Result HashValue::Parse(SexpSource* source) {
  if (source == nullptr || ChildCount() != 0 || hash_ != nullptr) return VELK2_ERR_INVALID_PARAM;
  Result result = source->Expect("(4:hash");
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpAtom> name;
  result = ReadCanonicalAtom(&name, source, context());
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpAtom> digest;
  result = ReadCanonicalAtom(&digest, source, context());
  if (result != VELK2_SUCCESS) return result;

  const HashAlgorithm* algorithm = FindHashAlgorithm(name->bytes());
  if (algorithm == nullptr) return VELK2_ERR_HASH_ID;
  // Two-way on purpose: 32 bytes for "sha256", 20 for every other name.
  if (digest->length() != algorithm->read_length) return VELK2_ERR_INVALID_HASH;
  algorithm_ = static_cast<int32_t>(algorithm->id);

  result = AppendTextAtom("hash");
  if (result != VELK2_SUCCESS) return result;
  result = Append(std::move(name));
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpAtom> value = digest;
  result = Append(std::move(digest));
  if (result != VELK2_SUCCESS) return result;
  value_ = std::move(value);
  return source->Expect(")");
}

Result HashValue::Begin(uint32_t id) {
  const HashAlgorithm* algorithm = FindHashAlgorithmById(id);
  if (algorithm == nullptr) return VELK2_ERR_HASH_ID;
  if (ChildCount() != 0 || hash_ != nullptr) return VELK2_ERR_INVALID_PARAM;
  algorithm_ = static_cast<int32_t>(id);
  Result result = zcry_HashAlloc(&hash_, id, context_word());
  if (result != VELK2_SUCCESS) return result;
  result = DigestLength(id, &digest_length_);
  if (result != VELK2_SUCCESS) return result;
  result = AppendTextAtom("hash");
  if (result != VELK2_SUCCESS) return result;
  return AppendTextAtom(algorithm->name);
}

Result HashValue::Update(const void* bytes, size_t length) {
  return zcry_HashUpdate(hash_, bytes, length, context_word());
}

Result HashValue::Absorb(const SexpObject* object) {
  if (object == nullptr) return VELK2_ERR_INVALID_PARAM;
  return object->HashInto(hash_, false);
}

Result HashValue::Finish() {
  if (hash_ == nullptr || digest_length_ == 0) return VELK2_ERR_INVALID_PARAM;
  return Guard([&]() -> Result {
    Ref<SexpAtom> atom = SexpAtom::New(context());
    Result result = atom->ResizeBytes(digest_length_);
    if (result != VELK2_SUCCESS) return result;
    result = zcry_HashFinal(hash_, atom->mutable_data(), context_word());
    if (result != VELK2_SUCCESS) return result;
    Ref<SexpAtom> value = atom;
    result = Append(std::move(atom));
    if (result != VELK2_SUCCESS) return result;
    value_ = std::move(value);
    return VELK2_SUCCESS;
  });
}

Result HashDescriptor(int fd, uint8_t (&digest)[32], const Velk2Context* context,
                      std::vector<uint8_t>* block, int64_t size, HashCounters* counters) {
  const uint32_t word = ContextWord(context);
  ZCRY_HASH hash = nullptr;
  std::vector<uint8_t> own;
  if (block == nullptr) block = &own;
  const Result result = [&]() -> Result {
    Result status = zcry_HashAlloc(&hash, ZCRY_HASH_SHA256, word);
    if (status != VELK2_SUCCESS) return status;
    if (block->size() < kFileBlockSize) block->resize(kFileBlockSize);
    // Read-ahead advice pays only for files that take more than a read or two.
    if (size < 0 || size > static_cast<int64_t>(kFileBlockSize)) {
      (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    for (;;) {
      const ssize_t got = ::read(fd, block->data(), kFileBlockSize);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return VELK2_ERR_READ_FILE;
      if (got == 0) break;
      status = zcry_HashUpdate(hash, block->data(), static_cast<size_t>(got), word);
      if (status != VELK2_SUCCESS) return status;
      if (counters != nullptr) {
        counters->bytes.fetch_add(static_cast<uint64_t>(got), std::memory_order_relaxed);
      }
      // A regular file reads short only at its end: no read to learn it again.
      if (size >= 0 && static_cast<size_t>(got) < kFileBlockSize) break;
    }
    return zcry_HashFinal(hash, digest, word);
  }();
  if (hash != nullptr) zcry_HashFree(hash, word);
  return result;
}

Result HashBytes(std::string_view bytes, uint8_t (&digest)[32], const Velk2Context* context) {
  const uint32_t word = ContextWord(context);
  ZCRY_HASH hash = nullptr;
  Result result = zcry_HashAlloc(&hash, ZCRY_HASH_SHA256, word);
  if (result == VELK2_SUCCESS) result = zcry_HashUpdate(hash, bytes.data(), bytes.size(), word);
  if (result == VELK2_SUCCESS) result = zcry_HashFinal(hash, digest, word);
  if (hash != nullptr) zcry_HashFree(hash, word);
  return result;
}

Result HashFile(const char16_t* path, uint8_t* digest, uint32_t* length,
                const Velk2Context* context) {
  if (path == nullptr || digest == nullptr || length == nullptr) return VELK2_ERR_INVALID_PARAM;
  uint32_t size = 0;
  Result result = DigestLength(ZCRY_HASH_SHA256, &size);
  if (result != VELK2_SUCCESS) return result;
  // A length of 0 means that the caller's buffer is large enough.
  if (*length != 0 && *length < size) return VELK2_ERR_BUFFER_OVERFLOW;
  *length = size;
  FileHandle file = OpenFile(path, static_cast<uint32_t>(OpenMode::kRead));
  if (file == nullptr) {
    result = VELK2_ERR_FILE_OPEN;
  } else {
    uint8_t sha256[32];
    result = HashDescriptor(::fileno(file.get()), sha256, context);
    if (result == VELK2_SUCCESS) std::memcpy(digest, sha256, sizeof sha256);
  }
  if (result != VELK2_SUCCESS) *length = 0;
  return result;
}

}  // namespace velk2
