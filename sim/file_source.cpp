// Devices opened as files, their I/O-control answers, and the free space of
// volumes. Raw sectors are never recorded: under replay a read or write of a
// device fails.
//
//   "files": {"paths": {"\\\\.\\PHYSICALDRIVE0": {"open": true, "ioctls": {"IOCTL_DISK_GET_DRIVE_GEOMETRY":
//                 {"fields": {"cylinders": 31130, ...}}}}, "\\\\.\\D:": {"open": {"error": 2}}},
//             "free_space": {"C:": {"free_bytes": 1000, "total_bytes": 5000, "available_bytes": 900}}}
//
// An answer is keyed by the control code's name and the input bytes in hex.
// Known records are written as named fields, texts as text, others as hex.
#include <windows.h>
#include <winioctl.h>

#include <cctype>
#include <cstring>
#include <map>

#include "source.h"

namespace torvex::sim::detail {
namespace {

using CreateFileWFn = HANDLE(WINAPI*)(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE);
using CreateFileAFn = HANDLE(WINAPI*)(LPCSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE);
using DeviceIoControlFn = BOOL(WINAPI*)(HANDLE, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD, LPOVERLAPPED);
using FreeSpaceFn = BOOL(WINAPI*)(LPCSTR, PULARGE_INTEGER, PULARGE_INTEGER, PULARGE_INTEGER);
using SeekFn = DWORD(WINAPI*)(HANDLE, LONG, PLONG, DWORD);
using ReadFileFn = BOOL(WINAPI*)(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED);
using WriteFileFn = BOOL(WINAPI*)(HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED);
using CloseHandleFn = BOOL(WINAPI*)(HANDLE);

CreateFileWFn g_createW = nullptr;
CreateFileAFn g_createA = nullptr;
DeviceIoControlFn g_ioctl = nullptr;
FreeSpaceFn g_freeSpace = nullptr;
SeekFn g_seek = nullptr;
ReadFileFn g_read = nullptr;
WriteFileFn g_write = nullptr;
CloseHandleFn g_close = nullptr;

// Handles handed to the library, by the path they were opened with. Under
// replay each is an event of its own, so the value is unique and closable.
std::map<HANDLE, std::string> g_handles;

struct CodeName {
    DWORD code;
    const char* name;
};
constexpr DWORD kBatteryQueryTag = 0x294040, kBatteryQueryInformation = 0x294044, kBatteryQueryStatus = 0x29404C;
constexpr CodeName kCodes[] = {{IOCTL_DISK_GET_DRIVE_GEOMETRY, "IOCTL_DISK_GET_DRIVE_GEOMETRY"},
                               {IOCTL_STORAGE_GET_DEVICE_NUMBER, "IOCTL_STORAGE_GET_DEVICE_NUMBER"},
                               {IOCTL_STORAGE_QUERY_PROPERTY, "IOCTL_STORAGE_QUERY_PROPERTY"},
                               {kBatteryQueryTag, "IOCTL_BATTERY_QUERY_TAG"},
                               {kBatteryQueryInformation, "IOCTL_BATTERY_QUERY_INFORMATION"},
                               {kBatteryQueryStatus, "IOCTL_BATTERY_QUERY_STATUS"}};

std::string CodeText(DWORD code) {
    for (const CodeName& entry : kCodes)
        if (entry.code == code) return entry.name;
    char text[16];
    snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(code));
    return text;
}

// Records whose fields are written by name: by control code and, for the
// battery information query, the information level at input offset 4.
struct Field {
    const char* name;
    uint8_t offset;
    uint8_t width;  // 1, 4 or 8 bytes
    bool isSigned;
};
struct Layout {
    DWORD code;
    int level;  // -1: any
    size_t size;
    Field fields[9];
};
constexpr Layout kLayouts[] = {
    {IOCTL_DISK_GET_DRIVE_GEOMETRY, -1, 24,
     {{"cylinders", 0, 8, true}, {"media_type", 8, 4, false}, {"tracks_per_cylinder", 12, 4, false},
      {"sectors_per_track", 16, 4, false}, {"bytes_per_sector", 20, 4, false}}},
    {IOCTL_STORAGE_GET_DEVICE_NUMBER, -1, 12,
     {{"device_type", 0, 4, false}, {"device_number", 4, 4, false}, {"partition_number", 8, 4, false}}},
    {IOCTL_STORAGE_QUERY_PROPERTY, -1, 12, {{"version", 0, 4, false}, {"size", 4, 4, false}, {"trim_enabled", 8, 1, false}}},
    {kBatteryQueryTag, -1, 4, {{"tag", 0, 4, false}}},
    {kBatteryQueryInformation, 0, 36,
     {{"capabilities", 0, 4, false}, {"technology", 4, 1, false}, {"chemistry", 8, 4, false},
      {"designed_capacity_mwh", 12, 4, false}, {"full_charged_capacity_mwh", 16, 4, false},
      {"default_alert1_mwh", 20, 4, false}, {"default_alert2_mwh", 24, 4, false},
      {"critical_bias_mwh", 28, 4, false}, {"cycle_count", 32, 4, false}}},
    {kBatteryQueryStatus, -1, 16,
     {{"power_state", 0, 4, false}, {"capacity_mwh", 4, 4, false}, {"voltage_mv", 8, 4, false},
      {"rate_mw", 12, 4, true}}},
};
constexpr int kTextLevels[] = {4, 5, 6, 7, 8};  // device name, manufacture date/name, unique id, serial number

int LevelOf(DWORD code, const std::vector<uint8_t>& input) {
    if (code != kBatteryQueryInformation || input.size() < 8) return -1;
    int level;
    std::memcpy(&level, input.data() + 4, 4);
    return level;
}

const Layout* LayoutOf(DWORD code, int level) {
    for (const Layout& layout : kLayouts)
        if (layout.code == code && (layout.level == -1 || layout.level == level)) return &layout;
    return nullptr;
}

bool IsText(DWORD code, int level) {
    if (code != kBatteryQueryInformation) return false;
    for (int text : kTextLevels)
        if (text == level && level != 5) return true;
    return false;
}

Json EncodeOutput(DWORD code, int level, const std::vector<uint8_t>& out) {
    const Layout* layout = LayoutOf(code, level);
    if (layout != nullptr && out.size() == layout->size) {
        Json fields = Json::object();
        for (const Field& field : layout->fields) {
            if (field.name == nullptr) break;
            uint64_t value = 0;
            std::memcpy(&value, out.data() + field.offset, field.width);
            if (field.isSigned && field.width == 4) fields[field.name] = static_cast<int32_t>(value);
            else if (field.isSigned) fields[field.name] = static_cast<int64_t>(value);
            else fields[field.name] = value;
        }
        return Json{{"fields", fields}};
    }
    if (IsText(code, level) && out.size() % 2 == 0) {
        std::wstring text(reinterpret_cast<const wchar_t*>(out.data()), out.size() / 2);
        const size_t end = text.find(L'\0');
        if (end == text.size() - 1 || (end == std::wstring::npos && !text.empty()))
            return Json{{"text", Utf8(text.substr(0, end))}};
    }
    return Json{{"out", Hex(out.data(), out.size())}};
}

std::vector<uint8_t> DecodeOutput(DWORD code, int level, const Json& answer) {
    std::vector<uint8_t> out;
    if (answer.contains("fields")) {
        const Layout* layout = LayoutOf(code, level);
        if (layout == nullptr) return out;
        out.assign(layout->size, 0);
        for (const Field& field : layout->fields) {
            if (field.name == nullptr) break;
            const Json* value = Child(&answer["fields"], field.name);
            if (value == nullptr) continue;
            const uint64_t bits = value->is_number_unsigned() ? value->get<uint64_t>()
                                                              : static_cast<uint64_t>(value->get<int64_t>());
            std::memcpy(out.data() + field.offset, &bits, field.width);
        }
    } else if (answer.contains("text")) {
        const std::wstring text = Wide(answer["text"].get<std::string>());
        const auto* data = reinterpret_cast<const uint8_t*>(text.c_str());
        out.assign(data, data + (text.size() + 1) * 2);
    } else if (answer.contains("out")) {
        ParseHex(answer["out"].get<std::string>(), out);
    }
    return out;
}

// The reverse of AnswerKey: a known control code name, or "0x" and eight hex
// digits, then optionally a space and the input as hex byte pairs.
bool ParseAnswerKey(const std::string& key, DWORD& code, std::vector<uint8_t>& input) {
    const size_t space = key.find(' ');
    const std::string head = key.substr(0, space);
    bool known = false;
    for (const CodeName& entry : kCodes)
        if (head == entry.name) code = entry.code, known = true;
    if (!known) {
        if (head.size() != 10 || head.compare(0, 2, "0x") != 0) return false;
        for (size_t i = 2; i < head.size(); ++i)
            if (std::isxdigit(static_cast<unsigned char>(head[i])) == 0) return false;
        code = static_cast<DWORD>(std::stoul(head.substr(2), nullptr, 16));
    }
    input.clear();
    if (space == std::string::npos) return true;
    const std::string tail = key.substr(space + 1);
    if (tail.empty() || tail.find(' ') != std::string::npos) return false;
    return ParseHex(tail, input);
}

std::string AnswerKey(DWORD code, const std::vector<uint8_t>& input) {
    return input.empty() ? CodeText(code) : CodeText(code) + " " + Hex(input.data(), input.size());
}

void ValidateAnswer(const std::string& key, const Json& answer, const At& at) {
    ExpectObject(answer, at);
    ExpectOnly(answer, at, {"error", "out", "fields", "text", "returned"});
    const size_t forms = answer.count("error") + answer.count("out") + answer.count("fields") + answer.count("text");
    if (forms != 1) Expected(at, "one of {\"error\": \"0x...\"}, {\"out\": hex}, {\"fields\": {...}}, {\"text\": ...}");
    if (answer.contains("error")) ExpectError(answer["error"], at / "error");
    if (answer.contains("out")) ExpectHex(answer["out"], at / "out", 65536);
    if (answer.contains("text")) ExpectString(answer["text"], at / "text");
    DWORD code = 0;
    std::vector<uint8_t> input;
    if (!ParseAnswerKey(key, code, input))
        Expected(at, "an answer named by a known IOCTL_ name or 0x and eight hex digits, then a space and the input in hex");
    if (answer.contains("fields")) {
        const Layout* layout = LayoutOf(code, LevelOf(code, input));
        if (layout == nullptr) Expected(at / "fields", "\"out\": no named fields for this control code");
        ExpectObject(answer["fields"], at / "fields");
        for (const auto& [name, value] : answer["fields"].items()) {
            const Field* field = nullptr;
            for (const Field& f : layout->fields)
                if (f.name != nullptr && name == f.name) field = &f;
            if (field == nullptr) Expected(at / "fields" / name, "no such field of this record");
            const long long high = field->width == 1 ? 255 : field->width == 4 ? (field->isSigned ? INT32_MAX : UINT32_MAX) : INT64_MAX;
            ExpectInteger(value, at / "fields" / name, field->isSigned ? (field->width == 4 ? INT32_MIN : INT64_MIN) : 0, high);
        }
    }
    if (answer.contains("returned")) {
        ExpectUnsigned(answer["returned"], at / "returned", 0xFFFFFFFFu);
        const size_t length = DecodeOutput(code, LevelOf(code, input), answer).size();
        if (answer["returned"].get<size_t>() > length)
            Expected(at / "returned", "at most the " + std::to_string(length) + " bytes the answer holds");
    }
}

void Validate(const Json& files, const At& at) {
    ExpectObject(files, at);
    ExpectOnly(files, at, {"paths", "free_space"});
    if (files.contains("paths")) {
        ExpectObject(files["paths"], at / "paths");
        for (const auto& [path, entry] : files["paths"].items()) {
            const At p = at / "paths" / path;
            ExpectObject(entry, p);
            ExpectOnly(entry, p, {"open", "ioctls"});
            if (entry.contains("open") && !entry["open"].is_boolean()) {
                ExpectObject(entry["open"], p / "open");
                ExpectOnly(entry["open"], p / "open", {"error"});
                ExpectError(entry["open"].value("error", Json()), p / "open" / "error");
            }
            if (!entry.contains("ioctls")) continue;
            ExpectObject(entry["ioctls"], p / "ioctls");
            for (const auto& [key, answer] : entry["ioctls"].items()) ValidateAnswer(key, answer, p / "ioctls" / key);
        }
    }
    if (files.contains("free_space")) {
        ExpectObject(files["free_space"], at / "free_space");
        for (const auto& [root, entry] : files["free_space"].items()) {
            const At r = at / "free_space" / root;
            ExpectObject(entry, r);
            ExpectOnly(entry, r, {"error", "free_bytes", "total_bytes", "available_bytes"});
            for (const auto& [key, value] : entry.items())
                if (key == "error") ExpectError(value, r / key);
                else ExpectUnsigned(value, r / key);
        }
    }
}

// ---------------------------------------------------------------- hooks

HANDLE Open(const std::string& path, const std::string& detail, const std::function<HANDLE()>& real) {
    Lock lock(Active().mutex);
    Json answer;
    HANDLE handle = INVALID_HANDLE_VALUE;
    if (Active().live()) {
        handle = real();
        answer = handle != INVALID_HANDLE_VALUE ? Json(true) : Json{{"error", HresultText(static_cast<long>(GetLastError()))}};
    } else if (const Json* found = Replayed({"files", "paths", path, "open"})) {
        answer = *found;
        if (answer == true) handle = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    } else {
        Note("file", "open " + path, "not in the profile", true, detail);
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    Keep({"files", "paths", path, "open"}, answer);
    if (handle == INVALID_HANDLE_VALUE || handle == nullptr) {
        const DWORD error = answer.is_object() ? static_cast<DWORD>(ErrorCode(answer["error"])) : ERROR_FILE_NOT_FOUND;
        Note("file", "open " + path, "error " + std::to_string(error), true, detail);
        SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    g_handles[handle] = path;
    Note("file", "open " + path, "opened", false, detail);
    return handle;
}

std::string OpenDetail(DWORD access, DWORD share, DWORD disposition, DWORD flags) {
    return "access " + HexNumber(access) + ", share " + HexNumber(share) + ", disposition " + std::to_string(disposition) +
           ", flags " + HexNumber(flags);
}

HANDLE WINAPI HookCreateW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                          DWORD flags, HANDLE templateFile) {
    return Open(Utf8(name), OpenDetail(access, share, disposition, flags), [&] { return g_createW(name, access, share, security, disposition, flags, templateFile); });
}

HANDLE WINAPI HookCreateA(LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                          DWORD flags, HANDLE templateFile) {
    return Open(name != nullptr ? name : "", OpenDetail(access, share, disposition, flags), [&] { return g_createA(name, access, share, security, disposition, flags, templateFile); });
}

BOOL WINAPI HookIoctl(HANDLE handle, DWORD code, LPVOID in, DWORD inSize, LPVOID out, DWORD outSize, LPDWORD returned,
                      LPOVERLAPPED overlapped) {
    Lock lock(Active().mutex);
    auto known = g_handles.find(handle);
    if (known == g_handles.end()) return g_ioctl(handle, code, in, inSize, out, outSize, returned, overlapped);
    const std::string& path = known->second;
    std::vector<uint8_t> input;
    if (in != nullptr) input.assign(static_cast<uint8_t*>(in), static_cast<uint8_t*>(in) + inSize);
    const std::string key = AnswerKey(code, input);
    const int level = LevelOf(code, input);
    const std::string call = path + " " + key;
    const std::string detail = "out " + std::to_string(outSize) + " bytes" + (returned == nullptr ? ", no count" : "");
    Json answer;
    if (Active().live()) {
        DWORD count = 0;
        if (!g_ioctl(handle, code, in, inSize, out, outSize, &count, overlapped)) {
            answer = Json{{"error", HresultText(static_cast<long>(GetLastError()))}};
        } else {
            const auto* bytes = static_cast<const uint8_t*>(out);
            answer = EncodeOutput(code, level, std::vector<uint8_t>(bytes, bytes + (out != nullptr ? count : 0)));
        }
    } else if (const Json* found = Replayed({"files", "paths", path, "ioctls", key})) {
        answer = *found;
    } else {
        Note("ioctl", call, "not in the profile", true, detail);
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    Keep({"files", "paths", path, "ioctls", key}, answer);
    if (answer.contains("error")) {
        Note("ioctl", call, "error " + std::to_string(ErrorCode(answer["error"])), true, detail);
        SetLastError(static_cast<DWORD>(ErrorCode(answer["error"])));
        return FALSE;
    }
    const std::vector<uint8_t> bytes = DecodeOutput(code, level, answer);
    const size_t count = answer.contains("returned") ? answer["returned"].get<size_t>() : bytes.size();
    if (count > outSize || (count > 0 && out == nullptr)) {
        Note("ioctl", call, std::to_string(count) + " bytes, more than the room", true, detail);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    if (count > 0) std::memcpy(out, bytes.data(), count);
    if (returned != nullptr) *returned = static_cast<DWORD>(count);
    Note("ioctl", call, answer.dump(), false, detail);
    return TRUE;
}

BOOL WINAPI HookFreeSpace(LPCSTR root, PULARGE_INTEGER available, PULARGE_INTEGER total, PULARGE_INTEGER free) {
    Lock lock(Active().mutex);
    const std::string name = root != nullptr ? root : "";
    Json answer;
    if (Active().live()) {
        ULARGE_INTEGER a{}, t{}, f{};
        answer = g_freeSpace(root, &a, &t, &f) ? Json{{"available_bytes", a.QuadPart}, {"total_bytes", t.QuadPart},
                                                      {"free_bytes", f.QuadPart}}
                                               : Json{{"error", HresultText(static_cast<long>(GetLastError()))}};
    } else if (const Json* found = Replayed({"files", "free_space", name})) {
        answer = *found;
    } else {
        Note("volume", "free space of " + name, "not in the profile", true);
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    Keep({"files", "free_space", name}, answer);
    if (answer.contains("error")) {
        Note("volume", "free space of " + name, "error " + std::to_string(ErrorCode(answer["error"])), true);
        SetLastError(static_cast<DWORD>(ErrorCode(answer["error"])));
        return FALSE;
    }
    if (available != nullptr) available->QuadPart = answer.value("available_bytes", 0ull);
    if (total != nullptr) total->QuadPart = answer.value("total_bytes", 0ull);
    if (free != nullptr) free->QuadPart = answer.value("free_bytes", 0ull);
    Note("volume", "free space of " + name, answer.dump(), false);
    return TRUE;
}

// Raw sector access: passed through live, refused under replay.
template <typename Real>
auto Sector(HANDLE handle, const char* what, Real real, decltype(real()) refused) {
    Lock lock(Active().mutex);
    auto known = g_handles.find(handle);
    if (known == g_handles.end()) return real();
    if (!Active().live()) {
        Note("file", std::string(what) + " " + known->second, "refused: raw sectors are never recorded", true);
        SetLastError(ERROR_NOT_SUPPORTED);
        return refused;
    }
    const auto result = real();
    Note("file", std::string(what) + " " + known->second, "passed to the device, not recorded", false);
    return result;
}

DWORD WINAPI HookSeek(HANDLE h, LONG low, PLONG high, DWORD method) {
    return Sector(h, "seek", [&] { return g_seek(h, low, high, method); }, INVALID_SET_FILE_POINTER);
}
BOOL WINAPI HookRead(HANDLE h, LPVOID buffer, DWORD size, LPDWORD done, LPOVERLAPPED o) {
    return Sector(h, "read", [&] { return g_read(h, buffer, size, done, o); }, FALSE);
}
BOOL WINAPI HookWrite(HANDLE h, LPCVOID buffer, DWORD size, LPDWORD done, LPOVERLAPPED o) {
    if (g_handles.count(h) != 0 && Unchangeable("file", "write " + g_handles[h])) return SetLastError(ERROR_ACCESS_DENIED), FALSE;
    return Sector(h, "write", [&] { return g_write(h, buffer, size, done, o); }, FALSE);
}

BOOL WINAPI HookClose(HANDLE handle) {
    {
        Lock lock(Active().mutex);
        g_handles.erase(handle);
    }
    return g_close(handle);
}

void Install(Installer& installer) {
    installer.Hook("CreateFileW", &HookCreateW, g_createW);
    installer.Hook("CreateFileA", &HookCreateA, g_createA);
    installer.Hook("DeviceIoControl", &HookIoctl, g_ioctl);
    installer.Hook("GetDiskFreeSpaceExA", &HookFreeSpace, g_freeSpace);
    installer.Hook("SetFilePointer", &HookSeek, g_seek);
    installer.Hook("ReadFile", &HookRead, g_read);
    installer.Hook("WriteFile", &HookWrite, g_write);
    installer.Hook("CloseHandle", &HookClose, g_close);
}

void Reset() { g_handles.clear(); }

}  // namespace

size_t HeldFiles() { return g_handles.size(); }

const SourceDef kFileSource = {"files", Validate, Install, Reset};

}  // namespace torvex::sim::detail
