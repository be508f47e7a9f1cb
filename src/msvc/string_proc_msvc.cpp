// StringProc under Microsoft's decorated names (Torvex.def names each one). A
// free function that returns a string takes the result pointer first. The
// functions are cheap next to a copy of their text, so these read the host's
// strings in place and build the result once, straight in the host's layout,
// with the same work as the GCC-ABI functions (common/string_proc.h): no
// libstdc++ string in between, which would cost a copy each way.
#include <cwchar>

#include "common/string_proc.h"
#include "msvc/msvc_call.h"
#include "torvex.h"
#include "torvex/text.h"

using namespace torvex::msvc;
using namespace torvex::string_proc;

namespace {

// A result is always constructed, empty when an argument is refused: the host
// destroys it in any case. An accepted call constructs it once, with its text.
template <typename C, typename... Host>
bool Accepted(const char* member, String<C>* result, const Host*... host) noexcept {
    if ((Acceptable(host) && ...)) return true;
    Construct(result, std::basic_string_view<C>());
    Report(member, kRefused);
    return false;
}

template <typename C>
String<C>* Built(const char* member, String<C>* result, std::basic_string_view<C> text) noexcept {
    if (!Construct(result, text)) Report(member, kOutOfMemory);
    return result;
}

// Narrow text converts to wide and wide to narrow.
template <typename Storage>
size_t ConvertIn(std::string_view text, UINT codePage, Storage&& storage) {
    return torvex::text::ToWideIn(text, codePage, storage);
}
template <typename Storage>
size_t ConvertIn(std::wstring_view text, UINT codePage, Storage&& storage) {
    return torvex::text::ToNarrowIn(text, codePage, storage);
}

// The first pass's length builds the result and the second pass writes into
// it; a conversion that gives nothing leaves it empty and small.
template <typename Out, typename In>
String<Out>* Converted(const char* member, String<Out>* result, const String<In>* text, UINT codePage) noexcept {
    if (!Accepted(member, result, text)) return result;
    bool built = false, outOfMemory = false;
    const size_t written = ConvertIn(View(text), codePage, [&](size_t units) {
        Out* data = ConstructForOverwrite(result, units);
        built = true;
        outOfMemory = data == nullptr;
        return data;
    });
    if (!built)
        Construct(result, std::basic_string_view<Out>());
    else if (written == 0)
        Destroy(result);
    else
        Truncate(result, written);
    if (outOfMemory) Report(member, kOutOfMemory);
    return result;
}

}  // namespace

extern "C" {

WideString* MsvcStringProc_StringToWString(WideString* result, const NarrowString* text) noexcept {
    return Converted("StringToWString", result, text, kAnsi);
}

NarrowString* MsvcStringProc_WStringToString(NarrowString* result, const WideString* text) noexcept {
    return Converted("WStringToString", result, text, kAnsi);
}

WideString* MsvcStringProc_StringToWStringByUTF8(WideString* result, const NarrowString* text) noexcept {
    return Converted("StringToWStringByUTF8", result, text, kUtf8);
}

NarrowString* MsvcStringProc_WStringToStringByUTF8(NarrowString* result, const WideString* text) noexcept {
    return Converted("WStringToStringByUTF8", result, text, kUtf8);
}

NarrowString* MsvcStringProc_StringTrim(NarrowString* result, const NarrowString* text) noexcept {
    if (!Accepted("StringTrim", result, text)) return result;
    return Built("StringTrim", result, TrimSpaces(View(text)));
}

WideString* MsvcStringProc_WStringTrim(WideString* result, const WideString* text) noexcept {
    if (!Accepted("WStringTrim", result, text)) return result;
    return Built("WStringTrim", result, TrimSpaces(View(text)));
}

// The text before the placeholder, the replacement and the text after it,
// written once into a result of their joint length (two valid strings' sizes
// cannot overflow it; a length past the library's limit finds no memory).
WideString* MsvcStringProc_ReplacePlaceholder(WideString* result, const WideString* text,
                                              const WideString* replacement, const WideString* placeholder) noexcept {
    if (!Accepted("ReplacePlaceholder", result, text, replacement, placeholder)) return result;
    const std::wstring_view whole = View(text), with = View(replacement), what = View(placeholder);
    const auto at = FindPlaceholder(whole, what);
    if (!at) return Built("ReplacePlaceholder", result, {});
    const std::wstring_view before = whole.substr(0, *at), after = whole.substr(*at + what.size());
    wchar_t* data = ConstructForOverwrite(result, before.size() + with.size() + after.size());
    if (data == nullptr) {
        Report("ReplacePlaceholder", kOutOfMemory);
        return result;
    }
    for (const std::wstring_view part : {before, with, after}) {
        if (!part.empty()) std::wmemcpy(data, part.data(), part.size());
        data += part.size();
    }
    return result;
}

NarrowString* MsvcStringProc_ToLower(NarrowString* result, const NarrowString* text) noexcept {
    if (!Accepted("ToLower", result, text)) return result;
    if (!Construct(result, View(text))) {
        Report("ToLower", kOutOfMemory);
        return result;
    }
    LowerInPlace(result->Data(), result->size);
    return result;
}

bool MsvcStringProc_CompareNoCase(const NarrowString* left, const NarrowString* right) noexcept {
    if (!Acceptable(left) || !Acceptable(right)) {
        Report("CompareNoCase", kRefused);
        return false;
    }
    return EqualNoCase(View(left), View(right));
}

}  // extern "C"
