// The engine's keyword vocabulary. The parser turns every atom without a
// display hint into a keyword id once; the tag algebra and the reduction
// switch on the ids, and the printer turns them back into text.
#ifndef VELK2_ENGINE_KEYWORDS_H_
#define VELK2_ENGINE_KEYWORDS_H_

#include <cstdint>

namespace velk2::engine {

// The ids the engine itself acts on. The text table covers 0..127 and
// 65536..65539; every other id prints as "???".
enum Keyword : int32_t {
  kKeywordNone = -1,  // not a keyword, or an atom with a display hint
  kKeywordUnknown = 0,
  kKeywordStar = 1,
  kKeywordAcl = 3,
  kKeywordAlpha = 4,
  kKeywordBinary = 7,
  kKeywordCert = 11,
  kKeywordDate = 16,
  kKeywordEntry = 36,
  kKeywordG = 39,
  kKeywordGe = 40,
  kKeywordHash = 42,
  kKeywordIssuer = 48,
  kKeywordKOfN = 50,
  kKeywordL = 53,
  kKeywordLe = 54,
  kKeywordName = 64,
  kKeywordNotAfter = 67,
  kKeywordNotBefore = 68,
  kKeywordNumeric = 70,
  kKeywordPrefix = 79,
  kKeywordPropagate = 82,
  kKeywordPublicKey = 86,
  kKeywordRange = 89,
  kKeywordSequence = 105,
  kKeywordSet = 106,
  kKeywordSubject = 117,
  kKeywordTag = 119,
  kKeywordTime = 121,
  // Recognised by the lookup but without a text entry: printed, it comes out
  // as "???". Kept: nothing the engine prints back is read as a hash name.
  kKeywordSha256 = 129,
  kKeywordAnd = 65536,
  kKeywordHashedPassword = 65537,
  kKeywordPromptedBiometric = 65538,
  kKeywordValid = 65539,
};

// One entry of the text table: the text's length and the NUL-terminated text.
struct KeywordText {
  uint32_t length;
  char text[24];
};

// KeywordId returns the id of the |length| bytes at |bytes|, or -1 when they
// are not one of the 63 words the engine recognises. The comparison treats
// the atom as ending at its first NUL byte, so "tag" followed by a NUL and
// anything at all is still "tag".
int32_t KeywordId(const uint8_t* bytes, uint32_t length);

// KeywordTextOf returns the table entry of |id|: ids 0..127 and 65536..65539
// their own entry, every other id the entry of 0, "???".
const KeywordText& KeywordTextOf(int32_t id);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_KEYWORDS_H_
