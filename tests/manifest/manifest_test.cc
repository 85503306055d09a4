// Signed manifests through the C interface: packages signed by the toolkit
// (as `velk2 manifest sign` signs them), then changed on disk, corrupted,
// re-signed with other chains, and verified or compared as a caller does.
#include "manifest/manifest_test_util.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the fixture and its helpers

size_t Count(const FileItem* list) {
  size_t items = 0;
  for (; list != nullptr; list = list->next) ++items;
  return items;
}

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
  EXPECT_EQ(GetTimeOfSigning(context), kSigned);
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
  EXPECT_EQ(Count(GetValidEntries(context)), 7u);
  EXPECT_EQ(CompareManifestA(context, Pkg("manifest").c_str()), VELK2_SUCCESS);
  EXPECT_EQ(Count(GetValidEntries(context)), 14u);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_SUCCESS);
  EXPECT_EQ(Count(GetValidEntries(context)), 7u);
  EXPECT_EQ(CompareManifestA(context, dir_.Sub("none").c_str()), VELK2_ERR_OPEN_MANIFEST_FILE);
  EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
}

TEST_F(Package, ChangedMissingAndExtraEntries) {
  Sign();
  WriteFile(Pkg("bin/app"), "application, patched");
  fs::remove(Pkg("share/doc/README"));
  WriteFile(Pkg("bin/new"), "unlisted");
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

  // Ignored entries, named wide or narrow, are not reported, whatever
  // happened to them.
  fs::remove(Pkg("share/doc/NEW"));
  WriteFile(Pkg("bin/tool"), "changed");
  fs::remove(Pkg("top.txt"));
  FileItem* ignored = FileItemCreate(u"bin/tool", nullptr);
  ignored->next = FileItemCreate(nullptr, "top.txt");
  out = Verify("", true, ignored);
  EXPECT_EQ(out.code, VELK2_SUCCESS);
  EXPECT_EQ(out.valid.count("bin/tool") + out.valid.count("top.txt"), 0u);
  FreeFileItemList(ignored);
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
  std::string altered = good;
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
}

TEST_F(Package, TheSignersChainDecides) {
  // A signer's certificate without the right to delegate still signs: a
  // manifest's object certificate is the signer's own act.
  Sign(Chain(kRoot, false));
  EXPECT_EQ(Verify().code, VELK2_SUCCESS);
  // A chain from a key the ACL does not know.
  Sign(Chain(kStranger, true));
  EXPECT_EQ(Verify().code, VELK2_ERR_NOT_AUTHORIZED);
}

TEST_F(Package, ContextRules) {
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
  EXPECT_EQ(DeleteManifestContext(nullptr), VELK2_SUCCESS);
  EXPECT_EQ(VerifyManifest(nullptr, 0, 0), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(CompareManifestA(nullptr, "x"), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(SetIgnoredEntries(nullptr, nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(SetExtraAclDirectoryA(nullptr, "x"), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(SetHashThreads(nullptr, 2), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(GetValidEntries(nullptr), nullptr);
  EXPECT_EQ(GetTimeOfSigning(nullptr), 0);
  FailOnExtraEntries(nullptr);
  alignas(std::max_align_t) unsigned char foreign[256] = {};
  EXPECT_EQ(VerifyManifest(reinterpret_cast<ManifestContext*>(foreign), 0, 0),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(DeleteManifestContext(reinterpret_cast<ManifestContext*>(foreign)),
            VELK2_ERR_INVALID_PARAM);
}

// An extension: threads hash while the walk goes on, and the report is the
// same, item by item and in order, for any number of them. Nothing but a
// regular file is read, and nothing is followed or waited on, whichever
// thread meets it (each run in a child process, where a read that waits
// cannot hang the test).
TEST_F(Package, ThreadsChangeNothingInTheReport) {
  for (int i = 0; i < 40; ++i) WriteFile(Pkg("many/f" + std::to_string(i)), std::to_string(i));
  Sign();
  WriteFile(Pkg("bin/app"), "patched");
  fs::remove(Pkg("many/f7"));
  WriteFile(Pkg("many/new"), "new");
  fs::remove(Pkg("many/f9"));
  ASSERT_EQ(mkfifo(Pkg("many/f9").c_str(), 0644), 0);
  ASSERT_EQ(mkfifo(Pkg("many/pipe").c_str(), 0644), 0);
  WriteFile(dir_.Sub("outside/f11"), "11");
  fs::remove(Pkg("many/f11"));
  fs::create_symlink(dir_.Sub("outside/f11"), Pkg("many/f11"));
  fs::rename(Pkg("share/doc"), dir_.Sub("outside/doc"));
  fs::create_directory_symlink(dir_.Sub("outside/doc"), Pkg("share/doc"));
  auto lists = [&](uint32_t threads) {
    const std::optional<Lines> out = InChild([&] {
      ManifestContext* context = nullptr;
      CreateManifestContextA(&context, Pkg().c_str(), Pkg("manifest").c_str(), kInstall);
      FileItem* ignored = FileItemCreate(u"many/f3", nullptr);
      SetIgnoredEntries(context, ignored);
      FreeFileItemList(ignored);
      SetHashThreads(context, threads);
      Lines all = {std::to_string(VerifyManifest(context, 0, 0))};
      const std::pair<const char*, const FileItem*> kinds[] = {
          {"valid", GetValidEntries(context)},
          {"invalid", GetInvalidEntries(context)},
          {"missing", GetMissingEntries(context)},
          {"extra", GetExtraEntries(context)}};
      for (const auto& [kind, list] : kinds) {
        for (const FileItem* item = list; item != nullptr; item = item->next) {
          const std::string name = item->name;
          all.push_back(std::string(kind) + " " +
                        name.substr(name.rfind(Pkg() + "/", 0) == 0 ? Pkg().size() + 1 : 0) +
                        (item->is_directory ? "/" : ""));
        }
      }
      DeleteManifestContext(context);
      return all;
    });
    EXPECT_TRUE(out.has_value()) << "the verification blocked or crashed";
    return out.value_or(Lines{});
  };
  const Lines one = lists(1);
  ASSERT_FALSE(one.empty());
  EXPECT_EQ(one[0], std::to_string(VELK2_ERR_HASH_MISMATCH));
  for (const char* line : {"invalid bin/app", "invalid many/f9", "invalid many/f11",
                           "invalid share/doc/", "missing share/doc/README", "missing many/f7",
                           "extra many/new", "extra many/pipe", "valid many/f10"}) {
    EXPECT_NE(std::find(one.begin(), one.end(), line), one.end()) << line;
  }
  for (const std::string& line : one) EXPECT_FALSE(line.ends_with(" many/f3")) << line;
  EXPECT_EQ(lists(2), one);
  EXPECT_EQ(lists(8), one);
  EXPECT_EQ(lists(0), one);  // one per core
}

// A file rewritten while it is read has no one digest: it is changed, never
// valid, whatever the bytes read happened to be.
TEST_F(Package, AFileChangedWhileReadIsChanged) {
  Sign();
  for (unsigned threads : {1u, 2u}) {
    ManifestContext context = Context();
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
