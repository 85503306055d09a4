// The store a command works on: --store DIR, the directory of acl/ and cert/.
#include <sys/stat.h>

#include <string>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/support.h"
#include "velk2.h"

namespace velk2::cli {

int UseStore(const char* command, const std::string& store) {
  struct stat st;
  if (::stat(store.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return UsageError(command, "--store: no directory " + EscapeForDisplay(store));
  }
  if (store.size() >= 259) return UsageError(command, "--store: the path is too long");
  Velk2GlobalDirectoryA(store.c_str());
  Velk2HomeDirectoryA(store.c_str());
  return kExitOk;
}

}  // namespace velk2::cli
