// velk2 tag compare A B / velk2 tag intersect A B: the engine's tag algebra
// on two tags, for people writing ACLs. Tags are read as every command reads
// them (issuing::ParseTag): '(ftp (* set read write))', 'read', or a whole
// canonical list, taken as the body of (tag ...) unless it already is one.
#include <cstdio>
#include <string>

#include "trust/authorize.h"
#include "engine/keywords.h"
#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/readable.h"
#include "engine/store.h"
#include "engine/tags.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support_acl.h"

namespace velk2::cli {
namespace {

using engine::EngineContext;
using engine::EngineNode;
using engine::NodeRef;
using engine::Status;

// One tag argument: the canonical text the tree points into, and the tree.
class TagArgument {
 public:
  explicit TagArgument(EngineContext& engine) : tree_(engine) {}
  TagArgument(const TagArgument&) = delete;
  TagArgument& operator=(const TagArgument&) = delete;

  // Read reads |text| as every command reads a tag (issuing::ParseTag) and
  // parses its canonical form into the engine. A library code on failure.
  Result Read(EngineContext& engine, const std::string& text) {
    Ref<SexpList> tag;
    bool whole = false;
    Result result = issuing::ParseTag(text, &tag, &whole);
    if (result == VELK2_SUCCESS) result = ConvertToEngine(tag.get(), &text_);
    if (result != VELK2_SUCCESS) return result;
    // A tag given whole as (tag ...) is printed whole; a body as a body.
    wrapped_ = !whole;
    const Status status = engine::ParseText(engine, tree_.out(), text_.data(), text_.size());
    return status == engine::SPKI_OK ? VELK2_SUCCESS : static_cast<Result>(status);
  }

  EngineNode* tree() const { return tree_.get(); }
  bool wrapped() const { return wrapped_; }

 private:
  std::string text_;
  NodeRef tree_;
  bool wrapped_ = false;
};

// Prints why a tag cannot be read.
int BadTag(const char* command, const char* which, Result code) {
  return UsageError(command, std::string(which) + " is not a tag: " + StatusText(code));
}

// Reads the two positional tags; exit code on failure, -1 on success.
int ReadTags(const char* command, const Options& options, EngineContext& engine, TagArgument* a,
             TagArgument* b) {
  if (options.positional().size() != 2) return UsageError(command, "expected two tags A and B");
  if (engine.Init(engine::HeapAllocator()) != engine::SPKI_OK) {
    std::fprintf(stderr, "velk2 %s: out of memory\n", command);
    return kExitFailure;
  }
  if (Result code = a->Read(engine, options.positional()[0]); code != VELK2_SUCCESS) {
    return BadTag(command, "A", code);
  }
  if (Result code = b->Read(engine, options.positional()[1]); code != VELK2_SUCCESS) {
    return BadTag(command, "B", code);
  }
  return -1;
}

}  // namespace

int RunTagCompare(const Args& args) {
  const char* kCommand = "tag compare";
  Options options({}, {});
  if (!options.Parse(args, /*allow_positional=*/true)) return UsageError(kCommand, options.error());
  EngineContext engine;
  TagArgument a(engine);
  TagArgument b(engine);
  if (int exit = ReadTags(kCommand, options, engine, &a, &b); exit >= 0) return exit;
  engine::TagRelation relation;
  if (Status status = engine::CompareTagLists(engine, a.tree(), b.tree(), &relation);
      status != engine::SPKI_OK) {
    return UsageError(kCommand, engine::SpkiErrorMessageUtf8(status));
  }
  std::printf("%s\n", engine::TagRelationName(relation));
  return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

int RunTagIntersect(const Args& args) {
  const char* kCommand = "tag intersect";
  Options options({}, {"canonical"});
  if (!options.Parse(args, /*allow_positional=*/true)) return UsageError(kCommand, options.error());
  EngineContext engine;
  TagArgument a(engine);
  TagArgument b(engine);
  if (int exit = ReadTags(kCommand, options, engine, &a, &b); exit >= 0) return exit;
  NodeRef result(engine);
  if (Status status = engine::IntersectTagLists(engine, a.tree(), b.tree(), result.out());
      status != engine::SPKI_OK) {
    return UsageError(kCommand, engine::SpkiErrorMessageUtf8(status));
  }
  if (!result) {
    std::fprintf(stderr, "velk2 %s: the tags are disjoint\n", kCommand);
    return kExitFailure;
  }
  // Tags given as bodies get their intersection back as a body: the one
  // element after "tag" (a result always keeps the head of its operands).
  const EngineNode* body = result->next;
  bool print_body = a.wrapped() && b.wrapped() && body != nullptr && body->next == nullptr;
  std::string text;
  Status status;
  if (options.Has("canonical")) {
    status = engine::PrintToString(result.get(), &text);
    // The canonical text of (tag BODY) is "(3:tag" BODY ")".
    if (status == engine::SPKI_OK && print_body) text = text.substr(6, text.size() - 7);
  } else {
    status = print_body ? engine::PrintReadableElement(body, &text)
                        : engine::PrintReadable(result.get(), &text);
  }
  if (status != engine::SPKI_OK) return UsageError(kCommand, engine::SpkiErrorMessageUtf8(status));
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  return std::fflush(stdout) == 0 ? kExitOk : kExitFailure;
}

}  // namespace velk2::cli
