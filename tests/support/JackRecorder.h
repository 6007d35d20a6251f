#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

typedef struct _jack_client jack_client_t;
typedef struct _jack_port jack_port_t;

// A JACK client that records what `source:out_1…out_N` play, into buffers made up front (its
// process callback only copies). Read the recording after stop().
class JackRecorder {
public:
    JackRecorder(const std::string& source, int channels, double maxSeconds = 5.0);
    ~JackRecorder();

    bool connected() const { return m_connected; }
    void stop();
    std::int64_t frames() const { return m_frames.load(); }
    const std::vector<float>& channel(int c) const { return m_data[static_cast<std::size_t>(c)]; }
    // JACK's frame counter at the first recorded frame, and now (to relate events to frames).
    std::uint32_t startFrame() const { return m_startFrame.load(); }
    std::uint32_t frameTime() const;
    double sampleRate() const { return m_rate; }
    // When the first non-silent sample of channel 0 reached our port, in CLOCK_MONOTONIC
    // nanoseconds read in that cycle (0 while only silence came): the host clock measured here,
    // independently of what the program under test believes it is.
    std::uint64_t firstSoundHostTime() const { return m_firstSound.load(); }

private:
    static int process(std::uint32_t frames, void* self);

    jack_client_t* m_client = nullptr;
    std::vector<jack_port_t*> m_ports;
    std::vector<std::vector<float>> m_data;
    std::atomic<std::int64_t> m_frames{0};
    std::atomic<std::uint32_t> m_startFrame{0};
    std::atomic<std::uint64_t> m_firstSound{0};
    double m_rate = 0.0;
    bool m_connected = false;
};
