#pragma once

#include <QTimer>
#include <QWidget>

class AppModel;

// The small view in the main window that shows every picture cue, whatever output it is on:
// the same composited scene the outputs show. It redraws at 30 Hz only while a picture is up.
// Main thread.
class MonitorView : public QWidget {
    Q_OBJECT
public:
    explicit MonitorView(AppModel& model, QWidget* parent = nullptr);

    QSize sizeHint() const override { return {320, 180}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void follow();

    AppModel& m_model;
    QTimer m_frames;
    bool m_drewPictures = false;
};
