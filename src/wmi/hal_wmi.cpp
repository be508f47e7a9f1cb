// HalWmi: the one way the library reads WMI. Every select call connects to
// the namespace anew, runs one WQL query, reads one property per row and
// releases everything before it returns.
#include <windows.h>
#include <comdef.h>
#include <wbemidl.h>

#include <cstring>
#include <string>

#include "common/bounded_copy.h"
#include "common/win_resource.h"
#include "torvex.h"
#include "wmi/wmi_connection.h"

using torvex::Bstr;
using torvex::ComPtr;
using torvex::MakeBstr;
using torvex::Variant;

bool HalWmi::initCoInitializeSecurity = false;

namespace {

constexpr long kQueryFlags = WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY;  // 48
constexpr wchar_t kSeparator[] = L";";
constexpr wchar_t kLanguage[] = L"WQL";

// Runs the query and hands each fetched row's value of the property to
// onRow(hasValue, value). A failed Get and a VT_NULL value arrive with
// hasValue false. onRow returns false to stop fetching. A string that could
// not be allocated (null) stops the call before anything runs, so the
// caller's default stands.
template <typename OnRow>
void ForEachRow(bool initialized, const std::wstring& nameSpace, BSTR language, BSTR text, BSTR name,
                OnRow onRow) {
    if (!initialized || language == nullptr || text == nullptr || name == nullptr) return;

    ComPtr<IWbemLocator> locator;
    ComPtr<IWbemServices> services;
    if (!torvex::ConnectWmi(nameSpace, locator, services)) return;

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
void ForEachRow(bool initialized, const std::wstring& nameSpace, const std::wstring& query,
                const std::wstring& property, OnRow onRow) {
    const Bstr language = MakeBstr(kLanguage);
    const Bstr text = MakeBstr(query.c_str());
    const Bstr name = MakeBstr(property.c_str());
    ForEachRow(initialized, nameSpace, language.get(), text.get(), name.get(), onRow);
}

// A string of SelectUintForCpuCacheL1AndL2's query. That member raises COM's
// out-of-memory error when one cannot be allocated, as a _bstr_t would; its
// C++ callers catch _com_error. The error is mingw-w64's header-only
// _com_error (comdef.h, no support library to link), so a host built with the
// same toolchain catches it by that name. _bstr_t itself is not used: in
// mingw-w64's comutil.h its block allocation turns a failure into a null
// pointer that the constructor then writes through.
Bstr BstrOrRaise(const wchar_t* text) {
    Bstr string = MakeBstr(text);
    if (!string) throw _com_error(E_OUTOFMEMORY);
    return string;
}

// The text of a value. Only a BSTR carries text; anything else reads as no text.
const wchar_t* TextOf(const VARIANT& value) { return value.vt == VT_BSTR ? value.bstrVal : nullptr; }

void Join(std::wstring& result, const std::wstring& piece) {
    if (!result.empty()) result += kSeparator;
    result += piece;
}

}  // namespace

namespace torvex {

bool ConnectWmi(const std::wstring& nameSpace, ComPtr<IWbemLocator>& locator, ComPtr<IWbemServices>& services) {
    const Bstr path = MakeBstr(nameSpace.c_str());
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

}  // namespace torvex

HalWmi::HalWmi(std::wstring nameSpace)
    : initialized(false), nameSpace(std::move(nameSpace)), comInitialized(false) {
    if (InitCom() && InitSecurity()) initialized = true;
}

// Copies carry comInitialized too, so that every copy that carries the flag
// uninitialises COM once when it is destroyed. Hosts rely on this pairing.
HalWmi::HalWmi(const HalWmi& other)
    : initialized(other.initialized), nameSpace(other.nameSpace), comInitialized(other.comInitialized) {}

HalWmi& HalWmi::operator=(const HalWmi& other) {
    initialized = other.initialized;
    nameSpace = other.nameSpace;
    comInitialized = other.comInitialized;
    return *this;
}

HalWmi::~HalWmi() {
    if (comInitialized) CoUninitialize();
}

bool HalWmi::Init() {
    if (initialized) return true;
    if (InitCom() && InitSecurity()) initialized = true;
    return initialized;
}

bool HalWmi::InitCom() {
    const HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (hr == S_OK || hr == S_FALSE) {
        comInitialized = true;
        return true;
    }
    if (hr == RPC_E_CHANGED_MODE) return true;  // usable in the thread's own apartment; nothing to undo
    if (FAILED(hr)) return false;
    comInitialized = true;  // an unexpected success code still owes its CoUninitialize
    return false;
}

bool HalWmi::InitSecurity() {
    if (initCoInitializeSecurity) return true;
    const HRESULT hr = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                            RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
    if (SUCCEEDED(hr) || hr == RPC_E_TOO_LATE) {
        initCoInitializeSecurity = true;
        return true;
    }
    return false;
}

bool HalWmi::InitInstance(IWbemLocator*& locator, IWbemServices*& services) {
    ComPtr<IWbemLocator> ownedLocator;
    ComPtr<IWbemServices> ownedServices;
    const bool connected = torvex::ConnectWmi(nameSpace, ownedLocator, ownedServices);
    locator = ownedLocator.release();  // handed to the caller, who releases them
    services = ownedServices.release();
    return connected;
}

bool HalWmi::Select(const std::wstring& query, const std::wstring& property, unsigned char* buffer, int size) {
    bool result = false;
    ForEachRow(initialized, nameSpace, query, property, [&](bool hasValue, VARIANT& value) {
        if (!hasValue || buffer == nullptr || size < 0 || (value.vt & VT_ARRAY) == 0 || value.parray == nullptr)
            return false;
        torvex::SafeArrayData data(value.parray);
        if (!data.locked()) return false;
        // The caller states how many bytes it wants; the array's own length is not consulted.
        result = torvex::BoundedCopy(buffer, static_cast<size_t>(size), data.data(), static_cast<size_t>(size));
        return false;
    });
    return result;
}

std::wstring HalWmi::SelectStr(const std::wstring& query, const std::wstring& property) {
    std::wstring result;
    ForEachRow(initialized, nameSpace, query, property, [&](bool hasValue, VARIANT& value) {
        if (hasValue && TextOf(value) != nullptr) result = TextOf(value);
        return false;
    });
    return result;
}

std::wstring HalWmi::SelectStrA(const std::wstring& className, const std::wstring& property) {
    return SelectStrB(L"SELECT " + property + L" FROM " + className, property);
}

std::wstring HalWmi::SelectStrB(const std::wstring& query, const std::wstring& property) {
    std::wstring result;
    ForEachRow(initialized, nameSpace, query, property, [&](bool hasValue, VARIANT& value) {
        if (hasValue && TextOf(value) != nullptr) Join(result, TextOf(value));
        return true;
    });
    return result;
}

unsigned int HalWmi::SelectUInt(const std::wstring& query, const std::wstring& property) {
    unsigned int result = 0xFFFFFFFFu;
    ForEachRow(initialized, nameSpace, query, property, [&](bool hasValue, VARIANT& value) {
        if (hasValue) result = value.ulVal;
        return false;
    });
    return result;
}

std::wstring HalWmi::SelectUIntArray(const std::wstring& className, const std::wstring& property) {
    std::wstring result;
    ForEachRow(initialized, nameSpace, L"SELECT " + property + L" FROM " + className, property,
               [&](bool hasValue, VARIANT& value) {
                   if (hasValue && value.llVal != 0) Join(result, std::to_wstring(value.llVal));
                   return true;
               });
    return result;
}

unsigned int HalWmi::SelectUintForCpuCacheL1AndL2(const std::wstring& query, const std::wstring& property) {
    const Bstr language = BstrOrRaise(kLanguage);
    const Bstr text = BstrOrRaise(query.c_str());
    const Bstr name = MakeBstr(property.c_str());
    unsigned int sum = 0;
    ForEachRow(initialized, nameSpace, language.get(), text.get(), name.get(), [&](bool hasValue, VARIANT& value) {
        if (hasValue) sum += value.ulVal;  // wraps at 32 bits
        return true;
    });
    return sum;
}

bool HalWmi::SelectBool(const std::wstring& query, const std::wstring& property) {
    bool result = false;
    ForEachRow(initialized, nameSpace, query, property, [&](bool hasValue, VARIANT& value) {
        result = hasValue && static_cast<unsigned short>(value.boolVal) == 0xFFFF;
        return false;
    });
    return result;
}
