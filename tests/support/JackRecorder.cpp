#include "JackRecorder.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <jack/jack.h>

JackRecorder::JackRecorder(const std::string& source, int channels, double maxSeconds) {
    m_client = jack_client_open("recorder", JackNoStartServer, nullptr);
    if (!m_client)
        return;
    m_rate = jack_get_sample_rate(m_client);
    m_data.assign(static_cast<std::size_t>(channels),
                  std::vector<float>(static_cast<std::size_t>(maxSeconds * m_rate), 0.0f));
    for (int c = 0; c < channels; ++c) {
        const std::string name = "in_" + std::to_string(c + 1);
        m_ports.push_back(jack_port_register(m_client, name.c_str(), JACK_DEFAULT_AUDIO_TYPE,
                                             JackPortIsInput, 0));
    }
    jack_set_process_callback(m_client, &JackRecorder::process, this);
    if (jack_activate(m_client) != 0)
        return;
    m_connected = true;
    for (int c = 0; c < channels; ++c) {
        const std::string from = source + ":out_" + std::to_string(c + 1);
        m_connected =
            jack_connect(m_client, from.c_str(), jack_port_name(m_ports[c])) == 0 && m_connected;
    }
}

JackRecorder::~JackRecorder() {
    stop();
}

std::uint32_t JackRecorder::frameTime() const {
    return m_client ? jack_frame_time(m_client) : 0;
}

void JackRecorder::stop() {
    if (m_client) {
        jack_client_close(m_client);
        m_client = nullptr;
    }
}

int JackRecorder::process(std::uint32_t frames, void* arg) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    auto* self = static_cast<JackRecorder*>(arg);
    if (self->m_firstSound.load() == 0 && !self->m_ports.empty()) {
        const auto* in = static_cast<const float*>(jack_port_get_buffer(self->m_ports[0], frames));
        for (std::uint32_t i = 0; i < frames; ++i) {
            if (in[i] != 0.0f) {
                const double host = static_cast<double>(now.tv_sec) * 1e9 +
                                    static_cast<double>(now.tv_nsec) + i * 1e9 / self->m_rate;
                self->m_firstSound = static_cast<std::uint64_t>(host);
                break;
            }
        }
    }
    if (self->m_frames.load() == 0)
        self->m_startFrame = jack_last_frame_time(self->m_client);
    const std::int64_t at = self->m_frames.load();
    const auto room =
        static_cast<std::int64_t>(self->m_data.empty() ? 0 : self->m_data[0].size()) - at;
    const std::int64_t take = std::min<std::int64_t>(frames, std::max<std::int64_t>(room, 0));
    for (std::size_t c = 0; c < self->m_ports.size() && take > 0; ++c) {
        const auto* in = static_cast<const float*>(jack_port_get_buffer(self->m_ports[c], frames));
        std::memcpy(self->m_data[c].data() + at, in,
                    static_cast<std::size_t>(take) * sizeof(float));
    }
    self->m_frames.store(at + take);
    return 0;
}
