#pragma once

#include <QObject>
#include <QPointer>
#include <QWidget>

// Scrolling over a form must not change what it shows: a combo box, spin box or slider takes
// the mouse wheel only while it has the keyboard focus because the operator clicked it; otherwise
// the wheel scrolls the page it sits in, as if the control were not there. Installed on the
// application. Main thread.
class WheelGuard : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QPointer<QWidget> m_clicked; // the control last clicked
};
