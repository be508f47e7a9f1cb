// What the library asked the operating system and what came back, in order:
// filled by a Machine, read by `torvex trace`, by the report's reasons and by
// tests that check what the library asked for.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace torvex::sim {

struct Event {
    std::string scope;    // the part of the work it belongs to, e.g. "disks (class 7)"
    std::string source;   // "wmi", "registry", "setupapi", "cfgmgr", "power", "file", "ioctl", "volume",
                          // "wlan", "audio", "display", "dxgi", "library", "com", "vendor" (the
                          // vendor libraries' entry points), "debug"
    std::string call;     // the call's identity, e.g. ROOT\CIMV2 "SELECT Name FROM Win32_DiskDrive"
    std::string outcome;  // e.g. "1 row", "missing", "error 2"
    bool failed = false;  // the call failed or found nothing
    std::string detail;   // the call's other arguments, e.g. "access 0x20119"
};

class Trace {
public:
    // Events added from now on belong to this scope.
    void Scope(std::string name);
    void Add(Event event);

    std::vector<Event> Events() const;
    size_t Size() const;
    void Clear();

    // Calls of one source, as "call [detail] -> outcome" lines (for tests).
    std::vector<std::string> Calls(const std::string& source) const;

    // Why an answer is missing, from the events after `since`: the last call
    // that failed or found nothing; "" when none did.
    std::string Reason(size_t since) const;

    // Every event, grouped under its scope, one line each.
    std::string Render() const;

private:
    mutable std::mutex mutex_;
    std::string scope_;
    std::vector<Event> events_;
};

}  // namespace torvex::sim
