// ReadReg: values under HKEY_LOCAL_MACHINE, always in the 64-bit registry view
// so that a 32-bit host sees what a 64-bit one does.
#include <windows.h>

#include <cwchar>

#include "common/win_resource.h"
#include "torvex.h"

namespace {

constexpr REGSAM kReadAccess = KEY_READ | KEY_WOW64_64KEY;    // 0x20119
constexpr REGSAM kWriteAccess = KEY_WRITE | KEY_WOW64_64KEY;  // 0x20106

// Text reads go through a fixed buffer of 260 UTF-16 units (520 bytes): a value
// of 259 characters plus its terminator fits, anything longer fails the read.
constexpr size_t kTextUnits = 260;
constexpr DWORD kTextBytes = kTextUnits * sizeof(wchar_t);

// Longest text the writers accept, in characters.
constexpr size_t kMaxWriteLength = 0x7FFFFFFE;

torvex::RegKey OpenLocalMachine(const std::wstring& subKey, REGSAM access) {
    torvex::RegKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, subKey.c_str(), 0, access, key.put()) != ERROR_SUCCESS) {
        key.release();  // a failed open leaves nothing to close
        return {};
    }
    return key;
}

bool ReadText(const std::wstring& subKey, const std::wstring& valueName, std::wstring& value) {
    value.clear();
    torvex::RegKey key = OpenLocalMachine(subKey, kReadAccess);
    if (!key) return false;
    wchar_t buffer[kTextUnits] = {};
    DWORD size = kTextBytes;
    DWORD type = 0;
    // The value's type is not checked: any data that fits is taken as text.
    if (::RegQueryValueExW(key.get(), valueName.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(buffer),
                           &size) != ERROR_SUCCESS)
        return false;
    value.assign(buffer, ::wcsnlen(buffer, kTextUnits));
    return true;
}

bool WriteValue(const std::wstring& subKey, const std::wstring& valueName, DWORD type, const void* data,
                DWORD size) {
    // The subkey must exist already: writes never create keys.
    torvex::RegKey key = OpenLocalMachine(subKey, kWriteAccess);
    if (!key) return false;
    return ::RegSetKeyValueW(key.get(), nullptr, valueName.c_str(), type, data, size) == ERROR_SUCCESS;
}

bool WriteText(const std::wstring& subKey, const std::wstring& valueName, DWORD type, const std::wstring& value) {
    if (value.size() > kMaxWriteLength) return false;
    const DWORD size = static_cast<DWORD>(value.size() * sizeof(wchar_t) + sizeof(wchar_t));
    return WriteValue(subKey, valueName, type, value.c_str(), size);
}

}  // namespace

ReadReg::ReadReg() = default;
ReadReg::~ReadReg() = default;

bool ReadReg::ReadLocalMachineRegDW(const std::wstring& subKey, const std::wstring& valueName,
                                    unsigned long& value) {
    torvex::RegKey key = OpenLocalMachine(subKey, kReadAccess);
    if (!key) return false;  // value left as it was
    DWORD size = sizeof(DWORD);
    DWORD type = 0;
    DWORD data = 0;
    if (::RegQueryValueExW(key.get(), valueName.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(&data),
                           &size) != ERROR_SUCCESS) {
        value = 0;
        return false;
    }
    value = data;
    return true;
}

bool ReadReg::ReadLocalMachineRegRZ(const std::wstring& subKey, const std::wstring& valueName,
                                    std::wstring& value) {
    return ReadText(subKey, valueName, value);
}

// Environment references in a REG_EXPAND_SZ value come back unexpanded.
bool ReadReg::ReadLocalMachineRegExpandRZ(const std::wstring& subKey, const std::wstring& valueName,
                                          std::wstring& value) {
    return ReadText(subKey, valueName, value);
}

bool ReadReg::WrightLocalMachineRegDW(const std::wstring& subKey, const std::wstring& valueName,
                                      unsigned long value) {
    const DWORD data = value;
    return WriteValue(subKey, valueName, REG_DWORD, &data, sizeof(data));
}

bool ReadReg::WriteLocalMachineRegRZ(const std::wstring& subKey, const std::wstring& valueName,
                                     const std::wstring& value) {
    return WriteText(subKey, valueName, REG_SZ, value);
}

bool ReadReg::WrightLocalMachineRegExpandRZ(const std::wstring& subKey, const std::wstring& valueName,
                                            const std::wstring& value) {
    return WriteText(subKey, valueName, REG_EXPAND_SZ, value);
}
