// Hash values: (4:hash algorithm digest), the credential object that names
// another object or a file by its digest. It stands as a principal, as the
// first element of a signature, in revocation entries and in manifests.
#ifndef VELK2_CREDENTIALS_HASH_VALUE_H_
#define VELK2_CREDENTIALS_HASH_VALUE_H_

#include <cstdint>
#include <string_view>
#include <vector>

#include "credentials/credential.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "platform/progress.h"
#include "platform/zcry.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

// One supported hash algorithm: its name in a hash value, the crypto module's
// identifier, and the digest length that a read hash value must have.
struct HashAlgorithm {
  const char* name;
  uint32_t id;
  uint32_t read_length;
};

// FindHashAlgorithm looks |name| up exactly and case-sensitively ("sha256",
// "sha1", "rmd160"); null for any other name.
const HashAlgorithm* FindHashAlgorithm(std::string_view name);
// FindHashAlgorithmById: the entry of identifier 0, 2 or 3; null otherwise
// (identifier 1 is never used).
const HashAlgorithm* FindHashAlgorithmById(uint32_t id);

class HashValue final : public Principal {
 public:
  explicit HashValue(Velk2Context* context = nullptr) : Principal(context) {}
  static Ref<HashValue> New(Velk2Context* context = nullptr) { return MakeRef<HashValue>(context); }
  // The object as a HashValue when it is one, else null.
  static const HashValue* From(const SexpObject* object);

  uint32_t ClassFlag() const override { return kClassHashValue; }

  // Parse reads "(4:hash" name digest ")". VELK2_ERR_INVALID_PARAM (2) for a
  // null source; the source's literal codes (6, 7) and the atom reader's codes
  // as they come; VELK2_ERR_HASH_ID (16) for a name other than "sha256",
  // "sha1", "rmd160" (deliberately not 13); VELK2_ERR_INVALID_HASH (12) unless
  // the digest has 32 bytes for "sha256" and 20 for every other name.
  Result Parse(SexpSource* source) override;

  // Begin starts building the hash of algorithm |id| into this empty object:
  // the children "hash" and the name are appended and a crypto hash is made.
  // 16 for an identifier other than 0, 2, 3; 2 when the object is not empty;
  // crypto codes as they come.
  Result Begin(uint32_t id);
  // Update feeds raw bytes; the crypto module's result.
  Result Update(const void* bytes, size_t length);
  // Absorb feeds |object|'s stored form (hint markers kept). 2 for a null
  // object; the object's HashInto result.
  Result Absorb(const SexpObject* object);
  // Finish completes the digest and appends it as the value (third child).
  // 2 when Begin has not run; 3 when memory runs out; crypto codes (a second
  // Finish gives the module's finished-hash code). The crypto hash stays held
  // until the object is destroyed.
  Result Finish();

  // The algorithm identifier (0, 2 or 3), -1 until known.
  int32_t algorithm() const { return algorithm_; }
  // The digest atom (third child), null until known.
  const SexpAtom* value() const { return value_.get(); }
  // The digest bytes; empty until known.
  std::string_view digest() const { return value_ ? value_->bytes() : std::string_view(); }
  // The digest length set by Begin (0 for a read hash value; see digest()).
  uint32_t built_length() const { return digest_length_; }

 protected:
  ~HashValue() override;

 private:
  uint32_t digest_length_ = 0;
  ZCRY_HASH hash_ = nullptr;
  int32_t algorithm_ = -1;
  Ref<SexpAtom> value_;
};

// HashFile computes the SHA-256 digest of the bytes of the file at |path|
// into |digest|. *length is the room in |digest|, or 0 for "large enough":
// less than 32 gives VELK2_ERR_BUFFER_OVERFLOW (30) with *length untouched;
// otherwise *length becomes 32. A file that cannot be opened (missing, a
// directory) gives VELK2_ERR_FILE_OPEN (7), a read error VELK2_ERR_READ_FILE
// (10), memory VELK2_ERR_MEM_ALLOC (3); after any failure from the opening
// on, *length is 0. Null arguments give VELK2_ERR_INVALID_PARAM (2). The file
// is read in large blocks; the digest does not depend on the block size.
Result HashFile(const char16_t* path, uint8_t* digest, uint32_t* length,
                const Velk2Context* context);

// HashDescriptor: the SHA-256 of what remains to be read from the open file
// |fd|, read in large blocks. |block| (optional) is a buffer kept between
// calls by a caller that hashes many files; |size| the regular file's size
// (a hint: a short read then ends the file), or -1 for a file of any kind;
// |counters| (optional) get every block's bytes.
// VELK2_ERR_READ_FILE (10) on a read error; crypto codes; 3 for memory.
Result HashDescriptor(int fd, uint8_t (&digest)[32], const Velk2Context* context,
                      std::vector<uint8_t>* block = nullptr, int64_t size = -1,
                      HashCounters* counters = nullptr);

// HashBytes: the SHA-256 of |bytes| (a symbolic link's target, for one).
// Crypto codes.
Result HashBytes(std::string_view bytes, uint8_t (&digest)[32],
                 const Velk2Context* context = nullptr);

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_HASH_VALUE_H_
