#pragma once

#include <vector>

#include <QColor>
#include <QImage>
#include <QRect>

class MovieFrame;
class QPainter;

// How a picture whose aspect differs from the output's is placed: whole with bars in the
// background colour, filling the output with the overflow cut, or stretched.
enum class PictureFit { fit, fill, stretch };

// One picture of a cue on one output — a still picture or a movie's — at its depth (layer ×
// 1,000,000 + sequence) and opacity.
struct CompositorLayer {
    const QImage* picture = nullptr;
    const MovieFrame* frame = nullptr;
    double depth = 0.0;
    double opacity = 1.0;

    bool isEmpty() const;
    // Upright (a movie filmed on its side is turned).
    QSize size() const;
};

// How exactly a painter draws a movie's picture: converted at its own size and scaled as a
// render draws it, or converted straight to the size it is shown at (a small view, where the
// full-size pass would cost more than the view is worth).
enum class PictureDetail { exact, reduced };

// The look every output shares (the video preferences).
struct CompositorLook {
    PictureFit fit = PictureFit::fit;
    QColor background = Qt::black;

    // "pref.videoFill" and "pref.videoBackground" as the settings store them.
    static CompositorLook fromPreferences();
};

// Draws what an output shows with a painter: the background, then the layers from the deepest
// up, each placed by the fit rule and drawn at its opacity. It draws the pictures of a headless
// render and the monitor view; the output surfaces draw the same with OpenGL (PictureRenderer),
// by the same placement. Main thread.
namespace Compositor {

void draw(QPainter& painter, const QRect& area, std::vector<CompositorLayer> layers,
          const CompositorLook& look, PictureDetail detail = PictureDetail::exact);
// The layers from the deepest up.
void sortByDepth(std::vector<CompositorLayer>& layers);
// The size a movie's picture shows at, turned upright.
QSize uprightSize(const MovieFrame& frame);
// A movie's picture as an upright image of (at most, reduced) `size`; null when it cannot be
// converted.
QImage imageOf(const MovieFrame& frame, const QSize& size, PictureDetail detail);
// Where a picture of `size` lands in `area`.
QRectF placement(const QSize& size, const QRect& area, PictureFit fit);

} // namespace Compositor
