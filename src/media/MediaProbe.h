#pragma once

#include <cstdint>

// What a media file holds, as far as it could be read. Fields that could not be read stay 0 or
// false; probing never fails.
struct MediaProbe {
    bool hasAudio = false;
    bool hasVideo = false;
    // The first video track's display size: rotation (display matrix) and pixel aspect applied,
    // signs dropped.
    double videoWidth = 0.0;
    double videoHeight = 0.0;
    double duration = 0.0;           // seconds
    std::int64_t sourceChannels = 0; // summed over all audio tracks
    std::int64_t audioTracks = 0;
    double sourceSampleRate = 0.0; // of the first audio track that reports one
    std::int64_t fileSize = 0;     // bytes
};
