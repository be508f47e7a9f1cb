// `torvex diff`'s comparison: the facts of two reports that differ, section by section, with why a missing value is
// missing; a redaction placeholder never makes a difference of its own.
#include <gtest/gtest.h>

#include "report_diff.h"

namespace {

using tool::ReportJson;

TEST(Diff, RedactionPlaceholdersStandForAnyText) {
    const struct {
        const char *a, *b;
        bool same;
    } cases[] = {
        {"PF2ABCDE", "PF2ABCDE", true},
        {"PF2ABCDE", "PF2ABCDF", false},
        {"REDACTED-1A2B3C4D", "PF2ABCDE", true},
        {"PF2ABCDE", "REDACTED-1A2B3C4D", true},
        {"REDACTED-AB", "REDACTED-CD", true},
        {"USBSTOR\\DISK&VEN_X\\REDACTED-00FF&0", "USBSTOR\\DISK&VEN_X\\4C530001231122117513&0", true},
        {"USBSTOR\\DISK&VEN_Y\\REDACTED-00FF&0", "USBSTOR\\DISK&VEN_X\\4C530001231122117513&0", false},
        {"X REDACTED-12 Y REDACTED-34 Z", "X 1 Y 22 Z", true},
        {"X REDACTED-12 Y", "X 1 Z", false},
        {"REDACTED-", "x", false},     // no hexadecimal digits: not a placeholder
        {"REDACTED-ab", "x", false},   // lower case: not one either
        {"REDACTED-1F tail", "head tail", true},
        {"REDACTED-1F tail", "head tall", false},
    };
    for (const auto& c : cases) EXPECT_EQ(tool::SameButRedacted(c.a, c.b), c.same) << c.a << " | " << c.b;
}

ReportJson Report(const char* text) { return ReportJson::parse(text); }

TEST(Diff, TheFactsThatDifferBySectionWithWhyAValueIsMissing) {
    const ReportJson a = Report(R"({"schema": "torvex-report/2",
        "cpu": {"available": true, "name": "Intel", "cores": 4, "l3_size_kb": null, "reasons": {"l3_size_kb": "no rows"},
                "sources": {"l3_size_kb": "WMI cache level 3"}},
        "disks": {"available": true, "drives": 1, "items": [{"available": true, "serial_number": "REDACTED-0A0B", "size_mib": 10}]},
        "battery": {"available": false, "note": "not available: no battery"},
        "enclave": {"available": false, "note": "one reason"}})");
    const ReportJson b = Report(R"({"schema": "torvex-report/2",
        "cpu": {"available": true, "name": "Intel", "cores": 8.0, "l3_size_kb": 320, "sources": {"l3_size_kb": "other words"}},
        "disks": {"available": true, "drives": 1, "items": [{"available": true, "serial_number": "S4EWNX0R", "size_mib": 12,
                  "firmware": "1B2Q"}]},
        "battery": {"available": true, "wear_percent": 12.5},
        "enclave": {"available": false, "note": "another reason"},
        "wifi": {"available": false, "note": "no radio"}})");
    struct Expected {
        std::string section, fact, a, b, aReason, bReason;  // values as JSON text, "-" when absent
    };
    const std::vector<Expected> expected = {
        {"cpu", "cores", "4", "8.0", "", ""},
        {"cpu", "l3_size_kb", "null", "320", "no rows", ""},
        {"disks", "items[0].size_mib", "10", "12", "", ""},
        {"disks", "items[0].firmware", "-", "\"1B2Q\"", "", ""},
        {"battery", "available", "false", "true", "", ""},
        {"battery", "wear_percent", "-", "12.5", "", ""},
        {"wifi", "available", "-", "false", "", ""},
    };
    std::vector<Expected> got;
    for (const tool::Difference& d : tool::DiffReports(a, b))
        got.push_back({d.section, d.fact, d.a != nullptr ? d.a->dump() : "-", d.b != nullptr ? d.b->dump() : "-", d.aReason, d.bReason});
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_EQ((std::vector{got[i].section, got[i].fact, got[i].a, got[i].b, got[i].aReason, got[i].bReason}),
                  (std::vector{expected[i].section, expected[i].fact, expected[i].a, expected[i].b, expected[i].aReason,
                               expected[i].bReason}));
    EXPECT_TRUE(tool::DiffReports(a, a).empty());
    EXPECT_EQ(tool::DiffReports(a, b).size(), tool::DiffReports(b, a).size()) << "the same facts either way round";
    // The reason of a null fact inside an item is the item's own.
    const ReportJson c = Report(R"({"gpu": {"available": true, "items": [{"available": false, "note": "no such adapter"}]}})");
    const ReportJson d = Report(R"({"gpu": {"available": true, "items": [{"available": true, "name": null, "reasons": {"name": "x"}}]}})");
    const auto differences = tool::DiffReports(c, d);
    ASSERT_EQ(differences.size(), 2u);
    EXPECT_EQ((std::vector{differences[0].fact, differences[1].fact, differences[1].bReason}),
              (std::vector<std::string>{"items[0].available", "items[0].name", "x"}));
}

}  // namespace
