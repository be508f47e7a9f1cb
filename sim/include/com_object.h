// IUnknown for the simulation's COM objects, and WMI interfaces whose
// methods the library never calls answer "not supported" in one place.
#pragma once

#include <windows.h>
#include <objbase.h>
#include <wbemidl.h>

#include <atomic>

namespace torvex::sim::detail {

std::atomic<long>& LiveComObjects();

// Objects start with one reference, owned by whoever created them; each
// counts itself among the live objects while it exists.
template <typename First, typename... Rest>
class ComObject : public First, public Rest... {
public:
    ComObject() { ++LiveComObjects(); }
    virtual ~ComObject() { --LiveComObjects(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        if (out == nullptr) return E_POINTER;
        *out = nullptr;
        if (IsEqualIID(iid, __uuidof(IUnknown))) *out = static_cast<First*>(this);
        else Find<First, Rest...>(iid, out);
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

private:
    template <typename I, typename... More>
    void Find(REFIID iid, void** out) {
        if (IsEqualIID(iid, __uuidof(I))) {
            *out = static_cast<I*>(this);
            return;
        }
        if constexpr (sizeof...(More) > 0) Find<More...>(iid, out);
    }

    std::atomic<long> refs_{1};
};

// A class object of which the library uses Get, Put, GetMethod and SpawnInstance.
class ClassObjectBase : public ComObject<IWbemClassObject> {
public:
    HRESULT STDMETHODCALLTYPE Get(LPCWSTR, LONG, VARIANT*, CIMTYPE*, LONG*) override { return WBEM_E_NOT_FOUND; }
    HRESULT STDMETHODCALLTYPE Put(LPCWSTR, LONG, VARIANT*, CIMTYPE) override { return WBEM_E_NOT_FOUND; }
    HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR, LONG, IWbemClassObject**, IWbemClassObject**) override {
        return WBEM_E_NOT_FOUND;
    }
    HRESULT STDMETHODCALLTYPE SpawnInstance(LONG, IWbemClassObject**) override { return WBEM_E_INVALID_OPERATION; }

    HRESULT STDMETHODCALLTYPE GetQualifierSet(IWbemQualifierSet**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetNames(LPCWSTR, LONG, VARIANT*, SAFEARRAY**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE Next(LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE EndEnumeration() override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE Clone(IWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetObjectText(LONG, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE SpawnDerivedClass(LONG, IWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE CompareTo(LONG, IWbemClassObject*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetPropertyOrigin(LPCWSTR, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE InheritsFrom(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE PutMethod(LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteMethod(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(LONG) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE NextMethod(LONG, BSTR*, IWbemClassObject**, IWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE EndMethodEnumeration() override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE GetMethodOrigin(LPCWSTR, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }
};

// Services of which the library uses ExecQuery, GetObject and ExecMethod;
// CoSetProxyBlanket reaches SetBlanket through IClientSecurity.
class ServicesBase : public ComObject<IWbemServices, IClientSecurity> {
public:
    HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown*, DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*, void**,
                                           DWORD*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown*, IUnknown**) override { return E_NOTIMPL; }

    HRESULT STDMETHODCALLTYPE OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**,
                                            IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE QueryObjectSink(LONG, IWbemObjectSink**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*,
                                                    IEnumWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                                         IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                              IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
};

}  // namespace torvex::sim::detail
