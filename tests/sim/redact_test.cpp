// Redaction as a customer relies on it: identifying values planted at every
// place of the policy leave no trace, whether the profile is redacted as a
// whole or captured redacted from a replay; placeholders are keyed per
// capture yet consistent within one; values that merely look alike (hex
// answers, hardware IDs, keys, texts equal to a serial) stay as they were.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <regex>
#include <string>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"
#include "tool.h"

using torvex::sim::Json;
using torvex::sim::Profile;

namespace {

// What tests/machines/planted-identifiers.json plants; none may survive.
const char* const kPlanted[] = {
    "PF9PLANT",          "S4EWNX0PLANT01", "9A8B7C6D",         "PF9SYSSN",        "PF0IDENT77",
    "4C4C4544-0050-4610-8052-B2C04F4D3233", "BFEBFBFF000806C1", "3C:58:C2:11:22:33", "3C58C2112234",
    "BATSN-31337",       "SMP1234PLANTUID", "BATUID-77A1",      "4200410054005300", "D0C5D3A1B2C3",
    "7&1A2B3C4D",        "4C530001231122117513", "4&2A1B3C4D&0&UID8388688", "6&1F2E3D4C&0&4", "8&3C2B1A0F",
    "Alice Example",     "SanDisk Cruzer Blade USB", "d3a1c2f4-5b6e-4f70-8a9b-0c1d2e3f4a5b", "02A1B2C3D4E5",
    "6A1F2E3D-4C5B-4A69-8B7C-0D1E2F3A4B5C", "5B4A8E2C-7D31-4F0A-9C6B-1E2D3F405162", "9c5e010000000000",
    "b87d010000000000",  "5A1E9C3B-2D4F-4E6A-8B7C-9D0E1F2A3B4C",
};

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

void ExpectNonePlanted(const std::string& text, const char* where) {
    const std::string lower = Lower(text);
    for (const char* planted : kPlanted)
        EXPECT_EQ(lower.find(Lower(planted)), std::string::npos) << planted << " survived in " << where;
}

std::string ReadFile(const std::wstring& path) {
    std::string text;
    if (FILE* file = _wfopen(path.c_str(), L"rb")) {
        char buffer[65536];
        for (size_t read; (read = fread(buffer, 1, sizeof(buffer), file)) > 0;) text.append(buffer, read);
        fclose(file);
    }
    return text;
}

std::wstring TempFile(const wchar_t* name) {
    wchar_t directory[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, directory);
    const std::wstring path = std::wstring(directory) + name;
    DeleteFileW(path.c_str());
    return path;
}

Profile Planted() { return Profile::Parse(torvex::test::MachineText("planted-identifiers"), "planted"); }

TEST(Redaction, EveryPlaceOfThePolicyIsPlantedAndNothingPlantedSurvives) {
    Profile profile = Planted();
    const std::vector<size_t> replaced = torvex::sim::Redact(profile);
    const auto policy = torvex::sim::RedactionPolicy();
    ASSERT_EQ(replaced.size(), policy.size());
    for (size_t i = 0; i < policy.size(); ++i)
        EXPECT_GT(replaced[i], 0u) << "nothing planted at " << policy[i].place << " (" << policy[i].kind << ")";
    const std::string text = profile.Dump();
    ExpectNonePlanted(text, "the redacted profile");
    // Still a profile, and one the library can be run on from end to end.
    Profile again = Profile::Parse(text, "redacted");
    {
        torvex::sim::Machine machine(torvex::test::TorvexModule(), {&again, nullptr, nullptr});
        tool::AskEverything();
    }
    torvex::test::ExpectNothingHeld();
}

// As a customer does it: torvex capture --redact, here of a replay.
TEST(Redaction, ARedactedCaptureOfTheReplayHoldsNonePlantedAndReplays) {
    const std::wstring planted = torvex::test::ProgramDirectory() + L"\\machines\\planted-identifiers.json";
    const std::wstring captured = TempFile(L"torvex-redacted-capture.json");
    ASSERT_EQ(tool::Run({L"replay", planted, L"capture", captured, L"--redact"}), tool::kExitOk);
    const std::string text = ReadFile(captured);
    ASSERT_NE(text.find("REDACTED-"), std::string::npos) << "the capture holds no placeholder at all";
    ExpectNonePlanted(text, "the redacted capture");
    EXPECT_EQ(tool::Run({L"replay", captured, L"report", L"--json"}), tool::kExitOk);
    DeleteFileW(captured.c_str());
}

// docs/machine-profile.md carries the policy as a table, row for row.
TEST(Redaction, TheDocumentedPolicyIsTheOneInForce) {
    const std::string doc = ReadFile(torvex::test::ProgramDirectory() + L"\\docs\\machine-profile.md");
    const size_t table = doc.find("| kind | place | replaced | where |");
    ASSERT_NE(table, std::string::npos) << "docs/machine-profile.md has no policy table";
    size_t rows = 0;
    for (size_t at = doc.find('\n', table) + 1; at < doc.size() && doc[at] == '|'; at = doc.find('\n', at) + 1) ++rows;
    const auto policy = torvex::sim::RedactionPolicy();
    EXPECT_EQ(rows, policy.size() + 1) << "rows besides the policy's (the line under the header counts one)";
    for (const auto& row : policy) {
        const std::string how = std::string(row.target) == "value" ? row.how : std::string(row.target) + ", " + row.how;
        const std::string line = std::string("| ") + row.kind + " | `" + row.place + "` | " + how + " | " + row.note + " |\n";
        EXPECT_NE(doc.find(line, table), std::string::npos) << "the table lacks the row\n" << line;
    }
}

const Json& At(const Profile& profile, const std::string& pointer) { return profile.doc().at(Json::json_pointer(pointer)); }

TEST(Redaction, PlaceholdersAreKeyedPerCaptureAndTheSameWithinOne) {
    Profile first = Planted(), second = Planted();
    torvex::sim::Redact(first);
    torvex::sim::Redact(second);
    const std::string serial = At(first, "/wmi/ROOT\\CIMV2/queries/SELECT SerialNumber FROM Win32_BaseBoard/rows/0/SerialNumber");
    EXPECT_TRUE(std::regex_match(serial, std::regex("REDACTED-[0-9A-F]{16}"))) << serial;
    EXPECT_NE(serial, At(second, "/wmi/ROOT\\CIMV2/queries/SELECT SerialNumber FROM Win32_BaseBoard/rows/0/SerialNumber"))
        << "two captures gave one placeholder: the key is not drawn per capture";

    // The watch's instance ID reads the same in its set, its node, the WMI
    // answer and the service's registry list; the stick's device path the
    // same in its node and among the files.
    const std::string watch = At(first, "/devices/sets/{E0CBF06C-CD8B-4647-BB8A-263B43F0F974} DIGCF_PRESENT/0");
    EXPECT_TRUE(std::regex_match(watch, std::regex(R"(BTHLE\\DEV_REDACTED-[0-9A-F]{16}\\REDACTED-[0-9A-F]{16})"))) << watch;
    EXPECT_TRUE(first.doc()["devices"]["nodes"].contains(watch));
    EXPECT_EQ(At(first, "/registry/SYSTEM\\CurrentControlSet\\Services\\BTHLE\\Enum/0/sz"), watch);
    const Json& queries = first.doc()["wmi"]["ROOT\\CIMV2"]["queries"];
    const std::string name = queries["SELECT DeviceID, Name, Description FROM Win32_PnPEntity WHERE PNPClass='Bluetooth'"]["rows"][0]["Name"];
    EXPECT_EQ(queries["SELECT DeviceID FROM Win32_PnPEntity WHERE Caption='" + name + "'"]["rows"][0]["DeviceID"], watch);
    const std::string stick = At(first, "/devices/sets/{53F56307-B6BF-11D0-94F2-00A0C91EFB8B} DIGCF_PRESENT|DIGCF_DEVICEINTERFACE/0");
    const std::string path = first.doc()["devices"]["nodes"][stick]["interfaces"]["{53F56307-B6BF-11D0-94F2-00A0C91EFB8B}"][0];
    EXPECT_TRUE(first.doc()["files"]["paths"].contains(path)) << path;
    // A same-shape replacement keeps its shape.
    EXPECT_TRUE(std::regex_match(std::string(At(first, "/dxgi/adapters/0/luid")), std::regex("[0-9a-f]{16}")));
    EXPECT_TRUE(std::regex_match(std::string(At(first, "/wlan/interfaces/0/guid")),
                                 std::regex(R"(\{[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}\})")));
}

// Values that look like identifiers, or equal one, where none is: each place
// keeps its value (the second column) or loses it.
TEST(Redaction, ValuesThatOnlyLookAlikeStayAsTheyWere) {
    const Json members = Json::parse(R"({
      "devices": {"sets": {"{4D36E968-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT": ["PCI\\VEN_1AF4&DEV_1050&SUBSYS_00000000&REV_01\\00000000"]},
                  "nodes": {"PCI\\VEN_1AF4&DEV_1050&SUBSYS_00000000&REV_01\\00000000": {"properties": {
                    "DEVPKEY_Device_HardwareIds": {"string_list": ["PCI\\VEN_1AF4&DEV_1050&SUBSYS_00000000&REV_01"]},
                    "DEVPKEY_Device_DeviceDesc": {"string": "00000000"}}}}},
      "files": {"paths": {"\\\\.\\PHYSICALDRIVE0": {"open": true, "ioctls": {"IOCTL_BATTERY_QUERY_TAG 00000000": {"out": "00000000"}}}}},
      "firmware": {"present": true, "answers": {"00000000": {"output": "0000000000", "length": 256}}},
      "registry": {"HARDWARE\\DESCRIPTION\\System\\BIOS": {"BaseBoardSerialNumber": {"sz": "Default string"},
                                                          "BaseBoardVersion": {"sz": "Default string"},
                                                          "Data": {"binary": "00000000"}}},
      "wmi": {"ROOT\\CIMV2": {"queries": {
        "SELECT SerialNumber FROM Win32_BaseBoard": {"rows": [{"SerialNumber": "Default string"}]},
        "SELECT Version FROM Win32_BaseBoard": {"rows": [{"Version": "Default string"}]},
        "SELECT Status FROM Win32_VideoController WHERE Caption ='00000000'": {"rows": [{"Status": "00000000", "Name": "Basic Display"}]},
        "SELECT DeviceID FROM Win32_DiskDrive": {"rows": [{"DeviceID": "\\\\.\\PHYSICALDRIVE0"}]},
        "SELECT Data FROM Win32_Bytes": {"rows": [{"Data": {"vt": "VT_ARRAY|VT_UI1", "value": "00000000"}}]}}}}
    })");
    Json doc = members;
    doc["schema"] = "torvex-machine/1";
    Profile profile = Profile::Parse(doc.dump(), "look-alikes");
    Profile original = profile;
    torvex::sim::Redact(profile);
    const std::pair<const char*, bool> cases[] = {
        {"/devices/nodes/PCI\\VEN_1AF4&DEV_1050&SUBSYS_00000000&REV_01\\00000000", false},  // renamed: the node's unique part
        {"/devices/sets/{4D36E968-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT/0", false},
        {"/files/paths/\\\\.\\PHYSICALDRIVE0/ioctls/IOCTL_BATTERY_QUERY_TAG 00000000/out", true},
        {"/firmware/answers/00000000/output", true},
        {"/registry/HARDWARE\\DESCRIPTION\\System\\BIOS/BaseBoardSerialNumber/sz", false},
        {"/registry/HARDWARE\\DESCRIPTION\\System\\BIOS/BaseBoardVersion/sz", true},
        {"/registry/HARDWARE\\DESCRIPTION\\System\\BIOS/Data/binary", true},
        {"/wmi/ROOT\\CIMV2/queries/SELECT SerialNumber FROM Win32_BaseBoard/rows/0/SerialNumber", false},
        {"/wmi/ROOT\\CIMV2/queries/SELECT Version FROM Win32_BaseBoard/rows/0/Version", true},
        {"/wmi/ROOT\\CIMV2/queries/SELECT Status FROM Win32_VideoController WHERE Caption ='00000000'/rows/0/Status", true},
        {"/wmi/ROOT\\CIMV2/queries/SELECT DeviceID FROM Win32_DiskDrive/rows/0/DeviceID", true},
        {"/wmi/ROOT\\CIMV2/queries/SELECT Data FROM Win32_Bytes/rows/0/Data/value", true},
    };
    for (const auto& [pointer, kept] : cases) {
        const Json::json_pointer at(pointer);
        EXPECT_EQ(profile.doc().contains(at) && profile.doc()[at] == original.doc()[at], kept) << pointer;
    }
    const Json& node = profile.doc()["devices"]["nodes"].begin().value();
    EXPECT_EQ(node, original.doc()["devices"]["nodes"].begin().value()) << "a node's properties changed with its name";
    const std::string id = profile.doc()["devices"]["nodes"].begin().key();
    EXPECT_EQ(id.rfind("PCI\\VEN_1AF4&DEV_1050&SUBSYS_00000000&REV_01\\REDACTED-", 0), 0u) << id;
    Profile::Parse(profile.Dump(), "redacted look-alikes");
}

}  // namespace
