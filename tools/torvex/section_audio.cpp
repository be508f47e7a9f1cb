// Report section: Audio codecs (class 5), and the codec facts shared with the
// "codecs" command.
#include "audio_facts.h"

namespace tool {

std::string WideAnswer(HalDeviceType type, void* record, uint32_t code, bool* ok) {
    uint8_t buffer[1024];
    uint32_t written = 0;
    *ok = Library().HalQueryInformation(type, record, code, buffer, sizeof(buffer), &written) != 0 &&
          written <= sizeof(buffer);
    if (!*ok) return {};
    return Utf8(reinterpret_cast<const wchar_t*>(buffer), written / sizeof(wchar_t));
}

bool CodecSections(std::vector<Section>& codecs, std::string& note) {
    const Api& api = Library();
    const auto list = Init<HalAudioDeviceList>(HAL_CLASS_AUDIO);
    if (!list.ready) {
        note = Refused(HAL_CLASS_AUDIO, "no Realtek or Conexant codec in the media class");
        return false;
    }
    struct TextFact {
        const char* name;
        uint32_t code;
    };
    const TextFact texts[] = {{"description", 1}, {"manufacturer", 2}, {"driver version", 7}};
    for (uint32_t i = 0; i < list.get()->count; ++i) {
        HalAudioDeviceRecord* record = &list.get()->records[i];
        Section item;
        item.key = "codec";
        item.title = "codec " + std::to_string(i);
        for (const auto& fact : texts) {
            bool ok = false;
            const std::string value = WideAnswer(HAL_CLASS_AUDIO, record, fact.code, &ok);
            if (ok)
                item.Text(fact.name, value);
            else
                item.Missing(fact.name, "query " + std::to_string(fact.code) + " refused");
        }
        uint32_t problem = 0;
        uint32_t written = 0;
        if (api.HalQueryInformation(HAL_CLASS_AUDIO, record, 6, &problem, sizeof(problem), &written))
            item.Number("problem code", problem);
        else
            item.Missing("problem code", "query 6 refused");
        codecs.push_back(std::move(item));
    }
    api.HalCloseDevice(HAL_CLASS_AUDIO, list.get());
    return true;
}

namespace {

void Fill(Section& section) {
    std::vector<Section> codecs;
    if (!CodecSections(codecs, section.note)) return;
    section.Number("codecs", static_cast<double>(codecs.size()));
    // The endpoint controls answer only once an endpoint interface is held.
    uint32_t value = 0;
    uint32_t written = 0;
    if (Library().HalQueryInformation(HAL_CLASS_AUDIO, nullptr, 3, &value, sizeof(value), &written))
        section.Number("speaker volume", value, "%");
    else
        section.Missing("speaker volume", "no endpoint volume interface held", "%");
    section.children = std::move(codecs);
}

const SectionRegistration kSection(80, "audio", "Audio codecs", Fill);

}  // namespace
}  // namespace tool
