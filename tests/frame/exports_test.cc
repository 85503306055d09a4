#include <gtest/gtest.h>

#include <string>

#include "frame/context.h"
#include "frame/file_item.h"
#include "frame/paths.h"
#include "velk2.h"

namespace {

TEST(Frame, ContextHoldsTheCallersWord) {
  EXPECT_EQ(Velk2Init(nullptr, 5), 0u);  // accepted, nothing made
  Velk2Context* context = nullptr;
  ASSERT_EQ(Velk2Init(&context, 0xABCD), 0u);
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(velk2::ContextWord(context), 0xABCDu);
  EXPECT_EQ(Velk2FreeContext(context), 0u);
  EXPECT_EQ(Velk2FreeContext(nullptr), 0u);
  // A pointer to anything but a context is refused, not freed.
  uint32_t not_a_context[4] = {0xABCD, 0, 0, 0};
  EXPECT_EQ(Velk2FreeContext(reinterpret_cast<Velk2Context*>(not_a_context)),
            VELK2_ERR_INVALID_PARAM);
  Velk2Context* other = nullptr;
  ASSERT_EQ(Velk2Init(&other, 1), 0u);
  EXPECT_NE(velk2::FromOpaque<Velk2Context>(other), nullptr);
  EXPECT_EQ(Velk2FreeContext(other), 0u);
}

TEST(Frame, DirectorySettersKeep259UnitsAndRefuseMore) {
  std::u16string kept(259, u'h');
  EXPECT_EQ(Velk2HomeDirectory(kept.c_str()), 0u);
  EXPECT_EQ(std::u16string(velk2::HomeDirectory()), kept);

  std::u16string too_long(260, u'g');
  EXPECT_EQ(Velk2GlobalDirectory(u"/g"), 0u);
  EXPECT_EQ(Velk2GlobalDirectory(too_long.c_str()), 22u);
  EXPECT_EQ(std::u16string(velk2::GlobalDirectory()), u"");  // emptied, not unchanged

  EXPECT_EQ(Velk2HomeDirectory(nullptr), 22u);
  EXPECT_EQ(std::u16string(velk2::HomeDirectory()), u"");

  Velk2HomeDirectoryA("/h\xC3\xA9");
  EXPECT_EQ(std::u16string(velk2::HomeDirectory()), u"/h\u00E9");
  Velk2GlobalDirectoryA(std::string(300, 'x').c_str());
  EXPECT_EQ(std::u16string(velk2::GlobalDirectory()), u"");
  Velk2HomeDirectoryA(nullptr);
  EXPECT_EQ(std::u16string(velk2::HomeDirectory()), u"");
}

TEST(Frame, FileItemListsFreeEveryRecord) {
  EXPECT_EQ(FreeFileItemList(nullptr), 0u);
  FileItem* a = velk2::FileItemCreate(u"w\u00E9", nullptr);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->size, sizeof(FileItem));
  EXPECT_STREQ(a->name, "w\xC3\xA9");
  EXPECT_EQ(std::u16string(a->wide_name), u"w\u00E9");  // each name copied or converted
  EXPECT_EQ(a->is_directory, 0u);
  EXPECT_EQ(a->wide_value, nullptr);
  FileItem* b = velk2::FileItemCreate(nullptr, "n");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(std::u16string(b->wide_name), u"n");
  EXPECT_STREQ(b->name, "n");
  FileItem* c = velk2::FileItemCreate(u"c", "c");
  ASSERT_NE(c, nullptr);
  a->next = b;
  b->next = c;
  EXPECT_EQ(FreeFileItemList(a), 3u);  // the sanitizer build checks nothing leaks
}

}  // namespace
