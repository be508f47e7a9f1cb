// Report section and commands for display colour and brightness (class 19).
#include <cstdint>

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
    Record<DisplayColorContext> context;
    std::string name;
    void* pair() const { return context != nullptr ? &context->adapterIndex : nullptr; }
};

// Which back end the library chose, from what its initialisation did. The
// library chooses once for its process and does not ask the server again.
DisplayBackend OpenBackend() {
    static std::string chosen;
    auto initialised = Init<DisplayColorContext>(HAL_CLASS_DISPLAY);
    DisplayBackend backend{initialised.ready, std::move(initialised.record), {}};
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
}

const SectionRegistration kSection(70, "display", "Display colour and brightness", Fill);

// The display commands by word and count of numbers, with the largest value
// of each number: every argument is checked before the back end is opened.
struct DisplayForm {
    const wchar_t* word;
    size_t count;
    uint64_t highest[3];
    const char* range;
};
constexpr DisplayForm kForms[] = {
    {L"brightness", 0, {}, ""},
    {L"brightness", 1, {100}, "brightness goes from 0 to 100"},
    {L"temperature", 2, {255, INT32_MAX}, "the level goes from 0 to 255 and the range from 0 to 2147483647"},
    {L"warmth", 2, {255, 255}, "warmth and blue cut go from 0 to 255"},
    {L"gains", 3, {100, 100, 100}, "gains are percentages from 0 to 100"},
};

int RunDisplay(const std::vector<std::wstring>& args) {
    if (args.empty()) return UsageError("display", "expected brightness, temperature, warmth or gains");
    const std::wstring what = args[0];
    bool known = false;
    const DisplayForm* form = nullptr;
    for (const DisplayForm& entry : kForms) {
        known = known || what == entry.word;
        if (what == entry.word && args.size() - 1 == entry.count) form = &entry;
    }
    if (!known) return UsageError("display", "unknown display command " + Utf8(what));
    if (form == nullptr) return UsageError("display", "wrong number of values for " + Utf8(what));
    std::vector<uint64_t> numbers;
    for (size_t i = 1; i < args.size(); ++i) {
        const auto value = ParseNumber(args[i]);
        if (!value) return UsageError("display", "malformed number " + Utf8(args[i]));
        if (*value > form->highest[i - 1]) return UsageError("display", form->range);
        numbers.push_back(*value);
    }
    const Api& api = Library();
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
    } else if (what == L"brightness") {
        uint32_t percent = static_cast<uint32_t>(numbers[0]);
        result = api.HalSetInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_BRIGHTNESS, &percent, 4, &written, 0);
        done = "brightness set to " + std::to_string(percent) + " %";
    } else if (what == L"temperature") {
        ColorTemperatureRequest request{static_cast<int32_t>(numbers[0]), static_cast<int32_t>(numbers[1])};
        result = api.HalSetInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_TEMPERATURE, &request, sizeof(request), &written, 0);
        done = "colour temperature set to " + std::to_string(request.level) + " K";
    } else if (what == L"warmth") {
        WarmthRequest request{static_cast<uint32_t>(numbers[0]), static_cast<uint32_t>(numbers[1])};
        result = api.HalSetInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_WARMTH, &request, sizeof(request), &written, 0);
        done = "warmth set to " + std::to_string(request.warmth) + ", blue cut " + std::to_string(request.blueCut);
    } else {
        ChannelGainRequest request{numbers[0] / 100.0f, numbers[1] / 100.0f, numbers[2] / 100.0f, 0.0f, 1.0f};
        result = api.HalSetInformation(HAL_CLASS_DISPLAY, backend.pair(), HAL_DISPLAY_CHANNEL_GAINS, &request, sizeof(request), &written, 0);
        done = "channel gains set";
    }
    const std::string served = backend.name;
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
