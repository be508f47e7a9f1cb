// HalWmi over simulated machines and Wine's own WMI: its select calls, and its OEM
// firmware method channel over firmwares of both variants, with the channel's lock.
#include <windows.h>
#include <comdef.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using torvex::test::Json;
using torvex::test::SimulatedMachine;

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";
const std::wstring kQuery = L"SELECT Thing FROM Test_Class";
constexpr char kQueryText[] = "SELECT Thing FROM Test_Class";
const std::string kAsked = "ROOT\\CIMV2 \"SELECT Thing FROM Test_Class\" [WQL, flags 48]";
const Json kAbsent = Json(Json::value_t::discarded);  // a row without the property

// ROOT\CIMV2 answering the test query with `answer` ({"rows": ...}, "then", "error").
Json Answering(const Json& answer) { return {{"wmi", {{"ROOT\\CIMV2", {{"queries", {{kQueryText, answer}}}}}}}}; }

// Rows holding one value of "Thing" each.
Json Rows(std::initializer_list<Json> values) {
    Json rows = Json::array();
    for (const Json& value : values)
        rows.push_back(value.is_discarded() ? Json{{"Other", "x"}} : Json{{"Thing", value}});
    return {{"rows", rows}};
}
Json Then(Json answer) { return answer.update({{"then", "0x80041001"}}), answer; }  // the next fetch fails
Json Typed(const char* vt, const Json& value) { return {{"vt", vt}, {"value", value}}; }

// Every select call, its answer as text.
using SelectFn = std::function<std::wstring(HalWmi&)>;
const SelectFn Str = [](HalWmi& q) { return q.SelectStr(kQuery, L"Thing"); };
const SelectFn StrA = [](HalWmi& q) { return q.SelectStrA(L"Test_Class", L"Thing"); };
const SelectFn StrB = [](HalWmi& q) { return q.SelectStrB(kQuery, L"Thing"); };
const SelectFn UInt = [](HalWmi& q) { return std::to_wstring(q.SelectUInt(kQuery, L"Thing")); };
const SelectFn Sum = [](HalWmi& q) { return std::to_wstring(q.SelectUintForCpuCacheL1AndL2(kQuery, L"Thing")); };
const SelectFn Array = [](HalWmi& q) { return q.SelectUIntArray(L"Test_Class", L"Thing"); };
const SelectFn Bool = [](HalWmi& q) { return std::wstring(q.SelectBool(kQuery, L"Thing") ? L"true" : L"false"); };
const std::wstring kUntouched = L"238 238 238 238 238 238 ";
SelectFn Copy(int size, bool toBuffer = true) {  // `size` bytes into 6 bytes of 238; "false " when refused
    return [=](HalWmi& q) {
        unsigned char buffer[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
        std::wstring text = q.Select(kQuery, L"Thing", toBuffer ? buffer : nullptr, size) ? L"" : L"false ";
        for (unsigned char byte : buffer) text += std::to_wstring(byte) + L" ";
        return text;
    };
}
const std::pair<SelectFn, std::wstring> kDefaults[] = {{Str, L""}, {StrA, L""}, {StrB, L""}, {UInt, L"4294967295"},
    {Sum, L"0"}, {Array, L""}, {Bool, L"false"}, {Copy(4), L"false " + kUntouched}};

HRESULT WINAPI NoLocator(REFCLSID, LPUNKNOWN, DWORD, REFIID, void** out) { *out = nullptr; return REGDB_E_CLASSNOTREG; }

// "MutexWMI" is kept open as another process would: after every test, another thread
// takes it at once (other programs hold it for a moment at most), the test's own handle
// is the only one open to it, and no WMI object is held.
class HalWmiTest : public ::testing::Test {
protected:
    void SetUp() override { mutex_ = CreateMutexW(nullptr, FALSE, L"MutexWMI"); }
    void TearDown() override {
        torvex::test::ExpectNothingHeld();
        EXPECT_EQ(torvex::test::OpenHandlesNamed(L"MutexWMI"), 1u) << "a handle to MutexWMI left open";
        DWORD waited = WAIT_FAILED;
        std::thread([&] { waited = WaitForSingleObject(mutex_, 2000); ReleaseMutex(mutex_); }).join();
        EXPECT_EQ(waited, static_cast<DWORD>(WAIT_OBJECT_0)) << "MutexWMI is still held";
        CloseHandle(mutex_);
    }
    HANDLE mutex_ = nullptr;
};

TEST_F(HalWmiTest, SelectsJoinOrTakeTheFirstRow) {
    const Json bytes = Rows({Typed("VT_ARRAY|VT_UI1", "010203040506")});
    const std::tuple<const char*, Json, SelectFn, std::wstring> cases[] = {
        {"NULL and missing add nothing, '' joins", Rows({"A", nullptr, kAbsent, "", "B"}), StrB, L"A;;B"},
        {"class form", Rows({"A", nullptr, "B"}), StrA, L"A;B"},
        {"no separator before the first text", Rows({"", "B"}), StrB, L"B"},
        {"a partial join stands", Then(Rows({"A", "B"})), StrB, L"A;B"},
        {"first row", Rows({"A", "B"}), Str, L"A"},
        {"a NULL first row decides", Rows({nullptr, "x"}), Str, L""},
        {"only a BSTR is text", Rows({7}), Str, L""},
        {"first number", Rows({8, 9}), UInt, L"8"},
        {"a NULL first number decides", Rows({nullptr, 7}), UInt, L"4294967295"},
        {"the sum wraps", Rows({8, 0, -3, nullptr}), Sum, L"5"},
        {"64-bit, zeros skipped", Rows({Typed("VT_I8", 8), Typed("VT_I8", 0), Typed("VT_I8", -3),
                                        Typed("VT_I8", 5000000000LL)}), Array, L"8;-3;5000000000"},
        {"VARIANT_TRUE", Rows({true, false}), Bool, L"true"},
        {"1 is not VARIANT_TRUE", Rows({Typed("VT_BOOL", 1)}), Bool, L"false"},
        {"a NULL first bool decides", Rows({nullptr, true}), Bool, L"false"},
        {"exactly the bytes asked", bytes, Copy(4), L"1 2 3 4 238 238 "},
        {"nothing asked, nothing copied", bytes, Copy(0), kUntouched},
        {"nowhere to copy", bytes, Copy(4, false), L"false " + kUntouched},
        {"not an array", Rows({"0102030405"}), Copy(4), L"false " + kUntouched},
    };
    for (const auto& [what, answer, select, expected] : cases) {
        SimulatedMachine machine(Answering(answer));
        HalWmi query(kCimv2);
        EXPECT_EQ(select(query), expected) << what;
        const auto asked = machine.Calls("wmi");
        EXPECT_TRUE(asked.size() == 1 && asked[0].rfind(kAsked + " -> ", 0) == 0) << what;
    }
}

TEST_F(HalWmiTest, EveryFailureGivesTheDefaults) {
    const std::pair<const char*, Json> failures[] = {
        {"no rows", Answering(Rows({}))},
        {"no value in any row", Answering(Rows({kAbsent, nullptr}))},
        {"the query fails", Answering({{"error", "0x80041017"}})},
        {"the first fetch fails", Answering(Then(Rows({})))},
        {"the namespace refuses", {{"wmi", {{"ROOT\\CIMV2", {{"connect", "0x80041003"}}}}}}},
        {"no such namespace", {{"wmi", Json::object()}}},
    };
    for (const auto& [what, profile] : failures) {
        SimulatedMachine machine(profile);
        HalWmi query(kCimv2);
        for (const auto& [select, fallback] : kDefaults) EXPECT_EQ(select(query), fallback) << what;
    }
    SimulatedMachine machine(Answering(Rows({"A"})));
    auto refuse = torvex::test::Redirect("CoCreateInstance", &NoLocator);
    HalWmi query(kCimv2);
    for (const auto& [select, fallback] : kDefaults) EXPECT_EQ(select(query), fallback) << "no locator";
    EXPECT_TRUE(machine.Asked("wmi").empty());
}

// Apart from the suite's handle count: the first exception the library raises opens a few for good.
TEST(HalWmiStrings, AStringThatCannotBeAllocatedRunsNoQuery) {
    SimulatedMachine machine(Answering(Rows({7})));
    torvex::test::BstrRefusal refusal;
    HalWmi query(kCimv2);
    // Only the cache sum raises, and only for its "WQL" and query strings.
    const std::pair<std::wstring, HRESULT> cases[] = {
        {L"WQL", E_OUTOFMEMORY}, {kQuery, E_OUTOFMEMORY}, {L"Thing", S_OK}, {kCimv2, S_OK}};
    for (const auto& [refused, raised] : cases) {
        refusal.Refuse(refused);
        HRESULT error = S_OK;
        try {
            EXPECT_EQ(query.SelectUintForCpuCacheL1AndL2(kQuery, L"Thing"), 0u);
        } catch (const _com_error& e) {
            error = e.Error();
        }
        EXPECT_EQ(error, raised) << refused;
        EXPECT_EQ(query.SelectUInt(kQuery, L"Thing"), 0xFFFFFFFFu) << refused;
        EXPECT_TRUE(machine.trace.Events().empty()) << refused;
        EXPECT_EQ(refusal.LiveStrings(), 0u) << refused;
    }
    refusal.Refuse(L"");
    EXPECT_TRUE(query.SelectUintForCpuCacheL1AndL2(kQuery, L"Thing") == 7 && refusal.LiveStrings() == 0);
    torvex::test::ExpectNothingHeld();
}

// ------------------------------------------------- the firmware method channel

const std::wstring kRootWmi = L"ROOT\\WMI";
const Json kFails = {{"error", "0x80041001"}};

// A firmware answering packets (hex, no trailing zeros) with 256 bytes that start so, or as given.
Json Firmware(const char* input, const Json& answers) {
    Json firmware = {{"present", true}, {"input", input}, {"answers", Json::object()}};
    for (const auto& [packet, answer] : answers.items())
        firmware["answers"][packet] = answer.is_string() ? Json{{"output", answer}, {"length", 256}} : answer;
    return {{"wmi", {{"ROOT\\WMI", Json::object()}}}, {"firmware", firmware}};
}

// The packets that reached the method, in order.
std::vector<std::string> Packets(const SimulatedMachine& machine) {
    std::vector<std::string> packets;
    for (const std::string& call : machine.Asked("firmware"))
        if (call.rfind("OemWMIfun packet ", 0) == 0) packets.push_back(call.substr(17));
    return packets;
}

// A firmware variant: its method's parameter, the puts of the word 0x0C03, the packet bytes it carries.
struct Variant {
    const char* input;
    std::vector<std::string> puts;
    size_t packetBytes;
};
const Variant kVariants[] = {
    {"u64Input", {"put u64Input [VARIANT type 8, CIM type 21, text 3075] -> accepted"}, 8},
    {"u8Input", {"put u64Input -> refused", "put u8Input [VARIANT type 8209, CIM type 0] -> accepted"},
     64}};

class OemChannelTest : public HalWmiTest, public ::testing::WithParamInterface<Variant> {
protected:
    Json Firmware(const Json& answers) const { return ::Firmware(GetParam().input, answers); }
};

TEST_P(OemChannelTest, ACommandWordReachesTheFirmwareInItsOwnForm) {
    SimulatedMachine machine(Firmware({{"030c", "00abcdef12"}}));
    unsigned char output[8] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    ASSERT_TRUE(HalWmi(kRootWmi).GetOutPutUInt(0x0C03, output, 4));
    EXPECT_EQ(std::vector<unsigned char>(output, output + 8),
              (std::vector<unsigned char>{0, 0xAB, 0xCD, 0xEF, 0xEE, 0xEE, 0xEE, 0xEE}))
        << "exactly the requested size is copied";
    std::vector<std::string> calls = {"class OemWMIMethod in ROOT\\WMI -> present"};
    calls.insert(calls.end(), GetParam().puts.begin(), GetParam().puts.end());
    calls.push_back("OemWMIfun packet 030c [object OemWMIMethod.InstanceName='ACPI\\PNP0C14\\ZWMI_0'] -> answered");
    EXPECT_EQ(machine.Calls("firmware"), calls);
}

TEST_P(OemChannelTest, SuperSaverWordFollowsTheCpuType) {
    const std::tuple<const char*, const char*, Json, bool> cases[] = {  // type answer, word sent, its answer, result
        {"0105", "00", "00", true},  // status non-zero: unknown type, the all-zero word is still sent
        {"0000", "00", "00", true},  // type byte 0: unknown
        {"0001", "030f0507", "00", true},  // 1 to 10
        {"000a", "030f0507", "00", true},
        {"000b", "030f0521", "00", true},  // above 10
        {"000b", "030f0521", "03", false},
        {"000b", "030f0521", kFails, false},
    };
    for (const auto& [type, word, answer, result] : cases) {
        SimulatedMachine machine(Firmware({{"030c", type}, {word, answer}}));
        EXPECT_EQ(HalWmi(kRootWmi).StartSuperSaver(), result) << type << answer;
        EXPECT_EQ(Packets(machine), (std::vector<std::string>{"030c", word})) << type;
    }
}

TEST_P(OemChannelTest, PowerLimitAndSuperSaverStop) {
    SimulatedMachine machine(Firmware({{"030c01", "001c32"}, {"030f05", "00"}}));
    Json& answers = machine.profile.doc()["firmware"]["answers"];
    HalWmi channel(kRootWmi);
    float pl1 = -1.0f;
    ASSERT_TRUE(channel.GetPL1(pl1));
    EXPECT_FLOAT_EQ(pl1, 28.5f);
    answers["030c01"]["output"] = "016363";
    EXPECT_FALSE(channel.GetPL1(pl1));
    EXPECT_FLOAT_EQ(pl1, 28.5f) << "value untouched on failure";

    EXPECT_TRUE(channel.StopSuperSaver());
    answers["030f05"]["output"] = "02";
    EXPECT_FALSE(channel.StopSuperSaver());
    EXPECT_EQ(Packets(machine), (std::vector<std::string>{"030c01", "030c01", "030f05", "030f05"}));
}

TEST_P(OemChannelTest, ThermalDefaultsSendBothItemsAndInvertTheOutcome) {
    const std::tuple<Json, Json, bool> cases[] = {  // item 3's answer, item 0's, the outcome
        {"00", "00", false},      // both accepted: each reports true
        {"01", "01", true},       // both refused by status
        {"01", "00", false},
        {kFails, kFails, false},  // calls that fail count as done
    };
    for (const auto& [item3, item0, expected] : cases) {
        SimulatedMachine machine(Firmware({{"030f03", item3}, {"030f", item0}}));
        EXPECT_EQ(HalWmi(kRootWmi).SetOdvp0ToDefault(), expected) << item3 << item0;
        EXPECT_EQ(Packets(machine), (std::vector<std::string>{"030f03", "030f"}));
    }
}

TEST_P(OemChannelTest, TextPacketsUseTheEvenDigitsOfTheReversedText) {
    const std::string full(2 * GetParam().packetBytes, 'f');  // the number form carries 8 bytes only
    SimulatedMachine machine(Firmware({{"553311", "00"}, {full, "00"}}));
    HalWmi channel(kRootWmi);
    unsigned char output[256];
    EXPECT_TRUE(channel.GetOutPutUIntByString("0x12345", output, sizeof(output)));
    EXPECT_FALSE(channel.GetOutPutUIntByString("0x12G4", output, sizeof(output)));
    EXPECT_FALSE(channel.GetOutPutUIntByString("0x" + std::string(129, 'f'), output, sizeof(output)));
    EXPECT_TRUE(channel.GetOutPutUIntByString("0x" + std::string(128, 'f'), output, sizeof(output)));
    EXPECT_EQ(Packets(machine), (std::vector<std::string>{"553311", full})) << "refused texts reach no firmware";
}

TEST_P(OemChannelTest, RefusalsLeaveTheOutputAlone) {
    SimulatedMachine machine(Firmware({{"030c", kFails}}));
    machine.profile.doc()["wmi"]["ROOT\\CIMV2"] = Json::object();
    HalWmi channel(kRootWmi);
    unsigned char packet[64] = {3, 0x0C}, output[4] = {9, 9, 9, 9};
    EXPECT_FALSE(channel.GetOutPutUIntEx(nullptr, 64, output, 4));
    EXPECT_FALSE(channel.GetOutPutUIntEx(packet, 64, nullptr, 4));
    EXPECT_TRUE(machine.trace.Events().empty());
    EXPECT_FALSE(channel.GetOutPutUIntEx(packet, 64, output, 4)) << "the method fails";
    EXPECT_FALSE(HalWmi(L"ROOT\\CIMV2").GetOutPutUIntEx(packet, 64, output, 4)) << "the class lives in ROOT\\WMI";
    EXPECT_EQ(machine.Asked("firmware").back(), "class OemWMIMethod in ROOT\\CIMV2");
    EXPECT_EQ(std::vector<unsigned char>(output, output + 4), std::vector<unsigned char>(4, 9));
}

TEST_P(OemChannelTest, AStringThatCannotBeAllocatedFailsTheCall) {
    SimulatedMachine machine(Firmware({{"030c", "00"}}));
    torvex::test::BstrRefusal refusal;
    HalWmi channel(kRootWmi);
    // The answer's property name is the only string needed after the method ran.
    const std::pair<const wchar_t*, size_t> cases[] = {
        {L"ROOT\\WMI", 0}, {L"OemWMIMethod", 0}, {L"OemWMIfun", 0}, {L"3075", 0},
        {L"OemWMIMethod.InstanceName='ACPI\\PNP0C14\\ZWMI_0'", 0}, {L"u8Output", 1}};
    for (const auto& [refused, calls] : cases) {
        refusal.Refuse(refused);
        const size_t before = Packets(machine).size();
        unsigned char output[4] = {9, 9, 9, 9};
        EXPECT_TRUE(!channel.GetOutPutUInt(0x0C03, output, 4) && output[0] == 9) << refused;
        EXPECT_EQ(Packets(machine).size() - before, calls) << refused;
    }
}

INSTANTIATE_TEST_SUITE_P(BothFirmwares, OemChannelTest, ::testing::ValuesIn(kVariants));

// A holder that does not let go delays a call by the wait (5 s) and no more.
TEST_F(HalWmiTest, AHolderDelaysACallByTheWaitAndNoMore) {
    SimulatedMachine machine(Firmware("u64Input", {{"030c", "00"}}));
    HANDLE held = CreateMutexW(nullptr, FALSE, L"MutexWMI"), taken = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE done = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread holder([&] {
        WaitForSingleObject(held, INFINITE);
        SignalObjectAndWait(taken, done, INFINITE, FALSE);
        ReleaseMutex(held);
    });
    WaitForSingleObject(taken, INFINITE);
    unsigned char output[256];
    const ULONGLONG start = GetTickCount64();
    EXPECT_TRUE(HalWmi(kRootWmi).GetOutPutUInt(0x0C03, output, sizeof(output)));
    const ULONGLONG waited = GetTickCount64() - start;
    SetEvent(done);
    holder.join();
    EXPECT_TRUE(waited >= 4900 && waited < 8000) << waited << " ms";
    for (HANDLE handle : {done, taken, held}) CloseHandle(handle);
}

// COM pairing, counted at Torvex.dll's CoUninitialize import.
std::atomic<int> g_uninitialized{0};
void WINAPI CountingCoUninitialize() {
    ++g_uninitialized;
    CoUninitialize();
}

// Every copy that carries the flag uninitialises once; an object in a
// single-threaded apartment works there (on Wine's own WMI) and owes nothing.
TEST(HalWmiOnWine, EveryObjectPairsItsComInitialisation) {
    auto patch = torvex::test::Redirect("CoUninitialize", &CountingCoUninitialize);
    std::thread([] {  // on a thread of its own in the MTA: every uninitialisation is that thread's
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        HalWmi first(kCimv2), second(first), third(L"ROOT\\WMI");  // S_FALSE: owed
        third = first;
    }).join();
    EXPECT_EQ(g_uninitialized.exchange(0), 3);
    wchar_t name[256] = {};
    DWORD size = sizeof(name);
    ASSERT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0",
                           L"ProcessorNameString", RRF_RT_REG_SZ, nullptr, name, &size), ERROR_SUCCESS);
    std::thread([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        {
            HalWmi query(kCimv2);
            EXPECT_EQ(query.SelectStr(L"SELECT Name FROM Win32_Processor", L"Name"), std::wstring(name));
            EXPECT_NE(query.SelectUInt(L"SELECT NumberOfLogicalProcessors FROM Win32_Processor",
                                       L"NumberOfLogicalProcessors"), 0xFFFFFFFFu);
            EXPECT_EQ(query.SelectStr(L"SELECT Nothing FROM No_Such_Class", L"Nothing"), L"");
        }
        CoUninitialize();
    }).join();
    EXPECT_EQ(g_uninitialized, 0);
}

}  // namespace
