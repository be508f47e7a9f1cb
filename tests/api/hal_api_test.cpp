// The Hal API frame: exports, refusals by class, and the disk-record rules of
// open/read/write/close, checked on a real file handle.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/torvex_test.h"

namespace {

const uint32_t kUnservedClasses[] = {2, 3, 9, 10, 11, 12, 14, 15, 16, 18, 21, 22, 100, 0x80000000u, 0xFFFFFFFFu};

TEST(HalExports, EveryEntryPointIsExportedByItsExactName) {
    const char* names[] = {"HalInit", "HalOpenDevice", "HalCloseDevice", "HalRead", "HalWrite",
                           "HalQueryInformation", "HalSetInformation", "HalControl", "HalSetCallback", "BtInit",
                           "BtQueryInformation", "BtSetInformation", "CpuInit", "CpuQueryInformation",
                           "DeviceDriverInit", "DeviceDriverQueryInformation", "GpInit", "GpQueryInforamtion",
                           "GpSetInformation", "MbInit", "MbQueryInformation", "MbSetInformation", "MmInit",
                           "MmQueryInformation"};
    for (const char* name : names)
        EXPECT_NE(GetProcAddress(torvex::test::TorvexModule(), name), nullptr) << name;
}

TEST(HalExports, BatteryAndGpuShareTheMainboardsTrivialEntryPoints) {
    HMODULE dll = torvex::test::TorvexModule();
    EXPECT_EQ(GetProcAddress(dll, "BtInit"), GetProcAddress(dll, "MbInit"));
    EXPECT_EQ(GetProcAddress(dll, "GpSetInformation"), GetProcAddress(dll, "MbSetInformation"));
    EXPECT_EQ(BtInit(), 1u);
    EXPECT_EQ(MbInit(), 1u);
    uint8_t buffer[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    uint32_t returned = 9;
    EXPECT_EQ(MbSetInformation(0, buffer, sizeof(buffer), &returned), 0u);
    EXPECT_EQ(GpSetInformation(0, buffer, sizeof(buffer), &returned), 0u);
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_EQ(returned, 9u);
}

TEST(HalExports, TheDllImportsSystemLibrariesOnly) {
    auto* base = reinterpret_cast<BYTE*>(torvex::test::TorvexModule());
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const auto& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); desc->Name != 0; ++desc) {
        std::string name(reinterpret_cast<const char*>(base + desc->Name));
        for (auto& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        EXPECT_EQ(name.find("libstdc++"), std::string::npos) << name;
        EXPECT_EQ(name.find("libgcc"), std::string::npos) << name;
        EXPECT_EQ(name.find("winpthread"), std::string::npos) << name;
    }
}

TEST(HalFrame, ClassesWithoutARecordInitialiseWithoutOut) {
    EXPECT_EQ(HalInit(HAL_CLASS_MAINBOARD, nullptr), 1u);
    EXPECT_EQ(HalInit(HAL_CLASS_BATTERY, nullptr), 1u);
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_MAINBOARD, &out), 1u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
}

TEST(HalFrame, ClassesWithARecordNeedOut) {
    for (uint32_t type : {1u, 5u, 6u, 7u, 13u, 19u, 20u}) EXPECT_EQ(HalInit(type, nullptr), 0u) << type;
}

TEST(HalFrame, EveryExportRefusesUnservedClassesAndTouchesNothing) {
    for (uint32_t type : kUnservedClasses) {
        void* out = reinterpret_cast<void*>(0x1234);
        uint8_t device[32];
        std::memset(device, 0xEE, sizeof(device));
        uint8_t buffer[64];
        std::memset(buffer, 0xEE, sizeof(buffer));
        uint32_t offset[2] = {0, 0};
        uint32_t count = 77;
        EXPECT_EQ(HalInit(type, &out), 0u) << type;
        EXPECT_EQ(HalOpenDevice(type, device), 0u) << type;
        EXPECT_EQ(HalCloseDevice(type, device), 0u) << type;
        EXPECT_EQ(HalRead(type, device, offset, buffer, sizeof(buffer), &count), 0u) << type;
        EXPECT_EQ(HalWrite(type, device, offset, buffer, sizeof(buffer), &count), 0u) << type;
        EXPECT_EQ(HalQueryInformation(type, device, 0, buffer, sizeof(buffer), &count), 0u) << type;
        EXPECT_EQ(HalSetInformation(type, device, 0, buffer, sizeof(buffer), &count, 0), 0u) << type;
        EXPECT_EQ(HalControl(type, device, 0, buffer, 8, buffer + 8, 8, &count), 0u) << type;
        EXPECT_EQ(HalSetCallback(type, 1, device), 0u) << type;
        EXPECT_EQ(out, reinterpret_cast<void*>(0x1234)) << type;
        EXPECT_EQ(count, 77u) << type;
        for (uint8_t byte : buffer) ASSERT_EQ(byte, 0xEE) << type;
        for (uint8_t byte : device) ASSERT_EQ(byte, 0xEE) << type;
    }
}

TEST(HalFrame, ExportsRefuseClassesTheyDoNotServe) {
    uint8_t device[16] = {};
    uint8_t buffer[16] = {};
    uint32_t offset[2] = {};
    uint32_t count = 0;
    for (uint32_t type : {0u, 1u, 4u, 5u, 6u, 8u, 13u, 17u, 19u, 20u}) {
        EXPECT_EQ(HalOpenDevice(type, device), 0u) << type;
        EXPECT_EQ(HalRead(type, device, offset, buffer, 4, &count), 0u) << type;
        EXPECT_EQ(HalWrite(type, device, offset, buffer, 4, &count), 0u) << type;
    }
    for (uint32_t type : {0u, 4u, 6u, 7u, 8u, 13u, 17u, 19u, 20u})
        EXPECT_EQ(HalSetCallback(type, 1, device), 0u) << type;
    for (uint32_t type : {0u, 1u, 4u, 5u, 6u, 7u, 8u, 13u, 19u, 20u})
        EXPECT_EQ(HalControl(type, device, 0, buffer, 4, buffer + 4, 4, &count), 0u) << type;
    for (uint32_t type : {0u, 4u, 6u, 7u, 13u, 17u, 20u})
        EXPECT_EQ(HalSetInformation(type, device, 0, buffer, 4, &count, 0), 0u) << type;
}

TEST(HalFrame, NullDevicesAreRefused) {
    uint32_t value = 1;
    uint32_t count = 0;
    EXPECT_EQ(HalOpenDevice(HAL_CLASS_DISK, nullptr), 0u);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, nullptr), 0u);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_WIFI, nullptr), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, nullptr, 0, &value, 4, &count, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, nullptr, 4, &value, 4, &count, 0), 0u);
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 1, nullptr), 0u);
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 0, nullptr), 0u);
}

TEST(HalFrame, EnclaveRefusesBeforeItIsLoaded) {
    uint8_t input[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    uint8_t output[64] = {};
    uint32_t returned = 0;
    EXPECT_EQ(HalControl(HAL_CLASS_ENCLAVE, nullptr, 0, input, 8, output, 64, &returned), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_ENCLAVE, nullptr, 0, input, 8, &returned), 0u);
    EXPECT_EQ(returned, 0u);
}

// A disk record whose handle is a real temporary file.
class DiskRecordTest : public ::testing::Test {
protected:
    void SetUp() override {
        wchar_t dir[MAX_PATH];
        GetTempPathW(MAX_PATH, dir);
        GetTempFileNameW(dir, L"tvx", 0, path);
        file = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                           nullptr);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        std::string content;
        for (int i = 0; i < 64; ++i) content += static_cast<char>('A' + i % 26);
        DWORD written = 0;
        WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr);
        record.handle = file;
        record.driveNumber = 0;
    }
    void TearDown() override {
        if (record.handle != nullptr) CloseHandle(record.handle);
        DeleteFileW(path);
    }

    wchar_t path[MAX_PATH] = {};
    HANDLE file = INVALID_HANDLE_VALUE;
    HalDiskRecord record{};
};

TEST_F(DiskRecordTest, ReadSeeksToTheOffsetAndWritesBackTheHighWord) {
    HalDiskOffset offset{10, 0};
    char buffer[4] = {};
    uint32_t read = 0;
    ASSERT_EQ(HalRead(HAL_CLASS_DISK, &record, reinterpret_cast<uint32_t*>(&offset), buffer, 4, &read), 1u);
    EXPECT_EQ(read, 4u);
    EXPECT_EQ(std::string(buffer, 4), "KLMN");
    EXPECT_EQ(offset.high, 0);
}

TEST_F(DiskRecordTest, ALowWordOfAllOnesFailsEvenWhenTheSeekSucceeds) {
    HalDiskOffset offset{-1, 0};  // 0xFFFFFFFF: a valid position in a file, reported as failure on purpose
    char buffer[4] = {};
    uint32_t read = 0;
    EXPECT_EQ(HalRead(HAL_CLASS_DISK, &record, reinterpret_cast<uint32_t*>(&offset), buffer, 4, &read), 0u);
    HalDiskOffset start{0, 0};
    EXPECT_EQ(HalWrite(HAL_CLASS_DISK, &record, reinterpret_cast<uint32_t*>(&offset), "zz", 2, &read), 0u);
    EXPECT_EQ(HalWrite(HAL_CLASS_DISK, &record, reinterpret_cast<uint32_t*>(&start), "zz", 2, &read), 1u);
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
    EXPECT_EQ(std::string(buffer, 4), "xxxx");
    EXPECT_EQ(read, 55u);
}

TEST_F(DiskRecordTest, WriteWithoutOffsetWritesAtTheCurrentPosition) {
    SetFilePointer(file, 3, nullptr, FILE_BEGIN);
    uint32_t written = 0;
    ASSERT_EQ(HalWrite(HAL_CLASS_DISK, &record, nullptr, "12", 2, &written), 1u);
    EXPECT_EQ(written, 2u);
    HalDiskOffset whole{0, 0};
    char buffer[6] = {};
    uint32_t read = 0;
    ASSERT_EQ(HalRead(HAL_CLASS_DISK, &record, reinterpret_cast<uint32_t*>(&whole), buffer, 6, &read), 1u);
    EXPECT_EQ(std::string(buffer, 6), "ABC12F");
}

TEST_F(DiskRecordTest, CloseClosesTheHandleOnceAndClearsTheRecord) {
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &record), 1u);
    EXPECT_EQ(record.handle, nullptr);
    DWORD flags = 0;
    EXPECT_FALSE(GetHandleInformation(file, &flags)) << "the handle is closed";
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &record), 0u) << "nothing left to close";
}

}  // namespace
