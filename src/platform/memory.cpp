// Memory modules (class 13): one entry per populated slot of
// Win32_PhysicalMemory. Nothing is kept between calls: the slot list is
// enumerated afresh by every call and again inside each per-module answer.
#include <windows.h>
#include <shlwapi.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/bounded_copy.h"
#include "common/narrow_answer.h"
#include "torvex.h"

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";
const std::wstring kMemoryClass = L"Win32_PhysicalMemory";

// Which property names a module: 1 DeviceLocator, 0 BankLabel.
enum KeyMode : uint32_t { kByBankLabel = 0, kByDeviceLocator = 1 };

struct SlotList {
    std::vector<std::wstring> ids;
    uint32_t keyMode = kByBankLabel;
};

// Splits at every ";": empty pieces between separators are kept, a trailing
// separator adds nothing.
std::vector<std::wstring> SplitSlots(const std::wstring& joined) {
    std::vector<std::wstring> ids;
    size_t start = 0;
    for (size_t at = joined.find(L';'); at != std::wstring::npos; at = joined.find(L';', start)) {
        ids.push_back(joined.substr(start, at - start));
        start = at + 1;
    }
    if (start < joined.size()) ids.push_back(joined.substr(start));
    return ids;
}

// Boards that name their slots by channel ("ChannelA-DIMM0", in any case) are
// keyed by DeviceLocator; the others by BankLabel.
SlotList EnumerateSlots() {
    SlotList list;
    HalWmi wmi(kCimv2);
    std::wstring joined = wmi.SelectStrA(kMemoryClass, L"DeviceLocator");
    if (::StrStrIW(joined.c_str(), L"Channel") != nullptr) {
        list.keyMode = kByDeviceLocator;
    } else {
        joined = wmi.SelectStrA(kMemoryClass, L"BankLabel");
    }
    list.ids = SplitSlots(joined);
    return list;
}

// Codes 2-6: the property and the query prefix for each key mode (BankLabel
// form first, DeviceLocator second). The slot identifier follows the prefix
// as it is, then a closing apostrophe.
struct ModuleQuery {
    const wchar_t* property;
    std::array<const wchar_t*, 2> prefix;
};
const std::array<ModuleQuery, 5> kModuleQueries = {{
    {L"Manufacturer",
     {L"SELECT Manufacturer FROM Win32_PhysicalMemory WHERE BankLabel='",
      L"SELECT Manufacturer FROM Win32_PhysicalMemory WHERE DeviceLocator='"}},
    {L"SerialNumber",
     {L"SELECT SerialNumber FROM Win32_PhysicalMemory WHERE BankLabel='",
      L"SELECT SerialNumber FROM Win32_PhysicalMemory WHERE DeviceLocator='"}},
    {L"PartNumber",
     {L"SELECT PartNumber FROM Win32_PhysicalMemory WHERE BankLabel='",
      L"SELECT PartNumber FROM Win32_PhysicalMemory WHERE DeviceLocator='"}},
    {L"Capacity",
     {L"SELECT Capacity FROM Win32_PhysicalMemory WHERE BankLabel='",
      L"SELECT Capacity FROM Win32_PhysicalMemory WHERE DeviceLocator='"}},
    {L"ConfiguredClockSpeed",
     {L"SELECT ConfiguredClockSpeed FROM Win32_PhysicalMemory WHERE BankLabel='",
      L"SELECT ConfiguredClockSpeed FROM Win32_PhysicalMemory WHERE DeviceLocator='"}},
}};

constexpr uint32_t kCountCode = 0;
constexpr uint32_t kSlotCode = 1;
constexpr uint32_t kFirstQueryCode = 2;
constexpr uint32_t kCapacityCode = 5;
constexpr uint32_t kClockCode = 6;

constexpr uint32_t kMaxModules = 0x0FFFFFFF;
constexpr size_t kListHeader = 8;
constexpr size_t kEntrySize = 16;
constexpr size_t kEntryIndexOffset = 8;
constexpr uint32_t kNoClock = 0xFFFFFFFF;

uint32_t EntryIndex(const void* entry) {
    uint32_t index = 0;
    std::memcpy(&index, static_cast<const unsigned char*>(entry) + kEntryIndexOffset, sizeof(index));
    return index;
}

// Each per-module answer enumerates the slots once more and queries alone.
bool ModuleSlot(uint32_t index, SlotList& slots) {
    slots = EnumerateSlots();
    return index < slots.ids.size();
}

uint32_t AnswerSlot(uint32_t index, void* buffer, uint32_t size, uint32_t* written) {
    SlotList slots;
    if (!ModuleSlot(index, slots)) return 0;
    return torvex::WriteNarrowAnswer(StringProc::WStringToString(slots.ids[index]), buffer, size,
                                               written);
}

uint32_t AnswerQuery(uint32_t code, uint32_t index, void* buffer, uint32_t size, uint32_t* written) {
    SlotList slots;
    if (!ModuleSlot(index, slots)) return 0;
    const ModuleQuery& query = kModuleQueries[code - kFirstQueryCode];
    const std::wstring text = query.prefix[slots.keyMode] + slots.ids[index] + L"'";
    HalWmi wmi(kCimv2);

    if (code == kClockCode) {
        const uint32_t clock = wmi.SelectUInt(text, query.property);
        if (clock == 0 || clock == kNoClock) return 0;
        // Four bytes whatever the stated size: callers always pass room for them.
        std::memcpy(buffer, &clock, sizeof(clock));
        *written = sizeof(clock);
        return 1;
    }

    const std::string value = StringProc::WStringToString(wmi.SelectStr(text, query.property));
    if (code == kCapacityCode) {
        // WMI gives bytes as text; unparsable text gives 0, which fails.
        const uint64_t mib = static_cast<uint64_t>(std::atoll(value.c_str())) >> 20;
        if (mib == 0) return 0;
        // Eight bytes whatever the stated size: callers always pass room for them.
        std::memcpy(buffer, &mib, sizeof(mib));
        *written = sizeof(mib);
        return 1;
    }
    // Vendors' fields often carry trailing blanks: passed through as they are.
    return torvex::WriteNarrowAnswer(value, buffer, size, written);
}

}  // namespace

uint32_t MmInit(void** out) {
    const SlotList slots = EnumerateSlots();
    if (out == nullptr) return 0;
    const size_t count = slots.ids.size();
    if (count == 0 || count > kMaxModules) return 0;
    const size_t total = kEntrySize * count + kListHeader;
    auto* block = static_cast<unsigned char*>(std::malloc(total));
    *out = block;
    if (block == nullptr) return 0;
    // Only the header and each entry's index are written: the rest of an
    // entry is the caller's.
    const uint32_t header[2] = {static_cast<uint32_t>(total), static_cast<uint32_t>(count)};
    std::memcpy(block, header, sizeof(header));
    for (uint32_t i = 0; i < count; ++i)
        std::memcpy(block + kListHeader + kEntrySize * i + kEntryIndexOffset, &i, sizeof(i));
    return 1;
}

uint32_t MmQueryInformation(void* entry, uint32_t code, void* buffer, uint32_t size, uint32_t* written) {
    if (buffer == nullptr || written == nullptr) return 0;
    const SlotList slots = EnumerateSlots();
    const uint32_t count = static_cast<uint32_t>(slots.ids.size());

    if (code == kCountCode) {
        if (count == 0) return 0;
        // A buffer under four bytes is zero-filled by the bounded copy before
        // the call fails; hosts have seen it that way from the start.
        if (!torvex::BoundedCopy(buffer, size, &count, sizeof(count))) return 0;
        *written = sizeof(count);
        return 1;
    }
    if (code > kClockCode || entry == nullptr) return 0;
    const uint32_t index = EntryIndex(entry);
    if (index >= count) return 0;
    if (code == kSlotCode) return AnswerSlot(index, buffer, size, written);
    return AnswerQuery(code, index, buffer, size, written);
}
