#include "audio/OfflineRenderer.h"

#include <algorithm>

#include "audio/HostTime.h"
#include "audio/Mixer.h"

OfflineRenderer::OfflineRenderer(Mixer& mixer, int channels, std::int64_t blockFrames,
                                 double sampleRate, std::uint64_t startHost, double ppm)
    : m_mixer(mixer), m_blockFrames(std::max<std::int64_t>(blockFrames, 1)),
      m_sampleRate(sampleRate), m_framesPerHostSecond(sampleRate * (1.0 + ppm * 1e-6)),
      m_startHost(startHost) {
    const int count = std::max(channels, 0);
    m_channels.assign(static_cast<std::size_t>(count),
                      std::vector<float>(static_cast<std::size_t>(m_blockFrames), 0.0f));
    for (auto& channel : m_channels)
        m_buffers.push_back({channel.data(), channel.size() * sizeof(float)});
    m_mixer.setSampleRate(sampleRate);
    m_mixer.setLatency(0.0);
}

std::uint64_t OfflineRenderer::hostTimeAtFrame(std::int64_t frame) const {
    return m_startHost +
           HostTime::secondsToTicks(static_cast<double>(frame) / m_framesPerHostSecond);
}

std::uint64_t OfflineRenderer::hostTime() const {
    return hostTimeAtFrame(m_framesRendered);
}

void OfflineRenderer::renderBlock() {
    const AudioTimeStamp stamp{hostTime(), true};
    m_mixer.render(m_blockFrames, stamp, m_buffers);
    m_framesRendered += m_blockFrames;
}

std::vector<std::vector<float>> OfflineRenderer::render(std::int64_t frames) {
    std::vector<std::vector<float>> out(m_channels.size());
    for (auto& channel : out)
        channel.reserve(static_cast<std::size_t>(std::max<std::int64_t>(frames, 0)));
    std::int64_t done = 0;
    while (done < frames) {
        renderBlock();
        const std::int64_t take = std::min(m_blockFrames, frames - done);
        for (std::size_t c = 0; c < m_channels.size(); ++c)
            out[c].insert(out[c].end(), m_channels[c].begin(), m_channels[c].begin() + take);
        done += take;
    }
    return out;
}
