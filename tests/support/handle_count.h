// Handles open in this process. Wine's GetProcessHandleCount answers 0, so
// there the handle table is probed value by value.
#pragma once

#include <windows.h>

namespace torvex::test {

inline DWORD OpenHandleCount() {
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count != 0) return count;
    for (ULONG_PTR value = 4; value < 0x10000; value += 4) {
        DWORD flags = 0;
        if (GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) ++count;
    }
    return count;
}

}  // namespace torvex::test
