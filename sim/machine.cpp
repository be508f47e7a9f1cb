#include "machine.h"

#include <objbase.h>

#include <atomic>
#include <cctype>
#include <cwctype>
#include <stdexcept>

#include "source.h"
#include "vendor.h"

namespace torvex::sim {

const detail::SourceDef* const* SourceTable(size_t& count);

namespace detail {
namespace {

Context g_context;
std::atomic<bool> g_installed{false};

using CoCreateInstanceFn = HRESULT(WINAPI*)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*);
CoCreateInstanceFn g_realCoCreateInstance = nullptr;

// {4590F811-1D3A-11D0-891F-00AA004B2E24}
constexpr CLSID kWbemLocator = {0x4590F811, 0x1D3A, 0x11D0, {0x89, 0x1F, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24}};
// {BCDE0395-E52F-467C-8E3D-C4579291692E}
constexpr CLSID kDeviceEnumerator = {0xBCDE0395, 0xE52F, 0x467C, {0x8E, 0x3D, 0xC4, 0x57, 0x92, 0x91, 0x69, 0x2E}};

HRESULT WINAPI HookCoCreateInstance(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, LPVOID* out) {
    if (IsEqualCLSID(clsid, kWbemLocator)) return CreateWmiLocator(iid, out, g_realCoCreateInstance);
    if (IsEqualCLSID(clsid, kDeviceEnumerator)) return CreateAudioEnumerator(iid, out, g_realCoCreateInstance);
    return CreateOtherClass(clsid, outer, context, iid, out, g_realCoCreateInstance);
}

const Json* Walk(const Json* node, std::initializer_list<std::string> path) {
    for (const std::string& key : path) {
        node = Child(node, key);
        if (node == nullptr) return nullptr;
    }
    return node;
}

}  // namespace

Context& Active() { return g_context; }

std::atomic<long>& LiveComObjects() {
    static std::atomic<long> live{0};
    return live;
}
bool Installed() { return g_installed; }

const Json* Child(const Json* object, const std::string& key) {
    if (object == nullptr || !object->is_object()) return nullptr;
    auto exact = object->find(key);
    if (exact != object->end()) return &*exact;
    // Compared in place, without a lower-case copy of every member: a
    // recording adds members one at a time, each after a miss here.
    auto same = [&](const std::string& name) {
        if (name.size() != key.size()) return false;
        for (size_t i = 0; i < name.size(); ++i)
            if (name[i] != key[i] && std::tolower(static_cast<unsigned char>(name[i])) != std::tolower(static_cast<unsigned char>(key[i])))
                return false;
        return true;
    };
    for (auto it = object->begin(); it != object->end(); ++it)
        if (same(it.key())) return &*it;
    return nullptr;
}

Json& Slot(Json& object, const std::string& key) {
    if (!object.is_object()) object = Json::object();
    if (const Json* found = Child(&object, key)) return const_cast<Json&>(*found);
    return object[key];
}

const Json* Replayed(std::initializer_list<std::string> path) {
    Context& c = Active();
    return c.replay != nullptr ? Walk(&c.replay->doc(), path) : nullptr;
}

Json* ReplayedForChange(std::initializer_list<std::string> path) { return const_cast<Json*>(Replayed(path)); }

Json* KeepNode(std::initializer_list<std::string> path) {
    Context& c = Active();
    if (c.record == nullptr || !Installed()) return nullptr;
    Json* node = &c.record->doc();
    for (const std::string& key : path) node = &Slot(*node, key);
    return node;
}

Json* KeepObject(std::initializer_list<std::string> path) {
    Json* node = KeepNode(path);
    if (node != nullptr && !node->is_object()) *node = Json::object();
    return node;
}

void Keep(std::initializer_list<std::string> path, const Json& value) {
    if (Json* node = KeepNode(path)) *node = value;
}

bool Unchangeable(const char* source, const std::string& call) {
    Context& c = Active();
    if (!c.live() || !c.readOnly) return false;
    Note(source, call, "refused: this machine is not changed while it is recorded", true);
    return true;
}

void Note(const char* source, std::string call, std::string outcome, bool failed, std::string detail) {
    Context& c = Active();
    if (c.trace == nullptr || !Installed()) return;
    c.trace->Add({"", source, std::move(call), std::move(outcome), failed, std::move(detail)});
}

std::string Utf8(const wchar_t* text) { return text != nullptr ? Utf8(std::wstring_view(text)) : std::string(); }

std::string Hex(const void* data, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<const uint8_t*>(data)[i];
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
    }
    return out;
}

bool ParseHex(const std::string& text, std::vector<uint8_t>& bytes) {
    bytes.clear();
    int high = -1;
    for (char c : text) {
        if (c == ' ') continue;
        int digit;
        if (c >= '0' && c <= '9') digit = c - '0';
        else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
        else return false;
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    return high < 0;
}

std::string HresultText(long hr) {
    char text[16];
    snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

std::string HexNumber(unsigned long value) {
    char text[16];
    snprintf(text, sizeof(text), "0x%lX", value);
    return text;
}

long ParseHresult(const std::string& text) { return static_cast<long>(std::stoul(text, nullptr, 16)); }

unsigned long ErrorCode(const Json& value) {
    if (value.is_string()) return static_cast<unsigned long>(ParseHresult(value.get<std::string>()));
    if (value.is_number_unsigned()) return static_cast<unsigned long>(value.get<uint64_t>());
    return value.is_number_integer() ? static_cast<unsigned long>(value.get<int64_t>()) : 0;
}

std::string GuidText(const GUID& g) {
    char text[48];
    snprintf(text, sizeof(text), "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
             static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3],
             g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

bool ParseGuid(const std::string& text, GUID& guid) {
    if (text.size() != 38 || text.front() != '{' || text.back() != '}') return false;
    for (size_t i = 1; i < 37; ++i) {
        const bool dash = i == 9 || i == 14 || i == 19 || i == 24;
        if (dash ? text[i] != '-' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0) return false;
    }
    std::vector<uint8_t> tail;
    ParseHex(text.substr(20, 4) + text.substr(25, 12), tail);
    guid.Data1 = static_cast<unsigned long>(std::stoul(text.substr(1, 8), nullptr, 16));
    guid.Data2 = static_cast<unsigned short>(std::stoul(text.substr(10, 4), nullptr, 16));
    guid.Data3 = static_cast<unsigned short>(std::stoul(text.substr(15, 4), nullptr, 16));
    for (size_t i = 0; i < 8; ++i) guid.Data4[i] = tail[i];
    return true;
}

std::string Lower(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

}  // namespace detail

struct Machine::State {
    std::vector<ImportPatch> patches;
};

Machine::Machine(HMODULE library, MachineOptions options) : state_(std::make_unique<State>()) {
    using namespace detail;
    if (g_installed.exchange(true)) throw std::logic_error("a machine is already installed beneath the library");
    Context& c = Active();
    c.replay = options.replay;
    c.record = options.record;
    c.trace = options.trace;
    c.readOnly = options.readOnly;
    c.library = library;
    if (c.record != nullptr && c.record != c.replay) c.record->doc()["schema"] = kProfileSchema;

    Installer installer(library, state_->patches);
    size_t count = 0;
    const SourceDef* const* sources = SourceTable(count);
    for (size_t i = 0; i < count; ++i) sources[i]->install(installer);
    installer.Hook("CoCreateInstance", &HookCoCreateInstance, g_realCoCreateInstance);
}

Machine::~Machine() {
    using namespace detail;
    // Restore the imports first, newest patch first, then forget the state.
    while (!state_->patches.empty()) state_->patches.pop_back();
    size_t count = 0;
    const SourceDef* const* sources = SourceTable(count);
    for (size_t i = 0; i < count; ++i)
        if (sources[i]->reset != nullptr) sources[i]->reset();
    Context& c = Active();
    c.replay = nullptr;
    c.record = nullptr;
    c.trace = nullptr;
    c.readOnly = false;
    c.library = nullptr;
    g_installed = false;
}

bool Machine::Installed() { return detail::Installed(); }

Machine::Held Machine::Holding() {
    Held held;
    held.comObjects = detail::LiveComObjects();
    held.registryKeys = detail::HeldKeys();
    held.deviceSets = detail::HeldSets();
    held.files = detail::HeldFiles();
    held.wlanMemory = detail::HeldWlanMemory();
    held.vendorContexts = detail::HeldAdlContexts();
    held.vendorHandles = detail::HeldIgclHandles();
    held.vendorLibraries = detail::HeldVendorModules();
    held.vendorMemory = detail::HeldVendorMemory();
    held.graphicsServers = detail::LiveGraphicsServers();
    return held;
}

std::string Machine::Held::Describe() const {
    return std::to_string(comObjects) + " COM objects, " + std::to_string(registryKeys) + " registry keys, " +
           std::to_string(deviceSets) + " device sets, " + std::to_string(files) + " files, " +
           std::to_string(wlanMemory) + " Wlan blocks, " + std::to_string(vendorContexts) + " ADL contexts, " +
           std::to_string(vendorHandles) + " IGCL API handles, " + std::to_string(vendorLibraries) +
           " vendor libraries loaded, " + std::to_string(vendorMemory) + " vendor memory blocks";
}

void Machine::RecordVendorPresence() { detail::RecordVendorPresence(); }

}  // namespace torvex::sim
