// Report section: Devices with driver problems (class 20).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) {
    const Api& api = Library();
    const auto devices = Init<HalDriverProblemList>(HAL_CLASS_DRIVER);
    if (!devices.ready) {
        section.note = Refused(HAL_CLASS_DRIVER, "no device with a problem", "none reported");
        return;
    }
    HalDriverProblemList* list = devices.get();
    section.Number("devices", list->count);
    struct TextFact {
        const char* name;
        uint32_t code;
    };
    const TextFact texts[] = {{"caption", 0},      {"device ID", 1}, {"class GUID", 2},
                              {"manufacturer", 4}, {"service", 5},   {"status", 6}};
    for (uint32_t i = 0; i < list->count; ++i) {
        wchar_t* caption = list->captions[i];
        Section item;
        item.key = "device";
        item.title = "device " + std::to_string(i);
        if (caption[0] == L'\0') {
            item.Missing("caption", "too long for its field");
            section.children.push_back(std::move(item));
            continue;
        }
        for (const auto& fact : texts) {
            char buffer[1024];
            uint32_t written = 0;
            if (api.HalQueryInformation(HAL_CLASS_DRIVER, caption, fact.code, buffer, sizeof(buffer), &written) &&
                written < sizeof(buffer))
                item.Text(fact.name, FromAnsi(buffer, written));
            else
                item.Missing(fact.name, "query " + std::to_string(fact.code) + " refused");
        }
        uint32_t error = 0;
        uint32_t unused = 0;
        if (api.HalQueryInformation(HAL_CLASS_DRIVER, caption, 3, &error, sizeof(error), &unused))
            item.Number("error code", error);
        else
            item.Missing("error code", "query 3 refused");
        section.children.push_back(std::move(item));
    }
}

const SectionRegistration kSection(90, "drivers", "Devices with driver problems", Fill);

}  // namespace
}  // namespace tool
