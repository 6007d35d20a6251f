#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/AudioBackend.h"
#include "device/AudioOutputDevice.h"
#include "device/RenderTimes.h"

// A stream into one PipeWire sink (an Audio/Sink node), the sound server of every current
// desktop. The device is named by the node's stable `node.name` (never its description, which
// follows the desktop's language and the card's profile); empty means the desktop's default
// sink (the "default" metadata), followed: when the user picks another default, a notice asks
// the engine to restart onto it.
//
// The stream carries the sink's own channels in the sink's order, planar 32-bit float, no
// remixing, so output n is the sink's n-th channel. It asks for a quantum of its own
// (kQuantum frames at the graph's rate) and never forces one on the graph. The rate is the
// graph's. Each cycle's block time is the stream's time (`pw_stream_get_time_n`, on
// CLOCK_MONOTONIC as host time is) plus the delay the stream reports to the device, so a voice
// armed for a host time is heard then.
//
// Lost device: the server going away (a core error) or the stream failing — as it does when its
// sink disappears, since it never reconnects elsewhere — is a notice within one event of the
// server's socket, and the stream renders no further.
//
// Threading: open/start/stop and the getters on the control (main) thread; the process
// callback on PipeWire's data thread (real time); every other callback on this back end's own
// PipeWire loop thread, which only flags and passes the notice on. stop() joins both.
class PipeWireBackend : public AudioBackend {
public:
    static constexpr std::int64_t kQuantum = 256;

    explicit PipeWireBackend(std::string sink, std::int64_t quantum = kQuantum);
    ~PipeWireBackend() override;

    void open() override;
    void start(Mixer& mixer, Notice notice) override;
    void stop() override;
    std::int64_t channelCount() const override { return m_channels; }
    double sampleRate() const override { return m_rate; }
    // The quantum the graph gave us plus the stream's delay to the device, as last measured.
    double latency() const override;

    // The sink played into (the default resolved) and what the desktop calls it.
    const std::string& sinkName() const { return m_sink; }
    const std::string& description() const { return m_description; }
    // The quantum the graph runs us at (frames), once cycles run.
    std::int64_t quantum() const { return m_quantumSeen.load(); }
    // The mix's processor time per cycle, since this back end was made.
    const RenderTimes& renderTimes() const { return m_renderTimes; }

    struct Sink {
        std::string name;        // node.name
        std::string description; // node.description
        std::int64_t channels = 0;
        std::vector<std::string> positions; // FL, FR, …
    };
    struct Graph {
        std::vector<Sink> sinks;
        std::string defaultSink; // node.name, or empty
        double rate = 0.0;       // the graph's clock rate, 0 when not said
    };
    // What a running server has; none when no server answers. Connects briefly. Any thread.
    static std::optional<Graph> graph();
    // Whether a server runs with that sink (empty: any sink). Any thread.
    static bool canOpen(const std::string& sink);
    // The sinks as devices: uid = node.name, name = description. Any thread.
    static void addDevices(std::vector<AudioOutputDevice>& devices);

    // Loop-thread callbacks reach these; they are not for other callers.
    struct Impl;

private:
    std::string m_sink;
    std::string m_description;
    std::int64_t m_requestedQuantum;
    std::int64_t m_channels = 0;
    double m_rate = 0.0;
    std::atomic<std::int64_t> m_quantumSeen{0};
    RenderTimes m_renderTimes;
    std::unique_ptr<Impl> m_impl;
};
