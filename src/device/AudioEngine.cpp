#include "device/AudioEngine.h"

#include <algorithm>
#include <cstdio>

#include "device/AudioStartError.h"
#include "device/BackendKind.h"
#include "device/JackBackend.h"
#include "device/PipeWireBackend.h"

namespace {

const std::string kSystemDefault = "システム既定";

// The system default: the first of these that opens (the null device when none does). A
// desktop's PipeWire first (its default sink, followed), then a JACK server, then ALSA.
const char* const kDefaultOrder[] = {"pipewire:", "jack:", "alsa:default"};

std::unique_ptr<AudioBackend> makeBackend(const std::string& uid) {
    std::string name;
    if (const BackendKind* kind = BackendKind::find(uid, &name))
        return kind->make(name);
    throw AudioStartError::cannotSelect("不明なデバイスです: " + uid);
}

} // namespace

AudioEngine::AudioEngine(Dispatcher dispatcher)
    : m_dispatcher(std::move(dispatcher)), m_alive(std::make_shared<AudioEngine*>(this)) {
    sem_init(&m_notices, 0, 0);
    m_watcher = std::thread([this] { watch(); });
}

AudioEngine::~AudioEngine() {
    stop();
    *m_alive = nullptr;
    m_quit = true;
    sem_post(&m_notices);
    m_watcher.join();
    sem_destroy(&m_notices);
}

void AudioEngine::start(std::unique_ptr<AudioBackend> backend, const std::string& uid) {
    stop();
    m_deviceUID = uid;
    open(std::move(backend), uid);
    m_deviceName = BackendKind::describe(uid);
}

void AudioEngine::start(const std::optional<std::string>& deviceUID) {
    stop(); // also when the uid names no back end: a failed start leaves the engine stopped
    m_deviceUID = deviceUID;
    if (deviceUID) {
        start(makeBackend(*deviceUID), *deviceUID);
        return;
    }
    // The system default: whatever of these opens first.
    for (const std::string uid : kDefaultOrder) {
        try {
            open(makeBackend(uid), uid);
            m_deviceName = kSystemDefault;
            return;
        } catch (const AudioStartError&) {
        }
    }
    open(makeBackend("null"), "null");
    m_deviceName = kSystemDefault;
}

bool AudioEngine::isOnFallback(const std::optional<std::string>& wanted) const {
    if (!m_backend)
        return false;
    if (wanted) {
        // "jack:" alone is the first JACK device, "pipewire:" alone the default sink; the
        // engine names the one it resolved.
        const bool any =
            (*wanted == "jack:" || *wanted == "pipewire:") && m_activeDevice.rfind(*wanted, 0) == 0;
        return m_activeDevice != *wanted && !any;
    }
    // The default is wherever sound can be heard; only silence is a fallback. (A default that
    // lost its JACK server to ALSA stays there: the card is ours now, a new server could not
    // have it anyway.)
    return m_activeDevice == "null";
}

bool AudioEngine::canOpen(const std::optional<std::string>& wanted,
                          const std::optional<std::vector<AudioOutputDevice>>& jackDevices) {
    auto opens = [&jackDevices](const std::string& uid) {
        std::string name;
        const BackendKind* kind = BackendKind::find(uid, &name);
        // A uid of no known kind never opens: the model would otherwise restart the audio
        // every second and fail again.
        if (!kind)
            return false;
        if (jackDevices && kind->prefix == "jack:")
            return name.empty() ? !jackDevices->empty()
                                : std::ranges::any_of(*jackDevices, [&](const auto& device) {
                                      return device.uid == name;
                                  });
        return kind->canOpen(name);
    };
    if (wanted)
        return opens(*wanted);
    return std::ranges::any_of(kDefaultOrder, opens);
}

void AudioEngine::open(std::unique_ptr<AudioBackend> backend, const std::string& uid) {
    backend->open();
    // The mixer learns the device's rate and latency before the device's first block.
    m_channelCount = std::min<std::int64_t>(backend->channelCount(), Mixer::kMaxOutputs);
    m_sampleRate = backend->sampleRate();
    m_mixer.setSampleRate(m_sampleRate);
    m_mixer.setLatency(backend->latency());
    backend->start(m_mixer, [this] { sem_post(&m_notices); });
    m_activeDevice = uid;
    if (auto* jack = dynamic_cast<JackBackend*>(backend.get()); jack && uid == "jack:")
        m_activeDevice = "jack:" + jack->deviceClient();
    if (auto* pw = dynamic_cast<PipeWireBackend*>(backend.get()); pw && uid == "pipewire:")
        m_activeDevice = "pipewire:" + pw->sinkName();
    m_backend = std::move(backend);
}

std::string AudioEngine::playingDescription() const {
    if (!m_backend || m_activeDevice == "null")
        return "出力なし（無音）";
    std::string name = BackendKind::describe(m_activeDevice);
    if (const auto* pw = dynamic_cast<const PipeWireBackend*>(m_backend.get()))
        name = "PipeWire: " + pw->description();
    char figures[96];
    const double latency = m_backend->latency();
    if (latency > 0.0)
        std::snprintf(figures, sizeof figures, " · %lld ch · %g kHz · %.1f ms",
                      static_cast<long long>(m_channelCount), m_sampleRate / 1000.0,
                      latency * 1000.0);
    else
        std::snprintf(figures, sizeof figures, " · %lld ch · %g kHz",
                      static_cast<long long>(m_channelCount), m_sampleRate / 1000.0);
    return name + figures;
}

void AudioEngine::stop() {
    if (m_backend) {
        m_backend->stop();
        m_backend.reset();
    }
}

void AudioEngine::watch() {
    for (;;) {
        while (sem_wait(&m_notices) != 0) {
        }
        if (m_quit)
            return;
        // Several notices of one change (rate and buffer size, say) become one restart.
        while (sem_trywait(&m_notices) == 0) {
        }
        std::weak_ptr<AudioEngine*> alive = m_alive;
        auto changed = [alive] {
            const auto engine = alive.lock();
            if (engine && *engine && (*engine)->onConfigurationChange)
                (*engine)->onConfigurationChange();
        };
        if (m_dispatcher)
            m_dispatcher(changed);
        else
            changed();
    }
}
