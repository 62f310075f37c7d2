// IUnknown and IClassFactory, and ComPtr, the holder of a counted interface reference. Interfaces
// have no virtual destructor: objects end by Release alone.
#pragma once

#include <utility>

#include "platform/com/types.h"

inline constexpr IID IID_IUnknown{
    0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IClassFactory{
    0x00000001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

class IUnknown {
 public:
  // On success *object holds a counted reference; on failure it is null.
  virtual HRESULT QueryInterface(REFIID iid, void** object) = 0;
  virtual ULONG AddRef() = 0;
  virtual ULONG Release() = 0;

 protected:
  ~IUnknown() = default;
};

class IClassFactory : public IUnknown {
 public:
  virtual HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** object) = 0;
  virtual HRESULT LockServer(BOOL lock) = 0;

 protected:
  ~IClassFactory() = default;
};

// The IID that belongs to an interface type; each interface header adds its own.
template <typename Interface>
struct InterfaceId;

template <>
struct InterfaceId<IUnknown> {
  static constexpr const IID& value = IID_IUnknown;
};
template <>
struct InterfaceId<IClassFactory> {
  static constexpr const IID& value = IID_IClassFactory;
};

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
