// Cost of the 30 Hz tick with 10, 100 and 500 running cues (each a mixer voice, the device
// rendering between ticks). Counters:
//   us_per_tick    microseconds per tick
//   period_ratio   tick time ÷ the 33.3 ms tick period (target for 500 cues ≤ 0.01)
#include <benchmark/benchmark.h>
#include <chrono>

#include "audio/OfflineRenderer.h"
#include "cue/AppModel.h"
#include "model/KeyboardLayout.h"
#include "video/CompositedVideoOutput.h"

namespace {

void BM_Tick(benchmark::State& state) {
    const auto cues = static_cast<int>(state.range(0));
    AppModel model(std::make_unique<CompositedVideoOutput>(CompositedVideoOutput::Clock{}, false));
    OfflineRenderer device(model.mixer(), 8, 256, 48000.0);
    model.cueEngine().setOutputChannelCount(8);
    auto clip = std::make_shared<const AudioClip>(
        std::vector<std::vector<float>>(2, std::vector<float>(48000 * 60, 0.1f)), 48000.0);
    KeyCode code = 0;
    for (int i = 0; i < cues; ++i, ++code) {
        if (code == KeyboardLayout::kEscape)
            ++code;
        KeyAssignment a("/show/cue" + QString::number(i) + ".wav", 0);
        a.outputMap = QString::number(1 + i % 7);
        a.loop = true; // runs for as long as the benchmark does
        MediaInfo info;
        info.probe.hasAudio = true;
        info.clip = clip;
        model.media().table()[a.mediaKey()] = info;
        model.document().assignments[code] = a;
        model.handleKey(code, true, false, false);
    }
    using Clock = std::chrono::steady_clock;
    Clock::duration spent{};
    for (auto _ : state) {
        device.renderBlock();
        const auto start = Clock::now();
        model.tick();
        spent += Clock::now() - start;
    }
    if (model.cueEngine().cues().size() != static_cast<std::size_t>(cues))
        state.SkipWithError("cues ended during the run");
    const double us = std::chrono::duration<double, std::micro>(spent).count() / state.iterations();
    state.counters["us_per_tick"] = us;
    state.counters["period_ratio"] = us / 33333.3;
}

BENCHMARK(BM_Tick)->Arg(10)->Arg(100)->Arg(500)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
