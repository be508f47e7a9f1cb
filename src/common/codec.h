// The contract's bytes in one place: records a host frees are allocated here,
// lists are laid out by the structs of torvex.h, and answers go out through
// the writers below; each code names what it does with `written`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "torvex.h"

namespace torvex {

// The one allocator of what a host releases with free, and of the blocks a
// vendor library has the library allocate; FreeRecord releases them.
void* AllocateRecord(size_t bytes);
void FreeRecord(void* record);

// ------------------------------------------------------------ lists
// Where a list's entries begin and how large each is, from its struct.
struct ListLayout {
    size_t header;
    size_t entry;
};
template <typename List>
constexpr ListLayout kLayout{};
template <>
constexpr ListLayout kLayout<HalWifiRecord>{offsetof(HalWifiRecord, interfaces), sizeof(HalWifiInterface)};
template <>
constexpr ListLayout kLayout<HalDiskList>{offsetof(HalDiskList, records), sizeof(HalDiskRecord)};
template <>
constexpr ListLayout kLayout<HalAudioDeviceList>{offsetof(HalAudioDeviceList, records), sizeof(HalAudioDeviceRecord)};
template <>
constexpr ListLayout kLayout<HalMemoryModuleList>{offsetof(HalMemoryModuleList, entries), sizeof(HalMemoryModuleEntry)};
template <>
constexpr ListLayout kLayout<GpuAdapterList>{offsetof(GpuAdapterList, records), sizeof(GpuAdapterRecord)};
template <>
constexpr ListLayout kLayout<HalDriverProblemList>{offsetof(HalDriverProblemList, captions),
                                                    sizeof(HalDriverProblemList::captions[0])};

// Bytes of a list of `count` entries, header included (the largest value on overflow).
template <typename List>
constexpr uint64_t ListBytes(uint64_t count) {
    constexpr ListLayout layout = kLayout<List>;
    static_assert(layout.entry != 0, "a list record of torvex.h");
    if (count > (UINT64_MAX - layout.header) / layout.entry) return UINT64_MAX;
    return layout.header + count * layout.entry;
}

// A list's size goes into its 32-bit size field; a larger list cannot be made.
constexpr bool FitsSizeField(uint64_t bytes) { return bytes <= UINT32_MAX; }

// Allocates a list and writes its header (size truncated to 32 bits); null on failure.
template <typename List>
List* NewList(uint64_t count) {
    static_assert(offsetof(List, count) == offsetof(HalListHeader, count), "every list starts with HalListHeader");
    const uint64_t bytes = ListBytes<List>(count);
    auto* list = static_cast<List*>(AllocateRecord(static_cast<size_t>(bytes)));
    if (list == nullptr) return nullptr;
    list->size = static_cast<uint32_t>(bytes);
    list->count = static_cast<uint32_t>(count);
    return list;
}

// ------------------------------------------------------------ answers
// memcpy_s: false, with the destination zero-filled when there is one, if the
// source is missing or the destination too small; nothing to copy succeeds.
inline bool BoundedCopy(void* dest, size_t destSize, const void* src, size_t count) {
    if (count == 0) return true;
    if (dest == nullptr) return false;
    if (src == nullptr || destSize < count) {
        std::memset(dest, 0, destSize);
        return false;
    }
    std::memcpy(dest, src, count);
    return true;
}

enum class Written { Set, Untouched };  // what an answer does with `written`

// One value (a number, a range record, ...) where the caller checked the room;
// `written` becomes its size unless the code leaves it untouched. Returns 1.
template <typename Value>
uint32_t PutValue(void* buffer, uint32_t* written, const Value& value, Written rule = Written::Set) {
    std::memcpy(buffer, &value, sizeof(value));
    if (rule == Written::Set) *written = sizeof(value);
    return 1;
}

// Narrow text up to its first zero byte, without a terminator; fails on empty
// text, a missing buffer, or a buffer without room for a terminator.
inline uint32_t PutNarrowText(const std::string& text, void* buffer, uint32_t bufferSize, uint32_t* written) {
    if (buffer == nullptr || written == nullptr || text.empty()) return 0;
    const size_t length = std::strlen(text.c_str());
    if (bufferSize <= length) return 0;
    std::memcpy(buffer, text.data(), length);
    *written = static_cast<uint32_t>(length);
    return 1;
}

// UTF-16 text without a terminator; Room::Terminator wants room for one too.
enum class Room { Text, Terminator };
inline uint32_t PutWideText(std::wstring_view text, void* buffer, uint32_t size, uint32_t* written, Room room) {
    if (text.size() > 0x7FFFFFFF) return 0;
    const uint64_t bytes = text.size() * sizeof(wchar_t);
    if (size < bytes + (room == Room::Terminator ? sizeof(wchar_t) : 0)) return 0;
    if (bytes != 0) std::memcpy(buffer, text.data(), static_cast<size_t>(bytes));
    *written = static_cast<uint32_t>(bytes);
    return 1;
}

}  // namespace torvex
