#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Records the monitor of one PipeWire sink with a capture stream of its own, and notes when
// the first sound (|x| > 0.1 on the sink's first channel) reached it: the graph's time of that
// cycle plus the sample's place in it, on CLOCK_MONOTONIC. The clock measured here, independent
// of what the program under test believes. It also keeps the last second of every channel.
// Use it inside a PipeWireSession.
class PipeWireRecorder {
public:
    PipeWireRecorder(const std::string& sink, int channels);
    ~PipeWireRecorder();
    PipeWireRecorder(const PipeWireRecorder&) = delete;
    PipeWireRecorder& operator=(const PipeWireRecorder&) = delete;

    bool connected() const { return m_connected; }
    std::int64_t frames() const;
    // 0 while only silence came.
    std::uint64_t firstSoundHostTime() const;
    // Listens for the next first sound.
    void rearm();
    // The last `count` frames (at most a second) of each channel, oldest first.
    std::vector<std::vector<float>> last(std::size_t count) const;

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
    bool m_connected = false;
};
