#include "engine/query.h"

#include <new>
#include <vector>

#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/store.h"
#include "engine/tags.h"

namespace velk2::engine {
namespace {

// An empty view may have no data at all; the parser wants a pointer.
Status ParseView(EngineContext& engine, EngineNode** out, std::string_view text,
                 std::vector<EngineNode*>* keys = nullptr) {
  return ParseText(engine, out, text.data() != nullptr ? text.data() : "", text.size(), keys);
}

}  // namespace

const EngineAllocator* DefaultAllocator() {
  return HeapAllocator();
}

int32_t ReduceCanonicalWith(const EngineAllocator* allocator, uint32_t crypto_context,
                            std::string_view acl, std::string_view sequence, std::string_view key,
                            const std::string_view* tag, const std::string_view* validity,
                            std::string* result_text, const ReduceOptions& options) {
  if (result_text == nullptr) return SPKI_ERR_NULL_PARAM;
  result_text->clear();
  EngineContext engine;
  Status status = EngineInit(&engine, allocator);
  if (status != SPKI_OK) return status;
  {
    NodeRef acl_tree(engine);
    NodeRef sequence_tree(engine);
    NodeRef key_tree(engine);
    NodeRef tag_tree(engine);
    NodeRef validity_tree(engine);
    NodeRef result(engine);
    // The keys each tree holds, noted while it is parsed, in the order the
    // reduction registers them: the key's, the ACL's, the sequence's.
    std::vector<EngineNode*> tree_keys[3];
    status = ParseView(engine, acl_tree.out(), acl, &tree_keys[1]);
    if (status == SPKI_OK) status = ParseView(engine, sequence_tree.out(), sequence, &tree_keys[2]);
    if (status == SPKI_OK) status = ParseView(engine, key_tree.out(), key, &tree_keys[0]);
    std::vector<EngineNode*> keys;
    if (status == SPKI_OK) {
      try {
        for (const std::vector<EngineNode*>& found : tree_keys) {
          keys.insert(keys.end(), found.begin(), found.end());
        }
      } catch (const std::bad_alloc&) {
        status = SPKI_ERR_NO_MEM;
      }
    }
    if (status == SPKI_OK && tag != nullptr) status = ParseView(engine, tag_tree.out(), *tag);
    if (status == SPKI_OK && validity != nullptr) {
      status = ParseView(engine, validity_tree.out(), *validity);
    }
    if (status == SPKI_OK) {
      ReduceOptions noted = options;
      noted.keys = &keys;
      status = Reduce(engine, crypto_context, acl_tree.get(), sequence_tree.get(), key_tree.get(),
                      tag_tree.get(), validity_tree.get(), result.out(), noted);
    }
    if (status == SPKI_OK) status = PrintToString(result.get(), result_text);
    if (status != SPKI_OK) result_text->clear();
    // Every record lives in the engine's arena, which goes whole below: a big
    // ACL is half a million nodes, and releasing them one by one cost more
    // than a sixth of the query.
    for (NodeRef* tree :
         {&acl_tree, &sequence_tree, &key_tree, &tag_tree, &validity_tree, &result}) {
      (void)tree->release();
    }
  }
  EngineRelease(&engine);
  return status;
}

int32_t ReduceCanonical(uint32_t crypto_context, std::string_view acl, std::string_view sequence,
                        std::string_view key, const std::string_view* tag,
                        const std::string_view* validity, std::string* result_text,
                        ReductionTrace* trace) {
  ReduceOptions options;
  options.trace = trace;
  // The engine below lives for this query only.
  options.arena_discarded = true;
  return ReduceCanonicalWith(DefaultAllocator(), crypto_context, acl, sequence, key, tag, validity,
                             result_text, options);
}

int TagImplies(std::string_view requested, std::string_view granted) {
  EngineContext engine;
  if (EngineInit(&engine, DefaultAllocator()) != SPKI_OK) return 0;
  int implied = 0;
  {
    NodeRef asked(engine);
    NodeRef held(engine);
    NodeRef both(engine);
    if (ParseView(engine, asked.out(), requested) == SPKI_OK &&
        ParseView(engine, held.out(), granted) == SPKI_OK &&
        IntersectTagLists(engine, asked.get(), held.get(), both.out()) == SPKI_OK && both) {
      TagRelation relation = kTagDisjoint;
      if (CompareTagLists(engine, both.get(), asked.get(), &relation) == SPKI_OK &&
          relation == kTagEqual) {
        implied = 1;
      }
    }
  }
  EngineRelease(&engine);
  return implied;
}

}  // namespace velk2::engine
