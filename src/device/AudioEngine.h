#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <semaphore.h>
#include <string>
#include <thread>
#include <vector>

#include "audio/Mixer.h"
#include "device/AudioBackend.h"
#include "device/AudioOutputDevice.h"

// Connects the mixer to one output device and restarts on configuration changes.
//
// Device uids: "jack:<client>", "alsa:<pcm>", "null". No uid means the system default: the
// JACK server's device when a server runs, else ALSA "default", else null (which always opens).
//
// Threading: every method on the main thread. Back ends report configuration changes from their
// own threads; the engine collects them on a watcher thread and hands onConfigurationChange to
// the dispatcher, which runs it on the main thread (the application posts it to its event
// loop). Lifetime: owns the Mixer, which lives as long as the engine and keeps its voices
// across restarts.
class AudioEngine {
public:
    using Dispatcher = std::function<void(std::function<void()>)>;

    // Without a dispatcher the change callback runs on the watcher thread.
    explicit AudioEngine(Dispatcher dispatcher = {});
    ~AudioEngine();

    AudioEngine(const AudioEngine&) = delete;
    AudioEngine& operator=(const AudioEngine&) = delete;

    Mixer& mixer() { return m_mixer; }

    // Stops any running device and opens the given one (none: the system default). Throws
    // AudioStartError with the text shown to the operator; the engine is then stopped.
    void start(const std::optional<std::string>& deviceUID);
    // Stops any running device and starts on a back end made elsewhere, under the given uid.
    // Throws AudioStartError.
    void start(std::unique_ptr<AudioBackend> backend, const std::string& uid);
    void stop();
    bool isRunning() const { return m_backend != nullptr; }

    std::int64_t channelCount() const { return m_channelCount; }
    double sampleRate() const { return m_sampleRate; }
    // "システム既定" for the default.
    const std::string& deviceName() const { return m_deviceName; }
    const std::optional<std::string>& deviceUID() const { return m_deviceUID; }
    // The device actually playing (the default resolved), e.g. "jack:system".
    const std::string& activeDevice() const { return m_activeDevice; }
    AudioBackend* backend() { return m_backend.get(); }
    // What plays, for the operator: "PipeWire: <sink> · 8 ch · 48 kHz · 5.3 ms", "JACK: …",
    // "ALSA: …", or "出力なし（無音）".
    std::string playingDescription() const;

    // Main thread, after the device's rate, buffer or presence changed.
    std::function<void()> onConfigurationChange;

    // Whether the engine plays somewhere other than where the operator wants it (`wanted`:
    // a chosen uid, or none for the system default): the chosen device failed, or the default
    // ended on the null device.
    bool isOnFallback(const std::optional<std::string>& wanted) const;
    // Whether the wanted device can be opened now. Opens and closes it (a JACK client, a PCM):
    // call it off the main thread, and only while isOnFallback. With `jackDevices` (what a
    // device watch's client sees of a running server) a JACK device is looked up there
    // instead: a client opened per look would be announced to every client of the server.
    // Any thread.
    static bool canOpen(const std::optional<std::string>& wanted,
                        const std::optional<std::vector<AudioOutputDevice>>& jackDevices = {});

private:
    void open(std::unique_ptr<AudioBackend> backend, const std::string& uid);
    void watch();

    Mixer m_mixer;
    Dispatcher m_dispatcher;
    std::unique_ptr<AudioBackend> m_backend;
    std::int64_t m_channelCount = 0;
    double m_sampleRate = 0.0;
    std::string m_deviceName;
    std::optional<std::string> m_deviceUID;
    std::string m_activeDevice;

    // Notices: posted (async-signal-safe) from any back-end thread, collected by m_watcher.
    sem_t m_notices;
    std::atomic<bool> m_quit{false};
    std::thread m_watcher;
    std::shared_ptr<AudioEngine*> m_alive; // dispatched calls check it is still set
};
