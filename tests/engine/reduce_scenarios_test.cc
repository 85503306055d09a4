// The reduction on whole scenarios: an ACL, a certificate sequence, a key,
// optionally a tag and a period, against the reduced ACL it must print. The
// plain chains, narrowing and duplicates over real keys are asked through
// AuthorizeKey in the ACL tests; here the engine's exact output is pinned.
#include <gtest/gtest.h>

#include <string>

#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/query.h"
#include "engine/reduce.h"
#include "engine/status.h"
#include "engine/store.h"
#include "tests/engine/reduce_texts.h"

namespace velk2::engine {
namespace {

using namespace texts;

const std::string K0 = Key("K0"), K1 = Key("K1"), K2 = Key("K2"), K3 = Key("K3");
const std::string KA = Key("KA"), KB = Key("KB"), KC = Key("KC");
const std::string kFtp = Canonical("(tag (ftp))");
const std::string kNoCerts = Sequence({});
const std::string kNothing = Result({});
// The ACL grants K0 (ftp) with propagate.
const std::string kRoot = Acl({Entry({K0, true, kFtp})});
const std::string jan = "2004-01-01_00:00:00", apr = "2004-04-01_00:00:00";
const std::string jun = "2004-06-30_00:00:00", dec = "2004-12-31_00:00:00";

std::string T(std::string_view readable) {
  return Canonical(readable);
}
// The reduced ACL holding one entry.
std::string Holds(const std::string& subject, bool propagate = false, const std::string& tag = kFtp,
                  std::string_view not_before = "", std::string_view not_after = "") {
  return Result({ResultEntry(subject, propagate, tag, not_before, not_after)});
}

struct Scenario {
  const char* name;
  std::string acl, sequence, key;
  std::string want;                     // the reduced ACL
  std::string tag = "", validity = "";  // empty: not asked
};

// The reduction on its own, as the engine's tests drive it: the trees parsed
// without noting their keys, so that the reducer walks them, and every
// record given back at the end.
std::string ReduceWalking(const Scenario& s, ReductionStats* stats) {
  EngineContext engine;
  EXPECT_EQ(EngineInit(&engine, DefaultAllocator()), SPKI_OK);
  std::string text = "untouched";
  {
    NodeRef acl(engine), sequence(engine), key(engine), tag(engine), validity(engine);
    NodeRef result(engine);
    auto parse = [&](NodeRef& tree, const std::string& source) {
      if (!source.empty()) {
        EXPECT_EQ(ParseText(engine, tree.out(), source.data(), source.size()), SPKI_OK);
      }
    };
    parse(acl, s.acl);
    parse(sequence, s.sequence);
    parse(key, s.key);
    parse(tag, s.tag);
    parse(validity, s.validity);
    ReduceOptions options;
    options.stats = stats;
    EXPECT_EQ(Reduce(engine, 0, acl.get(), sequence.get(), key.get(), tag.get(), validity.get(),
                     result.out(), options),
              SPKI_OK);
    EXPECT_EQ(PrintToString(result.get(), &text), SPKI_OK);
  }
  EngineRelease(&engine);
  return text;
}

void RunScenarios(std::initializer_list<Scenario> scenarios) {
  for (const Scenario& s : scenarios) {
    SCOPED_TRACE(s.name);
    std::string result = "untouched";
    const std::string_view tag = s.tag, validity = s.validity;
    Status status = ReduceCanonical(0, s.acl, s.sequence, s.key, s.tag.empty() ? nullptr : &tag,
                                    s.validity.empty() ? nullptr : &validity, &result);
    ASSERT_EQ(status, SPKI_OK) << SpkiErrorMessageUtf8(status);
    EXPECT_EQ(result, s.want);
    // The query notes keys while parsing and leaves its records to the
    // arena; the reduction on its own walks the trees for keys and gives
    // every record back. Both must agree, and the second must leave nothing.
    ReductionStats stats;
    EXPECT_EQ(ReduceWalking(s, &stats), s.want);
    EXPECT_EQ(stats.live_tuples, 0u);
  }
}

TEST(ReduceScenarios, ChainsAndTags) {
  RunScenarios({
      {"direct grant asked with its own tag", Acl({Entry({K1, true, kFtp})}), kNoCerts, K1,
       Holds(K1, true), kFtp},
      {"chain of 1, the certificate followed by its signature", kRoot,
       Sequence({Signed(Cert(K0, {K1, false, kFtp}), K0)}), K1, Holds(K1)},
      {"chain of 3 keeps the last certificate's propagate", kRoot,
       Sequence(
           {Cert(K0, {K1, true, kFtp}), Cert(K1, {K2, true, kFtp}), Cert(K2, {K3, true, kFtp})}),
       K3, Holds(K3, true)},
      {"chain of 3 given leaf first", kRoot,
       Sequence(
           {Cert(K2, {K3, false, kFtp}), Cert(K1, {K2, true, kFtp}), Cert(K0, {K1, true, kFtp})}),
       K3, Holds(K3)},
      {"chain of 3 asked about a key in the middle", kRoot,
       Sequence(
           {Cert(K0, {K1, true, kFtp}), Cert(K1, {K2, true, kFtp}), Cert(K2, {K3, false, kFtp})}),
       K2, Holds(K2, true)},
      {"a certificate whose issuer has no authority", kRoot,
       Sequence({Cert(K2, {K1, false, kFtp})}), K1, kNothing},
      {"credentials nested in inner lists are walked",
       Acl({"(3:acl" + Entry({K0, true, kFtp}) + ")"}),
       Sequence({Sequence({Cert(K0, {K1, false, kFtp})})}), K1, Holds(K1)},
      {"a credential without a tag takes the one asked for", Acl({Entry({K0, true, ""})}),
       Sequence({Cert(K0, {K1, false, ""})}), K1, Holds(K1), kFtp},
      {"no tag anywhere prints the bare tag", Acl({Entry({K1, false, ""})}), kNoCerts, K1,
       Holds(K1, false, "")},
      {"each link narrows", kRoot,
       Sequence({Cert(K0, {K1, true, T("(tag (ftp host))")}),
                 Cert(K1, {K2, false, T("(tag (ftp host dir))")})}),
       K2, Holds(K2, false, T("(tag (ftp host dir))"))},
      {"a broader certificate cannot widen the ACL",
       Acl({Entry({K0, true, T("(tag (ftp host))")})}),
       Sequence({Cert(K0, {K1, false, T("(tag (ftp))")})}), K1,
       Holds(K1, false, T("(tag (ftp host))"))},
      {"disjoint tags end the chain", kRoot, Sequence({Cert(K0, {K1, false, T("(tag (http))")})}),
       K1, kNothing},
      {"a set narrowed to one member",
       Acl({Entry({K0, true, T("(tag (file (* set read write)))")})}),
       Sequence({Cert(K0, {K1, false, T("(tag (file read))")})}), K1,
       Holds(K1, false, T("(tag (file read))"))},
      {"the asked tag prunes the grant", Acl({Entry({K1, false, kFtp})}), kNoCerts, K1,
       Holds(K1, false, T("(tag (ftp host))")), T("(tag (ftp host))")},
      {"an asked tag disjoint from every grant", Acl({Entry({K1, false, kFtp})}), kNoCerts, K1,
       kNothing, T("(tag (http))")},
      {"(*) grants everything asked", Acl({Entry({K1, false, T("(tag (*))")})}), kNoCerts, K1,
       Holds(K1), kFtp},
      // An entry or a whole ACL placed among the certificates was signed by
      // nobody: it must not become a root grant, however deep it is nested.
      {"an entry in the sequence", Acl({}), Sequence({Entry({K1, false, kFtp})}), K1, kNothing},
      {"an ACL in the sequence", Acl({}), Sequence({Acl({Entry({K1, false, kFtp})})}), K1,
       kNothing},
      {"an entry in a nested sequence", Acl({}),
       Sequence({Sequence({Entry({K0, true, kFtp})}), Cert(K0, {K1, false, kFtp})}), K1, kNothing},
      // Pruned by the period or the tag asked: dropped before the issuer check.
      {"dropped by period before the issuer check", Acl({}),
       Sequence({"(4:cert(7:subject" + K1 + ")" + Valid(jan, jan) + ")"}), K1, kNothing, "",
       Valid(apr, apr)},
      {"dropped by tag before the issuer check", Acl({}),
       Sequence({"(4:cert(7:subject" + K1 + ")" + T("(tag (http))") + ")"}), K1, kNothing, kFtp},
  });
}

TEST(ReduceScenarios, ValidityAndDuplicates) {
  const std::string dated = Entry({K1, false, kFtp, jan, dec});
  const std::string undated = Entry({K1, false, kFtp});
  const std::string half = Entry({K1, false, kFtp, jan, ""});
  RunScenarios({
      {"overlapping periods intersect", Acl({Entry({K0, true, kFtp, jan, jun})}),
       Sequence({Cert(K0, {K1, false, kFtp, apr, dec})}), K1, Holds(K1, false, kFtp, apr, jun)},
      {"touching periods keep the one instant", Acl({Entry({K0, true, kFtp, jan, jun})}),
       Sequence({Cert(K0, {K1, false, kFtp, jun, dec})}), K1, Holds(K1, false, kFtp, jun, jun)},
      {"an open side takes the other's date", Acl({Entry({K0, true, kFtp, "", jun})}),
       Sequence({Cert(K0, {K1, false, kFtp, apr, ""})}), K1, Holds(K1, false, kFtp, apr, jun)},
      {"only not-after", Acl({Entry({K1, false, kFtp, "", jun})}), kNoCerts, K1,
       Holds(K1, false, kFtp, "", jun)},
      {"only not-before", Acl({Entry({K1, false, kFtp, apr, ""})}), kNoCerts, K1,
       Holds(K1, false, kFtp, apr, "")},
      {"the asked period narrows every credential", Acl({dated}), kNoCerts, K1,
       Holds(K1, false, kFtp, apr, jun), "", Valid(apr, jun)},
      {"a credential outside the asked period vanishes", Acl({Entry({K1, false, kFtp, jan, apr})}),
       kNoCerts, K1, kNothing, "", Valid(jun, dec)},
      {"a short date sorts before the full one", Acl({Entry({K1, false, kFtp, "2004-06-30", jun})}),
       kNoCerts, K1, Holds(K1, false, kFtp, "2004-06-30", jun)},
      // The second entry's first validity list has the text of the first
      // entry's; its second list still replaces a date.
      {"a second validity list after one seen before",
       Acl({Entry({K2, false, kFtp, jan, dec}),
            "(5:entry(7:subject" + K1 + ")" + kFtp + "(5:valid(10:not-before" + Atom(jan) +
                ")(9:not-after" + Atom(dec) + "))(5:valid(10:not-before" + Atom(apr) + ")))",
            Entry({K1, false, kFtp, jan, dec})}),
       kNoCerts, K1,
       Result({ResultEntry(K1, false, kFtp, jan, dec), ResultEntry(K1, false, kFtp, apr, dec)})},
      {"a repeated date replaces the earlier one",
       Acl({"(5:entry(7:subject" + K1 + ")" + kFtp + "(5:valid(10:not-before" + Atom(jan) +
            ")(10:not-before" + Atom(apr) + ")))"}),
       kNoCerts, K1, Holds(K1, false, kFtp, apr, "")},
      // Only tuples with both dates can be duplicates.
      {"two identical dated entries give one", Acl({dated, dated}), kNoCerts, K1,
       Holds(K1, false, kFtp, jan, dec)},
      {"entries that differ in either date are no duplicates",
       Acl({dated, Entry({K1, false, kFtp, jan, jun}), Entry({K1, false, kFtp, apr, dec})}),
       kNoCerts, K1,
       Result({ResultEntry(K1, false, kFtp, apr, dec), ResultEntry(K1, false, kFtp, jan, jun),
               ResultEntry(K1, false, kFtp, jan, dec)})},
      {"two identical undated entries give two", Acl({undated, undated}), kNoCerts, K1,
       Result({ResultEntry(K1, false, kFtp), ResultEntry(K1, false, kFtp)})},
      {"an entry with only one date is never a duplicate", Acl({half, half}), kNoCerts, K1,
       Result({ResultEntry(K1, false, kFtp, jan, ""), ResultEntry(K1, false, kFtp, jan, "")})},
      {"newest first: the later entry leads",
       Acl({Entry({K1, false, T("(tag a)")}), Entry({K1, false, T("(tag b)")})}), kNoCerts, K1,
       Result({ResultEntry(K1, false, T("(tag b)")), ResultEntry(K1, false, T("(tag a)"))})},
      {"newest first: the derived root tuple leads the direct entry",
       Acl({Entry({K1, false, T("(tag a)")}), Entry({K0, true, T("(tag b)")})}),
       Sequence({Cert(K0, {K1, false, T("(tag b)")})}), K1,
       Result({ResultEntry(K1, false, T("(tag b)")), ResultEntry(K1, false, T("(tag a)"))})},
  });
}

TEST(ReduceScenarios, HashesNamesAndThresholds) {
  const std::string nobody = HashOf(Key("nobody"));
  // K0's "team" is KA; KA's "lead" is K1.
  const std::string team_is_ka = Cert("(4:name" + K0 + "4:team)", {KA});
  const std::string lead_is_k1 = Cert("(4:name" + KA + "4:lead)", {K1});
  const std::string block = KOfN(2, {KA, KB, KC});
  RunScenarios({
      {"an issuer named by its hash", kRoot, Sequence({Cert(HashOf(K0), {K1, false, kFtp})}), K1,
       Holds(K1)},
      {"a SHA-1 hash matched with a key met in a signature",
       Acl({Entry({HashOf(K0, "sha1"), true, kFtp})}),
       Sequence({Signed(Cert(K0, {K1, false, kFtp}), K0)}), K1, Holds(K1)},
      {"the key asked about given as a hash", Acl({Entry({K1, false, kFtp})}), kNoCerts, HashOf(K1),
       Holds(K1)},
      {"a hash of an unknown key stands for itself", Acl({Entry({nobody, false, kFtp})}), kNoCerts,
       nobody, Holds(nobody)},
      {"a hash of another key gives nothing", Acl({Entry({HashOf(K2), false, kFtp})}), kNoCerts, K1,
       kNothing},

      {"an ACL entry for a name, defined later", Acl({Entry({Name(K0, {"team"}), false, kFtp})}),
       Sequence({team_is_ka}), KA, Holds(KA)},
      {"a definition before the reference", Acl({"(3:acl" + Entry({K0, true, kFtp}) + ")"}),
       Sequence({team_is_ka, Cert(K0, {Name(K0, {"team"}), false, kFtp})}), KA, Holds(KA)},
      {"a name relative to the certificate's issuer", kRoot,
       Sequence({Cert(K0, {Name("", {"team"}), false, kFtp}), team_is_ka}), KA, Holds(KA)},
      {"a compound name resolved in two steps",
       Acl({Entry({Name(K0, {"team", "lead"}), false, kFtp})}), Sequence({lead_is_k1, team_is_ka}),
       K1, Holds(K1)},
      {"a name defined for another key gives nothing",
       Acl({Entry({Name(K0, {"team"}), false, kFtp})}), Sequence({team_is_ka}), K1, kNothing},
      {"a name never defined gives nothing", Acl({Entry({Name(K0, {"staff"}), false, kFtp})}),
       Sequence({team_is_ka}), KA, kNothing},

      {"2 of 3 reached through two members", kRoot,
       Sequence({Cert(K0, {block, true, kFtp}), Cert(KA, {K1, false, kFtp}),
                 Cert(KC, {K1, false, kFtp})}),
       K1, Holds(K1)},
      {"2 of 3 not reached when the members lead to different keys", kRoot,
       Sequence({Cert(K0, {block, true, kFtp}), Cert(KA, {K1, false, kFtp}),
                 Cert(KB, {K2, false, kFtp})}),
       K1, kNothing},
      {"the combination takes the narrowest tag", kRoot,
       Sequence({Cert(K0, {block, true, kFtp}), Cert(KA, {K1, false, T("(tag (ftp host))")}),
                 Cert(KB, {K1, false, T("(tag (ftp host dir))")})}),
       K1, Holds(K1, false, T("(tag (ftp host dir))"))},
      {"members with disjoint tags do not combine", kRoot,
       Sequence({Cert(K0, {block, true, kFtp}), Cert(KA, {K1, false, T("(tag (ftp a))")}),
                 Cert(KB, {K1, false, T("(tag (ftp b))")})}),
       K1, kNothing},
      // A key listed twice is one member: it counts once toward k.
      {"the key listed twice in a 2-of-3 block", Acl({Entry({KOfN(2, {K1, KB, K1}), false, kFtp})}),
       kNoCerts, K1, kNothing},
      {"the key listed twice and the other member reached",
       Acl({Entry({KOfN(2, {K1, KB, K1}), true, kFtp})}), Sequence({Cert(KB, {K1, false, kFtp})}),
       K1, Holds(K1)},
      {"a block without propagate cannot reach through members", kRoot,
       Sequence({Cert(K0, {block, false, kFtp}), Cert(KA, {K1, false, kFtp}),
                 Cert(KB, {K1, false, kFtp})}),
       K1, kNothing},
      {"a nested block without propagate",
       Acl({Entry({KOfN(2, {KOfN(1, {KA, KB}), KC}), false, kFtp})}),
       Sequence({Cert(KB, {K1, false, kFtp}), Cert(KC, {K1, false, kFtp})}), K1, kNothing},
      {"a nested block reached through propagating members",
       Acl({Entry({KOfN(2, {KOfN(1, {KA, KB}), KC}), true, kFtp})}),
       Sequence({Cert(KB, {K1, false, kFtp}), Cert(KC, {K1, false, kFtp})}), K1, Holds(K1)},
      {"members as names", Acl({Entry({KOfN(1, {Name(K0, {"team"}), KB}), false, kFtp})}),
       Sequence({Cert("(4:name" + K0 + "4:team)", {K1})}), K1, Holds(K1)},
  });
}

TEST(ReduceScenarios, CredentialErrors) {
  auto cert = [](const std::string& fields) { return "(4:cert" + fields + ")"; };
  auto issuer = [](const std::string& inner) { return "(6:issuer" + inner + ")"; };
  auto subject = [](const std::string& inner) { return "(7:subject" + inner + ")"; };
  const std::string by_k0 = issuer(K0);
  const std::string to_k1 = subject(K1);
  struct Bad {
    const char* name;
    std::string acl, cert;  // no certificate when empty
    Status want;
  };
  const Bad cases[] = {
      {"ACL entry with an issuer", Acl({"(5:entry" + by_k0 + to_k1 + kFtp + ")"}), "",
       SPKI_ERR_ACL_HAS_ISSUER},
      // The ACL is read before the sequence: its error wins.
      {"the ACL's error first", Acl({"(5:entry" + by_k0 + to_k1 + ")"}), cert(to_k1),
       SPKI_ERR_ACL_HAS_ISSUER},
      {"certificate without an issuer", kRoot, cert(to_k1 + kFtp), SPKI_ERR_NEEDS_ISSUER},
      {"name certificate with a tag", kRoot,
       cert(issuer("(4:name" + K0 + "4:team)") + to_k1 + kFtp), SPKI_ERR_NAME_AND_TAG},
      {"empty issuer", kRoot, cert("(6:issuer)" + to_k1), SPKI_ERR_ISSUER_SYNTAX},
      {"issuer that is not a principal", kRoot, cert(issuer("(3:foo)") + to_k1),
       SPKI_ERR_ISSUER_SYNTAX},
      {"issuer name without a name", kRoot, cert(issuer("(4:name" + K0 + ")") + to_k1),
       SPKI_ERR_ISSUER_SYNTAX},
      {"issuer name with two names", kRoot, cert(issuer("(4:name" + K0 + "1:a1:b)") + to_k1),
       SPKI_ERR_ISSUER_SYNTAX},
      {"two issuers in one field", kRoot, cert(issuer(K0 + K1) + to_k1), SPKI_ERR_ISSUER_SYNTAX},
      {"empty subject", kRoot, cert(by_k0 + "(7:subject)"), SPKI_ERR_SUBJECT_SYNTAX},
      {"no subject at all", kRoot, cert(by_k0 + kFtp), SPKI_ERR_SUBJECT_SYNTAX},
      {"subject atom", kRoot, cert(by_k0 + "(7:subject1:x)"), SPKI_ERR_SUBJECT_SYNTAX},
      {"empty subject name", kRoot, cert(by_k0 + subject("(4:name)")), SPKI_ERR_SUBJECT_SYNTAX},
      {"subject name with a principal only", kRoot, cert(by_k0 + subject(Name(K0, {}))),
       SPKI_ERR_SUBJECT_SYNTAX},
      {"relative name in an ACL entry", Acl({Entry({Name("", {"team"}), false, kFtp})}), "",
       SPKI_ERR_SUBJECT_SYNTAX},
      {"subject that is not a principal", kRoot, cert(by_k0 + subject("(3:foo)")),
       SPKI_ERR_PRINCIPAL_EXPECTED},
      {"name relative to a non-principal", kRoot, cert(by_k0 + subject("(4:name(3:foo)1:a)")),
       SPKI_ERR_PRINCIPAL_EXPECTED},
      {"name that is a list", kRoot, cert(by_k0 + subject("(4:name" + K0 + "(1:a))")),
       SPKI_ERR_NAME_SYNTAX},
      {"k of 0", kRoot, cert(by_k0 + subject(KOfN(0, {KA, KB}))), SPKI_ERR_K_OF_N_SYNTAX},
      {"k above n", kRoot, cert(by_k0 + subject(KOfN(3, {KA, KB}))), SPKI_ERR_K_OF_N_SYNTAX},
      {"n not the member count", kRoot,
       cert(by_k0 + subject("(6:k-of-n1:\x01"
                            "1:\x03" +
                            KA + KB + ")")),
       SPKI_ERR_K_OF_N_SYNTAX},
      {"k of two bytes", kRoot,
       cert(by_k0 + subject("(6:k-of-n2:\x01\x01"
                            "1:\x02" +
                            KA + KB + ")")),
       SPKI_ERR_K_OF_N_SYNTAX},
      {"k-of-n member atom", kRoot,
       cert(by_k0 + subject("(6:k-of-n1:\x01"
                            "1:\x02" +
                            KA + "1:x)")),
       SPKI_ERR_K_OF_N_SYNTAX},
      {"k-of-n member not a principal", kRoot, cert(by_k0 + subject(KOfN(1, {KA, "(3:foo)"}))),
       SPKI_ERR_PRINCIPAL_EXPECTED},
      {"name certificate for a k-of-n", kRoot,
       cert(issuer("(4:name" + K0 + "4:team)") + subject(KOfN(1, {KA}))), SPKI_ERR_THRESHOLD},
      {"two propagate fields", kRoot, cert(by_k0 + to_k1 + "(9:propagate)(9:propagate)"),
       SPKI_ERR_TOO_MANY_PROPAGATE},
      {"two tag fields", kRoot, cert(by_k0 + to_k1 + kFtp + kFtp), SPKI_ERR_TOO_MANY_TAGS},
      {"unknown hash algorithm", kRoot, cert(issuer("(4:hash3:md516:0123456789abcdef)") + to_k1),
       SPKI_ERR_UNKNOWN_HASH},
      {"hash of the wrong length", kRoot, cert(issuer("(4:hash6:sha2563:abc)") + to_k1),
       SPKI_ERR_HASH_LENGTHS_DIFFER},
      {"hash without a value", kRoot, cert(issuer("(4:hash6:sha256)") + to_k1),
       SPKI_ERR_BAD_HASH_FORMAT},
      {"hash with a list value", kRoot, cert(issuer("(4:hash6:sha256(1:x))") + to_k1),
       SPKI_ERR_BAD_HASH_FORMAT},
  };
  for (const Bad& c : cases) {
    SCOPED_TRACE(c.name);
    std::string result = "untouched";
    EXPECT_EQ(ReduceCanonical(0, c.acl, c.cert.empty() ? kNoCerts : Sequence({c.cert}), K1, nullptr,
                              nullptr, &result),
              c.want);
    EXPECT_TRUE(result.empty());
  }
}

}  // namespace
}  // namespace velk2::engine
