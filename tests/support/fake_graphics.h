// The graphics-driver COM server as the display colour code sees it: a
// stand-in, since machine profiles hold no vendor server.
#pragma once

#include <windows.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "support/torvex_test.h"

namespace torvex::test {

extern const CLSID kGfxServerClass;
extern const IID kGfxServerInterface;

// A server with the same table shape as the driver's: entries 4, 27 and 44.
struct FakeGfxServer : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE DisplayIdFromName(BSTR name, uint32_t, uint32_t* id, uint32_t* status);
#define TORVEX_UNUSED_ENTRY(n) \
    virtual HRESULT STDMETHODCALLTYPE Unused##n() { return E_NOTIMPL; }
    TORVEX_UNUSED_ENTRY(5) TORVEX_UNUSED_ENTRY(6) TORVEX_UNUSED_ENTRY(7) TORVEX_UNUSED_ENTRY(8)
    TORVEX_UNUSED_ENTRY(9) TORVEX_UNUSED_ENTRY(10) TORVEX_UNUSED_ENTRY(11) TORVEX_UNUSED_ENTRY(12)
    TORVEX_UNUSED_ENTRY(13) TORVEX_UNUSED_ENTRY(14) TORVEX_UNUSED_ENTRY(15) TORVEX_UNUSED_ENTRY(16)
    TORVEX_UNUSED_ENTRY(17) TORVEX_UNUSED_ENTRY(18) TORVEX_UNUSED_ENTRY(19) TORVEX_UNUSED_ENTRY(20)
    TORVEX_UNUSED_ENTRY(21) TORVEX_UNUSED_ENTRY(22) TORVEX_UNUSED_ENTRY(23) TORVEX_UNUSED_ENTRY(24)
    TORVEX_UNUSED_ENTRY(25) TORVEX_UNUSED_ENTRY(26)
    virtual HRESULT STDMETHODCALLTYPE SetGammaRamp(uint32_t id, uint32_t size, void* ramp, uint32_t* status);
    TORVEX_UNUSED_ENTRY(28) TORVEX_UNUSED_ENTRY(29) TORVEX_UNUSED_ENTRY(30) TORVEX_UNUSED_ENTRY(31)
    TORVEX_UNUSED_ENTRY(32) TORVEX_UNUSED_ENTRY(33) TORVEX_UNUSED_ENTRY(34) TORVEX_UNUSED_ENTRY(35)
    TORVEX_UNUSED_ENTRY(36) TORVEX_UNUSED_ENTRY(37) TORVEX_UNUSED_ENTRY(38) TORVEX_UNUSED_ENTRY(39)
    TORVEX_UNUSED_ENTRY(40) TORVEX_UNUSED_ENTRY(41) TORVEX_UNUSED_ENTRY(42) TORVEX_UNUSED_ENTRY(43)
#undef TORVEX_UNUSED_ENTRY
    virtual HRESULT STDMETHODCALLTYPE GetGeneric(const GUID&, uint32_t size, void* data, uint32_t* status);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }  // lives for the process: the library keeps it

    long refs = 1;
    std::wstring lastName;
    uint32_t rampId = 0, rampSize = 0, requestSize = 0;
    int ramps = 0;
    std::array<uint16_t, 768> lastRamp{};
    uint8_t request[92] = {};
    GUID requestId{};             // the generic get's request GUID
    uint32_t requestStatus = 0;   // the status it answers
};

// The process's one server object (the library keeps its pointer for good).
FakeGfxServer& SharedGfxServer();

}  // namespace torvex::test
