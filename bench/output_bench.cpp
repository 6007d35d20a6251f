// Pictures on a real output surface under a virtual X server (Xvfb, started here): a generated
// 1080p movie at 30 pictures a second, 60 s long, whose picture n is a flat grey that tells n
// (mod 27), on the movable output window drawn with OpenGL, started from a prepared player
// as a key press starts it. At every frame the window draws, the grey in its middle is read
// back from OpenGL, so what was drawn is known picture by picture:
//   dropped           pictures of the movie never drawn (target 0)
//   late_draws        frames that drew an older picture than the one due
//   first_picture_ms  from the movie's start host time to the first frame that shows it, and
//   first_picture_frames  the same in display frames (target ≤ 1) at the refresh rate the
//                     display reports (refresh_hz)
//   frame_ms          the median time between two frames the window drew
//   draw_ms_median, draw_ms_max  a draw, from its start to its pixels read back
// The window draws a refresh only when its scene changed, as the program's surfaces do.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdlib>
#include <vector>

#include <QEventLoop>
#include <QGuiApplication>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QScreen>
#include <QTimer>

#include "MediaFixtures.h"
#include "Median.h"
#include "TempDir.h"
#include "VirtualDisplay.h"
#include "audio/HostTime.h"
#include "model/Prefs.h"
#include "video/CompositedVideoOutput.h"
#include "video/OutputSurface.h"
#include "video/PictureRenderer.h"

namespace {

constexpr int kFps = 30;
constexpr double kSeconds = 60.0;

struct Drawn {
    std::uint64_t host = 0;
    double took = 0.0; // seconds from the start of the draw to its pixels read back
    int red = 0, green = 0, blue = 0;
};

void BM_MovieOnAnOutput(benchmark::State& state) {
    TempDir dir;
    const std::string path = dir.file("movie.mkv");
    const MediaFixtures::Video video{1920, 1080, 0.0, kSeconds + 1.0, kFps};
    if (!MediaFixtures::write(path, "pcm_s16le", {{2, 48000, kSeconds + 1.0, 440.0, 0.2}}, &video))
        return state.SkipWithError("the movie could not be written");

    for (auto _ : state) {
        CompositedVideoOutput output;
        // A coloured background tells "no picture yet" from the movie's black picture 0.
        output.setLook({PictureFit::fit, QColor(0, 0, 255)});
        std::vector<Drawn> drawn;
        drawn.reserve(20000);
        auto surface = OutputSurface::window(
            1,
            [&](PictureRenderer& renderer, const QSize& area, double ratio, const QString& id,
                std::uint64_t now) {
                output.draw(renderer, area, ratio, now, id);
                auto* gl = QOpenGLContext::currentContext()->functions();
                unsigned char pixel[4] = {};
                const int x = area.width() / 2, y = area.height() / 2;
                gl->glReadPixels(x, y, 1, 1, GL_RGBA, GL_UNSIGNED_BYTE, pixel);
                drawn.push_back({now, static_cast<double>(HostTime::now() - now) * 1e-9, pixel[0],
                                 pixel[1], pixel[2]});
                return true; // keep drawing every refresh, pictures or not
            },
            [&](const QString& id, std::uint64_t now) {
                // Looked at every refresh: this surface is not one the output wakes.
                return OutputSurface::Scene{output.sceneKey(now, id), true};
            });
        output.prepare(QString::fromStdString(path));
        QEventLoop loop;
        QTimer::singleShot(1500, &loop, &QEventLoop::quit); // the prepared player decodes ahead
        loop.exec();

        std::uint64_t startHost = 0;
        MovieStart start;
        start.path = QString::fromStdString(path);
        start.duration = kSeconds + 1.0;
        start.z = 1.0;
        start.onStart = [&](std::uint64_t host) { startHost = host; };
        const std::size_t before = drawn.size();
        auto cue = output.play(std::move(start));
        QTimer::singleShot(static_cast<int>(kSeconds * 1000) + 200, &loop, &QEventLoop::quit);
        loop.exec();

        // The pictures drawn while the movie was due, by number: the grey tells it mod 27, the
        // time tells which of those it is (the one due, or a few late).
        std::vector<bool> shown(static_cast<std::size_t>(kSeconds * kFps) + 2, false);
        std::vector<double> intervals;
        double firstShown = -1.0;
        int late = 0;
        for (std::size_t i = before; i < drawn.size(); ++i) {
            if (i > before)
                intervals.push_back(static_cast<double>(drawn[i].host - drawn[i - 1].host) * 1e-9);
            const Drawn& d = drawn[i];
            if (startHost == 0 || d.host < startHost)
                continue;
            const bool grey = std::abs(d.red - d.blue) < 12 && std::abs(d.red - d.green) < 12;
            if (!grey)
                continue;
            const double elapsed = static_cast<double>(d.host - startHost) * 1e-9;
            if (firstShown < 0)
                firstShown = elapsed;
            // Matroska keeps times in whole milliseconds: picture n is due at k/30 rounded, up
            // to half a millisecond before k/30 (a bench that ignored it counted such a picture
            // shown on time as dropped).
            const int due = static_cast<int>(std::floor((elapsed + 0.0005) * kFps));
            if (due >= static_cast<int>(kSeconds * kFps))
                break;
            const int residue = static_cast<int>(std::lround(d.red * 219.0 / 255.0 / 8.0)) % 27;
            int picture = due - ((due - residue) % 27 + 27) % 27; // at or before the one due
            if (picture < due)
                ++late;
            if (picture >= 0)
                shown[static_cast<std::size_t>(picture)] = true;
        }
        int dropped = 0;
        std::string which;
        // The last pictures are due while the run stops: not counted.
        for (int n = 0; n < static_cast<int>((kSeconds - 0.5) * kFps); ++n) {
            if (!shown[static_cast<std::size_t>(n)]) {
                ++dropped;
                which += " " + std::to_string(n);
            }
        }
        state.SetLabel("dropped:" + which);
        const double frame = median(intervals);
        std::vector<double> took;
        for (std::size_t i = before; i < drawn.size(); ++i)
            took.push_back(drawn[i].took);
        std::sort(took.begin(), took.end());
        state.counters["draw_ms_median"] = median(took) * 1e3;
        state.counters["draw_ms_max"] = took.empty() ? 0.0 : took.back() * 1e3;
        state.counters["dropped"] = dropped;
        state.counters["late_draws"] = late;
        state.counters["first_picture_ms"] = firstShown * 1e3;
        state.counters["frame_ms"] = frame * 1e3;
        const double refresh = surface->screen()->refreshRate();
        state.counters["refresh_hz"] = refresh;
        state.counters["first_picture_frames"] = firstShown * refresh;
        state.counters["frames_drawn"] = static_cast<double>(drawn.size() - before);
        output.finish(*cue);
    }
}

BENCHMARK(BM_MovieOnAnOutput)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    // The server must be there before Qt connects to it.
    VirtualDisplay display;
    setenv("DISPLAY", display.name().toLocal8Bit().constData(), 1);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    QGuiApplication app(argc, argv);
    Prefs::registerDefaults();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
