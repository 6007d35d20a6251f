#include "cli/Commands.h"

#include <cmath>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

#include "audio/WavWriter.h"
#include "cli/EventScript.h"
#include "cli/ShowRenderer.h"
#include "deck/DeckBuilder.h"
#include "deck/DeckError.h"
#include "device/AudioDeviceList.h"
#include "media/AudioLoader.h"
#include "model/BuildInfo.h"
#include "model/DocumentError.h"

namespace {

const QString kUsage = QStringLiteral(
    "使い方:\n"
    "  vorlin [SHOW.vorlin]   ウィンドウを開きます（画面が必要です）\n"
    "  vorlin play SHOW.vorlin [--device UID] [--osc ポート]\n"
    "                         ウィンドウなしでキーマップを出力デバイスで再生します\n"
    "                         （OSC は 127.0.0.1 で受けます。Ctrl+C で停止して終了）\n"
    "  vorlin devices         出力デバイスを JSON で表示します\n"
    "  vorlin probe FILE…     メディアファイルの情報を JSON で表示します\n"
    "  vorlin render SHOW.vorlin --events EVENTS.txt --out OUT.wav\n"
    "         [--rate 48000] [--channels 8] [--block 256] [--seconds S] [--allow-long]\n"
    "         [--frames DIR [--fps 30] [--size 640x360] [--output window|画面名]]\n"
    "         [--device-ppm P]\n"
    "                         キーマップを画面なしで再生し、全出力を WAV に書き出します\n"
    "                         （--frames: 映像を 1 コマずつ PNG で書き出します）\n"
    "  vorlin deck FILE [--force]\n"
    "                         スライド（PDF・PowerPoint・Keynote・ODP）を展開し（済んでいれば\n"
    "                         再利用し）、一覧を JSON で\n"
    "                         表示します（--force: 作り直します）\n"
    "  vorlin --version       版とビルド番号を表示します\n"
    "  vorlin help            この説明を表示します\n");

// The longest `render` writes without --allow-long: a whole show day.
constexpr double kLongestRender = 24.0 * 3600.0;

const QStringList kCommands{"devices", "probe", "render",    "deck",   "help",
                            "--help",  "-h",    "--version", "version"};

QJsonObject probeJson(const QString& file, const MediaProbe& probe) {
    return QJsonObject{
        {"file", file},
        {"hasAudio", probe.hasAudio},
        {"hasVideo", probe.hasVideo},
        {"videoSize", QJsonObject{{"width", probe.videoWidth}, {"height", probe.videoHeight}}},
        {"duration", probe.duration},
        {"sourceChannels", static_cast<qint64>(probe.sourceChannels)},
        {"audioTracks", static_cast<qint64>(probe.audioTracks)},
        {"sourceSampleRate", probe.sourceSampleRate},
        {"fileSize", static_cast<qint64>(probe.fileSize)},
    };
}

} // namespace

namespace Commands {

QString versionText() {
    return QStringLiteral("Vorlin %1（ビルド %2）").arg(BuildInfo::kVersion).arg(BuildInfo::kBuild);
}

bool isCommand(const QStringList& args) {
    return !args.isEmpty() && kCommands.contains(args.first());
}

std::optional<QString> refuseWindowArguments(const QStringList& args) {
    if (args.isEmpty() || args.first().startsWith(QLatin1Char('-')))
        return std::nullopt; // options are Qt's (-platform, -style, …)
    const QString& first = args.first();
    const QFileInfo info(first);
    if (info.isFile())
        return std::nullopt;
    // A bare word is a misspelt command far more often than a show file in the current folder.
    if (!first.contains(QLatin1Char('/')) && !first.contains(QLatin1Char('.')))
        return QStringLiteral("不明なコマンドです: %1\n").arg(first) + kUsage;
    if (info.exists())
        return QStringLiteral("キーマップではありません: %1\n").arg(first);
    return QStringLiteral("キーマップが見つかりません: %1\n").arg(first);
}

std::optional<QString> missingDisplay(const QStringList& args) {
    for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        if (!qEnvironmentVariableIsEmpty(variable))
            return std::nullopt;
    if (args.contains(QStringLiteral("-platform")) || args.contains(QStringLiteral("--platform")))
        return std::nullopt;
    return QStringLiteral("画面に接続できないため、ウィンドウを開けません（DISPLAY も "
                          "WAYLAND_DISPLAY も設定されていません）。\n"
                          "画面なしで使えるコマンドは「vorlin help」で表示できます。\n");
}

int run(const QStringList& args, QTextStream& out, QTextStream& err) {
    const QString command = args.value(0);
    if (command == "probe")
        return probe(args.mid(1), out, err);
    if (command == "devices")
        return devices(out);
    if (command == "render")
        return render(args.mid(1), out, err);
    if (command == "deck")
        return deck(args.mid(1), out, err);
    if (command == "--version" || command == "version") {
        out << versionText() << "\n";
        return 0;
    }
    if (command == "help" || command == "--help" || command == "-h") {
        out << kUsage;
        return 0;
    }
    err << "不明なコマンドです: " << command << "\n" << kUsage;
    return 2;
}

int devices(QTextStream& out) {
    QJsonArray list;
    for (const AudioOutputDevice& device : AudioDeviceList::outputDevices())
        list.append(QJsonObject{{"uid", QString::fromStdString(device.uid)},
                                {"name", QString::fromStdString(device.name)},
                                {"channels", static_cast<qint64>(device.channels)}});
    out << QJsonDocument(list).toJson(QJsonDocument::Indented);
    return 0;
}

// "640x360": a picture size of 16…7680 × 16…4320 pixels.
QSize parseSize(const QString& text, bool& ok) {
    const QStringList parts = text.split(QLatin1Char('x'));
    bool wide = false, high = false;
    const QSize size =
        parts.size() == 2 ? QSize(parts[0].toInt(&wide), parts[1].toInt(&high)) : QSize();
    ok = wide && high && size.width() >= 16 && size.width() <= 7680 && size.height() >= 16 &&
         size.height() <= 4320;
    return size;
}

int render(const QStringList& args, QTextStream& out, QTextStream& err) {
    QString show, events, output;
    int rate = 48000, channels = 8;
    std::int64_t block = 256;
    std::optional<double> seconds;
    bool allowLong = false;
    std::optional<FrameOptions> frames;
    double fps = 30.0;
    QSize size(640, 360);
    std::optional<QString> screen;
    double ppm = 0.0;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& arg = args[i];
        if (arg == "--allow-long") {
            allowLong = true;
            continue;
        }
        const QString value = args.value(i + 1);
        bool ok = true;
        if (arg == "--events")
            events = value;
        else if (arg == "--out")
            output = value;
        else if (arg == "--rate")
            rate = value.toInt(&ok);
        else if (arg == "--channels")
            channels = value.toInt(&ok);
        else if (arg == "--block")
            block = value.toLongLong(&ok);
        else if (arg == "--seconds")
            seconds = value.toDouble(&ok);
        else if (arg == "--frames") {
            frames.emplace();
            frames->folder = value;
        } else if (arg == "--fps")
            fps = value.toDouble(&ok);
        else if (arg == "--size")
            size = parseSize(value, ok);
        else if (arg == "--output")
            screen = value;
        else if (arg == "--device-ppm")
            ppm = value.toDouble(&ok);
        else if (show.isEmpty() && !arg.startsWith("--")) {
            show = arg;
            continue;
        } else {
            err << "不明な引数です: " << arg << "\n" << kUsage;
            return 2;
        }
        ++i;
        if (!ok || value.isEmpty() || rate < 8000 || rate > 384000 || channels < 1 ||
            channels > 64 || block < 1 || block > 65536 ||
            (seconds && !(std::isfinite(*seconds) && *seconds >= 0)) ||
            !(fps >= 1.0 && fps <= 240.0) || !(ppm >= -1000.0 && ppm <= 1000.0)) {
            err << "引数の値が正しくありません: " << arg << " " << value << "\n";
            return 2;
        }
    }
    if (show.isEmpty() || events.isEmpty() || output.isEmpty()) {
        err << kUsage;
        return 2;
    }
    if (frames) {
        frames->fps = fps;
        frames->size = size;
        frames->output = screen;
        if (!QDir().mkpath(frames->folder)) {
            err << "コマ画像のフォルダを作れません: " << frames->folder << "\n";
            return 1;
        }
    } else if (fps != 30.0 || size != QSize(640, 360) || screen) {
        err << "--fps、--size、--output は --frames と一緒に指定してください\n";
        return 2;
    }
    QFile eventFile(events);
    if (!eventFile.open(QIODevice::ReadOnly)) {
        err << "イベントファイルを読めません: " << events << "\n";
        return 1;
    }
    std::vector<ScriptEvent> script;
    try {
        script = EventScript::parse(QString::fromUtf8(eventFile.readAll()));
    } catch (const EventScriptError& error) {
        err << QString::fromStdString(error.what()) << "\n";
        return 2;
    }
    const double end = seconds.value_or((script.empty() ? 0.0 : script.back().seconds) + 2.0);
    // Every second of output is rate × channels × 4 bytes on disk: a typo must not fill it.
    if (end > kLongestRender && !allowLong) {
        err << QStringLiteral("書き出す長さが %1 時間を超えます（%2 秒）。本当に必要なら "
                              "--allow-long を付けてください\n")
                   .arg(kLongestRender / 3600.0)
                   .arg(end);
        return 2;
    }
    ShowRenderer renderer(rate, channels, block, ppm);
    try {
        renderer.open(show);
    } catch (const DocumentError& error) {
        err << "キーマップを開けません: " << error.message() << "\n";
        return 1;
    }
    for (const QString& problem : renderer.mediaProblems())
        err << problem << "\n";
    WavWriter wav;
    if (!wav.open(QFile::encodeName(output).toStdString(), channels, rate)) {
        err << "出力ファイルを書けません: " << output << "\n";
        return 1;
    }
    if (!renderer.run(script, end, wav, frames ? &*frames : nullptr) || !wav.finish()) {
        err << "出力ファイルを書けません: " << output << "\n";
        return 1;
    }
    for (const QString& problem : renderer.eventProblems())
        err << problem << "\n";
    out.flush();
    return 0;
}

int probe(const QStringList& files, QTextStream& out, QTextStream& err) {
    if (files.isEmpty()) {
        err << "ファイルを指定してください\n" << kUsage;
        return 2;
    }
    QJsonArray results;
    int status = 0;
    for (const QString& file : files) {
        const QFileInfo info(file);
        // A FIFO or a device is not probed at all: its first read could block for ever.
        const bool readable = info.isFile() && info.isReadable();
        const MediaProbe probe =
            readable ? AudioLoader::probe(info.absoluteFilePath().toStdString()) : MediaProbe{};
        QJsonObject entry = probeJson(info.absoluteFilePath(), probe);
        if (!readable) {
            entry["error"] = QStringLiteral("ファイルを読めません");
            err << "ファイルを読めません: " << file << "\n";
            status = 1;
        } else if (!probe.hasAudio && !probe.hasVideo) {
            entry["error"] = QStringLiteral("メディアファイルとして読めません");
            status = 1;
        }
        results.append(entry);
    }
    out << QJsonDocument(results).toJson(QJsonDocument::Indented);
    return status;
}

int deck(const QStringList& args, QTextStream& out, QTextStream& err) {
    const bool force = args.contains(QStringLiteral("--force"));
    QStringList files = args;
    files.removeAll(QStringLiteral("--force"));
    if (files.size() != 1 || files.first().startsWith('-')) {
        err << "スライドのファイルを 1 つ指定してください\n" << kUsage;
        return 2;
    }
    const QFileInfo source(files.first());
    if (!source.isFile()) {
        err << "ファイルが見つかりません: " << files.first() << "\n";
        return 1;
    }
    if (!DeckBuilder::isSlideFile(source.fileName())) {
        err << "スライドのファイルではありません: " << files.first() << "\n";
        return 2;
    }
    try {
        const auto built =
            DeckBuilder::buildSlides(source.absoluteFilePath(), force, [&err](const QString& text) {
                err << text << "\n";
                err.flush();
            });
        out << QJsonDocument(
                   QJsonObject{{"folder", built->folder}, {"manifest", built->manifest.toJson()}})
                   .toJson(QJsonDocument::Indented);
        return 0;
    } catch (const DeckError& error) {
        err << error.message() << ": " << files.first() << "\n";
        return 1;
    }
}

} // namespace Commands
