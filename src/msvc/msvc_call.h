// How a member exported under its Microsoft decorated name runs. Under the x64
// convention a Microsoft C++ member is a plain function with `this` first and,
// for a class-type result, the hidden result pointer next (a static or free
// function takes that pointer first); references and class arguments arrive as
// pointers. So each such member is an extern "C" function with those explicit
// pointers, named in Torvex.def under the decorated name, and all it does is:
//
//   1. check every host argument (Acceptable) before anything runs;
//   2. convert each once to what the GCC-ABI member takes (Native);
//   3. run that same member: one implementation behind both boundaries;
//   4. write the result once in the host's layout (Return, AppendAll).
//
// StringProc's functions cost about as little as a copy of their text, so
// they skip step 2: they read the host's strings in place and build their
// result straight in its layout (string_proc_msvc.cpp).
//
// No exception crosses into the host: a refused argument or an allocation
// failure gives the member's failure default and a debug message.
#pragma once

#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/debug_message.h"
#include "msvc/msvc_layout.h"

namespace torvex::msvc {

constexpr char kRefused[] = "argument refused: a size, capacity or block out of range";
constexpr char kOutOfMemory[] = "out of memory";

// "[Member] text(Member)" on the debugger channel.
inline void Report(const char* member, const char* text) noexcept {
    try {
        DebugMessage().Text("[").Text(member).Text("] ").Text(text).Send(member);
    } catch (...) {
    }
}

// Host strings are checked by their layout and references by being there;
// every other argument (numbers, enums, `this`) passes as it is.
template <typename C>
bool Acceptable(const String<C>* text) noexcept {
    return Valid(text);
}
inline bool Acceptable(const GUID* guid) noexcept { return guid != nullptr; }
inline bool Acceptable(unsigned long* value) noexcept { return value != nullptr; }
template <typename T>
bool Acceptable(T) noexcept {
    return true;
}

template <typename C>
std::basic_string<C> Native(const String<C>* text) {
    return std::basic_string<C>(View(text));
}
inline const GUID& Native(const GUID* guid) { return *guid; }
inline unsigned long& Native(unsigned long* value) { return *value; }
template <typename T>
T Native(T value) {
    return value;
}

template <typename T>
struct Outcome {
    const char* member;
    std::optional<T> value;  // empty when the member did not run or failed
    T Or(T fallback) const { return value ? *value : fallback; }
};

template <typename Fn, typename... Host>
auto Forward(const char* member, Fn&& fn, Host... host) noexcept
    -> Outcome<std::decay_t<std::invoke_result_t<Fn, decltype(Native(host))...>>> {
    if (!(Acceptable(host) && ...)) {
        Report(member, kRefused);
        return {member, std::nullopt};
    }
    try {
        return {member, std::invoke(std::forward<Fn>(fn), Native(host)...)};
    } catch (...) {
        Report(member, kOutOfMemory);
        return {member, std::nullopt};
    }
}

// A result is always constructed, empty when the member gave none: the host
// destroys it in any case.
template <typename C>
String<C>* Return(String<C>* result, const Outcome<std::basic_string<C>>& outcome) noexcept {
    const std::basic_string_view<C> text = outcome.value ? std::basic_string_view<C>(*outcome.value)
                                                         : std::basic_string_view<C>();
    if (!Construct(result, text)) Report(outcome.member, kOutOfMemory);
    return result;
}

inline WideVector* Return(WideVector* result, const Outcome<std::vector<std::wstring>>& outcome) noexcept {
    const bool built = outcome.value ? Construct(result, *outcome.value) : Construct(result, {});
    if (!built) Report(outcome.member, kOutOfMemory);
    return result;
}

// push_back of every item in order onto a valid host vector; stops at the
// first that finds no memory, keeping what was appended before it.
inline void AppendAll(WideVector* list, const std::vector<std::wstring>& items, const char* member) noexcept {
    for (const std::wstring& item : items) {
        if (!Append(list, item)) {
            Report(member, kOutOfMemory);
            return;
        }
    }
}

}  // namespace torvex::msvc
