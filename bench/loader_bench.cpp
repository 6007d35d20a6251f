// Loading memory: a generated 10-minute stereo 44.1 kHz FLAC (tones with noise) decoded and
// converted to 48 kHz (how fast a whole show loads is show_open_bench's):
//   peak_extra_ratio  growth of resident memory during a load ÷ the clip's size (target ≤ 1.3),
//                     measured in a forked child so earlier runs do not hide it
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "MediaFixtures.h"
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

long statusKilobytes(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind(field, 0) == 0)
            return std::strtol(line.c_str() + std::strlen(field), nullptr, 10);
    }
    return -1;
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

BENCHMARK(BM_LoadFlac10MinutesMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
