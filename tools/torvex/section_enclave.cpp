// Report section: enclave encryption service (class 17).
#include "tool.h"

namespace tool {
namespace {

// Whether the service library lies beside the host: the profile's record
// under replay, the tool's own directory live.
std::string ServiceBesideHost() {
    if (const torvex::sim::Profile* profile = ReplayedProfile()) {
        const auto& vendor = profile->doc().value("vendor", torvex::sim::Json::object());
        const auto found = vendor.find("Vaultrun.dll");
        if (found == vendor.end() || !found->is_boolean()) return "Vaultrun.dll beside the host: not recorded";
        return *found ? "Vaultrun.dll beside the host: yes" : "Vaultrun.dll beside the host: no";
    }
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    directory = directory.substr(0, directory.find_last_of(L"\\/") + 1);
    return GetFileAttributesW((directory + L"Vaultrun.dll").c_str()) != INVALID_FILE_ATTRIBUTES
               ? "Vaultrun.dll beside the host: yes"
               : "Vaultrun.dll beside the host: no";
}

// The library's loader needs an Intel processor and then an answer to CPU
// code 16, which the CPU module never gives, so it never loads the service:
// the section says so rather than blame the processor or the file.
void Fill(Section& section) {
    if (Library().HalInit(HAL_CLASS_ENCLAVE, nullptr) == 0) {
        section.note = "not available: HalInit(" + std::to_string(HAL_CLASS_ENCLAVE) +
                       ") answered 0 (the library never loads the service: its processor check needs an Intel "
                       "processor and then an answer to CPU code 16, which the CPU module never gives; " +
                       ServiceBesideHost() + ")";
        return;
    }
    section.Text("service", "loaded");
}

const SectionRegistration kSection(100, "enclave", "Enclave encryption service", Fill);

}  // namespace
}  // namespace tool
