#pragma once

#include "app/DetailSection.h"

class QCheckBox;
class QDoubleSpinBox;
class QLineEdit;
class QSpinBox;

// What the selected key shows: whether its picture is shown, on which layer and outputs, and
// how its slides advance (automatically, at what interval, looping, with what transition, or
// at a click). Main thread.
class PictureSection : public DetailSection {
public:
    PictureSection(AppModel& model, QWidget* parent);

protected:
    void show(const KeyAssignment& a, const MediaInfo* media) override;

private:
    QCheckBox* m_showVideo = nullptr;
    QSpinBox* m_layer = nullptr;
    QLineEdit* m_screens = nullptr;
    QCheckBox* m_clickToTake = nullptr;
    QCheckBox* m_slideAuto = nullptr;
    QDoubleSpinBox* m_slideInterval = nullptr;
    QCheckBox* m_slideLoop = nullptr;
    QDoubleSpinBox* m_slideTransition = nullptr;
};
