#include "audio/AudioStream.h"

#include <algorithm>
#include <cmath>

#include "audio/AudioClip.h"

AudioStream::AudioStream(std::int64_t channels, std::int64_t capacity, double sampleRate,
                         std::int64_t startFrame, std::int64_t totalFrames)
    : m_channelCount(std::max<std::int64_t>(channels, 1)),
      m_capacity(std::max<std::int64_t>(capacity, 1)), m_sampleRate(sampleRate),
      m_startFrame(std::max<std::int64_t>(startFrame, 0)),
      m_totalFrames(std::max<std::int64_t>(totalFrames, 1)) {
    for (std::int64_t c = 0; c < m_channelCount; ++c)
        m_samples.emplace_back(new float[static_cast<std::size_t>(m_capacity)]());
}

std::int64_t AudioStream::space() const noexcept {
    return m_capacity -
           (m_written.load(std::memory_order_relaxed) - m_read.load(std::memory_order_acquire));
}

std::int64_t AudioStream::write(const float* const* src, std::int64_t frames) noexcept {
    const std::int64_t written = m_written.load(std::memory_order_relaxed);
    const std::int64_t count = std::clamp<std::int64_t>(frames, 0, space());
    for (std::int64_t c = 0; c < m_channelCount; ++c) {
        float* ring = m_samples[static_cast<std::size_t>(c)].get();
        for (std::int64_t i = 0; i < count; ++i) {
            const float x = src[c][i];
            ring[(written + i) % m_capacity] =
                std::fabs(x) <= AudioClip::kDamagedLevel ? x : 0.0f; // NaN fails the test too
        }
    }
    m_written.store(written + count, std::memory_order_release);
    return count;
}

void AudioStream::finish() noexcept {
    m_finished.store(true, std::memory_order_release);
}

std::int64_t AudioStream::available() const noexcept {
    return m_written.load(std::memory_order_acquire) - m_read.load(std::memory_order_relaxed);
}

const float* AudioStream::piece(std::int64_t c, std::int64_t from, std::int64_t frames,
                                std::int64_t& length) const noexcept {
    const std::int64_t start = (m_read.load(std::memory_order_relaxed) + from) % m_capacity;
    length = std::min(frames, m_capacity - start);
    return m_samples[static_cast<std::size_t>(c)].get() + start;
}

void AudioStream::consume(std::int64_t frames) noexcept {
    m_read.store(m_read.load(std::memory_order_relaxed) + frames, std::memory_order_release);
}

bool AudioStream::ended() const noexcept {
    // The finish flag first: once it is seen, the write count it follows is final.
    return m_finished.load(std::memory_order_acquire) && available() == 0;
}
