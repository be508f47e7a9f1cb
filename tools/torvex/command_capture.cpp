// `torvex capture FILE [--redact]`: every query of every class and device,
// with the machine's answers kept in a profile. Nothing is set: capturing
// changes nothing on the machine.
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "tool.h"

namespace tool {
namespace {

// The last information code of each class; every code up to it is asked.
struct ClassCodes {
    HalDeviceType type;
    uint32_t last;
};
constexpr ClassCodes kClasses[] = {{HAL_CLASS_CPU, 18},    {HAL_CLASS_WIFI, 0},    {HAL_CLASS_MAINBOARD, 6},
                                   {HAL_CLASS_AUDIO, 7},   {HAL_CLASS_GPU, 29},    {HAL_CLASS_DISK, 11},
                                   {HAL_CLASS_BATTERY, 12}, {HAL_CLASS_MEMORY, 6}, {HAL_CLASS_DISPLAY, 6},
                                   {HAL_CLASS_DRIVER, 6},  {HAL_CLASS_ENCLAVE, 1}};

void AskEveryCode(const Api& api, HalDeviceType type, uint32_t last, void* device) {
    for (uint32_t code = 0; code <= last; ++code) {
        uint64_t buffer[512] = {};
        uint32_t written = 0;
        api.HalQueryInformation(type, device, code, buffer, sizeof(buffer), &written);
    }
}

// The devices of a class's record: where each entry starts, and how many.
std::vector<void*> Devices(HalDeviceType type, void* record) {
    std::vector<void*> devices;
    if (record == nullptr) return devices;
    auto* bytes = static_cast<uint8_t*>(record);
    HalListHeader header{};
    std::memcpy(&header, bytes, sizeof(header));
    size_t stride = 0;
    switch (type) {
    case HAL_CLASS_AUDIO: stride = sizeof(HalAudioDeviceRecord); break;
    case HAL_CLASS_DISK: stride = sizeof(HalDiskRecord); break;
    case HAL_CLASS_MEMORY: stride = sizeof(HalMemoryModuleEntry); break;
    case HAL_CLASS_DRIVER: stride = sizeof(HalDriverProblemList::captions[0]); break;
    default: return {record};  // the record itself is the device
    }
    for (uint32_t i = 0; i < header.count; ++i) devices.push_back(bytes + sizeof(header) + stride * i);
    return devices;
}

}  // namespace

void AskEverything() {
    const Api& api = Library();
    for (const ClassCodes& entry : kClasses) {
        RunTrace().Scope("class " + std::to_string(entry.type));
        const auto initialised = Init(entry.type);
        const bool ready = initialised.ready;
        void* record = initialised.get();
        if (entry.type == HAL_CLASS_CPU || entry.type == HAL_CLASS_MAINBOARD || entry.type == HAL_CLASS_BATTERY) {
            AskEveryCode(api, entry.type, entry.last, nullptr);
            continue;
        }
        if (!ready) continue;
        if (entry.type == HAL_CLASS_GPU && record == nullptr) {
            HalListHeader empty{sizeof(HalListHeader), 0};  // the screen facts answer on an empty list
            AskEveryCode(api, entry.type, entry.last, &empty);
        }
        for (void* device : Devices(entry.type, record)) {
            if (entry.type == HAL_CLASS_DISK) api.HalOpenDevice(entry.type, device);
            AskEveryCode(api, entry.type, entry.last, device);
            if (entry.type == HAL_CLASS_DISK) api.HalCloseDevice(entry.type, device);
        }
        if (entry.type == HAL_CLASS_DISPLAY)
            AskEveryCode(api, entry.type, entry.last, record != nullptr ? &static_cast<DisplayColorContext*>(record)->adapterIndex : nullptr);
        if (entry.type == HAL_CLASS_WIFI || entry.type == HAL_CLASS_AUDIO) api.HalCloseDevice(entry.type, record);
    }
}

namespace {

struct CloseFile {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using FileOwner = std::unique_ptr<void, CloseFile>;

// The file's identity, so that two spellings of one file, links included,
// compare equal: its volume and index, or where the system cannot say, its
// full path in lower case; nullopt when there is no such file.
std::optional<std::wstring> FileIdentity(const std::wstring& path) {
    HANDLE raw = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                             OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (raw == INVALID_HANDLE_VALUE) return std::nullopt;
    FileOwner file(raw);
    BY_HANDLE_FILE_INFORMATION info{};
    if (GetFileInformationByHandle(raw, &info))
        return std::to_wstring(info.dwVolumeSerialNumber) + L":" + std::to_wstring(info.nFileIndexHigh) + L":" +
               std::to_wstring(info.nFileIndexLow);
    wchar_t full[MAX_PATH] = {};
    const DWORD length = GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
    std::wstring identity = L"path:" + std::wstring(full, length < MAX_PATH ? length : 0);
    CharLowerBuffW(identity.data(), static_cast<DWORD>(identity.size()));
    return identity;
}

int RunCapture(const std::vector<std::wstring>& args) {
    std::wstring file;
    bool redact = false, force = false;
    for (const auto& arg : args) {
        if (arg == L"--redact") redact = true;
        else if (arg == L"--force") force = true;
        else if (file.empty() && !arg.empty() && arg[0] != L'-') file = arg;
        else return UsageError("capture", "unexpected argument " + Utf8(arg));
    }
    if (file.empty()) return UsageError("capture", "expected the profile file to write");
    // Checked before anything is recorded: the profile being replayed is
    // never written over, another existing file only when asked to.
    const auto target = FileIdentity(file);
    if (target && !ReplayedFile().empty() && target == FileIdentity(ReplayedFile()))
        return UsageError("capture", Utf8(file) + " is the profile being replayed; capture into another file");
    if (target && !force) return UsageError("capture", Utf8(file) + " exists; give --force to write over it");
    torvex::sim::Profile profile;
    if (!RecordInto(&profile)) {
        PrintError("torvex capture: the library runs beneath another machine; nothing can be recorded");
        return kExitRefused;
    }
    AskEverything();
    RecordVendorPresence();
    RecordInto(nullptr);
    try {
        if (redact) torvex::sim::Redact(profile);
    } catch (const torvex::sim::ProfileError& e) {
        PrintError(std::string("torvex capture: ") + e.what());
        return kExitRefused;
    }
    profile.doc()["machine"] = {{"captured_by", "torvex " TORVEX_VERSION_TEXT}, {"redacted", redact}};
    try {
        profile.Save(file);
    } catch (const torvex::sim::ProfileError& e) {
        PrintError(std::string("torvex capture: ") + e.what());
        return kExitUsage;
    }
    PrintLine("captured " + std::string(redact ? "and redacted " : "") + "this machine's answers into " + Utf8(file));
    return kExitOk;
}

const CommandRegistration kCapture("capture", "capture FILE [--redact] [--force]",
                                   "record every answer the machine gives the library into a profile (changes nothing)",
                                   "torvex capture laptop.json --redact", RunCapture);

}  // namespace
}  // namespace tool
