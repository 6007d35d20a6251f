// Movie decoding: a generated 10-second 1080p30 H.264 file decoded picture by picture by the
// movie player (RGBA pictures, as the outputs draw them), against `ffmpeg -i FILE -f null -`
// decoding the same file, alternately, five times each; medians.
//   speed_ratio   ffmpeg time ÷ player time (target ≥ 0.9: the player keeps up with ffmpeg)
#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "Median.h"
#include "Spawn.h"
#include "video/MoviePlayer.h"

namespace {

constexpr double kSeconds = 10.0;
constexpr double kFps = 30.0;

const std::string& fixture() {
    static const std::string path = [] {
        const auto dir = std::filesystem::temp_directory_path() / "vorlin-bench";
        std::filesystem::create_directories(dir);
        const auto file = (dir / "ten-seconds-1080p30.mp4").string();
        if (!std::filesystem::exists(file) &&
            !spawn({"ffmpeg", "-v", "error", "-nostdin", "-f", "lavfi", "-i",
                    "testsrc2=size=1920x1080:rate=30", "-t", "10", "-c:v", "libx264", "-preset",
                    "veryfast", "-pix_fmt", "yuv420p", "-y", file.c_str()}))
            return std::string();
        return file;
    }();
    return path;
}

double seconds(const std::chrono::steady_clock::time_point& since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void BM_Decode1080p(benchmark::State& state) {
    const std::string& path = fixture();
    if (path.empty()) {
        state.SkipWithError("ffmpeg could not make the 1080p H.264 fixture");
        return;
    }
    std::vector<double> player, reference;
    for (auto _ : state) {
        for (int round = 0; round < 5; ++round) {
            auto began = std::chrono::steady_clock::now();
            MoviePlayer movie(path, MoviePlayer::Wait::forPicture);
            int pictures = 0;
            for (int k = 0; k < static_cast<int>(kSeconds * kFps); ++k)
                pictures += movie.frameAt(k / kFps) != nullptr;
            player.push_back(seconds(began));
            if (pictures < kSeconds * kFps - 1) {
                state.SkipWithError("the player missed pictures");
                return;
            }
            began = std::chrono::steady_clock::now();
            if (!spawn({"ffmpeg", "-v", "error", "-nostdin", "-threads", "0", "-i", path.c_str(),
                        "-f", "null", "-"})) {
                state.SkipWithError("ffmpeg failed");
                return;
            }
            reference.push_back(seconds(began));
        }
    }
    state.counters["player_s"] = median(player);
    state.counters["ffmpeg_s"] = median(reference);
    state.counters["speed_ratio"] = median(reference) / median(player);
}
BENCHMARK(BM_Decode1080p)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

BENCHMARK_MAIN();
