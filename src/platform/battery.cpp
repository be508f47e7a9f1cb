// Battery (class 8): presence and capacities from the power functions, names
// and fixed data from the battery device with WMI as the fallback, and the
// OEM firmware's decimal reading and charge-control pair.
#include <windows.h>
#include <poclass.h>
#include <powrprof.h>
#include <setupapi.h>

#include <cstring>
#include <optional>
#include <string>

#include "common/codec.h"
#include "common/win_resource.h"
#include "torvex.h"
#include "wmi/wmi.h"

namespace {

constexpr GUID kBatteryClass = {0x72631E54, 0x78A4, 0x11D0, {0xBC, 0xF7, 0x00, 0xAA, 0x00, 0xB7, 0xB3, 0x2A}};
namespace wmi = torvex::wmi;
using torvex::PutValue;

constexpr int kPowerStatusAttempts = 3;
constexpr int kBatteryStateAttempts = 4;
constexpr BYTE kNoSystemBattery = 128;
constexpr BYTE kUnknownBatteryStatus = 255;
constexpr ULONG kSystemBatteryCapability = 0x80000000u;  // BATTERY_SYSTEM_BATTERY
constexpr DWORD kNameChars = 260;
constexpr unsigned int kAnswerBytes = 256;
constexpr uint8_t kMaxChargeValue = 100;

static_assert(sizeof(SYSTEM_BATTERY_STATE) == 32, "battery state as the platform's");
static_assert(sizeof(BATTERY_INFORMATION) == 36, "battery information as the platform's");
static_assert(sizeof(BATTERY_STATUS) == 16, "battery status as the platform's");
static_assert(sizeof(BATTERY_QUERY_INFORMATION) == 12, "battery query as the platform's");
static_assert(sizeof(BATTERY_WAIT_STATUS) == 20, "battery wait status as the platform's");

bool ReadPowerStatus(SYSTEM_POWER_STATUS& status) {
    for (int attempt = 0; attempt < kPowerStatusAttempts; ++attempt)
        if (GetSystemPowerStatus(&status) == TRUE) return true;
    return false;
}

// 128 (no system battery) and 255 (unknown) both count as absent.
bool BatteryPresent() {
    SYSTEM_POWER_STATUS status{};
    if (!ReadPowerStatus(status)) return false;
    return status.BatteryFlag != kNoSystemBattery && status.BatteryFlag != kUnknownBatteryStatus;
}

bool ReadBatteryState(SYSTEM_BATTERY_STATE& state) {
    for (int attempt = 0; attempt < kBatteryStateAttempts; ++attempt) {
        state = SYSTEM_BATTERY_STATE{};
        if (CallNtPowerInformation(SystemBatteryState, nullptr, 0, &state, sizeof(state)) == 0) return true;
    }
    return false;
}

// Device path of the first battery interface.
std::wstring FirstBatteryPath() {
    torvex::DevInfoSet set(SetupDiGetClassDevsW(&kBatteryClass, nullptr, nullptr,
                                                DIGCF_PRESENT | DIGCF_DEVICEINTERFACE));
    if (!set) return {};
    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    if (!SetupDiEnumDeviceInterfaces(set.get(), nullptr, &kBatteryClass, 0, &data)) return {};
    DWORD size = 0;
    if (SetupDiGetDeviceInterfaceDetailW(set.get(), &data, nullptr, 0, &size, nullptr) ||
        GetLastError() != ERROR_INSUFFICIENT_BUFFER || size == 0)
        return {};
    torvex::LocalMemory block(LocalAlloc(LPTR, size));
    if (!block || size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) return {};
    auto* detail = static_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(block.get());
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!SetupDiGetDeviceInterfaceDetailW(set.get(), &data, detail, size, &size, nullptr)) return {};
    const size_t chars = (size - offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath)) / sizeof(wchar_t);
    return std::wstring(detail->DevicePath, wcsnlen(detail->DevicePath, chars));
}

// The first battery opened, with its tag.
struct OpenBattery {
    torvex::FileHandle handle;
    ULONG tag = 0;
};

bool OpenFirstBattery(OpenBattery& battery) {
    const std::wstring path = FirstBatteryPath();
    if (path.empty()) return false;
    battery.handle.reset(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!battery.handle) return false;
    ULONG wait = 0;
    DWORD returned = 0;
    return DeviceIoControl(battery.handle.get(), IOCTL_BATTERY_QUERY_TAG, &wait, sizeof(wait), &battery.tag,
                           sizeof(battery.tag), &returned, nullptr) &&
           battery.tag != 0;
}

bool QueryBatteryInformation(const OpenBattery& battery, BATTERY_QUERY_INFORMATION_LEVEL level, void* out,
                             DWORD outSize) {
    BATTERY_QUERY_INFORMATION query{};
    query.BatteryTag = battery.tag;
    query.InformationLevel = level;
    DWORD returned = 0;
    return DeviceIoControl(battery.handle.get(), IOCTL_BATTERY_QUERY_INFORMATION, &query, sizeof(query), out, outSize,
                           &returned, nullptr) != FALSE;
}

// Fixed information and status of a system battery.
bool ReadBatteryNumbers(BATTERY_INFORMATION& information, BATTERY_STATUS& status) {
    OpenBattery battery;
    if (!OpenFirstBattery(battery)) return false;
    information = BATTERY_INFORMATION{};
    if (!QueryBatteryInformation(battery, BatteryInformation, &information, sizeof(information)) ||
        (information.Capabilities & kSystemBatteryCapability) == 0)
        return false;
    BATTERY_WAIT_STATUS wait{};
    wait.BatteryTag = battery.tag;
    status = BATTERY_STATUS{};
    DWORD returned = 0;
    return DeviceIoControl(battery.handle.get(), IOCTL_BATTERY_QUERY_STATUS, &wait, sizeof(wait), &status,
                           sizeof(status), &returned, nullptr) != FALSE;
}

struct BatteryNames {
    std::wstring deviceName;
    std::wstring manufacturer;
};

// The manufacturer test is inverted on purpose: only a failed manufacturer
// request counts as success (with the empty name). Hosts have always seen
// the manufacturer from WMI because of it.
bool ReadBatteryNames(BatteryNames& names) {
    OpenBattery battery;
    wchar_t deviceName[kNameChars] = {};
    wchar_t manufacturer[kNameChars] = {};
    if (!OpenFirstBattery(battery)) return false;
    if (!QueryBatteryInformation(battery, BatteryDeviceName, deviceName, sizeof(deviceName))) return false;
    names.deviceName.assign(deviceName, wcsnlen(deviceName, kNameChars));
    if (QueryBatteryInformation(battery, BatteryManufactureName, manufacturer, sizeof(manufacturer))) return false;
    names.manufacturer.assign(manufacturer, wcsnlen(manufacturer, kNameChars));
    return true;
}

std::optional<uint32_t> WmiNumber(const wchar_t* query, const wchar_t* property) {
    return wmi::Session(wmi::kRootWmi).Number(query, property);
}

// Fails (none) without a battery and for 0 and 0xFFFFFFFF from either source.
std::optional<uint32_t> DesignedCapacity() {
    if (!BatteryPresent()) return std::nullopt;
    BATTERY_INFORMATION information{};
    BATTERY_STATUS status{};
    const std::optional<uint32_t> designed =
        ReadBatteryNumbers(information, status)
            ? information.DesignedCapacity
            : WmiNumber(L"SELECT DesignedCapacity FROM BatteryStaticData", L"DesignedCapacity");
    if (designed == 0u || designed == wmi::kNoNumber) return std::nullopt;
    return designed;
}

uint32_t QueryName(uint32_t code, void* buffer, uint32_t size, uint32_t* written) {
    BatteryNames names;
    const bool fromDevice = ReadBatteryNames(names);
    std::wstring name = code == HAL_BT_DEVICE_NAME ? names.deviceName : names.manufacturer;
    if (!fromDevice || name.empty()) {
        const bool device = code == HAL_BT_DEVICE_NAME;
        name = wmi::Session(wmi::kRootWmi)
                   .First<std::wstring>(device ? L"SELECT DeviceName FROM BatteryStaticData"
                                               : L"SELECT ManufactureName FROM BatteryStaticData",
                                        device ? L"DeviceName" : L"ManufactureName")
                   .value_or(std::wstring());
    }
    return torvex::PutNarrowText(StringProc::WStringToString(name), buffer, size, written);
}

bool CallFirmware(const unsigned char* head, size_t headBytes, unsigned char (&answer)[kAnswerBytes]) {
    unsigned char packet[wmi::kPacketBytes] = {};
    std::memcpy(packet, head, headBytes);
    return wmi::Session(wmi::kRootWmi).Method(packet, answer, kAnswerBytes) && answer[0] == 0;
}

// The whole part 1 reads as negative: the firmware encodes the sign in it,
// and this is the reading hosts expect.
float DecimalReading(uint8_t whole, uint8_t tenths) {
    float value = tenths < 10 ? static_cast<float>(whole) + static_cast<float>(tenths) * 0.1f
                              : static_cast<float>(whole);
    if (whole == 1) value *= -1.0f;
    return value;
}

uint32_t QueryNumber(uint32_t code, void* buffer, uint32_t* written) {
    SYSTEM_BATTERY_STATE state{};
    switch (code) {
    case HAL_BT_PRESENT:
        return BatteryPresent() ? PutValue(buffer, written, uint32_t{1}) : 0;
    case HAL_BT_REMAINING_MWH:
    case HAL_BT_FULL_CHARGED_MWH:
        if (!BatteryPresent() || !ReadBatteryState(state)) return 0;
        return PutValue(buffer, written,
                        uint32_t{code == HAL_BT_REMAINING_MWH ? state.RemainingCapacity : state.MaxCapacity});
    case HAL_BT_DESIGNED_MWH: {
        const std::optional<uint32_t> designed = DesignedCapacity();
        return designed ? PutValue(buffer, written, *designed) : 0;
    }
    case HAL_BT_AC_LINE_STATUS: {
        SYSTEM_POWER_STATUS status{};
        if (!ReadPowerStatus(status)) return 0;
        return PutValue(buffer, written, uint32_t{status.ACLineStatus});
    }
    case HAL_BT_VOLTAGE_MV: {
        if (!BatteryPresent()) return 0;
        BATTERY_INFORMATION information{};
        BATTERY_STATUS status{};
        // Only 0 fails: an unknown voltage (0xFFFFFFFF) passes through, and so
        // does the WMI fallback's "no value", which reads the same.
        const uint32_t voltage = ReadBatteryNumbers(information, status)
                                     ? status.Voltage
                                     : WmiNumber(L"SELECT Voltage FROM BatteryStatus", L"Voltage").value_or(wmi::kNoNumber);
        return voltage != 0 ? PutValue(buffer, written, voltage) : 0;
    }
    case HAL_BT_WEAR_CENTIPERCENT: {
        if (!BatteryPresent() || !ReadBatteryState(state)) return 0;
        const std::optional<uint32_t> designed = DesignedCapacity();
        const uint32_t full = state.MaxCapacity;
        if (!designed || *designed <= full) return 0;
        return PutValue(buffer, written, static_cast<uint32_t>(uint64_t{*designed - full} * 10000 / *designed));
    }
    case HAL_BT_DISCHARGE_RATE_MW:
        if (!ReadBatteryState(state) || state.AcOnLine != 0 || static_cast<LONG>(state.Rate) >= 0) return 0;
        return PutValue(buffer, written, static_cast<uint32_t>(-static_cast<LONG>(state.Rate)));
    case HAL_BT_CHARGE_RATE_MW:
        if (!ReadBatteryState(state) || state.AcOnLine != 1 || static_cast<LONG>(state.Rate) < 1) return 0;
        return PutValue(buffer, written, uint32_t{state.Rate});
    case HAL_BT_OEM_READING: {
        const unsigned char head[] = {0x02, 0x02, 0x01, 0x00};
        unsigned char answer[kAnswerBytes] = {};
        if (!CallFirmware(head, sizeof(head), answer)) return 0;
        return PutValue(buffer, written, DecimalReading(answer[2], answer[3]));
    }
    default:
        return 0;
    }
}

}  // namespace

uint32_t BtQueryInformation(uint32_t code, void* buffer, uint32_t size, uint32_t* written) {
    if (code > HAL_BT_CHARGE_CONTROL || buffer == nullptr || written == nullptr) return 0;
    if (code == HAL_BT_MANUFACTURER || code == HAL_BT_DEVICE_NAME) return QueryName(code, buffer, size, written);
    if (code == HAL_BT_CHARGE_CONTROL) {
        if (size < 2) return 0;
        const unsigned char head[] = {0x03, 0x11};
        unsigned char answer[kAnswerBytes] = {};
        if (!CallFirmware(head, sizeof(head), answer)) return 0;
        // Read from bytes 1-2 while the write sends bytes 2-3: both placements are the firmware's.
        static_cast<uint8_t*>(buffer)[0] = answer[1];
        static_cast<uint8_t*>(buffer)[1] = answer[2];
        *written = 2;
        return 1;
    }
    if (size < sizeof(uint32_t)) return 0;
    return QueryNumber(code, buffer, written);
}

uint32_t BtSetInformation(uint32_t code, void* data, uint32_t size, uint32_t* written) {
    if (code != HAL_BT_CHARGE_CONTROL || data == nullptr || written == nullptr || size < 2) return 0;
    const auto* values = static_cast<const uint8_t*>(data);
    if (values[0] > kMaxChargeValue || values[1] > kMaxChargeValue) return 0;
    const unsigned char head[] = {0x03, 0x10, values[0], values[1]};
    unsigned char answer[kAnswerBytes] = {};
    if (!CallFirmware(head, sizeof(head), answer)) return 0;
    *written = 2;
    return 1;
}
