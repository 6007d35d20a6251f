#include "device/MidiInput.h"

#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace {

snd_seq_t* seqOf(void* seq) {
    return static_cast<snd_seq_t*>(seq);
}

std::optional<MidiEvent> eventOf(const snd_seq_event_t& in) {
    MidiEvent out;
    switch (in.type) {
    case SND_SEQ_EVENT_NOTEON:
        out.type = in.data.note.velocity > 0 ? MidiEvent::Type::noteOn : MidiEvent::Type::noteOff;
        break;
    case SND_SEQ_EVENT_NOTEOFF:
        out.type = MidiEvent::Type::noteOff;
        break;
    case SND_SEQ_EVENT_CONTROLLER:
        out.type = MidiEvent::Type::control;
        out.channel = in.data.control.channel + 1;
        out.number = static_cast<int>(in.data.control.param);
        out.value = in.data.control.value;
        return out;
    case SND_SEQ_EVENT_PGMCHANGE:
        out.type = MidiEvent::Type::program;
        out.channel = in.data.control.channel + 1;
        out.number = in.data.control.value;
        return out;
    default:
        return std::nullopt;
    }
    out.channel = in.data.note.channel + 1;
    out.number = in.data.note.note;
    out.value = in.data.note.velocity;
    return out;
}

} // namespace

MidiInput::~MidiInput() {
    close();
}

std::optional<std::string> MidiInput::open(const std::string& name, Handler handler) {
    close();
    snd_seq_t* seq = nullptr;
    if (const int error = snd_seq_open(&seq, "default", SND_SEQ_OPEN_INPUT, SND_SEQ_NONBLOCK);
        error < 0)
        return snd_strerror(error);
    snd_seq_set_client_name(seq, name.c_str());
    const int port = snd_seq_create_simple_port(
        seq, name.c_str(), SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE,
        SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    if (port < 0 || ::pipe2(m_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        snd_seq_close(seq);
        return port < 0 ? snd_strerror(port) : "pipe";
    }
    m_seq = seq;
    m_client = snd_seq_client_id(seq);
    m_port = port;
    m_handler = std::move(handler);
    m_thread = std::thread([this] { run(); });
    return std::nullopt;
}

void MidiInput::close() {
    if (!m_seq)
        return;
    const char stop = 1;
    (void)::write(m_wake[1], &stop, 1);
    m_thread.join();
    snd_seq_close(seqOf(m_seq));
    ::close(m_wake[0]);
    ::close(m_wake[1]);
    m_seq = nullptr;
    m_client = m_port = -1;
}

void MidiInput::run() {
    snd_seq_t* seq = seqOf(m_seq);
    const int count = snd_seq_poll_descriptors_count(seq, POLLIN);
    std::vector<pollfd> fds(static_cast<std::size_t>(count) + 1);
    snd_seq_poll_descriptors(seq, fds.data(), static_cast<unsigned>(count), POLLIN);
    fds.back() = {m_wake[0], POLLIN, 0};
    for (;;) {
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
            return;
        if (fds.back().revents)
            return;
        snd_seq_event_t* event = nullptr;
        while (snd_seq_event_input(seq, &event) >= 0 && event) {
            if (const auto midi = eventOf(*event))
                m_handler(*midi);
        }
    }
}
