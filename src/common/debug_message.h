// Messages on the debugger channel. A message is its text pieces (narrow
// literals widened character by character) and numbers, then "(" + the name
// of the reporting function + ")" and a newline, passed to OutputDebugStringW.
//
// Built in a plain wide string: a string stream would set up the C++
// runtime's locale machinery on first use, which the runtime never tears
// down, so every load and unload of the library would leave it behind
// (heap blocks and two handles).
#pragma once

#include <windows.h>

#include <string>
#include <type_traits>

namespace torvex {

class DebugMessage {
public:
    DebugMessage& Text(const char* text) {
        for (const char* p = text; *p != '\0'; ++p) out_ += static_cast<wchar_t>(static_cast<unsigned char>(*p));
        return *this;
    }

    // Prints as its own type: unsigned for platform results, signed for signed values.
    template <typename T>
    DebugMessage& Value(T value) {
        static_assert(std::is_integral_v<T>, "messages carry whole numbers");
        out_ += std::to_wstring(value);
        return *this;
    }

    // Ends the message with "(function)\n" and sends it. Building a message
    // never disturbs the caller.
    void Send(const char* function) noexcept {
        try {
            out_ += L'(';
            Text(function);
            out_ += L")\n";
            ::OutputDebugStringW(out_.c_str());
        } catch (...) {
        }
    }

private:
    std::wstring out_;
};

// "text(function)\n"
inline void DebugReport(const char* text, const char* function) noexcept {
    try {
        DebugMessage().Text(text).Send(function);
    } catch (...) {
    }
}

// "text<number>(function)\n"
template <typename Number>
void DebugReport(const char* text, Number number, const char* function) noexcept {
    try {
        DebugMessage().Text(text).Value(number).Send(function);
    } catch (...) {
    }
}

}  // namespace torvex
