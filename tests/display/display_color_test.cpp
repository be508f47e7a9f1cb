// Display colour (class 19) on the graphics driver's COM server back end, replayed from a laptop's profile
// (tests/machines/hybrid-graphics-laptop.json): the server's answers, the screen and the power scheme.
#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using namespace torvex::test;

namespace {

using Strings = std::vector<std::string>;
constexpr char kBrightness[] = "{7516B95F-F776-4464-8C53-06167F40CC99}/{ADED5E82-B909-4619-9949-F5D71DAC0BCB}";

// The back end is chosen once for the process; each test brings it up on a laptop whose first
// adapter is Intel's. Its screen is \\.\DISPLAY1, identifier 42 to the server; brightness is 70 on
// mains and 30 on battery.
class ServerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(Init(), 1u); }
    void TearDown() override { ExpectNothingHeld(); }
    Json& Profile() { return machine.profile.doc(); }
    Json& Server() { return Profile()["vendor"]["graphics_server"]; }
    uint32_t Init() {
        void* out = reinterpret_cast<void*>(0x1234);
        const uint32_t result = HalInit(HAL_CLASS_DISPLAY, &out);
        EXPECT_EQ(out, reinterpret_cast<void*>(0x1234)) << "only the AMD library hands out a context";
        return result;
    }
    uint32_t Set(uint32_t code, const void* input, uint32_t size) {
        return HalSetInformation(HAL_CLASS_DISPLAY, nullptr, code, const_cast<void*>(input), size, nullptr, 0);
    }
    uint32_t Query(uint32_t code, void* buffer, uint32_t size, uint32_t* returned) {
        return HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, code, buffer, size, returned);
    }
    // The last ramp the server was given for the screen, 3 x 256 entries; empty when none was.
    std::vector<uint16_t> Ramp() {
        if (!Server().contains("ramps") || !Server()["ramps"].contains("42")) return {};
        const std::string hex = Server()["ramps"]["42"];
        std::vector<uint16_t> ramp(hex.size() / 4);
        for (size_t i = 0; i < ramp.size(); ++i)
            ramp[i] = uint16_t(std::stoul(hex.substr(4 * i, 2), nullptr, 16) | std::stoul(hex.substr(4 * i + 2, 2), nullptr, 16) << 8);
        return ramp;
    }

    SimulatedMachine machine{MachineFile{"hybrid-graphics-laptop"}};
};

// The laptop's two PCI adapters renamed: the first name with AMD or Intel in it decides. The server is created once,
// by the first test, as an in-process, handler, local or remote server asked for IUnknown.
TEST_F(ServerTest, TheFirstAdapterNamingAmdOrIntelChoosesTheBackEnd) {
    EXPECT_EQ(machine.Calls("com"), Strings{"graphics driver server [context 23, interface IUnknown] -> created"});
    const struct {
        const char* names[2];
        uint32_t result;
        bool amd;  // the AMD library was asked for (absent here)
    } cases[] = {{{"amd radeon", "INTEL UHD"}, 1, false},  // the names are matched case-sensitively
                 {{"AMD Radeon", "Intel UHD"}, 0, true},
                 {{"Intel UHD", "AMD Radeon"}, 1, false}};
    Json& nodes = Profile()["devices"]["nodes"];
    const Json ids = Profile()["devices"]["sets"]["{4D36E968-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT"];
    for (const auto& c : cases) {
        for (int i = 0; i < 2; ++i)
            nodes[ids[2 * i].get<std::string>()]["properties"]["DEVPKEY_Device_DeviceDesc"]["string"] = c.names[i];
        machine.trace.Clear();
        EXPECT_EQ(Init(), c.result);
        EXPECT_EQ(machine.Asked("library"), (c.amd ? Strings{"dxgi.dll", "dxgi.dll", "atiadlxx.dll"}
                                                    : Strings{"dxgi.dll", "dxgi.dll"}));
        EXPECT_TRUE(machine.Asked("com").empty()) << "not created again";
    }
    EXPECT_EQ(torvex::sim::Machine::Holding().graphicsServers, 1) << "the one server the library keeps";
}

// Warmth (2, 5) and channel gains (6) become ramps for the screen's identifier; the channel settings come from the
// generic get, whose request the profile names exactly (1, the identifier, zeros, 2 at offset 88).
TEST_F(ServerTest, RampsAndChannelSettingsGoThroughTheServer) {
    const struct {
        uint32_t code, size;
        std::array<float, 5> in;      // a WarmthRequest (warmth, blue cut) unless the code is 6
        std::array<uint16_t, 3> top;  // entry 255 of red, green and blue; zeros: refused, no ramp sent
    } cases[] = {{5, 8, {128, 0}, {65535, 65535, 65535}},         {5, 7, {128, 0}, {}},
                 {2, 0, {255, 0}, {61634, 61634, 65535}},         {2, 0, {300, 0}, {61634, 61634, 65535}},
                 {5, 8, {0, 0}, {65535, 65535, 55705}},           {5, 8, {128, 255}, {65535, 65535, 53739}},
                 {6, 20, {1, .5f, 1, 255, 0}, {65535, 32768, 0}}, {6, 19, {1, 1, 1, 0, 0}, {}},
                 {6, 20, {1, 1, 1, 127.9f, .5f}, {65535, 65535, 49215}},
                 {6, 20, {.8f, 1, 1, 300, .25f}, {52428, 65535, 16384}}, {7, 20, {1, 1, 1, 0, 0}, {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "code " << c.code << " size " << c.size << " first " << c.in[0]);
        uint32_t in[5];
        std::memcpy(in, c.in.data(), sizeof(in));
        if (c.code != HAL_DISPLAY_CHANNEL_GAINS) in[0] = uint32_t(c.in[0]), in[1] = uint32_t(c.in[1]);
        Server().erase("ramps");
        ASSERT_EQ(Set(c.code, in, c.size), c.top[0] != 0 ? 1u : 0u);
        const std::vector<uint16_t> ramp = Ramp();
        const std::array<uint16_t, 3> top = ramp.empty() ? std::array<uint16_t, 3>{} : std::array{ramp[255], ramp[511], ramp[767]};
        EXPECT_EQ(top, c.top);
    }
    EXPECT_EQ(torvex::sim::Machine::Holding().graphicsServers, 2) << "the per-channel server is replaced, not piled up";
    const WarmthRequest neutral{128, 0};
    machine.trace.Clear();
    ASSERT_EQ(Set(HAL_DISPLAY_WARMTH, &neutral, 8), 1u);
    EXPECT_EQ(machine.Calls("vendor"), (Strings{"graphics server display \\\\.\\DISPLAY1 -> identifier 42",
                                                "graphics server ramp of display 42 [1536 bytes] -> set"}));
    const std::vector<uint16_t> ramp = Ramp();
    ASSERT_EQ(ramp.size(), 768u);
    for (int i = 0; i < 768; ++i) ASSERT_EQ(ramp[i], (i % 256) * 257) << "a linear ramp, entry " << i;

    uint32_t settings[10], returned = 0xBAD;
    std::memset(settings, 0xEE, sizeof(settings));
    ASSERT_EQ(Query(HAL_DISPLAY_TEMPERATURE, settings, 36, &returned), 1u);
    EXPECT_EQ(returned, 36u);
    for (uint32_t i = 0; i < 10; ++i) EXPECT_EQ(settings[i], i < 9 ? i : 0xEEEEEEEE) << "request offset " << 44 + 4 * i;
    // Refusals: no room, no buffer, no count, the AMD library's codes, a failed get, no display device.
    Json& request = Server()["requests"].begin().value();
    const struct {
        uint32_t code, size;
        bool buffer, count, screen;
        uint32_t status;  // the get's answer
    } refusals[] = {{2, 35, true, true, true, 0}, {2, 36, false, true, true, 0}, {2, 36, true, false, true, 0},
                    {0, 40, true, true, true, 0}, {1, 40, true, true, true, 0}, {4, 40, true, true, true, 0},
                    {2, 36, true, true, true, 3}, {2, 36, true, true, false, 0}};
    for (const auto& r : refusals) {
        request["status"] = r.status;
        if (!r.screen) Profile()["display"]["devices"] = Json::array();
        std::memset(settings, 0xEE, sizeof(settings));
        returned = 0xBAD;
        EXPECT_EQ(Query(r.code, r.buffer ? settings : nullptr, r.size, r.count ? &returned : nullptr), 0u)
            << &r - refusals;
        EXPECT_EQ(settings[0], 0xEEEEEEEEu);
        EXPECT_EQ(returned, 0xBADu);
    }
}

DWORD WINAPI RefuseApply(HKEY, const GUID*) { return 5; }
DWORD WINAPI RefuseWrite(HKEY, const GUID*, const GUID*, const GUID*, DWORD) { return 5; }

// Brightness is the active power scheme's value for the current power source (AC unless offline);
// the range is checked only for inputs shorter than 4 bytes; failures go to the debug channel.
TEST_F(ServerTest, BrightnessReadsAndWritesThePowerScheme) {
    const struct {
        bool set;
        uint32_t value, size, acLine;
        Json power;          // merged into the captured power answers
        const char* inject;  // a call that fails with 5
        uint32_t answer;     // the brightness read or stored; 0: refused
        size_t calls;        // how many of: active scheme, status, read or write, apply
        const wchar_t* message;
    } cases[] = {
        {false, 0, 20, 1, {}, nullptr, 70, 3, nullptr},  {false, 0, 20, 0, {}, nullptr, 30, 3, nullptr},
        {false, 0, 19, 1, {}, nullptr, 0, 0, nullptr},   {true, 150, 4, 1, {}, nullptr, 150, 4, nullptr},
        {true, 150, 2, 1, {}, nullptr, 0, 0, nullptr},   {true, 80, 0, 0, {}, nullptr, 80, 4, nullptr},
        {true, 100, 3, 255, {}, nullptr, 100, 4, nullptr},
        {false, 0, 20, 1, {{"status", {{"error", "0x0000001F"}}}}, nullptr, 0, 2, L"GetSystemPowerStatus Result:31"},
        {true, 50, 4, 1, {{"status", {{"error", "0x0000001F"}}}}, nullptr, 0, 2, L"GetSystemPowerStatus Result:31"},
        {false, 0, 20, 1, {{"scheme", {{"values", nullptr}}}}, nullptr, 0, 3, L"PowerReadACValueIndex Result:2"},
        {false, 0, 20, 0, {{"scheme", {{"values", nullptr}}}}, nullptr, 0, 3, L"PowerReadDCValueIndex Result:2"},
        {true, 50, 4, 1, {{"scheme", {{"error", "0x00000005"}, {"active", nullptr}}}}, nullptr, 0, 1,
         L"PowerGetActiveScheme Result:5"},
        {true, 50, 4, 1, {}, "PowerSetActiveScheme", 0, 3, L"PowerSetActiveScheme Result:5"},
        {true, 50, 4, 1, {}, "PowerWriteACValueIndex", 0, 2, L"PowerWriteACValueIndex Result:5"},
        {true, 50, 4, 0, {}, "PowerWriteDCValueIndex", 0, 2, L"PowerWriteDCValueIndex Result:5"}};
    const Json captured = Profile()["power"];
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        Json& power = Profile()["power"] = captured;
        power["status"]["ac_line_status"] = c.acLine;
        if (c.power.is_object()) power.merge_patch(c.power);
        std::optional<ImportPatch> inject;
        if (c.inject != nullptr)
            inject.emplace(std::string(c.inject) == "PowerSetActiveScheme" ? Redirect(c.inject, &RefuseApply)
                                                                           : Redirect(c.inject, &RefuseWrite));
        machine.trace.Clear();
        DebugCapture debug;
        uint32_t range[6], returned = 0xBAD;
        std::memset(range, 0xEE, sizeof(range));
        const uint32_t result = c.set ? Set(HAL_DISPLAY_BRIGHTNESS, &c.value, c.size)
                                      : Query(HAL_DISPLAY_BRIGHTNESS, range, c.size, &returned);
        EXPECT_EQ(result, c.answer != 0 ? 1u : 0u);
        const std::string side = c.acLine != 0 ? "ac" : "dc", setting = side + " " + kBrightness;
        Strings calls = {"active scheme", "power status", "read " + setting, "apply scheme"};
        if (c.set) calls[2] = "write " + setting + " = " + std::to_string(c.value);
        calls.resize(c.calls);
        if (c.calls > 1) calls.push_back("free scheme");  // the scheme was obtained: it goes back
        EXPECT_EQ(machine.Asked("power"), calls);
        const std::wstring message = std::wstring(c.set ? L"[DpSetInformation] " : L"[DpQueryInformation] ") +
                                     (c.message != nullptr ? c.message : L"") + L"(`anonymous-namespace'::" +
                                     (c.set ? L"SetLight)\n" : L"QueryLight)\n");
        EXPECT_EQ(debug.Messages(), c.message != nullptr ? std::vector{message} : std::vector<std::wstring>{});
        if (c.set && c.answer != 0) { EXPECT_EQ(power["scheme"]["values"][kBrightness][side], c.answer); }
        const bool read = !c.set && c.answer != 0;
        EXPECT_EQ(returned, read ? 20u : 0xBADu);
        const std::vector<uint32_t> unwritten(6, 0xEEEEEEEE), answered = {c.answer, 0, 0, 100, 0, 0xEEEEEEEE};
        EXPECT_EQ(std::vector<uint32_t>(range, range + 6), read ? answered : unwritten);
    }
}

}  // namespace
