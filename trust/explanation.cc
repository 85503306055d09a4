#include "trust/explanation.h"

#include <map>
#include <set>
#include <utility>

#include "acl/acl_entry.h"
#include "platform/utf.h"
#include "trust/describe.h"

namespace velk2 {

using engine::ReductionTrace;
using engine::TraceInput;
using engine::TraceKind;
using engine::TraceTuple;

namespace {

// A grant as its file states it, before the reduction narrows it.
struct Stated {
  std::string tag;  // readable
  std::string not_before, not_after;
  bool propagate = false;
};

std::string BaseOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Period(const std::string& not_before, const std::string& not_after) {
  if (not_before.empty() && not_after.empty()) return "always";
  return (not_before.empty() ? std::string("any time") : "from " + not_before) +
         (not_after.empty() ? std::string(" on") : " until " + not_after);
}

std::string TagOf(const TraceTuple& t) {
  return t.tag.empty() ? "everything" : ReadableTagFromCanonical(t.tag);
}

class Explainer {
 public:
  Explainer(const ExplanationSources& sources, const ReductionTrace& trace, Result result)
      : s_(sources), trace_(trace), result_(result) {
    for (size_t i = 0; i < trace_.tuples.size(); ++i) index_[trace_.tuples[i].id] = i;
    NameEveryone();
  }

  const TraceTuple* Find(int id) const {
    auto it = index_.find(id);
    return it == index_.end() ? nullptr : &trace_.tuples[it->second];
  }

  // "build.pub [ab12cd34ef56ab12]", "the ACL", or "a k-of-n group".
  std::string Who(const std::string& fingerprint, bool issuer) const {
    if (fingerprint.empty()) return issuer ? "the ACL" : "a k-of-n group";
    auto it = names_.find(fingerprint);
    const std::string shortened = "[" + fingerprint.substr(0, 16) + "]";
    return it == names_.end() ? "key " + shortened : it->second + " " + shortened;
  }

  // The ACL entry at |position| of the ACL put to the engine.
  const AclEntry* Entry(int position) const {
    return position < 0 || s_.acl == nullptr
               ? nullptr
               : AclEntry::From(s_.acl->ChildAt(static_cast<size_t>(position) + 1));
  }
  size_t EntryCount() const {
    return s_.acl != nullptr && s_.acl->ChildCount() > 0 ? s_.acl->ChildCount() - 1 : 0;
  }
  std::string EntryFile(const AclEntry* entry) const {
    const std::string path = Utf16ToUtf8(entry->path());
    const size_t slash = path.find_last_of('/');
    return EscapeForDisplay(slash == std::string::npos ? path : path.substr(slash + 1));
  }
  // The certificate of the sequence behind certificate |position| put to the engine.
  size_t SequenceIndex(int position) const {
    const size_t at = static_cast<size_t>(position);
    return s_.engine_certificates.empty()
               ? at
               : (at < s_.engine_certificates.size() ? s_.engine_certificates[at] : SIZE_MAX);
  }
  size_t EngineCertificateCount() const {
    return s_.engine_certificates.empty() && s_.sequence != nullptr ? s_.sequence->entry_count()
                                                                    : s_.engine_certificates.size();
  }
  const Certificate* CertificateAt(size_t index) const {
    return s_.sequence != nullptr && index < s_.sequence->entry_count()
               ? s_.sequence->entry(index).certificate
               : nullptr;
  }

  static Stated StatedOf(const AclEntry& entry) {
    return {ReadableTag(entry.tag()), EscapeForDisplay(AtomString(entry.not_before())),
            EscapeForDisplay(AtomString(entry.not_after())), entry.propagate()};
  }
  static Stated StatedOf(const Certificate& certificate) {
    return {certificate.tag() ? ReadableTag(certificate.tag()) : std::string("everything"),
            EscapeForDisplay(AtomString(certificate.not_before())),
            EscapeForDisplay(AtomString(certificate.not_after())), certificate.propagate()};
  }

  std::string StatedGrant(const std::string& issuer, const std::string& subject,
                          const Stated& stated) const {
    return Who(issuer, true) + " grants " + Who(subject, false) + " " + stated.tag +
           (stated.propagate ? ", may delegate, " : ", ") +
           Period(stated.not_before, stated.not_after);
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
    switch (t.kind) {
      case TraceKind::kAclEntry: {
        const AclEntry* entry = Entry(t.source);
        return "ACL entry " + (entry ? EntryFile(entry) : std::string("(unknown file)"));
      }
      case TraceKind::kCertificate: {
        const size_t index = SequenceIndex(t.source);
        return index == SIZE_MAX ? std::string("certificate (unknown)")
                                 : "certificate " + Short(index);
      }
      case TraceKind::kDerived:
        return "chained from " + ids();
      case TraceKind::kName:
        return "name resolved through " + ids();
      case TraceKind::kThreshold:
        break;
    }
    return "k-of-n group reached by " + ids();
  }

  // "chain.cert #2 (owner vendor)".
  std::string Short(size_t index) const {
    const std::string owner = s_.sequence != nullptr && index < s_.sequence->entry_count()
                                  ? OwnerText(s_.sequence->entry(index).owner)
                                  : std::string();
    return EscapeForDisplay(BaseOf(s_.certificates_source)) + " #" + std::to_string(index + 1) +
           (owner.empty() ? "" : " (owner " + EscapeForDisplay(owner) + ")");
  }

  // The tag the tuple's entry or certificate states, when the reduction
  // narrowed it to the request; empty otherwise.
  std::string NarrowedFrom(const TraceTuple& t) const {
    std::string stated;
    if (t.kind == TraceKind::kAclEntry) {
      if (const AclEntry* entry = Entry(t.source)) stated = StatedOf(*entry).tag;
    } else if (t.kind == TraceKind::kCertificate) {
      if (const Certificate* c = CertificateAt(SequenceIndex(t.source))) stated = StatedOf(*c).tag;
    }
    return !stated.empty() && stated != TagOf(t) ? stated : std::string();
  }

  api::Grant GrantOf(const TraceTuple& t) const {
    api::Grant g;
    g.id = t.id;
    g.kind = engine::TraceKindName(t.kind);
    g.issuer = t.issuer;
    g.subject = t.subject;
    g.issuer_name = Who(t.issuer, true);
    g.subject_name = Who(t.subject, false);
    g.propagate = t.propagate;
    g.tag = TagOf(t);
    g.not_before = EscapeForDisplay(t.not_before);
    g.not_after = EscapeForDisplay(t.not_after);
    g.parents = t.parents;
    g.source = Source(t);
    g.stated_tag = NarrowedFrom(t);
    g.text = g.issuer_name + " grants " + g.subject_name + " " + g.tag +
             (t.propagate ? ", may delegate" : "") + ", " + Period(g.not_before, g.not_after);
    return g;
  }

  // The tuples that led to the results, parents before children.
  std::vector<int> Chain() const {
    std::vector<int> order;
    std::set<int> seen;
    std::vector<std::pair<int, bool>> stack;
    for (auto it = trace_.result.rbegin(); it != trace_.result.rend(); ++it) {
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

  // The ACL entries and certificates put to the engine that never joined
  // the reduction: outside the requested period, or no tag in common.
  std::vector<int> LeftOutEntries() const {
    std::set<int> joined;
    for (const TraceTuple& t : trace_.tuples) {
      if (t.kind == TraceKind::kAclEntry) joined.insert(t.source);
    }
    std::vector<int> out;
    for (size_t i = 0; i < EntryCount(); ++i) {
      if (!joined.count(static_cast<int>(i))) out.push_back(static_cast<int>(i));
    }
    return out;
  }
  std::vector<int> LeftOutCertificates() const {
    std::set<int> joined;
    for (const TraceTuple& t : trace_.tuples) {
      if (t.kind == TraceKind::kCertificate) joined.insert(t.source);
    }
    std::vector<int> out;
    for (size_t i = 0; i < EngineCertificateCount(); ++i) {
      if (!joined.count(static_cast<int>(i))) out.push_back(static_cast<int>(i));
    }
    return out;
  }
  // The principals of an input as the engine read them; empty when it was
  // not read (the engine stopped before it).
  const TraceInput* InputOf(const std::vector<TraceInput>& inputs, int position) const {
    return position >= 0 && static_cast<size_t>(position) < inputs.size() ? &inputs[position]
                                                                          : nullptr;
  }
  std::string LeftOutEntryText(int position) const {
    const AclEntry* entry = Entry(position);
    const TraceInput* read = InputOf(trace_.entries, position);
    if (entry == nullptr) return std::string();
    return "ACL entry " + EntryFile(entry) + ": " +
           StatedGrant("", read ? read->subject : std::string(), StatedOf(*entry));
  }
  std::string LeftOutCertificateText(int position) const {
    const Certificate* c = CertificateAt(SequenceIndex(position));
    const TraceInput* read = InputOf(trace_.certificates, position);
    if (c == nullptr || read == nullptr) return std::string();
    return "certificate " + Short(SequenceIndex(position)) + ": " +
           StatedGrant(read->issuer, read->subject, StatedOf(*c));
  }
  std::vector<std::string> LeftOut() const {
    std::vector<std::string> out;
    for (int i : LeftOutEntries()) {
      if (std::string text = LeftOutEntryText(i); !text.empty()) out.push_back(std::move(text));
    }
    for (int i : LeftOutCertificates()) {
      if (std::string text = LeftOutCertificateText(i); !text.empty()) {
        out.push_back(std::move(text));
      }
    }
    return out;
  }

  // Why nothing reached the ACL: for each principal where a chain towards
  // the key stops, what it lacks.
  std::vector<std::string> Reasons() const {
    std::vector<std::string> reasons;
    if (result_ == VELK2_ERR_NOT_GRANTED) {
      const TraceTuple* first = trace_.result.empty() ? nullptr : Find(trace_.result[0]);
      if (first != nullptr) {
        reasons.push_back("the first entry of the reduced ACL grants " + TagOf(*first) +
                          ", which does not cover the requested " + s_.tag);
      }
      return reasons;
    }
    if (result_ != VELK2_ERR_NOT_AUTHORIZED) return reasons;
    std::vector<const TraceTuple*> towards_key;
    std::set<std::string> extended;  // issuers whose grants towards the key were chained on
    for (const TraceTuple& t : trace_.tuples) {
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
                        Who(trace_.key, false) + " as its subject");
      for (int i : LeftOutEntries()) {
        const TraceInput* read = InputOf(trace_.entries, i);
        if (read != nullptr && !trace_.key.empty() && read->subject == trace_.key) {
          reasons.push_back("ACL entry " + EntryFile(Entry(i)) +
                            " names the key but was left out: its period or tag does not meet "
                            "the request (" +
                            StatedGrant("", read->subject, StatedOf(*Entry(i))) + ")");
        }
      }
      for (int i : LeftOutCertificates()) {
        const TraceInput* read = InputOf(trace_.certificates, i);
        const Certificate* c = CertificateAt(SequenceIndex(i));
        if (read != nullptr && c != nullptr && !trace_.key.empty() && read->subject == trace_.key) {
          reasons.push_back("certificate " + Short(SequenceIndex(i)) +
                            " names the key but was left out: its period or tag does not meet "
                            "the request (" +
                            StatedGrant(read->issuer, read->subject, StatedOf(*c)) + ")");
        }
      }
      return reasons;
    }
    std::set<std::string> told;
    for (const TraceTuple* t : towards_key) {
      const std::string& issuer = t->issuer;
      if (issuer.empty() || extended.count(issuer) || !told.insert(issuer).second) continue;
      std::string grants, delegating;
      for (const TraceTuple& g : trace_.tuples) {
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
  // Names for fingerprints, from the sources: an ACL entry's subject after
  // its file, a certificate's issuer after its owner (a quoted claim: the
  // owner list lies outside the signature), the key asked about after its
  // name, which wins over the others.
  void NameEveryone() {
    for (size_t i = 0; i < trace_.certificates.size(); ++i) {
      const size_t index = SequenceIndex(static_cast<int>(i));
      if (s_.sequence == nullptr || index >= s_.sequence->entry_count()) continue;
      std::string owner = OwnerText(s_.sequence->entry(index).owner);
      if (owner.empty() || trace_.certificates[i].issuer.empty()) continue;
      owner = EscapeForDisplay(owner);
      for (size_t at = owner.find('"'); at != std::string::npos; at = owner.find('"', at + 4)) {
        owner.replace(at, 1, "\\x22");
      }
      names_.emplace(trace_.certificates[i].issuer, "owner \"" + owner + "\"");
    }
    for (size_t i = 0; i < trace_.entries.size(); ++i) {
      const AclEntry* entry = Entry(static_cast<int>(i));
      if (entry != nullptr && !trace_.entries[i].subject.empty()) {
        names_.emplace(trace_.entries[i].subject, "subject of " + EntryFile(entry));
      }
    }
    if (!trace_.key.empty()) names_[trace_.key] = EscapeForDisplay(BaseOf(s_.key_name));
  }

  const ExplanationSources& s_;
  const ReductionTrace& trace_;
  const Result result_;
  std::map<int, size_t> index_;
  std::map<std::string, std::string> names_;
};

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

}  // namespace

std::string CertificateLabel(const ExplanationSources& sources, size_t index) {
  const std::string owner = sources.sequence != nullptr && index < sources.sequence->entry_count()
                                ? OwnerText(sources.sequence->entry(index).owner)
                                : std::string();
  return "certificate " + std::to_string(index + 1) + " of " +
         EscapeForDisplay(sources.certificates_source) +
         (owner.empty() ? "" : " (owner " + EscapeForDisplay(owner) + ")");
}

std::string RevocationFindingText(const ExplanationSources& sources, const RevocationFinding& found,
                                  size_t index) {
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
  std::string scope;
  const Certificate* certificate =
      sources.sequence != nullptr && index < sources.sequence->entry_count()
          ? sources.sequence->entry(index).certificate
          : nullptr;
  Ref<SexpList> asked;
  if (certificate != nullptr && certificate->revocation_spec() != nullptr &&
      RevocationScopeOf(*certificate->revocation_spec(), &asked) == VELK2_SUCCESS) {
    scope = ReadableTag(asked.get());
  }
  std::string why = "no verified revocation list speaks for it";
  if (!scope.empty()) why += " (it asks for a list of " + scope + ")";
  if (found.code == VELK2_ERR_NOT_AFTER) {
    why += "; the latest list ends before the period begins";
  } else if (found.code != VELK2_ERR_CRL_NOT_FOUND && found.code != VELK2_SUCCESS) {
    why += ": " + std::to_string(static_cast<int32_t>(found.code)) + " " +
           api::MessageOf(static_cast<int32_t>(found.code));
  }
  return why;
}

void ExplainRevocation(const ExplanationSources& sources, Result result, api::Explanation* out) {
  out->left_out_by_revocation.clear();
  out->revocation_cause.clear();
  out->revocation_explains_order = false;
  if (sources.revocation == nullptr) return;
  // A few are named in the cause; a chain of hundreds would make a line
  // nobody reads.
  constexpr size_t kNamed = 3;
  size_t count = 0;
  for (size_t i = 0; i < sources.revocation->size(); ++i) {
    const RevocationFinding& found = (*sources.revocation)[i];
    if (found.state == kNotRevoked) continue;
    api::RevokedCertificate revoked;
    revoked.certificate = i + 1;
    revoked.owner = sources.sequence != nullptr && i < sources.sequence->entry_count()
                        ? OwnerText(sources.sequence->entry(i).owner)
                        : std::string();
    revoked.state = RevocationStateName(found.state);
    revoked.list = Utf16ToUtf8(found.list_path);
    revoked.list_scope = found.list_scope;
    revoked.revoked_on = found.revoked_on;
    revoked.why = RevocationFindingText(sources, found, i);
    if (result != VELK2_SUCCESS && ++count <= kNamed) {
      if (!out->revocation_cause.empty()) out->revocation_cause += "; ";
      out->revocation_cause +=
          CertificateLabel(sources, i) + " was left out of the chain: " + revoked.why;
    }
    out->left_out_by_revocation.push_back(std::move(revoked));
  }
  if (count > kNamed) out->revocation_cause += "; and " + std::to_string(count - kNamed) + " more";
  // The order check's code names the order; when revocation took the
  // signer's certificate out, that is what happened.
  out->revocation_explains_order =
      result == VELK2_ERR_SIGNING_CERT_ORDER && !out->revocation_cause.empty();
}

api::Explanation Explain(const ExplanationSources& sources, const ReductionTrace& trace,
                         Result result, bool reduced) {
  api::Explanation out;
  Explainer x(sources, trace, result);
  out.key = trace.key;
  out.key_name = x.Who(trace.key, false);
  out.tag = sources.tag;
  out.not_before = sources.not_before;
  out.not_after = sources.not_after;
  out.at_now = sources.at_now;
  out.any_time = sources.any_time;
  out.acl_source = sources.acl_source;
  out.acl_entries = x.EntryCount();
  out.certificates_source = sources.certificates_source;
  out.certificates = sources.sequence != nullptr ? sources.sequence->entry_count() : 0;
  out.reduced = reduced;
  out.limit_reached = trace.limit_reached;
  out.limit = trace.limit;
  ExplainRevocation(sources, result, &out);
  if (result != VELK2_SUCCESS) {
    for (const api::RevokedCertificate& revoked : out.left_out_by_revocation) {
      out.reasons.push_back(CertificateLabel(sources, revoked.certificate - 1) +
                            " was left out of the chain: " + revoked.why);
    }
  }
  if (!reduced) return out;
  for (int id : trace.result) {
    if (const TraceTuple* t = x.Find(id)) out.result.push_back(x.GrantOf(*t));
  }
  for (int id : x.Chain()) {
    if (const TraceTuple* t = x.Find(id)) out.chain.push_back(x.GrantOf(*t));
  }
  for (const TraceTuple& t : trace.tuples) out.considered.push_back(x.GrantOf(t));
  // Without the signer's certificate the chain does not reach the object
  // certificate's issuer: nothing else is to be said.
  if (!out.revocation_explains_order) {
    for (std::string& reason : x.Reasons()) out.reasons.push_back(std::move(reason));
  }
  out.left_out = x.LeftOut();
  return out;
}

}  // namespace velk2
