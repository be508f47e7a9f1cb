// msvc_twin.dll: the GCC side of the Microsoft-ABI host's checks (twin.h).
// It puts machine profiles beneath Torvex.dll with the simulation layer, runs
// the GCC-ABI members through the same case code as the host (members.h),
// and watches Torvex.dll's frees on ucrtbase.dll's heap and its debug
// messages through its imports. What it keeps lives in fixed arrays, so that
// watching adds nothing to the heaps the host measures.
#define TWIN_BUILDING_DLL

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "machine.h"
#include "support/simulated_machine.h"
#include "support/torvex_test.h"
#include "torvex.h"

namespace {

// The twin's results need no checks of their own: libstdc++ made them.
template <typename T>
void Returned(const T&) {}

}  // namespace

#include "msvc/members.h"

namespace {

std::unique_ptr<torvex::sim::Machine> g_machine;
torvex::sim::Profile g_profile;

using MallocFn = void*(__cdecl*)(size_t);
using FreeFn = void(__cdecl*)(void*);

std::unique_ptr<torvex::test::ImportPatch> g_mallocPatch;
std::unique_ptr<torvex::test::ImportPatch> g_freePatch;
std::unique_ptr<torvex::test::ImportPatch> g_debugPatch;
MallocFn g_ucrtMalloc = nullptr;
FreeFn g_ucrtFree = nullptr;

// Since TwinForget: the blocks Torvex.dll allocated and still holds, and the
// blocks it freed that it had not allocated (the host's).
constexpr size_t kTracked = 1 << 14;
const void* g_allocated[kTracked];
size_t g_allocatedCount = 0;
const void* g_freed[kTracked];
size_t g_freedCount = 0;

uint32_t g_messages = 0;
wchar_t g_lastMessage[1024];

void* __cdecl TrackingMalloc(size_t bytes) {
    void* block = g_ucrtMalloc(bytes);
    if (block != nullptr && g_allocatedCount < kTracked) g_allocated[g_allocatedCount++] = block;
    return block;
}

void __cdecl TrackingFree(void* block) {
    const auto own = std::find(g_allocated, g_allocated + g_allocatedCount, block);
    if (own != g_allocated + g_allocatedCount)
        *own = g_allocated[--g_allocatedCount];
    else if (block != nullptr && g_freedCount < kTracked)
        g_freed[g_freedCount++] = block;
    g_ucrtFree(block);
}

void WINAPI KeepingOutputDebugStringW(LPCWSTR text) {
    ++g_messages;
    wcsncpy(g_lastMessage, text != nullptr ? text : L"", 1023);
    g_lastMessage[1023] = L'\0';
}

void ReleaseRecord(void* record) { torvex::test::FreeRecord(record); }

}  // namespace

extern "C" {

TWIN_API int TwinInstallMachine(const char* name) {
    g_machine.reset();
    if (name == nullptr) return 1;
    try {
        g_profile = torvex::sim::Profile::Parse(torvex::test::MachineText(name), name);
        g_machine = std::make_unique<torvex::sim::Machine>(torvex::test::TorvexModule(),
                                                           torvex::sim::MachineOptions{&g_profile, nullptr, nullptr});
        return 1;
    } catch (...) {
        return 0;
    }
}

TWIN_API int TwinRun(TwinMember member, const TwinArgs* args, TwinAnswer* answer) {
    std::memset(answer, 0, sizeof(*answer));
    return twin::RunMember(member, args, answer, &ReleaseRecord);
}

// Torvex.dll's imports of ucrtbase.dll's malloc and free become the tracking ones.
TWIN_API int TwinWatch(void) {
    if (g_mallocPatch) return 1;
    g_mallocPatch = std::make_unique<torvex::test::ImportPatch>("ucrtbase.dll!malloc",
                                                                reinterpret_cast<void*>(&TrackingMalloc));
    g_freePatch = std::make_unique<torvex::test::ImportPatch>("ucrtbase.dll!free", reinterpret_cast<void*>(&TrackingFree));
    g_ucrtMalloc = g_mallocPatch->Original<MallocFn>();
    g_ucrtFree = g_freePatch->Original<FreeFn>();
    g_debugPatch = std::make_unique<torvex::test::ImportPatch>(
        "OutputDebugStringW", reinterpret_cast<void*>(&KeepingOutputDebugStringW));
    return g_mallocPatch->patched() && g_freePatch->patched() && g_debugPatch->patched() ? 1 : 0;
}

TWIN_API void TwinForget(void) {
    g_allocatedCount = 0;
    g_freedCount = 0;
    g_messages = 0;
    g_lastMessage[0] = L'\0';
}

TWIN_API uint32_t TwinFreed(const void* block) {
    if (block == nullptr) return static_cast<uint32_t>(g_freedCount);
    uint32_t times = 0;
    for (size_t i = 0; i < g_freedCount; ++i) times += g_freed[i] == block ? 1 : 0;
    return times;
}

TWIN_API int TwinHandedOut(const void* block) {
    const auto own = std::find(g_allocated, g_allocated + g_allocatedCount, block);
    if (block == nullptr || own == g_allocated + g_allocatedCount) return 0;
    *own = g_allocated[--g_allocatedCount];
    return 1;
}

TWIN_API uint32_t TwinMessages(wchar_t* last, uint32_t units) {
    if (last != nullptr && units != 0) {
        wcsncpy(last, g_lastMessage, units - 1);
        last[units - 1] = L'\0';
    }
    return g_messages;
}

}  // extern "C"
