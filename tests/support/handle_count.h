// Handles open in this process. Wine's GetProcessHandleCount answers 0, so
// there the handle table is probed value by value.
#pragma once

#include <windows.h>
#include <winternl.h>

#include <cwchar>

namespace torvex::test {

// Handles are given out lowest free value first, so a long run of unused values is the end of the table.
template <typename Fn>
void ForEachOpenHandle(Fn&& fn) {
    for (ULONG_PTR value = 4, unused = 0; value < 0x10000 && unused < 1024; value += 4) {
        DWORD flags = 0;
        if (!GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) {
            ++unused;
            continue;
        }
        unused = 0;
        fn(reinterpret_cast<HANDLE>(value));
    }
}

inline DWORD OpenHandleCount() {
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count != 0) return count;
    ForEachOpenHandle([&](HANDLE) { ++count; });
    return count;
}

// Handles to the named object `name` (the last part of its path). Unlike the whole count, this one
// does not move when the system opens objects of its own on a thread it keeps.
inline DWORD OpenHandlesNamed(const wchar_t* name) {
    using QueryObject = NTSTATUS(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<QueryObject>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryObject")));
    constexpr int kObjectNameInformation = 1;
    DWORD count = 0;
    ForEachOpenHandle([&](HANDLE handle) {
        alignas(8) unsigned char buffer[1024] = {};
        if (query(handle, kObjectNameInformation, buffer, sizeof(buffer) - 2, nullptr) < 0) return;
        const auto* text = reinterpret_cast<const UNICODE_STRING*>(buffer);
        if (text->Buffer == nullptr) return;
        const wchar_t* last = std::wcsrchr(text->Buffer, L'\\');
        if (std::wcscmp(last != nullptr ? last + 1 : text->Buffer, name) == 0) ++count;
    });
    return count;
}

}  // namespace torvex::test
