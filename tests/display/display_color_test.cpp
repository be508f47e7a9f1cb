// Display colour (class 19): the colour arithmetic on its own, and the
// graphics-driver COM server back end end to end with brightness through
// redirected power functions.
#include <windows.h>
#include <powrprof.h>

#include <gtest/gtest.h>

#include <cstring>

#include "display/display_math.h"
#include "support/fake_com.h"
#include "support/fake_graphics.h"
#include "support/fake_setupapi.h"
#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using namespace torvex::display;
using torvex::test::ComClassRegistration;
using torvex::test::DebugCapture;
using torvex::test::FakeDevice;
using torvex::test::FakeDeviceTree;
using torvex::test::FakeWmi;
using torvex::test::FakeGfxServer;
using torvex::test::FakePower;
using torvex::test::SharedGfxServer;
using torvex::test::kGfxServerClass;
using torvex::test::kDisplayClass;
using torvex::test::ImportPatch;
using torvex::test::Redirect;

namespace {

TEST(DisplayMath, KelvinFromLevelRoundsDownToHundreds) {
    EXPECT_EQ(KelvinFromLevel(255, 0), 8000);
    EXPECT_EQ(KelvinFromLevel(0, 0), 5000);
    EXPECT_EQ(KelvinFromLevel(128, 0), 6500) << "6505 rounded down";
    EXPECT_EQ(KelvinFromLevel(255, 1), 6000);
    EXPECT_EQ(KelvinFromLevel(0, 7), 4000);
    EXPECT_EQ(KelvinFromLevel(100, 3), 4700) << "4000 + 2000 x 100 / 255 = 4784";
}

TEST(DisplayMath, RampsFromMatrices) {
    const Ramp linear = RampFromMatrix(WarmthMatrix(128, 0), false);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(linear[c * 256 + 0], 0);
        EXPECT_EQ(linear[c * 256 + 255], 65535);
        EXPECT_EQ(linear[c * 256 + 128], 32896) << "128/255 x 65535 = 32896.0";
    }
    const Ramp warm = RampFromMatrix(WarmthMatrix(255, 0), false);  // red and green lowered
    EXPECT_LT(warm[255], 65535);
    EXPECT_EQ(warm[255], warm[256 + 255]);
    EXPECT_EQ(warm[512 + 255], 65535);
    const Ramp cool = RampFromMatrix(WarmthMatrix(0, 0), false);  // blue lowered
    EXPECT_EQ(cool[255], 65535);
    EXPECT_EQ(cool[512 + 255], static_cast<uint16_t>(std::round((1.0 - 128 * 0.0078125 * 0.15) * 65535.0)));
    const Ramp cut = RampFromMatrix(WarmthMatrix(128, 255), false);
    EXPECT_EQ(cut[512 + 255], static_cast<uint16_t>(std::round(0.82f * 65535.0)));
    Matrix hot = Identity();
    hot[0][1] = 1.0;  // row sum 2: entries saturate
    EXPECT_EQ(RampFromMatrix(hot, false)[255], 65535);
    Matrix negative = Identity();
    negative[0][0] = -1.0;
    EXPECT_EQ(RampFromMatrix(negative, true)[255], 0) << "the AMD rounding floors negatives at 0";
}

TEST(DisplayMath, IntelGainAdjustmentsByMode) {
    const Gains neutral{1.0f, 1.0f, 1.0f};
    const Gains mode1 = AdjustGains(neutral, 1);
    EXPECT_FLOAT_EQ(mode1.green, 0.94f);
    EXPECT_FLOAT_EQ(mode1.blue, 0.96f);
    const Gains bright = AdjustGains({0.98f, 0.5f, 0.5f}, 1);
    EXPECT_FLOAT_EQ(bright.red, 0.98f);
    EXPECT_FLOAT_EQ(bright.green, 0.5f * 1.001f);
    EXPECT_FLOAT_EQ(bright.blue, 0.5f * 0.968f);
    const Gains dim = AdjustGains({0.95f, 0.5f, 0.5f}, 1);
    EXPECT_FLOAT_EQ(dim.red, 1.0f) << "0.95 x 1.087 reaches 1.0";
    EXPECT_FLOAT_EQ(dim.green, 0.5f * 0.978f);
    const Gains mode2 = AdjustGains({0.5f, 0.5f, 0.5f}, 2);
    EXPECT_FLOAT_EQ(mode2.red, 0.5f * 1.054f);
    EXPECT_FLOAT_EQ(mode2.green, 0.5f * 1.0107f);
    EXPECT_FLOAT_EQ(AdjustGains({0.5f, 0.5f, 0.5f}, 7).red, 0.5f);
}

// ------------------------------------------------- graphics-driver server

// The server back end is process-wide once chosen, so one test walks it.
TEST(DisplayColorServer, IntelAdapterUsesTheServerForRampsSettingsAndBrightness) {
    FakeDeviceTree tree;
    tree.Add(FakeDevice(kDisplayClass).Ids({L"PCI\\VEN_8086"}).Desc(L"Intel(R) UHD Graphics"));
    FakeWmi wmi;
    ImportPatch noDxgi = torvex::test::WithoutDxgi();
    FakeGfxServer& gfx = SharedGfxServer();
    ComClassRegistration server(kGfxServerClass, [](REFIID iid, void** out) { return SharedGfxServer().QueryInterface(iid, out); });
    FakePower power;

    void* out = reinterpret_cast<void*>(0x1234);
    ASSERT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 1u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234)) << "the server back end hands out no context";

    // Warmth 128 without blue cut: a linear ramp for display 42.
    WarmthRequest warmth{128, 0};
    uint32_t returned = 0;
    ASSERT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_WARMTH, &warmth, 8, &returned, 0), 1u);
    EXPECT_EQ(gfx.rampId, 42u);
    EXPECT_EQ(gfx.rampSize, 1536u);
    EXPECT_EQ(gfx.lastRamp, RampFromMatrix(WarmthMatrix(128, 0), false));
    EXPECT_EQ(gfx.lastName.rfind(L"\\\\.\\DISPLAY", 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_WARMTH, &warmth, 7, &returned, 0), 0u);

    ChannelGainRequest gains{1.0f, 0.5f, 1.0f, 255.0f, 0.0f};
    ASSERT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_CHANNEL_GAINS, &gains, 20, &returned, 0), 1u);
    EXPECT_EQ(gfx.lastRamp[255], 65535);
    EXPECT_EQ(gfx.lastRamp[256 + 255], 32768);
    EXPECT_EQ(gfx.lastRamp[512 + 255], 0) << "full level without strength removes blue";

    uint32_t settings[9] = {};
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_TEMPERATURE, settings, 36, &returned), 1u);
    EXPECT_EQ(returned, 36u);
    for (uint32_t i = 0; i < 9; ++i) EXPECT_EQ(settings[i], i);
    uint32_t header[2];
    std::memcpy(header, gfx.request, 8);
    EXPECT_EQ(header[0], 1u);
    EXPECT_EQ(header[1], 42u);
    EXPECT_EQ(gfx.request[88], 2);
    EXPECT_EQ(gfx.requestSize, 92u);

    // Brightness through the power scheme: AC, unknown (255) and DC.
    const std::pair<BYTE, uint32_t> sources[] = {{1, 70}, {255, 70}, {0, 30}};
    for (const auto& [acLine, expected] : sources) {
        power.acLine = acLine;
        BrightnessRange range{};
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_BRIGHTNESS, &range, 20, &returned), 1u);
        EXPECT_EQ(range.current, expected);
        EXPECT_EQ(range.maximum, 100u);
        EXPECT_EQ(returned, 20u);
    }
    BrightnessRange small{};
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_BRIGHTNESS, &small, 19, &returned), 0u);

    // The range is checked only for inputs shorter than 4 bytes.
    power.acLine = 1;
    uint32_t value = 150;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_BRIGHTNESS, &value, 4, &returned, 0), 1u);
    EXPECT_EQ(power.written, 150u);
    EXPECT_TRUE(power.wroteAc);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_BRIGHTNESS, &value, 2, &returned, 0), 0u);
    value = 80;
    power.acLine = 0;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_BRIGHTNESS, &value, 0, &returned, 0), 1u);
    EXPECT_TRUE(power.wroteDc);
    EXPECT_EQ(power.written, 80u);

    DebugCapture debug;
    power.setResult = 5;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_BRIGHTNESS, &value, 4, &returned, 0), 0u);
    EXPECT_EQ(debug.Messages(), std::vector<std::wstring>{L"[DpSetInformation] PowerSetActiveScheme Result:5"
                                                          L"(`anonymous-namespace'::SetLight)\n"});
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_COLOR_CAPS, settings, 4, &returned), 0u)
        << "capabilities are the AMD library's";
}

}  // namespace
