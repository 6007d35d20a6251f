#pragma once

#include <optional>

#include <QObject>
#include <QPointer>

#include "model/KeyAssignment.h"

class AppModel;
class QKeyEvent;
class QWidget;

// The local key monitor: an event filter on the application that hands the keyboard to the
// show while Vorlin is active, in this order: keys with Ctrl, Alt or Meta are not ours (menu
// shortcuts); nothing while a modal dialog runs; a text field the operator clicked into keeps
// its keys (and an assigned key pressed there says why nothing plays); a field that got the
// focus without a click loses it; every other key goes to AppModel::handleKey. Main thread.
class KeyInput : public QObject {
    Q_OBJECT
public:
    static inline const QString kFieldMessage =
        QStringLiteral("数値の入力欄が選ばれているため、キーで再生・停止できません（Enter "
                       "で確定するか、キーボードの図をクリック）");

    explicit KeyInput(AppModel& model, QObject* parent = nullptr);

    // The layout key code of a key event: its scan code (X11/Wayland: evdev + 8), else, where
    // the platform gives none, its Qt key.
    static std::optional<KeyCode> codeOf(const QKeyEvent& event);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    bool handleKey(QKeyEvent* event, QWidget* receiver);

    AppModel& m_model;
    QPointer<QWidget> m_clickedField;
};
