// Builders of canonical credential texts for the reduction tests. Keys are
// fake: the reduction only digests public-key lists, it never checks a
// signature.
#ifndef VELK2_TESTS_ENGINE_REDUCE_TEXTS_H_
#define VELK2_TESTS_ENGINE_REDUCE_TEXTS_H_

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "engine/readable.h"

namespace velk2::engine::texts {

// "length:bytes".
inline std::string Atom(std::string_view bytes) {
  return std::to_string(bytes.size()) + ":" + std::string(bytes);
}

inline std::string Key(std::string_view name) {
  return "(10:public-key(3:rsa(1:e1:\x03)(1:n" + Atom(name) + ")))";
}

// Canonical text of a readable expression: Tag("(tag (ftp host))").
inline std::string Canonical(std::string_view readable) {
  std::string canonical;
  EXPECT_EQ(ReadableToCanonical(readable, &canonical), 0) << readable;
  return canonical;
}

inline std::string Digest(const char* algorithm, std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EXPECT_EQ(
      EVP_Digest(text.data(), text.size(), digest, &size, EVP_get_digestbyname(algorithm), nullptr),
      1);
  return std::string(reinterpret_cast<const char*>(digest), size);
}

inline std::string Hex(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : bytes) {
    hex += kHex[c >> 4];
    hex += kHex[c & 0x0F];
  }
  return hex;
}

// (hash ALGORITHM digest-of-text)
inline std::string HashOf(std::string_view text, const char* algorithm = "sha256") {
  const char* openssl_name = std::string_view(algorithm) == "sha1" ? "SHA1" : "SHA256";
  return "(4:hash" + Atom(algorithm) + Atom(Digest(openssl_name, text)) + ")";
}

inline std::string Valid(std::string_view not_before, std::string_view not_after) {
  if (not_before.empty() && not_after.empty()) return "";
  std::string text = "(5:valid";
  if (!not_before.empty()) text += "(10:not-before" + Atom(not_before) + ")";
  if (!not_after.empty()) text += "(9:not-after" + Atom(not_after) + ")";
  return text + ")";
}

struct Grant {
  Grant(std::string subject_text, bool may_propagate = false, std::string tag_text = "",
        std::string from = "", std::string until = "")
      : subject(std::move(subject_text)),
        propagate(may_propagate),
        tag(std::move(tag_text)),
        not_before(std::move(from)),
        not_after(std::move(until)) {}

  std::string subject;  // a principal or subject form, canonical
  bool propagate;
  std::string tag;  // canonical (tag ...) or empty
  std::string not_before;
  std::string not_after;
};

inline std::string Body(const Grant& grant) {
  return "(7:subject" + grant.subject + ")" + (grant.propagate ? "(9:propagate)" : "") + grant.tag +
         Valid(grant.not_before, grant.not_after);
}

inline std::string Entry(const Grant& grant) {
  return "(5:entry" + Body(grant) + ")";
}

inline std::string Cert(const std::string& issuer, const Grant& grant) {
  return "(4:cert(6:issuer" + issuer + ")" + Body(grant) + ")";
}

// A sequence as the library writes it: each certificate followed by a
// signature (which names its signer's key).
inline std::string Signed(const std::string& cert, const std::string& signer) {
  return cert + "(9:signature(4:hash6:sha2561:x)" + signer + "(3:rsa1:s))";
}

inline std::string Acl(std::initializer_list<std::string> entries) {
  std::string text = "(3:acl";
  for (const std::string& entry : entries) text += entry;
  return text + ")";
}

inline std::string Sequence(std::initializer_list<std::string> certs) {
  std::string text = "(8:sequence";
  for (const std::string& cert : certs) text += cert;
  return text + ")";
}

// A result entry as the reduction prints it: subject, propagate, tag (the
// bare (tag) when none), then the period.
inline std::string ResultEntry(const std::string& subject, bool propagate, const std::string& tag,
                               std::string_view not_before = "", std::string_view not_after = "") {
  return "(5:entry(7:subject" + subject + ")" + (propagate ? "(9:propagate)" : "") +
         (tag.empty() ? "(3:tag)" : tag) + Valid(not_before, not_after) + ")";
}

inline std::string Result(std::initializer_list<std::string> entries) {
  return Acl(entries);
}

// (k-of-n K N members...) with one-byte K and N as certificates carry them.
inline std::string KOfN(int k, std::initializer_list<std::string> members) {
  std::string text = "(6:k-of-n[3:num]1:" + std::string(1, static_cast<char>(k)) +
                     "[3:num]1:" + std::string(1, static_cast<char>(members.size()));
  for (const std::string& member : members) text += member;
  return text + ")";
}

inline std::string Name(const std::string& principal, std::initializer_list<std::string> names) {
  std::string text = "(4:name" + principal;
  for (const std::string& name : names) text += Atom(name);
  return text + ")";
}

}  // namespace velk2::engine::texts

#endif  // VELK2_TESTS_ENGINE_REDUCE_TEXTS_H_
