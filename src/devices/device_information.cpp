// DeviceInformention: device lookup, properties, hardware-ID lists and removal
// over the Setup API and the configuration manager. Every member opens its own
// device-information set and destroys it before returning.
#include <windows.h>
#include <cfgmgr32.h>
#include <setupapi.h>
#include <shlwapi.h>

#include <cstring>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

#include "common/win_resource.h"
#include "devices/device_property_keys.h"
#include "torvex.h"

namespace {

namespace keys = torvex::devkeys;
using torvex::DevInfoSet;

// The selector -> key map, built once when the library loads. Only the driver
// stack member consults it; the other members use the keys directly.
struct SelectorHash {
    size_t operator()(EnumDeviceProperty value) const noexcept { return static_cast<size_t>(value); }
};
const std::unordered_map<EnumDeviceProperty, DEVPROPKEY, SelectorHash> kKeyMap = [] {
    std::unordered_map<EnumDeviceProperty, DEVPROPKEY, SelectorHash> map;
    for (unsigned int i = 0; i < 14; ++i) map.emplace(static_cast<EnumDeviceProperty>(i), keys::kBySelector[i]);
    return map;
}();

constexpr DWORD kPropertyChars = 260;
constexpr DWORD kReadSize = 520;       // the usual size argument of a string read
constexpr DWORD kWideReadSize = 522;   // the size argument of the all-classes scans
constexpr DWORD kAllPresent = DIGCF_PRESENT | DIGCF_ALLCLASSES;
constexpr unsigned int kNoDevice = 0xFFFFFFFFu;
constexpr ULONG kRemovableNode = 0x4000;  // DN_REMOVABLE
constexpr DEVPROPTYPE kTypeUInt32 = 7;
constexpr DEVPROPTYPE kTypeGuid = 13;
constexpr DEVPROPTYPE kTypeString = 18;
constexpr DEVPROPTYPE kTypeStringList = 0x2012;
constexpr unsigned long long kUnixEpochAsFileTime = 116444736000000000ull;

static_assert(sizeof(SP_DEVINFO_LIST_DETAIL_DATA_W) == 560, "list detail record as the platform's");
static_assert(sizeof(SP_DEVINSTALL_PARAMS_W) == 584, "install parameters as the platform's");
static_assert(sizeof(SP_REMOVEDEVICE_PARAMS) == 16, "remove parameters as the platform's");

// One extra zero past the 260 characters, plus one more so that a 522-byte
// read still leaves a terminator.
struct PropertyBuffer {
    wchar_t text[kPropertyChars + 2] = {};
    std::wstring First() const { return std::wstring(text, wcsnlen(text, kPropertyChars + 1)); }
};

DevInfoSet OpenClass(const GUID& classGuid) {
    return DevInfoSet(SetupDiGetClassDevsW(&classGuid, nullptr, nullptr, DIGCF_PRESENT));
}

DevInfoSet OpenAllClasses() { return DevInfoSet(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, kAllPresent)); }

bool Enumerate(HDEVINFO set, DWORD index, SP_DEVINFO_DATA& data) {
    data.cbSize = sizeof(SP_DEVINFO_DATA);
    return SetupDiEnumDeviceInfo(set, index, &data) != FALSE;
}

// Reads a string property into a zeroed buffer; true only when the call
// returned exactly 1. The property type is not checked.
bool ReadString(HDEVINFO set, SP_DEVINFO_DATA& data, const DEVPROPKEY& key, PropertyBuffer& buffer,
                DWORD sizeArgument = kReadSize) {
    buffer = PropertyBuffer{};
    DEVPROPTYPE type = 0;
    DWORD required = 0;
    return SetupDiGetDevicePropertyW(set, &data, &key, &type, reinterpret_cast<PBYTE>(buffer.text), sizeArgument,
                                     &required, 0) == TRUE;
}

// A 32-bit property counts only with type DEVPROP_TYPE_UINT32; 1 to 4 bytes
// are taken, any other returned size reads as 0.
unsigned int ReadUInt32(HDEVINFO set, SP_DEVINFO_DATA& data, const DEVPROPKEY& key) {
    PropertyBuffer buffer;
    DEVPROPTYPE type = 0;
    DWORD required = 0;
    if (SetupDiGetDevicePropertyW(set, &data, &key, &type, reinterpret_cast<PBYTE>(buffer.text), kReadSize,
                                  &required, 0) != TRUE ||
        type != kTypeUInt32)
        return 0;
    unsigned int value = 0;
    if (required >= 1 && required <= sizeof(value)) std::memcpy(&value, buffer.text, required);
    return value;
}

// Visits the devices in order, reading `key`; a read that does not return 1
// ends the lookup at once, later devices are not examined. The first device
// whose text equals `wanted` exactly (case-sensitive) wins.
bool FindDevice(HDEVINFO set, const DEVPROPKEY& key, const std::wstring& wanted, SP_DEVINFO_DATA& data) {
    PropertyBuffer buffer;
    for (DWORD i = 0; Enumerate(set, i, data); ++i) {
        if (!ReadString(set, data, key, buffer)) return false;
        if (buffer.First() == wanted) return true;
    }
    return false;
}

bool FindByHardwareId(HDEVINFO set, const std::wstring& id, SP_DEVINFO_DATA& data) {
    return FindDevice(set, keys::kHardwareIds, id, data);
}

// Value of a selector as a property key; selectors outside the table have none.
const DEVPROPKEY* KeyOf(EnumDeviceProperty property) {
    const auto value = static_cast<unsigned int>(property);
    return value < 14 ? &keys::kBySelector[value] : nullptr;
}

bool InRange(EnumDeviceProperty property, unsigned int low, unsigned int high) {
    const auto value = static_cast<unsigned int>(property);
    return value >= low && value <= high;
}

// Nothing may escape to the caller: an allocation failure yields the
// member's failure result.
template <typename Result, typename Body>
Result Guarded(Result fallback, Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

// Calls visit(set, data) for each device of `set` in turn; a set that did not open has none.
template <typename Visit>
void ForEachDevice(const DevInfoSet& set, Visit visit) {
    if (!set) return;
    SP_DEVINFO_DATA data{};
    for (DWORD i = 0; Enumerate(set.get(), i, data); ++i) visit(set.get(), data);
}

std::vector<std::wstring> ReadEveryDevice(const GUID& classGuid, const DEVPROPKEY& key) {
    std::vector<std::wstring> result;
    PropertyBuffer buffer;
    ForEachDevice(OpenClass(classGuid), [&](HDEVINFO set, SP_DEVINFO_DATA& data) {
        // A failed read still adds an entry, empty.
        result.push_back(ReadString(set, data, key, buffer) ? buffer.First() : std::wstring());
    });
    return result;
}

std::wstring ReadStringOfDevice(const DEVPROPKEY& lookupKey, const std::wstring& wanted, const GUID& classGuid,
                                const DEVPROPKEY& key) {
    DevInfoSet set = OpenClass(classGuid);
    if (!set) return {};
    SP_DEVINFO_DATA data{};
    if (!FindDevice(set.get(), lookupKey, wanted, data)) return {};
    PropertyBuffer buffer;
    return ReadString(set.get(), data, key, buffer) ? buffer.First() : std::wstring();
}

unsigned int ReadUInt32OfDevice(const DEVPROPKEY& lookupKey, const std::wstring& wanted, const GUID& classGuid,
                                const DEVPROPKEY* key) {
    DevInfoSet set = OpenClass(classGuid);
    if (!set) return 0;
    SP_DEVINFO_DATA data{};
    if (!FindDevice(set.get(), lookupKey, wanted, data)) return 0;
    return key != nullptr ? ReadUInt32(set.get(), data, *key) : 0;
}

}  // namespace

DeviceInformention::DeviceInformention() = default;
DeviceInformention::~DeviceInformention() = default;

std::vector<std::wstring> DeviceInformention::GetDeviceHardwareId(const GUID& classGuid) {
    return Guarded(std::vector<std::wstring>(), [&] { return ReadEveryDevice(classGuid, keys::kHardwareIds); });
}

std::vector<std::wstring> DeviceInformention::GetDeviceDesc(const GUID& classGuid) {
    return Guarded(std::vector<std::wstring>(), [&] { return ReadEveryDevice(classGuid, keys::kDeviceDesc); });
}

std::wstring DeviceInformention::GetDeviceStrInfoByHardwareId(const std::wstring& hardwareId, const GUID& classGuid,
                                                              EnumDeviceProperty property) {
    return Guarded(std::wstring(), [&]() -> std::wstring {
        if (property == EnumDeviceProperty::HardwareIds) return hardwareId;  // answered without the system
        if (!InRange(property, 0, 10)) return {};
        return ReadStringOfDevice(keys::kHardwareIds, hardwareId, classGuid, *KeyOf(property));
    });
}

unsigned int DeviceInformention::GetDeviceULONGInfoByHardwareId(const std::wstring& hardwareId,
                                                                const GUID& classGuid, EnumDeviceProperty property) {
    if (property != EnumDeviceProperty::ProblemCode && property != EnumDeviceProperty::Address) return 0;
    return Guarded(0u, [&] { return ReadUInt32OfDevice(keys::kHardwareIds, hardwareId, classGuid, KeyOf(property)); });
}

std::wstring DeviceInformention::GetDeviceStrInfoByDesc(const std::wstring& description, const GUID& classGuid,
                                                        EnumDeviceProperty property) {
    return Guarded(std::wstring(), [&]() -> std::wstring {
        if (property == EnumDeviceProperty::DeviceDesc) return description;
        DevInfoSet set = OpenClass(classGuid);
        if (!set) return {};
        SP_DEVINFO_DATA data{};
        if (!FindDevice(set.get(), keys::kDeviceDesc, description, data)) return {};
        // Only 1..9 are served here; the hardware-ID variant also serves 10.
        if (!InRange(property, 1, 9)) return {};
        PropertyBuffer buffer;
        return ReadString(set.get(), data, *KeyOf(property), buffer) ? buffer.First() : std::wstring();
    });
}

unsigned int DeviceInformention::GetDeviceULONGInfoByDesc(const std::wstring& description, const GUID& classGuid,
                                                          EnumDeviceProperty property) {
    // The lookup runs whatever the selector; only the problem code is read.
    const DEVPROPKEY* key = property == EnumDeviceProperty::ProblemCode ? &keys::kProblemCode : nullptr;
    return Guarded(0u, [&] { return ReadUInt32OfDevice(keys::kDeviceDesc, description, classGuid, key); });
}

unsigned int DeviceInformention::UnstallDeviceByHardwareId(const std::wstring& hardwareId, const GUID& classGuid) {
    return Guarded(kNoDevice, [&]() -> unsigned int {
        DevInfoSet set = OpenClass(classGuid);
        if (!set) return kNoDevice;
        SP_DEVINFO_DATA data{};
        if (!FindByHardwareId(set.get(), hardwareId, data)) return kNoDevice;
        if (SetupDiRemoveDevice(set.get(), &data) == TRUE) return 0;
        return GetLastError();
    });
}

unsigned int DeviceInformention::UnstallDeviceByHardwareIdEx(const std::wstring& hardwareId, const GUID& classGuid) {
    return Guarded(kNoDevice, [&]() -> unsigned int {
        DevInfoSet set = OpenClass(classGuid);
        if (!set) return kNoDevice;
        SP_DEVINFO_DATA data{};
        // Here a failed hardware-ID read only skips that device.
        bool found = false;
        PropertyBuffer buffer;
        for (DWORD i = 0; !found && Enumerate(set.get(), i, data); ++i)
            found = ReadString(set.get(), data, keys::kHardwareIds, buffer) && buffer.First() == hardwareId;
        if (!found) return kNoDevice;

        SP_DEVINFO_LIST_DETAIL_DATA_W detail{};
        detail.cbSize = sizeof(detail);
        if (!SetupDiGetDeviceInfoListDetailW(set.get(), &detail)) return GetLastError();
        wchar_t instanceId[200] = {};
        // The configuration-manager code itself is not returned: the last error is.
        if (CM_Get_Device_ID_ExW(data.DevInst, instanceId, 200, 0, detail.RemoteMachineHandle) != CR_SUCCESS)
            return GetLastError();

        SP_REMOVEDEVICE_PARAMS params{};
        params.ClassInstallHeader.cbSize = sizeof(SP_CLASSINSTALL_HEADER);
        params.ClassInstallHeader.InstallFunction = DIF_REMOVE;
        params.Scope = DI_REMOVEDEVICE_GLOBAL;
        params.HwProfile = 0;
        if (!SetupDiSetClassInstallParamsW(set.get(), &data, &params.ClassInstallHeader, sizeof(params)))
            return GetLastError();
        if (!SetupDiCallClassInstaller(DIF_REMOVE, set.get(), &data)) return GetLastError();
        // Read but not reported: a restart the removal needs is the caller's to find out.
        SP_DEVINSTALL_PARAMS_W install{};
        install.cbSize = sizeof(install);
        SetupDiGetDeviceInstallParamsW(set.get(), &data, &install);
        return 0;
    });
}

std::vector<std::wstring> DeviceInformention::GetUnknownDeviceHardId() {
    return Guarded(std::vector<std::wstring>(), [&] {
        std::vector<std::wstring> result;
        DevInfoSet set = OpenAllClasses();
        if (!set) return result;
        SP_DEVINFO_DATA data{};
        data.cbSize = sizeof(data);
        PropertyBuffer buffer;
        for (DWORD i = 0;; ++i) {
            const bool enumerated = Enumerate(set.get(), i, data);
            // Examined before the enumeration result is tested, so the failing
            // last step looks at the previous device's record once more and its
            // ID can appear twice. Intended: callers rely on this order.
            GUID classGuid{};
            DEVPROPTYPE type = 0;
            DWORD required = 0;
            const BOOL hasClass = SetupDiGetDevicePropertyW(set.get(), &data, &keys::kClass, &type,
                                                            reinterpret_cast<PBYTE>(&classGuid), sizeof(classGuid),
                                                            &required, 0);
            if (!(hasClass && type == kTypeGuid) && GetLastError() == ERROR_NOT_FOUND) {
                ReadString(set.get(), data, keys::kHardwareIds, buffer, kWideReadSize);
                result.push_back(buffer.First());
            }
            if (!enumerated) break;
        }
        return result;
    });
}

std::vector<std::wstring> DeviceInformention::GetDeviceHardwareIDList(const GUID& classGuid,
                                                                      const std::wstring& hardwareId) {
    return Guarded(std::vector<std::wstring>(), [&] {
        std::vector<std::wstring> result;
        DevInfoSet set = OpenClass(classGuid);
        if (!set) return result;
        SP_DEVINFO_DATA data{};
        PropertyBuffer buffer;
        bool found = false;
        for (DWORD i = 0; !found && Enumerate(set.get(), i, data); ++i) {
            ReadString(set.get(), data, keys::kHardwareIds, buffer);  // result not checked: a failure reads as ""
            found = buffer.First() == hardwareId;
        }
        if (!found) return result;
        result.push_back(buffer.First());
        // Walk the multi-string within the 260-character buffer.
        size_t end = wcsnlen(buffer.text, kPropertyChars + 1);
        while (end < kPropertyChars) {
            const wchar_t* next = buffer.text + end + 1;
            const size_t length = wcsnlen(next, kPropertyChars + 2 - (end + 1));
            if (length == 0) break;
            result.emplace_back(next, length);
            end += length + 1;
        }
        return result;
    });
}

unsigned long long DeviceInformention::GetLastIntallTime(const std::wstring& hardwareId, const GUID& classGuid) {
    return Guarded(0ull, [&]() -> unsigned long long {
        DevInfoSet set = OpenClass(classGuid);
        if (!set) return 0;
        SP_DEVINFO_DATA data{};
        if (!FindByHardwareId(set.get(), hardwareId, data)) return 0;
        PropertyBuffer buffer;
        DEVPROPTYPE type = 0;
        DWORD required = 0;
        if (!SetupDiGetDevicePropertyW(set.get(), &data, &keys::kFirstInstallDate, &type,
                                       reinterpret_cast<PBYTE>(buffer.text), kReadSize, &required, 0))
            return 0;
        if (required > sizeof(unsigned long long)) return 0;
        unsigned long long fileTime = 0;
        std::memcpy(&fileTime, buffer.text, required);
        // Unsigned on purpose: a zero-byte answer wraps to a very large value.
        return (fileTime - kUnixEpochAsFileTime) / 10000;
    });
}

void DeviceInformention::GetAllDeviceHardwareId(std::vector<std::wstring>& hardwareIds) {
    Guarded(0, [&] {
        hardwareIds.clear();
        PropertyBuffer buffer;
        ForEachDevice(OpenAllClasses(), [&](HDEVINFO set, SP_DEVINFO_DATA& data) {
            if (!ReadString(set, data, keys::kHardwareIds, buffer)) return;
            const std::wstring first = buffer.First();
            if (first.compare(0, 3, L"PCI") == 0) hardwareIds.push_back(first);
        });
        return 0;
    });
}

void DeviceInformention::GetSoftComponentItems(std::vector<std::wstring>& hardwareIds, const std::wstring& parentText) {
    Guarded(0, [&] {
        PropertyBuffer parent;
        PropertyBuffer ids;
        ForEachDevice(OpenAllClasses(), [&](HDEVINFO set, SP_DEVINFO_DATA& data) {
            if (!ReadString(set, data, keys::kParent, parent, kWideReadSize)) return;
            if (StrStrW(parent.text, parentText.c_str()) == nullptr) return;
            if (ReadString(set, data, keys::kHardwareIds, ids, kWideReadSize)) hardwareIds.push_back(ids.First());
        });
        return 0;
    });
}

std::vector<std::wstring> DeviceInformention::GetInternalDeviceHardwareId(const GUID& classGuid) {
    return Guarded(std::vector<std::wstring>(), [&] {
        std::vector<std::wstring> result;
        PropertyBuffer buffer;
        ForEachDevice(OpenClass(classGuid), [&](HDEVINFO set, SP_DEVINFO_DATA& data) {
            if (!ReadString(set, data, keys::kHardwareIds, buffer)) return;
            ULONG status = 0;
            ULONG problem = 0;
            if (CM_Get_DevNode_Status(&status, &problem, data.DevInst, 0) != CR_SUCCESS) return;
            if ((status & kRemovableNode) == 0) result.push_back(buffer.First());
        });
        return result;
    });
}

std::vector<std::wstring> DeviceInformention::GetDeviceStatck(const std::wstring& hardwareId, const GUID& classGuid) {
    return Guarded(std::vector<std::wstring>(), [&] {
        std::vector<std::wstring> result;
        const auto entry = kKeyMap.find(EnumDeviceProperty::Stack);
        if (entry == kKeyMap.end()) return result;
        const DEVPROPKEY key = entry->second;
        DevInfoSet set = OpenClass(classGuid);
        if (!set) return result;
        SP_DEVINFO_DATA data{};
        if (!FindByHardwareId(set.get(), hardwareId, data)) return result;

        DEVPROPTYPE type = 0;
        DWORD size = 0;
        SetupDiGetDevicePropertyW(set.get(), &data, &key, &type, nullptr, 0, &size, 0);
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || size == 0) return result;
        const size_t chars = size / 2 + 1;
        std::unique_ptr<wchar_t[]> stack(new (std::nothrow) wchar_t[chars]());
        if (!stack) return result;
        DWORD returned = 0;
        if (!SetupDiGetDevicePropertyW(set.get(), &data, &key, &type, reinterpret_cast<PBYTE>(stack.get()), size,
                                       &returned, 0))
            return result;
        if ((type != kTypeString && type != kTypeStringList) || size <= 1) return result;
        for (size_t k = 0; k < size / 2; ++k) {
            if (stack[k] == 0) continue;
            const size_t length = wcsnlen(stack.get() + k, chars - k);
            result.emplace_back(stack.get() + k, length);
            k += length;
        }
        return result;
    });
}
