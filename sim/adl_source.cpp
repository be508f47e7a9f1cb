// The AMD Display Library (atiadlxx.dll) as the library uses it: contexts,
// the adapter and display enumeration, colour capabilities and colour reads,
// and the two sets. Answers are keyed by the arguments the library passed:
//
//   "atiadlxx.dll": {"adapters": {"indices": [0, 1]},
//                    "displays": {"0": {"displays": [{"logical_index": 0, "logical_adapter_index": 0, "info_value": 3}]}},
//                    "color_caps": {"0 0": {"caps": 17, "valid": 17}},
//                    "colors": {"0 0 16": {"current": 6500, "default": 6500, "min": 4000, "max": 10000, "step": 100}},
//                    "missing": ["ADL_Display_Sharpness_Caps"]}
//
// Every member may hold a "result": the call's non-zero ADL result, when it
// failed. The adapter and display records the library receives come from
// the allocator it handed to ADL2_Main_ControlX2_Create, as the real
// library's do, and are checked back when the library frees them; every
// context it opens must be destroyed.
#include <cstring>
#include <map>
#include <memory>

#include "vendor.h"

namespace torvex::sim::detail {
namespace {

constexpr char kFile[] = "atiadlxx.dll";
constexpr int kAdlError = -1;         // ADL_ERR: the call failed (also: not in the profile)
constexpr int kAdlNullPointer = -9;   // ADL_ERR_NULL_POINTER
constexpr size_t kAdapterInfoBytes = 1572;
constexpr size_t kDisplayInfoBytes = 552;
constexpr size_t kMaxRecords = 64;

using Allocator = void*(__stdcall*)(int);
using CreateFn = int (*)(Allocator, int, void**, int);
using DestroyFn = int (*)(void*);
using AdapterInfoFn = int (*)(void*, void**);
using AdapterCountFn = int (*)(void*, int*);
using DisplayInfoFn = int (*)(void*, int, int*, void**, int);
using ColorCapsFn = int (*)(void*, int, int, int*, int*);
using ColorGetFn = int (*)(void*, int, int, int, int*, int*, int*, int*, int*);
using ColorSetFn = int (*)(void*, int, int, int, int);
using SourceSetFn = int (*)(void*, int, int, int);

enum Entry { kCreate, kDestroy, kAdapterInfo, kAdapterCount, kDisplayInfo, kColorCaps, kColorGet, kColorSet, kSourceSet, kEntries };
const char* const kNames[kEntries] = {
    "ADL2_Main_ControlX2_Create",  "ADL2_Main_Control_Destroy",  "ADL2_Adapter_AdapterInfoX2_Get",
    "ADL2_Adapter_NumberOfAdapters_Get", "ADL2_Display_DisplayInfo_Get", "ADL2_Display_ColorCaps_Get",
    "ADL2_Display_Color_Get",      "ADL2_Display_Color_Set",     "ADL2_Display_ColorTemperatureSource_Set"};
// Resolved by the library but never called: they answer failure.
const char* const kUncalled[] = {
    "ADL2_Main_Control_Create",    "ADL2_Display_Modes_Get",      "ADL2_Adapter_Active_Get",
    "ADL_Adapter_NumberOfAdapters_Get", "ADL_Adapter_AdapterInfo_Get", "ADL_Display_DisplayInfo_Get",
    "ADL_Display_ColorCaps_Get",   "ADL_Display_Color_Get",       "ADL_Display_Sharpness_Info_Get",
    "ADL_Display_Sharpness_Get",   "ADL_Display_Sharpness_Set",   "ADL_Display_Sharpness_Caps"};
const char* const kColorFields[] = {"current", "default", "min", "max", "step"};
const char* const kDisplayFields[] = {"logical_index", "logical_adapter_index", "info_value"};
constexpr size_t kDisplayOffsets[] = {0, 8, kDisplayInfoBytes - 4};

FARPROC g_real[kEntries] = {};  // the live library's entry points
Allocator g_allocator = nullptr;  // the library's allocator, for the live library's records

// A context handed out under replay: the allocator its records come from.
struct SimContext {
    Allocator allocator;
};
// Open contexts: live ones (no SimContext) and those handed out under replay.
std::map<void*, std::unique_ptr<SimContext>> g_contexts;

template <typename Fn>
Fn Real(Entry entry) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(g_real[entry]));
}

std::string Key(std::initializer_list<int> numbers) {
    std::string key;
    for (int n : numbers) {
        if (!key.empty()) key += ' ';
        key += std::to_string(n);
    }
    return key;
}

const Json* Answer(const char* member, const std::string& key = {}) {
    const Json* node = Child(ReplayedLibrary(kFile), member);
    return key.empty() ? node : Child(node, key);
}

void KeepAnswer(const char* member, const std::string& key, const Json& answer) {
    if (key.empty()) Keep({"vendor", kFile, member}, answer);
    else Keep({"vendor", kFile, member, key}, answer);
}

// {"result": r} for a failure, {} for success: a result of 0 is not written.
Json WithResult(int result, Json answer = Json::object()) {
    if (result != 0) answer = Json{{"result", result}};
    return answer;
}

int Done(const char* call, const std::string& key, int result, const std::string& outcome) {
    Note("vendor", std::string(call) + (key.empty() ? "" : " " + key),
         result == 0 ? outcome : "error " + std::to_string(result), result != 0);
    return result;
}

int NotRecorded(Entry entry, const std::string& key) {
    Note("vendor", std::string(kNames[entry]) + (key.empty() ? "" : " " + key), "not in the profile", true);
    return kAdlError;
}

// A context the library may use: one handed out and not destroyed yet.
bool Open(void* context, Entry entry) {
    if (g_contexts.count(context) != 0) return true;
    Note("vendor", kNames[entry], "a context that is not open", true);
    return false;
}

void* __stdcall TrackingAllocator(int size) {
    void* block = g_allocator != nullptr ? g_allocator(size) : nullptr;
    HandedOut(block);
    return block;
}

// Records of `bytes` each from the context's allocator, handed out.
uint8_t* Records(void* context, size_t count, size_t bytes) {
    if (count == 0) return nullptr;
    auto* block = static_cast<uint8_t*>(g_contexts.at(context)->allocator(static_cast<int>(count * bytes)));
    if (block == nullptr) return nullptr;
    std::memset(block, 0, count * bytes);
    HandedOut(block);
    return block;
}

int32_t ReadInt(const void* base, size_t offset) {
    int32_t value = 0;
    std::memcpy(&value, static_cast<const uint8_t*>(base) + offset, sizeof(value));
    return value;
}

void WriteInt(void* base, size_t offset, int32_t value) {
    std::memcpy(static_cast<uint8_t*>(base) + offset, &value, sizeof(value));
}

int Create(Allocator allocator, int enumerate, void** context, int threading) {
    if (!Installed()) return g_real[kCreate] != nullptr ? Real<CreateFn>(kCreate)(allocator, enumerate, context, threading) : kAdlError;
    Lock lock(Active().mutex);
    if (allocator == nullptr || context == nullptr) return kAdlNullPointer;
    const std::string detail = "enumerate " + std::to_string(enumerate) + ", threading " + std::to_string(threading);
    int result = 0;
    if (Active().live()) {
        g_allocator = allocator;
        result = Real<CreateFn>(kCreate)(&TrackingAllocator, enumerate, context, threading);
        if (result != 0) KeepAnswer("create", {}, WithResult(result));
        if (result == 0) g_contexts[*context] = nullptr;
    } else {
        if (ReplayedLibrary(kFile) == nullptr) return NotRecorded(kCreate, {});
        result = ResultOf(Answer("create"));
        if (result == 0) {
            auto sim = std::make_unique<SimContext>(SimContext{allocator});
            *context = sim.get();
            g_contexts[*context] = std::move(sim);
        }
    }
    Note("vendor", kNames[kCreate], result == 0 ? "context opened" : "error " + std::to_string(result), result != 0, detail);
    return result;
}

int Destroy(void* context) {
    if (!Installed()) return g_real[kDestroy] != nullptr ? Real<DestroyFn>(kDestroy)(context) : kAdlError;
    Lock lock(Active().mutex);
    if (!Open(context, kDestroy)) return kAdlError;
    g_contexts.erase(context);
    const int result = Active().live() ? Real<DestroyFn>(kDestroy)(context) : 0;
    return Done(kNames[kDestroy], {}, result, "context closed");
}

Json EncodeAdapters(const void* info, int count) {
    Json indices = Json::array();
    for (int a = 0; info != nullptr && a < count && a < static_cast<int>(kMaxRecords); ++a)
        indices.push_back(ReadInt(info, kAdapterInfoBytes * static_cast<size_t>(a) + 4));
    return Json{{"indices", indices}};
}

int AdapterInfo(void* context, void** info) {
    if (!Installed()) return g_real[kAdapterInfo] != nullptr ? Real<AdapterInfoFn>(kAdapterInfo)(context, info) : kAdlError;
    Lock lock(Active().mutex);
    if (info == nullptr) return kAdlNullPointer;
    if (!Open(context, kAdapterInfo)) return kAdlError;
    Json answer;
    if (Active().live()) {
        const int result = Real<AdapterInfoFn>(kAdapterInfo)(context, info);
        int count = 0;
        if (result == 0 && g_real[kAdapterCount] != nullptr) Real<AdapterCountFn>(kAdapterCount)(context, &count);
        answer = WithResult(result, EncodeAdapters(result == 0 ? *info : nullptr, count));
    } else {
        const Json* found = Answer("adapters");
        if (found == nullptr) return NotRecorded(kAdapterInfo, {});
        answer = *found;
        *info = nullptr;
        if (ResultOf(&answer) == 0) {
            const Json& indices = answer["indices"];
            uint8_t* records = Records(context, indices.size(), kAdapterInfoBytes);
            for (size_t a = 0; records != nullptr && a < indices.size(); ++a) {
                WriteInt(records, kAdapterInfoBytes * a, static_cast<int32_t>(kAdapterInfoBytes));
                WriteInt(records, kAdapterInfoBytes * a + 4, indices[a].get<int32_t>());
            }
            *info = records;
        }
    }
    KeepAnswer("adapters", {}, answer);
    return Done(kNames[kAdapterInfo], {}, ResultOf(&answer), "adapters " + answer.value("indices", Json::array()).dump());
}

int AdapterCount(void* context, int* count) {
    if (!Installed()) return g_real[kAdapterCount] != nullptr ? Real<AdapterCountFn>(kAdapterCount)(context, count) : kAdlError;
    Lock lock(Active().mutex);
    if (count == nullptr) return kAdlNullPointer;
    if (!Open(context, kAdapterCount)) return kAdlError;
    if (Active().live()) return Done(kNames[kAdapterCount], {}, Real<AdapterCountFn>(kAdapterCount)(context, count), "answered");
    const Json* found = Answer("adapters");
    if (found == nullptr) return NotRecorded(kAdapterCount, {});
    *count = static_cast<int>(found->value("indices", Json::array()).size());
    return Done(kNames[kAdapterCount], {}, 0, std::to_string(*count));
}

Json EncodeDisplays(const void* records, int count) {
    Json displays = Json::array();
    for (int d = 0; records != nullptr && d < count && d < static_cast<int>(kMaxRecords); ++d) {
        Json display;
        for (size_t f = 0; f < 3; ++f)
            display[kDisplayFields[f]] = ReadInt(records, kDisplayInfoBytes * static_cast<size_t>(d) + kDisplayOffsets[f]);
        displays.push_back(display);
    }
    return Json{{"displays", displays}};
}

int DisplayInfo(void* context, int adapter, int* count, void** displays, int force) {
    if (!Installed())
        return g_real[kDisplayInfo] != nullptr ? Real<DisplayInfoFn>(kDisplayInfo)(context, adapter, count, displays, force) : kAdlError;
    Lock lock(Active().mutex);
    if (count == nullptr || displays == nullptr) return kAdlNullPointer;
    if (!Open(context, kDisplayInfo)) return kAdlError;
    const std::string key = Key({adapter});
    Json answer;
    if (Active().live()) {
        const int result = Real<DisplayInfoFn>(kDisplayInfo)(context, adapter, count, displays, force);
        if (result == 0) HandedOut(*displays);
        answer = WithResult(result, EncodeDisplays(result == 0 ? *displays : nullptr, result == 0 ? *count : 0));
    } else {
        const Json* found = Answer("displays", key);
        if (found == nullptr) return NotRecorded(kDisplayInfo, key);
        answer = *found;
        *count = 0;
        *displays = nullptr;
        if (ResultOf(&answer) == 0) {
            const Json& list = answer["displays"];
            uint8_t* records = Records(context, list.size(), kDisplayInfoBytes);
            for (size_t d = 0; records != nullptr && d < list.size(); ++d)
                for (size_t f = 0; f < 3; ++f)
                    WriteInt(records, kDisplayInfoBytes * d + kDisplayOffsets[f], list[d].value(kDisplayFields[f], 0));
            *count = records != nullptr ? static_cast<int>(list.size()) : 0;
            *displays = records;
        }
    }
    KeepAnswer("displays", key, answer);
    return Done(kNames[kDisplayInfo], key, ResultOf(&answer), answer.value("displays", Json::array()).dump());
}

int ColorCaps(void* context, int adapter, int display, int* caps, int* valid) {
    if (!Installed())
        return g_real[kColorCaps] != nullptr ? Real<ColorCapsFn>(kColorCaps)(context, adapter, display, caps, valid) : kAdlError;
    Lock lock(Active().mutex);
    if (caps == nullptr || valid == nullptr) return kAdlNullPointer;
    if (!Open(context, kColorCaps)) return kAdlError;
    const std::string key = Key({adapter, display});
    Json answer;
    if (Active().live()) {
        int c = 0, v = 0;
        const int result = Real<ColorCapsFn>(kColorCaps)(context, adapter, display, &c, &v);
        answer = WithResult(result, Json{{"caps", c}, {"valid", v}});
    } else if (const Json* found = Answer("color_caps", key)) {
        answer = *found;
    } else {
        return NotRecorded(kColorCaps, key);
    }
    KeepAnswer("color_caps", key, answer);
    const int result = ResultOf(&answer);
    if (result == 0) *caps = answer.value("caps", 0), *valid = answer.value("valid", 0);
    return Done(kNames[kColorCaps], key, result, "caps " + std::to_string(answer.value("caps", 0)) + ", valid " +
                                                     std::to_string(answer.value("valid", 0)));
}

int ColorGet(void* context, int adapter, int display, int type, int* current, int* def, int* min, int* max, int* step) {
    if (!Installed())
        return g_real[kColorGet] != nullptr
                   ? Real<ColorGetFn>(kColorGet)(context, adapter, display, type, current, def, min, max, step)
                   : kAdlError;
    Lock lock(Active().mutex);
    int* out[] = {current, def, min, max, step};
    for (int* p : out)
        if (p == nullptr) return kAdlNullPointer;
    if (!Open(context, kColorGet)) return kAdlError;
    const std::string key = Key({adapter, display, type});
    Json answer;
    if (Active().live()) {
        int v[5] = {};
        const int result = Real<ColorGetFn>(kColorGet)(context, adapter, display, type, &v[0], &v[1], &v[2], &v[3], &v[4]);
        answer = Json::object();
        for (size_t i = 0; i < 5; ++i) answer[kColorFields[i]] = v[i];
        answer = WithResult(result, answer);
    } else if (const Json* found = Answer("colors", key)) {
        answer = *found;
    } else {
        return NotRecorded(kColorGet, key);
    }
    KeepAnswer("colors", key, answer);
    const int result = ResultOf(&answer);
    if (result == 0)
        for (size_t i = 0; i < 5; ++i) *out[i] = answer.value(kColorFields[i], 0);
    return Done(kNames[kColorGet], key, result,
                std::to_string(answer.value("current", 0)) + " (" + std::to_string(answer.value("min", 0)) + " to " +
                    std::to_string(answer.value("max", 0)) + ")");
}

// The two sets change the replayed state: the colour's current value, the
// temperature's source. A "set_result" (or the source's "result") refuses.
int ColorSet(void* context, int adapter, int display, int type, int value) {
    if (!Installed())
        return g_real[kColorSet] != nullptr ? Real<ColorSetFn>(kColorSet)(context, adapter, display, type, value) : kAdlError;
    Lock lock(Active().mutex);
    if (!Open(context, kColorSet)) return kAdlError;
    const std::string key = Key({adapter, display, type});
    const std::string call = std::string(kNames[kColorSet]) + " " + key + " = " + std::to_string(value);
    if (Unchangeable("vendor", call)) return kAdlError;
    int result = 0;
    if (Active().live()) {
        result = Real<ColorSetFn>(kColorSet)(context, adapter, display, type, value);
    } else {
        auto* color = const_cast<Json*>(Answer("colors", key));  // the replayed state changes
        if (color == nullptr) return NotRecorded(kColorSet, key);
        result = ResultOf(color, "set_result");
        if (result == 0) (*color)["current"] = value;
    }
    Note("vendor", call, result == 0 ? "set" : "error " + std::to_string(result), result != 0);
    return result;
}

int SourceSet(void* context, int adapter, int display, int source) {
    if (!Installed())
        return g_real[kSourceSet] != nullptr ? Real<SourceSetFn>(kSourceSet)(context, adapter, display, source) : kAdlError;
    Lock lock(Active().mutex);
    if (!Open(context, kSourceSet)) return kAdlError;
    const std::string key = Key({adapter, display});
    const std::string call = std::string(kNames[kSourceSet]) + " " + key + " = " + std::to_string(source);
    if (Unchangeable("vendor", call)) return kAdlError;
    int result = 0;
    if (Active().live()) {
        result = Real<SourceSetFn>(kSourceSet)(context, adapter, display, source);
    } else {
        auto* answer = const_cast<Json*>(Answer("temperature_sources", key));
        if (answer == nullptr) return NotRecorded(kSourceSet, key);
        result = ResultOf(answer);
        if (result == 0) (*answer)["source"] = source;
    }
    Note("vendor", call, result == 0 ? "set" : "error " + std::to_string(result), result != 0);
    return result;
}

int Uncalled() {
    Note("vendor", "an ADL entry point the library never calls", "answered failure", true);
    return kAdlError;
}

const FARPROC kFunctions[kEntries] = {
    Proc(&Create),     Proc(&Destroy),
    Proc(&AdapterInfo), Proc(&AdapterCount),
    Proc(&DisplayInfo), Proc(&ColorCaps),
    Proc(&ColorGet),   Proc(&ColorSet),
    Proc(&SourceSet)};

FARPROC EntryPoint(const char* name, FARPROC real) {
    for (size_t e = 0; e < kEntries; ++e) {
        if (std::strcmp(name, kNames[e]) != 0) continue;
        if (real != nullptr) g_real[e] = real;
        return kFunctions[e];
    }
    for (const char* uncalled : kUncalled)
        if (std::strcmp(name, uncalled) == 0) return real != nullptr ? real : Proc(&Uncalled);
    return nullptr;
}

// ------------------------------------------------------------- validation

// "3", "7 5" or "7 5 16": `count` 32-bit numbers.
void ExpectKey(const std::string& key, const At& at, size_t count) {
    size_t numbers = 0, start = 0;
    bool ok = !key.empty();
    while (ok && start <= key.size()) {
        const size_t end = std::min(key.find(' ', start), key.size());
        const std::string part = key.substr(start, end - start);
        ok = !part.empty() && part.size() <= 11 && part.find_first_not_of("-0123456789") == std::string::npos &&
             part.find('-', 1) == std::string::npos && part != "-";
        if (ok) {
            const long long n = std::stoll(part);
            ok = n >= INT32_MIN && n <= INT32_MAX;
        }
        ++numbers;
        start = end + 1;
    }
    if (!ok || numbers != count)
        Expected(at, count == 1 ? "an adapter index" : count == 2 ? "\"ADAPTER DISPLAY\" indices" : "\"ADAPTER DISPLAY TYPE\"");
}

void ExpectInts(const Json& object, const At& at, std::initializer_list<const char*> names) {
    for (const char* name : names)
        if (object.contains(name)) ExpectInteger(object[name], at / name, INT32_MIN, INT32_MAX);
}

void ExpectRecordList(const Json& object, const At& at, const char* member, std::initializer_list<const char*> fields) {
    if (!object.contains(member)) return;
    const Json& list = object[member];
    ExpectArray(list, at / member);
    if (list.size() > kMaxRecords) Expected(at / member, "at most " + std::to_string(kMaxRecords) + " records");
    for (size_t i = 0; i < list.size(); ++i) {
        if (fields.size() == 0) {
            ExpectInteger(list[i], at / member / i, INT32_MIN, INT32_MAX);
            continue;
        }
        ExpectObject(list[i], at / member / i);
        ExpectOnly(list[i], at / member / i, fields);
        ExpectInts(list[i], at / member / i, fields);
    }
}

template <typename Each>
void ExpectKeyed(const Json& library, const At& at, const char* member, size_t keyNumbers, Each each) {
    if (!library.contains(member)) return;
    ExpectObject(library[member], at / member);
    for (const auto& [key, answer] : library[member].items()) {
        ExpectKey(key, at / member / key, keyNumbers);
        ExpectObject(answer, at / member / key);
        if (answer.contains("result")) ExpectResult(answer["result"], at / member / key / "result");
        each(answer, at / member / key);
    }
}

void Validate(const Json& library, const At& at) {
    ExpectOnly(library, at, {"missing", "create", "adapters", "displays", "color_caps", "colors", "temperature_sources"});
    if (library.contains("missing")) ExpectNames(library["missing"], at / "missing");
    for (const char* member : {"create", "adapters"}) {
        if (!library.contains(member)) continue;
        const Json& answer = library[member];
        ExpectObject(answer, at / member);
        if (member == std::string("create")) ExpectOnly(answer, at / member, {"result"});
        else ExpectOnly(answer, at / member, {"result", "indices"});
        if (answer.contains("result")) ExpectResult(answer["result"], at / member / "result");
        ExpectRecordList(answer, at / member, "indices", {});
    }
    ExpectKeyed(library, at, "displays", 1, [](const Json& answer, const At& a) {
        ExpectOnly(answer, a, {"result", "displays"});
        ExpectRecordList(answer, a, "displays", {kDisplayFields[0], kDisplayFields[1], kDisplayFields[2]});
    });
    ExpectKeyed(library, at, "color_caps", 2, [](const Json& answer, const At& a) {
        ExpectOnly(answer, a, {"result", "caps", "valid"});
        ExpectInts(answer, a, {"caps", "valid"});
    });
    ExpectKeyed(library, at, "colors", 3, [](const Json& answer, const At& a) {
        ExpectOnly(answer, a, {"result", "current", "default", "min", "max", "step", "set_result"});
        ExpectInts(answer, a, {"current", "default", "min", "max", "step"});
        if (answer.contains("set_result")) ExpectResult(answer["set_result"], a / "set_result");
    });
    ExpectKeyed(library, at, "temperature_sources", 2, [](const Json& answer, const At& a) {
        ExpectOnly(answer, a, {"result", "source"});
        ExpectInts(answer, a, {"source"});
    });
}

void Reset() { g_contexts.clear(); }

}  // namespace

size_t HeldAdlContexts() {
    Lock lock(Active().mutex);
    return g_contexts.size();
}

const VendorLibrary kAdlLibrary = {kFile, Validate, EntryPoint, Reset};

}  // namespace torvex::sim::detail
