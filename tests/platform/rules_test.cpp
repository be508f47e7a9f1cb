// Rules the platform modules share, one table each: text facts of the CPU
// (class 0) and the mainboard (class 4) come from the registry first, else
// from WMI; and the queries of classes 0, 4, 8 and 13 refuse null pointers
// and unknown codes, touching nothing.
#include "platform/platform_test.h"

using namespace platform_test;

namespace {

using Query = uint32_t (*)(uint32_t code, void* buffer, uint32_t size, uint32_t* written);
uint32_t Cpu(uint32_t c, void* b, uint32_t s, uint32_t* w) { return CpuQueryInformation(int32_t(c), b, s, w); }
uint32_t kModule0[4] = {};  // a memory list entry for module 0
uint32_t Memory(uint32_t c, void* b, uint32_t s, uint32_t* w) { return MmQueryInformation(kModule0, c, b, s, w); }

constexpr char kCpu[] = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
constexpr char kBios[] = "HARDWARE\\DESCRIPTION\\System\\BIOS";

TEST(PlatformRules, TextFactsFromTheRegistryFirstUntrimmedThenFromWmi) {
    const std::tuple<Query, uint32_t, const char*, const char*, const char*, const char*> facts[] = {
        // The CPU vendor's fallback reads a property named after a registry value, on purpose.
        {Cpu, 0, kCpu, "VendorIdentifier", "SELECT Manufacturer FROM Win32_Processor", "REG_NAME_CPU_VENDOR"},
        {Cpu, 1, kCpu, "ProcessorNameString", "SELECT Name FROM Win32_Processor", "Name"},
        {MbQueryInformation, 0, kBios, "BaseBoardProduct", "SELECT Product FROM Win32_BaseBoard", "Product"},
        {MbQueryInformation, 1, kBios, "BaseBoardManufacturer", "SELECT Manufacturer FROM Win32_BaseBoard", "Manufacturer"},
        {MbQueryInformation, 2, kBios, "BaseBoardVersion", "SELECT Version FROM Win32_BaseBoard", "Version"},
        {MbQueryInformation, 3, kBios, nullptr, "SELECT SerialNumber FROM Win32_BaseBoard", "SerialNumber"},
        {MbQueryInformation, 4, kBios, "BIOSVersion", "SELECT SMBIOSBIOSVersion FROM Win32_BIOS", "SMBIOSBIOSVersion"},
        {MbQueryInformation, 5, kBios, "BIOSVendor", "SELECT Manufacturer FROM Win32_BIOS", "Manufacturer"},
    };
    for (const auto& [query, code, key, value, wmi, property] : facts) {
        SCOPED_TRACE(std::string(wmi) + ", code " + std::to_string(code));
        auto ask = [&](uint32_t size) { return Ask([&](void* b, uint32_t s, uint32_t* w) { return query(code, b, s, w); }, size); };
        Machine machine(Json{{"registry", {{key, value ? Json{{value, {{"sz", " From registry "}}}} : Json::object()}}},
                             {"wmi", {{"ROOT\\CIMV2", {{"queries", {{wmi, Rows(property, {"WMI answer  "})}}}}}}}});
        Json& values = machine.profile.doc()["registry"][key];
        if (value) {
            EXPECT_EQ(ask(15), std::nullopt) << "no spare byte";
            machine.trace.Clear();
            EXPECT_EQ(ask(16), " From registry ");
            EXPECT_EQ(machine.Sent("registry"), (Lines{"HKLM\\" + std::string(key) + " [access 0x20119]",
                                                       "HKLM\\" + std::string(key) + " " + value + " [room 520 bytes]"}));
            values[value]["sz"] = "";  // empty, then missing
            EXPECT_EQ(ask(64), "WMI answer  ");
            values.erase(value);
        }
        EXPECT_EQ(ask(64), "WMI answer  ");
        EXPECT_EQ(machine.Asked("wmi"), Lines(value ? 2 : 1, Wmi("ROOT\\CIMV2", wmi)));
        EXPECT_TRUE(value || machine.Asked("registry").empty()) << "never from the registry";
        machine.profile.doc()["wmi"].erase("ROOT\\CIMV2");
        EXPECT_EQ(ask(64), std::nullopt) << "nothing anywhere";
    }
}

TEST(PlatformRules, NullPointersAndUnknownCodesTouchNothing) {
    const std::tuple<const char*, Query, uint32_t, std::vector<uint32_t>, bool, bool> rows[] = {
        // name, query, last code, unknown codes, null pointers ask nothing, unknown codes ask nothing
        {"CPU", Cpu, 18, {5, 16, 19, 40, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}, true, true},
        {"mainboard", MbQueryInformation, 6, {7, 100, 0xFFFFFFFF}, false, true},
        {"battery", BtQueryInformation, 12, {13, 100, 0xFFFFFFFF}, true, true},
        {"memory", Memory, 6, {7, 100, 0xFFFFFFFF}, true, false},  // modules are counted first
    };
    for (const auto& [name, query, last, unknown, nullsAskNothing, unknownAsksNothing] : rows) {
        SCOPED_TRACE(name);
        Machine machine(Json::object());  // every source answers nothing, and every call is traced
        for (uint32_t code = 0; code <= last; ++code) {
            uint32_t value = 7, written = kUntouched;
            EXPECT_EQ(query(code, nullptr, 64, &written) + query(code, &value, 64, nullptr), 0u) << code;
            EXPECT_TRUE(value == 7 && written == kUntouched) << code;
        }
        EXPECT_TRUE(!nullsAskNothing || machine.trace.Size() == 0) << machine.trace.Render();
        machine.trace.Clear();
        for (uint32_t code : unknown)
            EXPECT_EQ(Ask([&](void* b, uint32_t s, uint32_t* w) { return query(code, b, s, w); }, 64), std::nullopt) << code;
        EXPECT_TRUE(!unknownAsksNothing || machine.trace.Size() == 0) << machine.trace.Render();
    }
}

}  // namespace
