#include "audio/Mixer.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <numeric>

#include "AllocationCounter.h"
#include "MixerTestSupport.h"
#include "Sanitizer.h"
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

// The read position moves by the clip's rate over the device's from where the voice starts or
// is sought to, reads between two frames linearly (the last frame against itself, or against
// the first when looping) and wraps when looping; whole frames at the device's rate are copied
// exactly. Progress is the position over the clip's length; a voice past its end is done.
TEST_F(MixerTest, ReadPositionFollowsTheRateRatioInterpolatesAndWraps) {
    struct Row {
        std::int64_t frames;
        double rate;
        bool loop;
        double seekTo; // in source frames, after a first block; 0: no seek
        float volume;
        std::int64_t render;
        double tolerance;
    };
    const Row rows[] = {
        {1000, kRate, false, 0.0, 1.0f, 1024, 0.0},     // copied, then silence
        {4000, kRate, false, 1000.5, 0.5f, 1024, 1e-6}, // sought between two frames
        {4410, 44100.0, false, 0.0, 1.0f, 2048, 2e-6},  // 0.91875 source frames a frame
        {1000, 44100.0, true, 0.0, 1.0f, 10000, 2e-6},  // wraps nine times between frames
        {4, 24000.0, false, 0.0, 1.0f, 64, 1e-7},       // the last frame read against itself
        {4, 24000.0, true, 0.0, 1.0f, 64, 1e-7},        // … and against the first when looping
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << row.frames << " frames at " << row.rate << (row.loop ? ", looping" : "")
                     << ", from " << row.seekTo);
        Mixer m;
        OfflineRenderer device(m, 2, 256, kRate);
        const auto clip = distinctClip(row.frames, row.rate);
        const auto id = m.play(clip, {{0, 1}}, row.volume, 0.0, row.loop, false);
        if (row.seekTo > 0) {
            device.render(256);
            m.seek(id, row.seekTo / kRate, 0);
        }
        const auto out = device.render(row.render);
        const double ratio = row.rate / kRate;
        for (std::int64_t i = 0; i < row.render; ++i) {
            double position = row.seekTo + static_cast<double>(i) * ratio;
            if (row.loop)
                position = std::fmod(position, static_cast<double>(row.frames));
            const double expected = position < static_cast<double>(row.frames)
                                        ? row.volume * interpolate(*clip, 0, position, row.loop)
                                        : 0.0;
            ASSERT_NEAR(out[1][i], expected, row.tolerance) << "frame " << i;
        }
        EXPECT_EQ(countNonZero(out[0]), 0);
        const double end = row.seekTo + static_cast<double>(row.render) * ratio;
        const auto status = m.snapshot().at(id);
        EXPECT_EQ(status.done, !row.loop && end >= static_cast<double>(row.frames));
        if (!row.loop) {
            EXPECT_NEAR(status.progress, std::min(1.0, end / static_cast<double>(row.frames)),
                        1e-9);
        }
    }
}

// The level of a constant 1 frame by frame: an envelope that rises over the fade-in (none when
// it is shorter than a frame), falls from wherever it is when stopped, over the stop's fade or
// 5 ms at the least (from a ten-thousandth when it had not yet risen), and is heard squared.
std::vector<double> heardEnvelope(double fadeIn, std::int64_t stopAt, double stopFade,
                                  std::int64_t frames) {
    const double fadeInFrames = fadeIn * kRate;
    double env = fadeInFrames >= 1.0 ? 0.0 : 1.0;
    double step = fadeInFrames >= 1.0 ? 1.0 / fadeInFrames : 0.0;
    std::vector<double> heard(static_cast<std::size_t>(frames), 0.0);
    for (std::int64_t n = 0; n < frames; ++n) {
        if (n == stopAt)
            step = -std::max(env, 1e-4) / (std::max(stopFade, 0.005) * kRate);
        env = std::min(1.0, env + step);
        if (env <= 0.0)
            break;
        if (env == 1.0)
            step = 0.0;
        heard[static_cast<std::size_t>(n)] = env * env;
    }
    return heard;
}

TEST_F(MixerTest, FadesRiseFallAndAreHeardSquared) {
    struct Row {
        double fadeIn;
        std::int64_t stopAt; // a whole number of blocks; -1: never stopped
        double stopFade;
        std::int64_t frames;
    };
    const Row rows[] = {
        {1.0, -1, 0.0, 48100},            // a one-second rise from the first frame, no overshoot
        {0.5 / kRate, -1, 0.0, 256},      // shorter than a frame: full level at once
        {1.0 / kRate, -1, 0.0, 256},      // one frame: full level at the first
        {0.0, 512, 0.0, 1024},            // stopped without a fade: gone in 5 ms
        {0.0, 512, 0.004, 1024},          // a fade under 5 ms takes 5 ms too
        {0.0, 512, 0.01, 1536},           // a longer fade is its own
        {10.0, 256, 0.1, 256 + 5056},     // stopped as it barely rose: silent within the fade
        {1.0, 24064, 1.0, 24064 + 48512}, // stopped half-way up: down from the level reached
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "fade-in " << row.fadeIn << ", stopped at " << row.stopAt
                                        << " over " << row.stopFade);
        Mixer m;
        OfflineRenderer device(m, 1, 256, kRate);
        const auto id =
            m.play(constantClip(1.0f, 480000), {{0, 0}}, 1.0f, row.fadeIn, false, false);
        std::vector<float> out;
        if (row.stopAt >= 0) {
            out = device.render(row.stopAt)[0];
            m.stop(id, row.stopFade);
        }
        const auto rest = device.render(row.frames - static_cast<std::int64_t>(out.size()))[0];
        out.insert(out.end(), rest.begin(), rest.end());
        const auto wanted = heardEnvelope(row.fadeIn, row.stopAt, row.stopFade, row.frames);
        for (std::size_t n = 0; n < out.size(); ++n)
            ASSERT_NEAR(out[n], wanted[n], 2e-3 * wanted[n] + 1e-4) << "frame " << n;
        EXPECT_LE(*std::max_element(out.begin(), out.end()), 1.0f);
        EXPECT_EQ(m.snapshot().at(id).done, row.stopAt >= 0);
        // It ends where the envelope reaches nothing; float steps drift by about 1/1000.
        if (row.stopAt >= 0) {
            const auto silentTail = firstNonZero({out.rbegin(), out.rend()});
            const auto wantedTail = std::count(wanted.rbegin(), wanted.rend(), 0.0);
            EXPECT_NEAR(silentTail, wantedTail, 3 + row.stopFade * kRate / 1000);
        }
    }
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

// A voice armed for a host time starts on the frame that time falls on, less the output latency,
// truncated; a time already past starts it at the next block's first frame from its own first
// frame (never advanced to catch up); a voice not armed starts at once and one never released
// stays silent. It is heard from its first frame, sample for sample.
TEST_F(MixerTest, ATimedStartLandsOnItsFrameLessTheLatency) {
    constexpr std::int64_t kBefore = 2400; // rendered before the start is set
    struct Row {
        bool deferred;
        std::optional<double> at; // frames after kBefore; none: never released
        double latency;
        std::int64_t first; // the first frame heard after kBefore; -1: none
    };
    const Row rows[] = {
        {false, {}, 0.0, 0},     {true, {}, 0.0, -1},        {true, 339.5, 0.0, 339},
        {true, 480.0, 0.0, 480}, {true, 1000.25, 0.0, 1000}, {true, 1000.5, 0.01, 520},
        {true, 479.5, 0.01, 0},  {true, -2000.0, 0.0, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << "at " << row.at.value_or(-1) << ", latency " << row.latency);
        Mixer m;
        m.setLatency(0.05); // a device's from before: rendering offline has none
        OfflineRenderer device(m, 1, 240, kRate);
        if (row.latency > 0)
            m.setLatency(row.latency);
        const auto clip = distinctClip(5000);
        device.render(kBefore);
        const auto id = m.play(clip, {{0, 0}}, 1.0f, 0.0, false, row.deferred);
        if (row.at) {
            const double whole = std::floor(*row.at);
            m.setStart(id, device.hostTimeAtFrame(kBefore + static_cast<std::int64_t>(whole)) +
                               HostTime::secondsToTicks((*row.at - whole) / kRate));
        }
        const auto out = device.render(2400)[0];
        EXPECT_EQ(firstNonZero(out), row.first);
        for (std::int64_t i = std::max<std::int64_t>(row.first, 0); row.first >= 0 && i < 2400; ++i)
            ASSERT_EQ(out[i], clip->channels[0][i - row.first]) << "frame " << i;
        EXPECT_DOUBLE_EQ(m.snapshot().at(id).progress,
                         row.first < 0 ? 0.0 : static_cast<double>(2400 - row.first) / 5000.0);
    }

    // A block whose host time is not valid starts a timed voice at its first frame.
    const auto clip = distinctClip(2000);
    std::vector<float> buffer(256);
    const AudioChannelBuffer list[1] = {{buffer.data(), buffer.size() * sizeof(float)}};
    const auto id = mixer.play(clip, {{0, 0}}, 1.0f, 0.0, false, true);
    mixer.setStart(id, HostTime::now() + 1'000'000'000ull);
    mixer.render(256, AudioTimeStamp{0, false}, list);
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

// The device's clock runs on from block to block by the frames the device played, so pictures
// keep to its crystal; a block that comes a tenth of a second or more away from where the count
// puts it (the device stopped, or another took over) begins where host time says. Before the
// first block it is host time itself.
TEST_F(MixerTest, TheDeviceClockRunsByTheFrameCountUnlessABlockIsATenthOfASecondOff) {
    std::vector<float> samples(4800); // 0.1 s blocks
    const AudioChannelBuffer buffer[] = {{samples.data(), sizeof(float) * samples.size()}};
    const std::uint64_t first = 1'000'000'000'000;
    EXPECT_DOUBLE_EQ(mixer.deviceSeconds(first + 7), static_cast<double>(first + 7) * 1e-9);
    // Each row: when the next block comes after the one before (ns), and how far that moves the
    // device's clock (s).
    const std::pair<std::int64_t, double> rows[] = {
        {0, 1000.0},                               // the first block: host time
        {100'000'000, 0.1},  {190'000'000, 0.1},   // on time, 0.09 s late: by the count
        {10'000'000, 0.1},                         // 0.09 s early: by the count
        {200'000'000, 0.2},  {0, 0.0},             // exactly 0.1 s off either way: host time
        {750'000'000, 0.75}, {-400'000'000, -0.4}, // far later, or earlier
        {100'000'000, 0.1},                        // on time again
    };
    std::uint64_t host = first;
    double expected = 0.0;
    for (const auto& [after, moves] : rows) {
        host += static_cast<std::uint64_t>(after);
        expected += moves;
        mixer.render(4800, AudioTimeStamp{host, true}, buffer);
        EXPECT_NEAR(mixer.deviceSeconds(host), expected, 1e-6) << after;
        EXPECT_NEAR(mixer.deviceSeconds(host + 25'000'000), expected + 0.025, 1e-6) << after;
    }
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
    auto stream = std::make_shared<AudioStream>(1, 1000, kRate, 0, 1000); // and a stream voice
    const std::vector<float> quarter(1000, 0.25f);
    const float* from = quarter.data();
    ASSERT_EQ(stream->write(&from, 1000), 1000);
    mixer.playStream(stream, {{0, 3}, {0, 63}, {0, 70}}, 1.0f, 0.0, false);
    mixer.render(256, AudioTimeStamp{}, list);
    EXPECT_EQ(channels[3][0], 7.0f);
    EXPECT_EQ(channels[63][0], 0.75f);
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

// More voices than the mixer keeps room for play, and end together, without the control
// thread ever allocating while it holds the lock the render thread waits on.
TEST_F(MixerTest, MoreVoicesThanReservedStillPlay) {
    const auto underLock = AllocationCounter::underPriorityLock();
    OfflineRenderer device(mixer, 1, 256, kRate);
    auto clip = constantClip(0.001f, 10000);
    for (std::size_t i = 0; i < Mixer::kReservedVoices + 88; ++i)
        mixer.play(clip, {{0, 0}}, 1.0f, 0.0, false, false);
    EXPECT_NEAR(device.render(256)[0][0], 0.6f, 1e-4);
    device.render(10000);
    mixer.snapshot();
    mixer.removeDone();
    EXPECT_EQ(mixer.voiceCount(), 0u);
    if (!kSanitized) {
        EXPECT_EQ(AllocationCounter::underPriorityLock() - underLock, 0u);
    }
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
