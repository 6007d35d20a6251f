#pragma once

#include <functional>
#include <optional>

#include <QWidget>

#include "model/KeyAssignment.h"

class AppModel;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QToolButton;
class RoutingMatrixView;
class WaveformView;

// Everything about the selected key: its name, file, probe and load state, waveform, the
// playback settings, the video and slide settings, and its routing (text, quick choices,
// matrix, description). Every edit goes through the model's update at once, so a playing voice
// takes a new volume or loop setting while it sounds. Buttons, boxes and the matrix never take
// the keyboard; text and number fields do only when clicked into (the key input's rule), and
// Enter hands the keys back to the show. Main thread.
class DetailPanel : public QWidget {
    Q_OBJECT
public:
    // Quick routing texts offered next to the routing field: label, text.
    static const QList<QPair<QString, QString>>& quickRoutings();

    explicit DetailPanel(AppModel& model, QWidget* parent = nullptr);

    RoutingMatrixView& matrix() { return *m_matrix; }

private:
    std::optional<KeyCode> selectedCode() const;
    const KeyAssignment* selectedAssignment() const;
    void refresh();
    void refreshRouting(const KeyAssignment& a);
    void refreshPosition();
    void edit(const std::function<void(KeyAssignment&)>& change);
    void fillCopyMenu();

    QDoubleSpinBox* seconds(QWidget* parent, double maximum);
    // A field's change signal stores its value in one field of the key.
    template <typename Value, typename Sender, typename Signal, typename Field>
    void bind(Sender* sender, Signal signal, Field KeyAssignment::*field);
    // Text fields commit when the operator presses Enter or leaves them; Enter also gives the
    // keyboard back to the show.
    void onCommit(QLineEdit* field, const std::function<void(const QString&)>& commit);

    AppModel& m_model;
    bool m_refreshing = false;
    QWidget* m_body = nullptr;
    QLabel* m_keyLabel = nullptr;
    QLabel* m_empty = nullptr;
    QLineEdit* m_title = nullptr;
    QLabel* m_file = nullptr;
    QLabel* m_info = nullptr;
    QLabel* m_state = nullptr;
    WaveformView* m_waveform = nullptr;
    QPushButton* m_replace = nullptr;
    QPushButton* m_add = nullptr;
    QPushButton* m_rename = nullptr;
    QPushButton* m_clear = nullptr;
    QToolButton* m_copy = nullptr;
    QComboBox* m_mode = nullptr;
    QComboBox* m_onNext = nullptr;
    QDoubleSpinBox* m_fadeIn = nullptr;
    QDoubleSpinBox* m_fadeOut = nullptr;
    QDoubleSpinBox* m_volumeDb = nullptr;
    QDoubleSpinBox* m_volume = nullptr;
    QCheckBox* m_loop = nullptr;
    QSpinBox* m_group = nullptr;
    QCheckBox* m_showVideo = nullptr;
    QSpinBox* m_layer = nullptr;
    QLineEdit* m_screens = nullptr;
    QCheckBox* m_clickToTake = nullptr;
    QCheckBox* m_slideAuto = nullptr;
    QDoubleSpinBox* m_slideInterval = nullptr;
    QCheckBox* m_slideLoop = nullptr;
    QDoubleSpinBox* m_slideTransition = nullptr;
    QLineEdit* m_outputMap = nullptr;
    QComboBox* m_quick = nullptr;
    RoutingMatrixView* m_matrix = nullptr;
    QLabel* m_describe = nullptr;
    QPushButton* m_routeAll = nullptr;
};
