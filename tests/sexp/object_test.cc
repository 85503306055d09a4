// The object model: reference counting, list operations, atom values,
// keyword lists, digests, equality and the whole-object writers.
#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "frame/paths.h"
#include "platform/utf.h"
#include "sexp/object.h"
#include "sexp_test_util.h"

namespace velk2 {
namespace {

using testing::CanonicalOf;
using testing::MakeAtom;
using testing::ParseList;
using testing::StoredOf;

// An atom that counts how many of its kind are alive, so that the tests see
// destruction happen (or not) without looking at reference counts.
class CountedAtom : public SexpAtom {
 public:
  CountedAtom() { ++live; }
  static inline int live = 0;

 protected:
  ~CountedAtom() override { --live; }
};

class CountedList : public SexpList {
 public:
  CountedList() { ++live; }
  static inline int live = 0;

 protected:
  ~CountedList() override { --live; }
};

TEST(SexpRefCount, AppendHandsTheReferenceToTheList) {
  CountedAtom::live = 0;
  {
    Ref<SexpList> list = SexpList::New();
    Ref<CountedAtom> atom = MakeRef<CountedAtom>();
    ASSERT_EQ(list->Append(std::move(atom)), VELK2_SUCCESS);
    EXPECT_EQ(atom, nullptr);
    EXPECT_EQ(CountedAtom::live, 1);
  }
  // Had Append added a reference of its own, the atom would outlive the list.
  EXPECT_EQ(CountedAtom::live, 0);
}

TEST(SexpRefCount, RemoveHandsTheReferenceBack) {
  CountedAtom::live = 0;
  Ref<SexpObject> taken;
  {
    Ref<SexpList> list = SexpList::New();
    Ref<CountedAtom> atom = MakeRef<CountedAtom>();
    SexpObject* raw = atom.get();
    ASSERT_EQ(list->Append(std::move(atom)), VELK2_SUCCESS);
    ASSERT_EQ(list->RemoveChild(raw, &taken), VELK2_SUCCESS);
    EXPECT_EQ(list->ChildCount(), 0u);
  }
  EXPECT_EQ(CountedAtom::live, 1);  // the list is gone, the removed child lives on
  taken.reset();
  EXPECT_EQ(CountedAtom::live, 0);

  // Without a receiver the removed reference is dropped.
  Ref<SexpList> list = SexpList::New();
  Ref<CountedAtom> atom = MakeRef<CountedAtom>();
  SexpObject* raw = atom.get();
  ASSERT_EQ(list->Append(std::move(atom)), VELK2_SUCCESS);
  ASSERT_EQ(list->RemoveChild(raw), VELK2_SUCCESS);
  EXPECT_EQ(CountedAtom::live, 0);
}

TEST(SexpRefCount, ReleaseDestroysOnlyAtTheLastReference) {
  CountedList::live = 0;
  Ref<CountedList> first = MakeRef<CountedList>();
  Ref<CountedList> second = first;  // count 2
  first.reset();
  EXPECT_EQ(CountedList::live, 1);
  second.reset();
  EXPECT_EQ(CountedList::live, 0);
}

TEST(SexpRefCount, DestroyingAListReleasesEveryChildOnce) {
  CountedAtom::live = 0;
  CountedList::live = 0;
  Ref<CountedAtom> shared = MakeRef<CountedAtom>();
  {
    Ref<CountedList> outer = MakeRef<CountedList>();
    Ref<CountedList> inner = MakeRef<CountedList>();
    ASSERT_EQ(inner->Append(Ref<CountedAtom>(shared)), VELK2_SUCCESS);
    ASSERT_EQ(outer->Append(Ref<CountedAtom>(shared)), VELK2_SUCCESS);
    ASSERT_EQ(outer->Append(std::move(inner)), VELK2_SUCCESS);
    EXPECT_EQ(CountedList::live, 2);
    outer->ClearChildren();
    EXPECT_EQ(CountedList::live, 1);
    EXPECT_EQ(outer->FirstChild(), nullptr);
    ASSERT_EQ(outer->Append(MakeRef<CountedList>()), VELK2_SUCCESS);
  }
  EXPECT_EQ(CountedList::live, 0);
  EXPECT_EQ(CountedAtom::live, 1);  // still held here
  shared.reset();
  EXPECT_EQ(CountedAtom::live, 0);
}

TEST(SexpList, AppendAndRemoveFailures) {
  Ref<SexpList> list = SexpList::New();
  Ref<SexpAtom> none;
  EXPECT_EQ(list->Append(std::move(none)), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(list->ChildCount(), 0u);

  Ref<SexpAtom> stranger = MakeAtom("x");
  EXPECT_EQ(list->RemoveChild(nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(list->RemoveChild(stranger.get()), VELK2_ERR_NOT_IN_LIST);  // empty list
  ASSERT_EQ(list->AppendTextAtom("a"), VELK2_SUCCESS);
  EXPECT_EQ(list->RemoveChild(stranger.get()), VELK2_ERR_NOT_IN_LIST);  // not a child
  EXPECT_EQ(list->ChildCount(), 1u);
}

TEST(SexpList, RemoveTakesTheFirstOccurrenceOnly) {
  Ref<SexpList> list = SexpList::New();
  Ref<SexpAtom> twice = MakeAtom("t");
  ASSERT_EQ(list->AppendTextAtom("a"), VELK2_SUCCESS);
  ASSERT_EQ(list->Append(Ref<SexpAtom>(twice)), VELK2_SUCCESS);
  ASSERT_EQ(list->AppendTextAtom("b"), VELK2_SUCCESS);
  ASSERT_EQ(list->Append(Ref<SexpAtom>(twice)), VELK2_SUCCESS);
  ASSERT_EQ(list->RemoveChild(twice.get()), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "(1:a1:b1:t)");
  EXPECT_EQ(list->LastChild(), twice.get());
}

TEST(SexpList, AppendTextAtomRejects) {
  Ref<SexpList> list = SexpList::New();
  EXPECT_EQ(list->AppendTextAtom(nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list->AppendTextAtom(""), VELK2_ERR_INVALID_PARAM);
  std::string long_text(kMaxAtomLength + 1, 'x');
  EXPECT_EQ(list->AppendTextAtom(long_text.c_str()), VELK2_ERR_MAX_BYTE_STRING);
  EXPECT_EQ(list->ChildCount(), 0u);
}

TEST(SexpAtom, SetAtomValueLimits) {
  struct Case {
    uint32_t length;
    bool null_data;
    Result want;
  };
  const Case kCases[] = {
      {1, false, VELK2_SUCCESS},
      {kMaxAtomLength, false, VELK2_SUCCESS},
      {kMaxAtomLength + 1, false, VELK2_ERR_MAX_BYTE_STRING},
      {0, false, VELK2_ERR_INVALID_PARAM},
      {5, true, VELK2_ERR_INVALID_PARAM},
  };
  std::string bytes(kMaxAtomLength + 1, 'q');
  for (const Case& c : kCases) {
    Ref<SexpAtom> atom = MakeAtom("old");
    Result got = atom->SetAtomValue(c.null_data ? nullptr : bytes.data(), c.length, kHintUtf8);
    EXPECT_EQ(got, c.want) << c.length;
    if (got == VELK2_SUCCESS) {
      EXPECT_EQ(atom->bytes(), std::string_view(bytes.data(), c.length));
      EXPECT_EQ(atom->hint(), kHintUtf8);
    } else {
      EXPECT_EQ(atom->bytes(), "old");  // a refused value leaves the atom alone
    }
  }
}

TEST(SexpAtom, SetAtomValueReusesACloseBuffer) {
  Ref<SexpAtom> atom = MakeAtom("abcdefghij");  // 10 bytes
  const uint8_t* kept = atom->data();
  ASSERT_EQ(atom->SetAtomValue("xyz", 3), VELK2_SUCCESS);  // 10 < 3 + 8: kept
  EXPECT_EQ(atom->data(), kept);
  EXPECT_EQ(atom->bytes(), "xyz");
  ASSERT_EQ(atom->SetAtomValue("abcdefghijklmnopqrst", 20), VELK2_SUCCESS);  // grows
  EXPECT_EQ(atom->bytes(), "abcdefghijklmnopqrst");
  ASSERT_EQ(atom->SetAtomValue("uv", 2), VELK2_SUCCESS);  // 20 >= 2 + 8: a fresh buffer
  EXPECT_EQ(atom->bytes(), "uv");
}

TEST(SexpAtom, AtomEqualsText) {
  Ref<SexpAtom> atom = MakeAtom("cert");
  EXPECT_TRUE(atom->AtomEqualsText("cert"));
  EXPECT_FALSE(atom->AtomEqualsText("cer"));
  EXPECT_FALSE(atom->AtomEqualsText("certs"));
  EXPECT_FALSE(atom->AtomEqualsText("CERT"));
  EXPECT_FALSE(atom->AtomEqualsText(nullptr));
  Ref<SexpAtom> empty = SexpAtom::New();
  EXPECT_TRUE(empty->AtomEqualsText(""));
  Ref<SexpAtom> embedded = MakeAtom(std::string_view("ab\0c", 4));
  EXPECT_FALSE(embedded->AtomEqualsText("ab"));
}

TEST(SexpAtom, AtomAsWideConvertsUtf8) {
  Ref<SexpAtom> atom = MakeAtom("h\xC3\xA9llo");
  CBuffer<char16_t> wide = atom->AtomAsWide();
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(std::u16string(wide.get()), u"h\u00E9llo");
  Ref<SexpAtom> bad = MakeAtom("a\xFF");
  wide = bad->AtomAsWide();
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(std::u16string(wide.get()), u"a\uFFFD");
  Ref<SexpAtom> empty = SexpAtom::New();
  wide = empty->AtomAsWide();
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(wide.get()[0], 0);
}

TEST(SexpKeywordList, Variants) {
  Velk2Context context{7};
  Ref<SexpList> list;
  ASSERT_EQ(NewKeywordList(&list, "acl", &context), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "(3:acl)");
  EXPECT_EQ(list->FirstChild()->context(), &context);  // the atom shares the list's context

  list.reset();
  ASSERT_EQ(NewKeywordListWithText(&list, "version", "1", nullptr), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "(7:version1:1)");

  list.reset();
  Ref<SexpList> inner = ParseList("(4:hash)");
  ASSERT_EQ(NewKeywordListWithChild(&list, "subject", std::move(inner), nullptr), VELK2_SUCCESS);
  EXPECT_EQ(inner, nullptr);
  EXPECT_EQ(CanonicalOf(*list), "(7:subject(4:hash))");

  list.reset();
  ASSERT_EQ(NewKeywordListWithChild(&list, "propagate", Ref<SexpObject>(), nullptr), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "(9:propagate)");

  // Failures leave the out-pointer null.
  EXPECT_EQ(NewKeywordList(&list, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(NewKeywordListWithText(&list, "version", nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list, nullptr);
}

std::string Sha256Of(std::string_view bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
  return std::string(reinterpret_cast<char*>(digest), sizeof(digest));
}

TEST(SexpHash, ComputeHashDigestsTheStoredOrCanonicalForm) {
  const char kText[] = "(4:cert([bin]3:abc)([num]1:\x02)0:)";
  Ref<SexpList> list = ParseList(std::string_view(kText, sizeof(kText) - 1));
  ASSERT_NE(list, nullptr);
  struct Case {
    bool skip_hints;
    std::string want_input;
  };
  const Case kCases[] = {{false, StoredOf(*list)}, {true, CanonicalOf(*list)}};
  EXPECT_NE(kCases[0].want_input, kCases[1].want_input);
  for (const Case& c : kCases) {
    CBuffer<uint8_t> digest;
    uint32_t length = 0;
    ASSERT_EQ(ComputeHash(list.get(), &digest, &length, ZCRY_HASH_SHA256, c.skip_hints),
              VELK2_SUCCESS);
    ASSERT_EQ(length, 32u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(digest.get()), length), Sha256Of(c.want_input));
  }
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  ASSERT_EQ(ComputeHash(list.get(), &digest, &length, ZCRY_HASH_SHA1, true), VELK2_SUCCESS);
  EXPECT_EQ(length, 20u);
}

TEST(SexpHash, ComputeHashFailures) {
  Ref<SexpList> list = ParseList("(1:a)");
  uint32_t length = 99;
  CBuffer<uint8_t> taken(static_cast<uint8_t*>(std::malloc(4)));
  uint8_t* before = taken.get();
  EXPECT_EQ(ComputeHash(list.get(), &taken, &length, ZCRY_HASH_SHA256, true),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(taken.get(), before);  // left alone

  CBuffer<uint8_t> digest;
  Result unknown = ComputeHash(list.get(), &digest, &length, 1, true);
  EXPECT_NE(unknown, VELK2_SUCCESS);
  EXPECT_EQ(digest, nullptr);
  EXPECT_EQ(ComputeHash(nullptr, &digest, &length, ZCRY_HASH_SHA256, true), VELK2_ERR_PARAM_NULL);
}

TEST(SexpHash, SameCanonicalForm) {
  Ref<SexpAtom> hinted = MakeAtom("abc", kHintBin);
  Ref<SexpAtom> plain = MakeAtom("abc");
  Ref<SexpAtom> other = MakeAtom("abd");
  EXPECT_TRUE(SameCanonicalForm(hinted.get(), plain.get()));  // hints are skipped
  EXPECT_FALSE(SameCanonicalForm(plain.get(), other.get()));
  EXPECT_FALSE(SameCanonicalForm(plain.get(), nullptr));
  EXPECT_FALSE(SameCanonicalForm(nullptr, plain.get()));
  Ref<SexpList> a = ParseList("(4:hash4:sha1)");
  Ref<SexpList> b = ParseList("(4:hash[utf-8]4:sha1)");
  Ref<SexpList> c = ParseList("(4:hash(4:sha1))");
  EXPECT_TRUE(SameCanonicalForm(a.get(), b.get()));
  EXPECT_FALSE(SameCanonicalForm(a.get(), c.get()));
}

TEST(SexpWholeWriters, ToCanonicalBuffer) {
  const std::string kText = "(4:cert(6:issuer(4:hash))0:([bin]2:\x01\x02))";
  Ref<SexpList> list = ParseList(kText);
  CBuffer<uint8_t> buffer;
  uint32_t size = 0;
  ASSERT_EQ(ToCanonicalBuffer(list.get(), &buffer, &size), VELK2_SUCCESS);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.get()), size),
            "(4:cert(6:issuer(4:hash))0:(2:\x01\x02))");
  EXPECT_EQ(size, list->CanonicalLength());
  // An occupied out-pointer is refused and left alone.
  uint8_t* before = buffer.get();
  EXPECT_EQ(ToCanonicalBuffer(list.get(), &buffer, &size), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(buffer.get(), before);

  Ref<SexpList> empty = SexpList::New();
  CBuffer<uint8_t> empty_buffer;
  ASSERT_EQ(ToCanonicalBuffer(empty.get(), &empty_buffer, &size), VELK2_SUCCESS);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(empty_buffer.get()), size), "()");
}

TEST(SexpWholeWriters, ToAdvancedTextCutsTheKeyword) {
  Ref<SexpList> hash = ParseList("(4:hash4:sha11:X)");
  Ref<SexpList> only = ParseList("(4:hash)");
  Ref<SexpList> tag = ParseList("(3:tag(3:ftp1:x))");
  struct Case {
    const SexpObject* object;
    const char* keyword;
    const char* want;  // null: no text
  };
  const Case kCases[] = {
      {hash.get(), "hash", "sha1 X"},
      {hash.get(), "has", nullptr},  // no space after the keyword
      {hash.get(), "sha1", nullptr},
      {hash.get(), "", "hash sha1 X"},
      {hash.get(), nullptr, "(hash sha1 X)"},
      {hash.get(), "hash sha1 X and more", nullptr},
      {only.get(), "hash", nullptr},  // not longer than the keyword + 2
      {tag.get(), "tag", "(ftp x)"},
      {hash->FirstChild(), nullptr, "hash"},
      {hash->FirstChild(), "", nullptr},
  };
  for (const Case& c : kCases) {
    CBuffer<char> got = ToAdvancedText(c.object, c.keyword);
    if (c.want == nullptr) {
      EXPECT_EQ(got, nullptr) << (c.keyword ? c.keyword : "(null)");
    } else {
      ASSERT_NE(got, nullptr) << c.want;
      EXPECT_STREQ(got.get(), c.want);
    }
  }
  CBuffer<char16_t> wide = ToAdvancedTextWide(tag.get(), "tag");
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(std::u16string(wide.get()), u"(ftp x)");
  EXPECT_EQ(ToAdvancedTextWide(hash.get(), "has"), nullptr);
}

// A list kind with store names, as the credential classes have.
class StoredKind : public SexpList {
 public:
  const char16_t* StoreSubdirectory() const override { return u"cert"; }
  const char16_t* FileExtension() const override { return u".cert"; }
};

class SexpStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ =
        std::filesystem::temp_directory_path() / ("velk2_sexp_store_" + std::to_string(::getpid()));
    std::filesystem::remove_all(root_);
    std::filesystem::create_directories(root_ / "home");
    std::filesystem::create_directories(root_ / "global");
    ASSERT_EQ(SetHomeDirectory(Utf8ToUtf16((root_ / "home").string()).c_str()), VELK2_SUCCESS);
    ASSERT_EQ(SetGlobalDirectory(Utf8ToUtf16((root_ / "global").string()).c_str()), VELK2_SUCCESS);
  }
  void TearDown() override {
    SetHomeDirectory(u"");
    SetGlobalDirectory(u"");
    std::filesystem::remove_all(root_);
  }
  std::filesystem::path root_;
};

TEST_F(SexpStoreTest, SetFilePathFollowsTheLocation) {
  Ref<StoredKind> object = MakeRef<StoredKind>();
  EXPECT_EQ(object->file_path(), nullptr);
  EXPECT_EQ(object->SetFilePath(nullptr), VELK2_ERR_INVALID_PARAM);
  struct Case {
    uint32_t location;
    const char16_t* name;
    std::string want;
  };
  const Case kCases[] = {
      {kStoreHome, u"x", (root_ / "home/cert/x.cert").string()},
      {kStoreGlobal, u"dir/x.CERT", (root_ / "global/cert/x.CERT").string()},
      {kStoreVerbatim, u"some/where/y", "some/where/y.cert"},
  };
  for (const Case& c : kCases) {
    object->SetLocation(c.location);
    ASSERT_EQ(object->SetFilePath(c.name), VELK2_SUCCESS);
    ASSERT_NE(object->file_path(), nullptr);
    EXPECT_EQ(Utf16ToUtf8(object->file_path()), c.want);
  }
  // A plain list has no store names: the name is taken as it stands.
  Ref<SexpList> plain = SexpList::New();
  ASSERT_EQ(plain->SetFilePath(u"plain"), VELK2_SUCCESS);
  EXPECT_EQ(std::u16string(plain->file_path()), u"plain");
  // A failure leaves no path behind.
  object->SetLocation(kStoreHome);
  std::u16string too_long(400, u'n');
  EXPECT_EQ(object->SetFilePath(too_long.c_str()), VELK2_ERR_MEM_ALLOC);
  EXPECT_EQ(object->file_path(), nullptr);
}

TEST_F(SexpStoreTest, EnsureStoreDirectory) {
  Ref<StoredKind> object = MakeRef<StoredKind>();
  object->SetLocation(kStoreGlobal);
  EXPECT_EQ(object->EnsureStoreDirectory(), VELK2_SUCCESS);
  EXPECT_TRUE(std::filesystem::is_directory(root_ / "global/cert"));
  EXPECT_FALSE(std::filesystem::exists(root_ / "home/cert"));
  object->SetLocation(kStoreHome);
  EXPECT_EQ(object->EnsureStoreDirectory(), VELK2_SUCCESS);
  EXPECT_TRUE(std::filesystem::is_directory(root_ / "home/cert"));
  object->SetLocation(kStoreVerbatim);
  EXPECT_EQ(object->EnsureStoreDirectory(), VELK2_SUCCESS);
  object->SetLocation(7);
  EXPECT_EQ(object->EnsureStoreDirectory(), VELK2_ERR_FIND_DIR);
  // A root that is a file cannot hold the directory.
  std::filesystem::remove_all(root_ / "home");
  {
    std::FILE* f = std::fopen((root_ / "home").c_str(), "w");
    std::fclose(f);
  }
  object->SetLocation(kStoreHome);
  EXPECT_EQ(object->EnsureStoreDirectory(), VELK2_ERR_FILE_OPEN);
}

}  // namespace
}  // namespace velk2
