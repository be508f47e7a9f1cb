// The Intel Graphics Control Library (ControlLib.dll) as the library uses
// it: initialisation, the devices and their display outputs, each output's
// properties and pixel-transformation blocks, and the lookup-table set.
//
//   "ControlLib.dll": {"init": {"result": 0},
//                      "devices": [{"outputs": [{"flags": 3, "blocks": [{"id": 0, "type": 1, "samples": 1024, "channels": 1}]}]}]}
//
// Devices and outputs are keyed by their place in the enumeration. Results
// other than 0 are kept where a call failed: "devices_result",
// "outputs_result", "properties_result", "config_result", "set_result".
// A custom lookup table the library sets is kept as the output's "lut"
// (what a read-back would show); restoring the defaults removes it.
// The API handle, device and output handles the simulation hands out are
// checked back: every call must name a handle of an open API handle, and
// every API handle must be closed.
#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "vendor.h"

namespace torvex::sim::detail {
namespace {

constexpr char kFile[] = "ControlLib.dll";
constexpr uint32_t kInvalidHandle = 0x4000000E;  // a handle the library never handed out
constexpr uint32_t kNullPointer = 0x40000005;
constexpr uint32_t kNotRecorded = 0x40000000;  // the library's generic error
constexpr size_t kMaxBlocks = 16;
constexpr uint32_t kMaxSamples = 65536;
constexpr uint32_t kMaxChannels = 4;

// Offsets of the records, as the library publishes them.
constexpr size_t kInitAppVersion = 8;
constexpr size_t kPropertiesFlags = 48;
constexpr size_t kQueryBlockCount = 256, kQueryBlocks = 264;
constexpr size_t kBlockBytes = 144, kBlockId = 8, kBlockType = 12, kBlockSamples = 20, kBlockChannels = 24,
                 kBlockValues = 32;
constexpr size_t kSetOperation = 8, kSetBlockCount = 16, kSetBlocks = 24;
constexpr uint32_t kOperationRestore = 1, kOperationCustom = 2;

using InitFn = uint32_t (*)(void*, void**);
using CloseFn = uint32_t (*)(void*);
using EnumerateFn = uint32_t (*)(void*, uint32_t*, void**);
using RecordFn = uint32_t (*)(void*, void*);

enum Entry { kInit, kClose, kDevices, kOutputs, kProperties, kGetConfig, kSetConfig, kEntries };
const char* const kNames[kEntries] = {"ctlInit", "ctlClose", "ctlEnumerateDevices", "ctlEnumerateDisplayOutputs",
                                      "ctlGetDisplayProperties", "ctlPixelTransformationGetConfig",
                                      "ctlPixelTransformationSetConfig"};
FARPROC g_real[kEntries] = {};

// What a handle stands for: an API handle, a device of one, or an output.
enum class Kind { Api, Device, Output };
struct Handle {
    Kind kind;
    void* api;
    size_t device, output;
};
std::map<void*, Handle> g_handles;  // open handles, handed out under replay or by the live library
uintptr_t g_nextHandle = 0x1C7000;

template <typename Fn>
Fn Real(Entry entry) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(g_real[entry]));
}

uint32_t U32(const void* record, size_t offset) {
    uint32_t value = 0;
    std::memcpy(&value, static_cast<const uint8_t*>(record) + offset, 4);
    return value;
}
void PutU32(void* record, size_t offset, uint32_t value) { std::memcpy(static_cast<uint8_t*>(record) + offset, &value, 4); }
void* Pointer(const void* record, size_t offset) {
    void* value = nullptr;
    std::memcpy(&value, static_cast<const uint8_t*>(record) + offset, sizeof(value));
    return value;
}

// The handle for one thing: the same value every time it is enumerated.
void* HandleFor(Handle wanted) {
    for (const auto& [value, handle] : g_handles)
        if (handle.kind == wanted.kind && handle.api == wanted.api && handle.device == wanted.device &&
            handle.output == wanted.output)
            return value;
    void* value = reinterpret_cast<void*>(g_nextHandle += 0x10);
    g_handles[value] = wanted;
    return value;
}

const Handle* Open(void* value, Kind kind, Entry entry) {
    auto found = g_handles.find(value);
    if (found != g_handles.end() && found->second.kind == kind) return &found->second;
    Note("vendor", kNames[entry], "a handle that is not open", true);
    return nullptr;
}

std::string Where(const Handle& h) {
    return h.kind == Kind::Api ? "" : h.kind == Kind::Device ? "device " + std::to_string(h.device)
                                                             : "output " + std::to_string(h.device) + "/" + std::to_string(h.output);
}

uint32_t Done(Entry entry, const Handle* handle, uint32_t result, const std::string& outcome, std::string detail = {}) {
    Note("vendor", std::string(kNames[entry]) + (handle != nullptr && handle->kind != Kind::Api ? " " + Where(*handle) : ""),
         result == 0 ? outcome : "error " + HresultText(static_cast<long>(result)), result != 0, std::move(detail));
    return result;
}

uint32_t Result(const Json* node, const char* member) { return static_cast<uint32_t>(ResultOf(node, member)); }

// The recorded devices, device d, output d/o: replayed, or in the recording.
const Json* Devices() { return Child(ReplayedLibrary(kFile), "devices"); }
const Json* Device(size_t d) {
    const Json* devices = Devices();
    return devices != nullptr && devices->is_array() && d < devices->size() ? &(*devices)[d] : nullptr;
}
const Json* Output(const Handle& h) {
    const Json* outputs = Child(Device(h.device), "outputs");
    return outputs != nullptr && outputs->is_array() && h.output < outputs->size() ? &(*outputs)[h.output] : nullptr;
}
Json* KeptDevice(size_t d) {
    Json* devices = KeepNode({"vendor", kFile, "devices"});
    if (devices == nullptr) return nullptr;
    if (!devices->is_array()) *devices = Json::array();
    while (devices->size() <= d) devices->push_back(Json::object());
    return &(*devices)[d];
}
Json* KeptOutput(const Handle& h) {
    Json* device = KeptDevice(h.device);
    if (device == nullptr) return nullptr;
    Json& outputs = (*device)["outputs"];
    if (!outputs.is_array()) outputs = Json::array();
    while (outputs.size() <= h.output) outputs.push_back(Json::object());
    return &outputs[h.output];
}
// A count enumerated live: the recording holds as many entries.
void KeepCount(bool devices, const Handle& from, size_t count) {
    Json* node = devices ? RecordedLibrary(kFile) : KeptDevice(from.device);
    if (node == nullptr) return;
    Json& list = (*node)[devices ? "devices" : "outputs"];
    if (!list.is_array()) list = Json::array();
    while (list.size() < count) list.push_back(devices ? Json{{"outputs", Json::array()}} : Json::object());
}

void KeepResult(Json* node, const char* member, uint32_t result) {
    if (node == nullptr) return;
    if (!node->is_object()) *node = Json::object();
    if (result != 0) (*node)[member] = result;
    else node->erase(member);
}

uint32_t Init(void* args, void** api) {
    if (!Installed()) return g_real[kInit] != nullptr ? Real<InitFn>(kInit)(args, api) : kNotRecorded;
    Lock lock(Active().mutex);
    if (args == nullptr || api == nullptr) return kNullPointer;
    const std::string detail = "size " + std::to_string(U32(args, 0)) + ", application version " +
                               HexNumber(U32(args, kInitAppVersion));
    uint32_t result = 0;
    if (Active().live()) {
        result = Real<InitFn>(kInit)(args, api);
        if (result == 0) g_handles[*api] = Handle{Kind::Api, *api, 0, 0};
        if (Json* library = RecordedLibrary(kFile)) KeepResult(&(*library)["init"], "result", result);
    } else {
        const Json* library = ReplayedLibrary(kFile);
        if (library == nullptr) return kNotRecorded;
        result = Result(Child(library, "init"), "result");
        if (result == 0) {
            *api = reinterpret_cast<void*>(g_nextHandle += 0x10);
            g_handles[*api] = Handle{Kind::Api, *api, 0, 0};
        }
    }
    Note("vendor", kNames[kInit], result == 0 ? "initialised" : "error " + HresultText(static_cast<long>(result)),
         result != 0, detail);
    return result;
}

uint32_t Close(void* api) {
    if (!Installed()) return g_real[kClose] != nullptr ? Real<CloseFn>(kClose)(api) : kNotRecorded;
    Lock lock(Active().mutex);
    if (Open(api, Kind::Api, kClose) == nullptr) return kInvalidHandle;
    for (auto it = g_handles.begin(); it != g_handles.end();) it = it->second.api == api ? g_handles.erase(it) : std::next(it);
    const uint32_t result = Active().live() ? Real<CloseFn>(kClose)(api) : 0;
    return Done(kClose, nullptr, result, "closed");
}

// Enumeration of devices (of an API handle) or outputs (of a device).
uint32_t Enumerate(Entry entry, Kind parentKind, void* parent, uint32_t* count, void** handles) {
    const Handle* owner = Open(parent, parentKind, entry);
    if (owner == nullptr) return kInvalidHandle;
    if (count == nullptr) return kNullPointer;
    const Handle from = *owner;
    const bool devices = entry == kDevices;
    const char* resultMember = devices ? "devices_result" : "outputs_result";
    uint32_t result = 0;
    size_t found = 0;
    if (Active().live()) {
        result = Real<EnumerateFn>(entry)(parent, count, handles);
        found = result == 0 ? *count : 0;
        for (size_t i = 0; handles != nullptr && i < found; ++i)
            g_handles[handles[i]] = devices ? Handle{Kind::Device, from.api, i, 0} : Handle{Kind::Output, from.api, from.device, i};
        Json* node = devices ? RecordedLibrary(kFile) : KeptDevice(from.device);
        KeepResult(node, resultMember, result);
        if (handles == nullptr && result == 0) KeepCount(devices, from, found);
    } else {
        const Json* node = devices ? ReplayedLibrary(kFile) : Device(from.device);
        if (node == nullptr) return Done(entry, &from, kNotRecorded, "");
        result = Result(node, resultMember);
        const Json* list = Child(node, devices ? "devices" : "outputs");
        const size_t recorded = list != nullptr && list->is_array() ? list->size() : 0;
        if (result == 0 && handles == nullptr) *count = static_cast<uint32_t>(recorded);
        for (size_t i = 0; result == 0 && handles != nullptr && i < *count && i < recorded; ++i)
            handles[i] = HandleFor(devices ? Handle{Kind::Device, from.api, i, 0} : Handle{Kind::Output, from.api, from.device, i});
        found = recorded;
    }
    return Done(entry, &from, result, std::to_string(found) + (devices ? " devices" : " outputs"));
}

uint32_t EnumerateDevices(void* api, uint32_t* count, void** devices) {
    if (!Installed()) return g_real[kDevices] != nullptr ? Real<EnumerateFn>(kDevices)(api, count, devices) : kNotRecorded;
    Lock lock(Active().mutex);
    return Enumerate(kDevices, Kind::Api, api, count, devices);
}

uint32_t EnumerateOutputs(void* device, uint32_t* count, void** outputs) {
    if (!Installed()) return g_real[kOutputs] != nullptr ? Real<EnumerateFn>(kOutputs)(device, count, outputs) : kNotRecorded;
    Lock lock(Active().mutex);
    return Enumerate(kOutputs, Kind::Device, device, count, outputs);
}

uint32_t Properties(void* output, void* properties) {
    if (!Installed()) return g_real[kProperties] != nullptr ? Real<RecordFn>(kProperties)(output, properties) : kNotRecorded;
    Lock lock(Active().mutex);
    const Handle* h = Open(output, Kind::Output, kProperties);
    if (h == nullptr) return kInvalidHandle;
    if (properties == nullptr) return kNullPointer;
    uint32_t result = 0;
    if (Active().live()) {
        result = Real<RecordFn>(kProperties)(output, properties);
        if (Json* kept = KeptOutput(*h)) {
            KeepResult(kept, "properties_result", result);
            if (result == 0) (*kept)["flags"] = U32(properties, kPropertiesFlags);
        }
    } else {
        const Json* recorded = Output(*h);
        if (recorded == nullptr) return Done(kProperties, h, kNotRecorded, "");
        result = Result(recorded, "properties_result");
        if (result == 0) PutU32(properties, kPropertiesFlags, recorded->value("flags", 0u));
    }
    return Done(kProperties, h, result, "flags " + std::to_string(U32(properties, kPropertiesFlags)),
                "size " + std::to_string(U32(properties, 0)));
}

Json EncodeBlock(const void* block) {
    return Json{{"id", U32(block, kBlockId)}, {"type", U32(block, kBlockType)}, {"samples", U32(block, kBlockSamples)},
                {"channels", U32(block, kBlockChannels)}};
}

uint32_t GetConfig(void* output, void* query) {
    if (!Installed()) return g_real[kGetConfig] != nullptr ? Real<RecordFn>(kGetConfig)(output, query) : kNotRecorded;
    Lock lock(Active().mutex);
    const Handle* h = Open(output, Kind::Output, kGetConfig);
    if (h == nullptr) return kInvalidHandle;
    if (query == nullptr) return kNullPointer;
    auto* blocks = static_cast<uint8_t*>(Pointer(query, kQueryBlocks));
    uint32_t result = 0;
    if (Active().live()) {
        result = Real<RecordFn>(kGetConfig)(output, query);
        Json* kept = KeptOutput(*h);
        KeepResult(kept, "config_result", result);
        if (kept != nullptr && result == 0 && blocks != nullptr) {
            Json list = Json::array();
            for (size_t b = 0; b < U32(query, kQueryBlockCount) && b < kMaxBlocks; ++b) list.push_back(EncodeBlock(blocks + kBlockBytes * b));
            (*kept)["blocks"] = list;
        }
    } else {
        const Json* recorded = Output(*h);
        if (recorded == nullptr) return Done(kGetConfig, h, kNotRecorded, "");
        result = Result(recorded, "config_result");
        const Json* list = Child(recorded, "blocks");
        const size_t count = list != nullptr ? list->size() : 0;
        if (result == 0 && blocks == nullptr) PutU32(query, kQueryBlockCount, static_cast<uint32_t>(count));
        for (size_t b = 0; result == 0 && blocks != nullptr && b < count && b < U32(query, kQueryBlockCount); ++b) {
            const Json& block = (*list)[b];
            uint8_t* record = blocks + kBlockBytes * b;
            PutU32(record, kBlockId, block.value("id", 0u));
            PutU32(record, kBlockType, block.value("type", 0u));
            PutU32(record, kBlockSamples, block.value("samples", 0u));
            PutU32(record, kBlockChannels, block.value("channels", 1u));
        }
    }
    return Done(kGetConfig, h, result, std::to_string(U32(query, kQueryBlockCount)) + " blocks",
                "size " + std::to_string(U32(query, 0)));
}

// The lookup table of a custom set: the first block's samples, channel after channel.
Json EncodeLut(const void* block) {
    const uint32_t samples = U32(block, kBlockSamples), channels = U32(block, kBlockChannels);
    const auto* values = static_cast<const double*>(Pointer(block, kBlockValues));
    Json lut{{"block", U32(block, kBlockId)}, {"samples", samples}, {"channels", channels}, {"values", Json::array()}};
    if (values != nullptr && samples <= kMaxSamples && channels <= kMaxChannels)
        for (size_t i = 0; i < static_cast<size_t>(samples) * channels; ++i) lut["values"].push_back(values[i]);
    return lut;
}

uint32_t SetConfig(void* output, void* request) {
    if (!Installed()) return g_real[kSetConfig] != nullptr ? Real<RecordFn>(kSetConfig)(output, request) : kNotRecorded;
    Lock lock(Active().mutex);
    const Handle* h = Open(output, Kind::Output, kSetConfig);
    if (h == nullptr) return kInvalidHandle;
    if (request == nullptr) return kNullPointer;
    const uint32_t operation = U32(request, kSetOperation);
    const auto* blocks = static_cast<const uint8_t*>(Pointer(request, kSetBlocks));
    const std::string call = std::string(kNames[kSetConfig]) + " " + Where(*h) +
                             (operation == kOperationRestore ? " restore" : operation == kOperationCustom ? " custom" : " operation " + std::to_string(operation));
    if (Unchangeable("vendor", call)) return kNotRecorded;
    uint32_t result = 0;
    if (Active().live()) {
        result = Real<RecordFn>(kSetConfig)(output, request);
    } else {
        auto* recorded = const_cast<Json*>(Output(*h));  // the replayed state changes
        if (recorded == nullptr) return Done(kSetConfig, h, kNotRecorded, "");
        result = Result(recorded, "set_result");
        if (result == 0 && operation == kOperationCustom && blocks != nullptr && U32(request, kSetBlockCount) != 0)
            (*recorded)["lut"] = EncodeLut(blocks);
        else if (result == 0 && operation == kOperationRestore)
            recorded->erase("lut");
    }
    Note("vendor", call, result == 0 ? "set" : "error " + HresultText(static_cast<long>(result)), result != 0,
         "size " + std::to_string(U32(request, 0)) + ", blocks " + std::to_string(U32(request, kSetBlockCount)) +
             (blocks != nullptr ? ", first " + std::to_string(U32(blocks, kBlockId)) : ""));
    return result;
}

const FARPROC kFunctions[kEntries] = {
    Proc(&Init),       Proc(&Close),
    Proc(&EnumerateDevices), Proc(&EnumerateOutputs),
    Proc(&Properties), Proc(&GetConfig),
    Proc(&SetConfig)};

FARPROC EntryPoint(const char* name, FARPROC real) {
    for (size_t e = 0; e < kEntries; ++e) {
        if (std::strcmp(name, kNames[e]) != 0) continue;
        if (real != nullptr) g_real[e] = real;
        return kFunctions[e];
    }
    return nullptr;
}

// ------------------------------------------------------------- validation

void ExpectResults(const Json& node, const At& at, std::initializer_list<const char*> members) {
    for (const char* member : members)
        if (node.contains(member)) ExpectResult(node[member], at / member);
}

void ValidateOutput(const Json& output, const At& at) {
    ExpectObject(output, at);
    ExpectOnly(output, at, {"flags", "blocks", "lut", "properties_result", "config_result", "set_result"});
    ExpectResults(output, at, {"properties_result", "config_result", "set_result"});
    if (output.contains("flags")) ExpectUnsigned(output["flags"], at / "flags", UINT32_MAX);
    if (output.contains("blocks")) {
        const Json& blocks = output["blocks"];
        ExpectArray(blocks, at / "blocks");
        if (blocks.size() > kMaxBlocks) Expected(at / "blocks", "at most " + std::to_string(kMaxBlocks) + " blocks");
        for (size_t b = 0; b < blocks.size(); ++b) {
            const At a = at / "blocks" / b;
            ExpectObject(blocks[b], a);
            ExpectOnly(blocks[b], a, {"id", "type", "samples", "channels"});
            for (const char* field : {"id", "type"})
                if (blocks[b].contains(field)) ExpectUnsigned(blocks[b][field], a / field, UINT32_MAX);
            if (blocks[b].contains("samples")) ExpectUnsigned(blocks[b]["samples"], a / "samples", kMaxSamples);
            if (blocks[b].contains("channels")) ExpectUnsigned(blocks[b]["channels"], a / "channels", kMaxChannels);
        }
    }
    if (output.contains("lut")) {
        const Json& lut = output["lut"];
        ExpectObject(lut, at / "lut");
        ExpectOnly(lut, at / "lut", {"block", "samples", "channels", "values"});
        for (const char* field : {"block", "samples", "channels"})
            if (lut.contains(field)) ExpectUnsigned(lut[field], at / "lut" / field, UINT32_MAX);
        if (lut.contains("values")) {
            ExpectArray(lut["values"], at / "lut" / "values");
            for (size_t i = 0; i < lut["values"].size(); ++i)
                if (!lut["values"][i].is_number()) Expected(at / "lut" / "values" / i, "a number");
        }
    }
}

void Validate(const Json& library, const At& at) {
    ExpectOnly(library, at, {"missing", "init", "devices", "devices_result"});
    if (library.contains("missing")) ExpectNames(library["missing"], at / "missing");
    ExpectResults(library, at, {"devices_result"});
    if (library.contains("init")) {
        ExpectObject(library["init"], at / "init");
        ExpectOnly(library["init"], at / "init", {"result"});
        ExpectResults(library["init"], at / "init", {"result"});
    }
    if (!library.contains("devices")) return;
    const Json& devices = library["devices"];
    ExpectArray(devices, at / "devices");
    for (size_t d = 0; d < devices.size(); ++d) {
        const At a = at / "devices" / d;
        ExpectObject(devices[d], a);
        ExpectOnly(devices[d], a, {"outputs", "outputs_result"});
        ExpectResults(devices[d], a, {"outputs_result"});
        if (!devices[d].contains("outputs")) continue;
        ExpectArray(devices[d]["outputs"], a / "outputs");
        for (size_t o = 0; o < devices[d]["outputs"].size(); ++o) ValidateOutput(devices[d]["outputs"][o], a / "outputs" / o);
    }
}

void Reset() { g_handles.clear(); }

}  // namespace

size_t HeldIgclHandles() {
    Lock lock(Active().mutex);
    size_t open = 0;
    for (const auto& [value, handle] : g_handles) open += handle.kind == Kind::Api ? 1 : 0;
    return open;
}

// Capture asks the live library what a set would read first (its devices,
// outputs, their properties and blocks), so that a replayed set finds them.
void ProbeIgcl(HMODULE module, FARPROC (WINAPI* proc)(HMODULE, LPCSTR)) {
    for (size_t e = 0; e < kEntries; ++e) {  // what it reads; the set is not needed
        FARPROC real = proc(module, kNames[e]);
        if (real == nullptr && e != kSetConfig) return;
        if (real != nullptr) g_real[e] = real;
    }
    uint8_t args[36] = {};
    PutU32(args, 0, sizeof(args));
    PutU32(args, kInitAppVersion, 0x10000);
    void* api = nullptr;
    if (Init(args, &api) != 0) return;
    uint32_t deviceCount = 0;
    if (EnumerateDevices(api, &deviceCount, nullptr) == 0 && deviceCount != 0) {
        std::vector<void*> devices(deviceCount);
        if (EnumerateDevices(api, &deviceCount, devices.data()) == 0) {
            for (void* device : devices) {
                uint32_t outputCount = 0;
                if (EnumerateOutputs(device, &outputCount, nullptr) != 0 || outputCount == 0) continue;
                std::vector<void*> outputs(outputCount);
                if (EnumerateOutputs(device, &outputCount, outputs.data()) != 0) continue;
                for (void* output : outputs) {
                    uint8_t properties[200] = {};
                    PutU32(properties, 0, sizeof(properties));
                    Properties(output, properties);
                    uint8_t query[272] = {};
                    PutU32(query, 0, sizeof(query));
                    if (GetConfig(output, query) != 0 || U32(query, kQueryBlockCount) == 0) continue;
                    const uint32_t count = std::min<uint32_t>(U32(query, kQueryBlockCount), kMaxBlocks);
                    std::vector<uint8_t> blocks(kBlockBytes * count);
                    for (uint32_t b = 0; b < count; ++b) PutU32(blocks.data() + kBlockBytes * b, 0, kBlockBytes);
                    PutU32(query, kQueryBlockCount, count);
                    void* pointer = blocks.data();
                    std::memcpy(query + kQueryBlocks, &pointer, sizeof(pointer));
                    GetConfig(output, query);
                }
            }
        }
    }
    Close(api);
}

const VendorLibrary kIgclLibrary = {kFile, Validate, EntryPoint, Reset};

}  // namespace torvex::sim::detail
