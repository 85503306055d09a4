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

const std::string K0 = Key("K0"), K1 = Key("K1"), K2 = Key("K2"), KA = Key("KA");
const std::string kFtp = Canonical("(tag (ftp))");
const std::string jan = "2004-01-01_00:00:00", dec = "2004-12-31_00:00:00";

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

// One engine holding the parsed ACL, sequence and key (an empty key text:
// none), with the count of every node and atom as parsed.
class Inputs {
 public:
  Inputs(const EngineAllocator* allocator, const std::string& acl, const std::string& sequence,
         const std::string& key)
      : texts_{acl, sequence, key} {
    EXPECT_EQ(engine_.Init(allocator), SPKI_OK);
    for (int i = 0; i < 3; ++i) {
      if (texts_[i].empty()) continue;
      EXPECT_EQ(ParseText(engine_, &trees_[i], texts_[i].data(), texts_[i].size()), SPKI_OK);
      Snapshot(trees_[i]);
    }
  }
  ~Inputs() {
    for (EngineNode* tree : trees_) ReleaseNode(engine_, tree);
  }

  // Reduces; on success the printed result goes to |*text|.
  Status Reduce(std::string* text, const ReduceOptions& options = {}) {
    EngineNode* out = reinterpret_cast<EngineNode*>(this);  // must be cleared
    Status status = engine::Reduce(engine_, 0, trees_[0], trees_[1], trees_[2], nullptr, nullptr,
                                   &out, options);
    EXPECT_EQ(out == nullptr, status != SPKI_OK);
    text->clear();
    if (out != nullptr) {
      EXPECT_EQ(PrintToString(out, text), SPKI_OK);
    }
    ReleaseNode(engine_, out);
    // The inputs are not changed and get their counts back on every path.
    for (EngineNode* tree : trees_) ExpectCounts(tree);
    return status;
  }

  EngineContext& engine() { return engine_; }
  EngineNode* acl() { return trees_[0]; }

 private:
  void Snapshot(const EngineNode* chain) {
    for (const EngineNode* node = chain; node != nullptr; node = node->next) {
      counts_[node] = node->ref_count;
      if (AtomOf(node) != nullptr) counts_[AtomOf(node)] = AtomOf(node)->ref_count;
      Snapshot(SublistOf(node));
    }
  }
  void ExpectCounts(const EngineNode* chain) {
    for (const EngineNode* node = chain; node != nullptr; node = node->next) {
      EXPECT_EQ(node->ref_count, counts_.at(node));
      if (AtomOf(node) != nullptr) {
        EXPECT_EQ(AtomOf(node)->ref_count, counts_.at(AtomOf(node)));
      }
      ExpectCounts(SublistOf(node));
    }
  }

  std::string texts_[3];
  EngineContext engine_;
  EngineNode* trees_[3] = {};
  std::map<const void*, int32_t> counts_;
};

Status RunQuery(const std::string& acl, const std::string& sequence, const std::string& key,
                const ReduceOptions& options, std::string* result) {
  return ReduceCanonicalWith(DefaultAllocator(), 0, acl, sequence, key, nullptr, nullptr, result,
                             options);
}

// K1 grants K2 and K2 grants K1 (or K1 itself), with propagate. A derived
// tuple equal to one already there, dates absent on both, is a duplicate, so
// such a loop ends by itself with the true answer; the limits stay as the
// backstop for input that really derives without end.
TEST(ReduceLimits, DelegationLoopsEndWithTheTrueAnswer) {
  const std::string acl = Acl({Entry({K1, true, kFtp})});
  const std::string mutual = Sequence({Cert(K1, {K2, true, kFtp}), Cert(K2, {K1, true, kFtp})});
  const std::string self = Sequence({Cert(K1, {K1, true, kFtp})});
  ReductionStats stats;
  ReductionTrace trace;
  ReduceOptions options;
  options.stats = &stats;
  options.trace = &trace;
  std::string result;
  struct Case {
    const char* name;
    const std::string* sequence;
    const std::string& key;
  };
  const Case kCases[] = {{"mutual, asking for K1", &mutual, K1},
                         {"mutual, asking for K2", &mutual, K2},
                         {"self-delegation", &self, K1}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(RunQuery(acl, *c.sequence, c.key, options, &result), SPKI_OK);
    EXPECT_NE(result.find(ResultEntry(c.key, true, kFtp)), std::string::npos) << result;
    EXPECT_LT(stats.derived_tuples, 10u);
    EXPECT_EQ(stats.live_tuples, 0u);
    EXPECT_FALSE(trace.limit_reached);
  }
  // A key outside the loop is still refused.
  ASSERT_EQ(RunQuery(acl, mutual, KA, options, &result), SPKI_OK);
  EXPECT_EQ(result, "(3:acl)");

  // Two identical undated certificates stay two credentials, but what they
  // derive is one grant: the reduced ACL holds it once (only the first entry
  // ever decided the answer).
  ASSERT_EQ(RunQuery(Acl({Entry({K1, true, kFtp})}),
                     Sequence({Cert(K1, {K2, false, kFtp}), Cert(K1, {K2, false, kFtp})}), K2,
                     options, &result),
            SPKI_OK);
  EXPECT_EQ(result, Result({ResultEntry(K2, false, kFtp)}));

  // The same loop with both dates on every certificate ends as before.
  const std::string dated =
      Sequence({Cert(K1, {K2, true, kFtp, jan, dec}), Cert(K2, {K1, true, kFtp, jan, dec})});
  EXPECT_EQ(RunQuery(acl, dated, K1, options, &result), SPKI_OK);
  EXPECT_LT(stats.derived_tuples, 20u);
  EXPECT_NE(result.find(ResultEntry(K1, true, kFtp, jan, dec)), std::string::npos) << result;

  // The limit is still the backstop: one below what the loop needs stops it.
  options.limits.derived_tuples = 1;
  EXPECT_EQ(RunQuery(acl, mutual, K1, options, &result), kReductionLimitStatus);
  EXPECT_EQ(stats.live_tuples, 0u);
  EXPECT_TRUE(trace.limit_reached);
  EXPECT_EQ(trace.limit, "derived tuples");

  // A trace that keeps no tuples still tells which limit stopped the reduction.
  trace = ReductionTrace{};
  trace.record_tuples = false;
  EXPECT_EQ(RunQuery(acl, mutual, K1, options, &result), kReductionLimitStatus);
  EXPECT_TRUE(trace.limit_reached);
  EXPECT_EQ(trace.limit, "derived tuples");
  EXPECT_TRUE(trace.tuples.empty());
  EXPECT_TRUE(trace.result.empty());
}

std::string Member(int i) {
  return Key(std::string("M").append(std::to_string(i)));
}

// A k-of-n block of n distinct member keys M0..Mn-1.
std::string BigBlock(int k, int n) {
  std::string text = "(6:k-of-n1:" + std::string(1, static_cast<char>(k)) +
                     "1:" + std::string(1, static_cast<char>(n));
  for (int i = 0; i < n; ++i) text += Member(i);
  return text + ")";
}

// Certificates from the members |first|..|last| - 1 to K1.
std::string MembersToK1(int first, int last) {
  std::string sequence = "(8:sequence";
  for (int i = first; i < last; ++i) sequence += Cert(Member(i), {K1, false, kFtp});
  return sequence + ")";
}

// A k-of-n block whose members all lead to the key has a combination for
// every k-subset of its slots: a crafted group stops at the limit.
TEST(ReduceLimits, BigThresholdHitsTheCombinationLimit) {
  ReductionStats stats;
  ReductionTrace trace;
  ReduceOptions options;
  options.stats = &stats;
  options.trace = &trace;
  std::string result;
  EXPECT_EQ(RunQuery(Acl({Entry({BigBlock(60, 200), true, kFtp})}), MembersToK1(0, 200), K1,
                     options, &result),
            kReductionLimitStatus);
  EXPECT_EQ(stats.threshold_combinations, options.limits.threshold_combinations);
  EXPECT_EQ(stats.live_tuples, 0u);
  EXPECT_EQ(trace.limit, "threshold combinations");
}

// Groups that honest users build: exactly k of n members reached. The search
// prunes on the slots that can still be filled, so it walks one path.
TEST(ReduceLimits, HonestThresholdsAreDecided) {
  struct Case {
    int k, n, reached;
    bool holds;
  };
  const Case kCases[] = {{16, 32, 16, true},  {18, 36, 18, true}, {30, 60, 30, true},
                         {30, 60, 29, false}, {3, 5, 5, true},    {1, 200, 1, true}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(std::to_string(c.k) + " of " + std::to_string(c.n) + ", " +
                 std::to_string(c.reached) + " reached");
    ReductionStats stats;
    ReduceOptions options;
    options.stats = &stats;
    std::string result;
    // The members reached are spread over the block: every other one first.
    std::string sequence = "(8:sequence";
    for (int i = 0; i < c.reached; ++i) {
      sequence += Cert(Member((2 * i) % c.n + (2 * i >= c.n ? 1 : 0)), {K1, false, kFtp});
    }
    sequence += ")";
    ASSERT_EQ(
        RunQuery(Acl({Entry({BigBlock(c.k, c.n), true, kFtp})}), sequence, K1, options, &result),
        SPKI_OK);
    EXPECT_EQ(result, c.holds ? Result({ResultEntry(K1, false, kFtp)}) : "(3:acl)");
    // C(5,3) = 10 for the 3-of-5 group; one combination for the others.
    EXPECT_LE(stats.threshold_combinations, 10u * static_cast<uint64_t>(c.k));
  }
}

// The tag algebra charges its comparisons to the reduction's work limit:
// two long sets whose members are lists (no sorting shortcut there) pair
// every member with every other, and a limit below that stops the question.
TEST(ReduceLimits, TagComparisonsCountAgainstTheWorkLimit) {
  auto set = [](char letter, int count) {
    std::string text = "(3:tag(3:ftp(1:*3:set";
    for (int i = 0; i < count; ++i) {
      const std::string name = std::string(1, letter).append(std::to_string(i));
      text.append("(").append(std::to_string(name.size())).append(":").append(name).append(")");
    }
    return text + ")))";
  };
  const std::string acl = Acl({Entry({K1, true, set('m', 2000)})});
  const std::string sequence = Sequence({Cert(K1, {K2, false, set('n', 2000)})});
  ReductionStats stats;
  ReductionTrace trace;
  ReduceOptions options;
  options.stats = &stats;
  options.trace = &trace;
  options.limits.work_steps = 100000;
  std::string result;
  EXPECT_EQ(RunQuery(acl, sequence, K2, options, &result), kReductionLimitStatus);
  EXPECT_TRUE(trace.limit_reached);
  EXPECT_EQ(trace.limit, "work steps");
  EXPECT_GT(stats.work_steps, options.limits.work_steps);
  EXPECT_EQ(stats.live_tuples, 0u);
  // With the default limit the same question is answered: the sets share nothing.
  options.limits = ReductionLimits();
  trace = ReductionTrace();
  EXPECT_EQ(RunQuery(acl, sequence, K2, options, &result), SPKI_OK);
  EXPECT_EQ(result, "(3:acl)");
  EXPECT_GT(stats.work_steps, 2000u * 2000u);
}

TEST(ReduceLimits, HonestInputsStayFarBelowTheLimits) {
  ReductionStats stats;
  ReduceOptions options;
  options.stats = &stats;
  std::string result;
  // A chain of 50 certificates derives one tuple per link.
  std::string sequence = "(8:sequence";
  for (int i = 0; i < 50; ++i) {
    sequence += Cert(Key(std::string("C").append(std::to_string(i))),
                     {Key(std::string("C").append(std::to_string(i + 1))), true, kFtp});
  }
  sequence += ")";
  const std::string acl = Acl({Entry({Key("C0"), true, kFtp})});
  ASSERT_EQ(RunQuery(acl, sequence, Key("C50"), options, &result), SPKI_OK);
  EXPECT_EQ(result, Result({ResultEntry(Key("C50"), true, kFtp)}));
  EXPECT_EQ(stats.derived_tuples, 50u);

  // The same chain with a work limit below its needs stops.
  options.limits.work_steps = 20;
  EXPECT_EQ(RunQuery(acl, sequence, Key("C50"), options, &result), kReductionLimitStatus);
}

// Thousands of principals: each is found again under its digest however the
// index has grown, a key met first as the SHA-256 hash of its text included.
TEST(ReduceLimits, ManyPrincipalsAreEachFoundAgain) {
  constexpr int kKeys = 3000;
  std::string acl = "(3:acl";
  for (int i = 0; i < kKeys; ++i) {
    acl += Entry({Key(std::string("K").append(std::to_string(i))), i == 1500, kFtp});
  }
  acl += ")";
  // K1500 delegates to D, named by the hash of its key.
  const std::string sequence =
      Sequence({Signed(Cert(Key("K1500"), {HashOf(Key("D")), false, kFtp}), Key("K1500"))});
  std::string result;
  ReduceOptions options;
  for (int i : {0, 63, 64, 1499, kKeys - 1}) {
    const std::string key = Key(std::string("K").append(std::to_string(i)));
    ASSERT_EQ(RunQuery(acl, sequence, key, options, &result), SPKI_OK) << i;
    EXPECT_EQ(result, Result({ResultEntry(key, false, kFtp)})) << i;
  }
  ASSERT_EQ(RunQuery(acl, sequence, Key("D"), options, &result), SPKI_OK);
  EXPECT_EQ(result, Result({ResultEntry(Key("D"), false, kFtp)}));
  ASSERT_EQ(RunQuery(acl, sequence, Key("stranger"), options, &result), SPKI_OK);
  EXPECT_EQ(result, "(3:acl)");
}

// Keys the walk never reads (five in a comment before every subject) put
// each subject far from the last key found, so the walk finds the subject's
// registered principal by its list, among thousands: every answer is still
// that subject's own.
TEST(ReduceLimits, SubjectsAmongKeysTheWalkSkipsAreTheirOwn) {
  constexpr int kEntries = 400;
  std::string acl = "(3:acl";
  for (int i = 0; i < kEntries; ++i) {
    std::string comment = "(7:comment";
    for (int j = 0; j < 5; ++j) {
      comment +=
          Key(std::string("C").append(std::to_string(i)).append(".").append(std::to_string(j)));
    }
    acl.append("(5:entry").append(comment).append(")(7:subject");
    acl.append(Key(std::string("K").append(std::to_string(i))))
        .append(")")
        .append(kFtp)
        .append(")");
  }
  acl += ")";
  // Without a key every entry is a result, newest first, each printed with
  // the key its principal holds.
  std::string every = "(3:acl";
  for (int i = kEntries - 1; i >= 0; --i) {
    every += ResultEntry(Key(std::string("K").append(std::to_string(i))), false, kFtp);
  }
  every += ")";
  Inputs inputs(DefaultAllocator(), acl, "(8:sequence)", "");
  std::string result;
  ASSERT_EQ(inputs.Reduce(&result), SPKI_OK);
  EXPECT_EQ(result, every);
  // The query registers the keys it noted while parsing.
  ReduceOptions options;
  for (int i : {0, 1, 63, 64, 200, kEntries - 1}) {
    const std::string key = Key(std::string("K").append(std::to_string(i)));
    ASSERT_EQ(RunQuery(acl, "(8:sequence)", key, options, &result), SPKI_OK) << i;
    EXPECT_EQ(result, Result({ResultEntry(key, false, kFtp)})) << i;
  }
  for (const std::string& key : {Key("C7.2"), Key("stranger")}) {
    ASSERT_EQ(RunQuery(acl, "(8:sequence)", key, options, &result), SPKI_OK);
    EXPECT_EQ(result, "(3:acl)");
  }
}

// Every allocation the reduction makes fails once in turn, on an input that
// touches every part of it (chains, names, a threshold, hashes, dates, a
// signature, the trace) and takes several chunks; the same input with a
// certificate lacking its issuer fails on its own. Whatever fails, the
// inputs keep their counts, no tuple is left, and every block goes back.
TEST(ReduceLimits, EveryFailureInsideTheReductionFreesEverything) {
  const std::string acl = Acl({Entry({K0, true, kFtp, "2004-01-01", "2004-12-31"}),
                               Entry({Name(K0, {"team"}), false, kFtp}),
                               Entry({KOfN(2, {K1, HashOf(KA), K1}), true, kFtp})});
  std::string chain = Signed(Cert(K0, {Key("L1"), true, kFtp, "2004-02-01", ""}), K0) +
                      Cert("(4:name" + K0 + "4:team)", {K1}) +
                      Cert(KA, {K1, false, Canonical("(tag (ftp host))")});
  for (int i = 1; i < 40; ++i) {
    chain += Cert(Key(std::string("L").append(std::to_string(i))),
                  {Key(std::string("L").append(std::to_string(i + 1))), true, kFtp});
  }
  chain += Cert(Key("L40"), {K1, false, kFtp});
  const std::string broken = "(4:cert(7:subject" + K1 + "))";
  for (const std::string& sequence : {"(8:sequence" + chain + ")", Sequence({chain + broken})}) {
    const bool good = sequence.find(broken) == std::string::npos;
    SCOPED_TRACE(good ? "good" : "broken");
    int failures = 0;
    Status status = SPKI_ERR_NO_MEM;
    for (long budget = 0; status == SPKI_ERR_NO_MEM && budget < 1000; ++budget) {
      FailingAllocator allocator;
      {
        Inputs inputs(&allocator.record, acl, sequence, K1);
        ReductionStats stats;
        ReductionTrace trace;
        ReduceOptions options;
        options.stats = &stats;
        options.trace = &trace;
        allocator.successes_left = budget;
        std::string result;
        status = inputs.Reduce(&result, options);
        allocator.successes_left = -1;
        EXPECT_EQ(stats.live_tuples, 0u);
        if (status == SPKI_ERR_NO_MEM) ++failures;
        if (status == SPKI_OK) {
          EXPECT_NE(result.find(ResultEntry(K1, false, kFtp)), std::string::npos) << result;
        }
      }
      EXPECT_EQ(allocator.live, 0) << budget;
    }
    EXPECT_EQ(status, good ? SPKI_OK : SPKI_ERR_NEEDS_ISSUER);
    EXPECT_GT(failures, 5);
  }
}

// A reduction stopped at any point gives back every node and atom it made.
// The free lists are filled first, so that a run takes every record from
// them and a record not given back shows in their counts.
TEST(ReduceLimits, StoppedReductionsGiveBackEveryRecord) {
  const std::string acl = Acl({Entry({K0, true, kFtp, "2004-01-01", "2004-12-31"}),
                               Entry({Name(K0, {"team"}), true, kFtp})});
  const std::string sequence =
      Sequence({Cert("(4:name" + K0 + "4:team)", {K2}),
                Cert(K0, {K2, true, Canonical("(tag (ftp host))"), "2004-02-01", ""}),
                Cert(K2, {K1, false, kFtp})});
  Inputs inputs(DefaultAllocator(), acl, sequence, K1);
  EngineContext& engine = inputs.engine();
  {
    NodeRef chain(engine);
    for (int i = 0; i < 5000; ++i) {
      AtomRef atom(engine, NewAtomOver(engine, nullptr, 0));
      EngineNode* element = NewAtomElement(engine, atom.get());
      ASSERT_NE(element, nullptr);
      element->next = chain.release();
      chain.reset(element);
    }
  }
  ReductionStats stats;
  ReductionTrace trace;
  ReduceOptions options;
  options.stats = &stats;
  options.trace = &trace;
  std::string result;
  Status status = kReductionLimitStatus;
  int stopped = 0;
  for (uint64_t steps = 1; status == kReductionLimitStatus && steps < 10000; ++steps) {
    SCOPED_TRACE(steps);
    options.limits.work_steps = steps;
    trace = ReductionTrace();
    const size_t free_nodes = engine.nodes().free_count();
    const size_t free_atoms = engine.atoms().free_count();
    status = inputs.Reduce(&result, options);
    EXPECT_EQ(engine.nodes().free_count(), free_nodes);
    EXPECT_EQ(engine.atoms().free_count(), free_atoms);
    EXPECT_EQ(stats.live_tuples, 0u);
    if (status == kReductionLimitStatus) ++stopped;
  }
  ASSERT_EQ(status, SPKI_OK);
  EXPECT_NE(result.find(ResultEntry(K1, false, kFtp)), std::string::npos) << result;
  EXPECT_GT(stopped, 10);
}

TEST(ReduceLimits, ReduceArguments) {
  Inputs inputs(DefaultAllocator(), Acl({Entry({K1, false, kFtp})}), "", "(3:foo)");
  EngineContext& engine = inputs.engine();
  EngineNode* result = reinterpret_cast<EngineNode*>(&engine);  // must be cleared
  EXPECT_EQ(Reduce(engine, 0, nullptr, nullptr, nullptr, nullptr, nullptr, &result),
            SPKI_ERR_NO_ACL);
  EXPECT_EQ(result, nullptr);
  EXPECT_EQ(Reduce(engine, 0, inputs.acl(), nullptr, nullptr, nullptr, nullptr, nullptr),
            SPKI_ERR_NULL_PARAM);
  std::string text;
  EXPECT_EQ(inputs.Reduce(&text), SPKI_ERR_PRINCIPAL_EXPECTED);  // a key that is no principal
  // An ACL given as an element wrapping the list is unwrapped.
  NodeRef wrapped(engine, NewSublistElement(engine, inputs.acl()));
  ASSERT_EQ(Reduce(engine, 0, wrapped.get(), nullptr, nullptr, nullptr, nullptr, &result), SPKI_OK);
  ASSERT_EQ(PrintToString(result, &text), SPKI_OK);
  EXPECT_EQ(text, Result({ResultEntry(K1, false, kFtp)}));
  ReleaseNode(engine, result);
  EngineContext idle;  // never initialised
  EXPECT_EQ(Reduce(idle, 0, nullptr, nullptr, nullptr, nullptr, nullptr, &result),
            SPKI_ERR_NULL_PARAM);
}

// Without a key every tuple whose subject is a plain principal ends "at the
// key": the result lists what every principal holds, and threshold arrivals
// combine only where they end at the same principal.
TEST(ReduceLimits, NoKeyGivenListsEveryHolder) {
  std::string text;
  Inputs chain(DefaultAllocator(), Acl({Entry({K0, true, kFtp})}),
               Sequence({Cert(K0, {K1, false, kFtp}), Cert(K0, {K2, true, kFtp})}), "");
  ASSERT_EQ(chain.Reduce(&text), SPKI_OK);
  EXPECT_EQ(text, Result({ResultEntry(K2, true, kFtp), ResultEntry(K1, false, kFtp),
                          ResultEntry(K0, true, kFtp)}));
  Inputs block(DefaultAllocator(), Acl({Entry({KOfN(2, {KA, Key("KB"), Key("KC")}), true, kFtp})}),
               Sequence({Cert(KA, {K1, false, kFtp}), Cert(Key("KB"), {K1, false, kFtp}),
                         Cert(Key("KC"), {K2, false, kFtp})}),
               "");
  ASSERT_EQ(block.Reduce(&text), SPKI_OK);
  EXPECT_EQ(text, Result({ResultEntry(K1, false, kFtp)}));
}

TEST(ReduceTrace, TellsWhoGrantsWhatToWhom) {
  const std::string acl = Acl({Entry({K0, true, kFtp, jan, ""})});
  const std::string sequence =
      Sequence({Cert(K0, {K1, true, kFtp, "", dec}), Cert(K1, {K2, false, kFtp})});
  ReductionTrace trace;
  std::string result;
  ASSERT_EQ(ReduceCanonical(0, acl, sequence, K2, nullptr, nullptr, &result, &trace), SPKI_OK);
  ASSERT_EQ(result, Result({ResultEntry(K2, false, kFtp, jan, dec)}));
  auto short_hex = [](const std::string& key) { return Hex(Digest("SHA256", key)).substr(0, 4); };

  std::map<int, const TraceTuple*> by_id;
  for (const TraceTuple& t : trace.tuples) by_id[t.id] = &t;
  ASSERT_EQ(trace.result.size(), 1u);
  const TraceTuple* root = by_id.at(trace.result[0]);
  EXPECT_EQ(root->kind, TraceKind::kDerived);
  EXPECT_EQ(root->source, -1);  // made, not read from a credential
  EXPECT_EQ(root->issuer, "");
  EXPECT_EQ(root->subject, Hex(Digest("SHA256", K2)));
  EXPECT_EQ(root->tag, kFtp);
  EXPECT_EQ(root->not_before, jan);
  EXPECT_EQ(root->not_after, dec);
  EXPECT_FALSE(root->propagate);
  EXPECT_TRUE(root->on_key_path);
  EXPECT_FALSE(trace.limit_reached);

  // Walk the parents back to the ACL entry and the two certificates.
  std::vector<std::string> leaves;
  std::function<void(int)> walk = [&](int id) {
    const TraceTuple* t = by_id.at(id);
    if (t->parents.empty()) {
      leaves.push_back(TraceKindName(t->kind) + std::string(" ") +
                       (t->issuer.empty() ? "acl" : t->issuer.substr(0, 4)) + ">" +
                       t->subject.substr(0, 4));
    }
    for (int parent : t->parents) {
      EXPECT_LT(parent, id);  // parents joined first
      walk(parent);
    }
  };
  walk(root->id);
  std::sort(leaves.begin(), leaves.end());
  std::vector<std::string> want = {"acl entry acl>" + short_hex(K0),
                                   "certificate " + short_hex(K0) + ">" + short_hex(K1),
                                   "certificate " + short_hex(K1) + ">" + short_hex(K2)};
  std::sort(want.begin(), want.end());
  EXPECT_EQ(leaves, want);

  // Every credential read is told, in order, with its position.
  ASSERT_EQ(trace.certificates.size(), 2u);
  EXPECT_EQ(trace.certificates[1].source, 1);

  // A threshold and a name leave their own kinds.
  ReductionTrace kinds;
  ASSERT_EQ(ReduceCanonical(0, Acl({Entry({KOfN(1, {Name(K0, {"team", "x"}), KA}), false, kFtp})}),
                            Sequence({Cert("(4:name" + K0 + "4:team)", {KA})}), KA, nullptr,
                            nullptr, &result, &kinds),
            SPKI_OK);
  std::map<std::string, int> seen;
  for (const TraceTuple& t : kinds.tuples) {
    ++seen[TraceKindName(t.kind)];
    if (t.kind == TraceKind::kAclEntry && !t.subject_names.empty()) {
      EXPECT_EQ(t.subject_names, "team x");
      EXPECT_EQ(t.threshold_index, 1);
    }
    if (t.kind == TraceKind::kCertificate) {
      EXPECT_EQ(t.issuer_name, "team");
    }
  }
  EXPECT_EQ(seen["threshold"], 1);
  EXPECT_EQ(seen["name"], 1);
  EXPECT_EQ(seen["acl entry"], 2);
}

}  // namespace
}  // namespace velk2::engine
