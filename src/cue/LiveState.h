#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include <QObject>
#include <QString>
#include <QUuid>

#include "cue/CueRow.h"
#include "model/KeyAssignment.h"

// What changes many times a second, published apart from the model so that only the views
// that show it redraw: key progress, deck counters, meters, the cue list, the playing pages.
// Each setter notifies only when the value really changed, except the meter lists, which are
// published on every tick. Main thread.
class LiveState : public QObject {
    Q_OBJECT
public:
    using KeyLevels = std::map<KeyCode, std::vector<float>>;

    explicit LiveState(QObject* parent = nullptr) : QObject(parent) {}

    const std::map<KeyCode, double>& progress() const { return m_progress; }
    const std::map<KeyCode, QString>& slidePosition() const { return m_slidePosition; }
    const std::map<KeyCode, QString>& deckCurrent() const { return m_deckCurrent; }
    const std::vector<float>& meters() const { return m_meters; }
    const KeyLevels& sourceMeters() const { return m_sourceMeters; }
    const std::set<QUuid>& playingPages() const { return m_playingPages; }
    const std::vector<CueRow>& cues() const { return m_cues; }
    // Ticks since start; the tick counts itself before it publishes anything.
    std::uint64_t ticks() const { return m_ticks; }
    // Progress bars, play lines and running times move on every tick, but nobody reads them 30
    // times a second, and each redraw costs a flush of the window to the display server (a
    // socket write and thread wake-ups, which dominate the window's CPU). The views draw them
    // on every third tick, 10 times a second, all on the same tick so that one flush carries
    // them all; a cue that starts or stops, and the meters, are drawn on the tick they change.
    static constexpr std::uint64_t kProgressEveryTicks = 3;
    bool isProgressTick() const { return m_ticks % kProgressEveryTicks == 0; }
    // Counts the tick. On a progress tick, progress and cues that changed since the last one
    // are announced again: a change the views passed over is drawn even when nothing changes
    // after it (a deck stepped while only its picture shows).
    void countTick();

    void setProgress(std::map<KeyCode, double> value);
    void setSlidePosition(std::map<KeyCode, QString> value);
    void setDeckCurrent(std::map<KeyCode, QString> value);
    void setPlayingPages(std::set<QUuid> value);
    void setCues(std::vector<CueRow> value);
    void setMeters(std::vector<float> value);
    void setSourceMeters(KeyLevels value);

signals:
    void progressChanged();
    void slidePositionChanged();
    void deckCurrentChanged();
    void metersChanged();
    void sourceMetersChanged();
    void playingPagesChanged();
    void cuesChanged();

private:
    std::map<KeyCode, double> m_progress;
    std::map<KeyCode, QString> m_slidePosition;
    std::map<KeyCode, QString> m_deckCurrent;
    std::vector<float> m_meters;
    KeyLevels m_sourceMeters;
    std::set<QUuid> m_playingPages;
    std::vector<CueRow> m_cues;
    std::uint64_t m_ticks = 0;
    bool m_changedBetweenProgressTicks = false;
};
