// ReadReg under Microsoft's decorated names (Torvex.def names each one): the
// GCC-ABI members behind the host-layout conversions of msvc_call.h.
#include <new>

#include "msvc/msvc_call.h"
#include "torvex.h"

using namespace torvex::msvc;

namespace {

using TextRead = bool (*)(const std::wstring&, const std::wstring&, std::wstring&);

// The member clears the value first and fills it on success; the host's
// string gets the same, in place where its capacity allows. A refused
// argument leaves it as it was.
bool ReadText(const char* member, TextRead read, const WideString* subKey, const WideString* valueName,
              WideString* value) noexcept {
    if (!Valid(value)) {
        Report(member, kRefused);
        return false;
    }
    std::wstring text;
    const auto outcome = Forward(
        member, [&](const std::wstring& key, const std::wstring& name) { return read(key, name, text); }, subKey,
        valueName);
    if (!outcome.value) return false;
    if (!Assign(value, std::wstring_view(text))) {
        Report(member, kOutOfMemory);
        return false;
    }
    return *outcome.value;
}

}  // namespace

extern "C" {

ReadReg* MsvcReadReg_Construct(ReadReg* self) noexcept { return new (self) ReadReg(); }

void MsvcReadReg_Destroy(ReadReg* self) noexcept { self->~ReadReg(); }

ReadReg* MsvcReadReg_Assign(ReadReg* self, const ReadReg* other) noexcept {
    *self = *other;
    return self;
}

bool MsvcReadReg_ReadLocalMachineRegDW(const WideString* subKey, const WideString* valueName,
                                       unsigned long* value) noexcept {
    return Forward("ReadLocalMachineRegDW", &ReadReg::ReadLocalMachineRegDW, subKey, valueName, value).Or(false);
}

bool MsvcReadReg_ReadLocalMachineRegRZ(const WideString* subKey, const WideString* valueName,
                                       WideString* value) noexcept {
    return ReadText("ReadLocalMachineRegRZ", &ReadReg::ReadLocalMachineRegRZ, subKey, valueName, value);
}

bool MsvcReadReg_ReadLocalMachineRegExpandRZ(const WideString* subKey, const WideString* valueName,
                                             WideString* value) noexcept {
    return ReadText("ReadLocalMachineRegExpandRZ", &ReadReg::ReadLocalMachineRegExpandRZ, subKey, valueName, value);
}

bool MsvcReadReg_WrightLocalMachineRegDW(const WideString* subKey, const WideString* valueName,
                                         unsigned long value) noexcept {
    return Forward("WrightLocalMachineRegDW", &ReadReg::WrightLocalMachineRegDW, subKey, valueName, value).Or(false);
}

bool MsvcReadReg_WriteLocalMachineRegRZ(const WideString* subKey, const WideString* valueName,
                                        const WideString* value) noexcept {
    return Forward("WriteLocalMachineRegRZ", &ReadReg::WriteLocalMachineRegRZ, subKey, valueName, value).Or(false);
}

bool MsvcReadReg_WrightLocalMachineRegExpandRZ(const WideString* subKey, const WideString* valueName,
                                               const WideString* value) noexcept {
    return Forward("WrightLocalMachineRegExpandRZ", &ReadReg::WrightLocalMachineRegExpandRZ, subKey, valueName,
                   value)
        .Or(false);
}

}  // extern "C"
