// Device drivers (class 20): the Plug and Play devices that report a problem,
// listed by caption, and facts about one of them, all from Win32_PnPEntity.
#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "common/narrow_answer.h"
#include "torvex.h"

namespace {

constexpr wchar_t kCimv2[] = L"ROOT\\CIMV2";
constexpr size_t kCaptionChars = 260;
constexpr size_t kEntryBytes = kCaptionChars * sizeof(wchar_t);  // 520
constexpr uint64_t kLargestCount = 8259552;  // 8 + 520 x count must fit the 32-bit size field
constexpr uint32_t kHighestCode = 6;

// Captions of all devices with a non-zero configuration-manager error code,
// split at ";". A caption that itself holds ";" becomes two: the join
// character is the WMI wrapper's, and this split is what hosts have seen.
std::vector<std::wstring> ProblemDeviceCaptions() {
    HalWmi wmi(kCimv2);
    const std::wstring joined = wmi.SelectStrB(
        L"SELECT Caption FROM Win32_PnPEntity WHERE ConfigManagerErrorCode !=0", L"Caption");
    std::vector<std::wstring> captions;
    size_t start = 0;
    while (start < joined.size()) {
        const size_t separator = joined.find(L';', start);
        if (separator == std::wstring::npos) {
            captions.push_back(joined.substr(start));
            break;
        }
        captions.push_back(joined.substr(start, separator - start));  // an empty one between separators is kept
        if (separator == joined.size() - 1) break;                     // a trailing ";" adds nothing
        start = separator + 1;
    }
    return captions;
}

// Text facts: "SELECT " + property + " FROM Win32_PnPEntity WHERE Caption='"
// + caption + "'", the caption inserted as it is.
constexpr std::array<const wchar_t*, kHighestCode + 1> kTextProperties = {
    nullptr, L"DeviceID", L"ClassGuid", nullptr, L"Manufacturer", L"Service", L"Status"};

std::wstring TextFact(const wchar_t* property, const std::wstring& caption) {
    HalWmi wmi(kCimv2);
    return wmi.SelectStr(std::wstring(L"SELECT ") + property + L" FROM Win32_PnPEntity WHERE Caption='" + caption +
                             L"'",
                         property);
}

uint32_t CopyNarrow(const std::wstring& text, void* out, uint32_t outSize, uint32_t* written) {
    return torvex::WriteNarrowAnswer(StringProc::WStringToString(text), out, outSize, written);
}

}  // namespace

uint32_t DeviceDriverInit(void** out) {
    const std::vector<std::wstring> captions = ProblemDeviceCaptions();
    const uint64_t count = captions.size();
    if (out == nullptr || count == 0) return 0;
    const uint64_t entries = count * kEntryBytes;
    auto* list = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(std::min<uint64_t>(entries, 0xFFFFFFFFFFFFFFF7ull) + 8)));
    *out = list;  // stored at once, a null pointer too
    if (list == nullptr || count >= kLargestCount) return 0;
    const uint32_t header[2] = {static_cast<uint32_t>(8 + entries), static_cast<uint32_t>(count)};
    std::memcpy(list, header, sizeof(header));
    for (size_t i = 0; i < captions.size(); ++i) {
        auto* field = reinterpret_cast<wchar_t*>(list + 8 + kEntryBytes * i);
        if (wcscpy_s(field, kCaptionChars, captions[i].c_str()) != 0) std::memset(field, 0, kEntryBytes);
    }
    return 1;
}

uint32_t DeviceDriverQueryInformation(void* caption, uint32_t code, void* out, uint32_t outSize,
                                      uint32_t* written) {
    if (out == nullptr || written == nullptr || caption == nullptr || code > kHighestCode) return 0;
    const std::wstring name(static_cast<const wchar_t*>(caption));
    if (name.empty()) return 0;
    if (code == HAL_DRIVER_CAPTION) return CopyNarrow(name, out, outSize, written);
    if (code == HAL_DRIVER_ERROR_CODE) {
        if (outSize < sizeof(uint32_t)) return 0;
        HalWmi wmi(kCimv2);
        const uint32_t error = wmi.SelectUInt(
            L"SELECT ConfigManagerErrorCode FROM Win32_PnPEntity WHERE Caption='" + name + L"'",
            L"ConfigManagerErrorCode");
        if (error == 0xFFFFFFFFu) return 0;
        std::memcpy(out, &error, sizeof(error));  // `written` is deliberately left as it was
        return 1;
    }
    return CopyNarrow(TextFact(kTextProperties[code], name), out, outSize, written);
}
