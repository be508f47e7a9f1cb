// Mainboard and BIOS (class 4): the firmware's registry copy of its tables is
// read first, WMI is the fallback. Every answer is narrow text.
#include <array>
#include <string>

#include "common/codec.h"
#include "torvex.h"
#include "wmi/wmi.h"

namespace {

const std::wstring kBiosKey = L"HARDWARE\\DESCRIPTION\\System\\BIOS";
const std::wstring kSelect = L"SELECT ";
const std::wstring kFromBaseBoard = L" FROM Win32_BaseBoard";
const std::wstring kFromBios = L" FROM Win32_BIOS";

struct Fact {
    const wchar_t* registryValue;  // null: the registry is not consulted
    const wchar_t* wmiProperty;
    const std::wstring* wmiFrom;
};

// Codes 0-5. The baseboard serial number always comes from WMI.
const std::array<Fact, HAL_MB_BIOS_RELEASE_DATE> kFacts = {{
    {L"BaseBoardProduct", L"Product", &kFromBaseBoard},
    {L"BaseBoardManufacturer", L"Manufacturer", &kFromBaseBoard},
    {L"BaseBoardVersion", L"Version", &kFromBaseBoard},
    {nullptr, L"SerialNumber", &kFromBaseBoard},
    {L"BIOSVersion", L"SMBIOSBIOSVersion", &kFromBios},
    {L"BIOSVendor", L"Manufacturer", &kFromBios},
}};

// Firmware strings are passed through untrimmed; an empty or missing registry
// value selects WMI.
std::string FactAnswer(const Fact& fact) {
    if (fact.registryValue != nullptr) {
        std::wstring value;
        if (ReadReg::ReadLocalMachineRegRZ(kBiosKey, fact.registryValue, value) && !value.empty())
            return StringProc::WStringToString(value);
    }
    const std::wstring property = fact.wmiProperty;
    return StringProc::WStringToString(torvex::wmi::Session(torvex::wmi::kCimv2)
                                           .First<std::wstring>(kSelect + property + *fact.wmiFrom, property)
                                           .value_or(std::wstring()));
}

// The registry holds the firmware's MM/DD/YYYY form: exactly 10 characters,
// the separators at 2 and 5 are not looked at.
constexpr size_t kRegistryDateLength = 10;

// WMI's datetime starts with YYYYMMDD. At least 9 characters must follow the
// leading blanks although only 8 are taken: a bare date without its time part
// is refused, and has always been.
constexpr size_t kWmiDateMinimum = 9;
constexpr size_t kDateLength = 8;

std::string ReleaseDateAnswer() {
    std::wstring value;
    if (ReadReg::ReadLocalMachineRegRZ(kBiosKey, L"BIOSReleaseDate", value) &&
        value.size() == kRegistryDateLength) {
        const std::wstring date = value.substr(6, 4) + value.substr(0, 2) + value.substr(3, 2);
        return StringProc::WStringToString(date);
    }
    const std::string text = StringProc::WStringToString(
        torvex::wmi::Session(torvex::wmi::kCimv2)
            .First<std::wstring>(L"SELECT ReleaseDate FROM Win32_BIOS", L"ReleaseDate")
            .value_or(std::wstring()));
    const size_t start = text.find_first_not_of(' ');
    if (start == std::string::npos || text.size() - start < kWmiDateMinimum) return std::string();
    return text.substr(start, kDateLength);
}

}  // namespace

// The mainboard, the battery and the GPU need no record and accept no set:
// BtInit is exported as this same function and GpSetInformation as
// MbSetInformation (see Torvex.def).
uint32_t MbInit() { return 1; }
uint32_t MbSetInformation(uint32_t, void*, uint32_t, uint32_t*) { return 0; }

uint32_t MbQueryInformation(uint32_t code, void* buffer, uint32_t size, uint32_t* returned) {
    if (code > HAL_MB_BIOS_RELEASE_DATE) return 0;
    const std::string answer = code == HAL_MB_BIOS_RELEASE_DATE ? ReleaseDateAnswer() : FactAnswer(kFacts[code]);
    return torvex::PutNarrowText(answer, buffer, size, returned);
}
