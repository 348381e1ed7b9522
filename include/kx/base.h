// Reference counting for every object of the library.
//
// Objects derive from kx::CBase and are held by the intrusive kx::P<T>.
// Interfaces derive from kx::IBase as a *virtual* base, so one object that
// implements several interfaces still has exactly one reference count.
//
// Reference-count rule: a new object starts with a count of one. That first
// reference belongs to whoever called `new`, and must be handed to exactly one
// kx::P with kx::P<T>::adopt (or created in one step with kx::create<T>()).
// Every further kx::P to an object that somebody already holds is made with
// kx::P<T>::share, which adds a reference. kx::P has no constructor from a raw
// pointer, so the two cases can't be mixed up by accident.
#pragma once

#include <atomic>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace kx {

class IBase {
 public:
  // Adds one reference. Thread-safe.
  virtual void addRef() const = 0;
  // Drops one reference; the object is destroyed when the last one goes.
  virtual void release() const = 0;
  // Raises an internal kx::CError when the object can't be handed out as a
  // new reference any more (its count already reached zero).
  virtual void checkCastAllowed() const = 0;

 protected:
  virtual ~IBase() = default;
};

class CBase : public virtual IBase {
 public:
  CBase() = default;
  // Copies of a value-like object are new objects: they start with their own
  // single reference and never share the source's count.
  CBase(const CBase&) : IBase() {}
  CBase& operator=(const CBase&) { return *this; }

  void addRef() const override { refCount_.fetch_add(1, std::memory_order_relaxed); }
  void release() const override {
    if (refCount_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  void checkCastAllowed() const override;

  // For tests and diagnostics only.
  int32_t getRefCount() const { return refCount_.load(std::memory_order_relaxed); }

 protected:
  ~CBase() override = default;

 private:
  mutable std::atomic<int32_t> refCount_{1};
};

template <class T>
class P {
 public:
  using element_type = T;

  P() noexcept = default;
  P(std::nullptr_t) noexcept {}
  P(const P& other) noexcept : ptr_(other.ptr_) {
    if (ptr_) ptr_->addRef();
  }
  P(P&& other) noexcept : ptr_(other.ptr_) { other.ptr_ = nullptr; }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  P(const P<U>& other) noexcept : ptr_(other.get()) {
    if (ptr_) ptr_->addRef();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  P(P<U>&& other) noexcept : ptr_(other.detach()) {}
  ~P() {
    if (ptr_) ptr_->release();
  }

  // Takes over the reference that `new` gave the object. Use once per object.
  static P adopt(T* ptr) noexcept {
    P p;
    p.ptr_ = ptr;
    return p;
  }
  // Adds a reference to an object that somebody already holds.
  static P share(T* ptr) noexcept {
    P p;
    p.ptr_ = ptr;
    if (ptr) ptr->addRef();
    return p;
  }

  P& operator=(const P& other) noexcept {
    P(other).swap(*this);
    return *this;
  }
  P& operator=(P&& other) noexcept {
    P(std::move(other)).swap(*this);
    return *this;
  }
  P& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  void reset() noexcept {
    T* old = ptr_;
    ptr_ = nullptr;
    if (old) old->release();
  }
  // Gives up the reference without releasing it; the caller owns it then.
  T* detach() noexcept {
    T* p = ptr_;
    ptr_ = nullptr;
    return p;
  }
  void swap(P& other) noexcept { std::swap(ptr_, other.ptr_); }

  T* get() const noexcept { return ptr_; }
  T* operator->() const noexcept { return ptr_; }
  T& operator*() const noexcept { return *ptr_; }
  explicit operator bool() const noexcept { return ptr_ != nullptr; }

 private:
  T* ptr_ = nullptr;
};

template <class T, class U>
bool operator==(const P<T>& a, const P<U>& b) noexcept { return a.get() == b.get(); }
template <class T, class U>
bool operator!=(const P<T>& a, const P<U>& b) noexcept { return a.get() != b.get(); }
template <class T>
bool operator==(const P<T>& a, std::nullptr_t) noexcept { return !a; }
template <class T>
bool operator!=(const P<T>& a, std::nullptr_t) noexcept { return static_cast<bool>(a); }

// Makes a new object and adopts its first reference.
template <class T, class... Args>
P<T> create(Args&&... args) {
  return P<T>::adopt(new T(std::forward<Args>(args)...));
}

// A checked cross cast between interfaces of one object; null when the object
// doesn't implement T.
template <class T, class U>
P<T> dynamicCast(const P<U>& from) {
  if (!from) return P<T>();
  T* to = dynamic_cast<T*>(from.get());
  if (to) to->checkCastAllowed();
  return P<T>::share(to);
}

}  // namespace kx
