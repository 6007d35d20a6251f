#include <cmath>
#include <gtest/gtest.h>
#include <limits>

#include "MixerTestSupport.h"

namespace {

TEST(AudioClip, ShortClipHasOnePeakPerFrame) {
    std::vector<float> samples(200);
    for (int i = 0; i < 200; ++i)
        samples[i] = (i % 2 ? -1.0f : 1.0f) * i / 400.0f;
    auto clip = makeClip({samples, std::vector<float>(200, 0.01f)});
    ASSERT_EQ(clip->peaks.size(), 200u);
    EXPECT_FLOAT_EQ(clip->peaks[0], 0.01f); // the other channel is louder there
    EXPECT_FLOAT_EQ(clip->peaks[199], 199 / 400.0f);
}

TEST(AudioClip, LongClipHas1500BinsCoveringEveryFrameClampedToOne) {
    const std::int64_t frames = 48000 * 7 + 13; // not a multiple of 1500
    std::vector<float> samples(frames, 0.0f);
    samples.back() = 0.5f; // the last frame belongs to the last bin
    samples[0] = -3.0f;    // out-of-range values are clamped
    auto clip = makeClip({samples});
    ASSERT_EQ(clip->peaks.size(), 1500u);
    EXPECT_EQ(clip->peaks.front(), 1.0f);
    EXPECT_FLOAT_EQ(clip->peaks.back(), 0.5f);
    EXPECT_EQ(clip->peaks[700], 0.0f);
    EXPECT_EQ(clip->channelCount, 1);
    EXPECT_EQ(clip->frameCount, frames);
}

TEST(AudioClip, EmptyClipHasNoPeaksAndUnequalChannelsAreRefused) {
    EXPECT_TRUE(makeClip({std::vector<float>{}})->peaks.empty());
    EXPECT_THROW(makeClip({std::vector<float>(3), std::vector<float>(4)}), std::invalid_argument);
}

TEST(AudioClip, DamagedSamplesAreSilencedAndCountedWhatAFileHolds) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    std::vector<float> left{0.5f, nan, -inf, 1.5f, -8.0f, 8.5f, 225.0f, -0.25f};
    std::vector<float> right{inf, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, -1e30f};
    auto clip = makeClip({left, right});
    EXPECT_EQ(clip->damagedSamples, 6); // NaN, ±inf, 8.5, 225, −1e30; a decoder's 1.5 and −8 stay
    const std::vector<float> kept{0.5f, 0.0f, 0.0f, 1.5f, -8.0f, 0.0f, 0.0f, -0.25f};
    for (std::size_t i = 0; i < kept.size(); ++i) {
        EXPECT_EQ(clip->channels[0][i], kept[i]) << i;
        EXPECT_TRUE(std::isfinite(clip->channels[1][i])) << i;
    }
    EXPECT_EQ(clip->channels[1][7], 0.0f);
    EXPECT_EQ(clip->peaks[3], 1.0f);
    EXPECT_EQ(makeClip({std::vector<float>(5000, -1.0f)})->damagedSamples, 0);
}

} // namespace
