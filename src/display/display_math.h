// Colour arithmetic of the display back ends: Kelvin from a level, gamma
// ramps from a 3x3 matrix, warmth and channel matrices, and the Intel gain
// adjustments. Pure functions, shared by the back ends.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

namespace torvex::display {

using Matrix = std::array<std::array<double, 3>, 3>;
using Ramp = std::array<uint16_t, 768>;  // 256 red, 256 green, 256 blue

inline Matrix Identity() { return {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}}; }

// Kelvin for a 0-255 level over 5000-8000 K (range 0) or 4000-6000 K, rounded
// down to a multiple of 100, in signed 32-bit arithmetic.
inline int32_t KelvinFromLevel(int32_t level, int32_t range) {
    const int32_t low = range == 0 ? 5000 : 4000;
    const int32_t high = range == 0 ? 8000 : 6000;
    int32_t kelvin = low + ((high - low) * level) / 255;
    kelvin -= kelvin % 100;
    return kelvin;
}

inline int32_t KelvinUpperBound(int32_t range) { return range == 0 ? 8000 : 6000; }

// Row r of the matrix fills channel r: entry i = i/255 x row sum x 65535.
// The rounding differs on machines with the AMD library loaded; both forms
// are what the display drivers were tuned against.
inline Ramp RampFromMatrix(const Matrix& m, bool adlRounding) {
    Ramp ramp{};
    for (int i = 0; i < 256; ++i) {
        const double t = i / 255.0;
        for (int r = 0; r < 3; ++r) {
            const double x = t * (m[r][0] + m[r][1] + m[r][2]) * 65535.0;
            double entry;
            if (adlRounding) entry = x >= 0 ? std::min(65535.0, std::floor(x + 0.5)) : 0.0;
            else entry = std::min(std::round(x), 65535.0);
            ramp[static_cast<size_t>(r * 256 + i)] = static_cast<uint16_t>(entry);
        }
    }
    return ramp;
}

inline Matrix WarmthMatrix(uint32_t warmth, uint32_t blueCut) {
    Matrix m = Identity();
    const float w = static_cast<float>(std::min<uint32_t>(warmth, 255));
    if (w >= 128.0f) {
        const float scale = 1.0f - (w - 128.0f) * 0.0078125f * 0.06f;
        m[0][0] = scale;
        m[1][1] = scale;
    } else {
        m[2][2] = 1.0f - (128.0f - w) * 0.0078125f * 0.15f;
    }
    m[2][2] *= 1.0f - static_cast<float>(std::min<uint32_t>(blueCut, 255)) / 255.0f * 0.18f;
    return m;
}

inline Matrix ChannelMatrix(float red, float green, float blue, float level, float strength) {
    Matrix m{};
    m[0][0] = red;
    m[1][1] = green;
    m[2][2] = blue;
    const float clamped = std::min(std::floor(level), 255.0f);
    m[2][2] *= 1.0f - clamped / 255.0f * (1.0f - strength);
    return m;
}

struct Gains {
    float red, green, blue;
};

// Gains the Intel library is given, by mode (extra argument of the set).
inline Gains AdjustGains(Gains g, uint32_t mode) {
    const bool neutral = g.red == 1.0f && g.green == 1.0f && g.blue == 1.0f;
    if (mode == 1) {
        if (neutral) return {1.0f, 0.94f, 0.96f};
        if (g.red > 0.96f) {
            if (g.green <= 0.999f) g.green *= 1.001f;
            g.blue *= 0.968f;
            return g;
        }
        g.red = g.red * 1.087f >= 1.0f ? 1.0f : g.red * 1.087f;
        g.green *= 0.978f;
        return g;
    }
    if (mode == 2) {
        if (neutral || g.red > 0.96f) return g;
        g.red = g.red * 1.054f >= 1.0f ? 1.0f : g.red * 1.054f;
        g.green = g.green * 1.0107f >= 1.0f ? 1.0f : g.green * 1.0107f;
        return g;
    }
    return g;
}

}  // namespace torvex::display
