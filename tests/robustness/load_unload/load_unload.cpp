// Loads and unloads Torvex.dll 100 times, as a host that loads it on demand
// does, with a few calls in between: the module really goes away each time,
// and neither handles nor memory grow. A program of its own, since a test
// program that imports the DLL can never unload it.
#include <windows.h>
#include <psapi.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/handle_count.h"
#include "torvex.h"

namespace {

// Committed private memory (Wine leaves PrivateUsage at 0 but fills PagefileUsage).
SIZE_T PrivateBytes() {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
    return counters.PagefileUsage;
}

// One load, a few calls, one unload; false when something is off.
bool Cycle(const std::wstring& path) {
    HMODULE module = LoadLibraryW(path.c_str());
    if (module == nullptr) return std::fprintf(stderr, "cannot load %ls\n", path.c_str()), false;
    auto init = reinterpret_cast<decltype(&HalInit)>(reinterpret_cast<void*>(GetProcAddress(module, "HalInit")));
    auto query = reinterpret_cast<decltype(&HalQueryInformation)>(
        reinterpret_cast<void*>(GetProcAddress(module, "HalQueryInformation")));
    if (init == nullptr || query == nullptr) return std::fprintf(stderr, "exports missing\n"), false;
    char name[128] = {};
    uint32_t written = 0;
    query(HAL_CLASS_CPU, nullptr, HAL_CPU_NAME, name, sizeof(name) - 1, &written);
    uint32_t ac = 0;
    query(HAL_CLASS_BATTERY, nullptr, HAL_BT_AC_LINE_STATUS, &ac, sizeof(ac), &written);
    void* modules = nullptr;
    if (init(HAL_CLASS_MEMORY, &modules) != 0) std::free(modules);
    if (!FreeLibrary(module)) return std::fprintf(stderr, "FreeLibrary failed\n"), false;
    if (GetModuleHandleW(L"Torvex.dll") != nullptr) return std::fprintf(stderr, "Torvex.dll stayed loaded\n"), false;
    return true;
}

}  // namespace

int main() {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring path(self);
    path = path.substr(0, path.find_last_of(L"\\/") + 1) + L"Torvex.dll";

    // The first cycles warm up what the system creates once per process.
    for (int i = 0; i < 3; ++i)
        if (!Cycle(path)) return 1;
    const DWORD handles = torvex::test::OpenHandleCount();
    const SIZE_T bytes = PrivateBytes();
    for (int i = 0; i < 100; ++i)
        if (!Cycle(path)) return std::fprintf(stderr, "cycle %d failed\n", i), 1;
    const DWORD handlesAfter = torvex::test::OpenHandleCount();
    const SIZE_T bytesAfter = PrivateBytes();
    std::printf("handles %lu -> %lu, private bytes %zu -> %zu\n", handles, handlesAfter, bytes, bytesAfter);
    int status = 0;
    if (handlesAfter > handles + 4) std::fprintf(stderr, "FAIL: handles grew\n"), status = 1;
    if (bytesAfter > bytes + (4u << 20)) std::fprintf(stderr, "FAIL: private memory grew by over 4 MiB\n"), status = 1;
    CoUninitialize();
    if (status == 0) std::printf("ok: 100 loads and unloads left nothing behind\n");
    return status;
}
