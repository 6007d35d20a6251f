#pragma once

#include <vector>

#include <QColor>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QString>

// A real PDF written with Qt's PDF writer: one page per colour, `points` in size, each page
// white with a block of its colour covering the middle (a tenth of the page left white all
// round), so a rendered page shows both its colour and its paper.
inline bool writePdf(const QString& path, const std::vector<QColor>& pages,
                     QSizeF points = QSizeF(320, 180)) {
    QPdfWriter writer(path);
    writer.setPageLayout(
        QPageLayout(QPageSize(points, QPageSize::Point), QPageLayout::Portrait, QMarginsF()));
    writer.setResolution(72);
    QPainter painter;
    if (!painter.begin(&writer))
        return false;
    for (std::size_t i = 0; i < pages.size(); ++i) {
        if (i > 0)
            writer.newPage();
        const QRectF page(QPointF(0, 0), points);
        painter.fillRect(page.adjusted(points.width() / 10, points.height() / 10,
                                       -points.width() / 10, -points.height() / 10),
                         pages[i]);
    }
    return painter.end();
}
