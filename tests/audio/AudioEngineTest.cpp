#include "audio/AudioEngine.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

#include "JackRecorder.h"
#include "JackServer.h"
#include "MixerTestSupport.h"
#include "SignalMeasure.h"
#include "TempDir.h"
#include "audio/AudioDeviceList.h"
#include "audio/AudioStartError.h"
#include "audio/JackBackend.h"
#include "audio/NullBackend.h"

namespace {

using namespace std::chrono_literals;

std::string startError(AudioEngine& engine, const std::string& uid) {
    try {
        engine.start(uid);
    } catch (const AudioStartError& error) {
        return error.what();
    }
    return "started";
}

template <typename Predicate>
bool waitFor(Predicate done, std::chrono::milliseconds limit = 5000ms) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

double frequencyOf(const std::vector<float>& x, std::int64_t from, std::int64_t to, double rate) {
    return SignalMeasure::frequency(x.data(), from, to, rate);
}

AudioClipPtr sine(double frequency, double seconds, double rate = 48000.0) {
    std::vector<float> x(static_cast<std::size_t>(seconds * rate));
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = static_cast<float>(0.5 * std::sin(2 * M_PI * frequency * i / rate));
    return makeClip({x}, rate);
}

TEST(NullDevice, RendersOnItsOwnClockOrBlockByBlockInManualMode) {
    AudioEngine engine;
    engine.start(std::string("null"));
    EXPECT_EQ(engine.channelCount(), 8);
    EXPECT_EQ(engine.sampleRate(), 48000.0);
    EXPECT_EQ(engine.deviceName(), "出力なし（無音）");
    const auto id = engine.mixer().play(constantClip(0.5f, 48000), {{0, 0}}, 1, 0, false, false);
    EXPECT_TRUE(waitFor([&] { return engine.mixer().snapshot().at(id).progress > 0.05; }));
    engine.stop();

    Mixer mixer;
    NullBackend manual(4, 44100.0, 128, true);
    manual.start(mixer, {});
    mixer.play(constantClip(0.25f, 1000), {{0, 3}}, 1, 0, false, false);
    manual.renderBlocks(3);
    EXPECT_EQ(manual.blocksRendered(), 3);
    EXPECT_EQ(manual.channel(3)[0], 0.25f);
}

TEST(DeviceChoice, UnknownOrAbsentDevicesFailWithAMessage) {
    AudioEngine engine;
    EXPECT_EQ(startError(engine, "bogus"),
              "出力デバイスを設定できません（不明なデバイスです: bogus）");
    unsetenv("JACK_DEFAULT_SERVER");
    setenv("JACK_DEFAULT_SERVER", "vorlin-no-such-server", 1);
    EXPECT_EQ(startError(engine, "jack:system"),
              "出力デバイスを設定できません（JACK サーバーに接続できません）");
    EXPECT_EQ(startError(engine, "alsa:vorlin_no_such_pcm")
                  .rfind("出力デバイスを設定できません（ALSA: ", 0),
              0u);
    EXPECT_FALSE(engine.isRunning());

    // The default always ends up somewhere: with no server and no card, on the null device.
    engine.start(std::nullopt);
    EXPECT_TRUE(engine.isRunning());
    EXPECT_EQ(engine.deviceName(), "システム既定");

    const auto devices = AudioDeviceList::outputDevices();
    ASSERT_FALSE(devices.empty());
    EXPECT_EQ(devices.back().uid, "null");
    EXPECT_EQ(devices.back().channels, 8);
}

TEST(JackDevice, PlaysIntoThePhysicalPortsAtTheRightLevel) {
    JackServer server(8);
    ASSERT_TRUE(server.ready());
    AudioEngine engine;
    engine.start(std::string("jack:system"));
    ASSERT_EQ(engine.channelCount(), 8);
    EXPECT_EQ(engine.sampleRate(), 48000.0);
    EXPECT_GE(engine.mixer().latency(), 0.0);
    auto* backend = dynamic_cast<JackBackend*>(engine.backend());
    ASSERT_NE(backend, nullptr);
    JackRecorder recorder(backend->clientName(), 8, 3.0);
    ASSERT_TRUE(recorder.connected());

    engine.mixer().play(sine(1000, 2.0), {{0, 2}}, 1.0f, 0.0, false, false);
    ASSERT_TRUE(waitFor([&] { return recorder.frames() > 48000; }));
    recorder.stop();
    const auto& played = recorder.channel(2);
    const std::int64_t start =
        std::find_if(played.begin(), played.end(), [](float v) { return v != 0; }) - played.begin();
    ASSERT_LT(start, 24000);
    EXPECT_NEAR(frequencyOf(played, start + 100, start + 20000, 48000), 1000.0, 0.5);
    const float peak = *std::max_element(played.begin() + start, played.begin() + start + 20000);
    EXPECT_NEAR(peak, 0.5f, 0.001f);
    for (int c : {0, 1, 3, 7})
        EXPECT_EQ(*std::max_element(recorder.channel(c).begin(), recorder.channel(c).end()), 0.0f);

    const auto devices = AudioDeviceList::outputDevices();
    EXPECT_EQ(devices.front().uid, "jack:system");
    EXPECT_EQ(devices.front().channels, 8);
}

TEST(JackDevice, EightyPortsAreUsedAsSixtyFour) {
    JackServer server(80);
    ASSERT_TRUE(server.ready());
    AudioEngine engine;
    engine.start(std::nullopt); // the default is the running JACK server
    EXPECT_EQ(engine.channelCount(), 64);
    EXPECT_EQ(engine.activeDevice(), "jack:system");
    EXPECT_EQ(engine.deviceName(), "システム既定");
}

TEST(JackDevice, ServerLossIsNoticedAndARestartKeepsTheVoiceAtItsPitch) {
    auto server = std::make_unique<JackServer>(8, 48000);
    ASSERT_TRUE(server->ready());
    AudioEngine engine;
    std::atomic<int> notices{0};
    engine.onConfigurationChange = [&] { ++notices; };
    engine.start(std::string("jack:system"));
    const auto id = engine.mixer().play(sine(1000, 10.0), {{0, 0}}, 1.0f, 0.0, false, false);
    std::this_thread::sleep_for(100ms);

    server->kill();
    EXPECT_TRUE(waitFor([&] { return notices.load() > 0; }));
    server.reset();
    // The same device comes back at another rate; the voice decoded at 48 kHz keeps its pitch.
    server = std::make_unique<JackServer>(8, 44100);
    ASSERT_TRUE(server->ready());
    engine.start(std::string("jack:system"));
    EXPECT_EQ(engine.mixer().sampleRate(), 44100.0);
    auto* backend = dynamic_cast<JackBackend*>(engine.backend());
    JackRecorder recorder(backend->clientName(), 1, 2.0);
    ASSERT_TRUE(waitFor([&] { return recorder.frames() > 30000; }));
    recorder.stop();
    EXPECT_FALSE(engine.mixer().snapshot().at(id).done);
    EXPECT_NEAR(frequencyOf(recorder.channel(0), 1000, 29000, 44100), 1000.0, 0.5);
}

TEST(AlsaDevice, WritesThroughATestPcmIntoAFile) {
    TempDir dir;
    const std::string file = dir.file("out.raw");
    AudioEngine engine;
    engine.start("alsa:file:FILE=" + file + ",FORMAT=raw");
    const std::int64_t channels = engine.channelCount();
    ASSERT_GE(channels, 2);
    EXPECT_EQ(engine.sampleRate(), 48000.0);
    engine.mixer().play(constantClip(0.25f, 48000), {{0, 1}}, 1.0f, 0.0, false, false);
    std::this_thread::sleep_for(300ms);
    engine.stop();

    std::ifstream in(file, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
    std::vector<float> data(bytes.size() / sizeof(float));
    std::memcpy(data.data(), bytes.data(), data.size() * sizeof(float));
    const auto frames = static_cast<std::int64_t>(data.size()) / channels;
    // Paced to real time: about 0.3 s plus the buffer, not seconds' worth of samples.
    EXPECT_GT(frames, 48000 * 0.2);
    EXPECT_LT(frames, 48000 * 0.6);
    std::int64_t heard = 0;
    for (std::int64_t i = 0; i < frames; ++i) {
        ASSERT_EQ(data[i * channels], 0.0f) << "frame " << i;
        heard += data[i * channels + 1] == 0.25f;
    }
    EXPECT_GT(heard, 48000 * 0.15);
}

} // namespace
