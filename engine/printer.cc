#include "engine/printer.h"

#include <cstring>
#include <limits>
#include <new>

#include "engine/keywords.h"

namespace velk2::engine {
namespace {

constexpr size_t kLongestPrint = std::numeric_limits<uint32_t>::max();

size_t AtomLength(const EngineAtom* atom) {
  size_t length = atom->length + DecimalDigits(atom->length) + 1;
  if (atom->hint_length != 0) length += atom->hint_length + DecimalDigits(atom->hint_length) + 3;
  return length;
}

Status LengthOf(const EngineNode* chain, size_t* length, int depth) {
  if (depth > kMaxNesting) return SPKI_ERR_BAD_SEXP;
  size_t total = 2;
  for (const EngineNode* node = chain; node != nullptr; node = node->next) {
    size_t part = 0;
    switch (node->kind) {
      case kNodeKeywordHead: {
        uint32_t text = KeywordTextOf(KeywordOf(node)).length;
        part = text + DecimalDigits(text) + 1;
        break;
      }
      case kNodeAtomHead:
      case kNodeAtom:
        if (AtomOf(node) == nullptr) return SPKI_ERR_UNKNOWN;
        part = AtomLength(AtomOf(node));
        break;
      case kNodeSublist: {
        Status status = LengthOf(SublistOf(node), &part, depth + 1);
        if (status != SPKI_OK) return status;
        break;
      }
      default:
        return SPKI_ERR_UNKNOWN;
    }
    total += part;
    if (total > kLongestPrint) return SPKI_ERR_STRING_TOO_LONG;
  }
  *length = total;
  return SPKI_OK;
}

// The writers below run only after LengthOf has checked the whole chain and
// the room at the cursor.
void PutByte(PrintCursor* cursor, uint8_t byte) {
  *cursor->current++ = byte;
}

void PutBytes(PrintCursor* cursor, const void* bytes, size_t length) {
  if (length != 0) std::memcpy(cursor->current, bytes, length);
  cursor->current += length;
}

void PutDecimal(PrintCursor* cursor, uint64_t value) {
  char digits[20];
  size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (count != 0) PutByte(cursor, static_cast<uint8_t>(digits[--count]));
}

void PutString(PrintCursor* cursor, const void* bytes, uint32_t length) {
  PutDecimal(cursor, length);
  PutByte(cursor, ':');
  PutBytes(cursor, bytes, length);
}

void PutAtom(PrintCursor* cursor, const EngineAtom* atom) {
  if (atom->hint_length != 0) {
    PutByte(cursor, '[');
    PutString(cursor, atom->hint, atom->hint_length);
    PutByte(cursor, ']');
  }
  PutString(cursor, atom->bytes, atom->length);
}

void PutChain(PrintCursor* cursor, const EngineNode* chain) {
  PutByte(cursor, '(');
  for (const EngineNode* node = chain; node != nullptr; node = node->next) {
    switch (node->kind) {
      case kNodeKeywordHead: {
        const KeywordText& text = KeywordTextOf(KeywordOf(node));
        PutString(cursor, text.text, text.length);
        break;
      }
      case kNodeAtomHead:
      case kNodeAtom:
        PutAtom(cursor, AtomOf(node));
        break;
      default:
        PutChain(cursor, SublistOf(node));
        break;
    }
  }
  PutByte(cursor, ')');
}

}  // namespace

uint32_t DecimalDigits(uint64_t value) {
  uint32_t digits = 1;
  while (value >= 10) {
    value /= 10;
    ++digits;
  }
  return digits;
}

Status PrintedLength(const EngineNode* chain, size_t* length) {
  if (length == nullptr) return SPKI_ERR_NULL_PARAM;
  return LengthOf(chain, length, 1);
}

Status PrintCanonical(const EngineNode* chain, PrintCursor* cursor) {
  if (cursor == nullptr || cursor->current == nullptr) return SPKI_ERR_NULL_PARAM;
  if (chain == nullptr) return SPKI_OK;
  size_t length = 0;
  Status status = LengthOf(chain, &length, 1);
  if (status != SPKI_OK) return status;
  if (cursor->current > cursor->end ||
      static_cast<size_t>(cursor->end - cursor->current) < length) {
    return SPKI_ERR_UNKNOWN;
  }
  PutChain(cursor, chain);
  return SPKI_OK;
}

Status PrintToString(const EngineNode* chain, std::string* out) {
  if (out == nullptr) return SPKI_ERR_NULL_PARAM;
  size_t length = 0;
  Status status = PrintedLength(chain, &length);
  if (status != SPKI_OK) return status;
  if (chain == nullptr) length = 0;
  try {
    out->assign(length, '\0');
  } catch (const std::bad_alloc&) {
    return SPKI_ERR_NO_MEM;
  }
  PrintCursor cursor = PrintCursor::Over(out->data(), out->size());
  return PrintCanonical(chain, &cursor);
}

}  // namespace velk2::engine
