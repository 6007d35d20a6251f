#include "cue/AppModel.h"

#include <algorithm>
#include <cmath>

#include <QCoreApplication>
#include <QPointer>
#include <QThreadPool>

#include "audio/Routing.h"
#include "device/AudioStartError.h"
#include "model/KeyboardLayout.h"
#include "model/ValueRanges.h"
#include "video/CompositedVideoOutput.h"

AppModel::AppModel(std::unique_ptr<VideoOutput> video, QObject* parent)
    : QObject(parent),
      // Configuration notices arrive on the engine's watcher thread; the restart belongs on ours.
      m_audio([this](std::function<void()> call) {
          QMetaObject::invokeMethod(this, std::move(call), Qt::QueuedConnection);
      }),
      m_video(video ? std::move(video) : std::make_unique<CompositedVideoOutput>()),
      m_media(m_document, [this] { return m_audio.mixer().sampleRate(); }),
      m_engine(std::make_unique<CueEngine>(m_document, m_media.table(), m_audio.mixer(), *m_video,
                                           m_live, m_status)),
      m_session(m_document, m_media, *m_engine, m_status,
                {[this] { return mixSettings(); },
                 [this](const MixSettings& settings) { applyMixSettings(settings); }}),
      m_editor(m_document, *m_engine, m_audio.mixer(), m_media, m_status, m_session) {
    connect(&m_session, &ShowSession::assignmentsChanged, this, &AppModel::assignmentsChanged);
    connect(&m_editor, &ShowEditor::assignmentsChanged, this, &AppModel::assignmentsChanged);
    connect(&m_editor, &ShowEditor::deckTabsChanged, this, &AppModel::deckTabsChanged);
    // Another show closes every tab (loading its page does).
    connect(&m_session, &ShowSession::assignmentsChanged, this, &AppModel::deckTabsChanged);
    m_audio.onConfigurationChange = [this] { restartAudio(); };
    // Movie pictures follow the device that plays their sound.
    m_video->setAudioClock(
        [mixer = &m_audio.mixer()](std::uint64_t host) { return mixer->deviceSeconds(host); });
    // A press on an empty key selects it only when the keyboard draws that key.
    m_engine->setLayoutKeys([](KeyCode code) { return KeyboardLayout::labels().count(code) > 0; });
    connect(&m_media, &MediaLoader::missingFiles, this, [this](const QStringList& names) {
        m_status.show(QStringLiteral("見つからないファイルがあります: ") +
                      names.join(QStringLiteral("、")));
    });
    m_deviceRetry.setInterval(kDeviceRetryInterval);
    connect(&m_deviceRetry, &QTimer::timeout, this, &AppModel::lookForWantedDevice);
    connect(&m_media, &MediaLoader::damaged, this,
            [this](const QString& message) { m_status.show(message); });
}

AppModel::~AppModel() {
    m_watch.reset();
    m_timer.stop();
    m_deviceRetry.stop();
    m_audio.stop(); // no render call may reach the mixer while the rest is torn down
}

void AppModel::start() {
    if (!m_offline && !m_watch) {
        m_watch = AudioDeviceList::observeChanges([this] {
            // From the watch's thread: the model lives on the main thread, and the watch ends
            // (joining that thread) before the model does.
            QMetaObject::invokeMethod(
                this,
                [this] {
                    emit devicesChanged();
                    lookForWantedDevice();
                },
                Qt::QueuedConnection);
        });
    }
    restartAudio();
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setInterval(kTickInterval);
    connect(&m_timer, &QTimer::timeout, this, &AppModel::tick, Qt::UniqueConnection);
    m_timer.start();
}

void AppModel::setRouting(KeyCode code, std::optional<RoutingMatrix> matrix,
                          const QString& outputMap) {
    const auto found = m_document.assignments.find(code);
    if (found == m_document.assignments.end() || m_editor.refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(),
                                 KeyboardLayout::label(code) + " キーのルーティングを変更");
    found->second.matrix = std::move(matrix);
    found->second.outputMap = outputMap;
    emit assignmentsChanged();
}

void AppModel::toggleRoute(KeyCode code, std::int64_t source, std::int64_t output) {
    const auto found = m_document.assignments.find(code);
    if (found == m_document.assignments.end())
        return;
    const KeyAssignment& a = found->second;
    const MediaInfo* info = m_media.infoFor(a);
    const std::int64_t sources = info && info->clip ? info->clip->channelCount : 0;
    const auto shown = Routing::matrix(a.matrix, a.outputMap.toStdString(), sources,
                                       m_engine->outputChannelCount());
    setRouting(code, Routing::toggle(shown, source, output, sources), QString());
}

void AppModel::applyQuickRouting(KeyCode code, const QString& outputMap) {
    setRouting(code, std::nullopt, outputMap);
}

void AppModel::restartAudio() {
    Mixer& mixer = m_audio.mixer();
    if (!m_offline) {
        std::optional<std::string> uid;
        if (m_outputDeviceUID)
            uid = m_outputDeviceUID->toStdString();
        try {
            m_audio.start(uid);
        } catch (const AudioStartError& error) {
            m_status.show(QStringLiteral("オーディオ出力を開始できません: ") +
                          QString::fromStdString(error.what()));
            try {
                m_audio.start(std::nullopt);
            } catch (const AudioStartError&) {
                // Even the default failed; the null device cannot, so this is not reached.
            }
        }
        m_engine->setOutputChannelCount(m_audio.channelCount());
        if (isOnFallback())
            m_deviceRetry.start();
        else
            m_deviceRetry.stop();
    }
    mixer.setMasterVolume(m_masterVolume);
    mixer.setMuted(m_mutedOutputs);
    mixer.setToneChannel(m_toneChannel);
    emit audioDeviceChanged();
}

void AppModel::setOffline(bool offline) {
    m_offline = offline;
    m_session.setOffline(offline);
    if (offline)
        m_deviceRetry.stop();
}

std::optional<std::string> AppModel::wantedDevice() const {
    return m_outputDeviceUID ? std::optional<std::string>(m_outputDeviceUID->toStdString())
                             : std::nullopt;
}

bool AppModel::isOnFallback() const {
    return !m_offline && m_audio.isOnFallback(wantedDevice());
}

void AppModel::lookForWantedDevice() {
    if (m_probing || !isOnFallback()) {
        if (!isOnFallback())
            m_deviceRetry.stop();
        return;
    }
    // Opening a device may take a moment (a JACK server answering): never on this thread.
    m_probing = true;
    QPointer<AppModel> self(this);
    const auto jackDevices = this->jackDevices();
    QThreadPool::globalInstance()->start([self, wanted = wantedDevice(), jackDevices] {
        const bool back = AudioEngine::canOpen(wanted, jackDevices);
        QMetaObject::invokeMethod(QCoreApplication::instance(), [self, wanted, back] {
            if (!self)
                return;
            self->m_probing = false;
            // The operator may have chosen another device meanwhile.
            if (back && wanted == self->wantedDevice() && self->isOnFallback()) {
                self->restartAudio();
                if (!self->isOnFallback())
                    self->m_status.show(QStringLiteral("オーディオ出力が戻りました: ") +
                                        QString::fromStdString(self->m_audio.deviceName()));
            }
        });
    });
}

MixSettings AppModel::mixSettings() const {
    return {m_outputDeviceUID, m_masterVolume, m_engine->stopAllFade(), m_mutedOutputs,
            m_video->outputs()};
}

void AppModel::applyMixSettings(const MixSettings& settings) {
    setMasterVolume(settings.masterVolume);
    setStopAllFade(settings.stopAllFade);
    setMutedOutputs(settings.mutedOutputs);
    setVideoOutputs(settings.videoOutputs);
    const std::optional<QString> device =
        m_deviceOverride ? m_deviceOverride : settings.outputDeviceUID;
    if (device != m_outputDeviceUID)
        setOutputDeviceUID(device);
}

void AppModel::setOutputDeviceUID(const std::optional<QString>& uid) {
    m_outputDeviceUID = uid;
    restartAudio();
    markDirty();
}

void AppModel::setMasterVolume(double volume) {
    m_masterVolume =
        std::isfinite(volume) ? std::clamp(volume, 0.0, ValueRanges::kMaxMasterVolume) : 0.0;
    m_audio.mixer().setMasterVolume(m_masterVolume);
    markDirty();
    emit mixSettingsChanged();
}

void AppModel::setMutedOutputs(std::set<std::int64_t> outputs) {
    m_mutedOutputs = std::move(outputs);
    m_audio.mixer().setMuted(m_mutedOutputs);
    markDirty();
    emit mixSettingsChanged();
}

void AppModel::setStopAllFade(double seconds) {
    m_engine->setStopAllFade(
        std::isfinite(seconds) ? std::clamp(seconds, 0.0, ValueRanges::kMaxStopAllFade) : 0.0);
    markDirty();
    emit mixSettingsChanged();
}

void AppModel::pace() {
    const auto wanted = m_engine->isIdle() && !m_toneChannel ? kIdleTickInterval : kTickInterval;
    // Restarting the timer (setInterval does) only on a change keeps its phase otherwise.
    if (m_timer.isActive() && m_timer.intervalAsDuration() != wanted)
        m_timer.setInterval(wanted);
}

void AppModel::setToneChannel(std::optional<std::int64_t> channel) {
    m_toneChannel = channel;
    m_audio.mixer().setToneChannel(channel);
    pace();
    emit mixSettingsChanged();
}
