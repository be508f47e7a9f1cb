// Memory modules (class 13): one entry per populated slot of
// Win32_PhysicalMemory. Nothing is kept between calls: the slot list is
// enumerated afresh by every call and again inside each per-module answer.
#include <windows.h>
#include <shlwapi.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "common/codec.h"
#include "torvex.h"
#include "wmi/wmi.h"

namespace {

using torvex::wmi::Session;

// Which property names a module: 1 DeviceLocator, 0 BankLabel.
enum KeyMode : uint32_t { kByBankLabel = 0, kByDeviceLocator = 1 };

struct SlotList {
    std::vector<std::wstring> ids;
    uint32_t keyMode = kByBankLabel;
};

// Boards that name their slots by channel ("ChannelA-DIMM0", in any case) are
// keyed by DeviceLocator; the others by BankLabel.
SlotList EnumerateSlots() {
    SlotList list;
    const Session cimv2(torvex::wmi::kCimv2);
    list.ids = cimv2.List(L"SELECT DeviceLocator FROM Win32_PhysicalMemory", L"DeviceLocator");
    if (std::any_of(list.ids.begin(), list.ids.end(),
                    [](const std::wstring& id) { return ::StrStrIW(id.c_str(), L"Channel") != nullptr; }))
        list.keyMode = kByDeviceLocator;
    else
        list.ids = cimv2.List(L"SELECT BankLabel FROM Win32_PhysicalMemory", L"BankLabel");
    return list;
}

// Codes 2-6: "SELECT " + property + " FROM Win32_PhysicalMemory WHERE " + the
// key property + "='", then the slot identifier as it is and a closing apostrophe.
constexpr std::array<const wchar_t*, 5> kModuleProperties = {L"Manufacturer", L"SerialNumber", L"PartNumber",
                                                              L"Capacity", L"ConfiguredClockSpeed"};
constexpr std::array<const wchar_t*, 2> kKeyProperties = {L"BankLabel", L"DeviceLocator"};

uint32_t EntryIndex(const void* entry) { return static_cast<const HalMemoryModuleEntry*>(entry)->index; }

// Each per-module answer enumerates the slots once more and queries alone.
bool ModuleSlot(uint32_t index, SlotList& slots) {
    slots = EnumerateSlots();
    return index < slots.ids.size();
}

uint32_t AnswerSlot(uint32_t index, void* buffer, uint32_t size, uint32_t* written) {
    SlotList slots;
    if (!ModuleSlot(index, slots)) return 0;
    return torvex::PutNarrowText(StringProc::WStringToString(slots.ids[index]), buffer, size, written);
}

uint32_t AnswerQuery(uint32_t code, uint32_t index, void* buffer, uint32_t size, uint32_t* written) {
    SlotList slots;
    if (!ModuleSlot(index, slots)) return 0;
    const wchar_t* property = kModuleProperties[code - HAL_MM_MANUFACTURER];
    const std::wstring text = std::wstring(L"SELECT ") + property + L" FROM Win32_PhysicalMemory WHERE " +
                              kKeyProperties[slots.keyMode] + L"='" + slots.ids[index] + L"'";
    const Session cimv2(torvex::wmi::kCimv2);

    // Sizes and clocks go out whole whatever the stated size: callers always pass room for them.
    if (code == HAL_MM_CLOCK_MHZ) {
        const std::optional<uint32_t> clock = cimv2.Number(text, property);
        if (!clock || *clock == 0) return 0;
        return torvex::PutValue(buffer, written, *clock);
    }

    const std::string value =
        StringProc::WStringToString(cimv2.First<std::wstring>(text, property).value_or(std::wstring()));
    if (code == HAL_MM_CAPACITY_MIB) {
        // WMI gives bytes as text; unparsable text gives 0, which fails.
        const uint64_t mib = static_cast<uint64_t>(std::atoll(value.c_str())) >> 20;
        if (mib == 0) return 0;
        return torvex::PutValue(buffer, written, mib);
    }
    // Vendors' fields often carry trailing blanks: passed through as they are.
    return torvex::PutNarrowText(value, buffer, size, written);
}

}  // namespace

uint32_t MmInit(void** out) {
    const SlotList slots = EnumerateSlots();
    if (out == nullptr) return 0;
    const size_t count = slots.ids.size();
    if (count == 0 || !torvex::FitsSizeField(torvex::ListBytes<HalMemoryModuleList>(count))) return 0;
    auto* list = torvex::NewList<HalMemoryModuleList>(count);
    *out = list;
    if (list == nullptr) return 0;
    // Only the header and each entry's index are written: the rest of an
    // entry is the caller's.
    for (uint32_t i = 0; i < count; ++i) list->entries[i].index = i;
    return 1;
}

uint32_t MmQueryInformation(void* entry, uint32_t code, void* buffer, uint32_t size, uint32_t* written) {
    if (buffer == nullptr || written == nullptr) return 0;
    const SlotList slots = EnumerateSlots();
    const uint32_t count = static_cast<uint32_t>(slots.ids.size());

    if (code == HAL_MM_COUNT) {
        if (count == 0) return 0;
        // A buffer under four bytes is zero-filled by the bounded copy before
        // the call fails; hosts have seen it that way from the start.
        if (!torvex::BoundedCopy(buffer, size, &count, sizeof(count))) return 0;
        *written = sizeof(count);
        return 1;
    }
    if (code > HAL_MM_CLOCK_MHZ || entry == nullptr) return 0;
    const uint32_t index = EntryIndex(entry);
    if (index >= count) return 0;
    if (code == HAL_MM_SLOT) return AnswerSlot(index, buffer, size, written);
    return AnswerQuery(code, index, buffer, size, written);
}
