// Every case of every member, written once and compiled twice: by GCC in the
// twin, where it calls the GCC-ABI members with libstdc++'s strings, and by
// clang in Microsoft mode in the host, where the same lines call the
// Microsoft-ABI members with the host library's strings. Both sides put what
// they got into a TwinAnswer and the host compares the two.
//
// The includer provides <string>, <vector>, torvex.h, memcpy and a
// `Returned` overload for std::string, std::wstring and
// std::vector<std::wstring>: the host checks there that each result is one its
// library can use, the twin does nothing.
#pragma once

#include "msvc/twin.h"
#include "torvex.h"

namespace twin {

inline void AddUnits(TwinAnswer* answer, const void* units, size_t count) {
    if (answer->count >= TWIN_MAX_ITEMS || count > TWIN_TEXT_UNITS - answer->used) {
        answer->number = ~0ull;  // an answer too big to compare is never equal
        return;
    }
    memcpy(answer->text + answer->used, units, count * sizeof(wchar_t));
    answer->length[answer->count++] = static_cast<uint32_t>(count);
    answer->used += static_cast<uint32_t>(count);
}

// The answer is taken before `Returned`, which may grow the result.
inline void Add(TwinAnswer* answer, const std::wstring& text) {
    AddUnits(answer, text.data(), text.size());
    Returned(text);
}

inline void Add(TwinAnswer* answer, const std::string& text) {
    std::wstring widened(text.size(), L'\0');
    for (size_t i = 0; i < text.size(); ++i)
        widened.data()[i] = static_cast<wchar_t>(static_cast<unsigned char>(text.data()[i]));
    AddUnits(answer, widened.data(), widened.size());
    Returned(text);
}

inline void Add(TwinAnswer* answer, const std::vector<std::wstring>& list) {
    for (size_t i = 0; i < list.size(); ++i) AddUnits(answer, list[i].data(), list[i].size());
    Returned(list);
}

inline const wchar_t* Wide(const TwinArgs* args, int index) {
    return args->wide[index] != nullptr ? args->wide[index] : L"";
}

inline const char* Narrow(const TwinArgs* args, int index) {
    return args->narrow[index] != nullptr ? args->narrow[index] : "";
}

inline GUID Guid(const TwinArgs* args) {
    GUID guid;
    memcpy(&guid, &args->guid, sizeof(guid));
    return guid;
}

// What an in/out list holds before the call: wide[1] and wide[2], when given.
inline std::vector<std::wstring> ListBefore(const TwinArgs* args) {
    std::vector<std::wstring> list;
    for (int i = 1; i < 3; ++i)
        if (args->wide[i] != nullptr) list.push_back(std::wstring(args->wide[i]));
    return list;
}

// Every code 0..29 of one class through the flat API, on the first entry of
// the record HalInit gives; the record is given back to `release`.
inline void FlatQueries(uint32_t type, TwinAnswer* answer, void (*release)(void*)) {
    void* record = nullptr;
    answer->number = HalInit(type, &record);
    if (answer->number == 0) record = nullptr;
    void* device = record;
    const bool listed = type == HAL_CLASS_DISK || type == HAL_CLASS_MEMORY || type == HAL_CLASS_AUDIO ||
                        type == HAL_CLASS_DRIVER;
    if (listed && record != nullptr)
        device = static_cast<HalListHeader*>(record)->count != 0 ? static_cast<char*>(record) + 8 : nullptr;
    if (type == HAL_CLASS_DISK && device != nullptr) HalOpenDevice(type, device);
    for (uint32_t code = 0; code < 30; ++code) {
        struct {
            uint32_t result;
            uint32_t written;
            uint8_t bytes[256];
        } query;
        memset(&query, 0, sizeof(query));
        query.result = HalQueryInformation(type, device, code, query.bytes, sizeof(query.bytes), &query.written);
        AddUnits(answer, &query, sizeof(query) / sizeof(wchar_t));
    }
    if (type == HAL_CLASS_DISK && device != nullptr) HalCloseDevice(type, device);
    if (record != nullptr) release(record);
}

// The firmware method channel's members in turn, on one object: each result
// a bit of `number`, every output as a text, the PL1 value's bits in `out`.
inline void FirmwareMethods(HalWmi& wmi, const TwinArgs* args, TwinAnswer* answer) {
    unsigned char input[64] = {0x03, 0x0C};
    unsigned char output[16];
    memset(output, 0xEE, sizeof(output));
    auto keep = [&](int bit, bool result) {
        answer->number |= uint64_t{result} << bit;
        AddUnits(answer, output, sizeof(output) / sizeof(wchar_t));
        memset(output, 0xEE, sizeof(output));
    };
    keep(0, wmi.GetOutPutUInt(args->number, output, sizeof(output)));
    keep(1, wmi.GetOutPutUIntEx(input, sizeof(input), output, sizeof(output)));
    keep(2, wmi.GetOutPutUIntByString(std::string(Narrow(args, 0)), output, sizeof(output)));
    float pl1 = -1.0f;
    answer->number |= uint64_t{wmi.GetPL1(pl1)} << 3;
    memcpy(&answer->out, &pl1, sizeof(pl1));
    answer->number |= uint64_t{wmi.StartSuperSaver()} << 4;
    answer->number |= uint64_t{wmi.StopSuperSaver()} << 5;
    answer->number |= uint64_t{wmi.SetOdvp0ToDefault()} << 6;
}

// HalWmi's select members on one object made on wide[0].
inline bool RunWmi(TwinMember member, const TwinArgs* args, TwinAnswer* answer) {
    HalWmi wmi{std::wstring(Wide(args, 0))};
    const std::wstring w1(Wide(args, 1)), w2(Wide(args, 2));
    switch (member) {
    case TWIN_WMI_SELECT: {
        unsigned char buffer[64];
        memset(buffer, 0xEE, sizeof(buffer));
        const int size = static_cast<int>(args->number);
        answer->number = wmi.Select(w1, w2, buffer, size);
        AddUnits(answer, buffer, sizeof(buffer) / sizeof(wchar_t));
        break;
    }
    case TWIN_WMI_SELECT_STR: Add(answer, wmi.SelectStr(w1, w2)); break;
    case TWIN_WMI_SELECT_STR_A: Add(answer, wmi.SelectStrA(w1, w2)); break;
    case TWIN_WMI_SELECT_STR_B: Add(answer, wmi.SelectStrB(w1, w2)); break;
    case TWIN_WMI_SELECT_UINT: answer->number = wmi.SelectUInt(w1, w2); break;
    case TWIN_WMI_SELECT_UINT_ARRAY: Add(answer, wmi.SelectUIntArray(w1, w2)); break;
    case TWIN_WMI_CACHE_SUM: answer->number = wmi.SelectUintForCpuCacheL1AndL2(w1, w2); break;
    case TWIN_WMI_SELECT_BOOL: answer->number = wmi.SelectBool(w1, w2); break;
    case TWIN_WMI_COPIES: {
        HalWmi copy(wmi);
        HalWmi assigned{std::wstring(L"ROOT\\Absent namespace, long enough to leave the small buffer")};
        assigned = copy;
        answer->number = copy.Init() | assigned.Init() << 1;
        Add(answer, copy.SelectStr(w1, w2));
        Add(answer, assigned.SelectStr(w1, w2));
        break;
    }
    case TWIN_WMI_METHODS: FirmwareMethods(wmi, args, answer); break;
    default: return false;
    }
    return true;
}

inline int RunMember(TwinMember member, const TwinArgs* args, TwinAnswer* answer, void (*release)(void*)) {
    DeviceInformention device;
    const GUID guid = Guid(args);
    const auto property = static_cast<EnumDeviceProperty>(args->number);
    const std::wstring w0(Wide(args, 0)), w1(Wide(args, 1)), w2(Wide(args, 2));
    const std::string n0(Narrow(args, 0)), n1(Narrow(args, 1));
    switch (member) {
    case TWIN_STRING_TO_WSTRING: Add(answer, StringProc::StringToWString(n0)); break;
    case TWIN_WSTRING_TO_STRING: Add(answer, StringProc::WStringToString(w0)); break;
    case TWIN_STRING_TO_WSTRING_UTF8: Add(answer, StringProc::StringToWStringByUTF8(n0)); break;
    case TWIN_WSTRING_TO_STRING_UTF8: Add(answer, StringProc::WStringToStringByUTF8(w0)); break;
    case TWIN_STRING_TRIM: Add(answer, StringProc::StringTrim(n0)); break;
    case TWIN_WSTRING_TRIM: Add(answer, StringProc::WStringTrim(w0)); break;
    case TWIN_REPLACE_PLACEHOLDER: Add(answer, StringProc::ReplacePlaceholder(w0, w1, w2)); break;
    case TWIN_TO_LOWER: Add(answer, StringProc::ToLower(n0)); break;
    case TWIN_COMPARE_NO_CASE: answer->number = StringProc::CompareNoCase(n0, n1); break;
    case TWIN_READ_DW: {
        unsigned long value = args->number;
        answer->number = ReadReg::ReadLocalMachineRegDW(w0, w1, value);
        answer->out = value;
        break;
    }
    case TWIN_READ_RZ:
    case TWIN_READ_EXPAND_RZ: {
        std::wstring value(w2);
        answer->number = member == TWIN_READ_RZ ? ReadReg::ReadLocalMachineRegRZ(w0, w1, value)
                                                : ReadReg::ReadLocalMachineRegExpandRZ(w0, w1, value);
        AddUnits(answer, value.data(), value.size());
        break;
    }
    case TWIN_WRITE_DW: answer->number = ReadReg::WrightLocalMachineRegDW(w0, w1, args->number); break;
    case TWIN_WRITE_RZ: answer->number = ReadReg::WriteLocalMachineRegRZ(w0, w1, w2); break;
    case TWIN_WRITE_EXPAND_RZ: answer->number = ReadReg::WrightLocalMachineRegExpandRZ(w0, w1, w2); break;
    case TWIN_HARDWARE_IDS: Add(answer, device.GetDeviceHardwareId(guid)); break;
    case TWIN_DESCRIPTIONS: Add(answer, device.GetDeviceDesc(guid)); break;
    case TWIN_STR_BY_HARDWARE_ID: Add(answer, device.GetDeviceStrInfoByHardwareId(w0, guid, property)); break;
    case TWIN_ULONG_BY_HARDWARE_ID: answer->number = device.GetDeviceULONGInfoByHardwareId(w0, guid, property); break;
    case TWIN_STR_BY_DESC: Add(answer, device.GetDeviceStrInfoByDesc(w0, guid, property)); break;
    case TWIN_ULONG_BY_DESC: answer->number = device.GetDeviceULONGInfoByDesc(w0, guid, property); break;
    case TWIN_UNINSTALL: answer->number = device.UnstallDeviceByHardwareId(w0, guid); break;
    case TWIN_UNINSTALL_EX: answer->number = device.UnstallDeviceByHardwareIdEx(w0, guid); break;
    case TWIN_UNKNOWN_DEVICES: Add(answer, device.GetUnknownDeviceHardId()); break;
    case TWIN_HARDWARE_ID_LIST: Add(answer, device.GetDeviceHardwareIDList(guid, w0)); break;
    case TWIN_LAST_INSTALL_TIME: answer->number = device.GetLastIntallTime(w0, guid); break;
    case TWIN_ALL_HARDWARE_IDS:
    case TWIN_SOFT_COMPONENTS: {
        std::vector<std::wstring> list = ListBefore(args);
        if (member == TWIN_ALL_HARDWARE_IDS)
            device.GetAllDeviceHardwareId(list);
        else
            device.GetSoftComponentItems(list, w0);
        for (size_t i = 0; i < list.size(); ++i) AddUnits(answer, list[i].data(), list[i].size());
        break;
    }
    case TWIN_INTERNAL_DEVICES: Add(answer, device.GetInternalDeviceHardwareId(guid)); break;
    case TWIN_DRIVER_STACK: Add(answer, device.GetDeviceStatck(w0, guid)); break;
    case TWIN_HAL_QUERIES: FlatQueries(args->number, answer, release); break;
    default: return RunWmi(member, args, answer) ? 1 : 0;
    }
    return 1;
}

}  // namespace twin
