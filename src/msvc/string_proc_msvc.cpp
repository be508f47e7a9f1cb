// StringProc under Microsoft's decorated names (Torvex.def names each one):
// the GCC-ABI functions behind the host-layout conversions of msvc_call.h. A
// free function that returns a string takes the result pointer first.
#include "msvc/msvc_call.h"
#include "torvex.h"

using namespace torvex::msvc;

extern "C" {

WideString* MsvcStringProc_StringToWString(WideString* result, const NarrowString* text) noexcept {
    return Return(result, Forward("StringToWString", &StringProc::StringToWString, text));
}

NarrowString* MsvcStringProc_WStringToString(NarrowString* result, const WideString* text) noexcept {
    return Return(result, Forward("WStringToString", &StringProc::WStringToString, text));
}

WideString* MsvcStringProc_StringToWStringByUTF8(WideString* result, const NarrowString* text) noexcept {
    return Return(result, Forward("StringToWStringByUTF8", &StringProc::StringToWStringByUTF8, text));
}

NarrowString* MsvcStringProc_WStringToStringByUTF8(NarrowString* result, const WideString* text) noexcept {
    return Return(result, Forward("WStringToStringByUTF8", &StringProc::WStringToStringByUTF8, text));
}

NarrowString* MsvcStringProc_StringTrim(NarrowString* result, const NarrowString* text) noexcept {
    return Return(result, Forward("StringTrim", &StringProc::StringTrim, text));
}

WideString* MsvcStringProc_WStringTrim(WideString* result, const WideString* text) noexcept {
    return Return(result, Forward("WStringTrim", &StringProc::WStringTrim, text));
}

WideString* MsvcStringProc_ReplacePlaceholder(WideString* result, const WideString* text,
                                              const WideString* replacement, const WideString* placeholder) noexcept {
    return Return(result,
                  Forward("ReplacePlaceholder", &StringProc::ReplacePlaceholder, text, replacement, placeholder));
}

NarrowString* MsvcStringProc_ToLower(NarrowString* result, const NarrowString* text) noexcept {
    return Return(result, Forward("ToLower", &StringProc::ToLower, text));
}

bool MsvcStringProc_CompareNoCase(const NarrowString* left, const NarrowString* right) noexcept {
    return Forward("CompareNoCase", &StringProc::CompareNoCase, left, right).Or(false);
}

}  // extern "C"
