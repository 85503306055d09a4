#include "manifest/attributes.h"

#include <cstdio>

#include "platform/utf.h"

namespace velk2 {
namespace {

bool Decimal(std::string_view text, uint64_t most, uint64_t* out) {
  if (text.empty() || text.size() > 20) return false;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (value > (most - digit) / 10) return false;
    value = value * 10 + digit;
  }
  *out = value;
  return true;
}

bool Octal(std::string_view text, uint32_t* out) {
  if (text.empty() || text.size() > 6) return false;
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '7') return false;
    value = value * 8 + static_cast<uint32_t>(c - '0');
  }
  if (value > 07777) return false;
  *out = value;
  return true;
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool Hex(std::string_view text, std::string* out) {
  if (text.empty() || text.size() % 2 != 0) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = HexDigit(text[i]), low = HexDigit(text[i + 1]);
    if (high < 0 || low < 0) return false;
    out->push_back(static_cast<char>(high * 16 + low));
  }
  return true;
}

}  // namespace

std::string ModeText(uint32_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", mode & 07777);
  return text;
}

Result ParseEntryAttributes(std::string_view atom, bool directory, EntryAttributes* out) {
  *out = EntryAttributes{};
  bool first = true;
  bool has_uid = false, has_gid = false;
  while (!atom.empty()) {
    const size_t space = atom.find(' ');
    const std::string_view token = atom.substr(0, space);
    atom = space == std::string_view::npos ? std::string_view() : atom.substr(space + 1);
    const bool was_first = first;
    first = false;
    const size_t equals = token.find('=');
    if (equals == std::string_view::npos) {
      // The leading bare number of a file's atom is its size; other bare
      // tokens are some other writer's and are passed over.
      uint64_t size = 0;
      if (was_first && !directory && Decimal(token, UINT64_MAX, &size)) out->size = size;
      continue;
    }
    const std::string_view key = token.substr(0, equals), value = token.substr(equals + 1);
    uint64_t number = 0;
    if (key == "mode") {
      uint32_t mode = 0;
      if (!Octal(value, &mode)) return VELK2_ERR_PARSE_FILE;
      out->mode = mode;
    } else if (key == "uid" || key == "gid") {
      if (!Decimal(value, UINT32_MAX, &number)) return VELK2_ERR_PARSE_FILE;
      (key == "uid" ? out->uid : out->gid) = static_cast<uint32_t>(number);
      (key == "uid" ? has_uid : has_gid) = true;
    } else if (key == "link") {
      if (directory || !Hex(value, &out->target)) return VELK2_ERR_PARSE_FILE;
      out->link = true;
    }
  }
  // An owner is both ids or none.
  if (has_uid != has_gid) return VELK2_ERR_PARSE_FILE;
  // A symlink's own mode means nothing on Linux: it is never checked.
  if (out->link) out->mode.reset();
  return VELK2_SUCCESS;
}

std::string FormatEntryAttributes(const EntryAttributes& attributes, bool directory) {
  std::string out;
  auto add = [&out](const std::string& token) {
    if (!out.empty()) out.push_back(' ');
    out += token;
  };
  if (!directory) {
    add(std::to_string(attributes.link ? attributes.target.size() : attributes.size.value_or(0)));
  }
  if (attributes.link) {
    add("link=" + HexString(attributes.target.data(), attributes.target.size()));
  } else if (attributes.mode) {
    add("mode=" + ModeText(*attributes.mode));
  }
  if (attributes.uid && attributes.gid) {
    add("uid=" + std::to_string(*attributes.uid));
    add("gid=" + std::to_string(*attributes.gid));
  }
  return out;
}

}  // namespace velk2
