/*
 * torvex.h - the public interface of Torvex.dll, the hardware abstraction
 * layer of the PC-management suite (Windows x64).
 *
 * The flat Hal API and the module entry points are plain C functions and can
 * be used from C and C++. Records handed out by the library are allocated
 * with the malloc of ucrtbase.dll (the C runtime of programs built with
 * Microsoft's toolchain) and belong to the caller, who releases them with
 * that runtime's free. Every function returns a 32-bit value in which 0
 * means failure.
 *
 * The four helper classes at the end (HalWmi, DeviceInformention, ReadReg,
 * StringProc) are exported with the decorated names of the mingw-w64 GCC
 * toolchain; a C++ host built with that toolchain links against them through
 * the import library. All four are also exported with Microsoft's decorated
 * names, for hosts built with Microsoft's toolchain (docs/api.md, "Two C++
 * boundaries").
 */
#ifndef TORVEX_H
#define TORVEX_H

#include <stddef.h>
#include <stdint.h>

#if defined(TORVEX_BUILDING_DLL)
#define TORVEX_API __declspec(dllexport)
#elif defined(TORVEX_STATIC)
#define TORVEX_API
#else
#define TORVEX_API __declspec(dllimport)
#endif

#ifdef __cplusplus
#define TORVEX_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
extern "C" {
#else
#define TORVEX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ------------------------------------------------------------------------ */
/* Device classes                                                            */
/* ------------------------------------------------------------------------ */

typedef uint32_t HalDeviceType;

enum HalDeviceClass {
    HAL_CLASS_CPU = 0,
    HAL_CLASS_WIFI = 1,
    HAL_CLASS_MAINBOARD = 4,
    HAL_CLASS_AUDIO = 5,
    HAL_CLASS_GPU = 6,
    HAL_CLASS_DISK = 7,
    HAL_CLASS_BATTERY = 8,
    HAL_CLASS_MEMORY = 13,
    HAL_CLASS_ENCLAVE = 17,
    HAL_CLASS_DISPLAY = 19,
    HAL_CLASS_DRIVER = 20
};

/* ------------------------------------------------------------------------ */
/* Common list frame: every record HalInit hands out starts with these two.  */
/* ------------------------------------------------------------------------ */

typedef struct HalListHeader {
    uint32_t size;  /* total size of the allocation in bytes */
    uint32_t count; /* number of entries that follow */
} HalListHeader;
TORVEX_STATIC_ASSERT(sizeof(HalListHeader) == 8, "HalListHeader is 8 bytes");

/* A GUID laid out as the platform's GUID, without needing windows.h. */
typedef struct HalGuid {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
} HalGuid;
TORVEX_STATIC_ASSERT(sizeof(HalGuid) == 16, "HalGuid is 16 bytes");

/* ------------------------------------------------------------------------ */
/* Class 1: Wi-Fi radio                                                      */
/* ------------------------------------------------------------------------ */

enum HalWifiCode {
    HAL_WIFI_RADIO_STATE = 0 /* query: HalWifiRadioState; set: uint32_t, non-zero = on */
};

/* Copy of the platform's WLAN_INTERFACE_INFO. */
typedef struct HalWifiInterface {
    HalGuid interfaceGuid;
    wchar_t description[256];
    uint32_t state;
} HalWifiInterface;
TORVEX_STATIC_ASSERT(sizeof(HalWifiInterface) == 532, "Wi-Fi interface slot is 532 bytes");
TORVEX_STATIC_ASSERT(offsetof(HalWifiInterface, description) == 16, "description at 16");
TORVEX_STATIC_ASSERT(offsetof(HalWifiInterface, state) == 528, "state at 528");

/* Record of HalInit(1): size = 532 * count + 16. */
typedef struct HalWifiRecord {
    uint32_t size;
    uint32_t count;
    void* clientHandle; /* Native Wifi client handle; cleared by HalCloseDevice(1) */
    HalWifiInterface interfaces[1];
} HalWifiRecord;
TORVEX_STATIC_ASSERT(offsetof(HalWifiRecord, clientHandle) == 8, "client handle at 8");
TORVEX_STATIC_ASSERT(offsetof(HalWifiRecord, interfaces) == 16, "interfaces at 16");

/* Radio-state block of query code 0 (first 12 bytes of WLAN_RADIO_STATE). */
typedef struct HalWifiRadioState {
    uint32_t phyCount;
    uint32_t phyIndex;
    uint32_t softwareRadioState; /* 1 on, 2 off */
} HalWifiRadioState;
TORVEX_STATIC_ASSERT(sizeof(HalWifiRadioState) == 12, "radio state block is 12 bytes");

/* ------------------------------------------------------------------------ */
/* Class 7: physical disks                                                   */
/* ------------------------------------------------------------------------ */

enum HalDiskCode {
    HAL_DISK_MEDIA_TYPE = 0,        /* UTF-16 text */
    HAL_DISK_CAPTION = 1,           /* UTF-16 text */
    HAL_DISK_SERIAL_NUMBER = 2,     /* UTF-16 text, leading spaces removed */
    HAL_DISK_CAPACITY_MIB = 3,      /* uint64_t, needs an open record */
    HAL_DISK_FREE_MIB = 4,          /* uint64_t */
    HAL_DISK_CAPACITY_GB = 5,       /* uint64_t, decimal gigabytes, needs an open record */
    HAL_DISK_CAPACITY_MB = 6,       /* uint64_t, decimal megabytes, needs an open record */
    HAL_DISK_COUNT = 7,             /* uint32_t */
    HAL_DISK_FREE_MIB_EX = 8,       /* uint64_t, second variant */
    HAL_DISK_FIRMWARE_REVISION = 9, /* UTF-16 text */
    HAL_DISK_TRIM_ENABLED = 10,     /* uint32_t, needs an open record */
    HAL_DISK_IS_SSD = 11            /* uint32_t; written is left unchanged */
};

typedef struct HalDiskRecord {
    void* handle;         /* set by HalOpenDevice(7), cleared by HalCloseDevice(7) */
    uint32_t driveNumber; /* n of \\.\PHYSICALDRIVEn */
    uint32_t unused;
} HalDiskRecord;
TORVEX_STATIC_ASSERT(sizeof(HalDiskRecord) == 16, "disk record is 16 bytes");
TORVEX_STATIC_ASSERT(offsetof(HalDiskRecord, driveNumber) == 8, "drive number at 8");

/* Record of HalInit(7): size = 16 * count + 8. */
typedef struct HalDiskList {
    uint32_t size;
    uint32_t count;
    HalDiskRecord records[1];
} HalDiskList;
TORVEX_STATIC_ASSERT(offsetof(HalDiskList, records) == 8, "disk records at 8");

/* Byte position for HalRead/HalWrite; the high half is written back by the seek. */
typedef struct HalDiskOffset {
    int32_t low;
    int32_t high;
} HalDiskOffset;
TORVEX_STATIC_ASSERT(sizeof(HalDiskOffset) == 8, "disk offset is 8 bytes");

/* ------------------------------------------------------------------------ */
/* Class 5: audio endpoints                                                  */
/* ------------------------------------------------------------------------ */

enum HalAudioCode {
    HAL_AUDIO_CODEC_COUNT = 0,      /* query: writes 8 bytes, written = 4 */
    HAL_AUDIO_DESCRIPTION = 1,      /* query: UTF-16 text */
    HAL_AUDIO_MANUFACTURER = 2,     /* query: UTF-16 text */
    HAL_AUDIO_SPEAKER_VOLUME = 3,   /* query: uint32_t percent; set: HalAudioVolumeRequest */
    HAL_AUDIO_SPEAKER_MUTE = 4,     /* query/set: uint32_t */
    HAL_AUDIO_MICROPHONE_MUTE = 5,  /* query/set: uint32_t */
    HAL_AUDIO_PROBLEM_CODE = 6,     /* query: uint32_t */
    HAL_AUDIO_DRIVER_VERSION = 7    /* query: UTF-16 text */
};

enum HalAudioEndpoint {
    HAL_AUDIO_MICROPHONE = 0,
    HAL_AUDIO_SPEAKER = 1
};

typedef struct HalAudioDeviceRecord {
    uint8_t unused0[8];
    uint32_t index; /* index into the codec list */
    uint32_t unused1;
} HalAudioDeviceRecord;
TORVEX_STATIC_ASSERT(sizeof(HalAudioDeviceRecord) == 16, "audio record is 16 bytes");
TORVEX_STATIC_ASSERT(offsetof(HalAudioDeviceRecord, index) == 8, "audio index at 8");

typedef struct HalAudioDeviceList {
    uint32_t size;
    uint32_t count;
    HalAudioDeviceRecord records[1];
} HalAudioDeviceList;
TORVEX_STATIC_ASSERT(offsetof(HalAudioDeviceList, records) == 8, "audio records at 8");

typedef struct HalAudioVolumeRequest {
    int32_t value;
    uint8_t mode; /* 1 relative, anything else absolute */
    uint8_t reserved[3];
} HalAudioVolumeRequest;
TORVEX_STATIC_ASSERT(sizeof(HalAudioVolumeRequest) == 8, "volume request is 8 bytes");

/* ------------------------------------------------------------------------ */
/* Class 0: CPU                                                              */
/* ------------------------------------------------------------------------ */

enum HalCpuCode {
    HAL_CPU_VENDOR_ID = 0,            /* narrow text */
    HAL_CPU_NAME = 1,                 /* narrow text */
    HAL_CPU_L3_ASSOCIATIVITY = 2,     /* narrow text */
    HAL_CPU_L4_ASSOCIATIVITY = 3,     /* narrow text */
    HAL_CPU_L5_ASSOCIATIVITY = 4,     /* narrow text */
    HAL_CPU_EXTENDED_CPUID = 6,       /* uint32_t, always 0 */
    HAL_CPU_CURRENT_CLOCK_MHZ = 7,    /* uint32_t */
    HAL_CPU_EXTERNAL_CLOCK_MHZ = 8,   /* uint32_t */
    HAL_CPU_MAX_CLOCK_MHZ = 9,        /* uint32_t */
    HAL_CPU_CORES = 10,               /* uint32_t */
    HAL_CPU_LOGICAL_PROCESSORS = 11,  /* uint32_t */
    HAL_CPU_L3_SIZE_KB = 12,          /* uint32_t */
    HAL_CPU_L4_SIZE_KB = 13,          /* uint32_t */
    HAL_CPU_L5_SIZE_KB = 14,          /* uint32_t */
    HAL_CPU_OEM_VALUE = 15,           /* uint32_t */
    HAL_CPU_LOAD_PERCENT = 17,        /* uint32_t */
    HAL_CPU_VENDOR_CLASS = 18         /* uint32_t HalCpuVendor */
};

enum HalCpuVendor {
    HAL_CPU_VENDOR_UNKNOWN = 0,
    HAL_CPU_VENDOR_INTEL = 1,
    HAL_CPU_VENDOR_AMD = 2,
    HAL_CPU_VENDOR_SNAPDRAGON = 3
};

/* ------------------------------------------------------------------------ */
/* Class 4: mainboard and BIOS (all answers are narrow text)                 */
/* ------------------------------------------------------------------------ */

enum HalMainboardCode {
    HAL_MB_PRODUCT = 0,
    HAL_MB_MANUFACTURER = 1,
    HAL_MB_VERSION = 2,
    HAL_MB_SERIAL_NUMBER = 3,
    HAL_MB_BIOS_VERSION = 4,
    HAL_MB_BIOS_VENDOR = 5,
    HAL_MB_BIOS_RELEASE_DATE = 6 /* YYYYMMDD */
};

/* ------------------------------------------------------------------------ */
/* Class 8: battery                                                          */
/* ------------------------------------------------------------------------ */

enum HalBatteryCode {
    HAL_BT_PRESENT = 0,              /* uint32_t 1; fails when absent */
    HAL_BT_MANUFACTURER = 1,         /* narrow text */
    HAL_BT_DEVICE_NAME = 2,          /* narrow text */
    HAL_BT_REMAINING_MWH = 3,        /* uint32_t */
    HAL_BT_FULL_CHARGED_MWH = 4,     /* uint32_t */
    HAL_BT_DESIGNED_MWH = 5,         /* uint32_t */
    HAL_BT_AC_LINE_STATUS = 6,       /* uint32_t 0, 1 or 255 */
    HAL_BT_VOLTAGE_MV = 7,           /* uint32_t */
    HAL_BT_WEAR_CENTIPERCENT = 8,    /* uint32_t, hundredths of a percent */
    HAL_BT_DISCHARGE_RATE_MW = 9,    /* uint32_t */
    HAL_BT_CHARGE_RATE_MW = 10,      /* uint32_t */
    HAL_BT_OEM_READING = 11,         /* float */
    HAL_BT_CHARGE_CONTROL = 12       /* 2 bytes; also the one set code */
};

/* ------------------------------------------------------------------------ */
/* Class 13: memory modules                                                  */
/* ------------------------------------------------------------------------ */

enum HalMemoryCode {
    HAL_MM_COUNT = 0,          /* uint32_t */
    HAL_MM_SLOT = 1,           /* narrow text */
    HAL_MM_MANUFACTURER = 2,   /* narrow text */
    HAL_MM_SERIAL_NUMBER = 3,  /* narrow text */
    HAL_MM_PART_NUMBER = 4,    /* narrow text */
    HAL_MM_CAPACITY_MIB = 5,   /* uint64_t, always 8 bytes written */
    HAL_MM_CLOCK_MHZ = 6       /* uint32_t, always 4 bytes written */
};

typedef struct HalMemoryModuleEntry {
    uint8_t unused0[8];
    uint32_t index;
    uint32_t unused1;
} HalMemoryModuleEntry;
TORVEX_STATIC_ASSERT(sizeof(HalMemoryModuleEntry) == 16, "memory entry is 16 bytes");
TORVEX_STATIC_ASSERT(offsetof(HalMemoryModuleEntry, index) == 8, "memory index at 8");

typedef struct HalMemoryModuleList {
    uint32_t size;
    uint32_t count;
    HalMemoryModuleEntry entries[1];
} HalMemoryModuleList;
TORVEX_STATIC_ASSERT(offsetof(HalMemoryModuleList, entries) == 8, "memory entries at 8");

/* ------------------------------------------------------------------------ */
/* Class 6: GPU                                                              */
/* ------------------------------------------------------------------------ */

enum HalGpuCode {
    HAL_GPU_DISCRETE_NAME = 0,
    HAL_GPU_DISCRETE_STATUS = 1,
    HAL_GPU_DISCRETE_DRIVER_VERSION = 2,
    HAL_GPU_DISCRETE_DRIVER_DATE = 3,
    HAL_GPU_INTEGRATED_NAME = 4,
    HAL_GPU_INTEGRATED_STATUS = 5,
    HAL_GPU_INTEGRATED_DRIVER_VERSION = 6,
    HAL_GPU_INTEGRATED_DRIVER_DATE = 7,
    /* 8 to 15 repeat 0 to 7 */
    HAL_GPU_MONITOR_ID = 16,
    HAL_GPU_RESOLUTION_TEXT = 17,
    HAL_GPU_ADAPTER_COUNT = 19,
    HAL_GPU_DISCRETE_MEMORY_MIB = 20,
    HAL_GPU_DISCRETE_PROBLEM_CODE = 21,
    HAL_GPU_INTEGRATED_MEMORY_MIB = 22,
    HAL_GPU_INTEGRATED_PROBLEM_CODE = 23,
    /* 24 repeats 20, 25 repeats 22 */
    HAL_GPU_SCREEN_WIDTH = 26,
    HAL_GPU_SCREEN_HEIGHT = 27,
    HAL_GPU_REFRESH_RATE_HZ = 28,
    HAL_GPU_COLOR_DEPTH_BPP = 29
};

typedef struct GpuAdapterRecord {
    uint32_t isDiscrete;
    uint32_t padding0;
    uint64_t reserved;
    uint32_t index;
    uint8_t hasRefreshRate;
    uint8_t padding1[3];
    uint32_t dedicatedMemoryMiB;
    wchar_t name[260];
    uint8_t padding2[4];
} GpuAdapterRecord;
TORVEX_STATIC_ASSERT(sizeof(GpuAdapterRecord) == 552, "GPU record is 552 bytes");
TORVEX_STATIC_ASSERT(offsetof(GpuAdapterRecord, reserved) == 8, "reserved at 8");
TORVEX_STATIC_ASSERT(offsetof(GpuAdapterRecord, index) == 16, "index at 16");
TORVEX_STATIC_ASSERT(offsetof(GpuAdapterRecord, hasRefreshRate) == 20, "refresh flag at 20");
TORVEX_STATIC_ASSERT(offsetof(GpuAdapterRecord, dedicatedMemoryMiB) == 24, "memory at 24");
TORVEX_STATIC_ASSERT(offsetof(GpuAdapterRecord, name) == 28, "name at 28");

typedef struct GpuAdapterList {
    uint32_t size;
    uint32_t count;
    GpuAdapterRecord records[1];
} GpuAdapterList;
TORVEX_STATIC_ASSERT(offsetof(GpuAdapterList, records) == 8, "GPU records at 8");

/* ------------------------------------------------------------------------ */
/* Class 19: display colour and brightness                                   */
/* ------------------------------------------------------------------------ */

enum HalDisplayCode {
    HAL_DISPLAY_COLOR_CAPS = 0,         /* query, AMD back end */
    HAL_DISPLAY_TEMPERATURE = 2,        /* query: range or channel settings; set: temperature/warmth */
    HAL_DISPLAY_BRIGHTNESS = 3,         /* query/set */
    HAL_DISPLAY_WARMTH = 5,             /* set */
    HAL_DISPLAY_CHANNEL_GAINS = 6       /* set */
};

typedef struct DisplayColorContext {
    uint32_t size;  /* 16 */
    uint32_t count; /* 1 */
    int32_t adapterIndex;
    int32_t displayIndex;
} DisplayColorContext;
TORVEX_STATIC_ASSERT(sizeof(DisplayColorContext) == 16, "display context is 16 bytes");

typedef struct ColorRange {
    int32_t current;
    int32_t defaultValue;
    int32_t minimum;
    int32_t maximum;
    int32_t step;
} ColorRange;
TORVEX_STATIC_ASSERT(sizeof(ColorRange) == 20, "colour range is 20 bytes");

typedef struct BrightnessRange {
    uint32_t current;
    uint32_t defaultValue;
    uint32_t minimum;
    uint32_t maximum;
    uint32_t step;
} BrightnessRange;
TORVEX_STATIC_ASSERT(sizeof(BrightnessRange) == 20, "brightness range is 20 bytes");

typedef struct ColorTemperatureRequest {
    int32_t level; /* 0-255 in, Kelvin out */
    int32_t range; /* 0: 5000-8000 K, otherwise 4000-6000 K */
} ColorTemperatureRequest;
TORVEX_STATIC_ASSERT(sizeof(ColorTemperatureRequest) == 8, "temperature request is 8 bytes");

typedef struct WarmthRequest {
    uint32_t warmth;  /* 0-255, 128 neutral */
    uint32_t blueCut; /* 0-255 */
} WarmthRequest;
TORVEX_STATIC_ASSERT(sizeof(WarmthRequest) == 8, "warmth request is 8 bytes");

typedef struct ChannelGainRequest {
    float red;
    float green;
    float blue;
    float level;    /* 0-255 */
    float strength; /* 0-1 */
} ChannelGainRequest;
TORVEX_STATIC_ASSERT(sizeof(ChannelGainRequest) == 20, "channel gain request is 20 bytes");

typedef struct GammaRamp {
    uint16_t red[256];
    uint16_t green[256];
    uint16_t blue[256];
} GammaRamp;
TORVEX_STATIC_ASSERT(sizeof(GammaRamp) == 1536, "gamma ramp is 1536 bytes");

/* ------------------------------------------------------------------------ */
/* Class 20: device drivers with problems                                    */
/* ------------------------------------------------------------------------ */

enum HalDriverCode {
    HAL_DRIVER_CAPTION = 0,      /* narrow text */
    HAL_DRIVER_DEVICE_ID = 1,    /* narrow text */
    HAL_DRIVER_CLASS_GUID = 2,   /* narrow text */
    HAL_DRIVER_ERROR_CODE = 3,   /* uint32_t; written is left unchanged */
    HAL_DRIVER_MANUFACTURER = 4, /* narrow text */
    HAL_DRIVER_SERVICE = 5,      /* narrow text */
    HAL_DRIVER_STATUS = 6        /* narrow text */
};

typedef struct HalDriverProblemList {
    uint32_t size;
    uint32_t count;
    wchar_t captions[1][260];
} HalDriverProblemList;
TORVEX_STATIC_ASSERT(offsetof(HalDriverProblemList, captions) == 8, "captions at 8");
TORVEX_STATIC_ASSERT(sizeof(((HalDriverProblemList*)0)->captions[0]) == 520, "caption field is 520 bytes");

/* ------------------------------------------------------------------------ */
/* Class 17: enclave encryption service                                      */
/* ------------------------------------------------------------------------ */

enum HalEnclaveCode {
    HAL_ENCLAVE_ENCRYPT = 0, /* HalControl; HalQueryInformation: encrypted length */
    HAL_ENCLAVE_DECRYPT = 1  /* HalControl; HalQueryInformation: decrypted length */
};

/* ------------------------------------------------------------------------ */
/* The Hal API                                                               */
/* ------------------------------------------------------------------------ */

TORVEX_API uint32_t HalInit(HalDeviceType type, void** out);
TORVEX_API uint32_t HalOpenDevice(HalDeviceType type, void* device);
TORVEX_API uint32_t HalCloseDevice(HalDeviceType type, void* device);
TORVEX_API uint32_t HalRead(HalDeviceType type, void* device, uint32_t* offset, void* buffer,
                            uint32_t size, uint32_t* bytesRead);
TORVEX_API uint32_t HalWrite(HalDeviceType type, void* device, uint32_t* offset, const void* buffer,
                             uint32_t size, uint32_t* bytesWritten);
TORVEX_API uint32_t HalQueryInformation(HalDeviceType type, void* device, uint32_t code, void* buffer,
                                        uint32_t size, uint32_t* returned);
TORVEX_API uint32_t HalSetInformation(HalDeviceType type, void* device, uint32_t code, void* buffer,
                                      uint32_t size, uint32_t* returned, uint32_t extra);
TORVEX_API uint32_t HalControl(HalDeviceType type, void* device, uint32_t code, const void* input,
                               uint32_t inputSize, void* output, uint32_t outputSize, uint32_t* returned);
TORVEX_API uint32_t HalSetCallback(HalDeviceType type, uint32_t which, void* callback);

/* ------------------------------------------------------------------------ */
/* Module entry points                                                       */
/* ------------------------------------------------------------------------ */

TORVEX_API uint32_t BtInit(void);
TORVEX_API uint32_t BtQueryInformation(uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
TORVEX_API uint32_t BtSetInformation(uint32_t code, void* buffer, uint32_t size, uint32_t* returned);

TORVEX_API uint32_t CpuInit(void);
TORVEX_API uint32_t CpuQueryInformation(int32_t code, void* buffer, uint32_t size, uint32_t* returned);

TORVEX_API uint32_t DeviceDriverInit(void** out);
TORVEX_API uint32_t DeviceDriverQueryInformation(void* caption, uint32_t code, void* buffer, uint32_t size,
                                                 uint32_t* returned);

TORVEX_API uint32_t GpInit(void** out);
TORVEX_API uint32_t GpQueryInforamtion(void* list, int32_t code, void* buffer, uint32_t size,
                                       uint32_t* returned);
TORVEX_API uint32_t GpSetInformation(uint32_t code, void* buffer, uint32_t size, uint32_t* returned);

TORVEX_API uint32_t MbInit(void);
TORVEX_API uint32_t MbQueryInformation(uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
TORVEX_API uint32_t MbSetInformation(uint32_t code, void* buffer, uint32_t size, uint32_t* returned);

TORVEX_API uint32_t MmInit(void** out);
TORVEX_API uint32_t MmQueryInformation(void* entry, uint32_t code, void* buffer, uint32_t size,
                                       uint32_t* returned);

#ifdef __cplusplus
} /* extern "C" */

/* ------------------------------------------------------------------------ */
/* Exported helper classes (C++ hosts: see the comment at the top)          */
/* ------------------------------------------------------------------------ */

#include <guiddef.h>
#include <string>
#include <vector>

struct IWbemLocator;
struct IWbemServices;

/* WMI query wrapper and the OEM firmware method channel. Each select call
 * connects to the namespace anew and releases everything before it returns. */
class TORVEX_API HalWmi {
public:
    explicit HalWmi(std::wstring nameSpace);
    HalWmi(const HalWmi& other);
    HalWmi& operator=(const HalWmi& other);
    ~HalWmi();

    bool Init();

    bool Select(const std::wstring& query, const std::wstring& property, unsigned char* buffer, int size);
    std::wstring SelectStr(const std::wstring& query, const std::wstring& property);
    std::wstring SelectStrA(const std::wstring& className, const std::wstring& property);
    std::wstring SelectStrB(const std::wstring& query, const std::wstring& property);
    unsigned int SelectUInt(const std::wstring& query, const std::wstring& property);
    std::wstring SelectUIntArray(const std::wstring& className, const std::wstring& property);
    /* Sum over all rows. When the "WQL" or the query string cannot be
     * allocated it throws _com_error (comdef.h) carrying E_OUTOFMEMORY
     * (0x8007000E) instead of returning. */
    unsigned int SelectUintForCpuCacheL1AndL2(const std::wstring& query, const std::wstring& property);
    bool SelectBool(const std::wstring& query, const std::wstring& property);

    /* OEM ACPI-WMI method channel; use on an object made on "ROOT\WMI". */
    bool GetOutPutUIntEx(unsigned char* input, unsigned int inputSize, unsigned char* output,
                         unsigned int outputSize);
    bool GetOutPutUInt(unsigned long long command, unsigned char* output, unsigned int outputSize);
    bool GetOutPutUIntByString(const std::string& text, unsigned char* output, unsigned int outputSize);
    bool GetPL1(float& value);
    bool StartSuperSaver();
    bool StopSuperSaver();
    bool SetOdvp0ToDefault();

private:
    enum CpuType { CpuTypeHigh = 0, CpuTypeLow = 1, CpuTypeUnknown = 2 };

    bool InitCom();
    bool InitSecurity();
    bool InitInstance(IWbemLocator*& locator, IWbemServices*& services);
    std::wstring GetObjectPath(wchar_t* className);
    CpuType GetCpuType();
    bool SetOdvpXToDefault(unsigned int item);

    bool initialized;
    std::wstring nameSpace;
    bool comInitialized;
    static bool initCoInitializeSecurity;
};

/* Device property selector of DeviceInformention. */
enum class EnumDeviceProperty : unsigned int {
    DeviceDesc = 0,
    Manufacturer = 1,
    DriverVersion = 2,
    HardwareIds = 3,
    EnumeratorName = 4,
    DeviceInstanceProp90 = 5,
    FriendlyName = 6,
    Name = 7,
    DriverInfPath = 8,
    InstanceId = 9,
    DriverProvider = 10,
    Stack = 11,
    ProblemCode = 12,
    Address = 13
};

/* Setup API helper: device lookup, properties, hardware-ID lists, removal. */
class TORVEX_API DeviceInformention {
public:
    DeviceInformention();
    ~DeviceInformention();

    std::vector<std::wstring> GetDeviceHardwareId(const GUID& classGuid);
    std::vector<std::wstring> GetDeviceDesc(const GUID& classGuid);
    std::wstring GetDeviceStrInfoByHardwareId(const std::wstring& hardwareId, const GUID& classGuid,
                                              EnumDeviceProperty property);
    unsigned int GetDeviceULONGInfoByHardwareId(const std::wstring& hardwareId, const GUID& classGuid,
                                                EnumDeviceProperty property);
    std::wstring GetDeviceStrInfoByDesc(const std::wstring& description, const GUID& classGuid,
                                        EnumDeviceProperty property);
    unsigned int GetDeviceULONGInfoByDesc(const std::wstring& description, const GUID& classGuid,
                                          EnumDeviceProperty property);
    unsigned int UnstallDeviceByHardwareId(const std::wstring& hardwareId, const GUID& classGuid);
    unsigned int UnstallDeviceByHardwareIdEx(const std::wstring& hardwareId, const GUID& classGuid);
    std::vector<std::wstring> GetUnknownDeviceHardId();
    std::vector<std::wstring> GetDeviceHardwareIDList(const GUID& classGuid, const std::wstring& hardwareId);
    unsigned long long GetLastIntallTime(const std::wstring& hardwareId, const GUID& classGuid);
    void GetAllDeviceHardwareId(std::vector<std::wstring>& hardwareIds);
    void GetSoftComponentItems(std::vector<std::wstring>& hardwareIds, const std::wstring& parentText);
    std::vector<std::wstring> GetInternalDeviceHardwareId(const GUID& classGuid);
    std::vector<std::wstring> GetDeviceStatck(const std::wstring& hardwareId, const GUID& classGuid);
};

/* HKEY_LOCAL_MACHINE values, always in the 64-bit view. */
class TORVEX_API ReadReg {
public:
    ReadReg();
    ~ReadReg();

    static bool ReadLocalMachineRegDW(const std::wstring& subKey, const std::wstring& valueName,
                                      unsigned long& value);
    static bool ReadLocalMachineRegRZ(const std::wstring& subKey, const std::wstring& valueName,
                                      std::wstring& value);
    static bool ReadLocalMachineRegExpandRZ(const std::wstring& subKey, const std::wstring& valueName,
                                            std::wstring& value);
    static bool WrightLocalMachineRegDW(const std::wstring& subKey, const std::wstring& valueName,
                                        unsigned long value);
    static bool WriteLocalMachineRegRZ(const std::wstring& subKey, const std::wstring& valueName,
                                       const std::wstring& value);
    static bool WrightLocalMachineRegExpandRZ(const std::wstring& subKey, const std::wstring& valueName,
                                              const std::wstring& value);
};

/* String conversion, trimming and comparison helpers. */
namespace StringProc {
TORVEX_API std::wstring StringToWString(const std::string& text);
TORVEX_API std::string WStringToString(const std::wstring& text);
TORVEX_API std::wstring StringToWStringByUTF8(const std::string& text);
TORVEX_API std::string WStringToStringByUTF8(const std::wstring& text);
TORVEX_API std::string StringTrim(const std::string& text);
TORVEX_API std::wstring WStringTrim(const std::wstring& text);
TORVEX_API std::wstring ReplacePlaceholder(const std::wstring& text, const std::wstring& replacement,
                                           const std::wstring& placeholder);
TORVEX_API std::string ToLower(const std::string& text);
TORVEX_API bool CompareNoCase(const std::string& left, const std::string& right);
} /* namespace StringProc */

#endif /* __cplusplus */

#endif /* TORVEX_H */
