// A fake Native Wifi service served through Torvex.dll's wlanapi imports for
// the lifetime of a FakeWlan: what it answers and what it was asked.
#pragma once

#include <windows.h>
#include <wlanapi.h>

#include <optional>
#include <vector>

#include "support/torvex_test.h"

namespace torvex::test {

struct FakeWlan {
    FakeWlan();
    ~FakeWlan();
    FakeWlan(const FakeWlan&) = delete;
    FakeWlan& operator=(const FakeWlan&) = delete;

    DWORD openResult = ERROR_SUCCESS;
    HANDLE client = reinterpret_cast<HANDLE>(0x5150);
    DWORD openedVersion = 0;
    DWORD enumResult = ERROR_SUCCESS;
    std::vector<WLAN_INTERFACE_INFO> interfaces;
    DWORD queryResult = ERROR_SUCCESS;
    bool queryGivesData = true;
    WLAN_RADIO_STATE radio{};
    std::optional<GUID> queriedInterface;
    DWORD setResult = ERROR_SUCCESS;
    int setCalls = 0;
    DWORD setSize = 0;
    WLAN_PHY_RADIO_STATE setBlock{};
    std::vector<HANDLE> closed;
    int outstanding = 0;  // blocks handed out and not yet freed

private:
    FakeWlan* previous_;
    std::vector<ImportPatch> patches_;
};

// An interface whose GUID is derived from seed.
WLAN_INTERFACE_INFO MakeWlanInterface(unsigned char seed, const wchar_t* description, WLAN_INTERFACE_STATE state);

}  // namespace torvex::test
