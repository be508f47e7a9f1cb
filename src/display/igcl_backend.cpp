// The Intel Graphics Control Library back end of display colour, used on
// Intel machines without the graphics driver's server: ControlLib.dll is
// loaded and freed again by every operation, and the channel gains go to the
// one-dimensional lookup table of every active, attached display.
#include <windows.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cwchar>
#include <vector>

#include "common/debug_message.h"
#include "common/win_resource.h"
#include "display/color_backend.h"
#include "display/display_math.h"
#include "torvex.h"

namespace torvex::display {
namespace {

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
// Set once, never cleared.
bool g_igclReady = false;

HMODULE LoadControlLib() {
    wchar_t name[MAX_PATH] = {};
    swprintf(name, MAX_PATH, L"%ls.dll", L"ControlLib");
    return LoadLibraryExW(name, nullptr, kControlLibSearch);
}

template <typename Fn>
Fn IgclEntry(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

uint32_t ApplyLut(HMODULE library, void* display, const Gains& gains, float level, float strength,
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
    const Gains gains =
        AdjustGains({request->red, request->green, request->blue}, mode);
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

class IgclColorBackend final : public ColorBackend {
public:
    bool Chosen(const void*) const override { return g_igclReady; }

    uint32_t Query(void*, uint32_t, void*, uint32_t, uint32_t*) override { return 0; }  // answers no query

    uint32_t Set(void*, uint32_t code, void* input, uint32_t inputSize, uint32_t*, uint32_t arg6) override {
        if (input == nullptr) return 0;
        if (code == HAL_DISPLAY_WARMTH && inputSize >= 8)
            return SetGammaForAdl(static_cast<const ChannelGainRequest*>(input), arg6, true) == 0 ? 1 : 0;
        if (code == HAL_DISPLAY_CHANNEL_GAINS && inputSize >= sizeof(ChannelGainRequest))
            return SetGammaForAdl(static_cast<const ChannelGainRequest*>(input), arg6, false) == 0 ? 1 : 0;
        return 0;
    }
};

IgclColorBackend g_backend;

}  // namespace

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

ColorBackend& IgclBackend() { return g_backend; }

}  // namespace torvex::display
