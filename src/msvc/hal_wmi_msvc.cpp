// HalWmi under Microsoft's decorated names (Torvex.def names each one). The
// object lives in storage the host allocates from its own declaration of the
// class, so it has that declaration's layout under Microsoft's rules, below;
// every member runs the same free function of wmi.h that the GCC-ABI member
// runs, on a target read from the host's object, with the host's strings read
// in place.
#include <comdef.h>

#include <cstddef>
#include <exception>
#include <optional>

#include "msvc/msvc_call.h"
#include "torvex.h"
#include "wmi/wmi.h"

using namespace torvex::msvc;
namespace wmi = torvex::wmi;

namespace {

// The host's HalWmi: 48 bytes, and no member writes past them.
struct HostWmi {
    bool initialized;
    WideString nameSpace;
    bool comInitialized;
};
static_assert(offsetof(HostWmi, nameSpace) == 8 && offsetof(HostWmi, comInitialized) == 40);
static_assert(sizeof(HostWmi) == 48, "sizeof(HalWmi) in a host built with Microsoft's toolchain");

// Runs a member on the host's object once its namespace and every host
// string it is given pass their checks; the strings are read in place. A
// refusal or an allocation failure gives no value and a debug message.
template <typename Fn, typename... Texts>
auto OnTarget(const char* member, const HostWmi* self, Fn&& fn, const Texts*... texts) noexcept
    -> Outcome<decltype(fn(wmi::Target{}, View(texts)...))> {
    if (self == nullptr || !Valid(&self->nameSpace) || !(Valid(texts) && ...)) {
        Report(member, kRefused);
        return {member, std::nullopt};
    }
    try {
        return {member, fn(wmi::Target{self->initialized, View(&self->nameSpace)}, View(texts)...)};
    } catch (const _com_error&) {
        // SelectUintForCpuCacheL1AndL2 throws _com_error when it runs out of
        // memory. A GCC exception cannot be caught as _com_error by a host
        // built with Microsoft's toolchain, so a direct caller sees the
        // process end, as it would for a throw it does not catch. The flat
        // CPU codes catch it inside the library.
        Report(member, kOutOfMemory);
        std::terminate();
    } catch (...) {
        Report(member, kOutOfMemory);
        return {member, std::nullopt};
    }
}

// A select member that answers a string: the result is always constructed.
template <typename Select>
WideString* SelectText(const char* member, const HostWmi* self, WideString* result, Select select,
                       const WideString* first, const WideString* property) noexcept {
    return Return(result, OnTarget(member, self, select, first, property));
}

// The start-up the constructors and Init run: COM entered, then the
// process-wide security call.
void StartUp(HostWmi* self) noexcept { self->initialized = wmi::StartUp(self->comInitialized); }

}  // namespace

extern "C" {

// The namespace is taken by value: it is this member's to destroy. A string
// that fails its checks is neither read nor freed; the object is then made
// on an empty namespace.
HostWmi* MsvcHalWmi_Construct(HostWmi* self, WideString* nameSpace) noexcept {
    self->initialized = false;
    self->comInitialized = false;
    std::wstring text;
    bool taken = false;
    try {
        taken = TakeByValue(nameSpace, text);
    } catch (...) {
        // the argument was destroyed; the namespace stays empty
    }
    if (!taken) Report("HalWmi", kRefused);
    if (!Construct(&self->nameSpace, std::wstring_view(text))) Report("HalWmi", kOutOfMemory);
    StartUp(self);
    return self;
}

// Copies carry all three members, as the GCC-ABI class's copies do (see
// hal_wmi.cpp).
HostWmi* MsvcHalWmi_Copy(HostWmi* self, const HostWmi* other) noexcept {
    self->initialized = other->initialized;
    self->comInitialized = other->comInitialized;
    const bool valid = Valid(&other->nameSpace);
    if (!valid) Report("HalWmi", kRefused);
    if (!Construct(&self->nameSpace, valid ? View(&other->nameSpace) : std::wstring_view()))
        Report("HalWmi", kOutOfMemory);
    return self;
}

HostWmi* MsvcHalWmi_Assign(HostWmi* self, const HostWmi* other) noexcept {
    if (self == other) return self;
    if (!Valid(&self->nameSpace) || !Valid(&other->nameSpace)) {
        Report("operator=", kRefused);
        return self;
    }
    if (!Assign(&self->nameSpace, View(&other->nameSpace))) {
        Report("operator=", kOutOfMemory);
        return self;
    }
    self->initialized = other->initialized;
    self->comInitialized = other->comInitialized;
    return self;
}

void MsvcHalWmi_Destroy(HostWmi* self) noexcept {
    if (self->comInitialized) CoUninitialize();
    if (Valid(&self->nameSpace)) Destroy(&self->nameSpace);
}

bool MsvcHalWmi_Init(HostWmi* self) noexcept {
    if (!self->initialized) StartUp(self);
    return self->initialized;
}

bool MsvcHalWmi_Select(const HostWmi* self, const WideString* query, const WideString* property,
                       unsigned char* buffer, int size) noexcept {
    return OnTarget(
               "Select", self,
               [&](const wmi::Target& target, std::wstring_view q, std::wstring_view p) {
                   return wmi::Select(target, q, p, buffer, size);
               },
               query, property)
        .Or(false);
}

WideString* MsvcHalWmi_SelectStr(const HostWmi* self, WideString* result, const WideString* query,
                                 const WideString* property) noexcept {
    return SelectText("SelectStr", self, result, &wmi::SelectStr, query, property);
}

WideString* MsvcHalWmi_SelectStrA(const HostWmi* self, WideString* result, const WideString* className,
                                  const WideString* property) noexcept {
    return SelectText("SelectStrA", self, result, &wmi::SelectStrA, className, property);
}

WideString* MsvcHalWmi_SelectStrB(const HostWmi* self, WideString* result, const WideString* query,
                                  const WideString* property) noexcept {
    return SelectText("SelectStrB", self, result, &wmi::SelectStrB, query, property);
}

WideString* MsvcHalWmi_SelectUIntArray(const HostWmi* self, WideString* result, const WideString* className,
                                       const WideString* property) noexcept {
    return SelectText("SelectUIntArray", self, result, &wmi::SelectUIntArray, className, property);
}

unsigned int MsvcHalWmi_SelectUInt(const HostWmi* self, const WideString* query,
                                   const WideString* property) noexcept {
    return OnTarget("SelectUInt", self, &wmi::SelectUInt, query, property).Or(wmi::kNoNumber);
}

unsigned int MsvcHalWmi_SelectUintForCpuCacheL1AndL2(const HostWmi* self, const WideString* query,
                                                     const WideString* property) noexcept {
    return OnTarget("SelectUintForCpuCacheL1AndL2", self, &wmi::SelectUintForCpuCacheL1AndL2, query, property)
        .Or(0);
}

bool MsvcHalWmi_SelectBool(const HostWmi* self, const WideString* query, const WideString* property) noexcept {
    return OnTarget("SelectBool", self, &wmi::SelectBool, query, property).Or(false);
}

bool MsvcHalWmi_GetOutPutUIntEx(const HostWmi* self, unsigned char* input, unsigned int inputSize,
                                unsigned char* output, unsigned int outputSize) noexcept {
    return OnTarget("GetOutPutUIntEx", self,
                    [&](const wmi::Target& target) {
                        return wmi::GetOutPutUIntEx(target, input, inputSize, output, outputSize);
                    })
        .Or(false);
}

bool MsvcHalWmi_GetOutPutUInt(const HostWmi* self, unsigned long long command, unsigned char* output,
                              unsigned int outputSize) noexcept {
    return OnTarget("GetOutPutUInt", self,
                    [&](const wmi::Target& target) { return wmi::GetOutPutUInt(target, command, output, outputSize); })
        .Or(false);
}

bool MsvcHalWmi_GetOutPutUIntByString(const HostWmi* self, const NarrowString* text, unsigned char* output,
                                      unsigned int outputSize) noexcept {
    return OnTarget(
               "GetOutPutUIntByString", self,
               [&](const wmi::Target& target, std::string_view command) {
                   return wmi::GetOutPutUIntByString(target, command, output, outputSize);
               },
               text)
        .Or(false);
}

bool MsvcHalWmi_GetPL1(const HostWmi* self, float* value) noexcept {
    if (value == nullptr) {
        Report("GetPL1", kRefused);
        return false;
    }
    return OnTarget("GetPL1", self, [&](const wmi::Target& target) { return wmi::GetPL1(target, *value); }).Or(false);
}

bool MsvcHalWmi_StartSuperSaver(const HostWmi* self) noexcept {
    return OnTarget("StartSuperSaver", self, &wmi::StartSuperSaver).Or(false);
}

bool MsvcHalWmi_StopSuperSaver(const HostWmi* self) noexcept {
    return OnTarget("StopSuperSaver", self, &wmi::StopSuperSaver).Or(false);
}

bool MsvcHalWmi_SetOdvp0ToDefault(const HostWmi* self) noexcept {
    return OnTarget("SetOdvp0ToDefault", self, &wmi::SetOdvp0ToDefault).Or(false);
}

}  // extern "C"
