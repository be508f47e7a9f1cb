// CPU information (class 0) over simulated machines, and on Wine's own.
#include <cpuid.h>

#include "platform/platform_test.h"

using namespace platform_test;

namespace {

constexpr char kCpuKey[] = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
constexpr char kCimv2[] = "ROOT\\CIMV2";

// A processor whose registry key holds these texts and whose WMI answers these queries.
Json Cpu(const Json& texts, const Json& queries = Json::object()) {
    Json values = Json::object();
    for (const auto& [name, text] : texts.items()) values[name] = {{"sz", text}};
    return {{"registry", {{kCpuKey, values}}}, {"wmi", {{kCimv2, {{"queries", queries}}}}}};
}

auto Query(int32_t code) { return [code](void* b, uint32_t s, uint32_t* w) { return CpuQueryInformation(code, b, s, w); }; }
std::optional<std::string> Text(int32_t code, uint32_t size = 64) { return Ask(Query(code), size); }
// Numbers leave the count alone.
std::optional<uint32_t> Number(int32_t code, uint32_t size = 4) { return AskNumber<uint32_t>(Query(code), size, kUntouched); }

TEST(CpuTest, AssociativityTexts) {
    const std::pair<uint32_t, std::optional<std::string>> cases[] = {
        {3, "Direct Mapped "}, {4, "2-way"}, {5, "Fully Associative "}, {6, "4-way"}, {7, "8-way"}, {8, "16-way"},
        {1, "Unknown "},       {2, "Unknown "}, {9, "Unknown "}, {0, std::nullopt}, {0xFFFFFFFF, std::nullopt}};
    for (int32_t code : {2, 3, 4}) {
        const std::string query = "SELECT Associativity FROM Win32_CacheMemory WHERE Level='" + std::to_string(code + 1) + "'";
        for (const auto& [value, text] : cases) {
            SCOPED_TRACE(query + " " + std::to_string(value));
            Machine machine(Cpu({}, {{query, Rows("Associativity", {value})}}));
            EXPECT_EQ(Text(code), text);
            EXPECT_EQ(machine.Asked("wmi"), Lines{Wmi(kCimv2, query)});
        }
    }
}

TEST(CpuTest, NumbersFailOnZeroNoValueOrAShortBuffer) {
    const std::tuple<int32_t, const char*, const char*, uint32_t> cases[] = {
        {7, "SELECT CurrentClockSpeed FROM Win32_Processor", "CurrentClockSpeed", 42},
        {8, "SELECT ExtClock FROM Win32_Processor", "ExtClock", 42},
        {9, "SELECT MaxClockSpeed FROM Win32_Processor", "MaxClockSpeed", 42},
        {10, "SELECT NumberOfCores FROM Win32_Processor", "NumberOfCores", 42},
        {11, "SELECT NumberOfLogicalProcessors FROM Win32_Processor", "NumberOfLogicalProcessors", 42},
        {12, "SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'", "InstalledSize", 50},  // every row
        {13, "SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='4'", "InstalledSize", 50},
        {14, "SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='5'", "InstalledSize", 42},  // the first
        {17, "SELECT LoadPercentage FROM Win32_Processor", "LoadPercentage", 42},
    };
    for (const auto& [code, query, property, answer] : cases) {
        SCOPED_TRACE(code);
        Machine machine(Cpu({}, {{query, Rows(property, {42, nullptr, 8})}}));
        EXPECT_EQ(Number(code, 3), std::nullopt);
        EXPECT_EQ(Number(code), answer);
        EXPECT_EQ(machine.Last("wmi"), Wmi(kCimv2, query));
        for (const Json& none : {Json(0), Json(0xFFFFFFFFu), Json()}) {
            machine.profile.doc()["wmi"][kCimv2]["queries"][query] = Rows(property, {none});
            EXPECT_EQ(Number(code), std::nullopt) << none;
        }
    }
}

TEST(CpuTest, CacheSumsEndTheirAllocationFailureAtTheExport) {
    const std::string l3 = "SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'";
    const std::string l4 = "SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='4'";
    Machine machine(Cpu({}, {{l3, Rows("InstalledSize", {4096})}, {l4, Rows("InstalledSize", {64})}}));
    torvex::test::BstrRefusal refusal;
    for (const auto& [code, refused] : {std::pair{12u, std::string("WQL")}, {12u, l3}, {13u, "WQL"}, {13u, l4}}) {
        SCOPED_TRACE(refused);
        refusal.Refuse(StringProc::StringToWString(refused));
        auto query = [code](void* b, uint32_t s, uint32_t* w) { return HalQueryInformation(0, b, code, b, s, w); };
        EXPECT_EQ(Ask(query, 4, 4), std::nullopt);  // through the Hal API, which drops the device
        EXPECT_TRUE(machine.Asked("wmi").empty());
        EXPECT_EQ(refusal.LiveStrings(), 0u);
        torvex::test::ExpectNothingHeld();
    }
}

TEST(CpuTest, OemValueIsByteTwoOfTheFirmwaresAnswer) {
    Machine machine(Json{{"wmi", {{"ROOT\\WMI", Json::object()}}},
                         {"firmware", {{"present", true}, {"input", "u8Input"},
                                       {"answers", {{"0202", {{"output", "0000c8ff"}, {"length", 260}}}}}}}});
    EXPECT_EQ(Number(15), 200u);
    const DWORD handles = torvex::test::OpenHandleCount();  // after the first call set up what stays
    EXPECT_EQ(Number(15), 200u);
    EXPECT_EQ(torvex::test::OpenHandleCount(), handles) << "a handle was left open";
    EXPECT_EQ(machine.Last("firmware"), "OemWMIfun packet 0202") << "64 bytes: 02 02, then zeros";
    machine.profile.doc()["firmware"]["answers"]["0202"]["output"] = "01";  // status: refused
    EXPECT_EQ(Number(15), std::nullopt);
}

TEST(CpuTest, VendorClassificationAndTheCpuidProbeThatFollowsIt) {
    unsigned int maxLeaf = 0, ebx = 0, ecx = 0, edx = 0;
    __cpuid_count(0x80000000u, 0, maxLeaf, ebx, ecx, edx);  // the real processor's
    const auto probe = static_cast<int32_t>(maxLeaf) >= int32_t(0x80000008u) ? std::optional(0u) : std::nullopt;
    const std::pair<const char*, uint32_t> cases[] = {
        {"Intel(R) Core(TM) i5", 1}, {"Genuine Intel(R) CPU", 1}, {"AMD Ryzen 5", 2}, {"Snapdragon X Elite", 3},
        {"Qualcomm Snapdragon", 0},  {"Oxide Virtual", 0},        {"", 0}};
    for (const auto& [name, vendor] : cases) {
        SCOPED_TRACE(name);
        Machine machine(Cpu({{"ProcessorNameString", name}}));
        EXPECT_EQ(Number(18), vendor);
        EXPECT_EQ(Number(6), vendor == 1 || vendor == 2 ? probe : std::nullopt);
    }
    // Detection runs before the size check, and every detection replaces the stored vendor.
    Machine machine(Cpu({{"ProcessorNameString", "AMD EPYC"}}));
    EXPECT_EQ(Number(18, 3), std::nullopt);
    EXPECT_EQ(Number(6), probe);
    machine.profile.doc()["registry"][kCpuKey]["ProcessorNameString"]["sz"] = "Other";
    EXPECT_EQ(CpuInit(), 1u);
    EXPECT_EQ(Number(6), std::nullopt);
    machine.profile.doc()["registry"][kCpuKey]["ProcessorNameString"]["sz"] = "Intel(R) Xeon";
    EXPECT_EQ(HalInit(HAL_CLASS_CPU, nullptr), 1u);
    EXPECT_EQ(Number(6), probe);
}

// The enclave service's processor gate reads the vendor, then stops before any library is loaded: on an Intel laptop
// whose profile has the service beside the host too (it asks the CPU module a question the module never answers).
TEST(CpuTest, TheEnclaveGateStopsBeforeLoadingAnything) {
    torvex::test::SimulatedMachine machine{torvex::test::MachineFile{"intel-igcl-laptop"}};
    ASSERT_EQ(machine.profile.doc()["vendor"]["Vaultrun.dll"], true);
    uint32_t value = 7, written = kUntouched;
    void* out = &out;
    EXPECT_TRUE(HalInit(HAL_CLASS_ENCLAVE, &out) == 0 && out == &out);
    EXPECT_EQ(machine.Asked("registry")[1], std::string("HKLM\\") + kCpuKey + " VendorIdentifier");
    EXPECT_TRUE(machine.Asked("library").empty());
    EXPECT_EQ(HalControl(HAL_CLASS_ENCLAVE, nullptr, 0, "abcd", 4, &value, 4, &written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_ENCLAVE, nullptr, 0, &value, 4, &written), 0u);
    EXPECT_TRUE(value == 7 && written == kUntouched);
}

// Wine's own registry and WMI.
TEST(CpuOnWine, AnswersAgreeWithTheRegistryAndWmi) {
    EXPECT_EQ(HalInit(HAL_CLASS_CPU, nullptr), 1u);
    wchar_t name[256] = {};
    DWORD size = sizeof(name);
    ASSERT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0",
                           L"ProcessorNameString", RRF_RT_REG_SZ, nullptr, name, &size), ERROR_SUCCESS);
    EXPECT_EQ(Text(HAL_CPU_NAME, 256), StringProc::WStringToString(name));
    HalWmi wmi(L"ROOT\\CIMV2");
    for (auto [code, property] : {std::pair{HAL_CPU_CORES, L"NumberOfCores"},
                                  std::pair{HAL_CPU_LOGICAL_PROCESSORS, L"NumberOfLogicalProcessors"}})
        EXPECT_EQ(Number(code), wmi.SelectUInt(std::wstring(L"SELECT ") + property + L" FROM Win32_Processor", property));
    const std::wstring text(name);  // this machine's processor is an Intel or an AMD one
    EXPECT_EQ(Number(HAL_CPU_VENDOR_CLASS), text.find(L"Intel") != std::wstring::npos ? 1u : text.rfind(L"AMD", 0) == 0 ? 2u : 0u);
}

}  // namespace
