// The AMD Display Library back end of display colour: atiadlxx.dll from the
// system directory, loaded once and kept for the process. Every operation
// opens and closes an ADL context of its own.
#include <windows.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "common/codec.h"
#include "common/win_resource.h"
#include "display/color_backend.h"
#include "display/display_math.h"
#include "torvex.h"

namespace torvex::display {
namespace {

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

// Set once, never cleared.
bool g_adlLoaded = false;
void* g_adl[kAdlCount] = {};

template <typename Fn>
Fn Adl(size_t entry) {
    return reinterpret_cast<Fn>(g_adl[entry]);
}

void* __stdcall AdlMalloc(int size) { return AllocateRecord(static_cast<size_t>(size)); }

bool LoadAdl() {
    if (g_adlLoaded) return true;
    wchar_t directory[MAX_PATH] = {};
    GetSystemDirectoryW(directory, MAX_PATH);
    torvex::Library module(LoadLibraryW((std::wstring(directory) + L"\\atiadlxx.dll").c_str()));
    if (!module) return false;
    void* entries[kAdlCount] = {};
    for (size_t i = 0; i < kAdlCount; ++i) {
        entries[i] = reinterpret_cast<void*>(GetProcAddress(module.get(), kAdlNames[i]));
        if (entries[i] == nullptr) return false;  // freed again: an incomplete library is not kept
    }
    std::memcpy(g_adl, entries, sizeof(entries));
    module.release();  // loaded for the rest of the process: the entry points stay in use
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

int32_t ReadInt(const void* base, size_t offset) {
    int32_t value = 0;
    std::memcpy(&value, static_cast<const uint8_t*>(base) + offset, sizeof(value));
    return value;
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
    int32_t level = KelvinFromLevel(request->level, request->range);
    request->level = level;
    const int32_t high = KelvinUpperBound(request->range);
    if (level < range.minimum) level = range.minimum;
    else if (level > high) level = high;
    if (level < range.minimum || level > high) return 0;
    return Adl<AdlColorSet>(kAdlColorSet)(session.get(), pair.adapter, pair.display, colorType, level) == kAdlOk ? 1
                                                                                                                  : 0;
}

class AdlColorBackend final : public ColorBackend {
public:
    bool Chosen(const void* context) const override { return g_adlLoaded && context != nullptr; }

    bool Intact() const override {
        if (g_adlLoaded)
            for (void* entry : g_adl)
                if (entry == nullptr) return false;
        return true;
    }

    uint32_t Query(void* context, uint32_t code, void* buffer, uint32_t size, uint32_t* returned) override {
        if (buffer == nullptr || returned == nullptr) return 0;
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

    uint32_t Set(void* context, uint32_t code, void* input, uint32_t, uint32_t* arg5, uint32_t) override {
        if (code == HAL_DISPLAY_WARMTH) code = HAL_DISPLAY_TEMPERATURE;  // the AMD library treats 5 as 2
        if ((code != HAL_DISPLAY_TEMPERATURE && code != HAL_DISPLAY_BRIGHTNESS) || arg5 == nullptr || input == nullptr)
            return 0;
        const int colorType = code == HAL_DISPLAY_TEMPERATURE ? kColorTypeTemperature : kColorTypeBrightness;
        uint32_t caps = 0;
        if (!AdlColorCaps(context, caps) || (caps & static_cast<uint32_t>(colorType)) == 0) return 0;
        return AdlSetTemperature(context, colorType, static_cast<ColorTemperatureRequest*>(input));
    }
};

AdlColorBackend g_backend;

}  // namespace

uint32_t InitAdl(void** out) {
    if (!LoadAdl()) return 0;
    AdlSession session;
    if (!session.opened()) return 0;
    void* rawInfo = nullptr;
    int adapters = 0;
    const int infoResult = Adl<AdlAdapterInfoX2>(kAdlAdapterInfoX2)(session.get(), &rawInfo);
    torvex::RecordBlock info(rawInfo);
    if (infoResult != kAdlOk || Adl<AdlAdapterCount>(kAdlAdapterCount)(session.get(), &adapters) != kAdlOk ||
        info == nullptr)
        return 0;
    for (int a = 0; a < adapters; ++a) {
        const int32_t adapterIndex = ReadInt(info.get(), kAdapterInfoBytes * static_cast<size_t>(a) + 4);
        int displayCount = 0;
        void* rawDisplays = nullptr;
        Adl<AdlDisplayInfo>(kAdlDisplayInfo)(session.get(), adapterIndex, &displayCount, &rawDisplays, 0);
        torvex::RecordBlock displays(rawDisplays);
        if (displays == nullptr) continue;
        for (int d = 0; d < displayCount; ++d) {
            const size_t base = kDisplayInfoBytes * static_cast<size_t>(d);
            const int32_t infoValue = ReadInt(displays.get(), base + kDisplayInfoBytes - 4);
            if ((infoValue & kDisplayMapped) == 0 || ReadInt(displays.get(), base + 8) != adapterIndex) continue;
            auto* context = static_cast<DisplayColorContext*>(AllocateRecord(sizeof(DisplayColorContext)));
            if (context == nullptr) return 0;
            *context = DisplayColorContext{sizeof(DisplayColorContext), 1, adapterIndex, ReadInt(displays.get(), base)};
            *out = context;
            return 1;
        }
    }
    return 0;
}

bool AdlLoaded() { return g_adlLoaded; }

ColorBackend& AdlBackend() { return g_backend; }

}  // namespace torvex::display
