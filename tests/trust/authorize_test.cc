// The authorization query over real keys, signed certificates and ACL entry
// files, asked the way `velk2 authorize` asks: the ACL loaded from its
// directory, the certificate file read, then the verification pipeline
// (signatures, revocation, AuthorizeKey over the rebuilt certificates). The
// engine's exact output for each kind of chain is pinned by the engine's
// tests.
#include "trust/authorize.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "acl/acl_entry.h"
#include "acl/acl_test_util.h"
#include "credentials/certificate.h"
#include "credentials/certificate_sequence.h"
#include "credentials/signature.h"
#include "engine/status.h"
#include "platform/zcry.h"
#include "tools/issuing/acl_entry.h"
#include "trust/verification.h"

namespace velk2 {
namespace {

using testing::Atom;
using testing::KeyText;
using testing::ListFromText;
using testing::PublicKeyList;
using testing::TagList;
using testing::TempDir;
using testing::TestKey;

// The query's three answers.
constexpr Result kYes = VELK2_SUCCESS;
constexpr Result kNone = VELK2_ERR_NOT_AUTHORIZED;  // no entry survives
constexpr Result kNarrow = VELK2_ERR_NOT_GRANTED;   // the first entry grants less

constexpr int kAcl = -1;    // the issuer of an ACL entry
constexpr int kGroup = -2;  // the subject (k-of-n 2 of keys 1, 2 and 3)
// The subject written as the SHA-256 hash of key |key|.
constexpr int Hashed(int key) {
  return 100 + key;
}
constexpr const char* kInstall = "(pkg install)";

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

Ref<SexpObject> Subject(int subject) {
  if (subject >= Hashed(0)) {
    Ref<SexpList> hash;
    EXPECT_EQ(issuing::MakeHashPrincipal(*PublicKeyList(subject - Hashed(0)), &hash),
              VELK2_SUCCESS);
    return hash;
  }
  if (subject != kGroup) return PublicKeyList(subject);
  // k and n have the "num" hint that the library gives them when it reads a
  // group, so the signed bytes are the bytes that are read back.
  return ListFromText("(6:k-of-n[num]1:\x02[num]1:\x03" + KeyText(TestKey(1)) +
                      KeyText(TestKey(2)) + KeyText(TestKey(3)) + ")");
}

struct Grant {
  int issuer;   // a key, or kAcl
  int subject;  // a key, Hashed(key) or kGroup
  bool propagate = false;
  const char* tag = kInstall;  // readable; null: none
  const char* not_before = nullptr;
  const char* not_after = nullptr;
};

// ACL entry files in one directory, a certificate file, and the question.
class World {
 public:
  World() { std::filesystem::create_directories(dir_.Sub("acl")); }

  void Add(const Grant& g) {
    if (g.issuer == kAcl) {
      issuing::AclEntryRequest request;
      request.subject = Subject(g.subject);
      request.propagate = g.propagate;
      request.tag = TagList(g.tag);
      request.not_before = Time(g.not_before);
      request.not_after = Time(g.not_after);
      Ref<SexpList> entry;
      ASSERT_EQ(issuing::MakeAclEntry(request, &entry), VELK2_SUCCESS);
      const std::string name = "acl/" + std::to_string(10 + acl_files_++) + ".acl";
      ASSERT_EQ(issuing::WriteAclEntry(dir_.Sub(name), *entry, false), VELK2_SUCCESS);
      return;
    }
    issuing::CertificateRequest request;
    request.issuer = PublicKeyList(g.issuer);
    request.subject = Subject(g.subject);
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

  // The certificate file as read; an empty sequence when there is none.
  Ref<CertificateSequence> Certificates() const {
    Ref<CertificateSequence> file;
    if (std::filesystem::exists(dir_.Sub("chain.cert"))) {
      EXPECT_EQ(ReadCertificateFile(&file, dir_.Wide("chain.cert").c_str(), nullptr),
                VELK2_SUCCESS);
      return file;
    }
    file = CertificateSequence::New();
    SexpMemorySource source;
    EXPECT_EQ(source.AttachCopy("(8:sequence)", 12), VELK2_SUCCESS);
    EXPECT_EQ(file->Parse(&source), VELK2_SUCCESS);
    return file;
  }

  // The certificates rebuilt for the engine, as the pipeline rebuilds them.
  Ref<SexpList> Sequence() const {
    Ref<CertificateSequence> file = Certificates();
    Ref<SexpList> sequence;
    if (file) {
      EXPECT_EQ(RebuildForAuthorization(*file, &sequence), VELK2_SUCCESS);
    }
    return sequence;
  }

  std::string Path(const char* name) const { return dir_.Sub(name); }

 private:
  TempDir dir_;
  int acl_files_ = 0;
};

Ref<SexpList> Validity(const char* not_before, const char* not_after) {
  Ref<SexpList> valid;
  EXPECT_EQ(MakeValidity(Time(not_before), Time(not_after), &valid), VELK2_SUCCESS);
  return valid;
}

struct Answer {
  Result result = VELK2_FAILURE;
  size_t entries = 0;  // in the reduced ACL
  std::string reduced;
  engine::ReductionTrace trace;

  void CountEntries() {
    for (size_t at = reduced.find("(5:entry"); at != std::string::npos;
         at = reduced.find("(5:entry", at + 1)) {
      ++entries;
    }
  }
};

Answer Ask(const SexpList* acl, const SexpList* sequence, int key, const char* tag,
           const char* not_before = nullptr, const char* not_after = nullptr) {
  Answer answer;
  Ref<SexpList> key_list = PublicKeyList(key);
  Ref<SexpList> tag_list = TagList(tag);
  Ref<SexpList> validity = Validity(not_before, not_after);
  Velk2Context context{0};
  answer.result = AuthorizeKey(&context, acl, sequence, key_list.get(), tag_list.get(),
                               validity.get(), &answer.trace, &answer.reduced);
  answer.CountEntries();
  return answer;
}

// The same question through the verification pipeline, over the file as read.
Answer Verify(const World& world, int key, const char* tag, const char* not_before = nullptr,
              const char* not_after = nullptr) {
  Answer answer;
  Ref<SexpList> acl = world.LoadedAcl();
  Ref<CertificateSequence> file = world.Certificates();
  Ref<SexpList> key_list = PublicKeyList(key);
  Ref<SexpList> tag_list = TagList(tag);
  Ref<SexpList> validity = Validity(not_before, not_after);
  SequenceQuery query;
  query.acl = acl.get();
  query.sequence = file.get();
  query.key = key_list.get();
  query.tag = tag_list.get();
  query.validity = validity.get();
  query.trace = &answer.trace;
  query.reduced_acl = &answer.reduced;
  const SequenceVerdict verdict = VerifySequence(query);
  EXPECT_EQ(verdict.stage, VerifyStage::kAuthorization);
  answer.result = verdict.result;
  answer.CountEntries();
  return answer;
}

struct Scenario {
  const char* name;
  int key;
  Result want;
  std::vector<Grant> grants;
  size_t entries = 1;  // when the answer is not kNone
  const char* tag = kInstall;
  const char* not_before = nullptr;
  const char* not_after = nullptr;
};

TEST(AuthorizeScenarios, BuiltWithTheIssuingToolkit) {
  const Grant root{kAcl, 0, true};
  const Grant group{0, kGroup, true, "(pkg)"};
  const std::vector<Grant> overlap = {{kAcl, 0, true, kInstall, "2026-01-01", "2026-12-31"},
                                      {0, 1, false, kInstall, "2026-06-01", "2027-06-01"}};
  const std::vector<Grant> miss = {{kAcl, 0, true, kInstall, "2026-01-01", "2026-06-01"},
                                   {0, 1, false, kInstall, "2026-06-01_00:00:01", "2026-12-31"}};
  const Scenario scenarios[] = {
      {"direct grant", 0, kYes, {{kAcl, 0}}},
      {"chain of 1", 1, kYes, {root, {0, 1}}},
      {"chain of 1, ACL entry without propagate", 1, kNone, {{kAcl, 0}, {0, 1}}},
      {"chain of 3", 3, kYes, {root, {0, 1, true}, {1, 2, true}, {2, 3}}},
      {"chain of 3, first link without propagate", 3, kNone, {root, {0, 1}, {1, 2, true}, {2, 3}}},
      {"a later link cannot widen", 1, kNarrow, {root, {0, 1, false, "(pkg)"}}, 1, "(pkg)"},
      {"overlapping periods", 1, kYes, overlap},
      {"asked inside the overlap", 1, kYes, overlap, 1, kInstall, "2026-07-01", "2026-08-01"},
      {"periods that miss by a second", 1, kNone, miss},
      {"ACL entry naming the issuer by hash", 1, kYes, {{kAcl, Hashed(0), true}, {0, 1}}},
      {"certificate naming the key by hash", 1, kYes, {root, {0, Hashed(1)}}},
      {"2 of 3 reached", 4, kYes, {root, group, {1, 4}, {3, 4}}},
      {"2 of 3 not reached", 4, kNone, {root, group, {1, 4}}},
  };
  for (const Scenario& s : scenarios) {
    SCOPED_TRACE(s.name);
    World world;
    for (const Grant& g : s.grants) world.Add(g);
    Answer a = Verify(world, s.key, s.tag, s.not_before, s.not_after);
    EXPECT_EQ(a.result, s.want);
    const size_t entries = s.want == kNone ? 0 : s.entries;
    EXPECT_EQ(a.entries, entries) << a.reduced;
    EXPECT_EQ(a.trace.result.size(), entries);
  }
}

// The reduced ACL lists the newest entry first, so the later file decides.
TEST(AuthorizeKey, OnlyTheFirstEntryDecides) {
  const char* kWide = "(pkg (* set install remove))";
  for (bool narrow_last : {false, true}) {
    SCOPED_TRACE(narrow_last ? "narrow entry last" : "wide entry last");
    World world;
    world.Add({kAcl, 0, false, narrow_last ? kWide : kInstall});
    world.Add({kAcl, 0, false, narrow_last ? kInstall : kWide});
    Ref<SexpList> acl = world.LoadedAcl();
    Ref<SexpList> sequence = world.Sequence();
    Answer a = Ask(acl.get(), sequence.get(), 0, kWide);
    EXPECT_EQ(a.entries, 2u);
    EXPECT_EQ(a.result, narrow_last ? kNarrow : kYes) << a.reduced;
  }
}

// 0, 31 and 67 from one real chain whose tag narrows at every link.
TEST(AuthorizeKey, AnswersFromARealChain) {
  World world;
  world.Add({kAcl, 0, true, "(pkg)"});
  world.Add({0, 1, true, "(pkg (* set install remove))"});
  world.Add({1, 2, false, kInstall, "2026-01-01", "2027-01-01"});
  Ref<SexpList> acl = world.LoadedAcl();
  Ref<SexpList> sequence = world.Sequence();
  const std::string acl_before = testing::CanonicalOf(*acl);
  const std::string sequence_before = testing::CanonicalOf(*sequence);

  // The reduced ACL and the trace of each answer are pinned by the engine's
  // tests, and the same answers through the tool by the CLI test.
  EXPECT_EQ(Ask(acl.get(), sequence.get(), 2, kInstall).result, kYes);
  EXPECT_EQ(Ask(acl.get(), sequence.get(), 2, "(pkg remove)").result, kNone);
  EXPECT_EQ(Ask(acl.get(), sequence.get(), 2, "(pkg (* set install remove))").result, kNarrow);
  EXPECT_EQ(Ask(acl.get(), sequence.get(), 2, kInstall, "2027-01-02").result, kNone);

  // The question's objects are never changed.
  EXPECT_EQ(testing::CanonicalOf(*acl), acl_before);
  EXPECT_EQ(testing::CanonicalOf(*sequence), sequence_before);
  EXPECT_EQ(acl->ref_count(), 1);
  EXPECT_EQ(sequence->ref_count(), 1);

  // Without a trace or the text, the answer is the same.
  Ref<SexpList> key = PublicKeyList(2);
  Ref<SexpList> tag = TagList(kInstall);
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), sequence.get(), key.get(), tag.get(), nullptr), kYes);

  // A tag must be asked for: with entries left, the missing tag fails the
  // final check; with none, the empty reduction answers first.
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), sequence.get(), key.get(), nullptr, nullptr),
            VELK2_ERR_INVALID_PARAM);
  Ref<SexpList> stranger = PublicKeyList(4);
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), sequence.get(), stranger.get(), nullptr, nullptr),
            kNone);
}

TEST(AuthorizeKey, ArgumentsAndPassedThroughCodes) {
  const std::string k0 = KeyText(TestKey(0)), k1 = KeyText(TestKey(1));
  const std::string tag = "(3:tag(3:pkg))";
  Ref<SexpList> no_certs = ListFromText("(8:sequence)");
  Ref<SexpList> key = PublicKeyList(1);
  Ref<SexpList> acl = ListFromText("(3:acl(5:entry(7:subject" + k1 + ")" + tag + "))");
  Ref<SexpList> tag_list = TagList("(pkg)");

  // No key, ACL or sequence: 2 before the engine starts.
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), no_certs.get(), nullptr, tag_list.get(), nullptr),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(AuthorizeKey(nullptr, nullptr, no_certs.get(), key.get(), tag_list.get(), nullptr),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), nullptr, key.get(), tag_list.get(), nullptr),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), no_certs.get(), key.get(), tag_list.get(), nullptr),
            kYes);

  // The engine's negative codes reach the caller as their 32 bits; every
  // engine code is pinned by the engine's tests.
  std::string deep_tag = "(3:tag";
  for (int i = 0; i < 80; ++i) deep_tag += "(1:x";
  deep_tag += std::string(81, ')');
  struct Case {
    const char* name;
    std::string acl, sequence;
    int32_t want;
  };
  const Case cases[] = {
      {"ACL entry with an issuer",
       "(3:acl(5:entry(6:issuer" + k0 + ")(7:subject" + k1 + ")" + tag + "))", "(8:sequence)",
       engine::SPKI_ERR_ACL_HAS_ISSUER},
      {"tag nested past the engine's limit",
       "(3:acl(5:entry(7:subject" + k1 + ")" + deep_tag + "))", "(8:sequence)",
       engine::SPKI_ERR_BAD_SEXP},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Ref<SexpList> case_acl = ListFromText(c.acl);
    Ref<SexpList> sequence = ListFromText(c.sequence);
    Answer a = Ask(case_acl.get(), sequence.get(), 1, "(pkg)");
    EXPECT_EQ(a.result, static_cast<Result>(c.want)) << static_cast<int32_t>(a.result);
    EXPECT_TRUE(a.reduced.empty());
    // The library has no message of its own for them.
    EXPECT_STREQ(ErrorMessageUtf8(a.result), "VELK_UNKNOWN_ERROR");
    // ...and they are no answer: not "no", but "could not say".
    EXPECT_TRUE(IsEngineResult(a.result));
    EXPECT_TRUE(IsUndecided(a.result));
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
  EXPECT_EQ(AuthorizeKey(nullptr, deep.get(), no_certs.get(), key.get(), tag_list.get(), nullptr),
            VELK2_ERR_INVALID_S_EXPRESSION);
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), no_certs.get(), key.get(), tag_list.get(), deep.get()),
            VELK2_ERR_INVALID_S_EXPRESSION);
  std::string text;
  EXPECT_EQ(ConvertToEngine(nullptr, &text), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(ConvertToEngine(acl.get(), nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(ConvertToEngine(tag_list.get(), &text), VELK2_SUCCESS);
  EXPECT_EQ(text, "(3:tag(3:pkg))");
}

// The tag algebra behind it is pinned by the engine's TagImplies tests.
// The pipeline's stages in order, each ending the verification at its first
// failure, and the certificate that ended it.
TEST(VerifySequence, StagesInOrder) {
  World world;
  world.Add({kAcl, 0, true, "(pkg)"});
  world.Add({0, 1, true});
  world.Add({1, 2, false});
  Ref<SexpList> acl = world.LoadedAcl();
  Ref<CertificateSequence> file = world.Certificates();
  Ref<SexpList> tag = TagList(kInstall);
  ASSERT_TRUE(acl && file);
  SequenceQuery query;
  query.acl = acl.get();
  query.sequence = file.get();
  query.tag = tag.get();
  // Without a key of its own the question is about the first certificate's
  // subject (key 1), which the ACL reaches.
  SequenceVerdict verdict = VerifySequence(query);
  EXPECT_EQ(verdict.result, kYes);
  EXPECT_EQ(verdict.stage, VerifyStage::kAuthorization);

  int checks = 0;
  query.revocation = [&](const SexpList& seen_acl, const CertificateSequence& seen,
                         size_t* certificate) {
    ++checks;
    EXPECT_EQ(&seen_acl, acl.get());
    EXPECT_EQ(&seen, file.get());
    *certificate = 1;
    return VELK2_ERR_CERT_REVOKED;
  };
  verdict = VerifySequence(query);
  EXPECT_EQ(verdict.result, VELK2_ERR_CERT_REVOKED);
  EXPECT_EQ(verdict.stage, VerifyStage::kRevocation);
  EXPECT_EQ(verdict.certificate, 1u);
  EXPECT_EQ(checks, 1);

  // A certificate changed after signing: the signatures end it before the
  // revocation check is asked.
  std::ifstream in(world.Path("chain.cert"), std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t second = bytes.find("7:install", bytes.find("7:install") + 1);
  ASSERT_NE(second, std::string::npos);
  bytes[second + 8] = 'X';
  std::ofstream(world.Path("tampered.cert"), std::ios::binary) << bytes;
  Ref<CertificateSequence> tampered;
  ASSERT_EQ(
      ReadCertificateFile(&tampered, Utf8ToUtf16(world.Path("tampered.cert")).c_str(), nullptr),
      VELK2_SUCCESS);
  query.sequence = tampered.get();
  verdict = VerifySequence(query);
  EXPECT_EQ(verdict.result, VELK2_ERR_HASH_MISMATCH);
  EXPECT_EQ(verdict.stage, VerifyStage::kSignatures);
  EXPECT_EQ(verdict.certificate, 1u);
  EXPECT_EQ(checks, 1);

  // An entry without its owner list, and an empty sequence with no key to
  // ask about, are no sequence; a missing ACL or tag is refused first.
  Ref<CertificateSequence> cut = CertificateSequence::New();
  for (size_t i = 0; i < 3; ++i) {
    ASSERT_EQ(cut->Append(Ref<SexpObject>(file->children()[i])), VELK2_SUCCESS);
  }
  query.sequence = cut.get();
  EXPECT_EQ(VerifySequence(query).result, VELK2_ERR_INVALID_SEQUENCE);
  World empty;
  Ref<CertificateSequence> none = empty.Certificates();
  query.sequence = none.get();
  EXPECT_EQ(VerifySequence(query).result, VELK2_ERR_INVALID_SEQUENCE);
  Ref<SexpList> key = PublicKeyList(0);
  query.key = key.get();
  query.revocation = nullptr;
  EXPECT_EQ(VerifySequence(query).result, kYes);
  query.tag = nullptr;
  EXPECT_EQ(VerifySequence(query).result, VELK2_ERR_PARAM_NULL);
  query.tag = tag.get();
  query.acl = nullptr;
  EXPECT_EQ(VerifySequence(query).result, VELK2_ERR_PARAM_NULL);
}

// Answers are decided; the engine's and the crypto library's statuses are not.
TEST(AuthorizeKey, UndecidedResults) {
  for (Result answer : {kYes, kNone, kNarrow, Result{VELK2_ERR_INVALID_PARAM}}) {
    EXPECT_FALSE(IsUndecided(answer)) << answer;
  }
  EXPECT_TRUE(IsUndecided(engine::kEngineArenaUnavailable));
  EXPECT_TRUE(IsUndecided(ZCRY_E_BAD_KEY));
  EXPECT_FALSE(IsEngineResult(ZCRY_E_BAD_KEY));
  EXPECT_FALSE(IsUndecided(static_cast<Result>(-127)));  // a gap in the engine's table
}

TEST(TagGranted, GrantedImpliesRequested) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {kInstall, kInstall, true},
      {kInstall, "(pkg (* set install remove))", true},
      {"(pkg (* set install remove))", kInstall, false},
      {"(ftp)", "(pkg)", false},
  };
  for (const auto& [requested, granted, want] : cases) {
    SCOPED_TRACE(std::string(requested) + " by " + granted);
    EXPECT_EQ(TagGranted(TagList(requested).get(), TagList(granted).get()), want);
  }
  Ref<SexpList> tag = TagList("(pkg)");
  EXPECT_FALSE(TagGranted(tag.get(), nullptr));
  EXPECT_FALSE(TagGranted(nullptr, tag.get()));
  // Equal canonical forms need no engine: even a list the engine would
  // refuse is granted by itself.
  std::string deep = "(3:tag";
  for (int i = 0; i < 80; ++i) deep += "(1:x";
  deep += std::string(81, ')');
  Ref<SexpList> odd = ListFromText(deep);
  EXPECT_TRUE(TagGranted(odd.get(), ListFromText(deep).get()));
  EXPECT_FALSE(TagGranted(odd.get(), TagList("(x)").get()));
}

}  // namespace
}  // namespace velk2
