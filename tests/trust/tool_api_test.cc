// The tool's questions about chains and tags, through the library's C++
// face for the tool: real keys, an ACL directory and certificate files made
// with the toolkit, and the explanations the reduction's own trace gives.
#include "trust/tool_api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "acl/acl_test_util.h"
#include "platform/zcry.h"
#include "tools/issuing/acl_entry.h"
#include "velk2.h"

namespace velk2 {
namespace {

using testing::PublicKeyList;
using testing::TagList;
using testing::TempDir;
using testing::TestKey;

constexpr int kRoot = 0, kDev = 1, kPkg = 2;

class ToolApi : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(dir_.Sub("acl")); }

  void Grant(const std::string& file, int key, const char* tag, bool propagate) {
    issuing::AclEntryRequest request;
    request.subject = PublicKeyList(key);
    request.propagate = propagate;
    request.tag = TagList(tag);
    Ref<SexpList> entry;
    ASSERT_EQ(issuing::MakeAclEntry(request, &entry), VELK2_SUCCESS);
    ASSERT_EQ(issuing::WriteAclEntry(dir_.Sub("acl/" + file), *entry, true), VELK2_SUCCESS);
  }

  void Certify(int issuer, int subject, const char* tag, bool propagate, const char* owner) {
    issuing::CertificateRequest request;
    request.issuer = PublicKeyList(issuer);
    request.subject = PublicKeyList(subject);
    request.propagate = propagate;
    request.tag = TagList(tag);
    Ref<SexpList> body, signature;
    ASSERT_EQ(issuing::MakeCertificateBody(request, &body), VELK2_SUCCESS);
    ASSERT_EQ(
        issuing::SignObject(TestKey(issuer), *body, issuing::kRsaPss, ZCRY_HASH_SHA256, &signature),
        VELK2_SUCCESS);
    ASSERT_EQ(issuing::AppendCertificate(dir_.Sub("chain.cert"), body, signature, owner),
              VELK2_SUCCESS);
  }

  api::Verdict Ask(const char* tag, int key = kPkg) {
    api::AuthorizeRequest request;
    request.acl_directory = dir_.Sub("acl");
    request.certificates_file = dir_.Sub("chain.cert");
    request.key = StoredForm(*PublicKeyList(key));
    request.key_name = dir_.Sub("pkg.pub");
    request.tag = tag;
    request.period.any_time = true;
    request.explain = true;
    api::Verdict verdict;
    api::InputProblem problem;
    EXPECT_EQ(api::Authorize(request, &verdict, &problem), VELK2_SUCCESS) << problem.what;
    return verdict;
  }

  TempDir dir_;
};

// The ACL grants root, root certifies dev, dev certifies the package key:
// each grant says where it came from, by file and certificate number, and
// parents come before what was made of them.
TEST_F(ToolApi, AnAuthorizedChainNamesItsSources) {
  Grant("root.acl", kRoot, "(pkg)", true);
  Grant("other.acl", kDev, "(mail)", false);
  Certify(kRoot, kDev, "(pkg install)", true, "root");
  Certify(kDev, kPkg, "(pkg install)", false, "dev");
  const api::Verdict v = Ask("(pkg install)");
  ASSERT_EQ(v.result, VELK2_SUCCESS);
  ASSERT_TRUE(v.explained);
  const api::Explanation& x = v.explanation;
  EXPECT_EQ(x.key_name.rfind("pkg.pub [", 0), 0u) << x.key_name;
  EXPECT_EQ(x.acl_entries, 2u);
  EXPECT_EQ(x.certificates, 2u);
  ASSERT_EQ(x.result.size(), 1u);
  // Parents come before what was made of them.
  std::vector<int> seen;
  for (const api::Grant& g : x.chain) {
    for (int parent : g.parents) {
      EXPECT_NE(std::find(seen.begin(), seen.end(), parent), seen.end()) << g.id;
    }
    seen.push_back(g.id);
  }
  ASSERT_EQ(x.chain.size(), 5u);
  bool acl = false, first = false, second = false;
  for (const api::Grant& g : x.chain) {
    acl |= g.source == "ACL entry root.acl" && g.stated_tag == "(pkg)";
    first |= g.source == "certificate chain.cert #1 (owner root)";
    second |= g.source == "certificate chain.cert #2 (owner dev)" &&
              g.issuer_name.rfind("owner \"dev\" [", 0) == 0;
  }
  EXPECT_TRUE(acl && first && second);
  // The (mail) entry never joined: left out, its subject named by its file.
  ASSERT_EQ(x.left_out.size(), 1u);
  EXPECT_EQ(x.left_out[0].rfind("ACL entry other.acl: the ACL grants owner \"dev\" [", 0), 0u)
      << x.left_out[0];
}

TEST_F(ToolApi, ReasonsForNo) {
  Grant("root.acl", kRoot, "(pkg)", true);
  Certify(kRoot, kDev, "(pkg install)", false, "root");  // dev may not delegate
  Certify(kDev, kPkg, "(pkg install)", false, "dev");
  // Nothing reaches the key for this tag: the certificate naming the key was
  // left out by the tag, and says so.
  const api::Verdict v = Ask("(pkg remove)");
  EXPECT_EQ(v.result, VELK2_ERR_NOT_AUTHORIZED);
  ASSERT_GE(v.explanation.reasons.size(), 2u);
  EXPECT_NE(v.explanation.reasons[0].find("no ACL entry or certificate that joined the reduction"),
            std::string::npos);
  EXPECT_EQ(
      v.explanation.reasons[1].rfind("certificate chain.cert #2 (owner dev) names the key", 0), 0u)
      << v.explanation.reasons[1];
}

TEST_F(ToolApi, InputsThatDoNotReadAreNamed) {
  Grant("root.acl", kRoot, "(pkg)", true);
  Certify(kRoot, kPkg, "(pkg install)", false, "root");
  api::AuthorizeRequest request;
  request.acl_directory = dir_.Sub("acl");
  request.certificates_file = dir_.Sub("chain.cert");
  request.key = StoredForm(*PublicKeyList(kPkg));
  request.tag = "(pkg";
  api::Verdict verdict;
  api::InputProblem problem;
  EXPECT_EQ(api::Authorize(request, &verdict, &problem), VELK2_ERR_INVALID_S_EXPRESSION);
  EXPECT_EQ(problem.what, "tag");
  request.tag = "(pkg install)";
  request.key = "(10:public-key";
  EXPECT_NE(api::Authorize(request, &verdict, &problem), VELK2_SUCCESS);
  EXPECT_EQ(problem.what, "key");
  request.key = StoredForm(*PublicKeyList(kPkg));
  request.certificates_file = dir_.Sub("none.cert");
  EXPECT_NE(api::Authorize(request, &verdict, &problem), VELK2_SUCCESS);
  EXPECT_EQ(problem.what, "certificates");
}

// One tag reader for everything: the exports, the tool and the tag
// algebra read a tag text the same way, and a text that only looks like a
// whole (tag ...) or a canonical list is a tag holding that list.
TEST(ToolApiTags, OneReaderForEveryTagText) {
  api::Tag tag;
  ASSERT_EQ(api::ReadTag("(pkg install)", &tag), VELK2_SUCCESS);
  EXPECT_EQ(tag.readable, "(pkg install)");
  EXPECT_EQ(tag.canonical, "(3:tag(3:pkg7:install))");
  ASSERT_EQ(api::ReadTag("(tag (pkg install))", &tag), VELK2_SUCCESS);
  EXPECT_EQ(tag.canonical, "(3:tag(3:tag(3:pkg7:install)))");
  ASSERT_EQ(api::ReadTag("read write", &tag), VELK2_SUCCESS);
  EXPECT_EQ(tag.canonical, "(3:tag4:read5:write)");
  EXPECT_NE(api::ReadTag("(pkg", &tag), VELK2_SUCCESS);

  bool disjoint = true;
  std::string both;
  ASSERT_EQ(api::IntersectTags("(pkg (* set install update))", "(pkg (* set update remove))", false,
                               &disjoint, &both),
            VELK2_SUCCESS);
  EXPECT_FALSE(disjoint);
  EXPECT_EQ(both, "(pkg update)");
  ASSERT_EQ(api::IntersectTags("(pkg)", "(pkg install)", true, &disjoint, &both), VELK2_SUCCESS);
  EXPECT_EQ(both, "(3:pkg7:install)");
  ASSERT_EQ(api::IntersectTags("(pkg)", "(mail)", false, &disjoint, &both), VELK2_SUCCESS);
  EXPECT_TRUE(disjoint);
  EXPECT_NE(api::IntersectTags("(pkg", "(mail)", false, &disjoint, &both), VELK2_SUCCESS);
}

}  // namespace
}  // namespace velk2
