// A package as it really is: symlinks, modes and owners, names that are not
// UTF-8, ignore patterns recorded at signing, the package root, and what
// the report says of each difference.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "manifest/attributes.h"
#include "manifest/manifest_test_util.h"
#include "manifest/patterns.h"
#include "trust/tool_api.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the fixture and its helpers
using Lines = std::vector<std::string>;

// "PATH STATUS[: kind expected -> found, ...][ (unreadable: WHY)]" for every
// entry the tool would print: what is not valid and counted.
Lines Printed(const api::TreeReport& report) {
  Lines lines;
  for (const api::Entry& entry : report.entries) {
    if (entry.status == "valid" || !entry.counted) continue;
    std::string line = entry.path + (entry.directory ? "/ " : " ") + entry.status;
    for (size_t i = 0; i < entry.changes.size(); ++i) {
      const api::Change& change = entry.changes[i];
      line += (i == 0 ? ": " : ", ") + change.kind;
      if (change.kind != "content") line += " " + change.expected + " -> " + change.found;
    }
    if (!entry.unreadable.empty()) line += " (unreadable: " + entry.unreadable + ")";
    lines.push_back(line);
  }
  return lines;
}

// A canonical S-expression read as the format alone defines it, knowing
// nothing of what velk2 puts in an entry's second atom.
struct Plain {
  bool atom = false;
  std::string text;  // an atom's bytes
  size_t begin = 0;  // the bytes of the whole element in the file
  size_t end = 0;
  std::vector<Plain> items;
};

bool ReadPlain(const std::string& bytes, size_t* at, Plain* out) {
  out->begin = *at;
  if (*at < bytes.size() && bytes[*at] == '(') {
    ++*at;
    while (*at < bytes.size() && bytes[*at] != ')') {
      out->items.emplace_back();
      if (!ReadPlain(bytes, at, &out->items.back())) return false;
    }
    if (*at >= bytes.size()) return false;
    out->end = ++*at;
    return true;
  }
  size_t length = 0;
  while (*at < bytes.size() && std::isdigit(static_cast<unsigned char>(bytes[*at]))) {
    length = length * 10 + static_cast<size_t>(bytes[(*at)++] - '0');
  }
  if (*at >= bytes.size() || bytes[*at] != ':' || bytes.size() - *at - 1 < length) return false;
  out->atom = true;
  out->text = bytes.substr(*at + 1, length);
  *at += 1 + length;
  out->end = *at;
  return true;
}

const Plain* Find(const Plain& list, const std::string& head) {
  for (const Plain& item : list.items) {
    if (!item.atom && !item.items.empty() && item.items[0].text == head) return &item;
  }
  return nullptr;
}

// Every file entry of a plain body: path -> digest, the second atom passed over.
void PlainEntries(const Plain& level, const std::string& prefix,
                  std::map<std::string, std::string>* out) {
  for (size_t i = 1; i < level.items.size(); ++i) {
    const Plain& entry = level.items[i];
    if (entry.items.size() < 3) continue;
    const std::string path = prefix + entry.items[1].text;
    if (entry.items[0].text == "file") (*out)[path] = entry.items[3].text;
    if (entry.items[0].text == "dir") PlainEntries(entry, path + "/", out);
  }
}

class Tree : public Package {
 protected:
  // Signs the package as it now is, as `velk2 manifest sign` does.
  void SignTree(const std::vector<std::string>& patterns = {}, bool owners = false) {
    issuing::ManifestRequest request;
    request.package = Pkg();
    request.tag = TagList(kInstall);
    request.time_of_signing = 1782000000;
    request.chain = Chain(kRoot, true);
    request.ignore = {"manifest"};
    request.patterns = patterns;
    request.owners = owners;
    std::string file, problem;
    ASSERT_EQ(issuing::MakeManifest(TestKey(kSigner), request, &file, nullptr, &problem),
              VELK2_SUCCESS)
        << problem;
    WriteFile(Pkg("manifest"), file);
  }

  api::PackageVerdict Ask(const std::vector<std::string>& ignore = {}) {
    api::PackageRequest request;
    request.package = Pkg();
    request.tag = kInstall;
    request.allow_older = true;
    request.ignore = ignore;
    api::PackageVerdict verdict;
    EXPECT_EQ(api::VerifyPackage(request, &verdict), verdict.result);
    return verdict;
  }

  void Link(const std::string& target, const std::string& path) {
    fs::create_directories(fs::path(Pkg(path)).parent_path());
    ASSERT_EQ(::symlink(target.c_str(), Pkg(path).c_str()), 0) << path;
  }
};

TEST(EntryAttributes, WrittenAndReadBack) {
  EntryAttributes file;
  file.size = 4096;
  file.mode = 04755;
  file.uid = 0;
  file.gid = 100;
  EXPECT_EQ(FormatEntryAttributes(file, false), "4096 mode=4755 uid=0 gid=100");
  EntryAttributes link;
  link.link = true;
  link.target = "../lib/a b";
  EXPECT_EQ(FormatEntryAttributes(link, false), "10 link=2e2e2f6c69622f612062");
  EntryAttributes directory;
  directory.mode = 0700;
  EXPECT_EQ(FormatEntryAttributes(directory, true), "mode=0700");

  for (const auto& [written, is_directory] :
       {std::pair{file, false}, std::pair{link, false}, std::pair{directory, true}}) {
    EntryAttributes read;
    ASSERT_EQ(
        ParseEntryAttributes(FormatEntryAttributes(written, is_directory), is_directory, &read),
        VELK2_SUCCESS);
    EXPECT_EQ(read.mode, written.mode);
    EXPECT_EQ(read.uid, written.uid);
    EXPECT_EQ(read.link, written.link);
    EXPECT_EQ(read.target, written.target);
  }

  // What the first manifests wrote, and what another writer might: read,
  // recording nothing but a leading size.
  EntryAttributes read;
  ASSERT_EQ(ParseEntryAttributes("31", false, &read), VELK2_SUCCESS);
  EXPECT_EQ(read.size, 31u);
  EXPECT_FALSE(read.mode);
  for (const char* other : {"", "0", "whatever", "31 color=blue later", "  "}) {
    EXPECT_EQ(ParseEntryAttributes(other, true, &read), VELK2_SUCCESS) << other;
    EXPECT_FALSE(read.mode || read.uid || read.link) << other;
  }
  // A token velk2 writes with a value it never writes is refused.
  for (const char* bad : {"1 mode=10000", "1 mode=9", "1 mode=", "1 uid=5", "1 gid=5",
                          "1 uid=4294967296 gid=0", "1 link=", "1 link=abc", "1 link=zz"}) {
    EXPECT_EQ(ParseEntryAttributes(bad, false, &read), VELK2_ERR_PARSE_FILE) << bad;
  }
  EXPECT_EQ(ParseEntryAttributes("link=61", true, &read), VELK2_ERR_PARSE_FILE);
}

TEST(IgnorePatterns, ShellPatternsOverPaths) {
  IgnorePatterns patterns;
  for (const char* pattern :
       {"*.pyc", "cache/", "/top.log", "doc/**/*.tmp", "[a-c]x", "[!0-9]y", "lit\\*"}) {
    ASSERT_TRUE(patterns.Add(pattern)) << pattern;
  }
  struct Case {
    const char* path;
    bool directory, left_out;
  };
  for (const Case& c : std::vector<Case>{
           {"a.pyc", false, true},  // no "/": any depth
           {"lib/py/a.pyc", false, true},
           {"a.pyc.txt", false, false},
           {"cache", true, true},  // directories only
           {"var/cache", true, true},
           {"cache", false, false},
           {"top.log", false, true},  // anchored
           {"sub/top.log", false, false},
           {"doc/a.tmp", false, true},  // "**/" matches no directory too
           {"doc/x/y/a.tmp", false, true},
           {"src/doc/a.tmp", false, false},
           {"bx", false, true},
           {"dx", false, false},
           {"zy", false, true},
           {"5y", false, false},
           {"lit*", false, true},
           {"litx", false, false},
       }) {
    EXPECT_EQ(patterns.Matches(c.path, c.directory), c.left_out) << c.path;
  }
  IgnorePatterns bad;
  for (const std::string& pattern :
       {std::string(), std::string("/"), std::string("[abc"), std::string("a\0b", 3),
        std::string("a\nb"), std::string(kMaxPatternLength + 1, 'a')}) {
    EXPECT_FALSE(bad.Add(pattern)) << pattern;
  }
  EXPECT_TRUE(bad.empty());

  // Stars against a long path that almost matches: the matcher's work grows
  // with pattern times path, never exponentially.
  std::string stars;
  for (int i = 0; i < 200; ++i) stars += "*a";
  std::string path(4000, 'a');
  EXPECT_FALSE(GlobMatch(stars + "b", path));
  EXPECT_TRUE(GlobMatch(stars, path));
  EXPECT_FALSE(GlobMatch("**a**a**a**b", path));
}

TEST(FileNames, EveryByteSurvivesTheWideForm) {
  const std::vector<std::string> names = {"plain",
                                          "caf\xc3\xa9",
                                          "lib\xff",
                                          "lib\xfe",
                                          "\xed\xb2\x80",
                                          "\xef\xbf\xbd",
                                          "\xc3",
                                          "a\xe2\x82",
                                          "\xf0\x9f\x98\x80",
                                          "\xf4\x90\x80\x80",
                                          "\xc0\xaf",
                                          std::string("\x80\x80", 2)};
  std::set<std::u16string> wide;
  for (const std::string& name : names) {
    const std::u16string converted = FileNameToWide(name);
    EXPECT_EQ(WideToFileName(converted), name) << EscapeForDisplay(name);
    wide.insert(converted);
  }
  EXPECT_EQ(wide.size(), names.size()) << "two names became one";
  EXPECT_EQ(FileNameToWide("caf\xc3\xa9"), u"caf\u00e9");
  EXPECT_EQ(EscapeForDisplay("lib\xff"), "lib\\xff");
}

TEST_F(Tree, SymlinksAreRecordedByTargetAndNeverFollowed) {
  WriteFile(Pkg("lib/libfoo.so.1"), "library");
  Link("libfoo.so.1", "lib/libfoo.so");
  Link(dir_.Sub("outside"), "lib/absolute");
  Link("does-not-exist", "lib/dangling");
  Link("../share/doc", "lib/docs");
  WriteFile(dir_.Sub("outside/secret"), "outside the package");
  SignTree();
  api::PackageVerdict verdict = Ask();
  ASSERT_EQ(verdict.result, VELK2_SUCCESS);
  EXPECT_EQ(verdict.report.counts.valid, 9u);

  // What a link points to is never looked into.
  WriteFile(Pkg("share/doc/NEW"), "new");
  WriteFile(dir_.Sub("outside/more"), "more");
  EXPECT_EQ(Printed(Ask().report), (Lines{"share/doc/NEW extra"}));
  fs::remove(Pkg("share/doc/NEW"));

  // Retargeted; a link replaced by a file holding its target's content; a
  // file replaced by a link to a copy of itself; a directory by a link.
  fs::remove(Pkg("lib/libfoo.so"));
  Link("/tmp/evil.so", "lib/libfoo.so");
  fs::remove(Pkg("lib/absolute"));
  WriteFile(Pkg("lib/absolute"), Read(dir_.Sub("outside/secret")));
  fs::rename(Pkg("top.txt"), dir_.Sub("top.txt"));
  Link(dir_.Sub("top.txt"), "top.txt");
  fs::rename(Pkg("share/doc"), dir_.Sub("doc"));
  Link(dir_.Sub("doc"), "share/doc");
  verdict = Ask();
  EXPECT_EQ(verdict.result, VELK2_ERR_HASH_MISMATCH);
  EXPECT_EQ(
      Printed(verdict.report),
      (Lines{"top.txt changed: type file -> symlink", "lib/absolute changed: type symlink -> file",
             "lib/libfoo.so changed: link target libfoo.so.1 -> /tmp/evil.so",
             "share/doc/README missing", "share/doc/ changed: type directory -> symlink"}));
}

TEST_F(Tree, ModesOwnersSizesAndContentAreReportedByKind) {
  ASSERT_EQ(::chmod(Pkg("bin/app").c_str(), 0755), 0);
  SignTree({}, true);
  EXPECT_EQ(Ask().result, VELK2_SUCCESS);

  ASSERT_EQ(::chmod(Pkg("bin/app").c_str(), 04755), 0);
  ASSERT_EQ(::chmod(Pkg("share/doc").c_str(), 0700), 0);
  WriteFile(Pkg("bin/tool"), "TOOL");  // same size
  WriteFile(Pkg("top.txt"), "top, and more");
  api::PackageVerdict verdict = Ask();
  EXPECT_EQ(verdict.result, VELK2_ERR_HASH_MISMATCH);
  EXPECT_EQ(Printed(verdict.report),
            (Lines{"top.txt changed: size 3 -> 13, content", "bin/app changed: mode 0755 -> 4755",
                   "bin/tool changed: content", "share/doc/ changed: mode 0755 -> 0700"}));
  // The expected content is the signed digest.
  for (const api::Entry& entry : verdict.report.entries) {
    if (entry.path != "bin/tool") continue;
    ASSERT_EQ(entry.changes.size(), 1u);
    EXPECT_EQ(entry.changes[0].expected, HexOf("tool"));
    EXPECT_EQ(entry.changes[0].found, HexOf("TOOL"));
  }

  // Owners are recorded and compared when signing asked for them.
  if (::geteuid() == 0) {
    ASSERT_EQ(::lchown(Pkg("bin/tool").c_str(), 65534, 65534), 0);
    const std::string owner = std::to_string(::getuid()) + ":" + std::to_string(::getgid());
    const Lines lines = Printed(Ask().report);
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "bin/tool changed: content, owner " + owner + " -> 65534:65534"),
              lines.end());
  }
}

TEST_F(Tree, NamesAreBytesThatNeverCollide) {
  WriteFile(Pkg("lib\xff"), "first");
  WriteFile(Pkg("lib\xfe"), "second");
  WriteFile(Pkg("caf\xc3\xa9"), "valid UTF-8");
  SignTree();
  api::PackageVerdict verdict = Ask();
  ASSERT_EQ(verdict.result, VELK2_SUCCESS);

  // Renamed onto a name that folds to the same replacement character.
  fs::remove(Pkg("lib\xfe"));
  fs::rename(Pkg("lib\xff"), Pkg("lib\xfd"));
  verdict = Ask();
  EXPECT_EQ(verdict.result, VELK2_ERR_FILE_NOT_FOUND);
  EXPECT_EQ(Printed(verdict.report),
            (Lines{"lib\xfe missing", "lib\xff missing", "lib\xfd extra"}));
  // The C interface names the same paths, byte for byte.
  ManifestContext* context = nullptr;
  ASSERT_EQ(CreateManifestContextA(&context, Pkg().c_str(), Pkg("manifest").c_str(), kInstall),
            VELK2_SUCCESS);
  EXPECT_EQ(SetScanPackageRoot(context, 1), VELK2_SUCCESS);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_ERR_FILE_NOT_FOUND);
  EXPECT_EQ(Paths(GetExtraEntries(context), Pkg()), (std::set<std::string>{"lib\xfd"}));
  EXPECT_EQ(Paths(GetMissingEntries(context), Pkg()),
            (std::set<std::string>{"lib\xfe", "lib\xff"}));
  DeleteManifestContext(context);
}

TEST_F(Tree, PatternsRecordedAtSigningAreHonouredAndSigned) {
  WriteFile(Pkg("cache/state"), "changes all the time");
  WriteFile(Pkg("lib/py/mod.pyc"), "compiled");
  ASSERT_EQ(::mkfifo(Pkg("cache/fifo").c_str(), 0644), 0);
  // Unignored, a FIFO is refused at signing.
  issuing::ManifestRequest request;
  request.package = Pkg();
  request.tag = TagList(kInstall);
  request.chain = Chain(kRoot, true);
  std::string file, problem;
  EXPECT_EQ(issuing::MakeManifest(TestKey(kSigner), request, &file, nullptr, &problem),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_NE(problem.find("cache/fifo"), std::string::npos) << problem;
  request.patterns = {"[bad"};
  EXPECT_EQ(issuing::MakeManifest(TestKey(kSigner), request, &file, nullptr, &problem),
            VELK2_ERR_INVALID_PARAM);

  SignTree({"cache/", "**/*.pyc"});
  api::ManifestInfo info;
  ASSERT_EQ(api::DescribeManifest(Pkg("manifest"), &info), VELK2_SUCCESS);
  EXPECT_EQ(info.ignore, (Lines{"cache/", "**/*.pyc"}));
  EXPECT_EQ(Ask().result, VELK2_SUCCESS);

  // Verification honours them unasked, and may add more.
  WriteFile(Pkg("cache/new"), "new");
  WriteFile(Pkg("bin/other.pyc"), "compiled");
  fs::remove(Pkg("lib/py/mod.pyc"));
  WriteFile(Pkg("bin/app"), "patched");
  api::PackageVerdict verdict = Ask();
  EXPECT_EQ(Printed(verdict.report), (Lines{"bin/app changed: size 11 -> 7, content"}));
  EXPECT_EQ(Ask({"bin/app"}).result, VELK2_SUCCESS);
  // A pattern that does not read is the question's mistake.
  verdict = Ask({"[oops"});
  EXPECT_EQ(verdict.input_problem, "not an ignore pattern: [oops");

  // The patterns are signed: widening one breaks the manifest.
  std::string bytes = Read(Pkg("manifest"));
  const size_t at = bytes.find("6:cache/");
  ASSERT_NE(at, std::string::npos);
  bytes.replace(at, 8, "6:bin/a*");
  WriteFile(Pkg("manifest"), bytes);
  EXPECT_EQ(Ask().result, VELK2_ERR_HASH_MATCH);
}

TEST_F(Tree, PackageRootIsScannedOnlyWhenAsked) {
  SignTree();
  WriteFile(Pkg("evil.so"), "dropped beside the manifest");
  WriteFile(Pkg("sitecustomize.py"), "import os");
  // The tool's face scans it, the manifest file excepted.
  EXPECT_EQ(Printed(Ask().report), (Lines{"evil.so extra", "sitecustomize.py extra"}));
  // The C interface keeps the designed behaviour unless asked.
  Outcome outcome = Verify("", true);
  EXPECT_EQ(outcome.code, VELK2_SUCCESS);
  EXPECT_TRUE(outcome.extra.empty());
  ManifestContext* context = nullptr;
  ASSERT_EQ(CreateManifestContextA(&context, Pkg().c_str(), Pkg("manifest").c_str(), kInstall),
            VELK2_SUCCESS);
  EXPECT_EQ(SetScanPackageRoot(context, 1), VELK2_SUCCESS);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_SUCCESS);  // extra entries do not fail it
  EXPECT_EQ(Paths(GetExtraEntries(context), Pkg()),
            (std::set<std::string>{"evil.so", "sitecustomize.py"}));
  FailOnExtraEntries(context);
  EXPECT_EQ(VerifyManifest(context, 0, 0), VELK2_ERR_EXTRA_FILES);
  EXPECT_EQ(SetScanPackageRoot(nullptr, 1), VELK2_ERR_PARAM_NULL);
  DeleteManifestContext(context);
}

TEST_F(Tree, UnreadableEntriesAreNamedNeverValid) {
  WriteFile(Pkg("secret/key"), "key");
  SignTree();
  ASSERT_EQ(::chmod(Pkg("bin/app").c_str(), 0), 0);
  ASSERT_EQ(::chmod(Pkg("secret").c_str(), 0), 0);
  // Root reads everything: the reading is done as nobody, who must reach
  // the package and the store (the temporary directory is made 0700).
  for (const std::string& path : {dir_.path(), dir_.Sub("store"), dir_.Sub("store/acl")}) {
    fs::permissions(path, fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);
  }
  const std::optional<std::string> out = InChild([&] {
    if (::geteuid() == 0 &&
        (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)) {
      return std::string("cannot become nobody");
    }
    api::PackageVerdict verdict = Ask();
    std::string text = std::to_string(verdict.result) + " unreadable " +
                       std::to_string(verdict.report.counts.unreadable) + " valid " +
                       std::to_string(verdict.report.counts.valid);
    for (const std::string& line : Printed(verdict.report)) text += "\n" + line;
    return text;
  });
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(*out, std::to_string(VELK2_ERR_HASH_MISMATCH) +
                      " unreadable 1 valid 3\n"
                      "bin/app changed: mode 0644 -> 0000 (unreadable: Permission denied)\n"
                      "secret/key unreadable (unreadable: Permission denied)\n"
                      "secret/ changed: mode 0755 -> 0000 (unreadable: Permission denied)");
}

TEST_F(Tree, MistakesInTheQuestionAreNotVerdicts) {
  SignTree();
  api::PackageRequest request;
  request.tag = kInstall;
  api::PackageVerdict verdict;
  request.package = dir_.Sub("no-such-package");
  request.manifest = Pkg("manifest");
  api::VerifyPackage(request, &verdict);
  EXPECT_EQ(verdict.input_problem, "no package directory");
  EXPECT_TRUE(verdict.report.entries.empty());
  request.package = Pkg("top.txt");
  api::VerifyPackage(request, &verdict);
  EXPECT_EQ(verdict.input_problem, "not a directory");
  for (const std::string& not_manifest :
       {std::string("plain text"), Read(NewChainFile()), std::string("(8:manifest")}) {
    WriteFile(dir_.Sub("not.manifest"), not_manifest);
    request.package = Pkg();
    request.manifest = dir_.Sub("not.manifest");
    api::VerifyPackage(request, &verdict);
    EXPECT_EQ(verdict.input_problem, "not a manifest");
  }
}

// What velk2 writes, a reader of the format alone reads: the same entries
// with the same digests, and the digest the signature covers.
TEST_F(Tree, APlainReaderReadsEveryManifestWritten) {
  WriteFile(Pkg("lib/libfoo.so.1"), "library");
  Link("libfoo.so.1", "lib/libfoo.so");
  ASSERT_EQ(::chmod(Pkg("bin/app").c_str(), 04755), 0);
  SignTree({"*.log"}, true);
  const std::string bytes = Read(Pkg("manifest"));
  size_t at = 0;
  Plain manifest;
  ASSERT_TRUE(ReadPlain(bytes, &at, &manifest));
  EXPECT_EQ(at, bytes.size());
  const Plain *version = Find(manifest, "version"), *type = Find(manifest, "type"),
              *block = Find(manifest, "signature-block"), *body = Find(manifest, "body");
  ASSERT_TRUE(version && type && block && body);
  const Plain* signed_at = Find(*block, "time-of-signing");
  const Plain* cert = Find(*block, "cert");
  ASSERT_TRUE(signed_at && cert);
  const Plain* subject = Find(*cert, "subject");
  ASSERT_TRUE(subject && subject->items.size() == 2 && subject->items[1].items.size() == 3);
  const auto range = [&](const Plain& p) { return bytes.substr(p.begin, p.end - p.begin); };
  // What follows the lists, up to the manifest's own ")".
  const std::string signed_bytes = range(*version) + range(*type) + range(*signed_at) +
                                   bytes.substr(body->begin, bytes.size() - 1 - body->begin);
  EXPECT_EQ(subject->items[1].items[2].text, Sha256(signed_bytes));

  std::map<std::string, std::string> entries;
  PlainEntries(*body, "", &entries);
  EXPECT_EQ(entries, (std::map<std::string, std::string>{{"top.txt", Sha256("top")},
                                                         {"bin/app", Sha256("application")},
                                                         {"bin/tool", Sha256("tool")},
                                                         {"lib/libfoo.so", Sha256("libfoo.so.1")},
                                                         {"lib/libfoo.so.1", Sha256("library")},
                                                         {"share/doc/README", Sha256("read me")}}));
}

// The first manifests recorded only sizes: they verify as before, checking
// what they record and no more.
TEST_F(Tree, SizeOnlyManifestsVerifyAsBefore) {
  const std::string example = std::string(VELK2_SOURCE_DIR) + "/examples";
  fs::copy(example + "/package/hello-1.0", Pkg("hello"), fs::copy_options::recursive);
  fs::copy(example + "/authority", dir_.Sub("example-store"), fs::copy_options::recursive);
  Velk2GlobalDirectoryA(dir_.Sub("example-store").c_str());
  ASSERT_EQ(Read(Pkg("hello/manifest")).find("mode="), std::string::npos);
  api::PackageRequest request;
  request.package = Pkg("hello");
  request.tag = kInstall;
  api::PackageVerdict verdict;
  EXPECT_EQ(api::VerifyPackage(request, &verdict), VELK2_SUCCESS);
  ASSERT_EQ(::chmod(Pkg("hello/bin/hello").c_str(), 04777), 0);
  EXPECT_EQ(api::VerifyPackage(request, &verdict), VELK2_SUCCESS);
  WriteFile(Pkg("hello/bin/hello"), "#!/bin/sh\necho pwned\n");
  EXPECT_EQ(api::VerifyPackage(request, &verdict), VELK2_ERR_HASH_MISMATCH);
  EXPECT_EQ(Printed(verdict.report), (Lines{"bin/hello changed: size 31 -> 21, content"}));
}

}  // namespace
}  // namespace velk2
