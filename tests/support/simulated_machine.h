// A machine profile beneath Torvex.dll for one test, answered by the same
// simulation layer as `torvex replay`:
//
//   SimulatedMachine machine(Json{{"registry", {{"HARDWARE\\DESCRIPTION\\System\\BIOS", {{"BIOSVendor", {{"sz", "Insyde"}}}}}}}});
//   SimulatedMachine laptop(MachineFile{"intel-laptop"});
//   ... call the exports ...
//   EXPECT_EQ(machine.Calls("registry"), ...);
//
// The profile is checked as `torvex replay` checks it. Sets change
// `profile`, and a test may change it between calls.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "machine.h"

namespace torvex::test {

using sim::Json;

struct MachineFile {
    const char* name;  // a profile of tests/machines, without ".json"
};

class SimulatedMachine {
public:
    explicit SimulatedMachine(Json members);  // "schema" is added
    explicit SimulatedMachine(MachineFile file);
    ~SimulatedMachine();
    SimulatedMachine(const SimulatedMachine&) = delete;
    SimulatedMachine& operator=(const SimulatedMachine&) = delete;

    // "call [detail] -> outcome" lines of one source, in order.
    std::vector<std::string> Calls(const std::string& source) const { return trace.Calls(source); }
    // Only the calls, without details and outcomes.
    std::vector<std::string> Asked(const std::string& source) const;

    sim::Profile profile;
    sim::Trace trace;

private:
    std::unique_ptr<sim::Machine> machine_;
};

// The text of a profile of tests/machines.
std::string MachineText(const char* name);

// Fails the current test when the library still holds anything of the
// simulated machine (COM objects, keys, device sets, files, Wlan memory).
void ExpectNothingHeld();

}  // namespace torvex::test
