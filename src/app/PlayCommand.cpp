#include "app/PlayCommand.h"

#include <csignal>
#include <sys/eventfd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QFileInfo>
#include <QHostAddress>
#include <QSocketNotifier>
#include <QTextStream>
#include <QTimer>

#include "app/BackgroundInput.h"
#include "cue/AppModel.h"
#include "model/DocumentError.h"
#include "model/Prefs.h"
#include "remote/RemoteControl.h"

namespace {

const QString kUsage = QStringLiteral(
    "使い方: vorlin play SHOW.vorlin [--device UID] [--osc ポート]\n"
    "  ウィンドウなしでキーマップを出力デバイスで再生します（Ctrl+C で停止して終了）\n");

const QString kReady = QStringLiteral("準備ができました（キーマップの素材をすべて読み込みました）");

// Written by the signal handler, read on the main thread: the only thing a handler may do.
int g_signalled = -1;

void onSignal(int) {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(g_signalled, &one, sizeof one);
}

} // namespace

int runPlay(int& argc, char** argv, const QStringList& args) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Vorlin"));
    QCoreApplication::setApplicationName(QStringLiteral("Vorlin"));
    QTextStream err(stderr);
    QString show;
    std::optional<QString> device;
    int oscPort = 0;
    for (qsizetype i = 1; i < args.size(); ++i) {
        const QString& arg = args[i];
        if ((arg == "--device" || arg == "--osc") && i + 1 < args.size()) {
            const QString value = args[++i];
            if (arg == "--device") {
                device = value;
                continue;
            }
            bool ok = false;
            oscPort = value.toInt(&ok);
            if (!ok || oscPort <= 0 || oscPort > 65535) {
                err << "ポート番号が正しくありません: " << value << "\n" << kUsage;
                return 2;
            }
        } else if (!arg.startsWith('-') && show.isEmpty()) {
            show = arg;
        } else {
            err << "不明な引数です: " << arg << "\n" << kUsage;
            return 2;
        }
    }
    if (show.isEmpty()) {
        err << "キーマップを指定してください\n" << kUsage;
        return 2;
    }
    if (!QFileInfo(show).isFile()) {
        err << "キーマップが見つかりません: " << show << "\n";
        return 1;
    }

    Prefs::registerDefaults();
    AppModel model;
    QObject::connect(&model.status(), &StatusLine::changed, [&err](const QString& text) {
        if (!text.isEmpty())
            err << text << Qt::endl;
    });
    QObject::connect(&model, &AppModel::audioDeviceChanged, [&model, &err] {
        err << "出力: " << QString::fromStdString(model.audio().playingDescription())
            << (model.isOnFallback() ? QStringLiteral("（代わりの出力）") : QString()) << Qt::endl;
    });
    // The device first, so that the show's media decode at its rate; --device wins over the
    // show's own, so the device opens once.
    if (device)
        model.overrideOutputDevice(*device);
    model.start();
    try {
        model.open(QFileInfo(show).absoluteFilePath());
    } catch (const DocumentError& error) {
        err << "キーマップを開けません: " << error.message() << "\n";
        return 1;
    }

    RemoteControl remote(model);
    if (oscPort > 0) {
        if (const auto problem =
                remote.listenOn(QHostAddress::LocalHost, static_cast<quint16>(oscPort))) {
            err << *problem << "\n";
            return 1;
        }
        err << "OSC: 127.0.0.1:" << oscPort << Qt::endl;
    }
    // A desk (or the script that started us) may fire as soon as we listen, but a key whose
    // file is still loading only says so: say once when every file of the show is in.
    bool ready = false;
    const auto announceReady = [&model, &err, &ready] {
        if (ready || model.media().pending() > 0)
            return;
        ready = true;
        err << kReady << Qt::endl;
    };
    QObject readiness; // ends the connection before `ready` goes, the model's teardown aside
    QObject::connect(&model.media(), &MediaLoader::mediaChanged, &readiness, announceReady);
    announceReady();
    // No window is ever in front: background keys always count when they are switched on.
    BackgroundInput background(model, [] { return false; });
    if (Prefs::value(Prefs::kBackgroundInput, false).toBool())
        background.setEnabled(true);

    g_signalled = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    QSocketNotifier stopping(g_signalled, QSocketNotifier::Read);
    QObject::connect(&stopping, &QSocketNotifier::activated, [&model] {
        // Everything stops at once; the mixer gets a block to play the silence, then we end.
        model.stopAll(true);
        QTimer::singleShot(50, [] { QCoreApplication::exit(0); });
    });
    struct sigaction action {};
    action.sa_handler = &onSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    const int status = QCoreApplication::exec();
    ::close(g_signalled);
    return status;
}
