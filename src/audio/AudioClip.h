#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "audio/SampleBuffer.h"

// Decoded audio held whole in memory: 32-bit float, non-interleaved, full scale ±1.0.
//
// Whatever a file held, a clip's samples are finite and within ±kDamagedLevel: NaN, infinity
// and samples far beyond full scale (a damaged file's garbage, not a decoder's overshoot) are
// silenced when the clip is made and counted in `damagedSamples`. So the render thread never
// needs to check a sample, and nothing a file says can reach the speakers as an explosion.
//
// Lifetime: immutable after construction and shared as std::shared_ptr<const AudioClip> by the
// media table and by every mixer voice that plays it; the last owner frees the samples. The
// render thread only reads a clip, and never holds the last reference to one (voices are
// retired on the control thread), so a clip is never freed on the render thread.
struct AudioClip {
    // Takes ownership of the channel data; every channel must hold the same number of frames
    // (std::invalid_argument otherwise).
    AudioClip(std::vector<SampleBuffer> channelData, double sampleRate);
    // Copies the samples; for generated material and tests.
    AudioClip(const std::vector<std::vector<float>>& channelData, double sampleRate);

    AudioClip(const AudioClip&) = delete;
    AudioClip& operator=(const AudioClip&) = delete;

    // The samples; `channels` points into it.
    const std::vector<SampleBuffer> buffer;
    // One pointer per channel, each to `frameCount` floats.
    std::vector<const float*> channels;
    std::int64_t channelCount = 0;
    std::int64_t frameCount = 0;
    double sampleRate = 0.0;
    // Overview for waveform display: at most 1500 values in 0…1 (the largest magnitude of any
    // channel within each of min(frames, 1500) equal bins, clamped to 1).
    std::vector<float> peaks;
    // Samples that were not finite or beyond ±kDamagedLevel, now silent.
    std::int64_t damagedSamples = 0;

    static constexpr std::int64_t kMaxPeaks = 1500;
    // +18 dB: lossy decoders overshoot full scale by a few dB at most; beyond this it is damage.
    static constexpr float kDamagedLevel = 8.0f;

private:
    void silenceDamageAndComputePeaks();
};

using AudioClipPtr = std::shared_ptr<const AudioClip>;
