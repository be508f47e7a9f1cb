// Commands over the exported HalWmi class: a raw WMI query and the OEM
// firmware channel.
#include <cstdio>

#include "tool.h"

namespace tool {
namespace {

int RunWmi(const std::vector<std::wstring>& args) {
    if (args.size() != 3) return UsageError("wmi", "expected NAMESPACE QUERY PROPERTY");
    const size_t start = RunTrace().Size();
    HalWmi wmi(args[0]);
    const std::wstring values = wmi.SelectStrB(args[1], args[2]);
    if (values.empty()) {
        const std::string why = RunTrace().Reason(start);
        PrintError("torvex wmi: no value (" + (why.empty() ? std::string("every row's ") + Utf8(args[2]) + " is empty" : why) + ")");
        return kExitRefused;
    }
    PrintLine(Utf8(values));
    return kExitOk;
}

const CommandRegistration kWmi("wmi", "wmi NAMESPACE QUERY PROPERTY",
                               "print what the library's WMI wrapper reads (all rows, joined by ';')",
                               "torvex wmi ROOT\\CIMV2 \"SELECT Name FROM Win32_Processor\" Name", RunWmi);

void PrintAnswer(const unsigned char* answer, size_t size) {
    for (size_t i = 0; i < size; i += 16) {
        char line[80];
        int at = std::snprintf(line, sizeof(line), "%04zx:", i);
        for (size_t j = i; j < i + 16 && j < size; ++j)
            at += std::snprintf(line + at, sizeof(line) - static_cast<size_t>(at), " %02x", answer[j]);
        PrintLine(line);
    }
}

// The packet text the channel takes: hex digits, at most 128 of them after
// an optional "0x".
bool PacketText(const std::wstring& text) {
    const size_t start = text.size() >= 2 && text[0] == L'0' && text[1] == L'x' ? 2 : 0;
    if (text.size() == start || text.size() - start > 128) return false;
    for (size_t i = start; i < text.size(); ++i)
        if (!((text[i] >= L'0' && text[i] <= L'9') || (text[i] >= L'a' && text[i] <= L'f') || (text[i] >= L'A' && text[i] <= L'F')))
            return false;
    return true;
}

int RunFirmware(const std::vector<std::wstring>& args) {
    if (args.empty()) return UsageError("firmware", "expected a firmware command");
    HalWmi channel(L"ROOT\\WMI");
    const std::wstring& what = args[0];
    if (what == L"pl1" && args.size() == 1) {
        float value = 0;
        if (!channel.GetPL1(value)) {
            PrintError("torvex firmware: the firmware did not answer the power-limit read");
            return kExitRefused;
        }
        char text[32];
        std::snprintf(text, sizeof(text), "%.2f", value);
        PrintLine(std::string("PL1: ") + text + " W");
        return kExitOk;
    }
    if ((what == L"super-saver-on" || what == L"super-saver-off" || what == L"thermal-defaults") &&
        args.size() == 1) {
        // SetOdvp0ToDefault answers true only when the firmware rejected both
        // items (the thermal tools rely on that), so false is what "done" looks like.
        const bool ok = what == L"super-saver-on"    ? channel.StartSuperSaver()
                        : what == L"super-saver-off" ? channel.StopSuperSaver()
                                                     : !channel.SetOdvp0ToDefault();
        if (!ok) {
            PrintError("torvex firmware: the firmware refused " + Utf8(what));
            return kExitRefused;
        }
        PrintLine(what == L"super-saver-on"    ? "power-saving mode started"
                  : what == L"super-saver-off" ? "power-saving mode stopped"
                                               : "thermal defaults restored");
        return kExitOk;
    }
    if ((what == L"word" || what == L"packet") && args.size() == 2) {
        unsigned char answer[256] = {};
        bool ok = false;
        if (what == L"word") {
            const auto word = ParseNumber(args[1]);
            if (!word) return UsageError("firmware", "malformed command word " + Utf8(args[1]));
            ok = channel.GetOutPutUInt(*word, answer, sizeof(answer));
        } else {
            if (!PacketText(args[1]))
                return UsageError("firmware", "malformed packet " + Utf8(args[1]) + " (1 to 128 hex digits, \"0x\" first or not)");
            ok = channel.GetOutPutUIntByString(Utf8(args[1]), answer, sizeof(answer));
        }
        if (!ok) {
            PrintError("torvex firmware: the channel refused the command");
            return kExitRefused;
        }
        PrintAnswer(answer, sizeof(answer));
        return kExitOk;
    }
    for (const wchar_t* word : {L"pl1", L"super-saver-on", L"super-saver-off", L"thermal-defaults", L"word", L"packet"})
        if (what == word) return UsageError("firmware", "wrong number of arguments for " + Utf8(what));
    return UsageError("firmware", "unknown firmware command " + Utf8(what));
}

const CommandRegistration kFirmware(
    "firmware", "firmware pl1|super-saver-on|super-saver-off|thermal-defaults|word WORD|packet HEXTEXT",
    "talk to the OEM firmware method: read PL1, power-saving mode, thermal defaults, raw commands",
    "torvex firmware word 0x0C03", RunFirmware);

}  // namespace
}  // namespace tool
