// velk2 authorize: does a key, through a file of certificates, hold a tag
// under the ACL of a directory? Asks the library's authorization query and,
// with --explain or --json, tells why from the reduction's own story.
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "acl/acl_entry.h"
#include "acl/authorize.h"
#include "credentials/certificate.h"
#include "credentials/certificate_sequence.h"
#include "credentials/signature.h"
#include "engine/reduce.h"
#include "frame/paths.h"
#include "platform/utf.h"
#include "sexp/display.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "tools/velk2/support_acl.h"

namespace velk2::cli {
namespace {

constexpr char kName[] = "authorize";

using engine::ReductionTrace;
using engine::TraceTuple;

// The last component of a path, escaped for display: a file name may hold
// anything but "/" and NUL.
std::string BaseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return EscapeForDisplay(slash == std::string::npos ? path : path.substr(slash + 1));
}

// The owner text of an owner list (owner X), escaped for display, or empty.
std::string OwnerText(const SexpList* owner) {
  if (owner == nullptr || owner->ChildCount() != 2 || owner->FirstChild()->IsList() ||
      !owner->FirstChild()->AsAtom()->AtomEqualsText("owner")) {
    return {};
  }
  const SexpObject* value = owner->ChildAt(1);
  return value->IsList() ? FormatReadableLine(*value) : EscapeForDisplay(value->AsAtom()->bytes());
}

// A grant as the file states it, before the reduction narrows it.
struct Stated {
  std::string tag;  // readable
  std::string not_before, not_after;
};

struct AclFile {
  std::string file;  // base name
  std::string subject;
  bool propagate = false;
  Stated stated;
};

struct CertificateInfo {
  int number = 0;  // 1-based position in the file
  std::string owner;
  std::string issuer;
  std::string subject;  // empty for a k-of-n subject
  bool propagate = false;
  Stated stated;
};

struct Skipped {
  std::string file;
  Result code;
};

// Everything the explanation needs besides the trace.
struct Story {
  std::string key_file;
  std::string key;  // fingerprint
  std::string tag;  // readable
  std::string not_before, not_after;
  bool at_now = false;    // no period given: the question is about now
  bool any_time = false;  // --any-time: no period at all
  std::string acl_dir, certs_file;
  std::vector<AclFile> acl;
  std::vector<CertificateInfo> certificates;
  std::vector<Skipped> skipped;
  std::map<std::string, std::string> names;  // fingerprint -> what people call it
  Result result = VELK2_SUCCESS;
  ReductionTrace trace;
  bool reduced = false;  // the reduction ran to its end
};

class Explainer {
 public:
  explicit Explainer(const Story& story) : s_(story) {
    for (size_t i = 0; i < s_.trace.tuples.size(); ++i) index_[s_.trace.tuples[i].id] = i;
  }

  const TraceTuple* Find(int id) const {
    auto it = index_.find(id);
    return it == index_.end() ? nullptr : &s_.trace.tuples[it->second];
  }

  std::string Name(const std::string& fingerprint) const {
    auto it = s_.names.find(fingerprint);
    return it == s_.names.end() ? std::string() : it->second;
  }

  // "dev.pub [ab12cd34ef56ab12]", "the ACL", or "a k-of-n group".
  std::string Who(const std::string& fingerprint, bool issuer) const {
    if (fingerprint.empty()) return issuer ? "the ACL" : "a k-of-n group";
    std::string name = Name(fingerprint);
    std::string shortened = "[" + fingerprint.substr(0, 16) + "]";
    return name.empty() ? "key " + shortened : name + " " + shortened;
  }

  static std::string Tag(const TraceTuple& t) {
    return t.tag.empty() ? "everything" : ReadableTagFromCanonical(t.tag);
  }

  static std::string Period(const std::string& not_before, const std::string& not_after) {
    if (not_before.empty() && not_after.empty()) return "always";
    return (not_before.empty() ? std::string("any time") : "from " + not_before) +
           (not_after.empty() ? std::string(" on") : " until " + not_after);
  }
  static std::string Period(const TraceTuple& t) { return Period(t.not_before, t.not_after); }

  std::string StatedGrant(const std::string& issuer, const std::string& subject, bool propagate,
                          const Stated& stated) const {
    return Who(issuer, true) + " grants " + Who(subject, false) + " " + stated.tag +
           (propagate ? ", may delegate, " : ", ") + Period(stated.not_before, stated.not_after);
  }
  std::string StatedGrant(const AclFile& f) const {
    return StatedGrant("", f.subject, f.propagate, f.stated);
  }
  std::string StatedGrant(const CertificateInfo& c) const {
    return StatedGrant(c.issuer, c.subject, c.propagate, c.stated);
  }
  std::string Name(const CertificateInfo& c) const {
    return BaseName(s_.certs_file) + " #" + std::to_string(c.number) +
           (c.owner.empty() ? "" : " (owner " + c.owner + ")");
  }

  // Where a tuple came from, for people.
  std::string Source(const TraceTuple& t) const {
    auto ids = [&]() {
      std::string out;
      for (size_t i = 0; i < t.parents.size(); ++i) {
        out += i == 0 ? "" : i + 1 == t.parents.size() ? " and " : ", ";
        out.append("[").append(std::to_string(t.parents[i])).append("]");
      }
      return out;
    };
    if (t.kind == "acl entry") {
      std::string files;
      for (const AclFile& f : s_.acl) {
        if (f.subject == t.subject && f.propagate == t.propagate) {
          files += (files.empty() ? "" : ", ") + f.file;
        }
      }
      return "ACL entry " + (files.empty() ? std::string("(unknown file)") : files);
    }
    if (t.kind == "certificate") {
      std::string found;
      for (const CertificateInfo& c : s_.certificates) {
        bool subject = t.threshold_index > 0 ? c.subject.empty() : c.subject == t.subject;
        if (c.issuer == t.issuer && subject && c.propagate == t.propagate) {
          found += (found.empty() ? "" : ", ") + Name(c);
        }
      }
      return "certificate " + (found.empty() ? std::string("(unknown)") : found);
    }
    if (t.kind == "derived") return "chained from " + ids();
    if (t.kind == "name") return "name resolved through " + ids();
    if (t.kind == "threshold") return "k-of-n group reached by " + ids();
    return t.kind;
  }

  // The tag the matching entry or certificate states, when the reduction
  // narrowed it to the request; empty otherwise.
  std::string NarrowedFrom(const TraceTuple& t) const {
    const Stated* stated = nullptr;
    if (t.kind == "acl entry") {
      for (const AclFile& f : s_.acl) {
        if (stated == nullptr && f.subject == t.subject && f.propagate == t.propagate) {
          stated = &f.stated;
        }
      }
    } else if (t.kind == "certificate") {
      for (const CertificateInfo& c : s_.certificates) {
        bool subject = t.threshold_index > 0 ? c.subject.empty() : c.subject == t.subject;
        if (stated == nullptr && c.issuer == t.issuer && subject && c.propagate == t.propagate) {
          stated = &c.stated;
        }
      }
    }
    return stated != nullptr && stated->tag != Tag(t) ? stated->tag : std::string();
  }

  std::string Grant(const TraceTuple& t) const {
    std::string out = Who(t.issuer, true) + " grants " + Who(t.subject, false) + " " + Tag(t);
    if (t.propagate) out += ", may delegate";
    return out + ", " + Period(t);
  }

  // The tuples that led to the results, parents before children.
  std::vector<int> Chain() const {
    std::vector<int> order;
    std::set<int> seen;
    std::vector<std::pair<int, bool>> stack;
    for (auto it = s_.trace.result.rbegin(); it != s_.trace.result.rend(); ++it) {
      stack.push_back({*it, false});
    }
    while (!stack.empty()) {
      auto [id, expanded] = stack.back();
      stack.pop_back();
      if (expanded) {
        order.push_back(id);
        continue;
      }
      if (!seen.insert(id).second) continue;
      stack.push_back({id, true});
      if (const TraceTuple* t = Find(id)) {
        for (auto p = t->parents.rbegin(); p != t->parents.rend(); ++p) {
          if (!seen.count(*p)) stack.push_back({*p, false});
        }
      }
    }
    return order;
  }

  // The entries and certificates that never joined the reduction: outside
  // the requested period, or sharing no tag with the request.
  std::vector<const AclFile*> LeftOutEntries() const {
    std::vector<const AclFile*> out;
    for (const AclFile& f : s_.acl) {
      bool used = false;
      for (const TraceTuple& t : s_.trace.tuples) {
        used =
            used || (t.kind == "acl entry" && t.subject == f.subject && t.propagate == f.propagate);
      }
      if (!used) out.push_back(&f);
    }
    return out;
  }
  std::vector<const CertificateInfo*> LeftOutCertificates() const {
    std::vector<const CertificateInfo*> out;
    for (const CertificateInfo& c : s_.certificates) {
      bool used = false;
      for (const TraceTuple& t : s_.trace.tuples) {
        bool subject = c.subject.empty() ? t.threshold_index > 0 : t.subject == c.subject;
        used = used || (t.kind == "certificate" && t.issuer == c.issuer && subject &&
                        t.propagate == c.propagate);
      }
      if (!used) out.push_back(&c);
    }
    return out;
  }
  std::vector<std::string> LeftOut() const {
    std::vector<std::string> out;
    for (const AclFile* f : LeftOutEntries()) {
      out.push_back("ACL entry " + f->file + ": " + StatedGrant(*f));
    }
    for (const CertificateInfo* c : LeftOutCertificates()) {
      out.push_back("certificate " + Name(*c) + ": " + StatedGrant(*c));
    }
    return out;
  }

  // Why nothing reached the ACL: for each principal where a chain towards
  // the key stops, what it lacks.
  std::vector<std::string> Reasons() const {
    std::vector<std::string> reasons;
    if (s_.result == VELK2_ERR_NOT_GRANTED) {
      const TraceTuple* first = s_.trace.result.empty() ? nullptr : Find(s_.trace.result[0]);
      if (first != nullptr) {
        reasons.push_back("the first entry of the reduced ACL grants " + Tag(*first) +
                          ", which does not cover the requested " + s_.tag);
      }
      return reasons;
    }
    if (s_.result != VELK2_ERR_NOT_AUTHORIZED) return reasons;
    std::vector<const TraceTuple*> towards_key;
    std::set<std::string> extended;  // issuers whose grants towards the key were chained on
    for (const TraceTuple& t : s_.trace.tuples) {
      if (t.on_key_path) towards_key.push_back(&t);
      if (t.kind == "derived") {
        for (int p : t.parents) {
          const TraceTuple* parent = Find(p);
          if (parent != nullptr && parent->on_key_path) extended.insert(parent->issuer);
        }
      }
    }
    if (towards_key.empty()) {
      reasons.push_back("no ACL entry or certificate that joined the reduction names " +
                        Who(s_.key, false) + " as its subject");
      for (const AclFile* f : LeftOutEntries()) {
        if (f->subject == s_.key) {
          reasons.push_back("ACL entry " + f->file +
                            " names the key but was left out: its period or tag does not meet "
                            "the request (" +
                            StatedGrant(*f) + ")");
        }
      }
      for (const CertificateInfo* c : LeftOutCertificates()) {
        if (c->subject == s_.key) {
          reasons.push_back("certificate " + Name(*c) +
                            " names the key but was left out: its period or tag does not meet "
                            "the request (" +
                            StatedGrant(*c) + ")");
        }
      }
      return reasons;
    }
    std::set<std::string> told;
    for (const TraceTuple* t : towards_key) {
      const std::string& issuer = t->issuer;
      if (issuer.empty() || extended.count(issuer) || !told.insert(issuer).second) continue;
      std::string grants, delegating;
      for (const TraceTuple& g : s_.trace.tuples) {
        if (g.subject != issuer) continue;
        grants += (grants.empty() ? "[" : ", [") + std::to_string(g.id) + "]";
        if (g.propagate)
          delegating += (delegating.empty() ? "[" : ", [") + std::to_string(g.id) + "]";
      }
      const std::string who = Who(issuer, true);
      if (grants.empty()) {
        reasons.push_back(who + " grants towards the key ([" + std::to_string(t->id) +
                          "]), but nothing grants " + who +
                          " anything: no ACL entry or certificate in the reduction names it as "
                          "its subject");
      } else if (delegating.empty()) {
        reasons.push_back(who + " grants towards the key ([" + std::to_string(t->id) +
                          "]), but its own grants (" + grants +
                          ") lack propagate, so it cannot pass authority on");
      } else {
        reasons.push_back(who + " grants towards the key ([" + std::to_string(t->id) +
                          "]), but the grants to it that may be delegated (" + delegating +
                          ") share no tag or no period with that grant");
      }
    }
    return reasons;
  }

 private:
  const Story& s_;
  std::map<int, size_t> index_;
};

void PrintText(const Story& s, bool explain) {
  std::printf("result: %s\n", StatusText(s.result).c_str());
  std::printf("authorized: %s\n", Undecided(s.result)         ? "undecided"
                                  : s.result == VELK2_SUCCESS ? "yes"
                                                              : "no");
  if (!explain) return;
  Explainer x(s);
  std::printf("\nquestion: does %s hold %s", x.Who(s.key, false).c_str(), s.tag.c_str());
  if (s.at_now) {
    std::printf(" now (%s)", s.not_before.c_str());
  } else if (s.any_time) {
    std::printf(" at any time");
  } else {
    if (!s.not_before.empty()) std::printf(" from %s", s.not_before.c_str());
    if (!s.not_after.empty()) std::printf(" until %s", s.not_after.c_str());
  }
  std::printf("?\n");
  std::printf("ACL: %zu %s from %s", s.acl.size(), s.acl.size() == 1 ? "entry" : "entries",
              s.acl_dir.c_str());
  if (!s.skipped.empty()) std::printf(" (%zu file(s) skipped)", s.skipped.size());
  std::printf("\ncertificates: %zu from %s, every signature verified\n", s.certificates.size(),
              s.certs_file.c_str());
  if (!s.reduced) {
    std::printf("\nthe reduction failed: %s\n", StatusText(s.result).c_str());
    if (s.trace.limit_reached) {
      std::printf("it stopped at its limit of %s\n", s.trace.limit.c_str());
    }
    return;
  }

  if (s.trace.result.empty()) {
    std::printf("\nreduced ACL: empty; no chain leads from the ACL to the key\n");
  } else {
    std::printf("\nreduced ACL (%zu %s; only the first decides):\n", s.trace.result.size(),
                s.trace.result.size() == 1 ? "entry" : "entries");
    for (size_t i = 0; i < s.trace.result.size(); ++i) {
      if (const TraceTuple* t = x.Find(s.trace.result[i])) {
        std::printf("  %zu. [%d] %s\n", i + 1, t->id, x.Grant(*t).c_str());
      }
    }
    std::printf("\nhow they came about (parents first; tags narrowed to the request):\n");
    for (int id : x.Chain()) {
      if (const TraceTuple* t = x.Find(id)) {
        std::printf("  [%d] %s\n       %s", id, x.Grant(*t).c_str(), x.Source(*t).c_str());
        const std::string narrowed = x.NarrowedFrom(*t);
        if (!narrowed.empty()) std::printf(", which states %s", narrowed.c_str());
        std::printf("\n");
      }
    }
  }
  std::vector<std::string> reasons = x.Reasons();
  if (!reasons.empty()) {
    std::printf("\nwhy not:\n");
    for (const std::string& r : reasons) std::printf("  - %s\n", r.c_str());
  }
  if (s.trace.result.empty()) {
    std::printf("\nevery grant in the reduction (tags narrowed to the request):\n");
    if (s.trace.tuples.empty()) std::printf("  (none)\n");
    for (const TraceTuple& t : s.trace.tuples) {
      std::printf("  [%d] %s\n       %s\n", t.id, x.Grant(t).c_str(), x.Source(t).c_str());
    }
  }
  std::vector<std::string> left_out = x.LeftOut();
  if (!left_out.empty()) {
    std::printf("\nleft out (outside the requested period, or no tag in common with it):\n");
    for (const std::string& l : left_out) std::printf("  - %s\n", l.c_str());
  }
}

std::string JsonOrNull(const std::string& text) {
  return text.empty() ? "null" : JsonString(text);
}

std::string TupleJson(const Explainer& x, const TraceTuple& t) {
  std::string parents;
  for (size_t i = 0; i < t.parents.size(); ++i) {
    parents.append(i ? "," : "").append(std::to_string(t.parents[i]));
  }
  return "{\"id\":" + std::to_string(t.id) + ",\"kind\":" + JsonString(t.kind) +
         ",\"issuer\":" + JsonOrNull(t.issuer) +
         ",\"issuer_name\":" + JsonString(x.Who(t.issuer, true)) +
         ",\"subject\":" + JsonOrNull(t.subject) +
         ",\"subject_name\":" + JsonString(x.Who(t.subject, false)) +
         ",\"propagate\":" + (t.propagate ? "true" : "false") +
         ",\"tag\":" + JsonString(Explainer::Tag(t)) +
         ",\"not_before\":" + JsonOrNull(t.not_before) +
         ",\"not_after\":" + JsonOrNull(t.not_after) + ",\"parents\":[" + parents +
         "],\"source\":" + JsonString(x.Source(t)) + "}";
}

void PrintJson(const Story& s) {
  Explainer x(s);
  std::string out = "{\"result\":" + std::to_string(static_cast<int32_t>(s.result)) +
                    ",\"message\":" + JsonString(StatusMessage(s.result)) +
                    ",\"authorized\":" + (s.result == VELK2_SUCCESS ? "true" : "false") +
                    ",\"decided\":" + (Undecided(s.result) ? "false" : "true");
  out += ",\"question\":{\"key\":" + JsonString(s.key) + ",\"key_file\":" + JsonString(s.key_file) +
         ",\"tag\":" + JsonString(s.tag) + ",\"not_before\":" + JsonOrNull(s.not_before) +
         ",\"not_after\":" + JsonOrNull(s.not_after) + "}";
  auto tuples = [&](const std::vector<int>& ids) {
    std::string list;
    for (int id : ids) {
      if (const TraceTuple* t = x.Find(id))
        list.append(list.empty() ? "" : ",").append(TupleJson(x, *t));
    }
    return "[" + list + "]";
  };
  out += ",\"entries\":" + tuples(s.trace.result);
  out += ",\"chain\":" + tuples(x.Chain());
  std::vector<int> all;
  for (const TraceTuple& t : s.trace.tuples) all.push_back(t.id);
  out += ",\"considered\":" + tuples(all);
  auto strings = [](const std::vector<std::string>& items) {
    std::string list;
    for (const std::string& item : items)
      list.append(list.empty() ? "" : ",").append(JsonString(item));
    return "[" + list + "]";
  };
  out += ",\"reasons\":" + strings(x.Reasons());
  out += ",\"left_out\":" + strings(x.LeftOut());
  std::string skipped;
  for (const Skipped& k : s.skipped) {
    skipped.append(skipped.empty() ? "" : ",").append("{\"file\":").append(JsonString(k.file));
    skipped.append(",\"result\":").append(std::to_string(static_cast<int32_t>(k.code)));
    skipped.append(",\"message\":").append(JsonString(StatusMessage(k.code))).append("}");
  }
  out += ",\"skipped_files\":[" + skipped + "]";
  out += ",\"limit_reached\":" + std::string(s.trace.limit_reached ? "true" : "false");
  out += ",\"limit\":" + JsonOrNull(s.trace.limit_reached ? s.trace.limit : std::string());
  out += "}\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
}

// Loads the ACL of |dir| by the library's rules (a bad last file or no good
// entry refuses the whole ACL) and notes every file that does not load.
int LoadAclDirectory(const std::string& dir, Story* story, Ref<SexpList>* acl) {
  const std::u16string directory = Utf8ToUtf16(dir);
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return Fail(kExitUsage, kName, "--acl-dir: no directory " + dir);
  }
  DirectoryEnumerator files;
  if (files.Open(directory.c_str(), u"*.acl") != VELK2_SUCCESS) {
    return Fail(kExitUsage, kName, "--acl-dir " + dir + " holds no *.acl file");
  }
  for (const char16_t* path = files.Next(true); path != nullptr; path = files.Next(true)) {
    Ref<AclEntry> entry = AclEntry::New();
    Result r = LoadAclEntryFile(entry.get(), path);
    if (r != VELK2_SUCCESS) {
      const std::string file = EscapeForDisplay(Utf16ToUtf8(path));
      story->skipped.push_back({file, r});
      std::fprintf(stderr, "velk2 %s: skipped %s: %s\n", kName, file.c_str(),
                   StatusText(r).c_str());
    }
  }
  Result r = LoadAclFromDirectory(acl, nullptr, directory.c_str(), nullptr);
  if (r != VELK2_SUCCESS) {
    return FailWith(kExitUsage, kName,
                    "no ACL from " + dir +
                        (story->skipped.empty() ? std::string()
                                                : " (its last file, or every file, does not load)"),
                    r);
  }
  return kExitOk;
}

int RunAuthorize(const Args& args) {
  Options options({"acl-dir", "certs", "key", "tag", "not-before", "not-after"},
                  {"explain", "json", "any-time"});
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> acl_dir = options.Get("acl-dir");
  std::optional<std::string> certs = options.Get("certs");
  std::optional<std::string> key_path = options.Get("key");
  std::optional<std::string> tag_text = options.Get("tag");
  if (!acl_dir || !certs || !key_path || !tag_text) {
    return UsageError(kName, "--acl-dir, --certs, --key and --tag are required");
  }
  const bool json = options.Has("json");
  Story story;
  story.key_file = *key_path;
  story.acl_dir = *acl_dir;
  story.certs_file = *certs;

  // The period asked about.
  Ref<SexpList> validity;
  std::optional<int64_t> times[2];
  const char* const fields[] = {"not-before", "not-after"};
  for (int i = 0; i < 2; ++i) {
    if (std::optional<std::string> text = options.Get(fields[i])) {
      int64_t time = 0;
      if (issuing::ParseDate(*text, &time) != VELK2_SUCCESS) {
        return UsageError(kName, "--" + std::string(fields[i]) + " '" + *text +
                                     "' is not a date YYYY-MM-DD_hh:mm:ss");
      }
      times[i] = time;
      (i == 0 ? story.not_before : story.not_after) = issuing::FormatDate(time);
    }
  }
  if (times[0] && times[1] && *times[0] > *times[1]) {
    return UsageError(kName, "--not-before is after --not-after");
  }
  story.any_time = options.Has("any-time");
  if (story.any_time && (times[0] || times[1])) {
    return UsageError(kName, "--any-time takes no --not-before or --not-after");
  }
  if (!story.any_time && !times[0] && !times[1]) {
    // Without a period a person means now: an expired grant must not count.
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    times[0] = times[1] = now;
    story.not_before = story.not_after = issuing::FormatDate(now);
    story.at_now = true;
  }
  Result r = VELK2_SUCCESS;
  if (times[0] || times[1]) {
    r = NewKeywordList(&validity, "valid", nullptr);
    for (int i = 0; i < 2 && r == VELK2_SUCCESS; ++i) {
      if (!times[i]) continue;
      Ref<SexpList> field;
      r = NewKeywordListWithText(&field, fields[i], issuing::FormatDate(*times[i]).c_str(),
                                 nullptr);
      if (r == VELK2_SUCCESS) r = validity->Append(std::move(field));
    }
    if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot build the period", r);
  }

  Ref<SexpList> tag;
  r = issuing::ParseTag(*tag_text, &tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the tag", r);
  story.tag = ReadableTag(tag.get());

  Ref<SexpList> key;
  r = LoadPublicKey(*key_path, &key);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read " + *key_path, r);
  story.key = Fingerprint(*key);

  Ref<SexpList> acl;
  if (int exit = LoadAclDirectory(*acl_dir, &story, &acl); exit != kExitOk) return exit;

  Ref<CertificateSequence> file;
  r = ReadCertificateFile(&file, Utf8ToUtf16(*certs).c_str(), nullptr);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read " + *certs, r);

  // Every signature first: a chain with a bad link is no chain.
  for (size_t i = 0; i < file->entry_count(); ++i) {
    CertificateEntry entry = file->entry(i);
    r = VerifySignature(entry.signature, entry.certificate);
    if (r != VELK2_SUCCESS) {
      const std::string owner = OwnerText(entry.owner);
      const std::string which = "certificate " + std::to_string(i + 1) + " of " + *certs +
                                (owner.empty() ? "" : " (owner " + owner + ")");
      if (json) {
        std::printf(
            "{\"result\":%d,\"message\":%s,\"authorized\":false,\"stage\":\"signatures\","
            "\"certificate\":%zu,\"owner\":%s}\n",
            static_cast<int32_t>(r), JsonString(StatusMessage(r)).c_str(), i + 1,
            JsonOrNull(owner).c_str());
      }
      return FailWith(kExitFailure, kName, which + ": its signature does not verify", r);
    }
  }

  // The certificates rebuilt without their revocation specifications, and
  // who is who for the explanation.
  std::vector<const SexpObject*> known_keys = {key.get()};
  for (const Ref<SexpObject>& child : acl->children()) {
    if (const AclEntry* entry = AclEntry::From(child.get())) known_keys.push_back(entry->subject());
  }
  for (size_t i = 0; i < file->entry_count(); ++i) {
    known_keys.push_back(file->entry(i).certificate->issuer());
    known_keys.push_back(file->entry(i).certificate->subject());
  }
  Ref<SexpList> sequence;
  r = NewKeywordList(&sequence, "sequence", nullptr);
  for (size_t i = 0; i < file->entry_count() && r == VELK2_SUCCESS; ++i) {
    const CertificateEntry entry = file->entry(i);
    const Certificate& c = *entry.certificate;
    Ref<Certificate> rebuilt = Certificate::New();
    r = BuildCertificate(
        rebuilt.get(), const_cast<Principal*>(c.issuer()), const_cast<Principal*>(c.subject()),
        c.propagate(), const_cast<SexpList*>(c.tag()), const_cast<SexpAtom*>(c.not_before()),
        const_cast<SexpAtom*>(c.not_after()), const_cast<SexpAtom*>(c.comment()), nullptr);
    if (r == VELK2_SUCCESS) r = sequence->Append(std::move(rebuilt));
    CertificateInfo info;
    info.number = static_cast<int>(i + 1);
    info.owner = OwnerText(entry.owner);
    info.issuer = PrincipalFingerprint(*c.issuer(), known_keys);
    if (KOfN::From(c.subject()) == nullptr) {
      info.subject = PrincipalFingerprint(*c.subject(), known_keys);
    }
    info.propagate = c.propagate();
    info.stated = {c.tag() ? ReadableTag(c.tag()) : std::string("everything"),
                   AtomText(c.not_before()), AtomText(c.not_after())};
    // The owner text lies outside the signed certificate, so it names the
    // issuer only as a quoted claim; the fingerprint beside it is the fact.
    if (!info.owner.empty()) {
      std::string quoted = info.owner;
      for (size_t at = quoted.find('"'); at != std::string::npos; at = quoted.find('"', at + 4)) {
        quoted.replace(at, 1, "\\x22");
      }
      story.names.emplace(info.issuer, "owner \"" + quoted + "\"");
    }
    story.certificates.push_back(std::move(info));
  }
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot build the sequence", r);
  for (const Ref<SexpObject>& child : acl->children()) {
    const AclEntry* entry = AclEntry::From(child.get());
    if (entry == nullptr) continue;
    AclFile f;
    f.file = BaseName(Utf16ToUtf8(entry->path()));
    f.subject = PrincipalFingerprint(*entry->subject(), known_keys);
    f.propagate = entry->propagate();
    f.stated = {ReadableTag(entry->tag()), AtomText(entry->not_before()),
                AtomText(entry->not_after())};
    story.names.emplace(f.subject, "subject of " + f.file);
    story.acl.push_back(std::move(f));
  }
  // The key's own name wins over the others.
  story.names[story.key] = BaseName(*key_path);

  std::string reduced;
  story.result = AuthorizeKey(nullptr, acl.get(), sequence.get(), key.get(), tag.get(),
                              validity.get(), &story.trace, &reduced);
  story.reduced = !reduced.empty();
  if (json) {
    PrintJson(story);
  } else {
    PrintText(story, options.Has("explain"));
  }
  if (Undecided(story.result)) {
    // No answer is not the answer no: the engine or the crypto library gave up.
    std::string why = "the question could not be decided: " + StatusText(story.result);
    if (story.trace.limit_reached) {
      why += " (the reduction stopped at its limit of " + story.trace.limit + ")";
    }
    return Fail(kExitUsage, kName, why);
  }
  return story.result == VELK2_SUCCESS ? kExitOk : kExitFailure;
}

VELK2_COMMAND("authorize",
              "--acl-dir DIR --certs FILE.cert --key FILE.pub --tag TEXT [--not-before DATE] "
              "[--not-after DATE | --any-time] [--explain] [--json]",
              "ask whether the key holds TEXT under the ACL of DIR through the certificates of "
              "FILE.cert (signatures checked first); without dates the question is about now, "
              "--any-time asks without a period; exit 0 authorized, 1 not, 2 usage, unreadable "
              "input or undecided (an engine limit or error); --explain tells why, --json prints "
              "the same as one JSON object",
              RunAuthorize);

}  // namespace
}  // namespace velk2::cli
