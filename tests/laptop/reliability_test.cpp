// Reliability over the Intel laptop's profile: the sweep over every export, 10,000 mixed calls on one thread and
// more on four that answer alike and leave nothing held, and two processes serialised on the firmware channel.
#include <windows.h>
#include <process.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <thread>

#include "support/simulated_machine.h"
#include "support/sweep.h"
#include "support/torvex_test.h"

// A handle of the program's own keeps "MutexWMI" in being, so that a holder the library forgot shows.
const HANDLE g_firmwareMutex = CreateMutexW(nullptr, FALSE, L"MutexWMI");

// True when another thread can take "MutexWMI" (within two seconds: other programs hold it briefly): no call left it held.
bool FirmwareMutexFree() {
    DWORD waited = WAIT_FAILED;
    std::thread([&] { if ((waited = WaitForSingleObject(g_firmwareMutex, 2000)) != WAIT_TIMEOUT) ReleaseMutex(g_firmwareMutex); }).join();
    return waited == WAIT_OBJECT_0;
}

namespace {

// Record-free questions (WMI, registry, power, battery device, firmware channel), then lists made, asked and freed.
const std::pair<uint32_t, uint32_t> kQuestions[] = {
    {HAL_CLASS_CPU, HAL_CPU_NAME}, {HAL_CLASS_CPU, HAL_CPU_L3_SIZE_KB}, {HAL_CLASS_CPU, HAL_CPU_OEM_VALUE},
    {HAL_CLASS_MAINBOARD, HAL_MB_SERIAL_NUMBER}, {HAL_CLASS_BATTERY, HAL_BT_DESIGNED_MWH},
    {HAL_CLASS_BATTERY, HAL_BT_DEVICE_NAME}, {HAL_CLASS_BATTERY, HAL_BT_OEM_READING},
    {HAL_CLASS_MEMORY, HAL_MM_PART_NUMBER}, {HAL_CLASS_DRIVER, HAL_DRIVER_STATUS}, {HAL_CLASS_WIFI, HAL_WIFI_RADIO_STATE},
    {HAL_CLASS_GPU, HAL_GPU_DISCRETE_NAME}, {HAL_CLASS_DISK, HAL_DISK_CAPACITY_MIB}, {HAL_CLASS_AUDIO, HAL_AUDIO_DESCRIPTION}};
constexpr int kKinds = static_cast<int>(std::size(kQuestions)), kRecordFree = 7, kOemReading = 6;

std::string MixedCall(int i) {
    const auto [type, code] = kQuestions[i % kKinds];
    void* record = nullptr;
    if (i % kKinds >= kRecordFree && (HalInit(type, &record) == 0 || record == nullptr)) return "<no list>";
    void* device = type == HAL_CLASS_WIFI || type == HAL_CLASS_GPU || !record ? record : static_cast<char*>(record) + 8;
    if (type == HAL_CLASS_DISK) HalOpenDevice(type, device);
    char buffer[300];
    uint32_t written = 0;
    const bool answered = HalQueryInformation(type, device, code, buffer, sizeof(buffer), &written) != 0;
    if (type == HAL_CLASS_WIFI || type == HAL_CLASS_DISK || type == HAL_CLASS_AUDIO) HalCloseDevice(type, device);
    torvex::test::FreeRecord(record);
    return answered ? std::string(buffer, written < sizeof(buffer) ? written : sizeof(buffer)) : "<none>";
}

// Runs body(t) for t = 0..3 on four threads at once, each in the multithreaded apartment.
void OnFourThreads(const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back([&, t] { CoInitializeEx(nullptr, COINIT_MULTITHREADED), body(t), CoUninitialize(); });
    for (auto& thread : threads) thread.join();
}

class LaptopReliability : public ::testing::Test {
protected:
    void TearDown() override {
        torvex::test::ExpectNothingHeld();
        EXPECT_TRUE(FirmwareMutexFree()) << "MutexWMI left held";
    }
    torvex::test::SimulatedMachine laptop{torvex::test::MachineFile{"intel-laptop"}};
};

TEST_F(LaptopReliability, SweepOverEveryExport) {
    torvex::test::SweepQueries();
    torvex::test::SweepOtherExports();
    torvex::test::SweepSets();
}

TEST_F(LaptopReliability, MixedCallsAnswerAlikeOnOneThreadAndOnFour) {
    std::vector<std::string> first;
    for (int i = 0; i < kKinds; ++i) first.push_back(MixedCall(i));  // also warms up what is made once per process
    for (int i = 0; i < kKinds; ++i) EXPECT_NE(first[i].substr(0, 1), "<") << "the laptop answers question " << i;
    const DWORD handles = torvex::test::OpenHandleCount();
    for (int i = 0; i < 10000; ++i)
        if (MixedCall(i) != first[i % kKinds]) FAIL() << "call " << i << " answered otherwise";
    torvex::test::ExpectNothingHeld();
    EXPECT_LE(torvex::test::OpenHandleCount(), handles + 4) << "handles grew from " << handles;
    std::vector<int> wrong(4);  // record-free questions only: lists belong to one thread
    OnFourThreads([&](int t) {
        for (int i = 0; i < 50 * kRecordFree; ++i) wrong[t] += MixedCall(i % kRecordFree) != first[i % kRecordFree];
    });
    EXPECT_EQ(wrong, std::vector<int>(4)) << "answers from four threads differ from one thread's";
}

// Who is inside the firmware channel, shared by both processes: a channel call sets its WMI blanket holding "MutexWMI".
struct Overlap {
    LONG inside, most;
};
Overlap* Shared() {
    static auto* view = static_cast<Overlap*>(MapViewOfFile(
        CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Overlap), L"TorvexOverlap"),
        FILE_MAP_ALL_ACCESS, 0, 0, 0));
    return view;
}
decltype(&CoSetProxyBlanket) g_blanket = nullptr;

HRESULT WINAPI CountedBlanket(IUnknown* proxy, DWORD authn, DWORD authz, OLECHAR* server, DWORD level,
                              DWORD impersonation, RPC_AUTH_IDENTITY_HANDLE identity, DWORD capabilities) {
    const LONG now = InterlockedIncrement(&Shared()->inside);
    for (LONG most = Shared()->most; now > most; most = Shared()->most) InterlockedCompareExchange(&Shared()->most, now, most);
    Sleep(2);
    InterlockedDecrement(&Shared()->inside);
    return g_blanket(proxy, authn, authz, server, level, impersonation, identity, capabilities);
}

// Four threads reading the OEM battery value (35.5) through the firmware channel, 25 times each.
void HammerFirmware() {
    auto patch = torvex::test::Redirect("CoSetProxyBlanket", &CountedBlanket);
    g_blanket = patch.Original<decltype(&CoSetProxyBlanket)>();
    OnFourThreads([](int) {
        for (int i = 0; i < 25; ++i) EXPECT_EQ(MixedCall(kOemReading), std::string("\0\0\x0e\x42", 4));
    });
}

// The second process: run only when the first one starts it.
TEST_F(LaptopReliability, DISABLED_SecondFirmwareProcess) { HammerFirmware(); }

TEST_F(LaptopReliability, TwoProcessesAreSerialisedOnTheFirmwareChannel) {
    ASSERT_NE(Shared(), nullptr);
    *Shared() = Overlap{};
    const intptr_t child = _spawnl(_P_NOWAIT, _pgmptr, "test_laptop", "--gtest_also_run_disabled_tests",
                                   "--gtest_filter=LaptopReliability.DISABLED_SecondFirmwareProcess", nullptr);
    ASSERT_NE(child, -1);
    HammerFirmware();
    int exitCode = 1;
    ASSERT_EQ(_cwait(&exitCode, child, 0), child);
    CloseHandle(reinterpret_cast<HANDLE>(child));
    EXPECT_EQ(exitCode, 0) << "the second process failed";
    EXPECT_EQ(Shared()->most, 1) << "two calls were inside the firmware channel at once";
}

}  // namespace
