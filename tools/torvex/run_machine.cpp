// The machine beneath the library while a command runs, the run's trace, and
// the library calls routed through it so that a missing answer knows which
// operating-system call came back empty.
#include <memory>
#include <type_traits>

#include "tool.h"

namespace tool {
namespace {

using torvex::sim::Machine;
using torvex::sim::Profile;
using torvex::sim::Trace;

Trace g_trace;
Profile* g_replay = nullptr;
std::wstring g_replayFile;
Profile* g_record = nullptr;
std::unique_ptr<Machine> g_machine;
Api g_real;
size_t g_callStart = 0;

void Mark() { g_callStart = g_trace.Size(); }

// Each export as the library resolves it, marking where its calls begin.
template <typename Fn, Fn Api::*Slot>
struct Traced;
template <typename R, typename... Args, R (*Api::*Slot)(Args...)>
struct Traced<R (*)(Args...), Slot> {
    static R Call(Args... args) {
        Mark();
        return (g_real.*Slot)(args...);
    }
};

template <auto Slot>
void Route(Api& api) {
    api.*Slot = &Traced<std::remove_reference_t<decltype(api.*Slot)>, Slot>::Call;
}

void Install() {
    g_machine.reset();
    // While recording, the live machine is never changed: capture asks only.
    g_machine = std::make_unique<Machine>(Library().module,
                                          torvex::sim::MachineOptions{g_replay, g_record, &g_trace, g_record != nullptr});
}

// `torvex replay FILE COMMAND...`
int RunReplay(const std::vector<std::wstring>& args) {
    if (args.size() < 2) return UsageError("replay", "expected a profile and a command");
    if (args[1] == L"replay" || args[1] == L"trace") return UsageError("replay", "cannot replay " + Utf8(args[1]));
    std::unique_ptr<Profile> profile;
    try {
        profile = std::make_unique<Profile>(Profile::Load(args[0]));
    } catch (const torvex::sim::ProfileError& e) {
        PrintError(std::string("torvex replay: ") + e.what());
        return kExitUsage;
    }
    g_replay = profile.get();
    g_replayFile = args[0];
    const int status = Run(std::vector<std::wstring>(args.begin() + 1, args.end()));
    g_replay = nullptr;
    g_replayFile.clear();
    return status;
}

// `torvex trace COMMAND...`
int RunTrace(const std::vector<std::wstring>& args) {
    if (args.empty()) return UsageError("trace", "expected a command");
    if (args[0] == L"trace" || args[0] == L"replay") return UsageError("trace", "cannot trace " + Utf8(args[0]));
    g_trace.Clear();
    const int status = Run(args);
    std::string text = "operating-system calls of torvex";
    bool json = false;
    for (const auto& arg : args) {
        text += ' ';
        text += Utf8(arg);
        json = json || arg == L"--json";
    }
    text += ":\n" + g_trace.Render();
    // A JSON document stays alone on standard output.
    if (json) {
        PrintError(text);
    } else {
        PrintLine();
        Print(text);
    }
    return status;
}

const CommandRegistration kReplay("replay", "replay FILE COMMAND [ARGS...]",
                                  "run a command with the machine answering from a profile",
                                  "torvex replay laptop.json report --json", RunReplay);
const CommandRegistration kTrace("trace", "trace COMMAND [ARGS...]",
                                 "run a command and list every operating-system call the library made, by class",
                                 "torvex trace disk 0", RunTrace);

}  // namespace

Trace& RunTrace() { return g_trace; }

std::string Why() { return g_trace.Reason(g_callStart); }

void TraceCalls(Api& api) {
    g_real = api;
    Route<&Api::HalInit>(api);
    Route<&Api::HalOpenDevice>(api);
    Route<&Api::HalCloseDevice>(api);
    Route<&Api::HalRead>(api);
    Route<&Api::HalWrite>(api);
    Route<&Api::HalQueryInformation>(api);
    Route<&Api::HalSetInformation>(api);
    Route<&Api::HalControl>(api);
    Route<&Api::HalSetCallback>(api);
}

int RunOnMachine(CommandFn run, const std::vector<std::wstring>& args, bool machine) {
    // A machine installed by the host of these commands (a test) stays as it is.
    if (!machine || Machine::Installed()) return run(args);
    Install();
    const int status = run(args);
    g_machine.reset();
    g_record = nullptr;
    return status;
}

bool RecordInto(Profile* profile) {
    if (!g_machine) return false;
    g_record = profile;
    Install();
    return true;
}

void RecordVendorPresence() {
    if (g_machine) g_machine->RecordVendorPresence();
}

Profile* ReplayedProfile() { return g_replay; }

const std::wstring& ReplayedFile() { return g_replayFile; }
bool CalledSince(const std::string& source, const std::string& call, const std::string& outcome) {
    const std::vector<torvex::sim::Event> events = g_trace.Events();
    for (size_t i = g_callStart; i < events.size(); ++i)
        if (events[i].source == source && events[i].call.rfind(call, 0) == 0 && events[i].outcome.rfind(outcome, 0) == 0)
            return true;
    return false;
}

}  // namespace tool
