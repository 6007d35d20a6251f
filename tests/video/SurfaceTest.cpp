#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

#include <QGuiApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions>
#include <QPainter>

#include "MediaFixtures.h"
#include "TempDir.h"
#include "Wait.h"
#include "audio/HostTime.h"
#include "video/CompositedVideoOutput.h"
#include "video/MoviePlayer.h"
#include "video/OutputSurface.h"
#include "video/PictureRenderer.h"
#include "video/ScreenList.h"

namespace {

// The RGB that 8-bit levels stand for: luma and colour differences scaled from their range,
// then R = Y + 2(1−Kr)·Cr, B = Y + 2(1−Kb)·Cb and G from the rest.
QColor expectedRgb(const std::array<int, 3>& levels, bool fullRange, double kr, double kb) {
    const double y = fullRange ? levels[0] / 255.0 : (levels[0] - 16) / 219.0;
    const double cb = (levels[1] - 128) / (fullRange ? 255.0 : 224.0);
    const double cr = (levels[2] - 128) / (fullRange ? 255.0 : 224.0);
    const double kg = 1.0 - kr - kb;
    const auto level = [](double v) {
        return static_cast<int>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0));
    };
    return QColor(level(y + 2 * (1 - kr) * cr),
                  level(y - 2 * kb * (1 - kb) / kg * cb - 2 * kr * (1 - kr) / kg * cr),
                  level(y + 2 * (1 - kb) * cb));
}

void expectNear(const QColor& drawn, const QColor& expected, const char* how) {
    EXPECT_LE(std::abs(drawn.red() - expected.red()), 2)
        << how << " red " << drawn.red() << " against " << expected.red();
    EXPECT_LE(std::abs(drawn.green() - expected.green()), 2)
        << how << " green " << drawn.green() << " against " << expected.green();
    EXPECT_LE(std::abs(drawn.blue() - expected.blue()), 2)
        << how << " blue " << drawn.blue() << " against " << expected.blue();
}

// What a renderer draws of `layers` in the middle of a 160 × 90 framebuffer.
QColor drawnWithOpenGL(PictureRenderer& renderer, const std::vector<CompositorLayer>& layers) {
    QOpenGLFramebufferObject target(160, 90);
    target.bind();
    QOpenGLContext::currentContext()->functions()->glViewport(0, 0, 160, 90);
    renderer.draw(layers, {PictureFit::fit, Qt::black}, QSize(160, 90), 1.0);
    const QImage image = target.toImage();
    target.release();
    return image.pixelColor(80, 45);
}

QColor drawnWithPainter(const std::vector<CompositorLayer>& layers, PictureDetail detail) {
    QImage image(160, 90, QImage::Format_RGB32);
    QPainter painter(&image);
    Compositor::draw(painter, image.rect(), layers, {PictureFit::fit, Qt::black}, detail);
    painter.end();
    return image.pixelColor(80, 45);
}

constexpr std::array<int, 3> kLevels{120, 180, 70};
constexpr double kBt601[2] = {0.299, 0.114};
constexpr double kBt709[2] = {0.2126, 0.0722};

} // namespace

// A movie's colour is its stream's: the levels' range (limited or full) and matrix (as tagged;
// untagged, BT.709 from 1280 wide or above 576 lines, BT.601 below), the same on an output
// surface (OpenGL), in a render and in the monitor view. Deeper formats come to the same.
TEST(MovieColour, RangeAndMatrixAsTheStreamSaysOnEveryWayOfDrawing) {
    struct Row {
        const char* name;
        int width, height;
        bool fullRange;
        const char* matrix;
        const char* pixelFormat;
        const double* expectedMatrix;
    };
    const Row rows[] = {
        {"limited, untagged SD", 320, 240, false, "", "yuv420p", kBt601},
        {"full, untagged SD", 320, 240, true, "", "yuv420p", kBt601},
        {"limited, tagged BT.709 at SD size", 320, 240, false, "bt709", "yuv420p", kBt709},
        {"full, tagged BT.709", 320, 240, true, "bt709", "yuv420p", kBt709},
        {"limited, tagged BT.601 at HD size", 1280, 720, false, "bt601", "yuv420p", kBt601},
        {"untagged, 576 lines", 1024, 576, false, "", "yuv420p", kBt601},
        {"untagged, 578 lines", 768, 578, false, "", "yuv420p", kBt709},
        {"untagged, 1280 wide", 1280, 540, false, "", "yuv420p", kBt709},
        {"4:2:2", 320, 240, false, "bt709", "yuv422p", kBt709},
        {"4:4:4 full", 320, 240, true, "bt601", "yuv444p", kBt601},
        {"10-bit 4:2:2", 320, 240, false, "bt709", "yuv422p10le", kBt709},
    };
    TempDir dir;
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext context;
    ASSERT_TRUE(context.create());
    ASSERT_TRUE(context.makeCurrent(&surface));
    {
        PictureRenderer renderer;
        for (const Row& row : rows) {
            SCOPED_TRACE(row.name);
            MediaFixtures::Video video{row.width, row.height, 0.0, 0.2};
            video.codec = "ffv1"; // lossless: the levels come back as written
            video.levels = kLevels;
            video.fullRange = row.fullRange;
            video.matrix = row.matrix;
            video.pixelFormat = row.pixelFormat;
            const std::string path = dir.file(std::string(row.pixelFormat) + ".mkv");
            ASSERT_TRUE(MediaFixtures::write(path, "pcm_s16le", {}, &video));
            MoviePlayer player(path, MoviePlayer::Wait::forPicture);
            const MovieFrame* frame = player.frameAt(0.02);
            ASSERT_NE(frame, nullptr);
            const std::vector<CompositorLayer> layers{{nullptr, frame, 1.0, 1.0}};
            const QColor expected =
                expectedRgb(kLevels, row.fullRange, row.expectedMatrix[0], row.expectedMatrix[1]);
            expectNear(drawnWithOpenGL(renderer, layers), expected, "OpenGL");
            expectNear(drawnWithPainter(layers, PictureDetail::exact), expected, "render");
            expectNear(drawnWithPainter(layers, PictureDetail::reduced), expected, "monitor");
        }
    }
    context.doneCurrent();
}

// One movie on the movable window, on a whole display and in the monitor view at once: each
// shows its picture.
TEST(MovieColour, OnePictureOnTwoSurfacesAndTheMonitorAtOnce) {
    ASSERT_EQ(QGuiApplication::screens().size(), 2);
    TempDir dir;
    MediaFixtures::Video video{640, 360, 0.0, 2.0};
    video.codec = "ffv1";
    video.levels = kLevels;
    video.matrix = "bt709";
    ASSERT_TRUE(MediaFixtures::write(dir.file("movie.mkv"), "pcm_s16le", {}, &video));
    CompositedVideoOutput output;
    output.setLook({PictureFit::fit, Qt::black});
    output.enableSurfaces(1);
    const QString display = ScreenList::current().labels().value(1);
    output.setOutputs({"window", display});
    MovieStart start;
    start.path = QString::fromStdString(dir.file("movie.mkv"));
    start.duration = 2.0;
    const auto cue = output.play(start);
    EXPECT_EQ(output.surfaceIds(), QStringList({"window", display}));
    Wait::pump(1200);
    ASSERT_TRUE(cue->started);

    const QColor expected = expectedRgb(kLevels, false, kBt709[0], kBt709[1]);
    int surfaces = 0;
    for (QWindow* window : QGuiApplication::topLevelWindows()) {
        auto* surface = dynamic_cast<OutputSurface*>(window);
        if (!surface || !surface->isExposed())
            continue;
        ++surfaces;
        SCOPED_TRACE(surface->id().toStdString());
        const QImage frame = surface->grabFramebuffer();
        ASSERT_FALSE(frame.isNull());
        expectNear(frame.pixelColor(frame.width() / 2, frame.height() / 2), expected, "surface");
        EXPECT_GT(surface->framesDrawn(), 5);
    }
    EXPECT_EQ(surfaces, 2);
    QImage monitor(320, 180, QImage::Format_RGB32);
    QPainter painter(&monitor);
    output.draw(painter, monitor.rect(), HostTime::now(), std::nullopt, PictureDetail::reduced);
    painter.end();
    expectNear(monitor.pixelColor(160, 90), expected, "monitor");
    output.finish(*cue);
}
