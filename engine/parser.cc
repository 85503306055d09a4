#include "engine/parser.h"

#include <cstring>
#include <limits>
#include <new>

#include "engine/keywords.h"

namespace velk2::engine {
namespace {

bool IsDigit(uint8_t byte) {
  return byte >= '0' && byte <= '9';
}
bool IsLengthStart(uint8_t byte) {
  return byte >= '1' && byte <= '9';
}

// An atom's text as read: its bytes and its display hint, if any.
struct AtomSpan {
  const uint8_t* bytes = nullptr;
  uint32_t length = 0;
  const uint8_t* hint = nullptr;
  uint32_t hint_length = 0;
};

// ReadAtom reads one atom with an optional "[n:hint]" display hint, with
// ParseAtom's errors except running out of memory.
Status ReadAtom(ByteCursor* cursor, AtomSpan* span) {
  if (cursor->Match("[")) {
    Status status = ParseLength(&span->hint_length, cursor);
    if (status != SPKI_OK) return status;
    // The "]" must be there, with at least one byte after it.
    if (cursor->remaining() < static_cast<size_t>(span->hint_length) + 2) {
      return SPKI_ERR_DISP_HINT_TOO_LONG;
    }
    cursor->Take(span->hint_length, &span->hint);
    if (!cursor->Match("]")) return SPKI_ERR_DISP_HINT_NOT_CLOSED;
  }
  Status status = ParseLength(&span->length, cursor);
  if (status != SPKI_OK) return status;
  if (!cursor->Take(span->length, &span->bytes)) return SPKI_ERR_STRING_TOO_LONG;
  return SPKI_OK;
}

EngineAtom* NewAtomOf(EngineContext& engine, const AtomSpan& span) {
  return NewAtomOver(engine, span.bytes, span.length, span.hint, span.hint_length);
}

// A new element node that takes over the count |sublist| or |atom| holds
// (NewSublistElement and NewAtomElement take a count of their own, which the
// parser would only give back at once). Null when out of memory; the
// reference then keeps its count.
EngineNode* AdoptInto(EngineContext& engine, NodeRef& sublist) {
  EngineNode* node = NewNode(engine);
  if (node == nullptr) return nullptr;
  node->kind = kNodeSublist;
  *SublistSlot(node) = sublist.release();
  return node;
}
EngineNode* AdoptInto(EngineContext& engine, AtomRef& atom) {
  EngineNode* node = NewNode(engine);
  if (node == nullptr) return nullptr;
  node->kind = kNodeAtom;
  *AtomSlot(node) = atom.release();
  return node;
}

// |keys|: where to note public-key lists, or null (also inside a key).
Status ParseListAt(EngineContext& engine, EngineNode** out, ByteCursor* cursor, int depth,
                   std::vector<EngineNode*>* keys) {
  *out = nullptr;
  const int start = cursor->Peek();
  if (start == -1) return SPKI_ERR_BAD_SEXP_START;
  if (start != '(') {
    cursor->Skip(1);
    return SPKI_ERR_BAD_SEXP_START;
  }
  const uint8_t* open = cursor->here();
  const size_t open_position = cursor->position();
  cursor->Skip(1);

  // A keyword head keeps only the keyword's id: no atom is made for it.
  AtomSpan first;
  Status status = ReadAtom(cursor, &first);
  if (status != SPKI_OK) return status;
  NodeRef head(engine);
  // An atom with a display hint is never a keyword.
  const int32_t keyword =
      first.hint_length != 0 ? kKeywordNone : KeywordId(first.bytes, first.length);
  if (keyword > 0) {
    head.reset(NewKeywordHead(engine, keyword));
  } else {
    AtomRef atom(engine, NewAtomOf(engine, first));
    head.reset(NewAtomHead(engine, atom.get()));
  }
  if (!head) return SPKI_ERR_NO_MEM;
  head->source = open;
  if (keys != nullptr && keyword == kKeywordPublicKey) {
    try {
      keys->push_back(head.get());
    } catch (const std::bad_alloc&) {
      return SPKI_ERR_NO_MEM;
    }
    keys = nullptr;
  }

  EngineNode* tail = head.get();
  for (int byte = cursor->Peek(); byte != -1; byte = cursor->Peek()) {
    NodeRef element(engine);
    if (byte == '(') {
      if (depth >= kMaxNesting) return SPKI_ERR_BAD_SEXP;
      NodeRef sublist(engine);
      status = ParseListAt(engine, sublist.out(), cursor, depth + 1, keys);
      if (status != SPKI_OK) return status;
      element.reset(AdoptInto(engine, sublist));
    } else if (IsLengthStart(static_cast<uint8_t>(byte)) || byte == '[') {
      AtomSpan span;
      status = ReadAtom(cursor, &span);
      if (status != SPKI_OK) return status;
      AtomRef atom(engine, NewAtomOf(engine, span));
      if (!atom) return SPKI_ERR_NO_MEM;
      element.reset(AdoptInto(engine, atom));
    } else if (byte == ')') {
      cursor->Skip(1);
      const size_t length = cursor->position() - open_position;
      if (length > std::numeric_limits<uint32_t>::max()) return SPKI_ERR_STRING_TOO_LONG;
      if (length <= kMaxSourceLength) {
        head->source_length = static_cast<uint32_t>(length);
      } else {
        head->source = nullptr;
      }
      *out = head.release();
      return SPKI_OK;
    } else {
      return SPKI_ERR_BAD_SEXP_FORMAT;
    }
    if (!element) return SPKI_ERR_NO_MEM;
    tail->next = element.release();  // the chain owns the element's first count
    tail = tail->next;
  }
  return SPKI_ERR_SEXP_NOT_CLOSED;
}

void ClearSources(EngineNode* chain, int depth) {
  for (EngineNode* node = chain; node != nullptr; node = node->next) {
    node->source = nullptr;
    node->source_length = 0;
    // Templates are parsed, so they are never deeper than kMaxNesting.
    if (SublistOf(node) != nullptr && depth < kMaxNesting) ClearSources(SublistOf(node), depth + 1);
  }
}

}  // namespace

Status ParseLength(uint32_t* out, ByteCursor* cursor) {
  if (out == nullptr || cursor == nullptr) return SPKI_ERR_NULL_PARAM;
  const int first = cursor->Peek();
  if (first == -1 || !IsLengthStart(static_cast<uint8_t>(first))) return SPKI_ERR_BAD_LTH_FORMAT;
  uint32_t value = static_cast<uint32_t>(cursor->Next() - '0');
  for (int next = cursor->Peek(); next != -1 && IsDigit(static_cast<uint8_t>(next));
       next = cursor->Peek()) {
    if (value > 214748364) return SPKI_ERR_LTH_TOO_BIG;
    value = value * 10 + static_cast<uint32_t>(cursor->Next() - '0');
  }
  if (!cursor->Match(":")) return SPKI_ERR_COLON_EXPECTED;
  *out = value;
  return SPKI_OK;
}

Status ParseAtom(EngineContext& engine, EngineAtom** out, ByteCursor* cursor) {
  if (out == nullptr || cursor == nullptr) return SPKI_ERR_NULL_PARAM;
  *out = nullptr;
  AtomSpan span;
  Status status = ReadAtom(cursor, &span);
  if (status != SPKI_OK) return status;
  *out = NewAtomOf(engine, span);
  return *out != nullptr ? SPKI_OK : SPKI_ERR_NO_MEM;
}

Status ParseList(EngineContext& engine, EngineNode** out, ByteCursor* cursor) {
  if (out == nullptr || cursor == nullptr || cursor->data() == nullptr) {
    return SPKI_ERR_NULL_PARAM;
  }
  return ParseListAt(engine, out, cursor, 1, nullptr);
}

Status ParseText(EngineContext& engine, EngineNode** out, const void* text, size_t length,
                 std::vector<EngineNode*>* keys) {
  if (out == nullptr || text == nullptr) return SPKI_ERR_NULL_PARAM;
  ByteCursor cursor(text, length);
  Status status = ParseListAt(engine, out, &cursor, 1, keys);
  if (status == SPKI_OK && !cursor.at_end()) {
    ReleaseNode(engine, *out);
    *out = nullptr;
    status = SPKI_ERR_BAD_SEXP_FORMAT;
  }
  return status;
}

Status ParseTemplate(EngineContext& engine, EngineNode** out, const char* text) {
  if (out == nullptr || text == nullptr) return SPKI_ERR_NULL_PARAM;
  Status status = ParseText(engine, out, text, std::strlen(text));
  if (status == SPKI_OK) ClearSources(*out, 1);
  return status;
}

}  // namespace velk2::engine
