#include "video/Compositor.h"

#include <algorithm>

#include <QPainter>

#include "model/Prefs.h"

CompositorLook CompositorLook::fromPreferences() {
    CompositorLook look;
    const QString fit = Prefs::value(Prefs::kVideoFill).toString();
    look.fit = fit == QStringLiteral("fill")      ? PictureFit::fill
               : fit == QStringLiteral("stretch") ? PictureFit::stretch
                                                  : PictureFit::fit;
    look.background = Prefs::value(Prefs::kVideoBackground).toString() == QStringLiteral("white")
                          ? QColor(Qt::white)
                          : QColor(Qt::black);
    return look;
}

namespace Compositor {

QRectF placement(const QSize& size, const QRect& area, PictureFit fit) {
    if (fit == PictureFit::stretch || size.isEmpty())
        return QRectF(area);
    const double wide = static_cast<double>(area.width()) / size.width();
    const double high = static_cast<double>(area.height()) / size.height();
    const double scale = fit == PictureFit::fit ? std::min(wide, high) : std::max(wide, high);
    const QSizeF placed(size.width() * scale, size.height() * scale);
    return QRectF(area.x() + (area.width() - placed.width()) / 2.0,
                  area.y() + (area.height() - placed.height()) / 2.0, placed.width(),
                  placed.height());
}

void draw(QPainter& painter, const QRect& area, std::vector<CompositorLayer> layers,
          const CompositorLook& look) {
    painter.save();
    painter.setClipRect(area);
    painter.fillRect(area, look.background);
    std::stable_sort(
        layers.begin(), layers.end(),
        [](const CompositorLayer& a, const CompositorLayer& b) { return a.depth < b.depth; });
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    for (const CompositorLayer& layer : layers) {
        if (!layer.picture || layer.picture->isNull() || layer.opacity <= 0.0)
            continue;
        painter.setOpacity(std::min(layer.opacity, 1.0));
        painter.drawImage(placement(layer.picture->size(), area, look.fit), *layer.picture);
    }
    painter.restore();
}

} // namespace Compositor
