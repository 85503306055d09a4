// The verdict renderer on verdicts built by hand: what each part prints, the
// revocation story in place of the order check's code, and JSON that stays
// JSON whatever the files said.
#include "tools/velk2/verdict.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

namespace velk2::cli {
namespace {

using Json = nlohmann::json;

api::Grant Grant(int id, const std::string& text, const std::string& source) {
  api::Grant g;
  g.id = id;
  g.kind = "derived";
  g.text = text;
  g.source = source;
  g.tag = "(pkg install)";
  return g;
}

api::Verdict Authorized() {
  api::Verdict v;
  v.result = 0;
  v.stage = api::Stage::kAuthorization;
  v.explained = true;
  api::Explanation& x = v.explanation;
  x.key = std::string(64, 'c');
  x.key_name = "pkg.pub [cccccccccccccccc]";
  x.tag = "(pkg install)";
  x.any_time = true;
  x.acl_source = "acl";
  x.acl_entries = 1;
  x.certificates_source = "chain.cert";
  x.certificates = 2;
  x.reduced = true;
  x.result = {Grant(5, "the ACL grants pkg.pub (pkg install), always", "chained from [4] and [3]")};
  x.chain = {Grant(1, "the ACL grants root (pkg), may delegate, always", "ACL entry root.acl"),
             x.result[0]};
  x.chain[0].stated_tag = "(pkg)";
  x.considered = x.chain;
  return v;
}

TEST(Verdict, TextAndJsonOfAnAnswer) {
  api::Verdict v = Authorized();
  EXPECT_EQ(VerdictText(v, false), "result: 0 Success\nauthorized: yes\n");
  const std::string text = VerdictText(v, true);
  EXPECT_NE(text.find("question: does pkg.pub [cccccccccccccccc] hold (pkg install) at any time?"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("  [1] the ACL grants root (pkg), may delegate, always\n       ACL entry "
                      "root.acl, which states (pkg)\n"),
            std::string::npos)
      << text;
  Json j = Json::parse(VerdictJsonText(v));
  EXPECT_EQ(j["authorized"], true);
  EXPECT_EQ(j["stage"], "authorization");
  EXPECT_EQ(j["chain"].size(), 2u);
  EXPECT_TRUE(j["question"]["not_before"].is_null());

  // A stage before the authorization prints nothing here; its JSON says which.
  v.stage = api::Stage::kRevocation;
  v.result = 66;
  v.certificate = 2;
  v.why = "certificate 2 of chain.cert: revoked by s/cert/(revoke pkg).crl on 2026-03-01";
  v.revoked_by = "s/cert/(revoke pkg).crl";
  EXPECT_EQ(VerdictText(v, true), "");
  j = Json::parse(VerdictJsonText(v));
  EXPECT_EQ(j["stage"], "revocation");
  EXPECT_EQ(j["certificate"], 2);
  EXPECT_EQ(j["revoked_by"], "s/cert/(revoke pkg).crl");

  // An engine status is no answer: undecided, with the limit that was hit.
  v = Authorized();
  v.result = static_cast<api::Result>(-130);
  v.explanation.reduced = false;
  v.explanation.limit_reached = true;
  v.explanation.limit = "work steps";
  const std::string undecided = VerdictText(v, true);
  EXPECT_NE(undecided.find("authorized: undecided"), std::string::npos) << undecided;
  EXPECT_NE(undecided.find("it stopped at its limit of work steps"), std::string::npos);
  j = Json::parse(VerdictJsonText(v));
  EXPECT_EQ(j["decided"], false);
  EXPECT_EQ(j["result"], -130);
}

// The order check's code never speaks for a chain that revocation cut
// short; other codes keep their own words.
TEST(Verdict, RevocationSpeaksForTheOrderCheck) {
  api::Verdict v = Authorized();
  v.result = 36;
  v.explanation.reduced = false;
  v.explanation.revocation_explains_order = true;
  v.explanation.revocation_cause =
      "certificate 2 of pkg/manifest was left out of the chain: its subject key is revoked";
  v.explanation.left_out_by_revocation = {
      {2, "", "subject key revoked", "", "(revoke pkg)", "2027-01-01_00:00:00",
       "its subject key is revoked by the manifest's own list of (revoke pkg) on "
       "2027-01-01_00:00:00"}};
  const std::string text = VerdictText(v, true);
  EXPECT_EQ(text.find("ORDER"), std::string::npos) << text;
  EXPECT_NE(text.find("result: 36, after the revocation check"), std::string::npos) << text;
  EXPECT_NE(text.find("left out of the chain by the revocation check:\n  - certificate 2 of "),
            std::string::npos)
      << text;
  Json j = Json::parse(VerdictJsonText(v));
  EXPECT_EQ(j["message"], v.explanation.revocation_cause);
  EXPECT_EQ(j["left_out_by_revocation"][0]["embedded"], true);
  v.result = 31;
  v.explanation.revocation_explains_order = false;
  EXPECT_NE(VerdictText(v, false).find("result: 31 VELK2_ERR_NOT_AUTHORIZED"), std::string::npos);
  EXPECT_EQ(Json::parse(VerdictJsonText(v))["message"], "VELK2_ERR_NOT_AUTHORIZED");
}

// Texts from files reach the JSON as they stand, and bytes that are not
// UTF-8 never break the document.
TEST(Verdict, HostileTextsStayInsideTheirStrings) {
  api::Verdict v = Authorized();
  v.skipped = {{"bad\xff\xfe.acl", 6}};
  v.explanation.chain[0].subject_name = "owner \"x\"}\x1b[2J\n";
  const std::string dumped = VerdictJsonText(v);
  EXPECT_EQ(dumped.find('\x1b'), std::string::npos);
  EXPECT_EQ(dumped.find('\n'), std::string::npos);
  const Json j = Json::parse(dumped);
  EXPECT_EQ(j["skipped_files"][0]["result"], 6);
  EXPECT_EQ(j["chain"][0]["subject_name"], "owner \"x\"}\x1b[2J\n");
  // The text escapes the paths it prints.
  v.explanation.acl_source = "a\x1b[2Jb";
  EXPECT_NE(VerdictText(v, true).find("from a\\x1b[2Jb"), std::string::npos);
}

}  // namespace
}  // namespace velk2::cli
