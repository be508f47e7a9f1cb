// GPU information (class 6): the adapter list built once at GpInit from the
// Setup API, DXGI and WMI, and live facts about the adapters and the screen.
#include <windows.h>
#include <dxgi.h>
#include <shlwapi.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/codec.h"
#include "common/win_resource.h"
#include "torvex.h"
#include "wmi/wmi.h"

namespace {

using torvex::ComPtr;
using torvex::wmi::Session;

constexpr GUID kDisplayClass = {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
constexpr IID kIidDxgiFactory = {0x7B7166EC, 0x21C7, 0x44AE, {0xB2, 0x1A, 0xC9, 0xAE, 0x32, 0x1A, 0xE3, 0x69}};
constexpr size_t kNameChars = sizeof(GpuAdapterRecord::name) / sizeof(wchar_t);
constexpr size_t kDriverDateChars = 8;

struct Adapter {
    std::wstring name;
    uint32_t memoryMiB = 0;
};

using CreateFactoryFn = HRESULT(WINAPI*)(REFIID, void**);

// Descriptions of the DXGI adapters with their dedicated memory in MiB. The
// map orders names by UTF-16 code units, and a name already present keeps
// its first value. True when at least one description was read.
bool ReadDxgiAdapters(std::map<std::wstring, uint32_t>& adapters) {
    wchar_t directory[MAX_PATH] = {};
    GetSystemDirectoryW(directory, MAX_PATH);
    torvex::Library dxgi(LoadLibraryW((std::wstring(directory) + L"\\dxgi.dll").c_str()));
    if (!dxgi) return false;
    auto create = reinterpret_cast<CreateFactoryFn>(
        reinterpret_cast<void*>(GetProcAddress(dxgi.get(), "CreateDXGIFactory1")));
    if (create == nullptr)
        create = reinterpret_cast<CreateFactoryFn>(reinterpret_cast<void*>(GetProcAddress(dxgi.get(), "CreateDXGIFactory")));
    if (create == nullptr) return false;
    ComPtr<IDXGIFactory> factory;
    if (FAILED(create(kIidDxgiFactory, factory.put_void())) || !factory) return false;

    bool described = false;
    for (UINT i = 0;; ++i) {
        ComPtr<IDXGIAdapter> adapter;
        if (FAILED(factory->EnumAdapters(i, adapter.put())) || !adapter) break;
        DXGI_ADAPTER_DESC desc{};
        if (SUCCEEDED(adapter->GetDesc(&desc))) {
            described = true;
            adapters.emplace(std::wstring(desc.Description, wcsnlen(desc.Description, 128)),
                             static_cast<uint32_t>(desc.DedicatedVideoMemory >> 20));
        } else {
            adapters.emplace(std::wstring(), 0);
        }
    }
    return described;
}

std::vector<Adapter> CollectAdapters() {
    std::vector<Adapter> adapters;
    DeviceInformention devices;
    for (const auto& id : devices.GetDeviceHardwareId(kDisplayClass)) {
        if (id.rfind(L"PCI", 0) != 0) continue;
        adapters.push_back({devices.GetDeviceStrInfoByHardwareId(id, kDisplayClass, EnumDeviceProperty::DeviceDesc), 0});
    }
    std::map<std::wstring, uint32_t> dxgi;
    if (ReadDxgiAdapters(dxgi)) {
        // Each DXGI description serves one adapter: of two adapters with the
        // same name only the first gets the memory size. Intended.
        for (Adapter& adapter : adapters) {
            auto it = dxgi.find(adapter.name);
            if (it == dxgi.end()) continue;
            adapter.memoryMiB = it->second;
            dxgi.erase(it);
        }
    }
    if (adapters.empty() && !dxgi.empty()) adapters.push_back({dxgi.begin()->first, dxgi.begin()->second});
    return adapters;
}

std::wstring VideoControllerQuery(const wchar_t* property, const std::wstring& name) {
    return std::wstring(L"SELECT ") + property + L" FROM Win32_VideoController WHERE Caption ='" + name + L"'";
}

// Integrated when AdapterDACType mentions "Integrated" in any letter case;
// every other answer, none included, counts as discrete.
uint32_t IsDiscrete(const std::wstring& name) {
    const std::wstring dacType = Session(torvex::wmi::kCimv2)
                                     .First<std::wstring>(VideoControllerQuery(L"AdapterDACType", name), L"AdapterDACType")
                                     .value_or(std::wstring());
    return !dacType.empty() && StrStrIW(dacType.c_str(), L"Integrated") != nullptr ? 0 : 1;
}

// A refresh rate that is there and not 0.
uint8_t HasRefreshRate(const std::wstring& name) {
    const std::optional<uint32_t> rate =
        Session(torvex::wmi::kCimv2).Number(VideoControllerQuery(L"CurrentRefreshRate", name), L"CurrentRefreshRate");
    return rate.value_or(0) != 0 ? 1 : 0;
}

// The last record of the kind, or null.
const GpuAdapterRecord* LastAdapter(const GpuAdapterList* list, bool discrete) {
    const GpuAdapterRecord* found = nullptr;
    for (uint32_t i = 0; i < list->count; ++i)
        if ((list->records[i].isDiscrete != 0) == discrete) found = &list->records[i];
    return found;
}

std::wstring RecordName(const GpuAdapterRecord& record) {
    return std::wstring(record.name, wcsnlen(record.name, kNameChars));
}

std::wstring MonitorIdentifier() {
    const Session cimv2(torvex::wmi::kCimv2);
    const auto text = [&](const wchar_t* query, const wchar_t* property) {
        return StringProc::WStringToString(cimv2.First<std::wstring>(query, property).value_or(std::wstring()));
    };
    const std::string id = text(L"SELECT PNPDeviceID FROM Win32_DesktopMonitor WHERE PNPDeviceID IS NOT NULL", L"PNPDeviceID");
    std::string result;
    if (!id.empty()) {
        // DISPLAY\ABC1234\5&1a2b gives ABC1234.
        const size_t first = id.find('\\');
        const size_t second = first == std::string::npos ? std::string::npos : id.find('\\', first + 1);
        if (second != std::string::npos) result = id.substr(first + 1, second - first - 1);
    } else {
        result = text(L"SELECT Caption FROM Win32_DesktopMonitor", L"Caption");
    }
    return StringProc::StringToWString(result);
}

// String answers of codes 0-17; false when there is none.
bool StringAnswer(const GpuAdapterList* list, uint32_t code, std::wstring& text) {
    if (code == HAL_GPU_MONITOR_ID) {
        text = MonitorIdentifier();
        return !text.empty();
    }
    if (code == HAL_GPU_RESOLUTION_TEXT) {
        const int width = GetSystemMetrics(SM_CXSCREEN);
        const int height = GetSystemMetrics(SM_CYSCREEN);
        if (width == 0 || height == 0) return false;
        text = std::to_wstring(width) + L"x" + std::to_wstring(height);
        return true;
    }
    const uint32_t fact = code % 8;  // 8-15 repeat 0-7
    const GpuAdapterRecord* record = LastAdapter(list, fact < 4);
    if (record == nullptr) return false;
    const std::wstring name = RecordName(*record);
    static const wchar_t* const kProperties[] = {nullptr, L"Status", L"DriverVersion", L"DriverDate"};
    if (fact % 4 == 0) {
        text = name;
    } else {
        const wchar_t* property = kProperties[fact % 4];
        text = Session(torvex::wmi::kCimv2)
                   .First<std::wstring>(VideoControllerQuery(property, name), property)
                   .value_or(std::wstring());
        if (fact % 4 == 3) text = text.size() < kDriverDateChars ? std::wstring() : text.substr(0, kDriverDateChars);
    }
    return !text.empty();
}

bool CurrentDisplayMode(DEVMODEW& mode) {
    mode = DEVMODEW{};
    mode.dmSize = sizeof(mode);
    return EnumDisplaySettingsW(nullptr, ENUM_CURRENT_SETTINGS, &mode) != FALSE;
}

// Numeric answers of codes 19-29; false when there is none.
bool NumberAnswer(const GpuAdapterList* list, uint32_t code, uint32_t& value) {
    DEVMODEW mode;
    switch (code) {
    case HAL_GPU_ADAPTER_COUNT:
        value = list->count;
        return true;
    case HAL_GPU_DISCRETE_MEMORY_MIB:
    case 24:
    case HAL_GPU_INTEGRATED_MEMORY_MIB:
    case 25:
    case HAL_GPU_DISCRETE_PROBLEM_CODE:
    case HAL_GPU_INTEGRATED_PROBLEM_CODE: {
        const bool discrete = code == HAL_GPU_DISCRETE_MEMORY_MIB || code == 24 || code == HAL_GPU_DISCRETE_PROBLEM_CODE;
        const GpuAdapterRecord* record = LastAdapter(list, discrete);
        if (record == nullptr) return false;
        if (code == HAL_GPU_DISCRETE_PROBLEM_CODE || code == HAL_GPU_INTEGRATED_PROBLEM_CODE) {
            DeviceInformention devices;
            value = devices.GetDeviceULONGInfoByDesc(RecordName(*record), kDisplayClass, EnumDeviceProperty::ProblemCode);
        } else {
            value = record->dedicatedMemoryMiB;
        }
        return true;
    }
    case HAL_GPU_SCREEN_WIDTH:
        value = static_cast<uint32_t>(GetSystemMetrics(SM_CXSCREEN));
        return value != 0;
    case HAL_GPU_SCREEN_HEIGHT:
        value = static_cast<uint32_t>(GetSystemMetrics(SM_CYSCREEN));
        return value != 0;
    case HAL_GPU_REFRESH_RATE_HZ:
        if (!CurrentDisplayMode(mode)) return false;
        value = mode.dmDisplayFrequency;
        return value != 0;
    case HAL_GPU_COLOR_DEPTH_BPP:
        if (!CurrentDisplayMode(mode)) return false;
        value = mode.dmBitsPerPel;
        return value != 0;
    default:
        return false;
    }
}

}  // namespace

uint32_t GpInit(void** out) {
    if (out == nullptr) return 0;
    const std::vector<Adapter> adapters = CollectAdapters();
    const uint64_t count = adapters.size();
    // No adapter, or a list too large for its size field: success without a list.
    if (count == 0 || !torvex::FitsSizeField(torvex::ListBytes<GpuAdapterList>(count))) return 1;
    auto* list = torvex::NewList<GpuAdapterList>(count);
    *out = list;
    if (list == nullptr) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        GpuAdapterRecord& record = list->records[i];
        record.reserved = 0;
        record.index = i;
        record.dedicatedMemoryMiB = adapters[i].memoryMiB;
        // A name too long for its field ends the build; the partly filled list stays in *out.
        if (adapters[i].name.size() >= kNameChars) return 0;
        std::wmemcpy(record.name, adapters[i].name.c_str(), adapters[i].name.size() + 1);
        record.hasRefreshRate = HasRefreshRate(adapters[i].name);
        record.isDiscrete = IsDiscrete(adapters[i].name);
    }
    return 1;
}

uint32_t GpQueryInforamtion(void* list, int32_t code, void* buffer, uint32_t size, uint32_t* returned) {
    if (list == nullptr || buffer == nullptr || returned == nullptr) return 0;
    const auto* adapters = static_cast<const GpuAdapterList*>(list);
    const auto unsignedCode = static_cast<uint32_t>(code);
    if (unsignedCode <= HAL_GPU_RESOLUTION_TEXT) {
        std::wstring text;
        if (!StringAnswer(adapters, unsignedCode, text)) return 0;
        return torvex::PutWideText(text, buffer, size, returned, torvex::Room::Terminator);
    }
    if (unsignedCode >= HAL_GPU_ADAPTER_COUNT && unsignedCode <= HAL_GPU_COLOR_DEPTH_BPP) {
        uint32_t value = 0;
        if (!NumberAnswer(adapters, unsignedCode, value) || size < sizeof(value)) return 0;
        return torvex::PutValue(buffer, returned, value);
    }
    return 0;
}
