// The Microsoft-ABI host: a program built as the suite's services are built
// (here clang in Microsoft mode: Microsoft's decoration, class layout and x64
// conventions), compiling torvex.h itself over stand-ins of the Microsoft
// library (include/) with no C runtime start-up (runtime.cpp). It links
// every helper-class member by its Microsoft decorated name through an import
// library made from Torvex.dll's export table, and checks under Wine that
//   - every import is bound to Torvex.dll's own export, and every
//     Microsoft-decorated export is imported (so every member is called);
//   - every case answers as the GCC-ABI member does on the same machine
//     profile (the twin runs it through the same members.h);
//   - what the DLL returns has the capacity and block its length gets from
//     the host's library, which can copy, grow and destroy it;
//   - a host string or vector the DLL fills is assigned, cleared or appended
//     to as the member says, each old block freed exactly once;
//   - a damaged string or vector is refused: the failure default, one debug
//     message, the object untouched, nothing freed;
//   - 200 rounds of every case leave every heap valid and busy bytes flat.
#include "runtime.h"

#include <string>
#include <vector>

#include "torvex.h"

namespace {

template <typename C>
void Returned(const std::basic_string<C>& text);
void Returned(const std::vector<std::wstring>& list);

}  // namespace

#include "msvc/members.h"

namespace {

using host::Check;

constexpr size_t kLong = 5000;
wchar_t g_longWide[kLong + 1];
char g_longNarrow[kLong + 1];
wchar_t g_paddedWide[kLong + 7];
char g_paddedNarrow[kLong + 7];

void FillTexts() {
    for (size_t i = 0; i < kLong; ++i) {
        g_longWide[i] = static_cast<wchar_t>(i % 7 == 6 ? L' ' : L'A' + i % 26);
        g_longNarrow[i] = static_cast<char>(g_longWide[i]);
    }
    for (size_t i = 0; i < kLong + 6; ++i) {
        g_paddedWide[i] = i < 3 || i >= kLong + 3 ? L' ' : g_longWide[i - 3];
        g_paddedNarrow[i] = static_cast<char>(g_paddedWide[i]);
    }
}

constexpr HalGuid kAudioClass = {0x4D36E96C, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr HalGuid kNetClass = {0x4D36E972, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr wchar_t kBios[] = L"HARDWARE\\DESCRIPTION\\System\\BIOS";
constexpr wchar_t kProcessor[] = L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
constexpr wchar_t kProcessorName[] = L"11th Gen Intel(R) Core(TM) i7-1165G7 @ 2.80GHz";
constexpr wchar_t kCodec[] = L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_0295";
constexpr wchar_t kCodecDescription[] = L"Realtek High Definition Audio";
constexpr char kLaptop[] = "intel-laptop";
constexpr char kDevices[] = "device-tree";
constexpr uint32_t kProperties = 15;  // every EnumDeviceProperty and one beyond

const char* const kMemberNames[TWIN_MEMBER_COUNT] = {
    "StringToWString", "WStringToString", "StringToWStringByUTF8", "WStringToStringByUTF8", "StringTrim",
    "WStringTrim", "ReplacePlaceholder", "ToLower", "CompareNoCase", "ReadLocalMachineRegDW",
    "ReadLocalMachineRegRZ", "ReadLocalMachineRegExpandRZ", "WrightLocalMachineRegDW", "WriteLocalMachineRegRZ",
    "WrightLocalMachineRegExpandRZ", "GetDeviceHardwareId", "GetDeviceDesc", "GetDeviceStrInfoByHardwareId",
    "GetDeviceULONGInfoByHardwareId", "GetDeviceStrInfoByDesc", "GetDeviceULONGInfoByDesc",
    "UnstallDeviceByHardwareId", "UnstallDeviceByHardwareIdEx", "GetUnknownDeviceHardId", "GetDeviceHardwareIDList",
    "GetLastIntallTime", "GetAllDeviceHardwareId", "GetSoftComponentItems", "GetInternalDeviceHardwareId",
    "GetDeviceStatck", "Select", "SelectStr", "SelectStrA", "SelectStrB", "SelectUInt", "SelectUIntArray",
    "SelectUintForCpuCacheL1AndL2", "SelectBool", "HalWmi copies", "HalWmi firmware channel", "HalQueryInformation"};

struct Case {
    TwinMember member;
    const char* machine;  // tests/machines/<machine>.json, or none
    TwinArgs args;
    const wchar_t* first = nullptr;  // the first text both sides must give, where a case pins it
    bool everyProperty = false;      // once per EnumDeviceProperty value
};

constexpr Case Text(TwinMember member, const char* a, const char* b = nullptr, const wchar_t* first = nullptr) {
    return {member, nullptr, {{}, {a, b}, {}, 0}, first};
}
constexpr Case Wide(TwinMember member, const wchar_t* a, const wchar_t* b = nullptr, const wchar_t* c = nullptr,
                    const wchar_t* first = nullptr) {
    return {member, nullptr, {{a, b, c}, {}, {}, 0}, first};
}
constexpr Case Registry(TwinMember member, const wchar_t* key, const wchar_t* name, const wchar_t* value,
                        uint32_t number = 0, const wchar_t* first = nullptr) {
    return {member, kLaptop, {{key, name, value}, {}, {}, number}, first};
}
constexpr Case Device(TwinMember member, HalGuid guid, const wchar_t* a = nullptr, const wchar_t* b = nullptr,
                      const wchar_t* c = nullptr, const wchar_t* first = nullptr, bool everyProperty = false) {
    return {member, kDevices, {{a, b, c}, {}, guid, 0}, first, everyProperty};
}
constexpr wchar_t kCimv2[] = L"ROOT\\CIMV2";
constexpr Case Wmi(TwinMember member, const wchar_t* query, const wchar_t* property, uint32_t number = 0,
                   const wchar_t* first = nullptr, const wchar_t* nameSpace = kCimv2, const char* text = nullptr) {
    return {member, kLaptop, {{nameSpace, query, property}, {text, nullptr}, {}, number}, first};
}
constexpr Case Flat(uint32_t type) { return {TWIN_HAL_QUERIES, kLaptop, {{}, {}, {}, type}}; }

constinit const Case kCases[] = {
    Text(TWIN_STRING_TO_WSTRING, "abc", nullptr, L"abc"),
    Text(TWIN_STRING_TO_WSTRING, g_longNarrow),
    Text(TWIN_STRING_TO_WSTRING, ""),
    Wide(TWIN_WSTRING_TO_STRING, L"seven u"),
    Wide(TWIN_WSTRING_TO_STRING, g_longWide),
    Text(TWIN_STRING_TO_WSTRING_UTF8, "caf\xC3\xA9 \xE6\xBC\xA2", nullptr, L"caf\u00E9 \u6F22"),
    Wide(TWIN_WSTRING_TO_STRING_UTF8, L"caf\u00E9 \u6F22 and more than fifteen bytes"),
    Wide(TWIN_WSTRING_TO_STRING_UTF8, g_longWide),
    Text(TWIN_STRING_TRIM, "  a b  ", nullptr, L"a b"),
    Text(TWIN_STRING_TRIM, "   "),
    Text(TWIN_STRING_TRIM, g_paddedNarrow),
    Wide(TWIN_WSTRING_TRIM, L"\tkept tab "),
    Wide(TWIN_WSTRING_TRIM, g_paddedWide),
    Wide(TWIN_REPLACE_PLACEHOLDER, L"Hello {name}, {name}", L"World", L"{name}", L"Hello World, {name}"),
    Wide(TWIN_REPLACE_PLACEHOLDER, g_longWide, L"x", L"{absent}"),
    Wide(TWIN_REPLACE_PLACEHOLDER, L"<{p}>", g_longWide, L"{p}"),
    Text(TWIN_TO_LOWER, "MiXeD 123", nullptr, L"mixed 123"),
    Text(TWIN_TO_LOWER, g_longNarrow),
    Text(TWIN_COMPARE_NO_CASE, "ABC", "abc"),
    Text(TWIN_COMPARE_NO_CASE, "abc", "abcd"),
    Registry(TWIN_READ_DW, kBios, L"BIOSVendor", nullptr, 7),
    Registry(TWIN_READ_DW, L"SOFTWARE\\Absent", L"Value", nullptr, 7),
    Registry(TWIN_READ_RZ, kProcessor, L"ProcessorNameString", L"", 0, kProcessorName),
    Registry(TWIN_READ_RZ, kBios, L"BIOSVendor", g_longWide, 0, L"LENOVO"),
    Registry(TWIN_READ_RZ, kBios, L"Absent", L"cleared"),
    Registry(TWIN_READ_EXPAND_RZ, kBios, L"BIOSVersion", L"0123456789", 0, L"GGCN51WW"),
    Registry(TWIN_WRITE_DW, kBios, L"TorvexNumber", nullptr, 42),
    Registry(TWIN_WRITE_DW, L"SOFTWARE\\Absent", L"TorvexNumber", nullptr, 42),
    Registry(TWIN_WRITE_RZ, kBios, L"TorvexText", g_longWide),
    Registry(TWIN_WRITE_EXPAND_RZ, kBios, L"TorvexPath", L"%SystemRoot%\\System32"),
    Device(TWIN_HARDWARE_IDS, kAudioClass, nullptr, nullptr, nullptr, kCodec),
    Device(TWIN_DESCRIPTIONS, kAudioClass, nullptr, nullptr, nullptr, kCodecDescription),
    Device(TWIN_STR_BY_HARDWARE_ID, kAudioClass, kCodec, nullptr, nullptr, nullptr, true),
    Device(TWIN_ULONG_BY_HARDWARE_ID, kAudioClass, kCodec, nullptr, nullptr, nullptr, true),
    Device(TWIN_STR_BY_DESC, kAudioClass, kCodecDescription, nullptr, nullptr, nullptr, true),
    Device(TWIN_ULONG_BY_DESC, kAudioClass, kCodecDescription, nullptr, nullptr, nullptr, true),
    Device(TWIN_UNINSTALL, kAudioClass, kCodec),
    Device(TWIN_UNINSTALL_EX, kAudioClass, kCodec),
    Device(TWIN_UNKNOWN_DEVICES, kAudioClass),
    Device(TWIN_HARDWARE_ID_LIST, kAudioClass, kCodec, nullptr, nullptr, kCodec),
    Device(TWIN_LAST_INSTALL_TIME, kAudioClass, kCodec),
    Device(TWIN_ALL_HARDWARE_IDS, kAudioClass, nullptr, L"old", g_longWide, L"PCI\\VEN_8086&DEV_15F3"),
    Device(TWIN_SOFT_COMPONENTS, kAudioClass, L"\\", L"kept", g_longWide, L"kept"),
    Device(TWIN_INTERNAL_DEVICES, kNetClass),
    Device(TWIN_DRIVER_STACK, kAudioClass, kCodec, nullptr, nullptr, L"\\Driver\\IntcAzAudAddService"),
    Wmi(TWIN_WMI_SELECT, L"SELECT NumberOfCores FROM Win32_Processor", L"NumberOfCores", 4),
    Wmi(TWIN_WMI_SELECT, L"SELECT Name FROM Win32_DiskDrive", L"Name", 64),
    Wmi(TWIN_WMI_SELECT_STR, L"SELECT Caption FROM Win32_DiskDrive WHERE Index='0'", L"Caption", 0,
        L"SAMSUNG MZVLB512HBJQ-000L7"),
    Wmi(TWIN_WMI_SELECT_STR, L"SELECT Caption FROM Win32_DiskDrive WHERE Index='9'", L"Caption"),
    Wmi(TWIN_WMI_SELECT_STR, g_longWide, L"Caption"),
    Wmi(TWIN_WMI_SELECT_STR_A, L"Win32_PhysicalMemory", L"DeviceLocator", 0, L"ChannelA-DIMM0;ChannelB-DIMM0"),
    Wmi(TWIN_WMI_SELECT_STR_B, L"SELECT Name FROM Win32_DiskDrive", L"Name", 0,
        L"\\\\.\\PHYSICALDRIVE0;\\\\.\\PHYSICALDRIVE1"),
    Wmi(TWIN_WMI_SELECT_UINT, L"SELECT MaxClockSpeed FROM Win32_Processor", L"MaxClockSpeed"),
    Wmi(TWIN_WMI_SELECT_UINT, L"SELECT MaxClockSpeed FROM Win32_Processor", L"Absent"),
    Wmi(TWIN_WMI_SELECT_UINT_ARRAY, L"Win32_CacheMemory", L"InstalledSize"),
    Wmi(TWIN_WMI_CACHE_SUM, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'", L"InstalledSize"),
    Wmi(TWIN_WMI_SELECT_BOOL, L"SELECT NumberOfCores FROM Win32_Processor", L"NumberOfCores"),
    Wmi(TWIN_WMI_SELECT_STR, L"SELECT DeviceName FROM BatteryStaticData", L"DeviceName", 0, L"L20M3PF0",
        L"ROOT\\WMI"),
    Wmi(TWIN_WMI_COPIES, L"SELECT Caption FROM Win32_DiskDrive WHERE Index='1'", L"Caption", 0,
        L"ST1000LM035-1RK172"),
    Wmi(TWIN_WMI_METHODS, nullptr, nullptr, 0x0C03, nullptr, L"ROOT\\WMI", "030c01"),
    Flat(HAL_CLASS_CPU),
    Flat(HAL_CLASS_MAINBOARD),
    Flat(HAL_CLASS_DISK),
    Flat(HAL_CLASS_BATTERY),
    Flat(HAL_CLASS_MEMORY),
};

TwinAnswer g_gcc;
TwinAnswer g_msvc;

// A record comes from ucrtbase.dll's malloc, handed over by Torvex.dll; the
// host frees it with its own free, ucrtbase.dll's.
void ReleaseRecord(void* record) {
    Check(record == nullptr || TwinHandedOut(record) == 1, "a record from ucrtbase.dll's malloc");
    free(record);
}

bool SameAnswer(const TwinAnswer& a, const TwinAnswer& b) {
    return a.number == b.number && a.out == b.out && a.count == b.count && a.used == b.used &&
           memcmp(a.length, b.length, a.count * sizeof(a.length[0])) == 0 &&
           memcmp(a.text, b.text, a.used * sizeof(wchar_t)) == 0;
}

bool StartsWith(const TwinAnswer& answer, const wchar_t* text) {
    const size_t length = std::wstring::Length(text);
    return answer.count != 0 && answer.length[0] == length && memcmp(answer.text, text, length * sizeof(wchar_t)) == 0;
}

uint32_t PropertiesOf(const Case& c) { return c.everyProperty ? kProperties : 1; }

TwinArgs ArgsOf(const Case& c, uint32_t property) {
    TwinArgs args = c.args;
    if (c.everyProperty) args.number = property;
    return args;
}

// ------------------------------------------------------------ returned values

template <typename C>
void Returned(const std::basic_string<C>& text) {
    using String = std::basic_string<C>;
    const size_t expected = text.size() <= String::kSmallCapacity
                                ? String::kSmallCapacity
                                : host::StringCapacity<C>(text.size(), String::kSmallCapacity);
    // A string the host's library cannot trust is not grown: that would write past its block.
    if (!Check(text.capacity() == expected, "a returned string has the capacity the library gives its length") ||
        !Check(text.data()[text.size()] == C(), "a returned string is followed by a zero unit") ||
        !Check(host::BlockIntact(text.data(), (text.capacity() + 1) * sizeof(C)),
               "a returned string's block is laid out as the library's"))
        return;
    // The result is a temporary the host owns: its library copies it, then
    // grows it past any spare room (freeing the DLL's block) and destroys both.
    const String copy(text);
    C padding[20];
    for (size_t i = 0; i < 20; ++i) padding[i] = static_cast<C>('a' + i);
    String& own = const_cast<String&>(text);
    own.append(padding, 20);
    Check(own.size() == copy.size() + 20 && memcmp(own.data(), copy.data(), copy.size() * sizeof(C)) == 0,
          "the host's library grows a returned string");
}

void Returned(const std::vector<std::wstring>& list) {
    if (!Check(list.capacity() == list.size(), "a returned list has no spare room") ||
        !Check(host::BlockIntact(list.first, list.capacity() * sizeof(std::wstring)),
               "a returned list's block is laid out as the library's"))
        return;
    for (size_t i = 0; i < list.size(); ++i) Returned(list[i]);
    auto& own = const_cast<std::vector<std::wstring>&>(list);
    const size_t size = own.size();
    own.push_back(std::wstring(L"pushed by the host"));
    Check(own.size() == size + 1, "the host's library appends to a returned list");
}

// ---------------------------------------------------------------- the checks

// Wine binds a stub to an import the DLL does not export instead of refusing
// to start: every import from Torvex.dll must be the DLL's own export, and
// the host must import each Microsoft-decorated name the DLL exports.
void ImportsBound() {
    const auto* base = static_cast<const uint8_t*>(GetModuleHandleW(nullptr));
    void* torvex = GetModuleHandleW(L"Torvex.dll");
    const uint8_t* optional = base + *reinterpret_cast<const uint32_t*>(base + 0x3C) + 4 + 20;
    const auto directory = [&](int index) { return reinterpret_cast<const uint32_t*>(optional + 112 + 8 * index); };
    uint32_t imported = 0;
    for (const uint32_t* entry = reinterpret_cast<const uint32_t*>(base + directory(1)[0]); entry[3] != 0;
         entry += 5) {
        const char* dll = reinterpret_cast<const char*>(base + entry[3]);
        if (memcmp(dll, "Torvex.dll", 11) != 0) continue;
        const auto* names = reinterpret_cast<const uint64_t*>(base + entry[0]);
        const auto* bound = reinterpret_cast<void* const*>(base + entry[4]);
        for (; *names != 0; ++names, ++bound) {
            const char* name = reinterpret_cast<const char*>(base + static_cast<uint32_t>(*names) + 2);
            Check(*bound == GetProcAddress(torvex, name), "an import bound to Torvex.dll's own export", name);
            imported += name[0] == '?' ? 1 : 0;
        }
    }
    const auto* dllBase = static_cast<const uint8_t*>(torvex);
    const uint8_t* dllOptional = dllBase + *reinterpret_cast<const uint32_t*>(dllBase + 0x3C) + 4 + 20;
    const uint32_t* exports = reinterpret_cast<const uint32_t*>(dllBase + *reinterpret_cast<const uint32_t*>(dllOptional + 112));
    const auto* exportNames = reinterpret_cast<const uint32_t*>(dllBase + exports[8]);
    uint32_t decorated = 0;
    for (uint32_t i = 0; i < exports[6]; ++i) decorated += dllBase[exportNames[i]] == '?' ? 1 : 0;
    Check(decorated != 0 && imported == decorated, "the host imports every Microsoft-decorated export");
    host::Print("imports: ");
    host::PrintNumber(imported);
    host::Print(" Microsoft-decorated names, all bound\n");
}

// The data-less classes' special members under their decorated names; the
// assignments go through member pointers, which import the DLL's operator=
// instead of an inline copy.
void SpecialMembers() {
    ReadReg registry, otherRegistry;
    ReadReg& (ReadReg::*volatile assignRegistry)(const ReadReg&) = &ReadReg::operator=;
    Check(&(otherRegistry.*assignRegistry)(registry) == &otherRegistry, "ReadReg's operator= returns its object");
    DeviceInformention device, otherDevice;
    DeviceInformention& (DeviceInformention::*volatile assignDevice)(const DeviceInformention&) =
        &DeviceInformention::operator=;
    Check(&(otherDevice.*assignDevice)(device) == &otherDevice, "DeviceInformention's operator= returns its object");
}

// HalWmi lives in the host's own 48 bytes, between guard bytes that no member
// touches; the namespace it is made on, passed by value, is the DLL's to
// destroy and is freed exactly once.
void HostWmiObject() {
    static_assert(sizeof(HalWmi) == 48, "HalWmi as a host built with Microsoft's toolchain lays it out");
    TwinInstallMachine(kLaptop);
    constexpr size_t kGuard = 16;
    alignas(16) unsigned char storage[2][kGuard + sizeof(HalWmi) + kGuard];
    memset(storage, 0xA5, sizeof(storage));
    auto guardsIntact = [&] {
        for (const auto& place : storage)
            for (size_t i = 0; i < kGuard; ++i)
                if (place[i] != 0xA5 || place[kGuard + sizeof(HalWmi) + i] != 0xA5) return false;
        return true;
    };
    const std::wstring nameSpace(kCimv2);
    std::wstring padded(kCimv2);
    padded += std::wstring(L"\\Absent, past the small buffer");
    TwinForget();
    HalWmi* wmi = new (storage[0] + kGuard) HalWmi(std::wstring(g_longWide));
    Check(TwinFreed(nullptr) == 1, "the namespace taken by value is destroyed once, by the DLL");
    HalWmi* copy = new (storage[1] + kGuard) HalWmi(*wmi);
    *wmi = *copy;
    HalWmi made{std::wstring(padded)};
    *copy = made;  // grows the copy's namespace
    *copy = HalWmi(std::wstring(nameSpace));  // and puts a short one in its place
    Check(copy->SelectStr(L"SELECT Caption FROM Win32_DiskDrive WHERE Index='0'", L"Caption").size() == 26,
          "an object assigned in the host's storage selects on its namespace");
    Check(wmi->Init() && copy->Init(), "Init on objects the host placed");
    Check(guardsIntact(), "the guard bytes around the host's HalWmi objects are untouched");
    wmi->~HalWmi();
    copy->~HalWmi();
    Check(guardsIntact(), "destroying the objects leaves the guard bytes untouched");
}

// Each case on a fresh machine, once through the twin and once here.
void SameAnswers() {
    uint32_t compared = 0;
    for (const Case& c : kCases) {
        for (uint32_t property = 0; property < PropertiesOf(c); ++property) {
            const TwinArgs args = ArgsOf(c, property);
            Check(TwinInstallMachine(c.machine) != 0, "the twin puts the machine beneath the DLL", c.machine);
            TwinRun(c.member, &args, &g_gcc);
            TwinInstallMachine(c.machine);
            memset(&g_msvc, 0, sizeof(g_msvc));
            twin::RunMember(c.member, &args, &g_msvc, &ReleaseRecord);
            Check(SameAnswer(g_gcc, g_msvc), "the same answer as the GCC-ABI member", kMemberNames[c.member]);
            if (c.first != nullptr) Check(StartsWith(g_msvc, c.first), "the answer the case pins", kMemberNames[c.member]);
            if (c.member == TWIN_HAL_QUERIES) Check(g_msvc.number == 1, "HalInit answers on the machine");
            ++compared;
        }
    }
    host::Print("compared: ");
    host::PrintNumber(compared);
    host::Print(" cases over ");
    host::PrintNumber(TWIN_MEMBER_COUNT);
    host::Print(" members\n");
}

// ReadLocalMachineRegRZ assigns in place when the host's string has room and
// otherwise grows it as the library's assign does, freeing the old block once.
void AssignedStrings() {
    TwinInstallMachine(kLaptop);
    std::wstring grown(L"0123456789");
    const void* oldBlock = grown.data();
    TwinForget();
    Check(ReadReg::ReadLocalMachineRegRZ(kProcessor, L"ProcessorNameString", grown), "a text read");
    Check(grown == std::wstring(kProcessorName), "the host's string holds the text");
    Check(grown.capacity() == host::StringCapacity<wchar_t>(grown.size(), 15), "grown as the library's assign grows");
    Check(TwinFreed(oldBlock) == 1 && TwinFreed(nullptr) == 1, "the outgrown block freed once");

    std::wstring roomy(g_longWide);
    const void* block = roomy.data();
    const size_t capacity = roomy.capacity();
    TwinForget();
    Check(ReadReg::ReadLocalMachineRegRZ(kBios, L"BIOSVendor", roomy), "a text read into a roomy string");
    Check(roomy == std::wstring(L"LENOVO") && roomy.data() == block && roomy.capacity() == capacity,
          "assigned in place");
    Check(TwinFreed(nullptr) == 0, "nothing freed for an assignment in place");
}

// Capacity after pushing `added` elements onto `size` of `capacity`.
size_t PushedCapacity(size_t size, size_t capacity, size_t added) {
    for (; added != 0; --added, ++size)
        if (size == capacity) capacity = host::VectorCapacity(size + 1, capacity);
    return capacity;
}

// GetAllDeviceHardwareId clears the host's vector (each element's block freed
// once, a big one through its back pointer) and keeps its block;
// GetSoftComponentItems appends, growing the vector as push_back does.
void FilledLists() {
    TwinInstallMachine(kDevices);
    DeviceInformention device;
    std::vector<std::wstring> cleared;
    cleared.push_back(std::wstring(L"small"));
    cleared.push_back(std::wstring(g_longWide));
    cleared.push_back(std::wstring(L"on the heap, longer than seven"));
    const void* bigUser = cleared[1].data();
    const void* bigBlock = host::RealBlock(bigUser, (cleared[1].capacity() + 1) * sizeof(wchar_t));
    const void* heapBlock = cleared[2].data();
    std::wstring* const listBlock = cleared.first;
    TwinForget();
    device.GetAllDeviceHardwareId(cleared);
    Check(TwinFreed(bigBlock) == 1 && TwinFreed(bigUser) == 0, "a big element freed once, through its back pointer");
    Check(TwinFreed(heapBlock) == 1 && TwinFreed(nullptr) == 2, "every element's block freed once, nothing else");
    Check(cleared.size() == 1 && cleared.first == listBlock && cleared.capacity() == 3, "cleared, block kept");
    Check(cleared.size() == 1 && cleared[0] == std::wstring(L"PCI\\VEN_8086&DEV_15F3"), "the PCI device");

    std::vector<std::wstring> appended;  // full at four: three more grow it to 6, then 9
    const wchar_t* const before[] = {L"kept", L"one", L"two", L"three"};
    for (const wchar_t* text : before) appended.push_back(std::wstring(text));
    std::wstring* const firstBlock = appended.first;
    TwinForget();
    device.GetSoftComponentItems(appended, L"\\");
    Check(appended.size() == 7 && appended[0] == std::wstring(L"kept"), "appended after what the host had");
    Check(appended.capacity() == PushedCapacity(4, 4, 3), "grown as push_back grows");
    Check(TwinFreed(firstBlock) == 1, "the host's outgrown block freed once");
    Returned(appended[6]);
}

// ------------------------------------------------------------ refused input

struct Damaged {
    std::wstring wide{L"abc"};
    std::wstring big{g_longWide};
    std::string narrow{"abc"};
    std::vector<std::wstring> list;
};

uintptr_t& BackPointer(std::wstring& text) { return reinterpret_cast<uintptr_t*>(text.data())[-1]; }

struct Refusal {
    const char* member;
    const char* damage;
    void (*spoil)(Damaged&);
    bool (*call)(Damaged&);  // true when the member gave its failure default
};

constinit const Refusal kRefusals[] = {
    {"WStringTrim", "size beyond a small string's capacity", [](Damaged& d) { d.wide.size_ = 8; },
     [](Damaged& d) { return StringProc::WStringTrim(d.wide).empty(); }},
    {"ReplacePlaceholder", "size beyond capacity, a zero after the text",
     [](Damaged& d) {
         d.big.capacity_ -= 8;
         d.big.size_ = d.big.capacity_ + 1;
     },
     [](Damaged& d) { return StringProc::ReplacePlaceholder(d.big, L"a", L"A").empty(); }},
    {"ReadLocalMachineRegRZ", "capacity below the small buffer", [](Damaged& d) { d.wide.capacity_ = 3; },
     [](Damaged& d) { return !ReadReg::ReadLocalMachineRegRZ(kBios, L"BIOSVendor", d.wide); }},
    {"CompareNoCase", "no zero after the text", [](Damaged& d) { d.narrow.bx.buffer[3] = 'x'; },
     [](Damaged& d) { return !StringProc::CompareNoCase(d.narrow, std::string("ABC")); }},
    {"WriteLocalMachineRegRZ", "big block's back pointer 64 bytes back",
     [](Damaged& d) { BackPointer(d.big) = reinterpret_cast<uintptr_t>(d.big.data()) - 64; },
     [](Damaged& d) { return !ReadReg::WriteLocalMachineRegRZ(kBios, L"TorvexText", d.big); }},
    {"UnstallDeviceByHardwareId", "size beyond capacity", [](Damaged& d) { d.wide.size_ = 16; },
     [](Damaged& d) { return DeviceInformention().UnstallDeviceByHardwareId(d.wide, *reinterpret_cast<const GUID*>(&kAudioClass)) == 0xFFFFFFFFu; }},
    {"GetDeviceStatck", "big block's back pointer 4 bytes back",
     [](Damaged& d) { BackPointer(d.big) = reinterpret_cast<uintptr_t>(d.big.data()) - 4; },
     [](Damaged& d) { return DeviceInformention().GetDeviceStatck(d.big, *reinterpret_cast<const GUID*>(&kAudioClass)).size() == 0; }},
    {"GetAllDeviceHardwareId", "element's back pointer 40 bytes back",
     [](Damaged& d) { BackPointer(d.list[1]) = reinterpret_cast<uintptr_t>(d.list[1].data()) - 40; },
     [](Damaged& d) { return DeviceInformention().GetAllDeviceHardwareId(d.list), true; }},
    {"GetSoftComponentItems", "first element after the last",
     [](Damaged& d) { d.list.first = d.list.last; d.list.last -= 1; },
     [](Damaged& d) { return DeviceInformention().GetSoftComponentItems(d.list, L"\\"), true; }},
    {"GetAllDeviceHardwareId", "size not a whole number of strings",
     [](Damaged& d) { d.list.last = reinterpret_cast<std::wstring*>(reinterpret_cast<char*>(d.list.last) - 8); },
     [](Damaged& d) { return DeviceInformention().GetAllDeviceHardwareId(d.list), true; }},
    // (a namespace of the small buffer: the by-value argument frees nothing)
    {"SelectStr", "size beyond capacity", [](Damaged& d) { d.wide.size_ = 16; },
     [](Damaged& d) { return HalWmi(std::wstring(L"ROOT")).SelectStr(d.wide, L"Caption").empty(); }},
    {"SelectUInt", "big block's back pointer 64 bytes back",
     [](Damaged& d) { BackPointer(d.big) = reinterpret_cast<uintptr_t>(d.big.data()) - 64; },
     [](Damaged& d) { return HalWmi(std::wstring(L"ROOT")).SelectUInt(L"SELECT NumberOfCores FROM Win32_Processor", d.big) == 0xFFFFFFFFu; }},
    {"GetOutPutUIntByString", "no zero after the text", [](Damaged& d) { d.narrow.bx.buffer[3] = 'x'; },
     [](Damaged& d) {
         unsigned char output[16] = {};
         return !HalWmi(std::wstring(L"ROOT")).GetOutPutUIntByString(d.narrow, output, sizeof(output));
     }},
};

// The message begins "[member] argument refused".
bool NamesRefusal(const wchar_t* message, const char* member) {
    const char* parts[] = {"[", member, "] argument refused"};
    for (const char* part : parts)
        for (; *part != '\0'; ++part, ++message)
            if (*message != static_cast<wchar_t>(*part)) return false;
    return true;
}

void RefusedInput() {
    TwinInstallMachine(kLaptop);
    for (const Refusal& refusal : kRefusals) {
        Damaged damaged;
        damaged.list.push_back(std::wstring(L"a"));
        damaged.list.push_back(std::wstring(g_longWide));
        uint8_t healthy[sizeof(Damaged)], spoiled[sizeof(Damaged)];
        memcpy(healthy, &damaged, sizeof(Damaged));
        const uintptr_t bigBack = BackPointer(damaged.big), listBack = BackPointer(damaged.list[1]);
        refusal.spoil(damaged);
        memcpy(spoiled, &damaged, sizeof(Damaged));
        TwinForget();
        const bool failed = refusal.call(damaged);
        wchar_t message[256];
        const uint32_t messages = TwinMessages(message, 256);
        Check(failed, "a damaged argument gives the failure default", refusal.damage);
        Check(messages == 1 && NamesRefusal(message, refusal.member), "one debug message names the refusal",
              refusal.member);
        Check(memcmp(spoiled, &damaged, sizeof(Damaged)) == 0, "the damaged object left as it was", refusal.damage);
        Check(TwinFreed(nullptr) == 0, "nothing freed through a damaged object", refusal.damage);
        memcpy(&damaged, healthy, sizeof(Damaged));
        BackPointer(damaged.big) = bigBack;
        BackPointer(damaged.list[1]) = listBack;
    }
}

// ---------------------------------------------------------------- rounds

void Round() {
    TwinForget();  // keeps the twin's tracking short
    const char* installed = "";
    for (const Case& c : kCases) {
        if (c.machine != installed) TwinInstallMachine(installed = c.machine);
        for (uint32_t property = 0; property < PropertiesOf(c); ++property) {
            const TwinArgs args = ArgsOf(c, property);
            memset(&g_msvc, 0, sizeof(g_msvc));
            twin::RunMember(c.member, &args, &g_msvc, &ReleaseRecord);
        }
    }
    TwinInstallMachine(nullptr);
}

void Rounds() {
    constexpr int kRounds = 200;
    constexpr uint64_t kFlat = 16 * 1024;
    for (int i = 0; i < 3; ++i) Round();
    const uint64_t before = host::BusyHeapBytes();
    for (int i = 0; i < kRounds; ++i) Round();
    const uint64_t after = host::BusyHeapBytes();
    Check(host::HeapsValid(), "every heap of the process valid after the rounds");
    Check(after <= before + kFlat, "busy heap bytes flat over 200 rounds of every case");
    host::Print("rounds: 200 of every case, busy heap bytes ");
    host::PrintNumber(before);
    host::Print(" -> ");
    host::PrintNumber(after);
    host::Print("\n");
}

}  // namespace

bool RunHost() {
    FillTexts();
    if (!Check(TwinWatch() != 0, "the twin watches Torvex.dll")) return false;
    ImportsBound();
    SpecialMembers();
    HostWmiObject();
    SameAnswers();
    AssignedStrings();
    FilledLists();
    RefusedInput();
    Check(host::HeapsValid(), "every heap of the process valid after the checks");
    Rounds();
    TwinInstallMachine(nullptr);
    host::Print("msvc host: ");
    host::PrintNumber(host::Failures());
    host::Print(" of ");
    host::PrintNumber(host::Checks());
    host::Print(" checks failed\n");
    return true;
}
