// The tool's questions about packages and manifests (declared with the rest
// of the tool's face in trust/tool_api.h).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <deque>
#include <map>
#include <utility>

#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "frame/file_item.h"
#include "manifest/body.h"
#include "manifest/context.h"
#include "manifest/package.h"
#include "manifest/read.h"
#include "manifest/rollback.h"
#include "platform/utf.h"
#include "sexp/reader.h"
#include "trust/describe.h"
#include "trust/explanation.h"
#include "trust/tool_api.h"

namespace velk2::api {
namespace {

// The SHA-256 of an extra file found in the package, when it is a regular
// file (never followed, never waited on); false otherwise.
bool DigestOfExtra(const std::u16string& path, std::array<uint8_t, 32>* digest) {
  const std::string narrow = Utf16ToUtf8(path);
  const int fd = ::open(narrow.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  uint8_t bytes[32];
  const bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
                  HashDescriptor(fd, bytes, nullptr, nullptr, st.st_size) == VELK2_SUCCESS;
  ::close(fd);
  if (ok) std::memcpy(digest->data(), bytes, sizeof bytes);
  return ok;
}

// A missing file whose digest an extra file has was moved there. Each extra
// file pairs with one missing file at most, so two missing files of equal
// content and one extra file make one move. moved[i] is the index of the
// extra entry that entry i moved to.
std::vector<size_t> FindMoves(CompareResults* found, bool hash_extras) {
  std::vector<size_t> moved(found->size(), SIZE_MAX);
  bool any_missing = false;
  for (const CompareResult& entry : *found) {
    any_missing |= entry.status == VELK2_ENTRY_MISSING && entry.has_digest && !entry.is_directory;
  }
  if (!any_missing) return moved;
  for (CompareResult& entry : *found) {
    if (hash_extras && entry.status == VELK2_ENTRY_EXTRA && !entry.is_directory) {
      entry.has_digest = DigestOfExtra(entry.path, &entry.digest);
    }
  }
  // The extra files by content, each digest's in list order: pairing stays
  // linear however many files went missing or turned up.
  std::map<std::array<uint8_t, 32>, std::deque<size_t>> extras;
  for (size_t j = 0; j < found->size(); ++j) {
    const CompareResult& extra = (*found)[j];
    if (extra.status == VELK2_ENTRY_EXTRA && !extra.is_directory && extra.has_digest) {
      extras[extra.digest].push_back(j);
    }
  }
  for (size_t i = 0; i < found->size() && !extras.empty(); ++i) {
    const CompareResult& gone = (*found)[i];
    if (gone.status != VELK2_ENTRY_MISSING || !gone.has_digest || gone.is_directory) continue;
    const auto same = extras.find(gone.digest);
    if (same == extras.end()) continue;
    moved[i] = same->second.front();
    same->second.pop_front();
    if (same->second.empty()) extras.erase(same);
  }
  return moved;
}

const char* StatusWord(uint32_t status) {
  switch (status) {
    case VELK2_ENTRY_VALID:
      return "valid";
    case VELK2_ENTRY_INVALID:
      return "changed";
    case VELK2_ENTRY_MISSING:
      return "missing";
    default:
      return "extra";
  }
}

// The report of a comparison: |base| is cut from the front of every path.
TreeReport MakeReport(CompareResults* results, const std::u16string& base, bool hash_extras) {
  TreeReport report;
  const std::vector<size_t> moved = FindMoves(results, hash_extras);
  std::vector<bool> moved_to(results->size(), false);
  for (size_t to : moved) {
    if (to != SIZE_MAX) moved_to[to] = true;
  }
  auto shown = [&](size_t i) {
    std::u16string path = (*results)[i].path;
    if (!base.empty() && path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
        path[base.size()] == u'/') {
      path = path.substr(base.size() + 1);
    }
    return Utf16ToUtf8(path);
  };
  for (size_t i = 0; i < results->size(); ++i) {
    const CompareResult& found = (*results)[i];
    Entry entry;
    entry.path = shown(i);
    entry.status = StatusWord(found.status);
    entry.directory = found.is_directory;
    entry.listed = found.listed;
    entry.changed_during = found.changed_during;
    entry.counted = !found.is_directory || !found.listed;
    if (entry.counted) {
      switch (found.status) {
        case VELK2_ENTRY_VALID:
          ++report.counts.valid;
          break;
        case VELK2_ENTRY_INVALID:
          ++report.counts.changed;
          break;
        case VELK2_ENTRY_MISSING:
          ++report.counts.missing;
          break;
        default:
          ++report.counts.extra;
          break;
      }
    }
    if (moved[i] != SIZE_MAX) {
      report.moves.push_back({entry.path, shown(moved[i])});
      ++report.counts.moved;
    }
    report.in_move.push_back(moved[i] != SIZE_MAX || moved_to[i]);
    report.entries.push_back(std::move(entry));
  }
  return report;
}

std::vector<std::u16string> Wide(const std::vector<std::string>& paths) {
  std::vector<std::u16string> out;
  for (std::string path : paths) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    out.push_back(Utf8ToUtf16(path));
  }
  return out;
}

// The context's ignored entries as the library takes them.
Result SetIgnored(const std::vector<std::string>& paths, ManifestContext* context) {
  FileItem* list = nullptr;
  for (const std::u16string& path : Wide(paths)) {
    FileItem* item = FileItemCreate(path.c_str(), nullptr);
    if (item == nullptr) {
      FreeFileItemList(list);
      return VELK2_ERR_MEM_ALLOC;
    }
    item->next = list;
    list = item;
  }
  context->ignored.reset(list);
  return VELK2_SUCCESS;
}

RollbackInfo RollbackOf(const RollbackReport& report) {
  RollbackInfo info;
  info.checked = report.checked;
  info.package = report.package;
  info.named = report.named;
  info.time_of_signing = report.time_of_signing;
  info.recorded = report.recorded;
  info.refused = report.older       ? "older"
                 : report.future    ? "future"
                 : report.malformed ? "malformed"
                                    : "";
  info.allowed_older = report.allowed_older;
  info.written = report.written;
  info.advanced = report.written && (!report.recorded || report.time_of_signing > *report.recorded);
  info.read_only = report.read_only;
  info.write_result = report.write_result;
  info.record_path = report.record_path;
  return info;
}

void DescribeTree(const ManifestDirectory& level, int depth, ManifestInfo* out) {
  for (const ManifestFileEntry& file : level.files) {
    out->tree.push_back(
        {depth, Utf16ToUtf8(file.name), false, HexString(file.digest.data(), file.digest_length)});
    ++out->entries;
  }
  for (const ManifestDirectory& directory : level.directories) {
    out->tree.push_back({depth, Utf16ToUtf8(directory.name), true, std::string()});
    ++out->entries;
    DescribeTree(directory, depth + 1, out);
  }
}

}  // namespace

Result VerifyPackage(const PackageRequest& request, PackageVerdict* out) {
  *out = PackageVerdict{};
  ManifestContext context;
  context.package_directory = Utf8ToUtf16(request.package);
  context.manifest_path =
      Utf8ToUtf16(request.manifest.empty() ? request.package + "/manifest" : request.manifest);
  context.fail_on_extra = !request.allow_extra;
  // The tool's default is the safe one: no package goes back in time.
  context.rollback_flags = kRollbackProtect | (request.allow_older ? kRollbackAllowOlder : 0);
  context.hash_threads = std::max(1u, std::min(request.threads, 64u));
  Result result = ReadTagText(request.tag.c_str(), nullptr, &context.tag);
  if (result == VELK2_SUCCESS) result = SetIgnored(request.ignore, &context);
  if (result != VELK2_SUCCESS) {
    out->result = result;
    return result;
  }

  ManifestReport report;
  engine::ReductionTrace trace;
  trace.record_tuples = request.explain;
  report.trace = &trace;
  std::string reduced;
  report.reduced_acl = &reduced;
  if (request.on_file) report.on_file = request.on_file;
  CompareResults found;
  report.on_start = request.on_start;
  result = velk2::VerifyPackage(&context, request.not_before, request.not_after, &report, &found);
  out->result = result;
  out->manifest_read = result != VELK2_ERR_OPEN_MANIFEST_FILE;
  out->verified = report.verified && !report.rollback.older && !report.rollback.future &&
                  !report.rollback.malformed;
  out->time_of_signing = AtomString(context.time_of_signing.get());
  out->lists_from_store = report.lists_from_store;
  out->lists_embedded = report.embedded_lists.size();
  out->rollback = RollbackOf(report.rollback);

  if (report.chain && report.acl && report.key) {
    ExplanationSources sources;
    sources.acl = report.acl.get();
    sources.sequence = report.chain.get();
    sources.engine_certificates = report.signing_certificates;
    sources.certificates_source = Utf16ToUtf8(context.manifest_path);
    sources.acl_source = Utf16ToUtf8(StoreDirectory(u"acl", kStoreGlobal));
    sources.key_name = "the manifest";
    sources.tag = ReadableTag(context.tag.get());
    sources.not_before = request.not_before ? DateText(request.not_before) : out->time_of_signing;
    sources.not_after = request.not_after ? DateText(request.not_after) : sources.not_before;
    sources.revocation = &report.revocation;
    // The signer's story is the authorization's: a body that fails its
    // digest afterwards does not make the signer unauthorized.
    const Result signer = report.authorization != VELK2_FAILURE ? report.authorization : result;
    out->has_signer = true;
    out->signer.result = signer;
    out->signer.stage = Stage::kAuthorization;
    out->signer.explained = request.explain;
    if (request.explain) {
      out->signer.explanation = Explain(sources, trace, signer, !reduced.empty());
    } else {
      ExplainRevocation(sources, signer, &out->signer.explanation);
    }
  }
  if (out->verified) out->report = MakeReport(&found, context.package_directory, true);
  return result;
}

Result CompareManifests(const std::string& a, const std::string& b,
                        const std::vector<std::string>& ignore, TreeReport* out) {
  *out = TreeReport{};
  ManifestContext context;
  context.manifest_path = Utf8ToUtf16(a);
  Result result = ReadTagText("(null)", nullptr, &context.tag);
  if (result == VELK2_SUCCESS) result = SetIgnored(ignore, &context);
  if (result != VELK2_SUCCESS) return result;
  CompareResults found;
  const std::u16string other = Utf8ToUtf16(b);
  result = ComparePackages(&context, other.c_str(), &found);
  if (result == VELK2_SUCCESS || result == VELK2_ERR_HASH_MISMATCH ||
      result == VELK2_ERR_FILE_NOT_FOUND || result == VELK2_ERR_EXTRA_FILES) {
    *out = MakeReport(&found, std::u16string(), false);
  }
  return result;
}

Result DescribeManifest(const std::string& path, ManifestInfo* out) {
  *out = ManifestInfo{};
  ManifestContext context;
  context.manifest_path = Utf8ToUtf16(path);
  ManifestFile file;
  ManifestReport report;
  Result result = ReadManifest(&context, false, 0, 0, &file, &report);
  if (result != VELK2_SUCCESS) return result;
  ManifestDirectory root;
  result = ReadManifestBody(&root, file.body(), nullptr);
  if (result != VELK2_SUCCESS) return result;
  out->version = ReadableTag(context.version.get());
  out->type = ReadableTag(context.type.get());
  out->name = ReadHeaderAttributes(context.version.get()).name;
  out->time_of_signing = AtomString(context.time_of_signing.get());
  out->chain = DescribeChain(*report.chain);
  for (const Ref<RevocationList>& list : report.embedded_lists) {
    const Certificate& c = *list->certificate();
    out->lists.push_back({c.tag() ? ReadableTag(c.tag()) : std::string(),
                          AtomString(c.not_before()), AtomString(c.not_after())});
  }
  DescribeTree(root, 0, out);
  return VELK2_SUCCESS;
}

}  // namespace velk2::api
