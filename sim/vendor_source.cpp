// Libraries the library loads by name, and COM classes other than WMI and
// Core Audio. DXGI is answered by its own source; the AMD Display Library and
// the Intel Graphics Control Library by theirs (vendor.h), the graphics
// driver's COM server by graphics_server_source.cpp. The enclave service is
// only noted as present or absent: the library's processor gate never lets
// it load, so there is nothing of it to record.
//
//   "vendor": {"atiadlxx.dll": {...}, "ControlLib.dll": false, "Vaultrun.dll": true, "graphics_server": {...}}
#include <algorithm>
#include <atomic>
#include <cwchar>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "torvex/graphics_server.h"
#include "torvex/program_directory.h"
#include "vendor.h"

namespace torvex::sim::detail {
namespace {

using LoadLibraryWFn = HMODULE(WINAPI*)(LPCWSTR);
using LoadLibraryExWFn = HMODULE(WINAPI*)(LPCWSTR, HANDLE, DWORD);
using GetProcAddressFn = FARPROC(WINAPI*)(HMODULE, LPCSTR);
using FreeLibraryFn = BOOL(WINAPI*)(HMODULE);
using FreeFn = void(__cdecl*)(void*);

LoadLibraryWFn g_load = nullptr;
LoadLibraryExWFn g_loadEx = nullptr;
GetProcAddressFn g_proc = nullptr;
FreeLibraryFn g_free = nullptr;
FreeFn g_crtFree = nullptr;

constexpr char kService[] = "Vaultrun.dll";
constexpr char kServer[] = "graphics_server";

// The libraries the simulation can answer for; each has a stand-in module
// under replay (the address of its byte).
const VendorLibrary* const kLibraries[] = {&kAdlLibrary, &kIgclLibrary};
constexpr size_t kLibraryCount = sizeof(kLibraries) / sizeof(kLibraries[0]);
char g_standIns[kLibraryCount];

// Modules handed to the library and not freed yet, with the library each is.
std::map<HMODULE, std::pair<const VendorLibrary*, size_t>> g_modules;

// Blocks a vendor library handed out, until the library frees them.
std::mutex g_blocksMutex;
std::set<void*> g_blocks;
std::atomic<size_t> g_blockCount{0};

std::wstring FileName(LPCWSTR path) {
    const std::wstring text = path != nullptr ? path : L"";
    const size_t slash = text.find_last_of(L"\\/");
    return slash == std::wstring::npos ? text : text.substr(slash + 1);
}

bool Named(LPCWSTR path, const char* file) { return Lower(Utf8(FileName(path))) == Lower(file); }

HMODULE StandIn(size_t index) { return reinterpret_cast<HMODULE>(&g_standIns[index]); }
bool IsStandIn(HMODULE module) {
    const auto* byte = reinterpret_cast<const char*>(module);
    return byte >= g_standIns && byte < g_standIns + kLibraryCount;
}

void Validate(const Json& vendor, const At& at) {
    ExpectObject(vendor, at);
    ExpectOnly(vendor, at, {kAdlLibrary.file, kIgclLibrary.file, kService, kServer});
    for (const auto& [name, value] : vendor.items()) {
        if (value.is_boolean()) continue;
        if (name == kService) ExpectBool(value, at / name);  // never loaded, so never recorded
        ExpectObject(value, at / name);
        if (name == kServer) ValidateGraphicsServer(value, at / name);
        for (const VendorLibrary* library : kLibraries)
            if (name == library->file) library->validate(value, at / name);
    }
}

// Live: the real library, noted and, when recording, kept as a recorded
// object that its entry points fill. Replay: the stand-in of a recorded one.
HMODULE LoadVendor(size_t index, const std::string& asked, const std::function<HMODULE()>& real) {
    const VendorLibrary& library = *kLibraries[index];
    Lock lock(Active().mutex);
    HMODULE module = nullptr;
    if (Active().live()) {
        module = real();
        if (module == nullptr) Keep({"vendor", library.file}, false);
        else RecordedLibrary(library.file);  // recorded as an object, which its entry points fill
        Note("library", library.file, module != nullptr ? "loaded" : "did not load", module == nullptr, asked);
    } else {
        const Json* recorded = Replayed({"vendor", library.file});
        if (recorded != nullptr) Keep({"vendor", library.file}, *recorded);
        if (recorded != nullptr && recorded->is_object()) {
            module = StandIn(index);
            Note("library", library.file, "loaded (replayed)", false, asked);
        } else {
            Note("library", library.file,
                 recorded == nullptr || !recorded->get<bool>()
                     ? "absent"
                     : "absent under replay (present on the captured machine, not recorded)",
                 true, asked);
        }
    }
    if (module == nullptr) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    auto& entry = g_modules[module];
    entry.first = &library;
    ++entry.second;
    return module;
}

// The enclave service: loaded live as it is, absent under replay.
HMODULE LoadService(const std::function<HMODULE()>& real) {
    Lock lock(Active().mutex);
    if (Active().live()) {
        HMODULE module = real();
        Keep({"vendor", kService}, module != nullptr);
        Note("library", kService, module != nullptr ? "loaded" : "did not load", module == nullptr);
        return module;
    }
    const Json* present = Replayed({"vendor", kService});
    if (present != nullptr) Keep({"vendor", kService}, *present);
    Note("library", kService,
         present != nullptr && present->get<bool>() ? "absent under replay (present on the captured machine)"
                                                    : "absent",
         true);
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

// `asked`: the path as the library gave it, and the search flags.
HMODULE LoadNamed(LPCWSTR path, const std::string& asked, const std::function<HMODULE()>& real) {
    for (size_t i = 0; i < kLibraryCount; ++i)
        if (Named(path, kLibraries[i]->file)) return LoadVendor(i, asked, real);
    if (Named(path, kService)) return LoadService(real);
    return real();
}

bool IsDxgi(LPCWSTR path) { return _wcsicmp(FileName(path).c_str(), L"dxgi.dll") == 0; }

HMODULE WINAPI HookLoad(LPCWSTR path) {
    if (IsDxgi(path)) return DxgiLoad(g_load, path);
    return LoadNamed(path, Utf8(path), [&] { return g_load(path); });
}

HMODULE WINAPI HookLoadEx(LPCWSTR path, HANDLE file, DWORD flags) {
    return LoadNamed(path, Utf8(path) + ", flags " + HexNumber(flags), [&] { return g_loadEx(path, file, flags); });
}

FARPROC WINAPI HookProc(HMODULE module, LPCSTR name) {
    if (FARPROC proc = DxgiProc(module, name, g_proc)) return proc;
    Lock lock(Active().mutex);
    auto found = g_modules.find(module);
    if (found == g_modules.end() || name == nullptr || reinterpret_cast<uintptr_t>(name) <= 0xFFFF)
        return g_proc(module, name);
    const VendorLibrary& library = *found->second.first;
    const bool standIn = IsStandIn(module);
    FARPROC real = standIn ? nullptr : g_proc(module, name);
    FARPROC proc = nullptr;
    if (!standIn) {
        if (real == nullptr) {
            if (Json* recorded = RecordedLibrary(library.file)) {
                Json& missing = (*recorded)["missing"];
                if (!missing.is_array()) missing = Json::array();
                if (std::find(missing.begin(), missing.end(), Json(name)) == missing.end()) missing.push_back(name);
            }
        } else {
            proc = library.entry(name, real);
            if (proc == nullptr) proc = real;
        }
    } else if (const Json* recorded = ReplayedLibrary(library.file); recorded != nullptr && !Missing(*recorded, name)) {
        proc = library.entry(name, nullptr);
    }
    if (proc == nullptr) {
        Note("library", std::string(library.file) + " " + name, "no such entry point", true);
        SetLastError(ERROR_PROC_NOT_FOUND);
    }
    return proc;
}

// Freeing is traced as well, so that a test sees the library let a vendor
// library or dxgi.dll go.
BOOL WINAPI HookFree(HMODULE module) {
    if (DxgiFree(module)) return TRUE;
    {
        Lock lock(Active().mutex);
        auto found = g_modules.find(module);
        if (found != g_modules.end()) {
            Note("library", found->second.first->file, "freed", false);
            const bool standIn = IsStandIn(module);
            if (--found->second.second == 0) g_modules.erase(found);
            if (standIn) return TRUE;
        }
    }
    return g_free(module);
}

// The record heap's free (ucrtbase.dll's), as the library calls it: a block
// a vendor library handed out comes back here.
void __cdecl HookCrtFree(void* block) {
    if (block != nullptr && g_blockCount.load() != 0) {
        std::lock_guard<std::mutex> lock(g_blocksMutex);
        if (g_blocks.erase(block) != 0) g_blockCount = g_blocks.size();
    }
    g_crtFree(block);
}

bool FileExists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::wstring SystemDirectory() {
    wchar_t directory[MAX_PATH] = {};
    GetSystemDirectoryW(directory, MAX_PATH);
    return directory;
}

void Install(Installer& installer) {
    installer.Hook("LoadLibraryW", &HookLoad, g_load);
    installer.Hook("LoadLibraryExW", &HookLoadEx, g_loadEx);
    installer.Hook("GetProcAddress", &HookProc, g_proc);
    installer.Hook("FreeLibrary", &HookFree, g_free);
    installer.Hook("ucrtbase.dll!free", &HookCrtFree, g_crtFree);
}

void Reset() {
    g_modules.clear();
    {
        std::lock_guard<std::mutex> lock(g_blocksMutex);
        g_blocks.clear();
        g_blockCount = 0;
    }
    for (const VendorLibrary* library : kLibraries) library->reset();
}

}  // namespace

const Json* ReplayedLibrary(const char* file) {
    const Json* recorded = Replayed({"vendor", file});
    return recorded != nullptr && recorded->is_object() ? recorded : nullptr;
}

Json* ReplayedLibraryForChange(const char* file) { return const_cast<Json*>(ReplayedLibrary(file)); }

Json* RecordedLibrary(const char* file) { return KeepObject({"vendor", file}); }

void HandedOut(void* block) {
    if (block == nullptr) return;
    std::lock_guard<std::mutex> lock(g_blocksMutex);
    g_blocks.insert(block);
    g_blockCount = g_blocks.size();
}

size_t HeldVendorMemory() { return g_blockCount; }

size_t HeldVendorModules() {
    Lock lock(Active().mutex);
    size_t held = 0;
    // The AMD library is kept for the process on purpose; the others go back after every use.
    for (const auto& [module, entry] : g_modules)
        if (entry.first != &kAdlLibrary) held += entry.second;
    return held;
}

void ExpectResult(const Json& value, const At& at) { ExpectInteger(value, at, INT32_MIN, UINT32_MAX); }

void ExpectNames(const Json& names, const At& at) {
    ExpectArray(names, at);
    for (size_t i = 0; i < names.size(); ++i) ExpectString(names[i], at / i);
}

int32_t ResultOf(const Json* answer, const char* member) {
    if (answer == nullptr || !answer->is_object() || !answer->contains(member)) return 0;
    const Json& result = (*answer)[member];
    return result.is_number_unsigned() ? static_cast<int32_t>(result.get<uint32_t>()) : result.get<int32_t>();
}

bool Missing(const Json& library, const char* name) {
    const Json* missing = Child(&library, "missing");
    return missing != nullptr && missing->is_array() && std::find(missing->begin(), missing->end(), Json(name)) != missing->end();
}

HRESULT CreateOtherClass(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, void** out,
                         HRESULT (*real)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*)) {
    if (IsEqualCLSID(clsid, kGfxServerClass)) return CreateGraphicsServer(clsid, outer, context, iid, out, real);
    const std::string call = "class " + GuidText(clsid);
    if (Active().live()) {
        const HRESULT hr = real(clsid, outer, context, iid, out);
        Lock lock(Active().mutex);
        Note("com", call, SUCCEEDED(hr) ? "created" : "not created (" + HresultText(hr) + ")", FAILED(hr));
        return hr;
    }
    Lock lock(Active().mutex);
    if (out != nullptr) *out = nullptr;
    Note("com", call, "absent", true);
    return REGDB_E_CLASSNOTREG;
}

// Libraries and the server the library never reached are noted as present
// or absent; what it did reach is already recorded.
void RecordVendorPresence() {
    Lock lock(Active().mutex);
    if (!Active().live()) {
        if (const Json* vendor = Replayed({"vendor"}))
            for (const auto& [name, value] : vendor->items())
                if (const Json* kept = KeepNode({"vendor"}); kept != nullptr && !Child(kept, name)) Keep({"vendor", name}, value);
        return;
    }
    auto note = [](const char* name, bool exists) {
        const Json* kept = KeepNode({"vendor"});
        const Json* current = kept != nullptr ? Child(kept, name) : nullptr;
        if (current == nullptr || !current->is_object()) Keep({"vendor", name}, exists);
    };
    // The Intel library as a set would read it, when the library loaded it;
    // through the same calls the library's loads go to.
    if (const Json* vendor = KeepNode({"vendor"}); vendor != nullptr && Child(vendor, kIgclLibrary.file) != nullptr &&
                                                   Child(vendor, kIgclLibrary.file)->is_object() && g_loadEx != nullptr) {
        if (HMODULE module = g_loadEx(L"ControlLib.dll", nullptr, 0xA00)) {
            ProbeIgcl(module, g_proc);
            g_free(module);
        }
    }
    note(kAdlLibrary.file, FileExists(SystemDirectory() + L"\\atiadlxx.dll"));
    note(kIgclLibrary.file,
         FileExists(ProgramDirectory() + L"\\ControlLib.dll") || FileExists(SystemDirectory() + L"\\ControlLib.dll"));
    note(kService, FileExists(ProgramDirectory() + L"\\Vaultrun.dll"));
    HKEY key = nullptr;
    const std::wstring path = L"CLSID\\" + Wide(GuidText(kGfxServerClass));
    const bool registered = RegOpenKeyExW(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS;
    if (key != nullptr) RegCloseKey(key);
    note(kServer, registered);
}

const SourceDef kVendorSource = {"vendor", Validate, Install, Reset};

}  // namespace torvex::sim::detail
