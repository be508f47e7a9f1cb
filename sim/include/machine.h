// A machine beneath a loaded Torvex.dll: every operating-system call the
// library makes is answered from a profile (replay) or passed to the real
// system (live), optionally kept in a profile (record) and written to a
// trace. One scoped object: the constructor patches the library's imports,
// the destructor restores every one of them.
//
//   Profile profile = Profile::Load(L"laptop.json");
//   Machine machine(dll, {.replay = &profile});          // replay
//   Profile captured;
//   Machine machine(dll, {.record = &captured});          // live, recorded
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "profile.h"
#include "trace.h"

namespace torvex::sim {

struct MachineOptions {
    Profile* replay = nullptr;  // answers come from here; null: from the live machine
    Profile* record = nullptr;  // every answer is kept here as well
    Trace* trace = nullptr;     // every call is written here
    bool readOnly = false;      // live: every call that would change the machine is refused (capture's guard)
};

class Machine {
public:
    // One machine at a time per process; throws std::logic_error for a second.
    Machine(HMODULE library, MachineOptions options);
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // True while a machine is installed in this process.
    static bool Installed();

    // What the library holds of the simulated machine right now: handles,
    // keys, device sets, Wlan memory, COM objects, and what vendor libraries
    // handed it (contexts, handles, loaded libraries, memory), that it has
    // not given back. The graphics driver's server objects are counted apart:
    // the library keeps one for the process on purpose.
    struct Held {
        long comObjects = 0;
        size_t registryKeys = 0, deviceSets = 0, files = 0, wlanMemory = 0;
        size_t vendorContexts = 0, vendorHandles = 0, vendorLibraries = 0, vendorMemory = 0;
        long graphicsServers = 0;
        bool Any() const {
            return comObjects != 0 || registryKeys != 0 || deviceSets != 0 || files != 0 || wlanMemory != 0 ||
                   vendorContexts != 0 || vendorHandles != 0 || vendorLibraries != 0 || vendorMemory != 0;
        }
        std::string Describe() const;
    };
    static Held Holding();

    // Notes in the recording which vendor libraries and servers exist: probed
    // on the live machine (and the Intel library read as a set would read
    // it, when the library loaded it), copied from the profile under replay.
    void RecordVendorPresence();

    struct State;

private:
    std::unique_ptr<State> state_;
};

}  // namespace torvex::sim
