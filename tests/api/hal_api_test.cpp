// The Hal API frame: exports, refusals by class, and the disk-record rules of
// open/read/write/close, checked on a real file handle.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "support/torvex_test.h"

namespace {

TEST(HalExports, EveryEntryPointByItsExactNameAndTheSharedTrivialOnes) {
    HMODULE dll = torvex::test::TorvexModule();
    for (const char* name : {"HalInit", "HalOpenDevice", "HalCloseDevice", "HalRead", "HalWrite", "HalQueryInformation",
                             "HalSetInformation", "HalControl", "HalSetCallback", "BtInit", "BtQueryInformation",
                             "BtSetInformation", "CpuInit", "CpuQueryInformation", "DeviceDriverInit",
                             "DeviceDriverQueryInformation", "GpInit", "GpQueryInforamtion", "GpSetInformation", "MbInit",
                             "MbQueryInformation", "MbSetInformation", "MmInit", "MmQueryInformation"})
        EXPECT_NE(GetProcAddress(dll, name), nullptr) << name;
    EXPECT_EQ(GetProcAddress(dll, "BtInit"), GetProcAddress(dll, "MbInit"));
    EXPECT_EQ(GetProcAddress(dll, "GpSetInformation"), GetProcAddress(dll, "MbSetInformation"));
    EXPECT_EQ(BtInit(), 1u);
    uint32_t value = 7, returned = 9;
    EXPECT_EQ(GpSetInformation(0, &value, sizeof(value), &returned), 0u);
    EXPECT_TRUE(value == 7 && returned == 9) << "nothing touched";
}

TEST(HalExports, TheDllImportsSystemLibrariesOnly) {
    auto* base = reinterpret_cast<BYTE*>(torvex::test::TorvexModule());
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const auto& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); desc->Name != 0; ++desc) {
        std::string name(reinterpret_cast<const char*>(base + desc->Name));
        for (auto& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        for (const char* runtime : {"libstdc++", "libgcc", "winpthread"}) EXPECT_EQ(name.find(runtime), std::string::npos) << name;
    }
}

TEST(HalFrame, ClassesWithoutARecordInitialiseWithoutOutAndTheOthersNeedIt) {
    void* out = &out;
    for (uint32_t type : {0u, 4u, 8u}) EXPECT_TRUE(HalInit(type, nullptr) == 1 && HalInit(type, &out) == 1) << type;
    EXPECT_EQ(out, &out);
    for (uint32_t type : {1u, 5u, 6u, 7u, 13u, 19u, 20u}) EXPECT_EQ(HalInit(type, nullptr), 0u) << type;
}

// Every export refuses every class it does not serve and touches none of its arguments.
TEST(HalFrame, EveryExportRefusesTheClassesItDoesNotServe) {
    struct Args {
        void* out = &out;
        char device[32], buffer[64];
        uint32_t offset[2] = {0, 0}, count = 77;
        Args() { std::memset(device, '#', 32), std::memset(buffer, '#', 64); }
        std::string Bytes() const { return std::string(device, 32) + std::string(buffer, 64); }
    };
    using Call = uint32_t (*)(uint32_t, Args&);
    const std::tuple<const char*, Call, std::set<uint32_t>> exports[] = {
        {"HalInit", [](uint32_t t, Args& a) { return HalInit(t, &a.out); }, {0, 1, 4, 5, 6, 7, 8, 13, 17, 19, 20}},
        {"HalOpenDevice", [](uint32_t t, Args& a) { return HalOpenDevice(t, a.device); }, {7}},
        {"HalCloseDevice", [](uint32_t t, Args& a) { return HalCloseDevice(t, a.device); }, {1, 5, 7}},
        {"HalRead", [](uint32_t t, Args& a) { return HalRead(t, a.device, a.offset, a.buffer, 64, &a.count); }, {7}},
        {"HalWrite", [](uint32_t t, Args& a) { return HalWrite(t, a.device, a.offset, a.buffer, 64, &a.count); }, {7}},
        {"HalQueryInformation", [](uint32_t t, Args& a) { return HalQueryInformation(t, a.device, 0, a.buffer, 64, &a.count); },
         {0, 1, 4, 5, 6, 7, 8, 13, 17, 19, 20}},
        {"HalSetInformation", [](uint32_t t, Args& a) { return HalSetInformation(t, a.device, 0, a.buffer, 64, &a.count, 0); },
         {1, 5, 8, 19}},
        {"HalControl", [](uint32_t t, Args& a) { return HalControl(t, a.device, 0, a.buffer, 8, a.buffer + 8, 8, &a.count); }, {17}},
        {"HalSetCallback", [](uint32_t t, Args& a) { return HalSetCallback(t, 1, a.device); }, {5}},
    };
    for (const auto& [name, call, served] : exports) {
        for (uint32_t type = 0; type <= 23; ++type) {
            const uint32_t selector = type == 22 ? 0x80000000u : type == 23 ? 0xFFFFFFFFu : type;
            if (served.count(selector) != 0) continue;
            Args args;
            EXPECT_EQ(call(selector, args), 0u) << name << " " << selector;
            EXPECT_TRUE(args.out == &args.out && args.count == 77 && args.Bytes() == std::string(96, '#'))
                << name << " touched an argument for " << selector;
        }
    }
}

TEST(HalFrame, NullDevicesAreRefused) {
    uint32_t value = 1, count = 77;
    EXPECT_EQ(HalOpenDevice(HAL_CLASS_DISK, nullptr), 0u);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, nullptr), 0u);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_WIFI, nullptr), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, nullptr, 0, &value, 4, &count, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, nullptr, 4, &value, 4, &count, 0), 0u);
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 1, nullptr), 0u);
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 0, nullptr), 0u);
    EXPECT_TRUE(value == 1 && count == 77) << "nothing touched";
}

// A disk record whose handle is a real temporary file holding A..Z, A..
class DiskRecordTest : public ::testing::Test {
protected:
    void SetUp() override {
        swprintf(path, MAX_PATH, L"tvx%lu.tmp", GetCurrentProcessId());
        file = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        DWORD written = 0;
        WriteFile(file, "ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKL", 64, &written, nullptr);
        record.handle = file;
    }
    void TearDown() override {
        if (record.handle != nullptr) CloseHandle(record.handle);
        DeleteFileW(path);
    }
    uint32_t Read(HalDiskOffset offset, char* buffer, uint32_t size, uint32_t* read) {
        return HalRead(HAL_CLASS_DISK, &record, reinterpret_cast<uint32_t*>(&offset), buffer, size, read);
    }

    wchar_t path[MAX_PATH] = {};
    HANDLE file = INVALID_HANDLE_VALUE;
    HalDiskRecord record{};
};

TEST_F(DiskRecordTest, ReadAndWriteSeekToTheOffsetButALowWordOfAllOnesFails) {
    char buffer[4] = {};
    uint32_t read = 0;
    ASSERT_EQ(Read({10, 0}, buffer, 4, &read), 1u);
    EXPECT_EQ(std::string(buffer, read), "KLMN");
    // 0xFFFFFFFF is a valid position in a file, reported as failure on purpose.
    EXPECT_EQ(Read({-1, 0}, buffer, 4, &read), 0u);
    HalDiskOffset allOnes{-1, 0}, start{0, 0};
    EXPECT_EQ(HalWrite(HAL_CLASS_DISK, &record, reinterpret_cast<uint32_t*>(&allOnes), "zz", 2, &read), 0u);
    EXPECT_EQ(HalWrite(HAL_CLASS_DISK, &record, reinterpret_cast<uint32_t*>(&start), "zz", 2, &read), 1u);
    EXPECT_EQ(Read({0, 0}, buffer, 4, &read), 1u);
    EXPECT_EQ(std::string(buffer, 4), "zzCD");
}

TEST_F(DiskRecordTest, ReadNeedsEveryPointerAndAnOpenRecord) {
    HalDiskOffset offset{0, 0};
    auto* position = reinterpret_cast<uint32_t*>(&offset);
    char buffer[4] = {'x', 'x', 'x', 'x'};
    uint32_t read = 55;
    EXPECT_EQ(HalRead(HAL_CLASS_DISK, nullptr, position, buffer, 4, &read), 0u);
    EXPECT_EQ(HalRead(HAL_CLASS_DISK, &record, nullptr, buffer, 4, &read), 0u);
    EXPECT_EQ(HalRead(HAL_CLASS_DISK, &record, position, nullptr, 4, &read), 0u);
    EXPECT_EQ(HalRead(HAL_CLASS_DISK, &record, position, buffer, 4, nullptr), 0u);
    HalDiskRecord closed{};
    EXPECT_EQ(HalRead(HAL_CLASS_DISK, &closed, position, buffer, 4, &read), 0u);
    EXPECT_EQ(HalWrite(HAL_CLASS_DISK, &closed, position, buffer, 4, &read), 0u);
    EXPECT_EQ(HalWrite(HAL_CLASS_DISK, nullptr, position, buffer, 4, &read), 0u);
    EXPECT_TRUE(std::string(buffer, 4) == "xxxx" && read == 55) << "nothing touched";
}

TEST_F(DiskRecordTest, WriteWithoutOffsetWritesAtTheCurrentPositionAndCloseClosesOnce) {
    SetFilePointer(file, 3, nullptr, FILE_BEGIN);
    uint32_t written = 0;
    ASSERT_EQ(HalWrite(HAL_CLASS_DISK, &record, nullptr, "12", 2, &written), 1u);
    EXPECT_EQ(written, 2u);
    char buffer[6] = {};
    ASSERT_EQ(Read({0, 0}, buffer, 6, &written), 1u);
    EXPECT_EQ(std::string(buffer, 6), "ABC12F");

    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &record), 1u);
    EXPECT_EQ(record.handle, nullptr);
    DWORD flags = 0;
    EXPECT_FALSE(GetHandleInformation(file, &flags)) << "the handle is closed";
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &record), 0u) << "nothing left to close";
}

}  // namespace
