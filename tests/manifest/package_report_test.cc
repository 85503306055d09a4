// The package questions of the tool's face (trust/tool_api.h, answered in
// manifest/tool_api.cc): the tree report of a verification, with its counts
// and moved files, what rollback protection did, the comparison of two
// manifests, and the description of one.
#include <ctime>

#include "manifest/manifest_test_util.h"
#include "sexp/object.h"
#include "trust/tool_api.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the fixture and its helpers

constexpr const char* kSignedText = "2026-06-21_00:00:00";

// One line per entry: "PATH[/] STATUS[ uncounted][ moved]".
Lines LinesOf(const api::TreeReport& report) {
  Lines lines;
  EXPECT_EQ(report.in_move.size(), report.entries.size());
  for (size_t i = 0; i < report.entries.size(); ++i) {
    const api::Entry& entry = report.entries[i];
    lines.push_back(entry.path + (entry.directory ? "/ " : " ") + entry.status +
                    (entry.counted ? "" : " uncounted") +
                    (i < report.in_move.size() && report.in_move[i] ? " moved" : ""));
  }
  return lines;
}

Lines MovesOf(const api::TreeReport& report) {
  Lines moves;
  for (const api::Move& move : report.moves) moves.push_back(move.from + " -> " + move.to);
  return moves;
}

std::string CountsOf(const api::Counts& c) {
  std::ostringstream out;
  out << "valid " << c.valid << ", changed " << c.changed << ", missing " << c.missing << ", extra "
      << c.extra << ", moved " << c.moved;
  return out.str();
}

// The lowercase hex SHA-256 of a key's canonical form: how the tool names it.
std::string FingerprintOf(int key) {
  return HexOf(StoredForm(*PublicKeyList(key)));
}

class PackageReport : public Package {
 protected:
  api::PackageRequest Request() const {
    api::PackageRequest request;
    request.package = Pkg();
    request.tag = kInstall;
    return request;
  }
  // The verdict, whose result is the one returned.
  api::PackageVerdict Ask(const api::PackageRequest& request) {
    api::PackageVerdict verdict;
    const Result result = api::VerifyPackage(request, &verdict);
    EXPECT_EQ(result, verdict.result);
    return verdict;
  }
  api::PackageVerdict Ask() { return Ask(Request()); }
};

TEST_F(PackageReport, AVerifiedPackageIsReportedEntryByEntry) {
  Sign();
  const api::PackageVerdict verdict = Ask();
  EXPECT_EQ(verdict.result, VELK2_SUCCESS);
  EXPECT_TRUE(verdict.manifest_read);
  EXPECT_TRUE(verdict.verified);
  EXPECT_EQ(verdict.time_of_signing, kSignedText);
  EXPECT_EQ(verdict.lists_from_store, 0u);
  EXPECT_EQ(verdict.lists_embedded, 0u);
  EXPECT_TRUE(verdict.has_signer);
  EXPECT_EQ(verdict.signer.result, VELK2_SUCCESS);
  // Paths relative to the package; listed directories are neither counted
  // nor moved.
  EXPECT_EQ(
      LinesOf(verdict.report),
      (Lines{"top.txt valid", "bin/app valid", "bin/tool valid", "bin/ valid uncounted",
             "share/doc/README valid", "share/doc/ valid uncounted", "share/ valid uncounted"}));
  for (const api::Entry& entry : verdict.report.entries) EXPECT_FALSE(entry.changed_during);
  EXPECT_EQ(CountsOf(verdict.report.counts), "valid 4, changed 0, missing 0, extra 0, moved 0");
  EXPECT_TRUE(verdict.report.moves.empty());

  // The tool always protects against rollback: checked, and recorded.
  const api::RollbackInfo& first = verdict.rollback;
  EXPECT_TRUE(first.checked);
  EXPECT_FALSE(first.named);
  EXPECT_EQ(first.package, fs::canonical(Pkg()).string());
  EXPECT_EQ(first.time_of_signing, kSigned);
  EXPECT_FALSE(first.recorded.has_value());
  EXPECT_EQ(first.refused, "");
  EXPECT_TRUE(first.advanced);
  EXPECT_TRUE(first.written);
  EXPECT_FALSE(first.read_only);
  EXPECT_EQ(first.write_result, VELK2_SUCCESS);
  EXPECT_TRUE(fs::is_regular_file(first.record_path)) << first.record_path;
  // Again: the record holds this very time, so nothing advances.
  const api::RollbackInfo again = Ask().rollback;
  EXPECT_TRUE(again.checked);
  EXPECT_EQ(again.recorded, kSigned);
  EXPECT_FALSE(again.advanced);
  EXPECT_TRUE(again.written);
  EXPECT_EQ(again.record_path, first.record_path);
}

// A missing file whose content turned up as an extra file was moved there.
// Each extra file pairs with one missing file at most, each missing file
// with the first extra file of its content; only regular files are read,
// never followed or waited on.
TEST_F(PackageReport, MovesPairMissingFilesWithExtraFilesOfTheirContent) {
  WriteFile(Pkg("share/doc/copy1"), "same");
  WriteFile(Pkg("share/doc/copy2"), "same");
  Sign();
  WriteFile(dir_.Sub("outside/same"), "same");
  fs::remove(Pkg("top.txt"));
  WriteFile(Pkg("bin/top.txt"), "top");
  WriteFile(Pkg("bin/top-copy"), "top");
  fs::remove(Pkg("share/doc/copy1"));
  fs::remove(Pkg("share/doc/copy2"));
  WriteFile(Pkg("bin/same"), "same");
  WriteFile(Pkg("bin/other"), "other content");
  fs::create_symlink(dir_.Sub("outside/same"), Pkg("bin/link"));
  ASSERT_EQ(::mkfifo(Pkg("bin/pipe").c_str(), 0644), 0);
  // In a child process: a FIFO opened for a read that waits would hang it.
  const std::optional<Lines> out = InChild([&] {
    api::PackageVerdict verdict;
    api::VerifyPackage(Request(), &verdict);
    Lines lines = {std::to_string(verdict.result), CountsOf(verdict.report.counts)};
    for (const std::string& line : MovesOf(verdict.report)) lines.push_back("move " + line);
    for (const std::string& line : LinesOf(verdict.report)) lines.push_back(line);
    return lines;
  });
  ASSERT_TRUE(out.has_value()) << "the verification blocked or crashed";
  EXPECT_EQ(*out, (Lines{std::to_string(VELK2_ERR_HASH_MISMATCH),
                         "valid 3, changed 0, missing 3, extra 6, moved 2",
                         "move top.txt -> bin/top-copy", "move share/doc/copy1 -> bin/same",
                         "top.txt missing moved", "bin/app valid", "bin/tool valid",
                         "bin/link extra", "bin/other extra", "bin/pipe extra",
                         "bin/same extra moved", "bin/top-copy extra moved", "bin/top.txt extra",
                         "bin/ extra uncounted", "share/doc/copy1 missing moved",
                         "share/doc/copy2 missing", "share/doc/README valid",
                         "share/doc/ changed uncounted", "share/ changed uncounted"}));
}

// What stops a verification before the disk is read leaves no tree report,
// and says how far it got.
TEST_F(PackageReport, RefusalsLeaveNoTreeReport) {
  api::PackageVerdict verdict;
  api::PackageRequest request = Request();
  request.tag = "(pkg";
  EXPECT_EQ(api::VerifyPackage(request, &verdict), VELK2_ERR_INVALID_S_EXPRESSION);
  EXPECT_FALSE(verdict.has_signer);

  verdict = Ask();  // no manifest yet
  EXPECT_EQ(verdict.result, VELK2_ERR_OPEN_MANIFEST_FILE);
  EXPECT_FALSE(verdict.manifest_read);
  EXPECT_FALSE(verdict.verified);
  EXPECT_FALSE(verdict.has_signer);
  EXPECT_FALSE(verdict.rollback.checked);

  const std::string good = Read(Sign());
  request = Request();
  request.tag = "(pkg remove)";
  verdict = Ask(request);
  EXPECT_EQ(verdict.result, VELK2_ERR_NOT_AUTHORIZED);
  EXPECT_TRUE(verdict.manifest_read);
  EXPECT_FALSE(verdict.verified);
  EXPECT_TRUE(verdict.has_signer);
  EXPECT_EQ(verdict.signer.result, VELK2_ERR_NOT_AUTHORIZED);
  EXPECT_FALSE(verdict.rollback.checked);
  EXPECT_TRUE(verdict.report.entries.empty());

  // An altered body fails at the digest, after the signer was authorized:
  // the signer's own story stays a success.
  std::string altered = good;
  altered.replace(altered.find("(4:file3:app"), 12, "(4:file3:apq");
  WriteFile(Pkg("manifest"), altered);
  verdict = Ask();
  EXPECT_EQ(verdict.result, VELK2_ERR_HASH_MATCH);
  EXPECT_TRUE(verdict.manifest_read);
  EXPECT_FALSE(verdict.verified);
  EXPECT_TRUE(verdict.has_signer);
  EXPECT_EQ(verdict.signer.result, VELK2_SUCCESS);
  EXPECT_TRUE(verdict.report.entries.empty());
  WriteFile(Pkg("manifest"), good);
  EXPECT_EQ(Ask().result, VELK2_SUCCESS);

  // Rollback: an older manifest of the same package put back is refused,
  // and says why, unless older ones are allowed; then the record stays
  // where it was.
  SignOptions newer;
  newer.time_of_signing = kSigned + 86400;
  Sign(nullptr, "", newer);
  EXPECT_EQ(Ask().result, VELK2_SUCCESS);
  WriteFile(Pkg("manifest"), good);
  verdict = Ask();
  EXPECT_EQ(verdict.result, VELK2_ERR_TIME_STAMP);
  EXPECT_TRUE(verdict.manifest_read);
  EXPECT_FALSE(verdict.verified);
  EXPECT_TRUE(verdict.rollback.checked);
  EXPECT_EQ(verdict.rollback.refused, "older");
  EXPECT_EQ(verdict.rollback.recorded, kSigned + 86400);
  EXPECT_EQ(verdict.rollback.time_of_signing, kSigned);
  EXPECT_FALSE(verdict.rollback.written);
  EXPECT_TRUE(verdict.report.entries.empty());
  request = Request();
  request.allow_older = true;
  verdict = Ask(request);
  EXPECT_EQ(verdict.result, VELK2_SUCCESS);
  EXPECT_TRUE(verdict.verified);
  EXPECT_EQ(verdict.rollback.refused, "");
  EXPECT_TRUE(verdict.rollback.allowed_older);
  EXPECT_TRUE(verdict.rollback.written);
  EXPECT_FALSE(verdict.rollback.advanced);
  EXPECT_EQ(verdict.report.entries.size(), 7u);

  // A manifest dated an hour ahead of the clock is refused as from the future.
  SignOptions ahead;
  ahead.time_of_signing = static_cast<int64_t>(std::time(nullptr)) + 3600;
  request = Request();
  request.manifest = Sign(nullptr, dir_.Sub("ahead.manifest"), ahead);
  request.allow_older = true;
  verdict = Ask(request);
  EXPECT_EQ(verdict.result, VELK2_ERR_TIME_STAMP);
  EXPECT_EQ(verdict.rollback.refused, "future");
  EXPECT_FALSE(verdict.verified);
  EXPECT_TRUE(verdict.report.entries.empty());
}

// Two manifests compared: their own digests pair moved files, the disk is
// never read, and listed directories are not counted.
TEST_F(PackageReport, TwoManifestsCompared) {
  const std::string before = Sign(nullptr, dir_.Sub("before.manifest"));
  WriteFile(Pkg("bin/app"), "application, patched");
  fs::remove(Pkg("top.txt"));
  WriteFile(Pkg("lib/top.txt"), "top");
  WriteFile(Pkg("lib/y.so"), "y");
  fs::remove(Pkg("share/doc/README"));
  const std::string after = Sign(nullptr, dir_.Sub("after.manifest"));
  // Another signer, one the store does not trust: signers are not asked.
  const std::string stranger = Sign(Chain(kStranger, true), dir_.Sub("stranger.manifest"));
  fs::remove_all(Pkg());

  api::TreeReport report;
  EXPECT_EQ(api::CompareManifests(before, after, {}, &report), VELK2_ERR_HASH_MISMATCH);
  EXPECT_EQ(
      LinesOf(report),
      (Lines{"top.txt missing moved", "bin/app changed", "bin/tool valid", "bin/ changed uncounted",
             "lib/ extra", "lib/top.txt extra moved", "lib/y.so extra", "share/doc/README missing",
             "share/doc/ changed uncounted", "share/ changed uncounted"}));
  EXPECT_EQ(MovesOf(report), (Lines{"top.txt -> lib/top.txt"}));
  EXPECT_EQ(CountsOf(report.counts), "valid 1, changed 1, missing 2, extra 3, moved 1");
  for (const api::Entry& entry : report.entries) {
    EXPECT_EQ(entry.listed, entry.status != "extra") << entry.path;
  }

  EXPECT_EQ(api::CompareManifests(after, stranger, {}, &report), VELK2_SUCCESS);
  EXPECT_EQ(CountsOf(report.counts), "valid 4, changed 0, missing 0, extra 0, moved 0");

  // Ignored paths, a directory's with its "/" too.
  EXPECT_EQ(api::CompareManifests(before, after, {"lib/", "bin/app", "share"}, &report),
            VELK2_ERR_FILE_NOT_FOUND);
  EXPECT_EQ(LinesOf(report), (Lines{"top.txt missing", "bin/tool valid", "bin/ valid uncounted"}));
  EXPECT_TRUE(report.moves.empty());

  // A manifest that does not read or does not hold together: its code, and
  // no report.
  const std::string altered = dir_.Sub("altered.manifest");
  std::string bytes = Read(after);
  bytes.replace(bytes.find("(4:file3:app"), 12, "(4:file3:apq");
  WriteFile(altered, bytes);
  struct Case {
    std::string a, b;
    Result code;
  };
  const Case kCases[] = {
      {before, dir_.Sub("none"), VELK2_ERR_OPEN_MANIFEST_FILE},
      {dir_.Sub("none"), after, VELK2_ERR_OPEN_MANIFEST_FILE},
      {before, altered, VELK2_ERR_HASH_MATCH},
      {altered, before, VELK2_ERR_HASH_MATCH},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(api::CompareManifests(before, after, {}, &report), VELK2_ERR_HASH_MISMATCH);
    EXPECT_EQ(api::CompareManifests(c.a, c.b, {}, &report), c.code) << c.a << " " << c.b;
    EXPECT_TRUE(report.entries.empty() && report.moves.empty());
    EXPECT_EQ(CountsOf(report.counts), "valid 0, changed 0, missing 0, extra 0, moved 0");
  }
}

TEST_F(PackageReport, AManifestDescribed) {
  WriteFile(Pkg("Zeta"), "z");
  WriteFile(Pkg("_u"), "u");
  WriteFile(Pkg("alpha"), "a");
  SignOptions options;
  options.name = "hello-1.0";
  options.lists = {RevocationList({}, {})};
  const std::string path = Sign(nullptr, "", options);

  api::ManifestInfo info;
  ASSERT_EQ(api::DescribeManifest(path, &info), VELK2_SUCCESS);
  // The header's lists, readable.
  EXPECT_EQ(info.version.rfind("(version 1 ", 0), 0u) << info.version;
  EXPECT_EQ(info.type, "(type plain)");
  EXPECT_EQ(info.name, "hello-1.0");
  EXPECT_EQ(info.time_of_signing, kSignedText);

  // The object certificate names the digest of the header and the body, as
  // they stand in the file; the signer's certificate follows it.
  const std::string bytes = Read(path);
  const size_t version = bytes.find("(7:version"), type = bytes.find("(4:type5:plain)");
  const size_t signing = bytes.find("(15:time-of-signing"), body = bytes.find("(4:body");
  ASSERT_TRUE(version != std::string::npos && type != std::string::npos &&
              signing != std::string::npos && body != std::string::npos);
  const std::string signed_bytes = bytes.substr(version, type - version) + "(4:type5:plain)" +
                                   bytes.substr(signing, bytes.find(')', signing) + 1 - signing) +
                                   bytes.substr(body, bytes.size() - 1 - body);
  ASSERT_EQ(info.chain.size(), 2u);
  EXPECT_EQ(info.chain[0].subject, "hash sha256 " + HexOf(signed_bytes));
  EXPECT_EQ(info.chain[0].issuer, "rsa key " + FingerprintOf(kSigner));
  EXPECT_EQ(info.chain[0].tag, kInstall);
  EXPECT_EQ(info.chain[1].subject, "rsa key " + FingerprintOf(kSigner));
  EXPECT_EQ(info.chain[1].issuer, "rsa key " + FingerprintOf(kRoot));
  EXPECT_EQ(info.chain[1].tag, kInstall);
  EXPECT_TRUE(info.chain[1].propagate);

  ASSERT_EQ(info.lists.size(), 1u);
  EXPECT_EQ(info.lists[0].scope, "(revoke pkg)");
  EXPECT_EQ(info.lists[0].not_before, "2026-01-01_00:00:00");
  EXPECT_EQ(info.lists[0].not_after, "2030-01-01_00:00:00");

  // The tree, depth first, each level in name order (the signer wrote it
  // in byte order: "Zeta" first).
  Lines tree;
  for (const api::TreeLine& line : info.tree) {
    tree.push_back(std::to_string(line.depth) + " " + line.name + (line.directory ? "/" : "") +
                   (line.digest.empty() ? "" : " " + line.digest));
  }
  EXPECT_EQ(tree, (Lines{"0 _u " + HexOf("u"), "0 alpha " + HexOf("a"), "0 top.txt " + HexOf("top"),
                         "0 Zeta " + HexOf("z"), "0 bin/", "1 app " + HexOf("application"),
                         "1 tool " + HexOf("tool"), "0 share/", "1 doc/",
                         "2 README " + HexOf("read me")}));
  EXPECT_EQ(info.entries, 10u);

  // Without a name, the plain word older manifests hold.
  ASSERT_EQ(api::DescribeManifest(Sign(), &info), VELK2_SUCCESS);
  EXPECT_EQ(info.version, "(version 1 velk2)");
  EXPECT_EQ(info.name, "");
  EXPECT_TRUE(info.lists.empty());

  // Refused: nothing of an earlier description is left behind.
  const std::string good = Read(Pkg("manifest"));
  struct Case {
    const char* what;
    std::string bytes;  // empty: no file
    Result code;
  };
  std::string changed_name = good, changed_version = good;
  changed_name.replace(changed_name.find("(4:file4:tool"), 13, "(4:file4:tooL");
  changed_version.replace(changed_version.find("(7:version1:1"), 13, "(7:version1:2");
  const Case kCases[] = {
      {"no file", "", VELK2_ERR_OPEN_MANIFEST_FILE},
      {"a name changed in the body", changed_name, VELK2_ERR_HASH_MATCH},
      {"another version", changed_version, VELK2_ERR_MANIFEST_VERSION},
  };
  for (const Case& c : kCases) {
    ASSERT_EQ(api::DescribeManifest(path, &info), VELK2_SUCCESS);
    const std::string file = dir_.Sub("described");
    fs::remove(file);
    if (!c.bytes.empty()) WriteFile(file, c.bytes);
    EXPECT_EQ(api::DescribeManifest(file, &info), c.code) << c.what;
    EXPECT_TRUE(info.tree.empty() && info.chain.empty() && info.name.empty()) << c.what;
  }
}

}  // namespace
}  // namespace velk2
