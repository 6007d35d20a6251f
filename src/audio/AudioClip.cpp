#include "audio/AudioClip.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "audio/VectorMath.h"

namespace {

std::int64_t commonFrameCount(const std::vector<SampleBuffer>& data) {
    if (data.empty())
        return 0;
    const auto frames = data.front().size();
    for (const auto& channel : data) {
        if (channel.size() != frames)
            throw std::invalid_argument("AudioClip: channels differ in length");
    }
    return static_cast<std::int64_t>(frames);
}

std::vector<SampleBuffer> copyOf(const std::vector<std::vector<float>>& data) {
    std::vector<SampleBuffer> buffers(data.size());
    for (std::size_t c = 0; c < data.size(); ++c) {
        if (!buffers[c].append(data[c].data(), data[c].size()))
            throw std::bad_alloc();
    }
    return buffers;
}

} // namespace

AudioClip::AudioClip(const std::vector<std::vector<float>>& channelData, double rate)
    : AudioClip(copyOf(channelData), rate) {}

AudioClip::AudioClip(std::vector<SampleBuffer> channelData, double rate)
    : buffer(std::move(channelData)), channelCount(static_cast<std::int64_t>(buffer.size())),
      frameCount(commonFrameCount(buffer)), sampleRate(rate) {
    channels.reserve(buffer.size());
    for (const auto& channel : buffer)
        channels.push_back(channel.data());
    silenceDamageAndComputePeaks();
}

void AudioClip::silenceDamageAndComputePeaks() {
    if (frameCount < 1)
        return;
    // One walk over the samples, a bin at a time, so the check and the peak read the same
    // cache-warm stretch.
    const std::int64_t bins = std::min(frameCount, kMaxPeaks);
    peaks.assign(static_cast<std::size_t>(bins), 0.0f);
    for (std::int64_t b = 0; b < bins; ++b) {
        const std::int64_t start = b * frameCount / bins;
        const std::int64_t end = std::max(start + 1, (b + 1) * frameCount / bins);
        float peak = 0.0f;
        for (std::int64_t c = 0; c < channelCount; ++c) {
            // The clip is not shared yet: its samples are still ours to mend.
            float* x = const_cast<float*>(channels[static_cast<std::size_t>(c)]) + start;
            // The peak of what stays: damaged samples become silence.
            const VectorMath::Scan scan = VectorMath::scanWithin(x, end - start, kDamagedLevel);
            if (scan.beyond > 0) {
                damagedSamples += scan.beyond;
                for (std::int64_t i = 0; i < end - start; ++i) {
                    if (!(std::fabs(x[i]) <= kDamagedLevel))
                        x[i] = 0.0f;
                }
            }
            peak = std::max(peak, scan.peak);
        }
        peaks[static_cast<std::size_t>(b)] = std::min(peak, 1.0f);
    }
}
