#pragma once

#include <cmath>
#include <memory>
#include <vector>

#include "audio/AudioClip.h"

inline AudioClipPtr makeClip(std::vector<std::vector<float>> channels, double rate = 48000.0) {
    return std::make_shared<const AudioClip>(std::move(channels), rate);
}

inline AudioClipPtr constantClip(float value, std::int64_t frames, int channels = 1,
                                 double rate = 48000.0) {
    return makeClip(std::vector<std::vector<float>>(
                        static_cast<std::size_t>(channels),
                        std::vector<float>(static_cast<std::size_t>(frames), value)),
                    rate);
}

// A mono clip whose every frame differs, so a wrong read position shows in the output.
inline AudioClipPtr distinctClip(std::int64_t frames, double rate = 48000.0) {
    std::vector<float> samples(static_cast<std::size_t>(frames));
    for (std::int64_t i = 0; i < frames; ++i)
        samples[static_cast<std::size_t>(i)] = static_cast<float>(0.5 * std::sin(0.37 * i + 0.2));
    return makeClip({samples}, rate);
}
