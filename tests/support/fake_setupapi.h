// A fake device tree served to Torvex.dll through its Setup API and
// configuration-manager imports, for the lifetime of a FakeDeviceTree.
//
//   FakeDeviceTree tree;
//   tree.Add(FakeDevice(kMediaClass).Ids({L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_0295", L"HDAUDIO\\FUNC_01"})
//                .Desc(L"Realtek Audio").Problem(28));
//   ... call the library ...
//   EXPECT_EQ(tree.OpenSets(), 0);
#pragma once

#include <windows.h>
#include <devpropdef.h>
#include <setupapi.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/torvex_test.h"

namespace torvex::test {

// One raw property value: its type and bytes.
struct FakeProperty {
    DEVPROPTYPE type = 0;
    std::vector<uint8_t> bytes;
};

struct KeyLess {
    bool operator()(const DEVPROPKEY& a, const DEVPROPKEY& b) const;
};

class FakeDevice {
public:
    // A device of a setup class; without a class it answers the class
    // property with ERROR_NOT_FOUND (a device of no class).
    explicit FakeDevice(std::optional<GUID> classGuid);

    FakeDevice& Ids(const std::vector<std::wstring>& hardwareIds);  // HardwareIds as a multi-string
    FakeDevice& Desc(const std::wstring& text);
    FakeDevice& Text(const DEVPROPKEY& key, const std::wstring& text);
    FakeDevice& List(const DEVPROPKEY& key, const std::vector<std::wstring>& entries);  // multi-string
    FakeDevice& U32(const DEVPROPKEY& key, uint32_t value);
    FakeDevice& Raw(const DEVPROPKEY& key, DEVPROPTYPE type, std::vector<uint8_t> bytes);
    FakeDevice& Problem(uint32_t code);
    FakeDevice& Parent(const std::wstring& instanceId);
    FakeDevice& Installed(uint64_t fileTime);
    FakeDevice& Stack(const std::vector<std::wstring>& drivers);
    FakeDevice& Removable(bool removable = true);
    FakeDevice& NodeStatusFails(bool fails = true);

    std::optional<GUID> classGuid;
    std::map<DEVPROPKEY, FakeProperty, KeyLess> properties;
    ULONG nodeStatus = 0x0000180A;  // DN_DRIVER_LOADED | DN_STARTED | ...
    bool nodeStatusFails = false;
};

class FakeDeviceTree {
public:
    FakeDeviceTree();   // redirects the imports
    ~FakeDeviceTree();  // restores them
    FakeDeviceTree(const FakeDeviceTree&) = delete;
    FakeDeviceTree& operator=(const FakeDeviceTree&) = delete;

    // Devices are presented in the order added, per class and across classes.
    FakeDeviceTree& Add(FakeDevice device);

    // Failure injection.
    void FailOpen(bool fail = true);          // SetupDiGetClassDevsW answers INVALID_HANDLE_VALUE
    void StopEnumerationAfter(size_t count);  // SetupDiEnumDeviceInfo fails from that index on
    void FailRemove(DWORD error);             // SetupDiRemoveDevice / the class installer fail with it
    void FailListDetail(DWORD error);
    void FailDeviceId(DWORD lastError);       // CM_Get_Device_ID_ExW answers CR_FAILURE, last error set

    // Observations.
    struct Open {
        std::optional<GUID> classGuid;
        DWORD flags;
    };
    std::vector<Open> Opens() const;
    long OpenSets() const;                     // sets not destroyed yet
    std::vector<DWORD> ReadSizes() const;      // the size argument of every property read, in order
    std::vector<size_t> Removed() const;       // devices removed, by index of Add
    struct InstallerCall {
        size_t device;
        DI_FUNCTION function;
        DWORD scope;
        DWORD paramsSize;
        std::wstring instanceId;
    };
    std::vector<InstallerCall> InstallerCalls() const;
    size_t PropertyReads() const;

    struct State;

private:
    std::unique_ptr<State> state_;
    State* previous_ = nullptr;  // an enclosing tree, active again when this one ends
    std::vector<ImportPatch> patches_;
};

}  // namespace torvex::test
