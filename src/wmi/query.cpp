// WMI queries: every one connects to the namespace anew, runs one WQL query,
// reads one property per row and releases everything before it returns.
#include <windows.h>
#include <comdef.h>
#include <wbemidl.h>

#include <algorithm>
#include <string>
#include <type_traits>

#include "common/codec.h"
#include "wmi/wmi.h"

namespace torvex::wmi {
namespace {

constexpr long kQueryFlags = WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY;  // 48
constexpr wchar_t kSeparator[] = L";";
constexpr wchar_t kLanguage[] = L"WQL";

// The process-wide security flag: HalWmi's exported static member.
bool* g_securityInitialized = nullptr;

// Runs the query and hands each row's value of the property to
// onRow(hasValue, value), which returns false to stop fetching; a failed Get
// and a VT_NULL value have no value. A string that could not be allocated
// stops the call before anything runs, so the caller's default stands.
template <typename OnRow>
void ForEachRow(const Target& target, BSTR language, BSTR text, BSTR name, OnRow onRow) {
    if (!target.initialized || language == nullptr || text == nullptr || name == nullptr) return;

    ComPtr<IWbemLocator> locator;
    ComPtr<IWbemServices> services;
    if (!ConnectWmi(target.nameSpace, locator, services)) return;

    ComPtr<IEnumWbemClassObject> rows;
    if (FAILED(services->ExecQuery(language, text, kQueryFlags, nullptr, rows.put())) || !rows) return;

    for (;;) {
        ComPtr<IWbemClassObject> row;
        ULONG fetched = 0;
        const HRESULT next = rows->Next(static_cast<long>(WBEM_INFINITE), 1, row.put(), &fetched);
        if (FAILED(next) || fetched == 0 || !row) break;
        Variant value;
        const bool hasValue = SUCCEEDED(row->Get(name, 0, value.get(), nullptr, nullptr)) && value->vt != VT_NULL;
        if (!onRow(hasValue, *value.get())) break;
    }
}

template <typename OnRow>
void ForEachRow(const Target& target, std::wstring_view query, std::wstring_view property, OnRow onRow) {
    const Bstr language = MakeBstr(kLanguage);
    const Bstr text = MakeBstr(query);
    const Bstr name = MakeBstr(property);
    ForEachRow(target, language.get(), text.get(), name.get(), onRow);
}

// What a row's value reads as: the field of the VARIANT the result needs,
// whatever the value's type. Only a non-null BSTR is text (up to its first NUL).
template <typename T>
std::optional<T> Read(const VARIANT& value) {
    if constexpr (std::is_same_v<T, std::wstring>) {
        if (value.vt != VT_BSTR || value.bstrVal == nullptr) return std::nullopt;
        return std::wstring(value.bstrVal);
    } else if constexpr (std::is_same_v<T, bool>) {
        return static_cast<unsigned short>(value.boolVal) == 0xFFFF;  // VARIANT_TRUE only
    } else if constexpr (std::is_same_v<T, uint32_t>) {
        return static_cast<uint32_t>(value.ulVal);
    } else {
        return static_cast<int64_t>(value.llVal);
    }
}

// A string of SelectUintForCpuCacheL1AndL2's query, which raises COM's
// out-of-memory error as a _bstr_t would: mingw-w64's header-only _com_error,
// which a host of the same toolchain catches by that name. _bstr_t itself is
// not used: mingw-w64's writes through a null block when allocation fails.
Bstr BstrOrRaise(std::wstring_view text) {
    Bstr string = MakeBstr(text);
    if (!string) throw _com_error(E_OUTOFMEMORY);
    return string;
}

}  // namespace

std::wstring SelectOf(std::wstring_view className, std::wstring_view property) {
    return L"SELECT " + std::wstring(property) + L" FROM " + std::wstring(className);
}

bool ShareSecurityFlag(bool* flag) {
    g_securityInitialized = flag;
    return false;
}

bool InitCom(bool& comInitialized) {
    ApartmentScope entered;
    if (entered.release()) comInitialized = true;  // the object's destructor pays it back
    return entered.usable();
}

bool InitSecurity() {
    if (*g_securityInitialized) return true;
    const HRESULT hr = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                            RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    if (SUCCEEDED(hr) || hr == RPC_E_TOO_LATE) {
        *g_securityInitialized = true;
        return true;
    }
    return false;
}

bool ConnectWmi(std::wstring_view nameSpace, ComPtr<IWbemLocator>& locator, ComPtr<IWbemServices>& services) {
    const Bstr path = MakeBstr(nameSpace);
    if (!path) return false;  // never connect with a null namespace
    if (FAILED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                locator.put_void())) ||
        !locator)
        return false;
    if (FAILED(locator->ConnectServer(path.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr, services.put())) ||
        !services)
        return false;
    return SUCCEEDED(CoSetProxyBlanket(services.get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                       RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE));
}

bool InitInstance(std::wstring_view nameSpace, IWbemLocator*& locator, IWbemServices*& services) {
    ComPtr<IWbemLocator> ownedLocator;
    ComPtr<IWbemServices> ownedServices;
    const bool connected = ConnectWmi(nameSpace, ownedLocator, ownedServices);
    locator = ownedLocator.release();  // handed to the caller, who releases them
    services = ownedServices.release();
    return connected;
}

template <typename T>
std::optional<T> First(const Target& target, std::wstring_view query, std::wstring_view property) {
    std::optional<T> result;
    ForEachRow(target, query, property, [&](bool hasValue, const VARIANT& value) {
        if (hasValue) result = Read<T>(value);
        return false;
    });
    return result;
}

template <typename T>
std::vector<T> Rows(const Target& target, std::wstring_view query, std::wstring_view property) {
    std::vector<T> rows;
    ForEachRow(target, query, property, [&](bool hasValue, const VARIANT& value) {
        if (hasValue)
            if (std::optional<T> read = Read<T>(value)) rows.push_back(std::move(*read));
        return true;
    });
    return rows;
}

template std::optional<std::wstring> First(const Target&, std::wstring_view, std::wstring_view);
template std::optional<uint32_t> First(const Target&, std::wstring_view, std::wstring_view);
template std::optional<bool> First(const Target&, std::wstring_view, std::wstring_view);
template std::vector<std::wstring> Rows(const Target&, std::wstring_view, std::wstring_view);
template std::vector<int64_t> Rows(const Target&, std::wstring_view, std::wstring_view);

std::wstring Join(const std::vector<std::wstring>& texts) {
    std::wstring result;
    for (const std::wstring& piece : texts) {
        if (!result.empty()) result += kSeparator;
        result += piece;
    }
    return result;
}

std::vector<std::wstring> Split(std::wstring_view joined) {
    std::vector<std::wstring> pieces;
    size_t start = 0;
    while (start < joined.size()) {
        const size_t separator = std::min(joined.find(L';', start), joined.size());
        pieces.emplace_back(joined.substr(start, separator - start));
        start = separator + 1;
    }
    return pieces;
}

bool Select(const Target& target, std::wstring_view query, std::wstring_view property, unsigned char* buffer,
            int size) {
    bool result = false;
    ForEachRow(target, query, property, [&](bool hasValue, const VARIANT& value) {
        if (!hasValue || buffer == nullptr || size < 0 || (value.vt & VT_ARRAY) == 0 || value.parray == nullptr)
            return false;
        SafeArrayData data(value.parray);
        if (!data.locked()) return false;
        // The caller states how many bytes it wants; the array's own length is not consulted.
        result = BoundedCopy(buffer, static_cast<size_t>(size), data.data(), static_cast<size_t>(size));
        return false;
    });
    return result;
}

std::wstring SelectUIntArray(const Target& target, std::wstring_view className, std::wstring_view property) {
    std::vector<std::wstring> texts;
    for (int64_t value : Rows<int64_t>(target, SelectOf(className, property), property))
        if (value != 0) texts.push_back(std::to_wstring(value));
    return Join(texts);
}

unsigned int SelectUintForCpuCacheL1AndL2(const Target& target, std::wstring_view query,
                                          std::wstring_view property) {
    const Bstr language = BstrOrRaise(kLanguage);
    const Bstr text = BstrOrRaise(query);
    const Bstr name = MakeBstr(property);
    unsigned int sum = 0;
    ForEachRow(target, language.get(), text.get(), name.get(), [&](bool hasValue, const VARIANT& value) {
        if (hasValue) sum += value.ulVal;  // wraps at 32 bits
        return true;
    });
    return sum;
}

}  // namespace torvex::wmi
