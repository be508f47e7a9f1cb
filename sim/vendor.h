// Shared by the vendor libraries of the simulation (the AMD Display Library,
// the Intel Graphics Control Library) and the loader hooks that hand them to
// the library. A vendor library is one member of "vendor" in the profile:
//
//   false   the library does not exist on the machine
//   true    it exists, but nothing of it was recorded (torvex-machine/1):
//           replay treats it as absent, as /1 did
//   {...}   what each entry point the library called answered, replayed
//
// Under replay a recorded library loads as a stand-in module whose entry
// points answer from the profile; live, the real library loads and every
// entry point the library resolves is wrapped so that its answers are kept.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "source.h"
#include "torvex/graphics_server.h"

namespace torvex::sim::detail {

struct VendorLibrary {
    const char* file;  // its member in "vendor", e.g. "atiadlxx.dll"
    // Checks the recorded object.
    void (*validate)(const Json& recorded, const At& at);
    // The simulation's function for an entry point the library resolves:
    // wraps `real` when live, answers from the profile when `real` is null.
    // Null when the simulation does not know the name.
    FARPROC (*entry)(const char* name, FARPROC real);
    // Forgets per-machine state (handles, contexts) when the machine goes.
    void (*reset)();
};

// A simulation function as the entry point GetProcAddress hands out.
template <typename Fn>
FARPROC Proc(Fn* function) {
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(function));
}

extern const VendorLibrary kAdlLibrary;
extern const VendorLibrary kIgclLibrary;

// The recorded object of a library under replay (null when it is not
// recorded), and the same for the recording.
const Json* ReplayedLibrary(const char* file);
Json* ReplayedLibraryForChange(const char* file);
Json* RecordedLibrary(const char* file);

// Memory a vendor library handed to the library, which the library frees
// with the C runtime's free: handed out here, checked back by the free hook.
void HandedOut(void* block);
size_t HeldVendorMemory();

// Validation shared by the vendor libraries.
void ExpectResult(const Json& value, const At& at);  // a 32-bit result code, signed or not
void ExpectNames(const Json& names, const At& at);    // an array of entry-point names
// An answer's result code (its "result", or another member), 0 when it has none.
int32_t ResultOf(const Json* answer, const char* member = "result");
// True when the recorded object lists the entry point as missing.
bool Missing(const Json& library, const char* name);

// Capture asks the live Intel library what a set would read first (its
// devices, outputs, their properties and blocks), so that a replayed set
// finds them; nothing is changed.
void ProbeIgcl(HMODULE module, FARPROC(WINAPI* proc)(HMODULE, LPCSTR));

// The graphics driver's COM server (graphics_server_source.cpp): the member
// "graphics_server", and its objects, which the library keeps for the process.
void ValidateGraphicsServer(const Json& recorded, const At& at);
HRESULT CreateGraphicsServer(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, void** out,
                             HRESULT (*real)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*));
long LiveGraphicsServers();

// What a vendor library still holds, by library (see Machine::Holding).
size_t HeldAdlContexts();
size_t HeldIgclHandles();
size_t HeldVendorModules();

}  // namespace torvex::sim::detail
