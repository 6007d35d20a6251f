#include "cli/Commands.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

#include "audio/AudioDeviceList.h"
#include "audio/AudioLoader.h"

namespace {

const QString kUsage =
    QStringLiteral("使い方:\n"
                   "  vorlin probe FILE…   メディアファイルの情報を JSON で表示します\n");

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

bool isCommand(const QStringList& args) {
    return !args.isEmpty() &&
           (args.first() == "probe" || args.first() == "help" || args.first() == "--help");
}

int run(const QStringList& args, QTextStream& out, QTextStream& err) {
    const QString command = args.value(0);
    if (command == "probe")
        return probe(args.mid(1), out, err);
    if (command == "devices")
        return devices(out);
    if (command == "help" || command == "--help") {
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

int probe(const QStringList& files, QTextStream& out, QTextStream& err) {
    if (files.isEmpty()) {
        err << "ファイルを指定してください\n" << kUsage;
        return 2;
    }
    QJsonArray results;
    int status = 0;
    for (const QString& file : files) {
        const QFileInfo info(file);
        const MediaProbe probe = AudioLoader::probe(info.absoluteFilePath().toStdString());
        QJsonObject entry = probeJson(info.absoluteFilePath(), probe);
        if (!info.isFile() || !info.isReadable()) {
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

} // namespace Commands
