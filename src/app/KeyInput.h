#pragma once

#include <optional>
#include <set>

#include <QObject>
#include <QPointer>

#include "model/KeyAssignment.h"

class AppModel;
class QKeyEvent;
class QWidget;

// The local key monitor: an event filter on the application that hands the keyboard to the
// show while Vorlin is active, in this order: keys with Ctrl, Alt or Meta are not ours (menu
// shortcuts); nothing while a modal dialog or a popup (a menu, a combo box's list) is open; a
// text field the operator clicked into keeps its keys (and an assigned key pressed there says
// why nothing plays) until Enter confirms, Escape or Tab leaves, or a click lands anywhere that
// is not a text field; a key that went down in the field stays the field's to its release; a
// field that got the focus without a click loses it; every other key goes to
// AppModel::handleKey. Main thread.
class KeyInput : public QObject {
    Q_OBJECT
public:
    static inline const QString kFieldMessage =
        QStringLiteral("数値の入力欄が選ばれているため、キーで再生・停止できません（Enter "
                       "で確定するか、キーボードの図をクリック）");

    // A window with this property set closes on Escape (while it is the active window) instead
    // of the show stopping.
    static constexpr const char* kClosesOnEscape = "closesOnEscape";

    explicit KeyInput(AppModel& model, QObject* parent = nullptr);

    // The layout key code of a key event: its scan code (X11/Wayland: evdev + 8), else, where
    // the platform gives none, its Qt key.
    static std::optional<KeyCode> codeOf(const QKeyEvent& event);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    bool handleKey(QKeyEvent* event, QWidget* receiver);
    // Takes the focus out of the field being edited and gives the keys back to the show.
    void endEditing();

    AppModel& m_model;
    QPointer<QWidget> m_clickedField;
    bool m_pressSeen = false;      // a mouse press on its way through the widgets
    std::set<KeyCode> m_fieldKeys; // went down in the clicked field, not yet up
    struct FieldEvent {
        int type = 0;
        KeyCode code = 0;
        quint64 time = 0;
    };
    std::optional<FieldEvent> m_fieldEvent; // the last key event the field had
};
