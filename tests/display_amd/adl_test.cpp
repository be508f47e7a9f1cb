// Display colour on the AMD Display Library back end: a desktop whose first named adapter is AMD's, with a
// stand-in atiadlxx.dll handed out where the library looks for it. A program of its own: the library stays loaded.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using namespace torvex::test;

namespace {

struct AdlStandInState {  // as adl_stand_in.c declares it
    int caps = 0, valid = 0, range[5] = {};
    int contextsOpen = 0, createFlags = 0;
    int lastGetType = 0, colorSets = 0, lastSetType = 0, lastSetValue = 0, sourceSets = 0, lastSource = 0;
};

std::wstring g_asked;                       // the path the AMD library was loaded from
std::wstring g_standIn = L"\\atiadlxx.dll";  // what is handed out instead, beside the test program
ImportPatch* g_load = nullptr;

HMODULE WINAPI LoadStandIn(LPCWSTR path) {
    if (std::wstring(path).find(L"atiadlxx") == std::wstring::npos)
        return g_load->Original<decltype(&LoadLibraryW)>()(path);
    g_asked = path;
    return LoadLibraryW((ProgramDirectory() + g_standIn).c_str());
}

// A library without the entry points the library needs is given up and unloaded again, not left in the host.
// First in the program: once a complete library has loaded, it stays and is never looked for again.
TEST(AdlLibrary, OneMissingEntryPointsIsUnloaded) {
    SimulatedMachine machine{MachineFile{"amd-radeon-desktop"}};
    ImportPatch load = Redirect("LoadLibraryW", &LoadStandIn);
    g_load = &load, g_standIn = L"\\igcl_stand_in.dll";  // a vendor library, but not AMD's
    void* out = nullptr;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u);
    EXPECT_EQ(out, nullptr);
    EXPECT_FALSE(g_asked.empty()) << "the AMD library was looked for";
    EXPECT_EQ(GetModuleHandleW(L"igcl_stand_in.dll"), nullptr) << "and freed again";
    g_standIn = L"\\atiadlxx.dll", g_asked.clear();
    ExpectNothingHeld();
}

class AdlTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_load = &load;
        void* out = nullptr;
        ASSERT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 1u);
        ASSERT_NE(context = static_cast<DisplayColorContext*>(out), nullptr);
        state = reinterpret_cast<AdlStandInState*>(GetProcAddress(GetModuleHandleW(L"atiadlxx.dll"), "g_state"));
        ASSERT_NE(state, nullptr);
        // The first mapped display of its own adapter; the library from the system directory.
        const DisplayColorContext expected{16, 1, 7, 5};
        EXPECT_EQ(std::memcmp(context, &expected, 16), 0);
        wchar_t system[MAX_PATH] = {};
        GetSystemDirectoryW(system, MAX_PATH);
        EXPECT_EQ(g_asked, std::wstring(system) + L"\\atiadlxx.dll");
        EXPECT_EQ(state->createFlags, 11) << "contexts are created enumerating adapters, thread-safe";
        EXPECT_EQ(state->contextsOpen, 0) << "every ADL context is destroyed";
        *state = AdlStandInState{.caps = 0x11, .valid = 0xFFFF, .range = {6500, 6500, 5000, 9000, 100}};
        pair = &context->adapterIndex;
    }
    void TearDown() override {
        if (state != nullptr) { EXPECT_EQ(state->contextsOpen, 0) << "every ADL context is destroyed"; }
        ExpectNothingHeld();
        torvex::test::FreeRecord(context);
    }

    SimulatedMachine machine{MachineFile{"amd-radeon-desktop"}};
    ImportPatch load = Redirect("LoadLibraryW", &LoadStandIn);
    DisplayColorContext* context = nullptr;
    AdlStandInState* state = nullptr;
    void* pair = nullptr;  // what the host passes: the adapter and display indices
};

TEST_F(AdlTest, QueriesNeedTheCapabilityAndTheRoom) {
    const struct {
        uint32_t code, size;
        int caps, valid, type;  // type: of the colour read (-1: refused; 0: the capabilities are the answer)
    } cases[] = {{0, 4, 0x13, 0x11, 0},   {0, 3, 0x13, 0x11, -1},  {2, 20, 0x11, 0xFF, 16}, {2, 19, 0x11, 0xFF, -1},
                 {2, 20, 0x01, 0xFF, -1}, {2, 20, 0x10, 0x01, -1}, {3, 20, 0x01, 0xFF, 1},  {3, 20, 0x10, 0xFF, -1},
                 {1, 20, 0xFF, 0xFF, -1}, {4, 20, 0xFF, 0xFF, -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "code " << c.code << " caps " << c.caps << " size " << c.size);
        state->caps = c.caps, state->valid = c.valid, state->lastGetType = 0;
        int buffer[6];
        std::memset(buffer, 0xEE, sizeof(buffer));
        uint32_t returned = 0xBAD;
        const uint32_t bytes = c.type < 0 ? 0 : c.type == 0 ? 4 : 20;
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, c.code, buffer, c.size, &returned), bytes ? 1u : 0u);
        EXPECT_EQ(returned, bytes != 0 ? bytes : 0xBADu);
        EXPECT_EQ(state->lastGetType, std::max(c.type, 0)) << "the colour type read";
        if (c.type == 0) { EXPECT_EQ(buffer[0], c.caps & c.valid); }
        if (c.type > 0) { EXPECT_EQ(std::memcmp(buffer, state->range, 20), 0); }
        EXPECT_EQ(buffer[bytes / 4], static_cast<int>(0xEEEEEEEE)) << "nothing written past the answer";
    }
    uint32_t caps = 0, returned = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, 0, &caps, 4, &returned), 0u) << "no pair, no answer";
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, 0, nullptr, 4, &returned), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, 0, &caps, 4, nullptr), 0u);
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
        *state = AdlStandInState{.caps = c.caps, .valid = 0xFF, .range = {6500, 6500, c.minimum, 9000, 100}};
        ColorTemperatureRequest request{c.level, c.range};
        uint32_t arg5 = 0xBAD;
        EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, c.code, &request, 8, &arg5, 0), c.applied ? 1u : 0u);
        // The request written back; sets, value and type applied; the temperature's source (64, user); contexts open.
        EXPECT_EQ((std::vector<int>{request.level, request.range, int(arg5), state->colorSets, state->lastSetValue,
                                    state->lastSetType, state->sourceSets, state->lastSource, state->contextsOpen}),
                  (std::vector<int>{c.writtenBack, c.range, 0xBAD, c.applied != 0, c.applied, c.type, c.type == 16,
                                    c.type == 16 ? 64 : 0, 0}));
    }
    ColorTemperatureRequest request{128, 0};
    uint32_t arg5 = 0;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &request, 8, nullptr, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, nullptr, 8, &arg5, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_TEMPERATURE, &request, 8, &arg5, 0), 0u);
    EXPECT_EQ(state->colorSets, 0);
}

}  // namespace
