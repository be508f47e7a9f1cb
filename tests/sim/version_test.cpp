// torvex-machine/2 beside /1: a /1 profile is still read, its number errors brought to the one form /2 writes;
// every /1 profile of tests/machines loads that way; and mutated vendor libraries never harm the library that
// replays them.
#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"
#include "tool.h"

using torvex::sim::Json;
using torvex::sim::Profile;
using torvex::sim::ProfileError;

namespace {

constexpr char kPath[] = "\\\\.\\PHYSICALDRIVE0";
constexpr char kNode[] = "PCI\\VEN_1\\0";

// Every place an error stood as a number in /1, with the number 5 in it.
Json NumberErrors(const char* schema) {
    Json doc = Json::parse(R"({
      "devices": {"nodes": {"PCI\\VEN_1\\0": {"properties": {"DEVPKEY_Device_DeviceDesc": {"error": 5}}, "status": {"error": 5}}}},
      "files": {"paths": {"\\\\.\\PHYSICALDRIVE0": {"open": {"error": 5}, "ioctls": {"IOCTL_DISK_GET_DRIVE_GEOMETRY": {"error": 5}}}},
                "free_space": {"C:": {"error": 5}}},
      "power": {"status": {"error": 5}, "scheme": {"error": 5}, "battery_state": {"status": 5}},
      "wlan": {"open_error": 5, "enum_error": 5,
               "interfaces": [{"guid": "{5B4A8E2C-7D31-4F0A-9C6B-1E2D3F405162}", "radio_error": 5, "set_error": 5}]}})");
    doc["schema"] = schema;
    return doc;
}

std::vector<const Json*> Places(const Json& doc) {
    const Json &node = doc["devices"]["nodes"][kNode], &path = doc["files"]["paths"][kPath], &power = doc["power"];
    const Json& wlan = doc["wlan"];
    return {&node["properties"]["DEVPKEY_Device_DeviceDesc"]["error"], &node["status"]["error"], &path["open"]["error"],
            &path["ioctls"]["IOCTL_DISK_GET_DRIVE_GEOMETRY"]["error"], &doc["files"]["free_space"]["C:"]["error"],
            &power["status"]["error"], &power["scheme"]["error"], &power["battery_state"]["status"], &wlan["open_error"],
            &wlan["enum_error"], &wlan["interfaces"][0]["radio_error"], &wlan["interfaces"][0]["set_error"]};
}

TEST(Version, OneErrorsAreReadAndWrittenInTheOneForm) {
    const Profile upgraded = Profile::Parse(NumberErrors("torvex-machine/1").dump(), "old.json");
    EXPECT_EQ(upgraded.doc()["schema"], "torvex-machine/2");
    for (const Json* error : Places(upgraded.doc())) EXPECT_EQ(*error, "0x00000005");
    EXPECT_EQ(Profile::Parse(upgraded.Dump()).doc(), upgraded.doc()) << "written as /2, read back the same";
    // /2 has one form only: each number is refused where it stands.
    const Json current = NumberErrors("torvex-machine/2");
    for (size_t place = 0; place < Places(current).size(); ++place) {
        Json doc = upgraded.doc();
        const_cast<Json&>(*Places(doc)[place]) = 5;
        try {
            Profile::Parse(doc.dump(), "new.json");
            ADD_FAILURE() << "a number accepted at place " << place;
        } catch (const ProfileError& e) {
            EXPECT_NE(std::string(e.what()).find("expected an error code such as \"0x00000002\""), std::string::npos)
                << e.what();
        }
    }
}

TEST(Version, EveryProfileOfTheTreeLoadsAndSavesAsTwo) {
    size_t ones = 0, twos = 0;
    for (const auto& entry : std::filesystem::directory_iterator(torvex::test::ProgramDirectory() + L"\\machines")) {
        const std::string name = entry.path().stem().string();
        const Json original = Json::parse(torvex::test::MachineText(name.c_str()));
        (original["schema"] == "torvex-machine/1" ? ones : twos) += 1;
        const Profile profile = Profile::Parse(original.dump(), name);
        EXPECT_EQ(profile.doc()["schema"], "torvex-machine/2") << name;
        EXPECT_EQ(Profile::Parse(profile.Dump(), name).doc(), profile.doc()) << name;
    }
    EXPECT_GE(ones, 5u) << "the tree keeps /1 profiles, so that this test reads some";
    EXPECT_GE(twos, 3u);
}

// Mutated vendor libraries (numbers, members, records): whatever the loader accepts is replayed, display sets
// included, and the library is left holding none of what the libraries handed out.
TEST(Version, MutatedVendorLibrariesNeverHarmTheLibrary) {
    const char* machines[] = {"amd-radeon-desktop", "hybrid-graphics-laptop", "intel-igcl-laptop"};
    std::mt19937 random(20260126);
    // Mostly numbers, the libraries' answers being numbers; now and then a value of another kind.
    const Json values[] = {-1, 0, 1, 2, 3, 5, 7, 16, 64, 65536, 4294967295u, -2147483648, "0x80004005", Json::array(), nullptr};
    size_t accepted = 0;
    for (const char* name : machines) {
        const Json original = Json::parse(torvex::test::MachineText(name));
        for (int round = 0; round < 100; ++round) {
            Json mutant = original;
            Json* library = nullptr;  // the recorded one
            for (auto& [file, recorded] : mutant["vendor"].items())
                if (recorded.is_object()) library = &recorded;
            for (int edits = 1 + random() % 3; edits > 0; --edits) {
                // A random leaf inside the library (now and then a whole member) replaced by a random value.
                Json* node = library;
                while ((node->is_object() || node->is_array()) && !node->empty() && random() % 12 != 0) {
                    auto it = node->begin();
                    std::advance(it, random() % node->size());
                    node = &*it;
                }
                *node = values[random() % (random() % 5 == 0 ? std::size(values) : 12)];
            }
            Profile profile;
            try {
                profile = Profile::Parse(mutant.dump(), name);
            } catch (const ProfileError&) {
                continue;
            }
            ++accepted;
            torvex::sim::Machine machine(torvex::test::TorvexModule(), {&profile, nullptr, nullptr});
            tool::AskEverything();
            const ChannelGainRequest gains{0.5f, 0.5f, 0.5f, 255.0f, 0.5f};
            const WarmthRequest warmth{200, 100};
            ColorTemperatureRequest temperature{128, 0};
            DisplayColorContext pair{7, 5, 0, 0};
            uint32_t arg5 = 0;
            HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_CHANNEL_GAINS, const_cast<ChannelGainRequest*>(&gains), 20, nullptr, 1);
            HalSetInformation(HAL_CLASS_DISPLAY, nullptr, HAL_DISPLAY_WARMTH, const_cast<WarmthRequest*>(&warmth), 8, nullptr, 2);
            HalSetInformation(HAL_CLASS_DISPLAY, &pair, HAL_DISPLAY_TEMPERATURE, &temperature, 8, &arg5, 0);
            torvex::test::ExpectNothingHeld();
        }
    }
    EXPECT_GT(accepted, 50u) << "too few mutants were accepted to prove anything";
}

}  // namespace
