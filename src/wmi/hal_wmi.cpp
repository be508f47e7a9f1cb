// HalWmi, the exported face of the library's WMI: each member runs the free
// function of wmi.h on this object's state.
#include <string>

#include "torvex.h"
#include "wmi/wmi.h"

namespace wmi = torvex::wmi;

// The one process-wide security flag, shared by every HalWmi, every module
// lookup and any other boundary: the definition is in the class's scope, so
// it may hand the member's address to the free functions.
bool HalWmi::initCoInitializeSecurity = wmi::ShareSecurityFlag(&HalWmi::initCoInitializeSecurity);

HalWmi::HalWmi(std::wstring nameSpace) : initialized(false), nameSpace(std::move(nameSpace)), comInitialized(false) {
    initialized = wmi::StartUp(comInitialized);
}

// Copies carry all three members, comInitialized too, so that every copy
// that carries the flag uninitialises COM once when it is destroyed (a copy
// takes no COM reference of its own). Hosts rely on this pairing.
HalWmi::HalWmi(const HalWmi& other) = default;
HalWmi& HalWmi::operator=(const HalWmi& other) = default;

HalWmi::~HalWmi() {
    if (comInitialized) CoUninitialize();
}

bool HalWmi::Init() {
    if (!initialized) initialized = wmi::StartUp(comInitialized);
    return initialized;
}

bool HalWmi::InitCom() { return wmi::InitCom(comInitialized); }
bool HalWmi::InitSecurity() { return wmi::InitSecurity(); }
bool HalWmi::InitInstance(IWbemLocator*& locator, IWbemServices*& services) {
    return wmi::InitInstance(nameSpace, locator, services);
}

bool HalWmi::Select(const std::wstring& query, const std::wstring& property, unsigned char* buffer, int size) {
    return wmi::Select({initialized, nameSpace}, query, property, buffer, size);
}
std::wstring HalWmi::SelectStr(const std::wstring& query, const std::wstring& property) {
    return wmi::SelectStr({initialized, nameSpace}, query, property);
}
std::wstring HalWmi::SelectStrA(const std::wstring& className, const std::wstring& property) {
    return wmi::SelectStrA({initialized, nameSpace}, className, property);
}
std::wstring HalWmi::SelectStrB(const std::wstring& query, const std::wstring& property) {
    return wmi::SelectStrB({initialized, nameSpace}, query, property);
}
unsigned int HalWmi::SelectUInt(const std::wstring& query, const std::wstring& property) {
    return wmi::SelectUInt({initialized, nameSpace}, query, property);
}
std::wstring HalWmi::SelectUIntArray(const std::wstring& className, const std::wstring& property) {
    return wmi::SelectUIntArray({initialized, nameSpace}, className, property);
}
unsigned int HalWmi::SelectUintForCpuCacheL1AndL2(const std::wstring& query, const std::wstring& property) {
    return wmi::SelectUintForCpuCacheL1AndL2({initialized, nameSpace}, query, property);
}
bool HalWmi::SelectBool(const std::wstring& query, const std::wstring& property) {
    return wmi::SelectBool({initialized, nameSpace}, query, property);
}

bool HalWmi::GetOutPutUIntEx(unsigned char* input, unsigned int inputSize, unsigned char* output,
                             unsigned int outputSize) {
    return wmi::GetOutPutUIntEx({initialized, nameSpace}, input, inputSize, output, outputSize);
}
bool HalWmi::GetOutPutUInt(unsigned long long command, unsigned char* output, unsigned int outputSize) {
    return wmi::GetOutPutUInt({initialized, nameSpace}, command, output, outputSize);
}
bool HalWmi::GetOutPutUIntByString(const std::string& text, unsigned char* output, unsigned int outputSize) {
    return wmi::GetOutPutUIntByString({initialized, nameSpace}, text, output, outputSize);
}
std::wstring HalWmi::GetObjectPath(wchar_t* className) { return wmi::GetObjectPath(className); }
HalWmi::CpuType HalWmi::GetCpuType() { return static_cast<CpuType>(wmi::GetCpuType({initialized, nameSpace})); }
bool HalWmi::StartSuperSaver() { return wmi::StartSuperSaver({initialized, nameSpace}); }
bool HalWmi::StopSuperSaver() { return wmi::StopSuperSaver({initialized, nameSpace}); }
bool HalWmi::GetPL1(float& value) { return wmi::GetPL1({initialized, nameSpace}, value); }
bool HalWmi::SetOdvpXToDefault(unsigned int item) { return wmi::SetOdvpXToDefault({initialized, nameSpace}, item); }
bool HalWmi::SetOdvp0ToDefault() { return wmi::SetOdvp0ToDefault({initialized, nameSpace}); }
