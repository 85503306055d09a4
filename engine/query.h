// The engine's half of the authorization query: canonical texts in, the
// reduced ACL as canonical text out. The library's side (AuthorizeKey,
// TagGranted) writes its objects as canonical text and calls these; the
// engine never sees a library object.
#ifndef VELK2_ENGINE_QUERY_H_
#define VELK2_ENGINE_QUERY_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "engine/arena.h"
#include "engine/reduce.h"
#include "engine/status.h"

namespace velk2::engine {

// DefaultAllocator returns the static allocator record every query uses: a
// plain heap (malloc and free), safe to use from several threads.
const EngineAllocator* DefaultAllocator();

// ReduceCanonical runs one query's engine part on canonical texts. It starts
// an engine with DefaultAllocator (EngineInit's 16386 when that fails),
// parses |acl|, |sequence| and |key|, then |tag| and |validity| when given
// (null: not given), reduces them and prints the result tree. On success
// (0) |*result_text| holds the reduced ACL's canonical text: "(3:acl)" when
// nothing survived, else "(3:acl(5:entry...)...)". The parser's and the
// reduction's negative codes are returned unchanged; |*result_text| is then
// empty. Everything the engine made is freed on every path.
// |crypto_context| is the library context word handed to every crypto call.
// |trace|, when given, receives the reduction's story for people.
int32_t ReduceCanonical(uint32_t crypto_context, std::string_view acl, std::string_view sequence,
                        std::string_view key, const std::string_view* tag,
                        const std::string_view* validity, std::string* result_text,
                        ReductionTrace* trace = nullptr);

// ReduceCanonicalWith is ReduceCanonical with every reduction option
// (limits, statistics, arena_discarded) and an allocator of the caller's
// choosing; the keys are always the ones noted while the texts are parsed.
// ReduceCanonical discards the arena.
int32_t ReduceCanonicalWith(const EngineAllocator* allocator, uint32_t crypto_context,
                            std::string_view acl, std::string_view sequence, std::string_view key,
                            const std::string_view* tag, const std::string_view* validity,
                            std::string* result_text, const ReduceOptions& options);

// TagImplies is the engine's half of TagGranted: 1 when intersecting
// |requested| with |granted| gives a tag equal to |requested| (the granted
// tag implies everything asked), else 0 — also when either text does not
// parse or the tags share nothing. Both are canonical tag lists "(3:tag...)".
int TagImplies(std::string_view requested, std::string_view granted);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_QUERY_H_
