// Device drivers (class 20): the Plug and Play devices that report a problem,
// listed by caption, and facts about one of them, all from Win32_PnPEntity.
#include <windows.h>

#include <array>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "common/codec.h"
#include "torvex.h"
#include "wmi/wmi.h"

namespace {

using torvex::wmi::Session;
using torvex::wmi::kCimv2;

// Counts from this one on are refused, although this one's list (4294967048
// bytes) would still fit its size field: kept as hosts have always seen it.
constexpr uint64_t kLargestCount = 8259552;

// Captions of all devices with a non-zero configuration-manager error code.
std::vector<std::wstring> ProblemDeviceCaptions() {
    return Session(kCimv2).List(L"SELECT Caption FROM Win32_PnPEntity WHERE ConfigManagerErrorCode !=0", L"Caption");
}

// Text facts: "SELECT " + property + " FROM Win32_PnPEntity WHERE Caption='"
// + caption + "'", the caption inserted as it is.
constexpr std::array<const wchar_t*, HAL_DRIVER_STATUS + 1> kTextProperties = {
    nullptr, L"DeviceID", L"ClassGuid", nullptr, L"Manufacturer", L"Service", L"Status"};

std::wstring TextFact(const wchar_t* property, const std::wstring& caption) {
    return Session(kCimv2)
        .First<std::wstring>(std::wstring(L"SELECT ") + property + L" FROM Win32_PnPEntity WHERE Caption='" + caption +
                                 L"'",
                             property)
        .value_or(std::wstring());
}

uint32_t CopyNarrow(const std::wstring& text, void* out, uint32_t outSize, uint32_t* written) {
    return torvex::PutNarrowText(StringProc::WStringToString(text), out, outSize, written);
}

}  // namespace

uint32_t DeviceDriverInit(void** out) {
    const std::vector<std::wstring> captions = ProblemDeviceCaptions();
    const uint64_t count = captions.size();
    if (out == nullptr || count == 0) return 0;
    auto* list = torvex::NewList<HalDriverProblemList>(count);
    *out = list;  // stored at once, a null pointer too
    if (list == nullptr || count >= kLargestCount) return 0;
    for (size_t i = 0; i < captions.size(); ++i) {
        auto& field = list->captions[i];
        if (wcscpy_s(field, std::size(field), captions[i].c_str()) != 0) std::memset(field, 0, sizeof(field));
    }
    return 1;
}

uint32_t DeviceDriverQueryInformation(void* caption, uint32_t code, void* out, uint32_t outSize,
                                      uint32_t* written) {
    if (out == nullptr || written == nullptr || caption == nullptr || code > HAL_DRIVER_STATUS) return 0;
    const std::wstring name(static_cast<const wchar_t*>(caption));
    if (name.empty()) return 0;
    if (code == HAL_DRIVER_CAPTION) return CopyNarrow(name, out, outSize, written);
    if (code == HAL_DRIVER_ERROR_CODE) {
        if (outSize < sizeof(uint32_t)) return 0;
        const std::optional<uint32_t> error = Session(kCimv2).Number(
            L"SELECT ConfigManagerErrorCode FROM Win32_PnPEntity WHERE Caption='" + name + L"'",
            L"ConfigManagerErrorCode");
        if (!error) return 0;
        return torvex::PutValue(out, written, *error, torvex::Written::Untouched);
    }
    return CopyNarrow(TextFact(kTextProperties[code], name), out, outSize, written);
}
