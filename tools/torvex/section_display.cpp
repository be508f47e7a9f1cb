// Report section and commands for display colour and brightness (class 19).
#include "tool.h"

namespace tool {
namespace {

constexpr char kAmd[] = "AMD Display Library";
constexpr char kServer[] = "graphics driver's COM server";
constexpr char kIntel[] = "Intel Graphics Control Library";
constexpr char kNone[] = "none (no adapter named AMD or Intel)";

// The back end answers through the context the AMD library hands out, or
// without one for the driver's COM server and the Intel library. Queries and
// sets take the (adapter, display) pair, which starts at the context's third word.
struct DisplayBackend {
    bool ready = false;
    DisplayColorContext* context = nullptr;
    std::string name;
    void* pair() const { return context != nullptr ? &context->adapterIndex : nullptr; }
};

// Which back end the library chose, from what its initialisation did. The
// library chooses once for its process and does not ask the server again.
DisplayBackend OpenBackend() {
    static std::string chosen;
    DisplayBackend backend;
    void* out = nullptr;
    backend.ready = Library().HalInit(HAL_CLASS_DISPLAY, &out) != 0;
    backend.context = static_cast<DisplayColorContext*>(out);
    if (backend.context != nullptr) chosen = kAmd;
    else if (CalledSince("com", "graphics driver server", "created")) chosen = kServer;
    else if (CalledSince("library", "ControlLib.dll", "loaded")) chosen = kIntel;
    backend.name = chosen.empty() ? kNone : chosen;
    return backend;
}

void Fill(Section& section) {
    const Api& api = Library();
    DisplayBackend backend = OpenBackend();
    if (!backend.ready) {
        section.note = Refused(HAL_CLASS_DISPLAY, "no display back end");
        return;
    }
    section.Text("back end", backend.name);
    uint32_t written = 0;
    if (backend.name == kAmd) {
        // The AMD library's colours: the temperature in kelvin and a brightness adjustment around 0.
        ColorRange range{};
        if (api.HalQueryInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_TEMPERATURE, &range, sizeof(range), &written))
            section.Number("colour temperature", range.current, "K");
        else
            section.Missing("colour temperature", "the library does not offer it for this display", "K");
        section.Absent("brightness", "the AMD Display Library gives a brightness adjustment, not a percentage", "%");
        if (api.HalQueryInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_BRIGHTNESS, &range, sizeof(range), &written))
            section.Number("brightness adjustment", range.current);
        else
            section.Missing("brightness adjustment", "the library does not offer it for this display");
    } else if (backend.name == kServer) {
        BrightnessRange range{};
        if (api.HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_BRIGHTNESS, &range, sizeof(range), &written))
            section.Number("brightness", range.current, "%");
        else
            section.Missing("brightness", "not in the active power scheme", "%");
        section.Source("the active power scheme's video brightness for the current power source");
    } else {
        section.Absent("brightness", backend.name == kIntel ? "the Intel Graphics Control Library answers no query"
                                                            : "no display back end on this machine", "%");
    }
    FreeRecord(backend.context);
}

const SectionRegistration kSection(70, "display", "Display colour and brightness", Fill);

int RunDisplay(const std::vector<std::wstring>& args) {
    if (args.empty()) return UsageError("display", "expected brightness, temperature, warmth or gains");
    const Api& api = Library();
    const std::wstring what = args[0];
    std::vector<uint64_t> numbers;
    for (size_t i = 1; i < args.size(); ++i) {
        const auto value = ParseNumber(args[i]);
        if (!value) return UsageError("display", "malformed number " + Utf8(args[i]));
        numbers.push_back(*value);
    }
    DisplayBackend backend = OpenBackend();
    if (!backend.ready) {
        PrintError("torvex display: HalInit(19) refused");
        return kExitRefused;
    }
    uint32_t written = 0;
    uint32_t result = 0;
    std::string done;
    if (what == L"brightness" && numbers.empty()) {
        BrightnessRange range{};
        result = api.HalQueryInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_BRIGHTNESS, &range, sizeof(range), &written);
        done = "brightness " + std::to_string(range.current) + " %";
    } else if (what == L"brightness" && numbers.size() == 1) {
        if (numbers[0] > 100) return UsageError("display", "brightness goes from 0 to 100");
        uint32_t percent = static_cast<uint32_t>(numbers[0]);
        result = api.HalSetInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_BRIGHTNESS, &percent, 4, &written, 0);
        done = "brightness set to " + std::to_string(percent) + " %";
    } else if (what == L"temperature" && numbers.size() == 2) {
        if (numbers[0] > 255) return UsageError("display", "the level goes from 0 to 255");
        ColorTemperatureRequest request{static_cast<int32_t>(numbers[0]), static_cast<int32_t>(numbers[1])};
        result = api.HalSetInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_TEMPERATURE, &request, sizeof(request), &written, 0);
        done = "colour temperature set to " + std::to_string(request.level) + " K";
    } else if (what == L"warmth" && numbers.size() == 2) {
        if (numbers[0] > 255 || numbers[1] > 255) return UsageError("display", "warmth and blue cut go from 0 to 255");
        WarmthRequest request{static_cast<uint32_t>(numbers[0]), static_cast<uint32_t>(numbers[1])};
        result = api.HalSetInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_WARMTH, &request, sizeof(request), &written, 0);
        done = "warmth set to " + std::to_string(request.warmth) + ", blue cut " + std::to_string(request.blueCut);
    } else if (what == L"gains" && numbers.size() == 3) {
        for (uint64_t n : numbers)
            if (n > 100) return UsageError("display", "gains are percentages from 0 to 100");
        ChannelGainRequest request{numbers[0] / 100.0f, numbers[1] / 100.0f, numbers[2] / 100.0f, 0.0f, 1.0f};
        result = api.HalSetInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_CHANNEL_GAINS, &request, sizeof(request), &written, 0);
        done = "channel gains set";
    } else {
        FreeRecord(backend.context);
        return UsageError("display", "unknown display command " + Utf8(what));
    }
    const std::string served = backend.name;
    FreeRecord(backend.context);
    if (!result) {
        PrintError("torvex display: the library refused (" + served + ")");
        return kExitRefused;
    }
    PrintLine(done + " (" + served + ")");
    return kExitOk;
}

const CommandRegistration kDisplay(
    "display", "display brightness [PERCENT] | temperature LEVEL RANGE | warmth WARMTH BLUECUT | gains R G B",
    "read or set brightness, colour temperature, warmth and per-channel gains (percent)",
    "torvex display brightness 70", RunDisplay);

}  // namespace
}  // namespace tool
