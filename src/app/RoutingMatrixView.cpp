#include "app/RoutingMatrixView.h"

#include <algorithm>

#include <QMouseEvent>
#include <QPainter>

namespace {
constexpr double kLabelWidth = 34;   // "入1" … in front of each row
constexpr double kHeaderHeight = 16; // output numbers above the columns
} // namespace

RoutingMatrixView::RoutingMatrixView(QWidget* parent) : QWidget(parent) {
    setFocusPolicy(Qt::NoFocus);
    setMinimumHeight(40);
}

void RoutingMatrixView::setMatrix(RoutingMatrix rows, int outputColumns, int deviceOutputs) {
    m_rows = std::move(rows);
    m_columns = std::max(outputColumns, 1);
    m_deviceOutputs = deviceOutputs;
    updateGeometry();
    update();
}

QSize RoutingMatrixView::sizeHint() const {
    return {static_cast<int>(kLabelWidth + 18 * m_columns),
            static_cast<int>(kHeaderHeight + 18 * std::max<std::size_t>(m_rows.size(), 1))};
}

double RoutingMatrixView::cellSize() const {
    // Square cells that fit both ways, between readable and generous.
    const double across = (width() - kLabelWidth) / m_columns;
    const double down = (height() - kHeaderHeight) / std::max<double>(m_rows.size(), 1.0);
    return std::clamp(std::min(across, down), 6.0, 26.0);
}

QRectF RoutingMatrixView::cellRect(int source, int output) const {
    const double size = cellSize();
    return {kLabelWidth + output * size, kHeaderHeight + source * size, size, size};
}

void RoutingMatrixView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const double size = cellSize();
    QFont small = font();
    small.setPixelSize(static_cast<int>(std::clamp(size * 0.55, 8.0, 12.0)));
    p.setFont(small);
    p.setPen(palette().color(QPalette::WindowText));
    for (int o = 0; o < m_columns; ++o)
        if (size >= 14 || o % 4 == 0) // every number while they fit, else every fourth
            p.drawText(QRectF(kLabelWidth + o * size, 0, size * 2, kHeaderHeight),
                       Qt::AlignLeft | Qt::AlignVCenter, QString::number(o + 1));
    for (std::size_t s = 0; s < m_rows.size(); ++s) {
        p.setPen(palette().color(QPalette::WindowText));
        p.drawText(QRectF(0, kHeaderHeight + s * size, kLabelWidth - 4, size),
                   Qt::AlignRight | Qt::AlignVCenter, QStringLiteral("入%1").arg(s + 1));
        for (int o = 0; o < m_columns; ++o) {
            const QRectF cell = cellRect(static_cast<int>(s), o).adjusted(1, 1, -1, -1);
            const auto& row = m_rows[s];
            const bool on = std::find(row.begin(), row.end(), o) != row.end();
            const bool real = o < m_deviceOutputs;
            QColor fill = on ? QColor(80, 200, 110) : QColor(58, 60, 66);
            if (!real)
                fill = fill.darker(160);
            p.fillRect(cell, fill);
        }
    }
}

void RoutingMatrixView::mousePressEvent(QMouseEvent* event) {
    for (std::size_t s = 0; s < m_rows.size(); ++s)
        for (int o = 0; o < m_columns; ++o)
            if (cellRect(static_cast<int>(s), o).contains(event->position())) {
                if (onToggle)
                    onToggle(static_cast<std::int64_t>(s), o);
                return;
            }
}
