// Redaction of a profile before it leaves the machine: serial numbers,
// unique identifiers and the unique parts of device instance IDs become
// placeholders derived from what they replace, so the same input always
// gives the same placeholder and the profile still replays.
#include <algorithm>
#include <cstdio>
#include <map>
#include <set>

#include "profile.h"
#include "source.h"

namespace torvex::sim {
namespace {

using detail::Lower;

// WMI properties and registry values that identify one machine or part.
const char* const kIdentifying[] = {"serialnumber", "identifyingnumber", "uuid", "processorid", "serial"};

uint32_t Fnv(const std::string& text) {
    uint32_t hash = 2166136261u;
    for (unsigned char c : text) hash = (hash ^ c) * 16777619u;
    return hash;
}

std::string Placeholder(const std::string& secret) {
    char text[32];
    std::snprintf(text, sizeof(text), "REDACTED-%08X", Fnv(secret));
    return text;
}

std::string GuidPlaceholder(const std::string& guid) {
    const uint32_t a = Fnv(guid), b = Fnv(guid + "#");
    char text[48];
    std::snprintf(text, sizeof(text), "{%08X-0000-4000-8000-%08X0000}", a, b);
    return text;
}

bool Identifying(const std::string& name) {
    const std::string lower = Lower(name);
    for (const char* word : kIdentifying)
        if (lower == word || (std::string(word) == "serial" && lower.find(word) != std::string::npos)) return true;
    return false;
}

struct Secrets {
    std::map<std::string, std::string> whole;      // exact text -> placeholder
    std::map<std::string, std::string> fragments;  // lower-case fragment -> placeholder (also inside other texts)
};

void AddWhole(Secrets& secrets, const Json& value) {
    if (!value.is_string()) return;
    std::string text = value.get<std::string>();
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos || text.size() - first < 4) return;  // blank or too short to identify anything
    secrets.whole[text] = Placeholder(text.substr(first));
}

// "PCI\VEN_8086&DEV_9A49\3&11583659&0&10": the last part is unique to the machine.
void AddInstanceId(Secrets& secrets, const std::string& id) {
    const size_t slash = id.find_last_of('\\');
    if (slash == std::string::npos) return;
    const std::string unique = id.substr(slash + 1);
    if (unique.size() < 6) return;
    secrets.fragments[Lower(unique)] = Placeholder(unique);
}

// A member of an object, or an empty object or array when it has none.
const Json& Member(const Json& object, const char* key, const Json& empty) {
    const Json* found = detail::Child(&object, key);
    return found != nullptr ? *found : empty;
}

void Collect(const Json& doc, Secrets& secrets) {
    const Json noObject = Json::object(), noArray = Json::array();
    for (const auto& [ns, entry] : Member(doc, "wmi", noObject).items())
        for (const auto& [query, answer] : Member(entry, "queries", noObject).items())
            for (const Json& row : Member(answer, "rows", noArray))
                for (const auto& [property, value] : row.items())
                    if (Identifying(property)) AddWhole(secrets, value);
    for (const auto& [path, values] : Member(doc, "registry", noObject).items())
        if (values.is_object())
            for (const auto& [name, value] : values.items())
                if (Identifying(name) && value.is_object())
                    for (const auto& [type, data] : value.items()) AddWhole(secrets, data);
    const Json& devices = Member(doc, "devices", noObject);
    for (const auto& [key, ids] : Member(devices, "sets", noObject).items())
        for (const Json& id : ids) AddInstanceId(secrets, id.get<std::string>());
    for (const auto& [id, node] : Member(devices, "nodes", noObject).items()) AddInstanceId(secrets, id);
    for (const Json& item : Member(Member(doc, "wlan", noObject), "interfaces", noArray))
        if (item.contains("guid")) secrets.fragments[Lower(item["guid"].get<std::string>())] = GuidPlaceholder(item["guid"]);
}

std::string Scrub(const std::string& text, const Secrets& secrets) {
    auto whole = secrets.whole.find(text);
    if (whole != secrets.whole.end()) return whole->second;
    std::string out = text;
    for (const auto& [fragment, placeholder] : secrets.fragments) {
        for (size_t at = Lower(out).find(fragment); at != std::string::npos; at = Lower(out).find(fragment, at + placeholder.size()))
            out.replace(at, fragment.size(), placeholder);
    }
    return out;
}

Json Walk(const Json& value, const Secrets& secrets) {
    if (value.is_string()) return Scrub(value.get<std::string>(), secrets);
    if (value.is_array()) {
        Json out = Json::array();
        for (const Json& item : value) out.push_back(Walk(item, secrets));
        return out;
    }
    if (value.is_object()) {
        Json out = Json::object();
        for (const auto& [key, item] : value.items()) out[Scrub(key, secrets)] = Walk(item, secrets);
        return out;
    }
    return value;
}

}  // namespace

void Redact(Profile& profile) {
    Secrets secrets;
    Collect(profile.doc(), secrets);
    profile.doc() = Walk(profile.doc(), secrets);
    profile.doc()["schema"] = kProfileSchema;
}

}  // namespace torvex::sim
