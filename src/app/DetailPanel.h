#pragma once

#include <QWidget>

class AppModel;
class KeyFileSection;
class PlaybackSection;
class PictureSection;
class QLabel;
class RoutingMatrixView;
class RoutingSection;

// Everything about the selected key, in four boxes side by side: the key and its file
// (KeyFileSection), how it plays (PlaybackSection) above what it shows (PictureSection), and
// where it sounds (RoutingSection). With no key selected, or an empty one, a line says what to
// do instead. The boxes are shown again whenever the key, its media or the device change.
// Main thread.
class DetailPanel : public QWidget {
    Q_OBJECT
public:
    explicit DetailPanel(AppModel& model, QWidget* parent = nullptr);

    RoutingMatrixView& matrix();

private:
    void refresh();

    AppModel& m_model;
    QLabel* m_empty = nullptr;
    QWidget* m_body = nullptr;
    KeyFileSection* m_file = nullptr;
    PlaybackSection* m_playback = nullptr;
    PictureSection* m_picture = nullptr;
    RoutingSection* m_routing = nullptr;
};
