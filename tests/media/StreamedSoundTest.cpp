#include "media/StreamedSound.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

#include "MediaFixtures.h"
#include "TempDir.h"
#include "media/AudioLoader.h"

namespace {

// Takes `frames` frames from the stream as the mixer would, waiting for the decoding thread,
// and returns them per channel (fewer when the stream ends or nothing comes for 5 s).
std::vector<std::vector<float>> take(AudioStream& stream, std::int64_t frames) {
    std::vector<std::vector<float>> out(static_cast<std::size_t>(stream.channelCount()));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (static_cast<std::int64_t>(out[0].size()) < frames && !stream.ended() &&
           std::chrono::steady_clock::now() < deadline) {
        const std::int64_t count =
            std::min(stream.available(), frames - static_cast<std::int64_t>(out[0].size()));
        if (count == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
        }
        for (std::int64_t from = 0, length = 0; from < count; from += length) {
            for (std::int64_t c = 0; c < stream.channelCount(); ++c) {
                const float* piece = stream.piece(c, from, count - from, length);
                out[static_cast<std::size_t>(c)].insert(out[static_cast<std::size_t>(c)].end(),
                                                        piece, piece + length);
            }
        }
        stream.consume(count);
    }
    return out;
}

// Two tracks at 44.1 kHz (mono, and stereo half as long) streamed at 48 kHz on the decoding
// thread, through a ring far smaller than the sound, round the loop twice: what the mixer gets
// is what a clip of the file holds, bit for bit (the same conversion, the short track padded),
// and then the same again.
TEST(StreamedSound, DecodesOnItsOwnThreadWhatAClipOfTheFileHoldsAndGoesRound) {
    TempDir dir;
    const std::string path = dir.file("two.mkv");
    ASSERT_TRUE(MediaFixtures::write(path, "flac",
                                     {{1, 44100, 1.0, 440.0, 0.5}, {2, 44100, 0.5, 1000.0, 0.5}}));
    const MediaProbe probe = AudioLoader::probe(path);
    const AudioClipPtr clip = AudioLoader::loadClip(path, 48000.0, probe);
    ASSERT_EQ(clip->channelCount, 3);

    StreamedSound::Options options;
    options.channels = 3;
    options.duration = probe.duration;
    options.loop = true;
    options.ringSeconds = 0.1;
    StreamedSound sound(path, options);
    const auto out = take(*sound.stream(), 2 * clip->frameCount + 1000);
    ASSERT_EQ(static_cast<std::int64_t>(out[0].size()), 2 * clip->frameCount + 1000);
    for (std::int64_t c = 0; c < 3; ++c) {
        for (std::int64_t i = 0; i < static_cast<std::int64_t>(out[0].size()); ++i)
            ASSERT_EQ(out[c][i], clip->channels[c][i % clip->frameCount])
                << "channel " << c << " frame " << i;
    }
    EXPECT_FALSE(sound.takeFailure());
}

// Started part-way, the stream begins at that sample; it ends after the last one; a file that
// is not there ends it at once with the reason, reported once.
TEST(StreamedSound, StartsAtTheSampleAskedEndsAtTheEndAndSaysWhyItCouldNotPlay) {
    TempDir dir;
    const std::string path = dir.file("tone.mov");
    const MediaFixtures::Video video{64, 48, 0.0, 1.0};
    ASSERT_TRUE(MediaFixtures::write(path, "pcm_s16le", {{2, 48000, 1.0, 1000.0, 0.5}}, &video));
    const AudioClipPtr clip = AudioLoader::loadClip(path, 48000.0, AudioLoader::probe(path));

    StreamedSound::Options options;
    options.from = 0.75;
    options.duration = 1.0;
    StreamedSound sound(path, options);
    EXPECT_EQ(sound.stream()->startFrame(), 36000);
    const auto out = take(*sound.stream(), 48000);
    ASSERT_EQ(static_cast<std::int64_t>(out[0].size()), clip->frameCount - 36000);
    EXPECT_TRUE(std::equal(out[1].begin(), out[1].end(), clip->channels[1] + 36000));
    EXPECT_TRUE(sound.stream()->ended());

    options.from = 0.0;
    StreamedSound missing(dir.file("gone.mov"), options);
    EXPECT_TRUE(take(*missing.stream(), 100)[0].empty());
    EXPECT_EQ(missing.takeFailure(), LoadError::kReadFailed);
    EXPECT_FALSE(missing.takeFailure());
}

} // namespace
