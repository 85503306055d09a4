// Signed manifests through the C interface: packages signed by the toolkit
// (as `velk2 manifest sign` signs them), then changed on disk, corrupted,
// re-signed with other chains, and verified or compared as a caller does.
#include "manifest/package_fixture.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the fixture and its helpers

TEST_F(Package, SignedPackageVerifiesEveryEntry) {
  Sign();
  const Outcome out = Verify();
  EXPECT_EQ(out.code, VELK2_SUCCESS);
  EXPECT_EQ(out.valid, (std::set<std::string>{"bin/", "bin/app", "bin/tool", "share/", "share/doc/",
                                              "share/doc/README", "top.txt"}));
  EXPECT_TRUE(out.invalid.empty() && out.missing.empty() && out.extra.empty());

  ManifestContext* context = nullptr;
  ASSERT_EQ(CreateManifestContextA(&context, Pkg().c_str(), Pkg("manifest").c_str(), kInstall),
            VELK2_SUCCESS);
  EXPECT_EQ(GetTimeOfSigning(context), 0);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_SUCCESS);
  EXPECT_EQ(GetTimeOfSigning(context), 1782000000);
  // A tag the signer does not hold; a period the chain does not reach.
  ManifestContext* other = nullptr;
  ASSERT_EQ(CreateManifestContextA(&other, Pkg().c_str(), Pkg("manifest").c_str(), "(pkg remove)"),
            VELK2_SUCCESS);
  EXPECT_EQ(VerifyManifest(other, 0, 0), VELK2_ERR_NOT_AUTHORIZED);
  EXPECT_EQ(DeleteManifestContext(other), VELK2_SUCCESS);
  // Without an ACL verification fails with 5; reading for a comparison needs none.
  // A failed verification leaves no list of an earlier one behind.
  fs::rename(dir_.Sub("store/acl"), dir_.Sub("store/acl.off"));
  EXPECT_NE(GetValidEntries(context), nullptr);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_ERR_FILE_NOT_FOUND);
  EXPECT_EQ(GetValidEntries(context), nullptr);
  EXPECT_EQ(GetInvalidEntries(context), nullptr);
  EXPECT_EQ(GetMissingEntries(context), nullptr);
  EXPECT_EQ(GetExtraEntries(context), nullptr);
  EXPECT_EQ(CompareManifestA(context, Pkg("manifest").c_str()), VELK2_SUCCESS);
  fs::rename(dir_.Sub("store/acl.off"), dir_.Sub("store/acl"));
  // CompareManifest adds to the lists; VerifyManifest starts them afresh.
  EXPECT_EQ(Paths(GetValidEntries(context)).size(), 7u);
  EXPECT_EQ(CompareManifestA(context, Pkg("manifest").c_str()), VELK2_SUCCESS);
  size_t items = 0;
  for (const FileItem* item = GetValidEntries(context); item != nullptr; item = item->next) ++items;
  EXPECT_EQ(items, 14u);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_SUCCESS);
  items = 0;
  for (const FileItem* item = GetValidEntries(context); item != nullptr; item = item->next) ++items;
  EXPECT_EQ(items, 7u);
  EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
}

TEST_F(Package, ChangedMissingAndExtraEntries) {
  Sign();
  WriteFile(Pkg("bin/app"), "application, patched");
  fs::remove(Pkg("share/doc/README"));
  WriteFile(Pkg("bin/new"), "unlisted");
  WriteFile(Pkg("beside.txt"), "the package directory itself is never scanned");
  Outcome out = Verify();
  EXPECT_EQ(out.code, VELK2_ERR_HASH_MISMATCH);  // a change wins over what is missing
  // A directory with anything wrong below it is invalid, missing files included.
  EXPECT_EQ(out.invalid, (std::set<std::string>{"bin/app", "bin/", "share/", "share/doc/"}));
  EXPECT_EQ(out.missing, (std::set<std::string>{"share/doc/README"}));
  EXPECT_EQ(out.extra, (std::set<std::string>{"bin/new"}));

  WriteFile(Pkg("bin/app"), "application");
  fs::remove(Pkg("bin/new"));
  WriteFile(Pkg("share/doc/README"), "read me");
  fs::remove(Pkg("top.txt"));
  EXPECT_EQ(Verify().code, VELK2_ERR_FILE_NOT_FOUND);
  WriteFile(Pkg("top.txt"), "top");
  WriteFile(Pkg("share/doc/NEW"), "x");
  EXPECT_EQ(Verify().code, VELK2_SUCCESS);  // extra entries are allowed by default
  EXPECT_EQ(Verify("", true).code, VELK2_ERR_EXTRA_FILES);

  // Ignored entries are not reported, whatever happened to them.
  fs::remove(Pkg("share/doc/NEW"));
  WriteFile(Pkg("bin/tool"), "changed");
  fs::remove(Pkg("top.txt"));
  FileItem* ignored = FileItemCreate(u"bin/tool", nullptr);
  ignored->next = FileItemCreate(nullptr, "top.txt");
  out = Verify("", true, ignored);
  EXPECT_EQ(out.code, VELK2_SUCCESS);
  EXPECT_EQ(out.valid.count("bin/tool") + out.valid.count("top.txt"), 0u);
  FreeFileItemList(ignored);

  // Names that differ only in case match, and the exact name is preferred.
  WriteFile(Pkg("bin/tool"), "tool");
  WriteFile(Pkg("top.txt"), "top");
  fs::rename(Pkg("bin/app"), Pkg("bin/APP"));
  EXPECT_EQ(Verify().code, VELK2_SUCCESS);
  WriteFile(Pkg("bin/app"), "application");
  WriteFile(Pkg("bin/APP"), "another file");
  out = Verify("", true);
  EXPECT_EQ(out.code, VELK2_ERR_EXTRA_FILES);
  EXPECT_EQ(out.extra, (std::set<std::string>{"bin/APP", "bin/"}));
}

TEST_F(Package, NothingOnDiskIsFollowedOrWaitedOn) {
  Sign();
  // A symlink where a listed directory was, to a copy of it outside the
  // package: never read, so the directory is invalid and its files missing.
  fs::copy(Pkg("bin"), dir_.Sub("elsewhere"));
  fs::remove_all(Pkg("bin"));
  fs::create_directory_symlink(dir_.Sub("elsewhere"), Pkg("bin"));
  Outcome out = Verify();
  EXPECT_EQ(out.code, VELK2_ERR_HASH_MISMATCH);
  EXPECT_TRUE(out.invalid.count("bin/"));
  EXPECT_EQ(out.missing, (std::set<std::string>{"bin/app", "bin/tool"}));
  EXPECT_EQ(out.valid.count("bin/app"), 0u);
  // A symlink where a file was, to the very same content: invalid.
  fs::remove(Pkg("bin"));
  fs::rename(dir_.Sub("elsewhere"), Pkg("bin"));
  fs::remove(Pkg("bin/app"));
  fs::create_symlink(Pkg("bin/tool"), Pkg("bin/app"));
  WriteFile(Pkg("bin/tool"), "application");
  out = Verify();
  EXPECT_TRUE(out.invalid.count("bin/app"));
  // A FIFO where a file was: invalid at once, never opened for a read that waits.
  WriteFile(Pkg("bin/tool"), "tool");
  fs::remove(Pkg("bin/app"));
  ASSERT_EQ(mkfifo(Pkg("bin/app").c_str(), 0644), 0);
  ASSERT_EQ(mkfifo(Pkg("bin/pipe").c_str(), 0644), 0);
  out = Verify();
  EXPECT_EQ(out.invalid, (std::set<std::string>{"bin/app", "bin/"}));
  EXPECT_EQ(out.extra, (std::set<std::string>{"bin/pipe"}));
}

TEST_F(Package, EachCheckInItsOrder) {
  const std::string good = Read(Sign());
  auto verify_bytes = [&](const std::string& bytes) {
    WriteFile(Pkg("manifest"), bytes);
    return Verify().code;
  };
  auto replaced = [&](const std::string& from, const std::string& to) {
    std::string bytes = good;
    const size_t at = bytes.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return bytes.replace(at, from.size(), to);
  };
  EXPECT_EQ(Verify(dir_.Sub("none")).code, VELK2_ERR_OPEN_MANIFEST_FILE);
  EXPECT_EQ(verify_bytes(replaced("(7:version1:1", "(7:version1:2")), VELK2_ERR_MANIFEST_VERSION);
  EXPECT_EQ(verify_bytes(replaced("5:plain", "5:fancy")), VELK2_ERR_MANIFEST_TYPE);
  // The body's bytes are signed: one changed byte fails at the digest.
  EXPECT_EQ(verify_bytes(replaced("3:app", "3:apq")), VELK2_ERR_HASH_MATCH);
  // Altered lists are checked before the digest: the signer's stand first.
  std::string altered = replaced("(4:body", "(4:body");
  altered[altered.find("(7:rsa-pss") + 20] ^= 1;
  EXPECT_EQ(verify_bytes(altered), VELK2_ERR_SIGNATURE);
  // Only one certificate: the format wants the signer's chain.
  const size_t chain = good.find("(4:cert", good.find("(4:cert") + 1);
  const size_t lists = good.find(")(3:crl)");
  EXPECT_NE(verify_bytes(good.substr(0, chain) + good.substr(lists)), VELK2_SUCCESS);
  // The first two certificates swapped: the object certificate must come first.
  const size_t object = good.find("(4:cert");
  const std::string first = good.substr(object, chain - object);
  const std::string second = good.substr(chain, lists - chain);
  EXPECT_EQ(verify_bytes(good.substr(0, object) + second + first + good.substr(lists)),
            VELK2_ERR_NOT_OBJECT_CERT);
  EXPECT_EQ(verify_bytes(good), VELK2_SUCCESS);

  // Bodies the reader refuses, each after a good header (read mode checks
  // the digest first, so these are checked through the tree reader).
  ManifestDirectory root;
  const std::string digest(32, 'd');
  const std::pair<std::string, VELK2_RESULT> bodies[] = {
      {"(4:body(12:random-token3:abc))", VELK2_ERR_RANDOM_TOKEN},
      {"(4:body(12:random-token5:abcde))", VELK2_ERR_RANDOM_TOKEN},
      {"(4:body(12:random-token4:abcd)(4:file1:a0:20:" + std::string(20, 'd') + "))",
       VELK2_ERR_UNKNOWN_HASH_ID},
      {"(4:body(12:random-token4:abcd)(4:file2:..0:32:" + digest + "))", VELK2_ERR_PARSE_FILE},
      {"(4:body(12:random-token4:abcd)(3:dir3:a/b0:))", VELK2_ERR_PARSE_FILE},
      {"(4:body(12:random-token4:abcd)(4:file0:0:32:" + digest + "))", VELK2_ERR_PARSE_FILE},
      {"(4:body(12:random-token4:abcd)(4:file3:a\\b0:32:" + digest + "))", VELK2_ERR_PARSE_FILE},
      {std::string("(4:body(12:random-token4:abcd)(4:file3:a\0b0:32:", 46) + digest + "))",
       VELK2_ERR_PARSE_FILE},
      {"(4:body(12:random-token4:abcd)(4:link1:a))", VELK2_ERR_PARSE_FILE},
      {"(4:body(12:random-token4:abcd))x", VELK2_ERR_PARSE_FILE},
      {"(4:body(12:random-token4:abcd))", VELK2_SUCCESS},  // an empty tree
  };
  for (const auto& [body, code] : bodies) {
    EXPECT_EQ(ReadManifestBody(&root, body, nullptr), code) << body;
  }
  std::string deep = "(4:body(12:random-token4:abcd)";
  for (int i = 0; i < 300; ++i) deep += "(3:dir1:d0:";
  EXPECT_EQ(ReadManifestBody(&root, deep, nullptr), VELK2_ERR_INVALID_S_EXPRESSION);
}

TEST_F(Package, TheSignersChainDecides) {
  // A signer's certificate without the right to delegate still signs: a
  // manifest's object certificate is the signer's own act.
  Sign(Chain(kRoot, false));
  EXPECT_EQ(Verify().code, VELK2_SUCCESS);
  // A chain from a key the ACL does not know.
  Sign(Chain(kStranger, true));
  EXPECT_EQ(Verify().code, VELK2_ERR_NOT_AUTHORIZED);

  // The manifest's own list revokes the signer's key: the certificate leaves
  // the chain and the authorization fails.
  const std::string good = Read(Sign(Chain(kRoot, true, "(revoke pkg)")));
  issuing::RevocationListRequest request;
  request.scope = TagList("(revoke pkg)");
  request.not_before = 1767225600;  // 2026
  request.not_after = 1893456000;   // 2030
  std::string clear, revoking;
  ASSERT_EQ(issuing::MakeRevocationList(TestKey(kRoot), request, &clear), VELK2_SUCCESS);
  request.keys = {{PublicKeyList(kSigner), 1767225600}};
  ASSERT_EQ(issuing::MakeRevocationList(TestKey(kRoot), request, &revoking), VELK2_SUCCESS);
  auto with_list = [&](const std::string& list) {
    std::string bytes = good;
    bytes.replace(bytes.find(")(3:crl)"), 8, ")(3:crl" + list + ")");
    WriteFile(Pkg("manifest"), bytes);
    return Verify().code;
  };
  EXPECT_EQ(Verify().code, VELK2_ERR_NOT_AUTHORIZED);  // no list clears it
  EXPECT_EQ(with_list(clear), VELK2_SUCCESS);
  EXPECT_EQ(with_list(revoking), VELK2_ERR_NOT_AUTHORIZED);
  EXPECT_EQ(with_list("(3:foo)"), VELK2_ERR_INVALID_DATA);  // a list that does not read
}

TEST_F(Package, ContextRulesAndComparison) {
  ManifestContext* context = nullptr;
  EXPECT_EQ(CreateManifestContextA(nullptr, "a", "b", kInstall), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(CreateManifestContextA(&context, nullptr, "b", kInstall), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(CreateManifestContextA(&context, "a", "b", nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(CreateManifestContextA(&context, "a", "b", "(pkg"), VELK2_ERR_INVALID_S_EXPRESSION);
  EXPECT_EQ(context, nullptr);
  ASSERT_EQ(CreateManifestContextA(&context, "a", "b", "(null)"), VELK2_SUCCESS);
  ManifestContext* kept = context;
  EXPECT_EQ(CreateManifestContextA(&context, "a", "b", kInstall), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(context, kept);
  EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
  context = nullptr;
  EXPECT_EQ(DeleteManifestContext(nullptr), VELK2_SUCCESS);
  EXPECT_EQ(VerifyManifest(nullptr, 0, 0), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(CompareManifestA(nullptr, "x"), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(SetIgnoredEntries(nullptr, nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(SetExtraAclDirectoryA(nullptr, "x"), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(GetValidEntries(nullptr), nullptr);
  EXPECT_EQ(GetTimeOfSigning(nullptr), 0);
  FailOnExtraEntries(nullptr);
  alignas(std::max_align_t) unsigned char foreign[256] = {};
  EXPECT_EQ(VerifyManifest(reinterpret_cast<ManifestContext*>(foreign), 0, 0),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(DeleteManifestContext(reinterpret_cast<ManifestContext*>(foreign)),
            VELK2_ERR_INVALID_PARAM);

  // Two manifests: changed, only in the first (missing), only in the second
  // (extra, a whole directory with everything below it); ignored names on
  // either side are left out.
  const std::string before = Sign(nullptr, dir_.Sub("before.manifest"));
  WriteFile(Pkg("bin/app"), "patched");
  fs::remove(Pkg("top.txt"));
  WriteFile(Pkg("lib/x/libx.so"), "x");
  WriteFile(Pkg("lib/y.so"), "y");
  const std::string after = Sign(nullptr, dir_.Sub("after.manifest"));
  ASSERT_EQ(CreateManifestContextA(&context, Pkg().c_str(), before.c_str(), kInstall),
            VELK2_SUCCESS);
  EXPECT_EQ(CompareManifestA(context, after.c_str()), VELK2_ERR_HASH_MISMATCH);
  EXPECT_EQ(Paths(GetInvalidEntries(context)), (std::set<std::string>{"bin/app", "bin/"}));
  EXPECT_EQ(Paths(GetMissingEntries(context)), (std::set<std::string>{"top.txt"}));
  EXPECT_EQ(Paths(GetExtraEntries(context)),
            (std::set<std::string>{"lib/", "lib/x/", "lib/x/libx.so", "lib/y.so"}));
  EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
  context = nullptr;
  ASSERT_EQ(CreateManifestContextA(&context, Pkg().c_str(), before.c_str(), kInstall),
            VELK2_SUCCESS);
  FileItem* ignored = FileItemCreate(u"bin/app", nullptr);
  ignored->next = FileItemCreate(u"lib", nullptr);
  ignored->next->next = FileItemCreate(u"top.txt", nullptr);
  EXPECT_EQ(SetIgnoredEntries(context, ignored), VELK2_SUCCESS);
  FreeFileItemList(ignored);
  EXPECT_EQ(CompareManifestA(context, after.c_str()), VELK2_SUCCESS);
  EXPECT_EQ(GetInvalidEntries(context), nullptr);
  EXPECT_EQ(CompareManifestA(context, dir_.Sub("none").c_str()), VELK2_ERR_OPEN_MANIFEST_FILE);
  EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
}

// An extension: threads hash while the walk goes on, and the report is the
// same, item by item and in order, for any number of them.
TEST_F(Package, ThreadsChangeNothingInTheReport) {
  for (int i = 0; i < 40; ++i) WriteFile(Pkg("many/f" + std::to_string(i)), std::to_string(i));
  Sign();
  WriteFile(Pkg("bin/app"), "patched");
  fs::remove(Pkg("many/f7"));
  WriteFile(Pkg("many/new"), "new");
  WriteFile(Pkg("share/doc/README"), "changed too");
  auto lists = [&](uint32_t threads) {
    ManifestContext* context = nullptr;
    EXPECT_EQ(CreateManifestContextA(&context, Pkg().c_str(), Pkg("manifest").c_str(), kInstall),
              VELK2_SUCCESS);
    FileItem* ignored = FileItemCreate(u"many/f3", nullptr);
    EXPECT_EQ(SetIgnoredEntries(context, ignored), VELK2_SUCCESS);
    FreeFileItemList(ignored);
    EXPECT_EQ(SetHashThreads(context, threads), VELK2_SUCCESS);
    std::vector<std::string> all = {std::to_string(VerifyManifest(context, 0, 0))};
    for (const FileItem* list : {GetValidEntries(context), GetInvalidEntries(context),
                                 GetMissingEntries(context), GetExtraEntries(context)}) {
      all.push_back("--");
      for (; list != nullptr; list = list->next) {
        all.push_back(std::string(list->name) + (list->is_directory ? "/" : ""));
      }
    }
    EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
    return all;
  };
  const std::vector<std::string> one = lists(1);
  EXPECT_EQ(one[0], std::to_string(VELK2_ERR_HASH_MISMATCH));
  EXPECT_EQ(lists(2), one);
  EXPECT_EQ(lists(8), one);
  EXPECT_EQ(lists(0), one);  // one per core
  EXPECT_EQ(SetHashThreads(nullptr, 2), VELK2_ERR_PARAM_NULL);
}

// A file rewritten while it is read has no one digest: it is changed, never
// valid, whatever the bytes read happened to be.
TEST_F(Package, AFileChangedWhileReadIsChanged) {
  Sign();
  for (unsigned threads : {1u, 2u}) {
    ManifestContext context;
    context.package_directory = Utf8ToUtf16(Pkg());
    context.manifest_path = Utf8ToUtf16(Pkg("manifest"));
    context.tag = TagList(kInstall);
    context.hash_threads = threads;
    ManifestReport report;
    // Called after each file is read and before its status is looked at again.
    report.on_file = [&](uint64_t) {
      std::ofstream(Pkg("bin/tool"), std::ios::app) << "";
      fs::last_write_time(Pkg("bin/tool"), fs::file_time_type::clock::now());
    };
    CompareResults found;
    EXPECT_EQ(VerifyPackage(&context, 0, 0, &report, &found), VELK2_ERR_HASH_MISMATCH);
    size_t changed = 0;
    for (const CompareResult& entry : found) {
      if (entry.changed_during) {
        ++changed;
        EXPECT_EQ(entry.status, VELK2_ENTRY_INVALID);
        EXPECT_NE(Utf16ToUtf8(entry.path).find("bin/tool"), std::string::npos);
      }
    }
    EXPECT_EQ(changed, 1u) << threads << " threads";
  }
}

}  // namespace
}  // namespace velk2
