// torvex_bench: per-call latency of representative Hal API queries on the
// running system (no fakes), each paired in the same run with a hand-written
// call that does the same work: one WMI connection and query, or the same
// system call. Every library call connects to WMI anew, so the hand-written
// call is the floor this design allows. Calls are interleaved (library,
// hand-written, hand-written, library, ...) after a few warm-up calls; the
// medians and their ratio are reported per query.
//
//   torvex_bench.exe [--iterations N]
#include <windows.h>
#include <objbase.h>
#include <wbemidl.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "torvex.h"
#include "torvex/com_ptr.h"
#include "torvex/text.h"
#include "torvex/ucrt_heap.h"

namespace {

constexpr double kGoalRatio = 1.10;
constexpr int kWarmupCalls = 3;
constexpr int kDefaultIterations = 30;
constexpr long kMaxIterations = 100000;
constexpr wchar_t kCimv2[] = L"ROOT\\CIMV2";
constexpr wchar_t kCpuKey[] = L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";

// One call of either side: true when it answered, with the answer as text so
// that the two sides can be compared.
using Call = std::function<bool(std::string&)>;

struct Pair {
    std::string name;
    Call library;
    Call baseline;
};

// Median time per call, failed calls and the last answer of one side.
struct Side {
    double micros = 0;
    int failures = 0;
    std::string answer;
};

// ------------------------------------------------------- hand-written side

struct Bstr {
    explicit Bstr(const wchar_t* text) : value(SysAllocString(text)) {}
    Bstr(const Bstr&) = delete;
    ~Bstr() { SysFreeString(value); }
    BSTR value;
};

// The library's narrow answers are in the ANSI code page; compare in it too.
std::string Ansi(const wchar_t* text, size_t length) { return torvex::text::ToNarrow({text, length}, CP_ACP); }

// Locator, ConnectServer, proxy blanket, ExecQuery, the first row and its
// property, everything released on return. A query that runs but gives no
// row or no value answers empty text.
bool WmiFirstRow(const wchar_t* nameSpace, const std::wstring& query, const wchar_t* property, std::string& answer) {
    torvex::ComPtr<IWbemLocator> locator;
    if (FAILED(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                locator.put_void())))
        return false;
    Bstr path(nameSpace), language(L"WQL"), text(query.c_str()), name(property);
    torvex::ComPtr<IWbemServices> services;
    if (FAILED(locator->ConnectServer(path.value, nullptr, nullptr, nullptr, 0, nullptr, nullptr, services.put())) ||
        FAILED(CoSetProxyBlanket(services.get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr,
                                 RPC_C_AUTHN_LEVEL_CALL, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE)))
        return false;
    torvex::ComPtr<IEnumWbemClassObject> rows;
    if (FAILED(services->ExecQuery(language.value, text.value, WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                                   nullptr, rows.put())) ||
        !rows)
        return false;
    answer.clear();
    torvex::ComPtr<IWbemClassObject> row;
    ULONG fetched = 0;
    if (FAILED(rows->Next(static_cast<long>(WBEM_INFINITE), 1, row.put(), &fetched)) || fetched == 0) return true;
    VARIANT value;
    VariantInit(&value);
    if (SUCCEEDED(row->Get(name.value, 0, &value, nullptr, nullptr)) && value.vt != VT_NULL &&
        (value.vt == VT_BSTR || SUCCEEDED(VariantChangeType(&value, &value, 0, VT_BSTR))))
        answer = Ansi(value.bstrVal, SysStringLen(value.bstrVal));
    VariantClear(&value);
    return true;
}

Call WmiBaseline(std::wstring query, const wchar_t* property) {
    return [query, property](std::string& answer) { return WmiFirstRow(kCimv2, query, property, answer); };
}

// Capacity is bytes as text; the library answers MiB.
bool BaselineCapacityMib(const std::wstring& query, std::string& answer) {
    if (!WmiFirstRow(kCimv2, query, L"Capacity", answer)) return false;
    answer = std::to_string(static_cast<uint64_t>(std::atoll(answer.c_str())) >> 20);
    return true;
}

// The registry value the CPU name code reads before it would ask WMI.
bool BaselineCpuNameRegistry(std::string& answer) {
    wchar_t text[256] = {};
    DWORD bytes = sizeof(text) - sizeof(wchar_t);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, kCpuKey, L"ProcessorNameString", RRF_RT_REG_SZ | RRF_SUBKEY_WOW6464KEY,
                     nullptr, text, &bytes) == ERROR_SUCCESS &&
        text[0] != L'\0') {
        answer = Ansi(text, wcslen(text));
        return true;
    }
    return WmiFirstRow(kCimv2, L"SELECT Name FROM Win32_Processor", L"Name", answer);
}

// ------------------------------------------------------------ library side

Call LibraryText(uint32_t type, void* device, uint32_t code, bool wide) {
    return [=](std::string& answer) {
        alignas(wchar_t) char buffer[1024];  // wide answers are read in place
        uint32_t written = 0;
        if (!HalQueryInformation(type, device, code, buffer, sizeof(buffer), &written) || written > sizeof(buffer))
            return false;
        answer = wide ? Ansi(reinterpret_cast<const wchar_t*>(buffer), written / sizeof(wchar_t))
                      : std::string(buffer, written);
        return true;
    };
}

template <typename Number>
Call LibraryNumber(uint32_t type, void* device, uint32_t code) {
    return [=](std::string& answer) {
        Number value = 0;
        uint32_t written = 0;
        if (!HalQueryInformation(type, device, code, &value, sizeof(value), &written)) return false;
        answer = std::to_string(value);
        return true;
    };
}

// -------------------------------------------------------------- measuring

double Micros(const Call& call, std::string& answer, bool& answered) {
    static const double ticksPerMicro = [] {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return static_cast<double>(frequency.QuadPart) / 1e6;
    }();
    LARGE_INTEGER start, stop;
    QueryPerformanceCounter(&start);
    answered = call(answer);
    QueryPerformanceCounter(&stop);
    return static_cast<double>(stop.QuadPart - start.QuadPart) / ticksPerMicro;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Library and hand-written calls alternate, so that both see the same state
// of the system, and which of the two goes first swaps every iteration so
// that neither always follows the other; warm-up calls are not counted.
void Measure(const Pair& pair, int iterations, Side& library, Side& baseline) {
    std::vector<double> times[2];
    Side* sides[2] = {&library, &baseline};
    const Call* calls[2] = {&pair.library, &pair.baseline};
    for (int i = 0; i < kWarmupCalls + iterations; ++i) {
        for (int turn = 0; turn < 2; ++turn) {
            const int s = (turn + i) % 2;
            std::string answer;
            bool answered = false;
            const double micros = Micros(*calls[s], answer, answered);
            if (i < kWarmupCalls) continue;
            times[s].push_back(micros);
            if (answered) sides[s]->answer = answer; else ++sides[s]->failures;
        }
    }
    library.micros = Median(times[0]);
    baseline.micros = Median(times[1]);
}

double Ratio(const Side& library, const Side& baseline) {
    return baseline.micros > 0 ? library.micros / baseline.micros : 0;
}

// Answers are shown in quotes, control characters as '?', so that an empty
// or blank answer is visible.
std::string Quoted(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20) c = '?';
    return "\"" + text + "\"";
}

void PrintTable(const std::vector<Pair>& pairs, const std::vector<Side>& library, const std::vector<Side>& baseline,
                int iterations) {
    std::printf("torvex_bench: median per call over %d interleaved iterations (%d warm-up calls each)\n\n",
                iterations, kWarmupCalls);
    std::printf("%-24s %12s %12s %7s  %-7s %s\n", "query", "library us", "baseline us", "ratio", "verdict", "answer");
    for (size_t i = 0; i < pairs.size(); ++i) {
        const double ratio = Ratio(library[i], baseline[i]);
        const bool measured = library[i].failures < iterations && baseline[i].failures < iterations;
        std::printf("%-24s %12.1f %12.1f %7.2f  %-7s %s\n", pairs[i].name.c_str(), library[i].micros,
                    baseline[i].micros, ratio, !measured ? "FAILED" : ratio <= kGoalRatio ? "PASS" : "ABOVE",
                    Quoted(library[i].answer).c_str());
    }
    std::printf("\ngoal: ratio <= %.2f\n", kGoalRatio);
    for (size_t i = 0; i < pairs.size(); ++i) {
        const char* name = pairs[i].name.c_str();
        if (library[i].failures != 0 || baseline[i].failures != 0)
            std::printf("note: %s: library failed %d/%d calls, hand-written %d/%d\n", name, library[i].failures,
                        iterations, baseline[i].failures, iterations);
        else if (library[i].answer != baseline[i].answer)
            std::printf("note: %s: answers differ: library %s, hand-written %s\n", name,
                        Quoted(library[i].answer).c_str(), Quoted(baseline[i].answer).c_str());
    }
}

int Usage() {
    std::fprintf(stderr, "usage: torvex_bench.exe [--iterations N]   (1 <= N <= %ld, default %d)\n",
                 kMaxIterations, kDefaultIterations);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    int iterations = kDefaultIterations;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--iterations" && i + 1 < argc) {
            char* end = nullptr;
            const long value = std::strtol(argv[++i], &end, 10);
            if (end == argv[i] || *end != '\0' || value < 1 || value > kMaxIterations) return Usage();
            iterations = static_cast<int>(value);
        } else {
            return Usage();
        }
    }

    // A host thread in the multithreaded apartment, as the library expects:
    // its own CoInitializeEx per call then only counts up and down.
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
        std::fprintf(stderr, "torvex_bench: CoInitializeEx failed\n");
        return 1;
    }
    HalInit(HAL_CLASS_CPU, nullptr);
    HalInit(HAL_CLASS_MAINBOARD, nullptr);
    HalInit(HAL_CLASS_BATTERY, nullptr);

    std::vector<Pair> pairs = {
        {"CPU name (vs WMI)", LibraryText(HAL_CLASS_CPU, nullptr, HAL_CPU_NAME, false),
         WmiBaseline(L"SELECT Name FROM Win32_Processor", L"Name")},
        {"CPU name (vs registry)", LibraryText(HAL_CLASS_CPU, nullptr, HAL_CPU_NAME, false), BaselineCpuNameRegistry},
        {"CPU cores", LibraryNumber<uint32_t>(HAL_CLASS_CPU, nullptr, HAL_CPU_CORES),
         WmiBaseline(L"SELECT NumberOfCores FROM Win32_Processor", L"NumberOfCores")},
        {"mainboard manufacturer", LibraryText(HAL_CLASS_MAINBOARD, nullptr, HAL_MB_MANUFACTURER, false),
         WmiBaseline(L"SELECT Manufacturer FROM Win32_BaseBoard", L"Manufacturer")},
    };

    // Memory module 0. The hand-written side looks its slot up once, before
    // timing: the library keys modules by DeviceLocator on boards that name
    // slots by channel, by BankLabel otherwise.
    void* memory = nullptr;
    std::string locator, slot;
    if (HalInit(HAL_CLASS_MEMORY, &memory) && WmiFirstRow(kCimv2, L"SELECT DeviceLocator FROM Win32_PhysicalMemory",
                                                          L"DeviceLocator", locator)) {
        std::transform(locator.begin(), locator.end(), locator.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        const bool byLocator = locator.find("channel") != std::string::npos;
        WmiFirstRow(kCimv2, byLocator ? L"SELECT DeviceLocator FROM Win32_PhysicalMemory"
                                      : L"SELECT BankLabel FROM Win32_PhysicalMemory",
                    byLocator ? L"DeviceLocator" : L"BankLabel", slot);
        const std::wstring query = std::wstring(L"SELECT Capacity FROM Win32_PhysicalMemory WHERE ") +
                                   (byLocator ? L"DeviceLocator='" : L"BankLabel='") +
                                   torvex::text::ToWide(slot, CP_ACP) + L"'";
        void* entry = &static_cast<HalMemoryModuleList*>(memory)->entries[0];
        pairs.push_back({"memory 0 capacity MiB", LibraryNumber<uint64_t>(HAL_CLASS_MEMORY, entry, HAL_MM_CAPACITY_MIB),
                         [query](std::string& answer) { return BaselineCapacityMib(query, answer); }});
    } else {
        std::fprintf(stderr, "torvex_bench: no memory module listed; its query is left out\n");
    }

    // Disk 0: the record layout is public, so a drive the library cannot
    // count (HalInit(7) failing) can still be asked for by number.
    void* disks = nullptr;
    HalDiskRecord disk0 = {nullptr, 0, 0};
    HalDiskRecord* disk = HalInit(HAL_CLASS_DISK, &disks) ? &static_cast<HalDiskList*>(disks)->records[0] : &disk0;
    pairs.push_back({"disk 0 caption", LibraryText(HAL_CLASS_DISK, disk, HAL_DISK_CAPTION, true),
                     WmiBaseline(L"SELECT Caption FROM Win32_DiskDrive WHERE Index='0'", L"Caption")});

    pairs.push_back({"AC line status", LibraryNumber<uint32_t>(HAL_CLASS_BATTERY, nullptr, HAL_BT_AC_LINE_STATUS),
                     [](std::string& answer) {
                         SYSTEM_POWER_STATUS status{};
                         if (!GetSystemPowerStatus(&status)) return false;
                         answer = std::to_string(status.ACLineStatus);
                         return true;
                     }});

    std::vector<Side> library(pairs.size()), baseline(pairs.size());
    for (size_t i = 0; i < pairs.size(); ++i) Measure(pairs[i], iterations, library[i], baseline[i]);
    PrintTable(pairs, library, baseline, iterations);

    torvex_ucrt_free(memory);
    torvex_ucrt_free(disks);
    CoUninitialize();
    return 0;
}
