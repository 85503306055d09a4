#include "engine/keywords.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <string>

namespace velk2::engine {
namespace {

#define VELK2_KW(text) \
  { sizeof(text) - 1, text }

// Indexed by id 0..127; ids 1..127 follow the byte order of their texts.
constexpr KeywordText kKeywordText[128] = {
    VELK2_KW("???"),
    VELK2_KW("*"),
    VELK2_KW("a"),
    VELK2_KW("acl"),
    VELK2_KW("alpha"),
    VELK2_KW("b"),
    VELK2_KW("ber"),
    VELK2_KW("binary"),
    VELK2_KW("biometric"),
    VELK2_KW("c"),
    VELK2_KW("canceled"),
    VELK2_KW("cert"),
    VELK2_KW("comment"),
    VELK2_KW("crl"),
    VELK2_KW("custom"),
    VELK2_KW("d"),
    VELK2_KW("date"),
    VELK2_KW("db-delete"),
    VELK2_KW("db-exec-stored-query"),
    VELK2_KW("db-insert"),
    VELK2_KW("db-modify"),
    VELK2_KW("db-read"),
    VELK2_KW("dbs-create"),
    VELK2_KW("dbs-delete"),
    VELK2_KW("decrypt"),
    VELK2_KW("delete"),
    VELK2_KW("delta-crl"),
    VELK2_KW("der"),
    VELK2_KW("derive"),
    VELK2_KW("display"),
    VELK2_KW("do"),
    VELK2_KW("dsa"),
    VELK2_KW("dsa-sha1"),
    VELK2_KW("e"),
    VELK2_KW("elgamal"),
    VELK2_KW("encrypt"),
    VELK2_KW("entry"),
    VELK2_KW("export-clear"),
    VELK2_KW("export-wrapped"),
    VELK2_KW("g"),
    VELK2_KW("ge"),
    VELK2_KW("genkey"),
    VELK2_KW("hash"),
    VELK2_KW("haval"),
    VELK2_KW("ibchash"),
    VELK2_KW("import-clear"),
    VELK2_KW("import-wrapped"),
    VELK2_KW("intel"),
    VELK2_KW("issuer"),
    VELK2_KW("issuer-info"),
    VELK2_KW("k-of-n"),
    VELK2_KW("kea"),
    VELK2_KW("keyholder"),
    VELK2_KW("l"),
    VELK2_KW("le"),
    VELK2_KW("login"),
    VELK2_KW("login-name"),
    VELK2_KW("mac"),
    VELK2_KW("md2"),
    VELK2_KW("md2withrsa"),
    VELK2_KW("md4"),
    VELK2_KW("md5"),
    VELK2_KW("md5withrsa"),
    VELK2_KW("n"),
    VELK2_KW("name"),
    VELK2_KW("ndr"),
    VELK2_KW("nhash"),
    VELK2_KW("not-after"),
    VELK2_KW("not-before"),
    VELK2_KW("null"),
    VELK2_KW("numeric"),
    VELK2_KW("object-hash"),
    VELK2_KW("one-time"),
    VELK2_KW("online"),
    VELK2_KW("owner"),
    VELK2_KW("p"),
    VELK2_KW("pam-name"),
    VELK2_KW("password"),
    VELK2_KW("pgp"),
    VELK2_KW("prefix"),
    VELK2_KW("private-key"),
    VELK2_KW("prompted-password"),
    VELK2_KW("propagate"),
    VELK2_KW("protected-biometric"),
    VELK2_KW("protected-password"),
    VELK2_KW("protected-pin"),
    VELK2_KW("public-key"),
    VELK2_KW("public-key-from-cert"),
    VELK2_KW("q"),
    VELK2_KW("range"),
    VELK2_KW("reval"),
    VELK2_KW("ripemac"),
    VELK2_KW("ripemd"),
    VELK2_KW("ripemd160"),
    VELK2_KW("rsa"),
    VELK2_KW("rsa-iso9796"),
    VELK2_KW("rsa-pkcs"),
    VELK2_KW("rsa-pkcs-md5"),
    VELK2_KW("rsa-pkcs-sha1"),
    VELK2_KW("rsa-pkcs1"),
    VELK2_KW("rsa-pkcs1-md5"),
    VELK2_KW("rsa-pkcs1-sha1"),
    VELK2_KW("rsa-pkcs1-sig"),
    VELK2_KW("rsa-raw"),
    VELK2_KW("sdsiv1"),
    VELK2_KW("sequence"),
    VELK2_KW("set"),
    VELK2_KW("sexpr"),
    VELK2_KW("sha1"),
    VELK2_KW("sha1withdsa"),
    VELK2_KW("sha1withecdsa"),
    VELK2_KW("sha1withrsa"),
    VELK2_KW("sign"),
    VELK2_KW("signature"),
    VELK2_KW("signed-nonce"),
    VELK2_KW("signed-secret"),
    VELK2_KW("spki"),
    VELK2_KW("subject"),
    VELK2_KW("subject-info"),
    VELK2_KW("tag"),
    VELK2_KW("threshold"),
    VELK2_KW("time"),
    VELK2_KW("uri"),
    VELK2_KW("version"),
    VELK2_KW("x509-attribute"),
    VELK2_KW("x509v1"),
    VELK2_KW("x509v2"),
    VELK2_KW("x509v3"),
};

// The ids 65536..65539, which stand apart from the alphabetical numbering.
constexpr KeywordText kHighKeywordText[4] = {
    VELK2_KW("and"),
    VELK2_KW("hashed-password"),
    VELK2_KW("prompted-biometric"),
    VELK2_KW("valid"),
};

#undef VELK2_KW

struct Recognised {
  const char* text;
  int32_t id;
};

// The words the lookup recognises, in byte order. The other words of the
// text table are printable but never produced by the lookup.
constexpr Recognised kRecognised[] = {
    {"*", 1},
    {"a", 2},
    {"acl", 3},
    {"alpha", 4},
    {"and", 65536},
    {"b", 5},
    {"binary", 7},
    {"c", 9},
    {"canceled", 10},
    {"cert", 11},
    {"comment", 12},
    {"crl", 13},
    {"d", 15},
    {"date", 16},
    {"delta-crl", 26},
    {"display", 29},
    {"do", 30},
    {"dsa-sha1", 32},
    {"e", 33},
    {"entry", 36},
    {"g", 39},
    {"ge", 40},
    {"hash", 42},
    {"issuer", 48},
    {"issuer-info", 49},
    {"k-of-n", 50},
    {"keyholder", 52},
    {"l", 53},
    {"le", 54},
    {"md5", 61},
    {"n", 63},
    {"name", 64},
    {"not-after", 67},
    {"not-before", 68},
    {"null", 69},
    {"numeric", 70},
    {"object-hash", 71},
    {"one-time", 72},
    {"online", 73},
    {"p", 75},
    {"prefix", 79},
    {"private-key", 80},
    {"propagate", 82},
    {"public-key", 86},
    {"q", 88},
    {"range", 89},
    {"reval", 90},
    {"rsa-pkcs1", 99},
    {"rsa-pkcs1-md5", 100},
    {"rsa-pkcs1-sha1", 101},
    {"rsa-pkcs1-sig", 102},
    {"sequence", 105},
    {"set", 106},
    {"sha1", 108},
    {"sha256", 129},
    {"signature", 113},
    {"subject", 117},
    {"subject-info", 118},
    {"tag", 119},
    {"time", 121},
    {"uri", 122},
    {"valid", 65539},
    {"version", 123},
};

static_assert(std::size(kRecognised) == 63);

// The longest word the lookup recognises ("rsa-pkcs1-sha1").
constexpr size_t kLongestRecognised = 14;

// A word of up to 16 bytes as two little-endian words, zero-padded: the
// lookup compares two integers instead of two strings.
struct Packed {
  uint64_t low;
  uint64_t high;
  friend constexpr bool operator==(const Packed&, const Packed&) = default;
};

constexpr Packed PackText(const char* text) {
  Packed packed{0, 0};
  for (size_t i = 0; text[i] != '\0'; ++i) {
    const uint64_t byte = static_cast<unsigned char>(text[i]);
    if (i < 8) {
      packed.low |= byte << (8 * i);
    } else {
      packed.high |= byte << (8 * (i - 8));
    }
  }
  return packed;
}

// The recognised words in an open-addressed table of 128 slots, placed at
// compile time: a lookup hashes the packed word and compares one or two
// slots instead of every word of the same length.
struct WordTable {
  struct Slot {
    Packed packed;
    int32_t id;  // kKeywordNone: an empty slot
  };
  Slot slots[128];
};

constexpr size_t SlotOf(const Packed& packed) {
  const uint64_t mixed =
      packed.low * 0x9E3779B97F4A7C15ull ^ (packed.high + 1) * 0xC2B2AE3D27D4EB4Full;
  return static_cast<size_t>(mixed >> 57);
}

constexpr WordTable MakeWordTable() {
  WordTable table{};
  for (WordTable::Slot& slot : table.slots) slot = {{0, 0}, kKeywordNone};
  for (const Recognised& word : kRecognised) {
    const Packed packed = PackText(word.text);
    size_t i = SlotOf(packed);
    while (table.slots[i].id != kKeywordNone) i = (i + 1) % std::size(table.slots);
    table.slots[i] = {packed, word.id};
  }
  return table;
}

constexpr WordTable kWordTable = MakeWordTable();

constexpr size_t LongestWord() {
  size_t longest = 0;
  for (const Recognised& word : kRecognised) {
    longest = std::max(longest, std::char_traits<char>::length(word.text));
  }
  return longest;
}
static_assert(LongestWord() == kLongestRecognised, "kLongestRecognised is not the longest word");

// A little-endian load of a Word (8 or 4 bytes), whatever the machine's order.
template <typename Word>
uint64_t LoadLittle(const uint8_t* bytes) {
  Word value = 0;
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(&value, bytes, sizeof value);
  } else {
    for (size_t i = 0; i < sizeof value; ++i) value |= Word{bytes[i]} << (8 * i);
  }
  return value;
}

// PackText for |word| bytes (1 to 16), read without a byte loop and never
// past the word: two loads that overlap in the middle give the same bytes.
Packed PackBytes(const uint8_t* bytes, size_t word) {
  if (word >= 8) {
    const uint64_t tail =
        word == 8 ? 0 : LoadLittle<uint64_t>(bytes + word - 8) >> (8 * (16 - word));
    return {LoadLittle<uint64_t>(bytes), tail};
  }
  if (word >= 4) {
    return {LoadLittle<uint32_t>(bytes) | LoadLittle<uint32_t>(bytes + word - 4)
                                              << (8 * (word - 4)),
            0};
  }
  uint64_t low = bytes[0];
  if (word >= 2) low |= uint64_t{bytes[1]} << 8;
  if (word == 3) low |= uint64_t{bytes[2]} << 16;
  return {low, 0};
}

}  // namespace

int32_t KeywordId(const uint8_t* bytes, uint32_t length) {
  if (bytes == nullptr || length == 0) return kKeywordNone;
  // An atom's word ends at its first NUL: the lookup has always compared the
  // bytes as a C string, so "tag" followed by a NUL and anything is still tag.
  const size_t scanned = std::min<size_t>(length, kLongestRecognised + 1);
  Packed packed = PackBytes(bytes, scanned);
  // The first NUL among the scanned bytes (the padding past them is NUL too):
  // a byte of a word is flagged when it is zero, and only bytes above a zero
  // byte can be flagged wrongly, so the lowest flag is the first NUL.
  constexpr uint64_t kOnes = 0x0101010101010101ull;
  constexpr uint64_t kHighs = 0x8080808080808080ull;
  const uint64_t low_zeros = (packed.low - kOnes) & ~packed.low & kHighs;
  const uint64_t high_zeros = (packed.high - kOnes) & ~packed.high & kHighs;
  const size_t first_zero = low_zeros != 0    ? std::countr_zero(low_zeros) / 8
                            : high_zeros != 0 ? 8 + std::countr_zero(high_zeros) / 8
                                              : 16;
  const size_t word = std::min(first_zero, scanned);
  // A fifteenth byte that is not a NUL: longer than any word.
  if (word == 0 || word > kLongestRecognised) return kKeywordNone;
  if (word < 8) {
    packed.low &= (uint64_t{1} << (8 * word)) - 1;
    packed.high = 0;
  } else if (word > 8) {
    packed.high &= (uint64_t{1} << (8 * (word - 8))) - 1;
  } else {
    packed.high = 0;
  }
  for (size_t i = SlotOf(packed);; i = (i + 1) % std::size(kWordTable.slots)) {
    const WordTable::Slot& slot = kWordTable.slots[i];
    if (slot.id == kKeywordNone || slot.packed == packed) return slot.id;
  }
}

const KeywordText& KeywordTextOf(int32_t id) {
  if (id >= 0 && id < 128) return kKeywordText[id];
  if (id >= 65536 && id <= 65539) return kHighKeywordText[id - 65536];
  return kKeywordText[0];
}

}  // namespace velk2::engine
