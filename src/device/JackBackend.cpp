#include "device/JackBackend.h"

#include <algorithm>
#include <cstring>
#include <jack/jack.h>
#include <map>
#include <mutex>

#include "audio/HostTime.h"
#include "audio/Mixer.h"
#include "device/AudioStartError.h"

namespace {

// Physical playback ports of `device` (or of the first client that has any), in JACK's order.
std::vector<std::string> playbackPorts(jack_client_t* client, const std::string& device) {
    std::vector<std::string> names;
    const char** ports = jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE,
                                        JackPortIsPhysical | JackPortIsInput);
    if (!ports)
        return names;
    std::string chosen = device;
    for (const char** p = ports; *p; ++p) {
        const std::string name = *p;
        const std::string owner = name.substr(0, name.find(':'));
        if (chosen.empty())
            chosen = owner;
        if (owner == chosen)
            names.push_back(name);
    }
    jack_free(ports);
    return names;
}

} // namespace

void JackBackend::silenceLibraryMessages() {
    static std::once_flag once;
    std::call_once(once, [] {
        jack_set_error_function([](const char*) {});
        jack_set_info_function([](const char*) {});
    });
}

bool JackBackend::hasPlaybackPorts(const std::string& device) {
    silenceLibraryMessages();
    jack_client_t* client = jack_client_open("vorlin-probe", JackNoStartServer, nullptr);
    if (!client)
        return false;
    const bool found = !playbackPorts(client, device).empty();
    jack_client_close(client);
    return found;
}

JackBackend::JackBackend(std::string device, std::string clientName)
    : m_device(std::move(device)), m_clientName(std::move(clientName)) {}

JackBackend::~JackBackend() {
    stop();
}

void JackBackend::open() {
    stop();
    silenceLibraryMessages();
    jack_status_t status{};
    m_client = jack_client_open(m_clientName.c_str(), JackNoStartServer, &status);
    if (!m_client)
        throw AudioStartError::cannotSelect("JACK サーバーに接続できません");
    m_actualName = jack_get_client_name(m_client);

    m_targets = playbackPorts(m_client, m_device);
    if (m_targets.empty()) {
        stop();
        throw AudioStartError::cannotSelect("JACK に再生ポートがありません: " +
                                            (m_device.empty() ? std::string("既定") : m_device));
    }
    m_device = m_targets.front().substr(0, m_targets.front().find(':'));
    const std::size_t count = std::min<std::size_t>(m_targets.size(), Mixer::kMaxOutputs);
    for (std::size_t c = 0; c < count; ++c) {
        const std::string name = "out_" + std::to_string(c + 1);
        jack_port_t* port = jack_port_register(m_client, name.c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                               JackPortIsOutput, 0);
        if (!port) {
            stop();
            throw AudioStartError::cannotSelect("JACK のポートを作れません");
        }
        m_ports.push_back(port);
    }
    m_buffers.assign(m_ports.size(), AudioChannelBuffer{});
    m_rate = jack_get_sample_rate(m_client);
    m_bufferSize = jack_get_buffer_size(m_client);
    // What the device adds after our block: the physical port's playback latency.
    jack_latency_range_t range{};
    if (jack_port_t* device = jack_port_by_name(m_client, m_targets.front().c_str()))
        jack_port_get_latency_range(device, JackPlaybackLatency, &range);
    m_latency = static_cast<double>(range.max) / m_rate;
}

void JackBackend::start(Mixer& mixer, Notice notice) {
    if (!m_client)
        throw AudioStartError::cannotSelect("JACK サーバーに接続できません");
    m_mixer = &mixer;
    m_notice = std::move(notice);
    jack_set_process_callback(m_client, &JackBackend::process, this);
    jack_set_sample_rate_callback(m_client, &JackBackend::sampleRateChanged, this);
    jack_set_buffer_size_callback(m_client, &JackBackend::bufferSizeChanged, this);
    jack_set_port_registration_callback(m_client, &JackBackend::portRegistered, this);
    jack_set_xrun_callback(m_client, &JackBackend::xrun, this);
    jack_on_shutdown(m_client, &JackBackend::shutdown, this);
    if (jack_activate(m_client) != 0) {
        stop();
        throw AudioStartError::cannotSelect("JACK クライアントを開始できません");
    }
    for (std::size_t c = 0; c < m_ports.size(); ++c)
        jack_connect(m_client, jack_port_name(m_ports[c]), m_targets[c].c_str());
}

void JackBackend::stop() {
    if (!m_client)
        return;
    // Closing deactivates first: no process callback runs once this returns. A client whose
    // server died is not closed: libjack crashes closing it once a new server of the same name
    // runs, and its threads ended with the server anyway. That leaks one small handle per
    // server crash, which is the better trade in front of an audience.
    if (!m_serverGone.load())
        jack_client_close(m_client);
    m_client = nullptr;
    m_serverGone = false;
    m_cycles = 0;
    m_haveClockOffset = false;
    m_ports.clear();
    m_targets.clear();
    m_buffers.clear();
}

int JackBackend::process(std::uint32_t frames, void* arg) {
    auto* self = static_cast<JackBackend*>(arg);
    self->m_cycles.fetch_add(1, std::memory_order_relaxed);
    const std::size_t bytes = frames * sizeof(float);
    for (std::size_t c = 0; c < self->m_ports.size(); ++c)
        self->m_buffers[c] = {static_cast<float*>(jack_port_get_buffer(self->m_ports[c], frames)),
                              bytes};
    jack_nframes_t currentFrames = 0;
    jack_time_t currentUsecs = 0, nextUsecs = 0;
    float periodUsecs = 0;
    const bool valid = jack_get_cycle_times(self->m_client, &currentFrames, &currentUsecs,
                                            &nextUsecs, &periodUsecs) == 0;
    const std::uint64_t began = HostTime::now();
    const std::uint64_t cpu = RenderTimes::threadNow();
    self->m_mixer->render(frames, AudioTimeStamp{self->toHostTime(currentUsecs, began), valid},
                          self->m_buffers);
    self->m_renderTimes.record(RenderTimes::threadNow() - cpu);
    const std::uint64_t took = HostTime::now() - began;
    const std::uint64_t waited = self->m_mixer->lastLockWait();
    if (took > self->m_longestCycle.load(std::memory_order_relaxed))
        self->m_longestCycle.store(took, std::memory_order_relaxed);
    if (waited > self->m_longestLockWait.load(std::memory_order_relaxed))
        self->m_longestLockWait.store(waited, std::memory_order_relaxed);
    if (took - waited > self->m_longestMix.load(std::memory_order_relaxed))
        self->m_longestMix.store(took - waited, std::memory_order_relaxed);
    return 0;
}

std::uint64_t JackBackend::toHostTime(std::uint64_t jackUsecs, std::uint64_t hostNow) {
    // libjack reads its own clock (CLOCK_MONOTONIC_RAW on many builds, CLOCK_MONOTONIC on
    // others); host time is CLOCK_MONOTONIC. The two drift apart (NTP slews only one of them),
    // so the offset is measured anew every cycle: JACK's now read between two host readings.
    // A reading that took long (the thread was preempted) is not trusted; the last good offset
    // stands in for it.
    const std::uint64_t jackNow = jack_get_time();
    const std::uint64_t after = HostTime::now();
    if (after - hostNow < kTrustedReading || !m_haveClockOffset) {
        const std::uint64_t middle = hostNow + (after - hostNow) / 2;
        m_clockOffset =
            static_cast<std::int64_t>(middle) - static_cast<std::int64_t>(jackNow * 1000);
        m_haveClockOffset = true;
    }
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(jackUsecs * 1000) + m_clockOffset);
}

int JackBackend::sampleRateChanged(std::uint32_t rate, void* arg) {
    auto* self = static_cast<JackBackend*>(arg);
    if (rate != self->m_rate && self->m_notice)
        self->m_notice();
    return 0;
}

int JackBackend::bufferSizeChanged(std::uint32_t frames, void* arg) {
    auto* self = static_cast<JackBackend*>(arg);
    // JACK reports the size once on activation, and PipeWire's JACK reports one size before
    // activation and another in its first cycles: a size that settles while the client starts
    // is taken as it is. Only a change once cycles run restarts (once: the new client reads the
    // size it then reports).
    const std::uint32_t before = self->m_bufferSize.exchange(frames);
    if (frames != before && self->m_cycles.load() > kSettlingCycles && self->m_notice)
        self->m_notice();
    return 0;
}

void JackBackend::portRegistered(std::uint32_t port, int, void* arg) {
    auto* self = static_cast<JackBackend*>(arg);
    jack_port_t* p = jack_port_by_id(self->m_client, port);
    // Other programs' ports come and go during a show; only hardware changes matter here.
    if (p && (jack_port_flags(p) & JackPortIsPhysical) && self->m_notice)
        self->m_notice();
}

void JackBackend::shutdown(void* arg) {
    auto* self = static_cast<JackBackend*>(arg);
    self->m_serverGone = true;
    if (self->m_notice)
        self->m_notice();
}

int JackBackend::xrun(void* arg) {
    static_cast<JackBackend*>(arg)->m_xruns.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void JackBackend::addDevices(std::vector<AudioOutputDevice>& devices, jack_client_t* client) {
    if (!client) {
        silenceLibraryMessages();
        client = jack_client_open("vorlin-devices", JackNoStartServer, nullptr);
        if (!client)
            return;
        addDevices(devices, client);
        jack_client_close(client);
        return;
    }
    std::map<std::string, std::int64_t> ports; // client → physical playback ports, in order seen
    std::vector<std::string> order;
    if (const char** names = jack_get_ports(client, nullptr, JACK_DEFAULT_AUDIO_TYPE,
                                            JackPortIsPhysical | JackPortIsInput)) {
        for (const char** p = names; *p; ++p) {
            const std::string owner = std::string(*p).substr(0, std::string(*p).find(':'));
            if (ports[owner]++ == 0)
                order.push_back(owner);
        }
        jack_free(names);
    }
    for (const auto& owner : order)
        devices.push_back(
            {0, owner, owner, std::min<std::int64_t>(ports[owner], Mixer::kMaxOutputs)});
}
