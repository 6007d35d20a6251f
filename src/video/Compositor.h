#pragma once

#include <vector>

#include <QColor>
#include <QImage>
#include <QRect>

class QPainter;

// How a picture whose aspect differs from the output's is placed: whole with bars in the
// background colour, filling the output with the overflow cut, or stretched.
enum class PictureFit { fit, fill, stretch };

// One picture of a cue on one output, at its depth (layer × 1,000,000 + sequence) and opacity.
struct CompositorLayer {
    const QImage* picture = nullptr;
    double depth = 0.0;
    double opacity = 1.0;
};

// The look every output shares (the video preferences).
struct CompositorLook {
    PictureFit fit = PictureFit::fit;
    QColor background = Qt::black;

    // "pref.videoFill" and "pref.videoBackground" as the settings store them.
    static CompositorLook fromPreferences();
};

// Draws what an output shows: the background, then the layers from the deepest up, each placed
// by the fit rule and drawn at its opacity. The same code draws the output windows and the
// pictures of a headless render, so what is tested is what is shown. Main thread.
namespace Compositor {

void draw(QPainter& painter, const QRect& area, std::vector<CompositorLayer> layers,
          const CompositorLook& look);
// Where a picture of `size` lands in `area`.
QRectF placement(const QSize& size, const QRect& area, PictureFit fit);

} // namespace Compositor
