// The sound servers of a desktop, on a private PipeWire session (started here) and a JACK
// server with the dummy driver:
//   BM_KeyToSink   an OSC key press to the first sample at the sink, for `vorlin play` as typed
//                  on the PipeWire back end against, in turn, PipeWire's JACK (pw-jack) and ALSA
//                  through PipeWire's plugin: both players of a pair running, the presses taking
//                  turns (A, B, A, B…, 40 each). Measured on each sink's monitor with the
//                  graph's own cycle times. Medians and p90 per path, the quantum, and the
//                  targets: the native median ≤ one quantum + 1 ms (ratio_to_budget ≤ 1) and
//                  ≤ 0.5 × the ALSA path's (native_over_alsa).
//                  The monitor shows a cycle's sound in that cycle or in the next: each sink's
//                  lag is measured first with a voice armed for a known host time (exact to
//                  the sample, as the device tests show) and taken off; the lag may change
//                  from press to press when the graph reorders, so the raw medians (each at
//                  most one quantum long) are reported too.
//   BM_RenderCpu   the processor time of the mix per cycle (the render thread's own clock) with
//                  256 stereo voices at a 256-frame quantum, on PipeWire and on JACK, taking
//                  turns in 5 s windows (three each): p50, p99, p99.9 and the largest, against
//                  the period (target: p99.9 ≤ 10 % of it). Processor time, not wall time, so
//                  what else the machine runs barely moves it.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <csignal>
#include <lo/lo.h>
#include <sys/prctl.h>
#include <thread>

#include <QProcess>
#include <QStandardPaths>

#include "JackServer.h"
#include "Median.h"
#include "PipeWireRecorder.h"
#include "PipeWireSession.h"
#include "QtBenchMain.h"
#include "TempDir.h"
#include "audio/HostTime.h"
#include "audio/WavWriter.h"
#include "cue/AppModel.h"
#include "device/AudioEngine.h"
#include "device/JackBackend.h"
#include "device/PipeWireBackend.h"

namespace {

using namespace std::chrono_literals;

double quantile(std::vector<double> x, double q) {
    if (x.empty())
        return 0.0;
    std::sort(x.begin(), x.end());
    return x[std::min(x.size() - 1, static_cast<std::size_t>(q * (x.size() - 1) + 0.5))];
}

// One `vorlin play` of the show, with no display, listening for OSC on `port`.
class Player {
public:
    Player(const QString& show, const QString& device, quint16 port, const QString& wrapper)
        : m_desk(lo_address_new("127.0.0.1", std::to_string(port).c_str())) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            env.remove(QString::fromLatin1(variable));
        m_process.setProcessEnvironment(env);
        m_process.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
        QStringList command{QStringLiteral(VORLIN_EXECUTABLE),
                            "play",
                            show,
                            "--device",
                            device,
                            "--osc",
                            QString::number(port)};
        if (!wrapper.isEmpty())
            command.prepend(wrapper);
        const QString program = command.takeFirst();
        m_process.start(program, command);
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (!ready() && std::chrono::steady_clock::now() < deadline) {
            m_process.waitForReadyRead(100);
            m_err += QString::fromUtf8(m_process.readAllStandardError());
        }
    }
    ~Player() {
        m_process.kill();
        m_process.waitForFinished();
        lo_address_free(m_desk);
    }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;
    // Listening, and the show's file loaded.
    bool ready() const {
        return m_err.contains("OSC: 127.0.0.1") && m_err.contains("準備ができました");
    }
    // The A key down, then everything stopped at once, as a desk sends them.
    void pressA() { lo_send(m_desk, "/vorlin/key/A", "i", 1); }
    void panic() { lo_send(m_desk, "/vorlin/panic", ""); }

private:
    lo_address m_desk;
    QProcess m_process;
    QString m_err;
};

// How late a sink's monitor shows what reaches the sink (0 or one of its quanta), in ms: a voice
// of our own armed for a known host time, into that sink, while the players are idle.
double monitorLag(const std::string& sink, PipeWireRecorder& recorder) {
    AudioEngine engine;
    engine.start("pipewire:" + sink);
    auto* backend = dynamic_cast<PipeWireBackend*>(engine.backend());
    const auto deadline = std::chrono::steady_clock::now() + 2s;
    while (backend && backend->quantum() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    if (!backend || backend->quantum() == 0)
        return -1.0;
    std::vector<double> lags;
    for (int attempt = 0; attempt < 3; ++attempt) {
        recorder.rearm();
        const auto clip = std::make_shared<const AudioClip>(
            std::vector<std::vector<float>>(1, std::vector<float>(4800, 0.5f)), 48000.0);
        const auto id = engine.mixer().play(clip, {{0, 0}}, 1.0f, 0.0, false, true);
        const std::uint64_t start = HostTime::now() + HostTime::secondsToTicks(0.05);
        engine.mixer().setStart(id, start);
        const auto until = std::chrono::steady_clock::now() + 1s;
        while (recorder.firstSoundHostTime() == 0 && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(2ms);
        if (recorder.firstSoundHostTime() == 0)
            return -1.0;
        const double delay = backend->latency() - static_cast<double>(backend->quantum()) / 48000.0;
        lags.push_back((static_cast<double>(recorder.firstSoundHostTime()) * 1e-9 -
                        (static_cast<double>(start) * 1e-9 - delay)) *
                       1e3);
        std::this_thread::sleep_for(150ms);
    }
    return median(lags);
}

// One path under test: a player and the recorder of the sink it plays into.
struct Path {
    Player* player = nullptr;
    PipeWireRecorder* sink = nullptr;
    double lag = 0.0;            // the sink's monitor lag, ms
    std::vector<double> presses; // ms from the OSC message to the first sample at the sink
};

// `presses` key presses to each of the two paths, taking turns.
void alternate(Path& a, Path& b, int presses) {
    for (int press = 0; press < 2 * presses; ++press) {
        Path& path = press % 2 == 0 ? a : b;
        path.sink->rearm();
        std::this_thread::sleep_for(30ms);
        const std::uint64_t pressed = HostTime::now();
        path.player->pressA();
        const auto deadline = std::chrono::steady_clock::now() + 1s;
        while (path.sink->firstSoundHostTime() == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        if (path.sink->firstSoundHostTime() != 0)
            path.presses.push_back(
                static_cast<double>(path.sink->firstSoundHostTime() - pressed) * 1e-6 - path.lag);
        path.player->panic();
        std::this_thread::sleep_for(120ms);
    }
}

void report(benchmark::State& state, const std::string& name, const Path& path) {
    state.counters[name + "_median_ms"] = median(path.presses);
    state.counters[name + "_p90_ms"] = quantile(path.presses, 0.9);
    state.counters[name + "_raw_median_ms"] = median(path.presses) + path.lag;
    state.counters[name + "_monitor_lag_ms"] = path.lag;
    state.counters[name + "_heard"] = static_cast<double>(path.presses.size());
}

std::string trace(const std::string& title, const Path& a, const Path& b) {
    std::string text = title;
    for (std::size_t i = 0; i < std::max(a.presses.size(), b.presses.size()); ++i)
        text += " " + (i < a.presses.size() ? std::to_string(a.presses[i]).substr(0, 5) : "-") +
                "/" + (i < b.presses.size() ? std::to_string(b.presses[i]).substr(0, 5) : "-");
    return text;
}

void BM_KeyToSink(benchmark::State& state) {
    PipeWireSession session;
    if (!session.ready())
        return state.SkipWithError("no PipeWire session (scripts/setup installs it)");
    if (QStandardPaths::findExecutable("pw-jack").isEmpty())
        return state.SkipWithError("pw-jack is not installed (scripts/setup installs it)");
    if (!session.hasAlsaPlugin())
        return state.SkipWithError("PipeWire's ALSA plugin is missing (scripts/setup fetches it)");
    session.use();
    TempDir dir;
    std::vector<float> tone(48000);
    for (std::size_t i = 0; i < tone.size(); ++i)
        tone[i] = 0.5f * static_cast<float>(std::sin(2.0 * M_PI * 500.0 * i / 48000.0 + 0.5));
    const float* channels[2] = {tone.data(), tone.data()};
    WavWriter wav;
    if (!wav.open(dir.file("tone.wav"), 2, 48000) || !wav.write(channels, 48000) || !wav.finish())
        return state.SkipWithError("the tone could not be written");
    const QString show = QString::fromStdString(dir.file("show.vorlin"));
    {
        AppModel model;
        model.setOffline(true);
        KeyAssignment a(QString::fromStdString(dir.file("tone.wav")), 0);
        a.loop = true;
        a.fadeIn = 0.0;
        model.document().assignments[0] = a;
        model.save(show);
    }
    // The native path plays into the 8-channel sink; the other paths, one after the other,
    // into the default (stereo) one.
    PipeWireRecorder eight("vorlin-test-8ch", 8), stereo("vorlin-test-stereo", 2);
    Player nativePlayer(show, "pipewire:vorlin-test-8ch", 53281, {});
    if (!nativePlayer.ready())
        return state.SkipWithError("the native player did not start");
    Path native{&nativePlayer, &eight, 0.0, {}}, jack, alsa;
    for (auto _ : state) {
        {
            Player player(show, "jack:", 53282, "pw-jack");
            if (!player.ready())
                return state.SkipWithError("the pw-jack player did not start");
            std::this_thread::sleep_for(1s); // linked and running
            native.lag = monitorLag("vorlin-test-8ch", eight);
            jack = {&player, &stereo, monitorLag("vorlin-test-stereo", stereo), {}};
            if (native.lag < 0 || jack.lag < 0)
                return state.SkipWithError("a sink's monitor could not be measured");
            alternate(native, jack, 40);
        }
        Player player(show, "alsa:vorlin_pipewire_stereo", 53283, {});
        if (!player.ready())
            return state.SkipWithError("the ALSA player did not start");
        std::this_thread::sleep_for(1s);
        alsa = {&player, &stereo, monitorLag("vorlin-test-stereo", stereo), {}};
        Path nativeAgain{&nativePlayer, &eight, monitorLag("vorlin-test-8ch", eight), {}};
        if (alsa.lag < 0 || nativeAgain.lag < 0)
            return state.SkipWithError("a sink's monitor could not be measured");
        alternate(nativeAgain, alsa, 40);
        state.SetLabel(trace("native/pw-jack ms:", native, jack) +
                       trace("; native/alsa ms:", nativeAgain, alsa));
        native.presses.insert(native.presses.end(), nativeAgain.presses.begin(),
                              nativeAgain.presses.end());
    }
    const double quantum = 256 / 48.0;
    report(state, "native", native);
    report(state, "jack", jack);
    report(state, "alsa", alsa);
    state.counters["quantum_ms"] = quantum;
    state.counters["ratio_to_budget"] = median(native.presses) / (quantum + 1.0);
    state.counters["native_over_alsa"] =
        median(native.presses) / std::max(median(alsa.presses), 1e-9);
    state.counters["native_over_jack"] =
        median(native.presses) / std::max(median(jack.presses), 1e-9);
}

AudioClipPtr quietStereo(double seconds) {
    return std::make_shared<const AudioClip>(
        std::vector<std::vector<float>>(
            2, std::vector<float>(static_cast<std::size_t>(seconds * 48000), 0.001f)),
        48000.0);
}

void BM_RenderCpu(benchmark::State& state) {
    PipeWireSession session;
    if (!session.ready())
        return state.SkipWithError("no PipeWire session (scripts/setup installs it)");
    session.use();
    JackServer server(2, 48000, 256);
    if (!server.ready())
        return state.SkipWithError("jackd did not start");
    const auto clip = quietStereo(10.0);
    struct Path {
        const char* uid;
        std::vector<double> p999;
        double p50 = 0, p99 = 0, largest = 0, cycles = 0;
    };
    std::vector<Path> paths{{"pipewire:vorlin-test-stereo", {}}, {"jack:system", {}}};
    for (auto _ : state) {
        for (int window = 0; window < 3; ++window) {
            for (Path& path : paths) {
                AudioEngine engine;
                engine.start(std::string(path.uid));
                for (int v = 0; v < 256; ++v)
                    engine.mixer().play(clip, {{0, 0}, {1, 1}}, 1.0f, 0.0, true, false);
                std::this_thread::sleep_for(5s);
                const RenderTimes* times = nullptr;
                if (auto* pw = dynamic_cast<PipeWireBackend*>(engine.backend()))
                    times = &pw->renderTimes();
                if (auto* jk = dynamic_cast<JackBackend*>(engine.backend()))
                    times = &jk->renderTimes();
                if (!times)
                    return state.SkipWithError("a device did not start");
                path.p999.push_back(times->quantile(0.999) * 1e3);
                path.p50 = std::max(path.p50, times->quantile(0.5) * 1e3);
                path.p99 = std::max(path.p99, times->quantile(0.99) * 1e3);
                path.largest = std::max(path.largest, times->quantile(1.0) * 1e3);
                path.cycles += static_cast<double>(times->cycles());
            }
        }
    }
    const double period = 256 / 48.0;
    std::string trace = "p99.9 ms per window (pipewire/jack):";
    for (std::size_t w = 0; w < paths[0].p999.size(); ++w)
        trace += " " + std::to_string(paths[0].p999[w]).substr(0, 5) + "/" +
                 std::to_string(paths[1].p999[w]).substr(0, 5);
    for (const Path& path : paths) {
        const std::string name = std::string(path.uid).substr(0, std::string(path.uid).find(':'));
        state.counters[name + "_p50_ms"] = path.p50;
        state.counters[name + "_p99_ms"] = path.p99;
        state.counters[name + "_p999_ms"] = median(path.p999);
        state.counters[name + "_largest_ms"] = path.largest;
        state.counters[name + "_p999_share"] = median(path.p999) / period;
        state.counters[name + "_cycles"] = path.cycles;
    }
    state.counters["period_ms"] = period;
    state.SetLabel(trace);
}

BENCHMARK(BM_KeyToSink)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RenderCpu)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    return runQtBenchmarks(argc, argv);
}
