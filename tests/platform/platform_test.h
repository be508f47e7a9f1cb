// Shared by the platform tests: rows of profiles, a machine that checks what
// the library kept of it, and a query's answer under the rules of refusals.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

namespace platform_test {

using torvex::test::Json;
using Lines = std::vector<std::string>;

constexpr uint32_t kUntouched = 0xBAD;  // what a count holds until the library writes it

// One row per value, each with the one property.
inline Json Rows(const char* property, const std::vector<Json>& values) {
    Json rows = Json::array();
    for (const Json& value : values) rows.push_back({{property, value}});
    return {{"rows", rows}};
}

inline std::string Wmi(const std::string& nameSpace, const std::string& query) { return nameSpace + " \"" + query + "\""; }

// A simulated machine that checks, before it goes, that the library holds
// nothing of it (what it held is forgotten with the machine), nor "MutexWMI",
// which it keeps in existence so that one left owned stays so: another thread
// must get it (after a brief hold by another test program).
struct Machine : torvex::test::SimulatedMachine {
    using SimulatedMachine::SimulatedMachine;
    ~Machine() {
        torvex::test::ExpectNothingHeld();
        std::thread([this] {
            EXPECT_EQ(WaitForSingleObject(firmwareMutex, 10000), WAIT_OBJECT_0) << "MutexWMI is still held";
            ReleaseMutex(firmwareMutex);
        }).join();
        CloseHandle(firmwareMutex);
    }
    Lines Sent(const std::string& source) const {  // "call [detail]", without the outcomes
        Lines calls = Calls(source);
        for (std::string& call : calls) call = call.substr(0, call.rfind(" -> "));
        return calls;
    }
    std::string Last(const std::string& source) const { return Asked(source).empty() ? "" : Asked(source).back(); }

    HANDLE firmwareMutex = CreateMutexW(nullptr, FALSE, L"MutexWMI");
};

// Calls query(buffer, size, &count). A refusal gives nullopt and must leave
// the buffer and the count as they were. An answer gives its bytes, `width`
// of them with the count `count`, or for text (width 0) as many as the count
// says, with a spare byte; nothing past them is written.
template <typename Query>
std::optional<std::string> Ask(Query query, uint32_t size, uint32_t width = 0, uint32_t count = kUntouched) {
    std::vector<char> buffer(std::max<size_t>(size, width) + 8, '#');
    uint32_t written = kUntouched;
    if (query(buffer.data(), size, &written) == 0) {
        EXPECT_EQ(written, kUntouched) << "count written on a refusal";
        EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string(buffer.size(), '#')) << "buffer written on a refusal";
        return std::nullopt;
    }
    EXPECT_TRUE(width != 0 ? written == count : written < size) << "count " << written;
    const size_t length = std::min<size_t>(width != 0 ? width : written, buffer.size());
    EXPECT_EQ(std::string(buffer.begin() + length, buffer.end()), std::string(buffer.size() - length, '#')) << "written past the answer";
    return std::string(buffer.data(), length);
}

// A number's answer: its sizeof(T) bytes, with the count `count`.
template <typename T, typename Query>
std::optional<T> AskNumber(Query query, uint32_t size, uint32_t count) {
    const std::optional<std::string> bytes = Ask(query, size, sizeof(T), count);
    T value{};
    if (bytes) std::memcpy(&value, bytes->data(), sizeof(T));
    return bytes ? std::optional(value) : std::nullopt;
}

}  // namespace platform_test
