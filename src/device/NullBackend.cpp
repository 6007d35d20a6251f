#include "device/NullBackend.h"

#include <algorithm>
#include <ctime>

#include "audio/HostTime.h"
#include "audio/Mixer.h"

NullBackend::NullBackend(std::int64_t channels, double rate, std::int64_t blockFrames, bool manual)
    : m_channels(std::clamp<std::int64_t>(channels, 1, Mixer::kMaxOutputs)), m_rate(rate),
      m_blockFrames(std::max<std::int64_t>(blockFrames, 1)), m_manual(manual) {
    m_data.assign(static_cast<std::size_t>(m_channels),
                  std::vector<float>(static_cast<std::size_t>(m_blockFrames), 0.0f));
    for (auto& channel : m_data)
        m_buffers.push_back({channel.data(), channel.size() * sizeof(float)});
}

NullBackend::~NullBackend() {
    stop();
}

void NullBackend::start(Mixer& mixer, Notice) {
    stop();
    m_mixer = &mixer;
    m_blocks = 0;
    m_startHost = HostTime::now();
    m_running = true;
    if (!m_manual)
        m_thread = std::thread([this] { run(); });
}

void NullBackend::stop() {
    m_running = false;
    if (m_thread.joinable())
        m_thread.join();
}

void NullBackend::renderOne(std::uint64_t hostTime) {
    m_mixer->render(m_blockFrames, AudioTimeStamp{hostTime, true}, m_buffers);
    ++m_blocks;
}

void NullBackend::renderBlocks(std::int64_t n) {
    if (!m_manual || !m_running)
        return;
    for (std::int64_t i = 0; i < n; ++i) {
        const double frames = static_cast<double>(m_blocks.load() * m_blockFrames);
        renderOne(m_startHost + HostTime::secondsToTicks(frames / m_rate));
    }
}

void NullBackend::run() {
    // Absolute deadlines on the monotonic clock: no drift, however long a block took.
    while (m_running.load(std::memory_order_relaxed)) {
        const double frames = static_cast<double>(m_blocks.load() * m_blockFrames);
        const std::uint64_t due = m_startHost + HostTime::secondsToTicks(frames / m_rate);
        timespec until{static_cast<time_t>(due / 1'000'000'000ull),
                       static_cast<long>(due % 1'000'000'000ull)};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
        if (!m_running.load(std::memory_order_relaxed))
            break;
        renderOne(due);
    }
}
