// Pictures on a real output surface under a virtual X server (Xvfb, started here): a generated
// 1080p movie at 30 pictures a second, 60 s long, whose picture n is a flat grey that tells n
// (mod 27), on the movable output window (1920 × 1080) drawn with OpenGL, started from a
// prepared player as a key press starts it. At every frame the window draws, the grey in its
// middle is read back from OpenGL, so what was drawn is known picture by picture:
//   dropped           pictures of the movie never drawn (target 0)
//   late_draws        frames that drew an older picture than the one due
//   first_picture_ms  from the movie's start host time to the first frame that shows it, and
//   first_picture_frames  the same in display frames (target ≤ 1) at the refresh rate the
//                     display reports (refresh_hz)
//   frame_ms          the median time between two frames the window drew
//   draw_ms_median, draw_ms_max  a draw, from its start to its pixels read back
// The window draws a refresh only when its scene changed, as the program's surfaces do.
//
// Three ways of playing the same file, alternated three times (A, B, C, A, B, C …) in one run:
//   A  the output window alone;
//   B  the output window and the monitor view's drawing (a reduced picture every 33 ms);
//   C  mpv on the same X server at the same size (--vo=gpu --hwdec=no --no-audio, and
//      --gpu-sw, without which it refuses the software OpenGL).
// cpu_s_* are each one's CPU seconds for the minute (user + system, the X server not counted:
// xvfb_cpu_s_* says what it spent), medians with the runs in the label:
//   cpu_ratio_vs_mpv      A against C (target ≤ 1.0)
//   monitor_cpu_ratio     B against A (target ≤ 1.2)
//   mpv_dropped           the frames mpv says it dropped, beside ours
//   rss_growth_mb         resident memory after the movie stopped less before it was prepared
//                         (target ≤ 20)
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <QEventLoop>
#include <QGuiApplication>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QPainter>
#include <QScreen>
#include <QTimer>

#include "MediaFixtures.h"
#include "Median.h"
#include "ProcessStats.h"
#include "Spawn.h"
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

pid_t xServer = 0; // the virtual display's

struct Played {
    double dropped = 0;
    double late = 0;
    double firstShown = -1.0;
    double frame = 0.0;
    double drawMedian = 0.0;
    double drawMax = 0.0;
    double refresh = 0.0;
    double framesDrawn = 0.0;
    double cpu = 0.0;     // the player's CPU seconds while the movie played
    double xvfbCpu = 0.0; // the X server's
    double rssGrowth = 0.0;
    std::string which; // the pictures dropped
};

void spin(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

Played playOurs(const std::string& path, bool monitor) {
    Played played;
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
    surface->setGeometry(0, 0, 1920, 1080);
    spin(500);
    const double rssBefore = residentMB(getpid());
    output.prepare(QString::fromStdString(path));
    spin(1500); // the prepared player decodes ahead

    // The monitor view's drawing: what MonitorView::paintEvent does every 33 ms.
    QImage monitorPicture(320, 180, QImage::Format_RGB32);
    QTimer monitorTimer;
    QObject::connect(&monitorTimer, &QTimer::timeout, [&] {
        QPainter painter(&monitorPicture);
        output.draw(painter, monitorPicture.rect(), HostTime::now(), std::nullopt,
                    PictureDetail::reduced);
    });
    if (monitor)
        monitorTimer.start(33);

    std::uint64_t startHost = 0;
    MovieStart start;
    start.path = QString::fromStdString(path);
    start.duration = kSeconds + 1.0;
    start.z = 1.0;
    start.onStart = [&](std::uint64_t host) { startHost = host; };
    const std::size_t before = drawn.size();
    const double cpuBefore = cpuSeconds(getpid()), xBefore = cpuSeconds(xServer);
    auto cue = output.play(std::move(start));
    spin(static_cast<int>(kSeconds * 1000) + 200);
    played.cpu = cpuSeconds(getpid()) - cpuBefore;
    played.xvfbCpu = cpuSeconds(xServer) - xBefore;
    monitorTimer.stop();

    // The pictures drawn while the movie was due, by number: the grey tells it mod 27, the
    // time tells which of those it is (the one due, or a few late).
    std::vector<bool> shown(static_cast<std::size_t>(kSeconds * kFps) + 2, false);
    std::vector<double> intervals;
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
        if (played.firstShown < 0)
            played.firstShown = elapsed;
        // Matroska keeps times in whole milliseconds: picture n is due at k/30 rounded, up
        // to half a millisecond before k/30 (a bench that ignored it counted such a picture
        // shown on time as dropped).
        const int due = static_cast<int>(std::floor((elapsed + 0.0005) * kFps));
        if (due >= static_cast<int>(kSeconds * kFps))
            break;
        const int residue = static_cast<int>(std::lround(d.red * 219.0 / 255.0 / 8.0)) % 27;
        int picture = due - ((due - residue) % 27 + 27) % 27; // at or before the one due
        if (picture < due)
            ++played.late;
        if (picture >= 0)
            shown[static_cast<std::size_t>(picture)] = true;
    }
    // The last pictures are due while the run stops: not counted.
    for (int n = 0; n < static_cast<int>((kSeconds - 0.5) * kFps); ++n) {
        if (!shown[static_cast<std::size_t>(n)]) {
            ++played.dropped;
            played.which += " " + std::to_string(n);
        }
    }
    played.frame = median(intervals);
    std::vector<double> took;
    for (std::size_t i = before; i < drawn.size(); ++i)
        took.push_back(drawn[i].took);
    std::sort(took.begin(), took.end());
    played.drawMedian = median(took);
    played.drawMax = took.empty() ? 0.0 : took.back();
    played.refresh = surface->screen()->refreshRate();
    played.framesDrawn = static_cast<double>(drawn.size() - before);
    output.finish(*cue);
    output.resetPrepared();
    spin(1000);
    played.rssGrowth = residentMB(getpid()) - rssBefore;
    return played;
}

// mpv playing the file at the same size on the same display; its dropped frames are what it
// counted, written by a script of its own at its end.
Played playMpv(const std::string& path, const TempDir& dir) {
    Played played;
    const std::string script = dir.file("count.lua"), count = dir.file("mpv-dropped.txt");
    {
        std::ofstream lua(script);
        lua << "local last = 0\n"
               "mp.observe_property('frame-drop-count', 'number', function(_, v) "
               "if v then last = v end end)\n"
               "mp.register_event('shutdown', function() local f = io.open('"
            << count << "', 'w') f:write(tostring(last)) f:close() end)\n";
    }
    const std::string scriptArg = "--script=" + script;
    const std::string length = "--length=" + std::to_string(static_cast<int>(kSeconds));
    // mpv wants a runtime folder of its own user; a CI machine may have none.
    const std::string runtime = dir.file("runtime");
    mkdir(runtime.c_str(), 0700);
    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 0);
    const double xBefore = cpuSeconds(xServer);
    // --gpu-sw: mpv refuses a software OpenGL (as under Xvfb) unless told it may use one.
    played.cpu = spawnCpu({"mpv", "--really-quiet", "--no-config", "--vo=gpu", "--gpu-sw",
                           "--hwdec=no", "--no-audio", "--geometry=1920x1080+0+0", "--no-border",
                           length.c_str(), scriptArg.c_str(), path.c_str()});
    played.xvfbCpu = cpuSeconds(xServer) - xBefore;
    std::ifstream in(count);
    in >> played.dropped;
    return played;
}

std::string joined(const std::vector<double>& values, double scale = 1.0) {
    std::string text;
    for (double value : values) {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%s%.2f", text.empty() ? "" : "/", value * scale);
        text += buffer;
    }
    return text;
}

void BM_MovieOnAnOutput(benchmark::State& state) {
    TempDir dir;
    const std::string path = dir.file("movie.mkv");
    const MediaFixtures::Video video{1920, 1080, 0.0, kSeconds + 1.0, kFps};
    if (!MediaFixtures::write(path, "pcm_s16le", {{2, 48000, kSeconds + 1.0, 440.0, 0.2}}, &video))
        return state.SkipWithError("the movie could not be written");
    const bool withMpv = spawn({"mpv", "--version"});

    for (auto _ : state) {
        std::vector<Played> alone, monitored, mpv;
        for (int round = 0; round < 3; ++round) {
            alone.push_back(playOurs(path, false));
            monitored.push_back(playOurs(path, true));
            if (withMpv)
                mpv.push_back(playMpv(path, dir));
        }
        const auto of = [](const std::vector<Played>& runs, double Played::*field) {
            std::vector<double> values;
            for (const Played& run : runs)
                values.push_back(run.*field);
            return values;
        };
        const double cpuAlone = median(of(alone, &Played::cpu));
        const double cpuMonitored = median(of(monitored, &Played::cpu));
        const double cpuMpv = median(of(mpv, &Played::cpu));
        state.counters["dropped"] = median(of(alone, &Played::dropped));
        state.counters["late_draws"] = median(of(alone, &Played::late));
        state.counters["dropped_with_monitor"] = median(of(monitored, &Played::dropped));
        state.counters["mpv_dropped"] = median(of(mpv, &Played::dropped));
        state.counters["draw_ms_median"] = median(of(alone, &Played::drawMedian)) * 1e3;
        state.counters["draw_ms_max"] = median(of(alone, &Played::drawMax)) * 1e3;
        state.counters["first_picture_ms"] = median(of(alone, &Played::firstShown)) * 1e3;
        state.counters["frame_ms"] = median(of(alone, &Played::frame)) * 1e3;
        state.counters["refresh_hz"] = alone.front().refresh;
        state.counters["first_picture_frames"] =
            median(of(alone, &Played::firstShown)) * alone.front().refresh;
        state.counters["frames_drawn"] = median(of(alone, &Played::framesDrawn));
        state.counters["cpu_s_alone"] = cpuAlone;
        state.counters["cpu_s_monitor"] = cpuMonitored;
        state.counters["cpu_s_mpv"] = cpuMpv;
        state.counters["xvfb_cpu_s_alone"] = median(of(alone, &Played::xvfbCpu));
        state.counters["xvfb_cpu_s_mpv"] = median(of(mpv, &Played::xvfbCpu));
        state.counters["cpu_ratio_vs_mpv"] = cpuMpv > 0 ? cpuAlone / cpuMpv : 0.0;
        state.counters["monitor_cpu_ratio"] = cpuAlone > 0 ? cpuMonitored / cpuAlone : 0.0;
        state.counters["rss_growth_mb"] = median(of(alone, &Played::rssGrowth));
        state.SetLabel(
            "cpu alone " + joined(of(alone, &Played::cpu)) + " monitor " +
            joined(of(monitored, &Played::cpu)) + " mpv " + joined(of(mpv, &Played::cpu)) +
            "; dropped " + joined(of(alone, &Played::dropped)) + " with monitor " +
            joined(of(monitored, &Played::dropped)) + " mpv " + joined(of(mpv, &Played::dropped)) +
            "; late " + joined(of(alone, &Played::late)) + "; rss growth " +
            joined(of(alone, &Played::rssGrowth)) + " MB; draw max ms " +
            joined(of(alone, &Played::drawMax), 1e3));
    }
}

BENCHMARK(BM_MovieOnAnOutput)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    // The server must be there before Qt connects to it.
    VirtualDisplay display;
    xServer = static_cast<pid_t>(display.pid());
    setenv("DISPLAY", display.name().toLocal8Bit().constData(), 1);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    QGuiApplication app(argc, argv);
    Prefs::registerDefaults();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
