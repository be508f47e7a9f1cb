#include "support/fake_registry.h"

#include <cstring>
#include <cwctype>

namespace torvex::test {
namespace {

struct Table {
    std::map<std::wstring, std::map<std::wstring, std::wstring>> keys;  // lower-case key -> value -> text
    std::vector<std::wstring> handles;                                   // open fake keys by handle index
    std::vector<REGSAM> access;
    int open = 0;
};
Table* g_table = nullptr;
constexpr uintptr_t kFakeKeyBase = 0x7A000000;

std::wstring Lower(std::wstring text) {
    for (auto& c : text) c = static_cast<wchar_t>(std::towlower(c));
    return text;
}

bool IsFake(HKEY key) {
    const auto value = reinterpret_cast<uintptr_t>(key);
    return g_table != nullptr && value >= kFakeKeyBase && value < kFakeKeyBase + g_table->handles.size();
}

LSTATUS WINAPI FakeOpen(HKEY root, LPCWSTR subKey, DWORD, REGSAM access, PHKEY result) {
    g_table->access.push_back(access);
    if (root != HKEY_LOCAL_MACHINE || subKey == nullptr) return ERROR_FILE_NOT_FOUND;
    const std::wstring key = Lower(subKey);
    if (g_table->keys.count(key) == 0) return ERROR_FILE_NOT_FOUND;
    g_table->handles.push_back(key);
    *result = reinterpret_cast<HKEY>(kFakeKeyBase + g_table->handles.size() - 1);
    ++g_table->open;
    return ERROR_SUCCESS;
}

LSTATUS WINAPI FakeQuery(HKEY key, LPCWSTR name, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD size) {
    if (!IsFake(key)) return ERROR_INVALID_HANDLE;
    const auto& values = g_table->keys[g_table->handles[reinterpret_cast<uintptr_t>(key) - kFakeKeyBase]];
    auto it = values.find(name != nullptr ? name : L"");
    if (it == values.end()) return ERROR_FILE_NOT_FOUND;
    const DWORD needed = static_cast<DWORD>((it->second.size() + 1) * sizeof(wchar_t));
    if (type != nullptr) *type = REG_SZ;
    if (data == nullptr) {
        if (size != nullptr) *size = needed;
        return ERROR_SUCCESS;
    }
    if (size == nullptr) return ERROR_INVALID_PARAMETER;
    if (*size < needed) {
        *size = needed;
        return ERROR_MORE_DATA;
    }
    std::memcpy(data, it->second.c_str(), needed);
    *size = needed;
    return ERROR_SUCCESS;
}

LSTATUS WINAPI FakeClose(HKEY key) {
    if (!IsFake(key)) return RegCloseKey(key);
    --g_table->open;
    return ERROR_SUCCESS;
}

}  // namespace

FakeRegistry::FakeRegistry()
    : open_(Redirect("RegOpenKeyExW", &FakeOpen)),
      query_(Redirect("RegQueryValueExW", &FakeQuery)),
      close_(Redirect("RegCloseKey", &FakeClose)) {
    g_table = new Table();
}

FakeRegistry::~FakeRegistry() {
    delete g_table;
    g_table = nullptr;
}

void FakeRegistry::SetText(const std::wstring& subKey, const std::wstring& valueName, const std::wstring& text) {
    g_table->keys[Lower(subKey)][valueName] = text;
}

void FakeRegistry::AddKey(const std::wstring& subKey) { g_table->keys[Lower(subKey)]; }

std::vector<REGSAM> FakeRegistry::OpenAccess() const { return g_table->access; }

int FakeRegistry::OpenKeys() const { return g_table->open; }

}  // namespace torvex::test
