// The five-tuple reduction: an ACL and a set of certificates, held as engine
// node trees, become the list of authorizations that one key holds.
//
// Every ACL entry and certificate becomes a five-tuple (issuer, subject,
// propagate, tag, validity). Tuples chain by one rule: if A grants B with
// propagate and B grants C, then A grants C the intersection of both tags for
// the intersection of both periods. Name certificates and k-of-n subjects are
// resolved on the way. Chains are built backwards from the key only, so the
// work follows the chains that end at the key.
//
// Principals (keys and hashes of keys) are interned by the SHA-256 digest of
// their canonical text, computed with the crypto module.
#ifndef VELK2_ENGINE_REDUCE_H_
#define VELK2_ENGINE_REDUCE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "engine/status.h"
#include "engine/store.h"

namespace velk2::engine {

// One tuple of a reduction as told to people (`velk2 authorize --explain`).
// Where a tuple of the story came from.
enum class TraceKind {
  kAclEntry,     // an ACL entry
  kCertificate,  // a certificate
  kDerived,      // two tuples chained
  kName,         // a name reference resolved by a name definition
  kThreshold,    // a k-of-n subject reached by enough members
};
// "acl entry", "certificate", "derived", "name", "threshold".
const char* TraceKindName(TraceKind kind);

struct TraceTuple {
  int id = 0;
  TraceKind kind = TraceKind::kAclEntry;
  // Principals as the lowercase hex SHA-256 digest of their canonical text
  // (what `velk2 key show` prints as the fingerprint); a hash principal
  // stands for its key, so a SHA-256 hash gives the hashed value itself, and
  // only a SHA-1 or RIPEMD-160 hash of a key never met gives the digest of
  // the hash list's own text. Empty issuer: the ACL.
  std::string issuer;
  std::string subject;
  bool propagate = false;
  // The tag's canonical text, "(3:tag...)"; empty when the tuple has no tag
  // of its own and none was asked for (it then grants everything).
  std::string tag;
  std::string not_before;  // date text, empty when unlimited
  std::string not_after;
  // The ids of the tuples this one was chained, resolved or combined from.
  std::vector<int> parents;

  // The local name a name certificate defines (empty otherwise).
  std::string issuer_name;
  // The names still to resolve after the subject, separated by blanks.
  std::string subject_names;
  // 0 for a certificate, -1 for an ACL entry, 1..n for member n of a k-of-n.
  int threshold_index = 0;
  // Where a tuple read from a credential came from: the 0-based position of
  // its ACL entry among the ACL's entries, or of its certificate among the
  // sequence's certificates, in the order the trees hold them; -1 for a
  // tuple made by chaining, resolving or combining.
  int source = -1;
  // The tuple ends at the key asked about (or at any plain principal when
  // no key was given).
  bool on_key_path = false;
};

// The story of one reduction: every tuple that joined the reduction's
// indexes, in the order it joined, and the ids of the tuples that became
// result entries, in result order (newest first).
// One credential the reduction read, whether or not it joined: its
// principals as the reduction identifies them (fingerprints as in
// TraceTuple), so a caller can name them without a rule of its own.
struct TraceInput {
  int source = 0;       // the position, as TraceTuple::source
  std::string issuer;   // empty for an ACL entry
  std::string subject;  // empty for a k-of-n subject
};

struct ReductionTrace {
  // False: only whether a limit was reached is told (a big ACL makes a
  // tuple per entry, which a caller that shows no explanation does not need).
  bool record_tuples = true;
  std::vector<TraceTuple> tuples;
  // The ACL's entries and the sequence's certificates as read, each in its
  // order; a credential that the engine refused ends the list there.
  std::vector<TraceInput> entries;
  std::vector<TraceInput> certificates;
  std::string key;  // the key asked about, as the reduction identifies it; empty: none
  std::vector<int> result;
  // Set when the reduction stopped at one of its work limits.
  bool limit_reached = false;
  std::string limit;  // which limit: "derived tuples", "threshold combinations", "work steps"
};

// The work one reduction may do. Every reduction terminates: two undated
// certificates that delegate to each other never produce a duplicate, and a
// k-of-n subject with many members has very many combinations, so both would
// otherwise run without end. The defaults are far above any honest chain
// (a chain of n certificates derives about n tuples).
struct ReductionLimits {
  // Tuples made by chaining, name resolution or threshold combination.
  uint32_t derived_tuples = 100000;
  // Steps of the depth-first search over the slots of k-of-n subjects.
  uint32_t threshold_combinations = 100000;
  // List entries visited and tree nodes compared while chaining.
  uint64_t work_steps = 50000000;
};

// The counters of one reduction, for tests and benchmarks.
struct ReductionStats {
  uint32_t derived_tuples = 0;
  uint32_t threshold_combinations = 0;
  uint64_t work_steps = 0;
  uint32_t principals = 0;
  // Tuple records still alive after the reduction cleaned up: 0 unless the
  // arena is discarded.
  uint32_t live_tuples = 0;
};

// The status of a reduction stopped by one of its limits: "Unknown SPKI
// problem", the engine's code for a failure without a code of its own.
inline constexpr Status kReductionLimitStatus = SPKI_ERR_UNKNOWN;

struct ReduceOptions {
  ReductionTrace* trace = nullptr;  // optional; costs nothing when null
  ReductionStats* stats = nullptr;  // optional
  ReductionLimits limits;
  // Optional: the public-key lists of the key, the ACL and the sequence, in
  // that order, as ParseText noted them for each tree. Given, the trees are
  // not walked to find them.
  const std::vector<EngineNode*>* keys = nullptr;
  // Set when the engine's arena is destroyed whole right after the reduction
  // (only the result is kept): the reducer's own records are then left where
  // they lie instead of going back to their free lists one by one, and
  // |stats| counts them as live.
  bool arena_discarded = false;
};

// Reduce reduces the ACL |acl| and the certificates of |sequence| towards
// |key| and stores the result tree in |*result|: the head `acl` followed by
// one `entry` list for each tuple that starts at the ACL and ends at the key,
// newest first. |tag| (a `tag` list) prunes every credential by intersection;
// |validity| (a `valid`, `not-before` or `not-after` list) narrows every
// credential's period. Each input may be a list head or a sublist element
// wrapping one; |sequence|, |key|, |tag| and |validity| may be null (no key:
// every plain principal counts as the key). The inputs are not changed and
// keep their counts; the result shares nodes with them, so their texts must
// outlive it. |crypto_context| is handed to every crypto call.
//
// Returns 0 or the first negative engine code: SPKI_ERR_NULL_PARAM (-126)
// for a null |result|, SPKI_ERR_NO_ACL (-150) for a null |acl|, the
// credential codes (-151 to -167), the hash codes (-145 to -149), the crypto
// module's statuses mapped by MapCryptoStatus, SPKI_ERR_NO_MEM (-129),
// SPKI_ERR_BAD_SEXP (-130) for trees nested past kMaxNesting, and
// kReductionLimitStatus when a limit is reached. |*result| is null after a
// failure; everything the reduction made is freed on every path.
Status Reduce(EngineContext& engine, uint32_t crypto_context, EngineNode* acl, EngineNode* sequence,
              EngineNode* key, EngineNode* tag, EngineNode* validity, EngineNode** result,
              const ReduceOptions& options = {});

// MapCryptoStatus turns a crypto-module status into an engine code: 1001 ->
// -126, 1003 and 1020 -> -146, 1007 -> -129, 1009, 1014, 1015 and 1017 ->
// -200, and every other value to 0. Kept: the other statuses concern
// arguments that the engine never passes.
Status MapCryptoStatus(uint32_t crypto_status);

// The SHA-256 digest of a principal or name, as the reduction interns it.
inline constexpr size_t kPrincipalDigestSize = 32;

// PrincipalDigest computes the SHA-256 digest of the canonical text of the
// list |node| (a list head): a list that still has its parsed text is
// digested from that text, any other is walked. Returns 0, the mapped crypto
// status, or SPKI_ERR_BAD_SEXP (-130) past kMaxNesting.
Status PrincipalDigest(uint32_t crypto_context, const EngineNode* node,
                       uint8_t digest[kPrincipalDigestSize]);

// DigestHex: the 64 lowercase hex digits of a digest.
std::string DigestHex(const uint8_t digest[kPrincipalDigestSize]);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_REDUCE_H_
