#include "cue/LiveState.h"

#include <utility>

namespace {

// Whether it changed (and was announced).
template <typename T, typename Signal>
bool assignIfChanged(LiveState* state, T& field, T&& value, Signal signal) {
    if (field == value)
        return false;
    field = std::move(value);
    emit(state->*signal)();
    return true;
}

} // namespace

void LiveState::countTick() {
    ++m_ticks;
    if (isProgressTick() && std::exchange(m_changedBetweenProgressTicks, false)) {
        emit progressChanged();
        emit cuesChanged();
    }
}

void LiveState::setProgress(std::map<KeyCode, double> value) {
    if (assignIfChanged(this, m_progress, std::move(value), &LiveState::progressChanged) &&
        !isProgressTick())
        m_changedBetweenProgressTicks = true;
}

void LiveState::setSlidePosition(std::map<KeyCode, QString> value) {
    assignIfChanged(this, m_slidePosition, std::move(value), &LiveState::slidePositionChanged);
}

void LiveState::setDeckCurrent(std::map<KeyCode, QString> value) {
    assignIfChanged(this, m_deckCurrent, std::move(value), &LiveState::deckCurrentChanged);
}

void LiveState::setPlayingPages(std::set<QUuid> value) {
    assignIfChanged(this, m_playingPages, std::move(value), &LiveState::playingPagesChanged);
}

void LiveState::setCues(std::vector<CueRow> value) {
    if (assignIfChanged(this, m_cues, std::move(value), &LiveState::cuesChanged) &&
        !isProgressTick())
        m_changedBetweenProgressTicks = true;
}

void LiveState::setMeters(std::vector<float> value) {
    m_meters = std::move(value);
    emit metersChanged();
}

void LiveState::setSourceMeters(KeyLevels value) {
    m_sourceMeters = std::move(value);
    emit sourceMetersChanged();
}
