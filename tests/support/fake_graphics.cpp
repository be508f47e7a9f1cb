#include "support/fake_graphics.h"

#include <powrprof.h>

#include <cstring>

namespace torvex::test {

const CLSID kGfxServerClass = {0x7160A13D, 0x73DA, 0x4CEA, {0x95, 0xB9, 0x37, 0x35, 0x64, 0x78, 0x58, 0x8A}};
const IID kGfxServerInterface = {0xF932C038, 0x6484, 0x45CA, {0x8F, 0xA1, 0x7C, 0x8C, 0x27, 0x9F, 0x7A, 0xEE}};
const GUID kDisplayClass = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

HRESULT FakeGfxServer::DisplayIdFromName(BSTR name, uint32_t, uint32_t* id, uint32_t* status) {
    lastName = name;
    *id = 42;
    *status = 0;
    return S_OK;
}

HRESULT FakeGfxServer::SetGammaRamp(uint32_t id, uint32_t size, void* ramp, uint32_t*) {
    rampId = id;
    rampSize = size;
    std::memcpy(lastRamp.data(), ramp, sizeof(lastRamp));
    ++ramps;
    return S_OK;
}

HRESULT FakeGfxServer::GetGeneric(const GUID& id, uint32_t size, void* data, uint32_t* status) {
    requestId = id;
    requestSize = size;
    std::memcpy(request, data, sizeof(request));
    for (uint32_t i = 0; i < 9; ++i) std::memcpy(static_cast<uint8_t*>(data) + 44 + 4 * i, &i, 4);
    *status = requestStatus;
    return S_OK;
}

HRESULT FakeGfxServer::QueryInterface(REFIID iid, void** out) {
    if (iid == IID_IUnknown || iid == kGfxServerInterface) {
        *out = this;
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

FakeGfxServer& SharedGfxServer() {
    static FakeGfxServer* server = new FakeGfxServer();
    return *server;
}

namespace {

FakePower* g_power = nullptr;
const GUID kScheme = {1, 2, 3, {4}};

DWORD WINAPI FakeActiveScheme(HKEY, GUID** scheme) {
    *scheme = static_cast<GUID*>(LocalAlloc(LPTR, sizeof(GUID)));
    **scheme = kScheme;
    return 0;
}
BOOL WINAPI FakePowerStatus(LPSYSTEM_POWER_STATUS status) {
    ++g_power->statusCalls;
    if (g_power->statusFailures-- > 0) return FALSE;
    *status = SYSTEM_POWER_STATUS{};
    status->ACLineStatus = g_power->acLine;
    status->BatteryFlag = g_power->batteryFlag;
    status->BatteryLifePercent = g_power->batteryPercent;
    return TRUE;
}
LONG WINAPI FakePowerInformation(POWER_INFORMATION_LEVEL level, PVOID, ULONG, PVOID out, ULONG outSize) {
    ++g_power->batteryCalls;
    if (level != SystemBatteryState || outSize != sizeof(SYSTEM_BATTERY_STATE)) return 0xC000000D;
    if (g_power->batteryFailures-- > 0) return 0xC0000001;
    std::memcpy(out, &g_power->battery, sizeof(SYSTEM_BATTERY_STATE));
    return 0;
}
DWORD WINAPI FakeReadAc(HKEY, const GUID*, const GUID*, const GUID*, LPDWORD value) {
    *value = g_power->acValue;
    return 0;
}
DWORD WINAPI FakeReadDc(HKEY, const GUID*, const GUID*, const GUID*, LPDWORD value) {
    *value = g_power->dcValue;
    return 0;
}
DWORD WINAPI FakeWriteAc(HKEY, const GUID*, const GUID*, const GUID*, DWORD value) {
    g_power->wroteAc = true;
    g_power->written = value;
    return 0;
}
DWORD WINAPI FakeWriteDc(HKEY, const GUID*, const GUID*, const GUID*, DWORD value) {
    g_power->wroteDc = true;
    g_power->written = value;
    return 0;
}
DWORD WINAPI FakeSetActive(HKEY, const GUID*) { return g_power->setResult; }

}  // namespace

FakePower::FakePower() : previous_(g_power) {
    g_power = this;
    patches_.push_back(Redirect("PowerGetActiveScheme", &FakeActiveScheme));
    patches_.push_back(Redirect("GetSystemPowerStatus", &FakePowerStatus));
    patches_.push_back(Redirect("CallNtPowerInformation", &FakePowerInformation));
    patches_.push_back(Redirect("PowerReadACValueIndex", &FakeReadAc));
    patches_.push_back(Redirect("PowerReadDCValueIndex", &FakeReadDc));
    patches_.push_back(Redirect("PowerWriteACValueIndex", &FakeWriteAc));
    patches_.push_back(Redirect("PowerWriteDCValueIndex", &FakeWriteDc));
    patches_.push_back(Redirect("PowerSetActiveScheme", &FakeSetActive));
}

FakePower::~FakePower() {
    while (!patches_.empty()) patches_.pop_back();
    g_power = previous_;
}

}  // namespace torvex::test
