// Libraries the library loads by name, and COM classes other than WMI and
// Core Audio. DXGI is answered by its own source. The vendor display
// libraries, the enclave service and the graphics driver's COM server are
// only noted as present or absent: replay treats every one of them as absent.
//
//   "vendor": {"atiadlxx.dll": false, "ControlLib.dll": true, "Vaultrun.dll": false, "graphics_server": false}
#include <cwchar>
#include <string>

#include "source.h"
#include "torvex/graphics_server.h"
#include "torvex/program_directory.h"

namespace torvex::sim::detail {
namespace {

using LoadLibraryWFn = HMODULE(WINAPI*)(LPCWSTR);
using LoadLibraryExWFn = HMODULE(WINAPI*)(LPCWSTR, HANDLE, DWORD);
using GetProcAddressFn = FARPROC(WINAPI*)(HMODULE, LPCSTR);
using FreeLibraryFn = BOOL(WINAPI*)(HMODULE);

LoadLibraryWFn g_load = nullptr;
LoadLibraryExWFn g_loadEx = nullptr;
GetProcAddressFn g_proc = nullptr;
FreeLibraryFn g_free = nullptr;

const char* const kLibraries[] = {"atiadlxx.dll", "ControlLib.dll", "Vaultrun.dll"};
constexpr char kServer[] = "graphics_server";

std::wstring FileName(LPCWSTR path) {
    const std::wstring text = path != nullptr ? path : L"";
    const size_t slash = text.find_last_of(L"\\/");
    return slash == std::wstring::npos ? text : text.substr(slash + 1);
}

const char* VendorOf(LPCWSTR path) {
    const std::string name = Lower(Utf8(FileName(path)));
    for (const char* library : kLibraries)
        if (name == Lower(library)) return library;
    return nullptr;
}

void Validate(const Json& vendor, const At& at) {
    ExpectObject(vendor, at);
    ExpectOnly(vendor, at, {kLibraries[0], kLibraries[1], kLibraries[2], kServer});
    for (const auto& [name, present] : vendor.items()) ExpectBool(present, at / name);
}

// A vendor library: loaded live and noted, refused under replay.
HMODULE LoadVendor(const char* name, const std::function<HMODULE()>& real) {
    Lock lock(Active().mutex);
    if (Active().live()) {
        HMODULE module = real();
        Keep({"vendor", name}, module != nullptr);
        Note("library", name, module != nullptr ? "loaded" : "did not load", module == nullptr);
        return module;
    }
    const Json* present = Replayed({"vendor", name});
    if (present != nullptr) Keep({"vendor", name}, *present);
    Note("library", name,
         present != nullptr && present->get<bool>() ? "absent under replay (present on the captured machine)"
                                                    : "absent",
         true);
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

bool IsDxgi(LPCWSTR path) { return _wcsicmp(FileName(path).c_str(), L"dxgi.dll") == 0; }

HMODULE WINAPI HookLoad(LPCWSTR path) {
    if (IsDxgi(path)) return DxgiLoad(g_load, path);
    if (const char* vendor = VendorOf(path)) return LoadVendor(vendor, [&] { return g_load(path); });
    return g_load(path);
}

HMODULE WINAPI HookLoadEx(LPCWSTR path, HANDLE file, DWORD flags) {
    if (const char* vendor = VendorOf(path)) return LoadVendor(vendor, [&] { return g_loadEx(path, file, flags); });
    return g_loadEx(path, file, flags);
}

FARPROC WINAPI HookProc(HMODULE module, LPCSTR name) {
    if (FARPROC proc = DxgiProc(module, name, g_proc)) return proc;
    return g_proc(module, name);
}

BOOL WINAPI HookFree(HMODULE module) { return DxgiFree(module) ? TRUE : g_free(module); }

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
}

}  // namespace

HRESULT CreateOtherClass(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, void** out,
                         HRESULT (*real)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*)) {
    const bool server = IsEqualCLSID(clsid, kGfxServerClass);
    const std::string call = server ? "graphics driver server" : "class " + GuidText(clsid);
    if (Active().live()) {
        const HRESULT hr = real(clsid, outer, context, iid, out);
        Lock lock(Active().mutex);
        if (server) Keep({"vendor", kServer}, SUCCEEDED(hr));
        Note("com", call, SUCCEEDED(hr) ? "created" : "not created (" + HresultText(hr) + ")", FAILED(hr));
        return hr;
    }
    Lock lock(Active().mutex);
    if (out != nullptr) *out = nullptr;
    const Json* present = server ? Replayed({"vendor", kServer}) : nullptr;
    if (present != nullptr) Keep({"vendor", kServer}, *present);
    Note("com", call,
         present != nullptr && present->get<bool>() ? "absent under replay (present on the captured machine)"
                                                    : "absent",
         true);
    return REGDB_E_CLASSNOTREG;
}

void RecordVendorPresence() {
    Lock lock(Active().mutex);
    if (!Active().live()) {
        if (const Json* vendor = Replayed({"vendor"})) Keep({"vendor"}, *vendor);
        return;
    }
    Keep({"vendor", kLibraries[0]}, FileExists(SystemDirectory() + L"\\atiadlxx.dll"));
    Keep({"vendor", kLibraries[1]},
         FileExists(ProgramDirectory() + L"\\ControlLib.dll") || FileExists(SystemDirectory() + L"\\ControlLib.dll"));
    Keep({"vendor", kLibraries[2]}, FileExists(ProgramDirectory() + L"\\Vaultrun.dll"));
    HKEY key = nullptr;
    const std::wstring path = L"CLSID\\" + Wide(GuidText(kGfxServerClass));
    const bool registered = RegOpenKeyExW(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS;
    if (key != nullptr) RegCloseKey(key);
    Keep({"vendor", kServer}, registered);
}

const SourceDef kVendorSource = {"vendor", Validate, Install, nullptr};

}  // namespace torvex::sim::detail
