// The verdict renderer on stories built by hand: what each stage prints, the
// reasons it gives for "no", and JSON that stays JSON whatever the files say.
#include "tools/velk2/verdict.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

namespace velk2::cli {
namespace {

using engine::TraceKind;
using engine::TraceTuple;
using Json = nlohmann::json;

const std::string kRoot(64, 'a');
const std::string kDev(64, 'b');
const std::string kPkg(64, 'c');

TraceTuple Tuple(int id, TraceKind kind, const std::string& issuer, const std::string& subject,
                 bool propagate, std::vector<int> parents = {}) {
  TraceTuple t;
  t.id = id;
  t.kind = kind;
  t.issuer = issuer;
  t.subject = subject;
  t.propagate = propagate;
  t.tag = "(3:tag(3:pkg7:install))";
  t.parents = std::move(parents);
  return t;
}

// The ACL grants root, root certifies dev, dev certifies the package key.
Story Chain(bool dev_may_delegate) {
  Story s;
  s.key = kPkg;
  s.key_file = "pkg.pub";
  s.tag = "(pkg install)";
  s.any_time = true;
  s.certs_file = "chain.cert";
  s.acl = {{"root.acl", kRoot, true, {"(pkg)", "", ""}}};
  s.certificates = {{1, "root", kRoot, kDev, dev_may_delegate, {"(pkg install)", "", ""}, ""},
                    {2, "dev", kDev, kPkg, false, {"(pkg install)", "", ""}, "(revoke pkg)"}};
  s.names = {{kPkg, "pkg.pub"}, {kRoot, "subject of root.acl"}};
  s.trace.tuples = {Tuple(1, TraceKind::kAclEntry, "", kRoot, true),
                    Tuple(2, TraceKind::kCertificate, kRoot, kDev, dev_may_delegate),
                    Tuple(3, TraceKind::kCertificate, kDev, kPkg, false)};
  s.trace.tuples[2].on_key_path = true;
  s.verdict.stage = VerifyStage::kAuthorization;
  s.reduced = true;
  if (dev_may_delegate) {
    s.trace.tuples.push_back(Tuple(4, TraceKind::kDerived, "", kDev, true, {1, 2}));
    s.trace.tuples.push_back(Tuple(5, TraceKind::kDerived, "", kPkg, false, {4, 3}));
    s.trace.result = {5};
    s.verdict.result = VELK2_SUCCESS;
  } else {
    s.trace.tuples.push_back(Tuple(4, TraceKind::kDerived, "", kDev, false, {1, 2}));
    s.verdict.result = VELK2_ERR_NOT_AUTHORIZED;
  }
  return s;
}

TEST(Verdict, AuthorizedChainParentsFirst) {
  const Story s = Chain(true);
  const std::string text = VerdictText(s, true);
  EXPECT_NE(text.find("authorized: yes\n"), std::string::npos) << text;
  EXPECT_NE(text.find("question: does pkg.pub [" + kPkg.substr(0, 16) +
                      "] hold (pkg install) at any time?"),
            std::string::npos)
      << text;
  // Parents come before the tuples derived from them.
  const size_t acl = text.find("  [1] the ACL grants");
  const size_t derived = text.find("  [5] the ACL grants pkg.pub");
  ASSERT_NE(acl, std::string::npos) << text;
  ASSERT_NE(derived, std::string::npos) << text;
  EXPECT_LT(acl, derived);
  EXPECT_NE(text.find("ACL entry root.acl, which states (pkg)"), std::string::npos) << text;
  EXPECT_NE(text.find("certificate chain.cert #2 (owner dev)"), std::string::npos) << text;
  EXPECT_EQ(VerdictText(s, false), "result: 0 Success\nauthorized: yes\n");

  const Json j = Json::parse(VerdictJsonText(s));
  EXPECT_EQ(j["authorized"], true);
  EXPECT_EQ(j["stage"], "authorization");
  ASSERT_EQ(j["entries"].size(), 1u);
  EXPECT_EQ(j["entries"][0]["parents"], Json::array({4, 3}));
  EXPECT_TRUE(j["entries"][0]["issuer"].is_null());
  EXPECT_EQ(j["chain"].size(), 5u);
  EXPECT_EQ(j["chain"][0]["id"], 1);
  EXPECT_TRUE(j["question"]["not_before"].is_null());
}

TEST(Verdict, ReasonsForNo) {
  // dev's grant lacks propagate, so it cannot pass authority on.
  Story s = Chain(false);
  Json j = Json::parse(VerdictJsonText(s));
  EXPECT_EQ(j["authorized"], false);
  EXPECT_EQ(j["decided"], true);
  ASSERT_EQ(j["reasons"].size(), 1u);
  EXPECT_NE(j["reasons"][0].get<std::string>().find("lack propagate"), std::string::npos)
      << j["reasons"];
  EXPECT_NE(VerdictText(s, true).find("why not:\n  - key [" + kDev.substr(0, 16)),
            std::string::npos);

  // Nothing towards the key: the left-out entry and certificate that name it
  // are pointed at.
  s.trace.tuples.resize(1);
  s.acl.push_back({"pkg.acl", kPkg, false, {"(pkg remove)", "", ""}});
  j = Json::parse(VerdictJsonText(s));
  ASSERT_EQ(j["reasons"].size(), 3u) << j["reasons"];
  EXPECT_NE(j["reasons"][1].get<std::string>().find("ACL entry pkg.acl names the key"),
            std::string::npos);
  EXPECT_NE(j["reasons"][2].get<std::string>().find("certificate chain.cert #2 (owner dev) names"),
            std::string::npos);
  EXPECT_EQ(j["left_out"].size(), 3u) << j["left_out"];

  // The first entry grants less than was asked.
  s = Chain(true);
  s.verdict.result = VELK2_ERR_NOT_GRANTED;
  s.tag = "(pkg (* set install remove))";
  j = Json::parse(VerdictJsonText(s));
  ASSERT_EQ(j["reasons"].size(), 1u);
  EXPECT_EQ(j["reasons"][0],
            "the first entry of the reduced ACL grants (pkg install), which does not cover the "
            "requested (pkg (* set install remove))");
}

TEST(Verdict, EarlierStagesAndUndecided) {
  Story s = Chain(true);
  s.verdict = {VELK2_ERR_HASH_MISMATCH, VerifyStage::kSignatures, 1};
  EXPECT_EQ(VerdictText(s, true), "");
  EXPECT_EQ(FailedCertificate(s), "certificate 2 of chain.cert (owner dev)");
  Json j = Json::parse(VerdictJsonText(s));
  EXPECT_EQ(j["stage"], "signatures");
  EXPECT_EQ(j["certificate"], 2);
  EXPECT_EQ(j["owner"], "dev");
  EXPECT_FALSE(j.contains("entries"));
  s.verdict = {VELK2_ERR_CERT_REVOKED, VerifyStage::kRevocation, 0};
  s.certificates[0].owner.clear();
  j = Json::parse(VerdictJsonText(s));
  EXPECT_EQ(j["stage"], "revocation");
  EXPECT_TRUE(j["owner"].is_null());
  EXPECT_FALSE(j.contains("revoked_by"));
  // Which list revoked which certificate, and when; or why none could clear it.
  s.revocation.resize(2);
  s.revocation[0] = {kCertificateRevoked, VELK2_ERR_CERT_REVOKED, u"/s/cert/(revoke pkg).crl",
                     "(revoke pkg)", "2026-03-01_00:00:00\x1b"};
  EXPECT_EQ(StageFailureText(s),
            "certificate 1 of chain.cert: revoked by /s/cert/(revoke pkg).crl on "
            "2026-03-01_00:00:00\\x1b");
  j = Json::parse(VerdictJsonText(s));
  EXPECT_EQ(j["revoked_by"], "/s/cert/(revoke pkg).crl");
  s.revocation[0].state = kSubjectKeyRevoked;
  EXPECT_NE(StageFailureText(s).find("its subject key is revoked by"), std::string::npos);
  s.verdict = {VELK2_ERR_CRL_NOT_FOUND, VerifyStage::kRevocation, 1};
  s.revocation[1] = {kRevocationUnchecked, VELK2_ERR_NOT_AFTER, u"", "", ""};
  EXPECT_EQ(StageFailureText(s),
            "certificate 2 of chain.cert (owner dev): no verified revocation list speaks for it "
            "(it asks for a list of (revoke pkg)); the latest list ends before the period "
            "begins");
  s.verdict = {VELK2_ERR_INVALID_SEQUENCE, VerifyStage::kSignatures, 0};
  EXPECT_EQ(StageFailureText(s), "chain.cert is not a whole certificate sequence");

  // An engine status is no answer: undecided, with the limit that was hit.
  s = Chain(true);
  s.verdict.result = static_cast<Result>(-130);
  s.reduced = false;
  s.trace.limit_reached = true;
  s.trace.limit = "work steps";
  const std::string text = VerdictText(s, true);
  EXPECT_NE(text.find("authorized: undecided"), std::string::npos) << text;
  EXPECT_NE(text.find("it stopped at its limit of work steps"), std::string::npos) << text;
  j = Json::parse(VerdictJsonText(s));
  EXPECT_EQ(j["decided"], false);
  EXPECT_EQ(j["result"], -130);
  EXPECT_EQ(j["limit"], "work steps");
}

// A manifest's chain that lost certificates to revocation: the order check's
// code never speaks for it, the other codes keep their own words, and no
// certificate the revocation check left out is said to be out of period or tag.
TEST(Verdict, RevocationIsSaidForWhatItDid) {
  Story s = Chain(false);
  s.certs_file = "pkg/manifest";
  s.left_out_by_revocation = true;
  s.revocation.assign(2, RevocationFinding{});
  s.revocation[1] = {kSubjectKeyRevoked, VELK2_ERR_KEY_REVOKED, u"", "(revoke pkg)",
                     "2027-01-01_00:00:00"};
  s.verdict.result = VELK2_ERR_SIGNING_CERT_ORDER;
  s.reduced = false;
  const std::string why =
      "certificate 2 of pkg/manifest (owner dev) was left out of the chain: its subject key is "
      "revoked by the manifest's own list of (revoke pkg) on 2027-01-01_00:00:00";
  EXPECT_EQ(RevocationCause(s), why);
  std::string text = VerdictText(s, true);
  EXPECT_EQ(text.find("ORDER"), std::string::npos) << text;
  EXPECT_NE(text.find("result: 36, after the revocation check"), std::string::npos) << text;
  Json j = Json::parse(VerdictJsonText(s));
  EXPECT_EQ(j["message"], why);
  EXPECT_EQ(j["left_out_by_revocation"][0]["state"], "subject key revoked");
  EXPECT_EQ(j["left_out_by_revocation"][0]["embedded"], true);

  // Not authorized for another reason: the code's own words, and the
  // certificate listed as left out by revocation, not by period or tag.
  s.verdict.result = VELK2_ERR_NOT_AUTHORIZED;
  s.reduced = true;
  text = VerdictText(s, true);
  EXPECT_NE(text.find("result: 31 VELK2_ERR_NOT_AUTHORIZED"), std::string::npos) << text;
  EXPECT_NE(text.find("left out of the chain by the revocation check:\n  - certificate 2"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("period or tag"), std::string::npos) << text;
  EXPECT_EQ(Json::parse(VerdictJsonText(s))["message"], "VELK2_ERR_NOT_AUTHORIZED");

  // Many certificates left out: a few are named.
  s.certificates.resize(6, s.certificates[0]);
  s.revocation.assign(6, s.revocation[1]);
  EXPECT_NE(RevocationCause(s).find("; and 3 more"), std::string::npos);
  s.verdict.result = VELK2_SUCCESS;
  EXPECT_EQ(RevocationCause(s), "");
}

// Texts from files reach the JSON as they were escaped for display, and
// bytes that are not UTF-8 never break the document.
TEST(Verdict, HostileTextsStayInsideTheirStrings) {
  Story s = Chain(true);
  s.certificates[1].owner = "dev\"}\x1b[2J\n";
  s.skipped = {{"bad\xff\xfe.acl", VELK2_ERR_INVALID_DATA}};
  s.names[kDev] = "owner \"\\x22}\"";
  const std::string dumped = VerdictJsonText(s);
  EXPECT_EQ(dumped.find('\x1b'), std::string::npos);
  EXPECT_EQ(dumped.find('\n'), std::string::npos);
  const Json j = Json::parse(dumped);
  EXPECT_EQ(j["skipped_files"][0]["result"], 6);
  EXPECT_EQ(j["chain"][1]["subject_name"].get<std::string>().rfind("owner \"\\x22}\"", 0), 0u);
}

}  // namespace
}  // namespace velk2::cli
