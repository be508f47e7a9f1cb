// CPU information (class 0) with the registry and WMI under the test's
// control, the firmware value through the fake firmware, and against Wine.
#include <windows.h>

#include <cpuid.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/fake_registry.h"
#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakeRegistry;
using torvex::test::FakeWmi;
using torvex::test::WmiRow;
using torvex::test::WmiValue;

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";
const std::wstring kCpuKey = L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
const std::wstring kNameQuery = L"SELECT Name FROM Win32_Processor";

struct Answer {
    uint32_t result;
    std::string text;
    uint32_t written;
};

Answer QueryText(int32_t code, uint32_t size) {
    char buffer[128];
    std::memset(buffer, '#', sizeof(buffer));
    uint32_t written = 777;
    const uint32_t result = CpuQueryInformation(code, buffer, size, &written);
    EXPECT_EQ(buffer[result != 0 ? written : 0], '#') << "no terminator, nothing beyond the text";
    return {result, result != 0 ? std::string(buffer, written) : std::string(), written};
}

class CpuTest : public ::testing::Test {
protected:
    void SetUp() override { registry.AddKey(kCpuKey); }
    void TearDown() override {
        EXPECT_EQ(wmi.LiveObjects(), 0);
        EXPECT_EQ(registry.OpenKeys(), 0);
    }
    void Name(const std::wstring& name) { registry.SetText(kCpuKey, L"ProcessorNameString", name); }

    FakeWmi wmi;
    FakeRegistry registry;
};

TEST_F(CpuTest, TextFactsComeFromTheRegistryFirstWithTheirBlanks) {
    Name(L"  Intel(R) Core(TM) i7  ");
    registry.SetText(kCpuKey, L"VendorIdentifier", L"GenuineIntel");
    wmi.On(kCimv2, kNameQuery, {{{L"Name", WmiValue::Str(L"from WMI")}}});
    const Answer name = QueryText(HAL_CPU_NAME, 64);
    EXPECT_EQ(name.result, 1u);
    EXPECT_EQ(name.text, "  Intel(R) Core(TM) i7  ");
    EXPECT_EQ(name.written, 24u);
    EXPECT_EQ(QueryText(HAL_CPU_VENDOR_ID, 64).text, "GenuineIntel");
    EXPECT_TRUE(wmi.Queries().empty());
    for (REGSAM access : registry.OpenAccess()) EXPECT_EQ(access, static_cast<REGSAM>(0x20119));
}

TEST_F(CpuTest, TextNeedsOneSpareByteButWritesNoTerminator) {
    Name(L"ABCDEFGHIJKLMNOPQRST");  // 20 characters
    EXPECT_EQ(QueryText(HAL_CPU_NAME, 20).result, 0u);
    const Answer fits = QueryText(HAL_CPU_NAME, 21);
    EXPECT_EQ(fits.result, 1u);
    EXPECT_EQ(fits.written, 20u);
}

TEST_F(CpuTest, EmptyOrMissingRegistryValuesFallBackToWmi) {
    Name(L"");
    wmi.On(kCimv2, kNameQuery, {{{L"Name", WmiValue::Str(L"AMD Ryzen 7")}}});
    wmi.On(kCimv2, L"SELECT Manufacturer FROM Win32_Processor", {{{L"Manufacturer", WmiValue::Str(L"AuthenticAMD")}}});
    EXPECT_EQ(QueryText(HAL_CPU_NAME, 64).text, "AMD Ryzen 7");
    // The vendor's fallback asks for a property the row does not have, so it fails.
    EXPECT_EQ(QueryText(HAL_CPU_VENDOR_ID, 64).result, 0u);
    const auto reads = wmi.PropertyReads();
    ASSERT_FALSE(reads.empty());
    EXPECT_EQ(reads.back(), L"REG_NAME_CPU_VENDOR");
}

TEST_F(CpuTest, AssociativityTexts) {
    const std::pair<uint32_t, const char*> cases[] = {
        {3, "Direct Mapped "}, {4, "2-way"}, {5, "Fully Associative "}, {6, "4-way"}, {7, "8-way"},
        {8, "16-way"},         {1, "Unknown "}, {2, "Unknown "},        {9, "Unknown "}};
    const wchar_t* queries[] = {L"SELECT Associativity FROM Win32_CacheMemory WHERE Level='3'",
                                L"SELECT Associativity FROM Win32_CacheMemory WHERE Level='4'",
                                L"SELECT Associativity FROM Win32_CacheMemory WHERE Level='5'"};
    for (int level = 0; level < 3; ++level) {
        for (const auto& [value, text] : cases) {
            wmi.On(kCimv2, queries[level], {{{L"Associativity", WmiValue::U32(value)}}});
            EXPECT_EQ(QueryText(HAL_CPU_L3_ASSOCIATIVITY + level, 64).text, text) << value;
        }
        for (uint32_t absent : {0u, 0xFFFFFFFFu}) {
            wmi.On(kCimv2, queries[level], {{{L"Associativity", WmiValue::U32(absent)}}});
            EXPECT_EQ(QueryText(HAL_CPU_L3_ASSOCIATIVITY + level, 64).result, 0u);
        }
    }
}

TEST_F(CpuTest, NumericFactsFailOnZeroAndOnNoValueAndLeaveWrittenAlone) {
    struct Case {
        int32_t code;
        const wchar_t* query;
        const wchar_t* property;
    };
    const Case cases[] = {
        {7, L"SELECT CurrentClockSpeed FROM Win32_Processor", L"CurrentClockSpeed"},
        {8, L"SELECT ExtClock FROM Win32_Processor", L"ExtClock"},
        {9, L"SELECT MaxClockSpeed FROM Win32_Processor", L"MaxClockSpeed"},
        {10, L"SELECT NumberOfCores FROM Win32_Processor", L"NumberOfCores"},
        {11, L"SELECT NumberOfLogicalProcessors FROM Win32_Processor", L"NumberOfLogicalProcessors"},
        {14, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='5'", L"InstalledSize"},
        {17, L"SELECT LoadPercentage FROM Win32_Processor", L"LoadPercentage"},
    };
    for (const Case& c : cases) {
        wmi.On(kCimv2, c.query, {{{c.property, WmiValue::U32(42)}}, {{c.property, WmiValue::U32(8)}}});
        uint32_t value = 0;
        uint32_t written = 777;
        EXPECT_EQ(CpuQueryInformation(c.code, &value, 4, &written), 1u) << c.code;
        EXPECT_EQ(value, 42u) << "the first row";
        EXPECT_EQ(written, 777u);
        value = 5;
        EXPECT_EQ(CpuQueryInformation(c.code, &value, 3, &written), 0u) << c.code;
        EXPECT_EQ(value, 5u);
        for (uint32_t absent : {0u, 0xFFFFFFFFu}) {
            wmi.On(kCimv2, c.query, {{{c.property, WmiValue::U32(absent)}}});
            EXPECT_EQ(CpuQueryInformation(c.code, &value, 4, &written), 0u) << c.code;
            EXPECT_EQ(value, 5u);
        }
    }
}

TEST_F(CpuTest, L3AndL4SizesSumEveryCacheRow) {
    wmi.On(kCimv2, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'",
           {{{L"InstalledSize", WmiValue::U32(4096)}}, {{L"InstalledSize", WmiValue::U32(8192)}}});
    wmi.On(kCimv2, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='4'",
           {{{L"InstalledSize", WmiValue::U32(64)}}, {{L"InstalledSize", WmiValue::NullValue()}}});
    uint32_t value = 0;
    uint32_t written = 0;
    ASSERT_EQ(CpuQueryInformation(HAL_CPU_L3_SIZE_KB, &value, 4, &written), 1u);
    EXPECT_EQ(value, 12288u);
    ASSERT_EQ(CpuQueryInformation(HAL_CPU_L4_SIZE_KB, &value, 4, &written), 1u);
    EXPECT_EQ(value, 64u);

    // The sum's out-of-memory error stops at the export: 0, nothing written.
    torvex::test::BstrRefusal refusal;
    const std::pair<int32_t, std::wstring> cases[] = {
        {HAL_CPU_L3_SIZE_KB, L"WQL"},
        {HAL_CPU_L3_SIZE_KB, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'"},
        {HAL_CPU_L4_SIZE_KB, L"WQL"},
        {HAL_CPU_L4_SIZE_KB, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='4'"}};
    for (const auto& [code, refused] : cases) {
        refusal.Refuse(refused);
        const size_t queries = wmi.Queries().size();
        value = 5;
        written = 777;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_CPU, nullptr, code, &value, 4, &written), 0u) << refused;
        EXPECT_EQ(value, 5u);
        EXPECT_EQ(written, 777u);
        EXPECT_EQ(wmi.Queries().size(), queries);
        EXPECT_EQ(wmi.LiveObjects(), 0);
        EXPECT_EQ(refusal.LiveStrings(), 0u);
    }
}

TEST_F(CpuTest, OemValueIsByteTwoOfTheFirmwareAnswer) {
    std::vector<uint8_t> sent;
    std::vector<uint8_t> answer(256, 0);
    wmi.SetFirmware(FakeWmi::FirmwareInput::U8Array, [&](const std::vector<uint8_t>& packet) {
        sent = packet;
        return answer;
    });
    answer[2] = 200;
    uint32_t value = 0;
    uint32_t written = 0;
    ASSERT_EQ(CpuQueryInformation(HAL_CPU_OEM_VALUE, &value, 4, &written), 1u);
    EXPECT_EQ(value, 200u);
    std::vector<uint8_t> expected(64, 0);
    expected[0] = 0x02;
    expected[1] = 0x02;
    EXPECT_EQ(sent, expected);
    answer[0] = 1;  // status: refused
    EXPECT_EQ(CpuQueryInformation(HAL_CPU_OEM_VALUE, &value, 4, &written), 0u);
}

TEST_F(CpuTest, VendorClassification) {
    const std::pair<const wchar_t*, uint32_t> cases[] = {
        {L"Intel(R) Core(TM) i5", 1}, {L"Genuine Intel(R) CPU", 1}, {L"AMD Ryzen 5", 2},
        {L"Snapdragon X Elite", 3},   {L"Qualcomm Snapdragon", 0},  {L"Oxide Virtual", 0},
        {L"", 0},
    };
    for (const auto& [name, vendor] : cases) {
        Name(name);
        uint32_t value = 99;
        uint32_t written = 0;
        EXPECT_EQ(CpuQueryInformation(HAL_CPU_VENDOR_CLASS, &value, 4, &written), 1u) << name;
        EXPECT_EQ(value, vendor) << name;
    }
}

bool HasExtendedLeaf() {
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    __cpuid_count(0x80000000u, 0, eax, ebx, ecx, edx);
    return static_cast<int32_t>(eax) >= static_cast<int32_t>(0x80000008u);
}

TEST_F(CpuTest, CpuidProbeFollowsTheStoredVendorWhichCode18UpdatesEvenWhenItFails) {
    uint32_t value = 7;
    uint32_t written = 0;
    Name(L"Intel(R) Xeon");
    EXPECT_EQ(CpuQueryInformation(HAL_CPU_VENDOR_CLASS, &value, 3, &written), 0u) << "too small, yet detected";
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(CpuQueryInformation(HAL_CPU_EXTENDED_CPUID, &value, 4, &written), HasExtendedLeaf() ? 1u : 0u);
    if (HasExtendedLeaf()) {
        EXPECT_EQ(value, 0u);
    }

    Name(L"Some Other CPU");
    EXPECT_EQ(CpuInit(), 1u);
    value = 7;
    EXPECT_EQ(CpuQueryInformation(HAL_CPU_EXTENDED_CPUID, &value, 4, &written), 0u);
    EXPECT_EQ(value, 7u);
}

TEST_F(CpuTest, RefusedCodesAndPointers) {
    Name(L"Intel(R) Core");
    uint32_t value = 7;
    uint32_t written = 9;
    for (int32_t code : {-1, 5, 16, 19, 40, 0x7FFFFFFF}) {
        EXPECT_EQ(CpuQueryInformation(code, &value, 64, &written), 0u) << code;
    }
    EXPECT_EQ(CpuQueryInformation(HAL_CPU_NAME, nullptr, 64, &written), 0u);
    EXPECT_EQ(CpuQueryInformation(HAL_CPU_NAME, &value, 4, nullptr), 0u);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(written, 9u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_CPU, reinterpret_cast<void*>(1), 19, &value, 4, &written), 0u);
}

TEST_F(CpuTest, EnclaveServiceStaysUnreachable) {
    Name(L"Intel(R) Core(TM) i7");
    registry.SetText(kCpuKey, L"VendorIdentifier", L"GenuineIntel");
    int loads = 0;
    static int* s_loads = nullptr;
    s_loads = &loads;
    struct Counter {
        static HMODULE WINAPI Load(LPCWSTR) {
            ++*s_loads;
            return nullptr;
        }
    };
    auto patch = torvex::test::Redirect("LoadLibraryW", &Counter::Load);
    EXPECT_EQ(HalInit(HAL_CLASS_ENCLAVE, nullptr), 0u);
    void* out = nullptr;
    EXPECT_EQ(HalInit(HAL_CLASS_ENCLAVE, &out), 0u);
    EXPECT_EQ(loads, 0) << "the processor gate stops the loader before the file system";
    uint8_t input[4] = {1, 2, 3, 4};
    uint8_t output[16] = {};
    uint32_t returned = 0;
    EXPECT_EQ(HalControl(HAL_CLASS_ENCLAVE, nullptr, 0, input, 4, output, 16, &returned), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_ENCLAVE, nullptr, 1, input, 4, &returned), 0u);
}

// Wine's own registry and WMI, no fakes.
TEST(CpuOnWine, AnswersAgreeWithTheRegistryAndWmi) {
    EXPECT_EQ(HalInit(HAL_CLASS_CPU, nullptr), 1u);
    wchar_t name[256] = {};
    DWORD size = sizeof(name);
    ASSERT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0",
                           L"ProcessorNameString", RRF_RT_REG_SZ, nullptr, name, &size),
              ERROR_SUCCESS);
    char text[256] = {};
    uint32_t written = 0;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_CPU, nullptr, HAL_CPU_NAME, text, sizeof(text), &written), 1u);
    EXPECT_EQ(std::string(text, written), StringProc::WStringToString(name));

    HalWmi wmi(L"ROOT\\CIMV2");
    for (auto [code, property] : {std::pair{HAL_CPU_CORES, L"NumberOfCores"},
                                  std::pair{HAL_CPU_LOGICAL_PROCESSORS, L"NumberOfLogicalProcessors"}}) {
        uint32_t value = 0;
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_CPU, nullptr, code, &value, 4, &written), 1u);
        EXPECT_EQ(value, wmi.SelectUInt(std::wstring(L"SELECT ") + property + L" FROM Win32_Processor", property));
    }
    uint32_t vendor = 99;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_CPU, nullptr, HAL_CPU_VENDOR_CLASS, &vendor, 4, &written), 1u);
    std::wstring lower(name);
    for (auto& c : lower) c = static_cast<wchar_t>(towlower(c));
    const uint32_t expected = lower.rfind(L"intel", 0) == 0 || lower.find(L"intel(r)") != std::wstring::npos ? 1
                              : lower.rfind(L"amd", 0) == 0                                                  ? 2
                              : lower.rfind(L"snapdragon", 0) == 0                                           ? 3
                                                                                                             : 0;
    EXPECT_EQ(vendor, expected);
}

}  // namespace
