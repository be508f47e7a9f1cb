// The OEM firmware's ACPI-WMI method channel: one method call per request,
// serialised across threads and processes by the named mutex "MutexWMI".
#include <windows.h>
#include <wbemidl.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "common/codec.h"
#include "wmi/wmi.h"

namespace torvex::wmi {
namespace {

constexpr wchar_t kMethodClass[] = L"OemWMIMethod";
constexpr wchar_t kMethod[] = L"OemWMIfun";
constexpr wchar_t kInstanceName[] = L"ACPI\\PNP0C14\\ZWMI_0";
constexpr wchar_t kNumberInput[] = L"u64Input";
constexpr wchar_t kPacketInput[] = L"u8Input";
constexpr wchar_t kOutput[] = L"u8Output";
constexpr wchar_t kMutexName[] = L"MutexWMI";
constexpr DWORD kMutexWaitMs = 5000;
constexpr unsigned int kAnswerBytes = 256;
constexpr size_t kMaxHexDigits = 128;

// Command words: byte 0 = 0x03, byte 1 = operation (0x0C read, 0x0F set),
// byte 2 = item, byte 3 = value to set.
constexpr unsigned long long kReadCpuType = 0x0C03;
constexpr unsigned long long kReadPowerLimit = 0x010C03;
constexpr unsigned long long kSuperSaverHigh = 0x21050F03;
constexpr unsigned long long kSuperSaverLow = 0x07050F03;
constexpr unsigned long long kSuperSaverUnknown = 0;  // still sent for an unknown CPU type
constexpr unsigned long long kSuperSaverOff = 0x050F03;
constexpr unsigned long long kSetItemToZero = 0x0F03;

// Holds "MutexWMI" for one call. The wait's outcome is not examined: after a
// time-out the call goes ahead unserialised, so that a stuck holder cannot
// block the library. The mutex is released even when the wait did not get it.
class FirmwareLock {
public:
    FirmwareLock() {
        mutex_.reset(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, kMutexName));
        if (!mutex_) mutex_.reset(CreateMutexW(nullptr, FALSE, kMutexName));
        WaitForSingleObject(mutex_.get(), kMutexWaitMs);
    }
    ~FirmwareLock() { ReleaseMutex(mutex_.get()); }
    FirmwareLock(const FirmwareLock&) = delete;
    FirmwareLock& operator=(const FirmwareLock&) = delete;

private:
    KernelHandle mutex_;
};

// The packet's command word as the firmware's "u64Input" (decimal text,
// CIM_UINT64); a method without that parameter takes the whole packet as the
// 64-byte "u8Input" array instead.
bool FillInput(IWbemClassObject* input, const unsigned char* packet) {
    unsigned long long word = 0;
    std::memcpy(&word, packet, sizeof(word));
    {
        Variant number;
        number->vt = VT_BSTR;
        number->bstrVal = SysAllocString(std::to_wstring(word).c_str());
        if (number->bstrVal == nullptr) return false;  // no command word, no call
        if (SUCCEEDED(input->Put(kNumberInput, 0, number.get(), CIM_UINT64))) return true;
    }
    SafeArray array(SafeArrayCreateVector(VT_UI1, 0, kPacketBytes));
    if (!array) return false;
    {
        SafeArrayData data(array.get());
        if (!data.locked() || data.data() == nullptr) return false;
        std::memcpy(data.data(), packet, kPacketBytes);
    }
    VARIANT bytes;
    VariantInit(&bytes);
    bytes.vt = VT_ARRAY | VT_UI1;
    bytes.parray = array.get();  // still owned by `array`, destroyed after the Put
    return SUCCEEDED(input->Put(kPacketInput, 0, &bytes, 0));
}

bool CopyAnswer(IWbemClassObject* outputParams, unsigned char* output, unsigned int outputSize) {
    const Bstr name = MakeBstr(kOutput);
    if (!name) return false;
    Variant answer;
    if (FAILED(outputParams->Get(name.get(), 0, answer.get(), nullptr, nullptr))) return false;
    if ((answer->vt & VT_ARRAY) == 0 || answer->parray == nullptr) return false;
    SafeArrayData data(answer->parray);
    if (!data.locked()) return false;
    // Exactly outputSize bytes, whatever the array's own length.
    return BoundedCopy(output, outputSize, data.data(), outputSize);
}

}  // namespace

std::wstring GetObjectPath(std::wstring_view className) {
    return std::wstring(className) + L".InstanceName='" + kInstanceName + L"'";
}

bool GetOutPutUIntEx(const Target& target, const unsigned char* input, unsigned int /*inputSize: always a 64-byte packet*/,
                     unsigned char* output, unsigned int outputSize) {
    FirmwareLock lock;
    if (input == nullptr || output == nullptr) return false;

    const Bstr className = MakeBstr(kMethodClass);
    const Bstr methodName = MakeBstr(kMethod);
    if (!target.initialized || !className || !methodName) return false;

    ComPtr<IWbemLocator> locator;
    ComPtr<IWbemServices> services;
    if (!ConnectWmi(target.nameSpace, locator, services)) return false;

    ComPtr<IWbemClassObject> classObject;
    if (FAILED(services->GetObject(className.get(), 0, nullptr, classObject.put(), nullptr)) || !classObject)
        return false;
    ComPtr<IWbemClassObject> signature;
    if (FAILED(classObject->GetMethod(methodName.get(), 0, signature.put(), nullptr)) || !signature) return false;
    ComPtr<IWbemClassObject> inputParams;
    if (FAILED(signature->SpawnInstance(0, inputParams.put())) || !inputParams) return false;
    if (!FillInput(inputParams.get(), input)) return false;

    const Bstr objectPath = MakeBstr(GetObjectPath(kMethodClass));
    if (!objectPath) return false;
    ComPtr<IWbemClassObject> outputParams;
    if (FAILED(services->ExecMethod(objectPath.get(), methodName.get(), 0, nullptr, inputParams.get(),
                                    outputParams.put(), nullptr)) ||
        !outputParams)
        return false;
    return CopyAnswer(outputParams.get(), output, outputSize);
}

bool GetOutPutUInt(const Target& target, unsigned long long command, unsigned char* output, unsigned int outputSize) {
    unsigned char packet[kPacketBytes] = {};
    std::memcpy(packet, &command, sizeof(command));
    return GetOutPutUIntEx(target, packet, kPacketBytes, output, outputSize);
}

bool GetOutPutUIntByString(const Target& target, std::string_view text, unsigned char* output,
                           unsigned int outputSize) {
    std::string digits(text);
    if (digits.size() >= 2 && digits.compare(0, 2, "0x") == 0) digits.erase(0, 2);
    std::reverse(digits.begin(), digits.end());
    if (digits.size() > kMaxHexDigits) return false;

    std::array<unsigned char, kMaxHexDigits + 2> values{};  // positions past the text count as 0
    for (size_t i = 0; i < digits.size(); ++i) {
        const char c = digits[i];
        if (c >= '0' && c <= '9') values[i] = static_cast<unsigned char>(c - '0');
        else if (c >= 'A' && c <= 'F') values[i] = static_cast<unsigned char>(c - 'A' + 10);
        else if (c >= 'a' && c <= 'f') values[i] = static_cast<unsigned char>(c - 'a' + 10);
        else return false;
    }

    // Only the even-numbered digits of the reversed text are used, each
    // written into both halves of its byte. The firmware tools depend on this
    // packing as it is.
    unsigned char packet[kPacketBytes] = {};
    for (size_t k = 0; k <= digits.size() / 2 && k < kPacketBytes; ++k)
        packet[k] = static_cast<unsigned char>(values[2 * k] * 17);
    return GetOutPutUIntEx(target, packet, kPacketBytes, output, outputSize);
}

CpuType GetCpuType(const Target& target) {
    unsigned char answer[kAnswerBytes] = {};
    if (!GetOutPutUInt(target, kReadCpuType, answer, kAnswerBytes) || answer[0] != 0) return CpuType::Unknown;
    if (answer[1] == 0) return CpuType::Unknown;
    return answer[1] <= 10 ? CpuType::Low : CpuType::High;
}

bool StartSuperSaver(const Target& target) {
    const CpuType type = GetCpuType(target);
    const unsigned long long command = type == CpuType::High  ? kSuperSaverHigh
                                       : type == CpuType::Low ? kSuperSaverLow
                                                              : kSuperSaverUnknown;
    unsigned char answer[kAnswerBytes] = {};
    return GetOutPutUInt(target, command, answer, kAnswerBytes) && answer[0] == 0;
}

bool StopSuperSaver(const Target& target) {
    unsigned char answer[kAnswerBytes] = {};
    return GetOutPutUInt(target, kSuperSaverOff, answer, kAnswerBytes) && answer[0] == 0;
}

bool GetPL1(const Target& target, float& value) {
    unsigned char answer[kAnswerBytes] = {};
    if (!GetOutPutUInt(target, kReadPowerLimit, answer, kAnswerBytes) || answer[0] != 0) return false;
    value = static_cast<float>(answer[2]) / 100.0f + static_cast<float>(answer[1]);
    return true;
}

// Reports false only when the firmware answered with a non-zero status; a
// call that did not go through counts as done. Kept so for the thermal tools.
bool SetOdvpXToDefault(const Target& target, unsigned int item) {
    unsigned char answer[kAnswerBytes] = {};
    if (!GetOutPutUInt(target, static_cast<unsigned long long>(item) * 65536 + kSetItemToZero, answer, kAnswerBytes))
        return true;
    return answer[0] == 0;
}

// Both items are always sent; the result is true only when both reported
// false. Kept so for the thermal tools.
bool SetOdvp0ToDefault(const Target& target) {
    const bool item3 = SetOdvpXToDefault(target, 3);
    const bool item0 = SetOdvpXToDefault(target, 0);
    return !item3 && !item0;
}

}  // namespace torvex::wmi
