// Small owners for the operating-system resources the library acquires.
// Every handle, key, device-information set, module, BSTR, VARIANT, SAFEARRAY
// lock and COM pointer goes through one of these, so that each is released on
// every path out of the function that acquired it.
#pragma once

#include <windows.h>
#include <oleauto.h>
#include <setupapi.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include "torvex/com_ptr.h"  // ComPtr, shared with the simulation layer and the tool

namespace torvex {

// Generic owner: Traits gives the empty value, the validity test and the release.
template <typename T, typename Traits>
class UniqueResource {
public:
    UniqueResource() noexcept : value_(Traits::Empty()) {}
    explicit UniqueResource(T value) noexcept : value_(value) {}
    ~UniqueResource() { reset(); }

    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    UniqueResource(UniqueResource&& other) noexcept : value_(other.release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    T get() const noexcept { return value_; }
    explicit operator bool() const noexcept { return Traits::Valid(value_); }

    // Address for an out-parameter; releases what is held first.
    T* put() noexcept {
        reset();
        return &value_;
    }

    T release() noexcept { return std::exchange(value_, Traits::Empty()); }

    void reset(T value = Traits::Empty()) noexcept {
        T old = std::exchange(value_, value);
        if (Traits::Valid(old)) Traits::Release(old);
    }

private:
    T value_;
};

// Kernel object handle whose failure value is null (mutexes, events, ...).
struct KernelHandleTraits {
    static HANDLE Empty() { return nullptr; }
    static bool Valid(HANDLE h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Release(HANDLE h) { ::CloseHandle(h); }
};
using KernelHandle = UniqueResource<HANDLE, KernelHandleTraits>;

// File or device handle whose failure value is INVALID_HANDLE_VALUE.
struct FileHandleTraits {
    static HANDLE Empty() { return INVALID_HANDLE_VALUE; }
    static bool Valid(HANDLE h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Release(HANDLE h) { ::CloseHandle(h); }
};
using FileHandle = UniqueResource<HANDLE, FileHandleTraits>;

struct RegKeyTraits {
    static HKEY Empty() { return nullptr; }
    static bool Valid(HKEY k) { return k != nullptr; }
    static void Release(HKEY k) { ::RegCloseKey(k); }
};
using RegKey = UniqueResource<HKEY, RegKeyTraits>;

struct DevInfoSetTraits {
    static HDEVINFO Empty() { return INVALID_HANDLE_VALUE; }
    static bool Valid(HDEVINFO h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Release(HDEVINFO h) { ::SetupDiDestroyDeviceInfoList(h); }
};
using DevInfoSet = UniqueResource<HDEVINFO, DevInfoSetTraits>;

struct LibraryTraits {
    static HMODULE Empty() { return nullptr; }
    static bool Valid(HMODULE m) { return m != nullptr; }
    static void Release(HMODULE m) { ::FreeLibrary(m); }
};
using Library = UniqueResource<HMODULE, LibraryTraits>;

struct LocalMemoryTraits {
    static HLOCAL Empty() { return nullptr; }
    static bool Valid(HLOCAL p) { return p != nullptr; }
    static void Release(HLOCAL p) { ::LocalFree(p); }
};
using LocalMemory = UniqueResource<HLOCAL, LocalMemoryTraits>;

struct BstrTraits {
    static BSTR Empty() { return nullptr; }
    static bool Valid(BSTR b) { return b != nullptr; }
    static void Release(BSTR b) { ::SysFreeString(b); }
};
using Bstr = UniqueResource<BSTR, BstrTraits>;

inline Bstr MakeBstr(const wchar_t* text) { return Bstr(::SysAllocString(text)); }

// VARIANT that is cleared when it goes out of scope.
class Variant {
public:
    // Zeroed as a whole, so that reading a field wider than the value's own
    // type sees zeros rather than stale bytes.
    Variant() noexcept {
        ZeroMemory(&value_, sizeof(value_));
        ::VariantInit(&value_);
    }
    ~Variant() { ::VariantClear(&value_); }
    Variant(const Variant&) = delete;
    Variant& operator=(const Variant&) = delete;

    VARIANT* get() noexcept { return &value_; }
    const VARIANT* get() const noexcept { return &value_; }
    VARIANT* operator->() noexcept { return &value_; }
    void clear() noexcept { ::VariantClear(&value_); }

private:
    VARIANT value_;
};

// Access to a SAFEARRAY's data, unaccessed when it goes out of scope.
class SafeArrayData {
public:
    explicit SafeArrayData(SAFEARRAY* array) noexcept : array_(array) {
        if (array_ == nullptr || FAILED(::SafeArrayAccessData(array_, &data_))) {
            array_ = nullptr;
            data_ = nullptr;
        }
    }
    ~SafeArrayData() {
        if (array_ != nullptr) ::SafeArrayUnaccessData(array_);
    }
    SafeArrayData(const SafeArrayData&) = delete;
    SafeArrayData& operator=(const SafeArrayData&) = delete;

    bool locked() const noexcept { return array_ != nullptr; }
    void* data() const noexcept { return data_; }

private:
    SAFEARRAY* array_;
    void* data_ = nullptr;
};

struct SafeArrayTraits {
    static SAFEARRAY* Empty() { return nullptr; }
    static bool Valid(SAFEARRAY* a) { return a != nullptr; }
    static void Release(SAFEARRAY* a) { ::SafeArrayDestroy(a); }
};
using SafeArray = UniqueResource<SAFEARRAY*, SafeArrayTraits>;

// Memory from malloc: records the library hands out, and blocks a vendor
// library allocates through the allocator the library gave it.
struct MallocFree {
    void operator()(void* p) const { std::free(p); }
};
using MallocBlock = std::unique_ptr<void, MallocFree>;

}  // namespace torvex
