// CPU information (class 0): vendor and name from the registry or WMI, cache
// and clock facts from WMI, an extended-CPUID probe, one OEM firmware value,
// and the process-wide vendor classification.
#include <windows.h>
#include <comdef.h>

#include <cpuid.h>

#include <array>
#include <cctype>
#include <optional>
#include <string>

#include "common/codec.h"
#include "platform/cpu_internal.h"
#include "torvex.h"
#include "wmi/wmi.h"

namespace {

namespace wmi = torvex::wmi;
using torvex::Written;

constexpr wchar_t kCpuKey[] = L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";

// Written by CpuInit, HalInit(0) and code 18; read by code 6. Plain variable:
// concurrent detections write the same value.
uint32_t g_cpuVendor = HAL_CPU_VENDOR_UNKNOWN;

enum class Source {
    None,
    RegistryThenWmi,  // narrow text: registry value, else SelectStr
    Associativity,    // narrow text from the associativity table
    CpuidProbe,
    SelectUInt,
    CacheSum,         // SelectUintForCpuCacheL1AndL2
    Oem,
    Vendor,
};

struct CodeInfo {
    Source source;
    const wchar_t* query;
    const wchar_t* property;
    const wchar_t* registryValue;
};

// Code 0's WMI fallback asks the row for "REG_NAME_CPU_VENDOR", a property it
// does not have; codes 12 and 13 sum over rows while 14 reads the first. Both
// are kept as they are: hosts were built against these answers.
constexpr std::array<CodeInfo, HAL_CPU_VENDOR_CLASS + 1> kCodes = {{
    {Source::RegistryThenWmi, L"SELECT Manufacturer FROM Win32_Processor", L"REG_NAME_CPU_VENDOR", L"VendorIdentifier"},
    {Source::RegistryThenWmi, L"SELECT Name FROM Win32_Processor", L"Name", L"ProcessorNameString"},
    {Source::Associativity, L"SELECT Associativity FROM Win32_CacheMemory WHERE Level='3'", L"Associativity", nullptr},
    {Source::Associativity, L"SELECT Associativity FROM Win32_CacheMemory WHERE Level='4'", L"Associativity", nullptr},
    {Source::Associativity, L"SELECT Associativity FROM Win32_CacheMemory WHERE Level='5'", L"Associativity", nullptr},
    {Source::None, nullptr, nullptr, nullptr},
    {Source::CpuidProbe, nullptr, nullptr, nullptr},
    {Source::SelectUInt, L"SELECT CurrentClockSpeed FROM Win32_Processor", L"CurrentClockSpeed", nullptr},
    {Source::SelectUInt, L"SELECT ExtClock FROM Win32_Processor", L"ExtClock", nullptr},
    {Source::SelectUInt, L"SELECT MaxClockSpeed FROM Win32_Processor", L"MaxClockSpeed", nullptr},
    {Source::SelectUInt, L"SELECT NumberOfCores FROM Win32_Processor", L"NumberOfCores", nullptr},
    {Source::SelectUInt, L"SELECT NumberOfLogicalProcessors FROM Win32_Processor", L"NumberOfLogicalProcessors",
     nullptr},
    {Source::CacheSum, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'", L"InstalledSize", nullptr},
    {Source::CacheSum, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='4'", L"InstalledSize", nullptr},
    {Source::SelectUInt, L"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='5'", L"InstalledSize", nullptr},
    {Source::Oem, nullptr, nullptr, nullptr},
    {Source::None, nullptr, nullptr, nullptr},
    {Source::SelectUInt, L"SELECT LoadPercentage FROM Win32_Processor", L"LoadPercentage", nullptr},
    {Source::Vendor, nullptr, nullptr, nullptr},
}};

std::wstring RegistryThenWmi(const CodeInfo& info) {
    std::wstring text;
    if (ReadReg::ReadLocalMachineRegRZ(kCpuKey, info.registryValue, text) && !text.empty()) return text;
    return wmi::Session(wmi::kCimv2).First<std::wstring>(info.query, info.property).value_or(std::wstring());
}

// A cache sum of 0xFFFFFFFF counts as no value, as SelectUInt's answer does;
// when the sum could not build its query strings, its out-of-memory error
// ends here as no value, never at the export.
std::optional<uint32_t> WmiNumber(const CodeInfo& info) {
    const wmi::Session cimv2(wmi::kCimv2);
    if (info.source != Source::CacheSum) return cimv2.Number(info.query, info.property);
    try {
        const uint32_t sum = wmi::SelectUintForCpuCacheL1AndL2(cimv2.target(), info.query, info.property);
        if (sum != wmi::kNoNumber) return sum;
    } catch (const _com_error&) {
    }
    return std::nullopt;
}

// Only reports that extended leaf 0x80000008 exists. The comparison is signed
// on purpose, so a maximum below 0x80000000 passes as well.
bool ProbeExtendedCpuid() {
    if (g_cpuVendor != HAL_CPU_VENDOR_INTEL && g_cpuVendor != HAL_CPU_VENDOR_AMD) return false;
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    __cpuid_count(0x80000000u, 0, eax, ebx, ecx, edx);
    if (static_cast<int32_t>(eax) < static_cast<int32_t>(0x80000008u)) return false;
    __cpuid_count(0x80000008u, 0, eax, ebx, ecx, edx);
    return true;
}

bool ReadOemValue(uint32_t& value) {
    const unsigned char input[wmi::kPacketBytes] = {0x02, 0x02};
    unsigned char output[260] = {};
    if (!wmi::Session(wmi::kRootWmi).Method(input, output, sizeof(output)) || output[0] != 0) return false;
    value = output[2];
    return true;
}

}  // namespace

namespace torvex {

std::string AssociativityText(uint32_t associativity) {
    // 5 and 6 are paired the other way round from the WMI documentation, and
    // the trailing blanks belong to the texts: hosts match on them.
    switch (associativity) {
    case 3: return "Direct Mapped ";
    case 4: return "2-way";
    case 5: return "Fully Associative ";
    case 6: return "4-way";
    case 7: return "8-way";
    case 8: return "16-way";
    default: return "Unknown ";
    }
}

uint32_t ClassifyCpuVendor(std::wstring name) {
    for (auto& unit : name)
        if (unit < 0x100) unit = static_cast<wchar_t>(std::tolower(static_cast<int>(unit)));
    if (name.rfind(L"intel", 0) == 0) return HAL_CPU_VENDOR_INTEL;
    if (name.find(L"intel(r)") != std::wstring::npos) return HAL_CPU_VENDOR_INTEL;
    if (name.rfind(L"amd", 0) == 0) return HAL_CPU_VENDOR_AMD;
    if (name.rfind(L"snapdragon", 0) == 0) return HAL_CPU_VENDOR_SNAPDRAGON;
    return HAL_CPU_VENDOR_UNKNOWN;
}

uint32_t DetectCpuVendor() {
    g_cpuVendor = ClassifyCpuVendor(RegistryThenWmi(kCodes[HAL_CPU_NAME]));
    return g_cpuVendor;
}

}  // namespace torvex

uint32_t CpuInit() {
    torvex::DetectCpuVendor();
    return 1;
}

uint32_t CpuQueryInformation(int32_t code, void* buffer, uint32_t size, uint32_t* written) {
    if (buffer == nullptr || written == nullptr) return 0;
    if (code < 0 || code >= static_cast<int32_t>(kCodes.size())) return 0;
    const CodeInfo& info = kCodes[static_cast<size_t>(code)];

    switch (info.source) {
    case Source::RegistryThenWmi:
        return torvex::PutNarrowText(StringProc::WStringToString(RegistryThenWmi(info)), buffer, size, written);
    case Source::Associativity: {
        const std::optional<uint32_t> associativity = wmi::Session(wmi::kCimv2).Number(info.query, info.property);
        if (!associativity || *associativity == 0) return 0;
        return torvex::PutNarrowText(torvex::AssociativityText(*associativity), buffer, size, written);
    }
    case Source::Vendor: {
        const uint32_t vendor = torvex::DetectCpuVendor();  // runs before the size check on purpose
        if (size < sizeof(vendor)) return 0;
        return torvex::PutValue(buffer, written, vendor, Written::Untouched);
    }
    default:
        break;
    }

    // Numeric codes: one u32 at the start of the buffer; *written is not touched.
    if (info.source == Source::None || size < sizeof(uint32_t)) return 0;
    uint32_t value = 0;
    switch (info.source) {
    case Source::CpuidProbe:
        if (!ProbeExtendedCpuid()) return 0;
        break;
    case Source::Oem:
        if (!ReadOemValue(value)) return 0;
        break;
    default: {
        const std::optional<uint32_t> number = WmiNumber(info);
        if (!number || *number == 0) return 0;  // a genuine 0 (such as 0 % load) fails too
        value = *number;
        break;
    }
    }
    return torvex::PutValue(buffer, written, value, Written::Untouched);
}
