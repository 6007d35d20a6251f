// Hostile input against the program as it runs, from a fixed seed so that a crash can be
// replayed: OSC datagrams (mutated messages, bundles nested and lying about their sizes,
// floods) at the running window's OSC port, and mutated slide files through `vorlin deck`.
// Reported: what was sent, whether the program still answers and how fast, its CPU and
// memory; for slides, how each run ended. A crash or a hang is a failure, counted, never
// expected.
#include <benchmark/benchmark.h>
#include <chrono>
#include <random>
#include <signal.h>
#include <sys/resource.h>
#include <thread>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkDatagram>
#include <QPdfWriter>
#include <QProcess>
#include <QSettings>
#include <QUdpSocket>
#include <QtEndian>

#include "PdfFixture.h"
#include "Presentations.h"
#include "ProcessStats.h"
#include "QtBenchMain.h"
#include "TempDir.h"
#include "VirtualDisplay.h"
#include "remote/OscServer.h"

namespace {

using namespace std::chrono_literals;

constexpr unsigned kSeed = 20261124;

QByteArray bundleOf(const QList<QByteArray>& elements, bool lie, std::mt19937& random) {
    QByteArray bundle("#bundle\0\0\0\0\0\0\0\0\1", 16);
    for (const QByteArray& element : elements) {
        QByteArray size(4, '\0');
        const quint32 told = lie ? static_cast<quint32>(random()) : element.size();
        qToBigEndian<quint32>(told, size.data());
        bundle += size + element;
    }
    return bundle;
}

// One hostile datagram: a valid message of ours mutated, a bundle (nested, sometimes lying), or
// noise.
QByteArray hostileDatagram(std::mt19937& random) {
    static const QList<QByteArray> valid{
        OscServer::encode("/vorlin/key", {std::int64_t{0}, std::int64_t{1}}),
        OscServer::encode("/vorlin/master", {0.5}),
        OscServer::encode("/vorlin/page", {std::int64_t{0}}),
        OscServer::encode("/vorlin/cue/1/seek", {0.5}),
        OscServer::encode("/vorlin/subscribe", {}),
        OscServer::encode("/vorlin/stop", {}),
    };
    QByteArray datagram = valid[static_cast<int>(random() % valid.size())];
    switch (random() % 4) {
    case 0: // bytes flipped
        for (int n = 0; n < 1 + static_cast<int>(random() % 6); ++n)
            datagram[static_cast<int>(random() % datagram.size())] = static_cast<char>(random());
        break;
    case 1: // cut short
        datagram.truncate(static_cast<int>(random() % datagram.size()));
        break;
    case 2: { // a bundle, nested up to 12 deep, its sizes honest or not
        const int depth = static_cast<int>(random() % 12);
        for (int d = 0; d < depth; ++d)
            datagram = bundleOf({datagram, valid[d % valid.size()]}, random() % 3 == 0, random);
        break;
    }
    default: // noise of any length UDP carries
        datagram = QByteArray(static_cast<int>(random() % 60000), '\0');
        for (char& byte : datagram)
            byte = static_cast<char>(random());
    }
    return datagram;
}

// Sends /vorlin/subscribe and waits for the first state message: milliseconds, or -1.
double answerTime(quint16 port) {
    QUdpSocket client;
    client.bind(QHostAddress::LocalHost, 0);
    QElapsedTimer waited;
    waited.start();
    client.writeDatagram(OscServer::encode("/vorlin/subscribe", {}), QHostAddress::LocalHost, port);
    while (waited.elapsed() < 3000) {
        if (client.waitForReadyRead(100) && client.hasPendingDatagrams()) {
            const double ms = static_cast<double>(waited.nsecsElapsed()) / 1e6;
            client.writeDatagram(OscServer::encode("/vorlin/unsubscribe", {}),
                                 QHostAddress::LocalHost, port);
            return ms;
        }
    }
    return -1.0;
}

void BM_OscAgainstTheWindow(benchmark::State& state) {
    TempDir dir;
    const QString home = QString::fromStdString(dir.file("home"));
    QDir().mkpath(home + "/Vorlin");
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    const quint16 port = probe.localPort();
    probe.close();
    {
        QSettings settings(home + "/Vorlin/Vorlin.conf", QSettings::IniFormat);
        settings.setValue("pref.oscEnabled", true);
        settings.setValue("pref.oscPort", port);
    }
    VirtualDisplay display;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DISPLAY", display.name());
    env.insert("QT_QPA_PLATFORM", "xcb");
    for (const char* xdg : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR"})
        env.insert(xdg, home);
    env.insert("JACK_DEFAULT_SERVER", "vorlin-no-such-server");
    QProcess vorlin;
    vorlin.setProcessEnvironment(env);
    vorlin.start(QStringLiteral(VORLIN_EXECUTABLE), {});
    vorlin.waitForStarted();
    const auto pid = static_cast<pid_t>(vorlin.processId());
    double before = -1.0;
    for (int tries = 0; tries < 20 && before < 0.0; ++tries)
        before = answerTime(port); // up and listening
    std::mt19937 random(kSeed);
    QUdpSocket sender;
    std::int64_t sent = 0;
    double cpu = 0.0, peakMB = 0.0;
    for (auto _ : state) {
        const double cpuBefore = cpuSeconds(pid);
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (std::chrono::steady_clock::now() < end) {
            for (int n = 0; n < 500; ++n, ++sent)
                sender.writeDatagram(hostileDatagram(random), QHostAddress::LocalHost, port);
            peakMB = std::max(peakMB, residentMB(pid));
            std::this_thread::sleep_for(5ms);
        }
        cpu = cpuSeconds(pid) - cpuBefore;
    }
    const double after = answerTime(port);
    std::this_thread::sleep_for(2s);
    const double idleBefore = cpuSeconds(pid);
    std::this_thread::sleep_for(5s);
    const double idle = (cpuSeconds(pid) - idleBefore) / 5.0;
    const bool alive = vorlin.state() == QProcess::Running;
    state.counters["datagrams"] = static_cast<double>(sent);
    state.counters["alive"] = alive ? 1 : 0;
    state.counters["answer_ms_before"] = before;
    state.counters["answer_ms_after"] = after;
    state.counters["cpu_during_percent"] = 100.0 * cpu / 20.0;
    state.counters["cpu_after_percent"] = 100.0 * idle;
    state.counters["peak_rss_mb"] = peakMB;
    if (!alive || after < 0.0)
        state.SkipWithError("the window died or went deaf under hostile OSC");
    vorlin.terminate();
    if (!vorlin.waitForFinished(5000))
        vorlin.kill();
}
BENCHMARK(BM_OscAgainstTheWindow)->Iterations(1)->Unit(benchmark::kSecond);

void BM_SlideFilesThroughTheDeckCommand(benchmark::State& state) {
    TempDir dir;
    const QString home = QString::fromStdString(dir.file("home"));
    QDir().mkpath(home);
    // A real PDF and a real presentation, damaged a few bytes at a time.
    const QString pdf = QString::fromStdString(dir.file("base.pdf"));
    writePdf(pdf, {Qt::red, Qt::green, Qt::blue});
    const QString pptx = QString::fromStdString(dir.file("base.pptx"));
    Presentations::writeZip(
        pptx,
        {{"ppt/presentation.xml",
          R"(<?xml version="1.0"?><p:presentation xmlns:p="p" xmlns:r="r"><p:sldIdLst><p:sldId id="256" r:id="rId2"/></p:sldIdLst></p:presentation>)"},
         {"ppt/_rels/presentation.xml.rels",
          R"(<Relationships><Relationship Id="rId2" Type="t/slide" Target="slides/slide1.xml"/></Relationships>)"},
         {"ppt/slides/slide1.xml", R"(<p:sld xmlns:p="p" show="0"/>)"}});
    QList<std::pair<QByteArray, int>> originals; // bytes and how many damaged copies
    for (const auto& [path, copies] : {std::pair{pdf, 150}, std::pair{pptx, 20}}) {
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        originals.push_back({file.readAll(), copies});
    }
    std::mt19937 random(kSeed);
    int built = 0, refused = 0, crashed = 0;
    double slowest = 0.0;
    for (auto _ : state) {
        for (const auto& [original, copies] : originals)
            for (int n = 0; n < copies; ++n) {
                QByteArray damaged = original;
                for (int k = 0; k < 1 + static_cast<int>(random() % 20); ++k)
                    damaged[static_cast<int>(random() % damaged.size())] =
                        static_cast<char>(random());
                const QString file = QString::fromStdString(
                    dir.file(original.startsWith("%PDF") ? "damaged.pdf" : "damaged.pptx"));
                QFile out(file);
                out.open(QIODevice::WriteOnly | QIODevice::Truncate);
                out.write(damaged);
                out.close();
                QProcess deck;
                QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
                env.remove("DISPLAY");
                env.insert("XDG_DATA_HOME", home);
                deck.setProcessEnvironment(env);
                QElapsedTimer took;
                took.start();
                deck.start(QStringLiteral(VORLIN_EXECUTABLE), {"deck", "--force", file});
                const bool ended = deck.waitForFinished(60000);
                slowest = std::max(slowest, took.elapsed() / 1000.0);
                if (!ended) {
                    deck.kill();
                    deck.waitForFinished();
                    ++crashed;
                } else if (deck.exitStatus() != QProcess::NormalExit || deck.exitCode() > 1) {
                    ++crashed;
                } else {
                    (deck.exitCode() == 0 ? built : refused)++;
                }
            }
    }
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    state.counters["built"] = built;
    state.counters["refused"] = refused;
    state.counters["crashed_or_hung"] = crashed;
    state.counters["slowest_s"] = slowest;
    state.counters["peak_rss_mb"] = static_cast<double>(children.ru_maxrss) / 1024.0;
    if (crashed > 0)
        state.SkipWithError("a damaged slide file crashed or hung `vorlin deck`");
}
BENCHMARK(BM_SlideFilesThroughTheDeckCommand)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    return runQtBenchmarks(argc, argv);
}
