#include "manifest/patterns.h"

#include <cstdint>

namespace velk2 {
namespace {

enum class Kind { kByte, kAny, kSet, kStar, kStars, kStarsSlash };

}  // namespace

struct IgnorePatterns::Token {
  Kind kind = Kind::kByte;
  unsigned char byte = 0;
  bool negated = false;
  bool set[256] = {};
};

namespace {

using Token = IgnorePatterns::Token;

// The tokens of |pattern|; false when a "[" is never closed.
bool Tokenize(std::string_view pattern, std::vector<Token>* out) {
  for (size_t i = 0; i < pattern.size();) {
    Token token;
    const char c = pattern[i];
    if (c == '*') {
      if (i + 1 < pattern.size() && pattern[i + 1] == '*') {
        const bool slash = i + 2 < pattern.size() && pattern[i + 2] == '/';
        token.kind = slash ? Kind::kStarsSlash : Kind::kStars;
        i += slash ? 3 : 2;
        // More stars in a row add nothing (after "**/" a star is the next
        // name's).
        while (!slash && i < pattern.size() && pattern[i] == '*') ++i;
      } else {
        token.kind = Kind::kStar;
        ++i;
      }
    } else if (c == '?') {
      token.kind = Kind::kAny;
      ++i;
    } else if (c == '[') {
      size_t j = i + 1;
      if (j < pattern.size() && (pattern[j] == '!' || pattern[j] == '^')) {
        token.negated = true;
        ++j;
      }
      const size_t first = j;
      // A "]" right after the opening is a member, not the end.
      while (j < pattern.size() && (pattern[j] != ']' || j == first)) {
        unsigned char from = static_cast<unsigned char>(pattern[j]);
        if (j + 2 < pattern.size() && pattern[j + 1] == '-' && pattern[j + 2] != ']') {
          const unsigned char to = static_cast<unsigned char>(pattern[j + 2]);
          for (unsigned b = from; b <= to; ++b) token.set[b] = true;
          j += 3;
        } else {
          token.set[from] = true;
          ++j;
        }
      }
      if (j >= pattern.size()) return false;
      token.kind = Kind::kSet;
      i = j + 1;
    } else if (c == '\\' && i + 1 < pattern.size()) {
      token.byte = static_cast<unsigned char>(pattern[i + 1]);
      i += 2;
    } else {
      token.byte = static_cast<unsigned char>(c);
      ++i;
    }
    out->push_back(token);
  }
  return true;
}

bool Admits(const Token& token, unsigned char b) {
  switch (token.kind) {
    case Kind::kByte:
      return b == token.byte;
    case Kind::kAny:
      return b != '/';
    case Kind::kSet:
      return b != '/' && token.set[b] != token.negated;
    default:
      return false;
  }
}

// Whether the tokens match all of |text|: one row of answers per token,
// from the last token back, so any pattern costs tokens times bytes.
bool Match(const std::vector<Token>& tokens, std::string_view text) {
  const size_t n = text.size();
  // Two rows reused by every match of the thread.
  thread_local std::vector<uint8_t> next, row;
  next.assign(n + 1, 0);
  row.assign(n + 1, 0);
  next[n] = 1;  // no tokens left: only the end matches
  for (size_t t = tokens.size(); t-- > 0;) {
    const Token& token = tokens[t];
    switch (token.kind) {
      case Kind::kStar:
        row[n] = next[n];
        for (size_t j = n; j-- > 0;) row[j] = next[j] || (text[j] != '/' && row[j + 1]);
        break;
      case Kind::kStars:
        row[n] = next[n];
        for (size_t j = n; j-- > 0;) row[j] = next[j] || row[j + 1];
        break;
      case Kind::kStarsSlash: {
        // Nothing, or any run that ends with "/".
        bool after_slash = false;
        row[n] = next[n];
        for (size_t j = n; j-- > 0;) {
          after_slash = after_slash || (text[j] == '/' && next[j + 1]);
          row[j] = next[j] || after_slash;
        }
        break;
      }
      default:
        row[n] = 0;
        for (size_t j = 0; j < n; ++j) {
          row[j] = Admits(token, static_cast<unsigned char>(text[j])) && next[j + 1];
        }
        break;
    }
    next.swap(row);
  }
  return next[0] != 0;
}

}  // namespace

bool GlobMatch(std::string_view pattern, std::string_view text) {
  std::vector<Token> tokens;
  return Tokenize(pattern, &tokens) && Match(tokens, text);
}

IgnorePatterns::IgnorePatterns() = default;
IgnorePatterns::~IgnorePatterns() = default;
IgnorePatterns::IgnorePatterns(const IgnorePatterns&) = default;
IgnorePatterns& IgnorePatterns::operator=(const IgnorePatterns&) = default;

bool IgnorePatterns::Add(std::string_view pattern) {
  if (pattern.empty() || pattern.size() > kMaxPatternLength ||
      pattern.find_first_of(std::string_view("\0\n", 2)) != std::string_view::npos) {
    return false;
  }
  Pattern added;
  std::string_view text = pattern;
  if (text.back() == '/') {
    added.directories_only = true;
    text.remove_suffix(1);
  }
  if (!text.empty() && text.front() == '/') {
    added.whole_path = true;
    text.remove_prefix(1);
  }
  if (text.empty()) return false;
  if (text.find('/') != std::string_view::npos) added.whole_path = true;
  if (!Tokenize(text, &added.tokens)) return false;
  patterns_.push_back(std::move(added));
  texts_.emplace_back(pattern);
  return true;
}

bool IgnorePatterns::Matches(std::string_view path, bool directory) const {
  const size_t slash = path.rfind('/');
  const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  for (const Pattern& pattern : patterns_) {
    if (pattern.directories_only && !directory) continue;
    if (Match(pattern.tokens, pattern.whole_path ? path : name)) return true;
  }
  return false;
}

}  // namespace velk2
