#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "audio/AudioBufferList.h"
#include "device/AudioBackend.h"
#include "device/AudioOutputDevice.h"
#include "device/RenderTimes.h"

typedef struct _jack_client jack_client_t;
typedef struct _jack_port jack_port_t;

// A JACK client that plays into the physical playback ports of one JACK "device" (a client
// that owns physical playback ports, usually "system"). It registers out_1…out_N (N = the
// device's ports, at most 64), connects them in order, and renders in JACK's process callback.
// It never starts a server. Works with jackd2 and with PipeWire's JACK.
//
// Block times: JACK stamps its cycles on its own clock, which need not be host time's; every
// cycle's stamp is translated (see toHostTime), so a voice started at a host time is heard then.
//
// Threading: the process callback is JACK's real-time thread; the other callbacks (rate,
// buffer size, physical port changes, server shutdown) come on JACK's threads and only pass the
// notice on.
class JackBackend : public AudioBackend {
public:
    // `device`: the client whose physical playback ports to use; empty = the first such client.
    explicit JackBackend(std::string device, std::string clientName = "vorlin");
    ~JackBackend() override;

    void open() override;
    void start(Mixer& mixer, Notice notice) override;
    void stop() override;
    std::int64_t channelCount() const override { return static_cast<std::int64_t>(m_ports.size()); }
    double sampleRate() const override { return m_rate; }
    double latency() const override { return m_latency; }

    // Whether a JACK server runs with physical playback ports of `device` (empty: any). Opens
    // a client briefly when a server answers. Any thread.
    static bool hasPlaybackPorts(const std::string& device);

    // The JACK devices (clients owning physical playback ports) as `client` sees them, uid and
    // name being the client's name. Without a client one is opened briefly; with no server
    // running there are none. Any thread.
    static void addDevices(std::vector<AudioOutputDevice>& devices,
                           jack_client_t* client = nullptr);

    // libjack prints every failed connection attempt to stderr; route its messages nowhere.
    static void silenceLibraryMessages();

    // The client name JACK gave us (it may add a suffix when the name is taken).
    const std::string& clientName() const { return m_actualName; }
    // The device client whose ports we play into (the default resolved).
    const std::string& deviceClient() const { return m_device; }
    // Blocks JACK could not deliver on time, as counted by the server's xrun callback.
    std::int64_t xruns() const { return m_xruns.load(); }
    // The longest our process callback took, in seconds, since start (the mix's share of a
    // period: whether an xrun was ours or the system's).
    double longestCycle() const { return static_cast<double>(m_longestCycle.load()) * 1e-9; }
    // Of the cycles since start: the longest wait for the mixer lock, and the longest mix
    // without that wait, in seconds.
    double longestLockWait() const { return static_cast<double>(m_longestLockWait.load()) * 1e-9; }
    double longestMix() const { return static_cast<double>(m_longestMix.load()) * 1e-9; }
    // The mix's processor time per cycle, since this back end was made.
    const RenderTimes& renderTimes() const { return m_renderTimes; }

private:
    static int process(std::uint32_t frames, void* self);
    // JACK's microseconds as host time (CLOCK_MONOTONIC ns). Process thread only.
    std::uint64_t toHostTime(std::uint64_t jackUsecs, std::uint64_t hostNow);
    static int sampleRateChanged(std::uint32_t rate, void* self);
    static int bufferSizeChanged(std::uint32_t frames, void* self);
    static void portRegistered(std::uint32_t port, int registered, void* self);
    static void shutdown(void* self);
    static int xrun(void* self);

    std::string m_device;
    std::string m_clientName;
    std::string m_actualName;
    jack_client_t* m_client = nullptr;
    std::vector<jack_port_t*> m_ports;
    std::vector<std::string> m_targets; // the device's playback ports, ours connect in order
    std::vector<AudioChannelBuffer> m_buffers;
    Mixer* m_mixer = nullptr;
    Notice m_notice;
    double m_rate = 0.0;
    double m_latency = 0.0;
    std::atomic<std::uint32_t> m_bufferSize{0};
    // Cycles run since activation; a buffer size reported within the first ones is the start's.
    std::atomic<std::int64_t> m_cycles{0};
    static constexpr std::int64_t kSettlingCycles = 16;
    std::atomic<std::int64_t> m_xruns{0};
    std::atomic<bool> m_serverGone{false};
    std::atomic<std::uint64_t> m_longestCycle{0};
    std::atomic<std::uint64_t> m_longestLockWait{0};
    std::atomic<std::uint64_t> m_longestMix{0};
    RenderTimes m_renderTimes;

    // Process thread only: host time − JACK time, in nanoseconds.
    static constexpr std::uint64_t kTrustedReading = 20'000; // ns
    std::int64_t m_clockOffset = 0;
    bool m_haveClockOffset = false;
};
