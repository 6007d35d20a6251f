#pragma once

#include <array>
#include <cstdint>

// The twelve key colours (sRGB); a key shows colors[colorIndex mod 12].
namespace KeyPalette {

struct Color {
    double red;
    double green;
    double blue;
};

inline constexpr std::array<Color, 12> colors{{
    {0.22, 0.38, 0.58},
    {0.46, 0.49, 0.26},
    {0.8, 0.42, 0.38},
    {0.55, 0.66, 0.77},
    {0.28, 0.55, 0.47},
    {0.55, 0.4, 0.64},
    {0.78, 0.6, 0.28},
    {0.64, 0.3, 0.4},
    {0.36, 0.6, 0.3},
    {0.82, 0.52, 0.66},
    {0.4, 0.45, 0.72},
    {0.66, 0.66, 0.4},
}};

inline Color colorFor(std::int64_t colorIndex) {
    const auto n = static_cast<std::int64_t>(colors.size());
    return colors[static_cast<std::size_t>(((colorIndex % n) + n) % n)];
}

} // namespace KeyPalette
