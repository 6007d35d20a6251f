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

std::optional<KeyCode> fromQtKey(int key) {
    static const std::pair<int, KeyCode> table[] = {
        {Qt::Key_A, 0},
        {Qt::Key_S, 1},
        {Qt::Key_D, 2},
        {Qt::Key_F, 3},
        {Qt::Key_H, 4},
        {Qt::Key_G, 5},
        {Qt::Key_Z, 6},
        {Qt::Key_X, 7},
        {Qt::Key_C, 8},
        {Qt::Key_V, 9},
        {Qt::Key_B, 11},
        {Qt::Key_Q, 12},
        {Qt::Key_W, 13},
        {Qt::Key_E, 14},
        {Qt::Key_R, 15},
        {Qt::Key_Y, 16},
        {Qt::Key_T, 17},
        {Qt::Key_1, 18},
        {Qt::Key_2, 19},
        {Qt::Key_3, 20},
        {Qt::Key_4, 21},
        {Qt::Key_6, 22},
        {Qt::Key_5, 23},
        {Qt::Key_Equal, 24},
        {Qt::Key_9, 25},
        {Qt::Key_7, 26},
        {Qt::Key_Minus, 27},
        {Qt::Key_8, 28},
        {Qt::Key_0, 29},
        {Qt::Key_BracketRight, 30},
        {Qt::Key_O, 31},
        {Qt::Key_U, 32},
        {Qt::Key_BracketLeft, 33},
        {Qt::Key_I, 34},
        {Qt::Key_P, 35},
        {Qt::Key_Return, 36},
        {Qt::Key_Enter, 36},
        {Qt::Key_L, 37},
        {Qt::Key_J, 38},
        {Qt::Key_Apostrophe, 39},
        {Qt::Key_K, 40},
        {Qt::Key_Semicolon, 41},
        {Qt::Key_Backslash, 42},
        {Qt::Key_Comma, 43},
        {Qt::Key_Slash, 44},
        {Qt::Key_N, 45},
        {Qt::Key_M, 46},
        {Qt::Key_Period, 47},
        {Qt::Key_Tab, 48},
        {Qt::Key_Space, 49},
        {Qt::Key_QuoteLeft, 50},
        {Qt::Key_Backspace, 51},
        {Qt::Key_Escape, CueEngine::kEscape},
        {Qt::Key_yen, 93},
        {Qt::Key_F5, 96},
        {Qt::Key_F6, 97},
        {Qt::Key_F7, 98},
        {Qt::Key_F3, 99},
        {Qt::Key_F8, 100},
        {Qt::Key_F9, 101},
        {Qt::Key_F11, 103},
        {Qt::Key_F10, 109},
        {Qt::Key_F12, 111},
        {Qt::Key_F4, 118},
        {Qt::Key_F2, 120},
        {Qt::Key_F1, 122},
        {Qt::Key_Left, 123},
        {Qt::Key_Right, 124},
        {Qt::Key_Down, 125},
        {Qt::Key_Up, 126},
    };
    for (const auto& [qt, code] : table)
        if (qt == key)
            return code;
    return std::nullopt;
}

} // namespace

KeyInput::KeyInput(AppModel& model, QObject* parent) : QObject(parent), m_model(model) {}

std::optional<KeyCode> KeyInput::codeOf(const QKeyEvent& event) {
    if (event.nativeScanCode() != 0)
        if (auto code = KeyCodeMap::fromXkb(event.nativeScanCode()))
            return code;
    return fromQtKey(event.key());
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
                (m_model.document().assignments.count(*code) || *code == CueEngine::kEscape))
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
