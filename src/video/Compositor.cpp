#include "video/Compositor.h"

#include <algorithm>

#include <QPainter>
#include <QTransform>

#include "media/MovieFrame.h"
#include "model/Prefs.h"

bool CompositorLayer::isEmpty() const {
    return frame ? false : !picture || picture->isNull();
}

QSize CompositorLayer::size() const {
    if (!frame)
        return picture ? picture->size() : QSize();
    return Compositor::uprightSize(*frame);
}

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

void sortByDepth(std::vector<CompositorLayer>& layers) {
    std::stable_sort(
        layers.begin(), layers.end(),
        [](const CompositorLayer& a, const CompositorLayer& b) { return a.depth < b.depth; });
}

QSize uprightSize(const MovieFrame& frame) {
    const QSize stored(frame.width(), frame.height());
    return frame.rotation % 180 != 0 ? stored.transposed() : stored;
}

QImage imageOf(const MovieFrame& frame, const QSize& size, PictureDetail detail) {
    QSize converted(frame.width(), frame.height());
    if (detail == PictureDetail::reduced) {
        const QSize wanted = frame.rotation % 180 != 0 ? size.transposed() : size;
        converted = converted.boundedTo(wanted.expandedTo(QSize(1, 1)));
    }
    std::optional<RgbaPixels> rgba = frame.toRgba(converted.width(), converted.height());
    if (!rgba)
        return {};
    // The image holds the pixels: no copy.
    auto* held = new std::shared_ptr<std::uint8_t[]>(std::move(rgba->data));
    const QImage image(
        held->get(), rgba->width, rgba->height, rgba->stride, QImage::Format_RGBA8888,
        [](void* pixels) { delete static_cast<std::shared_ptr<std::uint8_t[]>*>(pixels); }, held);
    return frame.rotation ? image.transformed(QTransform().rotate(frame.rotation)) : image;
}

void draw(QPainter& painter, const QRect& area, std::vector<CompositorLayer> layers,
          const CompositorLook& look, PictureDetail detail) {
    painter.save();
    painter.setClipRect(area);
    painter.fillRect(area, look.background);
    sortByDepth(layers);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    for (const CompositorLayer& layer : layers) {
        if (layer.isEmpty() || layer.opacity <= 0.0)
            continue;
        const QRectF placed = placement(layer.size(), area, look.fit);
        QImage converted;
        if (layer.frame)
            converted = imageOf(*layer.frame, placed.size().toSize(), detail);
        const QImage& image = layer.frame ? converted : *layer.picture;
        if (image.isNull())
            continue;
        painter.setOpacity(std::min(layer.opacity, 1.0));
        painter.drawImage(placed, image);
    }
    painter.restore();
}

} // namespace Compositor
