#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/prctl.h>
#include <thread>

#include <QElapsedTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QUdpSocket>

#include "PipeWireRecorder.h"
#include "PipeWireSession.h"
#include "ProcessStats.h"
#include "TempDir.h"
#include "audio/WavWriter.h"
#include "cue/AppModel.h"
#include "remote/OscServer.h"

namespace {

using namespace std::chrono_literals;

constexpr int kChannels = 8;
double toneOf(int channel) {
    return 300.0 + 200.0 * channel;
}

// Power of `frequency` in `samples` (Goertzel), as a fraction of a full-scale sine's.
double power(const std::vector<float>& samples, std::size_t from, std::size_t count,
             double frequency) {
    const double w = 2.0 * M_PI * frequency / 48000.0, k = 2.0 * std::cos(w);
    double s1 = 0.0, s2 = 0.0;
    for (std::size_t i = from; i < from + count && i < samples.size(); ++i) {
        const double s = samples[i] + k * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    return (s1 * s1 + s2 * s2 - k * s1 * s2) / (count * count / 4.0);
}

// `vorlin play` as typed, on a real PipeWire session: started on a show whose key loops an
// eight-channel file (channel k its own tone), fired by OSC.
class Play : public ::testing::Test {
protected:
    void SetUp() override {
        if (!session.ready())
            GTEST_SKIP() << "no PipeWire session (scripts/setup installs pipewire and wireplumber)";
        session.use();
        std::vector<std::vector<float>> tones(kChannels, std::vector<float>(48000));
        std::vector<const float*> channels;
        for (int c = 0; c < kChannels; ++c) {
            for (std::size_t i = 0; i < tones[c].size(); ++i)
                tones[c][i] =
                    0.25f * static_cast<float>(std::sin(2.0 * M_PI * toneOf(c) * i / 48000.0));
            channels.push_back(tones[c].data());
        }
        WavWriter wav;
        ASSERT_TRUE(wav.open(dir.file("eight.wav"), kChannels, 48000));
        ASSERT_TRUE(wav.write(channels.data(), 48000));
        ASSERT_TRUE(wav.finish());
        AppModel model;
        model.setOffline(true);
        KeyAssignment a(QString::fromStdString(dir.file("eight.wav")), 0);
        a.loop = true;
        model.document().assignments[0] = a;
        show = QString::fromStdString(dir.file("show.vorlin"));
        model.save(show);
        QUdpSocket probe;
        probe.bind(QHostAddress::LocalHost, 0);
        port = probe.localPort();
    }
    void TearDown() override {
        if (player.state() != QProcess::NotRunning) {
            player.kill();
            player.waitForFinished();
        }
    }

    // Starts `vorlin play` with no display (through `wrapper` when given); true once it
    // listens and its file has loaded.
    bool start(const QStringList& more, const QString& wrapper = {}) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            env.remove(QString::fromLatin1(variable));
        player.setProcessEnvironment(env);
        // Gone with the test, however the test ends.
        player.setChildProcessModifier([] { prctl(PR_SET_PDEATHSIG, SIGKILL); });
        QStringList command{QStringLiteral(VORLIN_EXECUTABLE), "play", show, "--osc",
                            QString::number(port)};
        if (!wrapper.isEmpty())
            command.prepend(wrapper);
        const QString program = command.takeFirst();
        player.setReadChannel(QProcess::StandardError); // said() wakes on each line
        player.start(program, command + more);
        return said("OSC: 127.0.0.1") && said("準備ができました");
    }
    // Waits for `text` on the player's stderr.
    bool said(const QString& text, int ms = 10000) {
        QElapsedTimer waited;
        waited.start();
        while (!err.contains(text) && waited.elapsed() < ms) {
            player.waitForReadyRead(100);
            err += QString::fromUtf8(player.readAllStandardError());
        }
        return err.contains(text);
    }
    void press(const QByteArray& address, int value) {
        QUdpSocket desk;
        EXPECT_GT(desk.writeDatagram(OscServer::encode(address, {std::int64_t{value}}),
                                     QHostAddress::LocalHost, port),
                  0)
            << desk.errorString().toStdString();
    }
    // Ctrl+C: stops and exits 0.
    void interrupt() {
        ::kill(static_cast<pid_t>(player.processId()), SIGINT);
        ASSERT_TRUE(player.waitForFinished(5000));
        EXPECT_EQ(player.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(player.exitCode(), 0) << err.toStdString();
    }
    // For each channel of the sink, the strongest of the eight tones over the last half second
    // (-1 when nothing sounds).
    static std::vector<int> heard(const PipeWireRecorder& recorder) {
        std::vector<int> strongest;
        for (const auto& channel : recorder.last(24000)) {
            int best = -1;
            double bestPower = 1e-4; // -40 dB of a full-scale sine
            for (int c = 0; c < kChannels; ++c) {
                const double p = power(channel, 0, 24000, toneOf(c));
                if (p > bestPower) {
                    bestPower = p;
                    best = c;
                }
            }
            strongest.push_back(best);
        }
        return strongest;
    }
    // Listens to the 8-channel sink's monitor until `wanted` holds for what it hears or `ms`
    // pass (the session manager links a new stream, and this recorder, in its own time: slow on
    // a loaded machine). Says what the graph looked like when the sound never came.
    std::vector<int> listen(const std::function<bool(const std::vector<int>&)>& wanted, int ms) {
        PipeWireRecorder recorder("vorlin-test-8ch", kChannels);
        QElapsedTimer waited;
        waited.start();
        std::vector<int> tones;
        while (!wanted(tones = heard(recorder)) && waited.elapsed() < ms)
            std::this_thread::sleep_for(100ms);
        if (!wanted(tones)) {
            err += QString::fromUtf8(player.readAllStandardError());
            std::printf("the player said:\n%s\nrecorded %lld frames; the links:\n",
                        err.toStdString().c_str(), static_cast<long long>(recorder.frames()));
            std::fflush(stdout);
            std::system("pw-link --links; pw-dump | grep -E "
                        "'\"(state|error|node.name|link.output.node|link.input.node)\"'");
        }
        return tones;
    }

    PipeWireSession session;
    TempDir dir;
    QString show, err;
    quint16 port = 0;
    QProcess player;
};

TEST_F(Play, EveryChannelReachesItsOwnSpeakerOfAnEightChannelSink) {
    ASSERT_TRUE(start({"--device", "pipewire:vorlin-test-8ch"})) << err.toStdString();
    EXPECT_TRUE(said("出力: PipeWire: Test eight channels · 8 ch · 48 kHz")) << err.toStdString();
    press("/vorlin/key", 0); // a wrong argument count is refused and said, nothing plays
    press("/vorlin/key/A", 1);
    const std::vector<int> inOrder{0, 1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(listen([&](const std::vector<int>& tones) { return tones == inOrder; }, 8000),
              inOrder);
    interrupt();
}

// The server killed mid-loop: the player goes on on the null device and says so, stays idle and
// bounded while it waits, and the sound comes back by itself once the server does. Natively,
// and on the ALSA path through PipeWire's plugin, whose writes all fail once the server is gone
// while its recovery says it succeeded.
TEST_F(Play, ASoundServerThatDiesAndReturnsIsSurvived) {
    struct Path {
        QString device, backAgain;
    };
    std::vector<Path> paths{{"pipewire:vorlin-test-8ch", "出力: PipeWire: Test eight channels"}};
    if (session.hasAlsaPlugin())
        paths.push_back({"alsa:vorlin_pipewire", "出力: ALSA: "});
    else
        std::printf("PipeWire's ALSA plugin is missing (scripts/setup fetches it): native only\n");
    for (const Path& path : paths) {
        SCOPED_TRACE(path.device.toStdString());
        ASSERT_TRUE(start({"--device", path.device})) << err.toStdString();
        ASSERT_TRUE(said(path.backAgain)) << err.toStdString();
        press("/vorlin/key/A", 1);
        std::this_thread::sleep_for(500ms);
        const auto pid = static_cast<pid_t>(player.processId());
        const double residentBefore = residentMB(pid);
        err.clear();
        session.kill();
        EXPECT_TRUE(said("出力: 出力なし（無音）", 2000)) << err.toStdString();
        const double before = cpuSeconds(pid);
        std::this_thread::sleep_for(2s);
        EXPECT_LT(cpuSeconds(pid) - before, 0.1) << "seconds of CPU while waiting 2 s";
        EXPECT_LT(residentMB(pid) - residentBefore, 20.0) << "MB more while waiting";
        ASSERT_TRUE(session.restart());
        err.clear();
        EXPECT_TRUE(said(path.backAgain, 4000)) << err.toStdString();
        const auto wanted = [&](const std::vector<int>& tones) {
            return path.device.startsWith("pipewire:")
                       ? tones == std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}
                       // as many channels as the server's default output has, the rest folded in
                       : std::ranges::any_of(tones, [](int tone) { return tone >= 0; });
        };
        const std::vector<int> heardTones = listen(wanted, 10000);
        interrupt();
        EXPECT_TRUE(wanted(heardTones)) << ::testing::PrintToString(heardTones);
        err.clear();
    }
}

// Through PipeWire's JACK with the graph at 44.1 kHz: its libjack reports one buffer size before
// activation and another in the first cycles. The client starts once and stays.
TEST_F(Play, PipeWiresJackAt44100StartsOnceAndStays) {
    if (QStandardPaths::findExecutable("pw-jack").isEmpty())
        GTEST_SKIP() << "pw-jack is not installed (scripts/setup installs pipewire-jack)";
    ASSERT_EQ(
        QProcess::execute("pw-metadata", {"-n", "settings", "0", "clock.force-rate", "44100"}), 0);
    ASSERT_TRUE(start({"--device", "jack:"}, "pw-jack")) << err.toStdString();
    press("/vorlin/key/A", 1);
    std::this_thread::sleep_for(3s);
    err += QString::fromUtf8(player.readAllStandardError());
    EXPECT_EQ(err.count("出力: "), 1) << err.toStdString();
    EXPECT_TRUE(err.contains("出力: JACK: ")) << err.toStdString();
    EXPECT_TRUE(err.contains("44.1 kHz")) << err.toStdString();
    interrupt();
}

} // namespace
