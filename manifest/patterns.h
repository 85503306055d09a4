// Ignore patterns: shell patterns over paths relative to the package root,
// as mtree's exclusion patterns and .gitignore are written.
//   - "*" matches any run of bytes but "/", "?" one byte but "/", "[...]" one
//     byte of a set ("[!...]" or "[^...]" of its complement, "a-z" ranges),
//     "\" takes the next byte as it is;
//   - "**" matches any run of bytes, "/" included, and "**/" any run of
//     whole directories, none included ("**/*.pyc" matches "a.pyc");
//   - a pattern without "/" matches a name at any depth ("*.pyc");
//     one with "/" matches the whole path ("cache/*"), a leading "/" only
//     anchoring it to the root;
//   - a trailing "/" matches directories only.
// A directory that matches is left out with everything below it.
#ifndef VELK2_MANIFEST_PATTERNS_H_
#define VELK2_MANIFEST_PATTERNS_H_

#include <string>
#include <string_view>
#include <vector>

namespace velk2 {

// The longest pattern taken: a pattern is typed by a person.
constexpr size_t kMaxPatternLength = 1024;

class IgnorePatterns {
 public:
  IgnorePatterns();
  ~IgnorePatterns();
  IgnorePatterns(const IgnorePatterns&);
  IgnorePatterns& operator=(const IgnorePatterns&);
  struct Token;  // one element of a pattern

  // Add takes one pattern. False, and nothing added, for an empty pattern,
  // one longer than kMaxPatternLength, one holding NUL or a newline, one
  // that is only "/", or one whose "[" has no "]".
  bool Add(std::string_view pattern);
  bool empty() const { return patterns_.empty(); }
  // The patterns as given, in order (what a manifest records).
  const std::vector<std::string>& texts() const { return texts_; }

  // Matches: whether the entry at |path| (relative to the package root,
  // "/"-separated, no leading "/") is left out.
  bool Matches(std::string_view path, bool directory) const;

 private:
  struct Pattern {
    std::vector<Token> tokens;  // of the text without its anchoring "/" and trailing "/"
    bool whole_path = false;
    bool directories_only = false;
  };
  std::vector<Pattern> patterns_;
  std::vector<std::string> texts_;
};

// GlobMatch: whether |pattern| matches all of |text| by the rules above.
bool GlobMatch(std::string_view pattern, std::string_view text);

}  // namespace velk2

#endif  // VELK2_MANIFEST_PATTERNS_H_
