// Growable byte buffers.
//
// kx::TBuffer<T> holds `used` elements in an allocation of at least that many.
// Memory is zero-filled when it is allocated; elements that become used again
// after a shrink keep whatever they held. Growing keeps the content.
// kx::TCryptBuffer<T> is the same but overwrites its memory before it frees or
// moves it: every key lives in one. The wipe follows the content: a plain
// TBuffer that is copied or moved from a wiping buffer, or that a wiping
// buffer is moved into, wipes from then on, so key bytes never reach freed
// memory through a TBuffer& either (std::swap included).
//
// Handing a buffer to a stream: a kx::TConstBufferSlice keeps its buffer alive
// through a kx::P, which only works for a buffer made on the heap and held
// through kx::P (kx::create). A member or stack buffer can only be given out
// as kx::P<...>::share(&buffer): its count never reaches zero, so a slice of
// it keeps nothing alive, and its owner will change or reuse it. Such a buffer
// may go only to calls that are done with its bytes when they return
// (kx::IOutStream::write), never to a call that may keep it
// (kx::IOutStream::writeKeepBuffer). A heap buffer may be kept; its bytes must
// then stay as they are until the stream is done with them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "kx/base.h"

namespace kx {

// Overwrites memory in a way the compiler may not elide.
void secureWipe(void* data, size_t size) noexcept;

template <class T>
class TBuffer : public CBase {
  static_assert(std::is_trivially_copyable_v<T>, "TBuffer holds plain data only");

 public:
  TBuffer() = default;
  // `allocated` -1 means as many as `used`.
  explicit TBuffer(size_t used, std::ptrdiff_t allocated = -1) {
    ensureAllocated(std::max(used, allocated < 0 ? used : static_cast<size_t>(allocated)));
    used_ = used;
  }
  TBuffer(const TBuffer& other) : CBase(), wipe_(other.wipe_) { assign(other.data_, other.used_); }
  TBuffer(TBuffer&& other) noexcept
      : CBase(), data_(other.data_), used_(other.used_), allocated_(other.allocated_),
        wipe_(other.wipe_) {
    other.data_ = nullptr;
    other.used_ = other.allocated_ = 0;
  }
  TBuffer& operator=(const TBuffer& other) {
    if (this != &other) {
      wipe_ = wipe_ || other.wipe_;
      assign(other.data_, other.used_);
    }
    return *this;
  }
  TBuffer& operator=(TBuffer&& other) noexcept {
    if (this != &other) {
      wipe_ = wipe_ || other.wipe_;
      freeMemory();
      data_ = other.data_;
      used_ = other.used_;
      allocated_ = other.allocated_;
      other.data_ = nullptr;
      other.used_ = other.allocated_ = 0;
    }
    return *this;
  }
  ~TBuffer() override { freeMemory(); }

  T* getData() noexcept { return data_; }
  const T* getData() const noexcept { return data_; }
  size_t getUsed() const noexcept { return used_; }
  size_t getAllocated() const noexcept { return allocated_; }
  bool isEmpty() const noexcept { return used_ == 0; }

  // Grows the allocation to at least `count` elements, keeping the content.
  void ensureAllocated(size_t count) {
    if (count <= allocated_) return;
    T* fresh = static_cast<T*>(std::calloc(count, sizeof(T)));
    if (!fresh) throw std::bad_alloc();
    if (used_) std::memcpy(fresh, data_, used_ * sizeof(T));
    freeMemory();
    data_ = fresh;
    allocated_ = count;
  }
  // Sets the used size; content up to the smaller of old and new size stays.
  void setUsed(size_t count) {
    ensureAllocated(count);
    used_ = count;
  }
  void assign(const T* data, size_t count) {
    if (count > allocated_) {
      used_ = 0;  // nothing to keep
      ensureAllocated(count);
    }
    if (count) std::memmove(data_, data, count * sizeof(T));
    used_ = count;
  }
  // Appends, growing the allocation geometrically.
  void append(const T* data, size_t count) {
    const size_t need = used_ + count;
    if (need > allocated_) ensureAllocated(std::max(need, allocated_ + allocated_ / 2));
    if (count) std::memcpy(data_ + used_, data, count * sizeof(T));
    used_ = need;
  }
  void fill(const T& value) { std::fill(data_, data_ + used_, value); }

  bool operator==(const TBuffer& other) const {
    return used_ == other.used_ && (used_ == 0 || std::memcmp(data_, other.data_, used_ * sizeof(T)) == 0);
  }
  bool operator!=(const TBuffer& other) const { return !(*this == other); }

 protected:
  struct WipeTag {};
  explicit TBuffer(WipeTag) : wipe_(true) {}

 private:
  void freeMemory() noexcept {
    if (!data_) return;
    if (wipe_) secureWipe(data_, allocated_ * sizeof(T));
    std::free(data_);
    data_ = nullptr;
    allocated_ = 0;
  }

  T* data_ = nullptr;
  size_t used_ = 0;
  size_t allocated_ = 0;
  bool wipe_ = false;
};

// A buffer for key material: its memory is wiped whenever it is released or
// moved to a larger allocation.
template <class T>
class TCryptBuffer : public TBuffer<T> {
 public:
  TCryptBuffer() : TBuffer<T>(typename TBuffer<T>::WipeTag{}) {}
  explicit TCryptBuffer(size_t used) : TCryptBuffer() { this->setUsed(used); }
  TCryptBuffer(const TCryptBuffer& other) : TCryptBuffer() { this->assign(other.getData(), other.getUsed()); }
  TCryptBuffer& operator=(const TCryptBuffer& other) {
    if (this != &other) this->assign(other.getData(), other.getUsed());
    return *this;
  }
  // Moving would hand plain memory to a wiping owner or the reverse; copy and
  // let the source wipe its own.
  TCryptBuffer(TCryptBuffer&& other) : TCryptBuffer(static_cast<const TCryptBuffer&>(other)) {}
  TCryptBuffer& operator=(TCryptBuffer&& other) { return *this = static_cast<const TCryptBuffer&>(other); }
};

// A read-only view of part of a buffer that keeps the buffer alive.
template <class T>
class TConstBufferSlice {
 public:
  TConstBufferSlice() = default;
  TConstBufferSlice(const P<const TBuffer<T>>& buffer, size_t offset, size_t length)
      : buffer_(buffer), offset_(offset), length_(length) {}
  TConstBufferSlice(const P<TBuffer<T>>& buffer, size_t offset, size_t length)
      : buffer_(buffer), offset_(offset), length_(length) {}

  const T* getData() const { return buffer_ ? buffer_->getData() + offset_ : nullptr; }
  size_t getLength() const { return length_; }
  size_t getOffset() const { return offset_; }
  const P<const TBuffer<T>>& getBuffer() const { return buffer_; }

 private:
  P<const TBuffer<T>> buffer_;
  size_t offset_ = 0;
  size_t length_ = 0;
};

}  // namespace kx
