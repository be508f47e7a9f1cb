// Display colour on the Intel Graphics Control Library back end, against a
// stand-in library handed out for "ControlLib.dll". A program of its own: the
// back end, once chosen, stays for the process, so the tests run in order.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "display_intel/igcl_stand_in.h"
#include "support/fake_graphics.h"
#include "support/fake_setupapi.h"
#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::DebugCapture;
using torvex::test::FakeDevice;
using torvex::test::kDisplayClass;
using torvex::test::FakeDeviceTree;
using torvex::test::FakeWmi;
using torvex::test::ImportPatch;
using torvex::test::Redirect;

namespace {


ImportPatch* g_loadExOriginal = nullptr;
bool g_libraryPresent = true;
std::wstring g_requestedName;
DWORD g_requestedFlags = 0;


HMODULE WINAPI LoadControlLib(LPCWSTR name, HANDLE file, DWORD flags) {
    const auto original = g_loadExOriginal->Original<decltype(&LoadLibraryExW)>();
    if (std::wstring(name) != L"ControlLib.dll") return original(name, file, flags);
    g_requestedName = name;
    g_requestedFlags = flags;
    if (!g_libraryPresent) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    return original((torvex::test::ProgramDirectory() + L"\\igcl_stand_in.dll").c_str(), file, 0);
}

class IgclTest : public ::testing::Test {
protected:
    void SetUp() override {
        mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(IgclStandInState),
                                     IGCL_STAND_IN_MAPPING);
        ASSERT_NE(mapping, nullptr);
        state = static_cast<IgclStandInState*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
        ASSERT_NE(state, nullptr);
        *state = IgclStandInState{};
        state->deviceCount = 1;
        state->outputCount = 1;
        state->outputFlags[0] = 3;
        state->blockCount = 1;
        state->blockTypes[0] = 1;
        state->blockSamples[0] = 5;
        g_loadExOriginal = &loadEx;
        g_libraryPresent = true;
        tree.Add(FakeDevice(kDisplayClass).Ids({L"PCI\\VEN_8086&DEV_1"}).Desc(L"Intel(R) UHD Graphics"));
    }
    void TearDown() override {
        UnmapViewOfFile(state);
        CloseHandle(mapping);
    }

    // Every operation loads the library and frees it again.
    void ExpectLibraryFreed() {
        EXPECT_EQ(GetModuleHandleW(L"igcl_stand_in.dll"), nullptr);
        EXPECT_EQ(state->attaches, state->detaches);
    }
    uint32_t SetGains(uint32_t code, ChannelGainRequest request, uint32_t size, uint32_t mode) {
        return HalSetInformation(HAL_CLASS_DISPLAY, nullptr, code, &request, size, nullptr, mode);
    }

    HANDLE mapping = nullptr;
    IgclStandInState* state = nullptr;
    FakeDeviceTree tree;
    FakeWmi wmi;
    ImportPatch noDxgi = torvex::test::WithoutDxgi();
    ImportPatch loadEx = Redirect("LoadLibraryExW", &LoadControlLib);
};

// No graphics-driver server is registered, so an Intel adapter falls back to the library.
TEST_F(IgclTest, InitialisationNeedsTheLibraryToAcceptInit) {
    g_libraryPresent = false;
    void* out = nullptr;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u);
    EXPECT_EQ(g_requestedName, L"ControlLib.dll");
    EXPECT_EQ(g_requestedFlags, 0xA00u) << "application directory and System32";

    g_libraryPresent = true;
    state->initResult = 0x40000001;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u);
    EXPECT_EQ(state->closeCalls, 1) << "closed even when init failed";

    state->initResult = 0;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 1u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(state->initCalls, 2);
    EXPECT_EQ(state->initSize, 36u);
    EXPECT_EQ(state->initAppVersion, 0x10000u);
    EXPECT_EQ(state->closeCalls, 2);
    EXPECT_EQ(state->closedHandle, 0xA110u);
    ExpectLibraryFreed();

    uint32_t buffer[9] = {};
    uint32_t returned = 0;
    for (uint32_t code : {0u, 2u, 3u})
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, code, buffer, sizeof(buffer), &returned), 0u)
            << "the library answers no query, code " << code;
}

TEST_F(IgclTest, ChannelGainsWriteTheLastLutBlockOnEveryActiveAttachedDisplay) {
    state->outputCount = 3;
    state->outputFlags[0] = 3;
    state->outputFlags[1] = 1;  // active but not attached: skipped
    state->outputFlags[2] = 7;
    state->blockCount = 3;
    const uint32_t types[] = {1, 2, 1}, samples[] = {4, 9, 5};
    for (int b = 0; b < 3; ++b) state->blockTypes[b] = types[b], state->blockSamples[b] = samples[b];

    DebugCapture debug;
    ASSERT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, {0.5f, 0.8f, 1.0f, 255.0f, 0.5f}, 20, 0), 1u);
    EXPECT_TRUE(debug.Contains(L"Enter ctl_result_t SetGammaForAdl1(SetGammaForAdl)\n"));
    EXPECT_TRUE(debug.Contains(L"Enter pfnEnumerateDevices 0(SetGammaForAdl)\n"));
    EXPECT_TRUE(debug.Contains(L"Set ctlPixelTransformationSetConfig(SetGammaForAdl)\n"));

    EXPECT_EQ(state->propertyCalls, 3);
    EXPECT_EQ(state->propertySize, 200u);
    EXPECT_EQ(state->getSize, 272u);
    ASSERT_EQ(state->setCalls, 2) << "no restore on code 6";
    EXPECT_EQ(state->setDisplays[0], 0x1000u);
    EXPECT_EQ(state->setDisplays[1], 0x1002u);
    for (int call = 0; call < 2; ++call) {
        EXPECT_EQ(state->setSizes[call], 32u);
        EXPECT_EQ(state->setOperations[call], 2u);
        EXPECT_EQ(state->setBlockCounts[call], 1u);
        EXPECT_EQ(state->setBlockIds[call], 42u) << "the last one-dimensional LUT block";
    }
    ASSERT_EQ(state->lutChannels, 3u);
    ASSERT_EQ(state->lutSamples, 5u);
    // v = (1 - 0.5) x 255 / 255: blue is halved; channels are stored one after another.
    const double gains[3] = {0.5, static_cast<double>(0.8f), 0.5};
    for (int c = 0; c < 3; ++c)
        for (int k = 0; k < 5; ++k)
            EXPECT_DOUBLE_EQ(state->lutValues[c * 5 + k], k / 4.0 * gains[c]) << "channel " << c << " sample " << k;
    ExpectLibraryFreed();
}

TEST_F(IgclTest, WarmthAdjustsTheGainsByModeAndRestoresTheBlocksAsRead) {
    state->blockCount = 2;
    state->blockTypes[1] = 3;
    state->blockSamples[0] = 3;
    // Code 5 needs only 8 bytes of input; mode 1 turns neutral gains into (1.0, 0.94, 0.96).
    ASSERT_EQ(SetGains(HAL_DISPLAY_WARMTH, {1.0f, 1.0f, 1.0f, 0.0f, 0.0f}, 8, 1), 1u);
    ASSERT_EQ(state->setCalls, 2);
    EXPECT_EQ(state->setOperations[0], 2u);
    EXPECT_EQ(state->setOperations[1], 1u);
    EXPECT_EQ(state->setBlockCounts[1], 2u);
    EXPECT_EQ(state->setBlockIds[1], 40u) << "the restore hands back the blocks as read";
    const double gains[3] = {1.0, static_cast<double>(0.94f), static_cast<double>(0.96f)};
    for (int c = 0; c < 3; ++c) EXPECT_DOUBLE_EQ(state->lutValues[c * 3 + 2], gains[c]);
    EXPECT_DOUBLE_EQ(state->lutValues[1], 0.5);
    ExpectLibraryFreed();
}

TEST_F(IgclTest, LibraryFailuresAndShortInputsRefuse) {
    const ChannelGainRequest request{1.0f, 1.0f, 1.0f, 0.0f, 0.0f};

    state->blockCount = 0;  // no blocks
    EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 20, 0), 0u);
    EXPECT_EQ(state->setCalls, 0);
    state->blockCount = 1;
    state->blockTypes[0] = 2;  // blocks, but no one-dimensional LUT
    EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 20, 0), 0u);
    EXPECT_EQ(state->setCalls, 0);
    state->blockTypes[0] = 1;
    state->setResult = 0x4000000E;
    EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 20, 0), 0u);
    EXPECT_EQ(state->setCalls, 1);
    ExpectLibraryFreed();

    const int loads = state->attaches;
    EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 19, 0), 0u);
    EXPECT_EQ(SetGains(HAL_DISPLAY_WARMTH, request, 7, 0), 0u);
    EXPECT_EQ(SetGains(HAL_DISPLAY_TEMPERATURE, request, 20, 0), 0u);
    EXPECT_EQ(SetGains(HAL_DISPLAY_BRIGHTNESS, request, 20, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_CHANNEL_GAINS, nullptr, 20, nullptr, 0), 0u);
    EXPECT_EQ(state->attaches, loads) << "refused before the library is loaded";

    g_libraryPresent = false;
    DebugCapture debug;
    EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 20, 0), 0u);
    EXPECT_TRUE(debug.Contains(L"Enter hinstLib is NULL(SetGammaForAdl)\n"));
}

}  // namespace
