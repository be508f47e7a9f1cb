#include "support/fake_laptop.h"

#include <gtest/gtest.h>

#include <string>

namespace torvex::test {
namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";
const std::wstring kWmi = L"ROOT\\WMI";
const GUID kMediaClass = {0x4D36E96C, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
const GUID kSystemClass = {0x4D36E97D, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

WmiRow One(const wchar_t* property, WmiValue value) { return WmiRow{{property, value}}; }

}  // namespace

FakeLaptop::FakeLaptop()
    : server_(kGfxServerClass, [](REFIID iid, void** out) { return SharedGfxServer().QueryInterface(iid, out); }) {
    auto text = [this](const std::wstring& ns, const std::wstring& query, const wchar_t* property,
                       const std::wstring& value) { wmi.On(ns, query, {One(property, WmiValue::Str(value))}); };
    auto number = [this](const std::wstring& ns, const std::wstring& query, const wchar_t* property,
                         uint32_t value) { wmi.On(ns, query, {One(property, WmiValue::U32(value))}); };

    // Processor.
    text(kCimv2, L"SELECT Name FROM Win32_Processor", L"Name", L"11th Gen Intel(R) Core(TM) i7-1165G7 @ 2.80GHz");
    text(kCimv2, L"SELECT Manufacturer FROM Win32_Processor", L"Manufacturer", L"GenuineIntel");
    number(kCimv2, L"SELECT NumberOfCores FROM Win32_Processor", L"NumberOfCores", 4);
    number(kCimv2, L"SELECT NumberOfLogicalProcessors FROM Win32_Processor", L"NumberOfLogicalProcessors", 8);
    number(kCimv2, L"SELECT CurrentClockSpeed FROM Win32_Processor", L"CurrentClockSpeed", 2803);
    number(kCimv2, L"SELECT MaxClockSpeed FROM Win32_Processor", L"MaxClockSpeed", 4700);
    number(kCimv2, L"SELECT ExtClock FROM Win32_Processor", L"ExtClock", 100);
    number(kCimv2, L"SELECT LoadPercentage FROM Win32_Processor", L"LoadPercentage", 12);
    number(kCimv2, L"SELECT Associativity FROM Win32_CacheMemory WHERE Level='3'", L"Associativity", 12);
    number(kCimv2, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'", L"InstalledSize", 12288);

    // Mainboard and BIOS.
    text(kCimv2, L"SELECT Product FROM Win32_BaseBoard", L"Product", L"LNVNB161216");
    text(kCimv2, L"SELECT Manufacturer FROM Win32_BaseBoard", L"Manufacturer", L"LENOVO");
    text(kCimv2, L"SELECT Version FROM Win32_BaseBoard", L"Version", L"SDK0J40697 WIN");
    text(kCimv2, L"SELECT SerialNumber FROM Win32_BaseBoard", L"SerialNumber", L"PF2ABCDE");
    text(kCimv2, L"SELECT SMBIOSBIOSVersion FROM Win32_BIOS", L"SMBIOSBIOSVersion", L"GGCN51WW");
    text(kCimv2, L"SELECT Manufacturer FROM Win32_BIOS", L"Manufacturer", L"LENOVO");
    text(kCimv2, L"SELECT ReleaseDate FROM Win32_BIOS", L"ReleaseDate", L"20230412000000.000000+000");

    // Two memory modules.
    const wchar_t* locators[] = {L"DIMM A", L"DIMM B"};
    const wchar_t* banks[] = {L"BANK 0", L"BANK 1"};
    wmi.On(kCimv2, L"SELECT DeviceLocator FROM Win32_PhysicalMemory",
           {One(L"DeviceLocator", WmiValue::Str(locators[0])), One(L"DeviceLocator", WmiValue::Str(locators[1]))});
    wmi.On(kCimv2, L"SELECT BankLabel FROM Win32_PhysicalMemory",
           {One(L"BankLabel", WmiValue::Str(banks[0])), One(L"BankLabel", WmiValue::Str(banks[1]))});
    for (int m = 0; m < 2; ++m) {
        for (const std::wstring& where : {L"DeviceLocator='" + std::wstring(locators[m]) + L"'",
                                          L"BankLabel='" + std::wstring(banks[m]) + L"'"}) {
            const std::wstring from = L" FROM Win32_PhysicalMemory WHERE " + where;
            text(kCimv2, L"SELECT Manufacturer" + from, L"Manufacturer", L"Samsung");
            text(kCimv2, L"SELECT SerialNumber" + from, L"SerialNumber", m == 0 ? L"00000001" : L"00000002");
            text(kCimv2, L"SELECT PartNumber" + from, L"PartNumber", L"M471A1K43DB1-CWE");
            text(kCimv2, L"SELECT Capacity" + from, L"Capacity", L"8589934592");
            number(kCimv2, L"SELECT ConfiguredClockSpeed" + from, L"ConfiguredClockSpeed", 3200);
        }
    }

    // A battery, charging on AC.
    power.acLine = 1;
    power.batteryFlag = 8;  // charging
    power.batteryPercent = 70;
    power.battery.AcOnLine = TRUE;
    power.battery.BatteryPresent = TRUE;
    power.battery.Charging = TRUE;
    power.battery.MaxCapacity = 42500;
    power.battery.RemainingCapacity = 29750;
    power.battery.Rate = 5000;
    number(kWmi, L"SELECT DesignedCapacity FROM BatteryStaticData", L"DesignedCapacity", 50000);
    number(kWmi, L"SELECT Voltage FROM BatteryStatus", L"Voltage", 12600);
    text(kWmi, L"SELECT DeviceName FROM BatteryStaticData", L"DeviceName", L"L20M3PF0");
    text(kWmi, L"SELECT ManufactureName FROM BatteryStaticData", L"ManufactureName", L"SMP");

    // Two disks: an SSD and a hard disk.
    wmi.On(kCimv2, L"SELECT Name FROM Win32_DiskDrive",
           {One(L"Name", WmiValue::Str(L"\\\\.\\PHYSICALDRIVE0")), One(L"Name", WmiValue::Str(L"\\\\.\\PHYSICALDRIVE1"))});
    const wchar_t* captions[] = {L"SAMSUNG MZVLB512HBJQ-000L7", L"ST1000LM035-1RK172"};
    for (int d = 0; d < 2; ++d) {
        const std::wstring index = std::to_wstring(d);
        text(kCimv2, L"SELECT Caption FROM Win32_DiskDrive WHERE Index='" + index + L"'", L"Caption", captions[d]);
        text(kCimv2, L"SELECT SerialNumber FROM Win32_DiskDrive WHERE Index='" + index + L"'", L"SerialNumber",
             L"S4EWNX0R00000" + index);
        text(kCimv2, L"SELECT FirmwareRevision FROM Win32_DiskDrive WHERE Index='" + index + L"'",
             L"FirmwareRevision", L"5L2QEXA7");
        text(kCimv2, L"SELECT MediaType FROM Win32_DiskDrive WHERE Index = '" + index + L"'", L"MediaType",
             L"Fixed hard disk media");
        number(L"ROOT\\Microsoft\\Windows\\Storage", L"SELECT * FROM MSFT_PhysicalDisk where DeviceID = '" + index + L"'",
               L"MediaType", d == 0 ? 4 : 3);
    }

    // Graphics: integrated Intel first, discrete NVIDIA second.
    const std::pair<const wchar_t*, const wchar_t*> adapters[] = {
        {L"PCI\\VEN_8086&DEV_9A49&SUBSYS_380117AA", L"Intel(R) Iris(R) Xe Graphics"},
        {L"PCI\\VEN_10DE&DEV_25A2&SUBSYS_380117AA", L"NVIDIA GeForce RTX 3050 Laptop GPU"}};
    for (const auto& [id, name] : adapters) {
        tree.Add(FakeDevice(kDisplayClass).Ids({id}).Desc(name));
        const std::wstring where = L" FROM Win32_VideoController WHERE Caption ='" + std::wstring(name) + L"'";
        text(kCimv2, L"SELECT AdapterDACType" + where, L"AdapterDACType",
             id[8] == L'8' ? L"Internal Integrated RAMDAC" : L"Internal");
        number(kCimv2, L"SELECT CurrentRefreshRate" + where, L"CurrentRefreshRate", 60);
    }
    text(kCimv2, L"SELECT PNPDeviceID FROM Win32_DesktopMonitor WHERE PNPDeviceID IS NOT NULL", L"PNPDeviceID",
         L"DISPLAY\\LEN40A9\\4&2A1B3C4D&0&UID8388688");

    // Audio codec and a device with a driver problem.
    tree.Add(FakeDevice(kMediaClass)
                 .Ids({L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_0257&SUBSYS_17AA380F&REV_1000", L"HDAUDIO\\FUNC_01&VEN_10EC"})
                 .Desc(L"Realtek(R) Audio"));
    tree.Add(FakeDevice(kSystemClass).Ids({L"ACPI\\VEN_INT&DEV_33A1"}).Desc(L"Unknown Sensor").Problem(28));
    wmi.On(kCimv2, L"SELECT Caption FROM Win32_PnPEntity WHERE ConfigManagerErrorCode !=0",
           {One(L"Caption", WmiValue::Str(L"Unknown Sensor"))});
    const std::wstring sensor = L" FROM Win32_PnPEntity WHERE Caption='Unknown Sensor'";
    number(kCimv2, L"SELECT ConfigManagerErrorCode" + sensor, L"ConfigManagerErrorCode", 28);
    text(kCimv2, L"SELECT DeviceID" + sensor, L"DeviceID", L"ACPI\\INT33A1\\0");
    text(kCimv2, L"SELECT ClassGuid" + sensor, L"ClassGuid", L"{4d36e97d-e325-11ce-bfc1-08002be10318}");
    text(kCimv2, L"SELECT Manufacturer" + sensor, L"Manufacturer", L"Intel");
    text(kCimv2, L"SELECT Service" + sensor, L"Service", L"iaLPSS2");
    text(kCimv2, L"SELECT Status" + sensor, L"Status", L"Error");

    // A connected Wi-Fi interface with its radio on.
    wlan.interfaces = {MakeWlanInterface(1, L"Intel(R) Wi-Fi 6 AX201 160MHz", wlan_interface_state_connected)};
    wlan.radio.dwNumberOfPhys = 1;
    wlan.radio.PhyRadioState[0].dot11SoftwareRadioState = dot11_radio_state_on;
    wlan.radio.PhyRadioState[0].dot11HardwareRadioState = dot11_radio_state_on;

    // The OEM firmware method accepts every command.
    wmi.SetFirmware(FakeWmi::FirmwareInput::U8Array, [this](const std::vector<uint8_t>&) {
        ++firmwareCalls;
        return firmwareAnswer;
    });
}

void FakeLaptop::ExpectNothingLeft() const {
    EXPECT_EQ(wmi.LiveObjects(), 0) << "a WMI object was left referenced";
    EXPECT_EQ(tree.OpenSets(), 0) << "a device-information set was left open";
    EXPECT_EQ(wlan.outstanding, 0) << "a Native Wifi block was not freed";
}

}  // namespace torvex::test
