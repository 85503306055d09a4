// velk2 show FILE: a canonical S-expression file (certificate, ACL entry,
// revocation list, key, manifest) in readable form, one element per line.
#include <cstdio>
#include <string>
#include <vector>

#include "frame/result.h"
#include "platform/utf.h"
#include "sexp/display.h"
#include "sexp/source.h"
#include "tools/velk2/commands.h"

namespace velk2::cli {
int RunShow(const Args& args) {
  if (args.size() != 1) return UsageError("show", "expected one FILE");
  const std::string& file = args[0];
  const std::u16string path = Utf8ToUtf16(file);
  SexpMemorySource source;
  Result result = source.LoadFile(path.c_str());
  std::vector<Ref<SexpObject>> elements;
  if (result == VELK2_SUCCESS) result = ReadCanonicalElements(&source, nullptr, &elements);
  if (result != VELK2_SUCCESS) {
    if (source.has_data()) {
      std::fprintf(stderr, "velk2 show: %s: %s (at byte %d)\n", file.c_str(),
                   ErrorMessageUtf8(result), static_cast<int>(source.position()));
    } else {
      std::fprintf(stderr, "velk2 show: %s: %s\n", file.c_str(), ErrorMessageUtf8(result));
    }
    return kExitUsage;
  }
  for (const Ref<SexpObject>& element : elements) {
    const std::string text = FormatReadable(*element);
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
  return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
