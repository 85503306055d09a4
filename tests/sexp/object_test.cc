// The object model: reference counting, list operations, atom values,
// keyword lists, digests, equality and the whole-object writers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>

#include "frame/paths.h"
#include "platform/utf.h"
#include "platform/zcry_test_util.h"
#include "sexp/object.h"
#include "sexp_test_util.h"

namespace velk2 {
namespace {

using testing::CanonicalOf;
using testing::MakeAtom;
using testing::ParseList;
using testing::StoredOf;

// An atom or list that counts how many of its kind are alive, so that the
// tests see destruction happen (or not) without looking at reference counts.
template <typename Base>
class Counted : public Base {
 public:
  Counted() { ++live; }
  static inline int live = 0;

 protected:
  ~Counted() override { --live; }
};
using CountedAtom = Counted<SexpAtom>;
using CountedList = Counted<SexpList>;

TEST(SexpRefCount, AppendHandsTheReferenceToTheListAndRemoveHandsItBack) {
  Ref<SexpObject> taken;
  {
    Ref<SexpList> list = SexpList::New();
    Ref<CountedAtom> atom = MakeRef<CountedAtom>(), dropped = MakeRef<CountedAtom>();
    SexpObject* raw = atom.get();
    SexpObject* raw_dropped = dropped.get();
    ASSERT_EQ(list->Append(std::move(atom)), VELK2_SUCCESS);
    ASSERT_EQ(list->Append(std::move(dropped)), VELK2_SUCCESS);
    EXPECT_EQ(atom, nullptr);
    EXPECT_EQ(CountedAtom::live, 2);
    ASSERT_EQ(list->RemoveChild(raw, &taken), VELK2_SUCCESS);
    // Without a receiver the removed reference is dropped.
    ASSERT_EQ(list->RemoveChild(raw_dropped), VELK2_SUCCESS);
    EXPECT_EQ(CountedAtom::live, 1);
    EXPECT_EQ(list->ChildCount(), 0u);
    ASSERT_EQ(list->Append(MakeRef<CountedAtom>()), VELK2_SUCCESS);
  }
  // Had Append added a reference of its own, the atom would outlive the list.
  EXPECT_EQ(CountedAtom::live, 1);  // the list is gone, the removed child lives on
  taken.reset();
  EXPECT_EQ(CountedAtom::live, 0);
}

TEST(SexpRefCount, DestroyingAListReleasesEveryChildOnce) {
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
  EXPECT_EQ(CountedAtom::live, 1);  // still held here: released only at the last reference
  shared.reset();
  EXPECT_EQ(CountedAtom::live, 0);
}

TEST(SexpList, AppendAndRemoveFailuresAndTheFirstOccurrence) {
  Ref<SexpList> list = SexpList::New();
  Ref<SexpAtom> none;
  EXPECT_EQ(list->Append(std::move(none)), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(list->AppendTextAtom(nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list->AppendTextAtom(""), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list->AppendTextAtom(std::string(kMaxAtomLength + 1, 'x').c_str()),
            VELK2_ERR_MAX_BYTE_STRING);
  EXPECT_EQ(list->ChildCount(), 0u);

  Ref<SexpAtom> twice = MakeAtom("t");
  EXPECT_EQ(list->RemoveChild(nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(list->RemoveChild(twice.get()), VELK2_ERR_NOT_IN_LIST);  // empty list
  ASSERT_EQ(list->AppendTextAtom("a"), VELK2_SUCCESS);
  EXPECT_EQ(list->RemoveChild(twice.get()), VELK2_ERR_NOT_IN_LIST);  // not a child
  ASSERT_EQ(list->Append(Ref<SexpAtom>(twice)), VELK2_SUCCESS);
  ASSERT_EQ(list->AppendTextAtom("b"), VELK2_SUCCESS);
  ASSERT_EQ(list->Append(Ref<SexpAtom>(twice)), VELK2_SUCCESS);
  ASSERT_EQ(list->RemoveChild(twice.get()), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "(1:a1:b1:t)");
  EXPECT_EQ(list->LastChild(), twice.get());
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
    EXPECT_EQ(atom->SetAtomValue(c.null_data ? nullptr : bytes.data(), c.length, kHintUtf8), c.want)
        << c.length;
    // A refused value leaves the atom alone.
    const bool set = c.want == VELK2_SUCCESS;
    EXPECT_EQ(atom->bytes(), set ? std::string_view(bytes.data(), c.length) : "old");
    EXPECT_EQ(atom->hint(), set ? kHintUtf8 : kHintNone);
  }
  // A close buffer is kept (10 < 3 + 8), a larger or a far smaller value gets a
  // fresh one; the bytes follow either way.
  Ref<SexpAtom> atom = MakeAtom("abcdefghij");
  const uint8_t* kept = atom->data();
  for (std::string_view value : {"xyz", "abcdefghijklmnopqrst", "uv"}) {
    ASSERT_EQ(atom->SetAtomValue(value.data(), static_cast<uint32_t>(value.size())), VELK2_SUCCESS);
    EXPECT_EQ(atom->bytes(), value);
    EXPECT_TRUE(value != "xyz" || atom->data() == kept);
  }
}

TEST(SexpAtom, AtomEqualsTextAndAtomAsWide) {
  Ref<SexpAtom> atom = MakeAtom("cert");
  EXPECT_TRUE(atom->AtomEqualsText("cert"));
  for (const char* other : {"cer", "certs", "CERT", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(atom->AtomEqualsText(other)) << (other ? other : "(null)");
  }
  EXPECT_TRUE(SexpAtom::New()->AtomEqualsText(""));
  EXPECT_FALSE(MakeAtom(std::string_view("ab\0c", 4))->AtomEqualsText("ab"));

  const std::pair<std::string, std::u16string> kWide[] = {
      {"h\xC3\xA9llo", u"h\u00E9llo"}, {"a\xFF", u"a\uFFFD"}, {"", u""}};
  for (const auto& [bytes, want] : kWide) {
    CBuffer<char16_t> wide = MakeAtom(bytes)->AtomAsWide();
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(std::u16string(wide.get()), want);
  }
}

TEST(SexpKeywordList, Variants) {
  Velk2Context context{7};
  Ref<SexpList> list;
  ASSERT_EQ(NewKeywordList(&list, "acl", &context), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*list), "(3:acl)");
  EXPECT_EQ(list->FirstChild()->context(), &context);  // the atom shares the list's context

  // The lists with text or a child are read back in every credential the
  // library and the toolkit build. Failures leave the out-pointer null.
  EXPECT_EQ(NewKeywordList(&list, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(NewKeywordListWithText(&list, "version", nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list, nullptr);
}

TEST(SexpHash, ComputeHashDigestsTheStoredOrCanonicalForm) {
  const char kText[] = "(4:cert([bin]3:abc)([num]1:\x02)0:)";
  Ref<SexpList> list = ParseList(std::string_view(kText, sizeof(kText) - 1));
  ASSERT_NE(list, nullptr);
  ASSERT_NE(StoredOf(*list), CanonicalOf(*list));
  for (uint32_t id : {ZCRY_HASH_SHA1, ZCRY_HASH_SHA256}) {
    for (bool skip_hints : {false, true}) {
      CBuffer<uint8_t> digest;
      uint32_t length = 0;
      ASSERT_EQ(ComputeHash(list.get(), &digest, &length, id, skip_hints), VELK2_SUCCESS);
      EXPECT_EQ(testing::Bytes(digest.get(), digest.get() + length),
                testing::Digest(id, skip_hints ? CanonicalOf(*list) : StoredOf(*list)))
          << id << " " << skip_hints;
    }
  }
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

// ToCanonicalBuffer writes the canonical form, hints left out; AppendCanonical
// gives the same bytes after what the string already held.
TEST(SexpWholeWriters, ToCanonicalBufferAndAppendCanonical) {
  const std::pair<std::string, std::string> kCases[] = {
      {"(4:cert(6:issuer(4:hash))0:([bin]2:\x01\x02))", "(4:cert(6:issuer(4:hash))0:(2:\x01\x02))"},
      {"()", "()"},
      {"(3:acl(5:entry(7:subject(10:public-key(3:rsa(1:e1:\x03))))(9:propagate)))",
       "(3:acl(5:entry(7:subject(10:public-key(3:rsa(1:e1:\x03))))(9:propagate)))"},
      {"([utf-8]5:caf\xc3\xa9[num]1:\x07(((()))))",
       "(5:caf\xc3\xa9"
       "1:\x07(((()))))"},
  };
  for (const auto& [text, canonical] : kCases) {
    Ref<SexpList> list = ParseList(text);
    ASSERT_TRUE(list) << text;
    CBuffer<uint8_t> buffer;
    uint32_t size = 0;
    ASSERT_EQ(ToCanonicalBuffer(list.get(), &buffer, &size), VELK2_SUCCESS);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.get()), size), canonical);
    std::string appended = "kept";
    ASSERT_EQ(AppendCanonical(list.get(), &appended), VELK2_SUCCESS);
    EXPECT_EQ(appended, "kept" + canonical);
    // An occupied out-pointer is refused and left alone.
    uint8_t* before = buffer.get();
    EXPECT_EQ(ToCanonicalBuffer(list.get(), &buffer, &size), VELK2_ERR_INVALID_PARAM);
    EXPECT_EQ(buffer.get(), before);
  }
  std::string text;
  EXPECT_EQ(AppendCanonical(nullptr, &text), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(AppendCanonical(ParseList("(1:a)").get(), nullptr), VELK2_ERR_PARAM_NULL);
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
    EXPECT_STREQ(ToAdvancedText(c.object, c.keyword).get(), c.want)
        << (c.keyword ? c.keyword : "(null)");
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

TEST(SexpStore, FilePathAndDirectoryFollowTheLocation) {
  const std::filesystem::path root =
      std::filesystem::temp_directory_path() / ("velk2_sexp_store_" + std::to_string(::getpid()));
  std::filesystem::remove_all(root);
  std::filesystem::create_directories(root / "home");
  std::filesystem::create_directories(root / "global");
  ASSERT_EQ(SetHomeDirectory(Utf8ToUtf16((root / "home").string()).c_str()), VELK2_SUCCESS);
  ASSERT_EQ(SetGlobalDirectory(Utf8ToUtf16((root / "global").string()).c_str()), VELK2_SUCCESS);

  Ref<StoredKind> object = MakeRef<StoredKind>();
  EXPECT_EQ(object->file_path(), nullptr);
  EXPECT_EQ(object->SetFilePath(nullptr), VELK2_ERR_INVALID_PARAM);
  const std::tuple<uint32_t, const char16_t*, std::string> kCases[] = {
      {kStoreGlobal, u"dir/x.CERT", (root / "global/cert/x.CERT").string()},
      {kStoreVerbatim, u"some/where/y", "some/where/y.cert"},
      {kStoreHome, u"x", (root / "home/cert/x.cert").string()},
  };
  for (const auto& [location, name, want] : kCases) {
    object->SetLocation(location);
    ASSERT_EQ(object->SetFilePath(name), VELK2_SUCCESS);
    ASSERT_NE(object->file_path(), nullptr);
    EXPECT_EQ(Utf16ToUtf8(object->file_path()), want);
    EXPECT_EQ(object->EnsureStoreDirectory(), VELK2_SUCCESS);
    // Only the directory of the location is made.
    EXPECT_EQ(std::filesystem::is_directory(root / "home/cert"), location == kStoreHome);
  }
  EXPECT_TRUE(std::filesystem::is_directory(root / "global/cert"));
  // A plain list has no store names: the name is taken as it stands.
  Ref<SexpList> plain = SexpList::New();
  ASSERT_EQ(plain->SetFilePath(u"plain"), VELK2_SUCCESS);
  EXPECT_EQ(std::u16string(plain->file_path()), u"plain");
  // A failure leaves no path behind.
  EXPECT_EQ(object->SetFilePath(std::u16string(400, u'n').c_str()), VELK2_ERR_MEM_ALLOC);
  EXPECT_EQ(object->file_path(), nullptr);
  object->SetLocation(7);
  EXPECT_EQ(object->EnsureStoreDirectory(), VELK2_ERR_FIND_DIR);
  // A root that is a file cannot hold the directory.
  std::filesystem::remove_all(root / "home");
  std::ofstream(root / "home").put('x');
  object->SetLocation(kStoreHome);
  EXPECT_EQ(object->EnsureStoreDirectory(), VELK2_ERR_FILE_OPEN);

  SetHomeDirectory(u"");
  SetGlobalDirectory(u"");
  std::filesystem::remove_all(root);
}

}  // namespace
}  // namespace velk2
