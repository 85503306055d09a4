// What keeps a revoked signer or an old package out of VerifyManifest: the
// store's revocation lists beside the manifest's own, and rollback
// protection (opt-in through SetRollbackProtection).
#include <cstring>
#include <ctime>

#include "manifest/manifest_test_util.h"
#include "manifest/rollback.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the fixture and its helpers
using Revocation = Package;

TEST_F(Revocation, AKeyRevokedInTheStoreFailsEveryPackageItSigns) {
  Sign();
  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  // Revoked in 2027, after the time of signing: a key has no date escape.
  StoreList(RevocationList({}, {Revoked(PublicKeyList(kSigner).get(), kJan2027)}));
  EXPECT_EQ(Verify().code, VELK2_ERR_NOT_AUTHORIZED);

  // The ACL names the signing key itself: the object certificate it signed
  // is left out too, so nothing is left to authorize.
  Grant(kSigner, kInstall, "12");
  Sign();
  EXPECT_EQ(Verify().code, VELK2_ERR_NOT_AUTHORIZED);
  fs::remove(dir_.Sub("store/acl/12.acl"));

  // A longer chain: the signer's certificate and the object certificate go,
  // and what is left does not reach the manifest. The report says which
  // certificates went and why.
  const std::string file = NewChainFile();
  Certify(file, kVendor, kSigner, true, "(revoke pkg)");
  Certify(file, kRoot, kVendor, true);
  const Ref<CertificateSequence> chain = ReadChain(file);
  Sign(chain);
  ManifestContext context = Context();
  ManifestReport report;
  EXPECT_EQ(VerifyPackage(&context, 0, 0, &report), VELK2_ERR_NOT_AUTHORIZED);
  ASSERT_EQ(report.revocation.size(), 3u);
  EXPECT_EQ(report.revocation[0].state, kIssuerKeyRevoked);
  EXPECT_EQ(report.revocation[1].state, kSubjectKeyRevoked);
  EXPECT_EQ(Utf16ToUtf8(report.revocation[1].list_path), dir_.Sub("store/cert/(revoke pkg).crl"));
  EXPECT_EQ(report.revocation[1].revoked_on, "2027-01-01_00:00:00");
  EXPECT_EQ(report.revocation[2].state, kNotRevoked);
  EXPECT_EQ(report.lists_from_store, 1u);

  // Only the signer's certificate revoked (by certificate, in its scope):
  // the order check finds the vendor's certificate in its place, as the
  // design has it.
  StoreList(RevocationList({Revoked(chain->entry(0).certificate, kJan2026)}, {}));
  EXPECT_EQ(Verify().code, VELK2_ERR_SIGNING_CERT_ORDER);
  StoreList(RevocationList({}, {}));
  EXPECT_EQ(Verify().code, VELK2_SUCCESS);
}

// A signer's certificate that asks for (revoke pkg) lists needs a current
// list that clears it, in the store or shipped with the manifest.
TEST_F(Revocation, AScopedSignerNeedsACurrentClearingList) {
  const Ref<CertificateSequence> chain = Chain(kRoot, true, "(revoke pkg)");
  // A list whose period ends before the time of signing clears nothing.
  Sign(chain);
  StoreList(RevocationList({}, {}, kJan2026 - 86400 * 300, kJan2026));
  EXPECT_EQ(Verify().code, VELK2_ERR_NOT_AUTHORIZED);
  fs::remove(dir_.Sub("store/cert/(revoke pkg).crl"));

  // The manifest's own lists, with none in the store.
  const std::string clear = RevocationList({}, {});
  const std::pair<std::string, VELK2_RESULT> kShipped[] = {
      {clear, VELK2_SUCCESS},
      // One that revokes the signer's key: the certificate leaves the chain.
      {RevocationList({}, {Revoked(PublicKeyList(kSigner).get(), kJan2026)}),
       VELK2_ERR_NOT_AUTHORIZED},
      // One from a key the ACL does not name for the scope clears nothing.
      {RevocationList({}, {}, kJan2026, kJan2030, kStranger), VELK2_ERR_NOT_AUTHORIZED},
  };
  for (const auto& [list, code] : kShipped) {
    SignOptions options;
    options.lists = {list};
    Sign(chain, "", options);
    EXPECT_EQ(Verify().code, code);
  }
  // One that does not read.
  std::string bytes = Read(Sign(chain));
  bytes.replace(bytes.find(")(3:crl)"), 8, ")(3:crl(3:foo))");
  WriteFile(Pkg("manifest"), bytes);
  EXPECT_EQ(Verify().code, VELK2_ERR_INVALID_DATA);

  // Revoked in the store before the time of signing: the stale list shipped
  // with the package cannot outvote it.
  SignOptions shipped;
  shipped.lists = {clear};
  Sign(chain, "", shipped);
  StoreList(RevocationList({Revoked(chain->entry(0).certificate, kJan2026)}, {}, kJan2026 + 86400));
  EXPECT_EQ(Verify().code, VELK2_ERR_NOT_AUTHORIZED);
}

// Rollback protection, through the C interface.
class Rollback : public Package {
 protected:
  VELK2_RESULT VerifyWith(const std::string& manifest, uint32_t flags,
                          const std::string& package = "", const char* tag = kInstall) {
    return Verify(manifest, false, nullptr, package, tag, flags).code;
  }
  std::set<std::string> Records() {
    std::set<std::string> found;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(dir_.Sub("store/rollback"), ignored)) {
      found.insert(Read(entry.path().string()));
    }
    return found;
  }
  std::string Signed(const char* file, int64_t time, const std::string& name = "hello") {
    SignOptions options;
    options.name = name;
    options.time_of_signing = time;
    return Sign(nullptr, dir_.Sub(file), options);
  }
};

TEST_F(Rollback, AnOlderManifestOfTheSamePackageIsRefused) {
  const std::string v1 = Signed("v1", kSigned), v2 = Signed("v2", kSigned + 86400);
  // Off, the design's behaviour: no state, and older manifests verify.
  EXPECT_EQ(VerifyWith(v2, 0), VELK2_SUCCESS);
  EXPECT_EQ(VerifyWith(v1, 0), VELK2_SUCCESS);
  EXPECT_TRUE(Records().empty());

  EXPECT_EQ(VerifyWith(v2, VELK2_ROLLBACK_PROTECT), VELK2_SUCCESS);
  // The name's record, and the directory's beside it.
  const std::string tag = "(3:tag(3:pkg7:install))";
  const std::string by_name =
      "(8:rollback(7:package(4:name5:hello)" + tag + ")(15:time-of-signing19:2026-06-22_00:00:00))";
  ASSERT_EQ(Records().size(), 2u);
  EXPECT_TRUE(Records().count(by_name));
  EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT), VELK2_ERR_TIME_STAMP);
  // The same name in another directory is the same package.
  fs::copy(Pkg(), dir_.Sub("elsewhere"), fs::copy_options::recursive);
  EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT, dir_.Sub("elsewhere")), VELK2_ERR_TIME_STAMP);
  // Admitted on request, and the record never goes back.
  EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT | VELK2_ROLLBACK_ALLOW_OLDER), VELK2_SUCCESS);
  EXPECT_TRUE(Records().count(by_name));
  // An old manifest without a name cannot come back where the named
  // package lies.
  EXPECT_EQ(VerifyWith(Signed("unnamed", kSigned, ""), VELK2_ROLLBACK_PROTECT),
            VELK2_ERR_TIME_STAMP);
  // The tag asked about is part of the package: a signer trusted only for
  // another tag cannot move this record (here the same signer, asked about
  // a narrower tag, has a record of its own).
  EXPECT_EQ(VerifyWith(Signed("v9", kSigned + 9 * 86400), VELK2_ROLLBACK_PROTECT, "",
                       "(pkg install hello)"),
            VELK2_SUCCESS);
  EXPECT_EQ(Records().size(), 4u);
  EXPECT_EQ(VerifyWith(v2, VELK2_ROLLBACK_PROTECT), VELK2_SUCCESS);

  // Another name is another package.
  EXPECT_EQ(VerifyWith(Signed("other", kSigned, "other"), VELK2_ROLLBACK_PROTECT), VELK2_SUCCESS);
  EXPECT_EQ(Records().size(), 5u);

  // Only a verification that succeeded in full is recorded: a tampered
  // package's newer manifest leaves the record alone.
  const std::string v3 = Signed("v3", kSigned + 2 * 86400);
  WriteFile(Pkg("bin/app"), "tampered");
  EXPECT_EQ(VerifyWith(v3, VELK2_ROLLBACK_PROTECT), VELK2_ERR_HASH_MISMATCH);
  WriteFile(Pkg("bin/app"), "application");
  EXPECT_EQ(VerifyWith(v2, VELK2_ROLLBACK_PROTECT), VELK2_SUCCESS);

  // Flags the export does not know, or "allow older" alone, are refused.
  ManifestContext* context = nullptr;
  ASSERT_EQ(CreateManifestContextA(&context, Pkg().c_str(), v1.c_str(), kInstall), VELK2_SUCCESS);
  EXPECT_EQ(SetRollbackProtection(context, 4), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(SetRollbackProtection(context, VELK2_ROLLBACK_ALLOW_OLDER), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(SetRollbackProtection(nullptr, VELK2_ROLLBACK_PROTECT), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
}

TEST_F(Rollback, UnnamedPackagesAreTheirDirectories) {
  const std::string v1 = Signed("v1", kSigned, ""), v2 = Signed("v2", kSigned + 60, "");
  EXPECT_EQ(VerifyWith(v2, VELK2_ROLLBACK_PROTECT), VELK2_SUCCESS);
  EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT), VELK2_ERR_TIME_STAMP);
  // The same directory named another way is the same package.
  EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT, Pkg() + "/../pkg"), VELK2_ERR_TIME_STAMP);
  fs::copy(Pkg(), dir_.Sub("copy"), fs::copy_options::recursive);
  EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT, dir_.Sub("copy")), VELK2_SUCCESS);
  ASSERT_EQ(Records().size(), 2u);
}

TEST_F(Rollback, AManifestFromTheFutureIsRefused) {
  const int64_t now = static_cast<int64_t>(std::time(nullptr));
  // The chain has no period, so only rollback protection can refuse these.
  const std::string ahead = Signed("ahead", now + 3600);
  EXPECT_EQ(VerifyWith(ahead, 0), VELK2_SUCCESS);
  EXPECT_EQ(VerifyWith(ahead, VELK2_ROLLBACK_PROTECT), VELK2_ERR_TIME_STAMP);
  EXPECT_TRUE(Records().empty());
  // A clock a little behind the signer's is no reason to refuse.
  EXPECT_EQ(VerifyWith(Signed("skewed", now + 60), VELK2_ROLLBACK_PROTECT), VELK2_SUCCESS);
}

TEST_F(Rollback, ARecordThatDoesNotReadIsNeverPassedOver) {
  const std::string v1 = Signed("v1", kSigned);
  ASSERT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT), VELK2_SUCCESS);
  // The record of the name, not the one of the directory beside it.
  fs::path record;
  for (const auto& entry : fs::directory_iterator(dir_.Sub("store/rollback"))) {
    if (Read(entry.path().string()).find("(4:name5:hello)") != std::string::npos) {
      record = entry.path();
    }
  }
  ASSERT_FALSE(record.empty());
  const std::string good = Read(record.string());
  const std::string bad[] = {"", "garbage", good.substr(0, good.size() - 1), good + "x",
                             // Another package's record under this package's name.
                             "(8:rollback(7:package(4:name5:other)(3:tag(3:pkg7:install)))"
                             "(15:time-of-signing19:2026-06-22_00:00:00))",
                             "(8:rollback(7:package(4:name5:hello)(3:tag(3:pkg7:install)))"
                             "(15:time-of-signing19:2026-13-45_99:99:99))"};
  for (const std::string& bytes : bad) {
    WriteFile(record.string(), bytes);
    EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT), VELK2_ERR_READ_FILE) << bytes;
    EXPECT_EQ(Read(record.string()), bytes);
  }
  fs::remove(record);
  fs::create_directory(record);  // not a file at all
  EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT), VELK2_ERR_READ_FILE);
  // Nor is the records' directory passed over when it is a file.
  fs::remove_all(dir_.Sub("store/rollback"));
  WriteFile(dir_.Sub("store/rollback"), "");
  EXPECT_EQ(VerifyWith(v1, VELK2_ROLLBACK_PROTECT), VELK2_ERR_READ_FILE);
  fs::remove(dir_.Sub("store/rollback"));

  // The first second of 1970 is a time like any other, not "no record".
  ASSERT_EQ(VerifyWith(Signed("epoch", 0), VELK2_ROLLBACK_PROTECT), VELK2_SUCCESS);
  EXPECT_EQ(VerifyWith(Signed("before", -60), VELK2_ROLLBACK_PROTECT), VELK2_ERR_TIME_STAMP);
}

// The time of signing is judged as text by the authorization and as a
// number here: one that does not read back as written is refused.
TEST_F(Rollback, ATimeOfSigningThatIsNoDateIsRefused) {
  ManifestContext context = Context();
  context.rollback_flags = kRollbackProtect;
  for (const char* date : {"2028-1\x01-01_00:00:00", "2026-06-21_00:00:0", "2026-06-21 00:00:00",
                           "2026-02-30_00:00:00", "2026-06-21_00:00:000"}) {
    context.time_of_signing = SexpAtom::New();
    ASSERT_EQ(context.time_of_signing->AssignBytes(date, static_cast<uint32_t>(strlen(date))),
              VELK2_SUCCESS);
    RollbackReport report;
    EXPECT_EQ(CheckRollback(context, kSigned, &report), VELK2_ERR_TIME_STAMP) << date;
    EXPECT_TRUE(report.malformed) << date;
  }
  context.time_of_signing = SexpAtom::New();
  ASSERT_EQ(context.time_of_signing->AssignBytes("2026-06-21_00:00:00", 19), VELK2_SUCCESS);
  RollbackReport report;
  EXPECT_EQ(CheckRollback(context, kSigned, &report), VELK2_SUCCESS);
  EXPECT_FALSE(report.malformed);
}

TEST(HeaderAttributes, OldWordsAndBrokenListsCarryNone) {
  const char* const kNone[] = {"velk2",
                               "(5:velk2)",
                               "(5:other(4:name1:x))",
                               "(5:velk2(4:name))",
                               "(5:velk2(4:name1:\x01))",
                               "(5:velk2(4:name1:x)",
                               "((((",
                               "(5:velk2(4:name1:/))"};
  for (const char* second : kNone) {
    Ref<SexpList> old;
    ASSERT_EQ(NewKeywordList(&old, "version", nullptr), VELK2_SUCCESS);
    ASSERT_EQ(old->AppendTextAtom("1"), VELK2_SUCCESS);
    ASSERT_EQ(old->AppendTextAtom(second), VELK2_SUCCESS);
    EXPECT_EQ(ReadHeaderAttributes(old.get()).name, "") << second;
  }
  EXPECT_EQ(ReadHeaderAttributes(nullptr).name, "");
  EXPECT_FALSE(ValidPackageName(""));
  EXPECT_FALSE(ValidPackageName(std::string(256, 'a')));
  EXPECT_FALSE(ValidPackageName("a\nb"));
  EXPECT_FALSE(ValidPackageName("\xff"));
  EXPECT_TRUE(ValidPackageName("gr\xc3\xbc\xc3\x9f-1.0+dfsg~1"));
}

}  // namespace
}  // namespace velk2
