#include "support/fake_setupapi.h"

#include <cfgmgr32.h>
#include <setupapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>

#include "devices/device_property_keys.h"

namespace torvex::test {

namespace keys = torvex::devkeys;

bool KeyLess::operator()(const DEVPROPKEY& a, const DEVPROPKEY& b) const {
    const int order = std::memcmp(&a.fmtid, &b.fmtid, sizeof(GUID));
    return order != 0 ? order < 0 : a.pid < b.pid;
}

namespace {

std::vector<uint8_t> WideBytes(const std::vector<std::wstring>& entries, bool list) {
    std::wstring joined;
    for (const auto& entry : entries) {
        joined += entry;
        joined.push_back(L'\0');
    }
    if (list) joined.push_back(L'\0');
    const auto* first = reinterpret_cast<const uint8_t*>(joined.data());
    return std::vector<uint8_t>(first, first + joined.size() * sizeof(wchar_t));
}

template <typename T>
std::vector<uint8_t> ValueBytes(const T& value) {
    const auto* first = reinterpret_cast<const uint8_t*>(&value);
    return std::vector<uint8_t>(first, first + sizeof(T));
}

}  // namespace

FakeDevice::FakeDevice(std::optional<GUID> cls) : classGuid(cls) {
    if (cls) Raw(keys::kClass, DEVPROP_TYPE_GUID, ValueBytes(*cls));
}
FakeDevice& FakeDevice::Ids(const std::vector<std::wstring>& ids) {
    return Raw(keys::kHardwareIds, DEVPROP_TYPE_STRING_LIST, WideBytes(ids, true));
}
FakeDevice& FakeDevice::Desc(const std::wstring& text) { return Text(keys::kDeviceDesc, text); }
FakeDevice& FakeDevice::Text(const DEVPROPKEY& key, const std::wstring& text) {
    return Raw(key, DEVPROP_TYPE_STRING, WideBytes({text}, false));
}
FakeDevice& FakeDevice::List(const DEVPROPKEY& key, const std::vector<std::wstring>& entries) {
    return Raw(key, DEVPROP_TYPE_STRING_LIST, WideBytes(entries, true));
}
FakeDevice& FakeDevice::U32(const DEVPROPKEY& key, uint32_t value) {
    return Raw(key, DEVPROP_TYPE_UINT32, ValueBytes(value));
}
FakeDevice& FakeDevice::Raw(const DEVPROPKEY& key, DEVPROPTYPE type, std::vector<uint8_t> bytes) {
    properties[key] = FakeProperty{type, std::move(bytes)};
    return *this;
}
FakeDevice& FakeDevice::Problem(uint32_t code) { return U32(keys::kProblemCode, code); }
FakeDevice& FakeDevice::Parent(const std::wstring& id) { return Text(keys::kParent, id); }
FakeDevice& FakeDevice::Installed(uint64_t fileTime) {
    return Raw(keys::kFirstInstallDate, DEVPROP_TYPE_FILETIME, ValueBytes(fileTime));
}
FakeDevice& FakeDevice::Stack(const std::vector<std::wstring>& drivers) { return List(keys::kStack, drivers); }
FakeDevice& FakeDevice::Removable(bool removable) {
    nodeStatus = removable ? (nodeStatus | DN_REMOVABLE) : (nodeStatus & ~static_cast<ULONG>(DN_REMOVABLE));
    return *this;
}
FakeDevice& FakeDevice::NodeStatusFails(bool fails) {
    nodeStatusFails = fails;
    return *this;
}

struct FakeDeviceTree::State {
    struct Set {
        std::vector<size_t> devices;
        SP_REMOVEDEVICE_PARAMS pending{};
        DWORD pendingSize = 0;
    };
    std::vector<FakeDevice> devices;
    std::set<Set*> live;
    bool failOpen = false;
    size_t stopAfter = SIZE_MAX;
    DWORD removeError = 0;
    DWORD listDetailError = 0;
    DWORD deviceIdError = 0;
    std::vector<Open> opens;
    std::vector<DWORD> readSizes;
    std::vector<size_t> removed;
    std::vector<InstallerCall> installerCalls;

    Set* SetOf(HDEVINFO handle) {
        auto* set = static_cast<Set*>(handle);
        return live.count(set) != 0 ? set : nullptr;
    }
    // The device a record names (DevInst is the index of Add plus one).
    FakeDevice* DeviceOf(DEVINST node) {
        return node >= 1 && node <= devices.size() ? &devices[node - 1] : nullptr;
    }
    std::wstring InstanceId(size_t index) {
        auto found = devices[index].properties.find(keys::kInstanceId);
        if (found == devices[index].properties.end()) return L"FAKE\\DEVICE\\" + std::to_wstring(index);
        return std::wstring(reinterpret_cast<const wchar_t*>(found->second.bytes.data()));
    }
};

namespace {

FakeDeviceTree::State* g_tree = nullptr;

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

HDEVINFO WINAPI FakeGetClassDevs(const GUID* cls, PCWSTR, HWND, DWORD flags) {
    auto& tree = *g_tree;
    tree.opens.push_back({cls != nullptr ? std::optional<GUID>(*cls) : std::nullopt, flags});
    const bool all = (flags & DIGCF_ALLCLASSES) != 0;
    if (tree.failOpen || (!all && cls == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    auto set = std::make_unique<FakeDeviceTree::State::Set>();
    for (size_t i = 0; i < tree.devices.size(); ++i) {
        const auto& device = tree.devices[i];
        if (all || (device.classGuid && IsEqualGUID(*device.classGuid, *cls))) set->devices.push_back(i);
    }
    tree.live.insert(set.get());
    return set.release();
}

BOOL WINAPI FakeEnumDeviceInfo(HDEVINFO handle, DWORD index, SP_DEVINFO_DATA* data) {
    auto* set = g_tree->SetOf(handle);
    if (set == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (data == nullptr || data->cbSize != sizeof(SP_DEVINFO_DATA)) return Fail(ERROR_INVALID_USER_BUFFER);
    // A failing step leaves the caller's record as it was, as the platform does.
    if (index >= set->devices.size() || index >= g_tree->stopAfter) return Fail(ERROR_NO_MORE_ITEMS);
    const size_t device = set->devices[index];
    data->ClassGuid = g_tree->devices[device].classGuid.value_or(GUID{});
    data->DevInst = static_cast<DWORD>(device + 1);
    data->Reserved = reinterpret_cast<ULONG_PTR>(set);
    return TRUE;
}

BOOL WINAPI FakeGetDeviceProperty(HDEVINFO handle, SP_DEVINFO_DATA* data, const DEVPROPKEY* key, DEVPROPTYPE* type,
                                  PBYTE buffer, DWORD size, PDWORD required, DWORD flags) {
    auto& tree = *g_tree;
    tree.readSizes.push_back(size);
    if (tree.SetOf(handle) == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (data == nullptr || key == nullptr || type == nullptr || flags != 0) return Fail(ERROR_INVALID_PARAMETER);
    if (data->cbSize != sizeof(SP_DEVINFO_DATA) || data->Reserved != reinterpret_cast<ULONG_PTR>(handle))
        return Fail(ERROR_INVALID_PARAMETER);
    FakeDevice* device = tree.DeviceOf(data->DevInst);
    if (device == nullptr) return Fail(ERROR_NO_SUCH_DEVINST);
    auto found = device->properties.find(*key);
    if (found == device->properties.end()) return Fail(ERROR_NOT_FOUND);
    const auto& value = found->second;
    *type = value.type;
    if (required != nullptr) *required = static_cast<DWORD>(value.bytes.size());
    if (buffer == nullptr || size < value.bytes.size()) return Fail(ERROR_INSUFFICIENT_BUFFER);
    if (!value.bytes.empty()) std::memcpy(buffer, value.bytes.data(), value.bytes.size());
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

BOOL WINAPI FakeDestroyDeviceInfoList(HDEVINFO handle) {
    auto* set = g_tree->SetOf(handle);
    if (set == nullptr) return Fail(ERROR_INVALID_HANDLE);
    g_tree->live.erase(set);
    delete set;
    return TRUE;
}

CONFIGRET WINAPI FakeGetDevNodeStatus(PULONG status, PULONG problem, DEVINST node, ULONG flags) {
    FakeDevice* device = g_tree->DeviceOf(node);
    if (status == nullptr || problem == nullptr || flags != 0) return CR_INVALID_POINTER;
    if (device == nullptr || device->nodeStatusFails) return CR_NO_SUCH_DEVNODE;
    *status = device->nodeStatus;
    *problem = 0;
    auto found = device->properties.find(keys::kProblemCode);
    if (found != device->properties.end()) std::memcpy(problem, found->second.bytes.data(), sizeof(ULONG));
    return CR_SUCCESS;
}

BOOL WINAPI FakeRemoveDevice(HDEVINFO handle, SP_DEVINFO_DATA* data) {
    if (g_tree->SetOf(handle) == nullptr || data == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    if (g_tree->removeError != 0) return Fail(g_tree->removeError);
    g_tree->removed.push_back(data->DevInst - 1);
    return TRUE;
}

BOOL WINAPI FakeGetDeviceInfoListDetail(HDEVINFO handle, SP_DEVINFO_LIST_DETAIL_DATA_W* detail) {
    if (g_tree->SetOf(handle) == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (detail == nullptr || detail->cbSize != sizeof(SP_DEVINFO_LIST_DETAIL_DATA_W))
        return Fail(ERROR_INVALID_USER_BUFFER);
    if (g_tree->listDetailError != 0) return Fail(g_tree->listDetailError);
    detail->RemoteMachineHandle = nullptr;
    detail->RemoteMachineName[0] = L'\0';
    return TRUE;
}

CONFIGRET WINAPI FakeGetDeviceIdEx(DEVINST node, PWSTR buffer, ULONG length, ULONG, HMACHINE) {
    if (g_tree->deviceIdError != 0) {
        SetLastError(g_tree->deviceIdError);
        return CR_FAILURE;
    }
    if (g_tree->DeviceOf(node) == nullptr) return CR_NO_SUCH_DEVNODE;
    const std::wstring id = g_tree->InstanceId(node - 1);
    if (buffer == nullptr || length <= id.size()) return CR_BUFFER_SMALL;
    std::memcpy(buffer, id.c_str(), (id.size() + 1) * sizeof(wchar_t));
    return CR_SUCCESS;
}

BOOL WINAPI FakeSetClassInstallParams(HDEVINFO handle, SP_DEVINFO_DATA*, SP_CLASSINSTALL_HEADER* header, DWORD size) {
    auto* set = g_tree->SetOf(handle);
    if (set == nullptr || header == nullptr || header->cbSize != sizeof(SP_CLASSINSTALL_HEADER))
        return Fail(ERROR_INVALID_PARAMETER);
    std::memcpy(&set->pending, header, std::min<size_t>(size, sizeof(set->pending)));
    set->pendingSize = size;
    return TRUE;
}

BOOL WINAPI FakeCallClassInstaller(DI_FUNCTION function, HDEVINFO handle, SP_DEVINFO_DATA* data) {
    auto* set = g_tree->SetOf(handle);
    if (set == nullptr || data == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    const size_t device = data->DevInst - 1;
    g_tree->installerCalls.push_back(
        {device, function, set->pending.Scope, set->pendingSize, g_tree->InstanceId(device)});
    if (g_tree->removeError != 0) return Fail(g_tree->removeError);
    g_tree->removed.push_back(device);
    return TRUE;
}

BOOL WINAPI FakeGetDeviceInstallParams(HDEVINFO handle, SP_DEVINFO_DATA*, SP_DEVINSTALL_PARAMS_W* params) {
    if (g_tree->SetOf(handle) == nullptr || params == nullptr || params->cbSize != sizeof(SP_DEVINSTALL_PARAMS_W))
        return Fail(ERROR_INVALID_USER_BUFFER);
    params->Flags = DI_NEEDREBOOT;
    return TRUE;
}

}  // namespace

FakeDeviceTree::FakeDeviceTree() : state_(std::make_unique<State>()), previous_(g_tree) {
    g_tree = state_.get();
    patches_.push_back(Redirect("SetupDiGetClassDevsW", &FakeGetClassDevs));
    patches_.push_back(Redirect("SetupDiEnumDeviceInfo", &FakeEnumDeviceInfo));
    patches_.push_back(Redirect("SetupDiGetDevicePropertyW", &FakeGetDeviceProperty));
    patches_.push_back(Redirect("SetupDiDestroyDeviceInfoList", &FakeDestroyDeviceInfoList));
    patches_.push_back(Redirect("CM_Get_DevNode_Status", &FakeGetDevNodeStatus));
    patches_.push_back(Redirect("SetupDiRemoveDevice", &FakeRemoveDevice));
    patches_.push_back(Redirect("SetupDiGetDeviceInfoListDetailW", &FakeGetDeviceInfoListDetail));
    patches_.push_back(Redirect("CM_Get_Device_ID_ExW", &FakeGetDeviceIdEx));
    patches_.push_back(Redirect("SetupDiSetClassInstallParamsW", &FakeSetClassInstallParams));
    patches_.push_back(Redirect("SetupDiCallClassInstaller", &FakeCallClassInstaller));
    patches_.push_back(Redirect("SetupDiGetDeviceInstallParamsW", &FakeGetDeviceInstallParams));
    for (const auto& patch : patches_) EXPECT_TRUE(patch.patched());
}

FakeDeviceTree::~FakeDeviceTree() {
    patches_.clear();
    for (auto* set : state_->live) delete set;
    g_tree = previous_;
}

FakeDeviceTree& FakeDeviceTree::Add(FakeDevice device) {
    state_->devices.push_back(std::move(device));
    return *this;
}

void FakeDeviceTree::FailOpen(bool fail) { state_->failOpen = fail; }
void FakeDeviceTree::StopEnumerationAfter(size_t count) { state_->stopAfter = count; }
void FakeDeviceTree::FailRemove(DWORD error) { state_->removeError = error; }
void FakeDeviceTree::FailListDetail(DWORD error) { state_->listDetailError = error; }
void FakeDeviceTree::FailDeviceId(DWORD lastError) { state_->deviceIdError = lastError; }

std::vector<FakeDeviceTree::Open> FakeDeviceTree::Opens() const { return state_->opens; }
long FakeDeviceTree::OpenSets() const { return static_cast<long>(state_->live.size()); }
std::vector<DWORD> FakeDeviceTree::ReadSizes() const { return state_->readSizes; }
std::vector<size_t> FakeDeviceTree::Removed() const { return state_->removed; }
std::vector<FakeDeviceTree::InstallerCall> FakeDeviceTree::InstallerCalls() const { return state_->installerCalls; }
size_t FakeDeviceTree::PropertyReads() const { return state_->readSizes.size(); }

}  // namespace torvex::test
