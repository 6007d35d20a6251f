#include "audio/Mixer.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <numeric>

#include "MixerTestSupport.h"
#include "SignalMeasure.h"
#include "audio/HostTime.h"
#include "audio/OfflineRenderer.h"

namespace {

constexpr double kRate = 48000.0;

// Linear interpolation of a clip channel at a fractional position, computed here in double
// precision, independently of the mixer.
double interpolate(const AudioClip& clip, int channel, double position, bool loop) {
    const auto idx = static_cast<std::int64_t>(std::floor(position));
    std::int64_t next = idx + 1;
    if (next >= clip.frameCount)
        next = loop ? 0 : idx;
    const double frac = position - static_cast<double>(idx);
    const double s0 = clip.channels[channel][idx];
    const double s1 = clip.channels[channel][next];
    return s0 + (s1 - s0) * frac;
}

using SignalMeasure::firstNonZero;

std::int64_t countNonZero(const std::vector<float>& samples) {
    return std::count_if(samples.begin(), samples.end(), [](float v) { return v != 0.0f; });
}

class MixerTest : public ::testing::Test {
protected:
    Mixer mixer;
};

TEST_F(MixerTest, ClipAtEngineRateIsCopiedFrameForFrame) {
    auto clip = distinctClip(1000);
    OfflineRenderer device(mixer, 2, 256, kRate);
    mixer.play(clip, {{0, 1}}, 1.0f, 0.0, false, false);
    const auto out = device.render(1024);
    for (std::int64_t i = 0; i < 1000; ++i)
        ASSERT_EQ(out[1][i], clip->channels[0][i]) << "frame " << i;
    EXPECT_EQ(countNonZero(out[0]), 0);
    EXPECT_EQ(countNonZero({out[1].begin() + 1000, out[1].end()}), 0);
}

TEST_F(MixerTest, ClipAtEngineRateSoughtBetweenFramesIsInterpolatedThere) {
    // Whole frames at the device's rate take a shortcut; half a frame further they must not.
    auto clip = distinctClip(4000);
    OfflineRenderer device(mixer, 1, 256, kRate);
    const auto id = mixer.play(clip, {{0, 0}}, 0.5f, 0.0, false, false);
    device.render(256);
    mixer.seek(id, 1000.5 / kRate, 0);
    const auto out = device.render(1024);
    for (std::int64_t i = 0; i < 1024; ++i)
        ASSERT_NEAR(out[0][i], 0.5 * interpolate(*clip, 0, 1000.5 + i, false), 1e-6)
            << "frame " << i;
}

TEST_F(MixerTest, SlowerClipIsInterpolatedAtTheRateRatio) {
    // 44.1 kHz on a 48 kHz device: 0.91875 source frames per output frame.
    auto clip = distinctClip(4410, 44100.0);
    OfflineRenderer device(mixer, 2, 256, kRate);
    const auto id = mixer.play(clip, {{0, 0}}, 1.0f, 0.0, false, false);
    const auto out = device.render(2048);
    for (std::int64_t i = 0; i < 2048; ++i) {
        const double expected = interpolate(*clip, 0, i * 0.91875, false);
        ASSERT_NEAR(out[0][i], expected, 2e-6) << "frame " << i;
    }
    const auto status = mixer.snapshot().at(id);
    EXPECT_NEAR(status.progress, 2048 * 0.91875 / 4410, 1e-9);
    EXPECT_FALSE(status.done);
}

TEST_F(MixerTest, EndOfClipInterpolatesAgainstItselfOrWrapsWhenLooping) {
    // Half-rate clip: each source frame is read at x.0 and x.5.
    const std::vector<float> frames{0.1f, 0.2f, 0.4f, 0.8f};
    OfflineRenderer device(mixer, 2, 64, kRate);
    const auto once = mixer.play(makeClip({frames}, 24000.0), {{0, 0}}, 1.0f, 0.0, false, false);
    const auto looped = mixer.play(makeClip({frames}, 24000.0), {{0, 1}}, 1.0f, 0.0, true, false);
    const auto out = device.render(64);

    const std::vector<float> expectedOnce{0.1f, 0.15f, 0.2f, 0.3f, 0.4f, 0.6f, 0.8f, 0.8f};
    for (std::size_t i = 0; i < expectedOnce.size(); ++i)
        EXPECT_FLOAT_EQ(out[0][i], expectedOnce[i]) << "frame " << i;
    EXPECT_EQ(countNonZero({out[0].begin() + 8, out[0].end()}), 0);

    // The looping voice reads 0.8 → 0.1 halfway at position 3.5, then starts over.
    EXPECT_FLOAT_EQ(out[1][7], 0.45f);
    for (std::size_t i = 8; i < 64; ++i)
        ASSERT_FLOAT_EQ(out[1][i], out[1][i - 8]) << "frame " << i;

    const auto statuses = mixer.snapshot();
    EXPECT_TRUE(statuses.at(once).done);
    EXPECT_DOUBLE_EQ(statuses.at(once).progress, 1.0);
    EXPECT_FALSE(statuses.at(looped).done);
}

TEST_F(MixerTest, LoopAtAnotherRateKeepsItsFractionalPhaseAcrossWraps) {
    // 1000 frames at 44.1 kHz on 48 kHz: the read position wraps about nine times in 10000
    // frames, each time between two source frames.
    auto clip = distinctClip(1000, 44100.0);
    OfflineRenderer device(mixer, 1, 256, kRate);
    mixer.play(clip, {{0, 0}}, 1.0f, 0.0, true, false);
    const auto out = device.render(10000);
    for (std::int64_t i = 0; i < 10000; ++i) {
        const double position = std::fmod(i * 0.91875, 1000.0);
        ASSERT_NEAR(out[0][i], interpolate(*clip, 0, position, true), 2e-6) << "frame " << i;
    }
}

TEST_F(MixerTest, FadeInRampsTheEnvelopeSquaredFromTheFirstFrame) {
    OfflineRenderer device(mixer, 1, 256, kRate);
    mixer.play(constantClip(0.5f, 96000), {{0, 0}}, 1.0f, 1.0, false, false);
    const auto out = device.render(48000 + 100);
    const double step = 1.0 / 48000.0;
    // The first mixed frame already has env = step.
    EXPECT_NEAR(out[0][0], 0.5 * step * step, 1e-15);
    EXPECT_NEAR(out[0][1], 0.5 * 4 * step * step, 1e-15);
    // Later frames carry the 32-bit rounding of the accumulated envelope (below 0.02 dB).
    for (std::int64_t i : {1000, 12000, 24000, 40000}) {
        const double env = (i + 1) * step;
        EXPECT_NEAR(out[0][i], 0.5 * env * env, 2e-3 * 0.5 * env * env) << "frame " << i;
    }
    EXPECT_FLOAT_EQ(out[0][48000 + 50], 0.5f); // ramp over: full level, no overshoot
    EXPECT_LE(*std::max_element(out[0].begin(), out[0].end()), 0.5f);
}

TEST_F(MixerTest, FadeShorterThanOneFrameStartsAtFullLevel) {
    OfflineRenderer device(mixer, 2, 256, kRate);
    mixer.play(constantClip(0.5f, 1000), {{0, 0}}, 1.0f, 0.0, false, false);
    mixer.play(constantClip(0.5f, 1000), {{0, 1}}, 1.0f, 0.5 / kRate, false, false);
    const auto out = device.render(4);
    EXPECT_EQ(out[0][0], 0.5f);
    EXPECT_EQ(out[1][0], 0.5f);
}

TEST_F(MixerTest, StopWithoutFadeEndsAfterFiveMilliseconds) {
    OfflineRenderer device(mixer, 1, 256, kRate);
    const auto id = mixer.play(constantClip(1.0f, 96000), {{0, 0}}, 1.0f, 0.0, false, false);
    device.render(512);
    mixer.stop(id, 0.0);
    const auto out = device.render(512);
    const auto sounding = countNonZero(out[0]);
    EXPECT_GE(sounding, 238);
    EXPECT_LE(sounding, 240);
    // A quadratic curve, not a linear one: a quarter of the way down is (3/4)² of full level.
    EXPECT_NEAR(out[0][59], 0.5625, 0.01);
    EXPECT_TRUE(mixer.snapshot().at(id).done);
}

TEST_F(MixerTest, StopDuringFadeInStillReachesSilenceWithinTheFade) {
    OfflineRenderer device(mixer, 1, 256, kRate);
    const auto id = mixer.play(constantClip(1.0f, 96000), {{0, 0}}, 1.0f, 10.0, false, false);
    device.render(256);
    mixer.stop(id, 0.1); // env is tiny here; the ramp must still end within 0.1 s
    const auto out = device.render(4800 + 256);
    EXPECT_EQ(countNonZero({out[0].begin() + 4805, out[0].end()}), 0);
    EXPECT_TRUE(mixer.snapshot().at(id).done);
}

TEST_F(MixerTest, StopDuringFadeInFadesFromTheLevelReachedNotFromFull) {
    OfflineRenderer device(mixer, 1, 256, kRate);
    const auto id = mixer.play(constantClip(1.0f, 480000), {{0, 0}}, 1.0f, 1.0, false, false);
    const float reached = device.render(24064)[0].back(); // about half-way up: env ½, level ¼
    EXPECT_NEAR(reached, 0.25, 0.002);
    mixer.stop(id, 1.0);
    const auto out = device.render(48000 + 512);
    // Down from ¼ over the fade: (env ½ × (1 − t))², never louder than before the stop.
    EXPECT_NEAR(out[0][0], reached, 0.0001);
    EXPECT_LE(*std::max_element(out[0].begin(), out[0].end()), reached);
    EXPECT_NEAR(out[0][12000], 0.25 * 0.75 * 0.75, 0.002);
    EXPECT_NEAR(out[0][24000], 0.0625, 0.002);
    EXPECT_GT(out[0][43200], 0.0); // still sounding at 0.9 s…
    EXPECT_LT(out[0][43200], 0.003);
    EXPECT_EQ(countNonZero({out[0].begin() + 48000 + 256, out[0].end()}), 0); // …gone after 1 s
}

TEST_F(MixerTest, StopBeforeTheStartEndsTheVoiceSilently) {
    OfflineRenderer device(mixer, 2, 256, kRate);
    const auto armed = mixer.play(constantClip(1.0f, 1000), {{0, 0}}, 1.0f, 0.0, false, true);
    const auto waiting = mixer.play(constantClip(1.0f, 1000), {{0, 1}}, 1.0f, 0.0, false, false);
    mixer.stop(armed, 1.0);
    mixer.stop(waiting, 1.0);
    mixer.setStart(armed, device.hostTime());
    const auto out = device.render(512);
    EXPECT_EQ(countNonZero(out[0]) + countNonZero(out[1]), 0);
    const auto statuses = mixer.snapshot();
    EXPECT_TRUE(statuses.at(armed).done);
    EXPECT_TRUE(statuses.at(waiting).done);
}

TEST_F(MixerTest, DeferredVoiceIsSilentUntilReleasedAtItsHostTime) {
    OfflineRenderer device(mixer, 1, 240, kRate);
    auto clip = distinctClip(5000);
    const auto id = mixer.play(clip, {{0, 0}}, 1.0f, 0.0, false, true);
    const auto before = device.render(2400);
    EXPECT_EQ(countNonZero(before[0]), 0);
    EXPECT_DOUBLE_EQ(mixer.snapshot().at(id).progress, 0.0);

    // Released half a frame after frame 2400 + 339: the voice's first frame lands on frame 339
    // of what follows, in the middle of the second block.
    const double halfFrame = 0.5 / kRate;
    mixer.setStart(id, device.hostTimeAtFrame(2400 + 339) + HostTime::secondsToTicks(halfFrame));
    const auto out = device.render(1000);
    EXPECT_EQ(firstNonZero(out[0]), 339);
    for (std::int64_t i = 339; i < 1000; ++i)
        ASSERT_EQ(out[0][i], clip->channels[0][i - 339]) << "frame " << i;
}

TEST_F(MixerTest, HostTimedStartSubtractsTheOutputLatency) {
    OfflineRenderer device(mixer, 1, 240, kRate);
    const double latency = 0.01; // 480 frames
    mixer.setLatency(latency);
    const auto id = mixer.play(constantClip(0.25f, 5000), {{0, 0}}, 1.0f, 0.0, false, true);
    // Meant to be heard at frame 1000 (+ ½): it must enter the device 480 frames earlier.
    mixer.setStart(id, device.hostTimeAtFrame(1000) + HostTime::secondsToTicks(0.5 / kRate));
    const auto out = device.render(2400);
    EXPECT_EQ(firstNonZero(out[0]), 1000 - 480);
}

TEST_F(MixerTest, LateOrUntimedStartBeginsAtTheBlockStartFromFrameZero) {
    auto clip = distinctClip(2000);
    OfflineRenderer device(mixer, 2, 256, kRate);
    device.render(1024);
    const auto late = mixer.play(clip, {{0, 0}}, 1.0f, 0.0, false, true);
    mixer.setStart(late, device.hostTimeAtFrame(100)); // long past
    const auto out = device.render(256);
    EXPECT_EQ(out[0][0], clip->channels[0][0]); // not advanced to catch up
    EXPECT_EQ(out[0][255], clip->channels[0][255]);

    // A block whose host time is not valid starts a timed voice at its first frame.
    Mixer untimed;
    std::vector<float> buffer(256);
    const AudioChannelBuffer list[1] = {{buffer.data(), buffer.size() * sizeof(float)}};
    const auto id = untimed.play(clip, {{0, 0}}, 1.0f, 0.0, false, true);
    untimed.setStart(id, HostTime::now() + 1'000'000'000ull);
    untimed.render(256, AudioTimeStamp{0, false}, list);
    EXPECT_EQ(buffer[0], clip->channels[0][0]);
}

TEST_F(MixerTest, SeekClampsToTheClipAndCanResynchroniseToAHostTime) {
    auto clip = distinctClip(1000);
    OfflineRenderer device(mixer, 1, 100, kRate);
    const auto id = mixer.play(clip, {{0, 0}}, 1.0f, 0.0, true, false);
    device.render(100);

    mixer.seek(id, 10.0, 0); // far beyond the end: the last frame
    EXPECT_DOUBLE_EQ(mixer.snapshot().at(id).progress, 999.0 / 1000.0);
    mixer.seek(id, -3.0, 0);
    EXPECT_DOUBLE_EQ(mixer.snapshot().at(id).progress, 0.0);

    mixer.seek(id, 500.0 / kRate, 0); // jumps at the next block without a gap
    auto out = device.render(100);
    EXPECT_NEAR(out[0][0], clip->channels[0][500], 1e-6);

    // With a host time the voice goes quiet and starts again from there.
    mixer.seek(id, 200.0 / kRate, device.hostTimeAtFrame(200 + 50) + 5'000);
    out = device.render(100);
    EXPECT_EQ(firstNonZero(out[0]), 50);
    EXPECT_NEAR(out[0][50], clip->channels[0][200], 1e-6);

    // A done voice does not move any more.
    mixer.stop(id, 0.0);
    device.render(400);
    const double ended = mixer.snapshot().at(id).progress;
    mixer.seek(id, 0.0, 0);
    EXPECT_EQ(mixer.snapshot().at(id).progress, ended);
}

TEST_F(MixerTest, RoutesAddUpAndOneSourceMayFeedSeveralOutputs) {
    auto stereo = makeClip({std::vector<float>(500, 0.25f), std::vector<float>(500, 0.5f)});
    OfflineRenderer device(mixer, 4, 256, kRate);
    mixer.play(stereo, {{0, 0}, {1, 0}, {0, 2}, {1, 3}}, 1.0f, 0.0, false, false);
    const auto out = device.render(256);
    EXPECT_FLOAT_EQ(out[0][10], 0.75f);
    EXPECT_EQ(out[1][10], 0.0f);
    EXPECT_FLOAT_EQ(out[2][10], 0.25f);
    EXPECT_FLOAT_EQ(out[3][10], 0.5f);
}

TEST_F(MixerTest, VolumeAndMasterScaleOutputButVoiceLevelsIgnoreMaster) {
    OfflineRenderer device(mixer, 2, 256, kRate);
    const auto id = mixer.play(constantClip(0.8f, 10000), {{0, 1}}, 0.5f, 0.0, false, false);
    mixer.setMasterVolume(0.5);
    auto out = device.render(256);
    EXPECT_FLOAT_EQ(out[1][0], 0.2f);
    EXPECT_FLOAT_EQ(mixer.snapshot().at(id).levels.at(0), 0.4f);
    EXPECT_FLOAT_EQ(mixer.takeMeters(8).at(1), 0.2f);

    mixer.setVolume(id, 1.0f); // an edit while playing applies from the next block
    out = device.render(256);
    EXPECT_FLOAT_EQ(out[1][0], 0.4f);
}

TEST_F(MixerTest, PeaksAreMagnitudesNegativeExcursionsIncluded) {
    OfflineRenderer device(mixer, 2, 256, kRate);
    std::vector<float> samples(256, 0.1f);
    samples[100] = -0.9f;
    const auto id = mixer.play(makeClip({samples, std::vector<float>(256, -0.3f)}),
                               {{0, 0}, {1, 1}}, 1.0f, 0.0, false, false);
    device.render(256);
    const auto levels = mixer.snapshot().at(id).levels;
    ASSERT_EQ(levels.size(), 2u);
    EXPECT_FLOAT_EQ(levels[0], 0.9f);
    EXPECT_FLOAT_EQ(levels[1], 0.3f);
    const auto meters = mixer.takeMeters(2);
    EXPECT_FLOAT_EQ(meters[0], 0.9f);
    EXPECT_FLOAT_EQ(meters[1], 0.3f);
}

TEST_F(MixerTest, SnapshotsAndMetersAreReadAndReset) {
    OfflineRenderer device(mixer, 2, 256, kRate);
    const auto id = mixer.play(constantClip(0.5f, 300), {{0, 0}}, 1.0f, 0.0, false, false);
    device.render(512); // the voice ends in the second block

    auto first = mixer.snapshot();
    ASSERT_EQ(first.count(id), 1u);
    EXPECT_TRUE(first.at(id).done);
    EXPECT_FLOAT_EQ(first.at(id).levels.at(0), 0.5f);
    EXPECT_EQ(mixer.snapshot().at(id).levels.at(0), 0.0f);

    EXPECT_FLOAT_EQ(mixer.takeMeters(8).at(0), 0.5f);
    EXPECT_EQ(mixer.takeMeters(8).at(0), 0.0f);

    mixer.removeDone();
    EXPECT_EQ(mixer.snapshot().count(id), 0u);
    EXPECT_EQ(mixer.voiceCount(), 0u);
}

TEST_F(MixerTest, RemoveDoneKeepsTheSurvivorsPlayingInOrder) {
    OfflineRenderer device(mixer, 3, 256, kRate);
    const auto a = mixer.play(constantClip(0.1f, 10000), {{0, 0}}, 1.0f, 0.0, false, false);
    const auto b = mixer.play(constantClip(0.2f, 10000), {{0, 1}}, 1.0f, 0.0, false, false);
    const auto c = mixer.play(constantClip(0.3f, 10000), {{0, 2}}, 1.0f, 0.0, false, false);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 2);
    EXPECT_EQ(c, 3);
    mixer.stop(b, 0.0);
    device.render(512);
    mixer.removeDone();
    auto statuses = mixer.snapshot();
    EXPECT_EQ(statuses.size(), 2u);
    EXPECT_EQ(statuses.count(b), 0u);
    const auto out = device.render(256);
    EXPECT_FLOAT_EQ(out[0][0], 0.1f);
    EXPECT_EQ(out[1][0], 0.0f);
    EXPECT_FLOAT_EQ(out[2][0], 0.3f);
    // Unknown and reaped ids are ignored.
    mixer.stop(b, 0.0);
    mixer.setVolume(99, 0.0f);
    EXPECT_EQ(mixer.play(constantClip(0.1f, 10), {{0, 0}}, 1, 0, false, false), 4);
}

TEST_F(MixerTest, TwoChannelDeviceMetersVirtualOutputsWithoutWritingThem) {
    OfflineRenderer device(mixer, 2, 256, kRate);
    mixer.play(constantClip(0.5f, 10000), {{0, 5}, {0, 7}, {0, 8}}, 1.0f, 0.0, false, false);
    const auto out = device.render(256);
    EXPECT_EQ(countNonZero(out[0]) + countNonZero(out[1]), 0);
    const auto meters = mixer.takeMeters(10);
    EXPECT_FLOAT_EQ(meters[5], 0.5f);
    EXPECT_FLOAT_EQ(meters[7], 0.5f);
    EXPECT_EQ(meters[8], 0.0f); // output 9 does not exist on this device

    // Blocks larger than the scratch channels have no virtual outputs.
    OfflineRenderer bigBlocks(mixer, 2, 9000, kRate);
    bigBlocks.renderBlock();
    EXPECT_EQ(mixer.takeMeters(8)[5], 0.0f);
}

TEST_F(MixerTest, ChannelsAbove64AreZeroedAndNeverFed) {
    std::vector<std::vector<float>> channels(80, std::vector<float>(256, 7.0f));
    std::vector<AudioChannelBuffer> list;
    for (auto& channel : channels)
        list.push_back({channel.data(), channel.size() * sizeof(float)});
    list[3].data = nullptr; // a channel the device leaves out is skipped
    mixer.play(constantClip(0.5f, 1000), {{0, 3}, {0, 63}, {0, 70}}, 1.0f, 0.0, false, false);
    mixer.render(256, AudioTimeStamp{}, list);
    EXPECT_EQ(channels[3][0], 7.0f);
    EXPECT_EQ(channels[63][0], 0.5f);
    for (int c = 64; c < 80; ++c)
        ASSERT_EQ(countNonZero(channels[c]), 0) << "channel " << c;
    EXPECT_EQ(mixer.takeMeters(64)[3], 0.0f);
}

TEST_F(MixerTest, TestToneIsA1kHzSineThatMuteSilences) {
    OfflineRenderer device(mixer, 2, 100, kRate); // blocks that cut the sine mid-cycle
    mixer.setMasterVolume(0.5);
    mixer.setToneChannel(1);
    const auto out = device.render(960);
    for (std::int64_t i = 0; i < 960; ++i) {
        const double expected = 0.05 * std::sin(2.0 * M_PI * 1000.0 * i / kRate);
        ASSERT_NEAR(out[1][i], expected, 1e-6) << "frame " << i;
    }
    EXPECT_EQ(countNonZero(out[0]), 0);
    EXPECT_NEAR(mixer.takeMeters(2)[1], 0.05f, 1e-4);

    mixer.play(constantClip(0.5f, 10000), {{0, 1}}, 1.0f, 0.0, false, false);
    mixer.setMuted({1});
    const auto muted = device.render(200);
    EXPECT_EQ(countNonZero(muted[1]), 0);
    EXPECT_EQ(mixer.takeMeters(2)[1], 0.0f);

    mixer.setMuted({});
    mixer.setToneChannel(std::nullopt);
    EXPECT_FLOAT_EQ(device.render(10)[1][0], 0.25f);
}

TEST_F(MixerTest, LargeBlocksMixExactlyLikeSmallOnes) {
    // The same show rendered in 64-frame and 6400-frame blocks must agree sample for sample,
    // the stop and its fade included (both lengths are whole numbers of either block).
    auto run = [](std::int64_t block) {
        Mixer m;
        OfflineRenderer device(m, 2, block, kRate);
        auto clip = distinctClip(3000, 44100.0);
        const auto a = m.play(clip, {{0, 0}}, 0.7f, 0.05, true, false);
        m.play(clip, {{0, 1}}, 1.0f, 0.0, false, false);
        auto out = device.render(12800);
        m.stop(a, 0.02);
        auto tail = device.render(12800);
        for (int c = 0; c < 2; ++c)
            out[c].insert(out[c].end(), tail[c].begin(), tail[c].end());
        return out;
    };
    const auto small = run(64);
    const auto large = run(6400);
    ASSERT_EQ(small[0].size(), 25600u);
    for (int c = 0; c < 2; ++c) {
        ASSERT_EQ(large[c].size(), small[c].size());
        const auto mismatch = std::mismatch(small[c].begin(), small[c].end(), large[c].begin());
        EXPECT_EQ(mismatch.first - small[c].begin(), 25600) << "channel " << c;
    }
    // And both are the mix itself: the unlooped voice at the rate ratio, then silence; the
    // looped one fading out after the stop.
    const auto clip = distinctClip(3000, 44100.0);
    for (std::int64_t i = 0; i < 3265; ++i)
        ASSERT_NEAR(small[1][i], interpolate(*clip, 0, i * 0.91875, false), 2e-6) << i;
    EXPECT_EQ(countNonZero({small[1].begin() + 3266, small[1].end()}), 0);
    EXPECT_GT(countNonZero({small[0].begin() + 12800, small[0].begin() + 12800 + 900}), 800);
    EXPECT_EQ(countNonZero({small[0].begin() + 12800 + 961, small[0].end()}), 0);
}

TEST_F(MixerTest, MoreVoicesThanReservedStillPlay) {
    OfflineRenderer device(mixer, 1, 256, kRate);
    auto clip = constantClip(0.001f, 10000);
    for (int i = 0; i < 600; ++i)
        mixer.play(clip, {{0, 0}}, 1.0f, 0.0, false, false);
    EXPECT_NEAR(device.render(256)[0][0], 0.6f, 1e-4);
}

TEST_F(MixerTest, RoutesOutsideTheClipOrTheDeviceAreDropped) {
    OfflineRenderer device(mixer, 2, 256, kRate);
    const auto id =
        mixer.play(constantClip(0.5f, 1000), {{1, 0}, {0, -1}, {0, 1}}, 1.0f, 0.0, false, false);
    const auto out = device.render(256);
    EXPECT_EQ(countNonZero(out[0]), 0);
    EXPECT_FLOAT_EQ(out[1][0], 0.5f);
    EXPECT_GT(id, 0);
    EXPECT_EQ(mixer.play(nullptr, {{0, 0}}, 1, 0, false, false), 0);
}

// A stream voice plays exactly what a clip voice of the same samples plays (envelope, volume,
// routes), across the ring's wrap; frames it misses while its feeder is late are skipped when
// they arrive, so it stays on time; damaged samples and the end are handled like a clip's.
TEST_F(MixerTest, StreamPlaysLikeAClipStaysOnTimeWhenStarvedAndEndsWhenFinished) {
    const auto clip = distinctClip(4000);
    const float* samples = clip->channels[0];
    {
        auto stream = std::make_shared<AudioStream>(1, 700, kRate, 0, 4000);
        OfflineRenderer device(mixer, 2, 256, kRate);
        mixer.play(clip, {{0, 0}}, 0.7f, 0.004, false, false);
        mixer.playStream(stream, {{0, 1}}, 0.7f, 0.004, false);
        std::int64_t written = 0;
        for (int block = 0; block < 12; ++block) {
            const float* from = samples + written;
            written += stream->write(&from, 4000 - written);
            const auto out = device.render(256);
            for (int i = 0; i < 256; ++i)
                ASSERT_EQ(out[1][i], out[0][i]) << "block " << block << " frame " << i;
        }
    }

    Mixer starved;
    OfflineRenderer device(starved, 1, 256, kRate);
    // The stream is the second half of a 4000-frame sound: progress counts from frame 2000.
    auto stream = std::make_shared<AudioStream>(1, 1000, kRate, 2000, 4000);
    const float* from = samples;
    ASSERT_EQ(stream->write(&from, 100), 100);
    const auto voice = starved.playStream(stream, {{0, 0}}, 1.0f, 0.0, false);
    auto out = device.render(256);
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(out[0][i], i < 100 ? samples[i] : 0.0f) << i;
    // The late frames arrive: the 156 missed are dropped, the block plays frames 256 on.
    from = samples + 100;
    ASSERT_EQ(stream->write(&from, 2000), 1000);
    out = device.render(256);
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(out[0][i], samples[256 + i]) << i;
    EXPECT_DOUBLE_EQ(starved.snapshot()[voice].progress, (2000.0 + 512.0) / 4000.0);

    // Damage never reaches the output; the voice ends with the last frame once finished.
    out = device.render(512); // frames 512…1023 are not all there: 1100 written
    const float damaged[3] = {std::nanf(""), 100.0f, -0.25f};
    from = damaged;
    ASSERT_EQ(stream->write(&from, 3), 3);
    stream->finish();
    out = device.render(512);
    EXPECT_EQ(out[0][76], 0.0f);
    EXPECT_EQ(out[0][77], 0.0f);
    EXPECT_EQ(out[0][78], -0.25f);
    EXPECT_EQ(countNonZero({out[0].begin() + 79, out[0].end()}), 0);
    EXPECT_TRUE(starved.snapshot()[voice].done);
}

} // namespace
