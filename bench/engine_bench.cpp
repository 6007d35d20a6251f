// The audio engine on a JACK server with the dummy driver (started here):
//   BM_KeyToSound   frames from handleKey to the first non-zero sample at our port, over 20
//                   presses: mean and worst, against one period plus the reported latency
//                   (ratio_to_budget ≤ 1 is the target); and the same for an OSC message sent
//                   over UDP to the model's OSC port, the two taking turns press by press
//                   (target: the OSC worst within one period of the key's)
//   BM_Load         xruns of the server while 256 stereo voices play at a 128-frame period,
//                   against a reference client that only writes silence into the same ports:
//                   the two take turns in 10 s windows (A, B, A, B…, six each, same server),
//                   counted by a third client that sees every xrun of the server. Reports the
//                   median per window of both and their ratio (target ≤ 1: we add nothing to
//                   what this machine does anyway; a reference median of 0 counts as 1), for
//                   the server at normal and at real-time priority, and our longest cycle split
//                   into the wait for the mixer lock and the mix itself
#include <algorithm>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstring>
#include <jack/jack.h>
#include <lo/lo.h>
#include <numeric>
#include <thread>

#include <QCoreApplication>
#include <QElapsedTimer>

#include "JackRecorder.h"
#include "JackServer.h"
#include "Median.h"
#include "QtBenchMain.h"
#include "cue/AppModel.h"
#include "device/JackBackend.h"
#include "model/Prefs.h"
#include "remote/RemoteControl.h"

namespace {

using namespace std::chrono_literals;

AudioClipPtr constantStereo(float level, double seconds) {
    return std::make_shared<const AudioClip>(
        std::vector<std::vector<float>>(
            2, std::vector<float>(static_cast<std::size_t>(seconds * 48000), level)),
        48000.0);
}

void addKey(AppModel& model, KeyCode code, const AudioClipPtr& clip, const QString& outputMap) {
    KeyAssignment a("/bench/key" + QString::number(code) + ".wav", 0);
    a.outputMap = outputMap;
    a.fadeOut = 0.0;
    a.loop = true;
    MediaInfo info;
    info.probe.hasAudio = true;
    info.clip = clip;
    model.media().table()[a.path] = info;
    model.document().assignments[code] = a;
}

// The event loop for `ms`, as the window's would run (the OSC socket is read there).
void pumpFor(int ms) {
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
}

void BM_KeyToSound(benchmark::State& state) {
    const int period = static_cast<int>(state.range(0));
    JackServer server(8, 48000, period);
    if (!server.ready())
        return state.SkipWithError("jackd did not start");
    AppModel model;
    model.setOutputDeviceUID(QString("jack:system"));
    addKey(model, 0, constantStereo(0.5f, 2.0), "1");
    Prefs::setValue(RemoteControl::kEnabled, true);
    Prefs::setValue(RemoteControl::kPort, 53199);
    RemoteControl remote(model);
    if (remote.configure())
        return state.SkipWithError("the OSC port could not be opened");
    lo_address osc = lo_address_new("127.0.0.1", "53199");
    auto* backend = dynamic_cast<JackBackend*>(model.audio().backend());
    std::vector<double> byKey, byOsc;
    for (auto _ : state) {
        for (int press = 0; press < 40; ++press) {
            JackRecorder recorder(backend->clientName(), 1, 1.0);
            pumpFor(20);
            const std::uint32_t pressed = recorder.frameTime();
            if (press % 2 == 0)
                model.handleKey(0, true, false, false);
            else
                lo_send(osc, "/vorlin/key", "ii", 0, 1);
            pumpFor(100);
            recorder.stop();
            const auto& x = recorder.channel(0);
            const auto first =
                std::find_if(x.begin(), x.end(), [](float v) { return v != 0; }) - x.begin();
            (press % 2 == 0 ? byKey : byOsc)
                .push_back(static_cast<double>(recorder.startFrame() + first) - pressed);
            model.handleKey(0, true, true, false); // Shift: stop at once
            pumpFor(20);
            model.tick();
        }
    }
    lo_address_free(osc);
    Prefs::remove(RemoteControl::kEnabled);
    Prefs::remove(RemoteControl::kPort);
    const double latency = model.mixer().latency() * 48000.0;
    const auto mean = [](const std::vector<double>& x) {
        return std::accumulate(x.begin(), x.end(), 0.0) / static_cast<double>(x.size());
    };
    const double worst = *std::max_element(byKey.begin(), byKey.end());
    const double oscWorst = *std::max_element(byOsc.begin(), byOsc.end());
    state.counters["mean_frames"] = mean(byKey);
    state.counters["worst_frames"] = worst;
    state.counters["osc_mean_frames"] = mean(byOsc);
    state.counters["osc_worst_frames"] = oscWorst;
    state.counters["osc_minus_key_in_periods"] = (oscWorst - worst) / period;
    state.counters["period"] = period;
    state.counters["reported_latency_frames"] = latency;
    state.counters["ratio_to_budget"] = worst / (period + latency);
}

// Every xrun of the server, whichever client it hit.
class XrunCounter {
public:
    XrunCounter() {
        m_client = jack_client_open("xrun-counter", JackNoStartServer, nullptr);
        if (!m_client)
            return;
        jack_set_xrun_callback(
            m_client,
            [](void* self) {
                static_cast<XrunCounter*>(self)->m_xruns.fetch_add(1);
                return 0;
            },
            this);
        jack_activate(m_client);
    }
    ~XrunCounter() {
        if (m_client)
            jack_client_close(m_client);
    }
    std::int64_t xruns() const { return m_xruns.load(); }

private:
    jack_client_t* m_client = nullptr;
    std::atomic<std::int64_t> m_xruns{0};
};

// What any client costs the machine: eight ports of silence into the same playback ports.
class SilentClient {
public:
    SilentClient() {
        m_client = jack_client_open("reference", JackNoStartServer, nullptr);
        if (!m_client)
            return;
        for (int c = 0; c < 8; ++c)
            m_ports.push_back(jack_port_register(m_client, ("out_" + std::to_string(c + 1)).c_str(),
                                                 JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0));
        jack_set_process_callback(
            m_client,
            [](jack_nframes_t frames, void* arg) {
                for (jack_port_t* port : static_cast<SilentClient*>(arg)->m_ports)
                    std::memset(jack_port_get_buffer(port, frames), 0, frames * sizeof(float));
                return 0;
            },
            this);
        jack_activate(m_client);
        for (int c = 0; c < 8; ++c)
            jack_connect(m_client, jack_port_name(m_ports[static_cast<std::size_t>(c)]),
                         ("system:playback_" + std::to_string(c + 1)).c_str());
    }
    ~SilentClient() {
        if (m_client)
            jack_client_close(m_client);
    }

private:
    jack_client_t* m_client = nullptr;
    std::vector<jack_port_t*> m_ports;
};

// Keeps the model ticking (as the window would) for `seconds`; returns the xruns counted.
std::int64_t window(AppModel& model, const XrunCounter& counter, double seconds) {
    const auto settle = std::chrono::steady_clock::now() + 1s; // activation reorders the graph
    const auto pump = [&](std::chrono::steady_clock::time_point until) {
        while (std::chrono::steady_clock::now() < until) {
            model.tick();
            QCoreApplication::processEvents();
            std::this_thread::sleep_for(33ms);
        }
    };
    pump(settle);
    const std::int64_t before = counter.xruns();
    pump(std::chrono::steady_clock::now() +
         std::chrono::milliseconds(static_cast<int>(seconds * 1000)));
    return counter.xruns() - before;
}

void BM_Load(benchmark::State& state) {
    const auto seconds = static_cast<double>(state.range(0));
    const auto windows = static_cast<int>(state.range(1));
    const bool realtime = state.range(2) != 0;
    JackServer server(8, 48000, 128, realtime);
    if (!server.ready())
        return state.SkipWithError("jackd did not start");
    XrunCounter counter;
    AppModel model;
    model.setOutputDeviceUID(QString("jack:system"));
    const auto clip = constantStereo(0.001f, 10.0);
    for (int k = 0; k < 256; ++k) {
        const auto code = static_cast<KeyCode>(k >= 53 ? k + 1 : k); // 53 is Escape
        addKey(model, code, clip, QString::number(1 + (k % 4) * 2));
        model.handleKey(code, true, false, false);
    }
    std::vector<double> ours, reference;
    double longestCycle = 0.0, longestWait = 0.0, longestMix = 0.0;
    for (auto _ : state) {
        for (int w = 0; w < windows; ++w) {
            if (!model.audio().isRunning())
                model.restartAudio(); // the voices kept playing in the mixer meanwhile
            ours.push_back(static_cast<double>(window(model, counter, seconds)));
            auto* backend = dynamic_cast<JackBackend*>(model.audio().backend());
            longestCycle = std::max(longestCycle, backend->longestCycle());
            longestWait = std::max(longestWait, backend->longestLockWait());
            longestMix = std::max(longestMix, backend->longestMix());
            model.audio().stop();
            SilentClient silent;
            reference.push_back(static_cast<double>(window(model, counter, seconds)));
        }
    }
    const double ourMedian = median(ours), referenceMedian = median(reference);
    state.counters["xruns_ours_median"] = ourMedian;
    state.counters["xruns_reference_median"] = referenceMedian;
    state.counters["ratio"] = ourMedian / std::max(referenceMedian, 1.0);
    state.counters["longest_cycle_ms"] = longestCycle * 1e3;
    state.counters["longest_lock_wait_ms"] = longestWait * 1e3;
    state.counters["longest_mix_ms"] = longestMix * 1e3;
    state.counters["period_ms"] = 128 / 48.0;
    state.counters["realtime"] = realtime;
    state.counters["voices"] = static_cast<double>(model.mixer().voiceCount());
    std::string trace = "ours/reference per window:";
    for (std::size_t i = 0; i < ours.size(); ++i)
        trace += " " + std::to_string(static_cast<int>(ours[i])) + "/" +
                 std::to_string(static_cast<int>(reference[i]));
    state.SetLabel(trace);
}

BENCHMARK(BM_KeyToSound)->Arg(128)->Arg(256)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Load)->Args({10, 6, 0})->Args({10, 6, 1})->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    return runQtBenchmarks(argc, argv);
}
