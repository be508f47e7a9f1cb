#include "support/fake_com.h"

#include <gtest/gtest.h>

namespace torvex::test {

std::atomic<long>& LiveComObjects() {
    static std::atomic<long> live{0};
    return live;
}

ComClassRegistration::ComClassRegistration(REFCLSID clsid, FunctionClassFactory::Create create) {
    auto* factory = new FunctionClassFactory(std::move(create));
    const HRESULT hr = CoRegisterClassObject(clsid, static_cast<IClassFactory*>(factory), CLSCTX_INPROC_SERVER,
                                             REGCLS_MULTIPLEUSE, &cookie_);
    factory->Release();  // the registration holds its own reference
    if (FAILED(hr)) {
        cookie_ = 0;
        ADD_FAILURE() << "CoRegisterClassObject failed: 0x" << std::hex << hr;
    }
}

ComClassRegistration::~ComClassRegistration() {
    if (cookie_ != 0) CoRevokeClassObject(cookie_);
}

}  // namespace torvex::test
