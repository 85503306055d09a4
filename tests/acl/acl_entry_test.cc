// ACL entries: the entry reader, entry files (bare names and paths), the
// directory scan with its last-file rule, the ACL loader with and without an
// extra directory, and the tag reader of a reduced ACL held as text.
#include "acl/acl_entry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "acl/acl_test_util.h"
#include "credentials/certificate.h"
#include "credentials/hash_value.h"
#include "credentials/public_key.h"
#include "frame/paths.h"
#include "tools/issuing/acl_entry.h"
#include "trust/authorize.h"

namespace velk2 {
namespace {

using testing::Atom;
using testing::KeyText;
using testing::TempDir;
using testing::TestKey;
using testing::WriteFile;

std::string AtomText(const SexpAtom* atom) {
  return atom ? std::string(atom->bytes()) : std::string();
}

std::string Key() {
  return KeyText(TestKey(0));
}
std::string Tag() {
  return "(3:tag(3:pkg7:install))";
}
// A complete entry with a comment, for the directory tests.
std::string EntryWithComment(const std::string& comment) {
  return "(5:entry(7:subject" + Key() + ")" + Tag() + "(7:comment" + Atom(comment) + "))";
}

struct Parsed {
  Result result;
  Ref<AclEntry> entry;
  int32_t left;  // bytes of the source not read
};

Parsed Read(const std::string& text) {
  SexpMemorySource source;
  EXPECT_EQ(source.AttachCopy(text.data(), text.size()), VELK2_SUCCESS);
  Parsed parsed{VELK2_FAILURE, AclEntry::New(), 0};
  parsed.result = ReadAclEntry(parsed.entry.get(), &source);
  parsed.left = source.length() - source.position();
  return parsed;
}

TEST(ReadAclEntry, FieldsInTheirOrder) {
  const std::string nb = "(10:not-before19:2026-01-01_00:00:00)";
  const std::string na = "(9:not-after19:2027-01-01_00:00:00)";
  struct Case {
    const char* name;
    std::string text;
    bool version, propagate, not_before, not_after, comment;
    uint32_t generation;
  };
  const std::vector<Case> cases = {
      {"minimal", "(5:entry(7:subject" + Key() + ")" + Tag() + ")", false, false, false, false,
       false, 0},
      {"version", "(5:entry(7:version1:1)(7:subject" + Key() + ")" + Tag() + ")", true, false,
       false, false, false, 0},
      {"propagate", "(5:entry(7:subject" + Key() + ")(9:propagate)" + Tag() + ")", false, true,
       false, false, false, 0},
      {"everything",
       "(5:entry(7:version1:1)(7:subject" + Key() + ")(9:propagate)" + Tag() + "(5:valid" + nb +
           na + ")(10:generation3:abc)(7:comment4:root))",
       true, true, true, true, true, 97},
      {"not-after only", "(5:entry(7:subject" + Key() + ")" + Tag() + "(5:valid" + na + "))", false,
       false, false, true, false, 0},
      {"empty valid", "(5:entry(7:subject" + Key() + ")" + Tag() + "(5:valid))", false, false,
       false, false, false, 0},
      {"empty generation", "(5:entry(7:subject" + Key() + ")" + Tag() + "(10:generation0:))", false,
       false, false, false, false, 0},
      {"generation only", "(5:entry(7:subject" + Key() + ")" + Tag() + "(10:generation1:z))", false,
       false, false, false, false, 'z'},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Parsed p = Read(c.text);
    ASSERT_EQ(p.result, VELK2_SUCCESS);
    const AclEntry& e = *p.entry;
    EXPECT_EQ(e.version() != nullptr, c.version);
    EXPECT_EQ(e.propagate(), c.propagate);
    EXPECT_EQ(e.not_before() != nullptr, c.not_before);
    EXPECT_EQ(e.not_after() != nullptr, c.not_after);
    EXPECT_EQ(e.comment() != nullptr, c.comment);
    EXPECT_EQ(e.generation(), c.generation);
    ASSERT_NE(e.subject(), nullptr);
    EXPECT_NE(PublicKey::From(e.subject()), nullptr);
    ASSERT_NE(e.tag(), nullptr);
    EXPECT_EQ(testing::CanonicalOf(*e.tag()), Tag());
    // A subject and tag alone leave the entry's ")" unread; a longer entry reads it.
    EXPECT_EQ(p.left, c.text.find("(5:valid") == std::string::npos &&
                              c.text.find("(10:gen") == std::string::npos &&
                              c.text.find("(7:comment") == std::string::npos
                          ? 1
                          : 0);
    if (p.left == 0) {
      // Read and written canonically, a complete entry is its input.
      EXPECT_EQ(testing::CanonicalOf(e), c.text);
    } else {
      EXPECT_EQ(testing::CanonicalOf(e), c.text.substr(0, c.text.size() - 1) + ")");
    }
  }
}

TEST(ReadAclEntry, RejectsBadEntries) {
  const std::string key = Key();
  struct Case {
    const char* name;
    std::string text;
    Result want;
  };
  const std::vector<Case> cases = {
      {"version 2", "(5:entry(7:version1:2)(7:subject" + key + ")" + Tag() + ")",
       VELK2_ERR_INVALID_DATA},
      {"not an entry", "(4:cert(7:subject" + key + ")" + Tag() + ")", VELK2_ERR_INVALID_DATA},
      {"issuer field", "(5:entry(6:issuer" + key + ")(7:subject" + key + ")" + Tag() + ")",
       VELK2_ERR_INVALID_DATA},
      {"other seven-byte field", "(5:entry(7:comment" + key + ")" + Tag() + ")",
       VELK2_ERR_INVALID_DATA},
      {"subject of another kind", "(5:entry(7:subject(3:foo))" + Tag() + ")", VELK2_ERR_PRINCIPAL},
      {"no tag", "(5:entry(7:subject" + key + "))", VELK2_ERR_INVALID_DATA},
      {"comment before valid",
       "(5:entry(7:subject" + key + ")" + Tag() + "(7:comment1:c)(5:valid))",
       VELK2_ERR_INVALID_DATA},
      {"unknown field", "(5:entry(7:subject" + key + ")" + Tag() + "(5:extra1:x))",
       VELK2_ERR_INVALID_DATA},
      {"valid not closed", "(5:entry(7:subject" + key + ")" + Tag() + "(5:valid(3:foo)))",
       VELK2_ERR_INVALID_DATA},
      {"generation holding a list",
       "(5:entry(7:subject" + key + ")" + Tag() + "(10:generation(1:a)))", VELK2_ERR_INVALID_DATA},
      {"comment over 8192 bytes",
       "(5:entry(7:subject" + key + ")" + Tag() + "(7:comment8193:" + std::string(8193, 'c') + "))",
       VELK2_ERR_MAX_BYTE_STRING},
      {"empty", "", VELK2_ERR_FILE_OPEN},
      {"truncated in the head", "(5:ent", VELK2_ERR_FILE_OPEN},
      {"truncated in the subject's key", "(5:entry(7:subject" + key.substr(0, 40),
       VELK2_ERR_PARSE_FILE},
      {"truncated in the tag", "(5:entry(7:subject" + key + ")(3:tag(3:pkg", VELK2_ERR_FILE_OPEN},
      {"truncated after the tag", "(5:entry(7:subject" + key + ")" + Tag(), VELK2_ERR_FILE_OPEN},
      {"truncated in a date",
       "(5:entry(7:subject" + key + ")" + Tag() + "(5:valid(10:not-before19:2026",
       VELK2_ERR_PARSE_FILE},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Read(c.text).result, c.want);
  }
}

TEST(ReadAclEntry, ArgumentChecks) {
  SexpMemorySource source;
  const std::string text = "(5:entry(7:subject" + Key() + ")" + Tag() + ")";
  ASSERT_EQ(source.AttachCopy(text.data(), text.size()), VELK2_SUCCESS);
  Ref<AclEntry> entry = AclEntry::New();
  EXPECT_EQ(ReadAclEntry(entry.get(), nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ReadAclEntry(nullptr, &source), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(entry->Parse(&source), VELK2_SUCCESS);
  // A filled entry is not read again.
  SexpMemorySource again;
  ASSERT_EQ(again.AttachCopy(text.data(), text.size()), VELK2_SUCCESS);
  EXPECT_EQ(ReadAclEntry(entry.get(), &again), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(entry->location(), kStoreGlobal);
  EXPECT_EQ(AclEntry::From(entry.get()), entry.get());
  EXPECT_EQ(AclEntry::From(SexpList::New().get()), nullptr);
}

// The store roots are process-wide: each test that sets one puts it back.
class GlobalDirectory : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(SetGlobalDirectory(global_.Wide().c_str()), VELK2_SUCCESS); }
  void TearDown() override { SetGlobalDirectory(u""); }
  std::string AclPath(const std::string& name) const { return global_.Sub("acl/" + name); }

  TempDir global_;
};

TEST_F(GlobalDirectory, EntryFileBareNameOrPath) {
  WriteFile(AclPath("user.acl"), EntryWithComment("global"));
  WriteFile(global_.Sub("elsewhere/user.acl"), EntryWithComment("path"));
  struct Case {
    const char* name;
    std::u16string file;
    Result want;
    std::string comment;
    std::u16string path;
  };
  const std::u16string global_user = global_.Wide("acl/user.acl");
  const std::vector<Case> cases = {
      {"bare name", u"user", VELK2_SUCCESS, "global", global_user},
      {"bare name with its extension", u"user.acl", VELK2_SUCCESS, "global", global_user},
      {"path", global_.Wide("elsewhere/user.acl"), VELK2_SUCCESS, "path",
       global_.Wide("elsewhere/user.acl")},
      // A path gets no extension: it is opened as it stands.
      {"path without extension", global_.Wide("elsewhere/user"), VELK2_ERR_FILE_OPEN, "",
       global_.Wide("elsewhere/user")},
      // A backslash makes a path too, so the Global store is not looked at.
      {"backslash", u"elsewhere\\user", VELK2_ERR_FILE_OPEN, "", u"elsewhere\\user"},
      {"missing", u"nobody", VELK2_ERR_FILE_OPEN, "", global_.Wide("acl/nobody.acl")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Ref<AclEntry> entry = AclEntry::New();
    EXPECT_EQ(LoadAclEntryFile(entry.get(), c.file.c_str()), c.want);
    EXPECT_EQ(entry->path(), c.path);
    if (c.want == VELK2_SUCCESS) {
      ASSERT_NE(entry->comment(), nullptr);
      EXPECT_EQ(entry->comment()->bytes(), c.comment);
    }
  }
  Ref<AclEntry> entry = AclEntry::New();
  EXPECT_EQ(LoadAclEntryFile(entry.get(), nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(LoadAclEntryFile(nullptr, u"user"), VELK2_ERR_INVALID_PARAM);
  // A file over the source limit cannot be read whole.
  WriteFile(AclPath("huge.acl"), std::string(kMaxSourceFileSize + 1, '('));
  EXPECT_EQ(LoadAclEntryFile(entry.get(), u"huge"), VELK2_ERR_FILE_OPEN);
  // A bad entry file gives the reader's code.
  WriteFile(AclPath("bad.acl"), "(5:entry(7:version1:2)(7:subject" + Key() + ")" + Tag() + ")");
  Ref<AclEntry> bad = AclEntry::New();
  EXPECT_EQ(LoadAclEntryFile(bad.get(), u"bad"), VELK2_ERR_INVALID_DATA);
}

// Directories are written one character per "*.acl" file, in name order:
// a, b or c a complete entry with that comment, t one cut before its last
// ")", 2 an entry of version 2, j an entry whose tag slot holds (junk pkg),
// f a FIFO. The comments of the entries loaded, in order, are a string of
// the same letters.
void WriteDirectory(const std::string& path, const std::string& files) {
  std::filesystem::create_directories(path);
  const std::string good = EntryWithComment("a");
  for (size_t i = 0; i < files.size(); ++i) {
    const char f = files[i];
    const std::string name = path + "/" + std::to_string(10 + i) + ".acl";
    if (f == 'f') {
      ASSERT_EQ(::mkfifo(name.c_str(), 0600), 0) << name;
      continue;
    }
    const std::string bytes =
        f == 't'   ? good.substr(0, good.size() - 2)
        : f == '2' ? "(5:entry(7:version1:2)(7:subject" + Key() + ")" + Tag() + ")"
        : f == 'j' ? "(5:entry(7:subject" + Key() + ")(4:junk(3:pkg))(7:comment1:j))"
                   : EntryWithComment(std::string(1, f));
    WriteFile(name, bytes);
  }
}

std::string Comments(const SexpList& acl) {
  std::string comments;
  for (size_t i = 0; i < acl.ChildCount(); ++i) {
    const AclEntry* entry = AclEntry::From(acl.ChildAt(i));
    // A loaded ACL starts with its name; everything else is an entry.
    EXPECT_TRUE(entry != nullptr || (i == 0 && !acl.ChildAt(0)->IsList()));
    if (entry != nullptr && entry->comment() != nullptr) comments += entry->comment()->bytes();
  }
  return comments;
}

TEST_F(GlobalDirectory, DirectoryScanKeepsTheLastFilesResult) {
  struct Case {
    const char* files;
    Result want;
    const char* comments;
  };
  const Case cases[] = {
      {"ab", VELK2_SUCCESS, "ab"},
      {"2b", VELK2_SUCCESS, "b"},  // version 2 skipped
      {"at", VELK2_ERR_FILE_OPEN, "a"},
      {"tb", VELK2_SUCCESS, "b"},
      {"a2", VELK2_ERR_INVALID_DATA, "a"},
      // A FIFO is skipped like any unreadable file, without waiting for a writer.
      {"fb", VELK2_SUCCESS, "b"},
      {"af", VELK2_ERR_FILE_OPEN, "a"},
      {"jb", VELK2_SUCCESS, "b"},
      {"aj", VELK2_ERR_AUTH_TAG_MISSING, "a"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.files);
    TempDir dir;
    WriteDirectory(dir.path(), c.files);
    Ref<SexpList> acl = SexpList::New();
    uint32_t count = 0;
    EXPECT_EQ(ReadAclDirectory(acl.get(), dir.Wide().c_str(), &count), c.want);
    EXPECT_EQ(count, std::string(c.comments).size());
    EXPECT_EQ(Comments(*acl), c.comments);
    for (size_t i = 0; i < acl->ChildCount(); ++i) {
      // Each entry was opened by its full path.
      EXPECT_EQ(AclEntry::From(acl->ChildAt(i))->path().rfind(dir.Wide(), 0), 0u);
    }
  }
  // Only "*.acl" files count; with none there is nothing to scan.
  TempDir dir;
  WriteFile(dir.Sub("a.acl"), EntryWithComment("a"));
  WriteFile(dir.Sub("z.txt"), EntryWithComment("z"));
  WriteFile(dir.Sub("zz.acl.bak"), EntryWithComment("z"));
  Ref<SexpList> acl = SexpList::New();
  EXPECT_EQ(ReadAclDirectory(acl.get(), dir.Wide().c_str(), nullptr), VELK2_SUCCESS);
  EXPECT_EQ(Comments(*acl), "a");
  std::filesystem::remove(dir.Sub("a.acl"));
  EXPECT_EQ(ReadAclDirectory(acl.get(), dir.Wide().c_str(), nullptr), VELK2_ERR_FILE_OPEN);
  EXPECT_EQ(ReadAclDirectory(acl.get(), nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ReadAclDirectory(nullptr, global_.Wide().c_str(), nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ReadAclDirectory(acl.get(), global_.Wide("missing").c_str(), nullptr),
            VELK2_ERR_FILE_OPEN);
}

// Without an extra directory a bad last file discards the good entries
// before it; with one, a good entry in either directory is enough.
TEST_F(GlobalDirectory, LoadAclRules) {
  struct Case {
    const char* name;
    const char* global;  // the files of Global/acl
    const char* extra;   // null: no extra directory
    Result want;
    const char* comments;
  };
  const Case cases[] = {
      {"one good entry", "a", nullptr, VELK2_SUCCESS, "a"},
      {"valid then truncated", "at", nullptr, VELK2_ERR_FILE_NOT_FOUND, ""},
      {"truncated then valid", "tb", nullptr, VELK2_SUCCESS, "b"},
      {"empty directory", "", nullptr, VELK2_ERR_FILE_NOT_FOUND, ""},
      {"empty directory, extra with one entry", "", "b", VELK2_SUCCESS, "b"},
      {"bad last file, extra good", "at", "b", VELK2_SUCCESS, "ab"},
      {"bad last file, extra empty", "at", "", VELK2_SUCCESS, "a"},
      {"extra's own last file bad", "a", "bt", VELK2_SUCCESS, "ab"},
      {"nothing good anywhere", "t", "t", VELK2_ERR_FILE_NOT_FOUND, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir global, extra;
    ASSERT_EQ(SetGlobalDirectory(global.Wide().c_str()), VELK2_SUCCESS);
    WriteDirectory(global.Sub("acl"), c.global);
    if (c.extra != nullptr) WriteDirectory(extra.path(), c.extra);
    Ref<SexpList> acl;
    const std::u16string extra_path = extra.Wide();
    EXPECT_EQ(LoadAcl(&acl, nullptr, c.extra ? extra_path.c_str() : nullptr), c.want);
    EXPECT_EQ(acl == nullptr, c.want != VELK2_SUCCESS);
    if (acl) {
      ASSERT_GE(acl->ChildCount(), 1u);
      EXPECT_TRUE(acl->FirstChild()->AsAtom()->AtomEqualsText("acl"));
      EXPECT_EQ(Comments(*acl), c.comments);
      EXPECT_EQ(acl->ref_count(), 1);
    }
  }
  // A missing Global directory is no different from an empty one.
  ASSERT_EQ(SetGlobalDirectory(global_.Wide("missing").c_str()), VELK2_SUCCESS);
  Ref<SexpList> none;
  EXPECT_EQ(LoadAcl(&none, nullptr, nullptr), VELK2_ERR_FILE_NOT_FOUND);
  Ref<SexpList> taken = SexpList::New();
  EXPECT_EQ(LoadAcl(&taken, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(LoadAcl(nullptr, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(LoadAclFromDirectory(&none, nullptr, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
}

// The engine reads an entry without a tag as granting whatever is asked, so
// a list in the tag slot that is not a tag must never load.
TEST(ReadAclEntry, TagSlotHoldsATag) {
  struct Case {
    const char* tag;
    Result want;
  };
  const Case kCases[] = {
      {"(3:tag(3:pkg))", VELK2_SUCCESS},
      {"(3:tag(1:*))", VELK2_SUCCESS},
      {"(4:junk(3:pkg))", VELK2_ERR_AUTH_TAG_MISSING},
      {"(5:valid(9:not-after19:2099-01-01_00:00:00))", VELK2_ERR_AUTH_TAG_MISSING},
      {"(4:tags(3:pkg))", VELK2_ERR_AUTH_TAG_MISSING},
      {"(2:ta(3:pkg))", VELK2_ERR_AUTH_TAG_MISSING},
      {"([bin]3:tag(3:pkg))", VELK2_ERR_AUTH_TAG_MISSING},
      {"((3:tag)(3:pkg))", VELK2_ERR_AUTH_TAG_MISSING},
      {"()", VELK2_ERR_AUTH_TAG_MISSING},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.tag);
    Parsed p = Read("(5:entry(7:subject" + Key() + ")(9:propagate)" + c.tag + ")");
    EXPECT_EQ(p.result, c.want);
  }
}

TEST_F(GlobalDirectory, EntryWithoutATagAuthorizesNothing) {
  // Key 0 holds (pkg install) through a good entry; key 1's entry has no tag.
  WriteFile(AclPath("0.acl"), "(5:entry(7:subject" + KeyText(TestKey(1)) + ")(4:junk(3:pkg)))");
  WriteFile(AclPath("1.acl"), EntryWithComment("good"));
  Ref<SexpList> acl;
  ASSERT_EQ(LoadAcl(&acl, nullptr, nullptr), VELK2_SUCCESS);
  EXPECT_EQ(Comments(*acl), "good");
  Ref<SexpList> sequence;
  ASSERT_EQ(NewKeywordList(&sequence, "sequence", nullptr), VELK2_SUCCESS);
  for (const char* asked : {"(pkg install)", "(anything)"}) {
    SCOPED_TRACE(asked);
    Ref<SexpList> tag = testing::TagList(asked);
    EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), sequence.get(), testing::PublicKeyList(1).get(),
                           tag.get(), nullptr),
              VELK2_ERR_NOT_AUTHORIZED);
  }
  Ref<SexpList> install = testing::TagList("(pkg install)");
  EXPECT_EQ(AuthorizeKey(nullptr, acl.get(), sequence.get(), testing::PublicKeyList(0).get(),
                         install.get(), nullptr),
            VELK2_SUCCESS);
}

TEST(ExtractEntryTag, ReadsTheFirstEntrysTag) {
  struct Case {
    const char* name;
    std::string text;
    Result want;
    std::string tag;  // canonical form of what was read
  };
  const std::string subject = "(7:subject(10:public-key3:abc))";
  const std::string tag = "(3:tag(3:pkg7:install))";
  const std::vector<Case> cases = {
      {"plain", "(3:acl(5:entry" + subject + tag + "))", VELK2_SUCCESS, tag},
      {"propagate dropped", "(3:acl(5:entry" + subject + "(9:propagate)" + tag + "))",
       VELK2_SUCCESS, tag},
      {"only the digit is looked at", "(3:acl(5:entry" + subject + "(9:somethingx)" + tag + "))",
       VELK2_SUCCESS, tag},
      {"first of two entries",
       "(3:acl(5:entry" + subject + tag + ")(5:entry" + subject + "(3:tag(1:x))))", VELK2_SUCCESS,
       tag},
      // Kept: no version is expected, so a version field shifts every element by one.
      {"version quirk", "(3:acl(5:entry(7:version1:1)" + subject + tag + "))", VELK2_SUCCESS,
       subject},
      {"empty ACL", "(3:acl)", VELK2_ERR_UNEXPECTED_CHAR, ""},
      {"shorter than the head", "(3:acl(5:en", VELK2_ERR_BUFFER_OVERFLOW, ""},
      {"another head", "(3:acl(5:entrx" + subject + tag + "))", VELK2_ERR_UNEXPECTED_CHAR, ""},
      {"no tag", "(3:acl(5:entry" + subject, VELK2_ERR_INVALID_S_EXPRESSION, ""},
      {"truncated tag", "(3:acl(5:entry" + subject + "(3:tag(3:pk", VELK2_ERR_BUFFER_OVERFLOW, ""},
      {"tag not closed", "(3:acl(5:entry" + subject + "(3:tag(3:pkg)",
       VELK2_ERR_INVALID_S_EXPRESSION, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Ref<SexpList> out;
    EXPECT_EQ(ExtractEntryTag(&out, c.text.data(), c.text.size(), nullptr), c.want);
    EXPECT_EQ(out == nullptr, c.want != VELK2_SUCCESS);
    if (out) {
      EXPECT_EQ(testing::CanonicalOf(*out), c.tag);
    }
  }
  const std::string text = "(3:acl(5:entry" + subject + tag + "))";
  Ref<SexpList> out;
  EXPECT_EQ(ExtractEntryTag(&out, nullptr, 5, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ExtractEntryTag(&out, text.data(), 0, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ExtractEntryTag(nullptr, text.data(), text.size(), nullptr), VELK2_ERR_INVALID_PARAM);
  Ref<SexpList> taken = SexpList::New();
  EXPECT_EQ(ExtractEntryTag(&taken, text.data(), text.size(), nullptr), VELK2_ERR_INVALID_PARAM);
  // The length bounds the reading, not a terminating NUL.
  EXPECT_EQ(ExtractEntryTag(&out, text.data(), text.size() - 4, nullptr),
            VELK2_ERR_INVALID_S_EXPRESSION);
}

TEST(IssuingAclEntry, WritesEntriesTheReaderLoads) {
  TempDir dir;
  issuing::AclEntryRequest request;
  request.subject = testing::PublicKeyList(0);
  request.tag = testing::TagList("(pkg (* set install remove))");
  Ref<SexpList> entry;
  ASSERT_EQ(issuing::MakeAclEntry(request, &entry), VELK2_SUCCESS);
  const std::string path = dir.Sub("minimal.acl");
  ASSERT_EQ(issuing::WriteAclEntry(path, *entry, false), VELK2_SUCCESS);
  Ref<AclEntry> read = AclEntry::New();
  ASSERT_EQ(LoadAclEntryFile(read.get(), dir.Wide("minimal.acl").c_str()), VELK2_SUCCESS);
  EXPECT_NE(read->version(), nullptr);
  EXPECT_FALSE(read->propagate());
  EXPECT_EQ(read->not_before(), nullptr);
  EXPECT_EQ(testing::CanonicalOf(*read), testing::CanonicalOf(*entry));

  request.propagate = true;
  request.version = false;
  request.not_before = 1767225600;  // 2026-01-01_00:00:00
  request.not_after = 1798761600;   // 2027-01-01_00:00:00
  request.comment = "release signers";
  request.subject = nullptr;
  ASSERT_EQ(issuing::MakeHashPrincipal(*testing::PublicKeyList(1), &entry), VELK2_SUCCESS);
  request.subject = entry;
  Ref<SexpList> full;
  ASSERT_EQ(issuing::MakeAclEntry(request, &full), VELK2_SUCCESS);
  // Never replaced without being asked to.
  EXPECT_EQ(issuing::WriteAclEntry(path, *full, false), VELK2_ERR_PARAM_NOT_NULL);
  ASSERT_EQ(issuing::WriteAclEntry(path, *full, true), VELK2_SUCCESS);
  Ref<AclEntry> again = AclEntry::New();
  ASSERT_EQ(LoadAclEntryFile(again.get(), dir.Wide("minimal.acl").c_str()), VELK2_SUCCESS);
  EXPECT_EQ(again->version(), nullptr);
  EXPECT_TRUE(again->propagate());
  EXPECT_NE(HashValue::From(again->subject()), nullptr);
  EXPECT_EQ(AtomText(again->not_before()), "2026-01-01_00:00:00");
  EXPECT_EQ(AtomText(again->not_after()), "2027-01-01_00:00:00");
  EXPECT_EQ(AtomText(again->comment()), "release signers");

  // What the reader would not load is never written.
  Ref<SexpList> unreadable = testing::ListFromText("(5:entry(7:subject(3:foo))(3:tag))");
  EXPECT_EQ(issuing::WriteAclEntry(dir.Sub("bad.acl"), *unreadable, false), VELK2_ERR_PRINCIPAL);
  Ref<SexpList> extra =
      testing::ListFromText("(5:entry(7:subject" + Key() + ")" + Tag() + "(5:extra))");
  EXPECT_EQ(issuing::WriteAclEntry(dir.Sub("bad.acl"), *extra, false), VELK2_ERR_INVALID_DATA);
  EXPECT_FALSE(std::filesystem::exists(dir.Sub("bad.acl")));
  issuing::AclEntryRequest incomplete;
  incomplete.tag = testing::TagList("(x)");
  Ref<SexpList> none;
  EXPECT_EQ(issuing::MakeAclEntry(incomplete, &none), VELK2_ERR_INVALID_PARAM);
  incomplete.subject = testing::PublicKeyList(0);
  incomplete.tag = nullptr;
  EXPECT_EQ(issuing::MakeAclEntry(incomplete, &none), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(none, nullptr);
}

}  // namespace
}  // namespace velk2
