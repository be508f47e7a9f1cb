// Capture of the vendor libraries, and the replay of what it kept. Wine has no AMD or Intel display library and no
// graphics driver's server, so their live side is a small library of this program's own (fixed answers, below),
// handed out where the machine asks the real system for them; the calls are made through the library's own import
// slots, as the library makes them. Whatever the live libraries answered, the replayed capture answers again.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"
#include "torvex/graphics_server.h"
#include "torvex/ucrt_heap.h"

using torvex::sim::Json;
using torvex::sim::Profile;
using torvex::test::ImportPatch;

using CaptureServerShape = torvex::IGfxServer;

namespace {

using Allocator = void*(__stdcall*)(int);
using Numbers = std::vector<int64_t>;
char g_liveModules[2];  // their addresses are the live libraries' modules: AMD's, Intel's
HMODULE LiveModule(int library) { return reinterpret_cast<HMODULE>(&g_liveModules[library]); }

// ---- the live AMD library: adapters 3 and 7, one display each; colours from the arguments
Allocator g_allocator = nullptr;
int g_context;
int AdlCreate(Allocator allocator, int, void** context, int) { return g_allocator = allocator, *context = &g_context, 0; }
int AdlDestroy(void* context) { return context == &g_context ? 0 : -1; }
int AdlInfo(void*, void** info) {
    auto* records = static_cast<int*>(g_allocator(2 * 1572));
    std::memset(records, 0, 2 * 1572);
    records[1] = 3, records[1572 / 4 + 1] = 7;
    return *info = records, 0;
}
int AdlCount(void*, int* count) { return *count = 2, 0; }
int AdlDisplays(void*, int adapter, int* count, void** displays, int) {
    auto* record = static_cast<int*>(g_allocator(552));
    std::memset(record, 0, 552);
    record[0] = adapter == 7 ? 5 : 1, record[2] = adapter == 7 ? 7 : 9, record[137] = 3;
    return *count = 1, *displays = record, adapter == 3 || adapter == 7 ? 0 : -1;
}
int AdlCaps(void*, int adapter, int display, int* caps, int* valid) { return *caps = 17 + adapter, *valid = 0xF0 | display, 0; }
int AdlColor(void*, int adapter, int display, int type, int* current, int* def, int* min, int* max, int* step) {
    *current = 100 * type + adapter, *def = display, *min = -type, *max = 1000 * type, *step = 1;
    return type == 1 || type == 16 ? 0 : -8;
}

// ---- the live Intel library: one device with two outputs; the first active and attached, with two blocks
void* const kApi = reinterpret_cast<void*>(0xA11);
uint32_t U32(const void* record, size_t offset) { return *reinterpret_cast<const uint32_t*>(static_cast<const char*>(record) + offset); }
uint32_t& Put(void* record, size_t offset) { return *reinterpret_cast<uint32_t*>(static_cast<char*>(record) + offset); }
uint32_t IgclInit(void*, void** api) { return *api = kApi, 0; }
uint32_t IgclClose(void* api) { return api == kApi ? 0 : 0x4000000E; }
uint32_t IgclDevices(void*, uint32_t* count, void** devices) {
    if (devices == nullptr) *count = 1;
    else devices[0] = reinterpret_cast<void*>(0xD0);
    return 0;
}
uint32_t IgclOutputs(void*, uint32_t* count, void** outputs) {
    for (uint32_t o = 0; outputs != nullptr && o < *count && o < 2; ++o) outputs[o] = reinterpret_cast<void*>(0xE0 + o);
    if (outputs == nullptr) *count = 2;
    return 0;
}
uint32_t IgclProperties(void* output, void* properties) { return Put(properties, 48) = output == reinterpret_cast<void*>(0xE0) ? 3 : 1, 0; }
uint32_t IgclConfig(void* output, void* query) {
    if (output != reinterpret_cast<void*>(0xE0)) return 0x40000002;
    char* blocks = *reinterpret_cast<char**>(static_cast<char*>(query) + 264);
    if (blocks == nullptr) return Put(query, 256) = 2, 0;
    for (uint32_t b = 0; b < 2; ++b) Put(blocks + 144 * b, 8) = 40 + b, Put(blocks + 144 * b, 12) = 1 + 2 * b, Put(blocks + 144 * b, 20) = 4 + b;
    return 0;
}

struct Entry {
    const char* name;
    FARPROC function;
};
template <typename Fn>
FARPROC Proc(Fn* function) {
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(function));
}
const Entry kEntries[] = {
    {"ADL2_Main_ControlX2_Create", Proc(&AdlCreate)}, {"ADL2_Main_Control_Destroy", Proc(&AdlDestroy)},
    {"ADL2_Adapter_AdapterInfoX2_Get", Proc(&AdlInfo)}, {"ADL2_Adapter_NumberOfAdapters_Get", Proc(&AdlCount)},
    {"ADL2_Display_DisplayInfo_Get", Proc(&AdlDisplays)}, {"ADL2_Display_ColorCaps_Get", Proc(&AdlCaps)},
    {"ADL2_Display_Color_Get", Proc(&AdlColor)}, {"ctlInit", Proc(&IgclInit)}, {"ctlClose", Proc(&IgclClose)},
    {"ctlEnumerateDevices", Proc(&IgclDevices)}, {"ctlEnumerateDisplayOutputs", Proc(&IgclOutputs)},
    {"ctlGetDisplayProperties", Proc(&IgclProperties)}, {"ctlPixelTransformationGetConfig", Proc(&IgclConfig)}};

// ---- the live graphics driver's server: identifier 9 for any display; the generic get doubles each byte
struct CapturedServer : CaptureServerShape {
    HRESULT STDMETHODCALLTYPE DisplayIdFromName(BSTR, uint32_t, uint32_t* id, uint32_t* status) override {
        return *id = 9, *status = 0, S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetGammaRamp(uint32_t, uint32_t, void*, uint32_t*) override { return E_FAIL; }
    HRESULT STDMETHODCALLTYPE GetGeneric(const GUID&, uint32_t size, void* data, uint32_t* status) override {
        for (uint32_t i = 0; i < size; ++i) static_cast<uint8_t*>(data)[i] *= 2;
        return *status = 0, S_OK;
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** out) override { return AddRef(), *out = this, S_OK; }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    long refs = 0;
} g_server;

// Where the machine asks the real system, this program's libraries answer.
ImportPatch* g_patches[4];
HMODULE WINAPI Load(LPCWSTR path) {
    return std::wcsstr(path, L"atiadlxx") != nullptr ? LiveModule(0) : g_patches[0]->Original<decltype(&LoadLibraryW)>()(path);
}
HMODULE WINAPI LoadEx(LPCWSTR path, HANDLE file, DWORD flags) {
    return std::wcscmp(path, L"ControlLib.dll") == 0 ? LiveModule(1) : g_patches[1]->Original<decltype(&LoadLibraryExW)>()(path, file, flags);
}
FARPROC WINAPI Resolve(HMODULE module, LPCSTR name) {
    if (module != LiveModule(0) && module != LiveModule(1)) return g_patches[2]->Original<decltype(&GetProcAddress)>()(module, name);
    for (const Entry& entry : kEntries)
        if (std::strcmp(entry.name, name) == 0) return entry.function;
    return nullptr;
}
BOOL WINAPI Free(HMODULE module) { return module == LiveModule(0) || module == LiveModule(1) ? TRUE : g_patches[3]->Original<decltype(&FreeLibrary)>()(module); }
HRESULT WINAPI Create(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, LPVOID* out) {
    return IsEqualCLSID(clsid, torvex::kGfxServerClass) ? g_server.QueryInterface(iid, out) : CoCreateInstance(clsid, outer, context, iid, out);
}

// The function in one of the library's import slots right now: the machine's, while one is installed.
template <typename Fn>
Fn Slot(const char* name, Fn dummy) {
    ImportPatch patch(name, reinterpret_cast<void*>(dummy));
    return patch.Original<Fn>();
}
template <typename Fn>
Fn EntryPoint(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(Slot("GetProcAddress", &GetProcAddress)(module, name)));
}
void* __stdcall Allocate(int size) { return torvex_ucrt_malloc(static_cast<size_t>(size)); }

// Every call the library makes of the three, with the arguments it gives; every number they answered, in order.
Numbers Drive() {
    Numbers out;
    auto freeBlock = Slot("ucrtbase.dll!free", &torvex_ucrt_free);
    HMODULE adl = Slot("LoadLibraryW", &LoadLibraryW)(L"C:\\windows\\system32\\atiadlxx.dll");
    for (const Entry& entry : kEntries)  // every name first, as the library resolves them
        if (std::strncmp(entry.name, "ADL", 3) == 0) EntryPoint<FARPROC>(adl, entry.name);
    void* context = nullptr;
    out.push_back(EntryPoint<int (*)(Allocator, int, void**, int)>(adl, "ADL2_Main_ControlX2_Create")(&Allocate, 1, &context, 1));
    void* info = nullptr;
    int adapters = 0;
    out.push_back(EntryPoint<int (*)(void*, void**)>(adl, "ADL2_Adapter_AdapterInfoX2_Get")(context, &info));
    out.push_back(EntryPoint<int (*)(void*, int*)>(adl, "ADL2_Adapter_NumberOfAdapters_Get")(context, &adapters));
    for (int a = 0; a < adapters; ++a) {
        const int adapter = static_cast<int*>(info)[1572 / 4 * a + 1];
        int count = 0;
        void* displays = nullptr;
        out.insert(out.end(), {adapter, EntryPoint<int (*)(void*, int, int*, void**, int)>(adl, "ADL2_Display_DisplayInfo_Get")(
                                            context, adapter, &count, &displays, 0)});
        for (int d = 0; d < count; ++d) out.insert(out.end(), {static_cast<int*>(displays)[0], static_cast<int*>(displays)[2], static_cast<int*>(displays)[137]});
        const int display = static_cast<int*>(displays)[0];
        freeBlock(displays);
        int v[5] = {};
        out.push_back(EntryPoint<int (*)(void*, int, int, int*, int*)>(adl, "ADL2_Display_ColorCaps_Get")(context, adapter, display, &v[0], &v[1]));
        out.insert(out.end(), v, v + 2);
        for (int type : {1, 16}) {
            out.push_back(EntryPoint<int (*)(void*, int, int, int, int*, int*, int*, int*, int*)>(adl, "ADL2_Display_Color_Get")(
                context, adapter, display, type, &v[0], &v[1], &v[2], &v[3], &v[4]));
            out.insert(out.end(), v, v + 5);
        }
    }
    freeBlock(info);
    out.push_back(EntryPoint<int (*)(void*)>(adl, "ADL2_Main_Control_Destroy")(context));

    HMODULE igcl = Slot("LoadLibraryExW", &LoadLibraryExW)(L"ControlLib.dll", nullptr, 0xA00);
    uint8_t args[36] = {36};
    void* api = nullptr;
    out.push_back(EntryPoint<uint32_t (*)(void*, void**)>(igcl, "ctlInit")(args, &api));
    using Enumerate = uint32_t (*)(void*, uint32_t*, void**);
    uint32_t count = 0;
    void* handles[4] = {};
    out.push_back(EntryPoint<Enumerate>(igcl, "ctlEnumerateDevices")(api, &count, nullptr));
    out.push_back(EntryPoint<Enumerate>(igcl, "ctlEnumerateDevices")(api, &count, handles));
    void* outputs[4] = {};
    out.push_back(EntryPoint<Enumerate>(igcl, "ctlEnumerateDisplayOutputs")(handles[0], &count, nullptr));
    out.push_back(count);
    out.push_back(EntryPoint<Enumerate>(igcl, "ctlEnumerateDisplayOutputs")(handles[0], &count, outputs));
    for (uint32_t o = 0; o < count; ++o) {
        uint8_t properties[200] = {200}, query[272] = {};
        Put(query, 0) = sizeof(query);
        out.push_back(EntryPoint<uint32_t (*)(void*, void*)>(igcl, "ctlGetDisplayProperties")(outputs[o], properties));
        out.push_back(U32(properties, 48));
        out.push_back(EntryPoint<uint32_t (*)(void*, void*)>(igcl, "ctlPixelTransformationGetConfig")(outputs[o], query));
        uint8_t blocks[2 * 144] = {};
        *reinterpret_cast<void**>(query + 264) = blocks;
        out.push_back(EntryPoint<uint32_t (*)(void*, void*)>(igcl, "ctlPixelTransformationGetConfig")(outputs[o], query));
        for (size_t offset : {size_t{256}, size_t{8}, size_t{12}, size_t{20}, size_t{144 + 8}, size_t{144 + 12}, size_t{144 + 20}})
            out.push_back(offset == 256 ? U32(query, offset) : U32(blocks, offset));
    }
    out.push_back(EntryPoint<uint32_t (*)(void*)>(igcl, "ctlClose")(api));
    Slot("FreeLibrary", &FreeLibrary)(igcl);

    const CLSID& kServer = torvex::kGfxServerClass;
    const IID& kInterface = torvex::kGfxServerInterface;
    CaptureServerShape* server = nullptr;
    out.push_back(Slot("CoCreateInstance", &CoCreateInstance)(kServer, nullptr, 23, kInterface, reinterpret_cast<void**>(&server)));
    uint32_t id = 0, status = 7;
    BSTR name = SysAllocString(L"\\\\.\\DISPLAY1");
    out.push_back(server->DisplayIdFromName(name, 0, &id, &status));
    SysFreeString(name);
    uint8_t request[12] = {1, 0, 0, 0, static_cast<uint8_t>(id), 0, 0, 0, 2};
    out.insert(out.end(), {id, status, server->GetGeneric(kInterface, sizeof(request), request, &status), status});
    out.insert(out.end(), request, request + sizeof(request));
    server->Release();
    return out;
}

TEST(VendorCapture, WhatTheLiveLibrariesAnsweredIsWhatTheirReplayAnswers) {
    ImportPatch load = torvex::test::Redirect("LoadLibraryW", &Load), loadEx = torvex::test::Redirect("LoadLibraryExW", &LoadEx),
                proc = torvex::test::Redirect("GetProcAddress", &Resolve), free = torvex::test::Redirect("FreeLibrary", &Free),
                create = torvex::test::Redirect("CoCreateInstance", &Create);
    g_patches[0] = &load, g_patches[1] = &loadEx, g_patches[2] = &proc, g_patches[3] = &free;
    Profile captured;
    Numbers live;
    {
        torvex::sim::Machine machine(torvex::test::TorvexModule(), {nullptr, &captured, nullptr, true});
        live = Drive();
        torvex::test::ExpectNothingHeld();
    }
    EXPECT_EQ(g_server.refs, 0) << "the live server is released with the last simulated one";
    ASSERT_GT(live.size(), 60u);
    EXPECT_EQ(Numbers(live.begin(), live.begin() + 4), (Numbers{0, 0, 0, 3})) << "create, adapters, count, the first adapter";
    // Kept in the current form, with what each entry point answered for its arguments.
    const Profile replayed = Profile::Parse(captured.Dump(), "captured");
    const Json& vendor = replayed.doc()["vendor"];
    EXPECT_EQ(vendor["atiadlxx.dll"]["adapters"], (Json{{"indices", {3, 7}}}));
    EXPECT_EQ(vendor["atiadlxx.dll"]["colors"]["7 5 16"], (Json{{"current", 1607}, {"default", 5}, {"min", -16}, {"max", 16000}, {"step", 1}}));
    EXPECT_EQ(vendor["ControlLib.dll"]["devices"][0]["outputs"][1], (Json{{"flags", 1}, {"config_result", 0x40000002}}));
    EXPECT_EQ(vendor["graphics_server"]["displays"]["\\\\.\\DISPLAY1"], (Json{{"id", 9}, {"status", 0}}));
    Profile replay = replayed;
    torvex::sim::Machine machine(torvex::test::TorvexModule(), {&replay, nullptr, nullptr});
    EXPECT_EQ(Drive(), live);
    torvex::test::ExpectNothingHeld();
}

// The library loads the Intel library only to initialise it; capture then reads, as a set would, its devices,
// outputs, their properties and blocks, through the same calls.
TEST(VendorCapture, TheIntelLibraryIsReadAsASetWouldReadIt) {
    ImportPatch loadEx = torvex::test::Redirect("LoadLibraryExW", &LoadEx), proc = torvex::test::Redirect("GetProcAddress", &Resolve),
                free = torvex::test::Redirect("FreeLibrary", &Free);
    g_patches[1] = &loadEx, g_patches[2] = &proc, g_patches[3] = &free;
    Profile captured;
    {
        torvex::sim::Machine machine(torvex::test::TorvexModule(), {nullptr, &captured, nullptr, true});
        HMODULE igcl = Slot("LoadLibraryExW", &LoadLibraryExW)(L"ControlLib.dll", nullptr, 0xA00);
        uint8_t args[36] = {36};
        void* api = nullptr;
        ASSERT_EQ(EntryPoint<uint32_t (*)(void*, void**)>(igcl, "ctlInit")(args, &api), 0u);
        ASSERT_EQ(EntryPoint<uint32_t (*)(void*)>(igcl, "ctlClose")(api), 0u);
        Slot("FreeLibrary", &FreeLibrary)(igcl);
        EXPECT_FALSE(captured.doc()["vendor"]["ControlLib.dll"].contains("devices"));
        machine.RecordVendorPresence();
        torvex::test::ExpectNothingHeld();
    }
    EXPECT_EQ(captured.doc()["vendor"]["ControlLib.dll"]["devices"],
              Json::parse(R"([{"outputs": [{"flags": 3, "blocks": [{"id": 40, "type": 1, "samples": 4, "channels": 0},
                                                                   {"id": 41, "type": 3, "samples": 5, "channels": 0}]},
                                           {"flags": 1, "config_result": 1073741826}]}])"));
}

}  // namespace
