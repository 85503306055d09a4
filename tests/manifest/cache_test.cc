// Incremental verification: what the cache of verified files lets a
// verification skip, and everything that makes it read a file again.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "manifest/cache.h"
#include "manifest/manifest_test_util.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the fixture and its helpers

constexpr int64_t kSecond = 1'000'000'000;

int64_t RealNow() {
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * kSecond + now.tv_nsec;
}

struct stat Look(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

int64_t ChangeTime(const std::string& path) {
  const struct stat st = Look(path);
  return static_cast<int64_t>(st.st_ctim.tv_sec) * kSecond + st.st_ctim.tv_nsec;
}

// Gives |path| the modification and access times of |from|.
void CopyTimes(const std::string& from, const std::string& path) {
  const struct stat st = Look(from);
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

// What one verification did, file by file.
struct Verified {
  Result code = VELK2_FAILURE;
  CacheReport cache;
  uint64_t bytes_read = 0;
  std::set<std::string> valid, invalid, extra, trusted;  // paths below the package
};

class Cache : public Package {
 protected:
  void SetUp() override {
    Package::SetUp();
    WriteFile(Pkg("lib/libfoo.so.1"), "library");
    fs::create_symlink("libfoo.so.1", Pkg("lib/libfoo.so"));
    // Files written by the test are seconds old to the cache's clock, so
    // none is racy unless a test says so.
    now_ = RealNow() + 10 * kSecond;
    settings_->clock = [this] { return now_.load(); };
  }

  // Verifies pkg/manifest (or |manifest|) with the cache.
  Verified Verify(uint32_t flags = kCacheUse, const std::string& manifest = "",
                  unsigned threads = 1) {
    ManifestContext context = Context();
    if (!manifest.empty()) context.manifest_path = Utf8ToUtf16(manifest);
    context.cache_flags = flags;
    context.cache_settings = settings_;
    context.hash_threads = threads;
    HashCounters counters;
    ManifestReport report;
    report.counters = &counters;
    CompareResults found;
    Verified run;
    run.code = VerifyPackage(&context, 0, 0, &report, &found);
    run.cache = context.cache_report;
    run.bytes_read = counters.bytes.load();
    const std::string base = Pkg() + "/";
    for (const CompareResult& result : found) {
      if (result.is_directory) continue;
      std::string path = Utf16ToUtf8(result.path);
      if (path.rfind(base, 0) == 0) path = path.substr(base.size());
      if (result.status == VELK2_ENTRY_VALID) run.valid.insert(path);
      if (result.status == VELK2_ENTRY_INVALID) run.invalid.insert(path);
      if (result.status == VELK2_ENTRY_EXTRA) run.extra.insert(path);
      if (result.from_cache) run.trusted.insert(path);
    }
    EXPECT_EQ(run.trusted.size(), run.cache.trusted);
    return run;
  }

  std::string CacheFile(const std::string& manifest = "") {
    CacheLocation location;
    std::string problem;
    EXPECT_TRUE(LocateCache(Utf8ToUtf16(Pkg()),
                            Utf8ToUtf16(manifest.empty() ? Pkg("manifest") : manifest), *settings_,
                            &location, &problem))
        << problem;
    return location.file;
  }

  // Waits until a change made now bears a later change time than every
  // file of the package: timestamps come from a coarse clock, and a change
  // within the same tick as the last one would bear the same time (the
  // racy case, which the test clock has turned off).
  void NextTick() {
    int64_t newest = 0;
    for (const auto& entry : fs::recursive_directory_iterator(Pkg())) {
      newest = std::max(newest, ChangeTime(entry.path().string()));
    }
    while (true) {
      WriteFile(dir_.Sub("tick"), "tick");
      if (ChangeTime(dir_.Sub("tick")) > newest) break;
    }
  }

  // Makes |change|, then puts |path|'s modification time back as it was:
  // only its change time tells.
  void KeepingModificationTime(const std::string& path, const std::function<void()>& change) {
    WriteFile(dir_.Sub("saved"), "");
    CopyTimes(path, dir_.Sub("saved"));
    change();
    CopyTimes(dir_.Sub("saved"), path);
    ASSERT_EQ(Look(path).st_mtim.tv_nsec, Look(dir_.Sub("saved")).st_mtim.tv_nsec);
  }

  // Verifies a copy of the package made in |name|, with the cache, which it
  // must write: the copy's cache file.
  std::string VerifyCopy(const std::string& name) {
    const std::string copy = dir_.Sub(name);
    fs::copy(Pkg(), copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    ManifestContext context = Context();
    context.package_directory = Utf8ToUtf16(copy);
    context.manifest_path = Utf8ToUtf16(copy + "/manifest");
    context.cache_flags = kCacheUse;
    context.cache_settings = settings_;
    EXPECT_EQ(VerifyPackage(&context, 0, 0), VELK2_SUCCESS);
    EXPECT_TRUE(context.cache_report.written) << context.cache_report.problem;
    CacheLocation location;
    std::string problem;
    EXPECT_TRUE(LocateCache(context.package_directory, context.manifest_path, *settings_, &location,
                            &problem));
    return location.file;
  }

  // Signs |package| as it stands into |out|.
  void SignOther(const std::string& package, const std::string& out) {
    issuing::ManifestRequest request;
    request.package = package;
    request.tag = TagList(kInstall);
    request.time_of_signing = kSigned;
    request.chain = Chain(kRoot, true);
    request.ignore = {"manifest"};
    std::string file, problem;
    ASSERT_EQ(issuing::MakeManifest(TestKey(kSigner), request, &file, nullptr, &problem),
              VELK2_SUCCESS)
        << problem;
    WriteFile(out, file);
  }

  const std::set<std::string> kRegular = {"bin/app", "bin/tool", "lib/libfoo.so.1",
                                          "share/doc/README", "top.txt"};
  const size_t kDirectories = 4;
  std::atomic<int64_t> now_{0};
  std::shared_ptr<CacheSettings> settings_ = std::make_shared<CacheSettings>();
};

TEST_F(Cache, AnUnchangedPackageIsTrustedUnreadOnceVerified) {
  Sign();
  const Verified first = Verify();
  ASSERT_EQ(first.code, VELK2_SUCCESS);
  EXPECT_TRUE(first.trusted.empty());
  EXPECT_GT(first.bytes_read, 0u);
  EXPECT_TRUE(first.cache.written) << first.cache.problem;
  EXPECT_FALSE(first.cache.loaded);
  // Every regular file, and the link never; every directory below the
  // package (bin, lib, share, share/doc): the package's own holds the manifest.
  EXPECT_EQ(first.cache.recorded, kRegular.size() + kDirectories);
  EXPECT_EQ(Look(dir_.Sub("store/cache")).st_mode & 07777, 0700u);
  EXPECT_EQ(Look(CacheFile()).st_mode & 07777, 0600u);
  const std::string written = Read(CacheFile());

  const Verified second = Verify();
  ASSERT_EQ(second.code, VELK2_SUCCESS);
  EXPECT_EQ(second.trusted, kRegular);
  EXPECT_EQ(second.valid, first.valid);
  EXPECT_TRUE(second.valid.count("lib/libfoo.so"));
  EXPECT_EQ(second.bytes_read, 0u);
  EXPECT_EQ(second.cache.listings, kDirectories);
  EXPECT_TRUE(second.cache.loaded);
  EXPECT_TRUE(second.cache.problem.empty()) << second.cache.problem;
  // Nothing new to say: the file is left as it was.
  EXPECT_FALSE(second.cache.written);
  EXPECT_EQ(Read(CacheFile()), written);

  // Without the flag the cache is neither read nor written.
  const Verified plain = Verify(0);
  EXPECT_EQ(plain.code, VELK2_SUCCESS);
  EXPECT_TRUE(plain.trusted.empty());
  EXPECT_FALSE(plain.cache.enabled);
  EXPECT_EQ(Read(CacheFile()), written);

  // More threads, the same answers.
  const Verified threaded = Verify(kCacheUse, "", 4);
  EXPECT_EQ(threaded.trusted, kRegular);
  EXPECT_EQ(threaded.valid, first.valid);
}

// Each change a cache must not miss: the content rewritten at the same size
// with its modification time put back (its change time moves), a file
// swapped for another inode, a mode, a link's target. Only what is left
// unchanged is trusted, and a failed verification records nothing.
TEST_F(Cache, EveryChangeSinceTheEntryIsReadAgain) {
  Sign();
  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  const std::string cache = Read(CacheFile());
  NextTick();

  KeepingModificationTime(Pkg("bin/app"), [&] { WriteFile(Pkg("bin/app"), "APPLICATION"); });

  WriteFile(dir_.Sub("other"), "TOOL");
  ASSERT_EQ(::chmod(dir_.Sub("other").c_str(), Look(Pkg("bin/tool")).st_mode & 07777), 0);
  CopyTimes(Pkg("bin/tool"), dir_.Sub("other"));
  fs::rename(dir_.Sub("other"), Pkg("bin/tool"));

  ASSERT_EQ(::chmod(Pkg("top.txt").c_str(), 0600), 0);
  fs::remove(Pkg("lib/libfoo.so"));
  fs::create_symlink("/elsewhere/libfoo.so.1", Pkg("lib/libfoo.so"));

  const Verified run = Verify();
  EXPECT_EQ(run.code, VELK2_ERR_HASH_MISMATCH);
  EXPECT_EQ(run.invalid,
            (std::set<std::string>{"bin/app", "bin/tool", "lib/libfoo.so", "top.txt"}));
  EXPECT_EQ(run.trusted, (std::set<std::string>{"lib/libfoo.so.1", "share/doc/README"}));
  EXPECT_FALSE(run.cache.written);
  EXPECT_EQ(Read(CacheFile()), cache);

  // Put right: bin/app by content alone, its times left as they are now;
  // the files that differ are read, found valid and recorded again.
  WriteFile(Pkg("bin/app"), "application");
  WriteFile(Pkg("bin/tool"), "tool");
  ASSERT_EQ(::chmod(Pkg("top.txt").c_str(), Look(Pkg("bin/app")).st_mode & 07777), 0);
  fs::remove(Pkg("lib/libfoo.so"));
  fs::create_symlink("libfoo.so.1", Pkg("lib/libfoo.so"));
  const Verified mended = Verify();
  ASSERT_EQ(mended.code, VELK2_SUCCESS);
  EXPECT_EQ(mended.trusted, (std::set<std::string>{"lib/libfoo.so.1", "share/doc/README"}));
  EXPECT_TRUE(mended.cache.written);
  EXPECT_EQ(Verify().trusted, kRegular);
}

// The entry names what the file was checked against: a manifest signed
// again with another digest for a file left untouched is checked, not
// trusted, and the file is invalid against it.
TEST_F(Cache, AManifestSignedAgainIsCheckedAgainstItsOwnEntries) {
  Sign();
  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  const std::string other = dir_.Sub("other");
  fs::copy(Pkg(), other, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  WriteFile(other + "/bin/app", "APPLICATION");  // the same size
  SignOther(other, Pkg("manifest"));

  const Verified run = Verify();
  EXPECT_EQ(run.code, VELK2_ERR_HASH_MISMATCH);
  EXPECT_EQ(run.invalid, (std::set<std::string>{"bin/app"}));
  EXPECT_FALSE(run.trusted.count("bin/app"));
  EXPECT_EQ(run.trusted.size(), kRegular.size() - 1);

  // A manifest elsewhere is another cache altogether.
  Sign(nullptr, dir_.Sub("elsewhere.manifest"));
  EXPECT_NE(CacheFile(dir_.Sub("elsewhere.manifest")), CacheFile());
  const Verified elsewhere = Verify(kCacheUse, dir_.Sub("elsewhere.manifest"));
  EXPECT_EQ(elsewhere.code, VELK2_SUCCESS);
  EXPECT_TRUE(elsewhere.trusted.empty());
}

// A directory's listing is taken from the cache only while nothing in it was
// added, removed or renamed: a file added with the directory's times put
// back is extra (its change time moved), an extra entry allowed once is
// found every time after, and a manifest signed again without a file makes
// it extra though its directory is untouched.
TEST_F(Cache, AListingIsTrustedOnlyWhileTheDirectoryIsAsItWas) {
  Sign();
  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  ASSERT_EQ(Verify().cache.listings, kDirectories);
  NextTick();
  KeepingModificationTime(Pkg("bin"), [&] { WriteFile(Pkg("bin/intruder"), "intruder"); });
  for (int run = 0; run < 2; ++run) {
    SCOPED_TRACE(run);
    const Verified found = Verify();
    EXPECT_EQ(found.code, VELK2_SUCCESS);  // extra entries allowed, and recorded
    EXPECT_EQ(found.extra, (std::set<std::string>{"bin/intruder"}));
    EXPECT_EQ(found.cache.listings, kDirectories - 1);  // bin is listed every time
    EXPECT_EQ(found.trusted, kRegular);
  }
  fs::remove(Pkg("bin/intruder"));
  EXPECT_TRUE(Verify().extra.empty());
  EXPECT_EQ(Verify().cache.listings, kDirectories);

  const std::string other = dir_.Sub("other");
  fs::copy(Pkg(), other, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  fs::remove(other + "/bin/tool");
  SignOther(other, Pkg("manifest"));
  const Verified fewer = Verify();
  EXPECT_EQ(fewer.code, VELK2_SUCCESS);
  EXPECT_EQ(fewer.extra, (std::set<std::string>{"bin/tool"}));
  EXPECT_EQ(fewer.cache.listings, kDirectories - 1);
}

// A cache file cut short or changed by hand, or another package's, is never
// trusted in part: ignored, every file read, and written anew.
TEST_F(Cache, ADamagedOrForeignCacheIsIgnoredAndRebuilt) {
  Sign();
  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  const std::string path = CacheFile();
  const std::string good = Read(path);
  ASSERT_GT(good.size(), 200u);

  // Another package's cache, under this package's name.
  const std::string other = dir_.Sub("other");
  fs::copy(Pkg(), other, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  CacheLocation location;
  std::string problem;
  ASSERT_TRUE(LocateCache(Utf8ToUtf16(other), Utf8ToUtf16(other + "/manifest"), *settings_,
                          &location, &problem));

  std::string flipped = good;
  flipped[good.size() / 2] ^= 0x01;
  std::string magic = good;
  magic[0] = 'V';
  const std::map<std::string, std::string> kDamaged = {
      {"empty", ""},
      {"cut in half", good.substr(0, good.size() / 2)},
      {"last byte missing", good.substr(0, good.size() - 1)},
      {"a byte more", good + "x"},
      {"one bit changed", flipped},
      {"magic", magic},
      {"another package's", CacheFileBytes(location.key, now_, {})},
  };
  for (const auto& [what, bytes] : kDamaged) {
    SCOPED_TRACE(what);
    WriteFile(path, bytes);
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    const Verified run = Verify();
    EXPECT_EQ(run.code, VELK2_SUCCESS);
    EXPECT_TRUE(run.trusted.empty());
    EXPECT_FALSE(run.cache.loaded);
    EXPECT_NE(run.cache.problem.find("damaged"), std::string::npos) << run.cache.problem;
    EXPECT_TRUE(run.cache.written);
    EXPECT_EQ(Verify().trusted, kRegular);
  }
}

// What a cache file holds is read through the cursor, every count and
// length checked, for files whose checksum is right too.
TEST(CacheFile, OnlyWhatAWriterWritesIsRead) {
  CacheEntry entry;
  entry.path = "bin/app";
  entry.file = {1, 2, 11, 5 * kSecond, 6 * kSecond, S_IFREG | 0755, 1000, 1000};
  entry.entry.digest_length = 32;
  entry.entry.digest = DigestOf("application");
  entry.entry.recorded = kStampSize | kStampMode;
  entry.entry.size = 11;
  entry.entry.mode = 0755;
  entry.hashed_at = 7 * kSecond;
  CacheEntry second = entry;
  second.path = "bin/tool";
  const std::string key = std::string("/pkg") + '\0' + "/pkg/manifest";
  const int64_t written = 8 * kSecond;

  PackageCache cache;
  ASSERT_EQ(ParseCache(CacheFileBytes(key, written, {entry, second}), key, 10, &cache),
            VELK2_SUCCESS);
  ASSERT_EQ(cache.size(), 2u);
  EXPECT_EQ(cache.written(), written);
  const CacheEntry* found = cache.Find("bin/tool");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->file, second.file);
  EXPECT_EQ(found->entry, second.entry);
  EXPECT_EQ(found->hashed_at, second.hashed_at);
  EXPECT_EQ(cache.Find("bin"), nullptr);

  // A directory's entry: the digest of its names, nothing recorded.
  CacheEntry directory;
  directory.path = "bin";
  directory.file = {1, 3, 4096, 5 * kSecond, 6 * kSecond, S_IFDIR | 0755, 1000, 1000};
  directory.entry.digest_length = 32;
  directory.entry.digest = DigestOf("names");
  directory.hashed_at = 7 * kSecond;
  ASSERT_EQ(ParseCache(CacheFileBytes(key, written, {entry, directory}), key, 10, &cache),
            VELK2_SUCCESS);
  ASSERT_NE(cache.Find("bin"), nullptr);
  EXPECT_EQ(cache.Find("bin")->entry, directory.entry);
  CacheEntry short_digest = directory, with_size = directory;
  short_digest.entry.digest_length = 20;
  with_size.entry.recorded = kStampSize;
  with_size.entry.size = 4096;

  // Where the fields of one-entry files lie, after the key.
  const size_t count_at = 8 + 4 + 4 + 8 + 4 + key.size();
  const size_t path_at = count_at + 4;
  const size_t mode_at = path_at + 2 + entry.path.size() + 5 * 8;
  const size_t digest_length_at = mode_at + 3 * 4;
  const size_t recorded_at = digest_length_at + 1 + 32;
  const size_t hashed_at = recorded_at + 1 + 8 + 3 * 4;
  // A change at |offset| of the body of a one-entry file, the checksum made
  // right again: only the structure can tell.
  auto edited = [&](size_t offset, std::string_view bytes, size_t erase = 0) {
    std::string body = CacheFileBytes(key, written, {entry});
    body.resize(body.size() - 32);
    body.replace(offset, erase == 0 ? bytes.size() : erase, bytes);
    return body + Sha256(body);
  };
  auto le32 = [](uint32_t value) {
    return std::string{static_cast<char>(value), static_cast<char>(value >> 8),
                       static_cast<char>(value >> 16), static_cast<char>(value >> 24)};
  };
  std::string duplicate = CacheFileBytes(key, written, {entry, entry});
  const std::map<std::string, std::string> kBad = {
      {"version 2", edited(8, le32(2))},
      {"reserved bits", edited(12, le32(1))},
      {"another key", edited(28, "/pkh")},
      {"a key past the end", edited(24, le32(0xFFFFFFFF))},
      {"a count the bytes cannot hold", edited(count_at, le32(2))},
      {"a count of four billion", edited(count_at, le32(0xFFFFFFFF))},
      {"an empty path", edited(path_at, std::string("\0\0", 2), 2 + entry.path.size())},
      {"a path past the end", edited(path_at, std::string("\xFF\x0F", 2))},
      {"a path over the limit", edited(path_at, std::string("\x01\x10", 2))},
      {"a NUL in the path", edited(path_at + 2, std::string("\0", 1))},
      {"no regular file", edited(mode_at, le32(S_IFLNK | 0777))},
      {"a 33-byte digest", edited(digest_length_at, "\x21")},
      {"an unknown field recorded", edited(recorded_at, "\x0B")},
      {"read after it was written", edited(hashed_at, le32(0xFFFFFFFF), 4)},
      {"a byte after the last entry", edited(hashed_at + 8, "x", 0)},
      {"a path twice", duplicate},
      {"a directory with what a file records", edited(mode_at, le32(S_IFDIR | 0755))},
      {"a directory's digest cut short", CacheFileBytes(key, written, {short_digest})},
      {"a directory with a size", CacheFileBytes(key, written, {with_size})},
      {"read before 1970", edited(hashed_at, std::string(8, '\xFF'), 8)},
      {"a name \"..\" in the path", edited(path_at + 2, "../.")},   // "../.app"
      {"an empty name in the path", edited(path_at + 2 + 4, "/")},  // "bin//pp"
      {"a mode past a mode's bits", edited(mode_at, le32(0x10000 | S_IFREG | 0755))},
  };
  for (const auto& [what, bytes] : kBad) {
    SCOPED_TRACE(what);
    EXPECT_EQ(ParseCache(bytes, key, 10, &cache), VELK2_ERR_PARSE_FILE);
    EXPECT_EQ(cache.size(), 0u);
  }
  // An entry dated as early as can be is racy, not the end of all time.
  EXPECT_TRUE(Racy(entry.file, INT64_MIN, kRacyMargin));
  EXPECT_FALSE(Racy(entry.file, entry.hashed_at, kSecond / 2));

  // A well-formed file with more entries than allowed is refused whole.
  EXPECT_EQ(ParseCache(CacheFileBytes(key, written, {entry, second}), key, 1, &cache),
            VELK2_ERR_PARSE_FILE);
  EXPECT_EQ(cache.size(), 0u);
}

// A file modified within the margin of the moment it was read could change
// again unseen within one timestamp: it is recorded only once its times lie
// in the past, and never trusted before.
TEST_F(Cache, RacyFilesAreReadAgainUntilTheirTimesArePast) {
  Sign();
  now_ = RealNow();
  const Verified first = Verify();
  ASSERT_EQ(first.code, VELK2_SUCCESS);
  EXPECT_EQ(first.cache.recorded, 0u);
  const Verified second = Verify();
  EXPECT_TRUE(second.trusted.empty());
  EXPECT_GT(second.bytes_read, 0u);

  now_ = RealNow() + 10 * kSecond;
  EXPECT_TRUE(Verify().trusted.empty());
  EXPECT_EQ(Verify().trusted, kRegular);

  // The clock now stands within the margin of top.txt's change: an entry
  // made then would not be trusted, so none is made.
  NextTick();
  WriteFile(Pkg("top.txt"), "top");
  now_ = ChangeTime(Pkg("top.txt")) + settings_->racy_margin / 2;
  const Verified racy = Verify();
  EXPECT_EQ(racy.code, VELK2_SUCCESS);
  EXPECT_FALSE(racy.trusted.count("top.txt"));
  EXPECT_EQ(racy.cache.recorded, kRegular.size() - 1 + kDirectories);
  EXPECT_FALSE(Verify().trusted.count("top.txt"));
  now_ = ChangeTime(Pkg("top.txt")) + 2 * settings_->racy_margin;
  Verify();
  EXPECT_EQ(Verify().trusted, kRegular);

  // Nor is an entry trusted that says it was made within the margin of the
  // file's times, however well it describes the file.
  CacheLocation location;
  std::string problem;
  ASSERT_TRUE(LocateCache(Utf8ToUtf16(Pkg()), Utf8ToUtf16(Pkg("manifest")), *settings_, &location,
                          &problem));
  PackageCache cache;
  ASSERT_EQ(ParseCache(Read(location.file), location.key, kMaxCacheEntries, &cache), VELK2_SUCCESS);
  std::vector<CacheEntry> entries = cache.entries();
  for (CacheEntry& entry : entries) {
    if (entry.path == "top.txt") entry.hashed_at = entry.file.ctime + settings_->racy_margin / 2;
  }
  WriteFile(location.file, CacheFileBytes(location.key, RealNow() + 60 * kSecond, entries));
  const Verified handmade = Verify();
  EXPECT_TRUE(handmade.cache.loaded) << handmade.cache.problem;
  EXPECT_EQ(handmade.trusted.size(), kRegular.size() - 1);
  EXPECT_FALSE(handmade.trusted.count("top.txt"));
}

// A package that does not verify leaves no entry, however valid most of its
// files are; forgetting reads everything, and writes the cache anew only
// when it is used.
TEST_F(Cache, NothingIsRecordedOfAFailureAndForgettingReadsEverything) {
  Sign();
  WriteFile(Pkg("top.txt"), "TOP");
  EXPECT_EQ(Verify().code, VELK2_ERR_HASH_MISMATCH);
  EXPECT_FALSE(fs::exists(CacheFile()));
  WriteFile(Pkg("top.txt"), "top");
  WriteFile(Pkg("bin/extra"), "extra");
  const Verified extra = Verify();
  EXPECT_EQ(extra.code, VELK2_SUCCESS);  // extra entries allowed: cached
  EXPECT_TRUE(fs::exists(CacheFile()));
  fs::remove(CacheFile());
  ManifestContext strict = Context();
  strict.fail_on_extra = true;
  strict.cache_flags = kCacheUse;
  strict.cache_settings = settings_;
  EXPECT_EQ(VerifyPackage(&strict, 0, 0), VELK2_ERR_EXTRA_FILES);
  EXPECT_FALSE(fs::exists(CacheFile()));
  fs::remove(Pkg("bin/extra"));

  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  ASSERT_EQ(Verify().trusted, kRegular);
  const Verified forgot = Verify(kCacheUse | kCacheForget);
  EXPECT_EQ(forgot.code, VELK2_SUCCESS);
  EXPECT_TRUE(forgot.cache.forgotten);
  EXPECT_TRUE(forgot.trusted.empty());
  EXPECT_GT(forgot.bytes_read, 0u);
  EXPECT_TRUE(forgot.cache.written);
  EXPECT_EQ(Verify().trusted, kRegular);

  const Verified forgot_only = Verify(kCacheForget);
  EXPECT_TRUE(forgot_only.cache.forgotten);
  EXPECT_FALSE(forgot_only.cache.written);
  EXPECT_FALSE(fs::exists(CacheFile()));
  EXPECT_TRUE(Verify().trusted.empty());
}

// A writer keeps to what its readers take, and to what the user asked:
// no entry a reader would refuse, no entry carried over from a file that
// was forgotten meanwhile, and no forgetting outside a usable directory.
TEST_F(Cache, AWriterKeepsToWhatReadersTakeAndWhatWasForgotten) {
  Sign();
  CacheLocation location;
  std::string problem;
  ASSERT_TRUE(LocateCache(Utf8ToUtf16(Pkg()), Utf8ToUtf16(Pkg("manifest")), *settings_, &location,
                          &problem))
      << problem;
  auto entry = [](const std::string& path, int64_t hashed_at) {
    CacheEntry made;
    made.path = path;
    made.file.device = 1;
    made.file.inode = static_cast<uint64_t>(hashed_at);
    made.file.mode = S_IFREG | 0644;
    made.entry.digest_length = 32;
    made.hashed_at = hashed_at;
    return made;
  };
  const int64_t old_run = now_ - 20 * kSecond, this_run = now_ - 5 * kSecond;
  CacheReport none, saved;
  SaveCache(location, *settings_,
            {entry("old.txt", old_run), entry(std::string(5000, 'd') + "/deep", old_run)}, none,
            old_run, &saved);
  ASSERT_TRUE(saved.written) << saved.problem;
  PackageCache cache;
  CacheReport loaded;
  LoadCache(location, *settings_, &cache, &loaded);
  ASSERT_TRUE(loaded.loaded) << loaded.problem;  // the deep path was left out, not written
  EXPECT_EQ(cache.size(), 1u);

  // Forgotten while a run that read the cache went on: that run writes
  // only what it hashed itself.
  CacheReport forgot;
  ForgetCache(location, &forgot);
  ASSERT_TRUE(forgot.forgotten) << forgot.problem;
  SaveCache(location, *settings_, {entry("old.txt", old_run), entry("new.txt", this_run)}, loaded,
            this_run, &saved);
  LoadCache(location, *settings_, &cache, &loaded);
  ASSERT_EQ(cache.size(), 1u);
  EXPECT_EQ(cache.Find("old.txt"), nullptr);
  EXPECT_NE(cache.Find("new.txt"), nullptr);
  // The file as it was read: what was carried over stays.
  SaveCache(location, *settings_, {entry("old.txt", old_run), entry("new.txt", this_run)}, loaded,
            this_run, &saved);
  LoadCache(location, *settings_, &cache, &loaded);
  EXPECT_EQ(cache.size(), 2u);

  // A cache directory replaced by a link elsewhere: nothing there is removed.
  const std::string real = dir_.Sub("store/cache.real");
  fs::rename(location.directory, real);
  fs::create_directory_symlink(real, location.directory);
  CacheReport refused;
  ForgetCache(location, &refused);
  EXPECT_FALSE(refused.forgotten);
  EXPECT_FALSE(refused.problem.empty());
  EXPECT_TRUE(fs::exists(real + "/" + fs::path(location.file).filename().string()));
}

// Only a directory no one else may write holds a cache that is trusted;
// and the cache file itself must be ours alone to write.
TEST_F(Cache, ACacheOthersMayWriteIsRefused) {
  Sign();
  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  const std::string directory = dir_.Sub("store/cache");
  const std::string cache = Read(CacheFile());

  ASSERT_EQ(::chmod(directory.c_str(), 0770), 0);
  const Verified group = Verify();
  EXPECT_EQ(group.code, VELK2_SUCCESS);
  EXPECT_TRUE(group.trusted.empty());
  EXPECT_NE(group.cache.problem.find("refused"), std::string::npos) << group.cache.problem;
  EXPECT_FALSE(group.cache.written);
  EXPECT_EQ(Read(CacheFile()), cache);

  ASSERT_EQ(::chmod(directory.c_str(), 0700), 0);
  ASSERT_EQ(::chmod(CacheFile().c_str(), 0622), 0);
  const Verified file = Verify();
  EXPECT_TRUE(file.trusted.empty());
  EXPECT_NE(file.cache.problem.find("refused"), std::string::npos) << file.cache.problem;
  EXPECT_TRUE(file.cache.written);  // replaced by one of mode 0600
  EXPECT_EQ(Look(CacheFile()).st_mode & 07777, 0600u);
  EXPECT_EQ(Verify().trusted, kRegular);

  // A symlink where the directory was is not followed, to read or write.
  fs::rename(directory, dir_.Sub("store/elsewhere"));
  fs::create_directory_symlink(dir_.Sub("store/elsewhere"), directory);
  const Verified link = Verify();
  EXPECT_TRUE(link.trusted.empty());
  EXPECT_FALSE(link.cache.written);
  EXPECT_FALSE(link.cache.problem.empty());
}

// Verifications of one package at once: each is right, the lock keeps the
// writers apart, and the cache reads afterwards.
TEST_F(Cache, VerificationsAtOnceAreEachRightAndLeaveAGoodCache) {
  Sign();
  const std::set<std::string> valid = Verify(0).valid;
  std::atomic<int> wrong{0};
  auto verify = [&](int rounds, uint32_t flags) {
    for (int i = 0; i < rounds; ++i) {
      const Verified run = Verify(i % 3 == 2 ? flags | kCacheForget : flags, "", 2);
      if (run.code != VELK2_SUCCESS || run.valid != valid || !run.invalid.empty()) ++wrong;
    }
  };
  std::thread a(verify, 6, kCacheUse), b(verify, 6, kCacheUse);
  a.join();
  b.join();
  EXPECT_EQ(wrong.load(), 0);
  // Every run that forgets writes again afterwards: the last word is a write.
  const Verified after = Verify();
  EXPECT_TRUE(after.cache.loaded) << after.cache.problem;
  EXPECT_EQ(after.trusted, kRegular);
  for (const auto& entry : fs::directory_iterator(dir_.Sub("store/cache"))) {
    EXPECT_EQ(entry.path().string().find(".tmp-"), std::string::npos) << entry.path();
  }
}

// A writer that dies between writing its file and renaming it into place
// leaves the old cache, which is used; its temporary file goes with the
// next write.
TEST_F(Cache, ACrashBeforeTheRenameLeavesTheOldCache) {
  Sign();
  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  const std::string old = Read(CacheFile());
  NextTick();
  WriteFile(Pkg("top.txt"), "top");  // read again: a new cache to write

  auto crashing = std::make_shared<CacheSettings>(*settings_);
  crashing->before_rename = [](const std::string&) { _exit(0); };
  const std::optional<std::string> child = InChild([&]() -> std::string {
    ManifestContext context = Context();
    context.cache_flags = kCacheUse;
    context.cache_settings = crashing;
    (void)VerifyPackage(&context, 0, 0);
    return "renamed";  // never reached
  });
  ASSERT_TRUE(child.has_value());
  EXPECT_EQ(*child, "");
  std::vector<std::string> leftovers;
  for (const auto& entry : fs::directory_iterator(dir_.Sub("store/cache"))) {
    if (entry.path().string().find(".tmp-") != std::string::npos) {
      leftovers.push_back(entry.path().string());
    }
  }
  ASSERT_EQ(leftovers.size(), 1u);
  EXPECT_EQ(Read(CacheFile()), old);

  const Verified after = Verify();
  EXPECT_EQ(after.code, VELK2_SUCCESS);
  EXPECT_TRUE(after.cache.loaded) << after.cache.problem;
  EXPECT_EQ(after.trusted.size(), kRegular.size() - 1);
  EXPECT_TRUE(after.cache.written);
  EXPECT_FALSE(fs::exists(leftovers[0]));
  EXPECT_EQ(Verify().trusted, kRegular);
}

// The cache is bounded: a package's entries beyond the limit are not
// recorded, and the packages written longest ago go first.
TEST_F(Cache, TheCacheStaysWithinItsBounds) {
  Sign();
  settings_->max_entries = 2;
  const Verified capped = Verify();
  EXPECT_EQ(capped.cache.recorded, 2u);
  EXPECT_EQ(Verify().trusted.size(), 2u);

  settings_->max_entries = kMaxCacheEntries;
  ASSERT_TRUE(Verify().cache.written);
  const uint64_t one = fs::file_size(CacheFile());
  // Room for one package's file, not two.
  settings_->max_bytes = one + one / 2;
  VerifyCopy("other");
  EXPECT_FALSE(fs::exists(CacheFile()));
  EXPECT_TRUE(Verify().trusted.empty());

  // A package too big for the whole cache is not written at all.
  settings_->max_bytes = one / 2;
  const Verified big = Verify();
  EXPECT_EQ(big.code, VELK2_SUCCESS);
  EXPECT_FALSE(big.cache.written);
  EXPECT_FALSE(big.cache.problem.empty());
  EXPECT_FALSE(fs::exists(CacheFile()));
}

// A file or directory whose path below the package is longer than the
// cache holds is read every time, and a run that learnt nothing else
// writes nothing.
TEST_F(Cache, APathTooLongForTheCacheIsReadEveryTime) {
  // 17 directories of 250 bytes, made and removed relative to each other:
  // their paths are longer than a path may be.
  std::vector<std::string> chain;
  for (char c = 'a'; c < 'a' + 17; ++c) chain.emplace_back(250, c);
  std::function<void(int, size_t, bool)> walk = [&](int parent, size_t i, bool make) {
    if (make) {
      ASSERT_EQ(::mkdirat(parent, chain[i].c_str(), 0755), 0);
    }
    const int fd = ::openat(parent, chain[i].c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(fd, 0);
    if (i + 1 < chain.size()) {
      walk(fd, i + 1, make);
    } else if (make) {
      const int file = ::openat(fd, "deep.txt", O_WRONLY | O_CREAT, 0644);
      EXPECT_EQ(::write(file, "deep", 4), 4);
      ::close(file);
    } else {
      ::unlinkat(fd, "deep.txt", 0);
    }
    ::close(fd);
    if (!make) ::unlinkat(parent, chain[i].c_str(), AT_REMOVEDIR);
  };
  const int package = ::open(Pkg().c_str(), O_RDONLY | O_DIRECTORY);
  walk(package, 0, true);
  Sign();
  ASSERT_EQ(Verify().code, VELK2_SUCCESS);
  const Verified second = Verify();
  EXPECT_EQ(second.code, VELK2_SUCCESS);
  EXPECT_EQ(second.trusted, kRegular);
  EXPECT_EQ(second.cache.listings, kDirectories + chain.size() - 1);
  EXPECT_FALSE(second.cache.written);
  walk(package, 0, false);
  ::close(package);
}

// The bound drops the package verified longest ago: a package whose file
// was only read, every entry still good, counts as used then.
TEST_F(Cache, TheBoundDropsThePackageVerifiedLongestAgo) {
  Sign();
  ASSERT_TRUE(Verify().cache.written);
  const uint64_t one = fs::file_size(CacheFile());
  settings_->max_bytes = 2 * one + one / 2;  // two packages' files, not three
  const std::string second = VerifyCopy("second");
  now_ += kSecond;
  const Verified again = Verify();
  EXPECT_EQ(again.trusted, kRegular);
  EXPECT_FALSE(again.cache.written);
  const std::string third = VerifyCopy("third");
  EXPECT_TRUE(fs::exists(CacheFile()));
  EXPECT_FALSE(fs::exists(second));
  EXPECT_TRUE(fs::exists(third));
}

TEST_F(Cache, TheCInterfaceTurnsItOn) {
  Sign();
  EXPECT_EQ(SetIncrementalCache(nullptr, 1), VELK2_ERR_PARAM_NULL);
  ManifestContext* context = nullptr;
  ASSERT_EQ(CreateManifestContextA(&context, Pkg().c_str(), Pkg("manifest").c_str(), kInstall),
            VELK2_SUCCESS);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_SUCCESS);
  EXPECT_FALSE(fs::exists(dir_.Sub("store/cache")));
  EXPECT_EQ(SetIncrementalCache(context, 1), VELK2_SUCCESS);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_SUCCESS);
  EXPECT_EQ(Paths(GetValidEntries(context), Pkg()).size(), kRegular.size() + 5);  // link, dirs
  EXPECT_TRUE(fs::exists(CacheFile()));
  EXPECT_EQ(SetIncrementalCache(context, 0), VELK2_SUCCESS);
  fs::remove(CacheFile());
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_SUCCESS);
  EXPECT_FALSE(fs::exists(CacheFile()));
  EXPECT_EQ(DeleteManifestContext(context), VELK2_SUCCESS);
}

}  // namespace
}  // namespace velk2
