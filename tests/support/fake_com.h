// Building blocks for fake COM objects and for registering fake COM classes
// in the test process, so that the library's CoCreateInstance gets them.
#pragma once

#include <windows.h>
#include <objbase.h>
#include <unknwn.h>

#include <atomic>
#include <functional>
#include <utility>

namespace torvex::test {

// Number of fake COM objects alive in the process: a call that returns while
// it is higher than before has leaked a reference.
std::atomic<long>& LiveComObjects();

// IUnknown for a fake implementing the given interfaces. Objects start with
// one reference, owned by whoever created them.
template <typename First, typename... Rest>
class ComObject : public First, public Rest... {
public:
    ComObject() { ++LiveComObjects(); }
    virtual ~ComObject() { --LiveComObjects(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        if (out == nullptr) return E_POINTER;
        *out = nullptr;
        if (iid == __uuidof(IUnknown)) {
            *out = static_cast<First*>(this);
        } else {
            Find<First, Rest...>(iid, out);
        }
        if (*out == nullptr) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++refs_); }
    ULONG STDMETHODCALLTYPE Release() override {
        const long left = --refs_;
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }
    long References() const { return refs_; }

private:
    template <typename I, typename... More>
    void Find(REFIID iid, void** out) {
        if (iid == __uuidof(I)) {
            *out = static_cast<I*>(this);
            return;
        }
        if constexpr (sizeof...(More) > 0) Find<More...>(iid, out);
    }

    std::atomic<long> refs_{1};
};

// Class factory whose CreateInstance calls a function.
class FunctionClassFactory : public ComObject<IClassFactory> {
public:
    using Create = std::function<HRESULT(REFIID, void**)>;
    explicit FunctionClassFactory(Create create) : create_(std::move(create)) {}
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override {
        if (outer != nullptr) return CLASS_E_NOAGGREGATION;
        return create_(iid, out);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    Create create_;
};

// Registers a class object for a CLSID for the lifetime of the object
// (CoRegisterClassObject, in-process, multiple use).
class ComClassRegistration {
public:
    ComClassRegistration(REFCLSID clsid, FunctionClassFactory::Create create);
    ~ComClassRegistration();
    ComClassRegistration(const ComClassRegistration&) = delete;
    ComClassRegistration& operator=(const ComClassRegistration&) = delete;
    bool registered() const { return cookie_ != 0; }

private:
    DWORD cookie_ = 0;
};

}  // namespace torvex::test
