// Loads and unloads Torvex.dll 100 times, as a host that loads it on demand
// does, once with no calls in between and once with a report's worth of
// queries: the module really goes away each time, and neither handles nor
// heap memory grow. A program of its own, since a test program that imports
// the DLL can never unload it.
#include <windows.h>
#include <psapi.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/handle_count.h"
#include "support/record.h"
#include "torvex.h"
#include "torvex/program_directory.h"

namespace {

constexpr int kCycles = 100;
constexpr SIZE_T kMaxHeapGrowth = 16 * 1024;
constexpr SIZE_T kMaxPrivateGrowth = 4u << 20;
constexpr uint32_t kCodesPerClass = 30;

// Committed private memory (Wine leaves PrivateUsage at 0 but fills PagefileUsage).
SIZE_T PrivateBytes() {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters));
    return counters.PagefileUsage;
}

// Bytes held in busy blocks of every heap of the process: what the C runtime
// and the system libraries have allocated and not freed.
SIZE_T BusyHeapBytes() {
    std::vector<HANDLE> heaps(GetProcessHeaps(0, nullptr) + 16);
    heaps.resize(GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()));
    SIZE_T busy = 0;
    for (HANDLE heap : heaps) {
        if (!HeapLock(heap)) continue;
        PROCESS_HEAP_ENTRY entry{};
        while (HeapWalk(heap, &entry))
            if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) busy += entry.cbData;
        HeapUnlock(heap);
    }
    return busy;
}

template <typename Fn>
Fn Export(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// Every query code of every class a report reads, on the first entry of the
// record HalInit hands out; records are closed and freed as a host does.
// Wine's own dxgi keeps 128 bytes per failed CreateDXGIFactory1 (HalInit(6)
// on a machine without a GPU), with or without this library: 12.8 KB of the
// growth over the cycles under Wine.
bool Report(HMODULE module) {
    const auto init = Export<decltype(&HalInit)>(module, "HalInit");
    const auto query = Export<decltype(&HalQueryInformation)>(module, "HalQueryInformation");
    const auto open = Export<decltype(&HalOpenDevice)>(module, "HalOpenDevice");
    const auto close = Export<decltype(&HalCloseDevice)>(module, "HalCloseDevice");
    if (init == nullptr || query == nullptr || open == nullptr || close == nullptr)
        return std::fprintf(stderr, "exports missing\n"), false;
    const uint32_t classes[] = {HAL_CLASS_CPU, HAL_CLASS_WIFI,    HAL_CLASS_MAINBOARD, HAL_CLASS_AUDIO, HAL_CLASS_GPU,
                                HAL_CLASS_DISK, HAL_CLASS_BATTERY, HAL_CLASS_MEMORY,    HAL_CLASS_DRIVER};
    for (uint32_t type : classes) {
        void* record = nullptr;
        if (init(type, &record) == 0) record = nullptr;
        void* device = record;
        const bool listed = type == HAL_CLASS_DISK || type == HAL_CLASS_AUDIO || type == HAL_CLASS_MEMORY ||
                            type == HAL_CLASS_DRIVER;
        if (listed && record != nullptr)
            device = static_cast<HalListHeader*>(record)->count != 0 ? static_cast<char*>(record) + 8 : nullptr;
        if (type == HAL_CLASS_DISK && device != nullptr) open(type, device);
        for (uint32_t code = 0; code < kCodesPerClass; ++code) {
            alignas(8) unsigned char buffer[256] = {};
            uint32_t written = 0;
            query(type, device, code, buffer, sizeof(buffer), &written);
        }
        if (type == HAL_CLASS_DISK && device != nullptr) close(type, device);
        if (type == HAL_CLASS_WIFI || type == HAL_CLASS_AUDIO) close(type, record);
        torvex::test::FreeRecord(record);
    }
    return true;
}

bool Nothing(HMODULE) { return true; }

// One real load (the module was not loaded before), the work, one unload
// after which the module is gone; false when something is off.
bool Cycle(const std::wstring& path, bool (*between)(HMODULE)) {
    if (GetModuleHandleW(L"Torvex.dll") != nullptr) return std::fprintf(stderr, "Torvex.dll already loaded\n"), false;
    HMODULE module = LoadLibraryW(path.c_str());
    if (module == nullptr) return std::fprintf(stderr, "cannot load %ls\n", path.c_str()), false;
    const bool worked = between(module);
    if (!FreeLibrary(module)) return std::fprintf(stderr, "FreeLibrary failed\n"), false;
    if (GetModuleHandleW(L"Torvex.dll") != nullptr) return std::fprintf(stderr, "Torvex.dll stayed loaded\n"), false;
    return worked;
}

// Runs the cycles of one scenario; false when handles or the heap grew.
bool Scenario(const char* name, const std::wstring& path, bool (*between)(HMODULE)) {
    // The first cycles warm up what the system creates once per process.
    for (int i = 0; i < 3; ++i)
        if (!Cycle(path, between)) return false;
    const DWORD handles = torvex::test::OpenHandleCount();
    const SIZE_T heap = BusyHeapBytes();
    const SIZE_T privateBytes = PrivateBytes();
    for (int i = 0; i < kCycles; ++i)
        if (!Cycle(path, between)) return std::fprintf(stderr, "%s: cycle %d failed\n", name, i), false;
    const DWORD handlesAfter = torvex::test::OpenHandleCount();
    const SIZE_T heapAfter = BusyHeapBytes();
    const SIZE_T privateAfter = PrivateBytes();
    const long long growth = static_cast<long long>(heapAfter) - static_cast<long long>(heap);
    std::printf("%s: %d cycles, handles %lu -> %lu, private bytes %zu -> %zu, busy heap %zu -> %zu bytes "
                "(%+lld, %+lld per cycle)\n",
                name, kCycles, handles, handlesAfter, privateBytes, privateAfter, heap, heapAfter, growth,
                growth / kCycles);
    bool ok = true;
    if (handlesAfter > handles + 4) std::fprintf(stderr, "FAIL %s: handles grew\n", name), ok = false;
    if (privateAfter > privateBytes + kMaxPrivateGrowth)
        std::fprintf(stderr, "FAIL %s: private memory grew by over 4 MiB\n", name), ok = false;
    if (growth > static_cast<long long>(kMaxHeapGrowth))
        std::fprintf(stderr, "FAIL %s: busy heap grew by more than %zu bytes\n", name, kMaxHeapGrowth), ok = false;
    return ok;
}

}  // namespace

int main() {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    const std::wstring path = torvex::ProgramDirectory() + L"\\Torvex.dll";

    const bool idle = Scenario("load and unload", path, &Nothing);
    const bool report = Scenario("load, report, unload", path, &Report);
    CoUninitialize();
    if (!idle || !report) return 1;
    std::printf("ok: %d loads and unloads each left nothing behind\n", kCycles);
    return 0;
}
