// Device property keys and setup-class GUIDs the device helpers read, as the
// library's own constants: initguid.h + devpkey.h collide with wlanapi.h.
#pragma once

#include <windows.h>
#include <devpropdef.h>

namespace torvex::devkeys {

constexpr GUID kDeviceSet = {0xA45C254E, 0xDF1C, 0x4EFD, {0x80, 0x20, 0x67, 0xD1, 0x46, 0xA8, 0x50, 0xE0}};
constexpr GUID kDriverSet = {0xA8B865DD, 0x2E3D, 0x4094, {0xAD, 0x97, 0xE5, 0x93, 0xA7, 0x0C, 0x75, 0xD6}};
constexpr GUID kInstanceSet = {0x78C34FC8, 0x104A, 0x4ACA, {0x9E, 0xA4, 0x52, 0x4D, 0x52, 0x99, 0x6E, 0x57}};
constexpr GUID kNameSet = {0xB725F130, 0x47EF, 0x101A, {0xA5, 0xF1, 0x02, 0x60, 0x8C, 0x9E, 0xEB, 0xAC}};
constexpr GUID kStackSet = {0x540B947E, 0x8B40, 0x45BC, {0xA8, 0xA2, 0x6A, 0x0B, 0x89, 0x4C, 0xBD, 0xA2}};
constexpr GUID kNodeSet = {0x4340A6C5, 0x93FA, 0x4706, {0x97, 0x2C, 0x7B, 0x64, 0x80, 0x08, 0xA5, 0xA7}};
constexpr GUID kInstallSet = {0x83DA6326, 0x97A6, 0x4088, {0x94, 0x53, 0xA1, 0x92, 0x3F, 0x57, 0x3B, 0x29}};

constexpr DEVPROPKEY kDeviceDesc = {kDeviceSet, 2};
constexpr DEVPROPKEY kManufacturer = {kDeviceSet, 13};
constexpr DEVPROPKEY kDriverVersion = {kDriverSet, 3};
constexpr DEVPROPKEY kHardwareIds = {kDeviceSet, 3};
constexpr DEVPROPKEY kEnumeratorName = {kDeviceSet, 24};
constexpr DEVPROPKEY kInstanceProp90 = {kInstanceSet, 90};
constexpr DEVPROPKEY kFriendlyName = {kDeviceSet, 14};
constexpr DEVPROPKEY kName = {kNameSet, 10};
constexpr DEVPROPKEY kDriverInfPath = {kDriverSet, 5};
constexpr DEVPROPKEY kInstanceId = {kInstanceSet, 256};
constexpr DEVPROPKEY kDriverProvider = {kDriverSet, 9};
constexpr DEVPROPKEY kStack = {kStackSet, 14};
constexpr DEVPROPKEY kProblemCode = {kNodeSet, 3};
constexpr DEVPROPKEY kAddress = {kDeviceSet, 30};
// Read directly by members; no selector value of their own.
constexpr DEVPROPKEY kClass = {kDeviceSet, 9};
constexpr DEVPROPKEY kParent = {kNodeSet, 8};
constexpr DEVPROPKEY kFirstInstallDate = {kInstallSet, 101};

// The 14 selector values in order: EnumDeviceProperty value i maps to kBySelector[i].
constexpr DEVPROPKEY kBySelector[14] = {kDeviceDesc,    kManufacturer,   kDriverVersion, kHardwareIds, kEnumeratorName,
                                        kInstanceProp90, kFriendlyName,  kName,          kDriverInfPath, kInstanceId,
                                        kDriverProvider, kStack,         kProblemCode,   kAddress};

// Setup class of sound, video and game controllers.
constexpr GUID kMediaClass = {0x4D36E96C, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

}  // namespace torvex::devkeys
