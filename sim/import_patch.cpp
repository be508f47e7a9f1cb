#include "import_patch.h"

#include <cstring>
#include <string>
#include <utility>

namespace torvex::sim {
namespace {

// `function` is a name, imported from any DLL, or "dll!name" for the one
// imported from that DLL (e.g. "ucrtbase.dll!free" beside msvcrt.dll's free).
template <typename Visit>
void ForEachImportSlot(HMODULE module, const char* function, Visit visit) {
    if (module == nullptr || function == nullptr) return;
    const char* bang = std::strchr(function, '!');
    const std::string dll = bang != nullptr ? std::string(function, bang) : std::string();
    if (bang != nullptr) function = bang + 1;
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (dir.VirtualAddress == 0) return;
    for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress); desc->Name != 0;
         ++desc) {
        if (!dll.empty() && _stricmp(reinterpret_cast<const char*>(base + desc->Name), dll.c_str()) != 0) continue;
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

ImportPatch::ImportPatch(HMODULE module, const char* function, void* replacement) {
    ForEachImportSlot(module, function, [&](void** slot) {
        if (original_ == nullptr) original_ = *slot;
        slots_.push_back(slot);
        WriteSlot(slot, replacement);
    });
}

ImportPatch::ImportPatch(ImportPatch&& other) noexcept
    : slots_(std::exchange(other.slots_, {})), original_(other.original_) {}

ImportPatch::~ImportPatch() {
    for (void** slot : slots_) WriteSlot(slot, original_);
}

bool Imports(HMODULE module, const char* function) {
    bool found = false;
    ForEachImportSlot(module, function, [&](void**) { found = true; });
    return found;
}

}  // namespace torvex::sim
