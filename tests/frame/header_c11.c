/* The public header compiles as strict C11 and a C program links the shared library. */
#include "velk2.h"

#include <stdio.h>
#include <string.h>

int main(void) {
  Velk2Context* context = NULL;
  uint32_t length = 0;
  char16_t* wide;
  char* narrow;
  int failures = 0;
  if (Velk2VersionNumber() != 10100) failures++;
  if (Velk2Init(&context, 7) != VELK2_SUCCESS || context == NULL) failures++;
  Velk2FreeContext(context);
  wide = Velk2AsciiToWide("caf\xC3\xA9", -1, &length);
  if (wide == NULL || length != 4 || wide[3] != 0xE9) failures++;
  narrow = Velk2WideToAscii(wide, -1, &length);
  if (narrow == NULL || strcmp(narrow, "caf\xC3\xA9") != 0 || length != 5) failures++;
  Velk2Free(wide);
  Velk2Free(narrow);
  if (strcmp(Velk2ErrorMessageA(VELK2_ERR_PARAM_NULL), "VELK2_ERR_PARAM_NULL") != 0) failures++;
  if (sizeof(FileItem) != 5 * sizeof(void*) + 8) failures++;
  printf("%s\n", failures ? "FAIL" : "ok");
  return failures;
}
