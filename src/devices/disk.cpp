// Physical disks (class 7): drive count and per-drive facts from WMI, raw
// query handles on \\.\PHYSICALDRIVEn, geometry, TRIM and the free space of
// the drive's lettered volumes.
#include <windows.h>
#include <winioctl.h>

#include <array>
#include <optional>
#include <string>

#include "common/codec.h"
#include "common/win_resource.h"
#include "devices/disk.h"
#include "torvex.h"
#include "wmi/wmi.h"

namespace {

using torvex::wmi::Session;

constexpr DWORD kShareReadWrite = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD kDiskDeviceType = 7;  // FILE_DEVICE_DISK
constexpr uint32_t kSolidStateMediaType = 4;

HalDiskRecord* AsRecord(void* record) { return static_cast<HalDiskRecord*>(record); }
HANDLE& DiskHandle(void* record) { return AsRecord(record)->handle; }

std::wstring DriveNumber(void* record) { return std::to_wstring(AsRecord(record)->driveNumber); }

// WMI text facts. Code 0's query spaces its "=" unlike the others, and the
// serial is asked for as "serialNumber": both kept as they are.
struct TextFact {
    uint32_t code;
    const wchar_t* queryPrefix;
    const wchar_t* property;
    bool emptyFails;
    bool trimLeadingSpaces;
};
constexpr std::array<TextFact, 4> kTextFacts = {{
    {HAL_DISK_MEDIA_TYPE, L"SELECT MediaType FROM Win32_DiskDrive WHERE Index = '", L"MediaType", true, false},
    {HAL_DISK_CAPTION, L"SELECT Caption FROM Win32_DiskDrive WHERE Index='", L"Caption", false, false},
    {HAL_DISK_SERIAL_NUMBER, L"SELECT SerialNumber FROM Win32_DiskDrive WHERE Index='", L"serialNumber", false, true},
    {HAL_DISK_FIRMWARE_REVISION, L"SELECT FirmwareRevision FROM Win32_DiskDrive WHERE Index='", L"FirmwareRevision",
     false, false},
}};

const TextFact* FindTextFact(uint32_t code) {
    for (const TextFact& fact : kTextFacts)
        if (fact.code == code) return &fact;
    return nullptr;
}

// Removes leading blanks only; a text that is empty or all blanks stays as it was.
std::wstring TrimLeadingSpaces(const std::wstring& text) {
    const size_t first = text.find_first_not_of(L' ');
    return first == std::wstring::npos ? text : text.substr(first);
}

uint32_t QueryText(void* record, const TextFact& fact, void* out, uint32_t outSize, uint32_t* written) {
    std::wstring text = Session(torvex::wmi::kCimv2)
                            .First<std::wstring>(fact.queryPrefix + DriveNumber(record) + L"'", fact.property)
                            .value_or(std::wstring());
    if (fact.trimLeadingSpaces) text = TrimLeadingSpaces(text);
    if (fact.emptyFails && text.empty()) return 0;
    return torvex::PutWideText(text, out, outSize, written, torvex::Room::Text);
}

// Bytes of a geometry: Cylinders x TracksPerCylinder x SectorsPerTrack x
// BytesPerSector in signed 64 bits, 0 when implausible or overflowing.
int64_t GeometryBytes(const DISK_GEOMETRY& geometry) {
    int64_t product = geometry.Cylinders.QuadPart;
    const int64_t factors[] = {geometry.TracksPerCylinder, geometry.SectorsPerTrack, geometry.BytesPerSector};
    for (int64_t factor : factors) {
        if (product < 1 || factor == 0 || product >= INT64_MAX / factor) return 0;
        product *= factor;
    }
    return product;
}

uint32_t QueryCapacity(void* record, uint32_t code, void* out, uint32_t outSize, uint32_t* written) {
    HANDLE handle = AsRecord(record)->handle;
    if (outSize < sizeof(uint64_t) || handle == nullptr) return 0;
    DISK_GEOMETRY geometry{};
    DWORD returned = 0;
    const BOOL result = DeviceIoControl(handle, IOCTL_DISK_GET_DRIVE_GEOMETRY, nullptr, 0, &geometry,
                                        sizeof(geometry), &returned, nullptr);
    if (result != 1) return static_cast<uint32_t>(result);
    const uint64_t bytes = static_cast<uint64_t>(GeometryBytes(geometry));
    const uint64_t value = code == HAL_DISK_CAPACITY_MIB  ? bytes >> 20
                           : code == HAL_DISK_CAPACITY_GB ? bytes / 1000000000ull
                                                          : bytes / 1000000ull;
    return torvex::PutValue(out, written, value);
}

uint64_t VolumeFreeMiB(char letter) {
    const char root[] = {letter, ':', '\0'};
    ULARGE_INTEGER available{}, total{}, totalFree{};
    if (!GetDiskFreeSpaceExA(root, &available, &total, &totalFree)) return 0;
    return totalFree.QuadPart >> 20;  // all free bytes, not the caller's quota
}

// The two free-space codes walk A: to Z: alike but for details hosts have
// seen for years: code 4 hands an unopened volume's invalid handle to
// CloseHandle and wants the IOCTL to return exactly 1 with a byte count;
// code 8 skips the close and takes any non-zero return.
enum class FreeSpaceVariant { First, Second };

uint64_t SumVolumesFreeMiB(uint32_t driveNumber, FreeSpaceVariant variant) {
    uint64_t total = 0;
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        const char path[] = {'\\', '\\', '.', '\\', letter, ':', '\0'};
        torvex::FileHandle volume(CreateFileA(path, 0, kShareReadWrite, nullptr, OPEN_EXISTING, 0, nullptr));
        if (volume.get() == INVALID_HANDLE_VALUE) {
            if (variant == FreeSpaceVariant::First) CloseHandle(volume.get());
            continue;
        }
        STORAGE_DEVICE_NUMBER number{};
        DWORD returned = 0;
        const BOOL result = DeviceIoControl(volume.get(), IOCTL_STORAGE_GET_DEVICE_NUMBER, nullptr, 0, &number,
                                            sizeof(number), &returned, nullptr);
        volume.reset();
        const bool answered = variant == FreeSpaceVariant::First ? result == 1 : result != 0;
        if (answered && number.DeviceNumber == driveNumber && number.DeviceType == kDiskDeviceType)
            total += VolumeFreeMiB(letter);
    }
    return total;
}

uint32_t QueryFreeSpace(void* record, uint32_t code, void* out, uint32_t outSize, uint32_t* written) {
    if (outSize < sizeof(uint64_t)) return 0;
    const uint64_t total = SumVolumesFreeMiB(
        AsRecord(record)->driveNumber, code == HAL_DISK_FREE_MIB ? FreeSpaceVariant::First : FreeSpaceVariant::Second);
    return torvex::PutValue(out, written, total);
}

uint32_t QueryTrim(void* record, void* out, uint32_t outSize, uint32_t* written) {
    HANDLE handle = AsRecord(record)->handle;
    if (outSize < sizeof(uint32_t) || handle == nullptr || handle == INVALID_HANDLE_VALUE) return 0;
    STORAGE_PROPERTY_QUERY query{};
    query.PropertyId = StorageDeviceTrimProperty;
    query.QueryType = PropertyStandardQuery;
    DEVICE_TRIM_DESCRIPTOR descriptor{};
    DWORD returned = 0;
    if (!DeviceIoControl(handle, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query), &descriptor,
                         sizeof(descriptor), &returned, nullptr) ||
        returned != sizeof(descriptor))
        return 0;
    return torvex::PutValue(out, written, uint32_t{descriptor.TrimEnabled == 1 ? 1u : 0u});
}

// Solid-state per the storage WMI. `written` is deliberately left as it was.
uint32_t QuerySolidState(void* record, void* out, uint32_t outSize, uint32_t* written) {
    if (outSize < sizeof(uint32_t)) return 0;
    const std::optional<uint32_t> mediaType = Session(torvex::wmi::kStorage).Number(
        L"SELECT * FROM MSFT_PhysicalDisk where DeviceID = '" + DriveNumber(record) + L"'", L"MediaType");
    return torvex::PutValue(out, written, uint32_t{mediaType == kSolidStateMediaType ? 1u : 0u},
                             torvex::Written::Untouched);
}

uint32_t QueryCount(void* out, uint32_t outSize, uint32_t* written) {
    if (out == nullptr || written == nullptr || outSize < sizeof(uint32_t)) return 0;
    const uint32_t count = GetPhysicalDiskCount();
    if (count == 0) return 0;
    return torvex::PutValue(out, written, count);
}

// Moves the file pointer to the HalDiskOffset position. The high word is
// written back by SetFilePointer. A returned 0xFFFFFFFF is taken as failure
// without asking GetLastError, so a position whose low word is 0xFFFFFFFF
// fails too; hosts rely on exactly this rule.
bool SeekDisk(HANDLE handle, uint32_t* offset) {
    auto* position = reinterpret_cast<HalDiskOffset*>(offset);
    return SetFilePointer(handle, position->low, reinterpret_cast<PLONG>(&position->high), FILE_BEGIN) !=
           INVALID_SET_FILE_POINTER;
}

}  // namespace

static_assert(sizeof(DISK_GEOMETRY) == 24, "geometry as the platform's");
static_assert(sizeof(STORAGE_DEVICE_NUMBER) == 12, "device number as the platform's");
static_assert(sizeof(STORAGE_PROPERTY_QUERY) == 12, "property query as the platform's");
static_assert(sizeof(DEVICE_TRIM_DESCRIPTOR) == 12, "trim descriptor as the platform's");

// The drive names cut at ";" (see Session::List): an empty segment between
// two separators counts as a drive.
uint32_t GetPhysicalDiskCount() {
    return static_cast<uint32_t>(Session(torvex::wmi::kCimv2).List(L"SELECT Name FROM Win32_DiskDrive", L"Name").size());
}

uint32_t DiskInit(void** out) {
    const uint32_t count = GetPhysicalDiskCount();
    if (count == 0 || !torvex::FitsSizeField(torvex::ListBytes<HalDiskList>(count))) return 0;
    auto* list = torvex::NewList<HalDiskList>(count);
    *out = list;  // stored at once, a failed allocation too
    if (list == nullptr) return 0;
    for (uint32_t i = 0; i < count; ++i) list->records[i].driveNumber = i;
    return 1;
}

uint32_t DiskOpen(void* record) {
    if (record == nullptr) return 0;
    const std::wstring path = L"\\\\.\\PHYSICALDRIVE" + DriveNumber(record);
    // Desired access 0: a query handle is enough for the geometry and property requests.
    HANDLE handle = CreateFileW(path.c_str(), 0, kShareReadWrite, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                nullptr);
    DiskHandle(record) = handle;  // stored whatever it is; DiskClose closes it
    return handle != INVALID_HANDLE_VALUE ? 1 : 0;
}

uint32_t DiskClose(void* record) {
    if (record == nullptr || DiskHandle(record) == nullptr) return 0;
    const BOOL closed = CloseHandle(DiskHandle(record));
    DiskHandle(record) = nullptr;
    return static_cast<uint32_t>(closed);
}

uint32_t DiskRead(void* record, uint32_t* offset, void* buffer, uint32_t size, uint32_t* bytesRead) {
    if (record == nullptr || offset == nullptr || buffer == nullptr || bytesRead == nullptr ||
        DiskHandle(record) == nullptr)
        return 0;
    HANDLE handle = DiskHandle(record);
    if (!SeekDisk(handle, offset)) return 0;
    return static_cast<uint32_t>(ReadFile(handle, buffer, size, reinterpret_cast<DWORD*>(bytesRead), nullptr));
}

uint32_t DiskWrite(void* record, uint32_t* offset, const void* buffer, uint32_t size, uint32_t* bytesWritten) {
    if (record == nullptr || DiskHandle(record) == nullptr) return 0;
    HANDLE handle = DiskHandle(record);
    if (offset != nullptr && !SeekDisk(handle, offset)) return 0;
    // The count location is not the library's to check; a missing one gets a
    // scratch word so that the write cannot fault.
    DWORD scratch = 0;
    DWORD* written = bytesWritten != nullptr ? reinterpret_cast<DWORD*>(bytesWritten) : &scratch;
    return static_cast<uint32_t>(WriteFile(handle, buffer, size, written, nullptr));
}

uint32_t DiskQueryInformation(void* record, uint32_t code, void* out, uint32_t outSize, uint32_t* written) {
    if (code > HAL_DISK_IS_SSD) return 0;
    if (code == HAL_DISK_COUNT) return QueryCount(out, outSize, written);
    if (record == nullptr || out == nullptr || written == nullptr) return 0;
    if (const TextFact* fact = FindTextFact(code)) return QueryText(record, *fact, out, outSize, written);
    switch (code) {
    case HAL_DISK_CAPACITY_MIB:
    case HAL_DISK_CAPACITY_GB:
    case HAL_DISK_CAPACITY_MB:
        return QueryCapacity(record, code, out, outSize, written);
    case HAL_DISK_FREE_MIB:
    case HAL_DISK_FREE_MIB_EX:
        return QueryFreeSpace(record, code, out, outSize, written);
    case HAL_DISK_TRIM_ENABLED:
        return QueryTrim(record, out, outSize, written);
    case HAL_DISK_IS_SSD:
        return QuerySolidState(record, out, outSize, written);
    default:
        return 0;
    }
}
