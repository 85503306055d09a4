// The comparisons of a manifest's tree: with a second manifest's tree in
// memory, and with a package directory on disk, read without following or
// waiting on anything that lies in it.
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <map>

#include "manifest/compare.h"
#include "manifest/manifest_test_util.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the body builders and temporary directories

const char* StatusWord(uint32_t status) {
  return status == VELK2_ENTRY_VALID     ? "valid"
         : status == VELK2_ENTRY_INVALID ? "invalid"
         : status == VELK2_ENTRY_MISSING ? "missing"
         : status == VELK2_ENTRY_EXTRA   ? "extra"
                                         : "?";
}

// One line per result: "PATH[/] STATUS[ unlisted][ changed-during]", the
// path with |base| and its "/" cut from the front.
Lines LinesOf(const CompareResults& results, const std::string& base = "") {
  Lines lines;
  for (const CompareResult& result : results) {
    std::string path = Utf16ToUtf8(result.path);
    if (!base.empty() && path.rfind(base + "/", 0) == 0) path = path.substr(base.size() + 1);
    lines.push_back(path + (result.is_directory ? "/ " : " ") + StatusWord(result.status) +
                    (result.listed ? "" : " unlisted") +
                    (result.changed_during ? " changed-during" : ""));
  }
  return lines;
}

// The tree the comparisons of two manifests start from.
std::string BaseBody() {
  return BodyText({FileEntry("top.txt", "top"),
                   DirEntry("bin", {FileEntry("app", "application"), FileEntry("tool", "tool")}),
                   DirEntry("share", {DirEntry("doc", {FileEntry("README", "read me")})})});
}

TEST(CompareDirectories, EachDifferenceAndItsCode) {
  struct Case {
    const char* what;
    std::string b;
    std::vector<std::string> ignored;
    Result code;
    Lines lines;
  };
  const Case kCases[] = {
      {"a subtree in A only",
       BodyText({FileEntry("top.txt", "top"),
                 DirEntry("bin", {FileEntry("app", "application"), FileEntry("tool", "tool")})}),
       {},
       VELK2_ERR_FILE_NOT_FOUND,
       {"top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid", "share/ missing",
        "share/doc/ missing", "share/doc/README missing"}},
      {"a file in B only and one in A only below listed directories: each directory differs "
       "(on disk, where only extra entries below leave a directory extra)",
       BodyText({FileEntry("top.txt", "top"),
                 DirEntry("bin", {FileEntry("app", "application"), FileEntry("new", "new"),
                                  FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {})})}),
       {},
       VELK2_ERR_HASH_MISMATCH,
       {"top.txt valid", "bin/app valid", "bin/new extra unlisted", "bin/tool valid",
        "bin/ invalid", "share/doc/README missing", "share/doc/ invalid", "share/ invalid"}},
      {"a file in A that is a directory in B",
       BodyText({DirEntry("top.txt", {FileEntry("f", "f")}),
                 DirEntry("bin", {FileEntry("app", "application"), FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {FileEntry("README", "read me")})})}),
       {},
       VELK2_ERR_FILE_NOT_FOUND,
       {"top.txt missing", "bin/app valid", "bin/tool valid", "bin/ valid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid", "top.txt/ extra unlisted",
        "top.txt/f extra unlisted"}},
      {"names that differ only in case are the same entries, named as A names them",
       BodyText({FileEntry("TOP.TXT", "top"),
                 DirEntry("BIN", {FileEntry("APP", "application"), FileEntry("Tool", "tool")}),
                 DirEntry("share", {DirEntry("Doc", {FileEntry("readme", "read me")})})}),
       {},
       VELK2_SUCCESS,
       {"top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid", "share/doc/README valid",
        "share/doc/ valid", "share/ valid"}},
      {"ignored names on either side, changed, in A only or in B only",
       BodyText({DirEntry("bin", {FileEntry("app", "app, patched"), FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {FileEntry("README", "read me")})}),
                 DirEntry("lib", {FileEntry("y.so", "y")})}),
       {"bin/app", "top.txt", "lib"},
       VELK2_SUCCESS,
       {"bin/tool valid", "bin/ valid", "share/doc/README valid", "share/doc/ valid",
        "share/ valid"}},
      {"ignored names in another case; a whole ignored subtree in A only",
       BodyText({FileEntry("top.txt", "top"),
                 DirEntry("bin", {FileEntry("app", "app, patched"), FileEntry("tool", "tool")})}),
       {"BIN/APP", "Share"},
       VELK2_SUCCESS,
       {"top.txt valid", "bin/tool valid", "bin/ valid"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    CompareResults results;
    EXPECT_EQ(
        CompareDirectories(Tree(BaseBody(), "", c.ignored), Tree(c.b, "", c.ignored), &results),
        c.code);
    EXPECT_EQ(LinesOf(results), c.lines);
  }

  // Every file result carries the digest its manifest states (A's when A
  // lists it, else B's), for a reader that pairs missing and extra files.
  const std::string b = BodyText({DirEntry("bin", {FileEntry("app", "app, patched")}),
                                  DirEntry("lib", {FileEntry("y.so", "y")})});
  std::map<std::string, std::string> content = {{"top.txt", "top"},
                                                {"bin/app", "application"},
                                                {"bin/tool", "tool"},
                                                {"lib/y.so", "y"},
                                                {"share/doc/README", "read me"}};
  CompareResults results;
  EXPECT_EQ(CompareDirectories(Tree(BaseBody()), Tree(b), &results), VELK2_ERR_HASH_MISMATCH);
  for (const CompareResult& result : results) {
    const std::string path = Utf16ToUtf8(result.path);
    EXPECT_EQ(result.has_digest, !result.is_directory) << path;
    if (result.is_directory) continue;
    EXPECT_EQ(result.digest, DigestOf(content[path])) << path;
    content.erase(path);
  }
  EXPECT_TRUE(content.empty());
  EXPECT_EQ(CompareDirectories(Tree(BaseBody()), Tree(b), nullptr), VELK2_ERR_PARAM_NULL);
}

// Results are appended; the code is that of this comparison's own.
TEST(CompareDirectories, AppendsAndJudgesOnlyWhatItAdded) {
  CompareResults results(1);
  results[0].path = u"earlier";
  results[0].status = VELK2_ENTRY_INVALID;
  EXPECT_EQ(CompareDirectories(Tree(BaseBody()), Tree(BaseBody()), &results), VELK2_SUCCESS);
  ASSERT_EQ(results.size(), 8u);
  EXPECT_EQ(results[0].path, u"earlier");
  EXPECT_EQ(results[0].status, VELK2_ENTRY_INVALID);
  EXPECT_EQ(SummaryCode(results), VELK2_ERR_HASH_MISMATCH);
}

TEST(SummaryCode, TheWorstStatusOfTheRangeDecides) {
  CompareResults results(5);
  const uint32_t statuses[] = {VELK2_ENTRY_VALID, VELK2_ENTRY_EXTRA, VELK2_ENTRY_MISSING,
                               VELK2_ENTRY_INVALID, VELK2_ENTRY_VALID};
  for (size_t i = 0; i < results.size(); ++i) results[i].status = statuses[i];
  struct Case {
    size_t first, end;
    Result code;
  };
  const Case kCases[] = {
      {0, SIZE_MAX, VELK2_ERR_HASH_MISMATCH}, {0, 3, VELK2_ERR_FILE_NOT_FOUND},
      {0, 2, VELK2_ERR_EXTRA_FILES},          {0, 1, VELK2_SUCCESS},
      {4, SIZE_MAX, VELK2_SUCCESS},           {2, 2, VELK2_SUCCESS},
      {9, SIZE_MAX, VELK2_SUCCESS},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(SummaryCode(results, c.first, c.end), c.code) << c.first << ".." << c.end;
  }
  EXPECT_EQ(SummaryCode(CompareResults{}), VELK2_SUCCESS);
}

bool MakeSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) return false;
  const bool bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return bound;
}

// The comparison with the disk, of the fixture's package.
class DiskComparison : public Package {
 protected:
  // The code, then one line per result (paths relative to the package),
  // computed in a child process so that a read that blocks fails the test
  // instead of hanging it.
  Lines Compare(const std::string& body, const std::vector<std::string>& ignored = {}) {
    const std::string base = Pkg();
    std::vector<std::string> paths;
    for (const std::string& path : ignored) paths.push_back(base + "/" + path);
    const ManifestDirectory root = Tree(body, base, paths);
    const std::optional<Lines> out = InChild([&] {
      CompareResults results;
      Lines lines = {std::to_string(CompareWithDisk(root, &results, nullptr))};
      for (const std::string& line : LinesOf(results, base)) lines.push_back(line);
      return lines;
    });
    if (!out) ADD_FAILURE() << "the comparison blocked or crashed";
    return out.value_or(Lines{});
  }

  TempDir dir_;
};

// Nothing but a regular file is read, and nothing is followed or waited
// on: a listed file is invalid when anything else stands in its place, even
// a symlink to the listed content; anything unlisted is extra, and an
// unlisted directory is reported without what lies in it.
TEST_F(DiskComparison, WhatIsNoRegularFileIsNeverReadOrFollowed) {
  WriteFile(dir_.Sub("outside/app"), "application");
  fs::remove(Pkg("top.txt"));
  fs::create_directory(Pkg("top.txt"));
  fs::remove(Pkg("bin/app"));
  fs::create_symlink(dir_.Sub("outside/app"), Pkg("bin/app"));
  fs::remove(Pkg("bin/tool"));
  ASSERT_EQ(::mkfifo(Pkg("bin/tool").c_str(), 0644), 0);
  fs::remove(Pkg("share/doc/README"));
  ASSERT_TRUE(MakeSocket(Pkg("share/doc/README")));
  fs::create_directory_symlink(dir_.Sub("outside"), Pkg("bin/link"));
  ASSERT_EQ(::mkfifo(Pkg("bin/pipe").c_str(), 0644), 0);
  ASSERT_TRUE(MakeSocket(Pkg("bin/sock")));
  WriteFile(Pkg("share/plugins/deep/p.so"), "p");
  EXPECT_EQ(Compare(BaseBody()),
            (Lines{std::to_string(VELK2_ERR_HASH_MISMATCH), "top.txt invalid", "bin/app invalid",
                   "bin/tool invalid", "bin/link extra unlisted", "bin/pipe extra unlisted",
                   "bin/sock extra unlisted", "bin/ invalid", "share/doc/README invalid",
                   "share/doc/ invalid", "share/plugins/ extra unlisted", "share/ invalid"}));
}

// A listed directory that cannot be opened as one (gone, a file, a FIFO):
// everything listed below it is missing, and it is invalid, recorded twice
// on purpose: once by its own level, which could not list it, and once by
// its parent, as the directories of the C interface's lists have always been.
TEST_F(DiskComparison, AListedDirectoryThatCannotBeOpened) {
  const std::pair<const char*, std::function<void()>> kCases[] = {
      {"gone", [] {}},
      {"a file", [&] { WriteFile(Pkg("share"), "not a directory"); }},
      {"a FIFO", [&] { ASSERT_EQ(::mkfifo(Pkg("share").c_str(), 0644), 0); }},
  };
  for (const auto& [what, change] : kCases) {
    SCOPED_TRACE(what);
    fs::remove_all(Pkg("share"));
    change();
    EXPECT_EQ(
        Compare(BaseBody()),
        (Lines{std::to_string(VELK2_ERR_HASH_MISMATCH), "top.txt valid", "bin/app valid",
               "bin/tool valid", "bin/ valid", "share/doc/README missing", "share/doc/ invalid",
               "share/doc/ invalid", "share/ invalid", "share/ invalid"}));
  }
}

TEST_F(DiskComparison, NamesAreMatchedWithoutRegardToCaseExactNameFirst) {
  struct Case {
    const char* what;
    std::vector<std::pair<std::string, std::string>> disk;  // path in pkg/d, content
    std::string body;
    Lines lines;  // sorted: names equal but for case have no set order
  };
  const Case kCases[] = {
      {"only another case on disk",
       {{"A.TXT", "x"}},
       BodyText({DirEntry("d", {FileEntry("a.txt", "x")})}),
       {"0", "d/ valid", "d/a.txt valid"}},
      {"a directory in another case",
       {{"BIN/App", "app"}},
       BodyText({DirEntry("d", {DirEntry("bin", {FileEntry("app", "app")})})}),
       {"0", "d/ valid", "d/bin/ valid", "d/bin/app valid"}},
      {"the exact name is matched, the other is extra",
       {{"a.txt", "x"}, {"A.txt", "y"}},
       BodyText({DirEntry("d", {FileEntry("a.txt", "x")})}),
       {"74", "d/ extra", "d/A.txt extra unlisted", "d/a.txt valid"}},
      {"the exact name even when the other holds the listed content",
       {{"a.txt", "y"}, {"A.txt", "x"}},
       BodyText({DirEntry("d", {FileEntry("a.txt", "x")})}),
       {"22", "d/ invalid", "d/A.txt extra unlisted", "d/a.txt invalid"}},
      {"two listed names equal but for case, each to its own file",
       {{"a.txt", "x"}, {"A.txt", "y"}},
       BodyText({DirEntry("d", {FileEntry("a.txt", "x"), FileEntry("A.txt", "y")})}),
       {"0", "d/ valid", "d/A.txt valid", "d/a.txt valid"}},
      // Every exact name of a level is claimed before any name is matched by
      // case, whichever of two names the manifest lists first (the toolkit
      // lists "A.TXT" before "a.txt").
      {"the exact name claimed, a.txt listed first",
       {{"a.txt", "lower"}},
       BodyText({DirEntry("d", {FileEntry("a.txt", "lower"), FileEntry("A.TXT", "upper")})}),
       {"22", "d/ invalid", "d/A.TXT missing", "d/a.txt valid"}},
      {"the exact name claimed, A.TXT listed first",
       {{"a.txt", "lower"}},
       BodyText({DirEntry("d", {FileEntry("A.TXT", "upper"), FileEntry("a.txt", "lower")})}),
       {"22", "d/ invalid", "d/A.TXT missing", "d/a.txt valid"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(Pkg());
    fs::create_directories(Pkg("d"));
    for (const auto& [path, content] : c.disk) WriteFile(Pkg("d/" + path), content);
    Lines lines = Compare(c.body);
    std::sort(lines.begin() + (lines.empty() ? 0 : 1), lines.end());
    EXPECT_EQ(lines, c.lines);
  }
}

// Ignored entries of the disk are passed over whatever stands there, listed
// or not, in any case.
TEST_F(DiskComparison, IgnoredEntriesAreNeverLookedAt) {
  WriteFile(Pkg("bin/app"), "app, patched");
  fs::remove(Pkg("share/doc/README"));
  WriteFile(Pkg("share/doc/notes"), "unlisted");
  ASSERT_EQ(::mkfifo(Pkg("bin/pipe").c_str(), 0644), 0);
  EXPECT_EQ(Compare(BaseBody(), {"BIN/APP", "share/doc/README", "share/doc/Notes", "bin/pipe"}),
            (Lines{"0", "top.txt valid", "bin/tool valid", "bin/ valid", "share/doc/ valid",
                   "share/ valid"}));
  // A whole directory.
  EXPECT_EQ(Compare(BaseBody(), {"bin", "share"}), (Lines{"0", "top.txt valid"}));
}

// Each file read is told once with its size, whatever the number of
// threads; a file that is not there or not regular is not read.
TEST_F(DiskComparison, EachFileReadIsToldWithItsSize) {
  fs::remove(Pkg("top.txt"));
  fs::remove(Pkg("bin/tool"));
  fs::create_directory(Pkg("bin/tool"));
  WriteFile(Pkg("bin/app"), "app, patched");
  const ManifestDirectory root = Tree(BaseBody(), Pkg());
  for (unsigned threads : {1u, 3u}) {
    SCOPED_TRACE(std::to_string(threads) + " threads");
    size_t calls = 0;
    uint64_t bytes = 0;
    const FileProgress progress = [&](uint64_t size) {
      ++calls;
      bytes += size;
    };
    HashCounters counters;
    DiskOptions options;
    options.threads = threads;
    options.on_file = &progress;
    options.counters = &counters;
    CompareResults results;
    EXPECT_EQ(CompareWithDisk(root, &results, nullptr, options), VELK2_ERR_HASH_MISMATCH);
    EXPECT_EQ(calls, 2u);
    EXPECT_EQ(bytes, std::string("app, patched").size() + std::string("read me").size());
    // The counters a progress display reads from another thread agree.
    EXPECT_EQ(counters.files.load(), 2u);
    EXPECT_EQ(counters.bytes.load(), bytes);
  }
  CompareResults* none = nullptr;
  EXPECT_EQ(CompareWithDisk(root, none, nullptr), VELK2_ERR_PARAM_NULL);
}

}  // namespace
}  // namespace velk2
