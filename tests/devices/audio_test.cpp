// Audio endpoints (class 5): codec list and codec facts over the fake device
// tree, the endpoint acquisition guard against a fake Core Audio enumerator,
// callbacks and their release, and the volume arithmetic on its own.
#include <endpointvolume.h>
#include <mmdeviceapi.h>

#include <gtest/gtest.h>

#include <cstring>
#include <cstdlib>

#include "devices/audio_volume.h"
#include "devices/device_property_keys.h"
#include "support/fake_com.h"
#include "support/fake_setupapi.h"

namespace torvex::test {
namespace {

namespace keys = torvex::devkeys;
constexpr CLSID kClsidDeviceEnumerator = {0xBCDE0395, 0xE52F, 0x467C, {0x8E, 0x3D, 0xC4, 0x57, 0x92, 0x91, 0x69, 0x2E}};

// Counts what the library asks of Core Audio; every endpoint it hands out is
// a volume object that answers 0.256 and unmuted.
struct CoreAudioLog {
    int enumerators = 0;
    int endpoints = 0;
    int activations = 0;
};

class FakeVolume : public ComObject<IAudioEndpointVolume> {
public:
    HRESULT STDMETHODCALLTYPE RegisterControlChangeNotify(IAudioEndpointVolumeCallback*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE UnregisterControlChangeNotify(IAudioEndpointVolumeCallback*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetChannelCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetMasterVolumeLevel(float, LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetMasterVolumeLevelScalar(float, LPCGUID) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetMasterVolumeLevel(float*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetMasterVolumeLevelScalar(float* level) override {
        *level = 0.256f;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetChannelVolumeLevel(UINT, float, LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetChannelVolumeLevelScalar(UINT, float, LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetChannelVolumeLevel(UINT, float*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetChannelVolumeLevelScalar(UINT, float*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetMute(BOOL, LPCGUID) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetMute(BOOL* muted) override {
        *muted = FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetVolumeStepInfo(UINT*, UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE VolumeStepUp(LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE VolumeStepDown(LPCGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryHardwareSupport(DWORD*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetVolumeRange(float*, float*, float*) override { return E_NOTIMPL; }
};

class FakeEndpoint : public ComObject<IMMDevice> {
public:
    explicit FakeEndpoint(CoreAudioLog& log) : log_(log) {}
    HRESULT STDMETHODCALLTYPE Activate(REFIID, DWORD, PROPVARIANT*, void** out) override {
        ++log_.activations;
        *out = static_cast<IAudioEndpointVolume*>(new FakeVolume);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE OpenPropertyStore(DWORD, IPropertyStore**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetId(LPWSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetState(DWORD*) override { return E_NOTIMPL; }

private:
    CoreAudioLog& log_;
};

class FakeEnumerator : public ComObject<IMMDeviceEnumerator> {
public:
    explicit FakeEnumerator(CoreAudioLog& log) : log_(log) {}
    HRESULT STDMETHODCALLTYPE EnumAudioEndpoints(EDataFlow, DWORD, IMMDeviceCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetDefaultAudioEndpoint(EDataFlow, ERole, IMMDevice** out) override {
        ++log_.endpoints;
        *out = new FakeEndpoint(log_);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetDevice(LPCWSTR, IMMDevice**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RegisterEndpointNotificationCallback(IMMNotificationClient*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE UnregisterEndpointNotificationCallback(IMMNotificationClient*) override {
        return E_NOTIMPL;
    }

private:
    CoreAudioLog& log_;
};

class FakeCallback : public ComObject<IAudioEndpointVolumeCallback> {
public:
    HRESULT STDMETHODCALLTYPE OnNotify(PAUDIO_VOLUME_NOTIFICATION_DATA) override { return S_OK; }
};

const wchar_t kRealtek[] = L"HDAUDIO\\FUNC_01&VEN_10EC&DEV_0295&SUBSYS_1028";
const wchar_t kConexant[] = L"HDAUDIO\\FUNC_01&VEN_14F1&DEV_50F4";

class AudioTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(registration.registered());
        tree.Add(FakeDevice(keys::kMediaClass)
                     .Ids({kRealtek})
                     .Desc(L"Realtek Audio")
                     .Text(keys::kManufacturer, L"Realtek")
                     .Text(keys::kDriverVersion, L"6.0.1.1")
                     .Problem(28));
        tree.Add(FakeDevice(keys::kMediaClass).Ids({L"HDAUDIO\\FUNC_01&VEN_8086&DEV_2812"}).Desc(L"Intel HDMI"));
        tree.Add(FakeDevice(keys::kMediaClass).Ids({L"HDAUDIO\\FUNC_01&ven_10ec&DEV_0256"}).Desc(L"lower case"));
        tree.Add(FakeDevice(keys::kMediaClass).Ids({kConexant}).Desc(L""));
        tree.Add(FakeDevice(keys::kDeviceSet).Ids({L"PCI\\VEN_10EC&DEV_8168"}).Desc(L"other class"));
    }
    void TearDown() override {
        HalCloseDevice(HAL_CLASS_AUDIO, nullptr);
        EXPECT_EQ(tree.OpenSets(), 0);
    }

    // Record i of a list from HalInit(5).
    void* Record(uint32_t i) { return list_ + 8 + 16 * i; }
    void Init() {
        void* out = nullptr;
        ASSERT_EQ(HalInit(HAL_CLASS_AUDIO, &out), 1u);
        list_ = static_cast<uint8_t*>(out);
    }
    ~AudioTest() override { std::free(list_); }

    CoreAudioLog log;
    ComClassRegistration registration{kClsidDeviceEnumerator, [this](REFIID iid, void** out) -> HRESULT {
                                          ++log.enumerators;
                                          auto* fake = new FakeEnumerator(log);
                                          const HRESULT hr = fake->QueryInterface(iid, out);
                                          fake->Release();
                                          return hr;
                                      }};
    FakeDeviceTree tree;
    uint8_t* list_ = nullptr;
};

TEST_F(AudioTest, ListHoldsOneIndexedRecordPerRealtekOrConexantCodec) {
    Init();
    uint32_t header[2];
    std::memcpy(header, list_, sizeof(header));
    EXPECT_EQ(header[0], 8u + 16u * 2);
    EXPECT_EQ(header[1], 2u);
    for (uint32_t i = 0; i < 2; ++i) {
        uint32_t index = 0xFFFF;
        std::memcpy(&index, static_cast<uint8_t*>(Record(i)) + 8, sizeof(index));
        EXPECT_EQ(index, i);
    }
}

TEST_F(AudioTest, FreshLibraryAcquiresNoEndpointAndVolumeCodesFail) {
    Init();
    Init();  // a second initialisation acquires nothing either
    EXPECT_EQ(log.enumerators, 0);
    EXPECT_EQ(log.activations, 0);

    uint32_t value = 0xAAAA;
    uint32_t written = 0xBBBB;
    for (uint32_t code : {3u, 4u, 5u})
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), code, &value, 4, &written), 0u) << code;
    EXPECT_EQ(value, 0xAAAAu);
    EXPECT_EQ(written, 0xBBBBu);

    const uint8_t absolute[8] = {50, 0, 0, 0, 0};
    const uint8_t relative[8] = {10, 0, 0, 0, 1};
    const uint32_t mute = 1;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, Record(0), 3, const_cast<uint8_t*>(absolute), 8, nullptr, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, Record(0), 3, const_cast<uint8_t*>(relative), 8, nullptr, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, Record(0), 4, const_cast<uint32_t*>(&mute), 4, nullptr, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, Record(0), 5, const_cast<uint32_t*>(&mute), 4, nullptr, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, nullptr, 3, const_cast<uint8_t*>(absolute), 8, nullptr, 0), 0u);
    EXPECT_EQ(log.enumerators, 0);
}

TEST_F(AudioTest, CodecTextAndProblemCodes) {
    Init();
    struct Case {
        uint32_t index;
        uint32_t code;
        std::wstring text;
    };
    const Case cases[] = {
        {0, 1, L"Realtek Audio"}, {0, 2, L"Realtek"}, {0, 7, L"6.0.1.1"},
        {1, 1, L""},  // an empty description is a success with nothing written
        {1, 2, L""},  // so is a missing manufacturer
    };
    for (const auto& c : cases) {
        uint8_t buffer[64];
        std::memset(buffer, 0xCC, sizeof(buffer));
        uint32_t written = 0xFFFF;
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(c.index), c.code, buffer, sizeof(buffer), &written), 1u)
            << "code " << c.code;
        EXPECT_EQ(written, c.text.size() * 2);
        EXPECT_EQ(std::memcmp(buffer, c.text.data(), written), 0);
        EXPECT_EQ(buffer[written], 0xCC) << "no terminator";
    }

    // Exactly the byte length fits; one byte less fails and leaves the buffer.
    uint8_t exact[26];
    uint32_t written = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), 1, exact, 26, &written), 1u);
    uint8_t shortBuffer[25] = {};
    written = 7;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), 1, shortBuffer, 25, &written), 0u);
    EXPECT_EQ(written, 7u);
    EXPECT_EQ(shortBuffer[0], 0);

    uint32_t problem = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), 6, &problem, 4, &written), 1u);
    EXPECT_EQ(problem, 28u);
    EXPECT_EQ(written, 4u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(1), 6, &problem, 4, &written), 1u);
    EXPECT_EQ(problem, 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), 6, &problem, 3, &written), 0u);
}

TEST_F(AudioTest, CountIsWrittenAsEightBytesButReportedAsFour) {
    uint8_t buffer[12];
    std::memset(buffer, 0xCC, sizeof(buffer));
    uint32_t written = 0;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, nullptr, 0, buffer, 4, &written), 1u);
    uint64_t count = 0;
    std::memcpy(&count, buffer, sizeof(count));
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(written, 4u);
    EXPECT_EQ(buffer[8], 0xCC);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, nullptr, 0, buffer, 3, &written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, nullptr, 0, nullptr, 4, &written), 0u);
}

TEST_F(AudioTest, BadIndicesAndCodesFail) {
    Init();
    uint8_t fake[16] = {};
    const uint32_t outOfRange = 2;
    std::memcpy(fake + 8, &outOfRange, sizeof(outOfRange));
    uint8_t buffer[64];
    uint32_t written = 0;
    for (uint32_t code : {1u, 2u, 6u, 7u}) {
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, fake, code, buffer, sizeof(buffer), &written), 0u) << code;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, nullptr, code, buffer, sizeof(buffer), &written), 0u) << code;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), code, buffer, sizeof(buffer), nullptr), 0u) << code;
    }
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), 8, buffer, sizeof(buffer), &written), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, Record(0), 6, buffer, sizeof(buffer), nullptr, 0), 0u);
}

TEST_F(AudioTest, CallbacksAreStoredWithoutReferenceAndReleasedOnceAtClose) {
    auto* first = new FakeCallback;
    auto* second = new FakeCallback;
    auto* ignored = new FakeCallback;
    // No interface held: 0, yet the callback is kept.
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 1, first), 0u);
    EXPECT_EQ(first->References(), 1);
    // A second one replaces the pointer; the first is neither released nor unregistered.
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 1, second), 0u);
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 2, ignored), 1u);  // unknown selector: success, nothing kept
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 0, nullptr), 0u);
    EXPECT_EQ(HalSetCallback(HAL_CLASS_WIFI, 1, ignored), 0u);

    second->AddRef();  // keep it alive to observe the release
    first->AddRef();
    ignored->AddRef();
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_AUDIO, nullptr), 1u);
    EXPECT_EQ(second->References(), 1) << "released exactly once";
    EXPECT_EQ(first->References(), 2) << "the replaced callback is not released";
    EXPECT_EQ(ignored->References(), 2);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_AUDIO, nullptr), 1u);
    EXPECT_EQ(second->References(), 1) << "a second close releases nothing more";
    second->Release();
    first->Release();
    first->Release();
    ignored->Release();
    ignored->Release();
}

TEST_F(AudioTest, MicrophoneCallbackIsReleasedToo) {
    auto* callback = new FakeCallback;
    callback->AddRef();
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 0, callback), 0u);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_AUDIO, nullptr), 1u);
    EXPECT_EQ(callback->References(), 1);
    callback->Release();
}

TEST(AudioNoCodec, OtherVendorsOnlyMeanNoList) {
    FakeDeviceTree tree;
    tree.Add(FakeDevice(keys::kMediaClass).Ids({L"HDAUDIO\\FUNC_01&VEN_8086&DEV_2812"}));
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_AUDIO, &out), 0u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    uint8_t record[16] = {};
    uint8_t buffer[64];
    uint32_t written = 0;
    for (uint32_t code : {0u, 1u, 2u, 6u, 7u})
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, record, code, buffer, sizeof(buffer), &written), 0u) << code;
    EXPECT_EQ(HalInit(HAL_CLASS_AUDIO, nullptr), 0u);
}

TEST(AudioVolumeArithmetic, ScalarToPercentRounds) {
    const std::pair<float, uint32_t> cases[] = {{0.256f, 26}, {0.254f, 25}, {0.0f, 0}, {1.0f, 100}, {0.005f, 1}};
    for (const auto& [scalar, percent] : cases) EXPECT_EQ(torvex::audio::PercentFromScalar(scalar), percent) << scalar;
}

TEST(AudioVolumeArithmetic, TargetsAreClampedAndRelativeAddsToCurrent) {
    struct Case {
        uint32_t current;
        int32_t value;
        uint8_t mode;
        int32_t target;
    };
    const Case cases[] = {
        {20, -30, 1, 0},   {20, 30, 1, 50},     {90, 30, 1, 100},          {20, 150, 0, 100},
        {20, -5, 0, 0},    {20, 40, 2, 40},     {100, INT32_MAX, 1, 100},  {0, INT32_MIN, 1, 0},
        {55, 0, 1, 55},
    };
    for (const auto& c : cases)
        EXPECT_EQ(torvex::audio::TargetPercent(c.current, c.value, c.mode), c.target)
            << c.current << " " << c.value << " mode " << int(c.mode);
    EXPECT_FLOAT_EQ(torvex::audio::ScalarFromPercent(37), 0.37f);
}

TEST(AudioVolumeArithmetic, MuteNoOps) {
    const uint32_t flag = 1;
    EXPECT_TRUE(torvex::audio::MuteUnchanged(nullptr, 0, 1));
    EXPECT_TRUE(torvex::audio::MuteUnchanged(&flag, 1, 1));
    EXPECT_FALSE(torvex::audio::MuteUnchanged(&flag, 1, 0));
}

TEST(AudioRealWine, NoCodecMeansNoList) {
    void* out = nullptr;
    EXPECT_EQ(HalInit(HAL_CLASS_AUDIO, &out), 0u);
    EXPECT_EQ(out, nullptr);
    uint32_t value = 0;
    uint32_t written = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, nullptr, 3, &value, 4, &written), 0u);
}

}  // namespace
}  // namespace torvex::test
