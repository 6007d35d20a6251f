#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>

#include <QObject>
#include <QTimer>

#include "audio/Mixer.h"
#include "cue/CueEngine.h"
#include "cue/LiveState.h"
#include "cue/MediaLoader.h"
#include "cue/MixSettings.h"
#include "cue/ShowEditor.h"
#include "cue/ShowSession.h"
#include "cue/StatusLine.h"
#include "device/AudioDeviceList.h"
#include "device/AudioEngine.h"
#include "model/ShowDocument.h"
#include "video/VideoOutput.h"

// The one owner of a running Vorlin's state: the show document, the audio engine with its mixer,
// the video output, the cue engine and the live state. It stays a thin owner: each operation lives
// with the part that does it (CueEngine for keys and the tick, ShowDocument for the document).
//
// Threading: main thread. Lifetime: one per process, created by the application (or the
// headless renderer) and living until the end.
class AppModel : public QObject {
    Q_OBJECT
public:
    // The tick's period: 1/30 s, to the millisecond a QTimer counts in.
    static constexpr std::chrono::milliseconds kTickInterval{33};
    // The tick's period while nothing runs and the meters rest: it only has to notice that
    // nothing changed, and an idle show computer should stay idle. Anything that starts sound
    // brings the 30 Hz back at once.
    static constexpr std::chrono::milliseconds kIdleTickInterval{250};

    // With no video output given, a headless one on the wall clock is used.
    explicit AppModel(std::unique_ptr<VideoOutput> video = {}, QObject* parent = nullptr);
    ~AppModel() override;

    // Starts the audio engine on the chosen device and the 30 Hz tick (a precise timer on the
    // main thread).
    void start();

    // Offline: the mixer is driven by an OfflineRenderer and no device is ever started (the
    // chosen device is still kept, for the show file).
    void setOffline(bool offline);
    bool isOffline() const { return m_offline; }

    // Restarts the audio engine on the chosen device; when that fails, says why in the status
    // line and goes on with the system default. Re-applies master volume, mutes and test tone.
    // While the engine is on a fallback (the chosen device failed, or the default ended on the
    // null device), the wanted device is looked for every second off
    // the main thread, and the engine returns to it by itself when it is back.
    void restartAudio();
    // The JACK devices the device watch sees (none before start() or without a server).
    std::optional<std::vector<AudioOutputDevice>> jackDevices() const {
        return m_watch ? m_watch->jackDevices() : std::nullopt;
    }
    // Whether the engine plays elsewhere than the operator wants (see restartAudio).
    bool isOnFallback() const;
    // The chosen device (none: the system default); choosing restarts the audio.
    const std::optional<QString>& outputDeviceUID() const { return m_outputDeviceUID; }
    void setOutputDeviceUID(const std::optional<QString>& uid);
    // A device that wins over every show's own (`vorlin play --device`); set before start().
    void overrideOutputDevice(const QString& uid) {
        m_deviceOverride = uid;
        m_outputDeviceUID = uid;
    }
    double masterVolume() const { return m_masterVolume; }
    void setMasterVolume(double volume);
    const std::set<std::int64_t>& mutedOutputs() const { return m_mutedOutputs; }
    void setMutedOutputs(std::set<std::int64_t> outputs);
    const std::optional<std::int64_t>& toneChannel() const { return m_toneChannel; }
    void setToneChannel(std::optional<std::int64_t> channel);
    double stopAllFade() const { return m_engine->stopAllFade(); }
    void setStopAllFade(double seconds);
    // The video outputs that are open ("window" or screen ids), as the show file keeps them.
    const QStringList& videoOutputs() const { return m_video->outputs(); }
    void setVideoOutputs(const QStringList& outputs) { m_video->setOutputs(outputs); }
    // All of the above that a show file keeps, and setting them at once (an opened show).
    MixSettings mixSettings() const;
    void applyMixSettings(const MixSettings& settings);

    // The show as a file (see ShowSession).
    void save(const QString& path) { m_session.save(path); }
    // Another show lets the players made ahead for this one go.
    void open(const QString& path) {
        m_session.open(path);
        m_video->resetPrepared();
    }
    void newDocument() {
        m_session.newDocument();
        m_video->resetPrepared();
    }
    void restoreLastDocument() { m_session.restoreLastDocument(); }
    void markDirty() { m_session.markDirty(); }
    bool isDirty() const { return m_session.isDirty(); }
    QString documentName() const { return m_session.documentName(); }

    void handleKey(KeyCode code, bool down, bool shift, bool isRepeat) {
        m_engine->handleKey(code, down, shift, isRepeat);
        pace();
    }
    void startKey(KeyCode code, std::int64_t deckIndex) {
        m_engine->startKey(code, deckIndex);
        pace();
    }
    void stopKey(KeyCode code, double fade) { m_engine->stopKey(code, fade); }
    bool stopCue(std::int64_t id) { return m_engine->stopCue(id); }
    void stopAll(bool immediate) { m_engine->stopAll(immediate); }
    bool isRunning(KeyCode code) const { return m_engine->isRunning(code); }
    void togglePlayback(KeyCode code) {
        m_engine->togglePlayback(code);
        pace();
    }
    void tick() {
        m_engine->tick();
        pace();
    }
    bool seek(std::int64_t cueID, double fraction) { return m_engine->seek(cueID, fraction); }
    // The running tick's period (kTickInterval or kIdleTickInterval).
    std::chrono::milliseconds tickInterval() const { return m_timer.intervalAsDuration(); }

    // The routing matrix view's edit: stores the matrix and the routing text together.
    void setRouting(KeyCode code, std::optional<RoutingMatrix> matrix, const QString& outputMap);
    // A click in the matrix view on (source, output).
    void toggleRoute(KeyCode code, std::int64_t source, std::int64_t output);
    // One of the quick routing texts; the text governs again.
    void applyQuickRouting(KeyCode code, const QString& outputMap);

    ShowDocument& document() { return m_document; }
    Mixer& mixer() { return m_audio.mixer(); }
    AudioEngine& audio() { return m_audio; }
    VideoOutput& video() { return *m_video; }
    LiveState& live() { return m_live; }
    StatusLine& status() { return m_status; }
    CueEngine& cueEngine() { return *m_engine; }
    MediaLoader& media() { return m_media; }
    ShowSession& session() { return m_session; }
    // Putting files on keys and arranging pages (see ShowEditor).
    ShowEditor& editor() { return m_editor; }
    // Who answers the editing operations' questions (none: every question is cancelled).
    void setInteraction(Interaction* interaction) { m_editor.setInteraction(interaction); }

signals:
    void assignmentsChanged();
    // Deck panel tabs opened, closed or switched (also when a page or show closed them all).
    void deckTabsChanged();
    // Device name, channel count or rate changed (after every restart).
    void audioDeviceChanged();
    // Master volume, mutes, test tone or stop-all fade changed (by a view or an opened show).
    void mixSettingsChanged();
    // Devices came or went (from the device watch, which runs from start()).
    void devicesChanged();

private:
    static constexpr std::chrono::milliseconds kDeviceRetryInterval{1000};

    // Sets the tick's period for what runs now.
    void pace();
    std::optional<std::string> wantedDevice() const;
    void lookForWantedDevice();

    ShowDocument m_document;
    AudioEngine m_audio;
    std::optional<QString> m_outputDeviceUID;
    std::optional<QString> m_deviceOverride;
    bool m_offline = false;
    double m_masterVolume = 1.0;
    std::set<std::int64_t> m_mutedOutputs;
    std::optional<std::int64_t> m_toneChannel;
    std::unique_ptr<VideoOutput> m_video;
    LiveState m_live;
    StatusLine m_status;
    MediaLoader m_media;
    std::unique_ptr<CueEngine> m_engine;
    ShowSession m_session;
    ShowEditor m_editor;
    QTimer m_timer;
    // While the engine plays somewhere else than wanted, looks for the wanted device.
    QTimer m_deviceRetry;
    bool m_probing = false;
    // One watch for the whole show: its JACK client is registered once, and the fallback search
    // asks it rather than announcing a client of its own every second.
    std::unique_ptr<AudioDeviceList::Watch> m_watch;
};
