// Narrow-text answers of the modules: copied without a terminator,
// with the byte count in *written.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace torvex {

// Fails on an empty answer or a missing buffer. The length counts bytes up to
// the first zero byte; the buffer must hold more than that (room for a
// terminator that is never written) or nothing is written at all.
inline uint32_t WriteNarrowAnswer(const std::string& answer, void* buffer, uint32_t bufferSize,
                                  uint32_t* written) {
    if (buffer == nullptr || written == nullptr || answer.empty()) return 0;
    const size_t length = std::strlen(answer.c_str());
    if (bufferSize <= length) return 0;
    std::memcpy(buffer, answer.data(), length);
    *written = static_cast<uint32_t>(length);
    return 1;
}

}  // namespace torvex
