// The audio engine on a JACK server with the dummy driver (started here):
//   BM_KeyToSound   frames from handleKey to the first non-zero sample at our port, over 20
//                   presses: mean and worst, against one period plus the reported latency
//                   (ratio_to_budget ≤ 1 is the target)
//   BM_Load         xruns reported by the server during 60 s of 256 stereo voices at a
//                   128-frame period (target 0), with the server at normal and at real-time
//                   priority, and the longest cycle our mix took against the period
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <numeric>
#include <thread>

#include <QCoreApplication>

#include "JackRecorder.h"
#include "JackServer.h"
#include "audio/JackBackend.h"
#include "cue/AppModel.h"

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
    model.document().media[a.path] = info;
    model.document().assignments[code] = a;
}

void BM_KeyToSound(benchmark::State& state) {
    const int period = static_cast<int>(state.range(0));
    JackServer server(8, 48000, period);
    if (!server.ready())
        return state.SkipWithError("jackd did not start");
    AppModel model;
    model.setOutputDeviceUID(QString("jack:system"));
    addKey(model, 0, constantStereo(0.5f, 2.0), "1");
    auto* backend = dynamic_cast<JackBackend*>(model.audio().backend());
    std::vector<double> delays;
    for (auto _ : state) {
        for (int press = 0; press < 20; ++press) {
            JackRecorder recorder(backend->clientName(), 1, 1.0);
            std::this_thread::sleep_for(20ms);
            const std::uint32_t pressed = recorder.frameTime();
            model.handleKey(0, true, false, false);
            std::this_thread::sleep_for(100ms);
            recorder.stop();
            const auto& x = recorder.channel(0);
            const auto first =
                std::find_if(x.begin(), x.end(), [](float v) { return v != 0; }) - x.begin();
            delays.push_back(static_cast<double>(recorder.startFrame() + first) - pressed);
            model.handleKey(0, true, true, false); // Shift: stop at once
            std::this_thread::sleep_for(20ms);
            model.tick();
        }
    }
    const double latency = model.mixer().latency() * 48000.0;
    const double mean = std::accumulate(delays.begin(), delays.end(), 0.0) / delays.size();
    const double worst = *std::max_element(delays.begin(), delays.end());
    state.counters["mean_frames"] = mean;
    state.counters["worst_frames"] = worst;
    state.counters["period"] = period;
    state.counters["reported_latency_frames"] = latency;
    state.counters["ratio_to_budget"] = worst / (period + latency);
}

void BM_Load(benchmark::State& state) {
    const auto seconds = static_cast<int>(state.range(0));
    const bool realtime = state.range(1) != 0;
    JackServer server(8, 48000, 128, realtime);
    if (!server.ready())
        return state.SkipWithError("jackd did not start");
    AppModel model;
    model.setOutputDeviceUID(QString("jack:system"));
    const auto clip = constantStereo(0.001f, 10.0);
    for (int k = 0; k < 256; ++k) {
        const auto code = static_cast<KeyCode>(k >= 53 ? k + 1 : k); // 53 is Escape
        addKey(model, code, clip, QString::number(1 + (k % 4) * 2));
        model.handleKey(code, true, false, false);
    }
    auto* backend = dynamic_cast<JackBackend*>(model.audio().backend());
    for (auto _ : state) {
        const std::int64_t before = backend->xruns();
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < end) {
            model.tick();
            QCoreApplication::processEvents();
            std::this_thread::sleep_for(33ms);
        }
        state.counters["xruns"] = static_cast<double>(backend->xruns() - before);
    }
    state.counters["longest_cycle_ms"] = backend->longestCycle() * 1e3;
    state.counters["period_ms"] = 128 / 48.0;
    state.counters["realtime"] = realtime;
    state.counters["voices"] = static_cast<double>(model.mixer().voiceCount());
    state.counters["seconds"] = seconds;
}

BENCHMARK(BM_KeyToSound)->Arg(128)->Arg(256)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Load)->Args({60, 0})->Args({60, 1})->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
