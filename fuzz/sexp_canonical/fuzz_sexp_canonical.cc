// The canonical reader on arbitrary bytes. Properties of every list it
// accepts: the stored form reads back to itself; when the input wrote every
// length canonically (no leading zeros, no bare ":") the stored form is the
// input byte for byte; the canonical buffer has CanonicalLength() bytes and
// its SHA-256 is the digest of the object with hints skipped; the text form
// and the tokens can be produced.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sexp/object.h"
#include "sexp/reader.h"
#include "sexp/source.h"

namespace {

using namespace velk2;
using fuzz::Check;
using fuzz::StoredOf;

// True when every atom of the accepted input |data| wrote its length without
// leading zeros and with at least one digit: then writing it back must give
// the same bytes.
bool HasCanonicalLengths(const uint8_t* data, size_t size) {
  size_t i = 0;
  while (i < size) {
    if (data[i] == '(' || data[i] == ')') {
      ++i;
      continue;
    }
    if (data[i] == '[') {
      while (i < size && data[i] != ']') ++i;
      ++i;
    }
    const size_t start = i;
    uint32_t length = 0;
    while (i < size && data[i] >= '0' && data[i] <= '9') length = length * 10 + (data[i++] - '0');
    if (i == start || (data[start] == '0' && i - start > 1)) return false;
    i += 1 + length;  // ":" and the bytes
  }
  return true;
}

std::string Sha256(const uint8_t* bytes, size_t size) {
  ZCRY_HASH handle = nullptr;
  Check(zcry_HashAlloc(&handle, ZCRY_HASH_SHA256, 0) == 0, "hash alloc");
  Check(zcry_HashUpdate(handle, bytes, size, 0) == 0, "hash update");
  uint8_t digest[32];
  Check(zcry_HashFinal(handle, digest, 0) == 0, "hash final");
  zcry_HashFree(handle, 0);
  return std::string(reinterpret_cast<char*>(digest), sizeof(digest));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SexpMemorySource source;
  if (source.AttachCopy(data, size) != VELK2_SUCCESS) return 0;
  Ref<SexpList> list;
  if (ParseCanonicalList(&list, &source, nullptr) != VELK2_SUCCESS) {
    Check(list == nullptr, "a failed read leaves no list");
    return 0;
  }
  const size_t consumed = static_cast<size_t>(source.position());

  const std::string stored = StoredOf(*list);
  if (HasCanonicalLengths(data, consumed)) {
    Check(stored == std::string(reinterpret_cast<const char*>(data), consumed),
          "the stored form is the input");
  }
  SexpMemorySource again;
  Check(again.AttachCopy(stored.data(), stored.size()) == VELK2_SUCCESS, "attach");
  Ref<SexpList> reread;
  Check(ParseCanonicalList(&reread, &again, nullptr) == VELK2_SUCCESS, "the stored form reads");
  Check(static_cast<size_t>(again.position()) == stored.size(), "and reads whole");
  Check(StoredOf(*reread) == stored, "and writes back the same");

  CBuffer<uint8_t> canonical;
  uint32_t canonical_size = 0;
  Check(ToCanonicalBuffer(list.get(), &canonical, &canonical_size) == VELK2_SUCCESS,
        "ToCanonicalBuffer");
  Check(canonical_size == list->CanonicalLength(), "canonical size");
  CBuffer<uint8_t> digest;
  uint32_t digest_size = 0;
  Check(ComputeHash(list.get(), &digest, &digest_size, ZCRY_HASH_SHA256, true) == VELK2_SUCCESS,
        "ComputeHash");
  Check(std::string(reinterpret_cast<char*>(digest.get()), digest_size) ==
            Sha256(canonical.get(), canonical_size),
        "hashing without hints digests the canonical form");
  Check(SameCanonicalForm(list.get(), reread.get()), "the reread list is the same object");

  Check(ToAdvancedText(list.get(), nullptr) != nullptr, "text form");
  size_t tokens = 0;
  auto count = [](const char*, size_t, void* user) {
    ++*static_cast<size_t*>(user);
    return 0;
  };
  Check(list->EmitTokens(count, &tokens, 0) == VELK2_SUCCESS, "tokens");
  return 0;
}
