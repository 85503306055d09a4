#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "frame/paths.h"
#include "platform/utf.h"

namespace {

using velk2::BuildPath;
using velk2::ExtensionPart;
using velk2::FileNamePart;

std::u16string W(const std::string& s) {
  return velk2::Utf8ToUtf16(s);
}
std::string N(const std::u16string& s) {
  return velk2::Utf16ToUtf8(s);
}
std::string OrNull(const char16_t* p) {
  return p ? N(p) : "<null>";
}

// A fresh directory under the system's temporary directory, removed afterwards.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/velk2-frame-XXXXXX";
    path_ = mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  const std::string& path() const { return path_; }
  std::u16string wide() const { return W(path_); }
  void Touch(const std::string& name) const {
    std::FILE* f = std::fopen((path_ + "/" + name).c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
  }
  void Mkdir(const std::string& name) const { ::mkdir((path_ + "/" + name).c_str(), 0755); }

 private:
  std::string path_;
};

bool IsDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(Paths, JoiningSkipsNullsAndKeepsEmptyComponents) {
  EXPECT_EQ(BuildPath(u"", u"cert"), u"cert");  // no leading separator
  EXPECT_EQ(BuildPath(u"/store", u"cert", u"a.cert"), u"/store/cert/a.cert");
  EXPECT_EQ(BuildPath(u"x", u""), u"x/");
  EXPECT_EQ(BuildPath(u"x", nullptr, u"y"), u"x/y");
  EXPECT_EQ(BuildPath(nullptr, nullptr), u"");
  EXPECT_EQ(BuildPath(u"", u""), u"");
  EXPECT_EQ(velk2::Concatenate(u"a", nullptr, u"b", u".c"), u"ab.c");

  std::u16string out = u"untouched";
  // "ab" + "c" needs 2 + 1 + 1 + 1 = 5 units with the NUL.
  EXPECT_TRUE(velk2::BuildPathBounded(&out, 5, u"ab", u"c"));
  EXPECT_EQ(out, u"ab/c");
  out = u"untouched";
  EXPECT_FALSE(velk2::BuildPathBounded(&out, 4, u"ab", u"c"));
  EXPECT_EQ(out, u"untouched");
}

TEST(Paths, FileNameAndExtensionParts) {
  const struct {
    const char16_t* path;
    const char* name;
    const char* extension;
  } cases[] = {
      {u"dir/x.cert", "x.cert", ".cert"},
      {u"dir\\x.CERT", "x.CERT", ".CERT"},
      {u"x", "x", "<null>"},
      {u"a.b/c", "c", "<null>"},          // a separator after the last dot
      {u"dir/.cert", ".cert", "<null>"},  // the dot follows a separator
      {u"dir\\.cert", ".cert", "<null>"},
      {u"dir/", "<null>", "<null>"},
      {u".", ".", "<null>"},  // shorter than two units
      {u"a.tar.gz", "a.tar.gz", ".gz"},
      {u"", "<null>", "<null>"},
      {nullptr, "<null>", "<null>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path ? N(c.path) : "null");
    EXPECT_EQ(OrNull(FileNamePart(c.path)), c.name);
    EXPECT_EQ(OrNull(ExtensionPart(c.path)), c.extension);
  }
}

TEST(Paths, StorePathsUnderTheRoots) {
  TempDir home;
  TempDir global;
  ASSERT_EQ(velk2::SetHomeDirectory(home.wide().c_str()), 0u);
  ASSERT_EQ(velk2::SetGlobalDirectory(global.wide().c_str()), 0u);

  std::u16string path;
  // The missing subdirectory is created on the way.
  ASSERT_EQ(velk2::StoreFilePath(u"cert", u".cert", u"x", velk2::kStoreHome, &path), 0u);
  EXPECT_EQ(N(path), home.path() + "/cert/x.cert");
  EXPECT_TRUE(IsDirectory(home.path() + "/cert"));
  // An existing subdirectory, a name with its extension in other case, a name with a directory.
  ASSERT_EQ(velk2::StoreFilePath(u"cert", u".cert", u"x.CERT", velk2::kStoreHome, &path), 0u);
  EXPECT_EQ(N(path), home.path() + "/cert/x.CERT");
  ASSERT_EQ(velk2::StoreFilePath(u"cert", u".cert", u"dir\\x.cert", velk2::kStoreHome, &path), 0u);
  EXPECT_EQ(N(path), home.path() + "/cert/x.cert");
  ASSERT_EQ(velk2::StoreFilePath(u"acl", u".acl", u"a/b/e", velk2::kStoreGlobal, &path), 0u);
  EXPECT_EQ(N(path), global.path() + "/acl/e.acl");
  // Verbatim names and an empty subdirectory keep the name as it stands.
  ASSERT_EQ(velk2::StoreFilePath(u"cert", u".crl", u"/x/y", velk2::kStoreVerbatim, &path), 0u);
  EXPECT_EQ(N(path), "/x/y.crl");
  ASSERT_EQ(velk2::StoreFilePath(u"", u".pub", u"k.pub", velk2::kStoreHome, &path), 0u);
  EXPECT_EQ(N(path), "k.pub");
  EXPECT_EQ(velk2::StoreFilePath(u"cert", u".cert", nullptr, velk2::kStoreHome, &path), 2u);

  EXPECT_EQ(velk2::StoreDirectory(u"", velk2::kStoreHome), u".");
  EXPECT_EQ(velk2::StoreDirectory(u"cert", velk2::kStoreVerbatim), u".");
  EXPECT_EQ(N(velk2::StoreDirectory(u"cert", velk2::kStoreGlobal)), global.path() + "/cert");
  velk2::SetHomeDirectory(u"");
  EXPECT_EQ(velk2::StoreDirectory(u"cert", velk2::kStoreHome), u"cert");  // relative
}

TEST(Paths, StorePathJoinLimitIs258Units) {
  // root + "/" + "cert" must fit 258 units with its NUL: a root of 252 units fits, 253 does not.
  std::u16string root(252, u'r');
  root[0] = u'/';
  ASSERT_EQ(velk2::SetHomeDirectory(root.c_str()), 0u);
  std::u16string path;
  EXPECT_EQ(velk2::StoreFilePath(u"cert", u"", u"n", velk2::kStoreHome, &path), 0u);
  EXPECT_EQ(path.size(), 252u + 5 + 2);
  root.push_back(u'r');
  ASSERT_EQ(velk2::SetHomeDirectory(root.c_str()), 0u);
  EXPECT_EQ(velk2::StoreFilePath(u"cert", u"", u"n", velk2::kStoreHome, &path), 3u);
  velk2::SetHomeDirectory(u"");
}

TEST(Paths, EnumerationSortsSkipsDotsAndFailsOnNoMatch) {
  TempDir dir;
  velk2::DirectoryEnumerator e;
  // A missing directory, and an empty one under a pattern that matches nothing.
  EXPECT_EQ(e.Open((dir.wide() + u"/missing").c_str(), u"*.cert"), 7u);
  EXPECT_EQ(e.Open(dir.wide().c_str(), u"*.cert"), 7u);
  // An empty directory under "*" opens and yields nothing: "." and ".." are skipped.
  ASSERT_EQ(e.Open(dir.wide().c_str(), u"*"), 0u);
  EXPECT_EQ(e.Open(dir.wide().c_str(), u"*"), 6u);  // already open
  EXPECT_EQ(e.Next(false), nullptr);
  e.Close();

  dir.Touch("b.cert");
  dir.Touch("A.CERT");
  dir.Touch("c.crl");
  dir.Touch("a.cert");
  dir.Mkdir("sub.cert");
  ASSERT_EQ(e.Open(dir.wide().c_str(), u"*.cert"), 0u);
  std::vector<std::string> names;
  while (const char16_t* name = e.Next(false))
    names.push_back(N(name) + (e.CurrentIsDirectory() ? "/" : ""));
  EXPECT_EQ(names, (std::vector<std::string>{"A.CERT", "a.cert", "b.cert", "sub.cert/"}));
  e.Close();

  ASSERT_EQ(e.Open(dir.wide().c_str(), nullptr), 0u);  // no wildcard: every entry
  EXPECT_EQ(N(e.Next(true)), dir.path() + "/A.CERT");
  e.Close();

  std::u16string long_pattern(300, u'p');
  EXPECT_EQ(e.Open(dir.wide().c_str(), long_pattern.c_str()), velk2::kInternalNotFound);
}

TEST(Paths, PatternMatchingFoldsAsciiCase) {
  EXPECT_TRUE(velk2::MatchesPattern(u"*.cert", u"x.CERT"));
  EXPECT_TRUE(velk2::MatchesPattern(u"*", u""));
  EXPECT_TRUE(velk2::MatchesPattern(u"a*b*c", u"aXXbYYc"));
  EXPECT_FALSE(velk2::MatchesPattern(u"a*b*c", u"aXXbYY"));
  EXPECT_TRUE(velk2::MatchesPattern(u"?.acl", u"x.acl"));
  EXPECT_FALSE(velk2::MatchesPattern(u"*.cert", u"x.cer"));
  EXPECT_FALSE(velk2::MatchesPattern(u"*.cert", u"."));
}

TEST(Paths, CopyBoundedEmptiesOnFailure) {
  char16_t buffer[4] = {u'z', u'z', u'z', 0};
  EXPECT_EQ(velk2::CopyBounded(buffer, 4, u"abc"), 0u);
  EXPECT_EQ(std::u16string(buffer), u"abc");
  EXPECT_EQ(velk2::CopyBounded(buffer, 4, u"abcd"), 22u);
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(velk2::CopyBounded(buffer, 4, nullptr), 22u);
  EXPECT_EQ(velk2::CopyBounded(nullptr, 4, u"a"), 22u);
  EXPECT_EQ(velk2::CopyBounded(buffer, 0, u"a"), 22u);
}

}  // namespace
