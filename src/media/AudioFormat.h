#pragma once

#include <cstdint>
#include <string>

// The format of a decoded buffer: 32-bit float, non-interleaved, at sampleRate. `layout` is the
// channel layout in FFmpeg's notation ("mono", "stereo", "5.1(side)", "4 channels" for
// discrete channels in order).
struct AudioFormat {
    double sampleRate = 0.0;
    std::int64_t channelCount = 0;
    std::string layout;
};
