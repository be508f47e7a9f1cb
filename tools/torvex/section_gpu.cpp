// Report section: GPU and screen (class 6).
#include <tuple>

#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) {
    const Api& api = Library();
    const auto adapters = Init(HAL_CLASS_GPU);
    if (!adapters.ready) {
        section.note = Refused(HAL_CLASS_GPU);
        return;
    }
    // Without adapters there is no list; the screen facts still answer on an empty one.
    HalListHeader empty{sizeof(HalListHeader), 0};
    void* list = adapters.get() != nullptr ? adapters.get() : &empty;
    const uint32_t count = static_cast<HalListHeader*>(list)->count;
    section.Number("adapters", count);
    struct Adapter {
        const char* key;
        uint32_t first;  // name, status, driver version, driver date
        uint32_t memory;
        uint32_t problem;
    };
    for (const Adapter& a : {Adapter{"discrete", HAL_GPU_DISCRETE_NAME, HAL_GPU_DISCRETE_MEMORY_MIB,
                                     HAL_GPU_DISCRETE_PROBLEM_CODE},
                             Adapter{"integrated", HAL_GPU_INTEGRATED_NAME, HAL_GPU_INTEGRATED_MEMORY_MIB,
                                     HAL_GPU_INTEGRATED_PROBLEM_CODE}}) {
        Section item;
        item.key = a.key;
        item.title = std::string(a.key) + " adapter";
        item.Text("kind", a.key);
        // The library's reading of one WMI text, which hybrid-graphics laptops often give the other way round.
        item.Source("the library's reading of the adapter's Win32_VideoController AdapterDACType: \"Integrated\" in it "
                    "counts as integrated, anything else as discrete");
        const char* names[] = {"name", "status", "driver version", "driver date"};
        for (uint32_t i = 0; i < 4; ++i) {
            wchar_t text[300] = {};
            uint32_t written = 0;
            if (api.HalQueryInformation(HAL_CLASS_GPU, list, a.first + i, text, sizeof(text), &written))
                item.Text(names[i], Utf8(text, written / sizeof(wchar_t)));
            else
                item.Missing(names[i], "no such adapter, or not reported");
        }
        uint32_t value = 0, written = 0;
        if (api.HalQueryInformation(HAL_CLASS_GPU, list, a.memory, &value, 4, &written))
            item.Number("dedicated memory", value, "MiB");
        if (api.HalQueryInformation(HAL_CLASS_GPU, list, a.problem, &value, 4, &written))
            item.Number("problem code", value);
        section.children.push_back(std::move(item));
    }
    wchar_t text[64] = {};
    uint32_t written = 0;
    if (api.HalQueryInformation(HAL_CLASS_GPU, list, HAL_GPU_RESOLUTION_TEXT, text, sizeof(text), &written))
        section.Text("resolution", Utf8(text, written / sizeof(wchar_t)));
    if (api.HalQueryInformation(HAL_CLASS_GPU, list, HAL_GPU_MONITOR_ID, text, sizeof(text), &written))
        section.Text("monitor", Utf8(text, written / sizeof(wchar_t)));
    else
        section.Missing("monitor", "no desktop monitor reported");
    for (auto [code, name, unit] : {std::tuple{HAL_GPU_REFRESH_RATE_HZ, "refresh rate", "Hz"},
                                    std::tuple{HAL_GPU_COLOR_DEPTH_BPP, "colour depth", "bits per pixel"}}) {
        uint32_t value = 0;
        if (api.HalQueryInformation(HAL_CLASS_GPU, list, code, &value, 4, &written)) section.Number(name, value, unit);
        else section.Missing(name, "not reported", unit);
    }
}

const SectionRegistration kSection(60, "gpu", "GPU and screen", Fill);

}  // namespace
}  // namespace tool
