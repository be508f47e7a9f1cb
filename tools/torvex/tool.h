// torvex.exe: the support engineer's look at a machine through Torvex.dll.
// The Hal API is reached as the suite's services reach it: the DLL is loaded
// at run time and its exports looked up by name.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "machine.h"
#include "torvex.h"
#include "torvex/text.h"

namespace tool {

// The Hal API and module entry points, resolved from the loaded DLL.
struct Api {
    HMODULE module = nullptr;
    decltype(&::HalInit) HalInit = nullptr;
    decltype(&::HalOpenDevice) HalOpenDevice = nullptr;
    decltype(&::HalCloseDevice) HalCloseDevice = nullptr;
    decltype(&::HalRead) HalRead = nullptr;
    decltype(&::HalWrite) HalWrite = nullptr;
    decltype(&::HalQueryInformation) HalQueryInformation = nullptr;
    decltype(&::HalSetInformation) HalSetInformation = nullptr;
    decltype(&::HalControl) HalControl = nullptr;
    decltype(&::HalSetCallback) HalSetCallback = nullptr;
};

// Loads Torvex.dll from the tool's own directory; exits with a message when
// it cannot.
const Api& Library();

// Free a record the library handed out (the C runtime's free, as the DLL's malloc).
void FreeRecord(void* record);

// A record the library handed out, freed when its owner goes.
struct RecordRelease {
    void operator()(void* record) const { FreeRecord(record); }
};
template <typename T = void>
using Record = std::unique_ptr<T, RecordRelease>;

// HalInit(type) with the record it hands out held: `ready` is its answer, and
// a record it leaves behind while refusing is freed as well.
template <typename T = void>
struct Initialised {
    bool ready = false;
    Record<T> record;
    T* get() const { return record.get(); }
};
template <typename T = void>
Initialised<T> Init(HalDeviceType type) {
    void* out = nullptr;
    Initialised<T> result;
    result.ready = Library().HalInit(type, &out) != 0;
    result.record.reset(static_cast<T*>(out));
    return result;
}

// Report model: sections of named facts, rendered as aligned text or JSON.
struct Fact {
    std::string name;
    std::optional<std::string> text;   // text value
    std::optional<double> number;      // numeric value
    std::string unit;                  // after a number in text form; the suffix of its JSON key
    std::string reason;                // why the fact is not available
    std::string source;                // where the library takes it from, where a reader could mistake it
};

struct Section {
    std::string key;    // JSON key
    std::string title;  // heading in text form
    std::string note;   // a line of its own (e.g. "not available: ...")
    std::vector<Fact> facts;
    std::vector<Section> children;  // per-device subsections (disks, modules, ...)

    void Text(const std::string& name, const std::string& value);
    void Number(const std::string& name, double value, const std::string& unit = "");
    // A single-precision answer, kept as the shortest decimal that reads back
    // as the same float (41.7, not 41.70000076293945).
    void Single(const std::string& name, float value, const std::string& unit = "");
    // A number that is missing names its unit too: its JSON key is the same either way.
    void Missing(const std::string& name, const std::string& reason, const std::string& unit = "");
    // A fact the library is not asked for on this machine, for the reason given.
    void Absent(const std::string& name, const std::string& reason, const std::string& unit = "");
    // Says where the last fact comes from, for facts whose name promises more
    // than their source holds (shown beside it, and under "sources" in JSON).
    void Source(const std::string& source);
};

// A report section provider, registered by the file that implements it.
using SectionFn = void (*)(Section&);
struct SectionRegistration {
    SectionRegistration(int order, const char* key, const char* title, SectionFn fill);
};

// A command: torvex NAME ARGS...; returns the exit status
// (0 success, 1 usage error, 2 the library refused).
using CommandFn = int (*)(const std::vector<std::wstring>& args);
struct CommandRegistration {
    CommandRegistration(const char* name, const char* usage, const char* summary, const char* example,
                        CommandFn run);
};

// Runs one command line (without the program name); returns the exit status.
int Run(std::vector<std::wstring> args);

// The machine beneath the library while a command runs: the live machine, or
// a profile under `torvex replay`. Every call the library makes goes to the
// run's trace, so that a missing answer can say why.
torvex::sim::Trace& RunTrace();
// Why the last library call answered nothing: its most telling operating
// system call and outcome; "" when it asked the system nothing.
std::string Why();
// Makes the library's calls go through the trace (the exports as resolved).
void TraceCalls(Api& api);
// Runs a command with the machine installed (unless one already is).
int RunOnMachine(CommandFn run, const std::vector<std::wstring>& args, bool machine);
// From now on every answer is kept in `profile` as well (torvex capture);
// false when the library runs beneath a machine the tool did not install.
bool RecordInto(torvex::sim::Profile* profile);
// Notes which vendor libraries and servers exist, into the recording.
void RecordVendorPresence();
// Every query of every class and device, as `torvex capture` asks them (no set).
void AskEverything();
// The profile being replayed, or null; the file it came from, or "".
torvex::sim::Profile* ReplayedProfile();
const std::wstring& ReplayedFile();
// True when, since the last library call began, the library made a call of
// `source` whose identity starts with `call` and whose outcome starts with
// `outcome` (the back end a display initialisation chose, for instance).
bool CalledSince(const std::string& source, const std::string& call, const std::string& outcome);

constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;
constexpr int kExitRefused = 2;

// Console output in UTF-8.
void Print(const std::string& utf8);
void PrintLine(const std::string& utf8 = "");
void PrintError(const std::string& utf8);
using torvex::text::Utf8;
using torvex::text::Wide;
inline std::string Utf8(const wchar_t* text, size_t length) { return Utf8(std::wstring_view(text, length)); }

// Usage error: prints the message and the command's usage; returns kExitUsage.
int UsageError(const char* command, const std::string& message);

// Parses an unsigned decimal or 0x-hex number; nullopt when malformed.
std::optional<uint64_t> ParseNumber(const std::wstring& text);

// A narrow text answer (no terminator) as UTF-8: the library writes every
// narrow answer in the system's ANSI code page.
inline std::string FromAnsi(const void* bytes, uint32_t length) {
    return torvex::text::Utf8FromAnsi({static_cast<const char*>(bytes), length});
}

}  // namespace tool

namespace tool {

// For a class whose report shows only whether it initialises: HalInit(type)
// and a note when it answers 0. Frees a record it was given.
void InitOnlySection(Section& section, HalDeviceType type);

// "not available: HalInit(N) answered 0 (why)": why from the failed system
// call the trace saw, else `otherwise`.
std::string Refused(HalDeviceType type, const std::string& otherwise = "no system call failed",
                    const char* lead = "not available");

}  // namespace tool
