#include "app/ElidedLabel.h"

#include <QHelpEvent>
#include <QPainter>
#include <QToolTip>

QSize ElidedLabel::minimumSizeHint() const {
    // Room for a few characters and the ellipsis: enough to tell that something is said.
    return {fontMetrics().horizontalAdvance(QStringLiteral("あああ…")),
            QLabel::minimumSizeHint().height()};
}

bool ElidedLabel::isElided() const {
    return fontMetrics().horizontalAdvance(text()) > contentsRect().width();
}

void ElidedLabel::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setPen(palette().color(foregroundRole()));
    const QRect area = contentsRect();
    painter.drawText(area, static_cast<int>(alignment()) | Qt::TextSingleLine,
                     fontMetrics().elidedText(text(), Qt::ElideRight, area.width()));
}

bool ElidedLabel::event(QEvent* event) {
    if (event->type() == QEvent::ToolTip && isElided() && toolTip().isEmpty()) {
        QToolTip::showText(static_cast<QHelpEvent*>(event)->globalPos(), text(), this);
        return true;
    }
    return QLabel::event(event);
}
