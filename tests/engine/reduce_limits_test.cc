// Termination, clean-up and the trace of the reduction: the attacks that
// would otherwise run without end, every failure path freeing what it made,
// and the story told for people.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/query.h"
#include "engine/reduce.h"
#include "engine/store.h"
#include "tests/engine/reduce_texts.h"

namespace velk2::engine {
namespace {

using namespace texts;

const std::string K0 = Key("K0");
const std::string K1 = Key("K1");
const std::string K2 = Key("K2");
const std::string KA = Key("KA");
const std::string kFtp = Canonical("(tag (ftp))");

// An allocator record that counts live blocks and fails after a number of
// successful allocations.
struct FailingAllocator {
  int live = 0;
  long successes_left = -1;  // -1: never fail
  EngineAllocator record{&Allocate, &Free, this};

  static void* Allocate(size_t size, void* user) {
    auto* self = static_cast<FailingAllocator*>(user);
    if (self->successes_left == 0) return nullptr;
    if (self->successes_left > 0) --self->successes_left;
    ++self->live;
    return std::malloc(size);
  }
  static void Free(void* block, void* user) {
    --static_cast<FailingAllocator*>(user)->live;
    std::free(block);
  }
};

Status RunQuery(const std::string& acl, const std::string& sequence, const std::string& key,
                const ReduceOptions& options, std::string* result,
                const EngineAllocator* allocator = DefaultAllocator()) {
  return ReduceCanonicalWith(allocator, 0, acl, sequence, key, nullptr, nullptr, result, options);
}

// K1 grants K2 and K2 grants K1, both with propagate: under the duplicate
// rule undated tuples never repeat, so each round derives new ones.
TEST(ReduceLimits, MutualDelegationHitsTheDerivedTupleLimit) {
  const std::string acl = Acl({Entry({K1, true, kFtp})});
  const std::string sequence = Sequence({Cert(K1, {K2, true, kFtp}), Cert(K2, {K1, true, kFtp})});
  ReductionStats stats;
  ReductionTrace trace;
  ReduceOptions options;
  options.stats = &stats;
  options.trace = &trace;
  std::string result;
  EXPECT_EQ(RunQuery(acl, sequence, K1, options, &result), kReductionLimitStatus);
  EXPECT_TRUE(result.empty());
  EXPECT_EQ(stats.derived_tuples, options.limits.derived_tuples);
  EXPECT_EQ(stats.live_tuples, 0u);
  EXPECT_TRUE(trace.limit_reached);
  EXPECT_EQ(trace.limit, "derived tuples");

  // The same loop with both dates on every certificate ends by itself: the
  // repeated tuples are duplicates.
  const std::string jan = "2004-01-01_00:00:00";
  const std::string dec = "2004-12-31_00:00:00";
  const std::string dated =
      Sequence({Cert(K1, {K2, true, kFtp, jan, dec}), Cert(K2, {K1, true, kFtp, jan, dec})});
  ReductionStats dated_stats;
  ReduceOptions dated_options;
  dated_options.stats = &dated_stats;
  EXPECT_EQ(RunQuery(acl, dated, K1, dated_options, &result), SPKI_OK);
  EXPECT_LT(dated_stats.derived_tuples, 20u);
  EXPECT_NE(result.find(ResultEntry(K1, true, kFtp, jan, dec)), std::string::npos) << result;
}

// A self-delegating key loops the same way, and a lower limit stops it sooner.
TEST(ReduceLimits, SelfDelegationHonoursAGivenLimit) {
  ReductionStats stats;
  ReduceOptions options;
  options.stats = &stats;
  options.limits.derived_tuples = 50;
  std::string result;
  EXPECT_EQ(RunQuery(Acl({Entry({K1, true, kFtp})}), Sequence({Cert(K1, {K1, true, kFtp})}), K1,
                     options, &result),
            kReductionLimitStatus);
  EXPECT_EQ(stats.derived_tuples, 50u);
  EXPECT_EQ(stats.live_tuples, 0u);
}

std::string BigBlock(int k, int n, const std::string& member) {
  std::string text = "(6:k-of-n1:" + std::string(1, static_cast<char>(k)) +
                     "1:" + std::string(1, static_cast<char>(n));
  for (int i = 0; i < n; ++i) text += member;
  return text + ")";
}

// A k-of-n block whose members all lead to the key has a combination for
// every k-subset of its slots.
TEST(ReduceLimits, BigThresholdHitsTheCombinationLimit) {
  ReductionStats stats;
  ReductionTrace trace;
  ReduceOptions options;
  options.stats = &stats;
  options.trace = &trace;
  std::string result;
  EXPECT_EQ(RunQuery(Acl({Entry({BigBlock(60, 200, K1), false, kFtp})}), Sequence({}), K1, options,
                     &result),
            kReductionLimitStatus);
  EXPECT_EQ(stats.threshold_combinations, options.limits.threshold_combinations);
  EXPECT_EQ(stats.live_tuples, 0u);
  EXPECT_EQ(trace.limit, "threshold combinations");

  // The same members reached through delegation explode the same way.
  ReductionStats delegated;
  options.stats = &delegated;
  EXPECT_EQ(RunQuery(Acl({Entry({BigBlock(40, 120, KA), true, kFtp})}),
                     Sequence({Cert(KA, {K1, false, kFtp})}), K1, options, &result),
            kReductionLimitStatus);
  EXPECT_EQ(delegated.live_tuples, 0u);
}

TEST(ReduceLimits, HonestInputsStayFarBelowTheLimits) {
  // A 3-of-5 block all of whose members reach the key: C(5,3) combinations.
  ReductionStats stats;
  ReduceOptions options;
  options.stats = &stats;
  std::string result;
  ASSERT_EQ(
      RunQuery(Acl({Entry({BigBlock(3, 5, K1), false, kFtp})}), Sequence({}), K1, options, &result),
      SPKI_OK);
  EXPECT_EQ(result, Result({ResultEntry(K1, false, kFtp), ResultEntry(K1, false, kFtp),
                            ResultEntry(K1, false, kFtp), ResultEntry(K1, false, kFtp),
                            ResultEntry(K1, false, kFtp), ResultEntry(K1, false, kFtp),
                            ResultEntry(K1, false, kFtp), ResultEntry(K1, false, kFtp),
                            ResultEntry(K1, false, kFtp), ResultEntry(K1, false, kFtp)}));
  EXPECT_LT(stats.threshold_combinations, 100u);

  // A chain of 50 certificates derives one tuple per link.
  std::string sequence = "(8:sequence";
  for (int i = 0; i < 50; ++i) {
    sequence += Cert(Key("C" + std::to_string(i)), {Key("C" + std::to_string(i + 1)), true, kFtp});
  }
  sequence += ")";
  ReductionStats chain;
  options.stats = &chain;
  ASSERT_EQ(RunQuery(Acl({Entry({Key("C0"), true, kFtp})}), sequence, Key("C50"), options, &result),
            SPKI_OK);
  EXPECT_EQ(result, Result({ResultEntry(Key("C50"), true, kFtp)}));
  EXPECT_EQ(chain.derived_tuples, 50u);

  // The same chain with a work limit below its needs stops.
  options.limits.work_steps = 20;
  EXPECT_EQ(RunQuery(Acl({Entry({Key("C0"), true, kFtp})}), sequence, Key("C50"), options, &result),
            kReductionLimitStatus);
}

// A scenario touching every part of the reduction: chains, names, a
// threshold, hashes, dates, the trace.
struct Everything {
  std::string acl = Acl({Entry({K0, true, kFtp, "2004-01-01", "2004-12-31"}),
                         Entry({Name(K0, {"team"}), false, kFtp}),
                         Entry({KOfN(1, {HashOf(KA), K2}), true, kFtp})});
  std::string sequence = Sequence({Signed(Cert(K0, {K1, true, kFtp, "2004-02-01", ""}), K0),
                                   Cert("(4:name" + K0 + "4:team)", {K1}),
                                   Cert(KA, {K1, false, Canonical("(tag (ftp host))")})});
  std::string key = K1;
};

TEST(ReduceLimits, EveryAllocationFailureFreesEverything) {
  Everything input;
  std::string want;
  ReductionTrace trace;
  ASSERT_EQ(
      ReduceCanonical(0, input.acl, input.sequence, input.key, nullptr, nullptr, &want, &trace),
      SPKI_OK);
  ASSERT_NE(want, Result({}));
  bool succeeded = false;
  for (long budget = 0; budget < 400 && !succeeded; ++budget) {
    SCOPED_TRACE(budget);
    FailingAllocator allocator;
    allocator.successes_left = budget;
    ReductionStats stats;
    ReductionTrace partial;
    ReduceOptions options;
    options.stats = &stats;
    options.trace = &partial;
    std::string result;
    Status status = ReduceCanonicalWith(&allocator.record, 0, input.acl, input.sequence, input.key,
                                        nullptr, nullptr, &result, options);
    EXPECT_EQ(allocator.live, 0);
    EXPECT_EQ(stats.live_tuples, 0u);
    if (status == SPKI_OK) {
      EXPECT_EQ(result, want);
      succeeded = true;
    } else {
      EXPECT_TRUE(status == kEngineArenaUnavailable || status == SPKI_ERR_NO_MEM) << status;
      EXPECT_TRUE(result.empty());
    }
  }
  EXPECT_TRUE(succeeded);
}

// Counts of every node and atom of a tree, by record.
void Snapshot(const EngineNode* chain, std::map<const void*, int32_t>* counts);
void ExpectCounts(const EngineNode* chain, const std::map<const void*, int32_t>& counts);

// The allocator fails only once the inputs are parsed, so that every chunk
// the reduction itself takes is a failure point.
TEST(ReduceLimits, EveryAllocationFailureInsideTheReductionFreesEverything) {
  Everything input;
  input.acl =
      Acl({Entry({K0, true, kFtp}), Entry({K1, false, kFtp}), Entry({K1, true, kFtp}),
           Entry({Name(K0, {"team"}), false, kFtp}), Entry({KOfN(2, {K1, KA, K1}), false, kFtp})});
  input.sequence = "(8:sequence" + Cert("(4:name" + K0 + "4:team)", {K1});
  for (int i = 0; i < 40; ++i) {
    const std::string from = i == 0 ? K0 : Key("L" + std::to_string(i));
    input.sequence += Cert(from, {Key("L" + std::to_string(i + 1)), true, kFtp});
  }
  input.sequence += Cert(Key("L40"), {K1, false, kFtp}) + ")";
  int failures = 0;
  bool succeeded = false;
  for (long budget = 0; budget < 1000 && !succeeded; ++budget) {
    SCOPED_TRACE(budget);
    FailingAllocator allocator;
    EngineContext engine;
    ASSERT_EQ(engine.Init(&allocator.record), SPKI_OK);
    EngineNode* acl = nullptr;
    EngineNode* certs = nullptr;
    EngineNode* key = nullptr;
    ASSERT_EQ(ParseText(engine, &acl, input.acl.data(), input.acl.size()), SPKI_OK);
    ASSERT_EQ(ParseText(engine, &certs, input.sequence.data(), input.sequence.size()), SPKI_OK);
    ASSERT_EQ(ParseText(engine, &key, input.key.data(), input.key.size()), SPKI_OK);
    std::map<const void*, int32_t> counts;
    for (const EngineNode* tree : {acl, certs, key}) Snapshot(tree, &counts);
    ReductionStats stats;
    ReductionTrace trace;
    ReduceOptions options;
    options.stats = &stats;
    options.trace = &trace;
    allocator.successes_left = budget;
    EngineNode* result = nullptr;
    Status status = Reduce(engine, 0, acl, certs, key, nullptr, nullptr, &result, options);
    allocator.successes_left = -1;
    if (status == SPKI_OK) {
      succeeded = true;
      EXPECT_GT(ChainLength(result), 3u);
    } else {
      ++failures;
      EXPECT_EQ(status, SPKI_ERR_NO_MEM);
      EXPECT_EQ(result, nullptr);
    }
    EXPECT_EQ(stats.live_tuples, 0u);
    ReleaseNode(engine, result);
    for (const EngineNode* tree : {acl, certs, key}) ExpectCounts(tree, counts);
    for (EngineNode* tree : {acl, certs, key}) ReleaseNode(engine, tree);
    engine.Release();
    EXPECT_EQ(allocator.live, 0);
  }
  EXPECT_TRUE(succeeded);
  EXPECT_GT(failures, 5);
}

void Snapshot(const EngineNode* chain, std::map<const void*, int32_t>* counts) {
  for (const EngineNode* node = chain; node != nullptr; node = node->next) {
    (*counts)[node] = node->ref_count;
    if (node->atom != nullptr) (*counts)[node->atom] = node->atom->ref_count;
    if (node->sublist != nullptr) Snapshot(node->sublist, counts);
  }
}

void ExpectCounts(const EngineNode* chain, const std::map<const void*, int32_t>& counts) {
  for (const EngineNode* node = chain; node != nullptr; node = node->next) {
    EXPECT_EQ(node->ref_count, counts.at(node));
    if (node->atom != nullptr) {
      EXPECT_EQ(node->atom->ref_count, counts.at(node->atom));
    }
    if (node->sublist != nullptr) ExpectCounts(node->sublist, counts);
  }
}

TEST(ReduceLimits, InputsGetTheirCountsBackOnEveryPath) {
  Everything input;
  const std::string broken =
      Sequence({Cert(K0, {K1, true, kFtp}), "(4:cert(7:subject" + K1 + "))"});
  for (const std::string* sequence : {static_cast<const std::string*>(&input.sequence), &broken}) {
    EngineContext engine;
    ASSERT_EQ(engine.Init(DefaultAllocator()), SPKI_OK);
    EngineNode* acl = nullptr;
    EngineNode* certs = nullptr;
    EngineNode* key = nullptr;
    ASSERT_EQ(ParseText(engine, &acl, input.acl.data(), input.acl.size()), SPKI_OK);
    ASSERT_EQ(ParseText(engine, &certs, sequence->data(), sequence->size()), SPKI_OK);
    ASSERT_EQ(ParseText(engine, &key, input.key.data(), input.key.size()), SPKI_OK);
    std::map<const void*, int32_t> counts;
    for (const EngineNode* tree : {acl, certs, key}) Snapshot(tree, &counts);
    EngineNode* result = nullptr;
    Status status = Reduce(engine, 0, acl, certs, key, nullptr, nullptr, &result);
    EXPECT_EQ(status, sequence == &broken ? SPKI_ERR_NEEDS_ISSUER : SPKI_OK);
    EXPECT_EQ(result == nullptr, status != SPKI_OK);
    ReleaseNode(engine, result);
    for (const EngineNode* tree : {acl, certs, key}) ExpectCounts(tree, counts);
    for (EngineNode* tree : {acl, certs, key}) ReleaseNode(engine, tree);
  }
}

TEST(ReduceLimits, ReduceArguments) {
  EngineContext engine;
  ASSERT_EQ(engine.Init(DefaultAllocator()), SPKI_OK);
  const std::string acl_text = Acl({Entry({K1, false, kFtp})});
  EngineNode* acl = nullptr;
  ASSERT_EQ(ParseText(engine, &acl, acl_text.data(), acl_text.size()), SPKI_OK);
  EngineNode* result = reinterpret_cast<EngineNode*>(&engine);  // must be cleared
  EXPECT_EQ(Reduce(engine, 0, nullptr, nullptr, nullptr, nullptr, nullptr, &result),
            SPKI_ERR_NO_ACL);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(Reduce(engine, 0, acl, nullptr, nullptr, nullptr, nullptr, nullptr),
            SPKI_ERR_NULL_PARAM);
  // A key that is not a principal.
  const std::string bad_key = "(3:foo)";
  EngineNode* key = nullptr;
  ASSERT_EQ(ParseText(engine, &key, bad_key.data(), bad_key.size()), SPKI_OK);
  EXPECT_EQ(Reduce(engine, 0, acl, nullptr, key, nullptr, nullptr, &result),
            SPKI_ERR_PRINCIPAL_EXPECTED);
  // An ACL given as an element wrapping the list is unwrapped.
  EngineNode* wrapped = NewSublistElement(engine, acl);
  ASSERT_EQ(Reduce(engine, 0, wrapped, nullptr, nullptr, nullptr, nullptr, &result), SPKI_OK);
  std::string text;
  ASSERT_EQ(PrintToString(result, &text), SPKI_OK);
  EXPECT_EQ(text, Result({ResultEntry(K1, false, kFtp)}));
  ReleaseNode(engine, result);
  ReleaseNode(engine, wrapped);
  ReleaseNode(engine, key);
  ReleaseNode(engine, acl);
  EngineContext idle;  // never initialised
  EXPECT_EQ(Reduce(idle, 0, nullptr, nullptr, nullptr, nullptr, nullptr, &result),
            SPKI_ERR_NULL_PARAM);
}

// Without a key every tuple whose subject is a plain principal ends "at the
// key": the result lists what every principal holds.
TEST(ReduceLimits, NoKeyGivenListsEveryHolder) {
  EngineContext engine;
  ASSERT_EQ(engine.Init(DefaultAllocator()), SPKI_OK);
  const std::string acl_text = Acl({Entry({K0, true, kFtp})});
  const std::string seq_text = Sequence({Cert(K0, {K1, false, kFtp}), Cert(K0, {K2, true, kFtp})});
  EngineNode* acl = nullptr;
  EngineNode* certs = nullptr;
  ASSERT_EQ(ParseText(engine, &acl, acl_text.data(), acl_text.size()), SPKI_OK);
  ASSERT_EQ(ParseText(engine, &certs, seq_text.data(), seq_text.size()), SPKI_OK);
  EngineNode* result = nullptr;
  ASSERT_EQ(Reduce(engine, 0, acl, certs, nullptr, nullptr, nullptr, &result), SPKI_OK);
  std::string text;
  ASSERT_EQ(PrintToString(result, &text), SPKI_OK);
  EXPECT_EQ(text, Result({ResultEntry(K2, true, kFtp), ResultEntry(K1, false, kFtp),
                          ResultEntry(K0, true, kFtp)}));
  ReleaseNode(engine, result);
  ReleaseNode(engine, certs);
  ReleaseNode(engine, acl);
}

// Without a key, arrivals end at many principals; only arrivals ending at
// the same one combine.
TEST(ReduceLimits, NoKeyThresholdCombinesPerPrincipal) {
  EngineContext engine;
  ASSERT_EQ(engine.Init(DefaultAllocator()), SPKI_OK);
  const std::string acl_text = Acl({Entry({KOfN(2, {KA, Key("KB"), Key("KC")}), true, kFtp})});
  const std::string seq_text =
      Sequence({Cert(KA, {K1, false, kFtp}), Cert(Key("KB"), {K1, false, kFtp}),
                Cert(Key("KC"), {K2, false, kFtp})});
  EngineNode* acl = nullptr;
  EngineNode* certs = nullptr;
  ASSERT_EQ(ParseText(engine, &acl, acl_text.data(), acl_text.size()), SPKI_OK);
  ASSERT_EQ(ParseText(engine, &certs, seq_text.data(), seq_text.size()), SPKI_OK);
  EngineNode* result = nullptr;
  ASSERT_EQ(Reduce(engine, 0, acl, certs, nullptr, nullptr, nullptr, &result), SPKI_OK);
  std::string text;
  ASSERT_EQ(PrintToString(result, &text), SPKI_OK);
  EXPECT_EQ(text, Result({ResultEntry(K1, false, kFtp)}));
  ReleaseNode(engine, result);
  ReleaseNode(engine, certs);
  ReleaseNode(engine, acl);
}

TEST(ReduceTrace, TellsWhoGrantsWhatToWhom) {
  const std::string jan = "2004-01-01_00:00:00";
  const std::string dec = "2004-12-31_00:00:00";
  const std::string acl = Acl({Entry({K0, true, kFtp, jan, ""})});
  const std::string sequence =
      Sequence({Cert(K0, {K1, true, kFtp, "", dec}), Cert(K1, {K2, false, kFtp})});
  ReductionTrace trace;
  std::string result;
  ASSERT_EQ(ReduceCanonical(0, acl, sequence, K2, nullptr, nullptr, &result, &trace), SPKI_OK);
  ASSERT_EQ(result, Result({ResultEntry(K2, false, kFtp, jan, dec)}));
  const std::string h0 = Hex(Digest("SHA256", K0));
  const std::string h1 = Hex(Digest("SHA256", K1));
  const std::string h2 = Hex(Digest("SHA256", K2));

  std::map<int, const TraceTuple*> by_id;
  for (const TraceTuple& t : trace.tuples) by_id[t.id] = &t;
  ASSERT_EQ(trace.result.size(), 1u);
  const TraceTuple* root = by_id.at(trace.result[0]);
  EXPECT_EQ(root->kind, "derived");
  EXPECT_EQ(root->issuer, "");
  EXPECT_EQ(root->subject, h2);
  EXPECT_EQ(root->tag, kFtp);
  EXPECT_EQ(root->not_before, jan);
  EXPECT_EQ(root->not_after, dec);
  EXPECT_FALSE(root->propagate);
  EXPECT_TRUE(root->on_key_path);

  // Walk the parents back to the ACL entry and the two certificates.
  std::vector<std::string> leaves;
  std::function<void(int)> walk = [&](int id) {
    const TraceTuple* t = by_id.at(id);
    if (t->parents.empty()) {
      leaves.push_back(t->kind + " " + (t->issuer.empty() ? "acl" : t->issuer.substr(0, 4)) + ">" +
                       t->subject.substr(0, 4));
    }
    for (int parent : t->parents) {
      EXPECT_LT(parent, id);  // parents joined first
      walk(parent);
    }
  };
  walk(root->id);
  std::sort(leaves.begin(), leaves.end());
  std::vector<std::string> want = {"acl entry acl>" + h0.substr(0, 4),
                                   "certificate " + h0.substr(0, 4) + ">" + h1.substr(0, 4),
                                   "certificate " + h1.substr(0, 4) + ">" + h2.substr(0, 4)};
  std::sort(want.begin(), want.end());
  EXPECT_EQ(leaves, want);
  EXPECT_FALSE(trace.limit_reached);

  // A threshold and a name leave their own kinds.
  ReductionTrace kinds;
  ASSERT_EQ(ReduceCanonical(0, Acl({Entry({KOfN(1, {Name(K0, {"team", "x"}), KA}), false, kFtp})}),
                            Sequence({Cert("(4:name" + K0 + "4:team)", {KA})}), KA, nullptr,
                            nullptr, &result, &kinds),
            SPKI_OK);
  std::map<std::string, int> seen;
  for (const TraceTuple& t : kinds.tuples) {
    ++seen[t.kind];
    if (t.kind == "acl entry" && !t.subject_names.empty()) {
      EXPECT_EQ(t.subject_names, "team x");
      EXPECT_EQ(t.threshold_index, 1);
    }
    if (t.kind == "certificate") {
      EXPECT_EQ(t.issuer_name, "team");
    }
  }
  EXPECT_EQ(seen["threshold"], 1);
  EXPECT_EQ(seen["name"], 1);
  EXPECT_EQ(seen["acl entry"], 2);
}

}  // namespace
}  // namespace velk2::engine
