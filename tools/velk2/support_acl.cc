#include "tools/velk2/support_acl.h"

#include <cstdio>

#include "credentials/hash_value.h"
#include "engine/status.h"
#include "platform/utf.h"
#include "platform/zcry.h"
#include "sexp/display.h"
#include "sexp/reader.h"
#include "sexp/source.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/support.h"

namespace velk2::cli {
namespace {

bool AtomIs(const SexpObject* object, const char* text) {
  return object != nullptr && !object->IsList() && object->AsAtom()->AtomEqualsText(text);
}

std::string DigestHex(const SexpObject& object, uint32_t hash_id) {
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  if (ComputeHash(&object, &digest, &length, hash_id, true) != VELK2_SUCCESS) return {};
  return HexString(digest.get(), length);
}

}  // namespace

std::string ReadableTag(const SexpList* tag) {
  if (tag == nullptr) return "(none)";
  if (!AtomIs(tag->FirstChild(), "tag")) return FormatReadableLine(*tag);
  std::string out;
  for (size_t i = 1; i < tag->ChildCount(); ++i) {
    if (i > 1) out.push_back(' ');
    out.append(FormatReadableLine(*tag->ChildAt(i)));
  }
  return out;
}

std::string ReadableTagFromCanonical(std::string_view canonical) {
  SexpMemorySource source;
  Ref<SexpList> tag;
  if (source.AttachCopy(canonical.data(), canonical.size()) != VELK2_SUCCESS ||
      ParseCanonicalList(&tag, &source, nullptr) != VELK2_SUCCESS) {
    return std::string(canonical);
  }
  return ReadableTag(tag.get());
}

std::string Fingerprint(const SexpObject& object) {
  return DigestHex(object, ZCRY_HASH_SHA256);
}

std::string PrincipalFingerprint(const SexpObject& principal,
                                 const std::vector<const SexpObject*>& known_keys) {
  const SexpList* list = principal.AsList();
  if (list == nullptr || !AtomIs(list->FirstChild(), "hash") || list->ChildCount() != 3 ||
      list->ChildAt(1)->IsList() || list->ChildAt(2)->IsList()) {
    return Fingerprint(principal);
  }
  const HashAlgorithm* algorithm = FindHashAlgorithm(list->ChildAt(1)->AsAtom()->bytes());
  std::string_view digest = list->ChildAt(2)->AsAtom()->bytes();
  if (algorithm == nullptr) return Fingerprint(principal);
  const std::string hex = HexString(reinterpret_cast<const uint8_t*>(digest.data()), digest.size());
  if (algorithm->id == ZCRY_HASH_SHA256 && digest.size() == 32) return hex;
  for (const SexpObject* key : known_keys) {
    if (key != nullptr && DigestHex(*key, algorithm->id) == hex) return Fingerprint(*key);
  }
  return Fingerprint(principal);
}

std::string DescribePrincipal(const SexpObject& principal) {
  const SexpList* list = principal.AsList();
  if (list == nullptr) return FormatReadableLine(principal);
  const SexpObject* head = list->FirstChild();
  if (AtomIs(head, "public-key")) {
    const SexpList* algorithm = list->ChildAt(1) ? list->ChildAt(1)->AsList() : nullptr;
    std::string type = algorithm && algorithm->FirstChild() && !algorithm->FirstChild()->IsList()
                           ? EscapeForDisplay(algorithm->FirstChild()->AsAtom()->bytes())
                           : std::string("?");
    return type + " key " + Fingerprint(principal);
  }
  if (AtomIs(head, "hash") && list->ChildCount() == 3 && !list->ChildAt(1)->IsList() &&
      !list->ChildAt(2)->IsList()) {
    std::string_view digest = list->ChildAt(2)->AsAtom()->bytes();
    return "hash " + EscapeForDisplay(list->ChildAt(1)->AsAtom()->bytes()) + " " +
           HexString(reinterpret_cast<const uint8_t*>(digest.data()), digest.size());
  }
  if (AtomIs(head, "k-of-n") && list->ChildCount() >= 3 && !list->ChildAt(1)->IsList() &&
      !list->ChildAt(2)->IsList()) {
    const SexpAtom* k = list->ChildAt(1)->AsAtom();
    const SexpAtom* n = list->ChildAt(2)->AsAtom();
    std::string out = std::to_string(k->length() ? k->data()[0] : 0) + " of " +
                      std::to_string(n->length() ? n->data()[0] : 0) + ":";
    for (size_t i = 3; i < list->ChildCount(); ++i) {
      out += (i > 3 ? ", " : " ") + DescribePrincipal(*list->ChildAt(i));
    }
    return out;
  }
  return FormatReadableLine(principal);
}

std::string AtomText(const SexpAtom* atom) {
  return atom != nullptr ? EscapeForDisplay(atom->bytes()) : std::string();
}

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  size_t i = 0;
  while (i < text.size()) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    // A well-formed UTF-8 sequence goes through as it is.
    size_t length = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    bool valid = length != 0 && i + length <= text.size() && (length == 1 || c >= 0xc2);
    for (size_t j = 1; valid && j < length; ++j) {
      valid = (static_cast<unsigned char>(text[i + j]) & 0xc0) == 0x80;
    }
    if (valid && length >= 3) {
      // No overlong forms, surrogates or values past U+10FFFF.
      unsigned char second = static_cast<unsigned char>(text[i + 1]);
      valid = !(c == 0xe0 && second < 0xa0) && !(c == 0xed && second >= 0xa0) &&
              !(c == 0xf0 && second < 0x90) && !(c == 0xf4 && second >= 0x90) && c <= 0xf4;
    }
    if (!valid) {
      out += "\\ufffd";
      ++i;
      continue;
    }
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < 0x20 || c == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\u%04x", c);
      out += escape;
    } else {
      out.append(text.substr(i, length));
    }
    i += length;
  }
  out.push_back('"');
  return out;
}

std::string StatusMessage(Result code) {
  return MessageOf(static_cast<int32_t>(code));
}

std::string StatusText(Result code) {
  return std::to_string(static_cast<int32_t>(code)) + " " + StatusMessage(code);
}

}  // namespace velk2::cli
