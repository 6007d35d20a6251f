#include <gtest/gtest.h>

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

} // namespace
