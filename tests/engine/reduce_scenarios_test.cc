// The reduction on whole scenarios: an ACL, a certificate sequence, a key,
// optionally a tag and a period, against the reduced ACL it must print.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "engine/query.h"
#include "engine/status.h"
#include "tests/engine/reduce_texts.h"

namespace velk2::engine {
namespace {

using namespace texts;

const std::string K0 = Key("K0");
const std::string K1 = Key("K1");
const std::string K2 = Key("K2");
const std::string K3 = Key("K3");
const std::string KA = Key("KA");
const std::string KB = Key("KB");
const std::string KC = Key("KC");

std::string T(std::string_view readable) {
  return Canonical(readable);
}

struct Scenario {
  const char* name;
  std::string acl;
  std::string sequence;
  std::string key;
  std::optional<std::string> tag;
  std::optional<std::string> validity;
  Status want_status;
  std::string want;  // the reduced ACL (when the status is 0)
};

void RunScenario(const Scenario& s) {
  SCOPED_TRACE(s.name);
  std::string result = "untouched";
  std::string_view tag_view;
  std::string_view validity_view;
  if (s.tag) tag_view = *s.tag;
  if (s.validity) validity_view = *s.validity;
  Status status = ReduceCanonical(0, s.acl, s.sequence, s.key, s.tag ? &tag_view : nullptr,
                                  s.validity ? &validity_view : nullptr, &result);
  ASSERT_EQ(status, s.want_status) << SpkiErrorMessageUtf8(status);
  if (status == SPKI_OK) {
    EXPECT_EQ(result, s.want);
  } else {
    EXPECT_TRUE(result.empty());
  }
}

const std::string kFtp = T("(tag (ftp))");
const std::string kEmptySeq = Sequence({});

TEST(ReduceScenarios, DirectGrantsAndChains) {
  const Scenario cases[] = {
      {"direct ACL grant", Acl({Entry({K1, false, kFtp})}), kEmptySeq, K1, std::nullopt,
       std::nullopt, 0, Result({ResultEntry(K1, false, kFtp)})},
      {"direct grant asked with the same tag", Acl({Entry({K1, true, kFtp})}), kEmptySeq, K1, kFtp,
       std::nullopt, 0, Result({ResultEntry(K1, true, kFtp)})},
      {"an entry for another key gives nothing", Acl({Entry({K2, true, kFtp})}), kEmptySeq, K1,
       std::nullopt, std::nullopt, 0, Result({})},
      {"an empty ACL gives nothing", Acl({}), kEmptySeq, K1, std::nullopt, std::nullopt, 0,
       Result({})},
      {"chain of 1 with propagate in the ACL", Acl({Entry({K0, true, kFtp})}),
       Sequence({Signed(Cert(K0, {K1, false, kFtp}), K0)}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp)})},
      {"chain of 1 without propagate in the ACL", Acl({Entry({K0, false, kFtp})}),
       Sequence({Cert(K0, {K1, false, kFtp})}), K1, std::nullopt, std::nullopt, 0, Result({})},
      {"chain of 2", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K0, {K1, true, kFtp}), Cert(K1, {K2, false, kFtp})}), K2, std::nullopt,
       std::nullopt, 0, Result({ResultEntry(K2, false, kFtp)})},
      {"chain of 2 broken by a certificate without propagate", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K0, {K1, false, kFtp}), Cert(K1, {K2, false, kFtp})}), K2, std::nullopt,
       std::nullopt, 0, Result({})},
      {"chain of 3 keeps the last certificate's propagate", Acl({Entry({K0, true, kFtp})}),
       Sequence(
           {Cert(K0, {K1, true, kFtp}), Cert(K1, {K2, true, kFtp}), Cert(K2, {K3, true, kFtp})}),
       K3, std::nullopt, std::nullopt, 0, Result({ResultEntry(K3, true, kFtp)})},
      {"chain of 3 given leaf first", Acl({Entry({K0, true, kFtp})}),
       Sequence(
           {Cert(K2, {K3, false, kFtp}), Cert(K1, {K2, true, kFtp}), Cert(K0, {K1, true, kFtp})}),
       K3, std::nullopt, std::nullopt, 0, Result({ResultEntry(K3, false, kFtp)})},
      {"chain of 3 asked about a key in the middle", Acl({Entry({K0, true, kFtp})}),
       Sequence(
           {Cert(K0, {K1, true, kFtp}), Cert(K1, {K2, true, kFtp}), Cert(K2, {K3, false, kFtp})}),
       K2, std::nullopt, std::nullopt, 0, Result({ResultEntry(K2, true, kFtp)})},
      {"a certificate whose issuer has no authority", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K2, {K1, false, kFtp})}), K1, std::nullopt, std::nullopt, 0, Result({})},
      {"credentials nested in inner lists are walked",
       Acl({"(3:acl" + Entry({K0, true, kFtp}) + ")"}),
       Sequence({Sequence({Cert(K0, {K1, false, kFtp})})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp)})},
      {"a credential without a tag takes the one asked for", Acl({Entry({K0, true, ""})}),
       Sequence({Cert(K0, {K1, false, ""})}), K1, kFtp, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp)})},
      {"no tag anywhere prints the bare tag", Acl({Entry({K1, false, ""})}), kEmptySeq, K1,
       std::nullopt, std::nullopt, 0, Result({ResultEntry(K1, false, "")})},
  };
  for (const Scenario& s : cases) RunScenario(s);
}

TEST(ReduceScenarios, TagsNarrowAlongTheChain) {
  const Scenario cases[] = {
      {"each link narrows", Acl({Entry({K0, true, T("(tag (ftp))")})}),
       Sequence({Cert(K0, {K1, true, T("(tag (ftp host))")}),
                 Cert(K1, {K2, false, T("(tag (ftp host dir))")})}),
       K2, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K2, false, T("(tag (ftp host dir))"))})},
      {"a broader certificate cannot widen the ACL",
       Acl({Entry({K0, true, T("(tag (ftp host))")})}),
       Sequence({Cert(K0, {K1, false, T("(tag (ftp))")})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, T("(tag (ftp host))"))})},
      {"disjoint tags end the chain", Acl({Entry({K0, true, T("(tag (ftp))")})}),
       Sequence({Cert(K0, {K1, false, T("(tag (http))")})}), K1, std::nullopt, std::nullopt, 0,
       Result({})},
      {"a set narrowed to one member",
       Acl({Entry({K0, true, T("(tag (file (* set read write)))")})}),
       Sequence({Cert(K0, {K1, false, T("(tag (file read))")})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, T("(tag (file read))"))})},
      {"the asked tag prunes the grant", Acl({Entry({K1, false, T("(tag (ftp))")})}), kEmptySeq, K1,
       T("(tag (ftp host))"), std::nullopt, 0,
       Result({ResultEntry(K1, false, T("(tag (ftp host))"))})},
      {"an asked tag disjoint from every grant", Acl({Entry({K1, false, T("(tag (ftp))")})}),
       kEmptySeq, K1, T("(tag (http))"), std::nullopt, 0, Result({})},
      {"(*) grants everything asked", Acl({Entry({K1, false, T("(tag (*))")})}), kEmptySeq, K1,
       T("(tag (ftp))"), std::nullopt, 0, Result({ResultEntry(K1, false, T("(tag (ftp))"))})},
  };
  for (const Scenario& s : cases) RunScenario(s);
}

TEST(ReduceScenarios, ValidityPeriods) {
  const std::string jan = "2004-01-01_00:00:00";
  const std::string apr = "2004-04-01_00:00:00";
  const std::string jun = "2004-06-30_00:00:00";
  const std::string jul = "2004-07-01_00:00:00";
  const std::string dec = "2004-12-31_00:00:00";
  const Scenario cases[] = {
      {"overlapping periods intersect", Acl({Entry({K0, true, kFtp, jan, jun})}),
       Sequence({Cert(K0, {K1, false, kFtp, apr, dec})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp, apr, jun)})},
      {"touching periods keep the one instant", Acl({Entry({K0, true, kFtp, jan, jun})}),
       Sequence({Cert(K0, {K1, false, kFtp, jun, dec})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp, jun, jun)})},
      {"periods that miss end the chain", Acl({Entry({K0, true, kFtp, jan, jun})}),
       Sequence({Cert(K0, {K1, false, kFtp, jul, dec})}), K1, std::nullopt, std::nullopt, 0,
       Result({})},
      {"an open side takes the other's date", Acl({Entry({K0, true, kFtp, "", jun})}),
       Sequence({Cert(K0, {K1, false, kFtp, apr, ""})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp, apr, jun)})},
      {"only not-after", Acl({Entry({K1, false, kFtp, "", jun})}), kEmptySeq, K1, std::nullopt,
       std::nullopt, 0, Result({ResultEntry(K1, false, kFtp, "", jun)})},
      {"only not-before", Acl({Entry({K1, false, kFtp, apr, ""})}), kEmptySeq, K1, std::nullopt,
       std::nullopt, 0, Result({ResultEntry(K1, false, kFtp, apr, "")})},
      {"the asked period narrows every credential", Acl({Entry({K1, false, kFtp, jan, dec})}),
       kEmptySeq, K1, std::nullopt, Valid(apr, jun), 0,
       Result({ResultEntry(K1, false, kFtp, apr, jun)})},
      {"a credential outside the asked period vanishes", Acl({Entry({K1, false, kFtp, jan, apr})}),
       kEmptySeq, K1, std::nullopt, Valid(jun, dec), 0, Result({})},
      {"a short date sorts before the full one", Acl({Entry({K1, false, kFtp, "2004-06-30", jun})}),
       kEmptySeq, K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp, "2004-06-30", jun)})},
  };
  for (const Scenario& s : cases) RunScenario(s);
}

TEST(ReduceScenarios, DuplicatesAndOrder) {
  const std::string jan = "2004-01-01_00:00:00";
  const std::string dec = "2004-12-31_00:00:00";
  const std::string dated = Entry({K1, false, kFtp, jan, dec});
  const std::string undated = Entry({K1, false, kFtp});
  const std::string dated_cert = Cert(K0, {K1, false, kFtp, jan, dec});
  const std::string undated_cert = Cert(K0, {K1, false, kFtp});
  const Scenario cases[] = {
      {"two identical dated entries give one", Acl({dated, dated}), kEmptySeq, K1, std::nullopt,
       std::nullopt, 0, Result({ResultEntry(K1, false, kFtp, jan, dec)})},
      {"two identical undated entries give two", Acl({undated, undated}), kEmptySeq, K1,
       std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp), ResultEntry(K1, false, kFtp)})},
      {"an entry with only one date is never a duplicate",
       Acl({Entry({K1, false, kFtp, jan, ""}), Entry({K1, false, kFtp, jan, ""})}), kEmptySeq, K1,
       std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp, jan, ""), ResultEntry(K1, false, kFtp, jan, "")})},
      {"two identical dated certificates give one", Acl({Entry({K0, true, kFtp})}),
       Sequence({dated_cert, dated_cert}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp, jan, dec)})},
      {"two identical undated certificates give two", Acl({Entry({K0, true, kFtp})}),
       Sequence({undated_cert, undated_cert}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp), ResultEntry(K1, false, kFtp)})},
      {"newest first: the later entry leads",
       Acl({Entry({K1, false, T("(tag a)")}), Entry({K1, false, T("(tag b)")})}), kEmptySeq, K1,
       std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, T("(tag b)")), ResultEntry(K1, false, T("(tag a)"))})},
      {"newest first: the derived root tuple leads the direct entry",
       Acl({Entry({K1, false, T("(tag a)")}), Entry({K0, true, T("(tag b)")})}),
       Sequence({Cert(K0, {K1, false, T("(tag b)")})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, T("(tag b)")), ResultEntry(K1, false, T("(tag a)"))})},
  };
  for (const Scenario& s : cases) RunScenario(s);
}

TEST(ReduceScenarios, TheSequenceGrantsOnlyThroughCertificates) {
  // An entry or a whole ACL placed among the certificates was signed by nobody:
  // it must not become a root grant, however deep it is nested.
  const Scenario cases[] = {
      {"an entry in the sequence", Acl({}), Sequence({Entry({K1, false, kFtp})}), K1, std::nullopt,
       std::nullopt, 0, Result({})},
      {"an ACL in the sequence", Acl({}), Sequence({Acl({Entry({K1, false, kFtp})})}), K1,
       std::nullopt, std::nullopt, 0, Result({})},
      {"an entry in a nested sequence", Acl({}),
       Sequence({Sequence({Entry({K0, true, kFtp})}), Cert(K0, {K1, false, kFtp})}), K1,
       std::nullopt, std::nullopt, 0, Result({})},
      {"certificates in a nested sequence still count", Acl({Entry({K0, true, kFtp})}),
       Sequence({Sequence({Cert(K0, {K1, false, kFtp})})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp)})},
  };
  for (const Scenario& s : cases) RunScenario(s);
}

TEST(ReduceScenarios, PrincipalsAsHashes) {
  const Scenario cases[] = {
      {"an ACL entry naming the key by its SHA-256 hash", Acl({Entry({HashOf(K1), false, kFtp})}),
       kEmptySeq, K1, std::nullopt, std::nullopt, 0, Result({ResultEntry(K1, false, kFtp)})},
      {"an issuer named by its hash", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(HashOf(K0), {K1, false, kFtp})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp)})},
      {"a SHA-1 hash matched with a key met in a signature",
       Acl({Entry({HashOf(K0, "sha1"), true, kFtp})}),
       Sequence({Signed(Cert(K0, {K1, false, kFtp}), K0)}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp)})},
      {"the key asked about given as a hash", Acl({Entry({K1, false, kFtp})}), kEmptySeq,
       HashOf(K1), std::nullopt, std::nullopt, 0, Result({ResultEntry(K1, false, kFtp)})},
      {"a hash of an unknown key stands for itself and prints as the hash",
       Acl({Entry({HashOf(Key("nobody")), false, kFtp})}), kEmptySeq, HashOf(Key("nobody")),
       std::nullopt, std::nullopt, 0, Result({ResultEntry(HashOf(Key("nobody")), false, kFtp)})},
      {"a hash of another key gives nothing", Acl({Entry({HashOf(K2), false, kFtp})}), kEmptySeq,
       K1, std::nullopt, std::nullopt, 0, Result({})},
  };
  for (const Scenario& s : cases) RunScenario(s);
}

TEST(ReduceScenarios, NameCertificates) {
  // K0's "team" is KA; KA's "lead" is K1.
  const std::string team_is_ka = Cert("(4:name" + K0 + "4:team)", {KA});
  const std::string lead_is_k1 = Cert("(4:name" + KA + "4:lead)", {K1});
  const Scenario cases[] = {
      {"an ACL entry for a name, defined later", Acl({Entry({Name(K0, {"team"}), false, kFtp})}),
       Sequence({team_is_ka}), KA, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(KA, false, kFtp)})},
      {"a definition before the reference", Acl({"(3:acl" + Entry({K0, true, kFtp}) + ")"}),
       Sequence({team_is_ka, Cert(K0, {Name(K0, {"team"}), false, kFtp})}), KA, std::nullopt,
       std::nullopt, 0, Result({ResultEntry(KA, false, kFtp)})},
      {"a name relative to the certificate's issuer", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K0, {Name("", {"team"}), false, kFtp}), team_is_ka}), KA, std::nullopt,
       std::nullopt, 0, Result({ResultEntry(KA, false, kFtp)})},
      {"a compound name resolved in two steps",
       Acl({Entry({Name(K0, {"team", "lead"}), false, kFtp})}), Sequence({lead_is_k1, team_is_ka}),
       K1, std::nullopt, std::nullopt, 0, Result({ResultEntry(K1, false, kFtp)})},
      {"a name defined for another key gives nothing",
       Acl({Entry({Name(K0, {"team"}), false, kFtp})}), Sequence({team_is_ka}), K1, std::nullopt,
       std::nullopt, 0, Result({})},
      {"a name never defined gives nothing", Acl({Entry({Name(K0, {"staff"}), false, kFtp})}),
       Sequence({team_is_ka}), KA, std::nullopt, std::nullopt, 0, Result({})},
  };
  for (const Scenario& s : cases) RunScenario(s);
}

TEST(ReduceScenarios, Thresholds) {
  const std::string block = KOfN(2, {KA, KB, KC});
  const Scenario cases[] = {
      {"2 of 3 reached through two members", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K0, {block, true, kFtp}), Cert(KA, {K1, false, kFtp}),
                 Cert(KC, {K1, false, kFtp})}),
       K1, std::nullopt, std::nullopt, 0, Result({ResultEntry(K1, false, kFtp)})},
      {"2 of 3 not reached with one member", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K0, {block, true, kFtp}), Cert(KA, {K1, false, kFtp})}), K1, std::nullopt,
       std::nullopt, 0, Result({})},
      {"2 of 3 not reached when the members lead to different keys", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K0, {block, true, kFtp}), Cert(KA, {K1, false, kFtp}),
                 Cert(KB, {K2, false, kFtp})}),
       K1, std::nullopt, std::nullopt, 0, Result({})},
      {"the combination takes the narrowest tag", Acl({Entry({K0, true, T("(tag (ftp))")})}),
       Sequence({Cert(K0, {block, true, T("(tag (ftp))")}),
                 Cert(KA, {K1, false, T("(tag (ftp host))")}),
                 Cert(KB, {K1, false, T("(tag (ftp host dir))")})}),
       K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, T("(tag (ftp host dir))"))})},
      {"members with disjoint tags do not combine", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K0, {block, true, kFtp}), Cert(KA, {K1, false, T("(tag (ftp a))")}),
                 Cert(KB, {K1, false, T("(tag (ftp b))")})}),
       K1, std::nullopt, std::nullopt, 0, Result({})},
      {"the key itself as two members of an ACL block",
       Acl({Entry({KOfN(2, {K1, KB, K1}), false, kFtp})}), kEmptySeq, K1, std::nullopt,
       std::nullopt, 0, Result({ResultEntry(K1, false, kFtp)})},
      {"a block without propagate cannot reach through members", Acl({Entry({K0, true, kFtp})}),
       Sequence({Cert(K0, {block, false, kFtp}), Cert(KA, {K1, false, kFtp}),
                 Cert(KB, {K1, false, kFtp})}),
       K1, std::nullopt, std::nullopt, 0, Result({})},
      {"a block nested in another", Acl({Entry({KOfN(2, {KOfN(1, {KA, KB}), KC}), false, kFtp})}),
       Sequence({Cert(KB, {K1, false, kFtp}), Cert(KC, {K1, false, kFtp})}), K1, std::nullopt,
       std::nullopt, 0, Result({})},
      {"members as names", Acl({Entry({KOfN(1, {Name(K0, {"team"}), KB}), false, kFtp})}),
       Sequence({Cert("(4:name" + K0 + "4:team)", {K1})}), K1, std::nullopt, std::nullopt, 0,
       Result({ResultEntry(K1, false, kFtp)})},
  };
  for (const Scenario& s : cases) RunScenario(s);
}

TEST(ReduceScenarios, NestedThresholdReachedThroughPropagatingMembers) {
  // Outer 2-of-2: an inner 1-of-2 (KA, KB) and KC; all members delegate.
  std::string block = KOfN(2, {KOfN(1, {KA, KB}), KC});
  RunScenario({"nested", Acl({Entry({block, true, kFtp})}),
               Sequence({Cert(KB, {K1, false, kFtp}), Cert(KC, {K1, false, kFtp})}), K1,
               std::nullopt, std::nullopt, 0, Result({ResultEntry(K1, false, kFtp)})});
}

TEST(ReduceScenarios, CredentialErrors) {
  const std::string issuer_entry = "(5:entry(6:issuer" + K0 + ")(7:subject" + K1 + ")" + kFtp + ")";
  const std::string no_issuer = "(4:cert(7:subject" + K1 + ")" + kFtp + ")";
  auto cert_with = [](const std::string& fields) { return "(4:cert" + fields + ")"; };
  auto issuer = [](const std::string& inner) { return "(6:issuer" + inner + ")"; };
  auto subject = [](const std::string& inner) { return "(7:subject" + inner + ")"; };
  const std::string acl = Acl({Entry({K0, true, kFtp})});
  struct Bad {
    const char* name;
    std::string acl;
    std::string cert;
    Status want;
  };
  const Bad cases[] = {
      {"ACL entry with an issuer", Acl({issuer_entry}), "", SPKI_ERR_ACL_HAS_ISSUER},
      {"certificate without an issuer", acl, no_issuer, SPKI_ERR_NEEDS_ISSUER},
      {"name certificate with a tag", acl,
       cert_with(issuer("(4:name" + K0 + "4:team)") + subject(K1) + kFtp), SPKI_ERR_NAME_AND_TAG},
      {"empty issuer", acl, cert_with("(6:issuer)" + subject(K1)), SPKI_ERR_ISSUER_SYNTAX},
      {"issuer that is not a principal", acl, cert_with(issuer("(3:foo)") + subject(K1)),
       SPKI_ERR_ISSUER_SYNTAX},
      {"issuer name without a name", acl, cert_with(issuer("(4:name" + K0 + ")") + subject(K1)),
       SPKI_ERR_ISSUER_SYNTAX},
      {"issuer name with two names", acl,
       cert_with(issuer("(4:name" + K0 + "1:a1:b)") + subject(K1)), SPKI_ERR_ISSUER_SYNTAX},
      {"two issuers in one field", acl, cert_with(issuer(K0 + K1) + subject(K1)),
       SPKI_ERR_ISSUER_SYNTAX},
      {"empty subject", acl, cert_with(issuer(K0) + "(7:subject)"), SPKI_ERR_SUBJECT_SYNTAX},
      {"no subject at all", acl, cert_with(issuer(K0) + kFtp), SPKI_ERR_SUBJECT_SYNTAX},
      {"subject atom", acl, cert_with(issuer(K0) + "(7:subject1:x)"), SPKI_ERR_SUBJECT_SYNTAX},
      {"empty subject name", acl, cert_with(issuer(K0) + subject("(4:name)")),
       SPKI_ERR_SUBJECT_SYNTAX},
      {"subject name with a principal only", acl, cert_with(issuer(K0) + subject(Name(K0, {}))),
       SPKI_ERR_SUBJECT_SYNTAX},
      {"relative name in an ACL entry", Acl({Entry({Name("", {"team"}), false, kFtp})}), "",
       SPKI_ERR_SUBJECT_SYNTAX},
      {"subject that is not a principal", acl, cert_with(issuer(K0) + subject("(3:foo)")),
       SPKI_ERR_PRINCIPAL_EXPECTED},
      {"name relative to a non-principal", acl,
       cert_with(issuer(K0) + subject("(4:name(3:foo)1:a)")), SPKI_ERR_PRINCIPAL_EXPECTED},
      {"name that is a list", acl, cert_with(issuer(K0) + subject("(4:name" + K0 + "(1:a))")),
       SPKI_ERR_NAME_SYNTAX},
      {"k of 0", acl, cert_with(issuer(K0) + subject(KOfN(0, {KA, KB}))), SPKI_ERR_K_OF_N_SYNTAX},
      {"k above n", acl, cert_with(issuer(K0) + subject(KOfN(3, {KA, KB}))),
       SPKI_ERR_K_OF_N_SYNTAX},
      {"n not the member count", acl,
       cert_with(issuer(K0) + subject("(6:k-of-n1:\x01"
                                      "1:\x03" +
                                      KA + KB + ")")),
       SPKI_ERR_K_OF_N_SYNTAX},
      {"k of two bytes", acl,
       cert_with(issuer(K0) + subject("(6:k-of-n2:\x01\x01"
                                      "1:\x02" +
                                      KA + KB + ")")),
       SPKI_ERR_K_OF_N_SYNTAX},
      {"k-of-n member atom", acl,
       cert_with(issuer(K0) + subject("(6:k-of-n1:\x01"
                                      "1:\x02" +
                                      KA + "1:x)")),
       SPKI_ERR_K_OF_N_SYNTAX},
      {"k-of-n member not a principal", acl,
       cert_with(issuer(K0) + subject(KOfN(1, {KA, "(3:foo)"}))), SPKI_ERR_PRINCIPAL_EXPECTED},
      {"name certificate for a k-of-n", acl,
       cert_with(issuer("(4:name" + K0 + "4:team)") + subject(KOfN(1, {KA}))), SPKI_ERR_THRESHOLD},
      {"two propagate fields", acl,
       cert_with(issuer(K0) + subject(K1) + "(9:propagate)(9:propagate)"),
       SPKI_ERR_TOO_MANY_PROPAGATE},
      {"two tag fields", acl, cert_with(issuer(K0) + subject(K1) + kFtp + kFtp),
       SPKI_ERR_TOO_MANY_TAGS},
      {"unknown hash algorithm", acl,
       cert_with(issuer("(4:hash3:md516:0123456789abcdef)") + subject(K1)), SPKI_ERR_UNKNOWN_HASH},
      {"hash of the wrong length", acl, cert_with(issuer("(4:hash6:sha2563:abc)") + subject(K1)),
       SPKI_ERR_HASH_LENGTHS_DIFFER},
      {"hash without a value", acl, cert_with(issuer("(4:hash6:sha256)") + subject(K1)),
       SPKI_ERR_BAD_HASH_FORMAT},
      {"hash with a list value", acl, cert_with(issuer("(4:hash6:sha256(1:x))") + subject(K1)),
       SPKI_ERR_BAD_HASH_FORMAT},
  };
  for (const Bad& c : cases) {
    std::string sequence = c.cert.empty() ? kEmptySeq : Sequence({c.cert});
    RunScenario({c.name, c.acl, sequence, K1, std::nullopt, std::nullopt, c.want, ""});
  }
}

TEST(ReduceScenarios, FirstErrorWinsAndDroppedCredentialsAreNoError) {
  const std::string jan = "2004-01-01_00:00:00";
  const std::string feb = "2004-02-01_00:00:00";
  // Without an issuer, but outside the asked period: dropped before the issuer check.
  RunScenario({"dropped by period before the issuer check", Acl({}),
               Sequence({"(4:cert(7:subject" + K1 + ")" + Valid(jan, jan) + ")"}), K1, std::nullopt,
               Valid(feb, feb), 0, Result({})});
  RunScenario({"dropped by tag before the issuer check", Acl({}),
               Sequence({"(4:cert(7:subject" + K1 + ")" + T("(tag (http))") + ")"}), K1, kFtp,
               std::nullopt, 0, Result({})});
  // The ACL is read before the sequence: its error wins.
  RunScenario({"the ACL's error first", Acl({"(5:entry(6:issuer" + K0 + ")(7:subject" + K1 + "))"}),
               Sequence({"(4:cert(7:subject" + K1 + "))"}), K1, std::nullopt, std::nullopt,
               SPKI_ERR_ACL_HAS_ISSUER, ""});
  // A repeated date replaces the earlier one instead of failing.
  RunScenario({"repeated dates",
               Acl({"(5:entry(7:subject" + K1 + ")" + kFtp + "(5:valid(10:not-before" + Atom(jan) +
                    ")(10:not-before" + Atom(feb) + ")))"}),
               kEmptySeq, K1, std::nullopt, std::nullopt, 0,
               Result({ResultEntry(K1, false, kFtp, feb, "")})});
}

}  // namespace
}  // namespace velk2::engine
