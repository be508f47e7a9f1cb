// Battery (class 8): a laptop and a desktop behind the power, Setup API and
// battery IOCTL imports, the fake WMI and the fake firmware; and Wine's own.
#include <windows.h>
#include <poclass.h>
#include <powrprof.h>
#include <setupapi.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/fake_graphics.h"
#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakePower;
using torvex::test::FakeWmi;
using torvex::test::ImportPatch;
using torvex::test::Redirect;
using torvex::test::WmiValue;

namespace {

struct FakeBattery {
    bool hasInterface = true;
    ULONG tag = 7;
    BATTERY_INFORMATION information{};
    BATTERY_STATUS status{};
    bool statusAnswers = true;
    std::wstring deviceName = L"Device Name";
    bool manufacturerAnswers = false;
    int openHandles = 0;
};
FakeBattery* g_battery = nullptr;
ImportPatch* g_ioctlOriginal = nullptr;
ImportPatch* g_closeOriginal = nullptr;
const HDEVINFO kSet = reinterpret_cast<HDEVINFO>(0x5E70000);
const HANDLE kDevice = reinterpret_cast<HANDLE>(0xBA770000);
const wchar_t kPath[] = L"\\\\?\\acpi#pnp0c0a#1#{72631e54-78a4-11d0-bcf7-00aa00b7b32a}";

HDEVINFO WINAPI FakeClassDevs(const GUID*, PCWSTR, HWND, DWORD flags) {
    return flags == (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE) ? kSet : INVALID_HANDLE_VALUE;
}
BOOL WINAPI FakeEnumInterfaces(HDEVINFO set, PSP_DEVINFO_DATA, const GUID*, DWORD index,
                               PSP_DEVICE_INTERFACE_DATA) {
    return set == kSet && index == 0 && g_battery->hasInterface;
}
BOOL WINAPI FakeInterfaceDetail(HDEVINFO, PSP_DEVICE_INTERFACE_DATA, PSP_DEVICE_INTERFACE_DETAIL_DATA_W detail,
                                DWORD size, PDWORD required, PSP_DEVINFO_DATA) {
    const DWORD needed = static_cast<DWORD>(sizeof(DWORD) + sizeof(kPath));
    if (required != nullptr) *required = needed;
    if (detail == nullptr || size < needed) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    std::memcpy(detail->DevicePath, kPath, sizeof(kPath));
    return TRUE;
}
BOOL WINAPI FakeDestroyList(HDEVINFO) { return TRUE; }

HANDLE WINAPI FakeCreateFileW(LPCWSTR path, DWORD access, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    if (std::wstring(path) != kPath || access != (GENERIC_READ | GENERIC_WRITE)) return INVALID_HANDLE_VALUE;
    ++g_battery->openHandles;
    return kDevice;
}
BOOL WINAPI FakeCloseHandle(HANDLE h) {
    if (h == kDevice) {
        --g_battery->openHandles;
        return TRUE;
    }
    return g_closeOriginal->Original<BOOL(WINAPI*)(HANDLE)>()(h);
}

BOOL WINAPI FakeIoctl(HANDLE h, DWORD code, LPVOID in, DWORD inSize, LPVOID out, DWORD outSize, LPDWORD returned,
                      LPOVERLAPPED overlapped) {
    if (h != kDevice)
        return g_ioctlOriginal->Original<decltype(&DeviceIoControl)>()(h, code, in, inSize, out, outSize, returned,
                                                                         overlapped);
    if (code == IOCTL_BATTERY_QUERY_TAG) {
        *static_cast<ULONG*>(out) = g_battery->tag;
        return TRUE;
    }
    if (code == IOCTL_BATTERY_QUERY_INFORMATION && inSize == sizeof(BATTERY_QUERY_INFORMATION)) {
        const auto* query = static_cast<BATTERY_QUERY_INFORMATION*>(in);
        if (query->BatteryTag != g_battery->tag) return FALSE;
        if (query->InformationLevel == BatteryInformation && outSize == sizeof(BATTERY_INFORMATION)) {
            std::memcpy(out, &g_battery->information, sizeof(BATTERY_INFORMATION));
            return TRUE;
        }
        if (query->InformationLevel == BatteryDeviceName) {
            std::memcpy(out, g_battery->deviceName.c_str(), (g_battery->deviceName.size() + 1) * 2);
            return TRUE;
        }
        if (query->InformationLevel == BatteryManufactureName && g_battery->manufacturerAnswers) {
            std::memcpy(out, L"Maker", 12);
            return TRUE;
        }
        return FALSE;
    }
    if (code == IOCTL_BATTERY_QUERY_STATUS && inSize == sizeof(BATTERY_WAIT_STATUS) && g_battery->statusAnswers) {
        std::memcpy(out, &g_battery->status, sizeof(BATTERY_STATUS));
        return TRUE;
    }
    return FALSE;
}

class BatteryTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_battery = &battery;
        g_ioctlOriginal = &ioctl;
        g_closeOriginal = &close;
        power.batteryFlag = 1;
        power.battery.AcOnLine = 1;
        power.battery.MaxCapacity = 42500;
        power.battery.RemainingCapacity = 30000;
        power.battery.Rate = 5000;
        battery.information.Capabilities = 0x80000000u;
        battery.information.DesignedCapacity = 50000;
        battery.status.Voltage = 12600;
        wmi.On(L"ROOT\\WMI", L"SELECT DesignedCapacity FROM BatteryStaticData",
               {{{L"DesignedCapacity", WmiValue::U32(60000)}}});
        wmi.On(L"ROOT\\WMI", L"SELECT Voltage FROM BatteryStatus", {{{L"Voltage", WmiValue::U32(11000)}}});
        wmi.On(L"ROOT\\WMI", L"SELECT DeviceName FROM BatteryStaticData", {{{L"DeviceName", WmiValue::Str(L"WMI Name")}}});
        wmi.On(L"ROOT\\WMI", L"SELECT ManufactureName FROM BatteryStaticData",
               {{{L"ManufactureName", WmiValue::Str(L"WMI Maker")}}});
    }
    void TearDown() override {
        EXPECT_EQ(battery.openHandles, 0) << "the battery device was left open";
        EXPECT_EQ(wmi.LiveObjects(), 0);
        g_battery = nullptr;
    }
    // (result, value) of a 32-bit code.
    std::pair<uint32_t, uint32_t> Number(uint32_t code, uint32_t size = 4) {
        uint32_t value = 0xEEEEEEEE;
        uint32_t written = 0;
        const uint32_t result = HalQueryInformation(HAL_CLASS_BATTERY, nullptr, code, &value, size, &written);
        if (result != 0) EXPECT_EQ(written, 4u);
        return {result, value};
    }
    std::string Text(uint32_t code, uint32_t size = 64) {
        char buffer[64];
        std::memset(buffer, '#', sizeof(buffer));
        uint32_t written = 0;
        if (BtQueryInformation(code, buffer, size, &written) == 0) return "<failed>";
        EXPECT_EQ(buffer[written], '#');
        return std::string(buffer, written);
    }

    FakeBattery battery;
    FakePower power;
    FakeWmi wmi;
    ImportPatch classDevs = Redirect("SetupDiGetClassDevsW", &FakeClassDevs);
    ImportPatch interfaces = Redirect("SetupDiEnumDeviceInterfaces", &FakeEnumInterfaces);
    ImportPatch detail = Redirect("SetupDiGetDeviceInterfaceDetailW", &FakeInterfaceDetail);
    ImportPatch destroy = Redirect("SetupDiDestroyDeviceInfoList", &FakeDestroyList);
    ImportPatch create = Redirect("CreateFileW", &FakeCreateFileW);
    ImportPatch close = Redirect("CloseHandle", &FakeCloseHandle);
    ImportPatch ioctl = Redirect("DeviceIoControl", &FakeIoctl);
};

TEST_F(BatteryTest, ALaptopAnswersEveryNumber) {
    const std::pair<uint32_t, uint32_t> expected[] = {
        {HAL_BT_PRESENT, 1},         {HAL_BT_REMAINING_MWH, 30000}, {HAL_BT_FULL_CHARGED_MWH, 42500},
        {HAL_BT_DESIGNED_MWH, 50000}, {HAL_BT_AC_LINE_STATUS, 1},    {HAL_BT_VOLTAGE_MV, 12600},
        {HAL_BT_WEAR_CENTIPERCENT, 1500}, {HAL_BT_CHARGE_RATE_MW, 5000},
    };
    for (const auto& [code, value] : expected) EXPECT_EQ(Number(code), std::make_pair(1u, value)) << code;
    EXPECT_EQ(Number(HAL_BT_DISCHARGE_RATE_MW).first, 0u) << "on AC power";
    power.battery.AcOnLine = 0;
    power.battery.Rate = static_cast<ULONG>(-12000);
    EXPECT_EQ(Number(HAL_BT_DISCHARGE_RATE_MW), std::make_pair(1u, 12000u));
    EXPECT_EQ(Number(HAL_BT_CHARGE_RATE_MW).first, 0u);
    power.battery.AcOnLine = 1;
    power.battery.Rate = 0;
    EXPECT_EQ(Number(HAL_BT_CHARGE_RATE_MW).first, 0u);
    power.battery.MaxCapacity = 50000;
    EXPECT_EQ(Number(HAL_BT_WEAR_CENTIPERCENT).first, 0u) << "no wear unless designed exceeds full";
}

TEST_F(BatteryTest, ADesktopFailsThePresenceCodesButAnswersTheAcLine) {
    for (BYTE flag : {BYTE{128}, BYTE{255}}) {
        power.batteryFlag = flag;
        for (uint32_t code : {0u, 3u, 4u, 5u, 7u, 8u}) EXPECT_EQ(Number(code).first, 0u) << code;
        EXPECT_EQ(Number(HAL_BT_AC_LINE_STATUS), std::make_pair(1u, 1u));
    }
}

TEST_F(BatteryTest, WmiAnswersWhenTheDeviceCannot) {
    battery.information.Capabilities = 0;  // not a system battery
    EXPECT_EQ(Number(HAL_BT_DESIGNED_MWH), std::make_pair(1u, 60000u));
    EXPECT_EQ(Number(HAL_BT_VOLTAGE_MV), std::make_pair(1u, 11000u));
    battery.information.Capabilities = 0x80000000u;
    battery.statusAnswers = false;
    EXPECT_EQ(Number(HAL_BT_VOLTAGE_MV), std::make_pair(1u, 11000u));
    battery.hasInterface = false;
    EXPECT_EQ(Number(HAL_BT_DESIGNED_MWH), std::make_pair(1u, 60000u));
    wmi.On(L"ROOT\\WMI", L"SELECT Voltage FROM BatteryStatus", {{{L"Voltage", WmiValue::U32(0xFFFFFFFF)}}});
    EXPECT_EQ(Number(HAL_BT_VOLTAGE_MV), std::make_pair(1u, 0xFFFFFFFFu)) << "only 0 fails";
    wmi.On(L"ROOT\\WMI", L"SELECT DesignedCapacity FROM BatteryStaticData", {});
    EXPECT_EQ(Number(HAL_BT_DESIGNED_MWH).first, 0u);
}

TEST_F(BatteryTest, NamesFollowTheInvertedManufacturerTest) {
    EXPECT_EQ(Text(HAL_BT_DEVICE_NAME), "Device Name");
    EXPECT_EQ(Text(HAL_BT_MANUFACTURER), "WMI Maker") << "the manufacturer always comes from WMI";
    battery.manufacturerAnswers = true;  // a successful manufacturer request fails the device path
    EXPECT_EQ(Text(HAL_BT_DEVICE_NAME), "WMI Name");
    EXPECT_EQ(Text(HAL_BT_DEVICE_NAME, 8), "<failed>") << "size equal to the length";
    EXPECT_EQ(Text(HAL_BT_DEVICE_NAME, 9), "WMI Name");
}

TEST_F(BatteryTest, PowerCallsAreRetriedWithinTheirBounds) {
    power.statusFailures = 2;
    EXPECT_EQ(Number(HAL_BT_AC_LINE_STATUS), std::make_pair(1u, 1u));
    EXPECT_EQ(power.statusCalls, 3);
    power.statusCalls = 0;
    power.statusFailures = 100;
    EXPECT_EQ(Number(HAL_BT_AC_LINE_STATUS).first, 0u);
    EXPECT_EQ(power.statusCalls, 3);

    power.statusFailures = 0;
    power.batteryFailures = 3;
    EXPECT_EQ(Number(HAL_BT_REMAINING_MWH), std::make_pair(1u, 30000u));
    EXPECT_EQ(power.batteryCalls, 4);
    power.batteryCalls = 0;
    power.batteryFailures = 100;
    EXPECT_EQ(Number(HAL_BT_REMAINING_MWH).first, 0u);
    EXPECT_EQ(power.batteryCalls, 4);
}

TEST_F(BatteryTest, OemReadingAndChargeControl) {
    std::vector<uint8_t> packet;
    std::vector<uint8_t> answer(256, 0);
    wmi.SetFirmware(FakeWmi::FirmwareInput::U8Array, [&](const std::vector<uint8_t>& sent) {
        packet = sent;
        return answer;
    });
    const std::tuple<uint8_t, uint8_t, float> readings[] = {{35, 7, 35.7f}, {35, 12, 35.0f}, {1, 5, -1.5f}};
    for (const auto& [whole, tenths, expected] : readings) {
        answer[2] = whole;
        answer[3] = tenths;
        float value = 0;
        uint32_t written = 0;
        ASSERT_EQ(BtQueryInformation(HAL_BT_OEM_READING, &value, 4, &written), 1u);
        EXPECT_FLOAT_EQ(value, expected);
        EXPECT_EQ(std::vector<uint8_t>(packet.begin(), packet.begin() + 4), (std::vector<uint8_t>{2, 2, 1, 0}));
    }

    answer[1] = 80;
    answer[2] = 95;
    uint8_t pair[2] = {};
    uint32_t written = 0;
    ASSERT_EQ(BtQueryInformation(HAL_BT_CHARGE_CONTROL, pair, 2, &written), 1u);
    EXPECT_EQ(pair[0], 80);
    EXPECT_EQ(pair[1], 95);
    EXPECT_EQ(written, 2u);
    EXPECT_EQ(std::vector<uint8_t>(packet.begin(), packet.begin() + 4), (std::vector<uint8_t>{3, 0x11, 0, 0}));

    uint8_t values[2] = {0, 100};
    written = 0;
    ASSERT_EQ(HalSetInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_CHARGE_CONTROL, values, 2, &written, 0), 1u);
    EXPECT_EQ(written, 2u);
    EXPECT_EQ(std::vector<uint8_t>(packet.begin(), packet.begin() + 4), (std::vector<uint8_t>{3, 0x10, 0, 100}));

    const size_t calls = wmi.MethodCalls().size();
    uint8_t tooHigh[2] = {101, 80};
    written = 9;
    EXPECT_EQ(BtSetInformation(HAL_BT_CHARGE_CONTROL, tooHigh, 2, &written), 0u);
    EXPECT_EQ(BtSetInformation(HAL_BT_CHARGE_CONTROL, values, 1, &written), 0u);
    EXPECT_EQ(BtSetInformation(11, values, 2, &written), 0u);
    EXPECT_EQ(wmi.MethodCalls().size(), calls) << "refusals come before the channel";
    answer[0] = 1;
    EXPECT_EQ(BtSetInformation(HAL_BT_CHARGE_CONTROL, values, 2, &written), 0u);
    EXPECT_EQ(written, 9u);
    float value = 0;
    EXPECT_EQ(BtQueryInformation(HAL_BT_OEM_READING, &value, 4, &written), 0u) << "status byte non-zero";
}

TEST_F(BatteryTest, RefusalsComeBeforeAnySource) {
    uint32_t value = 77;
    uint32_t written = 9;
    EXPECT_EQ(BtQueryInformation(HAL_BT_FULL_CHARGED_MWH, &value, 2, &written), 0u);
    EXPECT_EQ(power.statusCalls, 0) << "the size is checked before the presence test";
    EXPECT_EQ(BtQueryInformation(13, &value, 4, &written), 0u);
    EXPECT_EQ(BtQueryInformation(HAL_BT_PRESENT, nullptr, 4, &written), 0u);
    EXPECT_EQ(BtQueryInformation(HAL_BT_PRESENT, &value, 4, nullptr), 0u);
    EXPECT_EQ(BtQueryInformation(HAL_BT_OEM_READING, &value, 3, &written), 0u);
    EXPECT_EQ(BtQueryInformation(HAL_BT_CHARGE_CONTROL, &value, 1, &written), 0u);
    EXPECT_TRUE(wmi.MethodCalls().empty());
    EXPECT_EQ(value, 77u);
    EXPECT_EQ(written, 9u);
}

// Wine's own power functions: no battery, on AC.
TEST(BatteryOnWine, NoBatteryButAnAcLine) {
    uint32_t value = 0;
    uint32_t written = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_PRESENT, &value, 4, &written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_REMAINING_MWH, &value, 4, &written), 0u);
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_AC_LINE_STATUS, &value, 4, &written), 1u);
    EXPECT_EQ(value, 1u);
}

}  // namespace
