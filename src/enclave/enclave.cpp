// Enclave encryption service (class 17): finds the maker's service library
// beside the host executable, resolves its four entry points and forwards
// encryption, decryption and length requests to it.
#include <windows.h>

#include <cstring>
#include <string>

#include "common/win_resource.h"
#include "enclave/enclave.h"
#include "torvex.h"
#include "torvex/program_directory.h"

namespace {

constexpr wchar_t kServiceLibrary[] = L"Vaultrun.dll";
constexpr char kEncryptName[] = "ecall_EncryptSgx_tcapi";
constexpr char kDecryptName[] = "ecall_DecryptSgx_tcapi";
constexpr char kEncryptedLengthName[] = "ecall_GetEncryptDataLen_tcapi";
constexpr char kDecryptedLengthName[] = "ecall_GetDecryptTxtLen_tcapi";

// The service's side of the contract; its return values are ignored.
using TransformFn = int (*)(uint32_t* resultLength, const uint8_t* input, uint32_t inputSize, uint8_t* output,
                            uint32_t outputSize);
using LengthFn = int (*)(uint32_t* resultLength, const uint8_t* data, uint32_t dataSize);

// Process-wide, written by the loader and never unloaded: the host loads the
// service once, before it uses it.
HMODULE g_service = nullptr;
uint32_t g_loaded = 0;
TransformFn g_encrypt = nullptr;
TransformFn g_decrypt = nullptr;
LengthFn g_encryptedLength = nullptr;
LengthFn g_decryptedLength = nullptr;

template <typename Fn>
Fn Resolve(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// Only processors that report Intel and answer the enclave-support question
// qualify. The CPU module has no answer to code 16, so this gate keeps the
// service unreachable; it stays exactly as it is.
bool ProcessorQualifies() {
    char vendor[16] = {};
    uint32_t written = 0;
    if (CpuQueryInformation(HAL_CPU_VENDOR_ID, vendor, sizeof(vendor), &written) != 1) return false;
    if (std::string(vendor, strnlen(vendor, sizeof(vendor))).find("Intel") == std::string::npos) return false;
    unsigned char supported = 0;
    if (CpuQueryInformation(16, &supported, 1, &written) == 0 || supported == 0) return false;
    return true;
}

}  // namespace

uint32_t EnclaveLoad() {
    if (!ProcessorQualifies()) return 0;

    const std::wstring directory = torvex::ProgramDirectory();
    if (directory.empty()) return 0;
    const std::wstring servicePath = directory + L"\\" + kServiceLibrary;

    torvex::Library service(LoadLibraryW(servicePath.c_str()));
    if (!service) return 0;
    g_encrypt = Resolve<TransformFn>(service.get(), kEncryptName);
    g_decrypt = Resolve<TransformFn>(service.get(), kDecryptName);
    g_encryptedLength = Resolve<LengthFn>(service.get(), kEncryptedLengthName);
    g_decryptedLength = Resolve<LengthFn>(service.get(), kDecryptedLengthName);
    // An incomplete service is freed again; the entry points stay unused while g_loaded is 0.
    if (g_encrypt == nullptr || g_decrypt == nullptr || g_encryptedLength == nullptr || g_decryptedLength == nullptr)
        return 0;
    g_service = service.release();  // loaded for the rest of the process
    g_loaded = 1;
    return 1;
}

uint32_t EnclaveQueryLength(uint32_t code, void* buffer, uint32_t size, uint32_t* returned) {
    if (g_loaded == 0 || buffer == nullptr || size == 0 || returned == nullptr) return 0;
    const LengthFn length = code == HAL_ENCLAVE_ENCRYPT   ? g_encryptedLength
                            : code == HAL_ENCLAVE_DECRYPT ? g_decryptedLength
                                                          : nullptr;
    if (length == nullptr) return 0;
    length(returned, static_cast<const uint8_t*>(buffer), size);
    return *returned > 0 ? 1 : 0;
}

uint32_t EnclaveControl(uint32_t code, const void* input, uint32_t inputSize, void* output, uint32_t outputSize,
                        uint32_t* returned) {
    if (g_loaded == 0 || input == nullptr || inputSize == 0 || output == nullptr || outputSize == 0 ||
        returned == nullptr)
        return 0;
    const TransformFn transform = code == HAL_ENCLAVE_ENCRYPT   ? g_encrypt
                                  : code == HAL_ENCLAVE_DECRYPT ? g_decrypt
                                                                : nullptr;
    if (transform == nullptr) return 0;
    transform(returned, static_cast<const uint8_t*>(input), inputSize, static_cast<uint8_t*>(output), outputSize);
    return *returned > 0 ? 1 : 0;
}
