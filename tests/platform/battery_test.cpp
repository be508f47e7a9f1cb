// Battery (class 8) over simulated machines, and on Wine's own. The laptop of tests/machines/battery-laptop.json
// gives each source numbers of its own (the device 50000 mWh designed and 12600 mV, WMI 60000 and 11000), so
// an answer shows where it came from.
#include "platform/platform_test.h"

using namespace platform_test;

namespace {

constexpr char kSet[] = "{72631E54-78A4-11D0-BCF7-00AA00B7B32A} DIGCF_PRESENT|DIGCF_DEVICEINTERFACE";
constexpr char kPath[] = "\\\\?\\acpi#pnp0c0a#1#{72631e54-78a4-11d0-bcf7-00aa00b7b32a}";
// I/O controls by code and input: the tag (7), information levels 0, 4 and 6, status.
constexpr char kTag[] = "IOCTL_BATTERY_QUERY_TAG 00000000";
constexpr char kInformation[] = "IOCTL_BATTERY_QUERY_INFORMATION 070000000000000000000000";
constexpr char kDeviceName[] = "IOCTL_BATTERY_QUERY_INFORMATION 070000000400000000000000";
constexpr char kManufacturer[] = "IOCTL_BATTERY_QUERY_INFORMATION 070000000600000000000000";
constexpr char kStatus[] = "IOCTL_BATTERY_QUERY_STATUS 0700000000000000000000000000000000000000";

Json Laptop() { return Json::parse(torvex::test::MachineText("battery-laptop")); }
Json& Ioctls(Json& machine) { return machine["files"]["paths"][kPath]["ioctls"]; }

auto Query(uint32_t code) {  // through the Hal API, which drops the device
    return [code](void* b, uint32_t s, uint32_t* w) { return HalQueryInformation(8, b, code, b, s, w); };
}
std::optional<uint32_t> Number(uint32_t code, uint32_t size = 4) { return AskNumber<uint32_t>(Query(code), size, 4); }
std::optional<std::string> Text(uint32_t code, uint32_t size = 64) {
    return Ask([code](void* b, uint32_t s, uint32_t* w) { return BtQueryInformation(code, b, s, w); }, size);
}

TEST(BatteryTest, ALaptopAnswersEveryNumberFromItsSource) {
    Machine machine(Laptop());
    const std::pair<uint32_t, std::optional<uint32_t>> expected[] = {
        {0, 1}, {3, 30000}, {4, 42500}, {5, 50000}, {6, 1}, {7, 12600}, {8, 1500}, {9, std::nullopt}, {10, 5000}};
    for (const auto& [code, value] : expected) EXPECT_EQ(Number(code), value) << code;
    EXPECT_TRUE(machine.Asked("wmi").empty()) << "the device answered";

    machine.trace.Clear();
    EXPECT_EQ(Number(7), 12600u);
    EXPECT_EQ(machine.Sent("setupapi"), (Lines{"open " + std::string(kSet), "interface path"}));
    EXPECT_EQ(machine.Sent("file"), Lines{"open " + std::string(kPath) + " [access 0xC0000000, share 0x3, disposition 3, flags 0x80]"});
    const std::string device = std::string(kPath) + " ";
    EXPECT_EQ(machine.Sent("ioctl"), (Lines{device + kTag + " [out 4 bytes]", device + kInformation + " [out 36 bytes]",
                                            device + kStatus + " [out 16 bytes]"}));
    EXPECT_EQ(machine.Asked("power"), Lines{"power status"});

    machine.trace.Clear();
    EXPECT_EQ(Text(2), "Device Name");
    EXPECT_EQ(machine.Sent("ioctl"), (Lines{device + kTag + " [out 4 bytes]", device + kDeviceName + " [out 520 bytes]",
                                            device + kManufacturer + " [out 520 bytes]"}));
}

// The device answers designed capacity and voltage only through a system
// battery's information and status, and the device name only while the
// manufacturer request fails (inverted on purpose); else WMI answers.
TEST(BatteryTest, TheDeviceAnswersWhereItCanAndWmiElsewhere) {
    using Change = void (*)(Json&);
    const char* const device = "Device Name";
    const std::tuple<const char*, Change, std::optional<uint32_t>, std::optional<uint32_t>, const char*> cases[] = {
        {"as it is", [](Json&) {}, 50000, 12600, device},
        {"not a system battery", [](Json& m) { Ioctls(m)[kInformation]["fields"]["capabilities"] = 0x7FFFFFFF; }, 60000, 11000, device},
        {"no information", [](Json& m) { Ioctls(m)[kInformation] = {{"error", "0x00000001"}}; }, 60000, 11000, device},
        {"no status", [](Json& m) { Ioctls(m)[kStatus] = {{"error", "0x00000001"}}; }, 60000, 11000, device},
        {"a manufacturer", [](Json& m) { Ioctls(m)[kManufacturer] = {{"text", "Maker"}}; }, 50000, 12600, "WMI Name"},
        {"no device name", [](Json& m) { Ioctls(m)[kDeviceName] = {{"error", "0x00000001"}}; }, 50000, 12600, "WMI Name"},
        {"an empty device name", [](Json& m) { Ioctls(m)[kDeviceName] = {{"text", ""}}; }, 50000, 12600, "WMI Name"},
        {"tag 0", [](Json& m) {  // even when the device would answer for it
             Json& io = Ioctls(m);
             io[kTag]["fields"]["tag"] = 0;
             for (std::string key : {kInformation, kDeviceName, kStatus}) {
                 const Json answer = io[key];
                 io[key.replace(key.find(' ') + 1, 2, "00")] = answer;  // the same request for tag 0
             }
         }, 60000, 11000, "WMI Name"},
        {"no tag", [](Json& m) { Ioctls(m)[kTag] = {{"error", "0x00000001"}}; }, 60000, 11000, "WMI Name"},
        {"not opened", [](Json& m) { m["files"]["paths"][kPath]["open"] = {{"error", "0x00000005"}}; }, 60000, 11000, "WMI Name"},
        {"no interface", [](Json& m) { m["devices"]["sets"][kSet] = Json::array(); }, 60000, 11000, "WMI Name"},
        {"WMI's zeros", [](Json& m) {
             Ioctls(m)[kTag] = {{"error", "0x00000001"}};
             m["wmi"]["ROOT\\WMI"]["queries"] = {{"SELECT Voltage FROM BatteryStatus", Rows("Voltage", {0})},
                                                  {"SELECT DesignedCapacity FROM BatteryStaticData", Rows("DesignedCapacity", {0})}}; },
         std::nullopt, std::nullopt, nullptr},
        // WMI's "no value" fails the capacity, but is the system's unknown voltage and passes.
        {"nothing", [](Json& m) { Ioctls(m)[kTag] = {{"error", "0x00000001"}}; m["wmi"]["ROOT\\WMI"] = Json::object(); }, std::nullopt, 0xFFFFFFFF, nullptr},
    };
    for (const auto& [what, change, designed, voltage, name] : cases) {
        SCOPED_TRACE(what);
        Json profile = Laptop();
        change(profile);
        Machine machine(profile);
        EXPECT_EQ(Number(5), designed);
        EXPECT_EQ(Number(7), voltage);
        EXPECT_EQ(Text(2), name ? std::optional<std::string>(name) : std::nullopt);
        EXPECT_EQ(Text(1), name ? std::optional<std::string>("WMI Maker") : std::nullopt) << "always from WMI";
        EXPECT_TRUE(!name || !Text(2, static_cast<uint32_t>(strlen(name)))) << "no spare byte";
    }
}

TEST(BatteryTest, RatesAndWearFromTheBatteryState) {
    Machine machine(Laptop());
    Json& state = machine.profile.doc()["power"]["battery_state"];
    const std::tuple<bool, int, std::optional<uint32_t>, std::optional<uint32_t>> rates[] = {
        {true, 5000, std::nullopt, 5000}, {true, 1, std::nullopt, 1},       {true, 0, std::nullopt, std::nullopt},
        {true, -12000, std::nullopt, std::nullopt}, {false, -12000, 12000, std::nullopt}, {false, -1, 1, std::nullopt},
        {false, 0, std::nullopt, std::nullopt},     {false, 5000, std::nullopt, std::nullopt}};
    for (const auto& [ac, rate, discharge, charge] : rates) {
        SCOPED_TRACE(std::to_string(ac) + " " + std::to_string(rate));
        state["ac_on_line"] = ac;
        state["rate_mw"] = rate;
        EXPECT_EQ(Number(9), discharge);
        EXPECT_EQ(Number(10), charge);
    }
    const std::pair<uint32_t, std::optional<uint32_t>> wear[] = {
        {42500, 1500}, {0, 10000}, {49999, 0}, {50000, std::nullopt}, {50001, std::nullopt}};
    for (const auto& [full, centipercent] : wear) {
        state["max_capacity_mwh"] = full;
        EXPECT_EQ(Number(8), centipercent) << full;
    }
}

TEST(BatteryTest, PresenceAndBoundedRetries) {
    Machine machine(Laptop());
    Json& power = machine.profile.doc()["power"];
    for (int flag : {128, 255}) {
        power["status"]["battery_flag"] = flag;
        for (uint32_t code : {0u, 3u, 4u, 5u, 7u, 8u}) EXPECT_EQ(Number(code), std::nullopt) << code;
        EXPECT_EQ(Number(6), 1u) << "the AC line needs no battery";
        EXPECT_TRUE(machine.Asked("setupapi").empty() && machine.Asked("wmi").empty());
    }
    power = {{"status", {{"error", "0x0000001F"}}}, {"battery_state", {{"status", "0xC0000001"}}}};
    machine.trace.Clear();
    EXPECT_EQ(Number(6), std::nullopt);
    EXPECT_EQ(machine.Asked("power"), Lines(3, "power status"));
    machine.trace.Clear();
    EXPECT_EQ(Number(10), std::nullopt);
    EXPECT_EQ(machine.Asked("power"), Lines(4, "battery state"));
}

TEST(BatteryTest, FirmwareReadingAndChargeControl) {
    Machine machine(Laptop());
    Json& answers = machine.profile.doc()["firmware"]["answers"];
    for (const auto& [output, value] : {std::pair{"00002307", 35.7f}, {"0000230c", 35.0f}, {"00000105", -1.5f}}) {
        answers["020201"]["output"] = output;
        EXPECT_FLOAT_EQ(AskNumber<float>(Query(11), 4, 4).value_or(0), value) << output;
    }
    EXPECT_EQ(machine.Last("firmware"), "OemWMIfun packet 020201") << "64 bytes: 02 02 01, then zeros";
    auto pair = [] { return Ask(Query(12), 2, 2, 2); };
    EXPECT_EQ(pair(), "\x50\x5f");

    uint8_t values[2] = {0, 100};
    uint32_t written = kUntouched;
    ASSERT_TRUE(HalSetInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_CHARGE_CONTROL, values, 2, &written, 0) == 1 && written == 2);
    EXPECT_EQ(machine.Last("firmware"), "OemWMIfun packet 03100064");
    EXPECT_EQ(pair(), std::string("\x00\x64", 2)) << "the firmware now answers the pair it was given";

    const size_t calls = machine.Asked("firmware").size();
    uint8_t high[] = {101, 80, 101};  // {101, 80}, then {80, 101}
    written = kUntouched;
    for (const auto& [code, data, size] : {std::tuple<uint32_t, uint8_t*, uint32_t>{12, high, 2}, {12, high + 1, 2},
                                           {12, values, 1}, {11, values, 2}, {13, values, 2}, {12, nullptr, 2}})
        EXPECT_EQ(BtSetInformation(code, data, size, &written), 0u) << code << " " << size;
    EXPECT_EQ(BtSetInformation(12, values, 2, nullptr), 0u);
    EXPECT_EQ(machine.Asked("firmware").size(), calls) << "refused before the firmware";
    answers["03105050"] = {{"output", "01"}, {"length", 256}};  // status: refused
    values[0] = values[1] = 0x50;
    EXPECT_EQ(BtSetInformation(12, values, 2, &written), 0u);
    EXPECT_EQ(written, kUntouched);
    answers["020201"]["output"] = "01002307";
    EXPECT_EQ(AskNumber<float>(Query(11), 4, 4), std::nullopt);
}

TEST(BatteryTest, SizesAreCheckedBeforeAnySource) {
    Machine machine(Laptop());
    EXPECT_EQ(Number(4, 3), std::nullopt) << "before the presence test";
    EXPECT_EQ(Number(11, 3), std::nullopt) << "before the firmware";
    EXPECT_EQ(Ask(Query(12), 1, 2, 2), std::nullopt);
    EXPECT_EQ(machine.trace.Size(), 0u);
}

// Wine's own power functions: no battery, on AC.
TEST(BatteryOnWine, NoBatteryButAnAcLine) {
    EXPECT_EQ(HalInit(HAL_CLASS_BATTERY, nullptr), 1u);
    EXPECT_EQ(Number(HAL_BT_PRESENT), std::nullopt);
    EXPECT_EQ(Number(HAL_BT_REMAINING_MWH), std::nullopt);
    EXPECT_EQ(Number(HAL_BT_AC_LINE_STATUS), 1u);
}

}  // namespace
