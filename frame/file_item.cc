#include "frame/file_item.h"

#include <cstdlib>

#include "frame/text.h"

namespace velk2 {

FileItem* FileItemCreate(const char16_t* wide, const char* narrow) {
  auto* item = static_cast<FileItem*>(std::calloc(1, sizeof(FileItem)));
  if (item == nullptr) return nullptr;
  item->size = sizeof(FileItem);
  item->wide_name = wide != nullptr ? DuplicateWide(wide) : Utf8ToWide(narrow, -1, nullptr);
  item->name = narrow != nullptr ? DuplicateNarrow(narrow) : WideToUtf8(wide, -1, nullptr);
  if ((wide != nullptr || narrow != nullptr) &&
      (item->wide_name == nullptr || item->name == nullptr)) {
    FreeFileItemList(item);
    return nullptr;
  }
  return item;
}

}  // namespace velk2
