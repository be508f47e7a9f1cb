// The graphics driver's COM server (class {7160A13D-73DA-4CEA-95B9-37356478588A}),
// which Intel machines use for display colour: the display identifier of a
// display device name, the generic get with its request, and the gamma ramp.
//
//   "graphics_server": {"displays": {"\\\\.\\DISPLAY1": {"id": 1, "status": 0}},
//                       "requests": {"{F64A0177-1CBC-46D8-9982-85FD1D59B9B1} 92 0100000001": {"output": "...", "status": 0}},
//                       "ramps": {"1": "0000..."}}
//
// A request is keyed by its GUID, its size and its bytes as the library sent
// them (hex, trailing zero bytes dropped); its "output" is the whole buffer
// as the server left it, the same way. A ramp the library sets is kept under
// "ramps" by display identifier: the replayed state. "error" makes creating
// the server fail with that HRESULT, and "error" in a display or request
// makes that call fail with it.
//
// The library keeps the server object for the process. The simulation's
// object answers from whichever machine is installed when it is called,
// and reports itself disconnected while none is.
#include <atomic>
#include <cstring>

#include "vendor.h"

namespace torvex::sim::detail {

namespace {

constexpr char kMember[] = "graphics_server";
constexpr uint32_t kMaxBytes = 65536;
constexpr HRESULT kDisconnected = RPC_E_DISCONNECTED;

std::atomic<long> g_servers{0};

std::string BytesKey(const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    while (size > 0 && bytes[size - 1] == 0) --size;
    return Hex(bytes, size);
}

const Json* Recorded(const char* member, const std::string& key) {
    const Json* server = Replayed({"vendor", kMember});
    return server != nullptr && server->is_object() ? Child(Child(server, member), key) : nullptr;
}

void KeepAnswer(const char* member, const std::string& key, const Json& answer) {
    Json* server = KeepObject({"vendor", kMember});
    if (server != nullptr) Slot(Slot(*server, member), key) = answer;
}

HRESULT ErrorOf(const Json& answer) {
    return answer.contains("error") ? ParseHresult(answer["error"].get<std::string>()) : S_OK;
}

// A server object: the live one wrapped, or one answering from the profile.
// Not counted among the machine's COM objects: the library keeps it.
class SimServer final : public IGfxServer {
public:
    SimServer(IUnknown* unknown, IGfxServer* real) : unknown_(unknown), real_(real) { ++g_servers; }
    ~SimServer() {
        if (real_ != nullptr) real_->Release();
        if (unknown_ != nullptr) unknown_->Release();
        --g_servers;
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        if (out == nullptr) return E_POINTER;
        *out = nullptr;
        if (IsEqualIID(iid, IID_IUnknown) || (IsEqualIID(iid, kGfxServerInterface) && (real_ != nullptr || unknown_ == nullptr))) {
            *out = static_cast<IGfxServer*>(this);
            AddRef();
            return S_OK;
        }
        return unknown_ != nullptr ? unknown_->QueryInterface(iid, out) : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++refs_); }
    ULONG STDMETHODCALLTYPE Release() override {
        const long left = --refs_;
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }

    HRESULT STDMETHODCALLTYPE DisplayIdFromName(BSTR name, uint32_t reserved, uint32_t* id, uint32_t* status) override {
        if (!Installed()) return real_ != nullptr ? real_->DisplayIdFromName(name, reserved, id, status) : kDisconnected;
        Lock lock(Active().mutex);
        if (id == nullptr || status == nullptr) return E_POINTER;
        const std::string key = Utf8(name);
        Json answer;
        if (real_ != nullptr) {
            uint32_t liveId = 0, liveStatus = 0;
            const HRESULT hr = real_->DisplayIdFromName(name, reserved, &liveId, &liveStatus);
            answer = FAILED(hr) ? Json{{"error", HresultText(hr)}} : Json{{"id", liveId}, {"status", liveStatus}};
        } else if (const Json* found = Recorded("displays", key)) {
            answer = *found;
        } else {
            Note("vendor", "graphics server display " + key, "not in the profile", true);
            return E_INVALIDARG;
        }
        KeepAnswer("displays", key, answer);
        const HRESULT hr = ErrorOf(answer);
        if (SUCCEEDED(hr)) *id = answer.value("id", 0u), *status = answer.value("status", 0u);
        Note("vendor", "graphics server display " + key, FAILED(hr) ? "error " + HresultText(hr) : "identifier " + std::to_string(*id),
             FAILED(hr));
        return hr;
    }

    HRESULT STDMETHODCALLTYPE SetGammaRamp(uint32_t id, uint32_t size, void* ramp, uint32_t* status) override {
        if (!Installed()) return real_ != nullptr ? real_->SetGammaRamp(id, size, ramp, status) : kDisconnected;
        Lock lock(Active().mutex);
        const std::string call = "graphics server ramp of display " + std::to_string(id);
        if (Unchangeable("vendor", call)) return E_ACCESSDENIED;
        if (ramp == nullptr || size > kMaxBytes) return E_INVALIDARG;
        HRESULT hr = S_OK;
        if (real_ != nullptr) {
            hr = real_->SetGammaRamp(id, size, ramp, status);
        } else {
            auto* server = const_cast<Json*>(Replayed({"vendor", kMember}));  // the replayed state changes
            if (server == nullptr || !server->is_object()) return kDisconnected;
            Slot(Slot(*server, "ramps"), std::to_string(id)) = Hex(ramp, size);
            if (status != nullptr) *status = 0;
        }
        Note("vendor", call, FAILED(hr) ? "error " + HresultText(hr) : "set", FAILED(hr), std::to_string(size) + " bytes");
        return hr;
    }

    HRESULT STDMETHODCALLTYPE GetGeneric(const GUID& request, uint32_t size, void* data, uint32_t* status) override {
        if (!Installed()) return real_ != nullptr ? real_->GetGeneric(request, size, data, status) : kDisconnected;
        Lock lock(Active().mutex);
        if (data == nullptr || status == nullptr || size > kMaxBytes) return E_INVALIDARG;
        const std::string key = GuidText(request) + " " + std::to_string(size) + " " + BytesKey(data, size);
        const std::string call = "graphics server request " + GuidText(request);
        Json answer;
        if (real_ != nullptr) {
            const HRESULT hr = real_->GetGeneric(request, size, data, status);
            answer = FAILED(hr) ? Json{{"error", HresultText(hr)}} : Json{{"output", BytesKey(data, size)}, {"status", *status}};
        } else if (const Json* found = Recorded("requests", key)) {
            answer = *found;
        } else {
            Note("vendor", call, "not in the profile", true, key);
            return E_INVALIDARG;
        }
        KeepAnswer("requests", key, answer);
        const HRESULT hr = ErrorOf(answer);
        if (SUCCEEDED(hr) && real_ == nullptr) {
            std::vector<uint8_t> output;
            ParseHex(answer.value("output", ""), output);
            std::memset(data, 0, size);
            std::memcpy(data, output.data(), std::min<size_t>(output.size(), size));
            *status = answer.value("status", 0u);
        }
        Note("vendor", call, FAILED(hr) ? "error " + HresultText(hr) : "status " + std::to_string(*status),
             FAILED(hr) || *status != 0, key);
        return hr;
    }

private:
    std::atomic<long> refs_{1};
    IUnknown* unknown_;   // the live object, null under replay
    IGfxServer* real_;   // its server interface
};

// "{GUID} SIZE HEX", SIZE up to 65536 and HEX no longer than SIZE bytes.
void ExpectRequestKey(const std::string& key, const At& at) {
    GUID guid;
    const size_t space = key.find(' ', 38);
    bool ok = key.size() > 39 && key[38] == ' ' && ParseGuid(key.substr(0, 38), guid) && space == 38;
    const size_t second = ok ? key.find(' ', 39) : std::string::npos;
    ok = ok && second != std::string::npos && second > 39 && second - 39 <= 5 &&
         key.substr(39, second - 39).find_first_not_of("0123456789") == std::string::npos;
    std::vector<uint8_t> bytes;
    ok = ok && std::stoul(key.substr(39, second - 39)) <= kMaxBytes && ParseHex(key.substr(second + 1), bytes) &&
         key.substr(second + 1).find(' ') == std::string::npos && bytes.size() <= std::stoul(key.substr(39, second - 39));
    if (!ok) Expected(at, "a request as \"{GUID} SIZE HEX\", HEX no longer than SIZE bytes");
}

}  // namespace

void ValidateGraphicsServer(const Json& server, const At& at) {
    ExpectOnly(server, at, {"error", "displays", "requests", "ramps"});
    if (server.contains("error")) ExpectHresult(server["error"], at / "error");
    auto answers = [&](const char* member, auto key, std::initializer_list<const char*> allowed) {
        if (!server.contains(member)) return;
        ExpectObject(server[member], at / member);
        for (const auto& [name, answer] : server[member].items()) {
            const At a = at / member / name;
            key(name, a);
            ExpectObject(answer, a);
            ExpectOnly(answer, a, allowed);
            if (answer.contains("error")) ExpectHresult(answer["error"], a / "error");
            for (const char* number : {"id", "status"})
                if (answer.contains(number)) ExpectUnsigned(answer[number], a / number, UINT32_MAX);
            if (answer.contains("output")) ExpectHex(answer["output"], a / "output", kMaxBytes);
        }
    };
    answers("displays", [](const std::string&, const At&) {}, {"id", "status", "error"});
    answers("requests", &ExpectRequestKey, {"output", "status", "error"});
    if (server.contains("ramps")) {
        ExpectObject(server["ramps"], at / "ramps");
        for (const auto& [id, ramp] : server["ramps"].items()) {
            if (id.empty() || id.size() > 10 || id.find_first_not_of("0123456789") != std::string::npos)
                Expected(at / "ramps" / id, "a display identifier");
            ExpectHex(ramp, at / "ramps" / id, kMaxBytes);
        }
    }
}

HRESULT CreateGraphicsServer(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, void** out,
                             HRESULT (*real)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*)) {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    const std::string detail = "context " + std::to_string(context) + ", interface " +
                               (IsEqualIID(iid, IID_IUnknown) ? std::string("IUnknown") : GuidText(iid));
    HRESULT hr = S_OK;
    SimServer* server = nullptr;
    if (Active().live()) {
        IUnknown* unknown = nullptr;
        hr = real(clsid, outer, context, IID_IUnknown, reinterpret_cast<void**>(&unknown));
        Lock lock(Active().mutex);
        IGfxServer* shape = nullptr;
        if (SUCCEEDED(hr) && unknown != nullptr) {
            if (FAILED(unknown->QueryInterface(kGfxServerInterface, reinterpret_cast<void**>(&shape)))) shape = nullptr;
            server = new SimServer(unknown, shape);
            KeepObject({"vendor", kMember});
        } else {
            Keep({"vendor", kMember}, hr == REGDB_E_CLASSNOTREG ? Json(false) : Json{{"error", HresultText(hr)}});
        }
    } else {
        Lock lock(Active().mutex);
        const Json* recorded = Replayed({"vendor", kMember});
        if (recorded != nullptr) Keep({"vendor", kMember}, *recorded);
        if (recorded == nullptr || !recorded->is_object()) {
            Note("com", "graphics driver server",
                 recorded != nullptr && recorded->get<bool>()
                     ? "absent under replay (present on the captured machine, not recorded)"
                     : "absent",
                 true, detail);
            return REGDB_E_CLASSNOTREG;
        }
        hr = ErrorOf(*recorded);
        if (SUCCEEDED(hr)) server = new SimServer(nullptr, nullptr);
    }
    Lock lock(Active().mutex);
    Note("com", "graphics driver server", server != nullptr ? "created" : "not created (" + HresultText(hr) + ")",
         server == nullptr, detail);
    if (server == nullptr) return FAILED(hr) ? hr : E_NOINTERFACE;
    hr = server->QueryInterface(iid, out);
    server->Release();
    return hr;
}

long LiveGraphicsServers() { return g_servers; }

}  // namespace torvex::sim::detail
