#include "media/AudioLoader.h"

#include <chrono>
#include <cmath>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

#include "MediaFixtures.h"
#include "SignalMeasure.h"
#include "TempDir.h"

namespace {

using MediaFixtures::Tone;
using MediaFixtures::Video;

double measuredFrequency(const float* x, std::int64_t from, std::int64_t to, double rate) {
    return SignalMeasure::frequency(x, from, to, rate);
}

double rmsDb(const float* x, std::int64_t from, std::int64_t to) {
    double sum = 0.0;
    for (std::int64_t i = from; i < to; ++i)
        sum += static_cast<double>(x[i]) * x[i];
    return 10.0 * std::log10(sum / static_cast<double>(to - from));
}

std::string loadErrorOf(const std::string& path, double rate = 48000.0) {
    try {
        AudioLoader::loadClip(path, rate, AudioLoader::probe(path));
    } catch (const LoadError& error) {
        return error.message();
    }
    return "loaded";
}

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

class AudioLoaderTest : public ::testing::Test {
protected:
    TempDir dir;

    std::string make(const std::string& name, const std::string& codec, std::vector<Tone> tracks,
                     const Video* video = nullptr) {
        const std::string path = dir.file(name);
        EXPECT_TRUE(MediaFixtures::write(path, codec, tracks, video)) << name;
        return path;
    }
};

TEST_F(AudioLoaderTest, ProbeReportsTracksChannelsRateDurationAndSize) {
    const auto wav = make("tone.wav", "pcm_s16le", {{2, 44100, 2.0}});
    const MediaProbe audio = AudioLoader::probe(wav);
    EXPECT_TRUE(audio.hasAudio);
    EXPECT_FALSE(audio.hasVideo);
    EXPECT_EQ(audio.audioTracks, 1);
    EXPECT_EQ(audio.sourceChannels, 2);
    EXPECT_EQ(audio.sourceSampleRate, 44100.0);
    EXPECT_NEAR(audio.duration, 2.0, 0.01);
    EXPECT_EQ(audio.fileSize, static_cast<std::int64_t>(std::filesystem::file_size(wav)));

    // A portrait phone video: stored 320×240, displayed turned by 90°.
    const Video portrait{320, 240, 90.0, 1.0};
    const auto mp4 =
        make("four.mp4", "aac",
             {{1, 48000, 1.0}, {1, 44100, 1.5}, {2, 48000, 0.5}, {1, 48000, 1.2}}, &portrait);
    const MediaProbe movie = AudioLoader::probe(mp4);
    EXPECT_TRUE(movie.hasAudio);
    EXPECT_TRUE(movie.hasVideo);
    EXPECT_EQ(movie.audioTracks, 4);
    EXPECT_EQ(movie.sourceChannels, 5);
    EXPECT_EQ(movie.sourceSampleRate, 48000.0);
    EXPECT_DOUBLE_EQ(movie.videoWidth, 240.0);
    EXPECT_DOUBLE_EQ(movie.videoHeight, 320.0);

    const Video landscape{640, 360, 0.0, 0.5};
    const MediaProbe silent = AudioLoader::probe(make("silent.mp4", "aac", {}, &landscape));
    EXPECT_FALSE(silent.hasAudio);
    EXPECT_TRUE(silent.hasVideo);
    EXPECT_DOUBLE_EQ(silent.videoWidth, 640.0);
    EXPECT_EQ(silent.sourceSampleRate, 0.0);

    // Not media: only the size is known. Missing: nothing is.
    const auto text = dir.file("notes.wav");
    writeBytes(text, "this is not a sound file\n");
    const MediaProbe notMedia = AudioLoader::probe(text);
    EXPECT_FALSE(notMedia.hasAudio || notMedia.hasVideo);
    EXPECT_EQ(notMedia.fileSize, 25);
    EXPECT_EQ(AudioLoader::probe(dir.file("missing.wav")).fileSize, 0);
}

TEST_F(AudioLoaderTest, SeveralTracksBecomeOneClipPaddedToTheLongest) {
    const Video picture{160, 120, 0.0, 2.0};
    const auto path = make(
        "tracks.mkv", "flac",
        {{1, 48000, 1.0, 500}, {1, 48000, 2.0, 600}, {1, 48000, 0.5, 700}, {1, 48000, 1.5, 800}},
        &picture);
    const auto clip = AudioLoader::loadClip(path, 48000.0, AudioLoader::probe(path));
    ASSERT_EQ(clip->channelCount, 4);
    EXPECT_NEAR(clip->frameCount, 96000, 10);
    // Each channel is its own track, in track order, silent after its own end.
    const double seconds[] = {1.0, 2.0, 0.5, 1.5};
    const double frequencies[] = {500, 600, 700, 800};
    for (int c = 0; c < 4; ++c) {
        const float* x = clip->channels[c];
        const auto end = static_cast<std::int64_t>(seconds[c] * 48000);
        EXPECT_NEAR(measuredFrequency(x, 0, end - 100, 48000.0), frequencies[c], 0.5) << c;
        for (std::int64_t i = end + 10; i < clip->frameCount; ++i)
            ASSERT_EQ(x[i], 0.0f) << "channel " << c << " frame " << i;
    }
}

TEST_F(AudioLoaderTest, ConversionTo48kKeepsPitchLevelAndTimingWithoutClicks) {
    // One second of 1 kHz at −6 dBFS, 44.1 kHz: whole cycles, so the source itself ends smoothly.
    const auto path = make("tone44.flac", "flac", {{1, 44100, 1.0, 1000.0, 0.5}});
    const auto clip = AudioLoader::loadClip(path, 48000.0, AudioLoader::probe(path));
    ASSERT_EQ(clip->channelCount, 1);
    EXPECT_EQ(clip->sampleRate, 48000.0);
    EXPECT_NEAR(clip->frameCount, 48000, 2);
    const float* x = clip->channels[0];

    EXPECT_NEAR(measuredFrequency(x, 4800, 43200, 48000.0), 1000.0, 0.05);
    EXPECT_NEAR(rmsDb(x, 4800, 43200), 20 * std::log10(0.5 / std::sqrt(2.0)), 0.1);
    // Not shifted in time: the converted sine is where the original one was.
    for (std::int64_t i : {100, 24000, 47000})
        EXPECT_NEAR(x[i], 0.5 * std::sin(2 * M_PI * 1000.0 * i / 48000.0), 2e-3) << i;
    // No click anywhere: no step steeper than the sine's own steepest slope (plus ripple).
    const double steepest = 0.5 * 2 * M_PI * 1000.0 / 48000.0;
    for (std::int64_t i = 0; i + 1 < clip->frameCount; ++i)
        ASSERT_LE(std::fabs(x[i + 1] - x[i]), steepest * 1.05) << "frame " << i;
    const std::int64_t last = clip->frameCount - 1;
    EXPECT_NEAR(x[0], 0.0, 2e-3);
    EXPECT_NEAR(x[last], 0.5 * std::sin(2 * M_PI * 1000.0 * last / 48000.0), 5e-3);
}

TEST_F(AudioLoaderTest, ClipAtTheEngineRateIsUsedAsDecoded) {
    const auto path = make("float48.wav", "pcm_f32le", {{2, 48000, 0.5, 440.0, 0.25}});
    const auto clip = AudioLoader::loadClip(path, 48000.3, AudioLoader::probe(path));
    ASSERT_EQ(clip->frameCount, 24000);
    EXPECT_EQ(clip->sampleRate, 48000.0);
    for (std::int64_t i = 0; i < clip->frameCount; i += 97) {
        const double t = i / 48000.0;
        ASSERT_EQ(clip->channels[1][i], static_cast<float>(0.25 * std::sin(2 * M_PI * 880.0 * t)));
    }
}

TEST_F(AudioLoaderTest, StreamingConversionEqualsOnePassConversionWithAnyWorkerCount) {
    // Five channels, each its own frequency: 1 to 4 workers split them differently, and a worker
    // converting another's channels would show as a wrong channel here.
    const auto path = make("long.flac", "flac", {{5, 44100, 3.0, 330.0, 0.15}});
    const PcmBuffer onePass = AudioLoader::convert(AudioLoader::readTrack(path, 0, 0.0), 48000.0);
    ASSERT_EQ(onePass.channels.size(), 5u);
    for (int workers = 1; workers <= 4; ++workers) {
        const PcmBuffer streamed = AudioLoader::readTrack(path, 0, 48000.0, nullptr, workers);
        ASSERT_EQ(streamed.channels.size(), 5u);
        ASSERT_EQ(streamed.frameLength(), onePass.frameLength());
        for (std::size_t c = 0; c < 5; ++c) {
            for (std::size_t i = 0; i < streamed.channels[c].size(); ++i)
                ASSERT_EQ(streamed.channels[c].data()[i], onePass.channels[c].data()[i])
                    << workers << " workers, channel " << c << ", frame " << i;
        }
    }
    // Each channel kept its own pitch through the conversion.
    for (std::size_t c = 0; c < 5; ++c)
        EXPECT_NEAR(measuredFrequency(onePass.channels[c].data(), 24000, 120000, 48000.0),
                    330.0 * (c + 1), 0.5)
            << c;
    const PcmBuffer stereo =
        AudioLoader::readTrack(make("two.flac", "flac", {{2, 44100, 0.5}}), 0, 48000.0);
    EXPECT_EQ(stereo.format.layout, "stereo");
    EXPECT_THROW(AudioLoader::readTrack(path, 1, 48000.0), LoadError);
}

TEST_F(AudioLoaderTest, EveryCommonFormatDecodes) {
    struct Case {
        const char* name;
        const char* codec;
        int rate;
    };
    const Case cases[] = {
        {"a.wav", "pcm_s16le", 44100},  {"a.aiff", "pcm_s16be", 48000}, {"a.flac", "flac", 96000},
        {"a.mp3", "libmp3lame", 44100}, {"a.m4a", "aac", 48000},        {"a.m4a", "alac", 44100},
        {"a.ogg", "libvorbis", 44100},  {"a.opus", "libopus", 48000},   {"a.mp4", "aac", 44100},
        {"a.mov", "pcm_s24le", 48000},  {"a.webm", "libopus", 48000},   {"a.mkv", "ac3", 48000},
    };
    for (const Case& c : cases) {
        const auto path = dir.file(std::string(c.codec) + "-" + c.name);
        ASSERT_TRUE(MediaFixtures::write(path, c.codec, {{2, c.rate, 1.0, 1000.0, 0.5}}))
            << c.codec << " in " << c.name;
        const auto clip = AudioLoader::loadClip(path, 48000.0, AudioLoader::probe(path));
        EXPECT_EQ(clip->channelCount, 2) << path;
        EXPECT_NEAR(clip->frameCount, 48000, 3000) << path; // lossy codecs add priming
        EXPECT_NEAR(measuredFrequency(clip->channels[0], 9600, 38400, 48000.0), 1000.0, 1.0)
            << path;
        EXPECT_NEAR(rmsDb(clip->channels[0], 9600, 38400), -9.03, 0.5) << path;
    }
}

TEST_F(AudioLoaderTest, SizeCheckRefusesLongFilesBeforeDecoding) {
    // The file does not even exist: a refusal can only come from the estimate.
    auto refusal = [&](double minutes, double rate, std::int64_t channels) {
        MediaProbe probe;
        probe.duration = minutes * 60;
        probe.sourceSampleRate = rate;
        probe.sourceChannels = channels;
        try {
            AudioLoader::loadClip(dir.file("absent.wav"), 48000.0, probe);
        } catch (const LoadError& error) {
            return error;
        }
        return LoadError::failed("loaded");
    };
    const LoadError stereo = refusal(70, 48000, 2);
    EXPECT_EQ(stereo.kind(), LoadError::Kind::tooLarge);
    EXPECT_EQ(stereo.message(), "音声が長すぎてメモリに展開できません");
    // 1 382 400 000 bytes: allowed, so the missing file is the error.
    EXPECT_EQ(refusal(60, 48000, 2).message(), "読み込みに失敗しました");
    // 8 channels at 96 kHz on a 48 kHz engine: the higher rate counts.
    EXPECT_EQ(refusal(8.5, 96000, 8).kind(), LoadError::Kind::tooLarge);
}

TEST_F(AudioLoaderTest, BadInputEndsInAMessageNeverACrash) {
    writeBytes(dir.file("empty.wav"), "");
    EXPECT_EQ(loadErrorOf(dir.file("empty.wav")), "読み込みに失敗しました");

    std::string garbage(100000, '\0');
    for (std::size_t i = 0; i < garbage.size(); ++i)
        garbage[i] = static_cast<char>((i * 7919u) ^ (i >> 3));
    writeBytes(dir.file("garbage.mp3"), garbage);
    const auto fromGarbage = loadErrorOf(dir.file("garbage.mp3"));
    EXPECT_TRUE(fromGarbage == "読み込みに失敗しました" ||
                fromGarbage == "音声フォーマットを判別できません")
        << fromGarbage;

    const Video picture{160, 120, 0.0, 1.0};
    EXPECT_EQ(loadErrorOf(make("silent.mp4", "aac", {}, &picture)), "音声トラックがありません");

    // One frame is no sound to play; a header without data is none either.
    EXPECT_EQ(loadErrorOf(make("one.wav", "pcm_s16le", {{1, 48000, 1.0 / 48000}})), "音声が空です");
    const auto full = make("full.wav", "pcm_s16le", {{2, 48000, 1.0}});
    std::ifstream in(full, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    writeBytes(dir.file("header.wav"), bytes.substr(0, 60));
    const auto headerOnly = loadErrorOf(dir.file("header.wav"));
    EXPECT_TRUE(headerOnly == "音声が空です" || headerOnly == "読み込みに失敗しました")
        << headerOnly;

    // A file cut in half plays the half that is there.
    const auto flac = make("cut.flac", "flac", {{2, 48000, 2.0}});
    std::ifstream flacIn(flac, std::ios::binary);
    std::string flacBytes((std::istreambuf_iterator<char>(flacIn)), {});
    writeBytes(dir.file("half.flac"), flacBytes.substr(0, flacBytes.size() / 2));
    const auto half = AudioLoader::loadClip(dir.file("half.flac"), 48000.0,
                                            AudioLoader::probe(dir.file("half.flac")));
    EXPECT_GT(half->frameCount, 24000);
    EXPECT_LT(half->frameCount, 72000);

    // The extension does not matter, the content does.
    std::filesystem::copy_file(full, dir.file("really-a-wav.mp3"));
    EXPECT_EQ(loadErrorOf(dir.file("really-a-wav.mp3")), "loaded");
}

TEST_F(AudioLoaderTest, CancellingStopsALongDecodeQuickly) {
    const auto path = make("minute.flac", "flac", {{2, 44100, 60.0, 440.0}});
    const MediaProbe probe = AudioLoader::probe(path);
    AudioLoader::CancelFlag cancel{false};
    std::string outcome;
    const auto started = std::chrono::steady_clock::now();
    std::thread loader([&] {
        try {
            AudioLoader::loadClip(path, 48000.0, probe, &cancel);
            outcome = "finished";
        } catch (const LoadError& error) {
            outcome = error.kind() == LoadError::Kind::cancelled ? "cancelled" : error.message();
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    cancel = true;
    loader.join();
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(outcome, "cancelled");
    EXPECT_LT(took, std::chrono::milliseconds(400));
}

TEST_F(AudioLoaderTest, NeitherAPipeNorAHugeDamagedFileHoldsALoadThatIsCancelled) {
    // A FIFO with no writer would block the first read for ever.
    const auto pipe = dir.file("pipe.wav");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(AudioLoader::probe(pipe).hasAudio);
    EXPECT_EQ(loadErrorOf(pipe), "読み込みに失敗しました");
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(500));

    // A cut WAV header before 4 GB of zeros (a sparse file): the demuxer walks the zeros as
    // chunk headers. A cancel ends it at once, also while it is still only probing.
    const auto sparse = dir.file("sparse.wav");
    const auto full = make("real.wav", "pcm_s16le", {{2, 48000, 1.0}});
    std::ifstream in(full, std::ios::binary);
    std::string header(44, '\0');
    in.read(header.data(), 44);
    writeBytes(sparse, header);
    std::filesystem::resize_file(sparse, 4ull << 30);
    for (const bool probing : {true, false}) {
        AudioLoader::CancelFlag cancel{false};
        std::thread stopper([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            cancel = true;
        });
        const auto began = std::chrono::steady_clock::now();
        std::string outcome = "finished";
        try {
            if (probing)
                AudioLoader::probe(sparse, &cancel);
            else
                AudioLoader::loadClip(sparse, 48000.0, MediaProbe{}, &cancel);
        } catch (const LoadError& error) {
            outcome = error.kind() == LoadError::Kind::cancelled ? "cancelled" : error.message();
        }
        stopper.join();
        const auto took = std::chrono::steady_clock::now() - began;
        EXPECT_GT(took, std::chrono::milliseconds(150)) << probing; // it was really busy
        EXPECT_LT(took, std::chrono::milliseconds(700)) << probing;
        if (!probing) {
            EXPECT_EQ(outcome, "cancelled");
        }
    }
}

TEST(AudioLoaderFormat, LayoutIsKeptWhenItFitsElseDiscreteOrMonoStereo) {
    EXPECT_EQ(AudioLoader::makeFormat(48000, 6, "5.1").layout, "5.1");
    EXPECT_EQ(AudioLoader::makeFormat(48000, 4, "5.1").layout, "4 channels");
    EXPECT_EQ(AudioLoader::makeFormat(48000, 2, "").layout, "stereo");
    EXPECT_EQ(AudioLoader::makeFormat(48000, 1, "quad").layout, "mono");
}

} // namespace
