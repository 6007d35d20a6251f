#pragma once

#include <memory>

#include <QObject>
#include <QTimer>

#include "audio/Mixer.h"
#include "cue/CueEngine.h"
#include "cue/LiveState.h"
#include "model/ShowDocument.h"
#include "video/VideoOutput.h"

// The one owner of a running Vorlin's state: the show document, the mixer, the video output,
// the cue engine and the live state. It stays a thin owner: each operation lives with the part
// that does it (CueEngine for keys and the tick, ShowDocument for the document).
//
// Threading: main thread. Lifetime: one per process, created by the application (or the
// headless renderer) and living until the end.
class AppModel : public QObject {
    Q_OBJECT
public:
    // With no video output given, a headless one on the wall clock is used.
    explicit AppModel(std::unique_ptr<VideoOutput> video = {}, QObject* parent = nullptr);
    ~AppModel() override;

    // Starts the 30 Hz tick (a precise timer on the main thread).
    void start();

    void handleKey(KeyCode code, bool down, bool shift, bool isRepeat) {
        m_engine->handleKey(code, down, shift, isRepeat);
    }
    void startKey(KeyCode code, std::int64_t deckIndex) { m_engine->startKey(code, deckIndex); }
    void stopKey(KeyCode code, double fade) { m_engine->stopKey(code, fade); }
    void stopCue(std::int64_t id) { m_engine->stopCue(id); }
    void stopAll(bool immediate) { m_engine->stopAll(immediate); }
    bool isRunning(KeyCode code) const { return m_engine->isRunning(code); }
    void togglePlayback(KeyCode code) { m_engine->togglePlayback(code); }
    void tick() { m_engine->tick(); }

    // The routing matrix view's edit: stores the matrix and the routing text together.
    void setRouting(KeyCode code, std::optional<RoutingMatrix> matrix, const QString& outputMap);
    // A click in the matrix view on (source, output).
    void toggleRoute(KeyCode code, std::int64_t source, std::int64_t output);
    // One of the quick routing texts; the text governs again.
    void applyQuickRouting(KeyCode code, const QString& outputMap);

    ShowDocument& document() { return m_document; }
    Mixer& mixer() { return m_mixer; }
    VideoOutput& video() { return *m_video; }
    LiveState& live() { return m_live; }
    CueEngine& cueEngine() { return *m_engine; }

signals:
    void assignmentsChanged();

private:
    ShowDocument m_document;
    Mixer m_mixer;
    std::unique_ptr<VideoOutput> m_video;
    LiveState m_live;
    std::unique_ptr<CueEngine> m_engine;
    QTimer m_timer;
};
