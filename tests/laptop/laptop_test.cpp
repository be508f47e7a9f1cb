// torvex.exe's commands run in-process over a fully faked laptop: the JSON
// report names what the machine has, and every set command answers success,
// refusal and usage errors with the right exit status and a confirmation.
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/fake_laptop.h"
#include "tool.h"

using torvex::test::FakeLaptop;

namespace {

struct Outcome {
    int status;
    std::string out, err;
};

// Runs one command line with the C runtime's stdout and stderr sent to files.
Outcome RunTool(std::vector<std::wstring> args) {
    const std::wstring dir = torvex::test::ProgramDirectory();
    const std::wstring paths[2] = {dir + L"\\laptop-stdout.txt", dir + L"\\laptop-stderr.txt"};
    std::fflush(stdout);
    std::fflush(stderr);
    int saved[2], files[2];
    for (int i = 0; i < 2; ++i) {
        saved[i] = _dup(1 + i);
        files[i] = _wopen(paths[i].c_str(), _O_CREAT | _O_TRUNC | _O_WRONLY | _O_BINARY, _S_IREAD | _S_IWRITE);
        _dup2(files[i], 1 + i);
    }
    // An exception out of the tool is a failure to see, not one to lose in the file.
    Outcome outcome{-1, {}, {}};
    std::string thrown;
    try {
        outcome.status = tool::Run(std::move(args));
    } catch (const std::exception& error) {
        thrown = std::string("exception out of the tool: ") + error.what();
    }
    std::fflush(stdout);
    std::fflush(stderr);
    std::string* texts[2] = {&outcome.out, &outcome.err};
    for (int i = 0; i < 2; ++i) {
        _dup2(saved[i], 1 + i);
        _close(saved[i]);
        _close(files[i]);
        std::ifstream in(std::filesystem::path(paths[i]), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        *texts[i] = text.str();
    }
    outcome.err += thrown;
    return outcome;
}

// Keeps a report beside the program, for check_report.py.
void Keep(const std::string& text, const wchar_t* file) {
    std::ofstream(std::filesystem::path(torvex::test::ProgramDirectory() + L"\\" + file), std::ios::binary) << text;
}

class LaptopTest : public ::testing::Test {
protected:
    void TearDown() override { laptop.ExpectNothingLeft(); }
    FakeLaptop laptop;
};

TEST_F(LaptopTest, JsonReportNamesWhatTheLaptopHas) {
    const Outcome report = RunTool({L"report", L"--json"});
    ASSERT_EQ(report.status, 0) << report.err;
    Keep(report.out, L"laptop-report.json");
    const Outcome text = RunTool({L"report"});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("== Battery =="), std::string::npos);
}

// The tool over a stand-in for the library's Hal API that refuses every class,
// and answers every query it is asked (battery, mainboard) either not at all or
// with bytes no machine should send: invalid UTF-8, a NaN reading.
uint32_t Refuse(HalDeviceType, void*) { return 0; }
uint32_t RefuseInit(HalDeviceType, void**) { return 0; }
uint32_t RefuseQuery(HalDeviceType, void*, uint32_t, void*, uint32_t, uint32_t*) { return 0; }
uint32_t GarbageQuery(HalDeviceType, void*, uint32_t, void* buffer, uint32_t size, uint32_t* written) {
    std::memset(buffer, 0xFF, size);
    if (written != nullptr) *written = size;
    return 1;
}

class LibraryStandIn {
public:
    explicit LibraryStandIn(decltype(tool::Api::HalQueryInformation) query)
        : api_(const_cast<tool::Api&>(tool::Library())), saved_(api_) {
        api_.HalInit = RefuseInit;
        api_.HalOpenDevice = Refuse;
        api_.HalCloseDevice = Refuse;
        api_.HalQueryInformation = query;
    }
    ~LibraryStandIn() { api_ = saved_; }

private:
    tool::Api& api_;
    const tool::Api saved_;
};

TEST(StandInLibrary, JsonReportIsStillOneDocument) {
    struct Case {
        const wchar_t* file;
        decltype(tool::Api::HalQueryInformation) query;
    };
    for (const Case& c : {Case{L"refusing-library-report.json", RefuseQuery},
                          Case{L"garbage-library-report.json", GarbageQuery}}) {
        LibraryStandIn library(c.query);
        const Outcome report = RunTool({L"report", L"--json"});
        EXPECT_EQ(report.status, 0) << report.err;
        EXPECT_EQ(report.err, "");
        Keep(report.out, c.file);
    }
}

struct SetCase {
    std::vector<std::wstring> args;
    int status;
    const char* says;  // on stdout for 0, on stderr otherwise
};

void Expect(const SetCase& c) {
    const Outcome outcome = RunTool(c.args);
    std::wstring line;
    for (const auto& arg : c.args) line += arg + L" ";
    EXPECT_EQ(outcome.status, c.status) << tool::Utf8(line) << outcome.err;
    const std::string& said = c.status == 0 ? outcome.out : outcome.err;
    EXPECT_NE(said.find(c.says), std::string::npos) << tool::Utf8(line) << " said: " << said;
}

TEST_F(LaptopTest, SetCommandsConfirmWhatChanged) {
    Expect({{L"battery", L"charge-control", L"60", L"80"}, 0, "charge control set to 60 / 80"});
    EXPECT_GT(laptop.firmwareCalls, 0);

    Expect({{L"wifi", L"off"}, 0, "Wi-Fi radio of 'Intel(R) Wi-Fi 6 AX201 160MHz' switched off"});
    EXPECT_EQ(laptop.wlan.setBlock.dot11SoftwareRadioState, dot11_radio_state_off);
    Expect({{L"wifi", L"on"}, 0, "switched on"});
    EXPECT_EQ(laptop.wlan.setBlock.dot11SoftwareRadioState, dot11_radio_state_on);

    Expect({{L"display", L"brightness", L"55"}, 0, "brightness set to 55 %"});
    EXPECT_EQ(laptop.power.written, 55u);
    EXPECT_TRUE(laptop.power.wroteAc);
    Expect({{L"display", L"brightness"}, 0, "brightness 70 %"});
    const int ramps = torvex::test::SharedGfxServer().ramps;
    Expect({{L"display", L"warmth", L"200", L"30"}, 0, "warmth set to 200, blue cut 30"});
    Expect({{L"display", L"gains", L"100", L"90", L"80"}, 0, "channel gains set"});
    EXPECT_EQ(torvex::test::SharedGfxServer().ramps, ramps + 2);

    Expect({{L"firmware", L"super-saver-on"}, 0, "power-saving mode started"});
    Expect({{L"firmware", L"thermal-defaults"}, 0, "thermal defaults restored"});

    Expect({{L"uninstall", L"system", L"ACPI\\VEN_INT&DEV_33A1", L"--yes"}, 0,
            "Device ACPI\\VEN_INT&DEV_33A1 uninstalled"});
    EXPECT_EQ(laptop.tree.Removed().size(), 1u);
}

TEST_F(LaptopTest, RefusalsExitTwoAndUsageErrorsExitOne) {
    laptop.firmwareAnswer[0] = 1;  // the firmware rejects every command
    laptop.wlan.setResult = ERROR_ACCESS_DENIED;
    laptop.power.setResult = 5;
    const SetCase cases[] = {
        {{L"battery", L"charge-control", L"60", L"80"}, 2, "refused"},
        {{L"wifi", L"off"}, 2, "refused"},
        {{L"display", L"brightness", L"40"}, 2, "refused"},
        {{L"firmware", L"super-saver-on"}, 2, "refused"},
        {{L"uninstall", L"system", L"PCI\\NOT_HERE", L"--yes"}, 2, "no present device"},
        {{L"battery", L"charge-control", L"60"}, 1, "usage: torvex battery"},
        {{L"battery", L"charge-control", L"60", L"101"}, 1, "0 to 100"},
        {{L"wifi", L"sideways"}, 1, "usage: torvex wifi"},
        {{L"display", L"gains", L"100", L"x", L"80"}, 1, "malformed number x"},
        {{L"display", L"warmth", L"256", L"0"}, 1, "0 to 255"},
        {{L"uninstall", L"gadgets", L"X", L"--yes"}, 1, "unknown class"},
    };
    for (const SetCase& c : cases) Expect(c);
    EXPECT_EQ(laptop.tree.Removed().size(), 0u);
}

}  // namespace
