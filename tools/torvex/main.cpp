// torvex.exe: command dispatch, help, and the report renderers.
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <map>

#include <nlohmann/json.hpp>

#include "tool.h"
#include "torvex/program_directory.h"
#include "torvex/ucrt_heap.h"

namespace tool {
namespace {

struct SectionProvider {
    int order;
    const char* key;
    const char* title;
    SectionFn fill;
};

struct Command {
    const char* name;
    const char* usage;
    const char* summary;
    const char* example;
    CommandFn run;
};

std::vector<SectionProvider>& Sections() {
    static std::vector<SectionProvider> sections;
    return sections;
}

std::map<std::string, Command>& Commands() {
    static std::map<std::string, Command> commands;
    return commands;
}

template <typename Fn>
void Resolve(HMODULE module, const char* name, Fn& slot) {
    slot = reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (slot == nullptr) {
        PrintError(std::string("torvex: Torvex.dll does not export ") + name);
        std::exit(kExitRefused);
    }
}

}  // namespace

SectionRegistration::SectionRegistration(int order, const char* key, const char* title, SectionFn fill) {
    Sections().push_back({order, key, title, fill});
}

CommandRegistration::CommandRegistration(const char* name, const char* usage, const char* summary,
                                         const char* example, CommandFn run) {
    Commands()[name] = {name, usage, summary, example, run};
}

const Api& Library() {
    static Api api = [] {
        Api loaded;
        const std::wstring dir = torvex::ProgramDirectory() + L"\\";
        loaded.module = LoadLibraryW((dir + L"Torvex.dll").c_str());
        if (loaded.module == nullptr) {
            PrintError("torvex: cannot load Torvex.dll from " + Utf8(dir) + " (error " +
                       std::to_string(GetLastError()) + ")");
            std::exit(kExitRefused);
        }
        Resolve(loaded.module, "HalInit", loaded.HalInit);
        Resolve(loaded.module, "HalOpenDevice", loaded.HalOpenDevice);
        Resolve(loaded.module, "HalCloseDevice", loaded.HalCloseDevice);
        Resolve(loaded.module, "HalRead", loaded.HalRead);
        Resolve(loaded.module, "HalWrite", loaded.HalWrite);
        Resolve(loaded.module, "HalQueryInformation", loaded.HalQueryInformation);
        Resolve(loaded.module, "HalSetInformation", loaded.HalSetInformation);
        Resolve(loaded.module, "HalControl", loaded.HalControl);
        Resolve(loaded.module, "HalSetCallback", loaded.HalSetCallback);
        TraceCalls(loaded);
        return loaded;
    }();
    return api;
}

void FreeRecord(void* record) { torvex_ucrt_free(record); }

void Section::Text(const std::string& name, const std::string& value) {
    Fact fact;
    fact.name = name;
    fact.text = value;
    facts.push_back(fact);
}

void Section::Number(const std::string& name, double value, const std::string& unit) {
    Fact fact;
    fact.name = name;
    fact.number = value;
    fact.unit = unit;
    facts.push_back(fact);
}

void Section::Single(const std::string& name, float value, const std::string& unit) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof(text), value).ptr;
    Number(name, std::strtod(std::string(text, end).c_str(), nullptr), unit);
}

void Section::Source(const std::string& source) {
    if (!facts.empty()) facts.back().source = source;
}

// The reason is what the library's last call saw fail on the machine; the
// section's own explanation stands only when no system call failed.
void Section::Missing(const std::string& name, const std::string& reason, const std::string& unit) {
    Fact fact;
    fact.name = name;
    const std::string why = Why();
    fact.reason = why.empty() ? reason : why;
    fact.unit = unit;
    facts.push_back(fact);
}

void Section::Absent(const std::string& name, const std::string& reason, const std::string& unit) {
    Fact fact;
    fact.name = name;
    fact.reason = reason;
    fact.unit = unit;
    facts.push_back(fact);
}

void Print(const std::string& utf8) {
    std::fwrite(utf8.data(), 1, utf8.size(), stdout);
}

void PrintLine(const std::string& utf8) {
    Print(utf8);
    Print("\n");
}

void PrintError(const std::string& utf8) {
    std::fflush(stdout);
    std::fwrite(utf8.data(), 1, utf8.size(), stderr);
    std::fwrite("\n", 1, 1, stderr);
}

std::optional<uint64_t> ParseNumber(const std::wstring& text) {
    if (text.empty()) return std::nullopt;
    int base = 10;
    size_t start = 0;
    if (text.size() > 2 && text[0] == L'0' && (text[1] == L'x' || text[1] == L'X')) {
        base = 16;
        start = 2;
    }
    uint64_t value = 0;
    for (size_t i = start; i < text.size(); ++i) {
        const wchar_t c = text[i];
        unsigned digit;
        if (c >= L'0' && c <= L'9') digit = c - L'0';
        else if (base == 16 && c >= L'a' && c <= L'f') digit = c - L'a' + 10;
        else if (base == 16 && c >= L'A' && c <= L'F') digit = c - L'A' + 10;
        else return std::nullopt;
        if (digit >= static_cast<unsigned>(base)) return std::nullopt;
        if (value > (UINT64_MAX - digit) / base) return std::nullopt;
        value = value * base + digit;
    }
    return value;
}

int UsageError(const char* command, const std::string& message) {
    auto it = Commands().find(command);
    std::string usage = it != Commands().end() ? it->second.usage : "torvex --help";
    PrintError(std::string("torvex ") + command + ": " + message + " (usage: torvex " + usage + ")");
    return kExitUsage;
}

namespace {

// Whole numbers as integers; others as the shortest decimal that reads back
// as the same number.
std::string FormatNumber(double value) {
    if (std::floor(value) == value && std::fabs(value) < 1e18) return std::to_string(static_cast<long long>(value));
    char text[32];
    return std::string(text, std::to_chars(text, text + sizeof(text), value).ptr);
}

// JSON key of a fact: its name in lower case with blanks as underscores.
std::string JsonKey(const std::string& name) {
    std::string key;
    for (char c : name) {
        if (c == ' ' || c == '-' || c == '/') key += '_';
        else if (c >= 'A' && c <= 'Z') key += static_cast<char>(c - 'A' + 'a');
        else if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_') key += c;
    }
    return key;
}

void RenderText(const Section& section, int depth) {
    const std::string indent(static_cast<size_t>(depth) * 2, ' ');
    PrintLine(indent + (depth == 0 ? "== " + section.title + " ==" : section.title));
    if (!section.note.empty()) PrintLine(indent + "  " + section.note);
    size_t width = 0;
    for (const Fact& fact : section.facts) width = std::max(width, fact.name.size());
    for (const Fact& fact : section.facts) {
        std::string value;
        if (fact.text) value = *fact.text;
        else if (fact.number) value = FormatNumber(*fact.number) + (fact.unit.empty() ? "" : " " + fact.unit);
        else value = "not available (" + fact.reason + ")";
        if (!fact.source.empty() && (fact.text || fact.number)) value += "  [" + fact.source + "]";
        PrintLine(indent + "  " + fact.name + ":" + std::string(width - fact.name.size() + 1, ' ') + value);
    }
    for (const Section& child : section.children) RenderText(child, depth + 1);
    if (depth == 0) PrintLine();
}

// The JSON key of a number names its unit, so that nobody has to guess MiB
// or MB: the fact's key, then the suffix of its unit from this table. The
// text report keeps writing the unit after the value.
struct UnitSuffix {
    const char* unit;
    const char* suffix;
};
constexpr UnitSuffix kUnitSuffixes[] = {
    {"%", "percent"}, {"KB", "kb"},   {"MB", "mb"},   {"MiB", "mib"}, {"GB", "gb"},   {"Hz", "hz"},
    {"MHz", "mhz"},   {"mV", "mv"},   {"mW", "mw"},   {"mWh", "mwh"}, {"bits per pixel", "bpp"},
    {"K", "k"},
};

std::string FactKey(const Fact& fact) {
    if (fact.unit.empty()) return JsonKey(fact.name);
    std::string suffix = JsonKey(fact.unit);  // a unit missing from the table still shows
    for (const UnitSuffix& entry : kUnitSuffixes)
        if (fact.unit == entry.unit) suffix = entry.suffix;
    // A remark in parentheses spells the unit out in words ("capacity (decimal)"
    // in GB); the suffix says it instead.
    return JsonKey(fact.name.substr(0, fact.name.find(" ("))) + "_" + suffix;
}

using Json = nlohmann::ordered_json;

constexpr const char* kReportSchema = "torvex-report/2";

// A fact without a value is null; why is said under the same key in the
// object's "reasons", which is there only when some fact is null.
Json SectionJson(const Section& section) {
    Json out;
    out["available"] = section.note.empty();
    if (!section.note.empty()) out["note"] = section.note;
    Json reasons = Json::object(), sources = Json::object();
    for (const Fact& fact : section.facts) {
        const std::string key = FactKey(fact);
        if (!fact.source.empty()) sources[key] = fact.source;
        if (fact.text) {
            out[key] = *fact.text;
        } else if (fact.number && std::isfinite(*fact.number)) {
            const double value = *fact.number;
            // Whole numbers print as integers: 16384, not 16384.0.
            if (std::floor(value) == value && std::fabs(value) < 1e18) out[key] = static_cast<std::int64_t>(value);
            else out[key] = value;
        } else {
            out[key] = nullptr;
            reasons[key] = fact.number ? "the library answered a value that is not a finite number" : fact.reason;
        }
    }
    if (!reasons.empty()) out["reasons"] = std::move(reasons);
    if (!sources.empty()) out["sources"] = std::move(sources);
    if (!section.children.empty()) {
        Json& items = out["items"] = Json::array();
        for (const Section& child : section.children) items.push_back(SectionJson(child));
    }
    return out;
}

int RunReport(const std::vector<std::wstring>& args) {
    bool json = false;
    for (const auto& arg : args) {
        if (arg == L"--json") json = true;
        else return UsageError("report", "unknown option " + Utf8(arg));
    }
    std::vector<SectionProvider> providers = Sections();
    std::stable_sort(providers.begin(), providers.end(),
                     [](const SectionProvider& a, const SectionProvider& b) { return a.order < b.order; });
    std::vector<Section> sections;
    for (const auto& provider : providers) {
        Section section;
        section.key = provider.key;
        section.title = provider.title;
        RunTrace().Scope(provider.title);
        provider.fill(section);
        sections.push_back(std::move(section));
    }
    if (json) {
        Json report;
        report["schema"] = kReportSchema;
        for (const Section& section : sections) report[section.key] = SectionJson(section);
        // Text from the machine is not always valid UTF-8 (a narrow answer is
        // passed on as it came): such bytes become U+FFFD instead of an exception.
        PrintLine(report.dump(2, ' ', false, Json::error_handler_t::replace));
    } else {
        for (const auto& section : sections) RenderText(section, 0);
    }
    return kExitOk;
}

const CommandRegistration kReport("report", "report [--json]",
                                  "print what every device class answers, as text or as one JSON document",
                                  "torvex report --json", RunReport);

void PrintHelp() {
    PrintLine("torvex - look at this machine through Torvex.dll");
    PrintLine();
    PrintLine("usage: torvex COMMAND [ARGS...]");
    PrintLine("       torvex help COMMAND");
    PrintLine();
    PrintLine("commands:");
    size_t width = 0;
    for (const auto& [name, command] : Commands()) width = std::max(width, name.size());
    for (const auto& [name, command] : Commands())
        PrintLine("  " + name + std::string(width - name.size() + 2, ' ') + command.summary);
    PrintLine();
    PrintLine("exit status: 0 success, 1 usage error, 2 the library refused");
}

int RunHelp(const std::vector<std::wstring>& args) {
    if (args.empty()) {
        PrintHelp();
        return kExitOk;
    }
    if (args.size() > 1) return UsageError("help", "unexpected argument " + Utf8(args[1]));
    auto it = Commands().find(Utf8(args[0]));
    if (it == Commands().end()) return UsageError("help", "unknown command " + Utf8(args[0]));
    PrintLine(std::string("usage: torvex ") + it->second.usage);
    PrintLine(std::string("  ") + it->second.summary);
    PrintLine(std::string("example: ") + it->second.example);
    return kExitOk;
}

const CommandRegistration kHelp("help", "help [COMMAND]", "describe the commands, or one command",
                                "torvex help report", RunHelp);

}  // namespace
}  // namespace tool

namespace tool {

int Run(std::vector<std::wstring> args) {
    if (args.empty() || args[0] == L"--help" || args[0] == L"-h") return Commands().at("help").run({});
    const std::string name = Utf8(args[0]);
    auto it = Commands().find(name);
    if (it == Commands().end()) {
        PrintError("torvex: unknown command '" + name + "' (see torvex --help)");
        return kExitUsage;
    }
    args.erase(args.begin());
    if (!args.empty() && (args[0] == L"--help" || args[0] == L"-h")) return Commands().at("help").run({Wide(name)});
    // Commands that need no machine beneath the library: help, the two that
    // set one up for the command they run, and those that only read profiles
    // or run torvex.exe again.
    const bool machine = name != "help" && name != "replay" && name != "trace" && name != "diff" && name != "upgrade";
    if (machine) RunTrace().Scope(name);
    return RunOnMachine(it->second.run, args, machine);
}

}  // namespace tool
