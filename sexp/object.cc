// Atoms, lists and the operations on whole objects (digests, equality, the
// canonical buffer and the text form).
#include "sexp/object.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "frame/guard.h"
#include "platform/files.h"

namespace velk2 {

// ---- Atoms ---------------------------------------------------------------------

void SexpAtom::ClearBytes() {
  data_.reset();
  length_ = 0;
}

Ref<SexpAtom> SexpAtom::NewWithBytes(Velk2Context* context, std::string_view bytes,
                                     DisplayHint hint) {
  // Atoms past the read limit (only AssignBytes makes them) get a buffer of
  // their own, so the inline capacity always fits its 16 bits.
  const size_t extra = bytes.size() > kInlineBytes && bytes.size() <= kMaxAtomLength
                           ? bytes.size() - kInlineBytes
                           : 0;
  Ref<SexpAtom> atom = Ref<SexpAtom>::Adopt(new (TrailingBytes{extra}) SexpAtom(context, {extra}));
  if (atom->AssignBytes(bytes.data(), static_cast<uint32_t>(bytes.size()), hint) != VELK2_SUCCESS) {
    throw std::bad_alloc();
  }
  return atom;
}

Result SexpAtom::ResizeBytes(uint32_t length) {
  if (length <= inline_capacity_) {
    data_.reset();
    length_ = length;
    return VELK2_SUCCESS;
  }
  // A buffer a little larger than needed is kept rather than reallocated.
  if (data_ && length_ >= length && length_ - length < 8) {
    length_ = length;
    return VELK2_SUCCESS;
  }
  ClearBytes();
  if (length == 0) return VELK2_SUCCESS;
  try {
    data_ = std::make_unique_for_overwrite<uint8_t[]>(length);
  } catch (const std::bad_alloc&) {
    return VELK2_ERR_MEM_ALLOC;
  }
  length_ = length;
  return VELK2_SUCCESS;
}

Result SexpAtom::AssignBytes(const void* data, uint32_t length, DisplayHint hint) {
  if (length != 0 && data == nullptr) return VELK2_ERR_INVALID_PARAM;
  Result result = ResizeBytes(length);
  if (result != VELK2_SUCCESS) return result;
  if (length != 0) std::memmove(mutable_data(), data, length);
  hint_ = hint;
  return VELK2_SUCCESS;
}

Result SexpAtom::SetAtomValue(const void* data, uint32_t length, DisplayHint hint) {
  if (data == nullptr || length == 0) return VELK2_ERR_INVALID_PARAM;
  if (length > kMaxAtomLength) return VELK2_ERR_MAX_BYTE_STRING;
  return AssignBytes(data, length, hint);
}

bool SexpAtom::AtomEqualsText(const char* text) const {
  if (text == nullptr) return false;
  size_t size = std::strlen(text);
  return size == length_ && (size == 0 || std::memcmp(data(), text, size) == 0);
}

CBuffer<char16_t> SexpAtom::AtomAsWide() const {
  if (length_ > INT32_MAX) return nullptr;
  const char* bytes = length_ ? reinterpret_cast<const char*>(data()) : "";
  return CBuffer<char16_t>(Utf8ToWide(bytes, static_cast<int32_t>(length_), nullptr));
}

// ---- Lists ---------------------------------------------------------------------

SexpList::SexpList(Velk2Context* context, std::span<Ref<SexpObject>> children)
    : SexpObject(context),
      items_(reinterpret_cast<Ref<SexpObject>*>(this + 1)),
      count_(static_cast<uint32_t>(children.size())),
      capacity_(count_),
      trailing_(count_) {
  std::uninitialized_move(children.begin(), children.end(), items_);
}

Ref<SexpList> SexpList::NewWithChildren(Velk2Context* context,
                                        std::span<Ref<SexpObject>> children) {
  if (children.size() > UINT32_MAX / sizeof(Ref<SexpObject>)) throw std::bad_alloc();
  const TrailingBytes extra{children.size() * sizeof(Ref<SexpObject>)};
  return Ref<SexpList>::Adopt(new (extra) SexpList(context, children));
}

SexpList::~SexpList() {
  // The room after the object holds references made in place: released
  // here, the way a buffer of our own releases its own.
  if (trailing_ != 0) std::destroy_n(reinterpret_cast<Ref<SexpObject>*>(this + 1), trailing_);
}

Result SexpList::Reserve(size_t count) {
  if (count <= capacity_) return VELK2_SUCCESS;
  if (count > UINT32_MAX / sizeof(Ref<SexpObject>)) return VELK2_ERR_MEM_ALLOC;
  const size_t capacity = std::max<size_t>({count, size_t{capacity_} * 2, 4});
  std::unique_ptr<Ref<SexpObject>[]> grown;
  try {
    grown = std::make_unique<Ref<SexpObject>[]>(capacity);
  } catch (const std::bad_alloc&) {
    return VELK2_ERR_MEM_ALLOC;
  }
  std::move(items_, items_ + count_, grown.get());
  heap_ = std::move(grown);
  items_ = heap_.get();
  capacity_ = static_cast<uint32_t>(capacity);
  return VELK2_SUCCESS;
}

Result SexpList::Link(SexpObject* child) {
  if (child == nullptr) return VELK2_ERR_PARAM_NULL;
  Result result = Reserve(size_t{count_} + 1);
  if (result != VELK2_SUCCESS) return result;
  items_[count_++] = Ref<SexpObject>::Adopt(child);
  return VELK2_SUCCESS;
}

Result SexpList::RemoveChild(const SexpObject* child, Ref<SexpObject>* removed) {
  if (child == nullptr) return VELK2_ERR_PARAM_NULL;
  for (uint32_t i = 0; i < count_; ++i) {
    if (items_[i].get() != child) continue;
    Ref<SexpObject> reference = std::move(items_[i]);
    std::move(items_ + i + 1, items_ + count_, items_ + i);
    --count_;
    if (removed != nullptr) *removed = std::move(reference);
    return VELK2_SUCCESS;
  }
  return VELK2_ERR_NOT_IN_LIST;
}

void SexpList::ClearChildren() {
  // Released front to back, then forgotten; the room stays for new children.
  for (uint32_t i = 0; i < count_; ++i) items_[i].reset();
  count_ = 0;
}

namespace {

// AppendTextAtom's steps, for the entry points that already run under a Guard.
Result AppendText(SexpList& list, const char* text) {
  if (text == nullptr) return VELK2_ERR_INVALID_PARAM;
  Ref<SexpAtom> atom = SexpAtom::New(list.context());
  const size_t size = std::strlen(text);
  if (size > kMaxAtomLength) return VELK2_ERR_MAX_BYTE_STRING;
  Result result = atom->SetAtomValue(text, static_cast<uint32_t>(size));
  if (result != VELK2_SUCCESS) return result;
  return list.Append(std::move(atom));
}

}  // namespace

Result SexpList::AppendTextAtom(const char* text) {
  if (text == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&] { return AppendText(*this, text); });
}

Result SexpList::SetFilePath(const char16_t* name) {
  if (name == nullptr) return VELK2_ERR_INVALID_PARAM;
  file_path_.reset();
  return Guard([&]() -> Result {
    std::u16string path;
    Result result = StoreFilePath(StoreSubdirectory(), FileExtension(), name, location_, &path);
    if (result != VELK2_SUCCESS) return VELK2_ERR_MEM_ALLOC;
    file_path_ = std::make_unique<std::u16string>(std::move(path));
    return VELK2_SUCCESS;
  });
}

Result SexpList::EnsureStoreDirectory() const {
  const char16_t* root;
  switch (location_) {
    case kStoreVerbatim:
      return VELK2_SUCCESS;
    case kStoreHome:
      root = HomeDirectory();
      break;
    case kStoreGlobal:
      root = GlobalDirectory();
      break;
    default:
      return VELK2_ERR_FIND_DIR;
  }
  return Guard([&] { return EnsureDirectory(BuildPath(root, StoreSubdirectory()).c_str()); });
}

// ---- Keyword lists -------------------------------------------------------------

Result NewKeywordList(Ref<SexpList>* out, const char* keyword, Velk2Context* context) {
  if (out == nullptr) return VELK2_ERR_PARAM_NULL;
  out->reset();
  return Guard([&]() -> Result {
    Ref<SexpList> list = SexpList::New(context);
    Result result = AppendText(*list, keyword);
    if (result != VELK2_SUCCESS) return result;
    *out = std::move(list);
    return VELK2_SUCCESS;
  });
}

Result NewKeywordListWithText(Ref<SexpList>* out, const char* keyword, const char* text,
                              Velk2Context* context) {
  Result result = NewKeywordList(out, keyword, context);
  if (result != VELK2_SUCCESS) return result;
  result = (*out)->AppendTextAtom(text);
  if (result != VELK2_SUCCESS) out->reset();
  return result;
}

// ---- Digests and equality ------------------------------------------------------

namespace {

// Frees a crypto hash handle with the context word it was made with.
class HashHandle {
 public:
  explicit HashHandle(uint32_t word) : word_(word) {}
  HashHandle(const HashHandle&) = delete;
  HashHandle& operator=(const HashHandle&) = delete;
  ~HashHandle() {
    if (handle_ != nullptr) zcry_HashFree(handle_, word_);
  }
  ZCRY_HASH* out() { return &handle_; }
  ZCRY_HASH get() const { return handle_; }

 private:
  ZCRY_HASH handle_ = nullptr;
  uint32_t word_;
};

}  // namespace

Result ComputeHash(const SexpObject* object, CBuffer<uint8_t>* digest_out,
                   uint32_t* digest_length_out, uint32_t hash_id, bool skip_hints) {
  if (object == nullptr || digest_out == nullptr || digest_length_out == nullptr) {
    return VELK2_ERR_PARAM_NULL;
  }
  if (*digest_out != nullptr) return VELK2_ERR_INVALID_PARAM;
  const uint32_t word = object->context_word();
  HashHandle handle(word);
  Result result = zcry_HashAlloc(handle.out(), hash_id, word);
  if (result != VELK2_SUCCESS) return result;
  result = object->HashInto(handle.get(), skip_hints);
  if (result != VELK2_SUCCESS) return result;
  zcry_HashInfoRecord info{};
  info.words[0] = sizeof(info);
  result = zcry_HashInfo(hash_id, &info);
  if (result != VELK2_SUCCESS) return result;
  const uint32_t size = info.words[6];
  *digest_length_out = size;
  CBuffer<uint8_t> digest(static_cast<uint8_t*>(std::malloc(size ? size : 1)));
  if (digest == nullptr) return VELK2_ERR_MEM_ALLOC;
  result = zcry_HashFinal(handle.get(), digest.get(), word);
  if (result != VELK2_SUCCESS) return result;
  *digest_out = std::move(digest);
  return VELK2_SUCCESS;
}

bool SameCanonicalForm(const SexpObject* a, const SexpObject* b) {
  if (a == nullptr || b == nullptr) return false;
  CBuffer<uint8_t> digest_a, digest_b;
  uint32_t length_a = 0, length_b = 0;
  if (ComputeHash(a, &digest_a, &length_a, ZCRY_HASH_SHA256, true) != VELK2_SUCCESS) return false;
  if (ComputeHash(b, &digest_b, &length_b, ZCRY_HASH_SHA256, true) != VELK2_SUCCESS) return false;
  // Compared over the second digest's length; both are SHA-256 here.
  return length_a >= length_b && std::memcmp(digest_a.get(), digest_b.get(), length_b) == 0;
}

// ---- Whole-object writers ------------------------------------------------------

Result ToCanonicalBuffer(const SexpList* list, CBuffer<uint8_t>* buffer_out, uint32_t* size_out) {
  if (list == nullptr || buffer_out == nullptr || size_out == nullptr) return VELK2_ERR_PARAM_NULL;
  if (*buffer_out != nullptr) return VELK2_ERR_INVALID_PARAM;
  const uint32_t size = list->CanonicalLength();
  if (size == UINT32_MAX) return VELK2_ERR_INVALID_S_EXPRESSION;
  CBuffer<uint8_t> buffer(static_cast<uint8_t*>(std::malloc(size ? size : 1)));
  if (buffer == nullptr) return VELK2_ERR_MEM_ALLOC;
  *size_out = size;
  if (size < 2) {
    // Unreachable for a list; the allocation stays with the caller.
    *buffer_out = std::move(buffer);
    return VELK2_ERR_BUFFER_OVERFLOW;
  }
  // The outer parentheses are written here rather than by the list's own
  // WriteCanonical, which wants one byte of room beyond its ")".
  uint32_t position = 0;
  buffer.get()[position++] = '(';
  for (const Ref<SexpObject>& child : list->children()) {
    Result result = child->WriteCanonical(buffer.get(), &position, size);
    if (result != VELK2_SUCCESS) return result;
  }
  if (position + 1 != size) return VELK2_ERR_BUFFER_OVERFLOW;
  buffer.get()[position++] = ')';
  *buffer_out = std::move(buffer);
  return VELK2_SUCCESS;
}

CBuffer<char> ToAdvancedText(const SexpObject* object, const char* keyword) {
  if (object == nullptr) return nullptr;
  const uint32_t needed = object->AdvancedLength();
  if (needed >= UINT32_MAX - 1) return nullptr;
  const uint32_t capacity = needed + 1;
  CBuffer<char> text(static_cast<char*>(std::malloc(capacity)));
  if (text == nullptr) return nullptr;
  uint32_t position = 0;
  if (object->WriteAdvanced(text.get(), &position, capacity) != VELK2_SUCCESS) return nullptr;
  if (keyword == nullptr) return text;

  const char* all = text.get();
  const size_t size = std::strlen(all);
  const size_t keyword_size = std::strlen(keyword);
  if (size <= keyword_size + 2 || all[0] != '(' || all[size - 1] != ')') return nullptr;
  size_t start = 1;
  if (keyword_size != 0) {
    if (std::memcmp(all + 1, keyword, keyword_size) != 0 || all[1 + keyword_size] != ' ') {
      return nullptr;
    }
    start += keyword_size + 1;
  }
  const size_t middle = size - 1 - start;
  CBuffer<char> result(static_cast<char*>(std::malloc(middle + 1)));
  if (result == nullptr) return nullptr;
  std::memcpy(result.get(), all + start, middle);
  result.get()[middle] = '\0';
  return result;
}

CBuffer<char16_t> ToAdvancedTextWide(const SexpObject* object, const char* keyword) {
  CBuffer<char> text = ToAdvancedText(object, keyword);
  if (text == nullptr) return nullptr;
  return CBuffer<char16_t>(Utf8ToWide(text.get(), -1, nullptr));
}

}  // namespace velk2
