// ComPtr, the holder of a counted interface reference.
#pragma once

#include <utility>

#include "platform/com/unknown.h"

// Owns one reference of T (or none). Not thread-safe itself; the object behind it may be.
template <typename T>
class ComPtr {
 public:
  ComPtr() = default;
  ComPtr(std::nullptr_t) {}
  // Takes a reference of its own.
  explicit ComPtr(T* object) : object_(object) {
    if (object_ != nullptr) {
      object_->AddRef();
    }
  }
  ComPtr(const ComPtr& other) : ComPtr(other.object_) {}
  ComPtr(ComPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ~ComPtr() { Reset(); }

  ComPtr& operator=(const ComPtr& other) {
    ComPtr(other).Swap(*this);
    return *this;
  }
  ComPtr& operator=(ComPtr&& other) noexcept {
    ComPtr(std::move(other)).Swap(*this);
    return *this;
  }

  // Adopts a reference that the caller already owns.
  static ComPtr Adopt(T* object) {
    ComPtr holder;
    holder.object_ = object;
    return holder;
  }

  T* Get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }
  friend bool operator==(const ComPtr& a, const ComPtr& b) { return a.object_ == b.object_; }

  // Passes the reference to the caller.
  [[nodiscard]] T* Detach() { return std::exchange(object_, nullptr); }
  void Reset() {
    if (T* const old = std::exchange(object_, nullptr)) {
      old->Release();
    }
  }
  void Swap(ComPtr& other) noexcept { std::swap(object_, other.object_); }

  // For out-parameters that hand out a counted reference; drops what is held first.
  T** Put() {
    Reset();
    return &object_;
  }
  void** PutVoid() { return reinterpret_cast<void**>(Put()); }

  // Asks the object for another interface; the result is null when it has none (or holds nothing).
  template <typename Interface>
  ComPtr<Interface> As() const {
    ComPtr<Interface> other;
    if (object_ != nullptr) {
      object_->QueryInterface(InterfaceId<Interface>::value, other.PutVoid());
    }
    return other;
  }

 private:
  T* object_ = nullptr;
};

template <typename Interface>
ComPtr<Interface> QueryFor(IUnknown* object) {
  return ComPtr<IUnknown>(object).As<Interface>();
}

// COM identity: two interface pointers belong to one object when their IUnknown interfaces are the
// same.
inline bool IsSameObject(IUnknown* a, IUnknown* b) {
  return a == b || (a != nullptr && b != nullptr && QueryFor<IUnknown>(a) == QueryFor<IUnknown>(b));
}
