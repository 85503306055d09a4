// Ref<T>: the one owning handle of every reference-counted object.
//
// An object starts with a count of 1, owned by whoever made it. Ref<T>::Adopt
// takes over that reference; Ref<T>::Share adds one. Raw pointers only borrow.
// Handing a reference to a container is a move: list->Append(std::move(atom)).
#ifndef VELK2_FRAME_REF_H_
#define VELK2_FRAME_REF_H_

#include <cstdint>
#include <utility>

namespace velk2 {

// Base of every reference-counted class. Counts are plain integers: objects are
// never shared between threads.
template <typename T>
class Ref;

// Counts move only through Ref<T>: no code holds or drops a reference by hand.
class RefCounted {
 public:
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;

  int32_t ref_count() const { return ref_count_; }

 protected:
  RefCounted() = default;
  virtual ~RefCounted() = default;

 private:
  template <typename T>
  friend class Ref;

  void AddRef() const { ++ref_count_; }
  // Drops one reference; destroys the object when the count falls below 1.
  void Release() const {
    if (--ref_count_ < 1) delete this;
  }

  mutable int32_t ref_count_ = 1;
};

template <typename T>
class Ref {
 public:
  Ref() = default;
  Ref(std::nullptr_t) {}
  Ref(const Ref& other) : ptr_(other.ptr_) {
    if (ptr_) ptr_->AddRef();
  }
  Ref(Ref&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
  template <typename U>
  Ref(Ref<U>&& other) noexcept : ptr_(other.Leak()) {}
  template <typename U>
  Ref(const Ref<U>& other) : ptr_(other.get()) {
    if (ptr_) ptr_->AddRef();
  }
  ~Ref() { reset(); }

  Ref& operator=(Ref other) noexcept {
    std::swap(ptr_, other.ptr_);
    return *this;
  }

  // Takes over the reference the caller holds (a fresh object's first one).
  static Ref Adopt(T* ptr) {
    Ref r;
    r.ptr_ = ptr;
    return r;
  }
  // Adds a reference to a borrowed pointer.
  static Ref Share(T* ptr) {
    if (ptr) ptr->AddRef();
    return Adopt(ptr);
  }

  void reset() {
    if (T* p = std::exchange(ptr_, nullptr)) p->Release();
  }
  // Gives up ownership without releasing: the caller now holds the reference.
  [[nodiscard]] T* Leak() { return std::exchange(ptr_, nullptr); }

  T* get() const { return ptr_; }
  T* operator->() const { return ptr_; }
  T& operator*() const { return *ptr_; }
  explicit operator bool() const { return ptr_ != nullptr; }

  friend bool operator==(const Ref& a, const Ref& b) { return a.ptr_ == b.ptr_; }
  friend bool operator==(const Ref& a, std::nullptr_t) { return a.ptr_ == nullptr; }

 private:
  T* ptr_ = nullptr;
};

// Makes a new object and adopts its first reference.
template <typename T, typename... Args>
Ref<T> MakeRef(Args&&... args) {
  return Ref<T>::Adopt(new T(std::forward<Args>(args)...));
}

}  // namespace velk2

#endif  // VELK2_FRAME_REF_H_
