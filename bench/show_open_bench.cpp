// Opening a show: 60 sound files on 60 keys (FLAC, MP3 and WAV, two minutes each, two hours in
// all, a third of them at 44.1 kHz, the rest at 48 kHz) loaded by the program's media loader
// until every key is ready to play, against the ffmpeg command line decoding the same files to
// 32-bit float at 48 kHz (soxr at the loader's precision), two processes at a time, into files
// in memory (/dev/shm), so that both keep every sample. Alternated three times (A, B, A, B …):
//   open_s, ffmpeg_s  medians of the runs (the runs in the label)
//   ratio             open_s ÷ ffmpeg_s (target ≤ 1.0)
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <vector>

#include <QCoreApplication>

#include "MediaFixtures.h"
#include "Median.h"
#include "QtBenchMain.h"
#include "Spawn.h"
#include "cue/MediaLoader.h"

namespace {

constexpr int kFiles = 60;
constexpr double kSeconds = 120.0;

const std::vector<std::string>& fixtures() {
    static const std::vector<std::string> paths = [] {
        const auto dir = std::filesystem::temp_directory_path() / "vorlin-bench" / "show";
        std::filesystem::create_directories(dir);
        std::vector<std::string> made;
        const char* kinds[3][2] = {{"flac", "flac"}, {"mp3", "libmp3lame"}, {"wav", "pcm_s16le"}};
        for (int n = 0; n < kFiles; ++n) {
            const int rate = n % 3 == 1 ? 44100 : 48000; // a third of each kind at 44.1 kHz
            const auto& kind = kinds[(n / 3) % 3];
            const auto file =
                (dir / ("cue" + std::to_string(n) + "-" + std::to_string(rate) + "." + kind[0]))
                    .string();
            if (!std::filesystem::exists(file)) {
                MediaFixtures::Tone tone{2, rate, kSeconds, 220.0 + 10.0 * n, 0.4};
                tone.noise = 0.1;
                if (!MediaFixtures::write(file, kind[1], {tone}))
                    std::abort();
            }
            made.push_back(file);
        }
        return made;
    }();
    return paths;
}

// The loader, from nothing to every key ready; -1 when a key failed.
double openShow(const std::vector<std::string>& files) {
    ShowDocument document;
    for (int n = 0; n < kFiles; ++n)
        document.assignments[static_cast<KeyCode>(n)] =
            KeyAssignment(QString::fromStdString(files[static_cast<std::size_t>(n)]), 0);
    MediaLoader loader(document, [] { return 48000.0; });
    const auto start = std::chrono::steady_clock::now();
    loader.reloadAll(false);
    // Each result comes back as a queued call, which wakes the loop (a loop that polled would
    // take a core from the decoders).
    while (loader.pending() > 0)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    for (const auto& [key, assignment] : document.assignments) {
        const MediaInfo* info = loader.infoFor(assignment);
        if (!info || !info->clip)
            return -1.0;
    }
    return seconds;
}

// ffmpeg, two files at a time, each into a file in memory; -1 when one failed.
double decodeWithFfmpeg(const std::vector<std::string>& files) {
    const std::filesystem::path out = "/dev/shm/vorlin-show-open-bench";
    std::filesystem::create_directories(out);
    const auto start = std::chrono::steady_clock::now();
    std::size_t next = 0;
    int running = 0;
    bool failed = false;
    std::vector<std::string> targets;
    for (std::size_t n = 0; n < files.size(); ++n)
        targets.push_back((out / (std::to_string(n) + ".f32")).string());
    while (next < files.size() || running > 0) {
        if (next < files.size() && running < 2) {
            const pid_t pid =
                startProgram({"ffmpeg", "-v", "error", "-nostdin", "-i", files[next].c_str(), "-af",
                              "aresample=48000:resampler=soxr:precision=28", "-f", "f32le", "-y",
                              targets[next].c_str()});
            if (pid < 0)
                return -1.0;
            ++running;
            ++next;
            continue;
        }
        int status = 0;
        if (wait(&status) > 0) {
            --running;
            failed = failed || !WIFEXITED(status) || WEXITSTATUS(status) != 0;
        }
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::filesystem::remove_all(out);
    return failed ? -1.0 : seconds;
}

std::string joined(const std::vector<double>& values) {
    std::string text;
    for (double value : values) {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%s%.2f", text.empty() ? "" : "/", value);
        text += buffer;
    }
    return text;
}

void BM_OpenAShowOf60Files(benchmark::State& state) {
    const std::vector<std::string>& files = fixtures();
    std::vector<double> ours, theirs, ratios;
    for (auto _ : state) {
        for (int round = 0; round < 3; ++round) {
            const double open = openShow(files);
            const double reference = decodeWithFfmpeg(files);
            if (open < 0 || reference < 0)
                return state.SkipWithError("a file did not load");
            ours.push_back(open);
            theirs.push_back(reference);
            ratios.push_back(open / reference);
        }
    }
    state.counters["open_s"] = median(ours);
    state.counters["ffmpeg_s"] = median(theirs);
    state.counters["ratio"] = median(ratios);
    state.SetLabel("open " + joined(ours) + " ffmpeg " + joined(theirs) + " ratios " +
                   joined(ratios));
}

BENCHMARK(BM_OpenAShowOf60Files)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    return runQtBenchmarks(argc, argv);
}
