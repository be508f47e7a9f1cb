// Display colour on the Intel Graphics Control Library back end: an Intel laptop without the driver's server, and a
// stand-in handed out for "ControlLib.dll". A program of its own: the back end, once chosen, stays; tests run in order.
#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "display_intel/igcl_stand_in.h"
#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using namespace torvex::test;

namespace {

ImportPatch* g_loadEx = nullptr;
bool g_present = true;
std::pair<std::wstring, DWORD> g_asked;  // name and flags the library was loaded with

HMODULE WINAPI LoadControlLib(LPCWSTR name, HANDLE file, DWORD flags) {
    if (std::wstring(name) != L"ControlLib.dll")
        return g_loadEx->Original<decltype(&LoadLibraryExW)>()(name, file, flags);
    g_asked = {name, flags};
    if (!g_present) SetLastError(ERROR_MOD_NOT_FOUND);
    return g_present ? LoadLibraryW((ProgramDirectory() + L"\\igcl_stand_in.dll").c_str()) : nullptr;
}

class IgclTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_loadEx = &loadEx;
        g_present = true;
        ASSERT_NE(state, nullptr);
        *state = IgclStandInState{};
        state->deviceCount = state->outputCount = 1;
        state->outputFlags[0] = 3;  // active and attached
        state->blockCount = state->blockTypes[0] = 1;
        state->blockSamples[0] = 5;
    }
    void TearDown() override {
        EXPECT_EQ(state->attaches, state->detaches) << "every operation frees the library";
        ExpectNothingHeld();
        UnmapViewOfFile(state);
        CloseHandle(mapping);
    }
    uint32_t SetGains(uint32_t code, ChannelGainRequest request, uint32_t size, uint32_t mode) {
        return HalSetInformation(HAL_CLASS_DISPLAY, nullptr, code, &request, size, nullptr, mode);
    }
    std::array<double, 3> Gains() const {  // the last sample of each channel: the gain applied to it
        const uint32_t n = state->lutSamples;
        return {state->lutValues[n - 1], state->lutValues[2 * n - 1], state->lutValues[3 * n - 1]};
    }

    HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(IgclStandInState),
                                        IGCL_STAND_IN_MAPPING);
    IgclStandInState* state = static_cast<IgclStandInState*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
    SimulatedMachine machine{MachineFile{"hybrid-graphics-laptop"}};
    ImportPatch loadEx = Redirect("LoadLibraryExW", &LoadControlLib);
};

TEST_F(IgclTest, InitialisationNeedsTheLibraryToAcceptInit) {
    void* out = reinterpret_cast<void*>(0x1234);
    g_present = false;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u);
    EXPECT_EQ(g_asked, std::make_pair(std::wstring(L"ControlLib.dll"), DWORD{0xA00})) << "application dir, System32";
    EXPECT_EQ(machine.Asked("com").front(), "graphics driver server") << "tried first, absent under replay";
    g_present = true;
    state->initResult = 0x40000001;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u);
    EXPECT_EQ(state->closeCalls, 1) << "closed even when init failed";
    state->initResult = 0;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 1u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    EXPECT_EQ((std::vector<uint64_t>{uint64_t(state->initCalls), state->initSize, state->initAppVersion,
                                     uint64_t(state->closeCalls), state->closedHandle}),
              (std::vector<uint64_t>{2, 36, 0x10000, 2, 0xA110})) << "init record and the handle closed";
    uint32_t buffer[9] = {}, returned = 0xBAD;
    for (uint32_t code : {0u, 2u, 3u})
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, code, buffer, 36, &returned), 0u) << code;
    EXPECT_EQ(returned, 0xBADu) << "the library answers no query";
}

TEST_F(IgclTest, ChannelGainsWriteTheLastLutBlockOfEveryActiveAttachedDisplay) {
    state->outputCount = state->blockCount = 3;
    state->outputFlags[1] = 1, state->outputFlags[2] = 7;  // the second only active, not attached: skipped
    const uint32_t types[] = {1, 2, 1}, samples[] = {4, 9, 5};
    for (int b = 0; b < 3; ++b) state->blockTypes[b] = types[b], state->blockSamples[b] = samples[b];
    DebugCapture debug;
    ASSERT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, {0.5f, 0.8f, 1.0f, 255.0f, 0.5f}, 20, 0), 1u);
    const std::wstring set = L"Set ctlPixelTransformationSetConfig(SetGammaForAdl)\n";
    EXPECT_EQ(debug.Messages(),
              (std::vector<std::wstring>{L"Enter ctl_result_t SetGammaForAdl1(SetGammaForAdl)\n",
                                         L"Enter pfnEnumerateDevices 0(SetGammaForAdl)\n", set, set}));
    EXPECT_EQ((std::vector<uint32_t>{state->propertySize, state->getSize, state->lutChannels, state->lutSamples,
                                     uint32_t(state->propertyCalls)}),
              (std::vector<uint32_t>{200, 272, 3, 5, 3})) << "record sizes, the LUT of the last 1D block, displays";
    ASSERT_EQ(state->setCalls, 2) << "no restore on code 6";
    for (int call = 0; call < 2; ++call)
        EXPECT_EQ((std::vector<uint64_t>{state->setDisplays[call], state->setSizes[call], state->setOperations[call],
                                         state->setBlockCounts[call], state->setBlockIds[call]}),
                  (std::vector<uint64_t>{0x1000u + 2 * call, 32, 2, 1, 42})) << call;
    // v = (1 - 0.5) x 255 / 255: blue is halved; channels are stored one after another.
    const double gains[3] = {0.5, static_cast<double>(0.8f), 0.5};
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k < 5; ++k) EXPECT_DOUBLE_EQ(state->lutValues[c * 5 + k], k / 4.0 * gains[c]) << c << k;
}

// Code 5 (8 bytes suffice) restores the blocks as read afterwards; the mode adjusts the gains first.
TEST_F(IgclTest, ModesAdjustTheGainsAndWarmthRestoresTheBlocks) {
    state->blockCount = 2;
    state->blockTypes[1] = 3;
    ASSERT_EQ(SetGains(HAL_DISPLAY_WARMTH, {1.0f, 1.0f, 1.0f, 0.0f, 0.0f}, 8, 1), 1u);
    EXPECT_EQ((std::vector<uint32_t>{uint32_t(state->setCalls), state->setOperations[0], state->setOperations[1],
                                     state->setBlockCounts[1], state->setBlockIds[1]}),
              (std::vector<uint32_t>{2, 2, 1, 2, 40})) << "custom, then a restore of the blocks as read";
    EXPECT_EQ(Gains(), (std::array<double, 3>{1.0, 0.94f, 0.96f})) << "mode 1 on neutral gains";
    const struct {
        uint32_t mode;
        std::array<float, 3> in, out;
    } modes[] = {{1, {0.98f, 0.5f, 0.5f}, {0.98f, 0.5f * 1.001f, 0.5f * 0.968f}},
                 {1, {0.98f, 1.0f, 0.5f}, {0.98f, 1.0f, 0.5f * 0.968f}},
                 {1, {0.95f, 0.5f, 0.5f}, {1.0f, 0.5f * 0.978f, 0.5f}},
                 {1, {0.5f, 0.5f, 0.5f}, {0.5f * 1.087f, 0.5f * 0.978f, 0.5f}},
                 {2, {0.5f, 0.5f, 0.5f}, {0.5f * 1.054f, 0.5f * 1.0107f, 0.5f}},
                 {2, {0.95f, 0.99f, 0.5f}, {1.0f, 1.0f, 0.5f}},
                 {2, {0.97f, 0.5f, 0.5f}, {0.97f, 0.5f, 0.5f}}};
    for (const auto& m : modes) {
        ASSERT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, {m.in[0], m.in[1], m.in[2], 0.0f, 0.0f}, 20, m.mode), 1u);
        EXPECT_EQ(Gains(), (std::array<double, 3>{m.out[0], m.out[1], m.out[2]})) << m.mode << " " << m.in[0];
    }
}

TEST_F(IgclTest, LibraryFailuresAndShortInputsRefuse) {
    const ChannelGainRequest request{1.0f, 1.0f, 1.0f, 0.0f, 0.0f};
    const struct {
        uint32_t blockCount, blockType, setResult;
        int setCalls;
    } failures[] = {{0, 1, 0, 0}, {1, 2, 0, 0}, {1, 1, 0x4000000E, 1}};  // no blocks; no 1D LUT; the set fails
    for (const auto& f : failures) {
        state->blockCount = f.blockCount, state->blockTypes[0] = f.blockType, state->setResult = f.setResult;
        state->setCalls = 0;
        EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 20, 0), 0u);
        EXPECT_EQ(state->setCalls, f.setCalls);
    }
    const int loads = state->attaches;
    const std::pair<uint32_t, uint32_t> shortInputs[] = {{6, 19}, {5, 7}, {2, 20}, {3, 20}, {4, 20}};
    for (const auto& [code, size] : shortInputs) EXPECT_EQ(SetGains(code, request, size, 0), 0u) << code;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_CHANNEL_GAINS, nullptr, 20, nullptr, 0), 0u);
    EXPECT_EQ(state->attaches, loads) << "refused before the library is loaded";
    g_present = false;
    DebugCapture debug;
    EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 20, 0), 0u);
    EXPECT_EQ(debug.Messages(), (std::vector<std::wstring>{L"Enter ctl_result_t SetGammaForAdl1(SetGammaForAdl)\n",
                                                            L"Enter hinstLib is NULL(SetGammaForAdl)\n"}));
}

}  // namespace
