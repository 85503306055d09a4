// Principals of the reduction: digests through the crypto module, interning
// by digest, and hash principals matched with the keys they name.
#include <charconv>
#include <cstring>
#include <new>

#include "engine/keywords.h"
#include "engine/printer.h"
#include "engine/reduce_internal.h"
#include "platform/utf.h"
#include "platform/zcry.h"

namespace velk2::engine {

Status MapCryptoStatus(uint32_t crypto_status) {
  switch (crypto_status) {
    case ZCRY_OK:
      return SPKI_OK;
    case ZCRY_E_NULL_ARGUMENT:
      return SPKI_ERR_NULL_PARAM;
    case ZCRY_E_UNKNOWN_ALGORITHM:
    case ZCRY_E_UNKNOWN_HASH:
      return SPKI_ERR_UNKNOWN_HASH;
    case ZCRY_E_NO_MEMORY:
      return SPKI_ERR_NO_MEM;
    case ZCRY_E_BAD_KEY:
    case ZCRY_E_BAD_SCHEME:
    case ZCRY_E_BAD_PARAMETERS:
    case ZCRY_E_BAD_DIGEST_LENGTH:
      return SPKI_ERR_UNKNOWN;
    default:
      return SPKI_OK;
  }
}

namespace {

// A hash computation over engine nodes in canonical form.
class NodeHasher {
 public:
  NodeHasher(uint32_t context, uint32_t algorithm) : context_(context) {
    status_ = MapCryptoStatus(zcry_HashAlloc(&handle_, algorithm, context_));
  }
  ~NodeHasher() { zcry_HashFree(handle_, context_); }
  NodeHasher(const NodeHasher&) = delete;
  NodeHasher& operator=(const NodeHasher&) = delete;

  Status status() const { return status_; }

  Status Bytes(const void* bytes, size_t count) {
    if (status_ != SPKI_OK || count == 0) return status_;
    status_ = MapCryptoStatus(zcry_HashUpdate(handle_, bytes, count, context_));
    return status_;
  }

  // "length:bytes", the canonical form of a byte string.
  Status String(const void* bytes, uint32_t length) {
    char prefix[16];
    auto [end, error] = std::to_chars(prefix, prefix + sizeof(prefix) - 1, length);
    (void)error;  // ten digits always fit
    *end++ = ':';
    Bytes(prefix, static_cast<size_t>(end - prefix));
    return Bytes(bytes, length);
  }

  Status Atom(const EngineAtom* atom) {
    if (atom->hint_length != 0) {
      Bytes("[", 1);
      String(atom->hint, atom->hint_length);
      Bytes("]", 1);
    }
    return String(atom->bytes, atom->length);
  }

  // A list: its parsed text when it still has it, else each node in turn.
  Status List(const EngineNode* head, int depth) {
    if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
    if (head->source != nullptr && head->source_length != 0) {
      return Bytes(head->source, head->source_length);
    }
    Bytes("(", 1);
    for (const EngineNode* node = head; node != nullptr && status_ == SPKI_OK; node = node->next) {
      switch (node->kind) {
        case kNodeKeywordHead: {
          const KeywordText& text = KeywordTextOf(KeywordOf(node));
          String(text.text, text.length);
          break;
        }
        case kNodeAtomHead:
        case kNodeAtom:
          if (AtomOf(node) == nullptr) return SPKI_ERR_UNKNOWN;
          Atom(AtomOf(node));
          break;
        case kNodeSublist: {
          if (SublistOf(node) == nullptr) return SPKI_ERR_UNKNOWN;
          Status status = List(SublistOf(node), depth + 1);
          if (status != SPKI_OK) return status;
          break;
        }
        default:
          return SPKI_ERR_UNKNOWN;
      }
    }
    return Bytes(")", 1);
  }

  // The digest is zeroed first: a final that fails with a status that maps
  // to 0 then leaves a fixed value, never stale bytes.
  Status Final(uint8_t* digest, size_t size) {
    std::memset(digest, 0, size);
    if (status_ != SPKI_OK) return status_;
    status_ = MapCryptoStatus(zcry_HashFinal(handle_, digest, context_));
    return status_;
  }

 private:
  uint32_t context_;
  ZCRY_HASH handle_ = nullptr;
  Status status_ = SPKI_OK;
};

Status DigestList(uint32_t context, uint32_t algorithm, const EngineNode* node, uint8_t* digest,
                  size_t size) {
  NodeHasher hasher(context, algorithm);
  Status status = hasher.status();
  if (status == SPKI_OK) status = hasher.List(node, 1);
  uint8_t full[64];
  Status final = hasher.Final(full, sizeof(full));
  if (status == SPKI_OK) status = final;
  std::memcpy(digest, full, size);
  return status;
}

bool AtomIs(const EngineAtom* atom, const char* text) {
  size_t length = std::strlen(text);
  return atom->hint_length == 0 && atom->length == length &&
         std::memcmp(atom->bytes, text, length) == 0;
}

}  // namespace

Status PrincipalDigest(uint32_t crypto_context, const EngineNode* node,
                       uint8_t digest[kPrincipalDigestSize]) {
  if (node == nullptr || digest == nullptr) return SPKI_ERR_NULL_PARAM;
  return DigestList(crypto_context, ZCRY_HASH_SHA256, node, digest, kPrincipalDigestSize);
}

std::string DigestHex(const uint8_t digest[kPrincipalDigestSize]) {
  return HexString(digest, kPrincipalDigestSize);
}

namespace reduce {

Status Reducer::RegisterKeys(const EngineNode* list, int depth) {
  if (list == nullptr) return SPKI_OK;
  if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
  if (IsKeywordList(list, kKeywordPublicKey)) return RegisterKey(const_cast<EngineNode*>(list));
  for (const EngineNode* node = list->next; node != nullptr; node = node->next) {
    if (node->kind != kNodeSublist) continue;
    Status status = RegisterKeys(SublistOf(node), depth + 1);
    if (status != SPKI_OK) return status;
  }
  return SPKI_OK;
}

Status Reducer::RegisterKey(EngineNode* key) {
  Principal* principal = nullptr;
  Status status = InternKey(key, &principal);
  if (status == SPKI_OK) registered_.Add(key, principal);
  return status;
}

namespace {

size_t KeySlotOf(const EngineNode* list, size_t mask) {
  // Records are at least 8-byte aligned: the low bits carry nothing.
  const auto address = reinterpret_cast<uintptr_t>(list) >> 3;
  return static_cast<size_t>(address * 0x9E3779B97F4A7C15ull >> 20) & mask;
}

}  // namespace

void Reducer::RegisteredKeys::Add(const EngineNode* list, Principal* principal) {
  if (keys.size() >= UINT32_MAX - 1) return;
  try {
    keys.push_back({list, principal});
  } catch (const std::bad_alloc&) {
    // Not kept: the walk interns the list again.
  }
  table.clear();
}

Principal* Reducer::RegisteredKeys::Find(const EngineNode* list) {
  constexpr size_t kLookAhead = 4;
  for (size_t i = next; i < keys.size() && i < next + kLookAhead; ++i) {
    if (keys[i].list == list) {
      next = i + 1;
      return keys[i].principal;
    }
  }
  if (keys.empty()) return nullptr;
  if (table.empty()) {
    size_t size = 64;
    while (size < 2 * keys.size()) size *= 2;
    try {
      table.assign(size, 0);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    for (size_t k = 0; k < keys.size(); ++k) {
      size_t i = KeySlotOf(keys[k].list, size - 1);
      while (table[i] != 0) i = (i + 1) & (size - 1);
      table[i] = static_cast<uint32_t>(k + 1);
    }
  }
  const size_t mask = table.size() - 1;
  for (size_t i = KeySlotOf(list, mask); table[i] != 0; i = (i + 1) & mask) {
    const size_t k = table[i] - 1;
    if (keys[k].list == list) {
      next = k + 1;
      return keys[k].principal;
    }
  }
  return nullptr;
}

Status Reducer::InternKey(EngineNode* key, Principal** out) {
  *out = nullptr;
  uint8_t digest[kPrincipalDigestSize];
  Status status = PrincipalDigest(crypto_, key, digest);
  if (status != SPKI_OK) return status;
  Principal* principal = principal_index_.Find(digest);
  if (principal != nullptr) {
    if (!principal->is_key) {
      // Met first as a hash of its digest; now the key itself is known.
      AssignNode(engine_, &principal->node, key);
      principal->is_key = 1;
      principal->next_key = principal_index_.keys;
      principal_index_.keys = principal;
    }
    *out = principal;
    return SPKI_OK;
  }
  status = NewPrincipal(digest, key, &principal);
  if (status != SPKI_OK) return status;
  principal->is_key = 1;
  principal->next_key = principal_index_.keys;
  principal_index_.keys = principal;
  *out = principal;
  return SPKI_OK;
}

// A hash principal: (hash ALGORITHM VALUE). A SHA-256 value is the digest
// under which its key is interned; a SHA-1 or RIPEMD-160 value is matched
// against the keys met so far. A hash that names no key met stands for
// itself, interned under the digest of its own text.
Status Reducer::InternHash(EngineNode* hash, Principal** out) {
  *out = nullptr;
  if (!IsKeywordList(hash, kKeywordHash)) return SPKI_ERR_NOT_HASH;
  const EngineNode* algorithm = hash->next;
  const EngineNode* value = algorithm != nullptr ? algorithm->next : nullptr;
  if (algorithm == nullptr || algorithm->kind != kNodeAtom || value == nullptr ||
      value->kind != kNodeAtom || value->next != nullptr) {
    return SPKI_ERR_BAD_HASH_FORMAT;
  }
  struct Algorithm {
    const char* name;
    uint32_t id;
    uint32_t size;
  };
  static constexpr Algorithm kAlgorithms[] = {{"sha256", ZCRY_HASH_SHA256, 32},
                                              {"sha1", ZCRY_HASH_SHA1, 20},
                                              {"rmd160", ZCRY_HASH_RIPEMD160, 20},
                                              {"ripemd160", ZCRY_HASH_RIPEMD160, 20}};
  const Algorithm* known = nullptr;
  for (const Algorithm& candidate : kAlgorithms) {
    if (AtomIs(AtomOf(algorithm), candidate.name)) known = &candidate;
  }
  if (known == nullptr) return SPKI_ERR_UNKNOWN_HASH;
  const EngineAtom* bytes = AtomOf(value);
  if (bytes->length != known->size) return SPKI_ERR_HASH_LENGTHS_DIFFER;

  uint8_t digest[kPrincipalDigestSize];
  if (known->id == ZCRY_HASH_SHA256) {
    std::memcpy(digest, bytes->bytes, kPrincipalDigestSize);
  } else {
    for (Principal* key = principal_index_.keys; key != nullptr; key = key->next_key) {
      Status status = Step();
      if (status != SPKI_OK) return status;
      uint8_t* cached = known->id == ZCRY_HASH_SHA1 ? key->sha1 : key->rmd160;
      uint8_t* has = known->id == ZCRY_HASH_SHA1 ? &key->has_sha1 : &key->has_rmd160;
      if (!*has) {
        status = DigestList(crypto_, known->id, key->node, cached, known->size);
        if (status != SPKI_OK) return status;
        *has = 1;
      }
      if (std::memcmp(cached, bytes->bytes, known->size) == 0) {
        *out = key;
        return SPKI_OK;
      }
    }
    Status status = PrincipalDigest(crypto_, hash, digest);
    if (status != SPKI_OK) return status;
  }
  Principal* principal = principal_index_.Find(digest);
  if (principal != nullptr) {
    *out = principal;
    return SPKI_OK;
  }
  return NewPrincipal(digest, hash, out);
}

// Interns a new principal under |digest|, holding |node| (its key or hash
// list).
Status Reducer::NewPrincipal(const uint8_t digest[kPrincipalDigestSize], EngineNode* node,
                             Principal** out) {
  IndexEntry* entry = index_entries_.Take(engine_.arena());
  Principal* principal = principals_.Take(engine_.arena());
  if (entry == nullptr || principal == nullptr) {
    if (entry != nullptr) index_entries_.Give(entry);
    if (principal != nullptr) principals_.Give(principal);
    return SPKI_ERR_NO_MEM;
  }
  std::memcpy(principal->digest, digest, kPrincipalDigestSize);
  AssignNode(engine_, &principal->node, node);
  std::memcpy(entry->digest, digest, kPrincipalDigestSize);
  entry->principal = principal;
  if (!principal_index_.Insert(entry)) {
    AssignNode(engine_, &principal->node, nullptr);
    index_entries_.Give(entry);
    principals_.Give(principal);
    return SPKI_ERR_NO_MEM;
  }
  ++stats_.principals;
  *out = principal;
  return SPKI_OK;
}

Status Reducer::PrincipalOf(EngineNode* head, Principal** out) {
  *out = nullptr;
  if (IsKeywordList(head, kKeywordPublicKey)) {
    *out = registered_.Find(head);
    return *out != nullptr ? SPKI_OK : InternKey(head, out);
  }
  if (IsKeywordList(head, kKeywordHash)) return InternHash(head, out);
  return SPKI_ERR_PRINCIPAL_EXPECTED;
}

// The digest of a principal's digest followed by the canonical form of a
// name: the key of name definitions and references.
Status Reducer::NameDigest(const Principal* principal, const EngineAtom* name,
                           uint8_t digest[kPrincipalDigestSize]) {
  NodeHasher hasher(crypto_, ZCRY_HASH_SHA256);
  hasher.Bytes(principal->digest, kPrincipalDigestSize);
  Status status = hasher.Atom(name);
  uint8_t full[64];
  Status final = hasher.Final(full, sizeof(full));
  if (status == SPKI_OK) status = final;
  std::memcpy(digest, full, kPrincipalDigestSize);
  return status;
}

}  // namespace reduce
}  // namespace velk2::engine
