// The Hal API: one flat set of exports over the numbered device classes.
// Each export checks what the frame owns and forwards to the class's module.
#include "torvex.h"

#include <array>

#include "devices/audio.h"
#include "devices/disk.h"
#include "display/display_color.h"
#include "enclave/enclave.h"
#include "wifi/wifi.h"

namespace {

constexpr uint32_t kHighestClass = 20;

// Query dispatch: classes without a device get (code, buffer, size, returned),
// classes with one get the device first.
using PlainQuery = uint32_t (*)(uint32_t, void*, uint32_t, uint32_t*);
using DeviceQuery = uint32_t (*)(void*, uint32_t, void*, uint32_t, uint32_t*);

struct QueryRoute {
    PlainQuery plain = nullptr;
    DeviceQuery withDevice = nullptr;
};

uint32_t CpuQuery(uint32_t code, void* buffer, uint32_t size, uint32_t* returned) {
    return CpuQueryInformation(static_cast<int32_t>(code), buffer, size, returned);
}

uint32_t GpuQuery(void* list, uint32_t code, void* buffer, uint32_t size, uint32_t* returned) {
    return GpQueryInforamtion(list, static_cast<int32_t>(code), buffer, size, returned);
}

constexpr std::array<QueryRoute, kHighestClass + 1> MakeQueryRoutes() {
    std::array<QueryRoute, kHighestClass + 1> routes{};
    routes[HAL_CLASS_CPU].plain = CpuQuery;
    routes[HAL_CLASS_WIFI].withDevice = WifiQueryInformation;
    routes[HAL_CLASS_MAINBOARD].plain = MbQueryInformation;
    routes[HAL_CLASS_AUDIO].withDevice = AudioQueryInformation;
    routes[HAL_CLASS_GPU].withDevice = GpuQuery;
    routes[HAL_CLASS_DISK].withDevice = DiskQueryInformation;
    routes[HAL_CLASS_BATTERY].plain = BtQueryInformation;
    routes[HAL_CLASS_MEMORY].withDevice = MmQueryInformation;
    routes[HAL_CLASS_DISPLAY].withDevice = DisplayColorQuery;
    routes[HAL_CLASS_DRIVER].withDevice = DeviceDriverQueryInformation;
    return routes;
}

const std::array<QueryRoute, kHighestClass + 1> kQueryRoutes = MakeQueryRoutes();

}  // namespace

extern "C" {

uint32_t HalInit(HalDeviceType type, void** out) {
    switch (type) {
    case HAL_CLASS_CPU:
        return CpuInit();
    case HAL_CLASS_MAINBOARD:
    case HAL_CLASS_BATTERY:
        return 1;
    case HAL_CLASS_ENCLAVE:
        if (EnclaveLoad() != 0) return 1;
        break;  // a failed load falls into the general path, where 17 has no entry
    default:
        break;
    }
    if (out == nullptr || type < 1 || type > kHighestClass) return 0;

    uint32_t result = 0;
    switch (type) {
    case HAL_CLASS_WIFI: result = WifiInit(out); break;
    case HAL_CLASS_AUDIO: result = AudioInit(out); break;
    case HAL_CLASS_GPU: result = GpInit(out); break;
    case HAL_CLASS_DISK: result = DiskInit(out); break;
    case HAL_CLASS_MEMORY: result = MmInit(out); break;
    case HAL_CLASS_DISPLAY: result = DisplayColorInit(out); break;
    case HAL_CLASS_DRIVER: result = DeviceDriverInit(out); break;
    default: break;
    }
    return result != 0 ? 1 : 0;
}

uint32_t HalOpenDevice(HalDeviceType type, void* device) {
    if (type != HAL_CLASS_DISK || device == nullptr) return 0;
    return DiskOpen(device);
}

uint32_t HalCloseDevice(HalDeviceType type, void* device) {
    switch (type) {
    case HAL_CLASS_WIFI:
        return WifiClose(device);
    case HAL_CLASS_AUDIO:
        return AudioClose();
    case HAL_CLASS_DISK:
        return DiskClose(device);
    default:
        return 0;
    }
}

uint32_t HalRead(HalDeviceType type, void* device, uint32_t* offset, void* buffer, uint32_t size,
                 uint32_t* bytesRead) {
    return type == HAL_CLASS_DISK ? DiskRead(device, offset, buffer, size, bytesRead) : 0;
}

uint32_t HalWrite(HalDeviceType type, void* device, uint32_t* offset, const void* buffer, uint32_t size,
                  uint32_t* bytesWritten) {
    return type == HAL_CLASS_DISK ? DiskWrite(device, offset, buffer, size, bytesWritten) : 0;
}

uint32_t HalQueryInformation(HalDeviceType type, void* device, uint32_t code, void* buffer, uint32_t size,
                             uint32_t* returned) {
    if (type > kHighestClass) return 0;
    if (type == HAL_CLASS_ENCLAVE) return EnclaveQueryLength(code, buffer, size, returned);
    const QueryRoute& route = kQueryRoutes[type];
    if (route.plain != nullptr) return route.plain(code, buffer, size, returned);
    if (route.withDevice != nullptr) return route.withDevice(device, code, buffer, size, returned);
    return 0;
}

uint32_t HalSetInformation(HalDeviceType type, void* device, uint32_t code, void* buffer, uint32_t size,
                           uint32_t* returned, uint32_t extra) {
    switch (type) {
    case HAL_CLASS_WIFI:
        return device != nullptr ? WifiSetInformation(device, code, buffer, size) : 0;
    case HAL_CLASS_AUDIO:
        return device != nullptr ? AudioSetInformation(device, code, buffer, size) : 0;
    case HAL_CLASS_BATTERY:
        return BtSetInformation(code, buffer, size, returned);
    case HAL_CLASS_DISPLAY:
        return DisplayColorSet(device, code, buffer, size, returned, extra);
    default:
        return 0;
    }
}

uint32_t HalControl(HalDeviceType type, void* /*device*/, uint32_t code, const void* input, uint32_t inputSize,
                    void* output, uint32_t outputSize, uint32_t* returned) {
    if (type != HAL_CLASS_ENCLAVE) return 0;
    return EnclaveControl(code, input, inputSize, output, outputSize, returned);
}

uint32_t HalSetCallback(HalDeviceType type, uint32_t which, void* callback) {
    if (type != HAL_CLASS_AUDIO || callback == nullptr) return 0;
    return AudioSetCallback(which, callback);
}

}  // extern "C"
