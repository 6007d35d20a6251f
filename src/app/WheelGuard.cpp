#include "app/WheelGuard.h"

#include <QAbstractScrollArea>
#include <QAbstractSlider>
#include <QAbstractSpinBox>
#include <QApplication>
#include <QComboBox>
#include <QScrollBar>
#include <QWheelEvent>

namespace {

bool isControl(QObject* object) {
    return qobject_cast<QComboBox*>(object) || qobject_cast<QAbstractSpinBox*>(object) ||
           (qobject_cast<QAbstractSlider*>(object) && !qobject_cast<QScrollBar*>(object));
}

} // namespace

bool WheelGuard::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::MouseButtonPress && isControl(watched)) {
        m_clicked = qobject_cast<QWidget*>(watched);
        return false;
    }
    if (event->type() != QEvent::Wheel || !isControl(watched))
        return false;
    auto* widget = static_cast<QWidget*>(watched);
    // Focus a window handed out by itself does not count: only a control clicked into.
    if (widget == m_clicked && widget->hasFocus())
        return false;
    // The page scrolls instead: the wheel goes to the scroll area around the control, if any.
    for (QWidget* up = widget->parentWidget(); up; up = up->parentWidget()) {
        if (auto* area = qobject_cast<QAbstractScrollArea*>(up)) {
            QApplication::sendEvent(area->viewport(), event);
            break;
        }
    }
    return true;
}
