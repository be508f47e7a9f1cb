// DeviceInformention against a fake device tree beneath the real DLL.
#include <gtest/gtest.h>

#include "devices/device_property_keys.h"
#include "support/fake_setupapi.h"

namespace torvex::test {
namespace {

namespace keys = torvex::devkeys;
using Strings = std::vector<std::wstring>;

constexpr GUID kNetClass = {0x4D36E972, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr GUID kEmptyClass = {0x11111111, 0x2222, 0x3333, {0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55}};
const GUID& kMedia = keys::kMediaClass;

const wchar_t kCodec[] = L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_0295";
const wchar_t kHdmi[] = L"HDAUDIO\\FUNC_01&VEN_8086&DEV_2812";
const wchar_t kNic[] = L"PCI\\VEN_8086&DEV_15F3";

// Media: a Realtek codec (two IDs, problem 28), an Intel HDMI function.
// Net: an Intel NIC (removable), a USB adapter. Plus a device of no class.
void BuildTree(FakeDeviceTree& tree) {
    tree.Add(FakeDevice(kMedia)
                 .Ids({kCodec, L"HDAUDIO\\FUNC_01&VEN_10EC"})
                 .Desc(L"Realtek High Definition Audio")
                 .Text(keys::kManufacturer, L"Realtek")
                 .Text(keys::kDriverVersion, L"6.0.9235.1")
                 .Text(keys::kDriverProvider, L"Realtek Semiconductor Corp.")
                 .Text(keys::kInstanceProp90, L"prop90")
                 .Problem(28)
                 .U32(keys::kAddress, 1)
                 .Installed(116444736000000000ull + 86400000ull * 10000ull)
                 .Stack({L"\\Driver\\IntcAzAudAddService", L"\\Driver\\HDAudBus"}));
    tree.Add(FakeDevice(kMedia).Ids({kHdmi}).Desc(L"Intel Display Audio").Text(keys::kManufacturer, L"Intel"));
    tree.Add(FakeDevice(kNetClass).Ids({kNic, L"PCI\\VEN_8086"}).Desc(L"Ethernet").Removable().Parent(L"PCI\\ROOT"));
    tree.Add(FakeDevice(kNetClass).Ids({L"USB\\VID_0BDA&PID_8153"}).Desc(L"USB NIC").Parent(L"USB\\ROOT_HUB30\\4"));
    tree.Add(FakeDevice(std::nullopt).Ids({L"ACPI\\VEN_ABCD"}).Parent(L"ACPI\\PNP0A08"));
}

class DeviceInformationTest : public ::testing::Test {
protected:
    void SetUp() override { BuildTree(tree); }
    void TearDown() override { EXPECT_EQ(tree.OpenSets(), 0) << "a device-information set was not destroyed"; }
    FakeDeviceTree tree;
    DeviceInformention info;
};

TEST_F(DeviceInformationTest, ListsPerClassFollowDeviceOrder) {
    EXPECT_EQ(info.GetDeviceHardwareId(kMedia), (Strings{kCodec, kHdmi}));
    EXPECT_EQ(info.GetDeviceDesc(kNetClass), (Strings{L"Ethernet", L"USB NIC"}));
    EXPECT_TRUE(info.GetDeviceHardwareId(kEmptyClass).empty());
    ASSERT_FALSE(tree.Opens().empty());
    EXPECT_EQ(tree.Opens().back().flags, static_cast<DWORD>(DIGCF_PRESENT));
    EXPECT_TRUE(IsEqualGUID(*tree.Opens().back().classGuid, kEmptyClass));
}

TEST_F(DeviceInformationTest, FailedReadAddsEmptyEntryAndEveryReadUses520Bytes) {
    tree.Add(FakeDevice(kMedia));  // no hardware IDs, no description
    EXPECT_EQ(info.GetDeviceHardwareId(kMedia), (Strings{kCodec, kHdmi, L""}));
    EXPECT_EQ(info.GetDeviceDesc(kMedia), (Strings{L"Realtek High Definition Audio", L"Intel Display Audio", L""}));
    for (DWORD size : tree.ReadSizes()) EXPECT_EQ(size, 520u);
}

TEST_F(DeviceInformationTest, StringPropertiesByHardwareId) {
    struct Case {
        std::wstring id;
        EnumDeviceProperty property;
        std::wstring expected;
    };
    const Case cases[] = {
        {kCodec, EnumDeviceProperty::DeviceDesc, L"Realtek High Definition Audio"},
        {kCodec, EnumDeviceProperty::Manufacturer, L"Realtek"},
        {kCodec, EnumDeviceProperty::DriverVersion, L"6.0.9235.1"},
        {kCodec, EnumDeviceProperty::DeviceInstanceProp90, L"prop90"},
        {kCodec, EnumDeviceProperty::DriverProvider, L"Realtek Semiconductor Corp."},
        {kCodec, EnumDeviceProperty::FriendlyName, L""},        // absent property
        {kCodec, EnumDeviceProperty::Stack, L""},               // 11..13 are not string selectors
        {kCodec, EnumDeviceProperty::ProblemCode, L""},
        {kCodec, static_cast<EnumDeviceProperty>(14), L""},
        {kHdmi, EnumDeviceProperty::Manufacturer, L"Intel"},
        {L"HDAUDIO\\FUNC_01&ven_10ec&DEV_0295", EnumDeviceProperty::DeviceDesc, L""},  // case differs
        {L"HDAUDIO\\FUNC_01&VEN_10EC", EnumDeviceProperty::DeviceDesc, L""},           // second ID only
        {L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_029", EnumDeviceProperty::DeviceDesc, L""},   // prefix
    };
    for (const auto& c : cases) {
        EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(c.id, kMedia, c.property), c.expected)
            << std::string(c.id.begin(), c.id.end()) << " value " << static_cast<unsigned>(c.property);
    }
}

TEST_F(DeviceInformationTest, HardwareIdSelectorAnswersWithoutTheSystem) {
    tree.FailOpen();
    EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(L"NO\\SUCH", kMedia, EnumDeviceProperty::HardwareIds), L"NO\\SUCH");
    EXPECT_EQ(info.GetDeviceStrInfoByDesc(L"Nothing", kMedia, EnumDeviceProperty::DeviceDesc), L"Nothing");
    EXPECT_TRUE(tree.Opens().empty());
}

TEST_F(DeviceInformationTest, LookupStopsAtTheFirstFailedRead) {
    // A device without hardware IDs ahead of the wanted one ends the lookup.
    FakeDeviceTree local;
    local.Add(FakeDevice(kMedia).Desc(L"no ids")).Add(FakeDevice(kMedia).Ids({kCodec}).Desc(L"codec"));
    EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(kCodec, kMedia, EnumDeviceProperty::DeviceDesc), L"");
    EXPECT_EQ(info.UnstallDeviceByHardwareId(kCodec, kMedia), 0xFFFFFFFFu);
    // The class-installer removal only skips such a device.
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kCodec, kMedia), 0u);
    EXPECT_EQ(local.Removed(), (std::vector<size_t>{1}));
}

TEST_F(DeviceInformationTest, DescriptionVariantServesFewerSelectors) {
    const std::wstring desc = L"Realtek High Definition Audio";
    EXPECT_EQ(info.GetDeviceStrInfoByDesc(desc, kMedia, EnumDeviceProperty::Manufacturer), L"Realtek");
    EXPECT_EQ(info.GetDeviceStrInfoByDesc(desc, kMedia, EnumDeviceProperty::HardwareIds), kCodec);
    EXPECT_EQ(info.GetDeviceStrInfoByDesc(desc, kMedia, EnumDeviceProperty::DriverProvider), L"");
    EXPECT_EQ(info.GetDeviceStrInfoByDesc(L"realtek high definition audio", kMedia, EnumDeviceProperty::Manufacturer),
              L"");
}

TEST_F(DeviceInformationTest, NumericProperties) {
    EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kCodec, kMedia, EnumDeviceProperty::ProblemCode), 28u);
    EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kCodec, kMedia, EnumDeviceProperty::Address), 1u);
    EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kHdmi, kMedia, EnumDeviceProperty::ProblemCode), 0u);
    const std::wstring desc = L"Realtek High Definition Audio";
    EXPECT_EQ(info.GetDeviceULONGInfoByDesc(desc, kMedia, EnumDeviceProperty::ProblemCode), 28u);
    EXPECT_EQ(info.GetDeviceULONGInfoByDesc(desc, kMedia, EnumDeviceProperty::Address), 0u);

    // Other selectors answer 0 before a set is opened.
    const size_t opensBefore = tree.Opens().size();
    EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kCodec, kMedia, EnumDeviceProperty::DeviceDesc), 0u);
    EXPECT_EQ(tree.Opens().size(), opensBefore);
}

TEST(DeviceInformationNumbers, OnlyUInt32TypedValuesOfOneToFourBytesCount) {
    struct Case {
        DEVPROPTYPE type;
        std::vector<uint8_t> bytes;
        unsigned int expected;
    };
    const Case cases[] = {
        {DEVPROP_TYPE_UINT32, {0x2B, 0, 0, 0}, 43},
        {DEVPROP_TYPE_UINT32, {0x2B, 0x01}, 0x12B},
        {DEVPROP_TYPE_UINT32, {}, 0},
        {DEVPROP_TYPE_UINT32, {1, 0, 0, 0, 0, 0, 0, 0}, 0},
        {DEVPROP_TYPE_INT32, {0x2B, 0, 0, 0}, 0},
        {DEVPROP_TYPE_STRING, {0x2B, 0, 0, 0}, 0},
    };
    DeviceInformention info;
    for (const auto& c : cases) {
        FakeDeviceTree tree;
        tree.Add(FakeDevice(keys::kMediaClass).Ids({kCodec}).Raw(keys::kProblemCode, c.type, c.bytes));
        EXPECT_EQ(info.GetDeviceULONGInfoByHardwareId(kCodec, keys::kMediaClass, EnumDeviceProperty::ProblemCode),
                  c.expected)
            << "type " << c.type << " size " << c.bytes.size();
    }
}

TEST_F(DeviceInformationTest, RemovalStatusValues) {
    EXPECT_EQ(info.UnstallDeviceByHardwareId(kHdmi, kMedia), 0u);
    EXPECT_EQ(tree.Removed(), (std::vector<size_t>{1}));
    EXPECT_EQ(info.UnstallDeviceByHardwareId(L"PCI\\VEN_8086", kNetClass), 0xFFFFFFFFu);  // second ID only
    EXPECT_EQ(info.UnstallDeviceByHardwareId(kHdmi, kEmptyClass), 0xFFFFFFFFu);
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kHdmi, kEmptyClass), 0xFFFFFFFFu);
    tree.FailRemove(ERROR_ACCESS_DENIED);
    EXPECT_EQ(info.UnstallDeviceByHardwareId(kCodec, kMedia), static_cast<unsigned>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kCodec, kMedia), static_cast<unsigned>(ERROR_ACCESS_DENIED));
    tree.FailOpen();
    EXPECT_EQ(info.UnstallDeviceByHardwareId(kCodec, kMedia), 0xFFFFFFFFu);
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kCodec, kMedia), 0xFFFFFFFFu);
}

TEST_F(DeviceInformationTest, ClassInstallerRemovalIsGlobalAndReportsLastErrors) {
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kNic, kNetClass), 0u);
    ASSERT_EQ(tree.InstallerCalls().size(), 1u);
    const auto call = tree.InstallerCalls()[0];
    EXPECT_EQ(call.device, 2u);
    EXPECT_EQ(call.function, static_cast<DI_FUNCTION>(DIF_REMOVE));
    EXPECT_EQ(call.scope, static_cast<DWORD>(DI_REMOVEDEVICE_GLOBAL));
    EXPECT_EQ(call.paramsSize, 16u);

    tree.FailDeviceId(ERROR_GEN_FAILURE);  // the last error is reported, not the CR_ code
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kNic, kNetClass), static_cast<unsigned>(ERROR_GEN_FAILURE));
    tree.FailDeviceId(0);
    tree.FailListDetail(ERROR_INVALID_DATA);
    EXPECT_EQ(info.UnstallDeviceByHardwareIdEx(kNic, kNetClass), static_cast<unsigned>(ERROR_INVALID_DATA));
    EXPECT_EQ(tree.InstallerCalls().size(), 1u);
}

TEST_F(DeviceInformationTest, UnknownDevicesRepeatTheLastEntry) {
    // The classless device is last: the final, failing enumeration step looks
    // at its record once more.
    EXPECT_EQ(info.GetUnknownDeviceHardId(), (Strings{L"ACPI\\VEN_ABCD", L"ACPI\\VEN_ABCD"}));
    EXPECT_EQ(tree.Opens().back().flags, static_cast<DWORD>(DIGCF_PRESENT | DIGCF_ALLCLASSES));
    EXPECT_FALSE(tree.Opens().back().classGuid.has_value());
}

TEST(DeviceInformationUnknown, RepeatFollowsWhicheverDeviceWasLast) {
    DeviceInformention info;
    {
        FakeDeviceTree tree;
        tree.Add(FakeDevice(std::nullopt).Ids({L"ROOT\\A"})).Add(FakeDevice(kNetClass).Ids({L"PCI\\B"}));
        EXPECT_EQ(info.GetUnknownDeviceHardId(), (Strings{L"ROOT\\A"}));  // the last record has a class
    }
    {
        FakeDeviceTree tree;
        EXPECT_TRUE(info.GetUnknownDeviceHardId().empty());  // no record was ever filled
        tree.FailOpen();
        EXPECT_TRUE(info.GetUnknownDeviceHardId().empty());
    }
}

TEST_F(DeviceInformationTest, AllPciDevicesReplaceTheListAndStopWithEnumeration) {
    Strings ids{L"stale"};
    info.GetAllDeviceHardwareId(ids);
    EXPECT_EQ(ids, (Strings{kNic}));

    FakeDeviceTree local;
    local.Add(FakeDevice(kNetClass).Ids({L"PCI\\VEN_1"}))
        .Add(FakeDevice(kNetClass))  // failed read: skipped
        .Add(FakeDevice(kNetClass).Ids({L"pci\\VEN_2"}))
        .Add(FakeDevice(kNetClass).Ids({L"PCI\\VEN_3"}))
        .Add(FakeDevice(kNetClass).Ids({L"PCI\\VEN_4"}));
    local.StopEnumerationAfter(4);
    info.GetAllDeviceHardwareId(ids);
    EXPECT_EQ(ids, (Strings{L"PCI\\VEN_1", L"PCI\\VEN_3"}));
    local.FailOpen();
    info.GetAllDeviceHardwareId(ids);
    EXPECT_TRUE(ids.empty());
}

TEST_F(DeviceInformationTest, SoftComponentsAppendByParentSubstring) {
    Strings ids{L"kept"};
    info.GetSoftComponentItems(ids, L"ROOT");
    EXPECT_EQ(ids, (Strings{L"kept", kNic, L"USB\\VID_0BDA&PID_8153"}));
    info.GetSoftComponentItems(ids, L"root");  // case-sensitive
    EXPECT_EQ(ids.size(), 3u);
    for (DWORD size : tree.ReadSizes()) EXPECT_EQ(size, 522u);
}

TEST_F(DeviceInformationTest, InternalDevicesAreTheNonRemovableOnes) {
    EXPECT_EQ(info.GetInternalDeviceHardwareId(kNetClass), (Strings{L"USB\\VID_0BDA&PID_8153"}));
    FakeDeviceTree local;
    local.Add(FakeDevice(kNetClass).Ids({L"A"}))
        .Add(FakeDevice(kNetClass).Ids({L"B"}).NodeStatusFails())
        .Add(FakeDevice(kNetClass))
        .Add(FakeDevice(kNetClass).Ids({L"C"}));
    EXPECT_EQ(info.GetInternalDeviceHardwareId(kNetClass), (Strings{L"A", L"C"}));
}

TEST_F(DeviceInformationTest, HardwareIdListWalksTheMultiString) {
    EXPECT_EQ(info.GetDeviceHardwareIDList(kMedia, kCodec), (Strings{kCodec, L"HDAUDIO\\FUNC_01&VEN_10EC"}));
    EXPECT_EQ(info.GetDeviceHardwareIDList(kMedia, kHdmi), (Strings{kHdmi}));
    EXPECT_TRUE(info.GetDeviceHardwareIDList(kMedia, L"HDAUDIO\\FUNC_01&VEN_10EC").empty());
}

TEST(DeviceInformationIdList, EntriesBeyondTheBufferAreCut) {
    // 250 + 1 + 20 characters: the second entry crosses the 260-character
    // buffer, the read fails and the list falls back to an empty first ID.
    const std::wstring first(250, L'A');
    DeviceInformention info;
    FakeDeviceTree tree;
    tree.Add(FakeDevice(kNetClass).Ids({first, std::wstring(3, L'B'), std::wstring(3, L'C')}));
    EXPECT_EQ(info.GetDeviceHardwareIDList(kNetClass, first), (Strings{first, L"BBB", L"CCC"}));
    FakeDeviceTree longer;
    longer.Add(FakeDevice(kNetClass).Ids({first, std::wstring(20, L'B')}));
    EXPECT_TRUE(info.GetDeviceHardwareIDList(kNetClass, first).empty());
    EXPECT_EQ(info.GetDeviceHardwareIDList(kNetClass, L""), (Strings{L""}));  // unchecked read matches ""
}

TEST_F(DeviceInformationTest, InstallTimeInMillisecondsSince1970) {
    EXPECT_EQ(info.GetLastIntallTime(kCodec, kMedia), 86400000ull);
    EXPECT_EQ(info.GetLastIntallTime(kHdmi, kMedia), 0ull);  // no install date
    EXPECT_EQ(info.GetLastIntallTime(L"NONE", kMedia), 0ull);

    struct Case {
        std::vector<uint8_t> bytes;
        unsigned long long expected;
    };
    const Case cases[] = {
        {{}, (0ull - 116444736000000000ull) / 10000},  // an empty answer wraps, on purpose
        {std::vector<uint8_t>(9, 0), 0},
    };
    for (const auto& c : cases) {
        FakeDeviceTree local;
        local.Add(FakeDevice(kMedia).Ids({kCodec}).Raw(keys::kFirstInstallDate, DEVPROP_TYPE_FILETIME, c.bytes));
        EXPECT_EQ(info.GetLastIntallTime(kCodec, kMedia), c.expected) << c.bytes.size() << " bytes";
    }
}

TEST_F(DeviceInformationTest, DriverStackEntries) {
    EXPECT_EQ(info.GetDeviceStatck(kCodec, kMedia), (Strings{L"\\Driver\\IntcAzAudAddService", L"\\Driver\\HDAudBus"}));
    EXPECT_TRUE(info.GetDeviceStatck(kHdmi, kMedia).empty());
    FakeDeviceTree local;
    local.Add(FakeDevice(kMedia).Ids({L"A"}).Text(keys::kStack, L"\\Driver\\Single"))
        .Add(FakeDevice(kMedia).Ids({L"B"}).Raw(keys::kStack, DEVPROP_TYPE_BINARY, {'x', 0, 'y', 0}));
    EXPECT_EQ(info.GetDeviceStatck(L"A", kMedia), (Strings{L"\\Driver\\Single"}));
    EXPECT_TRUE(info.GetDeviceStatck(L"B", kMedia).empty());
}

TEST_F(DeviceInformationTest, UnopenableSetGivesEmptyResults) {
    tree.FailOpen();
    Strings soft{L"kept"};
    info.GetSoftComponentItems(soft, L"ROOT");
    EXPECT_EQ(soft, (Strings{L"kept"}));
    EXPECT_TRUE(info.GetDeviceHardwareId(kMedia).empty());
    EXPECT_TRUE(info.GetDeviceStatck(kCodec, kMedia).empty());
    EXPECT_EQ(info.GetLastIntallTime(kCodec, kMedia), 0ull);
    EXPECT_EQ(info.GetDeviceULONGInfoByDesc(L"Ethernet", kNetClass, EnumDeviceProperty::ProblemCode), 0u);
    EXPECT_EQ(tree.PropertyReads(), 0u);
}

TEST(DeviceInformationRealWine, DisplayDeviceWithoutPropertiesAndNoMediaDevice) {
    // Wine 8 presents one display-class device whose property reads fail.
    constexpr GUID kDisplayClass = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
    DeviceInformention info;
    EXPECT_EQ(info.GetDeviceHardwareId(kDisplayClass), (Strings{L""}));
    EXPECT_TRUE(info.GetDeviceHardwareId(kMedia).empty());
    EXPECT_EQ(info.GetDeviceStrInfoByHardwareId(L"", kDisplayClass, EnumDeviceProperty::DeviceDesc), L"");
    EXPECT_EQ(info.UnstallDeviceByHardwareId(L"PCI\VEN_1234", kMedia), 0xFFFFFFFFu);
    EXPECT_TRUE(info.GetDeviceStatck(L"PCI\VEN_1234", kDisplayClass).empty());
}

}  // namespace
}  // namespace torvex::test
