// The library's WMI (queries, their COM start-up, the OEM firmware method
// channel) as free functions over a HalWmi's state, passed explicitly with
// views of its texts, so that any boundary can run them on state kept in its
// own layout. HalWmi's members are shells over these; modules use a Session.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/win_resource.h"

struct IWbemLocator;
struct IWbemServices;

namespace torvex::wmi {

constexpr wchar_t kCimv2[] = L"ROOT\\CIMV2";
constexpr wchar_t kRootWmi[] = L"ROOT\\WMI";
constexpr wchar_t kStorage[] = L"ROOT\\Microsoft\\Windows\\Storage";

// SelectUInt's answer when there is no value; callers read it as "none".
constexpr uint32_t kNoNumber = 0xFFFFFFFFu;

// A HalWmi's state; nothing runs while `initialized` is false.
struct Target {
    bool initialized;
    std::wstring_view nameSpace;
};

// ------------------------------------------------------------ start-up
// CoInitializeEx (multithreaded); sets comInitialized when a CoUninitialize is owed.
bool InitCom(bool& comInitialized);
// CoInitializeSecurity once per process (RPC_E_TOO_LATE counts as done).
bool InitSecurity();
// The constructor's and Init's sequence.
inline bool StartUp(bool& comInitialized) { return InitCom(comInitialized) && InitSecurity(); }
// Locator, ConnectServer and proxy blanket, as every query and method call connects.
bool ConnectWmi(std::wstring_view nameSpace, ComPtr<IWbemLocator>& locator, ComPtr<IWbemServices>& services);
// The same, with both objects handed to the caller.
bool InitInstance(std::wstring_view nameSpace, IWbemLocator*& locator, IWbemServices*& services);
// HalWmi::initCoInitializeSecurity hands its address here at load (see hal_wmi.cpp).
bool ShareSecurityFlag(bool* flag);

// ------------------------------------------------------------ queries
// Each connects anew, runs one WQL query and reads one property: First of the
// first row only (nullopt without a row or a value), Rows of every row that has one.
template <typename T>
std::optional<T> First(const Target& target, std::wstring_view query, std::wstring_view property);
template <typename T>
std::vector<T> Rows(const Target& target, std::wstring_view query, std::wstring_view property);

// Texts joined with ";" (an empty text adds nothing while the result is still empty).
std::wstring Join(const std::vector<std::wstring>& texts);
// The pieces of a joined text between its ";"s; a trailing ";" adds no piece.
std::vector<std::wstring> Split(std::wstring_view joined);
std::wstring SelectOf(std::wstring_view className, std::wstring_view property);

bool Select(const Target& target, std::wstring_view query, std::wstring_view property, unsigned char* buffer,
            int size);
inline std::wstring SelectStr(const Target& target, std::wstring_view query, std::wstring_view property) {
    return First<std::wstring>(target, query, property).value_or(std::wstring());
}
inline std::wstring SelectStrB(const Target& target, std::wstring_view query, std::wstring_view property) {
    return Join(Rows<std::wstring>(target, query, property));
}
inline std::wstring SelectStrA(const Target& target, std::wstring_view className, std::wstring_view property) {
    return SelectStrB(target, SelectOf(className, property), property);
}
inline unsigned int SelectUInt(const Target& target, std::wstring_view query, std::wstring_view property) {
    return First<uint32_t>(target, query, property).value_or(kNoNumber);
}
// Each non-zero value as signed decimal text, joined; rows holding 0 are skipped.
std::wstring SelectUIntArray(const Target& target, std::wstring_view className, std::wstring_view property);
// Sums every row; throws _com_error(E_OUTOFMEMORY) when "WQL" or the query cannot be allocated.
unsigned int SelectUintForCpuCacheL1AndL2(const Target& target, std::wstring_view query,
                                          std::wstring_view property);
inline bool SelectBool(const Target& target, std::wstring_view query, std::wstring_view property) {
    return First<bool>(target, query, property).value_or(false);
}

// ------------------------------------------------------------ firmware method channel
enum class CpuType { High = 0, Low = 1, Unknown = 2 };
constexpr unsigned int kPacketBytes = 64;  // every command packet

bool GetOutPutUIntEx(const Target& target, const unsigned char* input, unsigned int inputSize, unsigned char* output,
                     unsigned int outputSize);
bool GetOutPutUInt(const Target& target, unsigned long long command, unsigned char* output, unsigned int outputSize);
bool GetOutPutUIntByString(const Target& target, std::string_view text, unsigned char* output,
                           unsigned int outputSize);
std::wstring GetObjectPath(std::wstring_view className);
CpuType GetCpuType(const Target& target);
bool StartSuperSaver(const Target& target);
bool StopSuperSaver(const Target& target);
bool GetPL1(const Target& target, float& value);
bool SetOdvpXToDefault(const Target& target, unsigned int item);
bool SetOdvp0ToDefault(const Target& target);

// ------------------------------------------------------------ module lookups
// One lookup of a module, as a HalWmi made for it did: COM entered for its
// life, the security call once per process, then queries on connections of
// their own. `nameSpace` must outlive the session.
class Session {
public:
    explicit Session(std::wstring_view nameSpace) noexcept
        : nameSpace_(nameSpace), initialized_(apartment_.usable() && InitSecurity()) {}
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Target target() const { return {initialized_, nameSpace_}; }

    template <typename T>
    std::optional<T> First(std::wstring_view query, std::wstring_view property) const {
        return wmi::First<T>(target(), query, property);
    }
    // The first row's number; its 0xFFFFFFFF is "none" as well (kNoNumber).
    std::optional<uint32_t> Number(std::wstring_view query, std::wstring_view property) const {
        const std::optional<uint32_t> number = First<uint32_t>(query, property);
        return number == kNoNumber ? std::nullopt : number;
    }
    // Every row's text, joined and cut at ";" again, as hosts have always had
    // their lists: a text that holds ";" counts as two.
    std::vector<std::wstring> List(std::wstring_view query, std::wstring_view property) const {
        return Split(Join(Rows<std::wstring>(target(), query, property)));
    }
    // One command packet through the firmware method into `answer`.
    bool Method(const unsigned char* packet, unsigned char* answer, unsigned int answerSize) const {
        return GetOutPutUIntEx(target(), packet, kPacketBytes, answer, answerSize);
    }

private:
    ApartmentScope apartment_;
    std::wstring_view nameSpace_;
    bool initialized_;
};

}  // namespace torvex::wmi
