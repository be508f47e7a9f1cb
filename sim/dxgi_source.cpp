// DXGI: whether dxgi.dll loads, whether a factory can be made, and the
// description of each adapter the factory enumerates.
//
//   "dxgi": {"library": true, "adapters": [{"description": "NVIDIA GeForce RTX 3050 Laptop GPU", "vendor_id": 4318,
//            "device_id": 9635, "dedicated_video_memory_bytes": 4294967296, ...}]}
//   "dxgi": {"library": true, "factory_error": "0x887A0004"}
#include <windows.h>
#include <dxgi.h>

#include <cstring>

#include "com_object.h"
#include "source.h"

namespace torvex::sim::detail {
namespace {

using CreateFactoryFn = HRESULT(WINAPI*)(REFIID, void**);
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x887A0002);  // DXGI_ERROR_NOT_FOUND
char g_standIn;                                                   // its address is the replay's dxgi module
HMODULE g_liveModule = nullptr;
CreateFactoryFn g_realCreate1 = nullptr, g_realCreate = nullptr;

const char* const kNumbers[] = {"vendor_id", "device_id", "subsys_id", "revision", "dedicated_video_memory_bytes",
                                "dedicated_system_memory_bytes", "shared_system_memory_bytes"};

HMODULE StandIn() { return reinterpret_cast<HMODULE>(&g_standIn); }

void Validate(const Json& dxgi, const At& at) {
    ExpectObject(dxgi, at);
    ExpectOnly(dxgi, at, {"library", "factory_error", "adapters"});
    if (dxgi.contains("library")) ExpectBool(dxgi["library"], at / "library");
    if (dxgi.contains("factory_error")) ExpectHresult(dxgi["factory_error"], at / "factory_error");
    if (!dxgi.contains("adapters")) return;
    ExpectArray(dxgi["adapters"], at / "adapters");
    for (size_t i = 0; i < dxgi["adapters"].size(); ++i) {
        const Json& adapter = dxgi["adapters"][i];
        const At a = at / "adapters" / i;
        ExpectObject(adapter, a);
        for (const auto& [key, value] : adapter.items()) {
            if (key == "description") {
                ExpectString(value, a / key);
                if (Wide(value.get<std::string>()).size() >= 128) Expected(a / key, "a text shorter than 128 characters");
            } else if (key == "error") {
                ExpectHresult(value, a / key);
            } else if (key == "luid") {
                ExpectHex(value, a / key, 8);
            } else {
                bool known = false;
                for (const char* name : kNumbers) known = known || key == name;
                if (!known) Expected(a / key, "no such member of an adapter description");
                ExpectUnsigned(value, a / key, key.find("bytes") != std::string::npos ? UINT64_MAX : 0xFFFFFFFFu);
            }
        }
    }
}

Json EncodeDesc(const DXGI_ADAPTER_DESC& d) {
    return Json{{"description", Utf8(std::wstring(d.Description, wcsnlen(d.Description, 128)))},
                {kNumbers[0], d.VendorId}, {kNumbers[1], d.DeviceId}, {kNumbers[2], d.SubSysId}, {kNumbers[3], d.Revision},
                {kNumbers[4], d.DedicatedVideoMemory}, {kNumbers[5], d.DedicatedSystemMemory},
                {kNumbers[6], d.SharedSystemMemory}, {"luid", Hex(&d.AdapterLuid, sizeof(d.AdapterLuid))}};
}

void DecodeDesc(const Json& j, DXGI_ADAPTER_DESC& d) {
    d = DXGI_ADAPTER_DESC{};
    const std::wstring text = Wide(j.value("description", ""));
    std::memcpy(d.Description, text.c_str(), std::min<size_t>(text.size(), 127) * sizeof(wchar_t));
    d.VendorId = j.value(kNumbers[0], 0u);
    d.DeviceId = j.value(kNumbers[1], 0u);
    d.SubSysId = j.value(kNumbers[2], 0u);
    d.Revision = j.value(kNumbers[3], 0u);
    d.DedicatedVideoMemory = j.value(kNumbers[4], 0ull);
    d.DedicatedSystemMemory = j.value(kNumbers[5], 0ull);
    d.SharedSystemMemory = j.value(kNumbers[6], 0ull);
    std::vector<uint8_t> luid;
    if (ParseHex(j.value("luid", ""), luid) && luid.size() == sizeof(d.AdapterLuid))
        std::memcpy(&d.AdapterLuid, luid.data(), luid.size());
}

class SimAdapter : public ComObject<IDXGIAdapter> {
public:
    SimAdapter(UINT index, IDXGIAdapter* real) : index_(index), real_(real) {}
    HRESULT STDMETHODCALLTYPE GetDesc(DXGI_ADAPTER_DESC* desc) override {
        if (desc == nullptr) return E_INVALIDARG;
        Lock lock(Active().mutex);
        const std::string call = "adapter " + std::to_string(index_);
        Json answer;
        if (real_ != nullptr) {
            DXGI_ADAPTER_DESC live{};
            const HRESULT hr = real_->GetDesc(&live);
            answer = SUCCEEDED(hr) ? EncodeDesc(live) : Json{{"error", HresultText(hr)}};
            if (Json* adapters = KeepNode({"dxgi", "adapters"})) {
                if (!adapters->is_array()) *adapters = Json::array();
                while (adapters->size() <= index_) adapters->push_back(Json::object());
                (*adapters)[index_] = answer;
            }
        } else {
            const Json* adapters = Replayed({"dxgi", "adapters"});
            if (adapters == nullptr || index_ >= adapters->size()) return DXGI_ERROR_INVALID_CALL;
            answer = (*adapters)[index_];
        }
        if (answer.contains("error")) {
            Note("dxgi", call, "error " + answer["error"].get<std::string>(), true);
            return ParseHresult(answer["error"].get<std::string>());
        }
        DecodeDesc(answer, *desc);
        Note("dxgi", call, answer.value("description", ""), false);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE EnumOutputs(UINT, IDXGIOutput**) override { return kNotFound; }
    HRESULT STDMETHODCALLTYPE CheckInterfaceSupport(REFGUID, LARGE_INTEGER*) override { return DXGI_ERROR_UNSUPPORTED; }
    HRESULT STDMETHODCALLTYPE SetPrivateData(REFGUID, UINT, const void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetPrivateDataInterface(REFGUID, const IUnknown*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPrivateData(REFGUID, UINT*, void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetParent(REFIID, void**) override { return E_NOTIMPL; }

private:
    UINT index_;
    ComPtr<IDXGIAdapter> real_;
};

class SimFactory : public ComObject<IDXGIFactory> {
public:
    explicit SimFactory(IDXGIFactory* real) : real_(real) {}
    HRESULT STDMETHODCALLTYPE EnumAdapters(UINT index, IDXGIAdapter** adapter) override {
        if (adapter == nullptr) return E_INVALIDARG;
        *adapter = nullptr;
        Lock lock(Active().mutex);
        IDXGIAdapter* live = nullptr;
        if (real_ != nullptr) {
            const HRESULT hr = real_->EnumAdapters(index, &live);
            if (FAILED(hr) || live == nullptr) {
                if (Json* adapters = KeepNode({"dxgi", "adapters"})) {
                    if (!adapters->is_array()) *adapters = Json::array();
                    if (adapters->size() > index) adapters->erase(adapters->begin() + index, adapters->end());
                }
                return FAILED(hr) ? hr : kNotFound;
            }
        } else {
            const Json* adapters = Replayed({"dxgi", "adapters"});
            if (adapters == nullptr || index >= adapters->size()) return kNotFound;
            Keep({"dxgi", "adapters"}, *adapters);
        }
        *adapter = new SimAdapter(index, live);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE MakeWindowAssociation(HWND, UINT) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetWindowAssociation(HWND*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateSwapChain(IUnknown*, DXGI_SWAP_CHAIN_DESC*, IDXGISwapChain**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE CreateSoftwareAdapter(HMODULE, IDXGIAdapter**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetPrivateData(REFGUID, UINT, const void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetPrivateDataInterface(REFGUID, const IUnknown*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPrivateData(REFGUID, UINT*, void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetParent(REFIID, void**) override { return E_NOTIMPL; }

private:
    ComPtr<IDXGIFactory> real_;
};

HRESULT CreateFactory(CreateFactoryFn real, const char* name, REFIID iid, void** out) {
    if (out == nullptr) return E_INVALIDARG;
    *out = nullptr;
    Lock lock(Active().mutex);
    IDXGIFactory* live = nullptr;
    HRESULT hr = S_OK;
    if (Active().live()) {
        hr = real != nullptr ? real(__uuidof(IDXGIFactory), reinterpret_cast<void**>(&live)) : E_NOINTERFACE;
        if (FAILED(hr)) Keep({"dxgi", "factory_error"}, HresultText(hr));
        else if (Json* dxgi = KeepObject({"dxgi"})) dxgi->erase("factory_error");
    } else if (const Json* error = Replayed({"dxgi", "factory_error"})) {
        hr = ParseHresult(error->get<std::string>());
        Keep({"dxgi", "factory_error"}, *error);
    }
    Note("dxgi", name, SUCCEEDED(hr) ? "factory made" : "error " + HresultText(hr), FAILED(hr));
    if (FAILED(hr)) return hr;
    auto* factory = new SimFactory(live);
    hr = factory->QueryInterface(iid, out);
    factory->Release();
    return hr;
}

HRESULT WINAPI SimCreate1(REFIID iid, void** out) { return CreateFactory(g_realCreate1, "CreateDXGIFactory1", iid, out); }
HRESULT WINAPI SimCreate(REFIID iid, void** out) { return CreateFactory(g_realCreate, "CreateDXGIFactory", iid, out); }

void Install(Installer&) {}  // reached through the library loader

void Reset() {
    g_liveModule = nullptr;
    g_realCreate1 = g_realCreate = nullptr;
}

}  // namespace

HMODULE DxgiLoad(HMODULE (*real)(LPCWSTR), LPCWSTR path) {
    Lock lock(Active().mutex);
    HMODULE module = nullptr;
    if (Active().live()) {
        module = real(path);
        g_liveModule = module;
        Keep({"dxgi", "library"}, module != nullptr);
    } else if (const Json* library = Replayed({"dxgi", "library"})) {
        module = library->get<bool>() ? StandIn() : nullptr;
        Keep({"dxgi", "library"}, *library);
    } else {
        Note("library", "dxgi.dll", "not in the profile", true);
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    Note("library", "dxgi.dll", module != nullptr ? "loaded" : "did not load", module == nullptr);
    if (module == nullptr) SetLastError(ERROR_MOD_NOT_FOUND);
    return module;
}

FARPROC DxgiProc(HMODULE module, const char* name, FARPROC(WINAPI* real)(HMODULE, LPCSTR)) {
    if (module == nullptr || (module != StandIn() && module != g_liveModule) || name == nullptr ||
        reinterpret_cast<uintptr_t>(name) <= 0xFFFF)
        return nullptr;
    const bool one = std::strcmp(name, "CreateDXGIFactory1") == 0;
    if (!one && std::strcmp(name, "CreateDXGIFactory") != 0) return nullptr;
    if (module == g_liveModule) {
        auto proc = reinterpret_cast<CreateFactoryFn>(reinterpret_cast<void*>(real(module, name)));
        if (proc == nullptr) return nullptr;
        (one ? g_realCreate1 : g_realCreate) = proc;
    }
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(one ? &SimCreate1 : &SimCreate));
}

// Freeing is traced as well, so that a test sees the library let dxgi.dll go.
bool DxgiFree(HMODULE module) {
    if (module == nullptr || (module != StandIn() && module != g_liveModule)) return false;
    Lock lock(Active().mutex);
    Note("library", "dxgi.dll", "freed", false);
    return module == StandIn();
}

const SourceDef kDxgiSource = {"dxgi", Validate, Install, Reset};

}  // namespace torvex::sim::detail
