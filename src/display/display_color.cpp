// Display colour and brightness (class 19) through one of three vendor back
// ends chosen from the adapter names: the AMD Display Library, the graphics
// driver's COM server (brightness through the power scheme), or the Intel
// Graphics Control Library.
#include <windows.h>
#include <oleauto.h>
#include <ole2.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cmath>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "api/modules.h"
#include "common/debug_message.h"
#include "common/win_resource.h"
#include "display/brightness.h"
#include "display/display_math.h"
#include "torvex.h"

namespace torvex::display {

// The three entries of the server's interface that the library uses: the
// 4th (name to display identifier), the 27th (gamma ramp) and the 44th
// (generic get). The others are never called.
// Declared outside the unnamed namespace: the objects come from the driver,
// so the compiler must not assume it has seen every implementation.
struct IGfxServer : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE DisplayIdFromName(BSTR name, uint32_t reserved, uint32_t* id,
                                                        uint32_t* status) = 0;  // 4
#define TORVEX_UNUSED_ENTRY(n) virtual HRESULT STDMETHODCALLTYPE Unused##n() = 0;
    TORVEX_UNUSED_ENTRY(5) TORVEX_UNUSED_ENTRY(6) TORVEX_UNUSED_ENTRY(7) TORVEX_UNUSED_ENTRY(8)
    TORVEX_UNUSED_ENTRY(9) TORVEX_UNUSED_ENTRY(10) TORVEX_UNUSED_ENTRY(11) TORVEX_UNUSED_ENTRY(12)
    TORVEX_UNUSED_ENTRY(13) TORVEX_UNUSED_ENTRY(14) TORVEX_UNUSED_ENTRY(15) TORVEX_UNUSED_ENTRY(16)
    TORVEX_UNUSED_ENTRY(17) TORVEX_UNUSED_ENTRY(18) TORVEX_UNUSED_ENTRY(19) TORVEX_UNUSED_ENTRY(20)
    TORVEX_UNUSED_ENTRY(21) TORVEX_UNUSED_ENTRY(22) TORVEX_UNUSED_ENTRY(23) TORVEX_UNUSED_ENTRY(24)
    TORVEX_UNUSED_ENTRY(25) TORVEX_UNUSED_ENTRY(26)
    virtual HRESULT STDMETHODCALLTYPE SetGammaRamp(uint32_t id, uint32_t size, void* ramp,
                                                   uint32_t* status) = 0;  // 27
    TORVEX_UNUSED_ENTRY(28) TORVEX_UNUSED_ENTRY(29) TORVEX_UNUSED_ENTRY(30) TORVEX_UNUSED_ENTRY(31)
    TORVEX_UNUSED_ENTRY(32) TORVEX_UNUSED_ENTRY(33) TORVEX_UNUSED_ENTRY(34) TORVEX_UNUSED_ENTRY(35)
    TORVEX_UNUSED_ENTRY(36) TORVEX_UNUSED_ENTRY(37) TORVEX_UNUSED_ENTRY(38) TORVEX_UNUSED_ENTRY(39)
    TORVEX_UNUSED_ENTRY(40) TORVEX_UNUSED_ENTRY(41) TORVEX_UNUSED_ENTRY(42) TORVEX_UNUSED_ENTRY(43)
#undef TORVEX_UNUSED_ENTRY
    virtual HRESULT STDMETHODCALLTYPE GetGeneric(const GUID& request, uint32_t size, void* data,
                                                 uint32_t* status) = 0;  // 44
};

}  // namespace torvex::display

namespace {

using torvex::display::IGfxServer;
using torvex::display::Matrix;
using torvex::display::Ramp;

// ------------------------------------------------------------ AMD library

// Entry points resolved by name, in this order; all must resolve.
constexpr const char* kAdlNames[] = {
    "ADL2_Main_Control_Create",      "ADL2_Main_Control_Destroy",           "ADL2_Display_Modes_Get",
    "ADL2_Adapter_Active_Get",       "ADL2_Display_ColorCaps_Get",          "ADL_Adapter_NumberOfAdapters_Get",
    "ADL_Adapter_AdapterInfo_Get",   "ADL_Display_DisplayInfo_Get",         "ADL_Display_ColorCaps_Get",
    "ADL_Display_Color_Get",         "ADL2_Main_ControlX2_Create",          "ADL2_Display_DisplayInfo_Get",
    "ADL2_Display_Color_Get",        "ADL2_Adapter_AdapterInfoX2_Get",      "ADL2_Adapter_NumberOfAdapters_Get",
    "ADL_Display_Sharpness_Info_Get", "ADL_Display_Sharpness_Get",          "ADL_Display_Sharpness_Set",
    "ADL_Display_Sharpness_Caps",    "ADL2_Display_ColorTemperatureSource_Set", "ADL2_Display_Color_Set",
};
constexpr size_t kAdlCount = sizeof(kAdlNames) / sizeof(kAdlNames[0]);
enum AdlEntry : size_t {
    kAdlDestroy = 1,
    kAdlColorCaps = 4,
    kAdlCreateX2 = 10,
    kAdlDisplayInfo = 11,
    kAdlColorGet = 12,
    kAdlAdapterInfoX2 = 13,
    kAdlAdapterCount = 14,
    kAdlTemperatureSource = 19,
    kAdlColorSet = 20,
};

using AdlContext = void*;
using AdlAllocator = void*(__stdcall*)(int);
using AdlCreateX2 = int (*)(AdlAllocator, int, AdlContext*, int);
using AdlDestroy = int (*)(AdlContext);
using AdlAdapterInfoX2 = int (*)(AdlContext, void**);
using AdlAdapterCount = int (*)(AdlContext, int*);
using AdlDisplayInfo = int (*)(AdlContext, int, int*, void**, int);
using AdlColorCapsFn = int (*)(AdlContext, int, int, int*, int*);
using AdlColorGet = int (*)(AdlContext, int, int, int, int*, int*, int*, int*, int*);
using AdlColorSet = int (*)(AdlContext, int, int, int, int);
using AdlTemperatureSource = int (*)(AdlContext, int, int, int);

constexpr int kAdlOk = 0;
constexpr size_t kAdapterInfoBytes = 1572;
constexpr size_t kDisplayInfoBytes = 552;
constexpr int kDisplayMapped = 2;
constexpr int kColorTypeBrightness = 1;
constexpr int kColorTypeTemperature = 16;
constexpr int kTemperatureSourceUser = 64;

// ------------------------------------------------- graphics-driver server

constexpr CLSID kGfxServerClass = {0x7160A13D, 0x73DA, 0x4CEA, {0x95, 0xB9, 0x37, 0x35, 0x64, 0x78, 0x58, 0x8A}};
constexpr IID kGfxServerInterface = {0xF932C038, 0x6484, 0x45CA, {0x8F, 0xA1, 0x7C, 0x8C, 0x27, 0x9F, 0x7A, 0xEE}};
constexpr GUID kChannelSettingsRequest = {0xF64A0177, 0x1CBC, 0x46D8, {0x99, 0x82, 0x85, 0xFD, 0x1D, 0x59, 0xB9, 0xB1}};
constexpr DWORD kGfxServerContext = 23;  // in-process server, handler, local and remote server

constexpr uint32_t kRampBytes = 1536;
constexpr uint32_t kRequestBytes = 92;

// ----------------------------------------------------------- Intel library

constexpr DWORD kControlLibSearch = 0xA00;  // application directory and System32
constexpr uint32_t kIgclMissingFunction = 0x40000001;
constexpr uint32_t kIgclInvalidHandle = 0x4000000E;
constexpr uint32_t kIgclNoBlocks = 0x4000000F;
constexpr uint32_t kIgclNotLoaded = 0x40000026;

// The library's records as this module uses them.
struct IgclInitArgs {  // 36 bytes
    uint32_t size;
    uint8_t version;
    uint8_t pad[3];
    uint32_t appVersion;
    uint32_t flags;
    uint32_t supportedVersion;
    uint8_t applicationId[16];
};
static_assert(sizeof(IgclInitArgs) == 36, "init arguments are 36 bytes");

struct IgclDisplayProperties {  // 200 bytes
    uint32_t size;
    uint8_t version;
    uint8_t pad[3];
    struct {
        void* data;  // or a 32-bit encoder id in the first word
        uint32_t size;
    } encoder;
    uint32_t type;
    uint32_t muxType;
    uint32_t converterOutput;
    uint8_t supportedSpec[3];  // major, minor, revision
    uint8_t pad2;
    uint32_t supportedBpc;
    uint32_t converterType;
    uint32_t configFlags;  // 1 active, 2 attached
    uint8_t rest[200 - 52];
};
static_assert(sizeof(IgclDisplayProperties) == 200, "display properties are 200 bytes");
static_assert(offsetof(IgclDisplayProperties, configFlags) == 48, "configuration flags follow the converter type");
constexpr uint32_t kDisplayActiveAttached = 1 | 2;

struct IgclOneDLut {
    uint32_t samplingType;
    uint32_t samplesPerChannel;
    uint32_t channels;
    uint32_t pad;
    double* sampleValues;
    double* samplePositions;
};

struct IgclBlock {  // 144 bytes
    uint32_t size;
    uint8_t version;
    uint8_t pad[3];
    uint32_t blockId;
    uint32_t blockType;  // 1: one-dimensional LUT
    IgclOneDLut lut;
    uint8_t rest[144 - 48];
};
static_assert(sizeof(IgclBlock) == 144, "block records are 144 bytes");
constexpr uint32_t kBlockOneDLut = 1;

struct IgclGetConfig {  // 272 bytes
    uint32_t size;
    uint8_t version;
    uint8_t pad[3];
    uint32_t queryType;
    uint32_t pad2;
    uint8_t formats[2][120];  // input and output pixel formats
    uint32_t blockCount;
    uint32_t pad3;
    IgclBlock* blocks;
};
static_assert(offsetof(IgclGetConfig, blockCount) == 256 && offsetof(IgclGetConfig, blocks) == 264,
              "block count and blocks follow the two pixel formats");
static_assert(sizeof(IgclGetConfig) == 272, "query record is 272 bytes");

struct IgclSetConfig {  // 32 bytes
    uint32_t size;
    uint8_t version;
    uint8_t pad[3];
    uint32_t operation;  // 1 restore default, 2 custom
    uint32_t flags;
    uint32_t blockCount;
    uint32_t pad2;
    IgclBlock* blocks;
};
static_assert(sizeof(IgclSetConfig) == 32, "set record is 32 bytes");
constexpr uint32_t kOperationRestore = 1;
constexpr uint32_t kOperationCustom = 2;

using IgclInit = uint32_t (*)(IgclInitArgs*, void**);
using IgclClose = uint32_t (*)(void*);
using IgclEnumerate = uint32_t (*)(void*, uint32_t*, void**);
using IgclDisplayProps = uint32_t (*)(void*, IgclDisplayProperties*);
using IgclGet = uint32_t (*)(void*, IgclGetConfig*);
using IgclSet = uint32_t (*)(void*, IgclSetConfig*);

// ------------------------------------------------------------ module state

// Set once, never cleared; the AMD library stays loaded for the process.
bool g_adlLoaded = false;
bool g_gfxComReady = false;
bool g_igclReady = false;
IGfxServer* g_gfxServer = nullptr;
IGfxServer* g_gfxServerRgb = nullptr;
void* g_adl[kAdlCount] = {};
std::mutex g_gammaLock;  // serialises the per-channel ramp set

template <typename Fn>
Fn Adl(size_t entry) {
    return reinterpret_cast<Fn>(g_adl[entry]);
}

bool IsDisplayBackendReady() {
    if (g_adlLoaded)
        for (void* entry : g_adl)
            if (entry == nullptr) return false;
    return !(g_gfxComReady && g_gfxServer == nullptr);
}

void* __stdcall AdlMalloc(int size) { return std::malloc(static_cast<size_t>(size)); }

bool LoadAdl() {
    if (g_adlLoaded) return true;
    wchar_t directory[MAX_PATH] = {};
    GetSystemDirectoryW(directory, MAX_PATH);
    HMODULE module = LoadLibraryW((std::wstring(directory) + L"\\atiadlxx.dll").c_str());
    if (module == nullptr) return false;
    void* entries[kAdlCount] = {};
    for (size_t i = 0; i < kAdlCount; ++i) {
        entries[i] = reinterpret_cast<void*>(GetProcAddress(module, kAdlNames[i]));
        if (entries[i] == nullptr) {
            FreeLibrary(module);
            return false;
        }
    }
    std::memcpy(g_adl, entries, sizeof(entries));
    g_adlLoaded = true;
    return true;
}

// One ADL context for one operation.
class AdlSession {
public:
    AdlSession() { opened_ = Adl<AdlCreateX2>(kAdlCreateX2)(AdlMalloc, 1, &context_, 1) == kAdlOk; }
    ~AdlSession() {
        if (opened_) Adl<AdlDestroy>(kAdlDestroy)(context_);
    }
    AdlSession(const AdlSession&) = delete;
    AdlSession& operator=(const AdlSession&) = delete;
    bool opened() const { return opened_; }
    AdlContext get() const { return context_; }

private:
    AdlContext context_ = nullptr;
    bool opened_ = false;
};

struct MallocFree {
    void operator()(void* p) const { std::free(p); }
};

int32_t ReadInt(const void* base, size_t offset) {
    int32_t value = 0;
    std::memcpy(&value, static_cast<const uint8_t*>(base) + offset, sizeof(value));
    return value;
}

uint32_t InitAdl(void** out) {
    if (!LoadAdl()) return 0;
    AdlSession session;
    if (!session.opened()) return 0;
    void* rawInfo = nullptr;
    int adapters = 0;
    const int infoResult = Adl<AdlAdapterInfoX2>(kAdlAdapterInfoX2)(session.get(), &rawInfo);
    std::unique_ptr<void, MallocFree> info(rawInfo);
    if (infoResult != kAdlOk || Adl<AdlAdapterCount>(kAdlAdapterCount)(session.get(), &adapters) != kAdlOk ||
        info == nullptr)
        return 0;
    for (int a = 0; a < adapters; ++a) {
        const int32_t adapterIndex = ReadInt(info.get(), kAdapterInfoBytes * static_cast<size_t>(a) + 4);
        int displayCount = 0;
        void* rawDisplays = nullptr;
        Adl<AdlDisplayInfo>(kAdlDisplayInfo)(session.get(), adapterIndex, &displayCount, &rawDisplays, 0);
        std::unique_ptr<void, MallocFree> displays(rawDisplays);
        if (displays == nullptr) continue;
        for (int d = 0; d < displayCount; ++d) {
            const size_t base = kDisplayInfoBytes * static_cast<size_t>(d);
            const int32_t infoValue = ReadInt(displays.get(), base + kDisplayInfoBytes - 4);
            if ((infoValue & kDisplayMapped) == 0 || ReadInt(displays.get(), base + 8) != adapterIndex) continue;
            auto* context = static_cast<DisplayColorContext*>(std::malloc(sizeof(DisplayColorContext)));
            if (context == nullptr) return 0;
            *context = DisplayColorContext{sizeof(DisplayColorContext), 1, adapterIndex, ReadInt(displays.get(), base)};
            *out = context;
            return 1;
        }
    }
    return 0;
}

// The pair (adapterIndex, displayIndex) is the first two 32-bit words of
// what the host passes.
struct DisplayPair {
    int adapter;
    int display;
};
DisplayPair PairOf(void* context) { return {ReadInt(context, 0), ReadInt(context, 4)}; }

bool AdlColorCaps(void* context, uint32_t& caps) {
    const DisplayPair pair = PairOf(context);
    AdlSession session;
    if (!session.opened()) return false;
    int supported = 0;
    int valid = 0;
    if (Adl<AdlColorCapsFn>(kAdlColorCaps)(session.get(), pair.adapter, pair.display, &supported, &valid) != kAdlOk)
        return false;
    caps = static_cast<uint32_t>(supported & valid);
    return true;
}

bool AdlColorRange(void* context, int colorType, ColorRange& range) {
    uint32_t caps = 0;
    if (!AdlColorCaps(context, caps) || (caps & static_cast<uint32_t>(colorType)) == 0) return false;
    const DisplayPair pair = PairOf(context);
    AdlSession session;
    if (!session.opened()) return false;
    return Adl<AdlColorGet>(kAdlColorGet)(session.get(), pair.adapter, pair.display, colorType, &range.current,
                                          &range.defaultValue, &range.minimum, &range.maximum,
                                          &range.step) == kAdlOk;
}

// Kelvin from the request's level, written back into the request. The upper
// clamp uses the range constant rather than the driver's maximum, and the
// brightness code runs the same computation: both as the drivers expect.
uint32_t AdlSetTemperature(void* context, int colorType, ColorTemperatureRequest* request) {
    const DisplayPair pair = PairOf(context);
    AdlSession session;
    if (!session.opened()) return 0;
    if (colorType == kColorTypeTemperature &&
        Adl<AdlTemperatureSource>(kAdlTemperatureSource)(session.get(), pair.adapter, pair.display,
                                                        kTemperatureSourceUser) != kAdlOk)
        return 0;
    ColorRange range{};
    if (!AdlColorRange(context, colorType, range)) return 0;
    int32_t level = torvex::display::KelvinFromLevel(request->level, request->range);
    request->level = level;
    const int32_t high = torvex::display::KelvinUpperBound(request->range);
    if (level < range.minimum) level = range.minimum;
    else if (level > high) level = high;
    if (level < range.minimum || level > high) return 0;
    return Adl<AdlColorSet>(kAdlColorSet)(session.get(), pair.adapter, pair.display, colorType, level) == kAdlOk ? 1
                                                                                                                  : 0;
}

// ---------------------------------------------------- graphics-driver server

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
    if (g_adlLoaded || !g_gfxComReady || !IsDisplayBackendReady()) return 1;
    if (request == nullptr) return 0;
    Ramp ramp = torvex::display::RampFromMatrix(torvex::display::WarmthMatrix(request->warmth, request->blueCut),
                                                g_adlLoaded);
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
    Ramp ramp = torvex::display::RampFromMatrix(
        torvex::display::ChannelMatrix(request->red, request->green, request->blue, request->level, request->strength),
        g_adlLoaded);
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

// ------------------------------------------------------------ Intel library

HMODULE LoadControlLib() {
    wchar_t name[MAX_PATH] = {};
    swprintf(name, MAX_PATH, L"%ls.dll", L"ControlLib");
    return LoadLibraryExW(name, nullptr, kControlLibSearch);
}

template <typename Fn>
Fn IgclEntry(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

uint32_t InitIgcl() {
    torvex::Library library(LoadControlLib());
    if (!library) return g_igclReady ? 1 : 0;
    void* api = nullptr;
    if (auto init = IgclEntry<IgclInit>(library.get(), "ctlInit")) {
        IgclInitArgs args{};
        args.size = sizeof(args);
        args.appVersion = 0x10000;
        if (init(&args, &api) == 0) g_igclReady = true;
    }
    if (auto close = IgclEntry<IgclClose>(library.get(), "ctlClose")) close(api);
    return g_igclReady ? 1 : 0;
}

uint32_t ApplyLut(HMODULE library, void* display, const torvex::display::Gains& gains, float level, float strength,
                  bool restore) {
    auto get = IgclEntry<IgclGet>(library, "ctlPixelTransformationGetConfig");
    auto set = IgclEntry<IgclSet>(library, "ctlPixelTransformationSetConfig");
    if (get == nullptr || set == nullptr) return kIgclMissingFunction;
    IgclGetConfig query{};
    query.size = sizeof(query);
    uint32_t result = get(display, &query);
    if (result != 0) return result;
    if (query.blockCount == 0) return kIgclNoBlocks;
    std::vector<IgclBlock> blocks(query.blockCount);
    for (IgclBlock& block : blocks) block.size = sizeof(IgclBlock);
    query.blocks = blocks.data();
    result = get(display, &query);
    if (result != 0) return result;
    const IgclBlock* lutBlock = nullptr;
    for (const IgclBlock& block : blocks)
        if (block.blockType == kBlockOneDLut) lutBlock = &block;
    if (lutBlock == nullptr) return kIgclNoBlocks;

    const uint32_t samples = lutBlock->lut.samplesPerChannel;
    IgclBlock custom = *lutBlock;
    custom.lut.channels = 3;
    std::vector<double> values;
    try {
        values.resize(static_cast<size_t>(samples) * 3);
    } catch (...) {
        torvex::DebugReport("LutConfig.Config.OneDLutConfig.pSampleValues is NULL", "SetGammaForAdl");
        return kIgclInvalidHandle;
    }
    const double v = (1.0 - strength) * std::min(std::floor(static_cast<double>(level)), 255.0) / 255.0;
    const double channel[3] = {gains.red, gains.green, (1.0 - v) * gains.blue};
    for (uint32_t c = 0; c < 3; ++c)
        for (uint32_t k = 0; k < samples; ++k)
            values[c * samples + k] = (samples > 1 ? static_cast<double>(k) / (samples - 1) : 0.0) * channel[c];
    custom.lut.sampleValues = values.data();
    IgclSetConfig request{};
    request.size = sizeof(request);
    request.operation = kOperationCustom;
    request.blockCount = 1;
    request.blocks = &custom;
    torvex::DebugReport("Set ctlPixelTransformationSetConfig", "SetGammaForAdl");
    result = set(display, &request);
    if (restore) {
        IgclSetConfig restoreRequest{};
        restoreRequest.size = sizeof(restoreRequest);
        restoreRequest.operation = kOperationRestore;
        restoreRequest.blockCount = query.blockCount;
        restoreRequest.blocks = blocks.data();
        result = set(display, &restoreRequest);
    }
    return result;
}

uint32_t SetGammaForAdl(const ChannelGainRequest* request, uint32_t mode, bool restore) {
    torvex::DebugMessage().Text("Enter ctl_result_t SetGammaForAdl").Value(static_cast<int>(g_igclReady)).Send(
        "SetGammaForAdl");
    const torvex::display::Gains gains =
        torvex::display::AdjustGains({request->red, request->green, request->blue}, mode);
    torvex::Library library(LoadControlLib());
    if (!library) {
        torvex::DebugReport("Enter hinstLib is NULL", "SetGammaForAdl");
        return kIgclNotLoaded;
    }
    void* api = nullptr;
    uint32_t result = kIgclMissingFunction;
    if (auto init = IgclEntry<IgclInit>(library.get(), "ctlInit")) {
        IgclInitArgs args{};
        args.size = sizeof(args);
        args.appVersion = 0x10000;
        result = init(&args, &api);
        if (result == 0) g_igclReady = true;
    }
    auto enumerateDevices = IgclEntry<IgclEnumerate>(library.get(), "ctlEnumerateDevices");
    auto enumerateOutputs = IgclEntry<IgclEnumerate>(library.get(), "ctlEnumerateDisplayOutputs");
    auto properties = IgclEntry<IgclDisplayProps>(library.get(), "ctlGetDisplayProperties");
    if (enumerateDevices == nullptr) {
        result = kIgclMissingFunction;
    } else {
        uint32_t deviceCount = 0;
        result = enumerateDevices(api, &deviceCount, nullptr);
        torvex::DebugMessage().Text("Enter pfnEnumerateDevices ").Value(result).Send("SetGammaForAdl");
        std::vector<void*> devices(deviceCount);
        if (result == 0 && deviceCount != 0) result = enumerateDevices(api, &deviceCount, devices.data());
        for (void* device : devices) {
            if (enumerateOutputs == nullptr || properties == nullptr) {
                result = kIgclMissingFunction;
                break;
            }
            uint32_t outputCount = 0;
            if (enumerateOutputs(device, &outputCount, nullptr) != 0 || outputCount == 0) continue;
            std::vector<void*> outputs(outputCount);
            if (enumerateOutputs(device, &outputCount, outputs.data()) != 0) continue;
            for (void* output : outputs) {
                IgclDisplayProperties props{};
                props.size = sizeof(props);
                if (properties(output, &props) != 0) continue;
                if ((props.configFlags & kDisplayActiveAttached) == kDisplayActiveAttached)
                    result = ApplyLut(library.get(), output, gains, request->level, request->strength, restore);
            }
        }
    }
    if (auto close = IgclEntry<IgclClose>(library.get(), "ctlClose")) close(api);
    return result;
}

// ------------------------------------------------------------ dispatch

bool Usable(void* context) {
    return (g_igclReady || g_gfxComReady || (g_adlLoaded && context != nullptr)) && IsDisplayBackendReady();
}

}  // namespace

uint32_t DisplayColorInit(void** out) {
    void* rawList = nullptr;
    if (GpInit(&rawList) == 0) return 0;
    std::unique_ptr<void, MallocFree> list(rawList);
    auto* adapters = static_cast<GpuAdapterList*>(rawList);
    if (adapters == nullptr || !IsDisplayBackendReady() || adapters->count == 0) return 1;
    for (uint32_t i = 0; i < adapters->count; ++i) {
        const wchar_t* name = adapters->records[i].name;
        if (std::wcsstr(name, L"AMD") != nullptr) return InitAdl(out);
        if (std::wcsstr(name, L"Intel") == nullptr) continue;
        if (g_gfxComReady) return 1;
        if (g_gfxServer != nullptr) {
            g_gfxServer->Release();
            g_gfxServer = nullptr;
        }
        // The server is created only when COM was already initialised on this
        // thread (or in the other model); a fresh initialisation skips it on
        // purpose and the Intel library is tried instead.
        if (CoInitializeEx(nullptr, COINIT_MULTITHREADED) != S_OK) {
            IGfxServer* server = nullptr;
            if (CreateGfxServer(server)) {
                g_gfxServer = server;
                g_gfxComReady = true;
                return 1;
            }
        }
        return InitIgcl();
    }
    return 1;
}

uint32_t DisplayColorQuery(void* context, uint32_t code, void* buffer, uint32_t size, uint32_t* returned) {
    if (!Usable(context)) return 0;
    if (g_gfxComReady) {
        if (code == HAL_DISPLAY_TEMPERATURE) return ChannelSettings(buffer, size, returned);
        if (code == HAL_DISPLAY_BRIGHTNESS) return torvex::display::QueryLight(&buffer, &size, &returned);
        return 0;
    }
    if (!g_adlLoaded || context == nullptr || buffer == nullptr || returned == nullptr) return 0;
    if (code == HAL_DISPLAY_COLOR_CAPS) {
        uint32_t caps = 0;
        if (size < sizeof(caps) || !AdlColorCaps(context, caps)) return 0;
        std::memcpy(buffer, &caps, sizeof(caps));
        *returned = sizeof(caps);
        return 1;
    }
    if (code == HAL_DISPLAY_TEMPERATURE || code == HAL_DISPLAY_BRIGHTNESS) {
        ColorRange range{};
        if (size < sizeof(range) ||
            !AdlColorRange(context, code == HAL_DISPLAY_TEMPERATURE ? kColorTypeTemperature : kColorTypeBrightness,
                           range))
            return 0;
        std::memcpy(buffer, &range, sizeof(range));
        *returned = sizeof(range);
        return 1;
    }
    return 0;
}

uint32_t DisplayColorSet(void* context, uint32_t code, void* input, uint32_t inputSize, uint32_t* arg5,
                         uint32_t arg6) {
    if (!Usable(context)) return 0;
    if (g_gfxComReady) {
        switch (code) {
        case HAL_DISPLAY_TEMPERATURE: return WarmthRamp(static_cast<const WarmthRequest*>(input));
        case HAL_DISPLAY_BRIGHTNESS: return torvex::display::SetLight(&input, &inputSize);
        case HAL_DISPLAY_WARMTH:
            return inputSize >= sizeof(WarmthRequest) ? WarmthRamp(static_cast<const WarmthRequest*>(input)) : 0;
        case HAL_DISPLAY_CHANNEL_GAINS:
            return inputSize >= sizeof(ChannelGainRequest) ? ChannelRamp(static_cast<const ChannelGainRequest*>(input))
                                                           : 0;
        default: return 0;
        }
    }
    if (g_adlLoaded && context != nullptr) {
        if (code == HAL_DISPLAY_WARMTH) code = HAL_DISPLAY_TEMPERATURE;  // the AMD library treats 5 as 2
        if ((code != HAL_DISPLAY_TEMPERATURE && code != HAL_DISPLAY_BRIGHTNESS) || arg5 == nullptr || input == nullptr)
            return 0;
        const int colorType = code == HAL_DISPLAY_TEMPERATURE ? kColorTypeTemperature : kColorTypeBrightness;
        uint32_t caps = 0;
        if (!AdlColorCaps(context, caps) || (caps & static_cast<uint32_t>(colorType)) == 0) return 0;
        return AdlSetTemperature(context, colorType, static_cast<ColorTemperatureRequest*>(input));
    }
    if (g_igclReady && input != nullptr) {
        if (code == HAL_DISPLAY_WARMTH && inputSize >= 8)
            return SetGammaForAdl(static_cast<const ChannelGainRequest*>(input), arg6, true) == 0 ? 1 : 0;
        if (code == HAL_DISPLAY_CHANNEL_GAINS && inputSize >= sizeof(ChannelGainRequest))
            return SetGammaForAdl(static_cast<const ChannelGainRequest*>(input), arg6, false) == 0 ? 1 : 0;
    }
    return 0;
}
