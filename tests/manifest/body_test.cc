// The tree reader of manifest bodies: the order of each level, the paths of
// nested directories, the ignored names handed to each level, and bodies it
// must refuse however they are cut or bent.
#include <cstring>
#include <memory>

#include "manifest/manifest_test_util.h"

namespace velk2 {
namespace {

using namespace testing;  // NOLINT: the body builders

std::vector<std::string> Names(const ManifestDirectory& level) {
  std::vector<std::string> names;
  for (const ManifestFileEntry& file : level.files) names.push_back(Utf16ToUtf8(file.name));
  for (const ManifestDirectory& directory : level.directories) {
    names.push_back(Utf16ToUtf8(directory.name) + "/");
  }
  return names;
}

// Each level sorted by name with ASCII letters folded, then by UTF-16 unit,
// whatever order the manifest lists them in; digests travel with their names.
TEST(ManifestBody, EachLevelIsInNameOrderWithItsPaths) {
  const std::string kSmile = "\xf0\x9f\x98\x80";  // U+1F600, a surrogate pair in UTF-16
  const std::string kBang = "\xef\xbc\x81";       // U+FF01, one unit above the surrogates
  const std::string kEacute = "\xc3\xa9";
  const std::string body = BodyText({
      FileEntry("Zeta", "Zeta!"),
      FileEntry(kBang, kBang + "!"),
      FileEntry("_u", "_u!"),
      FileEntry(kSmile, kSmile + "!"),
      FileEntry("alpha", "alpha!"),
      FileEntry(kEacute, kEacute + "!"),
      FileEntry("B", "B!"),
      DirEntry("lib", {}),
      DirEntry("Bin", {FileEntry("b2", "b2!"), FileEntry("A1", "A1!"),
                       DirEntry("Sub", {FileEntry("x", "x!")})}),
      DirEntry("_d", {}),
  });
  for (const std::string path : {"", "/pkg"}) {
    SCOPED_TRACE("root path '" + path + "'");
    const ManifestDirectory root = Tree(body, path);
    EXPECT_EQ(Names(root), (std::vector<std::string>{"_u", "alpha", "B", "Zeta", kEacute, kSmile,
                                                     kBang, "_d/", "Bin/", "lib/"}));
    for (const ManifestFileEntry& file : root.files) {
      EXPECT_EQ(file.digest_length, 32u);
      EXPECT_EQ(file.digest, DigestOf(Utf16ToUtf8(file.name) + "!")) << Utf16ToUtf8(file.name);
    }
    ASSERT_EQ(root.directories.size(), 3u);
    const ManifestDirectory& bin = root.directories[1];
    const std::string prefix = path.empty() ? "" : path + "/";
    EXPECT_EQ(Utf16ToUtf8(root.path), path);
    EXPECT_EQ(Utf16ToUtf8(bin.path), prefix + "Bin");
    EXPECT_EQ(Names(bin), (std::vector<std::string>{"A1", "b2", "Sub/"}));
    EXPECT_EQ(bin.files[0].digest, DigestOf("A1!"));
    ASSERT_EQ(bin.directories.size(), 1u);
    EXPECT_EQ(Utf16ToUtf8(bin.directories[0].path), prefix + "Bin/Sub");
    EXPECT_EQ(Names(bin.directories[0]), (std::vector<std::string>{"x"}));
    EXPECT_TRUE(root.directories[0].files.empty() && root.directories[0].directories.empty());
  }

  // An empty tree reads, and reading again replaces what the root held
  // (its path stays).
  ManifestDirectory root = Tree(body, "/pkg", {"/pkg/top.txt"});
  ASSERT_FALSE(root.ignored.empty());
  EXPECT_EQ(ReadManifestBody(&root, BodyText({}), nullptr), VELK2_SUCCESS);
  EXPECT_TRUE(root.files.empty() && root.directories.empty() && root.ignored.empty());
  EXPECT_EQ(Utf16ToUtf8(root.path), "/pkg");
  EXPECT_EQ(ReadManifestBody(nullptr, BodyText({}), nullptr), VELK2_ERR_PARAM_NULL);
}

// Names that would reach outside their directory, atoms of the wrong size,
// entries of the wrong shape: refused wherever in the tree they lie.
TEST(ManifestBody, RefusesWhatASignedTreeMayNotHold) {
  const std::string d32 = Atom(std::string(32, 'd'));
  struct Case {
    const char* what;
    std::string body;
    Result code;
  };
  const Case kCases[] = {
      {"a file named '.'", BodyText({"(4:file1:.0:" + d32 + ")"}), VELK2_ERR_PARSE_FILE},
      {"a directory named '..'", BodyText({"(3:dir2:..0:)"}), VELK2_ERR_PARSE_FILE},
      {"a directory named '.'", BodyText({"(3:dir1:.0:)"}), VELK2_ERR_PARSE_FILE},
      {"a file name with '/'", BodyText({"(4:file3:a/b0:" + d32 + ")"}), VELK2_ERR_PARSE_FILE},
      {"a file named '/'", BodyText({"(4:file1:/0:" + d32 + ")"}), VELK2_ERR_PARSE_FILE},
      {"a directory name with '\\'", BodyText({"(3:dir3:a\\b0:)"}), VELK2_ERR_PARSE_FILE},
      {"a directory named NUL", BodyText({std::string("(3:dir1:\0", 9) + "0:)"}),
       VELK2_ERR_PARSE_FILE},
      {"an empty directory name", BodyText({"(3:dir0:0:)"}), VELK2_ERR_PARSE_FILE},
      {"'..' two levels down",
       BodyText({DirEntry("bin", {DirEntry("sub", {"(4:file2:..0:" + d32 + ")"})})}),
       VELK2_ERR_PARSE_FILE},
      {"'a/b' one level down", BodyText({DirEntry("bin", {"(3:dir3:a/b0:)"})}),
       VELK2_ERR_PARSE_FILE},
      {"an empty token", BodyText({}, ""), VELK2_ERR_RANDOM_TOKEN},
      {"a token of 3 bytes", BodyText({}, "abc"), VELK2_ERR_RANDOM_TOKEN},
      {"a token of 5 bytes", BodyText({}, "abcde"), VELK2_ERR_RANDOM_TOKEN},
      {"a digest of 31 bytes", BodyText({"(4:file1:a0:" + Atom(std::string(31, 'd')) + ")"}),
       VELK2_ERR_UNKNOWN_HASH_ID},
      {"a digest of 33 bytes", BodyText({"(4:file1:a0:" + Atom(std::string(33, 'd')) + ")"}),
       VELK2_ERR_UNKNOWN_HASH_ID},
      {"an empty digest", BodyText({"(4:file1:a0:0:)"}), VELK2_ERR_UNKNOWN_HASH_ID},
      {"a short digest one level down", BodyText({DirEntry("bin", {"(4:file1:a0:1:d)"})}),
       VELK2_ERR_UNKNOWN_HASH_ID},
      {"a file without its digest", BodyText({"(4:file1:a0:)"}), VELK2_ERR_INVALID_DATA},
      {"a file with one atom too many", BodyText({"(4:file1:a0:" + d32 + "0:)"}),
       VELK2_ERR_INVALID_DATA},
      {"a directory without its second atom", BodyText({"(3:dir1:d" + FileEntry("f", "") + ")"}),
       VELK2_ERR_INVALID_DATA},
      {"a token that is a list", "(4:body(12:random-token(4:tokn)))", VELK2_ERR_INVALID_DATA},
      {"another keyword", "(4:bodx(12:random-token4:tokn))", VELK2_ERR_INVALID_DATA},
      {"a keyword in another case", BodyText({"(4:File1:a0:" + d32 + ")"}), VELK2_ERR_PARSE_FILE},
      {"an atom for an entry", BodyText({"1:x"}), VELK2_ERR_PARSE_FILE},
      {"a ')' after the body", BodyText({}) + ")", VELK2_ERR_PARSE_FILE},
      {"a second body", BodyText({}) + BodyText({}), VELK2_ERR_PARSE_FILE},
  };
  for (const Case& c : kCases) {
    ManifestDirectory root;
    EXPECT_EQ(ReadManifestBody(&root, c.body, nullptr), c.code) << c.what;
  }
}

// kMaxManifestDepth directories inside each other read; one more does not.
TEST(ManifestBody, NestingStopsAtTheDeepestAllowed) {
  auto nested = [](int depth) {
    std::string body = "(4:body(12:random-token4:tokn)";
    for (int i = 0; i < depth; ++i) body += "(3:dir1:d0:";
    body += FileEntry("f", "bottom");
    for (int i = 0; i < depth; ++i) body += ")";
    return body + ")";
  };
  ManifestDirectory root;
  ASSERT_EQ(ReadManifestBody(&root, nested(kMaxManifestDepth), nullptr), VELK2_SUCCESS);
  const ManifestDirectory* level = &root;
  int depth = 0;
  while (!level->directories.empty()) {
    level = &level->directories[0];
    ++depth;
  }
  EXPECT_EQ(depth, kMaxManifestDepth);
  ASSERT_EQ(level->files.size(), 1u);
  EXPECT_EQ(level->files[0].digest, DigestOf("bottom"));
  std::string path = "d";
  for (int i = 1; i < kMaxManifestDepth; ++i) path += "/d";
  EXPECT_EQ(Utf16ToUtf8(level->path), path);
  EXPECT_EQ(ReadManifestBody(&root, nested(kMaxManifestDepth + 1), nullptr),
            VELK2_ERR_INVALID_S_EXPRESSION);
}

// A body cut short at any byte is refused with a reader's code; each cut is
// read from a buffer of exactly its size, so no read may stray past it.
TEST(ManifestBody, EveryTruncationIsRefused) {
  const std::string body =
      BodyText({FileEntry("a", "x"), DirEntry("d", {FileEntry("b", "y"), DirEntry("e", {})}),
                DirEntry("z", {})});
  ManifestDirectory root;
  ASSERT_EQ(ReadManifestBody(&root, body, nullptr), VELK2_SUCCESS);
  for (size_t size = 0; size < body.size(); ++size) {
    const std::unique_ptr<char[]> cut(new char[size == 0 ? 1 : size]);
    std::memcpy(cut.get(), body.data(), size);
    const Result code = ReadManifestBody(&root, std::string_view(cut.get(), size), nullptr);
    EXPECT_TRUE(code == VELK2_ERR_INVALID_DATA || code == VELK2_ERR_FILE_OPEN ||
                code == VELK2_ERR_PARSE_FILE)
        << "cut at " << size << " of " << body.size() << ": " << code;
  }
}

// Each ignored path becomes an ignored name of the one level it lies
// directly in; with a root path, only paths below it count.
TEST(ManifestBody, IgnoredPathsGoToTheLevelTheyLieIn) {
  const std::string body = BodyText({
      FileEntry("top.txt", "top"),
      FileEntry("Zed", "zed"),
      DirEntry("bin", {FileEntry("app", "app"), FileEntry("tool", "tool"),
                       DirEntry("sub", {FileEntry("x", "x")})}),
      DirEntry("binary", {FileEntry("y", "y")}),
  });
  using NameList = std::vector<std::string>;
  struct Case {
    const char* what;
    const char* root_path;
    NameList ignored;
    NameList root, bin, sub, binary;
  };
  const Case kCases[] = {
      {"a name at the root", "/p", {"/p/top.txt"}, {"top.txt"}, {}, {}, {}},
      {"names of one directory, sorted, listed or not",
       "/p",
       {"/p/bin/tool", "/p/bin/b", "/p/bin/App"},
       {},
       {"App", "b", "tool"},
       {},
       {}},
      {"'\\' separates too", "/p", {"/p/bin\\tool", "/p\\bin"}, {"bin"}, {"tool"}, {}, {}},
      {"a directory whose name starts with another's", "/p", {"/p/binary/y"}, {}, {}, {}, {"y"}},
      {"paths that name no entry of a level",
       "/p",
       {"/p/bin/", "/p/", "/p", "/q/top.txt", "/pkg/top.txt", "top.txt", "bin/tool"},
       {},
       {},
       {},
       {}},
      {"a bare name is the root's, and only the root's",
       "",
       {"x", "/top.txt", "sub/x"},
       {"x"},
       {},
       {},
       {}},
  };
  auto names = [](const ManifestDirectory& level) {
    NameList out;
    for (const std::u16string& name : level.ignored) out.push_back(Utf16ToUtf8(name));
    return out;
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    const ManifestDirectory root = Tree(body, c.root_path, c.ignored);
    ASSERT_EQ(root.directories.size(), 2u);
    const ManifestDirectory& bin = root.directories[0];
    ASSERT_EQ(bin.directories.size(), 1u);
    EXPECT_EQ(names(root), c.root);
    EXPECT_EQ(names(bin), c.bin);
    EXPECT_EQ(names(bin.directories[0]), c.sub);
    EXPECT_EQ(names(root.directories[1]), c.binary);
  }

  // A level's ignored names are matched without regard to ASCII case, and
  // only whole names match.
  const ManifestDirectory root = Tree(body, "/p", {"/p/bin/tool"});
  const ManifestDirectory& bin = root.directories[0];
  EXPECT_TRUE(bin.IsIgnored(u"tool"));
  EXPECT_TRUE(bin.IsIgnored(u"TOOL"));
  EXPECT_FALSE(bin.IsIgnored(u"too"));
  EXPECT_FALSE(bin.IsIgnored(u"tools"));
  EXPECT_FALSE(root.IsIgnored(u"tool"));
}

}  // namespace
}  // namespace velk2
