// GPU information (class 6) over simulated machines (adapters from the Setup API, memory from
// DXGI, kinds and facts from WMI, the screen from user32), and the screen on Wine's own machine.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using namespace torvex::test;

namespace {

using Answer = std::optional<std::string>;

// The answer's bytes; nullopt when refused, and then nothing was written.
Answer Ask(void* list, int32_t code, uint32_t size = 200) {
    std::string buffer(size + 2, '\xEE');
    uint32_t written = 0xBAD;
    if (GpQueryInforamtion(list, code, buffer.data(), size, &written) == 0) {
        EXPECT_EQ(written, 0xBADu);
        EXPECT_EQ(buffer, std::string(size + 2, '\xEE')) << "buffer written on a refusal";
        return std::nullopt;
    }
    EXPECT_EQ(buffer.substr(written), std::string(size + 2 - written, '\xEE')) << "written past the answer";
    return buffer.substr(0, written);
}
Answer Text(const std::wstring& t) { return std::string(reinterpret_cast<const char*>(t.data()), t.size() * 2); }
Answer Number(uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }

const Answer no;
struct CodeRow {
    int32_t code;
    Answer laptop, odd;
};
// Every code on the two machines of tests/machines: a laptop with both kinds
// that answers every fact, and a desktop of odd adapters that answers little.
const std::vector<CodeRow> kCodes = {
    {0, Text(L"NVIDIA GeForce RTX 3050 Laptop GPU"), Text(L"Twin GPU")}, {1, Text(L"Degraded"), no},
    {2, Text(L"31.0.15.3179"), no}, {3, Text(L"20230517"), no},
    {4, Text(L"Intel(R) Iris(R) Xe Graphics"), Text(L"Bob's GPU")}, {5, Text(L"OK"), no},
    {6, Text(L"31.0.101.4255"), no}, {7, Text(L"20221231"), no /* a date of 7 characters */},
    {16, Text(L"SHP14D1"), Text(L"Generic PnP Monitor")},
    {17, Text(L"1920x1080"), no}, {18, no, no}, {19, Number(2), Number(4)}, {20, Number(4096), Number(0)},
    {21, Number(43), Number(0)}, {22, Number(128), Number(0)}, {23, Number(0), Number(22)},
    {24, Number(4096), Number(0)}, {25, Number(128), Number(0)}, {26, Number(1920), no},
    {27, Number(1080), Number(768)}, {28, Number(144), no}, {29, Number(32), no}, {30, no, no}, {-1, no, no}};

// The machine stays installed until the test has checked that the library holds nothing of it.
class GpuTest : public ::testing::Test {
protected:
    void TearDown() override { ExpectNothingHeld(); }
    ~GpuTest() override { torvex::test::FreeRecord(list); }
    // Per record: discrete, has a refresh rate, memory in MiB (then index and reserved).
    void ExpectList(std::vector<std::vector<uint32_t>> records) {
        void* out = nullptr;
        ASSERT_EQ(HalInit(HAL_CLASS_GPU, &out), 1u);
        ASSERT_NE(list = static_cast<GpuAdapterList*>(out), nullptr);
        ASSERT_EQ(list->size, 8 + 552 * records.size());
        ASSERT_EQ(list->count, records.size());
        for (uint32_t i = 0; i < records.size(); ++i) {
            const GpuAdapterRecord& r = list->records[i];
            records[i].insert(records[i].end(), {i, 0});
            EXPECT_EQ((std::vector<uint32_t>{r.isDiscrete, r.hasRefreshRate, r.dedicatedMemoryMiB, r.index,
                                             static_cast<uint32_t>(r.reserved)}),
                      records[i]) << i;
        }
    }
    std::optional<SimulatedMachine> machine;
    GpuAdapterList* list = nullptr;
};

TEST_F(GpuTest, ALaptopWithBothKinds) {
    machine.emplace(MachineFile{"hybrid-graphics-laptop"});
    ExpectList({{0, 1, 128}, {1, 0, 4096}});  // the non-PCI device is left out
    EXPECT_EQ(machine->Asked("setupapi").front(), "open {4D36E968-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT");
    EXPECT_EQ(machine->Asked("dxgi"), (std::vector<std::string>{"CreateDXGIFactory1", "adapter 0", "adapter 1"}));
    EXPECT_EQ(machine->Calls("library"), (std::vector<std::string>{"dxgi.dll -> loaded", "dxgi.dll -> freed"}));
    for (const CodeRow& row : kCodes) EXPECT_EQ(Ask(list, row.code), row.laptop) << row.code;
    for (int32_t code = 8; code < 16; ++code) EXPECT_EQ(Ask(list, code), Ask(list, code - 8)) << "8-15 repeat 0-7";
    EXPECT_EQ(Ask(list, HAL_GPU_RESOLUTION_TEXT, 19), no) << "room for a terminator is required";
    EXPECT_EQ(Ask(list, HAL_GPU_RESOLUTION_TEXT, 20), Text(L"1920x1080")) << "but it is never written";
    EXPECT_EQ(Ask(list, HAL_GPU_ADAPTER_COUNT, 3), no);
    uint32_t value = 0, written = 0xBAD;
    EXPECT_EQ(GpQueryInforamtion(nullptr, HAL_GPU_ADAPTER_COUNT, &value, 4, &written), 0u);
    EXPECT_EQ(GpQueryInforamtion(list, HAL_GPU_ADAPTER_COUNT, nullptr, 4, &written), 0u);
    EXPECT_EQ(GpQueryInforamtion(list, HAL_GPU_ADAPTER_COUNT, &value, 4, nullptr), 0u);
}

// The last adapter of each kind answers; each DXGI name serves one adapter.
TEST_F(GpuTest, AMachineOfOddAdapters) {
    machine.emplace(MachineFile{"odd-display-adapters"});
    ExpectList({{1, 0, 4096}, {0, 1, 0}, {1, 0, 0}, {0, 0, 0}});
    for (const CodeRow& row : kCodes) EXPECT_EQ(Ask(list, row.code), row.odd) << row.code;
}

TEST_F(GpuTest, WithoutSetupApiAdaptersTheSmallestDxgiNameIsTheList) {
    const auto adapter = [](const char* name, uint64_t mib) {
        return Json{{"description", name}, {"dedicated_video_memory_bytes", mib << 20}};
    };
    machine.emplace(Json{{"dxgi", {{"library", true}, {"adapters", {adapter("b", 2048), adapter("B", 1024)}}}}});
    ExpectList({{1, 0, 1024}});
    EXPECT_EQ(Ask(list, HAL_GPU_DISCRETE_NAME), Text(L"B"));
}

// Wine without a GPU: no PCI display adapter and DXGI fails, so there is no
// list (and *out stays as it was); the screen facts answer from user32.
TEST(GpuOnWine, ScreenFactsAgreeWithUser32) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_GPU, &out), 1u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(GpInit(nullptr), 0u);
    HalListHeader empty{8, 0};
    DEVMODEW mode{};
    mode.dmSize = sizeof(mode);
    ASSERT_TRUE(EnumDisplaySettingsW(nullptr, ENUM_CURRENT_SETTINGS, &mode));
    const int width = GetSystemMetrics(SM_CXSCREEN), height = GetSystemMetrics(SM_CYSCREEN);
    EXPECT_EQ(Ask(&empty, HAL_GPU_RESOLUTION_TEXT), Text(std::to_wstring(width) + L"x" + std::to_wstring(height)));
    const std::pair<int32_t, uint32_t> numbers[] = {
        {26, width}, {27, height}, {28, mode.dmDisplayFrequency}, {29, mode.dmBitsPerPel}, {19, 0}};
    for (const auto& [code, value] : numbers) EXPECT_EQ(Ask(&empty, code), Number(value)) << code;
    EXPECT_EQ(Ask(&empty, HAL_GPU_DISCRETE_NAME), no);
}

}  // namespace
