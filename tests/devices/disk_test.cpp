// Physical disks (class 7): a fake drive and its volumes behind the file and
// IOCTL imports, drive names from the fake WMI, and Wine's own drive 0.
#include <windows.h>
#include <winioctl.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakeWmi;
using torvex::test::ImportPatch;
using torvex::test::Redirect;
using torvex::test::WmiRow;
using torvex::test::WmiValue;

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";

struct FakeVolume {
    bool opens = true;
    DWORD deviceType = 7;
    DWORD deviceNumber = 0;
    BOOL ioctlResult = TRUE;
    uint64_t freeBytes = 0;
};

// One fake machine: the physical drive handle and the lettered volumes.
struct FakeMachine {
    std::map<std::wstring, HANDLE> drives;  // path -> handle
    DWORD openAccess = 99, openShare = 99, openDisposition = 99, openFlags = 99;
    DISK_GEOMETRY geometry{};
    BOOL geometryResult = TRUE;
    DEVICE_TRIM_DESCRIPTOR trim{};
    DWORD trimReturned = 12;
    BOOL trimResult = TRUE;
    STORAGE_PROPERTY_QUERY trimQuery{};
    int trimCalls = 0;
    std::map<char, FakeVolume> volumes;
    std::vector<std::string> freeSpaceRoots;
    int openHandles = 0;
    int invalidCloses = 0;
};
FakeMachine* g_machine = nullptr;

constexpr uintptr_t kDriveBase = 0xD15C0000;
constexpr uintptr_t kVolumeBase = 0xB01E0000;
ImportPatch* g_closePatch = nullptr;
ImportPatch* g_ioctlPatch = nullptr;

bool IsDrive(HANDLE h) { return reinterpret_cast<uintptr_t>(h) >= kDriveBase && reinterpret_cast<uintptr_t>(h) < kDriveBase + 16; }
bool IsVolume(HANDLE h) {
    return reinterpret_cast<uintptr_t>(h) >= kVolumeBase + 'A' && reinterpret_cast<uintptr_t>(h) <= kVolumeBase + 'Z';
}

HANDLE WINAPI FakeCreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition,
                              DWORD flags, HANDLE) {
    g_machine->openAccess = access;
    g_machine->openShare = share;
    g_machine->openDisposition = disposition;
    g_machine->openFlags = flags;
    auto it = g_machine->drives.find(path);
    if (it == g_machine->drives.end()) return INVALID_HANDLE_VALUE;
    ++g_machine->openHandles;
    return it->second;
}

HANDLE WINAPI FakeCreateFileA(LPCSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition,
                              DWORD flags, HANDLE) {
    const std::string text(path);
    if (text.size() != 6 || text.compare(0, 4, "\\\\.\\") != 0 || text[5] != ':' || access != 0 || share != 3 ||
        disposition != OPEN_EXISTING || flags != 0)
        return INVALID_HANDLE_VALUE;
    auto it = g_machine->volumes.find(text[4]);
    if (it == g_machine->volumes.end() || !it->second.opens) return INVALID_HANDLE_VALUE;
    ++g_machine->openHandles;
    return reinterpret_cast<HANDLE>(kVolumeBase + static_cast<unsigned char>(text[4]));
}

BOOL WINAPI FakeCloseHandle(HANDLE h) {
    if (h == INVALID_HANDLE_VALUE) {
        ++g_machine->invalidCloses;
        return TRUE;
    }
    if (IsDrive(h) || IsVolume(h)) {
        --g_machine->openHandles;
        return TRUE;
    }
    return g_closePatch->Original<BOOL(WINAPI*)(HANDLE)>()(h);
}

BOOL WINAPI FakeDeviceIoControl(HANDLE h, DWORD code, LPVOID in, DWORD inSize, LPVOID out, DWORD outSize,
                                LPDWORD returned, LPOVERLAPPED overlapped) {
    if (IsVolume(h) && code == IOCTL_STORAGE_GET_DEVICE_NUMBER && outSize >= sizeof(STORAGE_DEVICE_NUMBER)) {
        const FakeVolume& volume = g_machine->volumes[static_cast<char>(reinterpret_cast<uintptr_t>(h) - kVolumeBase)];
        STORAGE_DEVICE_NUMBER number{volume.deviceType, volume.deviceNumber, 1};
        std::memcpy(out, &number, sizeof(number));
        if (returned != nullptr) *returned = sizeof(number);
        return volume.ioctlResult;
    }
    if (IsDrive(h) && code == IOCTL_DISK_GET_DRIVE_GEOMETRY && outSize >= sizeof(DISK_GEOMETRY)) {
        if (!g_machine->geometryResult) return FALSE;
        std::memcpy(out, &g_machine->geometry, sizeof(DISK_GEOMETRY));
        *returned = sizeof(DISK_GEOMETRY);
        return g_machine->geometryResult;
    }
    if (IsDrive(h) && code == IOCTL_STORAGE_QUERY_PROPERTY && inSize == 12 && outSize == 12) {
        ++g_machine->trimCalls;
        std::memcpy(&g_machine->trimQuery, in, sizeof(g_machine->trimQuery));
        if (!g_machine->trimResult) return FALSE;
        std::memcpy(out, &g_machine->trim, sizeof(g_machine->trim));
        *returned = g_machine->trimReturned;
        return TRUE;
    }
    if (IsDrive(h) || IsVolume(h)) return FALSE;
    return g_ioctlPatch->Original<decltype(&DeviceIoControl)>()(h, code, in, inSize, out, outSize, returned,
                                                                  overlapped);
}

BOOL WINAPI FakeGetDiskFreeSpaceExA(LPCSTR root, PULARGE_INTEGER available, PULARGE_INTEGER total,
                                    PULARGE_INTEGER totalFree) {
    g_machine->freeSpaceRoots.emplace_back(root);
    auto it = g_machine->volumes.find(root[0]);
    if (it == g_machine->volumes.end()) return FALSE;
    available->QuadPart = 1;  // the caller's quota is not what is reported
    total->QuadPart = it->second.freeBytes * 2;
    totalFree->QuadPart = it->second.freeBytes;
    return TRUE;
}

class DiskTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_machine = &machine;
        g_closePatch = &closeHandle;
        g_ioctlPatch = &ioctl;
        machine.drives[L"\\\\.\\PHYSICALDRIVE0"] = reinterpret_cast<HANDLE>(kDriveBase);
        machine.geometry.Cylinders.QuadPart = 1000;
        machine.geometry.TracksPerCylinder = 255;
        machine.geometry.SectorsPerTrack = 63;
        machine.geometry.BytesPerSector = 512;  // 8,225,280,000 bytes
        record.driveNumber = 0;
    }
    void TearDown() override {
        if (record.handle != nullptr) HalCloseDevice(HAL_CLASS_DISK, &record);
        EXPECT_EQ(machine.openHandles, 0) << "a drive or volume handle was left open";
        EXPECT_EQ(wmi.LiveObjects(), 0);
        g_machine = nullptr;
    }
    void Names(std::vector<std::wstring> names) {
        std::vector<WmiRow> rows;
        for (const auto& name : names) rows.push_back({{L"Name", WmiValue::Str(name)}});
        wmi.On(kCimv2, L"SELECT Name FROM Win32_DiskDrive", rows);
    }
    uint64_t Query64(uint32_t code, uint32_t* result = nullptr) {
        uint64_t value = 0xEEEEEEEEEEEEEEEEull;
        uint32_t written = 0;
        const uint32_t r = HalQueryInformation(HAL_CLASS_DISK, &record, code, &value, 8, &written);
        if (result != nullptr) *result = r;
        if (r != 0) EXPECT_EQ(written, 8u);
        return value;
    }

    FakeMachine machine;
    FakeWmi wmi;
    HalDiskRecord record{};
    ImportPatch createW = Redirect("CreateFileW", &FakeCreateFileW);
    ImportPatch createA = Redirect("CreateFileA", &FakeCreateFileA);
    ImportPatch closeHandle = Redirect("CloseHandle", &FakeCloseHandle);
    ImportPatch ioctl = Redirect("DeviceIoControl", &FakeDeviceIoControl);
    ImportPatch freeSpace = Redirect("GetDiskFreeSpaceExA", &FakeGetDiskFreeSpaceExA);
};

TEST_F(DiskTest, TheListHoldsDenseDriveNumbersWhateverTheNames) {
    for (size_t count : {1u, 2u, 5u}) {
        Names(std::vector<std::wstring>(count, L"\\\\.\\PHYSICALDRIVE7"));
        void* out = nullptr;
        ASSERT_EQ(HalInit(HAL_CLASS_DISK, &out), 1u);
        auto* list = static_cast<HalDiskList*>(out);
        EXPECT_EQ(list->size, 8 + 16 * count);
        EXPECT_EQ(list->count, count);
        for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(list->records[i].driveNumber, i);
        std::free(list);
    }
    Names({});
    void* untouched = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_DISK, &untouched), 0u);
    EXPECT_EQ(untouched, reinterpret_cast<void*>(0x1234));
}

TEST_F(DiskTest, DriveCountSegmentsTheJoinedNames) {
    const std::pair<std::vector<std::wstring>, uint32_t> cases[] = {
        {{}, 0}, {{L"A"}, 1}, {{L"A", L"B"}, 2}, {{L"A", L"B;"}, 2}, {{L"A", L"", L"B"}, 3}, {{L";"}, 1},
        {{L""}, 0},
    };
    for (const auto& [names, count] : cases) {
        Names(names);
        uint32_t value = 77;
        uint32_t written = 0;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, nullptr, HAL_DISK_COUNT, &value, 4, &written),
                  count != 0 ? 1u : 0u);
        EXPECT_EQ(value, count != 0 ? count : 77u);
    }
}

TEST_F(DiskTest, OpenAsksForAQueryHandleAndKeepsEvenAnInvalidOne) {
    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &record), 1u);
    EXPECT_EQ(record.handle, reinterpret_cast<HANDLE>(kDriveBase));
    EXPECT_EQ(machine.openAccess, 0u);
    EXPECT_EQ(machine.openShare, static_cast<DWORD>(FILE_SHARE_READ | FILE_SHARE_WRITE));
    EXPECT_EQ(machine.openDisposition, static_cast<DWORD>(OPEN_EXISTING));
    EXPECT_EQ(machine.openFlags, static_cast<DWORD>(FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &record), 1u);

    HalDiskRecord missing{};
    missing.driveNumber = 9;
    EXPECT_EQ(HalOpenDevice(HAL_CLASS_DISK, &missing), 0u);
    EXPECT_EQ(missing.handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &missing), 1u);
    EXPECT_EQ(machine.invalidCloses, 1);
    EXPECT_EQ(missing.handle, nullptr);
}

TEST_F(DiskTest, CapacityInThreeUnits) {
    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &record), 1u);
    EXPECT_EQ(Query64(HAL_DISK_CAPACITY_MIB), 7844u);
    EXPECT_EQ(Query64(HAL_DISK_CAPACITY_GB), 8u);
    EXPECT_EQ(Query64(HAL_DISK_CAPACITY_MB), 8225u);
}

TEST_F(DiskTest, ImplausibleGeometriesReportZeroBytes) {
    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &record), 1u);
    struct Geometry {
        int64_t cylinders;
        DWORD tracks, sectors, bytes;
    };
    const Geometry cases[] = {{0, 255, 63, 512}, {-5, 255, 63, 512}, {1000, 0, 63, 512},
                              {1000, 255, 63, 0}, {INT64_MAX / 100, 255, 63, 512}};
    for (const Geometry& g : cases) {
        machine.geometry.Cylinders.QuadPart = g.cylinders;
        machine.geometry.TracksPerCylinder = g.tracks;
        machine.geometry.SectorsPerTrack = g.sectors;
        machine.geometry.BytesPerSector = g.bytes;
        uint32_t result = 0;
        EXPECT_EQ(Query64(HAL_DISK_CAPACITY_MB, &result), 0u) << g.cylinders;
        EXPECT_EQ(result, 1u);
    }
}

TEST_F(DiskTest, CapacityRefusals) {
    uint64_t value = 5;
    uint32_t written = 9;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_CAPACITY_MIB, &value, 8, &written), 0u)
        << "record never opened";
    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &record), 1u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_CAPACITY_MIB, &value, 7, &written), 0u);
    machine.geometryResult = FALSE;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_CAPACITY_MIB, &value, 8, &written), 0u);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(written, 9u);
}

TEST_F(DiskTest, FreeSpaceAddsTheDrivesDiskVolumesInBothVariants) {
    constexpr uint64_t GiB = 1ull << 30;
    machine.volumes['C'] = {true, 7, 0, TRUE, 10 * GiB};
    machine.volumes['D'] = {true, 7, 1, TRUE, 5 * GiB};            // another drive
    machine.volumes['E'] = {true, 2, 0, TRUE, 1 * GiB};            // a CD-ROM
    machine.volumes['F'] = {false, 7, 0, TRUE, 1 * GiB};           // fails to open
    machine.volumes['G'] = {true, 7, 0, FALSE, 1 * GiB};           // IOCTL fails
    machine.volumes['H'] = {true, 7, 0, TRUE, 3 * GiB + 524288};   // 3072.5 MiB
    machine.volumes['I'] = {true, 7, 0, 2, 1 * GiB};               // non-zero but not exactly 1

    EXPECT_EQ(Query64(HAL_DISK_FREE_MIB), 10240u + 3072u);
    EXPECT_EQ(machine.invalidCloses, 26 - 6) << "the first variant closes every unopened volume's invalid handle";
    EXPECT_EQ(machine.freeSpaceRoots, (std::vector<std::string>{"C:", "H:"}));

    machine.invalidCloses = 0;
    EXPECT_EQ(Query64(HAL_DISK_FREE_MIB_EX), 10240u + 3072u + 1024u);
    EXPECT_EQ(machine.invalidCloses, 0);

    record.driveNumber = 3;
    uint32_t result = 0;
    EXPECT_EQ(Query64(HAL_DISK_FREE_MIB, &result), 0u) << "no lettered volume";
    EXPECT_EQ(result, 1u);
}

TEST_F(DiskTest, TrimFromTheStoragePropertyQuery) {
    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &record), 1u);
    struct Case {
        BOOLEAN enabled;
        DWORD returned;
        BOOL result;
        uint32_t expectedResult;
        uint32_t expectedValue;
    };
    const Case cases[] = {{1, 12, TRUE, 1, 1}, {0, 12, TRUE, 1, 0}, {2, 12, TRUE, 1, 0},
                          {1, 8, TRUE, 0, 77}, {1, 12, FALSE, 0, 77}};
    for (const Case& c : cases) {
        machine.trim.TrimEnabled = c.enabled;
        machine.trimReturned = c.returned;
        machine.trimResult = c.result;
        uint32_t value = 77;
        uint32_t written = 0;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_TRIM_ENABLED, &value, 4, &written),
                  c.expectedResult);
        EXPECT_EQ(value, c.expectedValue);
    }
    EXPECT_EQ(machine.trimQuery.PropertyId, StorageDeviceTrimProperty);
    EXPECT_EQ(machine.trimQuery.QueryType, PropertyStandardQuery);

    HalDiskRecord invalid{};
    invalid.handle = INVALID_HANDLE_VALUE;
    const int calls = machine.trimCalls;
    uint32_t value = 0;
    uint32_t written = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &invalid, HAL_DISK_TRIM_ENABLED, &value, 4, &written), 0u);
    EXPECT_EQ(machine.trimCalls, calls);
}

TEST_F(DiskTest, WmiTextsUseTheirExactQueries) {
    record.driveNumber = 12;
    struct Case {
        uint32_t code;
        const wchar_t* query;
        const wchar_t* property;
        const wchar_t* value;
        const wchar_t* expected;
    };
    const Case cases[] = {
        {HAL_DISK_MEDIA_TYPE, L"SELECT MediaType FROM Win32_DiskDrive WHERE Index = '12'", L"MediaType",
         L"Fixed hard disk media", L"Fixed hard disk media"},
        {HAL_DISK_CAPTION, L"SELECT Caption FROM Win32_DiskDrive WHERE Index='12'", L"Caption", L" Disk X ",
         L" Disk X "},
        {HAL_DISK_SERIAL_NUMBER, L"SELECT SerialNumber FROM Win32_DiskDrive WHERE Index='12'", L"SerialNumber",
         L"   ABC  ", L"ABC  "},
        {HAL_DISK_FIRMWARE_REVISION, L"SELECT FirmwareRevision FROM Win32_DiskDrive WHERE Index='12'",
         L"FirmwareRevision", L"1.0", L"1.0"},
    };
    for (const Case& c : cases) {
        wmi.On(kCimv2, c.query, {{{c.property, WmiValue::Str(c.value)}}});
        wchar_t buffer[32];
        std::memset(buffer, 0xEE, sizeof(buffer));
        uint32_t written = 0;
        const uint32_t bytes = static_cast<uint32_t>(wcslen(c.expected) * 2);
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, c.code, buffer, bytes - 1, &written), 0u);
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, c.code, buffer, bytes, &written), 1u) << c.query;
        EXPECT_EQ(std::wstring(buffer, written / 2), c.expected);
        EXPECT_EQ(wmi.Queries().back().text, c.query);
    }
    EXPECT_EQ(wmi.PropertyReads()[2 * 2], L"serialNumber") << "asked with a lower-case first letter";
}

TEST_F(DiskTest, EmptyTextsFailOnlyForTheMediaType) {
    wchar_t buffer[8];
    uint32_t written = 55;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_MEDIA_TYPE, buffer, 16, &written), 0u);
    EXPECT_EQ(written, 55u);
    for (uint32_t code : {HAL_DISK_CAPTION, HAL_DISK_SERIAL_NUMBER, HAL_DISK_FIRMWARE_REVISION}) {
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, buffer, 16, &written), 1u);
        EXPECT_EQ(written, 0u);
    }
}

TEST_F(DiskTest, SolidStateFromTheStorageWmiLeavesWrittenAlone) {
    const std::wstring query = L"SELECT * FROM MSFT_PhysicalDisk where DeviceID = '0'";
    const std::pair<uint32_t, uint32_t> cases[] = {{4, 1}, {3, 0}, {0, 0}};
    for (const auto& [mediaType, expected] : cases) {
        wmi.On(L"ROOT\\Microsoft\\Windows\\Storage", query, {{{L"MediaType", WmiValue::U32(mediaType)}}});
        uint32_t value = 77;
        uint32_t written = 55;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_IS_SSD, &value, 4, &written), 1u);
        EXPECT_EQ(value, expected);
        EXPECT_EQ(written, 55u);
    }
    wmi.FailConnect(L"ROOT\\Microsoft\\Windows\\Storage");
    uint32_t value = 77;
    uint32_t written = 55;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_IS_SSD, &value, 4, &written), 1u);
    EXPECT_EQ(value, 0u);
}

TEST_F(DiskTest, Refusals) {
    uint8_t buffer[16];
    std::memset(buffer, 0xEE, sizeof(buffer));
    uint32_t written = 9;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, 12, buffer, 16, &written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, 0xFFFFFFFF, buffer, 16, &written), 0u);
    for (uint32_t code = 0; code <= 11; ++code) {
        if (code == HAL_DISK_COUNT) continue;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, nullptr, code, buffer, 16, &written), 0u) << code;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, nullptr, 16, &written), 0u) << code;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, buffer, 16, nullptr), 0u) << code;
    }
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_FREE_MIB, buffer, 7, &written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_IS_SSD, buffer, 3, &written), 0u);
    for (uint8_t byte : buffer) EXPECT_EQ(byte, 0xEE);
    EXPECT_EQ(written, 9u);
}

// Wine's own drive 0 and C:, no fakes.
TEST(DiskOnWine, DriveZeroAnswersConsistently) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_DISK, &out), 0u) << "Wine's Win32_DiskDrive rows have no Name";
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));

    HalDiskRecord disk{};
    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &disk), 1u);
    uint64_t mib = 0, gb = 0, mb = 0;
    uint32_t written = 0;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISK, &disk, HAL_DISK_CAPACITY_MIB, &mib, 8, &written), 1u);
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISK, &disk, HAL_DISK_CAPACITY_GB, &gb, 8, &written), 1u);
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISK, &disk, HAL_DISK_CAPACITY_MB, &mb, 8, &written), 1u);
    EXPECT_GT(mib, 0u);
    EXPECT_EQ(mb / 1000, gb);
    EXPECT_NEAR(static_cast<double>(mib) * 1048576.0 / 1e6, static_cast<double>(mb), 2.0);

    ULARGE_INTEGER available{}, total{}, totalFree{};
    ASSERT_TRUE(GetDiskFreeSpaceExA("C:", &available, &total, &totalFree));
    uint64_t free = 0;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISK, &disk, HAL_DISK_FREE_MIB, &free, 8, &written), 1u);
    EXPECT_GE(free + 64, totalFree.QuadPart >> 20) << "at least C: is drive 0's";
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &disk), 1u);
}

}  // namespace
