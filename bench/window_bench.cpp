// CPU of the `vorlin` window under a virtual X server (Xvfb, started here), measured from
// /proc over 20 s windows:
//   BM_Window/idle    the window with a show open, nothing playing
//   BM_Window/sound   the same with one looping sound started by a real key press (xdotool)
// Each runs the program as a user would and, in turn (A, B, A, B…, three each), the same
// program with its views deaf to the live state (VORLIN_VIEW_UPDATES=off): what is left is the
// tick, the audio and Qt's own event loop. Reports the medians in % of one core and their
// difference, the cost of drawing (targets: idle ≤ 0.5 %, one sound ≤ 3 %).
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <fstream>
#include <signal.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <QDir>
#include <QProcess>

#include "Median.h"
#include "ProcessStats.h"
#include "QtBenchMain.h"
#include "TempDir.h"
#include "VirtualDisplay.h"
#include "audio/WavWriter.h"
#include "cue/AppModel.h"

namespace {

using namespace std::chrono_literals;

// A show with one looping stereo tone on the A key.
QString makeShow(const std::string& folder) {
    std::vector<float> tone(96000);
    for (std::size_t i = 0; i < tone.size(); ++i)
        tone[i] = static_cast<float>(0.3 * std::sin(2 * M_PI * 440.0 * i / 48000.0));
    const float* channels[] = {tone.data(), tone.data()};
    WavWriter wav;
    wav.open(folder + "/tone.wav", 2, 48000);
    wav.write(channels, static_cast<std::int64_t>(tone.size()));
    wav.finish();
    AppModel model;
    model.setOffline(true);
    KeyAssignment a(QString::fromStdString(folder + "/tone.wav"), 0);
    a.loop = true;
    model.document().assignments[0] = a;
    const QString show = QString::fromStdString(folder + "/show.vorlin");
    model.save(show);
    return show;
}

// Runs the window for a settle time and `seconds`; returns its CPU use in % of one core.
double measure(const VirtualDisplay& display, const QString& show, const std::string& home,
               bool updates, bool sound, double seconds) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DISPLAY", display.name());
    env.insert("QT_QPA_PLATFORM", "xcb");
    for (const char* xdg : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR"})
        env.insert(xdg, QString::fromStdString(home));
    env.insert("JACK_DEFAULT_SERVER", "vorlin-no-such-server"); // the null device, both ways
    if (!updates)
        env.insert("VORLIN_VIEW_UPDATES", "off");
    QProcess vorlin;
    vorlin.setProcessEnvironment(env);
    vorlin.start(QStringLiteral(VORLIN_EXECUTABLE), {show});
    vorlin.waitForStarted();
    std::this_thread::sleep_for(4s);
    if (sound) {
        QProcess::execute("env", {"DISPLAY=" + display.name(), "xdotool", "search", "--onlyvisible",
                                  "--name", "Vorlin", "windowfocus", "--sync"});
        QProcess::execute("env", {"DISPLAY=" + display.name(), "xdotool", "key", "a"});
        std::this_thread::sleep_for(2s);
    }
    const auto pid = static_cast<pid_t>(vorlin.processId());
    const double before = cpuSeconds(pid);
    std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>(seconds * 1000)));
    const double used = cpuSeconds(pid) - before;
    vorlin.terminate();
    if (!vorlin.waitForFinished(5000))
        vorlin.kill();
    vorlin.waitForFinished();
    return 100.0 * used / seconds;
}

void BM_Window(benchmark::State& state) {
    const bool sound = state.range(0) != 0;
    TempDir dir;
    QDir().mkpath(QString::fromStdString(dir.file("home")));
    const QString show = makeShow(dir.file(""));
    VirtualDisplay display;
    std::vector<double> ours, reference;
    for (auto _ : state) {
        for (int round = 0; round < 3; ++round) {
            ours.push_back(measure(display, show, dir.file("home"), true, sound, 20.0));
            reference.push_back(measure(display, show, dir.file("home"), false, sound, 20.0));
        }
    }
    state.counters["cpu_percent"] = median(ours);
    state.counters["reference_percent"] = median(reference);
    state.counters["drawing_percent"] = median(ours) - median(reference);
    state.SetLabel(sound ? "one looping sound" : "idle");
}
BENCHMARK(BM_Window)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    return runQtBenchmarks(argc, argv);
}
