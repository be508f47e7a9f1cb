// Repeated use on Wine's own machine: the answers stay the same and no handle
// is left behind.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/torvex_test.h"

namespace {

// One round of mixed calls over the classes Wine can answer; returns the
// answers so that rounds can be compared.
std::vector<std::string> MixedRound() {
    std::vector<std::string> answers;
    auto text = [&](uint32_t type, void* device, uint32_t code) {
        char buffer[256] = {};
        uint32_t written = 0;
        answers.push_back(HalQueryInformation(type, device, code, buffer, sizeof(buffer) - 1, &written)
                              ? std::string(buffer, written)
                              : "<none>");
    };
    auto number = [&](uint32_t type, void* device, uint32_t code) {
        uint64_t value = 0;
        uint32_t written = 0;
        answers.push_back(HalQueryInformation(type, device, code, &value, sizeof(value), &written)
                              ? std::to_string(value)
                              : "<none>");
    };
    text(HAL_CLASS_CPU, nullptr, HAL_CPU_NAME);
    number(HAL_CLASS_CPU, nullptr, HAL_CPU_CORES);
    text(HAL_CLASS_MAINBOARD, nullptr, HAL_MB_BIOS_VENDOR);
    number(HAL_CLASS_BATTERY, nullptr, HAL_BT_AC_LINE_STATUS);
    number(HAL_CLASS_DISK, nullptr, HAL_DISK_COUNT);
    void* record = nullptr;
    if (HalInit(HAL_CLASS_MEMORY, &record)) {
        number(HAL_CLASS_MEMORY, static_cast<uint8_t*>(record) + 8, HAL_MM_CAPACITY_MIB);
        std::free(record);
    }
    record = nullptr;
    if (HalInit(HAL_CLASS_WIFI, &record)) {
        answers.push_back(std::to_string(static_cast<HalWifiRecord*>(record)->count));
        HalCloseDevice(HAL_CLASS_WIFI, record);
        std::free(record);
    }
    HalDiskRecord disk{};
    if (HalOpenDevice(HAL_CLASS_DISK, &disk)) number(HAL_CLASS_DISK, &disk, HAL_DISK_CAPACITY_MIB);
    HalCloseDevice(HAL_CLASS_DISK, &disk);
    return answers;
}

TEST(Stability, RepeatedCallsLeaveNoHandleBehind) {
    const auto first = MixedRound();  // warms up what Wine creates once per process
    MixedRound();
    const DWORD before = torvex::test::OpenHandleCount();
    for (int round = 0; round < 200; ++round) ASSERT_EQ(MixedRound(), first) << "round " << round;
    EXPECT_LE(torvex::test::OpenHandleCount(), before + 4) << "handles grew from " << before;
}

}  // namespace
