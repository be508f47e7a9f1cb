// Audio endpoints (class 5) over tests/machines/device-tree, the volume
// arithmetic on its own, and Wine's own machine.
#include <endpointvolume.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "devices/audio_volume.h"
#include "com_object.h"
#include "support/simulated_machine.h"
#include "support/torvex_test.h"

namespace torvex::test {
namespace {

class Callback : public torvex::sim::detail::ComObject<IAudioEndpointVolumeCallback> {
public:
    HRESULT STDMETHODCALLTYPE OnNotify(PAUDIO_VOLUME_NOTIFICATION_DATA) override { return S_OK; }
    long References() {
        AddRef();
        return static_cast<long>(Release());
    }
};

// A sentinel-filled buffer and count; Refused() when a call left both alone.
struct Out {
    uint8_t bytes[64];
    uint32_t written = 0xBAD;
    Out() { std::memset(bytes, 0xCC, sizeof(bytes)); }
    bool Refused() const { return written == 0xBADu && std::count(bytes, bytes + 64, 0xCC) == 64; }
};

class AudioTest : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(HalCloseDevice(HAL_CLASS_AUDIO, nullptr), 1u);
        ExpectNothingHeld();
        torvex::test::FreeRecord(list_);
    }
    void Init() {
        torvex::test::FreeRecord(list_);
        list_ = nullptr;
        EXPECT_EQ(HalInit(HAL_CLASS_AUDIO, reinterpret_cast<void**>(&list_)), 1u);
        if (list_ == nullptr) list_ = static_cast<uint8_t*>(std::calloc(1, 72));  // a failed test goes on without crashing
    }
    void* Record(uint32_t i) { return list_ + 8 + 16 * i; }
    uint32_t Query(void* record, uint32_t code, Out& out, uint32_t size = 64) {
        return HalQueryInformation(HAL_CLASS_AUDIO, record, code, out.bytes, size, &out.written);
    }

    SimulatedMachine machine{MachineFile{"device-tree"}};
    uint8_t* list_ = nullptr;
};

TEST_F(AudioTest, OneIndexedRecordPerRealtekOrConexantCodec) {
    Init();
    uint32_t words[10];  // size, count, then per record: 2 unused, the index, 1 unused
    std::memcpy(words, list_, sizeof(words));
    EXPECT_TRUE(words[0] == 8 + 16 * 2 && words[1] == 2 && words[4] == 0 && words[8] == 1) << words[0] << " " << words[1];

    Out count, small;  // the count goes out as 8 bytes with 4 reported, and needs 4 bytes of room
    ASSERT_EQ(Query(nullptr, 0, count, 4), 1u);
    EXPECT_TRUE(*reinterpret_cast<uint64_t*>(count.bytes) == 2 && count.written == 4 && count.bytes[8] == 0xCC);
    EXPECT_EQ(Query(nullptr, 0, small, 3), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, nullptr, 0, nullptr, 4, &small.written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, nullptr, 0, small.bytes, 4, nullptr), 0u);
    EXPECT_TRUE(small.Refused());
}

TEST_F(AudioTest, AFreshLibraryNeverReachesCoreAudio) {
    Init();
    Init();  // nor does a second initialisation
    Out out;
    for (uint32_t code : {3u, 4u, 5u}) EXPECT_EQ(Query(Record(0), code, out), 0u) << code;
    EXPECT_TRUE(out.Refused());
    uint8_t absolute[8] = {50, 0, 0, 0, 0}, relative[8] = {10, 0, 0, 0, 1};
    uint32_t mute = 1;
    for (const auto& [code, in] : {std::pair<uint32_t, void*>{3, absolute}, {3, relative}, {4, &mute}, {5, &mute}})
        EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, Record(0), code, in, 8, nullptr, 0), 0u) << code;
    EXPECT_TRUE(machine.Asked("audio").empty()) << "the profile has both endpoints, yet none was asked for";
}

TEST_F(AudioTest, CodecTextsProblemCodesAndDriverVersionsAndTheirRefusals) {
    Init();
    const std::tuple<uint32_t, uint32_t, std::wstring> cases[] = {  // record, code, text
        {0, 1, L"Realtek High Definition Audio"}, {0, 2, L"Realtek"}, {0, 7, L"6.0.9235.1"},
        {1, 1, L""}, {1, 2, L""},  // a missing property is a success with nothing written
        {1, 7, L"10.0.22000.1"},
    };
    for (const auto& [index, code, text] : cases) {
        Out out;
        ASSERT_EQ(Query(Record(index), code, out), 1u) << index << " code " << code;
        EXPECT_EQ(std::wstring(reinterpret_cast<wchar_t*>(out.bytes), out.written / 2), text);
        EXPECT_TRUE(out.written == text.size() * 2 && out.bytes[out.written] == 0xCC) << "no terminator";
    }
    Out exact, shorter;  // 29 characters: exactly 58 bytes fit
    EXPECT_EQ(Query(Record(0), 1, exact, 58), 1u);
    EXPECT_EQ(Query(Record(0), 1, shorter, 57), 0u);
    for (const auto& [index, problem] : {std::pair{0u, 28u}, {1u, 0u}}) {
        Out out;
        ASSERT_EQ(Query(Record(index), 6, out, 4), 1u);
        EXPECT_TRUE(*reinterpret_cast<uint32_t*>(out.bytes) == problem && out.written == 4) << index;
    }
    EXPECT_EQ(Query(Record(0), 6, shorter, 3), 0u);
    EXPECT_TRUE(shorter.Refused());

    uint8_t beyond[16] = {0, 0, 0, 0, 0, 0, 0, 0, 2};  // index 2 of 2 codecs
    Out out;
    for (uint32_t code : {1u, 2u, 6u, 7u}) {
        EXPECT_EQ(Query(beyond, code, out), 0u) << code;
        EXPECT_EQ(Query(nullptr, code, out), 0u) << code;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), code, out.bytes, 64, nullptr), 0u) << code;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, Record(0), code, nullptr, 64, &out.written), 0u) << code;
    }
    EXPECT_EQ(Query(Record(0), 8, out), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, Record(0), 6, out.bytes, 64, nullptr, 0), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_AUDIO, nullptr, 3, out.bytes, 8, nullptr, 0), 0u);
    EXPECT_TRUE(out.Refused());
}

TEST_F(AudioTest, CallbacksAreKeptWithoutAReferenceAndReleasedOnceAtClose) {
    Callback* callbacks[] = {new Callback, new Callback, new Callback, new Callback};
    auto [first, speaker, microphone, ignored] = callbacks;
    for (Callback* callback : callbacks) callback->AddRef();  // one more, to watch them
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 1, first), 0u) << "no interface held, yet the callback is kept";
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 1, speaker), 0u);  // replaces the first, which is not released
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 0, microphone), 0u);
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 2, ignored), 1u);  // an unknown selector: success, nothing kept
    EXPECT_EQ(HalSetCallback(HAL_CLASS_AUDIO, 0, nullptr), 0u);
    EXPECT_EQ(HalSetCallback(HAL_CLASS_WIFI, 1, ignored), 0u);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_AUDIO, nullptr), 1u);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_AUDIO, nullptr), 1u);  // a second close releases nothing more
    const long references[] = {2, 1, 1, 2};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(callbacks[i]->References(), references[i]) << i;
        while (callbacks[i]->Release() != 0) continue;
    }
}

TEST_F(AudioTest, OtherVendorsOnlyMeanNoList) {
    machine.profile.doc()["devices"]["sets"]["{4D36E96C-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT"] =
        {"HDAUDIO\\FUNC_01&VEN_8086&DEV_2812\\4&1&0002", "HDAUDIO\\FUNC_01&ven_10ec&DEV_0256\\4&1&0003"};
    void* list = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_AUDIO, &list), 0u);
    EXPECT_EQ(list, reinterpret_cast<void*>(0x1234));
    uint8_t record[16] = {};
    Out out;
    for (uint32_t code : {0u, 1u, 2u, 6u, 7u}) EXPECT_EQ(Query(record, code, out), 0u) << code;
    EXPECT_TRUE(out.Refused());
}

TEST(AudioVolumeArithmetic, PercentTargetsAndMuteNoOps) {
    for (const auto& [scalar, percent] : {std::pair{0.256f, 26u}, {0.254f, 25u}, {0.0f, 0u}, {1.0f, 100u}, {0.005f, 1u}})
        EXPECT_EQ(audio::PercentFromScalar(scalar), percent) << scalar;
    // Current percent, value, mode (1 relative, any other absolute), target.
    const std::tuple<uint32_t, int32_t, uint8_t, int32_t> cases[] = {
        {20, -30, 1, 0}, {20, 30, 1, 50}, {90, 30, 1, 100}, {20, 150, 0, 100}, {20, -5, 0, 0},
        {20, 40, 2, 40}, {100, INT32_MAX, 1, 100}, {0, INT32_MIN, 1, 0}, {55, 0, 1, 55}};
    for (const auto& [current, value, mode, target] : cases)
        EXPECT_EQ(audio::TargetPercent(current, value, mode), target) << current << " " << value << " " << +mode;
    EXPECT_FLOAT_EQ(audio::ScalarFromPercent(37), 0.37f);
    const uint32_t flag = 1;
    EXPECT_TRUE(audio::MuteUnchanged(nullptr, 0, 1) && audio::MuteUnchanged(&flag, 1, 1) && !audio::MuteUnchanged(&flag, 1, 0));
}

TEST(AudioOnWine, NoCodecMeansNoList) {
    void* out = nullptr;
    EXPECT_EQ(HalInit(HAL_CLASS_AUDIO, &out), 0u);
    EXPECT_EQ(out, nullptr);
    uint32_t value = 7, written = 9;
    for (uint32_t code : {0u, 3u}) EXPECT_EQ(HalQueryInformation(HAL_CLASS_AUDIO, nullptr, code, &value, 4, &written), 0u) << code;
    EXPECT_TRUE(value == 7 && written == 9);
}

}  // namespace
}  // namespace torvex::test
