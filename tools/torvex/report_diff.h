// Two JSON reports side by side: the facts that differ, by section. Used by
// `torvex diff`; a fact is any member of a section or of one of its items,
// except the words that explain (a section's "note", an object's "reasons" and
// "sources").
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace tool {

using ReportJson = nlohmann::ordered_json;

struct Difference {
    std::string section;  // "cpu"
    std::string fact;     // "name", "items[1].size_mib"
    const ReportJson* a;  // the value on each side; null when the fact is absent there
    const ReportJson* b;
    std::string aReason, bReason;  // why a value is null (its "reasons", or the section's note)
};

// The facts of `a` and `b` that differ, in the order of `a`, then those only
// `b` has. A text that differs only where one side holds a placeholder of
// redaction ("REDACTED-" and uppercase hexadecimal digits) does not differ.
std::vector<Difference> DiffReports(const ReportJson& a, const ReportJson& b);

// True when the two texts are the same but for redaction placeholders: each
// placeholder stands for any text of one character or more.
bool SameButRedacted(const std::string& a, const std::string& b);

}  // namespace tool
