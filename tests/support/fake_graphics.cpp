#include "support/fake_graphics.h"

#include <cstring>

namespace torvex::test {

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

}  // namespace torvex::test
