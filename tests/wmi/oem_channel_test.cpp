// The OEM firmware method channel against a fake firmware in both of its
// variants: one method takes "u64Input", the other only "u8Input".
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <thread>

#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakeWmi;

namespace {

const std::wstring kRootWmi = L"ROOT\\WMI";

uint64_t WordOf(const std::vector<uint8_t>& packet) {
    uint64_t word = 0;
    std::memcpy(&word, packet.data(), sizeof(word));
    return word;
}

// A firmware that records every packet and answers from a queue (then zeros).
class OemChannelTest : public ::testing::TestWithParam<FakeWmi::FirmwareInput> {
protected:
    void SetUp() override {
        wmi.SetFirmware(GetParam(), [this](const std::vector<uint8_t>& packet) {
            packets.push_back(packet);
            std::vector<uint8_t> answer(256, 0);
            if (!answers.empty()) {
                const auto& next = answers.front();
                std::copy(next.begin(), next.end(), answer.begin());
                answers.pop_front();
            }
            return answer;
        });
    }
    void TearDown() override {
        EXPECT_EQ(wmi.LiveObjects(), 0) << "a WMI object was left referenced";
        // Whatever happened, this process no longer holds the mutex. Other
        // test programs may hold it for a moment, hence the wait.
        HANDLE mutex = OpenMutexW(SYNCHRONIZE, FALSE, L"MutexWMI");
        if (mutex != nullptr) {
            std::thread other([mutex] {
                EXPECT_EQ(WaitForSingleObject(mutex, 10000), WAIT_OBJECT_0);
                ReleaseMutex(mutex);
            });
            other.join();
            CloseHandle(mutex);
        }
    }
    std::vector<uint64_t> Words() const {
        std::vector<uint64_t> words;
        for (const auto& packet : packets) words.push_back(WordOf(packet));
        return words;
    }

    FakeWmi wmi;
    std::vector<std::vector<uint8_t>> packets;
    std::deque<std::vector<uint8_t>> answers;
};

TEST_P(OemChannelTest, ACommandWordReachesTheFirmwareInItsOwnForm) {
    HalWmi channel(kRootWmi);
    answers.push_back({0, 0xAB, 0xCD, 0xEF, 0x12});
    unsigned char output[8];
    std::memset(output, 0xEE, sizeof(output));
    ASSERT_TRUE(channel.GetOutPutUInt(0x0C03, output, 4));
    EXPECT_EQ(std::vector<unsigned char>(output, output + 8),
              (std::vector<unsigned char>{0, 0xAB, 0xCD, 0xEF, 0xEE, 0xEE, 0xEE, 0xEE}))
        << "exactly the requested size is copied";

    const auto calls = wmi.MethodCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].objectPath, L"OemWMIMethod.InstanceName='ACPI\\PNP0C14\\ZWMI_0'");
    EXPECT_EQ(calls[0].method, L"OemWMIfun");
    EXPECT_EQ(calls[0].nameSpace, kRootWmi);
    if (GetParam() == FakeWmi::FirmwareInput::U64) {
        EXPECT_EQ(calls[0].u64Input, std::optional<std::wstring>(L"3075"));
        EXPECT_EQ(calls[0].u64CimType, std::optional<CIMTYPE>(CIM_UINT64));
        EXPECT_FALSE(calls[0].u8Input.has_value());
    } else {
        std::vector<uint8_t> expected(64, 0);
        expected[0] = 0x03;
        expected[1] = 0x0C;
        EXPECT_EQ(calls[0].u8Input, std::optional<std::vector<uint8_t>>(expected));
    }
}

TEST_P(OemChannelTest, SuperSaverWordFollowsTheCpuType) {
    struct Case {
        std::vector<uint8_t> typeAnswer;
        uint64_t expected;
    };
    const Case cases[] = {
        {{1, 5}, 0},                // status non-zero: unknown type, the all-zero word is still sent
        {{0, 0}, 0},                // type byte 0: unknown
        {{0, 1}, 0x07050F03},       // 1 to 10
        {{0, 10}, 0x07050F03},
        {{0, 11}, 0x21050F03},      // above 10
    };
    HalWmi channel(kRootWmi);
    for (const Case& c : cases) {
        packets.clear();
        answers = {c.typeAnswer, {0}};
        EXPECT_TRUE(channel.StartSuperSaver());
        EXPECT_EQ(Words(), (std::vector<uint64_t>{0x0C03, c.expected}));
    }
    answers = {{0, 11}, {3}};
    EXPECT_FALSE(channel.StartSuperSaver()) << "a non-zero status fails";
}

TEST_P(OemChannelTest, PowerLimitAndSuperSaverStop) {
    HalWmi channel(kRootWmi);
    float pl1 = -1.0f;
    answers = {{0, 28, 50}};
    ASSERT_TRUE(channel.GetPL1(pl1));
    EXPECT_FLOAT_EQ(pl1, 28.5f);
    answers = {{1, 99, 99}};
    EXPECT_FALSE(channel.GetPL1(pl1));
    EXPECT_FLOAT_EQ(pl1, 28.5f) << "value untouched on failure";

    answers = {{0}};
    EXPECT_TRUE(channel.StopSuperSaver());
    answers = {{2}};
    EXPECT_FALSE(channel.StopSuperSaver());
    EXPECT_EQ(Words(), (std::vector<uint64_t>{0x010C03, 0x010C03, 0x050F03, 0x050F03}));
}

TEST_P(OemChannelTest, ThermalDefaultsSendBothItemsAndInvertTheOutcome) {
    HalWmi channel(kRootWmi);
    answers = {{0}, {0}};
    EXPECT_FALSE(channel.SetOdvp0ToDefault()) << "both accepted: each reports true";
    EXPECT_EQ(Words(), (std::vector<uint64_t>{0x030F03, 0x0F03}));
    answers = {{1}, {1}};
    EXPECT_TRUE(channel.SetOdvp0ToDefault()) << "both refused by status";
    answers = {{1}, {0}};
    EXPECT_FALSE(channel.SetOdvp0ToDefault());
    wmi.FailMethod(WBEM_E_FAILED);
    EXPECT_FALSE(channel.SetOdvp0ToDefault()) << "calls that fail count as done";
}

TEST_P(OemChannelTest, TextPacketsUseTheEvenDigitsOfTheReversedText) {
    HalWmi channel(kRootWmi);
    unsigned char output[256];
    ASSERT_TRUE(channel.GetOutPutUIntByString("0x1234", output, sizeof(output)));
    ASSERT_EQ(packets.size(), 1u);
    std::vector<uint8_t> expected(64, 0);
    expected[0] = 0x44;
    expected[1] = 0x22;
    EXPECT_EQ(packets[0], expected);

    EXPECT_FALSE(channel.GetOutPutUIntByString("0x12G4", output, sizeof(output)));
    EXPECT_FALSE(channel.GetOutPutUIntByString("0x" + std::string(129, 'f'), output, sizeof(output)));
    EXPECT_EQ(packets.size(), 1u) << "refused texts reach no firmware";
    EXPECT_TRUE(channel.GetOutPutUIntByString("0x" + std::string(128, 'f'), output, sizeof(output)));
    // The number form carries the first 8 bytes only; the array form the whole packet.
    std::vector<uint8_t> full(64, 0xFF);
    if (GetParam() == FakeWmi::FirmwareInput::U64) std::fill(full.begin() + 8, full.end(), 0);
    EXPECT_EQ(packets.back(), full);
}

TEST_P(OemChannelTest, RefusalsLeaveTheOutputAndTheMutexAlone) {
    HalWmi channel(kRootWmi);
    unsigned char packet[64] = {3, 0x0C};
    unsigned char output[4] = {9, 9, 9, 9};
    EXPECT_FALSE(channel.GetOutPutUIntEx(nullptr, 64, output, 4));
    EXPECT_FALSE(channel.GetOutPutUIntEx(packet, 64, nullptr, 4));
    EXPECT_EQ(output[0], 9);
    EXPECT_TRUE(packets.empty());

    wmi.FailMethod(WBEM_E_FAILED);
    EXPECT_FALSE(channel.GetOutPutUIntEx(packet, 64, output, 4));
    EXPECT_EQ(output[0], 9);

    HalWmi wrongNamespace(L"ROOT\\CIMV2");
    EXPECT_FALSE(wrongNamespace.GetOutPutUIntEx(packet, 64, output, 4)) << "the method class lives in ROOT\\WMI";
}

TEST_P(OemChannelTest, AStringThatCannotBeAllocatedFailsTheCall) {
    torvex::test::BstrRefusal refusal;
    HalWmi channel(kRootWmi);
    // The answer's property name is the only string needed after the method ran.
    const std::pair<const wchar_t*, size_t> cases[] = {
        {L"ROOT\\WMI", 0}, {L"OemWMIMethod", 0}, {L"OemWMIfun", 0}, {L"3075", 0},
        {L"OemWMIMethod.InstanceName='ACPI\\PNP0C14\\ZWMI_0'", 0}, {L"u8Output", 1}};
    for (const auto& [refused, calls] : cases) {
        refusal.Refuse(refused);
        const size_t before = wmi.MethodCalls().size();
        unsigned char output[4] = {9, 9, 9, 9};
        EXPECT_FALSE(channel.GetOutPutUInt(0x0C03, output, 4)) << refused;
        EXPECT_EQ(output[0], 9) << refused;
        EXPECT_EQ(wmi.MethodCalls().size() - before, calls) << refused;
        EXPECT_EQ(wmi.LiveObjects(), 0) << refused;
    }
}

INSTANTIATE_TEST_SUITE_P(BothFirmwares, OemChannelTest,
                         ::testing::Values(FakeWmi::FirmwareInput::U64, FakeWmi::FirmwareInput::U8Array));

TEST(OemChannelLock, AHolderDelaysACallByTheWaitAndNoMore) {
    FakeWmi wmi;
    wmi.SetFirmware(FakeWmi::FirmwareInput::U64, [](const std::vector<uint8_t>&) { return std::vector<uint8_t>(256); });
    HANDLE held = CreateMutexW(nullptr, FALSE, L"MutexWMI");
    ASSERT_NE(held, nullptr);
    HANDLE taken = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread holder([&] {
        WaitForSingleObject(held, INFINITE);
        SetEvent(taken);
        WaitForSingleObject(done, INFINITE);
        ReleaseMutex(held);
    });
    WaitForSingleObject(taken, INFINITE);
    HalWmi channel(L"ROOT\\WMI");
    unsigned char output[256];
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(channel.GetOutPutUInt(0x0C03, output, sizeof(output)));
    const ULONGLONG waited = GetTickCount64() - start;
    SetEvent(done);
    holder.join();
    EXPECT_GE(waited, 4900u);
    EXPECT_LT(waited, 8000u);
    CloseHandle(done);
    CloseHandle(taken);
    CloseHandle(held);
}

}  // namespace
