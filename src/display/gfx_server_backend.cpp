// The graphics driver's COM server back end of display colour, used on Intel
// machines: gamma ramps from warmth or channel gains, the current channel
// settings, and brightness through the active power scheme.
#include <windows.h>
#include <oleauto.h>
#include <ole2.h>

#include <cstring>
#include <mutex>

#include "common/win_resource.h"
#include "display/brightness.h"
#include "display/color_backend.h"
#include "display/display_math.h"
#include "torvex.h"
#include "torvex/graphics_server.h"

namespace torvex::display {
namespace {

constexpr GUID kChannelSettingsRequest = {0xF64A0177, 0x1CBC, 0x46D8, {0x99, 0x82, 0x85, 0xFD, 0x1D, 0x59, 0xB9, 0xB1}};
constexpr DWORD kGfxServerContext = 23;  // in-process server, handler, local and remote server

constexpr uint32_t kRampBytes = sizeof(GammaRamp);
constexpr uint32_t kRequestBytes = 92;

// The server is chosen once and for good; the second object is re-created
// on every per-channel set.
bool g_gfxComReady = false;
IGfxServer* g_gfxServer = nullptr;
IGfxServer* g_gfxServerRgb = nullptr;
std::mutex g_gammaLock;  // serialises the per-channel ramp set

bool CreateGfxServer(IGfxServer*& server) {
    torvex::ComPtr<IUnknown> unknown;
    if (FAILED(CoCreateInstance(kGfxServerClass, nullptr, kGfxServerContext, IID_IUnknown, unknown.put_void())) ||
        !unknown)
        return false;
    OleRun(unknown.get());
    return SUCCEEDED(unknown->QueryInterface(kGfxServerInterface, reinterpret_cast<void**>(&server))) &&
           server != nullptr;
}

// The first display device, by its name, as the server's identifier; 0 when
// any step fails.
uint32_t DisplayIdentifier() {
    DISPLAY_DEVICEA device{};
    device.cb = sizeof(device);
    if (!EnumDisplayDevicesA(nullptr, 0, &device, 0)) return 0;
    DEVMODEA mode{};
    mode.dmSize = sizeof(mode);
    if (!EnumDisplaySettingsA(device.DeviceName, ENUM_CURRENT_SETTINGS, &mode)) return 0;
    IGfxServer* server = g_gfxServerRgb != nullptr ? g_gfxServerRgb : g_gfxServer;
    if (server == nullptr) return 0;
    const torvex::Bstr name = torvex::MakeBstr(StringProc::StringToWString(device.DeviceName).c_str());
    if (!name) return 0;
    uint32_t id = 0;
    uint32_t status = 0;
    if (FAILED(server->DisplayIdFromName(name.get(), 0, &id, &status))) return 0;
    return id;
}

void SendRamp(IGfxServer* server, uint32_t id, Ramp& ramp) {
    uint32_t status = 0;
    server->SetGammaRamp(id, kRampBytes, ramp.data(), &status);
}

uint32_t WarmthRamp(const WarmthRequest* request) {
    if (AdlLoaded() || !g_gfxComReady || !IsDisplayBackendReady()) return 1;
    if (request == nullptr) return 0;
    Ramp ramp = RampFromMatrix(WarmthMatrix(request->warmth, request->blueCut), AdlLoaded());
    const uint32_t id = DisplayIdentifier();
    if (id == 0) return 1;
    SendRamp(g_gfxServer, id, ramp);
    return 1;
}

uint32_t ChannelRamp(const ChannelGainRequest* request) {
    if (g_gfxServerRgb != nullptr) {
        g_gfxServerRgb->Release();
        g_gfxServerRgb = nullptr;
    }
    if (CoInitializeEx(nullptr, COINIT_MULTITHREADED) != S_OK) {
        IGfxServer* server = nullptr;
        if (CreateGfxServer(server)) g_gfxServerRgb = server;
    }
    if (request == nullptr) return 0;
    Ramp ramp = RampFromMatrix(
        ChannelMatrix(request->red, request->green, request->blue, request->level, request->strength), AdlLoaded());
    std::lock_guard<std::mutex> lock(g_gammaLock);
    const uint32_t id = DisplayIdentifier();
    IGfxServer* server = g_gfxServerRgb != nullptr ? g_gfxServerRgb : g_gfxServer;
    if (id != 0 && server != nullptr) SendRamp(server, id, ramp);
    return 1;
}

uint32_t ChannelSettings(void* buffer, uint32_t size, uint32_t* returned) {
    constexpr uint32_t kSettingsBytes = 36;
    if (buffer == nullptr || returned == nullptr || size < kSettingsBytes || g_gfxServer == nullptr) return 0;
    const uint32_t id = DisplayIdentifier();
    if (id == 0) return 0;
    uint8_t request[kRequestBytes] = {};
    const uint32_t one = 1, two = 2;
    std::memcpy(request, &one, 4);
    std::memcpy(request + 4, &id, 4);
    std::memcpy(request + 88, &two, 4);
    uint32_t status = 1;
    if (FAILED(g_gfxServer->GetGeneric(kChannelSettingsRequest, kRequestBytes, request, &status)) || status != 0)
        return 0;
    std::memcpy(buffer, request + 44, kSettingsBytes);
    *returned = kSettingsBytes;
    return 1;
}

class GfxServerColorBackend final : public ColorBackend {
public:
    bool Chosen(const void*) const override { return g_gfxComReady; }
    bool Intact() const override { return !(g_gfxComReady && g_gfxServer == nullptr); }

    uint32_t Query(void*, uint32_t code, void* buffer, uint32_t size, uint32_t* returned) override {
        if (code == HAL_DISPLAY_TEMPERATURE) return ChannelSettings(buffer, size, returned);
        if (code == HAL_DISPLAY_BRIGHTNESS) return QueryLight(&buffer, &size, &returned);
        return 0;
    }

    uint32_t Set(void*, uint32_t code, void* input, uint32_t inputSize, uint32_t*, uint32_t) override {
        switch (code) {
        case HAL_DISPLAY_TEMPERATURE: return WarmthRamp(static_cast<const WarmthRequest*>(input));
        case HAL_DISPLAY_BRIGHTNESS: return SetLight(&input, &inputSize);
        case HAL_DISPLAY_WARMTH:
            return inputSize >= sizeof(WarmthRequest) ? WarmthRamp(static_cast<const WarmthRequest*>(input)) : 0;
        case HAL_DISPLAY_CHANNEL_GAINS:
            return inputSize >= sizeof(ChannelGainRequest) ? ChannelRamp(static_cast<const ChannelGainRequest*>(input))
                                                           : 0;
        default: return 0;
        }
    }
};

GfxServerColorBackend g_backend;

}  // namespace

bool InitGfxServer() {
    if (g_gfxServer != nullptr) {
        g_gfxServer->Release();
        g_gfxServer = nullptr;
    }
    // The server is created only when COM was already initialised on this
    // thread (or in the other model); a fresh initialisation skips it on
    // purpose and the Intel library is tried instead.
    if (CoInitializeEx(nullptr, COINIT_MULTITHREADED) == S_OK) return false;
    IGfxServer* server = nullptr;
    if (!CreateGfxServer(server)) return false;
    g_gfxServer = server;
    g_gfxComReady = true;
    return true;
}

ColorBackend& GfxServerBackend() { return g_backend; }

}  // namespace torvex::display
