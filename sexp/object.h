// S-expression objects: the reference-counted tree of byte-string atoms and
// lists in which every credential is held. Credential classes derive from
// SexpList and add a Parse operation after its virtual operations.
//
// Ownership: a constructor or parser hands its result over with one reference
// (Ref<T>). Appending to a list moves the caller's reference into the list;
// removing a child moves it back. Raw pointers only borrow.
#ifndef VELK2_SEXP_OBJECT_H_
#define VELK2_SEXP_OBJECT_H_

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "frame/context.h"
#include "frame/paths.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "frame/text.h"
#include "platform/cursor.h"
#include "platform/zcry.h"
#include "sexp/node_heap.h"

namespace velk2 {

// How an atom asks to be displayed; the stored form writes it as a marker
// before the length ("[bin]3:abc").
enum DisplayHint : uint32_t {
  kHintNone = 0,
  kHintBin = 1,
  kHintUtf8 = 2,
  kHintNum = 3,
};

// The largest atom that SetAtomValue and the canonical reader accept.
constexpr uint32_t kMaxAtomLength = 8192;
// Lists nested deeper than this are refused by every reader. A credential
// nests about ten deep and never past kMaxNesting, which the engine enforces;
// the reader takes four times that, because a signed manifest's tree nests
// as deep as its package's directories.
constexpr uint32_t kMaxReadDepth = 4 * kMaxNesting;
// Lists nested deeper than this are refused by the writers, hashing, lengths
// and printing. It leaves room above kMaxReadDepth so that a list read at the
// limit can still be written inside the credential that holds it; it also
// stops a list that was (wrongly) appended to itself.
constexpr uint32_t kMaxWriteDepth = 2 * kMaxReadDepth;

// The token sink of EmitTokens: receives each token's bytes; its result is
// not looked at.
using TokenCallback = int (*)(const char* bytes, size_t count, void* user);

class SexpAtom;
class SexpList;

// The base of atoms and lists. Every object is one or the other: IsList()
// tells which, and AsAtom()/AsList() cast accordingly.
class SexpObject : public RefCounted {
 public:
  // The library context the object was made under (may be null); its word is
  // passed to every crypto call the object makes.
  Velk2Context* context() const { return context_; }
  uint32_t context_word() const { return ContextWord(context_); }

  // HashInto feeds the stored form (hint markers included) to a crypto hash
  // handle, or the canonical form when |skip_hints| is set. Stops at the first
  // crypto failure and returns it; VELK2_ERR_INVALID_S_EXPRESSION (29) when
  // lists are nested deeper than kMaxWriteDepth.
  virtual Result HashInto(ZCRY_HASH handle, bool skip_hints) const = 0;
  // Bytes of the canonical form (hints not counted). UINT32_MAX when the
  // object cannot be written (nested too deep).
  virtual uint32_t CanonicalLength() const = 0;
  // Bytes that WriteAdvanced needs, one terminator included (an upper bound).
  // UINT32_MAX when the object cannot be written.
  virtual uint32_t AdvancedLength() const = 0;
  // WriteCanonical writes the canonical form at *position in |buffer| of
  // |capacity| bytes and advances *position. VELK2_ERR_INVALID_PARAM (2) for
  // a null buffer, VELK2_ERR_BUFFER_OVERFLOW (30) when a piece does not fit;
  // what was written before the failing piece stays and *position is not
  // rolled back. A list needs one byte of room beyond its last byte.
  virtual Result WriteCanonical(uint8_t* buffer, uint32_t* position, uint32_t capacity) const = 0;
  // WriteAdvanced writes the readable text form (atoms as their bytes, list
  // elements separated by one space) followed by an uncounted NUL.
  virtual Result WriteAdvanced(char* buffer, uint32_t* position, uint32_t capacity) const = 0;
  // EmitTokens hands the text form to |callback| token by token. |depth| 0
  // leaves out the outer parentheses of a list. Returns 0, or 29 when nested
  // deeper than kMaxWriteDepth.
  virtual Result EmitTokens(TokenCallback callback, void* user, uint32_t depth) const = 0;
  // WriteToFile writes the stored form to |stream| (left open for the caller).
  // VELK2_ERR_WRITE_FILE (76) on a short write; a null stream gives
  // VELK2_ERR_PARAM_NULL (38) for an atom and VELK2_ERR_INVALID_PARAM (2) for a
  // list (callers have relied on the difference).
  virtual Result WriteToFile(std::FILE* stream) const = 0;
  virtual bool IsList() const = 0;

  const SexpAtom* AsAtom() const;
  SexpAtom* AsAtom();
  const SexpList* AsList() const;
  SexpList* AsList();

  // Objects live on the node heap; the reader makes some with room after the
  // object (an atom's bytes, a list's children), and every object is freed
  // the same way, whatever its size.
  static void* operator new(size_t size) { return sexp_internal::AllocateNode(size); }
  static void operator delete(void* memory) { sexp_internal::FreeNode(memory); }

 protected:
  // The room allocated after an object.
  struct TrailingBytes {
    size_t count;
  };
  static void* operator new(size_t size, TrailingBytes extra) {
    return sexp_internal::AllocateNode(size + extra.count);
  }
  static void operator delete(void* memory, TrailingBytes) { sexp_internal::FreeNode(memory); }

  explicit SexpObject(Velk2Context* context) : context_(context) {}
  ~SexpObject() override = default;

 private:
  Velk2Context* context_;
};

// A byte string of (normally) at most 8192 bytes with a display hint.
class SexpAtom : public SexpObject {
 public:
  explicit SexpAtom(Velk2Context* context = nullptr) : SexpObject(context) {}
  static Ref<SexpAtom> New(Velk2Context* context = nullptr) { return MakeRef<SexpAtom>(context); }
  // NewWithBytes makes an atom holding a copy of |bytes| in one allocation:
  // the bytes are stored right after the object. Throws std::bad_alloc.
  static Ref<SexpAtom> NewWithBytes(Velk2Context* context, std::string_view bytes,
                                    DisplayHint hint);

  Result HashInto(ZCRY_HASH handle, bool skip_hints) const override;
  uint32_t CanonicalLength() const override;
  uint32_t AdvancedLength() const override;
  Result WriteCanonical(uint8_t* buffer, uint32_t* position, uint32_t capacity) const override;
  Result WriteAdvanced(char* buffer, uint32_t* position, uint32_t capacity) const override;
  Result EmitTokens(TokenCallback callback, void* user, uint32_t depth) const override;
  Result WriteToFile(std::FILE* stream) const override;
  bool IsList() const override { return false; }

  // AtomAsWide: the bytes converted from UTF-8 to a new NUL-terminated UTF-16
  // string (ill-formed input becomes U+FFFD); null when memory runs out.
  virtual CBuffer<char16_t> AtomAsWide() const;

  // SetAtomValue copies |length| bytes and sets the hint.
  // VELK2_ERR_INVALID_PARAM (2) for null data or length 0,
  // VELK2_ERR_MAX_BYTE_STRING (14) over 8192 bytes, VELK2_ERR_MEM_ALLOC (3)
  // (atom left empty) when no buffer can be had.
  Result SetAtomValue(const void* data, uint32_t length, DisplayHint hint = kHintNone);
  // True when the bytes are exactly the NUL-terminated |text|.
  bool AtomEqualsText(const char* text) const;

  // AssignBytes sets the bytes without the 8192 limit and without refusing an
  // empty value (the text parsers and digests use it). VELK2_ERR_MEM_ALLOC (3),
  // atom left empty, when no buffer can be had.
  Result AssignBytes(const void* data, uint32_t length, DisplayHint hint = kHintNone);
  // ResizeBytes makes the atom |length| bytes long (content unspecified) for a
  // reader or writer that fills mutable_data() itself. Up to kInlineBytes
  // bytes (or what NewWithBytes left room for) live in the atom itself. A
  // longer value's buffer is kept when the current length is at least
  // |length| and less than |length| + 8; otherwise one of exactly |length|
  // bytes replaces it. 3, atom left empty, when memory runs out.
  Result ResizeBytes(uint32_t length);
  // ClearBytes frees the bytes and sets the length to 0.
  void ClearBytes();

  // Null while the atom is empty.
  const uint8_t* data() const { return data_ ? data_.get() : length_ ? inline_ : nullptr; }
  uint8_t* mutable_data() { return const_cast<uint8_t*>(std::as_const(*this).data()); }
  uint32_t length() const { return length_; }
  std::string_view bytes() const {
    return length_ ? std::string_view(reinterpret_cast<const char*>(data()), length_)
                   : std::string_view();
  }
  // Most atoms of a credential are words and small numbers: they live in the
  // atom, one allocation instead of two.
  static constexpr uint32_t kInlineBytes = 16;
  DisplayHint hint() const { return static_cast<DisplayHint>(hint_); }
  void set_hint(DisplayHint hint) { hint_ = static_cast<uint8_t>(hint); }

 protected:
  ~SexpAtom() override = default;

 private:
  SexpAtom(Velk2Context* context, TrailingBytes extra)
      : SexpObject(context), inline_capacity_(static_cast<uint16_t>(kInlineBytes + extra.count)) {}

  uint32_t length_ = 0;
  // The bytes inline_ can hold: kInlineBytes, plus what was allocated after
  // the object.
  uint16_t inline_capacity_ = kInlineBytes;
  uint8_t hint_ = kHintNone;
  std::unique_ptr<uint8_t[]> data_;  // null: the bytes are inline_
  uint8_t inline_[kInlineBytes];     // runs on into the trailing bytes
};

// An ordered list of child references, with the store location and file path
// of the credential file it belongs to.
class SexpList : public SexpObject {
 public:
  explicit SexpList(Velk2Context* context = nullptr) : SexpObject(context) {}
  static Ref<SexpList> New(Velk2Context* context = nullptr) { return MakeRef<SexpList>(context); }
  // NewWithChildren makes a plain list of |children| in one allocation: the
  // references move into room right after the object, leaving |children|
  // null. A later Append moves them to a buffer of their own. Throws
  // std::bad_alloc; a null child is the caller's error (nothing moves).
  static Ref<SexpList> NewWithChildren(Velk2Context* context, std::span<Ref<SexpObject>> children);

  Result HashInto(ZCRY_HASH handle, bool skip_hints) const override;
  uint32_t CanonicalLength() const override;
  uint32_t AdvancedLength() const override;
  Result WriteCanonical(uint8_t* buffer, uint32_t* position, uint32_t capacity) const override;
  Result WriteAdvanced(char* buffer, uint32_t* position, uint32_t capacity) const override;
  Result EmitTokens(TokenCallback callback, void* user, uint32_t depth) const override;
  Result WriteToFile(std::FILE* stream) const override;
  bool IsList() const override { return true; }

  // The store subdirectory and file extension of this kind of credential
  // (UTF-16 constants); both empty for a plain list.
  virtual const char16_t* StoreSubdirectory() const { return u""; }
  virtual const char16_t* FileExtension() const { return u""; }
  // A class-specific flag word; 0 for a plain list.
  virtual uint32_t ClassFlag() const { return 0; }

  // Append links |child| after the last child and moves the caller's
  // reference into the list. VELK2_ERR_PARAM_NULL (38) for a null child,
  // VELK2_ERR_MEM_ALLOC (3) when no room can be had; on failure |child| still
  // holds the caller's reference and the list is unchanged.
  template <typename T>
  Result Append(Ref<T>&& child) {
    Result result = Link(child.get());
    if (result == VELK2_SUCCESS) (void)child.Leak();
    return result;
  }
  // RemoveChild unlinks the first child (from the front) that is |child|
  // itself and hands the list's reference to |*removed|, or drops it when
  // |removed| is null. 38 for a null child, VELK2_ERR_NOT_IN_LIST (69) when
  // it is not a child.
  Result RemoveChild(const SexpObject* child, Ref<SexpObject>* removed = nullptr);
  // The first and last child, borrowed; null for an empty list.
  SexpObject* FirstChild() const { return count_ == 0 ? nullptr : items_[0].get(); }
  SexpObject* LastChild() const { return count_ == 0 ? nullptr : items_[count_ - 1].get(); }
  // Releases every child.
  void ClearChildren();
  // AppendTextAtom appends a new atom (hint none, the list's context) holding
  // the NUL-terminated |text|. 2 for null or empty text, 14 over 8192 bytes,
  // 3 when memory runs out.
  Result AppendTextAtom(const char* text);

  size_t ChildCount() const { return count_; }
  // The child at |index|, borrowed; null past the end.
  SexpObject* ChildAt(size_t index) const { return index < count_ ? items_[index].get() : nullptr; }
  std::span<const Ref<SexpObject>> children() const { return {items_, count_}; }

  uint32_t location() const { return location_; }
  // SetLocation stores the StoreLocation (home, global or verbatim path).
  void SetLocation(uint32_t location) { location_ = location; }
  // SetFilePath sets the file path to the store file path of |name| for this
  // kind (StoreFilePath with StoreSubdirectory(), FileExtension() and the
  // location). 2 for a null name; VELK2_ERR_MEM_ALLOC (3) when the path cannot
  // be built, the old path gone either way.
  Result SetFilePath(const char16_t* name);
  // The path set by SetFilePath, or null.
  const char16_t* file_path() const { return file_path_ ? file_path_->c_str() : nullptr; }
  // EnsureStoreDirectory creates the store subdirectory of this kind under
  // the location's root: 0 at once for a verbatim location,
  // VELK2_ERR_FIND_DIR (26) for an unknown location, else EnsureDirectory's
  // result (VELK2_ERR_FILE_OPEN (7) when it cannot be created).
  Result EnsureStoreDirectory() const;

 protected:
  ~SexpList() override;

 private:
  SexpList(Velk2Context* context, std::span<Ref<SexpObject>> children);

  Result Link(SexpObject* child);
  // Room for |count| children in all; VELK2_ERR_MEM_ALLOC (3) when it cannot
  // be had, nothing moved.
  Result Reserve(size_t count);

  // The children: the first count_ of capacity_ references at items_, which
  // is either the room after the object (trailing_ of them) or heap_.
  Ref<SexpObject>* items_ = nullptr;
  uint32_t count_ = 0;
  uint32_t capacity_ = 0;
  std::unique_ptr<Ref<SexpObject>[]> heap_;
  uint32_t trailing_ = 0;
  uint32_t location_ = kStoreHome;
  // Null until SetFilePath: most lists never have one.
  std::unique_ptr<std::u16string> file_path_;
};

inline const SexpAtom* SexpObject::AsAtom() const {
  return IsList() ? nullptr : static_cast<const SexpAtom*>(this);
}
inline SexpAtom* SexpObject::AsAtom() {
  return IsList() ? nullptr : static_cast<SexpAtom*>(this);
}
inline const SexpList* SexpObject::AsList() const {
  return IsList() ? static_cast<const SexpList*>(this) : nullptr;
}
inline SexpList* SexpObject::AsList() {
  return IsList() ? static_cast<SexpList*>(this) : nullptr;
}

// NewKeywordList makes a list holding one text atom |keyword|. On failure
// *out is null and the code returned: VELK2_ERR_INVALID_PARAM (2) for a null
// or empty keyword, 3 when memory runs out.
Result NewKeywordList(Ref<SexpList>* out, const char* keyword, Velk2Context* context);
// The same followed by a second text atom |text|.
Result NewKeywordListWithText(Ref<SexpList>* out, const char* keyword, const char* text,
                              Velk2Context* context);
// The same followed by |child| when it is not null; the child's reference
// moves into the list only on success.
template <typename T>
Result NewKeywordListWithChild(Ref<SexpList>* out, const char* keyword, Ref<T>&& child,
                               Velk2Context* context) {
  Result result = NewKeywordList(out, keyword, context);
  if (result != VELK2_SUCCESS || !child) return result;
  result = (*out)->Append(std::move(child));
  if (result != VELK2_SUCCESS) out->reset();
  return result;
}

// ComputeHash digests the object's stored form (its canonical form when
// |skip_hints|) with crypto hash |hash_id| into a new buffer. *digest_out must
// be null on entry (else VELK2_ERR_INVALID_PARAM (2)); 38 for a null object or
// out-pointer. On failure *digest_out stays null and the crypto module's code
// (or 3, or 29) is returned.
Result ComputeHash(const SexpObject* object, CBuffer<uint8_t>* digest_out,
                   uint32_t* digest_length_out, uint32_t hash_id, bool skip_hints);
// SameCanonicalForm: the library's object equality. True when the SHA-256
// digests of both canonical forms (hints skipped) can be computed and agree;
// false when either object is null.
bool SameCanonicalForm(const SexpObject* a, const SexpObject* b);
// ToCanonicalBuffer writes the list's canonical form into a new buffer of
// exactly CanonicalLength() bytes (not NUL-terminated). *buffer_out must be
// null on entry (else 2); 38 for null arguments; 29 when nested too deep.
Result ToCanonicalBuffer(const SexpList* list, CBuffer<uint8_t>* buffer_out, uint32_t* size_out);
// AppendCanonical appends the same bytes to |*text| in one walk over the
// tree, for a caller that wants them in a string: a big ACL is hundreds of
// thousands of objects, and each walk over them waits for memory. 38 for
// null arguments; 29 when nested too deep or when the form would reach
// UINT32_MAX bytes, with part of it appended. Throws std::bad_alloc.
Result AppendCanonical(const SexpList* list, std::string* text);
// StoredForm: the stored form of |object|, the bytes WriteToFile writes (hint
// markers included). Empty when it cannot be written (nested too deep, no
// memory): every object's stored form has at least two bytes.
std::string StoredForm(const SexpObject& object);
// ToAdvancedText: the object's text form as a new NUL-terminated string.
// With a |keyword|, the text must be "(" |keyword| " " ... ")" (just "(" ...
// ")" for an empty keyword) and only the middle is returned: the tag list
// (tag (ftp x)) with keyword "tag" gives "(ftp x)". Null on any mismatch or
// when memory runs out.
CBuffer<char> ToAdvancedText(const SexpObject* object, const char* keyword);
// The same converted to UTF-16.
CBuffer<char16_t> ToAdvancedTextWide(const SexpObject* object, const char* keyword);

}  // namespace velk2

#endif  // VELK2_SEXP_OBJECT_H_
