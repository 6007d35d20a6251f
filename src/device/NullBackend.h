#pragma once

#include <atomic>
#include <thread>
#include <vector>

#include "audio/AudioBufferList.h"
#include "device/AudioBackend.h"

// No hardware: a thread renders a block every period against the monotonic clock, as a sound
// card would, and the samples go nowhere. The fallback when nothing else opens, and what
// headless runs use. In manual mode no thread runs and renderBlocks() renders at once.
class NullBackend : public AudioBackend {
public:
    explicit NullBackend(std::int64_t channels = 8, double rate = 48000.0,
                         std::int64_t blockFrames = 256, bool manual = false);
    ~NullBackend() override;

    void open() override {}
    void start(Mixer& mixer, Notice notice) override;
    void stop() override;
    std::int64_t channelCount() const override { return m_channels; }
    double sampleRate() const override { return m_rate; }
    double latency() const override { return 0.0; }

    // Manual mode, control thread: renders n blocks without waiting.
    void renderBlocks(std::int64_t n);
    // The last block of a channel (manual mode).
    const float* channel(std::int64_t c) const {
        return m_data[static_cast<std::size_t>(c)].data();
    }
    std::int64_t blocksRendered() const { return m_blocks.load(); }

private:
    void renderOne(std::uint64_t hostTime);
    void run();

    std::int64_t m_channels;
    double m_rate;
    std::int64_t m_blockFrames;
    bool m_manual;
    Mixer* m_mixer = nullptr;
    std::vector<std::vector<float>> m_data;
    std::vector<AudioChannelBuffer> m_buffers;
    std::atomic<bool> m_running{false};
    std::atomic<std::int64_t> m_blocks{0};
    std::uint64_t m_startHost = 0;
    std::thread m_thread;
};
