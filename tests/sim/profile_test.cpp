// Machine profiles as the loader sees them: every bad document is refused
// with one line naming the file, the place and what was expected; truncated,
// mutated, oversized and deeply nested ones never crash, and whatever the
// loader accepts can be replayed beneath the library without harm.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <string>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"
#include "tool.h"

using torvex::sim::Profile;
using torvex::sim::ProfileError;

namespace {

// The message of a refused profile, or "" when it was accepted.
std::string Refusal(const std::string& text) {
    try {
        Profile::Parse(text, "p.json");
        return "";
    } catch (const ProfileError& e) {
        return e.what();
    }
}

// A profile with one answer of a device, keyed as given.
std::string Ioctl(const std::string& key) {
    return "{\"schema\": \"torvex-machine/1\", \"files\": {\"paths\": {\"D\": {\"ioctls\": {\"" + key + "\": {\"out\": \"00\"}}}}}}";
}

TEST(Profile, EveryRefusalNamesTheFileThePlaceAndWhatWasExpected) {
    const std::pair<std::string, const char*> cases[] = {
        {"", "p.json: line 1, column 1: "},
        {"{\"schema\": \"torvex-machine/1\",", "p.json: line 1, column 31: "},
        {"[]", "p.json: at /: expected an object"},
        {"{}", "p.json: at /schema: expected the member \"schema\": \"torvex-machine/2\""},
        {"{\"schema\": \"torvex-machine/3\"}", "p.json: at /schema: expected \"torvex-machine/2\" (or \"torvex-machine/1\")"},
        {"{\"schema\": \"torvex-machine/1\", \"cpu\": {}}", "p.json: at /cpu: expected no such member"},
        {"{\"schema\": \"torvex-machine/1\", \"registry\": {\"K\": {\"V\": {\"dword\": -1}}}}",
         "p.json: at /registry/K/V/dword: expected an integer from 0 to 4294967295"},
        {"{\"schema\": \"torvex-machine/1\", \"wmi\": {\"ROOT\\\\CIMV2\": {\"queries\": {\"Q\": {\"rows\": {}}}}}}",
         "p.json: at /wmi/ROOT\\CIMV2/queries/Q/rows: expected an array"},
        {"{\"schema\": \"torvex-machine/1\", \"firmware\": {\"present\": true, \"answers\": {\"030c\": {\"output\": \"000102\", "
         "\"length\": 2}}}}",
         "p.json: at /firmware/answers/030c/output: expected at most 2 bytes"},
        {"{\"schema\": \"torvex-machine/1\", \"files\": {\"paths\": {\"D\": {\"ioctls\": {\"IOCTL_DISK_GET_DRIVE_GEOMETRY\": "
         "{\"out\": \"0102\", \"returned\": 24}}}}}}",
         "p.json: at /files/paths/D/ioctls/IOCTL_DISK_GET_DRIVE_GEOMETRY/returned: expected at most the 2 bytes"},
        {"{\"schema\": \"torvex-machine/1\", \"devices\": {\"nodes\": {\"N\": {\"properties\": {\"DEVPKEY_Device_HardwareIds\": "
         "{\"guid\": \"{nope}\"}}}}}}",
         "p.json: at /devices/nodes/N/properties/DEVPKEY_Device_HardwareIds/guid: expected a GUID"},
        {"{\"schema\": \"torvex-machine/1\", \"display\": {\"devices\": [{\"name\": \"" + std::string(40, 'x') + "\"}]}}",
         "p.json: at /display/devices/0/name: expected a text shorter than the 32 bytes of its field"},
        {std::string(30, '[') + std::string(30, ']'), "p.json: nested deeper than 24 levels"},
        {std::string((64u << 20) + 1, ' '), "p.json: larger than 64 MiB"},
        // What the JSON library accepts, or reports without a place.
        {"{\"schema\": \"evil\", \"schema\": \"torvex-machine/1\"}", "p.json: at /schema: expected each member name once"},
        {"{\"schema\": \"torvex-machine/1\", \"wmi\": {\"N\": {\"queries\": {}, \"queries\": {}}}}",
         "p.json: at /wmi/N/queries: expected each member name once"},
        {"{\"schema\": \"torvex-machine/1\", \"registry\": {\"K\\u0000cut\": null}}",
         "p.json: at /registry/K\\u0000cut: expected a member name without control characters"},
        {"{\"schema\": \"torvex-machine/1\", \"registry\": {\"K\\u001b[31m\\nx\": null}}",
         "p.json: at /registry/K\\u001B[31m\\u000Ax: expected a member name without control characters"},
        {"{\"schema\": \"torvex-machine/1\",\n \"audio\": {\"render\": {\"volume_scalar\": 1e400}}}",
         "p.json: line 2, column 40: the number 1e400 is out of range"},
        {"[-1e400]", "p.json: line 1, column 2: the number -1e400 is out of range"},
        {Ioctl("0xZZZZZZZZ"), "p.json: at /files/paths/D/ioctls/0xZZZZZZZZ: expected an answer named by a known IOCTL_ name"},
        {Ioctl("0x1234"), "p.json: at /files/paths/D/ioctls/0x1234: expected an answer named"},
        {Ioctl("IOCTL_BATTERY_QUERY_TAGS"), "p.json: at /files/paths/D/ioctls/IOCTL_BATTERY_QUERY_TAGS: expected an answer named"},
        {Ioctl("IOCTL_BATTERY_QUERY_TAG 0"), "p.json: at /files/paths/D/ioctls/IOCTL_BATTERY_QUERY_TAG 0: expected an answer named"},
        {Ioctl("IOCTL_BATTERY_QUERY_TAG  00"), "p.json: at /files/paths/D/ioctls/IOCTL_BATTERY_QUERY_TAG  00: expected an answer"},
        {Ioctl("0x0029404C zz"), "p.json: at /files/paths/D/ioctls/0x0029404C zz: expected an answer named"},
    };
    for (const auto& [text, message] : cases) {
        const std::string refusal = Refusal(text);
        EXPECT_EQ(refusal.rfind(message, 0), 0u) << "for " << text.substr(0, 200) << "\ngot: " << refusal;
        EXPECT_TRUE(std::none_of(refusal.begin(), refusal.end(), [](char c) { return c >= 0 && c < 0x20; }))
            << "one line, no control character: " << refusal;
    }
    for (const char* key : {"IOCTL_BATTERY_QUERY_TAG", "IOCTL_BATTERY_QUERY_TAG 00000000", "0x0029404C 0a0B"})
        EXPECT_EQ(Refusal(Ioctl(key)), "") << key;
}

// Whatever the loader accepts replays: every query of every class runs and
// the library is left holding nothing of the machine.
void ReplayEverything(const std::string& text) {
    Profile profile = Profile::Parse(text, "mutant");
    torvex::sim::Machine machine(torvex::test::TorvexModule(), {&profile, nullptr, nullptr});
    tool::AskEverything();
}

TEST(Profile, TruncatedMutatedAndNestedProfilesNeverCrash) {
    const std::string original = torvex::test::MachineText("intel-laptop");
    ASSERT_EQ(Refusal(original), "");
    for (size_t cut = 0; cut < original.size(); cut += 53)
        EXPECT_NE(Refusal(original.substr(0, cut)), "") << "cut at " << cut;
    std::mt19937 random(20261123);
    const char kBytes[] = "{}[]\",:0123456789-.eEtrufalsn \\\x80\xff";
    // Half the mutants come from the profile with identifiers at every place
    // redaction knows, so that redacting them is tried too.
    const std::string planted = torvex::test::MachineText("planted-identifiers");
    size_t accepted = 0;
    for (int round = 0; round < 400; ++round) {
        std::string mutant = round % 2 == 0 ? original : planted;
        for (int edits = 1 + random() % 3; edits > 0; --edits) {
            const size_t at = random() % mutant.size();
            switch (random() % 3) {
            case 0: mutant[at] = kBytes[random() % (sizeof(kBytes) - 1)]; break;
            case 1: mutant.erase(at, 1 + random() % 8); break;
            default: mutant.insert(at, 1, kBytes[random() % (sizeof(kBytes) - 1)]); break;
            }
        }
        if (!Refusal(mutant).empty()) continue;
        ++accepted;
        ReplayEverything(mutant);
        torvex::test::ExpectNothingHeld();
        // Whatever loads still loads once redacted.
        Profile redacted = Profile::Parse(mutant, "mutant");
        torvex::sim::Redact(redacted);
        EXPECT_EQ(Refusal(redacted.Dump()), "") << "redaction broke an accepted profile";
    }
    EXPECT_GT(accepted, 0u) << "no mutant was accepted, so none was replayed";
}

double SecondsOf(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Small hostile files and large real ones load in time that grows with their
// size, and replay of large device sets too: the bounds are generous (ten
// times what this machine takes), a quadratic step blows them.
TEST(Profile, LargeProfilesLoadAndReplayInBoundedTime) {
    std::string objects = "{\"schema\": \"torvex-machine/1\", \"wmi\": {\"ROOT\\\\CIMV2\": {\"queries\": {\"Q\": {\"rows\": [{}";
    for (int i = 1; i < 400000; ++i) objects += ",{}";
    objects += "]}}}}}";
    EXPECT_LT(SecondsOf([&] { EXPECT_EQ(Refusal(objects), ""); }), 5.0) << "400,000 empty objects";
    std::string keys = "{\"schema\": \"torvex-machine/1\", \"registry\": {\"K0\": {}";
    for (int i = 1; i < 50000; ++i) keys += ",\"K" + std::to_string(i) + "\": {}";
    keys += "}}";
    EXPECT_LT(SecondsOf([&] { EXPECT_EQ(Refusal(keys), ""); }), 5.0) << "50,000 empty registry keys";

    torvex::sim::Json doc = torvex::sim::Json::parse(torvex::test::MachineText("intel-laptop"));
    torvex::sim::Json& media = doc["devices"]["sets"]["{4D36E96C-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT"];
    for (int i = 0; i < 20000; ++i) {
        const std::string id = "USB\\VID_0D8C&PID_" + std::to_string(1000 + i) + "\\7&" + std::to_string(i) + "&0&1";
        media.push_back(id);
        doc["devices"]["nodes"][id]["properties"]["DEVPKEY_Device_HardwareIds"]["string_list"] = {"USB\\VID_0D8C&PID_" + std::to_string(1000 + i)};
    }
    const double seconds = SecondsOf([&] {
        Profile profile = Profile::Parse(doc.dump(), "devices");
        torvex::sim::Machine machine(torvex::test::TorvexModule(), {&profile, nullptr, nullptr});
        tool::AskEverything();
    });
    EXPECT_LT(seconds, 10.0) << "20,000 devices";
    std::printf("load and replay of 20,000 devices: %.2f s\n", seconds);
}

// A recording machine is read-only: the library's writes never reach the
// live machine while it is captured.
TEST(Capture, NeverChangesTheLiveMachine) {
    const wchar_t* kKey = L"SOFTWARE\\TorvexCaptureTest";
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr), 0);
    const DWORD before = 1;
    RegSetValueExW(key, L"Value", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&before), sizeof(before));
    Profile captured;
    torvex::sim::Trace trace;
    {
        torvex::sim::Machine machine(torvex::test::TorvexModule(), {nullptr, &captured, &trace, true});
        EXPECT_FALSE(ReadReg::WrightLocalMachineRegDW(kKey, L"Value", 2));
        unsigned long read = 0;
        EXPECT_TRUE(ReadReg::ReadLocalMachineRegDW(kKey, L"Value", read));
        EXPECT_EQ(read, 1u);
    }
    DWORD after = 0, size = sizeof(after);
    RegQueryValueExW(key, L"Value", nullptr, nullptr, reinterpret_cast<BYTE*>(&after), &size);
    RegCloseKey(key);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKey);
    EXPECT_EQ(after, 1u);
    const std::vector<std::string> calls = trace.Calls("registry");
    EXPECT_NE(std::find_if(calls.begin(), calls.end(),
                           [](const std::string& call) { return call.find("-> refused: this machine is not changed") != std::string::npos; }),
              calls.end());
}

}  // namespace
