#include "tools/velk2/verdict.h"

#include <cstdarg>
#include <cstdio>

#include "platform/utf.h"
#include "tools/velk2/messages.h"

namespace velk2::cli {

using Json = nlohmann::ordered_json;

namespace {

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

Json OrNull(const std::string& text) {
  return text.empty() ? Json(nullptr) : Json(text);
}

Json GrantJson(const api::Grant& g) {
  return Json{{"id", g.id},
              {"kind", g.kind},
              {"issuer", OrNull(g.issuer)},
              {"issuer_name", g.issuer_name},
              {"subject", OrNull(g.subject)},
              {"subject_name", g.subject_name},
              {"propagate", g.propagate},
              {"tag", g.tag},
              {"not_before", OrNull(g.not_before)},
              {"not_after", OrNull(g.not_after)},
              {"parents", g.parents},
              {"source", g.source}};
}

Json GrantsJson(const std::vector<api::Grant>& grants) {
  Json list = Json::array();
  for (const api::Grant& g : grants) list.push_back(GrantJson(g));
  return list;
}

}  // namespace

std::string VerdictText(const api::Verdict& v, bool explain) {
  std::string out;
  if (v.stage != api::Stage::kAuthorization) return out;
  const api::Explanation& x = v.explanation;
  if (!x.revocation_explains_order) {
    Format(&out, "result: %s\n", StatusText(v.result).c_str());
  } else {
    Format(&out, "result: %u, after the revocation check left certificates out of the chain\n",
           v.result);
  }
  Format(&out, "authorized: %s\n",
         api::Undecided(v.result) ? "undecided"
         : v.result == 0          ? "yes"
                                  : "no");
  if (!explain || !v.explained) return out;
  Format(&out, "\nquestion: does %s hold %s", x.key_name.c_str(), x.tag.c_str());
  if (x.at_now) {
    Format(&out, " now (%s)", x.not_before.c_str());
  } else if (x.any_time) {
    Format(&out, " at any time");
  } else {
    if (!x.not_before.empty()) Format(&out, " from %s", x.not_before.c_str());
    if (!x.not_after.empty()) Format(&out, " until %s", x.not_after.c_str());
  }
  Format(&out, "?\n");
  Format(&out, "ACL: %zu %s from %s", x.acl_entries, x.acl_entries == 1 ? "entry" : "entries",
         EscapeForDisplay(x.acl_source).c_str());
  if (!v.skipped.empty()) Format(&out, " (%zu file(s) skipped)", v.skipped.size());
  Format(&out, "\ncertificates: %zu from %s, every signature verified\n", x.certificates,
         EscapeForDisplay(x.certificates_source).c_str());
  if (!x.left_out_by_revocation.empty()) {
    Format(&out, "\nleft out of the chain by the revocation check:\n");
    for (const api::RevokedCertificate& r : x.left_out_by_revocation) {
      const std::string owner = r.owner.empty() ? "" : " (owner " + EscapeForDisplay(r.owner) + ")";
      Format(&out, "  - certificate %zu of %s%s: %s\n", r.certificate,
             EscapeForDisplay(x.certificates_source).c_str(), owner.c_str(), r.why.c_str());
    }
  }
  if (!x.reduced && x.revocation_explains_order) {
    Format(&out,
           "\nthe reduction did not run: what was left of the chain does not lead from "
           "the ACL to the manifest\n");
    return out;
  }
  if (!x.reduced) {
    Format(&out, "\nthe reduction failed: %s\n", StatusText(v.result).c_str());
    if (x.limit_reached) Format(&out, "it stopped at its limit of %s\n", x.limit.c_str());
    return out;
  }
  if (x.result.empty()) {
    Format(&out, "\nreduced ACL: empty; no chain leads from the ACL to the key\n");
  } else {
    Format(&out, "\nreduced ACL (%zu %s; only the first decides):\n", x.result.size(),
           x.result.size() == 1 ? "entry" : "entries");
    for (size_t i = 0; i < x.result.size(); ++i) {
      Format(&out, "  %zu. [%d] %s\n", i + 1, x.result[i].id, x.result[i].text.c_str());
    }
    Format(&out, "\nhow they came about (parents first; tags narrowed to the request):\n");
    for (const api::Grant& g : x.chain) {
      Format(&out, "  [%d] %s\n       %s", g.id, g.text.c_str(), g.source.c_str());
      if (!g.stated_tag.empty()) Format(&out, ", which states %s", g.stated_tag.c_str());
      Format(&out, "\n");
    }
  }
  if (!x.reasons.empty()) {
    Format(&out, "\nwhy not:\n");
    for (const std::string& r : x.reasons) Format(&out, "  - %s\n", r.c_str());
  }
  if (x.result.empty()) {
    Format(&out, "\nevery grant in the reduction (tags narrowed to the request):\n");
    if (x.considered.empty()) Format(&out, "  (none)\n");
    for (const api::Grant& g : x.considered) {
      Format(&out, "  [%d] %s\n       %s\n", g.id, g.text.c_str(), g.source.c_str());
    }
  }
  if (!x.left_out.empty()) {
    Format(&out, "\nleft out (outside the requested period, or no tag in common with it):\n");
    for (const std::string& l : x.left_out) Format(&out, "  - %s\n", l.c_str());
  }
  return out;
}

Json VerdictJson(const api::Verdict& v) {
  const api::Explanation& x = v.explanation;
  Json out{{"result", static_cast<int32_t>(v.result)},
           {"message", x.revocation_explains_order ? x.revocation_cause : StatusMessage(v.result)},
           {"authorized", v.result == 0},
           {"decided", !api::Undecided(v.result)},
           {"stage", api::StageName(v.stage)}};
  if (v.stage != api::Stage::kAuthorization) {
    out["certificate"] = v.certificate;
    out["owner"] = OrNull(v.owner);
    out["why"] = v.why;
    if (!v.revoked_by.empty()) {
      out["revoked_by"] = v.revoked_by;
      out["revoked_on"] = v.revoked_on;
    }
    return out;
  }
  out["question"] = Json{{"key", x.key},
                         {"key_file", x.key_name},
                         {"tag", x.tag},
                         {"not_before", OrNull(x.not_before)},
                         {"not_after", OrNull(x.not_after)}};
  out["entries"] = GrantsJson(x.result);
  out["chain"] = GrantsJson(x.chain);
  out["considered"] = GrantsJson(x.considered);
  out["reasons"] = x.reasons;
  out["left_out"] = x.left_out;
  Json revoked = Json::array();
  for (const api::RevokedCertificate& r : x.left_out_by_revocation) {
    revoked.push_back(Json{{"certificate", r.certificate},
                           {"owner", OrNull(r.owner)},
                           {"state", r.state},
                           {"list", OrNull(r.list)},
                           {"list_scope", OrNull(r.list_scope)},
                           {"embedded", r.list.empty() && !r.list_scope.empty()},
                           {"revoked_on", OrNull(r.revoked_on)},
                           {"why", r.why}});
  }
  out["left_out_by_revocation"] = revoked;
  Json skipped = Json::array();
  for (const api::SkippedFile& k : v.skipped) {
    skipped.push_back(Json{{"file", k.file},
                           {"result", static_cast<int32_t>(k.code)},
                           {"message", StatusMessage(k.code)}});
  }
  out["skipped_files"] = skipped;
  out["limit_reached"] = x.limit_reached;
  out["limit"] = OrNull(x.limit_reached ? x.limit : std::string());
  return out;
}

std::string VerdictJsonText(const api::Verdict& v) {
  return VerdictJson(v).dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace velk2::cli
