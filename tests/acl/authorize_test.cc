// The authorization query over real keys, signed certificates and ACL entry
// files, asked the way `velk2 authorize` asks: the ACL loaded from its
// directory, the certificate file read and every signature checked, the
// certificates rebuilt into a sequence, then AuthorizeKey.
#include "acl/authorize.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "acl/acl_entry.h"
#include "acl/acl_test_util.h"
#include "credentials/certificate.h"
#include "credentials/certificate_sequence.h"
#include "credentials/signature.h"
#include "engine/status.h"
#include "platform/zcry.h"
#include "tools/issuing/acl_entry.h"

namespace velk2 {
namespace {

using testing::Atom;
using testing::KeyText;
using testing::ListFromText;
using testing::PublicKeyList;
using testing::TagList;
using testing::TempDir;
using testing::TestKey;

constexpr int kAcl = -1;    // the issuer of an ACL entry
constexpr int kGroup = -2;  // a k-of-n subject

// An engine status as the query hands it on: its 32 bits unchanged.
Result Engine(int32_t status) {
  return static_cast<Result>(status);
}

std::string Day(const char* date) {
  std::string text = date;
  return text.size() == 10 ? text + "_00:00:00" : text;
}

std::optional<int64_t> Time(const char* date) {
  if (date == nullptr) return std::nullopt;
  int64_t time = 0;
  EXPECT_EQ(issuing::ParseDate(Day(date), &time), VELK2_SUCCESS) << date;
  return time;
}

// (4:hash6:sha256 digest) of a key: the principal that stands for it.
Ref<SexpObject> HashOf(size_t key) {
  Ref<SexpList> hash;
  EXPECT_EQ(issuing::MakeHashPrincipal(*PublicKeyList(key), &hash), VELK2_SUCCESS);
  return hash;
}

// A k-of-n group as certificates carry it; k and n have the "num" hint that
// the library gives them when it reads a group, so the signed bytes are the
// bytes that are read back.
Ref<SexpObject> Group(int k, const std::vector<int>& members) {
  std::string text = "(6:k-of-n[num]1:" + std::string(1, static_cast<char>(k)) +
                     "[num]1:" + std::string(1, static_cast<char>(members.size()));
  for (int m : members) text += KeyText(TestKey(m));
  return ListFromText(text + ")");
}

struct Grant {
  int issuer;   // a key, or kAcl
  int subject;  // a key, or kGroup
  bool propagate;
  const char* tag;  // readable; null: none (certificates only)
  const char* not_before = nullptr;
  const char* not_after = nullptr;
  bool hash_subject = false;      // the subject as the hash of its key
  std::vector<int> members = {};  // of a 2-of-n group
};

// ACL entry files in one directory, a certificate file, and the question.
class World {
 public:
  World() { std::filesystem::create_directories(dir_.Sub("acl")); }

  void Add(const Grant& g) {
    Ref<SexpObject> subject = g.subject == kGroup ? Group(2, g.members)
                              : g.hash_subject    ? HashOf(g.subject)
                                                  : Ref<SexpObject>(PublicKeyList(g.subject));
    if (g.issuer == kAcl) {
      issuing::AclEntryRequest request;
      request.subject = subject;
      request.propagate = g.propagate;
      request.tag = TagList(g.tag);
      request.not_before = Time(g.not_before);
      request.not_after = Time(g.not_after);
      Ref<SexpList> entry;
      ASSERT_EQ(issuing::MakeAclEntry(request, &entry), VELK2_SUCCESS);
      char name[16];
      std::snprintf(name, sizeof(name), "%02d.acl", acl_files_++);
      ASSERT_EQ(issuing::WriteAclEntry(dir_.Sub(std::string("acl/") + name), *entry, false),
                VELK2_SUCCESS);
      return;
    }
    issuing::CertificateRequest request;
    request.issuer = PublicKeyList(g.issuer);
    request.subject = subject;
    request.propagate = g.propagate;
    if (g.tag != nullptr) request.tag = TagList(g.tag);
    request.not_before = Time(g.not_before);
    request.not_after = Time(g.not_after);
    Ref<SexpList> body, signature;
    ASSERT_EQ(issuing::MakeCertificateBody(request, &body), VELK2_SUCCESS);
    ASSERT_EQ(issuing::SignObject(TestKey(g.issuer), *body, issuing::kRsaPss, ZCRY_HASH_SHA256,
                                  &signature),
              VELK2_SUCCESS);
    ASSERT_EQ(issuing::AppendCertificate(dir_.Sub("chain.cert"), body, signature, "owner"),
              VELK2_SUCCESS);
  }

  // The ACL of the directory, by the library's rules.
  Ref<SexpList> LoadedAcl() const {
    Ref<SexpList> acl;
    EXPECT_EQ(LoadAclFromDirectory(&acl, nullptr, dir_.Wide("acl").c_str(), nullptr),
              VELK2_SUCCESS);
    return acl;
  }

  // The certificates of the file, every signature checked, rebuilt without
  // revocation specifications into a new sequence.
  Ref<SexpList> Sequence() const {
    Ref<SexpList> sequence;
    EXPECT_EQ(NewKeywordList(&sequence, "sequence", nullptr), VELK2_SUCCESS);
    if (!std::filesystem::exists(dir_.Sub("chain.cert"))) return sequence;
    Ref<CertificateSequence> file;
    EXPECT_EQ(ReadCertificateFile(&file, dir_.Wide("chain.cert").c_str(), nullptr), VELK2_SUCCESS);
    if (!file) return nullptr;
    for (size_t i = 0; i < file->entry_count(); ++i) {
      const CertificateEntry entry = file->entry(i);
      EXPECT_EQ(VerifySignature(entry.signature, entry.certificate), VELK2_SUCCESS) << i;
      const Certificate& c = *entry.certificate;
      Ref<Certificate> rebuilt = Certificate::New();
      EXPECT_EQ(
          BuildCertificate(rebuilt.get(), const_cast<Principal*>(c.issuer()),
                           const_cast<Principal*>(c.subject()), c.propagate(),
                           const_cast<SexpList*>(c.tag()), const_cast<SexpAtom*>(c.not_before()),
                           const_cast<SexpAtom*>(c.not_after()), nullptr, nullptr),
          VELK2_SUCCESS);
      EXPECT_EQ(sequence->Append(std::move(rebuilt)), VELK2_SUCCESS);
    }
    return sequence;
  }

 private:
  TempDir dir_;
  int acl_files_ = 0;
};

Ref<SexpList> Validity(const char* not_before, const char* not_after) {
  if (not_before == nullptr && not_after == nullptr) return nullptr;
  Ref<SexpList> valid;
  EXPECT_EQ(NewKeywordList(&valid, "valid", nullptr), VELK2_SUCCESS);
  if (not_before != nullptr) {
    Ref<SexpList> field;
    EXPECT_EQ(NewKeywordListWithText(&field, "not-before", Day(not_before).c_str(), nullptr),
              VELK2_SUCCESS);
    EXPECT_EQ(valid->Append(std::move(field)), VELK2_SUCCESS);
  }
  if (not_after != nullptr) {
    Ref<SexpList> field;
    EXPECT_EQ(NewKeywordListWithText(&field, "not-after", Day(not_after).c_str(), nullptr),
              VELK2_SUCCESS);
    EXPECT_EQ(valid->Append(std::move(field)), VELK2_SUCCESS);
  }
  return valid;
}

struct Answer {
  Result result;
  size_t entries;  // in the reduced ACL
  std::string reduced;
  engine::ReductionTrace trace;
};

Answer Ask(const SexpList* acl, const SexpList* sequence, const SexpList* key, const char* tag,
           const char* not_before = nullptr, const char* not_after = nullptr) {
  Answer answer{VELK2_FAILURE, 0, {}, {}};
  Ref<SexpList> tag_list = tag ? TagList(tag) : nullptr;
  Ref<SexpList> validity = Validity(not_before, not_after);
  Velk2Context context{0};
  answer.result = AuthorizeKey(&context, acl, sequence, key, tag_list.get(), validity.get(),
                               &answer.trace, &answer.reduced);
  for (size_t at = answer.reduced.find("(5:entry"); at != std::string::npos;
       at = answer.reduced.find("(5:entry", at + 1)) {
    ++answer.entries;
  }
  return answer;
}

struct Scenario {
  const char* name;
  std::vector<Grant> grants;
  int key;
  const char* tag;
  const char* not_before;
  const char* not_after;
  Result want;
  size_t entries;
};

void RunScenarios(const std::vector<Scenario>& scenarios) {
  for (const Scenario& s : scenarios) {
    SCOPED_TRACE(s.name);
    World world;
    for (const Grant& g : s.grants) world.Add(g);
    Ref<SexpList> acl = world.LoadedAcl();
    Ref<SexpList> sequence = world.Sequence();
    ASSERT_TRUE(acl && sequence);
    Ref<SexpList> key = PublicKeyList(s.key);
    Answer a = Ask(acl.get(), sequence.get(), key.get(), s.tag, s.not_before, s.not_after);
    EXPECT_EQ(a.result, s.want);
    EXPECT_EQ(a.entries, s.entries) << a.reduced;
    EXPECT_EQ(a.trace.result.size(), s.entries);
    EXPECT_EQ(a.reduced.empty(), false);
  }
}

TEST(AuthorizeScenarios, DirectGrantsAndChains) {
  const char* kTag = "(pkg install)";
  RunScenarios({
      {"direct grant", {{kAcl, 0, false, kTag}}, 0, kTag, nullptr, nullptr, VELK2_SUCCESS, 1},
      {"direct grant to another key",
       {{kAcl, 0, false, kTag}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"chain of 1",
       {{kAcl, 0, true, kTag}, {0, 1, false, kTag}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"chain of 1, ACL entry without propagate",
       {{kAcl, 0, false, kTag}, {0, 1, false, kTag}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"chain of 2",
       {{kAcl, 0, true, kTag}, {0, 1, true, kTag}, {1, 2, false, kTag}},
       2,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"chain of 2, middle link without propagate",
       {{kAcl, 0, true, kTag}, {0, 1, false, kTag}, {1, 2, false, kTag}},
       2,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"chain of 3",
       {{kAcl, 0, true, kTag}, {0, 1, true, kTag}, {1, 2, true, kTag}, {2, 3, false, kTag}},
       3,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"chain of 3, last link with propagate",
       {{kAcl, 0, true, kTag}, {0, 1, true, kTag}, {1, 2, true, kTag}, {2, 3, true, kTag}},
       3,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"chain of 3, first link without propagate",
       {{kAcl, 0, true, kTag}, {0, 1, false, kTag}, {1, 2, true, kTag}, {2, 3, false, kTag}},
       3,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"chain of 3 in reverse file order",
       {{kAcl, 0, true, kTag}, {2, 3, false, kTag}, {1, 2, true, kTag}, {0, 1, true, kTag}},
       3,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"chain of 3 asked about a middle key",
       {{kAcl, 0, true, kTag}, {0, 1, true, kTag}, {1, 2, true, kTag}, {2, 3, false, kTag}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"chain of 3 asked about a stranger",
       {{kAcl, 0, true, kTag}, {0, 1, true, kTag}, {1, 2, true, kTag}, {2, 3, false, kTag}},
       4,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"chain with a gap",
       {{kAcl, 0, true, kTag}, {1, 2, false, kTag}},
       2,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
  });
}

TEST(AuthorizeScenarios, TagsNarrowAlongTheChain) {
  const std::vector<Grant> narrowing = {{kAcl, 0, true, "(pkg)"},
                                        {0, 1, true, "(pkg (* set install remove))"},
                                        {1, 2, false, "(pkg install)"}};
  const std::vector<Grant> widening = {{kAcl, 0, true, "(pkg install)"}, {0, 1, false, "(pkg)"}};
  RunScenarios({
      {"narrowed, asked the narrowest", narrowing, 2, "(pkg install)", nullptr, nullptr,
       VELK2_SUCCESS, 1},
      {"narrowed, asked a longer tag", narrowing, 2, "(pkg install now)", nullptr, nullptr,
       VELK2_SUCCESS, 1},
      {"narrowed, asked what the last link leaves out", narrowing, 2, "(pkg remove)", nullptr,
       nullptr, VELK2_ERR_NOT_AUTHORIZED, 0},
      {"narrowed, asked the middle's set", narrowing, 2, "(pkg (* set install remove))", nullptr,
       nullptr, VELK2_ERR_NOT_GRANTED, 1},
      {"narrowed, asked the ACL's whole tag", narrowing, 2, "(pkg)", nullptr, nullptr,
       VELK2_ERR_NOT_GRANTED, 1},
      {"a later link cannot widen", widening, 1, "(pkg)", nullptr, nullptr, VELK2_ERR_NOT_GRANTED,
       1},
      {"a later link cannot widen, asked the ACL's tag", widening, 1, "(pkg install)", nullptr,
       nullptr, VELK2_SUCCESS, 1},
      {"direct grant broader than asked",
       {{kAcl, 0, false, "(pkg)"}},
       0,
       "(pkg install)",
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"direct grant narrower than asked",
       {{kAcl, 0, false, "(pkg install)"}},
       0,
       "(pkg (* set install remove))",
       nullptr,
       nullptr,
       VELK2_ERR_NOT_GRANTED,
       1},
      {"direct grant sharing nothing",
       {{kAcl, 0, false, "(pkg install)"}},
       0,
       "(ftp)",
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"certificate without a tag takes the request",
       {{kAcl, 0, true, "(pkg)"}, {0, 1, false, nullptr}},
       1,
       "(pkg install)",
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
  });
}

TEST(AuthorizeScenarios, ValidityPeriods) {
  const char* kTag = "(pkg install)";
  const std::vector<Grant> overlap = {{kAcl, 0, true, kTag, "2026-01-01", "2026-12-31"},
                                      {0, 1, false, kTag, "2026-06-01", "2027-06-01"}};
  RunScenarios({
      {"overlapping periods", overlap, 1, kTag, nullptr, nullptr, VELK2_SUCCESS, 1},
      {"asked inside the overlap", overlap, 1, kTag, "2026-07-01", "2026-08-01", VELK2_SUCCESS, 1},
      {"asked after the ACL entry ends", overlap, 1, kTag, "2027-01-01", "2027-02-01",
       VELK2_ERR_NOT_AUTHORIZED, 0},
      {"asked before the certificate starts", overlap, 1, kTag, "2026-02-01", "2026-03-01",
       VELK2_ERR_NOT_AUTHORIZED, 0},
      {"asked from a start only", overlap, 1, kTag, "2026-12-31", nullptr, VELK2_SUCCESS, 1},
      {"asked up to an end only", overlap, 1, kTag, nullptr, "2026-05-31", VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"periods that touch",
       {{kAcl, 0, true, kTag, "2026-01-01", "2026-06-01"},
        {0, 1, false, kTag, "2026-06-01", "2026-12-31"}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"periods that miss by a second",
       {{kAcl, 0, true, kTag, "2026-01-01", "2026-06-01"},
        {0, 1, false, kTag, "2026-06-01_00:00:01", "2026-12-31"}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"an undated ACL entry and a dated certificate",
       {{kAcl, 0, true, kTag}, {0, 1, false, kTag, "2026-06-01", "2026-12-31"}},
       1,
       kTag,
       "2026-07-01",
       nullptr,
       VELK2_SUCCESS,
       1},
  });
}

TEST(AuthorizeScenarios, Duplicates) {
  const char* kTag = "(pkg install)";
  RunScenarios({
      // Undated tuples are never duplicates; dated equal ones are.
      {"two undated ACL entries",
       {{kAcl, 0, false, kTag}, {kAcl, 0, false, kTag}},
       0,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       2},
      {"two dated ACL entries",
       {{kAcl, 0, false, kTag, "2026-01-01", "2027-01-01"},
        {kAcl, 0, false, kTag, "2026-01-01", "2027-01-01"}},
       0,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"two undated certificates",
       {{kAcl, 0, true, kTag}, {0, 1, false, kTag}, {0, 1, false, kTag}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       2},
      {"two dated certificates",
       {{kAcl, 0, true, kTag},
        {0, 1, false, kTag, "2026-01-01", "2027-01-01"},
        {0, 1, false, kTag, "2026-01-01", "2027-01-01"}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"two certificates with different dates",
       {{kAcl, 0, true, kTag},
        {0, 1, false, kTag, "2026-01-01", "2027-01-01"},
        {0, 1, false, kTag, "2026-02-01", "2027-01-01"}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       2},
  });
}

TEST(AuthorizeScenarios, HashPrincipalsAndThresholds) {
  const char* kTag = "(pkg install)";
  Grant acl_hash{kAcl, 0, true, kTag};
  acl_hash.hash_subject = true;
  Grant direct_hash{kAcl, 1, false, kTag};
  direct_hash.hash_subject = true;
  Grant cert_hash{0, 1, false, kTag};
  cert_hash.hash_subject = true;
  Grant group{0, kGroup, true, "(pkg)"};
  group.members = {1, 2, 3};
  RunScenarios({
      {"ACL entry naming the issuer by hash",
       {acl_hash, {0, 1, false, kTag}},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"ACL entry naming the key by hash",
       {direct_hash},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"certificate naming the key by hash",
       {{kAcl, 0, true, kTag}, cert_hash},
       1,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"certificate naming another key by hash",
       {{kAcl, 0, true, kTag}, cert_hash},
       2,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"2 of 3 reached",
       {{kAcl, 0, true, kTag}, group, {1, 4, false, kTag}, {3, 4, false, kTag}},
       4,
       kTag,
       nullptr,
       nullptr,
       VELK2_SUCCESS,
       1},
      {"2 of 3 not reached",
       {{kAcl, 0, true, kTag}, group, {1, 4, false, kTag}},
       4,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"2 of 3, second member's grant shares nothing with the request",
       {{kAcl, 0, true, kTag}, group, {1, 4, false, kTag}, {2, 4, false, "(pkg remove)"}},
       4,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
      {"2 of 3, members granting another key",
       {{kAcl, 0, true, kTag}, group, {1, 4, false, kTag}, {2, 5, false, kTag}},
       4,
       kTag,
       nullptr,
       nullptr,
       VELK2_ERR_NOT_AUTHORIZED,
       0},
  });
}

// Name certificates cannot be read by the library's certificate reader, so
// their sequence is written by hand; the ACL still comes from files.
TEST(AuthorizeScenarios, NameCertificates) {
  World world;
  world.Add({kAcl, 0, true, "(pkg)"});
  Ref<SexpList> acl = world.LoadedAcl();
  ASSERT_TRUE(acl);
  const std::string k0 = KeyText(TestKey(0)), k1 = KeyText(TestKey(1)), k2 = KeyText(TestKey(2));
  const std::string tag = "(3:tag(3:pkg7:install))";
  auto define = [](const std::string& issuer, const char* name, const std::string& subject) {
    return "(4:cert(6:issuer(4:name" + issuer + Atom(name) + "))(7:subject" + subject + "))";
  };
  const std::string grant_to_name =
      "(4:cert(6:issuer" + k0 + ")(7:subject(4:name" + k0 + "3:dev))" + tag + ")";
  const std::string grant_to_relative_name =
      "(4:cert(6:issuer" + k0 + ")(7:subject(4:name3:dev))" + tag + ")";
  struct Case {
    const char* name;
    std::string sequence;
    int key;
    Result want;
  };
  const std::vector<Case> cases = {
      {"name resolved", "(8:sequence" + define(k0, "dev", k1) + grant_to_name + ")", 1,
       VELK2_SUCCESS},
      {"definition after its use", "(8:sequence" + grant_to_name + define(k0, "dev", k1) + ")", 1,
       VELK2_SUCCESS},
      {"name relative to the issuer",
       "(8:sequence" + define(k0, "dev", k1) + grant_to_relative_name + ")", 1, VELK2_SUCCESS},
      {"name defined as another key", "(8:sequence" + define(k0, "dev", k2) + grant_to_name + ")",
       1, VELK2_ERR_NOT_AUTHORIZED},
      {"another name defined", "(8:sequence" + define(k0, "ops", k1) + grant_to_name + ")", 1,
       VELK2_ERR_NOT_AUTHORIZED},
      {"name defined by another issuer",
       "(8:sequence" + define(k2, "dev", k1) + grant_to_name + ")", 1, VELK2_ERR_NOT_AUTHORIZED},
  };
  Ref<SexpList> key1 = PublicKeyList(1);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Ref<SexpList> sequence = ListFromText(c.sequence);
    Ref<SexpList> key = PublicKeyList(c.key);
    EXPECT_EQ(Ask(acl.get(), sequence.get(), key.get(), "(pkg install)").result, c.want);
  }
}

// The query's own answers: 0, 31 and 67 from real chains, the first entry
// deciding, the engine's codes passed through, argument checks.
TEST(AuthorizeKey, OnlyTheFirstEntryDecides) {
  const char* kWide = "(pkg (* set install remove))";
  // The reduced ACL lists the newest entry first, so the later file decides.
  for (bool narrow_last : {false, true}) {
    SCOPED_TRACE(narrow_last ? "narrow entry last" : "wide entry last");
    World world;
    world.Add({kAcl, 0, false, narrow_last ? kWide : "(pkg install)"});
    world.Add({kAcl, 0, false, narrow_last ? "(pkg install)" : kWide});
    Ref<SexpList> acl = world.LoadedAcl();
    Ref<SexpList> sequence = world.Sequence();
    Ref<SexpList> key = PublicKeyList(0);
    Answer a = Ask(acl.get(), sequence.get(), key.get(), kWide);
    EXPECT_EQ(a.entries, 2u);
    EXPECT_EQ(a.result, narrow_last ? VELK2_ERR_NOT_GRANTED : VELK2_SUCCESS) << a.reduced;
  }
}

TEST(AuthorizeKey, AnswersFromARealChain) {
  World world;
  world.Add({kAcl, 0, true, "(pkg (* set install remove))"});
  world.Add({0, 1, true, "(pkg (* set install remove))"});
  world.Add({1, 2, false, "(pkg install)", "2026-01-01", "2027-01-01"});
  Ref<SexpList> acl = world.LoadedAcl();
  Ref<SexpList> sequence = world.Sequence();
  Ref<SexpList> key = PublicKeyList(2);
  const std::string acl_before = testing::CanonicalOf(*acl);
  const std::string sequence_before = testing::CanonicalOf(*sequence);

  Answer yes = Ask(acl.get(), sequence.get(), key.get(), "(pkg install)");
  EXPECT_EQ(yes.result, VELK2_SUCCESS);
  EXPECT_EQ(yes.reduced.rfind("(3:acl(5:entry(7:subject" + KeyText(TestKey(2)) + ")", 0), 0u)
      << yes.reduced;
  EXPECT_NE(yes.reduced.find("(3:tag(3:pkg7:install))"), std::string::npos);
  // The story: the two certificates and the ACL entry, chained twice.
  ASSERT_EQ(yes.trace.result.size(), 1u);
  EXPECT_EQ(yes.trace.tuples.size(), 5u);
  EXPECT_EQ(yes.trace.tuples.back().kind, "derived");
  EXPECT_EQ(yes.trace.tuples.back().not_before, "2026-01-01_00:00:00");

  Answer no = Ask(acl.get(), sequence.get(), key.get(), "(pkg remove)");
  EXPECT_EQ(no.result, VELK2_ERR_NOT_AUTHORIZED);
  EXPECT_EQ(no.reduced, "(3:acl)");

  Answer narrower = Ask(acl.get(), sequence.get(), key.get(), "(pkg (* set install remove))");
  EXPECT_EQ(narrower.result, VELK2_ERR_NOT_GRANTED);

  Answer outside = Ask(acl.get(), sequence.get(), key.get(), "(pkg install)", "2027-01-02");
  EXPECT_EQ(outside.result, VELK2_ERR_NOT_AUTHORIZED);

  // The question's objects are never changed.
  EXPECT_EQ(testing::CanonicalOf(*acl), acl_before);
  EXPECT_EQ(testing::CanonicalOf(*sequence), sequence_before);
  EXPECT_EQ(acl->ref_count(), 1);
  EXPECT_EQ(sequence->ref_count(), 1);

  // Without a trace or the text, the answer is the same.
  Ref<SexpList> tag = TagList("(pkg install)");
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), sequence.get(), key.get(), tag.get(), nullptr),
            VELK2_SUCCESS);

  // A tag must be asked for: with entries left, the missing tag fails the
  // final check; with none, the empty reduction answers first.
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), sequence.get(), key.get(), nullptr, nullptr),
            VELK2_ERR_INVALID_PARAM);
  Ref<SexpList> stranger = PublicKeyList(4);
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), sequence.get(), stranger.get(), nullptr, nullptr),
            VELK2_ERR_NOT_AUTHORIZED);
}

TEST(AuthorizeKey, ArgumentsAndPassedThroughCodes) {
  const std::string k0 = KeyText(TestKey(0)), k1 = KeyText(TestKey(1));
  const std::string tag = "(3:tag(3:pkg))";
  Ref<SexpList> empty_sequence = ListFromText("(8:sequence)");
  Ref<SexpList> key = PublicKeyList(1);
  Ref<SexpList> acl = ListFromText("(3:acl(5:entry(7:subject" + k1 + ")" + tag + "))");
  Ref<SexpList> tag_list = TagList("(pkg)");

  // No key, ACL or sequence: 2 before the engine starts.
  EXPECT_EQ(
      AuthorizeKey(nullptr, acl.get(), empty_sequence.get(), nullptr, tag_list.get(), nullptr),
      VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(
      AuthorizeKey(nullptr, nullptr, empty_sequence.get(), key.get(), tag_list.get(), nullptr),
      VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), nullptr, key.get(), tag_list.get(), nullptr),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(
      AuthorizeKey(nullptr, acl.get(), empty_sequence.get(), key.get(), tag_list.get(), nullptr),
      VELK2_SUCCESS);

  // The engine's negative codes reach the caller as they are.
  std::string deep_tag = "(3:tag";
  for (int i = 0; i < 80; ++i) deep_tag += "(1:x";
  deep_tag += std::string(81, ')');
  struct Case {
    const char* name;
    std::string acl, sequence;
    int32_t want;
  };
  const std::vector<Case> cases = {
      {"ACL entry with an issuer",
       "(3:acl(5:entry(6:issuer" + k0 + ")(7:subject" + k1 + ")" + tag + "))", "(8:sequence)",
       engine::SPKI_ERR_ACL_HAS_ISSUER},
      {"certificate without an issuer",
       "(3:acl(5:entry(7:subject" + k0 + ")(9:propagate)" + tag + "))",
       "(8:sequence(4:cert(7:subject" + k1 + ")" + tag + "))", engine::SPKI_ERR_NEEDS_ISSUER},
      {"name certificate with a tag", "(3:acl(5:entry(7:subject" + k0 + ")" + tag + "))",
       "(8:sequence(4:cert(6:issuer(4:name" + k0 + "3:dev))(7:subject" + k1 + ")" + tag + "))",
       engine::SPKI_ERR_NAME_AND_TAG},
      {"two tags", "(3:acl(5:entry(7:subject" + k1 + ")" + tag + tag + "))", "(8:sequence)",
       engine::SPKI_ERR_TOO_MANY_TAGS},
      {"two propagate fields",
       "(3:acl(5:entry(7:subject" + k1 + ")(9:propagate)(9:propagate)" + tag + "))", "(8:sequence)",
       engine::SPKI_ERR_TOO_MANY_PROPAGATE},
      {"subject neither key nor hash", "(3:acl(5:entry(7:subject(3:foo))" + tag + "))",
       "(8:sequence)", engine::SPKI_ERR_PRINCIPAL_EXPECTED},
      {"tag nested past the engine's limit",
       "(3:acl(5:entry(7:subject" + k1 + ")" + deep_tag + "))", "(8:sequence)",
       engine::SPKI_ERR_BAD_SEXP},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Ref<SexpList> case_acl = ListFromText(c.acl);
    Ref<SexpList> sequence = ListFromText(c.sequence);
    Answer a = Ask(case_acl.get(), sequence.get(), key.get(), "(pkg)");
    EXPECT_EQ(a.result, Engine(c.want)) << static_cast<int32_t>(a.result);
    EXPECT_TRUE(a.reduced.empty());
    // The library has no message of its own for them.
    EXPECT_STREQ(ErrorMessageUtf8(a.result), "VELK_UNKNOWN_ERROR");
  }

  // An object the canonical writer refuses (nested past its limit) gives
  // the writer's code.
  Ref<SexpList> deep = SexpList::New();
  SexpList* inner = deep.get();
  for (uint32_t i = 0; i < kMaxWriteDepth + 8; ++i) {
    Ref<SexpList> child = SexpList::New();
    SexpList* next = child.get();
    ASSERT_EQ(inner->Append(std::move(child)), VELK2_SUCCESS);
    inner = next;
  }
  EXPECT_EQ(
      AuthorizeKey(nullptr, deep.get(), empty_sequence.get(), key.get(), tag_list.get(), nullptr),
      VELK2_ERR_INVALID_S_EXPRESSION);
  EXPECT_EQ(
      AuthorizeKey(nullptr, acl.get(), empty_sequence.get(), key.get(), tag_list.get(), deep.get()),
      VELK2_ERR_INVALID_S_EXPRESSION);
  std::string text;
  EXPECT_EQ(ConvertToEngine(nullptr, &text), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(ConvertToEngine(acl.get(), nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(ConvertToEngine(tag_list.get(), &text), VELK2_SUCCESS);
  EXPECT_EQ(text, "(3:tag(3:pkg))");
}

TEST(TagGranted, GrantedImpliesRequested) {
  struct Case {
    const char* requested;
    const char* granted;  // null: no tag
    bool want;
  };
  const Case cases[] = {
      {"(pkg install)", "(pkg install)", true},
      {"(pkg install)", "(pkg)", true},
      {"(pkg install)", "(pkg (* set install remove))", true},
      {"(pkg install x)", "(pkg install)", true},
      {"(pkg install)", "(*)", true},
      {"(pkg)", "(pkg install)", false},
      {"(pkg (* set install remove))", "(pkg install)", false},
      {"(pkg remove)", "(pkg install)", false},
      {"(ftp)", "(pkg)", false},
      {"(pkg install)", nullptr, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.requested) + " by " + (c.granted ? c.granted : "nothing"));
    Ref<SexpList> requested = TagList(c.requested);
    Ref<SexpList> granted = c.granted ? TagList(c.granted) : nullptr;
    EXPECT_EQ(TagGranted(requested.get(), granted.get()), c.want);
  }
  // Equal canonical forms need no engine: even a list the engine would
  // refuse is granted by itself.
  std::string deep = "(3:tag";
  for (int i = 0; i < 80; ++i) deep += "(1:x";
  deep += std::string(81, ')');
  Ref<SexpList> odd = ListFromText(deep);
  Ref<SexpList> same = ListFromText(deep);
  EXPECT_TRUE(TagGranted(odd.get(), same.get()));
  Ref<SexpList> broader = TagList("(x)");
  EXPECT_FALSE(TagGranted(odd.get(), broader.get()));
  Ref<SexpList> tag = TagList("(pkg)");
  EXPECT_FALSE(TagGranted(nullptr, tag.get()));
}

}  // namespace
}  // namespace velk2
