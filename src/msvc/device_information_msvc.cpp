// DeviceInformention under Microsoft's decorated names (Torvex.def names each
// one): the GCC-ABI members behind the host-layout conversions of
// msvc_call.h. The class has no data, so the host's object is the member's.
#include <new>

#include "msvc/msvc_call.h"
#include "torvex.h"

using namespace torvex::msvc;

namespace {

using Device = DeviceInformention;
constexpr unsigned int kNoDevice = 0xFFFFFFFFu;  // the uninstall members' status for "nothing removed"

// Runs a member that adds to a list on a fresh list of its own, then appends
// what it found to the host's vector (cleared first when the member clears).
template <typename Fn, typename... Host>
void AddToHostList(const char* member, WideVector* list, bool clearFirst, Fn&& fill, Host... host) noexcept {
    if (!Valid(list)) {
        Report(member, kRefused);
        return;
    }
    std::vector<std::wstring> found;
    const auto outcome = Forward(
        member,
        [&](auto&&... native) {
            fill(found, native...);
            return true;
        },
        host...);
    if (!outcome.value) return;
    if (clearFirst) Clear(list);
    AppendAll(list, found, member);
}

}  // namespace

extern "C" {

Device* MsvcDeviceInformention_Construct(Device* self) noexcept { return new (self) Device(); }

void MsvcDeviceInformention_Destroy(Device* self) noexcept { self->~Device(); }

Device* MsvcDeviceInformention_Assign(Device* self, const Device* other) noexcept {
    *self = *other;
    return self;
}

WideVector* MsvcDeviceInformention_GetDeviceHardwareId(Device* self, WideVector* result,
                                                        const GUID* classGuid) noexcept {
    return Return(result, Forward("GetDeviceHardwareId", &Device::GetDeviceHardwareId, self, classGuid));
}

WideVector* MsvcDeviceInformention_GetDeviceDesc(Device* self, WideVector* result, const GUID* classGuid) noexcept {
    return Return(result, Forward("GetDeviceDesc", &Device::GetDeviceDesc, self, classGuid));
}

WideString* MsvcDeviceInformention_GetDeviceStrInfoByHardwareId(Device* self, WideString* result,
                                                                const WideString* hardwareId, const GUID* classGuid,
                                                                EnumDeviceProperty property) noexcept {
    return Return(result, Forward("GetDeviceStrInfoByHardwareId", &Device::GetDeviceStrInfoByHardwareId, self,
                                  hardwareId, classGuid, property));
}

unsigned int MsvcDeviceInformention_GetDeviceULONGInfoByHardwareId(Device* self, const WideString* hardwareId,
                                                                   const GUID* classGuid,
                                                                   EnumDeviceProperty property) noexcept {
    return Forward("GetDeviceULONGInfoByHardwareId", &Device::GetDeviceULONGInfoByHardwareId, self, hardwareId,
                   classGuid, property)
        .Or(0);
}

WideString* MsvcDeviceInformention_GetDeviceStrInfoByDesc(Device* self, WideString* result,
                                                          const WideString* description, const GUID* classGuid,
                                                          EnumDeviceProperty property) noexcept {
    return Return(result, Forward("GetDeviceStrInfoByDesc", &Device::GetDeviceStrInfoByDesc, self, description,
                                  classGuid, property));
}

unsigned int MsvcDeviceInformention_GetDeviceULONGInfoByDesc(Device* self, const WideString* description,
                                                             const GUID* classGuid,
                                                             EnumDeviceProperty property) noexcept {
    return Forward("GetDeviceULONGInfoByDesc", &Device::GetDeviceULONGInfoByDesc, self, description, classGuid,
                   property)
        .Or(0);
}

unsigned int MsvcDeviceInformention_UnstallDeviceByHardwareId(Device* self, const WideString* hardwareId,
                                                              const GUID* classGuid) noexcept {
    return Forward("UnstallDeviceByHardwareId", &Device::UnstallDeviceByHardwareId, self, hardwareId, classGuid)
        .Or(kNoDevice);
}

unsigned int MsvcDeviceInformention_UnstallDeviceByHardwareIdEx(Device* self, const WideString* hardwareId,
                                                                const GUID* classGuid) noexcept {
    return Forward("UnstallDeviceByHardwareIdEx", &Device::UnstallDeviceByHardwareIdEx, self, hardwareId, classGuid)
        .Or(kNoDevice);
}

WideVector* MsvcDeviceInformention_GetUnknownDeviceHardId(Device* self, WideVector* result) noexcept {
    return Return(result, Forward("GetUnknownDeviceHardId", &Device::GetUnknownDeviceHardId, self));
}

WideVector* MsvcDeviceInformention_GetDeviceHardwareIDList(Device* self, WideVector* result, const GUID* classGuid,
                                                           const WideString* hardwareId) noexcept {
    return Return(result,
                  Forward("GetDeviceHardwareIDList", &Device::GetDeviceHardwareIDList, self, classGuid, hardwareId));
}

unsigned long long MsvcDeviceInformention_GetLastIntallTime(Device* self, const WideString* hardwareId,
                                                            const GUID* classGuid) noexcept {
    return Forward("GetLastIntallTime", &Device::GetLastIntallTime, self, hardwareId, classGuid).Or(0);
}

void MsvcDeviceInformention_GetAllDeviceHardwareId(Device* self, WideVector* hardwareIds) noexcept {
    AddToHostList("GetAllDeviceHardwareId", hardwareIds, true,
                  [self](std::vector<std::wstring>& found) { self->GetAllDeviceHardwareId(found); });
}

void MsvcDeviceInformention_GetSoftComponentItems(Device* self, WideVector* hardwareIds,
                                                  const WideString* parentText) noexcept {
    AddToHostList(
        "GetSoftComponentItems", hardwareIds, false,
        [self](std::vector<std::wstring>& found, const std::wstring& text) { self->GetSoftComponentItems(found, text); },
        parentText);
}

WideVector* MsvcDeviceInformention_GetInternalDeviceHardwareId(Device* self, WideVector* result,
                                                                const GUID* classGuid) noexcept {
    return Return(result, Forward("GetInternalDeviceHardwareId", &Device::GetInternalDeviceHardwareId, self, classGuid));
}

WideVector* MsvcDeviceInformention_GetDeviceStatck(Device* self, WideVector* result, const WideString* hardwareId,
                                                    const GUID* classGuid) noexcept {
    return Return(result, Forward("GetDeviceStatck", &Device::GetDeviceStatck, self, hardwareId, classGuid));
}

}  // extern "C"
