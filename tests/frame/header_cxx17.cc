// The public header compiles as C++17 on its own.
#include "velk2.h"

static_assert(VELK2_MAX_ERROR == 77);
static_assert(VELK2_ENTRY_VALID == 1 && VELK2_ENTRY_INVALID == 2 && VELK2_ENTRY_MISSING == 4 &&
              VELK2_ENTRY_EXTRA == 8);

int main() {
  const char16_t* message = Velk2ErrorMessage(VELK2_ERR_NOT_AUTHORIZED);
  const char16_t* extra = Velk2VersionExtra();
  const bool dev = extra[0] == u'd' && extra[1] == u'e' && extra[2] == u'v' && extra[3] == 0;
  return message != nullptr && dev && Velk2DoNothing(0xFFFFFFFFu) == 0xFFFFFFFFu ? 0 : 1;
}
