// Core Audio: the default speaker ("render") and microphone ("capture")
// endpoints, their volume and mute. Changes under replay stay in the profile.
//
//   "audio": {"render": {"volume_scalar": 0.5, "mute": false}, "capture": {"error": "0x80070490"}}
#include <windows.h>
#include <endpointvolume.h>
#include <mmdeviceapi.h>

#include "com_object.h"
#include "source.h"

namespace torvex::sim::detail {
namespace {

constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070490);  // no such endpoint
using RealCreate = HRESULT (*)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*);

const char* FlowName(EDataFlow flow) { return flow == eCapture ? "capture" : "render"; }

void Validate(const Json& audio, const At& at) {
    ExpectObject(audio, at);
    ExpectOnly(audio, at, {"render", "capture"});
    for (const auto& [flow, endpoint] : audio.items()) {
        const At a = at / flow;
        ExpectObject(endpoint, a);
        ExpectOnly(endpoint, a, {"error", "volume_scalar", "mute"});
        if (endpoint.contains("error")) ExpectHresult(endpoint["error"], a / "error");
        if (endpoint.contains("mute")) ExpectBool(endpoint["mute"], a / "mute");
        if (endpoint.contains("volume_scalar")) {
            const Json& v = endpoint["volume_scalar"];
            if (!v.is_number() || v.get<double>() < 0 || v.get<double>() > 1) Expected(a / "volume_scalar", "a number from 0 to 1");
        }
    }
}

class SimVolume : public ComObject<IAudioEndpointVolume> {
public:
    SimVolume(const char* flow, IAudioEndpointVolume* real) : flow_(flow), real_(real) {}

    HRESULT STDMETHODCALLTYPE RegisterControlChangeNotify(IAudioEndpointVolumeCallback* callback) override {
        return real_ != nullptr ? real_->RegisterControlChangeNotify(callback) : S_OK;
    }
    HRESULT STDMETHODCALLTYPE UnregisterControlChangeNotify(IAudioEndpointVolumeCallback* callback) override {
        return real_ != nullptr ? real_->UnregisterControlChangeNotify(callback) : S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetMasterVolumeLevelScalar(float* level) override {
        return Read("volume_scalar", level, [&](float* out) { return real_->GetMasterVolumeLevelScalar(out); });
    }
    HRESULT STDMETHODCALLTYPE GetMute(BOOL* mute) override {
        return Read("mute", mute, [&](BOOL* out) { return real_->GetMute(out); });
    }
    HRESULT STDMETHODCALLTYPE SetMasterVolumeLevelScalar(float level, LPCGUID context) override {
        return Write("volume_scalar", Json(level), [&] { return real_->SetMasterVolumeLevelScalar(level, context); });
    }
    HRESULT STDMETHODCALLTYPE SetMute(BOOL mute, LPCGUID context) override {
        return Write("mute", Json(mute != FALSE), [&] { return real_->SetMute(mute, context); });
    }

    HRESULT STDMETHODCALLTYPE GetChannelCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetMasterVolumeLevel(float, LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMasterVolumeLevel(float*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetChannelVolumeLevel(UINT, float, LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetChannelVolumeLevelScalar(UINT, float, LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetChannelVolumeLevel(UINT, float*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetChannelVolumeLevelScalar(UINT, float*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetVolumeStepInfo(UINT*, UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE VolumeStepUp(LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE VolumeStepDown(LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryHardwareSupport(DWORD*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetVolumeRange(float*, float*, float*) override { return E_NOTIMPL; }

private:
    template <typename T, typename Live>
    HRESULT Read(const char* field, T* out, Live live) {
        if (out == nullptr) return E_POINTER;
        Lock lock(Active().mutex);
        const std::string call = std::string(flow_) + " " + field;
        Json value;
        if (real_ != nullptr) {
            T number{};
            const HRESULT hr = live(&number);
            if (FAILED(hr)) {
                Note("audio", call, "error " + HresultText(hr), true);
                return hr;
            }
            value = std::is_same_v<T, BOOL> ? Json(number != 0) : Json(number);
        } else if (const Json* found = Replayed({"audio", flow_, field})) {
            value = *found;
        } else {
            Note("audio", call, "not in the profile", true);
            return E_FAIL;
        }
        Keep({"audio", flow_, field}, value);
        if constexpr (std::is_same_v<T, BOOL>) *out = value.get<bool>() ? TRUE : FALSE;
        else *out = value.get<float>();
        Note("audio", call, value.dump(), false);
        return S_OK;
    }

    template <typename Live>
    HRESULT Write(const char* field, const Json& value, Live live) {
        Lock lock(Active().mutex);
        if (Unchangeable("audio", std::string("set ") + flow_ + " " + field)) return E_ACCESSDENIED;
        HRESULT hr = S_OK;
        if (real_ != nullptr) hr = live();
        else if (Json* endpoint = ReplayedForChange({"audio", flow_})) (*endpoint)[field] = value;
        Note("audio", std::string("set ") + flow_ + " " + field + " = " + value.dump(),
             SUCCEEDED(hr) ? "set" : "error " + HresultText(hr), FAILED(hr));
        return hr;
    }

    const char* flow_;
    ComPtr<IAudioEndpointVolume> real_;
};

class SimDevice : public ComObject<IMMDevice> {
public:
    SimDevice(const char* flow, IMMDevice* real) : flow_(flow), real_(real) {}
    HRESULT STDMETHODCALLTYPE Activate(REFIID iid, DWORD context, PROPVARIANT* parameters, void** out) override {
        if (out == nullptr) return E_POINTER;
        *out = nullptr;
        if (!IsEqualIID(iid, __uuidof(IAudioEndpointVolume))) return E_NOINTERFACE;
        IAudioEndpointVolume* live = nullptr;
        if (real_ != nullptr) {
            const HRESULT hr = real_->Activate(iid, context, parameters, reinterpret_cast<void**>(&live));
            if (FAILED(hr)) return hr;
        }
        *out = static_cast<IAudioEndpointVolume*>(new SimVolume(flow_, live));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OpenPropertyStore(DWORD, IPropertyStore**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetId(LPWSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetState(DWORD*) override { return E_NOTIMPL; }

private:
    const char* flow_;
    ComPtr<IMMDevice> real_;
};

class SimEnumerator : public ComObject<IMMDeviceEnumerator> {
public:
    explicit SimEnumerator(IMMDeviceEnumerator* real) : real_(real) {}
    HRESULT STDMETHODCALLTYPE GetDefaultAudioEndpoint(EDataFlow flow, ERole role, IMMDevice** device) override {
        if (device == nullptr) return E_POINTER;
        *device = nullptr;
        Lock lock(Active().mutex);
        const char* name = FlowName(flow);
        IMMDevice* live = nullptr;
        HRESULT hr = S_OK;
        if (real_ != nullptr) {
            hr = real_->GetDefaultAudioEndpoint(flow, role, &live);
            if (FAILED(hr)) Keep({"audio", name}, Json{{"error", HresultText(hr)}});
            else if (Json* kept = KeepNode({"audio", name}); kept != nullptr && !kept->is_object()) *kept = Json::object();
        } else {
            const Json* endpoint = Replayed({"audio", name});
            hr = endpoint == nullptr ? kNotFound
                 : endpoint->contains("error") ? ParseHresult((*endpoint)["error"].get<std::string>()) : S_OK;
            if (endpoint != nullptr && endpoint->contains("error")) Keep({"audio", name, "error"}, (*endpoint)["error"]);
        }
        Note("audio", std::string("default ") + name + " endpoint", SUCCEEDED(hr) ? "found" : "none (" + HresultText(hr) + ")",
             FAILED(hr));
        if (FAILED(hr)) return hr;
        *device = new SimDevice(name, live);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE EnumAudioEndpoints(EDataFlow, DWORD, IMMDeviceCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetDevice(LPCWSTR, IMMDevice**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RegisterEndpointNotificationCallback(IMMNotificationClient*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE UnregisterEndpointNotificationCallback(IMMNotificationClient*) override { return E_NOTIMPL; }

private:
    ComPtr<IMMDeviceEnumerator> real_;
};

void Install(Installer&) {}  // reached through CoCreateInstance

}  // namespace

HRESULT CreateAudioEnumerator(REFIID iid, void** out, RealCreate real) {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    IMMDeviceEnumerator* live = nullptr;
    if (Active().live()) {
        const HRESULT hr = real(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_INPROC_SERVER, __uuidof(IMMDeviceEnumerator),
                                reinterpret_cast<void**>(&live));
        if (FAILED(hr)) {
            Note("audio", "device enumerator", "not created (" + HresultText(hr) + ")", true);
            return hr;
        }
    }
    auto* enumerator = new SimEnumerator(live);
    const HRESULT hr = enumerator->QueryInterface(iid, out);
    enumerator->Release();
    return hr;
}

const SourceDef kAudioSource = {"audio", Validate, Install, nullptr};

}  // namespace torvex::sim::detail
