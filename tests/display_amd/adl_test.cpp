// Display colour on the AMD Display Library back end: a desktop whose first named adapter is AMD's, its library
// replayed from the profile (tests/machines/amd-radeon-desktop.json). A program of its own: once a complete library
// has loaded, the library keeps it for the process and its entry points answer from whichever machine is installed.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using namespace torvex::test;

namespace {

using Strings = std::vector<std::string>;

std::string SystemLibrary() {
    wchar_t system[MAX_PATH] = {};
    GetSystemDirectoryW(system, MAX_PATH);
    const std::wstring path = std::wstring(system) + L"\\atiadlxx.dll";
    return std::string(path.begin(), path.end());
}

// A library without every entry point the library needs is given up and freed again, not left in the host.
// First in the program: once a complete library has loaded, it stays and is never looked for again.
TEST(AdlLibrary, OneMissingEntryPointIsFreedAgain) {
    SimulatedMachine machine{MachineFile{"amd-radeon-desktop"}};
    machine.profile.doc()["vendor"]["atiadlxx.dll"]["missing"] = {"ADL_Display_Sharpness_Caps"};
    void* out = nullptr;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(machine.Calls("library"),
              (Strings{"dxgi.dll -> loaded", "dxgi.dll -> freed", "atiadlxx.dll [" + SystemLibrary() + "] -> loaded (replayed)",
                       "atiadlxx.dll ADL_Display_Sharpness_Caps -> no such entry point", "atiadlxx.dll -> freed"}))
        << "looked for in the system directory, then freed";
    EXPECT_TRUE(machine.Asked("vendor").empty()) << "no entry point is called";
    ExpectNothingHeld();
}

class AdlTest : public ::testing::Test {
protected:
    void SetUp() override {
        void* out = nullptr;
        ASSERT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 1u);
        ASSERT_NE(context = static_cast<DisplayColorContext*>(out), nullptr);
        // The first display mapped to its own adapter: not adapter 3's mapped display of adapter 9.
        const DisplayColorContext expected{16, 1, 7, 5};
        EXPECT_EQ(std::memcmp(context, &expected, 16), 0);
        pair = &context->adapterIndex;
        machine.trace.Clear();
    }
    void TearDown() override {
        ExpectNothingHeld();  // every ADL context destroyed, every record freed
        torvex::test::FreeRecord(context);
    }
    Json& Adl() { return machine.profile.doc()["vendor"]["atiadlxx.dll"]; }
    void Answer(int caps, int valid, std::vector<int> range = {6500, 6500, 5000, 9000, 100}) {
        Adl()["color_caps"]["7 5"] = {{"caps", caps}, {"valid", valid}};
        for (const char* key : {"7 5 16", "7 5 1"})
            Adl()["colors"][key] = {{"current", range[0]}, {"default", range[1]}, {"min", range[2]}, {"max", range[3]},
                                    {"step", range[4]}};
    }

    SimulatedMachine machine{MachineFile{"amd-radeon-desktop"}};
    DisplayColorContext* context = nullptr;
    void* pair = nullptr;  // what the host passes: the adapter and display indices
};

// Initialisation opens a context with the library's allocator, enumerating and thread-safe, reads the adapters and
// their displays, and gives every context and record back. Without a mapped display of its own adapter: refused.
TEST_F(AdlTest, InitialisationFindsTheFirstDisplayMappedToItsOwnAdapter) {
    void* out = nullptr;
    ASSERT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 1u);
    torvex::test::FreeRecord(out);
    EXPECT_EQ(machine.Calls("vendor"),
              (Strings{"ADL2_Main_ControlX2_Create [enumerate 1, threading 1] -> context opened",
                       "ADL2_Adapter_AdapterInfoX2_Get -> adapters [3,7]", "ADL2_Adapter_NumberOfAdapters_Get -> 2",
                       "ADL2_Display_DisplayInfo_Get 3 -> "
                       "[{\"info_value\":2,\"logical_adapter_index\":9,\"logical_index\":1},"
                       "{\"info_value\":1,\"logical_adapter_index\":3,\"logical_index\":2}]",
                       "ADL2_Display_DisplayInfo_Get 7 -> "
                       "[{\"info_value\":5,\"logical_adapter_index\":7,\"logical_index\":4},"
                       "{\"info_value\":3,\"logical_adapter_index\":7,\"logical_index\":5}]",
                       "ADL2_Main_Control_Destroy -> context closed"}));
    const struct {
        const char* member;
        Json answer;
    } refusals[] = {{"displays", {{"7", {{"displays", {{{"logical_index", 5}, {"logical_adapter_index", 3}, {"info_value", 2}}}}}}}},
                    {"displays", {{"7", {{"result", -1}}}}},
                    {"adapters", {{"result", -5}}},
                    {"create", {{"result", -1}}}};
    for (const auto& r : refusals) {
        const Json saved = Adl();
        Adl()[r.member].merge_patch(r.answer);
        out = reinterpret_cast<void*>(0x1234);
        EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u) << r.answer;
        EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
        ExpectNothingHeld();
        Adl() = saved;
    }
}

TEST_F(AdlTest, QueriesNeedTheCapabilityAndTheRoom) {
    const struct {
        uint32_t code, size;
        int caps, valid, type;  // type: of the colour read (-1: refused; 0: the capabilities are the answer)
    } cases[] = {{0, 4, 0x13, 0x11, 0},   {0, 3, 0x13, 0x11, -1},  {2, 20, 0x11, 0xFF, 16}, {2, 19, 0x11, 0xFF, -1},
                 {2, 20, 0x01, 0xFF, -1}, {2, 20, 0x10, 0x01, -1}, {3, 20, 0x01, 0xFF, 1},  {3, 20, 0x10, 0xFF, -1},
                 {1, 20, 0xFF, 0xFF, -1}, {4, 20, 0xFF, 0xFF, -1}};
    const std::vector<int> range = {6500, 6400, 5000, 9000, 100};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "code " << c.code << " caps " << c.caps << " size " << c.size);
        Answer(c.caps, c.valid, range);
        machine.trace.Clear();
        int buffer[6];
        std::memset(buffer, 0xEE, sizeof(buffer));
        uint32_t returned = 0xBAD;
        const uint32_t bytes = c.type < 0 ? 0 : c.type == 0 ? 4 : 20;
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, c.code, buffer, c.size, &returned), bytes ? 1u : 0u);
        EXPECT_EQ(returned, bytes != 0 ? bytes : 0xBADu);
        Strings reads;
        for (const std::string& call : machine.Asked("vendor"))
            if (call.rfind("ADL2_Display_Color_Get", 0) == 0) reads.push_back(call);
        EXPECT_EQ(reads, c.type > 0 ? Strings{"ADL2_Display_Color_Get 7 5 " + std::to_string(c.type)} : Strings{});
        if (c.type == 0) { EXPECT_EQ(buffer[0], c.caps & c.valid); }
        if (c.type > 0) { EXPECT_EQ(std::vector<int>(buffer, buffer + 5), range); }
        EXPECT_EQ(buffer[bytes / 4], static_cast<int>(0xEEEEEEEE)) << "nothing written past the answer";
    }
    uint32_t caps = 0, returned = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, 0, &caps, 4, &returned), 0u) << "no pair, no answer";
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, 0, nullptr, 4, &returned), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, 0, &caps, 4, nullptr), 0u);
    Adl()["color_caps"]["7 5"]["result"] = -8;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, 0, &caps, 4, &returned), 0u) << "the library refuses";
}

// Kelvin from the level over 5000-8000 K (range 0) or 4000-6000 K, rounded down to hundreds and written back; the
// upper clamp is the range's constant, not the driver's maximum (9000 here). Code 3 applies it as brightness.
TEST_F(AdlTest, SetsApplyKelvinFromTheLevel) {
    const struct {
        uint32_t code;
        int32_t level, range, minimum, caps, writtenBack, applied, type;  // applied 0: refused, nothing set
    } cases[] = {{2, 128, 0, 5000, 0x11, 6500, 6500, 16}, {2, 255, 0, 5000, 0x11, 8000, 8000, 16},
                 {2, 0, 0, 5600, 0x11, 5000, 5600, 16},   {2, 300, 0, 5000, 0x11, 8500, 8000, 16},
                 {2, 255, 1, 3000, 0x11, 6000, 6000, 16}, {2, 100, 3, 3000, 0x11, 4700, 4700, 16},
                 {5, 0, 0, 5000, 0x11, 5000, 5000, 16},   {3, 255, 0, 5000, 0x11, 8000, 8000, 1},
                 {2, 128, 0, 5000, 0x01, 128, 0, 0},      {3, 128, 0, 5000, 0x10, 128, 0, 0},
                 {6, 128, 0, 5000, 0x11, 128, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "code " << c.code << " level " << c.level << " range " << c.range);
        Answer(c.caps, 0xFF, {6500, 6500, c.minimum, 9000, 100});
        Adl()["temperature_sources"]["7 5"] = Json::object();
        machine.trace.Clear();
        ColorTemperatureRequest request{c.level, c.range};
        uint32_t arg5 = 0xBAD;
        EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, c.code, &request, 8, &arg5, 0), c.applied ? 1u : 0u);
        EXPECT_EQ((std::vector<int>{request.level, request.range, int(arg5)}), (std::vector<int>{c.writtenBack, c.range, 0xBAD}));
        // The temperature's source first (64, user), then the value; the replayed colour holds it afterwards.
        Strings sets;
        for (const std::string& call : machine.Calls("vendor"))
            if (call.find("_Set ") != std::string::npos) sets.push_back(call);
        Strings expected;
        if (c.type == 16) expected.push_back("ADL2_Display_ColorTemperatureSource_Set 7 5 = 64 -> set");
        if (c.applied) expected.push_back("ADL2_Display_Color_Set 7 5 " + std::to_string(c.type) + " = " +
                                          std::to_string(c.applied) + " -> set");
        EXPECT_EQ(sets, expected);
        if (c.applied) { EXPECT_EQ(Adl()["colors"]["7 5 " + std::to_string(c.type)]["current"], c.applied); }
        if (c.type == 16) { EXPECT_EQ(Adl()["temperature_sources"]["7 5"]["source"], 64); }
    }
    ColorTemperatureRequest request{128, 0};
    uint32_t arg5 = 0;
    Answer(0x11, 0xFF);
    machine.trace.Clear();
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &request, 8, nullptr, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, nullptr, 8, &arg5, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_TEMPERATURE, &request, 8, &arg5, 0), 0u);
    EXPECT_TRUE(machine.Asked("vendor").empty()) << "refused before the library is asked";
    // A library that refuses the temperature's source, or the value, refuses the set.
    Adl()["temperature_sources"]["7 5"]["result"] = -1;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &request, 8, &arg5, 0), 0u);
    Adl()["temperature_sources"]["7 5"] = Json::object();
    Adl()["colors"]["7 5 16"]["set_result"] = -1;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &request, 8, &arg5, 0), 0u);
    EXPECT_EQ(Adl()["colors"]["7 5 16"]["current"], 6500) << "unchanged";
}

}  // namespace
