// Display colour on the Intel Graphics Control Library back end: an Intel laptop without the driver's server, its
// library replayed from the profile (tests/machines/intel-igcl-laptop.json). A program of its own: the back end,
// once chosen, stays; tests run in order.
#include <windows.h>

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using namespace torvex::test;

namespace {

using Strings = std::vector<std::string>;

class IgclTest : public ::testing::Test {
protected:
    void SetUp() override {
        // One device with one active, attached output whose one block is a 5-sample one-dimensional table.
        Igcl()["devices"] = {{{"outputs", {{{"flags", 3}, {"blocks", {Block(0, 1, 5)}}}}}}};
    }
    void TearDown() override { ExpectNothingHeld(); }  // every API handle closed, every library freed
    Json& Igcl() { return machine.profile.doc()["vendor"]["ControlLib.dll"]; }
    Json& Output(size_t o) { return Igcl()["devices"][0]["outputs"][o]; }
    static Json Block(uint32_t id, uint32_t type, uint32_t samples) {
        return {{"id", id}, {"type", type}, {"samples", samples}, {"channels", 1}};
    }
    uint32_t SetGains(uint32_t code, ChannelGainRequest request, uint32_t size, uint32_t mode) {
        machine.trace.Clear();
        return HalSetInformation(HAL_CLASS_DISPLAY, nullptr, code, &request, size, nullptr, mode);
    }
    // The last sample of each channel of an output's table: the gain applied to it.
    std::array<double, 3> Gains(size_t o = 0) {
        const Json& lut = Output(o)["lut"];
        const size_t n = lut["samples"];
        return {lut["values"][n - 1], lut["values"][2 * n - 1], lut["values"][3 * n - 1]};
    }
    Strings Calls(const char* start) {
        Strings calls;
        for (const std::string& call : machine.Calls("vendor"))
            if (call.rfind(start, 0) == 0) calls.push_back(call);
        return calls;
    }

    SimulatedMachine machine{MachineFile{"intel-igcl-laptop"}};
};

TEST_F(IgclTest, InitialisationNeedsTheLibraryToAcceptInit) {
    void* out = reinterpret_cast<void*>(0x1234);
    const Json library = Igcl();
    Igcl() = false;
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u);
    EXPECT_EQ(machine.Calls("com"), Strings{"graphics driver server [context 23, interface IUnknown] -> absent"})
        << "tried first";
    EXPECT_EQ(machine.Calls("library").back(), "ControlLib.dll [ControlLib.dll, flags 0xA00] -> absent")
        << "the application directory and System32";
    Igcl() = library;
    Igcl()["init"]["result"] = 0x40000001;
    machine.trace.Clear();
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 0u);
    EXPECT_EQ(machine.Calls("vendor"), (Strings{"ctlInit [size 36, application version 0x10000] -> error 0x40000001",
                                                "ctlClose -> a handle that is not open"}))
        << "closed even when init failed";
    Igcl()["init"] = Json::object();
    machine.trace.Clear();
    EXPECT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 1u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(machine.Calls("vendor"),
              (Strings{"ctlInit [size 36, application version 0x10000] -> initialised", "ctlClose -> closed"}));
    EXPECT_EQ(machine.Calls("library").back(), "ControlLib.dll -> freed");
    uint32_t buffer[9] = {}, returned = 0xBAD;
    for (uint32_t code : {0u, 2u, 3u})
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, code, buffer, 36, &returned), 0u) << code;
    EXPECT_EQ(returned, 0xBADu) << "the library answers no query";
}

TEST_F(IgclTest, ChannelGainsWriteTheLastLutBlockOfEveryActiveAttachedDisplay) {
    // The second output only active, not attached: skipped. Of the blocks, the last one-dimensional table.
    const Json blocks = {Block(40, 1, 4), Block(41, 2, 9), Block(42, 1, 5)};
    Igcl()["devices"][0]["outputs"] = {{{"flags", 3}, {"blocks", blocks}}, {{"flags", 1}, {"blocks", blocks}},
                                       {{"flags", 7}, {"blocks", blocks}}};
    DebugCapture debug;
    ASSERT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, {0.5f, 0.8f, 1.0f, 255.0f, 0.5f}, 20, 0), 1u);
    const std::wstring set = L"Set ctlPixelTransformationSetConfig(SetGammaForAdl)\n";
    EXPECT_EQ(debug.Messages(),
              (std::vector<std::wstring>{L"Enter ctl_result_t SetGammaForAdl1(SetGammaForAdl)\n",
                                         L"Enter pfnEnumerateDevices 0(SetGammaForAdl)\n", set, set}));
    EXPECT_EQ(Calls("ctlGetDisplayProperties"),
              (Strings{"ctlGetDisplayProperties output 0/0 [size 200] -> flags 3",
                       "ctlGetDisplayProperties output 0/1 [size 200] -> flags 1",
                       "ctlGetDisplayProperties output 0/2 [size 200] -> flags 7"}));
    EXPECT_EQ(Calls("ctlPixelTransformationGetConfig output 0/0"),
              (Strings{"ctlPixelTransformationGetConfig output 0/0 [size 272] -> 3 blocks",
                       "ctlPixelTransformationGetConfig output 0/0 [size 272] -> 3 blocks"}))
        << "the count, then the blocks";
    EXPECT_EQ(Calls("ctlPixelTransformationSetConfig"),
              (Strings{"ctlPixelTransformationSetConfig output 0/0 custom [size 32, blocks 1, first 42] -> set",
                       "ctlPixelTransformationSetConfig output 0/2 custom [size 32, blocks 1, first 42] -> set"}))
        << "no restore on code 6";
    EXPECT_FALSE(Output(1).contains("lut"));
    // v = (1 - 0.5) x 255 / 255: blue is halved; three channels of 5 samples, one after another.
    const double gains[3] = {0.5, static_cast<double>(0.8f), 0.5};
    for (size_t o : {0u, 2u}) {
        const Json& lut = Output(o)["lut"];
        ASSERT_EQ((std::vector<uint32_t>{lut["block"], lut["channels"], lut["samples"], uint32_t(lut["values"].size())}),
                  (std::vector<uint32_t>{42, 3, 5, 15}));
        for (int c = 0; c < 3; ++c)
            for (int k = 0; k < 5; ++k) EXPECT_DOUBLE_EQ(lut["values"][c * 5 + k].get<double>(), k / 4.0 * gains[c]) << c << k;
    }
}

// Code 5 (8 bytes suffice) restores the blocks as read afterwards; the mode adjusts the gains first.
TEST_F(IgclTest, ModesAdjustTheGainsAndWarmthRestoresTheBlocks) {
    Output(0)["blocks"] = {Block(40, 1, 5), Block(41, 3, 5)};
    ASSERT_EQ(SetGains(HAL_DISPLAY_WARMTH, {1.0f, 1.0f, 1.0f, 0.0f, 0.0f}, 8, 1), 1u);
    EXPECT_EQ(Calls("ctlPixelTransformationSetConfig"),
              (Strings{"ctlPixelTransformationSetConfig output 0/0 custom [size 32, blocks 1, first 40] -> set",
                       "ctlPixelTransformationSetConfig output 0/0 restore [size 32, blocks 2, first 40] -> set"}))
        << "custom, then a restore of the blocks as read";
    EXPECT_FALSE(Output(0).contains("lut")) << "restored";
    const struct {
        uint32_t mode;
        std::array<float, 3> in, out;
    } modes[] = {{1, {1.0f, 1.0f, 1.0f}, {1.0f, 0.94f, 0.96f}},
                 {1, {0.98f, 0.5f, 0.5f}, {0.98f, 0.5f * 1.001f, 0.5f * 0.968f}},
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
        Json blocks;
        uint32_t setResult;
        size_t sets;
    } failures[] = {{Json::array(), 0, 0}, {{Block(0, 2, 5)}, 0, 0}, {{Block(0, 1, 5)}, 0x4000000E, 1}};  // no blocks; no 1D LUT; the set fails
    for (const auto& f : failures) {
        Output(0) = {{"flags", 3}, {"blocks", f.blocks}, {"set_result", f.setResult}};
        EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 20, 0), 0u);
        EXPECT_EQ(Calls("ctlPixelTransformationSetConfig").size(), f.sets);
    }
    const std::pair<uint32_t, uint32_t> shortInputs[] = {{6, 19}, {5, 7}, {2, 20}, {3, 20}, {4, 20}};
    for (const auto& [code, size] : shortInputs) {
        EXPECT_EQ(SetGains(code, request, size, 0), 0u) << code;
        EXPECT_TRUE(machine.Asked("library").empty()) << "refused before the library is loaded";
    }
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_CHANNEL_GAINS, nullptr, 20, nullptr, 0), 0u);
    Igcl() = false;
    DebugCapture debug;
    EXPECT_EQ(SetGains(HAL_DISPLAY_CHANNEL_GAINS, request, 20, 0), 0u);
    EXPECT_EQ(debug.Messages(), (std::vector<std::wstring>{L"Enter ctl_result_t SetGammaForAdl1(SetGammaForAdl)\n",
                                                            L"Enter hinstLib is NULL(SetGammaForAdl)\n"}));
}

}  // namespace
