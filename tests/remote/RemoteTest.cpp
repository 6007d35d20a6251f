#include <gtest/gtest.h>
#include <lo/lo.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <QtEndian>

#include "CueStage.h"
#include "model/Prefs.h"
#include "remote/RemoteControl.h"

namespace {

constexpr KeyCode kA = 0, kS = 1;

// A free UDP port on 127.0.0.1.
int freePort() {
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    return probe.localPort();
}

// Runs the event loop until `done` holds or `limit` ms pass.
bool until(const std::function<bool()>& done, qint64 limit = 2000) {
    QElapsedTimer waited;
    waited.start();
    while (!done() && waited.elapsed() < limit)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    return done();
}

// A show listening for OSC as the program does (RemoteControl from the preferences), and a
// liblo client that talks to it.
class Remote : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        port = freePort();
        Prefs::setValue(RemoteControl::kEnabled, true);
        Prefs::setValue(RemoteControl::kPort, port);
        Prefs::setValue(RemoteControl::kAllowedSenders, QString());
        stage.addKey(kA, "a", 0.5f, "1");
        stage.addKey(kS, "s", 0.25f, "2");
        ASSERT_FALSE(remote.configure());
        target = lo_address_new("127.0.0.1", std::to_string(port).c_str());
    }
    void TearDown() override { lo_address_free(target); }

    CueStage stage;
    RemoteControl remote{stage.model};
    int port = 0;
    lo_address target = nullptr;
};

TEST_F(Remote, AKeyFiredByOscSoundsExactlyAsFromTheKeyboard) {
    CueStage keyboard;
    keyboard.addKey(kA, "a", 0.5f, "1").fadeIn = 0.05;
    stage.doc().assignments[kA].fadeIn = 0.05;
    keyboard.run(0.01);
    stage.run(0.01);
    keyboard.press(kA);
    lo_send(target, "/vorlin/key", "ii", 0, 1);
    ASSERT_TRUE(until([&] { return stage.model.isRunning(kA); }));
    const auto byKeyboard = keyboard.run(0.5);
    const auto byOsc = stage.run(0.5);
    EXPECT_EQ(byOsc, byKeyboard);
    EXPECT_EQ(remote.osc().counts().received, 1);

    // By its label, and up again for a hold key.
    stage.doc().assignments[kS].mode = KeyMode::hold;
    lo_send(target, "/vorlin/key/S", "i", 1);
    ASSERT_TRUE(until([&] { return stage.model.isRunning(kS); }));
    lo_send(target, "/vorlin/key/s", "i", 0);
    EXPECT_TRUE(until([&] { return !stage.model.isRunning(kS); }));
}

TEST_F(Remote, PagesStopsPanicAndMasterAsTheWindowDoesThem) {
    stage.model.editor().newPage(false);
    stage.doc().pages[1].name = QStringLiteral("第 2 幕");
    lo_send(target, "/vorlin/page", "s", "第 2 幕");
    EXPECT_TRUE(until([&] { return stage.doc().currentPage == 1; }));
    lo_send(target, "/vorlin/page", "i", 0);
    EXPECT_TRUE(until([&] { return stage.doc().currentPage == 0; }));
    lo_send(target, "/vorlin/master", "f", 0.25f);
    EXPECT_TRUE(until([&] { return stage.model.masterVolume() == 0.25; }));

    stage.press(kA);
    stage.run(0.1);
    const std::int64_t id = stage.engine().cues().at(0)->id;
    lo_send(target, ("/vorlin/cue/" + std::to_string(id) + "/seek").c_str(), "f", 0.5f);
    EXPECT_TRUE(until([&] {
        stage.run(0.04);
        return stage.model.live().cues().at(0).position.value_or(0.0) > 0.45;
    }));
    lo_send(target, "/vorlin/stop", "");
    EXPECT_TRUE(until([&] { return !stage.model.isRunning(kA); }));
    EXPECT_TRUE(stage.engine().cues().at(0)->stopping); // fading with the stop-all fade
    lo_send(target, "/vorlin/panic", "");
    EXPECT_TRUE(until([&] {
        stage.run(0.04);
        return stage.engine().cues().empty();
    }));
}

TEST_F(Remote, ASubscriberHearsTheStateUntilItUnsubscribes) {
    lo_server client = lo_server_new("0", nullptr);
    std::vector<std::string> heard;
    lo_server_add_method(
        client, nullptr, nullptr,
        [](const char* path, const char*, lo_arg**, int, lo_message, void* data) {
            static_cast<std::vector<std::string>*>(data)->push_back(path);
            return 0;
        },
        &heard);
    auto listen = [&] {
        until(
            [&] {
                while (lo_server_recv_noblock(client, 0) > 0) {
                }
                return false;
            },
            300);
    };
    lo_send_from(target, client, LO_TT_IMMEDIATE, "/vorlin/subscribe", "");
    listen();
    ASSERT_FALSE(heard.empty());
    EXPECT_EQ(heard.front(), "/vorlin/state/page");
    heard.clear();
    stage.press(kA);
    stage.run(0.1);
    listen();
    EXPECT_NE(std::find(heard.begin(), heard.end(), "/vorlin/state/cue"), heard.end());
    EXPECT_NE(std::find(heard.begin(), heard.end(), "/vorlin/state/key"), heard.end());

    lo_send_from(target, client, LO_TT_IMMEDIATE, "/vorlin/unsubscribe", "");
    listen();
    heard.clear();
    stage.press(kS);
    stage.run(0.1);
    listen();
    EXPECT_TRUE(heard.empty());
    lo_server_free(client);
}

TEST_F(Remote, WhatItShouldNotActOnIsCountedAndTheShowGoesOn) {
    stage.press(kA);
    // A sender not on the list.
    Prefs::setValue(RemoteControl::kAllowedSenders, "10.1.2.3, 10.1.2.4");
    ASSERT_FALSE(remote.configure());
    lo_send(target, "/vorlin/panic", "");
    ASSERT_TRUE(until([&] { return remote.osc().counts().refused == 1; }));
    EXPECT_EQ(
        stage.model.status().text(),
        "リモート入力を受け付けませんでした（許可していない送り手です: 127.0.0.1。これまでに 1 "
        "件）");
    Prefs::setValue(RemoteControl::kAllowedSenders, "127.0.0.1");
    ASSERT_FALSE(remote.configure());

    // Wrong types, an unknown address, a bundle that lies about its size, one nested too deep.
    lo_send(target, "/vorlin/key", "si", "A", 1);
    lo_send(target, "/vorlin/master", "f", 7.0f);
    lo_send(target, "/vorlin/explode", "");
    QUdpSocket raw;
    QByteArray lying("#bundle\0\0\0\0\0\0\0\0\1\x7f\xff\xff\xff", 20);
    raw.writeDatagram(lying + QByteArray(60000, 'x'), QHostAddress::LocalHost, port);
    QByteArray nested = OscServer::encode("/vorlin/panic", {});
    for (int depth = 0; depth < 10; ++depth) {
        QByteArray size(4, '\0');
        qToBigEndian<quint32>(static_cast<quint32>(nested.size()), size.data());
        nested = QByteArray("#bundle\0\0\0\0\0\0\0\0\1", 16) + size + nested;
    }
    raw.writeDatagram(nested, QHostAddress::LocalHost, port);
    ASSERT_TRUE(until([&] { return remote.osc().counts().malformed == 5; }));
    EXPECT_TRUE(stage.model.isRunning(kA));
    EXPECT_EQ(stage.model.masterVolume(), 1.0);

    // A flood: 10,000 messages as fast as they go. The tick's timer keeps its pace.
    QTimer tick;
    tick.setInterval(33);
    QElapsedTimer since;
    qint64 longest = 0;
    QObject::connect(&tick, &QTimer::timeout,
                     [&] { longest = std::max(longest, since.restart()); });
    since.start();
    tick.start();
    for (int i = 0; i < 10000; ++i)
        lo_send(target, "/vorlin/master", "f", 0.5f);
    until([] { return false; }, 1000);
    EXPECT_LT(longest, 150);
    EXPECT_GT(remote.osc().counts().received, 100);
    EXPECT_EQ(stage.model.masterVolume(), 0.5);
    EXPECT_TRUE(stage.model.isRunning(kA));
}

} // namespace
