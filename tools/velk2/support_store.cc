// The store a command works on: --store DIR, the directory of acl/ and cert/.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/support.h"
#include "velk2.h"

namespace velk2::cli {

int UseStore(const char* command, const std::string& store, const std::string& from) {
  struct stat st;
  const std::string named =
      "the store " + EscapeForDisplay(store) + " (from " + EscapeForDisplay(from) + ")";
  if (::stat(store.c_str(), &st) != 0) {
    return Fail(kExitUsage, command, "cannot use " + named + ": " + std::strerror(errno));
  }
  if (!S_ISDIR(st.st_mode)) return Fail(kExitUsage, command, named + " is not a directory");
  if (store.size() >= 259) return Fail(kExitUsage, command, named + ": the path is too long");
  // The library takes the store's path as text: other bytes would name
  // another directory.
  if (Utf16ToUtf8(Utf8ToUtf16(store)) != store) {
    return Fail(kExitUsage, command, named + ": the path is not UTF-8");
  }
  Velk2GlobalDirectoryA(store.c_str());
  Velk2HomeDirectoryA(store.c_str());
  return kExitOk;
}

}  // namespace velk2::cli
