// `torvex diff A B [--json]`: the report facts two machines give differently
// (each a profile, or `live` for this machine), and `torvex upgrade FILE OUT`,
// which writes a profile of an earlier format in the current one.
//
// Each side's report is made by a torvex.exe process of its own: the library
// keeps some state for its process (the display back end once chosen, the
// CPU vendor), so two machines in one process would not be independent.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>

#include "report_diff.h"
#include "tool.h"

namespace tool {

namespace {

constexpr char kDiffSchema[] = "torvex-diff/1";
constexpr char kPlaceholder[] = "REDACTED-";
constexpr int kWildcard = -1;
constexpr int kExitDiffer = 1;
constexpr int kExitTrouble = 2;  // a usage error or a report that could not be made

// A text as symbols: its bytes, each placeholder one wildcard.
std::vector<int> Symbols(const std::string& text) {
    std::vector<int> symbols;
    const size_t prefix = sizeof(kPlaceholder) - 1;
    for (size_t i = 0; i < text.size();) {
        size_t end = i + prefix;
        if (text.compare(i, prefix, kPlaceholder) == 0) {
            while (end < text.size() && ((text[end] >= '0' && text[end] <= '9') || (text[end] >= 'A' && text[end] <= 'F'))) ++end;
            if (end > i + prefix) {
                symbols.push_back(kWildcard);
                i = end;
                continue;
            }
        }
        symbols.push_back(static_cast<unsigned char>(text[i++]));
    }
    return symbols;
}

void Flatten(const ReportJson& object, const std::string& prefix, std::vector<std::pair<std::string, const ReportJson*>>& facts) {
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.key() == "reasons" || it.key() == "sources" || it.key() == "note") continue;
        if (it.key() == "items" && it->is_array()) {
            for (size_t i = 0; i < it->size(); ++i)
                Flatten((*it)[i], prefix + "items[" + std::to_string(i) + "].", facts);
            continue;
        }
        facts.emplace_back(prefix + it.key(), &*it);
    }
}

// Why a fact has no value: the reason under its key, else the note of the
// object that holds it (an unavailable section or item).
std::string ReasonOf(const ReportJson& section, const std::string& fact) {
    const ReportJson* holder = &section;
    std::string key = fact;
    for (size_t dot; (dot = key.find("].")) != std::string::npos && key.rfind("items[", 0) == 0;) {
        const size_t index = std::stoul(key.substr(6, dot - 6));
        if (!holder->contains("items") || index >= (*holder)["items"].size()) return "";
        holder = &(*holder)["items"][index];
        key = key.substr(dot + 2);
    }
    if (holder->contains("reasons") && (*holder)["reasons"].contains(key)) return (*holder)["reasons"][key].get<std::string>();
    return holder->contains("note") ? (*holder)["note"].get<std::string>() : "";
}

bool Same(const ReportJson& a, const ReportJson& b) {
    if (a.is_string() && b.is_string()) return SameButRedacted(a.get<std::string>(), b.get<std::string>());
    return a == b;
}

}  // namespace

bool SameButRedacted(const std::string& a, const std::string& b) {
    if (a == b) return true;
    const std::vector<int> p = Symbols(a), q = Symbols(b);
    // match[i][j]: p from i and q from j can be the same text; a wildcard on
    // either side stands for any run of symbols of the other, itself included.
    std::vector<std::vector<char>> match(p.size() + 1, std::vector<char>(q.size() + 1, 0));
    match[p.size()][q.size()] = 1;
    for (size_t i = p.size() + 1; i-- > 0;) {
        for (size_t j = q.size() + 1; j-- > 0;) {
            if (i == p.size() && j == q.size()) continue;
            bool m = false;
            if (i < p.size() && p[i] == kWildcard) m = match[i + 1][j] || (j < q.size() && match[i][j + 1]);
            if (!m && j < q.size() && q[j] == kWildcard) m = match[i][j + 1] || (i < p.size() && match[i + 1][j]);
            if (!m && i < p.size() && j < q.size() && p[i] == q[j]) m = match[i + 1][j + 1];
            match[i][j] = m;
        }
    }
    return match[0][0] != 0;
}

std::vector<Difference> DiffReports(const ReportJson& a, const ReportJson& b) {
    std::vector<Difference> differences;
    std::vector<std::string> sections;
    for (const ReportJson* report : {&a, &b})
        for (auto it = report->begin(); it != report->end(); ++it)
            if (it.key() != "schema" && std::find(sections.begin(), sections.end(), it.key()) == sections.end())
                sections.push_back(it.key());
    static const ReportJson kNone = ReportJson::object();
    for (const std::string& name : sections) {
        const ReportJson& sa = a.contains(name) ? a[name] : kNone;
        const ReportJson& sb = b.contains(name) ? b[name] : kNone;
        std::vector<std::pair<std::string, const ReportJson*>> fa, fb;
        Flatten(sa, "", fa);
        Flatten(sb, "", fb);
        auto find = [](const auto& facts, const std::string& key) -> const ReportJson* {
            for (const auto& [fact, value] : facts)
                if (fact == key) return value;
            return nullptr;
        };
        auto add = [&](const std::string& fact, const ReportJson* va, const ReportJson* vb) {
            Difference d{name, fact, va, vb, "", ""};
            if (va != nullptr && va->is_null()) d.aReason = ReasonOf(sa, fact);
            if (vb != nullptr && vb->is_null()) d.bReason = ReasonOf(sb, fact);
            differences.push_back(std::move(d));
        };
        for (const auto& [fact, value] : fa) {
            const ReportJson* other = find(fb, fact);
            if (other == nullptr || !Same(*value, *other)) add(fact, value, other);
        }
        for (const auto& [fact, value] : fb)
            if (find(fa, fact) == nullptr) add(fact, nullptr, value);
    }
    return differences;
}

namespace {

std::wstring SelfPath() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return path;
}

std::wstring Quoted(const std::wstring& arg) {
    std::wstring out = L"\"";
    for (wchar_t c : arg) out += c == L'"' ? std::wstring(L"\\\"") : std::wstring(1, c);
    return out + L"\"";
}

struct HandleCloser {
    void operator()(HANDLE handle) const {
        if (handle != nullptr && handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
    }
};
using Handle = std::unique_ptr<void, HandleCloser>;

// One side's JSON report, made by a torvex.exe of its own; on failure, what
// that process said.
bool ReportOf(const std::wstring& side, std::string& report, std::string& error) {
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0)) return error = "no pipe", false;
    Handle reader(readEnd), writer(writeEnd);
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    wchar_t temporary[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temporary);
    Handle errors(CreateFileW((std::wstring(temporary) + L"torvex-diff-" + std::to_wstring(GetCurrentProcessId()) + L".err").c_str(),
                              GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    std::wstring command = Quoted(SelfPath()) + (side == L"live" ? L"" : L" replay " + Quoted(side)) + L" report --json";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writeEnd;
    startup.hStdError = errors.get() != INVALID_HANDLE_VALUE ? errors.get() : GetStdHandle(STD_ERROR_HANDLE);
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process))
        return error = "torvex.exe did not start (error " + std::to_string(GetLastError()) + ")", false;
    Handle child(process.hProcess), thread(process.hThread);
    writer.reset();  // the child holds the only write end now: reading ends when it exits
    char buffer[65536];
    DWORD read = 0;
    while (ReadFile(readEnd, buffer, sizeof(buffer), &read, nullptr) && read > 0) report.append(buffer, read);
    WaitForSingleObject(child.get(), INFINITE);
    DWORD status = 1;
    GetExitCodeProcess(child.get(), &status);
    if (status == 0) return true;
    if (errors.get() != INVALID_HANDLE_VALUE) {
        SetFilePointer(errors.get(), 0, nullptr, FILE_BEGIN);
        while (ReadFile(errors.get(), buffer, sizeof(buffer), &read, nullptr) && read > 0) error.append(buffer, read);
    }
    while (!error.empty() && (error.back() == '\n' || error.back() == '\r')) error.pop_back();
    if (error.empty()) error = "its report ended with status " + std::to_string(status);
    return false;
}

std::string Shown(const ReportJson* value, const std::string& reason) {
    if (value == nullptr) return "(absent)";
    if (value->is_null()) return reason.empty() ? "not available" : "not available (" + reason + ")";
    return value->is_string() ? value->get<std::string>() : value->dump();
}

void PrintText(const std::string& a, const std::string& b, const std::vector<Difference>& differences) {
    PrintLine("torvex diff: " + a + " | " + b);
    std::string section;
    size_t width = 0, left = 0;  // of the facts' names, and of A's values (up to 48)
    for (const Difference& d : differences) {
        width = std::max(width, d.fact.size());
        left = std::max(left, std::min<size_t>(Shown(d.a, d.aReason).size(), 48));
    }
    size_t sections = 0;
    for (const Difference& d : differences) {
        if (d.section != section) {
            section = d.section;
            ++sections;
            PrintLine("== " + section + " ==");
        }
        const std::string a = Shown(d.a, d.aReason);
        PrintLine("  " + d.fact + std::string(width - d.fact.size() + 2, ' ') + a +
                  std::string(a.size() < left ? left - a.size() : 0, ' ') + "  |  " + Shown(d.b, d.bReason));
    }
    PrintLine(differences.empty() ? "no fact differs"
                                  : std::to_string(differences.size()) + (differences.size() == 1 ? " fact differs" : " facts differ") +
                                        " in " + std::to_string(sections) + (sections == 1 ? " section" : " sections"));
}

void PrintJson(const std::string& a, const std::string& b, const std::vector<Difference>& differences) {
    ReportJson out;
    out["schema"] = kDiffSchema;
    out["a"] = a;
    out["b"] = b;
    out["differ"] = !differences.empty();
    ReportJson& sections = out["sections"] = ReportJson::object();
    for (const Difference& d : differences) {
        ReportJson entry{{"fact", d.fact}};
        if (d.a != nullptr) entry["a"] = *d.a;
        if (d.b != nullptr) entry["b"] = *d.b;
        if (!d.aReason.empty()) entry["a_reason"] = d.aReason;
        if (!d.bReason.empty()) entry["b_reason"] = d.bReason;
        if (!sections.contains(d.section)) sections[d.section] = ReportJson::array();
        sections[d.section].push_back(std::move(entry));
    }
    PrintLine(out.dump(2, ' ', false, ReportJson::error_handler_t::replace));
}

int DiffUsage(const std::string& message) {
    UsageError("diff", message);
    return kExitTrouble;
}

int RunDiff(const std::vector<std::wstring>& args) {
    std::vector<std::wstring> sides;
    bool json = false;
    for (const auto& arg : args) {
        if (arg == L"--json") json = true;
        else if (!arg.empty() && arg[0] == L'-') return DiffUsage("unknown option " + Utf8(arg));
        else sides.push_back(arg);
    }
    if (sides.size() != 2) return DiffUsage("expected two profiles (or live)");
    ReportJson reports[2];
    for (int i = 0; i < 2; ++i) {
        std::string text, error;
        if (!ReportOf(sides[i], text, error)) {
            PrintError("torvex diff: no report of " + Utf8(sides[i]) + ": " + error);
            return kExitTrouble;
        }
        reports[i] = ReportJson::parse(text, nullptr, false);
        if (!reports[i].is_object()) {
            PrintError("torvex diff: the report of " + Utf8(sides[i]) + " is not a JSON document");
            return kExitTrouble;
        }
    }
    const std::vector<Difference> differences = DiffReports(reports[0], reports[1]);
    if (json) PrintJson(Utf8(sides[0]), Utf8(sides[1]), differences);
    else PrintText(Utf8(sides[0]), Utf8(sides[1]), differences);
    return differences.empty() ? kExitOk : kExitDiffer;
}

int RunUpgrade(const std::vector<std::wstring>& args) {
    if (args.size() != 2) return UsageError("upgrade", "expected the profile to read and the file to write");
    if (GetFileAttributesW(args[1].c_str()) != INVALID_FILE_ATTRIBUTES)
        return UsageError("upgrade", Utf8(args[1]) + " exists; name a new file");
    try {
        torvex::sim::Profile::Load(args[0]).Save(args[1]);
    } catch (const torvex::sim::ProfileError& e) {
        PrintError(std::string("torvex upgrade: ") + e.what());
        return kExitUsage;
    }
    PrintLine("wrote " + Utf8(args[1]) + " as " + torvex::sim::kProfileSchema);
    return kExitOk;
}

const CommandRegistration kDiff("diff", "diff A B [--json]",
                                "the report facts two machines give differently (A and B: profiles, or live); "
                                "exit 0 none, 1 some, 2 trouble",
                                "torvex diff customer.json known-good.json", RunDiff);
const CommandRegistration kUpgrade("upgrade", "upgrade FILE OUT",
                                   "write a profile of an earlier format (torvex-machine/1) in the current one",
                                   "torvex upgrade old.json new.json", RunUpgrade);

}  // namespace
}  // namespace tool
