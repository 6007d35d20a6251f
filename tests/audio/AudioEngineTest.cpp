#include "audio/AudioEngine.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <gtest/gtest.h>
#include <thread>

#include "JackRecorder.h"
#include "JackServer.h"
#include "MixerTestSupport.h"
#include "SignalMeasure.h"
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

} // namespace
