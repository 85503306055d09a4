// Revocation lists and certificate files through the C interface, over a
// store made with the issuing toolkit: ACL entries, a root -> developer chain,
// and lists signed by the root, each written as a file and read back the way
// a caller's program reads it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "acl/acl_entry.h"
#include "acl/acl_test_util.h"
#include "trust/revocation.h"
#include "credentials/date.h"
#include "credentials/public_key.h"
#include "frame/paths.h"
#include "platform/zcry.h"
#include "tools/issuing/acl_entry.h"
#include "tools/issuing/revocation.h"
#include "velk2.h"

namespace velk2 {
namespace {

using testing::ListFromText;
using testing::PublicKeyList;
using testing::TagList;
using testing::TempDir;
using testing::TestKey;

constexpr int kRoot = 0, kDev = 1, kStranger = 2;
constexpr const char* kInstall = "(pkg install)";
constexpr const char* kScope = "(revoke pkg)";

int64_t At(const char* date) {
  int64_t time = 0;
  EXPECT_EQ(issuing::ParseDate(date, &time), VELK2_SUCCESS) << date;
  return time;
}
const int64_t kJan2026 = At("2026-01-01_00:00:00");
const int64_t kJun2026 = At("2026-06-01_00:00:00");
const int64_t kJan2027 = At("2027-01-01_00:00:00");
const int64_t kJan2030 = At("2030-01-01_00:00:00");
const int64_t kJan2040 = At("2040-01-01_00:00:00");

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Digest(const SexpObject& object) {
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  EXPECT_EQ(ComputeHash(&object, &digest, &length, ZCRY_HASH_SHA256, false), VELK2_SUCCESS);
  return std::string(reinterpret_cast<const char*>(digest.get()), length);
}

std::string Item(const SexpObject& thing, const char* date) {
  return "(4:item(4:hash6:sha25632:" + Digest(thing) + ")19:" + date + ")";
}

struct ListSpec {
  int issuer = kRoot;
  const char* tag = kScope;               // null: the list certificate has no tag
  std::vector<std::string> certificates;  // items of list1
  std::vector<std::string> keys;          // items of list2
  int64_t not_before = kJan2026;
  int64_t not_after = kJan2030;
  bool tamper_body = false;  // change the body after signing
};

// A list file as the toolkit would write it, built here independently.
std::string ListFile(const ListSpec& spec) {
  std::string body = "(3:crl(7:version1:1)(5:list1";
  for (const std::string& item : spec.certificates) body += item;
  body += ")(5:list2";
  for (const std::string& item : spec.keys) body += item;
  body += "))";
  Ref<SexpList> body_list = ListFromText(body);
  Ref<SexpList> subject;
  EXPECT_EQ(issuing::MakeHashPrincipal(*body_list, &subject), VELK2_SUCCESS);
  issuing::CertificateRequest request;
  request.issuer = PublicKeyList(spec.issuer);
  request.subject = subject;
  if (spec.tag != nullptr) request.tag = TagList(spec.tag);
  request.not_before = spec.not_before;
  request.not_after = spec.not_after;
  Ref<SexpList> certificate, signature;
  EXPECT_EQ(issuing::MakeCertificateBody(request, &certificate), VELK2_SUCCESS);
  EXPECT_EQ(issuing::SignObject(TestKey(spec.issuer), *certificate, issuing::kRsaPss,
                                ZCRY_HASH_SHA256, &signature),
            VELK2_SUCCESS);
  if (spec.tamper_body)
    body.replace(
        body.find("(5:list2"), 8,
        "(5:list2(4:item(4:hash6:sha25632:" + std::string(32, 'x') + ")19:2026-01-01_00:00:00)");
  return "(8:sequence" + body + StoredForm(*certificate) + StoredForm(*signature) + ")";
}

// A Global and Home store in a temporary directory: acl/ and cert/.
class Store : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(dir_.Sub("acl"));
    std::filesystem::create_directories(dir_.Sub("cert"));
    Velk2GlobalDirectoryA(dir_.path().c_str());
    Velk2HomeDirectoryA(dir_.path().c_str());
    Grant(kRoot, kInstall, true);
    Grant(kRoot, kScope, false);
  }
  void TearDown() override {
    Velk2GlobalDirectoryA("");
    Velk2HomeDirectoryA("");
  }

  void Grant(int key, const char* tag, bool propagate) {
    issuing::AclEntryRequest request;
    request.subject = PublicKeyList(key);
    request.propagate = propagate;
    request.tag = TagList(tag);
    Ref<SexpList> entry;
    ASSERT_EQ(issuing::MakeAclEntry(request, &entry), VELK2_SUCCESS);
    const std::string name = "acl/" + std::to_string(10 + acl_files_++) + ".acl";
    ASSERT_EQ(issuing::WriteAclEntry(dir_.Sub(name), *entry, false), VELK2_SUCCESS);
  }

  // Signs a certificate from |issuer| to |subject| and appends it to |file|;
  // the body is handed back for lists to revoke. |scope|: the revocation
  // specification's scope, or null for none.
  Ref<SexpList> Issue(const std::string& file, int issuer, int subject, const char* scope = kScope,
                      const char* tag = kInstall, bool dated = true) {
    issuing::CertificateRequest request;
    request.issuer = PublicKeyList(issuer);
    request.subject = PublicKeyList(subject);
    request.propagate = true;
    if (tag != nullptr) request.tag = TagList(tag);
    if (dated) {
      request.not_before = kJan2026;
      request.not_after = kJan2030;
    }
    Ref<SexpList> body, signature;
    EXPECT_EQ(issuing::MakeCertificateBody(request, &body), VELK2_SUCCESS);
    if (scope != nullptr) {
      Ref<SexpList> tag_list = TagList(scope);
      Ref<SexpList> specification;
      EXPECT_EQ(NewKeywordList(&specification, "revocation", nullptr), VELK2_SUCCESS);
      for (size_t i = 1; i < tag_list->ChildCount(); ++i) {
        EXPECT_EQ(specification->Append(Ref<SexpObject>::Share(tag_list->ChildAt(i))),
                  VELK2_SUCCESS);
      }
      EXPECT_EQ(body->Append(std::move(specification)), VELK2_SUCCESS);
    }
    EXPECT_EQ(
        issuing::SignObject(TestKey(issuer), *body, issuing::kRsaPss, ZCRY_HASH_SHA256, &signature),
        VELK2_SUCCESS);
    EXPECT_EQ(issuing::AppendCertificate(dir_.Sub(file), body, signature, "dev team"),
              VELK2_SUCCESS);
    return body;
  }

  // The stored list of the scope (revoke pkg), where checks look for it.
  std::string StoredList() const { return dir_.Sub("cert/(revoke pkg).crl"); }
  void PutList(const ListSpec& spec) { testing::WriteFile(StoredList(), ListFile(spec)); }

  VELK2_RESULT VerifyChain(int64_t not_before = kJun2026, int64_t not_after = kJun2026) {
    return Velk2CertVerifyFileA(dir_.Sub("chain.cert").c_str(), kInstall, not_before, not_after);
  }

  TempDir dir_;
  int acl_files_ = 0;
};

TEST_F(Store, ListFilesReadIntoRecords) {
  const std::string path = dir_.Sub("in.crl");
  testing::WriteFile(path, ListFile({}));
  Velk2CrlRecord* record = nullptr;
  ASSERT_EQ(Velk2CrlReadA(&record, path.c_str(), nullptr), VELK2_SUCCESS);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->size, sizeof(Velk2CrlRecord));
  EXPECT_EQ(record->not_before, kJan2026);
  EXPECT_EQ(record->not_after, kJan2030);
  EXPECT_STREQ(record->tag, kScope);
  EXPECT_EQ(Velk2CrlVerify(record, kScope, 0, 0), VELK2_SUCCESS);
  EXPECT_EQ(Velk2CrlVerify(record, "(revoke other)", 0, 0), VELK2_ERR_NOT_AUTHORIZED);
  // Only both times together ask about a period; a list that begins after it
  // reports "not after", one that ended before it "not before".
  EXPECT_EQ(Velk2CrlVerify(record, nullptr, kJan2040, kJan2040 + 1), VELK2_ERR_NOT_BEFORE);
  EXPECT_EQ(Velk2CrlVerify(record, nullptr, kJan2026 - 10, kJan2026 - 1), VELK2_ERR_NOT_AFTER);
  EXPECT_EQ(Velk2CrlVerify(record, nullptr, kJan2040, 0), VELK2_SUCCESS);
  EXPECT_EQ(Velk2CrlVerify(record, nullptr, kJun2026, kJan2027), VELK2_SUCCESS);
  EXPECT_EQ(Velk2CrlFree(record), VELK2_SUCCESS);

  // Out-pointers and arguments, in the documented order.
  EXPECT_EQ(Velk2CrlReadA(nullptr, path.c_str(), nullptr), VELK2_ERR_PARAM_NULL);
  record = reinterpret_cast<Velk2CrlRecord*>(&record);
  EXPECT_EQ(Velk2CrlReadA(&record, nullptr, nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(record, reinterpret_cast<Velk2CrlRecord*>(&record));
  EXPECT_EQ(Velk2CrlReadA(&record, dir_.Sub("none.crl").c_str(), nullptr),
            VELK2_ERR_FILE_NOT_FOUND);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(Velk2CrlReadA(&record, dir_.Sub("cert").c_str(), nullptr), VELK2_ERR_FILE_OPEN);
  int not_a_context = 0;
  EXPECT_EQ(Velk2CrlReadA(&record, path.c_str(), reinterpret_cast<Velk2Context*>(&not_a_context)),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(Velk2CrlFree(nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(Velk2CrlVerify(nullptr, kScope, 0, 0), VELK2_ERR_PARAM_NULL);
  // Any other object where the list should be (large enough to hold a list).
  alignas(std::max_align_t) unsigned char foreign[256] = {};
  Velk2CrlRecord forged{sizeof(Velk2CrlRecord), foreign, 0, 0, nullptr, 0};
  EXPECT_EQ(Velk2CrlVerify(&forged, nullptr, 0, 0), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(Velk2CrlFree(&forged), VELK2_ERR_INVALID_PARAM);

  // The version is required; nothing may follow the list; a list without a
  // tag has a NULL tag text, and asking it for a tag gives 35.
  std::string text = ListFile({});
  std::string unversioned = text;
  unversioned.erase(unversioned.find("(7:version1:1)"), 14);
  const std::pair<std::string, VELK2_RESULT> broken[] = {
      {unversioned, VELK2_ERR_INVALID_DATA},
      {text + " ", VELK2_ERR_PARSE_FILE},
      {text.substr(0, text.size() - 1), VELK2_ERR_FILE_OPEN},
      {"(8:sequence(3:crl(7:version1:1)(5:list1(4:item(4:hash3:md516:0123456789abcdef)" +
           std::string("19:2026-01-01_00:00:00))(5:list2))"),
       VELK2_ERR_HASH_ID},
  };
  for (const auto& [bytes, code] : broken) {
    testing::WriteFile(path, bytes);
    EXPECT_EQ(Velk2CrlReadA(&record, path.c_str(), nullptr), code) << bytes.substr(0, 60);
    EXPECT_EQ(record, nullptr);
  }
  ListSpec untagged;
  untagged.tag = nullptr;
  testing::WriteFile(path, ListFile(untagged));
  ASSERT_EQ(Velk2CrlReadA(&record, path.c_str(), nullptr), VELK2_SUCCESS);
  EXPECT_EQ(record->tag, nullptr);
  EXPECT_EQ(Velk2CrlVerify(record, kScope, 0, 0), VELK2_ERR_AUTH_TAG_MISSING);
  EXPECT_EQ(Velk2CrlFree(record), VELK2_SUCCESS);
}

TEST_F(Store, ListsVerifyOnlyFromTheirIssuerUnchanged) {
  const std::string path = dir_.Sub("in.crl");
  auto verify = [&](const ListSpec& spec) {
    testing::WriteFile(path, ListFile(spec));
    return Velk2CrlVerifyFileA(path.c_str(), nullptr, 0, 0, nullptr);
  };
  EXPECT_EQ(verify({}), VELK2_SUCCESS);
  ListSpec stranger;
  stranger.issuer = kStranger;
  EXPECT_EQ(verify(stranger), VELK2_ERR_ACL_ENTRY_NOT_FOUND);
  ListSpec unknown_scope;
  unknown_scope.tag = "(revoke elsewhere)";
  EXPECT_EQ(verify(unknown_scope), VELK2_ERR_ACL_ENTRY_NOT_FOUND);
  ListSpec altered;
  altered.tamper_body = true;
  EXPECT_EQ(verify(altered), VELK2_ERR_SIGNATURE);
  // A signature bit flipped: the signer is right, the signature is not.
  std::string text = ListFile({});
  // The signature's value is the file's last atom, before the ")" of its
  // list, of the signature and of the sequence. (Its bytes are random and
  // may hold a ":" of their own, so the atom is not found by its header.)
  ASSERT_EQ(text.substr(text.size() - 3), ")))");
  text[text.size() - 3 - 8] ^= 1;
  testing::WriteFile(path, text);
  EXPECT_EQ(Velk2CrlVerifyFileA(path.c_str(), nullptr, 0, 0, nullptr), VELK2_ERR_SIGNATURE);
  // The last ACL entry with the list's tag decides: a later one for a
  // stranger takes the list away from the root.
  Grant(kStranger, kScope, false);
  EXPECT_EQ(verify({}), VELK2_ERR_ACL_ENTRY_NOT_FOUND);
  EXPECT_EQ(verify(stranger), VELK2_SUCCESS);
}

TEST_F(Store, RevocationDecidesTheChain) {
  Ref<SexpList> root_to_dev = Issue("chain.cert", kRoot, kDev);
  const Ref<SexpList> dev_key = PublicKeyList(kDev);
  // Without a list for its scope a certificate that names one cannot be cleared.
  EXPECT_EQ(VerifyChain(), VELK2_ERR_CRL_NOT_FOUND);
  PutList({});
  EXPECT_EQ(VerifyChain(), VELK2_SUCCESS);
  EXPECT_EQ(VerifyChain(0, 0), VELK2_SUCCESS);

  ListSpec revoked;
  revoked.certificates = {Item(*root_to_dev, "2026-03-01_00:00:00")};
  PutList(revoked);
  EXPECT_EQ(VerifyChain(), VELK2_ERR_CERT_REVOKED);
  EXPECT_EQ(VerifyChain(0, 0), VELK2_ERR_CERT_REVOKED);
  // Revoked after the period began: it was still good at its start.
  EXPECT_EQ(VerifyChain(kJan2026 + 10, kJun2026), VELK2_SUCCESS);

  // The subject key revoked, in a list made by the toolkit that `velk2 crl
  // issue` uses: a key is revoked whatever the date.
  issuing::RevocationListRequest by_toolkit;
  by_toolkit.scope = TagList(kScope);
  by_toolkit.keys = {{dev_key, kJan2027}};
  by_toolkit.not_before = kJan2026;
  by_toolkit.not_after = kJan2030;
  std::string toolkit_file;
  ASSERT_EQ(issuing::MakeRevocationList(TestKey(kRoot), by_toolkit, &toolkit_file), VELK2_SUCCESS);
  testing::WriteFile(StoredList(), toolkit_file);
  EXPECT_EQ(VerifyChain(), VELK2_ERR_CERT_REVOKED);

  // A list that does not verify says nothing: neither its hit nor its period.
  ListSpec forged = revoked;
  forged.issuer = kStranger;
  PutList(forged);
  EXPECT_EQ(VerifyChain(), VELK2_ERR_CRL_NOT_FOUND);

  // A period the lists no longer speak for.
  ListSpec expired;
  expired.not_after = kJan2027;
  PutList(expired);
  EXPECT_EQ(VerifyChain(kJan2030, kJan2040), VELK2_ERR_CRL_NOT_FOUND);
  Ref<SexpList> acl;
  ASSERT_EQ(LoadAcl(&acl, nullptr, nullptr), VELK2_SUCCESS);
  RevocationLists lists;
  ASSERT_EQ(LoadRevocationLists(acl.get(), nullptr, &lists), VELK2_SUCCESS);
  ASSERT_EQ(lists.size(), 1u);
  Ref<SexpAtom> start = SexpAtom::New(), end = SexpAtom::New();
  ASSERT_EQ(WriteDate(start.get(), kJan2030), VELK2_SUCCESS);
  ASSERT_EQ(WriteDate(end.get(), kJan2040), VELK2_SUCCESS);
  const Ref<SexpList> scope = TagList(kScope);
  const RevocationQuery query{acl.get(), &lists, scope.get(), start.get(), end.get(), false};
  EXPECT_EQ(MatchRevoked(RevokedKind::kCertificates, query, *root_to_dev, nullptr),
            VELK2_ERR_NOT_AFTER);

  // A list that failed against this ACL is not verified again, however many
  // things are looked up in it (a manifest may ship thousands of copies).
  PutList(forged);
  ASSERT_EQ(LoadRevocationLists(acl.get(), nullptr, &lists), VELK2_SUCCESS);
  ASSERT_EQ(lists.size(), 1u);
  EXPECT_EQ(MatchRevoked(RevokedKind::kCertificates, query, *root_to_dev, nullptr),
            VELK2_ERR_CRL_NOT_FOUND);
  EXPECT_TRUE(lists[0]->UnverifiableUnder(acl.get()));
  EXPECT_FALSE(lists[0]->UnverifiableUnder(nullptr));
  Ref<SexpList> other_acl;
  ASSERT_EQ(LoadAcl(&other_acl, nullptr, nullptr), VELK2_SUCCESS);
  EXPECT_FALSE(lists[0]->UnverifiableUnder(other_acl.get()));

  // Signatures come first, and without an ACL there is nothing to ask.
  PutList({});
  std::string chain = Read(dir_.Sub("chain.cert"));
  const std::string good = chain;
  chain[chain.find("(7:rsa-pss") + 16] ^= 1;
  testing::WriteFile(dir_.Sub("chain.cert"), chain);
  EXPECT_EQ(VerifyChain(), VELK2_ERR_SIGNATURE);
  testing::WriteFile(dir_.Sub("chain.cert"), good);
  std::filesystem::rename(dir_.Sub("acl"), dir_.Sub("acl.off"));
  EXPECT_EQ(VerifyChain(), VELK2_ERR_ACL_ENTRY_NOT_FOUND);
  std::filesystem::rename(dir_.Sub("acl.off"), dir_.Sub("acl"));
  EXPECT_EQ(Velk2CertVerifyFileA(dir_.Sub("chain.cert").c_str(), "(pkg remove)", 0, 0),
            VELK2_ERR_NOT_AUTHORIZED);
  EXPECT_EQ(Velk2CertVerifyFileA(dir_.Sub("chain.cert").c_str(), "(pkg", 0, 0),
            VELK2_ERR_INVALID_S_EXPRESSION);
  EXPECT_EQ(Velk2CertVerifyFileA(nullptr, kInstall, 0, 0), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(Velk2CertVerifyFileA(dir_.Sub("chain.cert").c_str(), nullptr, 0, 0),
            VELK2_ERR_PARAM_NULL);
  testing::WriteFile(dir_.Sub("empty.cert"), "(8:sequence)");
  Velk2CertRecord* records = nullptr;
  EXPECT_EQ(Velk2CertReadA(&records, dir_.Sub("empty.cert").c_str()), VELK2_SUCCESS);
  EXPECT_EQ(records, nullptr);
  EXPECT_EQ(Velk2CertVerifyFileA(dir_.Sub("empty.cert").c_str(), kInstall, 0, 0),
            VELK2_ERR_INVALID_SEQUENCE);
}

TEST_F(Store, OneHashPerAlgorithmFindsTheFirstItem) {
  // A large list, the revoked certificate last but also under SHA-1 earlier:
  // the first item in list order is the hit, whatever the algorithm.
  Ref<SexpList> body = Issue("chain.cert", kRoot, kDev, nullptr);
  CBuffer<uint8_t> sha1;
  uint32_t sha1_length = 0;
  ASSERT_EQ(ComputeHash(body.get(), &sha1, &sha1_length, ZCRY_HASH_SHA1, false), VELK2_SUCCESS);
  ListSpec spec;
  for (int i = 0; i < 20000; ++i) {
    char digest[33];
    std::snprintf(digest, sizeof digest, "%032d", i);
    spec.certificates.push_back(std::string("(4:item(4:hash6:sha25632:") + digest +
                                ")19:2026-01-01_00:00:00)");
  }
  spec.certificates.insert(
      spec.certificates.begin() + 7000,
      "(4:item(4:hash4:sha120:" + std::string(reinterpret_cast<char*>(sha1.get()), sha1_length) +
          ")19:2026-02-02_00:00:00)");
  spec.certificates.push_back(Item(*body, "2026-03-03_00:00:00"));
  testing::WriteFile(dir_.Sub("big.crl"), ListFile(spec));
  Ref<RevocationList> list;
  ASSERT_EQ(ReadRevocationListFile(&list, dir_.Wide("big.crl").c_str(), nullptr), VELK2_SUCCESS);
  ASSERT_EQ(list->revoked_count(RevokedKind::kCertificates), 20002u);
  size_t index = 0;
  ASSERT_EQ(list->FindRevoked(RevokedKind::kCertificates, *body, &index), VELK2_SUCCESS);
  EXPECT_EQ(index, 7000u);
  EXPECT_EQ(list->revoked(RevokedKind::kCertificates, index).date->bytes(), "2026-02-02_00:00:00");
  ASSERT_EQ(list->FindRevoked(RevokedKind::kKeys, *body, &index), VELK2_SUCCESS);
  EXPECT_EQ(index, RevocationList::kNoItem);
  ASSERT_EQ(list->FindRevoked(RevokedKind::kCertificates, *PublicKeyList(kDev), &index),
            VELK2_SUCCESS);
  EXPECT_EQ(index, RevocationList::kNoItem);
}

TEST_F(Store, RecordsDescribeEveryEntry) {
  Issue("chain.cert", kRoot, kDev);
  Issue("chain.cert", kDev, kStranger, nullptr, nullptr, false);
  Velk2CertRecord* first = nullptr;
  ASSERT_EQ(Velk2CertReadA(&first, dir_.Sub("chain.cert").c_str()), VELK2_SUCCESS);
  ASSERT_NE(first, nullptr);
  Velk2CertRecord* second = first->next;
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->next, nullptr);
  EXPECT_EQ(first->size, sizeof(Velk2CertRecord));
  EXPECT_EQ(first->sequence, second->sequence);
  EXPECT_EQ(first->not_before, kJan2026);
  EXPECT_EQ(first->not_after, kJan2030);
  EXPECT_STREQ(first->tag, kInstall);
  EXPECT_STREQ(first->owner, "dev team");
  // The subject key as DER, as the key's own export gives it.
  SexpMemorySource source;
  const std::string dev_text = StoredForm(*PublicKeyList(kDev));
  ASSERT_EQ(source.AttachCopy(dev_text.data(), dev_text.size()), VELK2_SUCCESS);
  Ref<PublicKey> dev = PublicKey::New();
  ASSERT_EQ(dev->Parse(&source), VELK2_SUCCESS);
  CBuffer<uint8_t> der;
  uint32_t der_length = 0;
  ASSERT_EQ(dev->ExportKey(&der, &der_length), VELK2_SUCCESS);
  ASSERT_EQ(first->subject_key_length, der_length);
  EXPECT_EQ(std::memcmp(first->subject_key, der.get(), der_length), 0);
  // The hash text holds the digest's raw bytes: its length says where it ends.
  ASSERT_EQ(first->hash_length, 13u + 32u + 1u);
  EXPECT_EQ(std::string(first->hash, 13), "(hash sha256 ");
  EXPECT_EQ(first->hash[first->hash_length - 1], ')');
  // No dates and no tag: 0 and NULL.
  EXPECT_EQ(second->not_before, 0);
  EXPECT_EQ(second->not_after, 0);
  EXPECT_EQ(second->tag, nullptr);
  EXPECT_STREQ(second->owner, "dev team");

  PutList({});
  EXPECT_EQ(Velk2CertVerify(first, kInstall, kJun2026, kJun2026), VELK2_SUCCESS);
  EXPECT_EQ(Velk2CertVerify(first, "(pkg remove)", 0, 0), VELK2_ERR_NOT_AUTHORIZED);
  EXPECT_EQ(Velk2CertVerify(nullptr, kInstall, 0, 0), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(Velk2CertVerify(first, nullptr, 0, 0), VELK2_ERR_PARAM_NULL);

  // Out-pointers: NULL out or path 38, a non-null *out 2 and left alone.
  Velk2CertRecord* again = first;
  EXPECT_EQ(Velk2CertReadA(nullptr, "x"), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(Velk2CertReadA(&again, nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(Velk2CertReadA(&again, dir_.Sub("chain.cert").c_str()), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(again, first);
  again = nullptr;
  EXPECT_EQ(Velk2CertReadA(&again, ""), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(Velk2CertReadA(&again, dir_.Sub("missing.cert").c_str()), VELK2_ERR_FILE_OPEN);
  EXPECT_EQ(again, nullptr);
  EXPECT_EQ(Velk2CertFree(nullptr), VELK2_ERR_PARAM_NULL);
  // Every record, text and the sequence go at once (the sanitizer build
  // would report a leak).
  EXPECT_EQ(Velk2CertFree(first), VELK2_SUCCESS);

  // CertFind: full paths of "*.cert" in any case, in name order.
  testing::WriteFile(dir_.Sub("cert/B.CERT"), "x");
  testing::WriteFile(dir_.Sub("cert/a.cert"), "x");
  testing::WriteFile(dir_.Sub("cert/c.crl"), "x");
  FileItem* found = CertFindA(dir_.Sub("cert").c_str());
  ASSERT_NE(found, nullptr);
  ASSERT_NE(found->next, nullptr);
  EXPECT_STREQ(found->name, dir_.Sub("cert/a.cert").c_str());
  EXPECT_STREQ(found->next->name, dir_.Sub("cert/B.CERT").c_str());
  EXPECT_EQ(found->next->next, nullptr);
  EXPECT_EQ(FreeFileItemList(found), 2u);
  found = CertFindA(nullptr);  // the Home store's cert directory
  EXPECT_EQ(FreeFileItemList(found), 2u);
  EXPECT_EQ(CertFindA(dir_.Sub("acl").c_str()), nullptr);
  EXPECT_EQ(CertFindA(dir_.Sub("missing").c_str()), nullptr);
}

TEST_F(Store, ImportKeepsTheBestListAndNeverHalfOfOne) {
  const std::string incoming = dir_.Sub("incoming");
  std::filesystem::create_directories(incoming);
  EXPECT_EQ(Velk2CrlImportA(incoming.c_str(), nullptr), VELK2_ERR_CRL_NOT_FOUND);
  EXPECT_EQ(Velk2CrlImportA(nullptr, nullptr), VELK2_ERR_PARAM_NULL);
  auto offer = [&](const ListSpec& spec) {
    std::filesystem::remove_all(incoming);
    testing::WriteFile(incoming + "/new.crl", ListFile(spec));
    return Velk2ImportCrlsA(incoming.c_str());
  };

  ListSpec current;  // 2026 to 2030
  ASSERT_EQ(offer(current), VELK2_SUCCESS);
  const std::string first = Read(StoredList());
  EXPECT_EQ(first, Read(incoming + "/new.crl"));
  Velk2CrlRecord* found = nullptr;
  ASSERT_EQ(Velk2CrlFindA(&found, kScope, nullptr), VELK2_SUCCESS);
  EXPECT_EQ(found->not_after, kJan2030);
  EXPECT_EQ(Velk2CrlFree(found), VELK2_SUCCESS);
  EXPECT_EQ(Velk2CrlFindA(&found, "(revoke other)", nullptr), VELK2_ERR_ACL_ENTRY_NOT_FOUND);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(Velk2CrlFindA(&found, nullptr, nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(Velk2CrlFindA(nullptr, kScope, nullptr), VELK2_ERR_PARAM_NULL);
  int not_a_context = 0;
  EXPECT_EQ(Velk2CrlImportA(incoming.c_str(), reinterpret_cast<Velk2Context*>(&not_a_context)),
            VELK2_ERR_INVALID_PARAM);

  ListSpec older = current;  // the same issue time and different: the stored list stays
  older.not_after = kJan2027;
  EXPECT_EQ(offer(older), VELK2_SUCCESS);
  EXPECT_EQ(Read(StoredList()), first);
  ListSpec future = current;  // not yet valid: never imported
  future.not_before = kJan2040;
  future.not_after = kJan2040 + 100;
  EXPECT_EQ(offer(future), VELK2_SUCCESS);
  EXPECT_EQ(Read(StoredList()), first);
  ListSpec forged = current;
  forged.issuer = kStranger;
  forged.not_before = kJun2026;
  forged.not_after = kJan2040;
  EXPECT_EQ(offer(forged), VELK2_SUCCESS);
  EXPECT_EQ(Read(StoredList()), first);
  ListSpec longer = current;  // issued later, lasts longer
  longer.not_before = kJun2026;
  longer.not_after = kJan2040;
  EXPECT_EQ(offer(longer), VELK2_SUCCESS);
  const std::string second = Read(StoredList());
  EXPECT_NE(second, first);
  // A stored list issued later is never replaced by one issued earlier, even
  // when its own period has not begun.
  testing::WriteFile(StoredList(), ListFile(future));
  const std::string waiting = Read(StoredList());
  EXPECT_EQ(offer(older), VELK2_SUCCESS);
  EXPECT_EQ(Read(StoredList()), waiting);

  // An import that dies while writing leaves the stored list whole and no
  // stray file behind that a reader could take for a list.
  testing::WriteFile(StoredList(), second);
  std::filesystem::remove_all(incoming);
  ListSpec huge = longer;
  for (int i = 0; i < 2000; ++i)
    huge.keys.push_back(Item(*PublicKeyList(kRoot), "2026-01-01_00:00:00"));
  huge.not_after = kJan2040 + 1000;
  testing::WriteFile(incoming + "/new.crl", ListFile(huge));
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(static_cast<int>(Velk2ImportCrlsA(incoming.c_str())));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(Read(StoredList()), second);
  for (const auto& entry : std::filesystem::directory_iterator(dir_.Sub("cert"))) {
    EXPECT_EQ(entry.path().filename().string().find(".tmp-"), std::string::npos);
  }

  // Without an ACL nothing is imported, and that is no error.
  std::filesystem::remove_all(dir_.Sub("acl"));
  EXPECT_EQ(Velk2ImportCrlsA(incoming.c_str()), VELK2_SUCCESS);
  EXPECT_EQ(Read(StoredList()), second);
}

// What an import does with a list offered over a stored one: a list never
// replaces one issued later or at the same time (a replayed list must not win
// back the store), and only a later issue time reaches the not-after rule.
TEST_F(Store, ImportNeverReplaysAnOlderList) {
  const std::string incoming = dir_.Sub("incoming");
  struct Case {
    const char* what;
    int64_t stored_from, stored_to, offered_from, offered_to;
    ImportOutcome want;
  };
  const Case kCases[] = {
      {"issued earlier, lasting longer", kJun2026, kJan2027, kJan2026, kJan2040,
       ImportOutcome::kOlderThanStored},
      {"issued earlier, same end", kJun2026, kJan2030, kJan2026, kJan2030,
       ImportOutcome::kOlderThanStored},
      {"issued at the same time, lasting longer", kJan2026, kJan2027, kJan2026, kJan2040,
       ImportOutcome::kSameIssueTime},
      {"issued later, lasting longer", kJan2026, kJan2027, kJun2026, kJan2030,
       ImportOutcome::kImported},
      {"issued later, same end", kJan2026, kJan2030, kJun2026, kJan2030, ImportOutcome::kImported},
      {"issued later, ending sooner", kJan2026, kJan2040, kJun2026, kJan2030,
       ImportOutcome::kStoredIsNewer},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    ListSpec stored, offered;
    stored.not_before = c.stored_from;
    stored.not_after = c.stored_to;
    offered.not_before = c.offered_from;
    offered.not_after = c.offered_to;
    offered.keys.push_back(Item(*PublicKeyList(kDev), "2026-02-01_00:00:00"));
    PutList(stored);
    const std::string before = Read(StoredList());
    std::filesystem::remove_all(incoming);
    testing::WriteFile(incoming + "/offered.crl", ListFile(offered));
    std::vector<ImportRecord> records;
    ASSERT_EQ(ImportRevocationLists(Utf8ToUtf16(incoming).c_str(), nullptr, &records),
              VELK2_SUCCESS);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].outcome, c.want);
    EXPECT_EQ(records[0].issued, DateText(c.offered_from));
    EXPECT_EQ(records[0].stored_issued, DateText(c.stored_from));
    EXPECT_EQ(Read(StoredList()) == before, c.want != ImportOutcome::kImported);
  }
  // The very list that is stored is no conflict: it stays, unwritten.
  const std::string stored = Read(StoredList());
  std::filesystem::remove_all(incoming);
  testing::WriteFile(incoming + "/same.crl", stored);
  std::vector<ImportRecord> records;
  ASSERT_EQ(ImportRevocationLists(Utf8ToUtf16(incoming).c_str(), nullptr, &records), VELK2_SUCCESS);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].outcome, ImportOutcome::kAlreadyStored);
  // The lock file beside the lists is no list: finding still tells "no list
  // at all" (7) from "no list of that tag" (54).
  EXPECT_TRUE(std::filesystem::exists(dir_.Sub("cert/store.lock")));
  Velk2CrlRecord* found = nullptr;
  EXPECT_EQ(Velk2CrlFindA(&found, "(revoke other)", nullptr), VELK2_ERR_ACL_ENTRY_NOT_FOUND);
  std::filesystem::remove(StoredList());
  EXPECT_EQ(Velk2CrlFindA(&found, kScope, nullptr), VELK2_ERR_FILE_OPEN);
  EXPECT_EQ(found, nullptr);
}

// Two imports at once, as separate processes, in either order: the store
// always ends with the newest list, whole.
TEST_F(Store, ConcurrentImportsEndWithTheNewestList) {
  ListSpec old_list, new_list;
  old_list.not_after = kJan2030;
  new_list.not_before = kJun2026;
  new_list.not_after = kJan2040;
  new_list.keys.push_back(Item(*PublicKeyList(kDev), "2026-02-01_00:00:00"));
  const std::string old_file = ListFile(old_list), new_file = ListFile(new_list);
  testing::WriteFile(dir_.Sub("old/a.crl"), old_file);
  testing::WriteFile(dir_.Sub("new/a.crl"), new_file);
  for (int round = 0; round < 25; ++round) {
    std::filesystem::remove(StoredList());
    pid_t children[2];
    const char* sources[2] = {"old", "new"};
    for (int i = 0; i < 2; ++i) {
      const std::string source = dir_.Sub(sources[(i + round) % 2]);
      children[i] = fork();
      ASSERT_GE(children[i], 0);
      if (children[i] == 0) _exit(static_cast<int>(Velk2ImportCrlsA(source.c_str())));
    }
    for (pid_t child : children) {
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      ASSERT_TRUE(WIFEXITED(status));
      EXPECT_EQ(WEXITSTATUS(status), 0);
    }
    ASSERT_EQ(Read(StoredList()), new_file) << "round " << round;
  }
}

TEST(RevocationStoreName, OnlyNamesThatStayInTheStore) {
  std::u16string name;
  EXPECT_TRUE(RevocationStoreName(TagList(kScope).get(), &name));
  EXPECT_EQ(name, u"(revoke pkg)");
  for (const char* hostile : {"(revoke ../../etc)", "..", "(revoke a\\b)"}) {
    EXPECT_FALSE(RevocationStoreName(TagList(hostile).get(), &name)) << hostile;
  }
  EXPECT_FALSE(RevocationStoreName(ListFromText("(3:tag3:a\nb)").get(), &name));
  EXPECT_FALSE(RevocationStoreName(ListFromText("(3:tag2:\xC3\x28)").get(), &name));
  EXPECT_FALSE(RevocationStoreName(ListFromText("(4:tags1:a)").get(), &name));
  EXPECT_FALSE(RevocationStoreName(nullptr, &name));
}

}  // namespace
}  // namespace velk2
