// Mixer render cost: 256-frame blocks at 48 kHz into 64 channels with 1…512 stereo voices
// (two routes each; some fading, some looping, some at 44.1 kHz). Each run also times, in the
// same process and for the same blocks, a reference loop that does only the unavoidable work:
// the interpolated multiply-add of the same samples into the same outputs. Counters:
//   ns_per_voice_frame  mixer time per voice per output frame
//   ref_ratio           mixer time ÷ reference time (target ≤ 3)
//   core_load           block time ÷ block duration (target for 512 voices ≤ 0.20)
#include <benchmark/benchmark.h>
#include <chrono>
#include <cmath>
#include <memory>
#include <vector>

#include "audio/AudioClip.h"
#include "audio/Mixer.h"

namespace {

constexpr double kRate = 48000.0;
constexpr std::int64_t kBlock = 256;
constexpr int kChannels = 64;

AudioClipPtr stereoClip(double rate, std::int64_t frames, float seed) {
    std::vector<std::vector<float>> data(2, std::vector<float>(static_cast<std::size_t>(frames)));
    for (std::int64_t i = 0; i < frames; ++i) {
        data[0][i] = 0.2f * std::sin(seed + 0.01f * i);
        data[1][i] = 0.2f * std::cos(seed + 0.013f * i);
    }
    return std::make_shared<const AudioClip>(std::move(data), rate);
}

struct VoiceSpec {
    AudioClipPtr clip;
    std::int64_t left;
    std::int64_t right;
};

// The reference: per voice and route, position advance, linear interpolation and a
// multiply-add into the output, nothing else.
class ReferenceMix {
public:
    explicit ReferenceMix(const std::vector<VoiceSpec>& voices) : m_voices(voices) {
        m_positions.assign(voices.size(), 0.0);
    }

    void render(std::vector<std::vector<float>>& outs) {
        for (auto& out : outs)
            std::fill(out.begin(), out.end(), 0.0f);
        for (std::size_t v = 0; v < m_voices.size(); ++v) {
            const AudioClip& clip = *m_voices[v].clip;
            const double step = clip.sampleRate / kRate;
            const std::int64_t routes[2][2] = {{0, m_voices[v].left}, {1, m_voices[v].right}};
            for (const auto& route : routes) {
                const float* samples = clip.channels[route[0]];
                float* out = outs[route[1]].data();
                double position = m_positions[v];
                for (std::int64_t i = 0; i < kBlock; ++i) {
                    const auto idx = static_cast<std::int64_t>(position);
                    const float frac = static_cast<float>(position - idx);
                    const float s0 = samples[idx];
                    const float s1 = samples[idx + 1];
                    out[i] += 0.5f * (s0 + (s1 - s0) * frac);
                    position += step;
                }
            }
            m_positions[v] += step * kBlock;
            if (m_positions[v] >= clip.frameCount - kBlock * 2)
                m_positions[v] = 0.0;
        }
    }

private:
    const std::vector<VoiceSpec>& m_voices;
    std::vector<double> m_positions;
};

void BM_MixerRender(benchmark::State& state) {
    const auto voiceCount = static_cast<int>(state.range(0));
    const std::int64_t frames = 48000 * 20; // long enough that voices rarely end
    const std::vector<AudioClipPtr> clips{stereoClip(48000.0, frames, 0.1f),
                                          stereoClip(44100.0, frames, 0.7f)};

    Mixer mixer;
    mixer.setSampleRate(kRate);
    std::vector<VoiceSpec> specs;
    for (int v = 0; v < voiceCount; ++v) {
        const auto& clip = clips[v % 2];
        const std::int64_t left = (2 * v) % kChannels;
        specs.push_back({clip, left, left + 1});
        // Every fourth voice fades in slowly, every third loops.
        mixer.play(clip, {{0, left}, {1, left + 1}}, 0.5f, v % 4 == 0 ? 30.0 : 0.0, v % 3 == 0,
                   false);
    }

    std::vector<std::vector<float>> channels(kChannels, std::vector<float>(kBlock));
    std::vector<AudioChannelBuffer> list;
    for (auto& channel : channels)
        list.push_back({channel.data(), channel.size() * sizeof(float)});
    ReferenceMix reference(specs);

    using Clock = std::chrono::steady_clock;
    Clock::duration mixerTime{};
    Clock::duration referenceTime{};
    std::uint64_t host = 1'000'000'000;
    std::int64_t blocks = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        mixer.render(kBlock, AudioTimeStamp{host, true}, list);
        const auto t1 = Clock::now();
        reference.render(channels);
        const auto t2 = Clock::now();
        benchmark::DoNotOptimize(channels[0][0]);
        mixerTime += t1 - t0;
        referenceTime += t2 - t1;
        host += 5'333'333;
        // Half of the voices fading in are replaced by fading-out ones now and then, so the
        // envelope paths stay exercised for the whole run.
        if (++blocks % 64 == 0) {
            state.PauseTiming();
            const auto statuses = mixer.snapshot();
            for (const auto& [id, status] : statuses) {
                if (id % 8 == 0 && !status.done)
                    mixer.stop(id, 5.0);
            }
            mixer.removeDone();
            while (mixer.voiceCount() < static_cast<std::size_t>(voiceCount)) {
                const auto& spec = specs[mixer.voiceCount() % specs.size()];
                mixer.play(spec.clip, {{0, spec.left}, {1, spec.right}}, 0.5f, 1.0, false, false);
            }
            state.ResumeTiming();
        }
    }

    const double mixerNs = std::chrono::duration<double, std::nano>(mixerTime).count();
    const double referenceNs = std::chrono::duration<double, std::nano>(referenceTime).count();
    const double voiceFrames = static_cast<double>(blocks) * kBlock * voiceCount;
    state.counters["ns_per_voice_frame"] = mixerNs / voiceFrames;
    state.counters["ref_ns_per_voice_frame"] = referenceNs / voiceFrames;
    state.counters["ref_ratio"] = mixerNs / referenceNs;
    state.counters["block_us"] = mixerNs / blocks / 1000.0;
    state.counters["core_load"] = (mixerNs / blocks) / (kBlock / kRate * 1e9);
}

BENCHMARK(BM_MixerRender)->Arg(1)->Arg(64)->Arg(256)->Arg(512)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
