#include "device/AudioEngine.h"

#include <algorithm>
#include <alsa/asoundlib.h>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <jack/jack.h>
#include <thread>
#include <vector>

#include "JackRecorder.h"
#include "JackRegistrations.h"
#include "JackServer.h"
#include "MixerTestSupport.h"
#include "SignalMeasure.h"
#include "TempDir.h"
#include "audio/HostTime.h"
#include "device/AudioDeviceList.h"
#include "device/AudioStartError.h"
#include "device/Interleave.h"
#include "device/JackBackend.h"
#include "device/NullBackend.h"

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
    manual.open();
    manual.start(mixer, {});
    mixer.play(constantClip(0.25f, 1000), {{0, 3}}, 1, 0, false, false);
    manual.renderBlocks(3);
    EXPECT_EQ(manual.blocksRendered(), 3);
    EXPECT_EQ(manual.channel(3)[0], 0.25f);
}

// A device that renders its first block the moment it is started, at 44.1 kHz.
class ImpatientDevice : public AudioBackend {
public:
    void open() override {}
    void start(Mixer& mixer, Notice) override {
        std::vector<AudioChannelBuffer> list{{first.data(), first.size() * sizeof(float)}};
        mixer.render(static_cast<std::int64_t>(first.size()), AudioTimeStamp{}, list);
    }
    void stop() override {}
    std::int64_t channelCount() const override { return 1; }
    double sampleRate() const override { return 44100.0; }
    double latency() const override { return 0.0; }
    std::vector<float> first = std::vector<float>(256);
};

// A device that reports a change the moment it starts.
class ChangingDevice : public ImpatientDevice {
public:
    void start(Mixer& mixer, Notice notice) override {
        ImpatientDevice::start(mixer, notice);
        notice();
    }
};

// A notice reaches whoever listens, and an engine nobody listens to (a headless run, a
// test) lets it pass: nothing is called that is not there.
TEST(DeviceChoice, ANoticeReachesTheListenerAndPassesWhenNoneListens) {
    std::atomic<int> heard{0};
    {
        AudioEngine engine;
        engine.onConfigurationChange = [&] { ++heard; };
        engine.start(std::make_unique<ChangingDevice>(), "changing");
        EXPECT_TRUE(waitFor([&] { return heard == 1; }));
    }
    AudioEngine quiet;
    quiet.start(std::make_unique<ChangingDevice>(), "changing");
    std::this_thread::sleep_for(100ms); // the watcher has taken the notice by now
    EXPECT_EQ(heard, 1);
}

TEST(DeviceChoice, TheFirstBlockOfADeviceAtAnotherRateAlreadyPlaysAtThatRate) {
    AudioEngine engine; // the mixer starts out at 48 kHz
    auto clip = distinctClip(4000);
    engine.mixer().play(clip, {{0, 0}}, 1.0f, 0.0, false, false);
    auto device = std::make_unique<ImpatientDevice>();
    const ImpatientDevice& seen = *device;
    engine.start(std::move(device), "test:impatient");
    // A 48 kHz clip on a 44.1 kHz device advances 48000 / 44100 source frames per frame.
    const double step = 48000.0 / 44100.0;
    for (std::size_t i = 0; i < 255; ++i) {
        const double position = static_cast<double>(i) * step;
        const auto at = static_cast<std::size_t>(position);
        const double expected =
            clip->channels[0][at] +
            (clip->channels[0][at + 1] - clip->channels[0][at]) * (position - at);
        ASSERT_NEAR(seen.first[i], expected, 2e-6) << "frame " << i;
    }
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

    // The default always ends up somewhere: with no server and no card, on the null device,
    // which is a fallback for it (nothing is heard) but not for a choice of "null" itself.
    engine.start(std::nullopt);
    EXPECT_TRUE(engine.isRunning());
    EXPECT_EQ(engine.deviceName(), "システム既定");
    if (engine.activeDevice() == "null") {
        EXPECT_TRUE(engine.isOnFallback(std::nullopt));
        EXPECT_FALSE(engine.isOnFallback(std::string("null")));
    } else { // a machine with a sound card: its ALSA default is the default, not a stand-in
        EXPECT_FALSE(engine.isOnFallback(std::nullopt));
    }
    EXPECT_TRUE(engine.isOnFallback(std::string("alsa:vorlin_no_such_pcm")));

    const auto devices = AudioDeviceList::outputDevices();
    ASSERT_FALSE(devices.empty());
    EXPECT_EQ(devices.back().uid, "null");
    EXPECT_EQ(devices.back().channels, 8);
}

TEST(JackDevice, EightyPortsAreUsedAsSixtyFour) {
    JackServer server(80);
    ASSERT_TRUE(server.ready());
    // With a server running only JACK uids are looked for there; an unknown kind never opens.
    EXPECT_TRUE(AudioEngine::canOpen(std::string("jack:system")));
    EXPECT_FALSE(AudioEngine::canOpen(std::string("jack:no-such-device")));
    EXPECT_FALSE(AudioEngine::canOpen(std::string("bogus")));
    EXPECT_FALSE(AudioEngine::canOpen(std::string("alsa:vorlin_no_such_pcm")));
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

// Every back end stamps its blocks on host time's clock, so a voice armed for a host time is
// heard then. JACK's own clock may be another one (CLOCK_MONOTONIC_RAW, hundreds of ms apart).
TEST(DeviceClock, AVoiceArmedForAHostTimeReachesTheJackPortThen) {
    JackServer server(2, 48000, 256);
    ASSERT_TRUE(server.ready());
    AudioEngine engine;
    engine.start(std::string("jack:system"));
    auto* backend = dynamic_cast<JackBackend*>(engine.backend());
    const double period = 256 / 48000.0;
    // The recorder reads the clock when its own cycle runs: a machine busy with other tests may
    // run it late now and then, never early. A clock that is off is off every time, so the
    // best of three tries is what is held to one period.
    std::vector<double> misses;
    for (int attempt = 0; attempt < 3; ++attempt) {
        JackRecorder recorder(backend->clientName(), 1, 3.0);
        ASSERT_TRUE(recorder.connected());
        ASSERT_TRUE(waitFor([&] { return recorder.frames() > 4800; }));
        const auto id = engine.mixer().play(constantClip(0.5f, 48000), {{0, 0}}, 1, 0, false, true);
        const std::uint64_t start = HostTime::now() + HostTime::secondsToTicks(0.05);
        engine.mixer().setStart(id, start);
        ASSERT_TRUE(waitFor([&] { return recorder.firstSoundHostTime() != 0; }, 2000ms));
        // What reaches the port plays `latency` later; it must arrive that much earlier.
        const double expected = static_cast<double>(start) * 1e-9 - engine.mixer().latency();
        misses.push_back(static_cast<double>(recorder.firstSoundHostTime()) * 1e-9 - expected);
        engine.mixer().stop(id, 0.0);
        if (std::fabs(misses.back()) <= period)
            break;
    }
    const double best = *std::min_element(misses.begin(), misses.end(), [](double a, double b) {
        return std::fabs(a) < std::fabs(b);
    });
    EXPECT_GE(best, -period);
    EXPECT_LE(best, period);
}

// The null device (a timer thread) and ALSA (a paced thread): observed through the voice's own
// position. Seen at host time t, a voice that has played p seconds started at t − p, give or
// take what the device renders ahead of hearing.
TEST(DeviceClock, NullAndAlsaDevicesStartArmedVoicesAtTheirHostTime) {
    TempDir dir;
    const std::string file = dir.file("out.raw");
    for (const std::string& uid : {std::string("null"), "alsa:file:FILE=" + file + ",FORMAT=raw"}) {
        AudioEngine engine;
        engine.start(uid);
        std::this_thread::sleep_for(100ms);
        Mixer& mixer = engine.mixer();
        const double seconds = 10.0;
        const auto id = mixer.play(constantClip(0.5f, static_cast<std::int64_t>(seconds * 48000)),
                                   {{0, 0}}, 1, 0, false, true);
        const std::uint64_t start = HostTime::now() + HostTime::secondsToTicks(0.05);
        mixer.setStart(id, start);
        double progress = 0.0;
        std::uint64_t seen = 0;
        ASSERT_TRUE(waitFor([&] {
            seen = HostTime::now();
            progress = mixer.snapshot().at(id).progress;
            return progress > 0.0;
        }));
        const double startedAt = static_cast<double>(seen) * 1e-9 - progress * seconds;
        const double wanted = static_cast<double>(start) * 1e-9;
        // Rendered ahead: a block (1024 frames on the null device, 256 on ALSA) and the whole
        // buffer (the latency, ALSA's); plus the 5 ms between two looks.
        const double ahead = (uid == "null" ? 1024 : 256) / 48000.0 + mixer.latency();
        EXPECT_GE(startedAt - wanted, -ahead - 0.001) << uid;
        EXPECT_LE(startedAt - wanted, 0.001 + 0.005) << uid;
    }
}

TEST(AlsaOutput, IntegerSamplesClampAtFullScaleAndKeepTheChannelOrder) {
    const std::vector<std::vector<float>> planar{{1.0f, -1.0f, 1.5f, -7.0f, 0.5f},
                                                 {0.0f, 0.25f, -0.25f, 1e9f, -1e-9f}};
    std::vector<std::int16_t> s16(10);
    Interleave::toInteger(planar, 5, s16.data());
    EXPECT_EQ(s16, (std::vector<std::int16_t>{32767, 0, -32767, 8192, 32767, -8192, -32767, 32767,
                                              16384, 0}));
    std::vector<std::int32_t> s32(10);
    Interleave::toInteger(planar, 5, s32.data());
    EXPECT_EQ(s32[0], 2147483647);
    EXPECT_EQ(s32[2], -2147483647);
    EXPECT_EQ(s32[4], 2147483647); // beyond +1: the loudest positive sample, never a wrap
    EXPECT_EQ(s32[6], -2147483647);
    EXPECT_EQ(s32[7], 2147483647);
    EXPECT_EQ(s32[3], 536870912);
    std::vector<float> f32(10);
    Interleave::toFloat(planar, 5, f32.data());
    EXPECT_EQ(f32[4], 1.5f);
    EXPECT_EQ(f32[5], -0.25f);
}

// A device that takes no float: an ALSA `linear` plugin fixed at S16 in front of a `file`
// plugin. The back end falls back to 16 bits, and a tone comes out at its level.
TEST(AlsaOutput, ADeviceWithoutFloatGetsSixteenBitSamples) {
    TempDir dir;
    const std::string raw = dir.file("s16.raw");
    std::ofstream(dir.file(".asoundrc"))
        << "pcm.vorlin_s16 { type linear slave { pcm { type file file \"" << raw
        << "\" format \"raw\" slave.pcm \"null\" } format S16_LE } }\n";
    setenv("HOME", dir.file("").c_str(), 1);
    snd_config_update_free_global(); // read the configuration again, with this ~/.asoundrc
    AudioEngine engine;
    engine.start(std::string("alsa:vorlin_s16"));
    const std::int64_t channels = engine.channelCount();
    ASSERT_GE(channels, 1);
    engine.mixer().play(sine(1000, 10.0), {{0, 0}}, 1.0f, 0.0, false, false);
    std::this_thread::sleep_for(400ms);
    engine.stop();
    std::ifstream in(raw, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
    const auto frames = static_cast<std::int64_t>(bytes.size() / 2) / channels;
    ASSERT_GT(frames, 9600);
    std::vector<float> first(static_cast<std::size_t>(frames));
    std::int16_t peak = 0;
    for (std::int64_t i = 0; i < frames; ++i) {
        std::int16_t v = 0;
        std::memcpy(&v, bytes.data() + (i * channels) * 2, 2);
        first[static_cast<std::size_t>(i)] = v / 32767.0f;
        peak = std::max<std::int16_t>(peak, static_cast<std::int16_t>(std::abs(v)));
    }
    // A 0.5 sine: 16384 at its peak, 1 kHz — read as floats it would be noise.
    EXPECT_NEAR(peak, 16384, 40);
    EXPECT_NEAR(frequencyOf(first, 2000, frames - 200, 48000), 1000.0, 1.0);
}

// The device watch runs for the whole show beside a JACK server that other programs use: it
// registers one client once (a client opened every 2 s is announced to all of them each time),
// and still hears of a new device and of the server's end within 2 s.
TEST(DeviceWatch, OneClientForTheWholeShowAndChangesHeardAtOnce) {
    JackServer server(2);
    ASSERT_TRUE(server.ready());
    JackRegistrations registrations;
    ASSERT_TRUE(registrations.connected());
    std::atomic<int> changes{0};
    auto watch = AudioDeviceList::observeChanges([&] { ++changes; });
    std::this_thread::sleep_for(6500ms); // three looks of the watch
    EXPECT_EQ(registrations.count(), 1); // its own client, once
    EXPECT_EQ(changes.load(), 0);

    // A device appears: a client with a physical playback port.
    jack_client_t* card = jack_client_open("fakecard", JackNoStartServer, nullptr);
    ASSERT_NE(card, nullptr);
    jack_port_register(card, "playback_1", JACK_DEFAULT_AUDIO_TYPE,
                       JackPortIsInput | JackPortIsPhysical, 0);
    const auto plugged = std::chrono::steady_clock::now();
    ASSERT_EQ(jack_activate(card), 0);
    EXPECT_TRUE(waitFor([&] { return changes.load() > 0; }, 3000ms));
    EXPECT_LT(std::chrono::steady_clock::now() - plugged, 2000ms);

    changes = 0;
    registrations.abandon(); // the clients of a dead server are not closed (libjack would crash)
    server.kill();
    EXPECT_TRUE(waitFor([&] { return changes.load() > 0; }, 3000ms));
}

} // namespace

#include "PipeWireRecorder.h"
#include "PipeWireSession.h"
#include "Sanitizer.h"
#include "device/PipeWireBackend.h"

namespace {

// Threads and resident kilobytes of this process, from the kernel.
std::pair<int, long> threadsAndResident() {
    std::ifstream status("/proc/self/status");
    int threads = 0;
    long resident = 0;
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("Threads:", 0) == 0)
            threads = std::stoi(line.substr(8));
        if (line.rfind("VmRSS:", 0) == 0)
            resident = std::stol(line.substr(6));
    }
    return {threads, resident};
}

// On a real PipeWire session: sinks with their own channels, the desktop's default followed when
// it changes, and fifty restarts in a row that leave no thread and no memory behind.
TEST(PipeWireDevice, SinksTheDefaultFollowedAndRestartsThatLeaveNothingBehind) {
    PipeWireSession session;
    if (!session.ready())
        GTEST_SKIP() << "no PipeWire session (scripts/setup installs pipewire and wireplumber)";
    session.use();
    const auto graph = PipeWireBackend::graph();
    ASSERT_TRUE(graph);
    EXPECT_EQ(graph->defaultSink, "vorlin-test-stereo");
    EXPECT_EQ(graph->rate, 48000.0);
    std::vector<AudioOutputDevice> devices;
    PipeWireBackend::addDevices(devices);
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[1].uid, "vorlin-test-8ch");
    EXPECT_EQ(devices[1].name, "Test eight channels");
    EXPECT_EQ(devices[1].channels, 8);

    AudioEngine engine;
    std::atomic<int> notices{0};
    engine.onConfigurationChange = [&] { ++notices; };
    engine.start(std::nullopt);
    EXPECT_EQ(engine.activeDevice(), "pipewire:vorlin-test-stereo");
    EXPECT_EQ(engine.channelCount(), 2);
    // The user picks another output in the desktop's settings: the engine is told, and a
    // restart lands there.
    ASSERT_EQ(std::system("pw-metadata 0 default.configured.audio.sink "
                          "'{\"name\":\"vorlin-test-8ch\"}' Spa:String:JSON >/dev/null"),
              0);
    ASSERT_TRUE(waitFor([&] { return notices > 0; }, 3000ms));
    engine.start(std::nullopt);
    EXPECT_EQ(engine.activeDevice(), "pipewire:vorlin-test-8ch");
    EXPECT_EQ(engine.channelCount(), 8);
    EXPECT_NE(engine.playingDescription().find("PipeWire: Test eight channels · 8 ch · 48 kHz"),
              std::string::npos)
        << engine.playingDescription();

    for (int warmUp = 0; warmUp < 3; ++warmUp)
        engine.start(std::string("pipewire:vorlin-test-stereo"));
    const auto before = threadsAndResident();
    for (int restart = 0; restart < 50; ++restart)
        engine.start(
            std::string(restart % 2 ? "pipewire:vorlin-test-stereo" : "pipewire:vorlin-test-8ch"));
    const auto after = threadsAndResident();
    EXPECT_EQ(after.first, before.first) << "threads";
    if (!kSanitized) { // the sanitizer keeps freed memory in quarantine
        EXPECT_LT(std::abs(after.second - before.second), 5 * 1024) << "kB resident";
    }
}

// The device list on a PipeWire desktop follows the registry: a sink that appears or goes, and
// the server ending and returning, are heard at once, not at the watch's next 2 s look.
TEST(DeviceWatch, PipeWireSinksComingAndGoingAreHeardAtOnce) {
    PipeWireSession session;
    if (!session.ready())
        GTEST_SKIP() << "no PipeWire session (scripts/setup installs pipewire and wireplumber)";
    session.use();
    std::atomic<int> changes{0};
    auto watch = AudioDeviceList::observeChanges([&] { ++changes; });
    std::this_thread::sleep_for(2500ms); // settled after its first looks
    changes = 0;
    const auto heardWithin = [&](const std::string& command) {
        changes = 0;
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        const bool heard = waitFor([&] { return changes.load() > 0; }, 3000ms);
        return heard ? std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - before)
                     : 9999ms;
    };
    EXPECT_LT(heardWithin("pw-cli create-node adapter '{ factory.name=support.null-audio-sink "
                          "node.name=vorlin-test-extra node.description=Extra "
                          "media.class=Audio/Sink object.linger=true audio.channels=2 "
                          "audio.position=[ FL FR ] }' >/dev/null"),
              700ms);
    const auto devices = AudioDeviceList::outputDevices();
    EXPECT_TRUE(std::ranges::any_of(
        devices, [](const AudioOutputDevice& d) { return d.uid == "pipewire:vorlin-test-extra"; }));
    // An engine playing into the sink that goes hears of it as a lost device at once.
    AudioEngine engine;
    std::atomic<int> lost{0};
    engine.onConfigurationChange = [&] { ++lost; };
    engine.start(std::string("pipewire:vorlin-test-extra"));
    EXPECT_EQ(engine.activeDevice(), "pipewire:vorlin-test-extra");
    EXPECT_LT(heardWithin("pw-cli destroy vorlin-test-extra >/dev/null"), 700ms);
    EXPECT_TRUE(waitFor([&] { return lost.load() > 0; }, 500ms)) << "the engine's sink went";
    changes = 0;
    const auto killed = std::chrono::steady_clock::now();
    session.kill();
    EXPECT_TRUE(waitFor([&] { return changes.load() > 0; }, 700ms))
        << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 killed)
               .count()
        << " ms";
}

// The same clock on PipeWire: the stream's time (CLOCK_MONOTONIC) plus its delay to the sink
// stamps each block, so a voice armed for a host time reaches the sink then. Measured on the
// sink's monitor, whose cycle times are the graph's own (not when a thread happened to run), so
// the check holds to a millisecond. Where the graph orders the recorder against the sink, the
// monitor shows a cycle's sound in that cycle or in the next: the same for all of one session.
TEST(DeviceClock, AVoiceArmedForAHostTimeReachesThePipeWireSinkThen) {
    PipeWireSession session;
    if (!session.ready())
        GTEST_SKIP() << "no PipeWire session (scripts/setup installs pipewire and wireplumber)";
    session.use();
    AudioEngine engine;
    engine.start(std::string("pipewire:vorlin-test-stereo"));
    auto* backend = dynamic_cast<PipeWireBackend*>(engine.backend());
    ASSERT_NE(backend, nullptr);
    PipeWireRecorder recorder("vorlin-test-stereo", 2);
    ASSERT_TRUE(recorder.connected());
    ASSERT_TRUE(waitFor([&] { return recorder.frames() > 9600 && backend->quantum() > 0; }));
    const double quantum = static_cast<double>(backend->quantum()) / backend->sampleRate();
    for (const double ahead : {0.05, 0.0123, 0.2}) {
        recorder.rearm();
        const auto id = engine.mixer().play(constantClip(0.5f, 48000), {{0, 0}}, 1, 0, false, true);
        const std::uint64_t start = HostTime::now() + HostTime::secondsToTicks(ahead);
        engine.mixer().setStart(id, start);
        ASSERT_TRUE(waitFor([&] { return recorder.firstSoundHostTime() != 0; }, 2000ms));
        const double delay = backend->latency() - quantum;
        const double expected = static_cast<double>(start) * 1e-9 - delay;
        double miss = static_cast<double>(recorder.firstSoundHostTime()) * 1e-9 - expected;
        if (miss > quantum / 2)
            miss -= quantum; // seen in the next cycle
        EXPECT_NEAR(miss, 0.0, 0.001) << "armed " << ahead << " s ahead; quantum " << quantum * 1000
                                      << " ms, delay " << delay * 1000 << " ms";
        engine.mixer().stop(id, 0.0);
        std::this_thread::sleep_for(100ms);
    }
}

} // namespace
