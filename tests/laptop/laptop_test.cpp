// torvex.exe's commands run in-process over the machine profiles (`torvex replay FILE ...`): each answers with its
// exit status (0 done, 1 usage error, 2 refused), its words and the calls the library made; the JSON reports of the
// Intel laptop and the AMD desktop are left beside the program for check_report.py.
#include <fcntl.h>
#include <io.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"
#include "tool.h"
#include "torvex/text.h"

bool FirmwareMutexFree();  // reliability_test.cpp

namespace {

std::filesystem::path Beside(const std::wstring& file) { return torvex::test::ProgramDirectory() + L"\\" + file; }

// `torvex replay PROFILE ARGS...` with a fresh trace, standard output and error sent to one file; afterwards the
// library holds nothing of the machine.
std::pair<int, std::string> Replay(const std::wstring& profile, std::vector<std::wstring> args) {
    tool::RunTrace().Clear();
    args.insert(args.begin(), {L"replay", Beside(profile).wstring()});
    const std::filesystem::path path = Beside(L"laptop-output.txt");
    std::fflush(stdout);
    const int saved[] = {_dup(1), _dup(2)}, file = _wopen(path.c_str(), _O_CREAT | _O_TRUNC | _O_WRONLY | _O_BINARY, 0600);
    for (int fd : {1, 2}) _dup2(file, fd);
    int status = -1;
    try {
        status = tool::Run(std::move(args));
    } catch (const std::exception& error) {
        ADD_FAILURE() << "an exception out of the tool: " << error.what();  // into the output, which is shown
    }
    std::fflush(stdout), std::fflush(stderr);
    for (int fd : {1, 2}) _dup2(saved[fd - 1], fd), _close(saved[fd - 1]);
    _close(file);
    torvex::test::ExpectNothingHeld();
    std::ifstream in(path, std::ios::binary);
    return {status, std::string(std::istreambuf_iterator<char>(in), {})};
}

// True when the trace holds "SOURCE CALL [DETAIL] -> OUTCOME" that starts with `start`.
bool Traced(const std::string& start) {
    for (const torvex::sim::Event& e : tool::RunTrace().Events())
        if ((e.source + ' ' + e.call + (e.detail.empty() ? "" : " [" + e.detail + "]") + " -> " + e.outcome).rfind(start, 0) == 0)
            return true;
    return false;
}

// `sent`: the start of a call in the trace (a usage error reaches nothing); `keep`: a file for the output.
struct Case { const wchar_t* profile; std::vector<std::wstring> args; int status; const char *says, *sent; const wchar_t* keep = nullptr; };

TEST(Replay, CommandsAnswerWithTheirStatusWordsAndCalls) {
    // The laptop whose firmware rejects the commands and whose radio does not switch.
    torvex::test::Json refusing = torvex::test::Json::parse(torvex::test::MachineText("intel-laptop"));
    for (const char* packet : {"03103c50", "030f0521", "030f03", "030f", "030c01"})
        refusing["firmware"]["answers"][packet] = {{"output", "01"}, {"length", 256}};
    refusing["wlan"]["interfaces"][0]["set_error"] = ERROR_ACCESS_DENIED;
    std::ofstream(Beside(L"refusing-laptop.json"), std::ios::binary) << refusing.dump();

    // The laptop whose firmware reads 41.7, a single-precision number.
    torvex::test::Json reading = torvex::test::Json::parse(torvex::test::MachineText("intel-laptop"));
    reading["firmware"]["answers"]["020201"]["output"] = "00002907";
    // ... and whose cache level 3 cannot be fetched: the reason keeps the error.
    reading["wmi"]["ROOT\\CIMV2"]["queries"]["SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'"] = {
        {"rows", torvex::test::Json::array()}, {"then", "0x8004100C"}};
    std::ofstream(Beside(L"reading-laptop.json"), std::ios::binary) << reading.dump();

    const wchar_t *laptop = L"machines\\intel-laptop.json", *desktop = L"machines\\amd-desktop.json";
    const wchar_t* reads = L"reading-laptop.json";
    const wchar_t* refuses = L"refusing-laptop.json";
    const std::string batteryOpen = "file open \\\\?\\acpi#pnp0c0a#1#{72631e54-78a4-11d0-bcf7-00aa00b7b32a} "
                                    "[access 0xC0000000, share 0x3, disposition 3, flags 0x80]";
    const std::string wifi = "wlan switch radio of {5B4A8E2C-7D31-4F0A-9C6B-1E2D3F405162} [opcode 4, size 12, words 0 2 1] -> ";
    const std::vector<std::wstring> chargeControl = {L"battery", L"charge-control", L"60", L"80"};
    const Case cases[] = {
        {laptop, {L"report", L"--json"}, 0, "\"schema\"",  // access, sharing and room beyond what the report shows
         batteryOpen.c_str(), L"laptop-report.json"},
        {desktop, {L"report", L"--json"}, 0, "\"schema\"", "ioctl \\\\.\\C: IOCTL_STORAGE_GET_DEVICE_NUMBER [out 12 bytes]",
         L"desktop-report.json"},
        {reads, {L"report", L"--json"}, 0, "\"oem_reading\": 41.7,", "firmware OemWMIfun packet 020201 "},
        {reads, {L"report"}, 0, "L3 size:                        not available (wmi ROOT\\CIMV2 \"SELECT InstalledSize FROM "
         "Win32_CacheMemory WHERE Level='3'\": fetching failed with 0x8004100C)",
         "wmi ROOT\\CIMV2 \"SELECT InstalledSize FROM Win32_CacheMemory WHERE Level='3'\""},
        {laptop, {L"report"}, 0, "== Battery ==", "registry HKLM\\HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0 [access 0x20119]"},
        {laptop, chargeControl, 0, "charge control set to 60 / 80",  // the packet 03 10 3c 50
         "firmware put u64Input [VARIANT type 8, CIM type 21, text 1346113539] -> accepted"},
        {laptop, {L"wifi", L"off"}, 0, "Wi-Fi radio of 'Intel(R) Wi-Fi 6 AX201 160MHz' switched off", wifi.c_str()},
        {laptop, {L"firmware", L"super-saver-on"}, 0, "power-saving mode started", "firmware OemWMIfun packet 030f0521 "},
        {laptop, {L"firmware", L"super-saver-off"}, 0, "power-saving mode stopped", "firmware OemWMIfun packet 030f05 "},
        {laptop, {L"firmware", L"thermal-defaults"}, 0, "thermal defaults restored", "firmware OemWMIfun packet 030f "},
        {laptop, {L"firmware", L"pl1"}, 0, "PL1: 28.25 W", "firmware OemWMIfun packet 030c01 "},
        {laptop, {L"uninstall", L"system", L"ACPI\\VEN_INT&DEV_33A1", L"--yes"}, 0,
         "Device ACPI\\VEN_INT&DEV_33A1 uninstalled", "setupapi remove ACPI\\INT33A1\\0 -> removed"},
        {refuses, chargeControl, 2, "refused", "firmware OemWMIfun packet 03103c50 "},
        {refuses, {L"wifi", L"off"}, 2, "refused", wifi.c_str()},
        {refuses, {L"firmware", L"super-saver-on"}, 2, "refused super-saver-on", "firmware OemWMIfun packet 030f0521 "},
        {refuses, {L"firmware", L"thermal-defaults"}, 2, "refused thermal-defaults", "firmware OemWMIfun packet 030f "},
        {refuses, {L"firmware", L"pl1"}, 2, "did not answer", "firmware OemWMIfun packet 030c01 "},
        {laptop, {L"display", L"brightness", L"40"}, 2, "HalInit(19) refused", "library ControlLib.dll [ControlLib.dll, flags 0xA00] -> absent"},
        {laptop, {L"uninstall", L"system", L"PCI\\NOT_HERE", L"--yes"}, 2, "no present device",
         "setupapi open {4D36E97D-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT -> 2 devices"},
        {desktop, chargeControl, 2, "refused", "firmware class OemWMIMethod in ROOT\\WMI -> absent"},
        {desktop, {L"wifi", L"off"}, 2, "no wireless interface", "wlan interfaces -> 0 interfaces"},
        {laptop, {L"battery", L"charge-control", L"60"}, 1, "usage: torvex battery", nullptr},
        {laptop, {L"battery", L"charge-control", L"60", L"101"}, 1, "0 to 100", nullptr},
        {laptop, {L"uninstall", L"gadgets", L"X", L"--yes"}, 1, "unknown class", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(tool::Utf8(c.profile) + " " + testing::PrintToString(c.args));
        const auto [status, said] = Replay(c.profile, c.args);
        EXPECT_EQ(status, c.status);
        EXPECT_NE(said.find(c.says), std::string::npos) << "said: " << said;
        if (c.sent != nullptr) EXPECT_TRUE(Traced(c.sent)) << c.sent;
        else EXPECT_EQ(tool::RunTrace().Size(), 0u) << "a usage error reached the machine";
        EXPECT_TRUE(FirmwareMutexFree()) << "MutexWMI left held";
        if (c.keep != nullptr) std::ofstream(Beside(c.keep), std::ios::binary) << said;
    }
}

// The library's narrow answers are in the ANSI code page (1252 here): every section that shows one gives the text
// back exactly in both reports; a character the code page cannot hold already reached the tool as "?".
TEST(Replay, NarrowTextsComeBackExactlyInBothReports) {
    struct Text { const char* path; const char* text; };
    const Text texts[] = {
        {"/cpu/name", "Genuine Intel® Core™ CPU"},
        {"/mainboard/board_manufacturer", "Fabriqué à Genève"},
        {"/mainboard/bios_vendor", "Insyde – Société"},
        {"/mainboard/board_product", "Carte mère ™ ??"},  // 主板 is not in the code page
        {"/memory/items/0/slot", "Bank Ä"},
        {"/memory/items/0/maker", "Mémoire Müller™"},
        {"/memory/items/0/part_number", "?\?-8G"},  // 内存 neither
        {"/battery/manufacturer", "Simplo – SMP"},
        {"/battery/name", "Akku Größe 4Z"},
        {"/drivers/items/0/caption", "Contrôleur … série"},
        {"/drivers/items/0/manufacturer", "Périphériques – standard"},
    };
    const auto [jsonStatus, json] = Replay(L"machines\\ansi-names.json", {L"report", L"--json"});
    const auto [textStatus, text] = Replay(L"machines\\ansi-names.json", {L"report"});
    ASSERT_EQ(jsonStatus, 0);
    ASSERT_EQ(textStatus, 0);
    const auto report = nlohmann::json::parse(json);
    for (const Text& t : texts) {
        SCOPED_TRACE(t.path);
        EXPECT_EQ(report.at(nlohmann::json::json_pointer(t.path)).get<std::string>(), t.text);
        EXPECT_NE(text.find(std::string(t.text) + "\n"), std::string::npos) << text;
    }
    for (const std::string* said : {&json, &text}) {  // no byte that is not UTF-8, no replacement character
        EXPECT_EQ(torvex::text::Utf8(torvex::text::Wide(*said)), *said);
        EXPECT_EQ(said->find("\xEF\xBF\xBD"), std::string::npos);
    }
}

}  // namespace
