// File item lists handed to callers (struct FileItem of velk2.h).
#ifndef VELK2_FRAME_FILE_ITEM_H_
#define VELK2_FRAME_FILE_ITEM_H_

#include "velk2.h"

namespace velk2 {

// FileItemCreate makes a record (size field sizeof(FileItem), other fields
// null) holding the given name; the missing form is converted from the other.
// Null when memory runs out. Freed with FreeFileItemList.
FileItem* FileItemCreate(const char16_t* wide, const char* narrow);

}  // namespace velk2

#endif  // VELK2_FRAME_FILE_ITEM_H_
