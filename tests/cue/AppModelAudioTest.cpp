#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

#include <QSemaphore>
#include <QThreadPool>

#include "JackRegistrations.h"
#include "JackServer.h"
#include "Wait.h"
#include "cue/AppModel.h"
#include "device/AudioDeviceList.h"

namespace {

constexpr KeyCode kA = 0;

// A key playing a 1 kHz sine at half scale on output 3.
void addToneKey(AppModel& model) {
    std::vector<float> x(48000 * 4);
    for (std::size_t i = 0; i < x.size(); ++i)
        x[i] = static_cast<float>(0.5 * std::sin(2 * M_PI * 1000.0 * i / 48000.0));
    KeyAssignment a("/show/tone.wav", 0);
    a.outputMap = "3";
    MediaInfo info;
    info.probe.hasAudio = true;
    info.clip = std::make_shared<const AudioClip>(std::vector<std::vector<float>>{x}, 48000.0);
    model.media().table()[a.path] = info;
    model.document().assignments[kA] = a;
}

// While the chosen JACK device is missing from a running server the model looks for it every
// second, and the output bar lists the devices; both must ask the device watch, not announce a
// client of their own to every client of the server each time.
TEST(ModelOnJack, WaitingForAMissingDeviceRegistersNoClientWithTheServer) {
    JackServer server(8);
    ASSERT_TRUE(server.ready());
    JackRegistrations registered;
    ASSERT_TRUE(registered.connected());

    AppModel model;
    model.setOutputDeviceUID(QString("jack:later"));
    model.start();
    EXPECT_EQ(model.audio().activeDevice(), "jack:system");
    ASSERT_TRUE(model.isOnFallback());
    Wait::pump(1500); // the watch's client and our own port have registered
    const int settled = registered.count();
    Wait::pump(3500);
    // The output bar's list comes from the watch too.
    ASSERT_TRUE(model.jackDevices());
    const auto listed = AudioDeviceList::outputDevices(model.jackDevices());
    EXPECT_TRUE(std::ranges::any_of(listed, [](const auto& d) { return d.uid == "jack:system"; }));
    Wait::pump(100);
    EXPECT_EQ(registered.count(), settled) << "clients announced while waiting";
    EXPECT_TRUE(model.isOnFallback());
}

// Nothing running, meters at rest: the tick only looks four times a second. A key brings the
// 30 Hz back at once, and it stays until the cue has ended and the meters have fallen.
TEST(ModelOnJack, AnIdleShowTicksSlowlyAndAKeyBringsTheFullRateBack) {
    JackServer server(8);
    ASSERT_TRUE(server.ready());
    AppModel model;
    addToneKey(model);
    model.document().assignments[kA].fadeOut = 0.0;
    model.start();
    ASSERT_TRUE(
        Wait::until([&] { return model.tickInterval() == AppModel::kIdleTickInterval; }, 1000));
    model.handleKey(kA, true, false, false);
    EXPECT_EQ(model.tickInterval(), AppModel::kTickInterval);
    Wait::pump(300);
    EXPECT_EQ(model.tickInterval(), AppModel::kTickInterval); // playing: meters move
    EXPECT_GT(model.live().meters().at(2), 0.1f);
    model.handleKey(kA, true, false, false); // toggled off
    EXPECT_TRUE(
        Wait::until([&] { return model.tickInterval() == AppModel::kIdleTickInterval; }, 3000));
    EXPECT_LT(model.live().meters().at(2), 1e-3f); // fallen to rest first
    model.setToneChannel(0);
    EXPECT_EQ(model.tickInterval(), AppModel::kTickInterval);
}

TEST(ModelDevices, AStoredDeviceThatIsGoneFallsBackWithAMessage) {
    setenv("JACK_DEFAULT_SERVER", "vorlin-no-such-server", 1);
    AppModel model;
    model.setMasterVolume(0.5);
    model.setMutedOutputs({3});
    model.setOutputDeviceUID(QString("alsa:vorlin_unplugged_card"));
    EXPECT_TRUE(model.status().text().startsWith(
        "オーディオ出力を開始できません: 出力デバイスを設定できません（ALSA: "));
    EXPECT_TRUE(model.audio().isRunning());
    EXPECT_GE(model.cueEngine().outputChannelCount(), 1);

    // Closed while it looks for the device again: the answer that comes afterwards finds no
    // model and does nothing. The pool's threads are held so the look cannot end before.
    QSemaphore hold;
    QThreadPool* pool = QThreadPool::globalInstance();
    const int threads = pool->maxThreadCount();
    for (int t = 0; t < threads; ++t)
        pool->start([&] { hold.acquire(); });
    {
        AppModel closing;
        closing.setOutputDeviceUID(QString("alsa:vorlin_unplugged_card"));
        ASSERT_TRUE(closing.isOnFallback());
        Wait::pump(1500); // it looks every second: one look is queued
    }
    hold.release(threads);
    pool->waitForDone();
    Wait::pump(100);
}

} // namespace
