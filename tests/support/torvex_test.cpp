#include "support/torvex_test.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <set>

namespace torvex::test {

HMODULE TorvexModule() {
    // Loaded once for the whole test program and never unloaded, so that
    // import patches always address the same image.
    static HMODULE module = LoadLibraryW((ProgramDirectory() + L"\\Torvex.dll").c_str());
    return module;
}

std::wstring ProgramDirectory() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring text(path);
    return text.substr(0, text.find_last_of(L"\\/"));
}

namespace {

template <typename Visit>
void ForEachImportSlot(HMODULE module, const char* function, Visit visit) {
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (dir.VirtualAddress == 0) return;
    for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); desc->Name != 0;
         ++desc) {
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(
            base + (desc->OriginalFirstThunk != 0 ? desc->OriginalFirstThunk : desc->FirstThunk));
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + desc->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
            auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (std::strcmp(reinterpret_cast<const char*>(byName->Name), function) == 0)
                visit(reinterpret_cast<void**>(&slots->u1.Function));
        }
    }
}

void WriteSlot(void** slot, void* value) {
    DWORD old = 0;
    VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
    *slot = value;
    VirtualProtect(slot, sizeof(void*), old, &old);
}

}  // namespace

ImportPatch::ImportPatch(const char* function, void* replacement, HMODULE module) {
    ForEachImportSlot(module, function, [&](void** slot) {
        if (original_ == nullptr) original_ = *slot;
        slots_.push_back(slot);
        WriteSlot(slot, replacement);
    });
    if (slots_.empty()) ADD_FAILURE() << "Torvex.dll does not import " << function;
}

ImportPatch::ImportPatch(ImportPatch&& other) noexcept
    : slots_(std::move(other.slots_)), original_(other.original_) {
    other.slots_.clear();
}

ImportPatch::~ImportPatch() {
    for (void** slot : slots_) WriteSlot(slot, original_);
}

bool Imports(const char* function, HMODULE module) {
    bool found = false;
    ForEachImportSlot(module, function, [&](void**) { found = true; });
    return found;
}

namespace {
std::wstring g_refusedText;
std::set<BSTR> g_liveStrings;

BSTR WINAPI RefusingSysAllocString(const OLECHAR* text) {
    if (text != nullptr && !g_refusedText.empty() && g_refusedText == text) return nullptr;
    BSTR string = SysAllocString(text);
    if (string != nullptr) g_liveStrings.insert(string);
    return string;
}

void WINAPI CountingSysFreeString(BSTR string) {
    g_liveStrings.erase(string);
    SysFreeString(string);
}
}  // namespace

BstrRefusal::BstrRefusal()
    : allocate_(Redirect("SysAllocString", &RefusingSysAllocString)),
      free_(Redirect("SysFreeString", &CountingSysFreeString)) {
    g_refusedText.clear();
    g_liveStrings.clear();
}

BstrRefusal::~BstrRefusal() { g_refusedText.clear(); }

void BstrRefusal::Refuse(const std::wstring& text) { g_refusedText = text; }

size_t BstrRefusal::LiveStrings() const { return g_liveStrings.size(); }

namespace {
std::mutex g_debugMutex;
std::vector<std::wstring> g_debugMessages;

void WINAPI CaptureOutputDebugStringW(LPCWSTR text) {
    std::lock_guard<std::mutex> lock(g_debugMutex);
    g_debugMessages.emplace_back(text != nullptr ? text : L"");
}
}  // namespace

DebugCapture::DebugCapture() : patch_(Redirect("OutputDebugStringW", &CaptureOutputDebugStringW)) { Clear(); }

DebugCapture::~DebugCapture() = default;

std::vector<std::wstring> DebugCapture::Messages() const {
    std::lock_guard<std::mutex> lock(g_debugMutex);
    return g_debugMessages;
}

void DebugCapture::Clear() {
    std::lock_guard<std::mutex> lock(g_debugMutex);
    g_debugMessages.clear();
}

bool DebugCapture::Contains(const std::wstring& text) const {
    for (const auto& message : Messages())
        if (message == text) return true;
    return false;
}

}  // namespace torvex::test
