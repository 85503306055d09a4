/* A program that uses the installed library the way a package installer
 * does: verify a package against its signed manifest and walk the four
 * result lists. Usage: consumer STORE PACKAGE TAG. Exit 0 when every entry is
 * valid. */
#include <stdio.h>
#include <velk2.h>

static int Print(const char* what, const FileItem* item) {
  int count = 0;
  for (; item != NULL; item = item->next, ++count) printf("%s %s\n", what, item->name);
  return count;
}

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  ManifestContext* context = NULL;
  char manifest[4096];
  snprintf(manifest, sizeof manifest, "%s/manifest", argv[2]);
  Velk2GlobalDirectoryA(argv[1]);
  if (CreateManifestContextA(&context, argv[2], manifest, argv[3]) != VELK2_SUCCESS) return 2;
  VELK2_RESULT result = VerifyManifest(context, 0, 0);
  int valid = Print("valid", GetValidEntries(context));
  int bad = Print("invalid", GetInvalidEntries(context)) +
            Print("missing", GetMissingEntries(context)) + Print("extra", GetExtraEntries(context));
  printf("result %u: %s; %d valid, %d not\n", result, Velk2ErrorMessageA(result), valid, bad);
  DeleteManifestContext(context);
  return result == VELK2_SUCCESS && bad == 0 && valid > 0 ? 0 : 1;
}
