// The tool's questions about packages and manifests (declared with the rest
// of the tool's face in trust/tool_api.h).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <utility>

#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "frame/file_item.h"
#include "manifest/attributes.h"
#include "manifest/body.h"
#include "manifest/cache.h"
#include "manifest/context.h"
#include "manifest/package.h"
#include "manifest/patterns.h"
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
// Valid entries are only counted unless |list_valid|.
TreeReport MakeReport(CompareResults* results, const std::u16string& base, bool hash_extras,
                      bool list_valid = true) {
  TreeReport report;
  const std::vector<size_t> moved = FindMoves(results, hash_extras);
  std::vector<bool> moved_to(results->size(), false);
  for (size_t to : moved) {
    if (to != SIZE_MAX) moved_to[to] = true;
  }
  report.entries.reserve(results->size());
  report.in_move.reserve(results->size());
  auto shown = [&](size_t i) {
    std::u16string path = (*results)[i].path;
    if (!base.empty() && path.size() > base.size() && path.compare(0, base.size(), base) == 0 &&
        path[base.size()] == u'/') {
      path = path.substr(base.size() + 1);
    }
    return WideToFileName(path);
  };
  for (size_t i = 0; i < results->size(); ++i) {
    const CompareResult& found = (*results)[i];
    if (!list_valid && found.status == VELK2_ENTRY_VALID) {
      // Never part of a move; a listed directory is counted by its files.
      if (!found.is_directory) ++report.counts.valid;
      continue;
    }
    // A directory that could not be listed has a record of its own ahead
    // of the one every directory gets: one line says it.
    if (found.is_directory && i + 1 < results->size() && (*results)[i + 1].is_directory &&
        (*results)[i + 1].path == found.path) {
      continue;
    }
    Entry entry;
    entry.path = shown(i);
    // What could not be read and shows no other difference is unreadable:
    // neither valid nor called tampering.
    const bool unreadable = found.read_error != 0 && found.changes.empty();
    entry.status = unreadable ? "unreadable" : StatusWord(found.status);
    entry.directory = found.is_directory;
    entry.listed = found.listed;
    entry.changed_during = found.changed_during;
    // A listed directory counts when it differs itself, not only below.
    entry.counted =
        !found.is_directory || !found.listed || !found.changes.empty() || found.read_error != 0;
    for (const velk2::Change& change : found.changes) {
      entry.changes.push_back({ChangeKindName(change.kind), change.expected, change.found});
    }
    if (found.read_error != 0) entry.unreadable = std::strerror(found.read_error);
    if (entry.counted && unreadable) {
      ++report.counts.unreadable;
    } else if (entry.counted) {
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

// The caller's ignore patterns, each checked: the first that does not read,
// or empty.
std::string AddPatterns(const std::vector<std::string>& patterns, ManifestContext* context) {
  IgnorePatterns check;
  for (const std::string& pattern : patterns) {
    if (!check.Add(pattern)) return pattern;
    context->patterns.push_back(pattern);
  }
  return std::string();
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

void Describe(const EntryAttributes& attributes, TreeLine* line) {
  if (attributes.mode) line->mode = ModeText(*attributes.mode);
  if (attributes.uid && attributes.gid) {
    line->owner = std::to_string(*attributes.uid) + ":" + std::to_string(*attributes.gid);
  }
  line->link = attributes.link;
  line->target = attributes.target;
}

void DescribeTree(const ManifestDirectory& level, int depth, ManifestInfo* out) {
  for (const ManifestFileEntry& file : level.files) {
    TreeLine line;
    line.depth = depth;
    line.name = WideToFileName(file.name);
    line.digest = HexString(file.digest.data(), file.digest_length);
    Describe(file.attributes, &line);
    out->tree.push_back(std::move(line));
    ++out->entries;
  }
  for (const ManifestDirectory& directory : level.directories) {
    TreeLine line;
    line.depth = depth;
    line.name = WideToFileName(directory.name);
    line.directory = true;
    Describe(directory.attributes, &line);
    out->tree.push_back(std::move(line));
    ++out->entries;
    DescribeTree(directory, depth + 1, out);
  }
}

}  // namespace

Result VerifyPackage(const PackageRequest& request, PackageVerdict* out) {
  *out = PackageVerdict{};
  ManifestContext context;
  // Names are bytes: the package and the manifest are found as typed.
  context.package_directory = FileNameToWide(request.package);
  context.manifest_path =
      FileNameToWide(request.manifest.empty() ? request.package + "/manifest" : request.manifest);
  context.fail_on_extra = !request.allow_extra;
  context.scan_root = request.scan_root;
  // The tool's default is the safe one: no package goes back in time.
  context.rollback_flags = kRollbackProtect | (request.allow_older ? kRollbackAllowOlder : 0);
  context.hash_threads = std::max(1u, std::min(request.threads, 64u));
  context.cache_flags =
      (request.incremental ? kCacheUse : 0) | (request.forget_cache ? kCacheForget : 0);
  Result result = ReadTagText(request.tag.c_str(), nullptr, &context.tag);
  if (result != VELK2_SUCCESS) {
    out->result = result;
    out->input_problem = "not a tag";
    return result;
  }
  if (std::string bad = AddPatterns(request.ignore, &context); !bad.empty()) {
    out->result = VELK2_ERR_INVALID_PARAM;
    out->input_problem = "not an ignore pattern: " + bad;
    return out->result;
  }
  // A typo must not look like tampering: a package directory that is not
  // there is no package with every file missing.
  struct stat st;
  const bool exists = ::stat(request.package.c_str(), &st) == 0;
  if (!exists || !S_ISDIR(st.st_mode)) {
    out->result = VELK2_ERR_FIND_DIR;
    out->input_problem = exists || errno == ENOTDIR ? "not a directory" : "no package directory";
    return out->result;
  }

  ManifestReport report;
  engine::ReductionTrace trace;
  trace.record_tuples = request.explain;
  report.trace = &trace;
  std::string reduced;
  report.reduced_acl = &reduced;
  CompareResults found;
  report.on_start = request.on_start;
  report.counters = request.counters;
  result = velk2::VerifyPackage(&context, request.not_before, request.not_after, &report, &found);
  out->result = result;
  out->manifest_read = result != VELK2_ERR_OPEN_MANIFEST_FILE;
  if (out->manifest_read && !report.is_manifest) out->input_problem = "not a manifest";
  out->verified = report.verified && !report.rollback.older && !report.rollback.future &&
                  !report.rollback.malformed;
  out->time_of_signing = AtomString(context.time_of_signing.get());
  out->lists_from_store = report.lists_from_store;
  out->lists_embedded = report.embedded_lists.size();
  out->rollback = RollbackOf(report.rollback);
  const CacheReport& cache = context.cache_report;
  out->cache_trusted = cache.trusted;
  out->cache_listings = cache.listings;
  out->cache_written = cache.written;
  out->cache_forgotten = cache.forgotten;
  out->cache_directory = cache.directory;
  out->cache_problem = cache.problem;
  for (const auto& [path, code] : report.acl_skipped) {
    out->signer.skipped.push_back({WideToFileName(path), code});
  }

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
  if (out->verified) {
    out->report = MakeReport(&found, context.package_directory, true, request.list_valid);
  }
  return result;
}

Result CompareManifests(const std::string& a, const std::string& b,
                        const std::vector<std::string>& ignore, TreeReport* out) {
  *out = TreeReport{};
  ManifestContext context;
  context.manifest_path = FileNameToWide(a);
  Result result = ReadTagText("(null)", nullptr, &context.tag);
  if (result != VELK2_SUCCESS) return result;
  if (!AddPatterns(ignore, &context).empty()) return VELK2_ERR_INVALID_PARAM;
  CompareResults found;
  const std::u16string other = FileNameToWide(b);
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
  context.manifest_path = FileNameToWide(path);
  ManifestFile file;
  ManifestReport report;
  Result result = ReadManifest(&context, false, 0, 0, &file, &report);
  if (result != VELK2_SUCCESS) return result;
  ManifestDirectory root;
  result = ReadManifestBody(&root, file.body(), nullptr);
  if (result != VELK2_SUCCESS) return result;
  out->version = ReadableTag(context.version.get());
  out->type = ReadableTag(context.type.get());
  const HeaderAttributes attributes = ReadHeaderAttributes(context.version.get());
  out->name = attributes.name;
  out->ignore = attributes.ignore;
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
