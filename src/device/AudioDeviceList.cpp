#include "device/AudioDeviceList.h"

#include <algorithm>
#include <alsa/asoundlib.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <jack/jack.h>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "device/BackendKind.h"
#include "device/JackBackend.h"
#include "device/PipeWireWatch.h"

namespace {

std::string soundCards() {
    std::string text;
    int card = -1;
    while (snd_card_next(&card) == 0 && card >= 0) {
        char* name = nullptr;
        if (snd_card_get_name(card, &name) == 0 && name) {
            text += "card:" + std::to_string(card) + ":" + name + "\n";
            free(name);
        }
    }
    return text;
}

// Watches the sound cards (a cheap look every 2 s, no PCM opened), PipeWire's sinks (its
// registry says at once) and JACK. A client opened
// and closed every 2 s would announce itself to every client of the server each time, during
// the show; so one watch client is registered once, while a server runs, and hears of port
// changes and of the server's end from JACK's own callbacks. Without a server, a connection
// attempt every 2 s (which reaches no one) notices one starting.
class DeviceWatch : public AudioDeviceList::Watch {
public:
    explicit DeviceWatch(std::function<void()> changed) : m_changed(std::move(changed)) {
        JackBackend::silenceLibraryMessages();
        m_thread = std::thread([this] { run(); });
    }
    ~DeviceWatch() override {
        {
            std::lock_guard lock(m_mutex);
            m_quit = true;
        }
        m_wake.notify_all();
        m_thread.join();
        // A client whose server died is left alone: libjack crashes closing it once a new
        // server of that name runs (see JackBackend::stop).
        if (m_client && !m_serverGone.load())
            jack_client_close(m_client);
    }

private:
    // What exists: sound cards, PipeWire's sinks and JACK's physical playback ports.
    std::string inventory() {
        std::string text = soundCards();
        m_pipewire.look();
        text += m_pipewire.sinks();
        if (m_client && m_serverGone.load())
            m_client = nullptr; // its threads ended with the server
        if (!m_client)
            connect();
        std::optional<std::vector<AudioOutputDevice>> seen;
        if (m_client) {
            seen.emplace();
            JackBackend::addDevices(*seen, m_client);
            for (const auto& device : *seen)
                text += device.uid + ":" + std::to_string(device.channels) + "\n";
        }
        std::lock_guard lock(m_mutex);
        m_jackDevices = std::move(seen);
        return text;
    }

public:
    std::optional<std::vector<AudioOutputDevice>> jackDevices() const override {
        std::lock_guard lock(m_mutex);
        return m_jackDevices;
    }

private:
    void connect() {
        jack_client_t* client = jack_client_open("vorlin-devices", JackNoStartServer, nullptr);
        if (!client)
            return;
        m_serverGone = false;
        jack_set_port_registration_callback(
            client,
            [](jack_port_id_t, int, void* self) { static_cast<DeviceWatch*>(self)->poke(); }, this);
        jack_on_shutdown(
            client,
            [](void* self) {
                auto* watch = static_cast<DeviceWatch*>(self);
                watch->m_serverGone = true;
                watch->poke();
            },
            this);
        if (jack_activate(client) != 0) {
            jack_client_close(client);
            return;
        }
        m_client = client;
    }

    // From JACK's and PipeWire's threads: look again now rather than at the next 2 s.
    void poke() {
        {
            std::lock_guard lock(m_mutex);
            m_poked = true;
        }
        m_wake.notify_all();
    }

    void run() {
        std::string last = inventory();
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_wake.wait_for(lock, std::chrono::seconds(2), [this] { return m_quit || m_poked; });
            if (m_quit)
                return;
            m_poked = false;
            lock.unlock();
            std::string now = inventory();
            if (now != last) {
                last = std::move(now);
                m_changed();
            }
            lock.lock();
        }
    }

    std::function<void()> m_changed;
    jack_client_t* m_client = nullptr; // the watch thread's
    std::atomic<bool> m_serverGone{false};
    mutable std::mutex m_mutex;
    std::optional<std::vector<AudioOutputDevice>> m_jackDevices; // under m_mutex
    std::condition_variable m_wake;
    bool m_quit = false;
    bool m_poked = false;
    PipeWireWatch m_pipewire{[this] { poke(); }}; // after what poke() uses
    std::thread m_thread;
};

} // namespace

namespace AudioDeviceList {

std::vector<AudioOutputDevice>
outputDevices(const std::optional<std::vector<AudioOutputDevice>>& jackDevices) {
    std::vector<AudioOutputDevice> devices;
    for (const BackendKind& kind : BackendKind::all()) {
        const std::size_t first = devices.size();
        if (jackDevices && kind.prefix == "jack:")
            devices.insert(devices.end(), jackDevices->begin(), jackDevices->end());
        else
            kind.list(devices);
        for (std::size_t i = first; i < devices.size(); ++i) {
            devices[i].uid = std::string(kind.prefix) + devices[i].uid;
            devices[i].name = std::string(kind.label) + devices[i].name;
        }
    }
    for (std::size_t i = 0; i < devices.size(); ++i)
        devices[i].id = static_cast<std::uint32_t>(i);
    return devices;
}

std::unique_ptr<Watch> observeChanges(std::function<void()> changed) {
    return std::make_unique<DeviceWatch>(std::move(changed));
}

} // namespace AudioDeviceList
