#pragma once

#include "app/DetailSection.h"

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QSpinBox;

// How the selected key plays: its mode, what it does when other material starts, its group,
// loop, fades and volume (in dB and as a factor). Main thread.
class PlaybackSection : public DetailSection {
public:
    PlaybackSection(AppModel& model, QWidget* parent);

protected:
    void show(const KeyAssignment& a, const MediaInfo* media) override;

private:
    QComboBox* m_mode = nullptr;
    QComboBox* m_onNext = nullptr;
    QDoubleSpinBox* m_fadeIn = nullptr;
    QDoubleSpinBox* m_fadeOut = nullptr;
    QDoubleSpinBox* m_volumeDb = nullptr;
    QDoubleSpinBox* m_volume = nullptr;
    QCheckBox* m_loop = nullptr;
    QSpinBox* m_group = nullptr;
};
