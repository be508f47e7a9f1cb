// GPU information (class 6): adapters from the fake device tree, a fake DXGI
// loaded in place of the system's, and the fake WMI; screen facts from Wine.
#include <windows.h>
#include <dxgi.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "devices/device_property_keys.h"
#include "support/fake_com.h"
#include "support/fake_graphics.h"
#include "support/fake_setupapi.h"
#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::ComObject;
using torvex::test::FakeDevice;
using torvex::test::kDisplayClass;
using torvex::test::FakeDeviceTree;
using torvex::test::FakeWmi;
using torvex::test::ImportPatch;
using torvex::test::Redirect;
using torvex::test::WmiValue;

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";

class FakeAdapter : public ComObject<IDXGIAdapter> {
public:
    FakeAdapter(const std::wstring& name, uint64_t memory) {
        wcsncpy(desc_.Description, name.c_str(), 127);
        desc_.DedicatedVideoMemory = static_cast<SIZE_T>(memory);
    }
    HRESULT STDMETHODCALLTYPE GetDesc(DXGI_ADAPTER_DESC* desc) override {
        *desc = desc_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE EnumOutputs(UINT, IDXGIOutput**) override { return DXGI_ERROR_NOT_FOUND; }
    HRESULT STDMETHODCALLTYPE CheckInterfaceSupport(REFGUID, LARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetPrivateData(REFGUID, UINT, const void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetPrivateDataInterface(REFGUID, const IUnknown*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPrivateData(REFGUID, UINT*, void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetParent(REFIID, void**) override { return E_NOTIMPL; }

private:
    DXGI_ADAPTER_DESC desc_{};
};

class FakeFactory : public ComObject<IDXGIFactory> {
public:
    explicit FakeFactory(std::vector<std::pair<std::wstring, uint64_t>> adapters) : adapters_(std::move(adapters)) {}
    HRESULT STDMETHODCALLTYPE EnumAdapters(UINT index, IDXGIAdapter** adapter) override {
        if (index >= adapters_.size()) return DXGI_ERROR_NOT_FOUND;
        *adapter = new FakeAdapter(adapters_[index].first, adapters_[index].second);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE MakeWindowAssociation(HWND, UINT) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetWindowAssociation(HWND*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateSwapChain(IUnknown*, DXGI_SWAP_CHAIN_DESC*, IDXGISwapChain**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE CreateSoftwareAdapter(HMODULE, IDXGIAdapter**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetPrivateData(REFGUID, UINT, const void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetPrivateDataInterface(REFGUID, const IUnknown*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPrivateData(REFGUID, UINT*, void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetParent(REFIID, void**) override { return E_NOTIMPL; }

private:
    std::vector<std::pair<std::wstring, uint64_t>> adapters_;
};

// The fake dxgi.dll: what LoadLibraryW of "<system>\dxgi.dll" gives.
struct FakeDxgi {
    std::vector<std::pair<std::wstring, uint64_t>> adapters;
    std::wstring loadedPath;
    int loaded = 0;
};
FakeDxgi* g_dxgi = nullptr;
ImportPatch* g_procOriginal = nullptr;
ImportPatch* g_freeOriginal = nullptr;
const HMODULE kFakeDxgi = reinterpret_cast<HMODULE>(0xD8610000);

HRESULT WINAPI FakeCreateFactory(REFIID, void** out) {
    *out = static_cast<IDXGIFactory*>(new FakeFactory(g_dxgi->adapters));
    return S_OK;
}
HMODULE WINAPI FakeLoadLibraryW(LPCWSTR path) {
    g_dxgi->loadedPath = path;
    ++g_dxgi->loaded;
    return kFakeDxgi;
}
FARPROC WINAPI FakeGetProcAddress(HMODULE module, LPCSTR name) {
    if (module != kFakeDxgi) return g_procOriginal->Original<decltype(&GetProcAddress)>()(module, name);
    return std::string(name) == "CreateDXGIFactory1" ? reinterpret_cast<FARPROC>(&FakeCreateFactory) : nullptr;
}
BOOL WINAPI FakeFreeLibrary(HMODULE module) {
    if (module != kFakeDxgi) return g_freeOriginal->Original<decltype(&FreeLibrary)>()(module);
    --g_dxgi->loaded;
    return TRUE;
}

class GpuTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_dxgi = &dxgi;
        g_procOriginal = &proc;
        g_freeOriginal = &freeLibrary;
    }
    void TearDown() override {
        EXPECT_EQ(dxgi.loaded, 0) << "dxgi.dll was not freed";
        EXPECT_EQ(tree.OpenSets(), 0);
        EXPECT_EQ(wmi.LiveObjects(), 0);
        std::free(list);
        g_dxgi = nullptr;
    }
    void Adapter(const std::wstring& id, const std::wstring& name, const wchar_t* dacType, uint32_t problem = 0) {
        tree.Add(FakeDevice(kDisplayClass).Ids({id}).Desc(name).Problem(problem));
        if (dacType != nullptr)
            wmi.On(kCimv2, L"SELECT AdapterDACType FROM Win32_VideoController WHERE Caption ='" + name + L"'",
                   {{{L"AdapterDACType", WmiValue::Str(dacType)}}});
        wmi.On(kCimv2, L"SELECT CurrentRefreshRate FROM Win32_VideoController WHERE Caption ='" + name + L"'",
               {{{L"CurrentRefreshRate", WmiValue::U32(60)}}});
    }
    GpuAdapterList* Init() {
        void* out = nullptr;
        EXPECT_EQ(HalInit(HAL_CLASS_GPU, &out), 1u);
        list = static_cast<GpuAdapterList*>(out);
        return list;
    }
    std::pair<uint32_t, std::wstring> Text(int32_t code) {
        wchar_t buffer[300];
        uint32_t written = 0;
        const uint32_t result = GpQueryInforamtion(list, code, buffer, sizeof(buffer), &written);
        return {result, result != 0 ? std::wstring(buffer, written / 2) : std::wstring()};
    }
    std::pair<uint32_t, uint32_t> Number(int32_t code) {
        uint32_t value = 0xEEEEEEEE;
        uint32_t written = 0;
        const uint32_t result = GpQueryInforamtion(list, code, &value, 4, &written);
        return {result, value};
    }

    FakeDeviceTree tree;
    FakeWmi wmi;
    FakeDxgi dxgi;
    GpuAdapterList* list = nullptr;
    ImportPatch load = Redirect("LoadLibraryW", &FakeLoadLibraryW);
    ImportPatch proc = Redirect("GetProcAddress", &FakeGetProcAddress);
    ImportPatch freeLibrary = Redirect("FreeLibrary", &FakeFreeLibrary);
};

TEST_F(GpuTest, AnIntegratedAdapterAlone) {
    Adapter(L"PCI\\VEN_8086&DEV_9A49", L"Intel(R) Iris(R) Xe Graphics", L"Internal Integrated RAMDAC", 22);
    tree.Add(FakeDevice(kDisplayClass).Ids({L"ROOT\\BasicDisplay"}).Desc(L"Basic Display"));
    dxgi.adapters = {{L"Intel(R) Iris(R) Xe Graphics", 128ull << 20}};
    const std::wstring name = L"Intel(R) Iris(R) Xe Graphics";
    wmi.On(kCimv2, L"SELECT Status FROM Win32_VideoController WHERE Caption ='" + name + L"'",
           {{{L"Status", WmiValue::Str(L"OK")}}});
    wmi.On(kCimv2, L"SELECT DriverDate FROM Win32_VideoController WHERE Caption ='" + name + L"'",
           {{{L"DriverDate", WmiValue::Str(L"20230517000000.000000-000")}}});

    ASSERT_NE(Init(), nullptr);
    EXPECT_NE(dxgi.loadedPath.find(L"\\dxgi.dll"), std::wstring::npos);
    EXPECT_EQ(list->size, 560u);
    ASSERT_EQ(list->count, 1u) << "IDs not beginning with PCI are left out";
    const GpuAdapterRecord& record = list->records[0];
    EXPECT_EQ(record.isDiscrete, 0u);
    EXPECT_EQ(record.reserved, 0u);
    EXPECT_EQ(record.index, 0u);
    EXPECT_EQ(record.hasRefreshRate, 1);
    EXPECT_EQ(record.dedicatedMemoryMiB, 128u);
    EXPECT_EQ(std::wstring(record.name), name);

    for (int32_t code : {0, 1, 2, 3, 8, 20, 21, 24}) EXPECT_EQ(GpQueryInforamtion(list, code, nullptr, 0, nullptr), 0u);
    for (int32_t code : {0, 1, 2, 3}) EXPECT_EQ(Text(code).first, 0u) << code;
    EXPECT_EQ(Number(HAL_GPU_DISCRETE_MEMORY_MIB).first, 0u);
    EXPECT_EQ(Text(HAL_GPU_INTEGRATED_NAME), std::make_pair(1u, name));
    EXPECT_EQ(Text(12), std::make_pair(1u, name)) << "8-15 repeat 0-7";
    EXPECT_EQ(Text(HAL_GPU_INTEGRATED_STATUS), std::make_pair(1u, std::wstring(L"OK")));
    EXPECT_EQ(Text(HAL_GPU_INTEGRATED_DRIVER_DATE), std::make_pair(1u, std::wstring(L"20230517")));
    EXPECT_EQ(Text(HAL_GPU_INTEGRATED_DRIVER_VERSION).first, 0u) << "no version reported";
    EXPECT_EQ(Number(HAL_GPU_INTEGRATED_MEMORY_MIB), std::make_pair(1u, 128u));
    EXPECT_EQ(Number(25), std::make_pair(1u, 128u));
    EXPECT_EQ(Number(HAL_GPU_INTEGRATED_PROBLEM_CODE), std::make_pair(1u, 22u));
    EXPECT_EQ(Number(HAL_GPU_ADAPTER_COUNT), std::make_pair(1u, 1u));
}

TEST_F(GpuTest, TheLastAdapterOfEachKindAnswersAndEachDxgiNameServesOnce) {
    Adapter(L"PCI\\VEN_10DE&DEV_0001", L"Twin GPU", L"", 0);
    Adapter(L"PCI\\VEN_8086&DEV_0002", L"Intel UHD", L"INTEGRATED RAMDAC", 0);
    Adapter(L"PCI\\VEN_10DE&DEV_0003", L"Twin GPU", nullptr, 0);
    dxgi.adapters = {{L"Twin GPU", 4096ull << 20}, {L"Twin GPU", 1ull << 20}, {L"Intel UHD", 0}};
    ASSERT_NE(Init(), nullptr);
    ASSERT_EQ(list->count, 3u);
    EXPECT_EQ(list->records[0].dedicatedMemoryMiB, 4096u);
    EXPECT_EQ(list->records[2].dedicatedMemoryMiB, 0u) << "the first adapter of the name took the memory";
    EXPECT_EQ(list->records[0].isDiscrete, 1u);
    EXPECT_EQ(list->records[1].isDiscrete, 0u);
    EXPECT_EQ(list->records[2].isDiscrete, 1u);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(list->records[i].index, i);
    EXPECT_EQ(Number(HAL_GPU_DISCRETE_MEMORY_MIB), std::make_pair(1u, 0u)) << "the last discrete record answers";
    EXPECT_EQ(Number(HAL_GPU_ADAPTER_COUNT), std::make_pair(1u, 3u));
}

TEST_F(GpuTest, WithoutSetupApiAdaptersTheSmallestDxgiNameIsTheList) {
    dxgi.adapters = {{L"b adapter", 2048ull << 20}, {L"B adapter", 1024ull << 20}};
    ASSERT_NE(Init(), nullptr);
    ASSERT_EQ(list->count, 1u);
    EXPECT_EQ(std::wstring(list->records[0].name), L"B adapter");
    EXPECT_EQ(list->records[0].dedicatedMemoryMiB, 1024u);
    EXPECT_EQ(list->records[0].isDiscrete, 1u);
    EXPECT_EQ(list->records[0].hasRefreshRate, 0);
}

TEST_F(GpuTest, AnApostropheBreaksTheLookupsButNotTheList) {
    tree.Add(FakeDevice(kDisplayClass).Ids({L"PCI\\VEN_1002"}).Desc(L"Bob's GPU"));
    ASSERT_NE(Init(), nullptr);
    EXPECT_EQ(list->records[0].isDiscrete, 1u);
    EXPECT_EQ(list->records[0].hasRefreshRate, 0);
    bool asked = false;
    for (const auto& query : wmi.Queries())
        asked |= query.text == L"SELECT AdapterDACType FROM Win32_VideoController WHERE Caption ='Bob's GPU'";
    EXPECT_TRUE(asked);
}

TEST_F(GpuTest, StringsNeedRoomForATerminatorThatIsNotWritten) {
    Adapter(L"PCI\\VEN_10DE", L"GPU", L"", 0);
    ASSERT_NE(Init(), nullptr);
    uint8_t buffer[16];
    std::memset(buffer, 0xEE, sizeof(buffer));
    uint32_t written = 99;
    EXPECT_EQ(GpQueryInforamtion(list, HAL_GPU_DISCRETE_NAME, buffer, 7, &written), 0u);
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_EQ(written, 99u);
    ASSERT_EQ(GpQueryInforamtion(list, HAL_GPU_DISCRETE_NAME, buffer, 8, &written), 1u);
    EXPECT_EQ(written, 6u);
    EXPECT_EQ(buffer[6], 0xEE);
    EXPECT_EQ(buffer[7], 0xEE);
    for (int32_t code : {18, 30, 40, -1}) EXPECT_EQ(GpQueryInforamtion(list, code, buffer, 16, &written), 0u);
    EXPECT_EQ(GpQueryInforamtion(list, HAL_GPU_ADAPTER_COUNT, buffer, 3, &written), 0u);
}

TEST_F(GpuTest, NoAdapterAtAllSucceedsWithoutAList) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_GPU, &out), 1u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(GpInit(nullptr), 0u);
}

// Wine without a GPU: no PCI display adapter and DXGI fails, so there is no
// list; the screen facts answer from user32 on any list.
TEST(GpuOnWine, ScreenFactsAgreeWithUser32) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_GPU, &out), 1u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));

    HalListHeader empty{8, 0};
    uint32_t value = 0;
    uint32_t written = 0;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_GPU, &empty, HAL_GPU_SCREEN_WIDTH, &value, 4, &written), 1u);
    EXPECT_EQ(value, static_cast<uint32_t>(GetSystemMetrics(SM_CXSCREEN)));
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_GPU, &empty, HAL_GPU_SCREEN_HEIGHT, &value, 4, &written), 1u);
    EXPECT_EQ(value, static_cast<uint32_t>(GetSystemMetrics(SM_CYSCREEN)));
    DEVMODEW mode{};
    mode.dmSize = sizeof(mode);
    ASSERT_TRUE(EnumDisplaySettingsW(nullptr, ENUM_CURRENT_SETTINGS, &mode));
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_GPU, &empty, HAL_GPU_REFRESH_RATE_HZ, &value, 4, &written), 1u);
    EXPECT_EQ(value, mode.dmDisplayFrequency);
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_GPU, &empty, HAL_GPU_COLOR_DEPTH_BPP, &value, 4, &written), 1u);
    EXPECT_EQ(value, mode.dmBitsPerPel);
    wchar_t text[32];
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_GPU, &empty, HAL_GPU_RESOLUTION_TEXT, text, sizeof(text), &written), 1u);
    EXPECT_EQ(std::wstring(text, written / 2),
              std::to_wstring(GetSystemMetrics(SM_CXSCREEN)) + L"x" + std::to_wstring(GetSystemMetrics(SM_CYSCREEN)));
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_GPU, &empty, HAL_GPU_DISCRETE_NAME, text, sizeof(text), &written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_GPU, &empty, HAL_GPU_ADAPTER_COUNT, &value, 4, &written), 1u);
    EXPECT_EQ(value, 0u);
}

}  // namespace
