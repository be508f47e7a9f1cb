// The graphics-driver COM server as the display colour code sees it: a
// stand-in, since machine profiles hold no vendor server.
#pragma once

#include <windows.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "support/torvex_test.h"
#include "torvex/graphics_server.h"

namespace torvex::test {

// A server of the driver's interface (entries 4, 27 and 44 answered).
struct FakeGfxServer : IGfxServer {
    HRESULT STDMETHODCALLTYPE DisplayIdFromName(BSTR name, uint32_t, uint32_t* id, uint32_t* status) override;
    HRESULT STDMETHODCALLTYPE SetGammaRamp(uint32_t id, uint32_t size, void* ramp, uint32_t* status) override;
    HRESULT STDMETHODCALLTYPE GetGeneric(const GUID&, uint32_t size, void* data, uint32_t* status) override;

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
