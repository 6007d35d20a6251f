#pragma once

#include <cstdint>
#include <vector>

#include "audio/SampleBuffer.h"
#include "media/AudioFormat.h"

// Decoded audio on its way to becoming a clip: one float buffer per channel.
struct PcmBuffer {
    AudioFormat format;
    std::vector<SampleBuffer> channels;

    // Frames of the longest channel.
    std::int64_t frameLength() const {
        std::size_t frames = 0;
        for (const auto& channel : channels)
            frames = frames < channel.size() ? channel.size() : frames;
        return static_cast<std::int64_t>(frames);
    }
};
