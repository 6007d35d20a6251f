// Loading cost: a generated 10-minute stereo 44.1 kHz FLAC (tones with noise) decoded and
// converted to 48 kHz, against the ffmpeg command line doing the same decode and a soxr
// conversion of the same precision into /dev/null, timed alternately in the same run.
//   ratio             loader time ÷ ffmpeg time, median of seven alternations (target ≤ 0.8)
//   peak_extra_ratio  growth of resident memory during a load ÷ the clip's size (target ≤ 1.3),
//                     measured in a forked child so earlier runs do not hide it
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "MediaFixtures.h"
#include "Median.h"
#include "Spawn.h"
#include "media/AudioLoader.h"

namespace {

const std::string& fixture() {
    static const std::string path = [] {
        const auto dir = std::filesystem::temp_directory_path() / "vorlin-bench";
        std::filesystem::create_directories(dir);
        const auto file = (dir / "ten-minutes-44k.flac").string();
        if (!std::filesystem::exists(file)) {
            MediaFixtures::Tone tone{2, 44100, 600.0, 440.0, 0.4};
            tone.noise = 0.1;
            if (!MediaFixtures::write(file, "flac", {tone}))
                std::abort();
        }
        return file;
    }();
    return path;
}

double runReference(const std::string& input) {
    return timedSpawn({"ffmpeg", "-v", "error", "-nostdin", "-threads", "0", "-i", input.c_str(),
                       "-af", "aresample=48000:resampler=soxr:precision=28", "-f", "f32le", "-y",
                       "/dev/null"});
}

long statusKilobytes(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field, 0) == 0)
            return std::strtol(line.c_str() + std::strlen(field), nullptr, 10);
    }
    return -1;
}

// The loader and ffmpeg take turns (A, B, A, B…); each pair gives a ratio, and the medians are
// reported, so one disturbed run on this shared machine does not decide the figure.
void BM_LoadFlac10Minutes(benchmark::State& state) {
    const std::string& path = fixture();
    const MediaProbe probe = AudioLoader::probe(path);
    std::vector<double> loader, reference, ratios;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        auto clip = AudioLoader::loadClip(path, 48000.0, probe);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        benchmark::DoNotOptimize(clip->frameCount);
        clip.reset();
        state.PauseTiming();
        const double theirs = runReference(path);
        if (theirs < 0) {
            state.SkipWithError("ffmpeg reference failed");
            return;
        }
        loader.push_back(seconds);
        reference.push_back(theirs);
        ratios.push_back(seconds / theirs);
        state.ResumeTiming();
    }
    state.counters["loader_s"] = median(loader);
    state.counters["ffmpeg_s"] = median(reference);
    state.counters["ratio"] = median(ratios);
}

void BM_LoadFlac10MinutesMemory(benchmark::State& state) {
    const std::string& path = fixture();
    const MediaProbe probe = AudioLoader::probe(path);
    for (auto _ : state) {
        int pipeFds[2];
        if (pipe(pipeFds) != 0) {
            state.SkipWithError("pipe failed");
            return;
        }
        const pid_t pid = fork();
        if (pid == 0) {
            close(pipeFds[0]);
            std::ofstream("/proc/self/clear_refs") << "5"; // reset the peak to the present
            const long before = statusKilobytes("VmRSS:");
            auto clip = AudioLoader::loadClip(path, 48000.0, probe);
            const long peak = statusKilobytes("VmHWM:");
            double result[2] = {(peak - before) * 1024.0,
                                static_cast<double>(clip->frameCount * clip->channelCount * 4)};
            (void)!write(pipeFds[1], result, sizeof result);
            _exit(0);
        }
        close(pipeFds[1]);
        double result[2] = {0, 0};
        (void)!read(pipeFds[0], result, sizeof result);
        close(pipeFds[0]);
        waitpid(pid, nullptr, 0);
        state.counters["clip_MB"] = result[1] / 1e6;
        state.counters["peak_extra_MB"] = result[0] / 1e6;
        state.counters["peak_extra_ratio"] = result[1] > 0 ? result[0] / result[1] : 0.0;
    }
}

BENCHMARK(BM_LoadFlac10Minutes)->Iterations(7)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadFlac10MinutesMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
