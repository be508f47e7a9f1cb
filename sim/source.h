// Shared by the source files of the simulation layer: the installed
// machine's context, profile lookups that ignore case where Windows does,
// and the hook installer. Each source file answers one operating-system
// source in both directions, so that replay and record cannot drift apart.
#pragma once

#include <windows.h>
#include <wbemidl.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "import_patch.h"
#include "machine.h"
#include "torvex/com_ptr.h"
#include "torvex/text.h"

namespace torvex::sim::detail {

struct Context {
    Profile* replay = nullptr;
    Profile* record = nullptr;
    Trace* trace = nullptr;
    bool readOnly = false;
    HMODULE library = nullptr;
    std::recursive_mutex mutex;

    bool live() const { return replay == nullptr; }
};

// The installed machine. Hooks run only while one is installed; objects the
// library still holds afterwards check Installed() before they record.
Context& Active();
bool Installed();

using Lock = std::lock_guard<std::recursive_mutex>;

// Member of an object by key: the exact key first, else one that differs only
// in case (for namespaces, registry paths, value and property names).
const Json* Child(const Json* object, const std::string& key);
// The same for writing: reuses a member that differs only in case, else adds it.
Json& Slot(Json& object, const std::string& key);

// The replay profile's value at a path, or null when it has none.
const Json* Replayed(std::initializer_list<std::string> path);
// The replay profile's value, for a set that changes the replayed state.
Json* ReplayedForChange(std::initializer_list<std::string> path);
// Keeps a value at a path of the recording profile (nothing when not
// recording); KeepNode gives the node itself (null when not recording).
void Keep(std::initializer_list<std::string> path, const Json& value);
Json* KeepNode(std::initializer_list<std::string> path);
// The node as an object (made one when it is not), or null when not recording.
Json* KeepObject(std::initializer_list<std::string> path);

// True when a call that would change the live machine must be refused (the
// machine is read-only); the refusal is traced.
bool Unchangeable(const char* source, const std::string& call);

// Writes one event to the trace (nothing when there is none).
void Note(const char* source, std::string call, std::string outcome, bool failed, std::string detail = {});

// Text helpers.
using text::Utf8;
using text::Wide;
std::string Utf8(const wchar_t* text);  // null reads as ""
std::string Hex(const void* data, size_t size);
bool ParseHex(const std::string& text, std::vector<uint8_t>& bytes);
std::string HresultText(long hr);  // "0x8004100E"
std::string HexNumber(unsigned long value);  // "0x20119"
long ParseHresult(const std::string& text);
// An error as a profile holds it: "0x" and eight hexadecimal digits (written
// by HresultText), or a number, as torvex-machine/1 and hand-made test
// machines hold Win32, configuration-manager and NTSTATUS codes.
unsigned long ErrorCode(const Json& value);
std::string GuidText(const GUID& guid);  // "{4D36E96C-E325-11CE-BFC1-08002BE10318}"
bool ParseGuid(const std::string& text, GUID& guid);
std::string Lower(std::string text);

// A torvex-machine/1 document brought to the current form before it is checked.
void UpgradeFromVersion1(Json& doc);

// Installs hooks for the Machine.
class Installer {
public:
    explicit Installer(HMODULE library, std::vector<ImportPatch>& patches) : library_(library), patches_(patches) {}

    // Points the library's import of `name` at `hook`; `real` receives what
    // the slot held (the real function). Nothing when it is not imported.
    template <typename Fn>
    void Hook(const char* name, Fn* hook, Fn*& real) {
        if (!Imports(library_, name)) return;
        patches_.emplace_back(library_, name, reinterpret_cast<void*>(hook));
        real = patches_.back().template Original<Fn*>();
    }

private:
    HMODULE library_;
    std::vector<ImportPatch>& patches_;
};

// One operating-system source.
struct SourceDef {
    const char* member;                           // its member in the profile
    void (*validate)(const Json& value, const At& at);
    void (*install)(Installer& installer);
    void (*reset)();                              // forgets per-machine state when the machine goes
};

// The sources, in the order they are installed; defined in their files.
extern const SourceDef kWmiSource;
extern const SourceDef kFirmwareSource;
extern const SourceDef kRegistrySource;
extern const SourceDef kDeviceSource;
extern const SourceDef kPowerSource;
extern const SourceDef kFileSource;
extern const SourceDef kWlanSource;
extern const SourceDef kAudioSource;
extern const SourceDef kDisplaySource;
extern const SourceDef kDxgiSource;
extern const SourceDef kVendorSource;

// COM classes created through the library's CoCreateInstance, by source.
HRESULT CreateWmiLocator(REFIID iid, void** out, HRESULT (*real)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*));
HRESULT CreateAudioEnumerator(REFIID iid, void** out,
                              HRESULT (*real)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*));
// Any other class: the vendor source decides (the graphics driver's server).
HRESULT CreateOtherClass(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, void** out,
                         HRESULT (*real)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*));

// The firmware method, reached through the WMI services (firmware source).
// `real` is the live services object, null under replay.
HRESULT FirmwareGetObject(IWbemServices* real, const std::wstring& nameSpace, const wchar_t* path,
                          IWbemClassObject** out);
HRESULT FirmwareExecMethod(IWbemServices* real, const std::wstring& nameSpace, const wchar_t* path,
                           const wchar_t* method, IWbemClassObject* input, IWbemClassObject** output);

// DXGI, loaded by the library from the system directory (dxgi source).
// DxgiLoad gives the live module, or under replay a stand-in module;
// DxgiProc answers the factory entry points of either (null: not DXGI's);
// DxgiFree is true when it released the stand-in.
HMODULE DxgiLoad(HMODULE (*real)(LPCWSTR), LPCWSTR path);
FARPROC DxgiProc(HMODULE module, const char* name, FARPROC (WINAPI* real)(HMODULE, LPCSTR));
bool DxgiFree(HMODULE module);

// What the library holds, by source (see Machine::Holding).
size_t HeldKeys();
size_t HeldSets();
size_t HeldFiles();
size_t HeldWlanMemory();
std::atomic<long>& LiveComObjects();

// Vendor presence, probed or copied (vendor source).
void RecordVendorPresence();

}  // namespace torvex::sim::detail
