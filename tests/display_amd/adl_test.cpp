// Display colour on the AMD Display Library back end, against a stand-in
// atiadlxx.dll placed in the system directory. A program of its own: the
// back end, once chosen, stays for the process.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/fake_graphics.h"
#include "support/fake_setupapi.h"
#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakeDevice;
using torvex::test::kDisplayClass;
using torvex::test::FakeDeviceTree;
using torvex::test::FakeWmi;
using torvex::test::ImportPatch;

namespace {

struct AdlStandInState {
    int caps;
    int valid;
    int range[5];
    int colorSets;
    int lastSetType;
    int lastSetValue;
    int sourceSets;
    int lastSource;
    int contextsOpen;
};



std::wstring SystemCopy() {
    wchar_t directory[MAX_PATH] = {};
    GetSystemDirectoryW(directory, MAX_PATH);
    return std::wstring(directory) + L"\\atiadlxx.dll";
}

class AdlTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(CopyFileW((torvex::test::ProgramDirectory() + L"\\atiadlxx.dll").c_str(), SystemCopy().c_str(),
                              FALSE));
    }
    static void TearDownTestSuite() { DeleteFileW(SystemCopy().c_str()); }

    void SetUp() override {
        tree.Add(FakeDevice(kDisplayClass).Ids({L"PCI\\VEN_8086"}).Desc(L"Some Display"));
        tree.Add(FakeDevice(kDisplayClass).Ids({L"PCI\\VEN_1002"}).Desc(L"AMD Radeon(TM) Graphics"));
        tree.Add(FakeDevice(kDisplayClass).Ids({L"PCI\\VEN_8086&DEV_1"}).Desc(L"Intel(R) UHD Graphics"));
    }
    AdlStandInState* State() {
        auto get = reinterpret_cast<AdlStandInState* (*)()>(
            reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"atiadlxx.dll"), "AdlStandIn")));
        return get != nullptr ? get() : nullptr;
    }

    FakeDeviceTree tree;
    FakeWmi wmi;
    ImportPatch noDxgi = torvex::test::WithoutDxgi();
};

TEST_F(AdlTest, TheFirstAmdAdapterChoosesTheLibraryAndItsMappedDisplay) {
    void* out = nullptr;
    ASSERT_EQ(HalInit(HAL_CLASS_DISPLAY, &out), 1u);
    auto* context = static_cast<DisplayColorContext*>(out);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(context->size, 16u);
    EXPECT_EQ(context->count, 1u);
    EXPECT_EQ(context->adapterIndex, 7);
    EXPECT_EQ(context->displayIndex, 5);
    AdlStandInState* state = State();
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->contextsOpen, 0) << "every ADL context is destroyed";
    void* pair = &context->adapterIndex;

    uint32_t caps = 0;
    uint32_t returned = 0;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_COLOR_CAPS, &caps, 4, &returned), 1u);
    EXPECT_EQ(caps, 0x11u);
    ColorRange range{};
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &range, 20, &returned), 1u);
    EXPECT_EQ(range.maximum, 9000);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &range, 19, &returned), 0u);

    // Kelvin from the level, written back; the upper clamp is the range's constant.
    struct Case {
        int32_t level, rangeSelector, minimum;
        int32_t writtenBack, applied;
    };
    const Case cases[] = {{128, 0, 5000, 6500, 6500}, {255, 0, 5000, 8000, 8000}, {0, 0, 5600, 5000, 5600},
                          {300, 0, 5000, 8500, 8000}, {255, 1, 3000, 6000, 6000}};
    for (const Case& c : cases) {
        state->range[2] = c.minimum;
        ColorTemperatureRequest request{c.level, c.rangeSelector};
        uint32_t arg5 = 0;
        ASSERT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &request, 8, &arg5, 0), 1u);
        EXPECT_EQ(request.level, c.writtenBack);
        EXPECT_EQ(state->lastSetValue, c.applied);
        EXPECT_EQ(state->lastSetType, 16);
        EXPECT_EQ(state->lastSource, 64);
    }
    state->range[2] = 5000;

    const int sources = state->sourceSets;
    ColorTemperatureRequest brightness{255, 0};
    uint32_t arg5 = 0;
    ASSERT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_BRIGHTNESS, &brightness, 8, &arg5, 0), 1u);
    EXPECT_EQ(state->lastSetType, 1) << "brightness runs the same computation on colour type 1";
    EXPECT_EQ(state->sourceSets, sources) << "only the temperature sets the source";

    ColorTemperatureRequest warmth{0, 0};
    ASSERT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_WARMTH, &warmth, 8, &arg5, 0), 1u);
    EXPECT_EQ(state->lastSetType, 16) << "code 5 is code 2 here";
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &warmth, 8, nullptr, 0), 0u);

    state->caps = 0x01;  // no temperature capability
    const int sets = state->colorSets;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &warmth, 8, &arg5, 0), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, pair, HAL_DISPLAY_TEMPERATURE, &range, 20, &returned), 0u);
    EXPECT_EQ(state->colorSets, sets);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_COLOR_CAPS, &caps, 4, &returned), 0u)
        << "the library needs the pair";
    EXPECT_EQ(state->contextsOpen, 0);
    std::free(context);
}

}  // namespace
