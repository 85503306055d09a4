// The comparisons of a manifest's tree: with a second manifest's tree in
// memory, and with a package directory on disk, read without following or
// waiting on anything that lies in it.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "acl/acl_test_util.h"
#include "manifest/body.h"
#include "manifest/body_text.h"
#include "manifest/compare.h"
#include "manifest/in_child.h"
#include "platform/utf.h"
#include "velk2.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the body builders and temporary directories
namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const char* StatusWord(uint32_t status) {
  switch (status) {
    case VELK2_ENTRY_VALID:
      return "valid";
    case VELK2_ENTRY_INVALID:
      return "invalid";
    case VELK2_ENTRY_MISSING:
      return "missing";
    case VELK2_ENTRY_EXTRA:
      return "extra";
    default:
      return "?";
  }
}

// One line per result: "PATH[/] STATUS[ unlisted][ changed-during]", the
// path with |base| and its "/" cut from the front.
Lines LinesOf(const CompareResults& results, size_t first = 0, const std::string& base = "") {
  Lines lines;
  for (size_t i = first; i < results.size(); ++i) {
    const CompareResult& result = results[i];
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
                   DirEntry("bin", {FileEntry("app", "app"), FileEntry("tool", "tool")}),
                   DirEntry("share", {DirEntry("doc", {FileEntry("README", "readme")})})});
}

TEST(CompareDirectories, EqualTreesAreValidInTheOrderMet) {
  const std::string body = BodyText(
      {FileEntry("top.txt", "top"), DirEntry("lib", {DirEntry("x", {FileEntry("libx.so", "x")})}),
       DirEntry("bin", {FileEntry("tool", "tool"), FileEntry("app", "app")})});
  CompareResults results;
  EXPECT_EQ(CompareDirectories(Tree(body), Tree(body), &results), VELK2_SUCCESS);
  // Each level's files, then each directory after everything below it.
  EXPECT_EQ(LinesOf(results),
            (Lines{"top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid",
                   "lib/x/libx.so valid", "lib/x/ valid", "lib/ valid"}));
  for (const CompareResult& result : results) {
    EXPECT_EQ(result.has_digest, !result.is_directory) << Utf16ToUtf8(result.path);
  }
  EXPECT_EQ(results[0].digest, DigestOf("top"));
  EXPECT_EQ(CompareDirectories(Tree(body), Tree(body), nullptr), VELK2_ERR_PARAM_NULL);
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
      {"a changed digest",
       BodyText({FileEntry("top.txt", "top"),
                 DirEntry("bin", {FileEntry("app", "app, patched"), FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {FileEntry("README", "readme")})})}),
       {},
       VELK2_ERR_HASH_MISMATCH,
       {"top.txt valid", "bin/app invalid", "bin/tool valid", "bin/ invalid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a file in A only",
       BodyText({DirEntry("bin", {FileEntry("app", "app"), FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {FileEntry("README", "readme")})})}),
       {},
       VELK2_ERR_FILE_NOT_FOUND,
       {"top.txt missing", "bin/app valid", "bin/tool valid", "bin/ valid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a subtree in A only",
       BodyText({FileEntry("top.txt", "top"),
                 DirEntry("bin", {FileEntry("app", "app"), FileEntry("tool", "tool")})}),
       {},
       VELK2_ERR_FILE_NOT_FOUND,
       {"top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid", "share/ missing",
        "share/doc/ missing", "share/doc/README missing"}},
      {"a subtree in B only, with everything below it",
       BodyText(
           {FileEntry("top.txt", "top"),
            DirEntry("bin", {FileEntry("app", "app"), FileEntry("tool", "tool")}),
            DirEntry("share", {DirEntry("doc", {FileEntry("README", "readme")})}),
            DirEntry("lib", {FileEntry("y.so", "y"), DirEntry("x", {FileEntry("libx.so", "x")})})}),
       {},
       VELK2_ERR_EXTRA_FILES,
       {"top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid", "lib/ extra unlisted",
        "lib/y.so extra unlisted", "lib/x/ extra unlisted", "lib/x/libx.so extra unlisted",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a file in A that is a directory in B",
       BodyText({DirEntry("top.txt", {FileEntry("f", "f")}),
                 DirEntry("bin", {FileEntry("app", "app"), FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {FileEntry("README", "readme")})})}),
       {},
       VELK2_ERR_FILE_NOT_FOUND,
       {"top.txt missing", "bin/app valid", "bin/tool valid", "bin/ valid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid", "top.txt/ extra unlisted",
        "top.txt/f extra unlisted"}},
      {"names that differ only in case are the same entries, named as A names them",
       BodyText({FileEntry("TOP.TXT", "top"),
                 DirEntry("BIN", {FileEntry("APP", "app"), FileEntry("Tool", "tool")}),
                 DirEntry("share", {DirEntry("Doc", {FileEntry("readme", "readme")})})}),
       {},
       VELK2_SUCCESS,
       {"top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid", "share/doc/README valid",
        "share/doc/ valid", "share/ valid"}},
      {"ignored names on either side, changed, in A only or in B only",
       BodyText({DirEntry("bin", {FileEntry("app", "app, patched"), FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {FileEntry("README", "readme")})}),
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
  CompareResults results;
  EXPECT_EQ(CompareDirectories(Tree(BaseBody()), Tree(b), &results), VELK2_ERR_HASH_MISMATCH);
  size_t files = 0;
  for (const CompareResult& result : results) {
    if (result.is_directory) continue;
    ++files;
    const std::string path = Utf16ToUtf8(result.path);
    const std::string content = path == "top.txt"            ? "top"
                                : path == "bin/app"          ? "app"
                                : path == "bin/tool"         ? "tool"
                                : path == "share/doc/README" ? "readme"
                                : path == "lib/y.so"         ? "y"
                                                             : "";
    EXPECT_TRUE(result.has_digest) << path;
    EXPECT_EQ(result.digest, DigestOf(content)) << path;
  }
  EXPECT_EQ(files, 5u);
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
      {0, SIZE_MAX, VELK2_ERR_HASH_MISMATCH},
      {0, 3, VELK2_ERR_FILE_NOT_FOUND},
      {0, 2, VELK2_ERR_EXTRA_FILES},
      {0, 1, VELK2_SUCCESS},
      {1, 2, VELK2_ERR_EXTRA_FILES},
      {2, 3, VELK2_ERR_FILE_NOT_FOUND},
      {3, 4, VELK2_ERR_HASH_MISMATCH},
      {4, SIZE_MAX, VELK2_SUCCESS},
      {2, 2, VELK2_SUCCESS},
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

class DiskComparison : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(Pkg("top.txt"), "top");
    WriteFile(Pkg("bin/app"), "app");
    WriteFile(Pkg("bin/tool"), "tool");
    WriteFile(Pkg("share/doc/README"), "readme");
  }

  std::string Pkg(const std::string& path = "") const {
    return path.empty() ? dir_.Sub("pkg") : dir_.Sub("pkg/" + path);
  }

  // The code, then one line per result (paths relative to the package),
  // computed in a child process so that a read that blocks fails the test
  // instead of hanging it.
  // With |as_nobody|, a root process compares as user "nobody" (permissions
  // do not bind root); the only line is then "skip" when that cannot be.
  Lines Compare(const std::string& body, const std::vector<std::string>& ignored = {},
                bool as_nobody = false) {
    const std::string base = Pkg();
    std::vector<std::string> paths;
    for (const std::string& path : ignored) paths.push_back(base + "/" + path);
    const ManifestDirectory root = Tree(body, base, paths);
    const std::optional<std::string> out = InChild([&] {
      if (as_nobody && ::geteuid() == 0 &&
          (::setgid(65534) != 0 || ::setuid(65534) != 0 || ::access(base.c_str(), R_OK | X_OK))) {
        return std::string("skip");
      }
      CompareResults results;
      std::string text = std::to_string(CompareWithDisk(root, &results, nullptr));
      for (const std::string& line : LinesOf(results, 0, base)) text += "\n" + line;
      return text;
    });
    if (!out) {
      ADD_FAILURE() << "the comparison blocked or crashed";
      return {};
    }
    Lines lines;
    std::istringstream in(*out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  TempDir dir_;
};

TEST_F(DiskComparison, EachFindingAndItsCode) {
  WriteFile(dir_.Sub("outside/app"), "app");
  const std::string code22 = std::to_string(VELK2_ERR_HASH_MISMATCH);
  struct Case {
    const char* what;
    std::function<void()> change;
    Lines lines;  // the code first
  };
  const Case kCases[] = {
      {"as listed",
       [] {},
       {"0", "top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a changed file",
       [&] { WriteFile(Pkg("bin/app"), "app, patched"); },
       {code22, "top.txt valid", "bin/app invalid", "bin/tool valid", "bin/ invalid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a missing file in the package directory",
       [&] { fs::remove(Pkg("top.txt")); },
       {std::to_string(VELK2_ERR_FILE_NOT_FOUND), "top.txt missing", "bin/app valid",
        "bin/tool valid", "bin/ valid", "share/doc/README valid", "share/doc/ valid",
        "share/ valid"}},
      {"a missing file below: its directories are invalid",
       [&] { fs::remove(Pkg("share/doc/README")); },
       {code22, "top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid",
        "share/doc/README missing", "share/doc/ invalid", "share/ invalid"}},
      {"an extra file in a listed directory",
       [&] { WriteFile(Pkg("bin/new"), "new"); },
       {std::to_string(VELK2_ERR_EXTRA_FILES), "top.txt valid", "bin/app valid", "bin/tool valid",
        "bin/new extra unlisted", "bin/ extra", "share/doc/README valid", "share/doc/ valid",
        "share/ valid"}},
      {"an extra directory in a listed directory, nothing below it reported",
       [&] { WriteFile(Pkg("share/plugins/deep/p.so"), "p"); },
       {std::to_string(VELK2_ERR_EXTRA_FILES), "top.txt valid", "bin/app valid", "bin/tool valid",
        "bin/ valid", "share/doc/README valid", "share/doc/ valid", "share/plugins/ extra unlisted",
        "share/ extra"}},
      {"the package directory itself is not scanned",
       [&] {
         WriteFile(Pkg("beside.txt"), "beside");
         WriteFile(Pkg("newdir/x"), "x");
       },
       {"0", "top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a directory where a file is listed",
       [&] {
         fs::remove(Pkg("top.txt"));
         fs::create_directory(Pkg("top.txt"));
       },
       {code22, "top.txt invalid", "bin/app valid", "bin/tool valid", "bin/ valid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a symlink where a file is listed, to the listed content",
       [&] {
         fs::remove(Pkg("bin/app"));
         fs::create_symlink(dir_.Sub("outside/app"), Pkg("bin/app"));
       },
       {code22, "top.txt valid", "bin/app invalid", "bin/tool valid", "bin/ invalid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a FIFO where a file is listed",
       [&] {
         fs::remove(Pkg("bin/app"));
         ASSERT_EQ(::mkfifo(Pkg("bin/app").c_str(), 0644), 0);
       },
       {code22, "top.txt valid", "bin/app invalid", "bin/tool valid", "bin/ invalid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"a socket where a file is listed",
       [&] {
         fs::remove(Pkg("bin/app"));
         ASSERT_TRUE(MakeSocket(Pkg("bin/app")));
       },
       {code22, "top.txt valid", "bin/app invalid", "bin/tool valid", "bin/ invalid",
        "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
      {"unlisted symlinks, FIFOs and sockets are extra, never directories",
       [&] {
         fs::create_directory_symlink(dir_.Sub("outside"), Pkg("bin/link"));
         ASSERT_EQ(::mkfifo(Pkg("bin/pipe").c_str(), 0644), 0);
         ASSERT_TRUE(MakeSocket(Pkg("bin/sock")));
       },
       {std::to_string(VELK2_ERR_EXTRA_FILES), "top.txt valid", "bin/app valid", "bin/tool valid",
        "bin/link extra unlisted", "bin/pipe extra unlisted", "bin/sock extra unlisted",
        "bin/ extra", "share/doc/README valid", "share/doc/ valid", "share/ valid"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(Pkg());
    SetUp();
    c.change();
    EXPECT_EQ(Compare(BaseBody()), c.lines);
  }
}

// A listed directory that cannot be opened as one (gone, a file, a symlink,
// a FIFO): everything listed below it is missing, and it is invalid.
TEST_F(DiskComparison, AListedDirectoryThatCannotBeOpened) {
  fs::create_directories(dir_.Sub("outside"));
  fs::copy(Pkg("bin"), dir_.Sub("outside/bin"), fs::copy_options::recursive);
  struct Case {
    const char* what;
    std::function<void()> change;
  };
  const Case kCases[] = {
      {"gone", [] {}},
      {"a file", [&] { WriteFile(Pkg("bin"), "not a directory"); }},
      {"a symlink to a copy of it",
       [&] { fs::create_directory_symlink(dir_.Sub("outside/bin"), Pkg("bin")); }},
      {"a FIFO", [&] { ASSERT_EQ(::mkfifo(Pkg("bin").c_str(), 0644), 0); }},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(Pkg());
    SetUp();
    fs::remove_all(Pkg("bin"));
    c.change();
    const Lines lines = Compare(BaseBody());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], std::to_string(VELK2_ERR_HASH_MISMATCH));
    const Lines found(lines.begin() + 1, lines.end());
    for (const char* line : {"bin/app missing", "bin/tool missing", "bin/ invalid", "top.txt valid",
                             "share/doc/README valid"}) {
      EXPECT_NE(std::find(found.begin(), found.end(), line), found.end()) << line;
    }
    for (const std::string& line : found) {
      EXPECT_TRUE(line.rfind("bin/", 0) != 0 || line == "bin/ invalid" || line.ends_with("missing"))
          << line;
    }
  }
}

// A listed directory that cannot be opened is recorded twice, on purpose:
// once by its own level, which could not list it, and once by its parent,
// as the directories of the C interface's lists have always been.
TEST_F(DiskComparison, AnUnopenableDirectoryIsRecordedByItselfAndItsParent) {
  fs::remove_all(Pkg("share"));
  const Lines lines = Compare(BaseBody());
  EXPECT_EQ(lines,
            (Lines{std::to_string(VELK2_ERR_HASH_MISMATCH), "top.txt valid", "bin/app valid",
                   "bin/tool valid", "bin/ valid", "share/doc/README missing", "share/doc/ invalid",
                   "share/doc/ invalid", "share/ invalid", "share/ invalid"}));
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

// The two comparisons judge a directory with only extra entries below it
// apart, on purpose: on disk it is "extra" (74, allowed unless the caller
// fails on extra entries), between two manifests "invalid" (22), as a
// directory that differs in any way; a file gone below is invalid in both.
TEST_F(DiskComparison, ExtraEntriesBelowADirectoryAreJudgedByEachComparison) {
  struct Case {
    const char* what;
    std::function<void()> change;
    std::string b;  // the body of the disk as changed
    Result disk_code, manifests_code;
  };
  const Case kCases[] = {
      {"a file gone below", [&] { fs::remove(Pkg("bin/app")); },
       BodyText({FileEntry("top.txt", "top"), DirEntry("bin", {FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {FileEntry("README", "readme")})})}),
       VELK2_ERR_HASH_MISMATCH, VELK2_ERR_HASH_MISMATCH},
      {"a file added below", [&] { WriteFile(Pkg("bin/new"), "new"); },
       BodyText({FileEntry("top.txt", "top"),
                 DirEntry("bin", {FileEntry("app", "app"), FileEntry("new", "new"),
                                  FileEntry("tool", "tool")}),
                 DirEntry("share", {DirEntry("doc", {FileEntry("README", "readme")})})}),
       VELK2_ERR_EXTRA_FILES, VELK2_ERR_HASH_MISMATCH},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    fs::remove_all(Pkg());
    SetUp();
    c.change();
    const Lines disk = Compare(BaseBody());
    ASSERT_FALSE(disk.empty());
    EXPECT_EQ(disk[0], std::to_string(c.disk_code));
    CompareResults results;
    EXPECT_EQ(CompareDirectories(Tree(BaseBody()), Tree(c.b), &results), c.manifests_code);
  }
}

// A file on disk whose exact name one listed name holds belongs to that
// name, whichever of two names equal but for case the manifest lists first
// (the toolkit lists "A.TXT" before "a.txt"): every exact name is claimed
// before any name is matched by case.
TEST_F(DiskComparison, AnExactNameIsNeverTakenByAnotherCase) {
  fs::create_directories(Pkg("d"));
  WriteFile(Pkg("d/a.txt"), "lower");
  const std::string upper = FileEntry("A.TXT", "upper"), lower = FileEntry("a.txt", "lower");
  const std::pair<const char*, std::string> kOrders[] = {
      {"a.txt listed first", BodyText({DirEntry("d", {lower, upper})})},
      {"A.TXT listed first", BodyText({DirEntry("d", {upper, lower})})},
  };
  for (const auto& [what, body] : kOrders) {
    SCOPED_TRACE(what);
    Lines lines = Compare(body);
    ASSERT_FALSE(lines.empty());
    std::sort(lines.begin() + 1, lines.end());
    EXPECT_EQ(lines, (Lines{std::to_string(VELK2_ERR_HASH_MISMATCH), "d/ invalid",
                            "d/A.TXT missing", "d/a.txt valid"}));
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

// What cannot be read is invalid: a file without read permission, and a
// directory that cannot be listed, everything below it missing. As root,
// whom permissions do not bind, the comparison runs as "nobody".
TEST_F(DiskComparison, WhatCannotBeReadIsInvalid) {
  fs::permissions(dir_.path(), fs::perms(0755), fs::perm_options::replace);
  for (const auto& entry : fs::recursive_directory_iterator(Pkg())) {
    fs::permissions(entry.path(), entry.is_directory() ? fs::perms(0755) : fs::perms(0644),
                    fs::perm_options::replace);
  }
  fs::permissions(Pkg("bin/app"), fs::perms::none, fs::perm_options::replace);
  const Lines file = Compare(BaseBody(), {}, true);
  if (file == Lines{"skip"}) GTEST_SKIP() << "cannot compare as a user that permissions bind";
  EXPECT_EQ(file, (Lines{std::to_string(VELK2_ERR_HASH_MISMATCH), "top.txt valid",
                         "bin/app invalid", "bin/tool valid", "bin/ invalid",
                         "share/doc/README valid", "share/doc/ valid", "share/ valid"}));
  fs::permissions(Pkg("bin/app"), fs::perms(0644), fs::perm_options::replace);
  fs::permissions(Pkg("share/doc"), fs::perms::none, fs::perm_options::replace);
  const Lines directory = Compare(BaseBody(), {}, true);
  fs::permissions(Pkg("share/doc"), fs::perms(0755), fs::perm_options::replace);
  for (const char* line :
       {"share/doc/README missing", "share/doc/ invalid", "share/ invalid", "bin/app valid"}) {
    EXPECT_NE(std::find(directory.begin(), directory.end(), line), directory.end()) << line;
  }
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
    DiskOptions options;
    options.threads = threads;
    options.on_file = &progress;
    CompareResults results;
    EXPECT_EQ(CompareWithDisk(root, &results, nullptr, options), VELK2_ERR_HASH_MISMATCH);
    EXPECT_EQ(calls, 2u);
    EXPECT_EQ(bytes, std::string("app, patched").size() + std::string("readme").size());
  }
  CompareResults* none = nullptr;
  EXPECT_EQ(CompareWithDisk(root, none, nullptr), VELK2_ERR_PARAM_NULL);
}

}  // namespace
}  // namespace velk2
