// The verdict of a verification for people and for programs: the library's
// answer and explanation (trust/tool_api.h) rendered as text (with
// --explain, the reasons) or as one JSON object. Nothing here decides
// anything.
#ifndef VELK2_TOOLS_VELK2_VERDICT_H_
#define VELK2_TOOLS_VELK2_VERDICT_H_

#include <nlohmann/json.hpp>
#include <string>

#include "trust/tool_api.h"

namespace velk2::cli {

// The text verdict of an authorization: "result:" and "authorized:" lines,
// and with |explain| (when the verdict holds its explanation) the question,
// the reduced ACL, how it came about, why not, what was left out. Nothing
// when the verification ended before the authorization stage.
std::string VerdictText(const api::Verdict& verdict, bool explain);

// The same as one JSON object, and that object as one line of text (bytes
// that are not UTF-8 replaced, never thrown over).
nlohmann::ordered_json VerdictJson(const api::Verdict& verdict);
std::string VerdictJsonText(const api::Verdict& verdict);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_VERDICT_H_
