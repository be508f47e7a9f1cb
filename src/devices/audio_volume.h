// Volume arithmetic of the audio module, kept apart from Core Audio so that
// it can be checked on its own.
#pragma once

#include <cmath>
#include <cstdint>

namespace torvex::audio {

constexpr int32_t kMinPercent = 0;
constexpr int32_t kMaxPercent = 100;
constexpr uint8_t kRelativeMode = 1;  // any other mode byte means absolute

// Master scalar (0.0 .. 1.0) to percent: rounded, then truncated to an integer.
inline uint32_t PercentFromScalar(float scalar) {
    return static_cast<uint32_t>(static_cast<int64_t>(std::roundf(scalar * 100.0f)));
}

// Target percent of a volume change: relative adds to the current level;
// the result is clamped to 0..100 as a signed number. Computed in 64 bits so
// that extreme inputs clamp instead of overflowing.
inline int32_t TargetPercent(uint32_t currentPercent, int32_t value, uint8_t mode) {
    int64_t target = value;
    if (mode == kRelativeMode) target += static_cast<int32_t>(currentPercent);
    if (target < kMinPercent) return kMinPercent;
    if (target > kMaxPercent) return kMaxPercent;
    return static_cast<int32_t>(target);
}

inline float ScalarFromPercent(int32_t percent) { return static_cast<float>(percent) / 100.0f; }

// A mute request equal to the current state, or without a flag, is a no-op.
inline bool MuteUnchanged(const void* flag, uint32_t requested, uint32_t current) {
    return flag == nullptr || requested == current;
}

}  // namespace torvex::audio
