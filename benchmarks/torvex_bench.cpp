// torvex_bench: per-call latency of representative Hal API queries on the
// running system (no fakes), each paired in the same run with a hand-written
// call that does the same work: one WMI connection and query, or the same
// system call. Every library call connects to WMI anew, so the hand-written
// call is the floor this design allows. Calls are interleaved (library,
// hand-written, hand-written, library, ...) after a few warm-up calls; the
// medians and their ratio are reported per query.
//
// Then the helper classes' two C++ boundaries, side by side: the same member
// called through its GCC-decorated export (libstdc++ strings, as a GCC host
// calls it) and through its Microsoft-decorated one (resolved by name, with
// strings and vectors in the Microsoft library's layout over ucrtbase.dll, as
// an MSVC-built host calls it). Batches of calls alternate between the two
// sides; per member, the median time per call of each side and the median of
// the rounds' ratios are reported.
//
//   torvex_bench.exe [--iterations N] [--rounds N] [--boundaries-only]
#include <windows.h>
#include <objbase.h>
#include <wbemidl.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "msvc/msvc_layout.h"
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

// ------------------------------------------------- the two C++ boundaries

namespace msvc = torvex::msvc;

constexpr double kBoundaryGoal = 1.05;
constexpr int kDefaultRounds = 21;
constexpr long kMaxRounds = 10001;
constexpr double kBatchMicros = 4000;  // about what one side's batch of calls takes
constexpr size_t kMaxBatch = size_t{1} << 24;
constexpr size_t kLongText = 5000;

// One call of one side, everything it returned destroyed as its host would.
using BoundaryCall = std::function<void()>;

struct BoundaryCase {
    std::string member;
    std::string argument;  // what the call is given, for the table
    BoundaryCall gcc;
    BoundaryCall microsoft;
    bool same = false;  // both sides gave the same answer (checked once, before timing)
};

struct BoundaryTiming {
    double gccNanos = 0;
    double microsoftNanos = 0;
    double ratio = 0;  // median of the rounds' Microsoft / GCC
    size_t batch = 1;
};

// A Microsoft-decorated export of Torvex.dll, by the name Torvex.def gives
// it; called with the explicit pointers of the Microsoft x64 convention.
template <typename Fn>
Fn MicrosoftExport(const char* name) {
    const HMODULE dll = GetModuleHandleW(L"Torvex.dll");
    return dll ? reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(dll, name))) : nullptr;
}

// A string as an MSVC-built host holds it, in that library's layout over
// ucrtbase.dll's heap, destroyed as that library destroys it.
template <typename C>
struct HostString {
    msvc::String<C> value;
    explicit HostString(std::basic_string_view<C> text = {}) {
        if (!msvc::Construct(&value, text)) throw std::bad_alloc();
    }
    HostString(const HostString&) = delete;
    HostString& operator=(const HostString&) = delete;
    ~HostString() { msvc::Destroy(&value); }
};

// A vector<wstring> a member returned to an MSVC-built host: its elements and
// its block are the host's to destroy.
void DestroyHostVector(msvc::WideVector& list) {
    msvc::Clear(&list);
    if (list.first != nullptr)
        msvc::Deallocate(list.first, static_cast<size_t>(list.end - list.first) * sizeof(msvc::WideString));
    list = {nullptr, nullptr, nullptr};
}

// A result the host is done with: its library's destructor, which frees only
// a heap-mode string, inlined as in the host.
template <typename C>
void Release(msvc::String<C>& text) {
    if (text.Large()) msvc::Destroy(&text);
}

template <typename C>
std::basic_string<C> TextOf(const msvc::String<C>& text) {
    return std::basic_string<C>(msvc::View(&text));
}

// Printable text of a few characters over `length` units: the long argument.
std::string LongText(size_t length) {
    constexpr std::string_view kWords = "Intel(R) Wi-Fi 6 AX201 160MHz, Realtek High Definition Audio; ";
    std::string text;
    while (text.size() < length) text += kWords;
    text.resize(length);
    text.back() = '.';
    return text;
}

std::wstring Widened(std::string_view text) { return std::wstring(text.begin(), text.end()); }

// A StringProc function of one string: the GCC side passes a libstdc++
// string, the Microsoft side the host's string and the hidden result pointer
// first (a free function's result comes before its arguments).
template <typename In, typename Out>
BoundaryCase TextCase(const char* member, const char* argument, Out (*gcc)(const In&), const char* decorated,
                      In text) {
    using InChar = typename In::value_type;
    using OutChar = typename Out::value_type;
    using Microsoft = msvc::String<OutChar>* (*)(msvc::String<OutChar>*, const msvc::String<InChar>*);
    const auto microsoft = MicrosoftExport<Microsoft>(decorated);
    if (microsoft == nullptr) return {member, argument, nullptr, nullptr, false};
    auto gccText = std::make_shared<const In>(std::move(text));
    auto hostText = std::make_shared<const HostString<InChar>>(*gccText);

    msvc::String<OutChar> answer;
    microsoft(&answer, &hostText->value);
    const bool same = TextOf(answer) == gcc(*gccText);
    msvc::Destroy(&answer);

    return {member, argument, [gcc, gccText] { gcc(*gccText); },
            [microsoft, hostText] {
                msvc::String<OutChar> result;
                microsoft(&result, &hostText->value);
                Release(result);
            },
            same};
}

BoundaryCase ReplacePlaceholderCase(const char* argument, const std::wstring& text, const std::wstring& replacement) {
    using Microsoft = msvc::WideString* (*)(msvc::WideString*, const msvc::WideString*, const msvc::WideString*,
                                            const msvc::WideString*);
    const auto microsoft = MicrosoftExport<Microsoft>(
        "?ReplacePlaceholder@StringProc@@YA?AV?$basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@std@@"
        "AEBV23@00@Z");
    if (microsoft == nullptr) return {"ReplacePlaceholder", argument, nullptr, nullptr, false};
    struct Arguments {
        Arguments(const std::wstring& text, const std::wstring& replacement) : text(text), replacement(replacement) {}
        std::wstring text, replacement, placeholder = L"%s";
        HostString<wchar_t> hostText{text}, hostReplacement{replacement}, hostPlaceholder{placeholder};
    };
    auto args = std::make_shared<const Arguments>(text, replacement);
    const auto callMicrosoft = [microsoft, args](msvc::WideString* result) {
        microsoft(result, &args->hostText.value, &args->hostReplacement.value, &args->hostPlaceholder.value);
    };

    msvc::WideString answer;
    callMicrosoft(&answer);
    const bool same = TextOf(answer) == StringProc::ReplacePlaceholder(args->text, args->replacement, args->placeholder);
    msvc::Destroy(&answer);

    return {"ReplacePlaceholder", argument,
            [args] { StringProc::ReplacePlaceholder(args->text, args->replacement, args->placeholder); },
            [callMicrosoft] {
                msvc::WideString result;
                callMicrosoft(&result);
                Release(result);
            },
            same};
}

// A text value read into a string each host keeps from call to call.
BoundaryCase RegistryTextCase(const wchar_t* subKey, const wchar_t* valueName, const char* argument) {
    using Microsoft = bool (*)(const msvc::WideString*, const msvc::WideString*, msvc::WideString*);
    const auto microsoft = MicrosoftExport<Microsoft>(
        "?ReadLocalMachineRegRZ@ReadReg@@SA_NAEBV?$basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@std@@"
        "0AEAV23@@Z");
    if (microsoft == nullptr) return {"ReadLocalMachineRegRZ", argument, nullptr, nullptr, false};
    struct Values {
        Values(const wchar_t* subKey, const wchar_t* valueName) : subKey(subKey), valueName(valueName) {}
        std::wstring subKey, valueName, value;
        HostString<wchar_t> hostSubKey{subKey}, hostValueName{valueName}, hostValue;
    };
    auto values = std::make_shared<Values>(subKey, valueName);

    const bool gccRead = ReadReg::ReadLocalMachineRegRZ(values->subKey, values->valueName, values->value);
    const bool microsoftRead = microsoft(&values->hostSubKey.value, &values->hostValueName.value,
                                         &values->hostValue.value);
    const bool same = gccRead == microsoftRead && values->value == TextOf(values->hostValue.value);

    return {"ReadLocalMachineRegRZ", argument,
            [values] { ReadReg::ReadLocalMachineRegRZ(values->subKey, values->valueName, values->value); },
            [microsoft, values] {
                microsoft(&values->hostSubKey.value, &values->hostValueName.value, &values->hostValue.value);
            },
            same};
}

// GetDeviceHardwareId of the first of a few setup classes that lists a
// device here; the Microsoft side constructs its own object with the
// Microsoft-decorated constructor and passes `this`, then the result pointer.
BoundaryCase DeviceListCase() {
    using Microsoft = msvc::WideVector* (*)(void*, msvc::WideVector*, const GUID*);
    using Construct = void* (*)(void*);
    const auto microsoft = MicrosoftExport<Microsoft>(
        "?GetDeviceHardwareId@DeviceInformention@@QEAA?AV?$vector@V?$basic_string@_WU?$char_traits@_W@std@@V?$"
        "allocator@_W@2@@std@@V?$allocator@V?$basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@std@@@2@@"
        "std@@AEBU_GUID@@@Z");
    const auto construct = MicrosoftExport<Construct>("??0DeviceInformention@@QEAA@XZ");
    if (microsoft == nullptr || construct == nullptr) return {"GetDeviceHardwareId", "", nullptr, nullptr, false};

    struct SetupClass {
        const char* name;
        GUID guid;
    };
    static const SetupClass kClasses[] = {
        {"Display", {0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}},
        {"System", {0x4d36e97d, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}},
        {"Net", {0x4d36e972, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}}},
    };
    auto device = std::make_shared<DeviceInformention>();
    const SetupClass* chosen = &kClasses[0];
    std::vector<std::wstring> expected;
    for (const SetupClass& setupClass : kClasses) {
        expected = device->GetDeviceHardwareId(setupClass.guid);
        chosen = &setupClass;
        if (!expected.empty()) break;
    }
    const GUID guid = chosen->guid;
    // The class holds no data: any storage of its size is an object once constructed.
    auto hostDevice = std::make_shared<DeviceInformention>();
    construct(hostDevice.get());

    msvc::WideVector answer;
    microsoft(hostDevice.get(), &answer, &guid);
    std::vector<std::wstring> found;
    for (const msvc::WideString* item = answer.first; item != answer.last; ++item) found.push_back(TextOf(*item));
    DestroyHostVector(answer);

    return {"GetDeviceHardwareId",
            std::string("class ") + chosen->name + " (" + std::to_string(expected.size()) + " ids)",
            [device, guid] { device->GetDeviceHardwareId(guid); },
            [microsoft, hostDevice, guid] {
                msvc::WideVector result;
                microsoft(hostDevice.get(), &result, &guid);
                DestroyHostVector(result);
            },
            found == expected};
}

double TicksPerNano() {
    static const double ticks = [] {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        return static_cast<double>(frequency.QuadPart) / 1e9;
    }();
    return ticks;
}

double NanosPerCall(const BoundaryCall& call, size_t batch) {
    LARGE_INTEGER start, stop;
    QueryPerformanceCounter(&start);
    for (size_t i = 0; i < batch; ++i) call();
    QueryPerformanceCounter(&stop);
    return static_cast<double>(stop.QuadPart - start.QuadPart) / TicksPerNano() / static_cast<double>(batch);
}

// After a warm-up, the batch grows until one takes about kBatchMicros; then
// each round times one batch per side, the two sides swapping which goes
// first every round, so that both see the same state of the machine.
BoundaryTiming MeasureBoundary(const BoundaryCase& c, int rounds) {
    BoundaryTiming timing;
    c.gcc();
    c.microsoft();
    while (timing.batch < kMaxBatch && NanosPerCall(c.gcc, timing.batch) * timing.batch < kBatchMicros * 500)
        timing.batch *= 2;
    std::vector<double> gcc, microsoft, ratios;
    for (int round = 0; round < rounds; ++round) {
        double g, m;
        if (round % 2 == 0) {
            g = NanosPerCall(c.gcc, timing.batch);
            m = NanosPerCall(c.microsoft, timing.batch);
        } else {
            m = NanosPerCall(c.microsoft, timing.batch);
            g = NanosPerCall(c.gcc, timing.batch);
        }
        gcc.push_back(g);
        microsoft.push_back(m);
        if (g > 0) ratios.push_back(m / g);
    }
    timing.gccNanos = Median(gcc);
    timing.microsoftNanos = Median(microsoft);
    timing.ratio = ratios.empty() ? 0 : Median(ratios);
    return timing;
}

void RunBoundaries(int rounds) {
    const std::string longNarrow = LongText(kLongText);
    const std::wstring longWide = Widened(longNarrow);
    const std::wstring longPadded = L"  " + longWide.substr(0, kLongText - 4) + L"  ";
    const std::wstring longTemplate = longWide.substr(0, kLongText / 2 - 1) + L"%s" + longWide.substr(kLongText / 2 + 1);
    constexpr char kStringToWString[] =
        "?StringToWString@StringProc@@YA?AV?$basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@std@@AEBV?$"
        "basic_string@DU?$char_traits@D@std@@V?$allocator@D@2@@3@@Z";
    constexpr char kWStringToString[] =
        "?WStringToString@StringProc@@YA?AV?$basic_string@DU?$char_traits@D@std@@V?$allocator@D@2@@std@@AEBV?$"
        "basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@3@@Z";
    constexpr char kWStringTrim[] =
        "?WStringTrim@StringProc@@YA?AV?$basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@std@@AEBV23@@Z";
    constexpr char kToLower[] =
        "?ToLower@StringProc@@YA?AV?$basic_string@DU?$char_traits@D@std@@V?$allocator@D@2@@std@@AEBV23@@Z";

    // Short arguments (7 units) stay in both libraries' in-object buffers;
    // long ones (5,000 units) and their results live on the heaps.
    const std::vector<BoundaryCase> cases = {
        TextCase("StringToWString", "short (7)", &StringProc::StringToWString, kStringToWString, std::string("AMD CPU")),
        TextCase("StringToWString", "long (5,000)", &StringProc::StringToWString, kStringToWString, longNarrow),
        TextCase("WStringToString", "short (7)", &StringProc::WStringToString, kWStringToString, std::wstring(L"AMD CPU")),
        TextCase("WStringToString", "long (5,000)", &StringProc::WStringToString, kWStringToString, longWide),
        TextCase("WStringTrim", "short (7)", &StringProc::WStringTrim, kWStringTrim, std::wstring(L" Wi-Fi ")),
        TextCase("WStringTrim", "long (5,000)", &StringProc::WStringTrim, kWStringTrim, longPadded),
        TextCase("ToLower", "short (7)", &StringProc::ToLower, kToLower, std::string("AMD CPU")),
        TextCase("ToLower", "long (5,000)", &StringProc::ToLower, kToLower, longNarrow),
        ReplacePlaceholderCase("short (6)", L"Hz: %s", L"5"),
        ReplacePlaceholderCase("long (5,000)", longTemplate, L"5000"),
        RegistryTextCase(kCpuKey, L"ProcessorNameString", "CPU name"),
        DeviceListCase(),
    };

    std::printf("torvex_bench: the helper classes' two C++ boundaries, side by side: median per call over %d rounds\n"
                "(each round one batch of calls per side, the two sides alternating)\n\n",
                rounds);
    std::printf("%-22s %-20s %12s %14s %7s  %s\n", "member", "argument", "GCC ns", "Microsoft ns", "ratio",
                "verdict");
    std::vector<std::string> notes;
    for (const BoundaryCase& c : cases) {
        if (!c.gcc || !c.microsoft) {
            std::printf("%-22s %-20s %12s %14s %7s  %s\n", c.member.c_str(), c.argument.c_str(), "-", "-", "-",
                        "MISSING");
            notes.push_back(c.member + ": no Microsoft-decorated export of that name in Torvex.dll");
            continue;
        }
        const BoundaryTiming timing = MeasureBoundary(c, rounds);
        std::printf("%-22s %-20s %12.1f %14.1f %7.3f  %s\n", c.member.c_str(), c.argument.c_str(), timing.gccNanos,
                    timing.microsoftNanos, timing.ratio, timing.ratio <= kBoundaryGoal ? "PASS" : "ABOVE");
        if (!c.same) notes.push_back(c.member + " (" + c.argument + "): the two boundaries answered differently");
    }
    std::printf("\ngoal: Microsoft / GCC <= %.2f (median of the rounds' ratios)\n", kBoundaryGoal);
    for (const std::string& note : notes) std::printf("note: %s\n", note.c_str());
    std::printf("\n");
}

int Usage() {
    std::fprintf(stderr,
                 "usage: torvex_bench.exe [--iterations N] [--rounds N] [--boundaries-only]\n"
                 "  --iterations N     library and hand-written queries (1 <= N <= %ld, default %d)\n"
                 "  --rounds N         rounds of the two C++ boundaries (1 <= N <= %ld, default %d)\n"
                 "  --boundaries-only  measure the two C++ boundaries and stop\n",
                 kMaxIterations, kDefaultIterations, kMaxRounds, kDefaultRounds);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    int iterations = kDefaultIterations;
    int rounds = kDefaultRounds;
    bool boundariesOnly = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--iterations" || arg == "--rounds") && i + 1 < argc) {
            const long max = arg == "--rounds" ? kMaxRounds : kMaxIterations;
            char* end = nullptr;
            const long value = std::strtol(argv[++i], &end, 10);
            if (end == argv[i] || *end != '\0' || value < 1 || value > max) return Usage();
            (arg == "--rounds" ? rounds : iterations) = static_cast<int>(value);
        } else if (arg == "--boundaries-only") {
            boundariesOnly = true;
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
    RunBoundaries(rounds);
    if (boundariesOnly) {
        CoUninitialize();
        return 0;
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
