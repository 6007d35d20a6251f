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
    peaks = computePeaks(channels.data(), channelCount, frameCount);
}

std::vector<float> AudioClip::computePeaks(const float* const* channels, std::int64_t channelCount,
                                           std::int64_t frames) {
    if (frames < 1)
        return {};
    const std::int64_t bins = std::min(frames, kMaxPeaks);
    std::vector<float> result(static_cast<std::size_t>(bins), 0.0f);
    for (std::int64_t b = 0; b < bins; ++b) {
        const std::int64_t start = b * frames / bins;
        const std::int64_t end = std::max(start + 1, (b + 1) * frames / bins);
        float peak = 0.0f;
        for (std::int64_t c = 0; c < channelCount; ++c)
            peak = std::max(peak, VectorMath::maxMagnitude(channels[c] + start, end - start));
        result[static_cast<std::size_t>(b)] = std::min(peak, 1.0f);
    }
    return result;
}
