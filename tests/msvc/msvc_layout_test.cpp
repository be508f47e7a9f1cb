// The boundary types module on its own: the Microsoft library's capacity and
// growth rules, the big-block layout on ucrtbase.dll's heap, what a host's
// object must look like to be accepted, and a by-value argument destroyed
// once. The Microsoft-ABI host (msvc_host) checks the same through the
// exports; this covers what no export of the DLL reaches.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "msvc/msvc_layout.h"

namespace torvex::msvc {
namespace {

// ucrtbase.dll's heap: whether a block malloc handed out is still in use.
bool BusyInUcrtHeap(const void* block) {
    using HeapHandleFn = intptr_t(__cdecl*)();
    const auto heapHandle = reinterpret_cast<HeapHandleFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ucrtbase.dll"), "_get_heap_handle")));
    if (heapHandle == nullptr) return false;
    const HANDLE heap = reinterpret_cast<HANDLE>(heapHandle());
    PROCESS_HEAP_ENTRY entry{};
    bool busy = false;
    HeapLock(heap);
    while (HeapWalk(heap, &entry))
        if (entry.lpData == block) busy = (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
    HeapUnlock(heap);
    return busy;
}

// What a host's library does when a vector goes away.
void Release(WideVector& list) {
    Clear(&list);
    Deallocate(list.first, static_cast<size_t>(list.end - list.first) * sizeof(WideString));
    list = WideVector{nullptr, nullptr, nullptr};
}

const void* RealBlock(const void* user, size_t bytes) {
    return bytes < kBigBlock ? user : reinterpret_cast<const void*>(static_cast<const uintptr_t*>(user)[-1]);
}

TEST(MsvcCapacity, StringsGrowAsTheLibraryGrowsThem) {
    struct Row {
        size_t requested, old, narrow, wide;
    } rows[] = {
        {8, 7, 15, 15},          // the first heap block of a wide string
        {16, 15, 31, 23},        // just past the small buffer: rounding wins over 1.5 x
        {20, 15, 31, 23},        //
        {100, 200, 300, 300},    // 1.5 x the old capacity wins
        {5000, 7, 5007, 5007},   // a 5,000-character string from scratch
        {5000, 15, 5007, 5007},  //
    };
    for (const Row& row : rows) {
        if (row.old >= 15) {
            EXPECT_EQ(StringCapacityFor<char>(row.requested, row.old), row.narrow) << row.requested;
        }
        EXPECT_EQ(StringCapacityFor<wchar_t>(row.requested, row.old), row.wide) << row.requested;
    }
}

TEST(MsvcCapacity, VectorsGrowByHalfOrToWhatIsNeeded) {
    size_t capacity = 0;
    std::vector<size_t> seen;
    for (size_t size = 0; size < 20; ++size)
        if (size == capacity) seen.push_back(capacity = VectorCapacityFor(size + 1, capacity));
    EXPECT_EQ(seen, (std::vector<size_t>{1, 2, 3, 4, 6, 9, 13, 19, 28}));
}

TEST(MsvcMemory, BigBlocksCarryTheirRealAddressBeforeThem) {
    for (size_t bytes : {size_t{4095}, kBigBlock, size_t{10016}}) {
        void* user = Allocate(bytes);
        ASSERT_NE(user, nullptr);
        const void* real = RealBlock(user, bytes);
        EXPECT_TRUE(BlockIntact(user, bytes));
        EXPECT_TRUE(BusyInUcrtHeap(real)) << bytes;
        if (bytes >= kBigBlock) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(user) % 32, 0u);
            const uintptr_t shift = reinterpret_cast<uintptr_t>(user) - reinterpret_cast<uintptr_t>(real);
            EXPECT_GE(shift, 8u);
            EXPECT_LE(shift, 39u);
        }
        Deallocate(user, bytes);
        EXPECT_FALSE(BusyInUcrtHeap(real)) << bytes;
    }
}

TEST(MsvcMemory, BackPointersOutsideTheWindowAreRefused) {
    alignas(64) uintptr_t words[8] = {};
    const void* user = &words[4];  // 32-aligned
    const auto at = [&](intptr_t back) {
        words[3] = reinterpret_cast<uintptr_t>(user) - back;
        return BlockIntact(user, kBigBlock);
    };
    EXPECT_TRUE(at(8));
    EXPECT_TRUE(at(39));
    EXPECT_FALSE(at(7));
    EXPECT_FALSE(at(40));
    EXPECT_FALSE(at(-8));  // after the pointer
    EXPECT_FALSE(BlockIntact(&words[5], kBigBlock)) << "a big block's pointer is aligned to 32";
    EXPECT_TRUE(BlockIntact(&words[5], kBigBlock - 1)) << "a small block has no back pointer";
}

TEST(MsvcString, ConstructedSmallOrOnTheHeapAsTheLibraryWould) {
    for (size_t length : {size_t{0}, size_t{7}, size_t{8}, size_t{2047}, size_t{5000}}) {
        const std::wstring text(length, L'x');
        WideString made;
        ASSERT_TRUE(Construct(&made, std::wstring_view(text)));
        EXPECT_TRUE(Valid(&made)) << length;
        EXPECT_EQ(made.Large(), length > 7) << length;
        EXPECT_EQ(made.capacity, length > 7 ? StringCapacityFor<wchar_t>(length, 7) : 7u);
        EXPECT_EQ(View(&made), std::wstring_view(text));
        EXPECT_EQ(made.Data()[length], L'\0');
        Destroy(&made);
        EXPECT_EQ(made.capacity, 7u);
    }
}

TEST(MsvcString, AssignStaysInPlaceWhileItFits) {
    WideString text;
    ASSERT_TRUE(Construct(&text, std::wstring_view(L"0123456789")));
    const wchar_t* block = text.pointer;
    ASSERT_TRUE(Assign(&text, std::wstring_view(L"short")));
    EXPECT_EQ(text.pointer, block);
    EXPECT_EQ(text.capacity, 15u);
    const std::wstring longer(40, L'y');
    ASSERT_TRUE(Assign(&text, std::wstring_view(longer)));
    EXPECT_EQ(text.capacity, 47u);
    EXPECT_FALSE(BusyInUcrtHeap(block));
    EXPECT_EQ(View(&text), std::wstring_view(longer));
    Destroy(&text);
}

// Each row damages a valid string one way.
TEST(MsvcString, DamagedStringsAreRefused) {
    const std::wstring big(3000, L'z');
    struct Row {
        const char* damage;
        void (*spoil)(WideString&);
        bool onHeap;
    } rows[] = {
        // The zero after the text is inside the block, so that only the size gives it away.
        {"size beyond capacity",
         [](WideString& s) {
             s.capacity -= 8;
             s.size = s.capacity + 1;
             s.Data()[s.size] = L'\0';
         },
         true},
        {"small size beyond the buffer", [](WideString& s) { s.size = 8; }, false},
        {"capacity below the buffer", [](WideString& s) { s.capacity = 3; }, false},
        {"no zero after the text", [](WideString& s) { s.Data()[s.size] = L'!'; }, false},
        {"no block", [](WideString& s) { s.pointer = nullptr; }, true},
        {"back pointer too close", [](WideString& s) { reinterpret_cast<uintptr_t*>(s.pointer)[-1] += 32; }, true},
        {"block not aligned to 32", [](WideString& s) { s.pointer += 1; }, true},
    };
    for (const Row& row : rows) {
        WideString text;
        ASSERT_TRUE(Construct(&text, row.onHeap ? std::wstring_view(big) : std::wstring_view(L"abc")));
        const WideString healthy = text;
        const uintptr_t back = row.onHeap ? reinterpret_cast<uintptr_t*>(text.pointer)[-1] : 0;
        row.spoil(text);
        EXPECT_FALSE(Valid(&text)) << row.damage;
        std::wstring taken = L"untouched";
        EXPECT_FALSE(TakeByValue(&text, taken)) << row.damage;
        EXPECT_EQ(taken, L"untouched");
        text = healthy;
        if (row.onHeap) reinterpret_cast<uintptr_t*>(text.pointer)[-1] = back;
        EXPECT_TRUE(Valid(&text));
        Destroy(&text);
    }
}

TEST(MsvcString, AnArgumentTakenByValueIsDestroyedOnce) {
    const std::wstring big(5000, L'v');
    WideString argument;
    ASSERT_TRUE(Construct(&argument, std::wstring_view(big)));
    const void* real = RealBlock(argument.pointer, (argument.capacity + 1) * sizeof(wchar_t));
    std::wstring taken;
    ASSERT_TRUE(TakeByValue(&argument, taken));
    EXPECT_EQ(taken, big);
    EXPECT_FALSE(BusyInUcrtHeap(real));
    EXPECT_TRUE(Valid(&argument)) << "left empty, as a destroyed string's storage";
    EXPECT_EQ(argument.size, 0u);
}

TEST(MsvcVector, AppendGrowsAsPushBackAndKeepsTheElements) {
    WideVector list{nullptr, nullptr, nullptr};
    std::vector<size_t> capacities;
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(Append(&list, std::wstring(i % 2 == 0 ? 3 : 30, static_cast<wchar_t>(L'a' + i))));
        capacities.push_back(static_cast<size_t>(list.end - list.first));
    }
    EXPECT_EQ(capacities, (std::vector<size_t>{1, 2, 3, 4, 6, 6, 9, 9, 9, 13}));
    EXPECT_TRUE(Valid(&list));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(View(&list.first[i]), std::wstring(i % 2 == 0 ? 3 : 30, static_cast<wchar_t>(L'a' + i)));
    WideString* block = list.first;
    Clear(&list);
    EXPECT_EQ(list.first, block);
    EXPECT_EQ(list.last, block);
    EXPECT_EQ(list.end - list.first, 13);
    Release(list);
    EXPECT_EQ(list.first, nullptr);
}

TEST(MsvcVector, ConstructedWithExactlyItsElements) {
    std::vector<std::wstring> items(200, L"element");
    items[7] = std::wstring(5000, L'q');
    WideVector list;
    ASSERT_TRUE(Construct(&list, items));
    EXPECT_EQ(list.last - list.first, 200);
    EXPECT_EQ(list.end, list.last);
    EXPECT_TRUE(Valid(&list)) << "200 strings are a big block";
    EXPECT_EQ(View(&list.first[7]), std::wstring_view(items[7]));
    Release(list);
    WideVector none;
    ASSERT_TRUE(Construct(&none, {}));
    EXPECT_EQ(none.first, nullptr);
    EXPECT_TRUE(Valid(&none));
}

TEST(MsvcVector, DamagedVectorsAreRefused) {
    WideVector list{nullptr, nullptr, nullptr};
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(Append(&list, L"item"));
    const WideVector healthy = list;
    struct Row {
        const char* damage;
        void (*spoil)(WideVector&);
    } rows[] = {
        {"pointers out of order", [](WideVector& v) { std::swap(v.first, v.last); }},
        {"size not a whole number of strings",
         [](WideVector& v) { v.last = reinterpret_cast<WideString*>(reinterpret_cast<char*>(v.last) - 8); }},
        {"no block but an end", [](WideVector& v) { v.first = nullptr; }},
        {"a block without room", [](WideVector& v) { v.last = v.end = v.first; }},
        {"a damaged element", [](WideVector& v) { v.first[1].size = 99; }},
    };
    for (const Row& row : rows) {
        row.spoil(list);
        EXPECT_FALSE(Valid(&list)) << row.damage;
        list = healthy;
        list.first[1].size = 4;
    }
    EXPECT_TRUE(Valid(&list));
    Release(list);
}

}  // namespace
}  // namespace torvex::msvc
