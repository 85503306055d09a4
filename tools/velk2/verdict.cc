#include "tools/velk2/verdict.h"

#include <cstdarg>
#include <cstdio>
#include <set>
#include <utility>

#include "acl/acl_entry.h"
#include "trust/revocation.h"
#include "credentials/certificate.h"
#include "platform/utf.h"
#include "sexp/display.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/support.h"
#include "tools/velk2/support_acl.h"

namespace velk2::cli {

using engine::ReductionTrace;
using engine::TraceKind;
using engine::TraceTuple;
using Json = nlohmann::ordered_json;

std::string BaseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return EscapeForDisplay(slash == std::string::npos ? path : path.substr(slash + 1));
}

std::string OwnerText(const SexpList* owner) {
  if (owner == nullptr || owner->ChildCount() != 2 || owner->FirstChild()->IsList() ||
      !owner->FirstChild()->AsAtom()->AtomEqualsText("owner")) {
    return {};
  }
  const SexpObject* value = owner->ChildAt(1);
  return value->IsList() ? FormatReadableLine(*value) : EscapeForDisplay(value->AsAtom()->bytes());
}

namespace {

// Whether revocation, not the order of the chain, is why the order check
// failed: it took certificates out, and the order check's code names the
// order.
bool RevocationExplainsOrder(const Story& s);

// "certificate N of FILE (owner X)", N counted from 1.
std::string CertificateName(const Story& s, size_t index) {
  const std::string owner = index < s.certificates.size() ? s.certificates[index].owner : "";
  return "certificate " + std::to_string(index + 1) + " of " + s.certs_file +
         (owner.empty() ? "" : " (owner " + owner + ")");
}

// Whether the revocation check left certificate |index| out of the chain.
bool LeftOutByRevocation(const Story& s, size_t index) {
  return s.left_out_by_revocation && index < s.revocation.size() &&
         s.revocation[index].state != kNotRevoked;
}

// Appends printf-style text to |out|.
__attribute__((format(printf, 2, 3))) void Format(std::string* out, const char* format, ...) {
  char small[256];
  va_list args;
  va_start(args, format);
  const int size = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (size < 0) return;
  if (static_cast<size_t>(size) < sizeof small) {
    out->append(small, static_cast<size_t>(size));
    return;
  }
  std::string big(static_cast<size_t>(size) + 1, '\0');
  va_start(args, format);
  std::vsnprintf(big.data(), big.size(), format, args);
  va_end(args);
  out->append(big.data(), static_cast<size_t>(size));
}

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

  // Whether a tuple of the story was read from this ACL file or certificate.
  static bool ReadFrom(const AclFile& f, const TraceTuple& t) {
    return t.kind == TraceKind::kAclEntry && f.subject == t.subject && f.propagate == t.propagate;
  }
  static bool ReadFrom(const CertificateInfo& c, const TraceTuple& t) {
    const bool subject = t.threshold_index > 0 ? c.subject.empty() : c.subject == t.subject;
    return t.kind == TraceKind::kCertificate && c.issuer == t.issuer && subject &&
           c.propagate == t.propagate;
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
    if (t.kind == TraceKind::kAclEntry) {
      std::string files;
      for (const AclFile& f : s_.acl) {
        if (ReadFrom(f, t)) files += (files.empty() ? "" : ", ") + f.file;
      }
      return "ACL entry " + (files.empty() ? std::string("(unknown file)") : files);
    }
    if (t.kind == TraceKind::kCertificate) {
      std::string found;
      for (const CertificateInfo& c : s_.certificates) {
        if (ReadFrom(c, t)) found += (found.empty() ? "" : ", ") + Name(c);
      }
      return "certificate " + (found.empty() ? std::string("(unknown)") : found);
    }
    if (t.kind == TraceKind::kDerived) return "chained from " + ids();
    if (t.kind == TraceKind::kName) return "name resolved through " + ids();
    return "k-of-n group reached by " + ids();
  }

  // The tag the matching entry or certificate states, when the reduction
  // narrowed it to the request; empty otherwise.
  std::string NarrowedFrom(const TraceTuple& t) const {
    const Stated* stated = nullptr;
    for (const AclFile& f : s_.acl) {
      if (stated == nullptr && ReadFrom(f, t)) stated = &f.stated;
    }
    for (const CertificateInfo& c : s_.certificates) {
      if (stated == nullptr && ReadFrom(c, t)) stated = &c.stated;
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
      for (const TraceTuple& t : s_.trace.tuples) used = used || ReadFrom(f, t);
      if (!used) out.push_back(&f);
    }
    return out;
  }
  std::vector<const CertificateInfo*> LeftOutCertificates() const {
    std::vector<const CertificateInfo*> out;
    for (const CertificateInfo& c : s_.certificates) {
      // Revocation, not the period or the tag, kept these out.
      if (LeftOutByRevocation(s_, static_cast<size_t>(c.number - 1))) continue;
      bool used = false;
      for (const TraceTuple& t : s_.trace.tuples) {
        bool subject = c.subject.empty() ? t.threshold_index > 0 : t.subject == c.subject;
        used = used || (t.kind == TraceKind::kCertificate && t.issuer == c.issuer && subject &&
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
    for (size_t i = 0; i < s_.certificates.size() && s_.verdict.result != VELK2_SUCCESS; ++i) {
      if (LeftOutByRevocation(s_, i)) {
        reasons.push_back(CertificateName(s_, i) +
                          " was left out of the chain: " + RevocationText(s_, i));
      }
    }
    // Without the signer's certificate the chain does not reach the object
    // certificate's issuer: nothing else is to be said.
    if (s_.verdict.result == VELK2_ERR_SIGNING_CERT_ORDER && !reasons.empty()) return reasons;
    if (s_.verdict.result == VELK2_ERR_NOT_GRANTED) {
      const TraceTuple* first = s_.trace.result.empty() ? nullptr : Find(s_.trace.result[0]);
      if (first != nullptr) {
        reasons.push_back("the first entry of the reduced ACL grants " + Tag(*first) +
                          ", which does not cover the requested " + s_.tag);
      }
      return reasons;
    }
    if (s_.verdict.result != VELK2_ERR_NOT_AUTHORIZED) return reasons;
    std::vector<const TraceTuple*> towards_key;
    std::set<std::string> extended;  // issuers whose grants towards the key were chained on
    for (const TraceTuple& t : s_.trace.tuples) {
      if (t.on_key_path) towards_key.push_back(&t);
      if (t.kind == TraceKind::kDerived) {
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

}  // namespace

std::string VerdictText(const Story& s, bool explain) {
  std::string out;
  if (s.verdict.stage != VerifyStage::kAuthorization) return out;
  if (!RevocationExplainsOrder(s)) {
    Format(&out, "result: %s\n", StatusText(s.verdict.result).c_str());
  } else {
    Format(&out, "result: %u, after the revocation check left certificates out of the chain\n",
           s.verdict.result);
  }
  Format(&out, "authorized: %s\n",
         Undecided(s.verdict.result)         ? "undecided"
         : s.verdict.result == VELK2_SUCCESS ? "yes"
                                             : "no");
  if (!explain) return out;
  Explainer x(s);
  Format(&out, "\nquestion: does %s hold %s", x.Who(s.key, false).c_str(), s.tag.c_str());
  if (s.at_now) {
    Format(&out, " now (%s)", s.not_before.c_str());
  } else if (s.any_time) {
    Format(&out, " at any time");
  } else {
    if (!s.not_before.empty()) Format(&out, " from %s", s.not_before.c_str());
    if (!s.not_after.empty()) Format(&out, " until %s", s.not_after.c_str());
  }
  Format(&out, "?\n");
  Format(&out, "ACL: %zu %s from %s", s.acl.size(), s.acl.size() == 1 ? "entry" : "entries",
         s.acl_dir.c_str());
  if (!s.skipped.empty()) Format(&out, " (%zu file(s) skipped)", s.skipped.size());
  Format(&out, "\ncertificates: %zu from %s, every signature verified\n", s.certificates.size(),
         s.certs_file.c_str());
  std::vector<std::string> revoked;
  for (size_t i = 0; i < s.certificates.size(); ++i) {
    if (LeftOutByRevocation(s, i)) {
      revoked.push_back(CertificateName(s, i) + ": " + RevocationText(s, i));
    }
  }
  if (!revoked.empty()) {
    Format(&out, "\nleft out of the chain by the revocation check:\n");
    for (const std::string& r : revoked) Format(&out, "  - %s\n", r.c_str());
  }
  if (!s.reduced && RevocationExplainsOrder(s)) {
    Format(&out,
           "\nthe reduction did not run: what was left of the chain does not lead from "
           "the ACL to the manifest\n");
    return out;
  }
  if (!s.reduced) {
    Format(&out, "\nthe reduction failed: %s\n", StatusText(s.verdict.result).c_str());
    if (s.trace.limit_reached) {
      Format(&out, "it stopped at its limit of %s\n", s.trace.limit.c_str());
    }
    return out;
  }

  if (s.trace.result.empty()) {
    Format(&out, "\nreduced ACL: empty; no chain leads from the ACL to the key\n");
  } else {
    Format(&out, "\nreduced ACL (%zu %s; only the first decides):\n", s.trace.result.size(),
           s.trace.result.size() == 1 ? "entry" : "entries");
    for (size_t i = 0; i < s.trace.result.size(); ++i) {
      if (const TraceTuple* t = x.Find(s.trace.result[i])) {
        Format(&out, "  %zu. [%d] %s\n", i + 1, t->id, x.Grant(*t).c_str());
      }
    }
    Format(&out, "\nhow they came about (parents first; tags narrowed to the request):\n");
    for (int id : x.Chain()) {
      if (const TraceTuple* t = x.Find(id)) {
        Format(&out, "  [%d] %s\n       %s", id, x.Grant(*t).c_str(), x.Source(*t).c_str());
        const std::string narrowed = x.NarrowedFrom(*t);
        if (!narrowed.empty()) Format(&out, ", which states %s", narrowed.c_str());
        Format(&out, "\n");
      }
    }
  }
  std::vector<std::string> reasons = x.Reasons();
  if (!reasons.empty()) {
    Format(&out, "\nwhy not:\n");
    for (const std::string& r : reasons) Format(&out, "  - %s\n", r.c_str());
  }
  if (s.trace.result.empty()) {
    Format(&out, "\nevery grant in the reduction (tags narrowed to the request):\n");
    if (s.trace.tuples.empty()) Format(&out, "  (none)\n");
    for (const TraceTuple& t : s.trace.tuples) {
      Format(&out, "  [%d] %s\n       %s\n", t.id, x.Grant(t).c_str(), x.Source(t).c_str());
    }
  }
  std::vector<std::string> left_out = x.LeftOut();
  if (!left_out.empty()) {
    Format(&out, "\nleft out (outside the requested period, or no tag in common with it):\n");
    for (const std::string& l : left_out) Format(&out, "  - %s\n", l.c_str());
  }
  return out;
}

namespace {

Json OrNull(const std::string& text) {
  return text.empty() ? Json(nullptr) : Json(text);
}

Json TupleJson(const Explainer& x, const TraceTuple& t) {
  return Json{{"id", t.id},
              {"kind", engine::TraceKindName(t.kind)},
              {"issuer", OrNull(t.issuer)},
              {"issuer_name", x.Who(t.issuer, true)},
              {"subject", OrNull(t.subject)},
              {"subject_name", x.Who(t.subject, false)},
              {"propagate", t.propagate},
              {"tag", Explainer::Tag(t)},
              {"not_before", OrNull(t.not_before)},
              {"not_after", OrNull(t.not_after)},
              {"parents", t.parents},
              {"source", x.Source(t)}};
}

const char* StageName(VerifyStage stage) {
  switch (stage) {
    case VerifyStage::kSignatures:
      return "signatures";
    case VerifyStage::kRevocation:
      return "revocation";
    case VerifyStage::kAuthorization:
      break;
  }
  return "authorization";
}

const char* RevocationStateName(RevocationState state) {
  switch (state) {
    case kCertificateRevoked:
      return "revoked";
    case kSubjectKeyRevoked:
      return "subject key revoked";
    case kIssuerKeyRevoked:
      return "issuer key revoked";
    case kRevocationUnchecked:
      return "no current list";
    default:
      return "not revoked";
  }
}

// The certificates the revocation check left out of a manifest's chain.
Json RevocationJson(const Story& s) {
  Json list = Json::array();
  for (size_t i = 0; i < s.certificates.size(); ++i) {
    if (!LeftOutByRevocation(s, i)) continue;
    const RevocationFinding& found = s.revocation[i];
    list.push_back(Json{{"certificate", i + 1},
                        {"owner", OrNull(s.certificates[i].owner)},
                        {"state", RevocationStateName(found.state)},
                        {"list", OrNull(Utf16ToUtf8(found.list_path))},
                        {"list_scope", OrNull(found.list_scope)},
                        {"embedded", found.list_path.empty() && !found.list_scope.empty()},
                        {"revoked_on", OrNull(found.revoked_on)},
                        {"why", RevocationText(s, i)}});
  }
  return list;
}

// The story's ACL files, each subject named after its file.
void DescribeAcl(Story* story, const SexpList& acl,
                 const std::vector<const SexpObject*>& known_keys) {
  for (const Ref<SexpObject>& child : acl.children()) {
    const AclEntry* entry = AclEntry::From(child.get());
    if (entry == nullptr) continue;
    AclFile f;
    f.file = BaseName(Utf16ToUtf8(entry->path()));
    f.subject = PrincipalFingerprint(*entry->subject(), known_keys);
    f.propagate = entry->propagate();
    f.stated = {ReadableTag(entry->tag()), AtomText(entry->not_before()),
                AtomText(entry->not_after())};
    story->names.emplace(f.subject, "subject of " + f.file);
    story->acl.push_back(std::move(f));
  }
}

}  // namespace

void Describe(Story* story, const SexpList& acl, const CertificateSequence& sequence,
              const SexpObject& key, bool with_acl) {
  std::vector<const SexpObject*> known_keys = {&key};
  for (const Ref<SexpObject>& child : acl.children()) {
    if (const AclEntry* entry = AclEntry::From(child.get())) known_keys.push_back(entry->subject());
  }
  for (size_t i = 0; i < sequence.entry_count(); ++i) {
    if (const Certificate* c = sequence.entry(i).certificate) {
      known_keys.push_back(c->issuer());
      known_keys.push_back(c->subject());
    }
  }
  story->key = PrincipalFingerprint(key, known_keys);
  for (size_t i = 0; i < sequence.entry_count(); ++i) {
    const CertificateEntry entry = sequence.entry(i);
    CertificateInfo info;
    info.number = static_cast<int>(i + 1);
    info.owner = OwnerText(entry.owner);
    if (const Certificate* c = entry.certificate) {
      info.issuer = PrincipalFingerprint(*c->issuer(), known_keys);
      if (KOfN::From(c->subject()) == nullptr) {
        info.subject = PrincipalFingerprint(*c->subject(), known_keys);
      }
      info.propagate = c->propagate();
      info.stated = {c->tag() ? ReadableTag(c->tag()) : std::string("everything"),
                     AtomText(c->not_before()), AtomText(c->not_after())};
      Ref<SexpList> scope;
      if (const SexpList* revocation = c->revocation_spec();
          revocation != nullptr && RevocationScopeOf(*revocation, &scope) == VELK2_SUCCESS) {
        info.revocation_scope = ReadableTag(scope.get());
      }
    }
    // The owner text lies outside the signed certificate, so it names the
    // issuer only as a quoted claim; the fingerprint beside it is the fact.
    if (!info.owner.empty()) {
      std::string quoted = info.owner;
      for (size_t at = quoted.find('"'); at != std::string::npos; at = quoted.find('"', at + 4)) {
        quoted.replace(at, 1, "\\x22");
      }
      story->names.emplace(info.issuer, "owner \"" + quoted + "\"");
    }
    story->certificates.push_back(std::move(info));
  }
  if (with_acl) DescribeAcl(story, acl, known_keys);
  // The key's own name wins over the others.
  story->names[story->key] = BaseName(story->key_file);
}

std::string FailedCertificate(const Story& s) {
  return CertificateName(s, s.verdict.certificate);
}

std::string StageFailureText(const Story& s) {
  const Result result = s.verdict.result;
  switch (s.verdict.stage) {
    case VerifyStage::kAuthorization:
      return std::string();
    case VerifyStage::kSignatures:
      return result == VELK2_ERR_INVALID_SEQUENCE
                 ? s.certs_file + " is not a whole certificate sequence"
                 : FailedCertificate(s) + ": its signature does not verify";
    case VerifyStage::kRevocation:
      break;
  }
  if (result == VELK2_ERR_ACL_ENTRY_NOT_FOUND) return "no ACL could be loaded";
  const size_t index = s.verdict.certificate;
  if (index >= s.revocation.size()) return FailedCertificate(s) + ": " + StatusText(result);
  return CertificateName(s, index) + ": " + RevocationText(s, index);
}

std::string RevocationText(const Story& s, size_t index) {
  if (index >= s.revocation.size()) return std::string();
  const RevocationFinding& found = s.revocation[index];
  const std::string list = found.list_path.empty()
                               ? "the manifest's own list of " + EscapeForDisplay(found.list_scope)
                               : EscapeForDisplay(Utf16ToUtf8(found.list_path));
  const std::string when = EscapeForDisplay(found.revoked_on);
  switch (found.state) {
    case kNotRevoked:
      return std::string();
    case kCertificateRevoked:
      return "revoked by " + list + " on " + when;
    case kSubjectKeyRevoked:
      return "its subject key is revoked by " + list + " on " + when;
    case kIssuerKeyRevoked:
      return "the key that signed it is revoked by " + list + " on " + when;
    default:
      break;
  }
  const std::string scope =
      index < s.certificates.size() ? s.certificates[index].revocation_scope : std::string();
  std::string why = "no verified revocation list speaks for it";
  if (!scope.empty()) why += " (it asks for a list of " + scope + ")";
  if (found.code == VELK2_ERR_NOT_AFTER) {
    why += "; the latest list ends before the period begins";
  } else if (found.code != VELK2_ERR_CRL_NOT_FOUND && found.code != VELK2_SUCCESS) {
    why += ": " + StatusText(found.code);
  }
  return why;
}

namespace {

bool RevocationExplainsOrder(const Story& s) {
  return s.verdict.result == VELK2_ERR_SIGNING_CERT_ORDER && !RevocationCause(s).empty();
}

}  // namespace

std::string RevocationCause(const Story& s) {
  if (!s.left_out_by_revocation || s.verdict.result == VELK2_SUCCESS) return std::string();
  // A few are named; a chain of hundreds would make a line nobody reads.
  constexpr size_t kNamed = 3;
  std::string out;
  size_t count = 0;
  for (size_t i = 0; i < s.revocation.size(); ++i) {
    const std::string why = RevocationText(s, i);
    if (why.empty() || ++count > kNamed) continue;
    if (!out.empty()) out += "; ";
    out += CertificateName(s, i) + " was left out of the chain: " + why;
  }
  if (count > kNamed) out += "; and " + std::to_string(count - kNamed) + " more";
  return out;
}

Json VerdictJson(const Story& s) {
  const Result result = s.verdict.result;
  Json out{{"result", static_cast<int32_t>(result)},
           {"message", RevocationExplainsOrder(s) ? RevocationCause(s) : StatusMessage(result)},
           {"authorized", result == VELK2_SUCCESS},
           {"decided", !Undecided(result)},
           {"stage", StageName(s.verdict.stage)}};
  if (s.verdict.stage != VerifyStage::kAuthorization) {
    const size_t index = s.verdict.certificate;
    out["certificate"] = index + 1;
    out["owner"] = OrNull(index < s.certificates.size() ? s.certificates[index].owner : "");
    out["why"] = StageFailureText(s);
    if (index < s.revocation.size() && !s.revocation[index].list_path.empty()) {
      out["revoked_by"] = Utf16ToUtf8(s.revocation[index].list_path);
      out["revoked_on"] = s.revocation[index].revoked_on;
    }
    return out;
  }
  Explainer x(s);
  out["question"] = Json{{"key", s.key},
                         {"key_file", s.key_file},
                         {"tag", s.tag},
                         {"not_before", OrNull(s.not_before)},
                         {"not_after", OrNull(s.not_after)}};
  auto tuples = [&](const std::vector<int>& ids) {
    Json list = Json::array();
    for (int id : ids) {
      if (const TraceTuple* t = x.Find(id)) list.push_back(TupleJson(x, *t));
    }
    return list;
  };
  out["entries"] = tuples(s.trace.result);
  out["chain"] = tuples(x.Chain());
  std::vector<int> all;
  for (const TraceTuple& t : s.trace.tuples) all.push_back(t.id);
  out["considered"] = tuples(all);
  out["reasons"] = x.Reasons();
  out["left_out"] = x.LeftOut();
  out["left_out_by_revocation"] = RevocationJson(s);
  Json skipped = Json::array();
  for (const Skipped& k : s.skipped) {
    skipped.push_back(Json{{"file", k.file},
                           {"result", static_cast<int32_t>(k.code)},
                           {"message", StatusMessage(k.code)}});
  }
  out["skipped_files"] = skipped;
  out["limit_reached"] = s.trace.limit_reached;
  out["limit"] = OrNull(s.trace.limit_reached ? s.trace.limit : std::string());
  return out;
}

std::string VerdictJsonText(const Story& story) {
  return VerdictJson(story).dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace velk2::cli
