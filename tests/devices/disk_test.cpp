// Physical disks (class 7) over simulated machines: drive names from WMI,
// drive 0 and the lettered volumes as files with their I/O-control answers,
// free space per root; and Wine's own drive 0.
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

namespace torvex::test {
namespace {

using Calls = std::vector<std::string>;

const std::string kDrive0 = "\\\\.\\PHYSICALDRIVE0";
const std::string kGeometry = "IOCTL_DISK_GET_DRIVE_GEOMETRY";
const std::string kTrim = "IOCTL_STORAGE_QUERY_PROPERTY 080000000000000000000000";  // TRIM property, standard query
const std::string kStorage = "ROOT\\Microsoft\\Windows\\Storage";
constexpr uint64_t kUntouched = 0xEEEEEEEEEEEEEEEEull;

Json Wmi(const std::string& nameSpace, const std::string& query, const Json& rows) {
    return {{"wmi", {{nameSpace, {{"queries", {{query, {{"rows", rows}}}}}}}}}};
}
Json Names(const std::vector<std::string>& names) {
    Json rows = Json::array();
    for (const std::string& name : names) rows.push_back({{"Name", name}});
    return Wmi("ROOT\\CIMV2", "SELECT Name FROM Win32_DiskDrive", rows);
}
Json Geometry(int64_t cylinders, uint32_t tracks, uint32_t sectors, uint32_t bytes) {
    return {{"fields", {{"cylinders", cylinders}, {"media_type", 12}, {"tracks_per_cylinder", tracks},
                        {"sectors_per_track", sectors}, {"bytes_per_sector", bytes}}}};
}
Json Trim(int enabled) { return {{"fields", {{"version", 12}, {"size", 12}, {"trim_enabled", enabled}}}}; }
std::string Asked(const std::string& query, const std::string& ns = "ROOT\\CIMV2") { return ns + " \"" + query + "\""; }

// The machine is tests/machines/disk-volumes (drive 0 of 8,225,280,000 bytes with TRIM, C: to H:)
// unless a test gives it other answers.
class DiskTest : public ::testing::Test {
protected:
    void TearDown() override {
        HalCloseDevice(HAL_CLASS_DISK, &record);  // when a test left it open
        ExpectNothingHeld();
    }
    void Use(const Json& profile) {
        machine.profile.doc() = profile;
        machine.trace.Clear();
    }
    Json& Ioctl(const std::string& key) { return machine.profile.doc()["files"]["paths"][kDrive0]["ioctls"][key]; }
    // The answer to a code, or kUntouched when the call failed and left the value and count alone.
    template <typename T = uint64_t>
    T Query(uint32_t code, uint32_t size = sizeof(T)) {
        T value = static_cast<T>(kUntouched);
        uint32_t written = 0xBAD;
        if (HalQueryInformation(HAL_CLASS_DISK, &record, code, &value, size, &written) == 0) {
            EXPECT_TRUE(value == static_cast<T>(kUntouched) && written == 0xBADu) << "a refusal wrote";
            return static_cast<T>(kUntouched);
        }
        EXPECT_EQ(written, sizeof(T)) << code;
        return value;
    }
    SimulatedMachine machine{MachineFile{"disk-volumes"}};
    HalDiskRecord record{};
};

TEST_F(DiskTest, CountAndListSegmentTheJoinedNamesAndNumberTheDrivesDensely) {
    const std::pair<std::vector<std::string>, uint32_t> cases[] = {
        {{}, 0}, {{"A"}, 1}, {{"A", "B"}, 2}, {{"A", "B;"}, 2}, {{"A", "", "B"}, 3}, {{";"}, 1}, {{""}, 0},
        {std::vector<std::string>(5, "\\\\.\\PHYSICALDRIVE7"), 5},
    };
    for (const auto& [names, count] : cases) {
        Use(Names(names));
        EXPECT_EQ(Query<uint32_t>(HAL_DISK_COUNT), count != 0 ? count : uint32_t(kUntouched));
        EXPECT_EQ(Query<uint32_t>(HAL_DISK_COUNT, 3), uint32_t(kUntouched));
        void* out = reinterpret_cast<void*>(0x1234);
        ASSERT_EQ(HalInit(HAL_CLASS_DISK, &out), count != 0 ? 1u : 0u) << count;
        if (count == 0) {
            EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
            continue;
        }
        std::vector<uint32_t> words(2 + 4 * count);  // size, count, then per record: handle, drive number, unused
        std::memcpy(words.data(), out, words.size() * 4);
        torvex::test::FreeRecord(out);
        EXPECT_TRUE(words[0] == 8 + 16 * count && words[1] == count) << words[0];
        for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(words[4 + 4 * i], i);
    }
}

TEST_F(DiskTest, OpenAsksForAQueryHandleAndKeepsEvenAnInvalidOne) {
    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &record), 1u);
    EXPECT_EQ(machine.Calls("file"), Calls{"open " + kDrive0 + " [access 0x0, share 0x3, disposition 3, flags 0x80] -> opened"});
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &record), 1u);
    EXPECT_EQ(record.handle, nullptr);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &record), 0u) << "no longer open";

    HalDiskRecord missing{nullptr, 9, 0};
    EXPECT_EQ(HalOpenDevice(HAL_CLASS_DISK, &missing), 0u);
    EXPECT_EQ(machine.Asked("file").back(), "open \\\\.\\PHYSICALDRIVE9");
    EXPECT_EQ(missing.handle, INVALID_HANDLE_VALUE);
    HalCloseDevice(HAL_CLASS_DISK, &missing);  // CloseHandle takes the invalid handle too
    EXPECT_EQ(missing.handle, nullptr);
    EXPECT_EQ(HalOpenDevice(HAL_CLASS_DISK, nullptr) + HalCloseDevice(HAL_CLASS_DISK, nullptr), 0u);
}

TEST_F(DiskTest, CapacityAndTrimFromDriveZerosQueryHandle) {
    const uint32_t refused = uint32_t(kUntouched);
    EXPECT_EQ(Query(HAL_DISK_CAPACITY_MIB), kUntouched) << "the record is not open";
    EXPECT_EQ(Query<uint32_t>(HAL_DISK_TRIM_ENABLED), refused);
    record.handle = INVALID_HANDLE_VALUE;
    EXPECT_EQ(Query<uint32_t>(HAL_DISK_TRIM_ENABLED), refused);
    record.handle = nullptr;
    EXPECT_TRUE(machine.Asked("ioctl").empty()) << "no I/O control without a usable handle";

    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &record), 1u);
    EXPECT_EQ(Query(HAL_DISK_CAPACITY_MIB), 7844u);
    EXPECT_EQ(Query(HAL_DISK_CAPACITY_GB), 8u);
    EXPECT_EQ(Query(HAL_DISK_CAPACITY_MB), 8225u);
    EXPECT_EQ(Query(HAL_DISK_CAPACITY_MB, 7), kUntouched);
    EXPECT_EQ(machine.Calls("ioctl")[0], kDrive0 + " " + kGeometry + " [out 24 bytes] -> " + Geometry(1000, 255, 63, 512).dump());
    for (const Json& geometry : {Geometry(0, 255, 63, 512), Geometry(-5, 255, 63, 512), Geometry(1000, 0, 63, 512),
                                 Geometry(1000, 255, 63, 0), Geometry(INT64_MAX / 100, 255, 63, 512)}) {
        Ioctl(kGeometry) = geometry;
        EXPECT_EQ(Query(HAL_DISK_CAPACITY_MB), 0u) << geometry;
    }
    Ioctl(kGeometry) = {{"error", ERROR_NOT_READY}};
    EXPECT_EQ(Query(HAL_DISK_CAPACITY_MIB), kUntouched);

    EXPECT_EQ(Query<uint32_t>(HAL_DISK_TRIM_ENABLED), 1u);
    EXPECT_EQ(machine.Calls("ioctl").back(), kDrive0 + " " + kTrim + " [out 12 bytes] -> " + Trim(1).dump());
    const std::pair<Json, uint32_t> trims[] = {{Trim(0), 0}, {Trim(2), 0}, {{{"fields", {{"trim_enabled", 1}}}, {"returned", 8}}, refused},
                                               {{{"error", ERROR_INVALID_FUNCTION}}, refused}};
    for (const auto& [answer, expected] : trims) {
        Ioctl(kTrim) = answer;
        EXPECT_EQ(Query<uint32_t>(HAL_DISK_TRIM_ENABLED), expected) << answer;
    }
    EXPECT_EQ(Query<uint32_t>(HAL_DISK_TRIM_ENABLED, 3), refused);
}

// Stand-ins over the machine's own: CloseHandle counts invalid handles, and
// DeviceIoControl answers every success with 2 instead of 1.
ImportPatch* g_close = nullptr;
ImportPatch* g_ioctl = nullptr;
int g_invalidCloses = 0;
BOOL WINAPI CountingClose(HANDLE handle) {
    g_invalidCloses += handle == INVALID_HANDLE_VALUE ? 1 : 0;
    return g_close->Original<decltype(&CloseHandle)>()(handle);
}
BOOL WINAPI AnsweringTwo(HANDLE h, DWORD code, LPVOID in, DWORD inSize, LPVOID out, DWORD outSize, LPDWORD count, LPOVERLAPPED o) {
    return g_ioctl->Original<decltype(&DeviceIoControl)>()(h, code, in, inSize, out, outSize, count, o) ? 2 : 0;
}

TEST_F(DiskTest, FreeSpaceAddsTheDrivesDiskVolumesInBothVariants) {
    ImportPatch close = Redirect("CloseHandle", &CountingClose);
    g_close = &close;
    g_invalidCloses = 0;
    EXPECT_EQ(Query(HAL_DISK_FREE_MIB), 10240u + 3072u) << "all free bytes, not the caller's quota";
    EXPECT_EQ(g_invalidCloses, 26 - 5) << "the first variant closes every unopened volume's invalid handle";
    EXPECT_EQ(machine.Asked("volume"), (Calls{"free space of C:", "free space of H:"}));
    EXPECT_THAT(machine.Calls("file"), testing::Contains("open \\\\.\\C: [access 0x0, share 0x3, disposition 3, flags 0x0] -> opened"));
    EXPECT_THAT(machine.Calls("ioctl"), testing::Contains(testing::StartsWith("\\\\.\\C: IOCTL_STORAGE_GET_DEVICE_NUMBER [out 12 bytes]")));
    g_invalidCloses = 0;
    EXPECT_EQ(Query(HAL_DISK_FREE_MIB_EX), 10240u + 3072u);
    EXPECT_EQ(g_invalidCloses, 0);

    ImportPatch ioctl = Redirect("DeviceIoControl", &AnsweringTwo);
    g_ioctl = &ioctl;
    EXPECT_EQ(Query(HAL_DISK_FREE_MIB), 0u) << "the first variant takes only 1 for success";
    EXPECT_EQ(Query(HAL_DISK_FREE_MIB_EX), 10240u + 3072u) << "the second takes any non-zero";
    EXPECT_EQ(Query(HAL_DISK_FREE_MIB_EX, 7), kUntouched);
    record.driveNumber = 3;
    EXPECT_EQ(Query(HAL_DISK_FREE_MIB_EX), 0u) << "no lettered volume";
}

TEST_F(DiskTest, WmiTextsUseTheirExactQueriesAndOnlyAnEmptyMediaTypeFails) {
    // Code, query, property as asked (the serial with a lower-case first letter), answer, text handed out.
    const std::tuple<uint32_t, std::string, std::string, const char*, std::wstring> cases[] = {
        {HAL_DISK_MEDIA_TYPE, "SELECT MediaType FROM Win32_DiskDrive WHERE Index = '12'", "MediaType", "Fixed media", L"Fixed media"},
        {HAL_DISK_CAPTION, "SELECT Caption FROM Win32_DiskDrive WHERE Index='12'", "Caption", " Disk X ", L" Disk X "},
        {HAL_DISK_SERIAL_NUMBER, "SELECT SerialNumber FROM Win32_DiskDrive WHERE Index='12'", "serialNumber", "   ABC  ", L"ABC  "},
        {HAL_DISK_FIRMWARE_REVISION, "SELECT FirmwareRevision FROM Win32_DiskDrive WHERE Index='12'", "FirmwareRevision", "1.0", L"1.0"},
    };
    record.driveNumber = 12;
    for (const auto& [code, query, property, answer, expected] : cases) {
        Use(Wmi("ROOT\\CIMV2", query, Json::array({{{property, answer}}})));
        wchar_t buffer[16];
        std::fill(buffer, buffer + 16, 0xEEEE);
        uint32_t written = 0xBAD;
        const auto bytes = static_cast<uint32_t>(expected.size() * 2);
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, buffer, bytes - 1, &written), 0u);
        EXPECT_TRUE(buffer[0] == 0xEEEE && written == 0xBADu) << query;
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, buffer, bytes, &written), 1u) << query;
        EXPECT_EQ(std::wstring(buffer, written / 2 + 1), expected + L'\xEEEE') << "no terminator";

        // A row without the property: the trace names it as it was asked.
        machine.profile.doc()["wmi"]["ROOT\\CIMV2"]["queries"][query]["rows"][0] = Json::object();
        written = 0xBAD;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, buffer, 16, &written), code != HAL_DISK_MEDIA_TYPE);
        EXPECT_EQ(written, code != HAL_DISK_MEDIA_TYPE ? 0u : 0xBADu);
        EXPECT_EQ(machine.Calls("wmi").back(), Asked(query) + " [WQL, flags 48] -> 1 row; " + property + " missing");
    }
}

TEST_F(DiskTest, SolidStateFromTheStorageWmiLeavesWrittenAlone) {
    const std::string query = "SELECT * FROM MSFT_PhysicalDisk where DeviceID = '0'";
    const std::tuple<Json, uint32_t, std::string> cases[] = {
        {Wmi(kStorage, query, Json::array({{{"MediaType", 4}}})), 1, Asked(query, kStorage)},
        {Wmi(kStorage, query, Json::array({{{"MediaType", 3}}})), 0, Asked(query, kStorage)},
        {Json::object(), 0, "connect " + kStorage},  // no such namespace
    };
    for (const auto& [profile, expected, call] : cases) {
        Use(profile);
        uint32_t value = 77, written = 55;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_IS_SSD, &value, 4, &written), 1u);
        EXPECT_TRUE(value == expected && written == 55) << call;
        EXPECT_EQ(machine.Asked("wmi"), Calls{call});
    }
}

TEST_F(DiskTest, RefusalsLeaveBufferAndCountAlone) {
    uint8_t buffer[16];
    std::fill(buffer, buffer + 16, 0xEE);
    uint32_t written = 9;
    for (uint32_t code : {12u, 0xFFFFFFFFu}) EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, buffer, 16, &written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, HAL_DISK_IS_SSD, buffer, 3, &written), 0u);
    for (uint32_t code = 0; code <= 11; ++code) {
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, nullptr, 16, &written), 0u) << code;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, &record, code, buffer, 16, nullptr), 0u) << code;
        // No record; the count takes none, and is refused for its room.
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DISK, code != HAL_DISK_COUNT ? nullptr : &record, code, buffer, 2, &written), 0u);
    }
    EXPECT_EQ(std::count(buffer, buffer + 16, 0xEE), 16);
    EXPECT_EQ(written, 9u);
    EXPECT_TRUE(machine.Asked("wmi").empty() && machine.Asked("file").empty());
}

// Wine's own drive 0 and C:.
TEST(DiskOnWine, DriveZeroAnswersConsistently) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_DISK, &out), 0u) << "Wine's Win32_DiskDrive rows have no Name";
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    HalDiskRecord disk{};
    ASSERT_EQ(HalOpenDevice(HAL_CLASS_DISK, &disk), 1u);
    uint64_t mib = 0, gb = 0, mb = 0, free = 0;
    uint32_t written = 0;
    for (const auto& [code, value] : {std::pair{HAL_DISK_CAPACITY_MIB, &mib}, {HAL_DISK_CAPACITY_GB, &gb},
                                      {HAL_DISK_CAPACITY_MB, &mb}, {HAL_DISK_FREE_MIB, &free}})
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DISK, &disk, code, value, 8, &written), 1u) << code;
    EXPECT_TRUE(mib > 0 && mb / 1000 == gb) << mib << " " << gb;
    EXPECT_NEAR(static_cast<double>(mib) * 1048576.0 / 1e6, static_cast<double>(mb), 2.0);
    ULARGE_INTEGER available{}, total{}, totalFree{};
    ASSERT_TRUE(GetDiskFreeSpaceExA("C:", &available, &total, &totalFree));
    EXPECT_GE(free + 64, totalFree.QuadPart >> 20) << "at least C: is drive 0's";
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_DISK, &disk), 1u);
}

}  // namespace
}  // namespace torvex::test
