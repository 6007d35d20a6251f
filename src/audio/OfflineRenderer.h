#pragma once

#include <cstdint>
#include <vector>

#include "audio/AudioBufferList.h"

class Mixer;

// Drives a Mixer without a device: it owns one float buffer per output channel and renders
// block after block with host times taken from a simulated clock, so a run is repeatable bit
// for bit. Used by the tests and by the headless `vorlin render` command.
//
// Threading: it plays the part of the device, so renderBlock() is the render thread. Calling it
// from the control thread between mixer operations is fine (that is what offline runs do).
// Lifetime: must not outlive the mixer.
class OfflineRenderer {
public:
    // Sets the mixer's sample rate and a latency of 0, as a device would when it starts. With
    // `ppm` the device's sample clock runs that many parts per million faster than the host's
    // (negative: slower), as a real sound card's crystal does.
    OfflineRenderer(Mixer& mixer, int channels, std::int64_t blockFrames, double sampleRate,
                    std::uint64_t startHost = 1'000'000'000ull, double ppm = 0.0);

    // Host time (HostTime ticks) of the next block's first frame.
    std::uint64_t hostTime() const;
    // Host time of a frame of the simulated clock, counted from the start.
    std::uint64_t hostTimeAtFrame(std::int64_t frame) const;
    std::int64_t framesRendered() const { return m_framesRendered; }

    // Renders one block.
    void renderBlock();
    // The last block of one channel.
    const float* channel(int c) const { return m_channels[static_cast<std::size_t>(c)].data(); }

    // Renders whole blocks until at least `frames` more frames are done and returns those
    // frames of every channel.
    std::vector<std::vector<float>> render(std::int64_t frames);

    int channelCount() const { return static_cast<int>(m_channels.size()); }
    std::int64_t blockFrames() const { return m_blockFrames; }
    double sampleRate() const { return m_sampleRate; }
    // Device frames per second of host time: the rate, off by the clock's ppm.
    double framesPerHostSecond() const { return m_framesPerHostSecond; }

private:
    Mixer& m_mixer;
    std::int64_t m_blockFrames;
    double m_sampleRate;
    double m_framesPerHostSecond;
    std::uint64_t m_startHost;
    std::int64_t m_framesRendered = 0;
    std::vector<std::vector<float>> m_channels;
    std::vector<AudioChannelBuffer> m_buffers;
};
