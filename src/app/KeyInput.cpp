#include "app/KeyInput.h"

#include <QAbstractSpinBox>
#include <QApplication>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTextEdit>
#include <QTimer>
#include <QWidget>

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
        // A press passes this filter for the window, then for the widget under the mouse and,
        // when that one does not take it, for its parents: the first widget is the one
        // clicked. After the click has placed the focus: a field clicked into keeps the keys; a
        // click anywhere else (the drawn keyboard, the cue list, the meters, empty space) ends
        // the editing, whatever selecting a key did with the focus meanwhile.
        auto* widget = qobject_cast<QWidget*>(watched);
        if (!widget || m_pressSeen)
            return false;
        m_pressSeen = true;
        QTimer::singleShot(0, this, [this, clicked = QPointer<QWidget>(widget)] {
            m_pressSeen = false;
            QWidget* target = fieldOf(clicked.data());
            if (target && isTextEntry(target)) {
                m_clickedField = target;
                return;
            }
            endEditing();
        });
        return false;
    }
    if (event->type() != QEvent::KeyPress && event->type() != QEvent::KeyRelease)
        return QObject::eventFilter(watched, event);
    return handleKey(static_cast<QKeyEvent*>(event), qobject_cast<QWidget*>(watched));
}

void KeyInput::endEditing() {
    QWidget* focus = fieldOf(QApplication::focusWidget());
    if (focus && isTextEntry(focus)) {
        QWidget* window = focus->window();
        focus->clearFocus();
        if (window)
            window->setFocus(Qt::OtherFocusReason); // the keys go back to the show
    }
    m_clickedField = nullptr;
}

bool KeyInput::handleKey(QKeyEvent* key, QWidget* receiver) {
    if (key->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier))
        return false;
    // A modal dialog, an open menu, a combo box's list: the keys are theirs (Escape closes).
    if (QApplication::activeModalWidget() || QApplication::activePopupWidget())
        return false;
    const bool down = key->type() == QEvent::KeyPress;
    const auto code = codeOf(*key);
    if (QWidget* active = QApplication::activeWindow();
        active && active->property(kClosesOnEscape).toBool() && key->key() == Qt::Key_Escape) {
        if (down)
            active->close();
        return true;
    }
    if (code) {
        // A field passes a key it does not take (Enter) on to its parents, through this filter
        // again: the same event is still the field's.
        if (m_fieldEvent && m_fieldEvent->type == key->type() && m_fieldEvent->code == *code &&
            m_fieldEvent->time == key->timestamp())
            return false;
        // The release of a key that went down in the field is the field's too.
        if (!down && !key->isAutoRepeat() && m_fieldKeys.erase(*code))
            return false;
    }
    // Key events go to the focus widget; without an active window, to whom they are sent.
    QWidget* focus = fieldOf(QApplication::focusWidget() ? QApplication::focusWidget() : receiver);
    if (isTextEntry(focus)) {
        if (focus == m_clickedField) {
            if (code) {
                m_fieldEvent = FieldEvent{key->type(), *code, key->timestamp()};
                if (down)
                    m_fieldKeys.insert(*code);
                else
                    m_fieldKeys.erase(*code);
            }
            const int qtKey = key->key();
            if (down &&
                (qtKey == Qt::Key_Return || qtKey == Qt::Key_Enter || qtKey == Qt::Key_Escape)) {
                // Enter confirms (the field commits on its own handling of it), Escape leaves:
                // either way the editing ends and the keys are the show's again.
                QTimer::singleShot(0, this, [this] { endEditing(); });
                return false;
            }
            if (down && code && m_model.document().assignments.count(*code))
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
