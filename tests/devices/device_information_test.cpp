// DeviceInformention over simulated device trees (tests/machines/device-tree
// and small inline ones), and on Wine's own.
#include <windows.h>
#include <cfgmgr32.h>
#include <setupapi.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "devices/device_property_keys.h"
#include "support/simulated_machine.h"
#include "support/torvex_test.h"

namespace torvex::test {
namespace {

using Strings = std::vector<std::wstring>;
using Calls = std::vector<std::string>;
const GUID& kMedia = torvex::devkeys::kMediaClass;
constexpr GUID kNet = {0x4D36E972, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr GUID kEmptyClass = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};
const std::string kMediaSet = "{4D36E96C-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT";
const std::string kNetSet = "{4D36E972-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT";
const std::string kAllSet = "* DIGCF_PRESENT|DIGCF_ALLCLASSES";

// The first hardware IDs of the device tree, and the codec's description and instance ID.
const wchar_t kCodec[] = L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_0295", kHdmi[] = L"HDAUDIO\\FUNC_01&VEN_8086&DEV_2812";
const wchar_t kLower[] = L"HDAUDIO\\FUNC_01&ven_10ec&DEV_0256", kConexant[] = L"HDAUDIO\\FUNC_01&VEN_14F1&DEV_50F4";
const wchar_t kNic[] = L"PCI\\VEN_8086&DEV_15F3", kUsbNic[] = L"USB\\VID_0BDA&PID_8153";
const wchar_t kCodecDesc[] = L"Realtek High Definition Audio";
const std::string kCodecNode = "HDAUDIO\\FUNC_01&VEN_10EC&DEV_0295\\4&1&0001";

// A device of an inline tree: hardware IDs (none: the read fails), other properties, node status.
Json Device(std::vector<std::string> ids, Json properties = Json::object(), Json status = {{"flags", 6154}}) {
    if (!ids.empty()) properties["DEVPKEY_Device_HardwareIds"] = {{"string_list", ids}};
    return {{"properties", properties}, {"status", status}};
}
// The devices in order, as the one set `set`; instance IDs ROOT\DEV\<i>.
Json Tree(const std::vector<Json>& devices, const std::string& set = kNetSet) {
    Json ids = Json::array(), nodes = Json::object();
    for (size_t i = 0; i < devices.size(); ++i) nodes[ids.emplace_back("ROOT\\DEV\\" + std::to_string(i)).get<std::string>()] = devices[i];
    return {{"sets", {{set, ids}}}, {"nodes", nodes}};
}

// The size argument of every property read, as the trace shows it.
Calls Rooms(const SimulatedMachine& machine) {
    Calls rooms;
    for (const std::string& call : machine.Calls("setupapi"))
        if (const size_t at = call.find("[room "); at != std::string::npos) rooms.push_back(call.substr(at + 6, call.find(' ', at + 6) - at - 6));
    return rooms;
}

// One import fails for the life of the patch with a result and last error.
// x64 callers clean up their own arguments, so one function stands in for any.
ULONG_PTR g_result = 0;
DWORD g_error = 0;
ULONG_PTR WINAPI Refuse() { return SetLastError(g_error), g_result; }
ImportPatch Refusing(const char* function, ULONG_PTR result, DWORD error) {
    g_result = result, g_error = error;
    return Redirect(function, &Refuse);
}

// The machine answers from tests/machines/device-tree unless a test gives it other devices.
class DeviceInformationTest : public ::testing::Test {
protected:
    void TearDown() override { ExpectNothingHeld(); }
    void Devices(const Json& devices) { machine.profile.doc()["devices"] = devices; }
    SimulatedMachine machine{MachineFile{"device-tree"}};
    DeviceInformention info;
};

TEST_F(DeviceInformationTest, ListsOfAClassFollowItsOrderAndEveryReadHas520Bytes) {
    EXPECT_EQ(info.GetDeviceHardwareId(kMedia), (Strings{kCodec, kHdmi, kLower, kConexant}));
    EXPECT_EQ(info.GetDeviceDesc(kMedia), (Strings{kCodecDesc, L"Intel Display Audio", L"Realtek in lower case", L""}));
    EXPECT_EQ(info.GetDeviceDesc(kNet), (Strings{L"Ethernet", L"USB NIC"}));
    EXPECT_TRUE(info.GetDeviceHardwareId(kEmptyClass).empty());
    EXPECT_EQ(Rooms(machine), Calls(10, "520"));
}

TEST_F(DeviceInformationTest, StringAndNumericPropertiesByHardwareIdAndByDescription) {
    // Selector i of the codec, by hardware ID and by description (0 and 3 give the input back).
    const wchar_t* const answers[] = {kCodecDesc, L"Realtek", L"6.0.9235.1", kCodec, L"HDAUDIO", L"prop90",
                                      L"Speakers (Realtek)", L"Realtek Audio", L"oem12.inf",
                                      L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_0295\\4&1&0001", L"Realtek Semiconductor Corp.",
                                      L"", L"", L"", L""};
    for (unsigned i = 0; i < 15; ++i) {
        EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(kCodec, kMedia, EnumDeviceProperty(i)), answers[i]) << i;
        EXPECT_EQ(info.GetDeviceStrInfoByDesc(kCodecDesc, kMedia, EnumDeviceProperty(i)), i != 10 ? answers[i] : L"")
            << i << ": only the hardware-ID variant serves 10";
    }
    EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(kHdmi, kMedia, EnumDeviceProperty::Manufacturer), L"Intel");
    EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(kHdmi, kMedia, EnumDeviceProperty::FriendlyName), L"");  // absent
    // Exact, case-sensitive, first hardware ID only.
    for (const wchar_t* other : {L"HDAUDIO\\FUNC_01&ven_10ec&DEV_0295", L"HDAUDIO\\FUNC_01&VEN_10EC", L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_029"})
        EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(other, kMedia, EnumDeviceProperty::DeviceDesc), L"");
    EXPECT_EQ(info.GetDeviceStrInfoByDesc(L"realtek high definition audio", kMedia, EnumDeviceProperty::Name), L"");

    EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kCodec, kMedia, EnumDeviceProperty::ProblemCode), 28u);
    EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kCodec, kMedia, EnumDeviceProperty::Address), 1u);
    EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kHdmi, kMedia, EnumDeviceProperty::ProblemCode), 0u);
    EXPECT_EQ(info.GetDeviceULONGInfoByDesc(kCodecDesc, kMedia, EnumDeviceProperty::ProblemCode), 28u);
    machine.trace.Clear();
    EXPECT_EQ(info.GetDeviceULONGInfoByDesc(kCodecDesc, kMedia, EnumDeviceProperty::Address), 0u);
    EXPECT_EQ(machine.Asked("setupapi"), (Calls{"open " + kMediaSet, kCodecNode + " DEVPKEY_Device_DeviceDesc"}))
        << "the lookup runs, the address is not read";

    machine.trace.Clear();  // these need no device set
    EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(L"NO\\SUCH", kMedia, EnumDeviceProperty::HardwareIds), L"NO\\SUCH");
    EXPECT_EQ(info.GetDeviceStrInfoByDesc(L"Nothing", kMedia, EnumDeviceProperty::DeviceDesc), L"Nothing");
    EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kCodec, kMedia, EnumDeviceProperty::DeviceDesc), 0u);
    EXPECT_TRUE(machine.Asked("setupapi").empty());

    // Only UINT32-typed values of one to four bytes count.
    const std::pair<Json, unsigned> cases[] = {
        {{{"uint32", 43}}, 43u}, {{{"type", 7}, {"binary", "2b01"}}, 0x12Bu}, {{{"type", 7}, {"binary", ""}}, 0u},
        {{{"type", 7}, {"binary", "0100000000000000"}}, 0u}, {{{"type", 6}, {"binary", "2b000000"}}, 0u},  // INT32
        {{{"string", "+"}}, 0u},
    };
    for (const auto& [value, expected] : cases) {
        Devices(Tree({Device({"A"}, {{"DEVPKEY_Device_ProblemCode", value}})}, kMediaSet));
        EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(L"A", kMedia, EnumDeviceProperty::ProblemCode), expected) << value;
    }
}

TEST_F(DeviceInformationTest, LookupStopsAtTheFirstFailedReadButTheInstallerRemovalSkipsIt) {
    Devices(Tree({Device({}), Device({"B"}, {{"DEVPKEY_Device_DeviceDesc", {{"string", "b"}}}})}));
    EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(L"B", kNet, EnumDeviceProperty::DeviceDesc), L"");
    EXPECT_EQ(info.GetLastIntallTime(L"B", kNet), 0u);
    EXPECT_EQ(info.UnstallDeviceByHardwareId(L"B", kNet), 0xFFFFFFFFu);
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(L"B", kNet), 0u);
    EXPECT_EQ(machine.Asked("setupapi").back(), "class installer 5 on ROOT\\DEV\\1");
}

TEST_F(DeviceInformationTest, RemovalTakesTheDeviceAwayAndReportsStatusValues) {
    EXPECT_EQ(info.UnstallDeviceByHardwareId(kHdmi, kMedia), 0u);
    EXPECT_EQ(machine.Asked("setupapi").back(), "remove HDAUDIO\\FUNC_01&VEN_8086&DEV_2812\\4&1&0002");
    EXPECT_EQ(info.GetDeviceHardwareId(kMedia), (Strings{kCodec, kLower, kConexant}));
    EXPECT_EQ(info.UnstallDeviceByHardwareId(kHdmi, kMedia), 0xFFFFFFFFu);
    EXPECT_EQ(info.UnstallDeviceByHardwareId(L"PCI\\VEN_8086", kNet), 0xFFFFFFFFu);  // a second ID only
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(L"PCI\\VEN_8086", kNet), 0xFFFFFFFFu);
    EXPECT_EQ(info.UnstallDeviceByHardwareId(kNic, kEmptyClass), 0xFFFFFFFFu);
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kNic, kEmptyClass), 0xFFFFFFFFu);

    machine.trace.Clear();
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kUsbNic, kNet), 0u);
    const std::string node = "USB\\VID_0BDA&PID_8153\\000001";
    EXPECT_THAT(machine.Calls("cfgmgr"), testing::ElementsAre(testing::EndsWith(" [room 200 chars] -> " + node)));
    const Calls calls = machine.Calls("setupapi");
    EXPECT_EQ(Calls(calls.end() - 2, calls.end()),
              (Calls{"class install params on " + node + " [header 8 bytes, function 5, 16 bytes, scope 1, profile 0] -> set",
                     "class installer 5 on " + node + " -> done"}));
}

TEST_F(DeviceInformationTest, RemovalFailuresReportTheLastError) {
    // The import, its result and last error; what UnstallDeviceByHardwareId and ...Ex report.
    const std::tuple<const char*, ULONG_PTR, DWORD, unsigned, unsigned> cases[] = {
        {"SetupDiRemoveDevice", FALSE, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED, 0},
        {"SetupDiCallClassInstaller", FALSE, ERROR_ACCESS_DENIED, 0, ERROR_ACCESS_DENIED},
        {"SetupDiSetClassInstallParamsW", FALSE, ERROR_INVALID_FLAGS, 0, ERROR_INVALID_FLAGS},
        {"SetupDiGetDeviceInfoListDetailW", FALSE, ERROR_INVALID_DATA, 0, ERROR_INVALID_DATA},
        {"CM_Get_Device_ID_ExW", CR_FAILURE, ERROR_GEN_FAILURE, 0, ERROR_GEN_FAILURE},  // not the CR_ code
        {"SetupDiGetClassDevsW", ULONG_PTR(-1), ERROR_GEN_FAILURE, 0xFFFFFFFF, 0xFFFFFFFF},
    };
    for (const auto& [function, result, error, plain, byInstaller] : cases) {
        Devices(Json::parse(MachineText("device-tree"))["devices"]);  // afresh
        machine.trace.Clear();
        ImportPatch refusal = Refusing(function, result, error);
        EXPECT_EQ(info.UnstallDeviceByHardwareId(kNic, kNet), plain) << function;
        EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kUsbNic, kNet), byInstaller) << function;
        const Calls asked = machine.Asked("setupapi");
        EXPECT_EQ(!asked.empty() && asked.back().rfind("class installer", 0) == 0, byInstaller == 0) << function;
    }
}

TEST_F(DeviceInformationTest, UnknownDevicesRepeatTheLastEntry) {
    // The classless device is last: the final, failing enumeration step looks at its record once more.
    EXPECT_EQ(info.GetUnknownDeviceHardId(), (Strings{L"ACPI\\VEN_ABCD", L"ACPI\\VEN_ABCD"}));
    EXPECT_EQ(Rooms(machine), (Calls{"16", "16", "16", "16", "16", "16", "16", "522", "16", "522"}))
        << "the class into 16 bytes, the hardware IDs with 522";
    const Json classed = {{"DEVPKEY_Device_Class", {{"guid", "{4D36E972-E325-11CE-BFC1-08002BE10318}"}}}};
    Devices(Tree({Device({"ROOT\\A"}), Device({"PCI\\B"}, classed)}, kAllSet));
    EXPECT_EQ(info.GetUnknownDeviceHardId(), Strings{L"ROOT\\A"});
    Devices(Tree({}, kAllSet));
    EXPECT_TRUE(info.GetUnknownDeviceHardId().empty()) << "no record was ever filled";
}

TEST_F(DeviceInformationTest, AllClassScansAppendSoftComponentsAndReplaceThePciList) {
    Strings kept{L"kept"};
    info.GetSoftComponentItems(kept, L"ROOT");
    EXPECT_EQ(kept, (Strings{L"kept", kNic, kUsbNic}));
    info.GetSoftComponentItems(kept, L"root");  // case-sensitive
    EXPECT_EQ(kept.size(), 3u);
    EXPECT_EQ(Rooms(machine), Calls(7 + 2 + 7, "522"));

    Strings ids{L"stale"};
    info.GetAllDeviceHardwareId(ids);
    EXPECT_EQ(ids, Strings{kNic});
    Devices(Tree({Device({"PCI\\VEN_1"}), Device({}), Device({"pci\\VEN_2"}), Device({"PCIe"}), Device({"XPCI", "PCI"})}, kAllSet));
    info.GetAllDeviceHardwareId(ids);
    EXPECT_EQ(ids, (Strings{L"PCI\\VEN_1", L"PCIe"}));
}


TEST_F(DeviceInformationTest, InternalDevicesAreTheNonRemovableOnes) {
    EXPECT_EQ(info.GetInternalDeviceHardwareId(kNet), Strings{kUsbNic});
    Devices(Tree({Device({"A"}), Device({"B"}, Json::object(), {{"error", CR_NO_SUCH_DEVNODE}}), Device({}), Device({"C"})}));
    EXPECT_EQ(info.GetInternalDeviceHardwareId(kNet), (Strings{L"A", L"C"}));
}

TEST_F(DeviceInformationTest, HardwareIdListWalksTheMultiStringWithinTheBuffer) {
    EXPECT_EQ(info.GetDeviceHardwareIDList(kMedia, kCodec), (Strings{kCodec, L"HDAUDIO\\FUNC_01&VEN_10EC"}));
    EXPECT_EQ(info.GetDeviceHardwareIDList(kMedia, kHdmi), Strings{kHdmi});
    EXPECT_TRUE(info.GetDeviceHardwareIDList(kMedia, L"HDAUDIO\\FUNC_01&VEN_10EC").empty());
    // 250 + 3 + 3 characters and their zeros fill the 520 bytes exactly; a
    // longer list fails to read, and the unchecked read then matches "".
    const std::wstring first(250, L'A');
    Devices(Tree({Device({std::string(250, 'A'), "BBB", "CCC"})}));
    EXPECT_EQ(info.GetDeviceHardwareIDList(kNet, first), (Strings{first, L"BBB", L"CCC"}));
    Devices(Tree({Device({std::string(250, 'A'), std::string(20, 'B')})}));
    EXPECT_TRUE(info.GetDeviceHardwareIDList(kNet, first).empty());
    EXPECT_EQ(info.GetDeviceHardwareIDList(kNet, L""), Strings{L""});
}

TEST_F(DeviceInformationTest, InstallTimeInMillisecondsSince1970) {
    EXPECT_EQ(info.GetLastIntallTime(kCodec, kMedia), 86400000ull);
    EXPECT_EQ(info.GetLastIntallTime(kHdmi, kMedia), 0ull);  // no install date
    EXPECT_EQ(info.GetLastIntallTime(L"NONE", kMedia), 0ull);
    constexpr unsigned long long kWrapped = (0ull - 116444736000000000ull) / 10000;  // an empty answer wraps, on purpose
    for (const auto& [bytes, expected] : {std::pair{"", kWrapped}, {"00", kWrapped}, {"000000000000000000", 0ull}}) {
        Devices(Tree({Device({"A"}, {{"DEVPKEY_Device_FirstInstallDate", {{"type", 16}, {"binary", bytes}}}})}));
        EXPECT_EQ(info.GetLastIntallTime(L"A", kNet), expected) << bytes;
    }
}

TEST_F(DeviceInformationTest, DriverStackEntries) {
    EXPECT_EQ(info.GetDeviceStatck(kCodec, kMedia), (Strings{L"\\Driver\\IntcAzAudAddService", L"\\Driver\\HDAudBus"}));
    EXPECT_EQ(Rooms(machine), (Calls{"520", "0", "92"})) << "the size first, then the stack";
    EXPECT_TRUE(info.GetDeviceStatck(kHdmi, kMedia).empty());
    Devices(Tree({Device({"A"}, {{"DEVPKEY_Device_Stack", {{"string", "\\Driver\\Single"}}}}),
                  Device({"B"}, {{"DEVPKEY_Device_Stack", {{"type", 3}, {"binary", "78007900"}}}}),
                  Device({"C"}, {{"DEVPKEY_Device_Stack", {{"type", 18}, {"binary", "41"}}}})}));
    EXPECT_EQ(info.GetDeviceStatck(L"A", kNet), Strings{L"\\Driver\\Single"});
    EXPECT_TRUE(info.GetDeviceStatck(L"B", kNet).empty()) << "neither a string nor a string list";
    EXPECT_TRUE(info.GetDeviceStatck(L"C", kNet).empty()) << "one byte";
}

// Wine 8 presents one display-class device whose property reads fail.
TEST(DeviceInformationOnWine, DisplayDeviceWithoutPropertiesAndNoMediaDevice) {
    constexpr GUID kDisplayClass = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
    DeviceInformention info;
    EXPECT_EQ(info.GetDeviceHardwareId(kDisplayClass), Strings{L""});
    EXPECT_TRUE(info.GetDeviceHardwareId(kMedia).empty());
    EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(L"", kDisplayClass, EnumDeviceProperty::DeviceDesc), L"");
    EXPECT_EQ(info.UnstallDeviceByHardwareId(L"PCI\\VEN_1234", kMedia), 0xFFFFFFFFu);
    EXPECT_TRUE(info.GetDeviceStatck(L"PCI\\VEN_1234", kDisplayClass).empty());
}

}  // namespace
}  // namespace torvex::test
