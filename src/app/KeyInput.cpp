#include "app/KeyInput.h"

#include <QAbstractSpinBox>
#include <QApplication>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTextEdit>
#include <QTimer>

#include "app/KeyCodeMap.h"
#include "cue/AppModel.h"
#include "model/KeyboardLayout.h"

namespace {

bool isTextEntry(const QWidget* widget) {
    if (const auto* line = qobject_cast<const QLineEdit*>(widget))
        return !line->isReadOnly();
    if (const auto* spin = qobject_cast<const QAbstractSpinBox*>(widget))
        return !spin->isReadOnly();
    if (const auto* text = qobject_cast<const QTextEdit*>(widget))
        return !text->isReadOnly();
    if (const auto* plain = qobject_cast<const QPlainTextEdit*>(widget))
        return !plain->isReadOnly();
    return false;
}

// The field a widget belongs to: a spin box for the line edit inside it, which hands its focus
// on to the spin box.
QWidget* fieldOf(QWidget* widget) {
    while (widget && widget->focusProxy())
        widget = widget->focusProxy();
    return widget;
}

} // namespace

KeyInput::KeyInput(AppModel& model, QObject* parent) : QObject(parent), m_model(model) {}

std::optional<KeyCode> KeyInput::codeOf(const QKeyEvent& event) {
    if (event.nativeScanCode() != 0)
        if (auto code = KeyCodeMap::fromXkb(event.nativeScanCode()))
            return code;
    return KeyCodeMap::fromQtKey(event.key());
}

bool KeyInput::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::MouseButtonPress) {
        // After the click has placed the focus: a field clicked into keeps the keys.
        QPointer<QWidget> clicked = qobject_cast<QWidget*>(watched);
        QTimer::singleShot(0, this, [this, clicked] {
            QWidget* focus =
                QApplication::focusWidget() ? QApplication::focusWidget() : clicked.data();
            focus = fieldOf(focus);
            m_clickedField = isTextEntry(focus) ? focus : nullptr;
        });
        return false;
    }
    if (event->type() != QEvent::KeyPress && event->type() != QEvent::KeyRelease)
        return QObject::eventFilter(watched, event);
    return handleKey(static_cast<QKeyEvent*>(event), qobject_cast<QWidget*>(watched));
}

bool KeyInput::handleKey(QKeyEvent* key, QWidget* receiver) {
    if (key->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier))
        return false;
    if (QApplication::activeModalWidget())
        return false;
    const bool down = key->type() == QEvent::KeyPress;
    const auto code = codeOf(*key);
    // Key events go to the focus widget; without an active window, to whom they are sent.
    QWidget* focus = fieldOf(QApplication::focusWidget() ? QApplication::focusWidget() : receiver);
    if (isTextEntry(focus)) {
        if (focus == m_clickedField) {
            if (down && code &&
                (m_model.document().assignments.count(*code) || *code == KeyboardLayout::kEscape))
                m_model.status().show(kFieldMessage);
            return false;
        }
        focus->clearFocus();
    }
    if (!code)
        return false;
    m_model.handleKey(*code, down, key->modifiers() & Qt::ShiftModifier,
                      down && key->isAutoRepeat());
    return true;
}
