// Small owners for the operating-system resources the library acquires.
// Every handle, key, device-information set, module, BSTR, VARIANT, SAFEARRAY
// lock and COM pointer goes through one of these, so that each is released on
// every path out of the function that acquired it.
#pragma once

#include <windows.h>
#include <oleauto.h>
#include <setupapi.h>
#include <wlanapi.h>

#include <memory>
#include <string>
#include <string_view>
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

// Traits from a release function: null is empty, and so is
// INVALID_HANDLE_VALUE, which file opens and device sets report on failure
// (the value those two owners start from); an empty value is never released.
template <typename T, void (*Free)(T), bool kStartsInvalid = false>
struct Releasing {
    static T Empty() { return kStartsInvalid ? reinterpret_cast<T>(INVALID_HANDLE_VALUE) : nullptr; }
    static bool Valid(T value) { return value != nullptr && value != reinterpret_cast<T>(INVALID_HANDLE_VALUE); }
    static void Release(T value) { Free(value); }
};

inline void CloseKernelObject(HANDLE handle) { ::CloseHandle(handle); }
inline void CloseKey(HKEY key) { ::RegCloseKey(key); }
inline void DestroyDeviceSet(HDEVINFO set) { ::SetupDiDestroyDeviceInfoList(set); }
inline void UnloadLibrary(HMODULE module) { ::FreeLibrary(module); }
template <typename T>
void FreeLocal(T* memory) { ::LocalFree(memory); }
inline void CloseWlanClient(HANDLE client) { ::WlanCloseHandle(client, nullptr); }
inline void FreeWlanMemory(void* memory) { ::WlanFreeMemory(memory); }
inline void FreeBstr(BSTR text) { ::SysFreeString(text); }
inline void DestroySafeArray(SAFEARRAY* array) { ::SafeArrayDestroy(array); }

using KernelHandle = UniqueResource<HANDLE, Releasing<HANDLE, CloseKernelObject>>;  // mutexes, events, ...
using FileHandle = UniqueResource<HANDLE, Releasing<HANDLE, CloseKernelObject, true>>;  // files and devices
using RegKey = UniqueResource<HKEY, Releasing<HKEY, CloseKey>>;
using DevInfoSet = UniqueResource<HDEVINFO, Releasing<HDEVINFO, DestroyDeviceSet, true>>;
using Library = UniqueResource<HMODULE, Releasing<HMODULE, UnloadLibrary>>;
// Memory the caller releases with LocalFree: a LocalAlloc block, the power scheme PowerGetActiveScheme allocates.
template <typename T>
using LocalPointer = UniqueResource<T*, Releasing<T*, FreeLocal<T>>>;
using LocalMemory = LocalPointer<void>;
using WlanClient = UniqueResource<HANDLE, Releasing<HANDLE, CloseWlanClient>>;  // Native Wifi
using WlanMemory = UniqueResource<void*, Releasing<void*, FreeWlanMemory>>;
using Bstr = UniqueResource<BSTR, Releasing<BSTR, FreeBstr>>;
using SafeArray = UniqueResource<SAFEARRAY*, Releasing<SAFEARRAY*, DestroySafeArray>>;

inline Bstr MakeBstr(const wchar_t* text) { return Bstr(::SysAllocString(text)); }
// From a view: the text up to its first NUL, as from a string's c_str().
inline Bstr MakeBstr(std::wstring_view text) { return MakeBstr(std::wstring(text).c_str()); }

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


// COM on this thread, multithreaded, for one scope: S_OK and S_FALSE owe a
// CoUninitialize; RPC_E_CHANGED_MODE (the thread runs the other model) is
// usable and owes none; any other failure is not usable; an unexpected
// success code owes its CoUninitialize but is not usable.
class ApartmentScope {
public:
    ApartmentScope() noexcept {
        const HRESULT hr = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        usable_ = hr == S_OK || hr == S_FALSE || hr == RPC_E_CHANGED_MODE;
        owed_ = SUCCEEDED(hr);
    }
    ~ApartmentScope() {
        if (owed_) ::CoUninitialize();
    }
    ApartmentScope(const ApartmentScope&) = delete;
    ApartmentScope& operator=(const ApartmentScope&) = delete;
    bool usable() const noexcept { return usable_; }
    // Hands the CoUninitialize owed to the caller; true when one was owed.
    bool release() noexcept { return std::exchange(owed_, false); }

private:
    bool usable_ = false;
    bool owed_ = false;
};

// A block from the record heap (codec.h) that the library frees itself: the
// adapter list display colour builds from, blocks a vendor library allocated
// through the allocator the library gave it.
struct RecordFree {
    void operator()(void* record) const;
};
using RecordBlock = std::unique_ptr<void, RecordFree>;

}  // namespace torvex
