// The component model: the basic types of the platform's interfaces at their documented widths,
// GUIDs, result codes of COM with the tests on them, the task allocator; IUnknown and
// IClassFactory, and ComPtr, the holder of a counted interface reference; ASCII names as wide text
// and back. DirectShow's own codes: platform/dshow/vfw_errors.h.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using DWORD_PTR = std::uintptr_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using UINT = std::uint32_t;
using BOOL = std::int32_t;
using LONGLONG = std::int64_t;
using LONG_PTR = std::intptr_t;
// The platform's wide character is a UTF-16 code unit.
using WCHAR = char16_t;
using LPCWSTR = const WCHAR*;
using LPWSTR = WCHAR*;
using HRESULT = std::int32_t;

inline constexpr BOOL TRUE = 1;
inline constexpr BOOL FALSE = 0;

struct RECT {
  LONG left;
  LONG top;
  LONG right;
  LONG bottom;
};

constexpr HRESULT MakeHresult(std::uint32_t code) {
  return static_cast<HRESULT>(code);
}

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOTIMPL = MakeHresult(0x80004001);
inline constexpr HRESULT E_NOINTERFACE = MakeHresult(0x80004002);
inline constexpr HRESULT E_POINTER = MakeHresult(0x80004003);
inline constexpr HRESULT E_ABORT = MakeHresult(0x80004004);
inline constexpr HRESULT E_FAIL = MakeHresult(0x80004005);
inline constexpr HRESULT E_UNEXPECTED = MakeHresult(0x8000FFFF);
inline constexpr HRESULT E_ACCESSDENIED = MakeHresult(0x80070005);
inline constexpr HRESULT E_OUTOFMEMORY = MakeHresult(0x8007000E);
inline constexpr HRESULT E_INVALIDARG = MakeHresult(0x80070057);
inline constexpr HRESULT CLASS_E_NOAGGREGATION = MakeHresult(0x80040110);
inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = MakeHresult(0x80040111);
inline constexpr HRESULT REGDB_E_CLASSNOTREG = MakeHresult(0x80040154);

constexpr bool SUCCEEDED(HRESULT hr) {
  return hr >= 0;
}
constexpr bool FAILED(HRESULT hr) {
  return hr < 0;
}

// The HRESULT (facility Win32) of one of the system's error numbers; 0 gives S_OK.
constexpr HRESULT HRESULT_FROM_WIN32(DWORD error) {
  return error == 0 ? S_OK : MakeHresult((error & 0xFFFF) | 0x80070000);
}

struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];

  friend bool operator==(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) == 0;
  }
  // Orders GUIDs for containers; the order has no meaning of its own.
  friend bool operator<(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) < 0;
  }
};
static_assert(sizeof(GUID) == 16);

using IID = GUID;
using CLSID = GUID;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

inline constexpr GUID GUID_NULL{0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
inline constexpr CLSID CLSID_NULL = GUID_NULL;

// "{AEC64A13-679E-41A5-830B-9CC2914A9269}": braces, upper-case digits.
std::string GuidToString(const GUID& guid);
// Reads the form above (digits of either case); false when the text is anything else.
bool GuidFromString(std::string_view text, GUID* guid);

// Null when the memory is exhausted. A size of 0 gives a block, too.
inline void* CoTaskMemAlloc(std::size_t bytes) {
  return std::malloc(bytes == 0 ? 1 : bytes);
}
// Null is allowed and ignored.
inline void CoTaskMemFree(void* memory) {
  std::free(memory);
}

struct TaskMemoryDeleter {
  void operator()(void* memory) const { CoTaskMemFree(memory); }
};
// Owns memory of the task allocator.
template <typename T>
using TaskMemory = std::unique_ptr<T, TaskMemoryDeleter>;

inline constexpr IID IID_IUnknown{
    0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IClassFactory{
    0x00000001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

// Interfaces have no virtual destructor: only Release deletes an object.
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
  }  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the last release deletes the object
  void Swap(ComPtr& other) noexcept { std::swap(object_, other.object_); }

  // For out-parameters that receive a counted reference; releases the present one first.
  T** Put() {
    Reset();
    return &object_;
  }
  void** PutVoid() { return reinterpret_cast<void**>(Put()); }

  // Queries another interface; null when the object has none, or there is no object.
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

// ASCII text: each character becomes one UTF-16 unit.
inline std::u16string WidenAscii(std::string_view text) {
  return std::u16string(text.begin(), text.end());
}

// For names in messages: units beyond ASCII become "?".
inline std::string NarrowToAscii(std::u16string_view text) {
  std::string narrow;
  narrow.reserve(text.size());
  for (const char16_t unit : text) {
    narrow.push_back(unit < 0x80 ? static_cast<char>(unit) : '?');
  }
  return narrow;
}
