#pragma once

#include <QWidget>

class AppModel;
class QComboBox;
class QPushButton;
class MeterBars;

// The side panel's meters. "出力": one bar per output (8 to 64) with its mute switch under it
// (a click on the number mutes or unmutes the output) and the test tone sent to a chosen output.
// "素材": the source channels of every key of this page that plays, grouped by key. The mode is
// a preference, so the next start shows what the operator last looked at. Main thread.
class MeterPanel : public QWidget {
    Q_OBJECT
public:
    explicit MeterPanel(AppModel& model, QWidget* parent = nullptr);

    bool showsSources() const;
    void setShowsSources(bool sources);
    // Where output `channel`'s mute switch is drawn, in panel coordinates (tests click it).
    QRect muteRect(int channel) const;

private:
    // The outputs the tone can go to (after a device change), and the one chosen.
    void refreshTone();
    void showToneChoice();

    AppModel& m_model;
    MeterBars* m_bars = nullptr;
    QPushButton* m_sourceMode = nullptr;
    QPushButton* m_outputMode = nullptr;
    QComboBox* m_tone = nullptr;
};
