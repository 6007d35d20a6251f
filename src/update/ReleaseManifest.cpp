#include "update/ReleaseManifest.h"

#include <QList>

std::optional<ReleaseManifest> ReleaseManifest::parse(const QByteArray& text) {
    const QList<QByteArray> lines = text.split('\n');
    if (lines.isEmpty() || lines.first() != "vorlin-release 1")
        return std::nullopt;
    ReleaseManifest manifest;
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const QByteArray& line = lines[i];
        if (line.isEmpty())
            continue;
        const qsizetype space = line.indexOf(' ');
        const QByteArray field = line.left(space);
        const QByteArray rest = space < 0 ? QByteArray() : line.mid(space + 1);
        bool ok = true;
        if (field == "version") {
            manifest.version = QString::fromUtf8(rest);
        } else if (field == "build") {
            manifest.build = rest.toInt(&ok);
        } else if (field == "key") {
            manifest.key = QByteArray::fromBase64(rest, QByteArray::AbortOnBase64DecodingErrors);
            ok = manifest.key.size() == 32;
        } else if (field == "file") {
            // <sha256> <size> <mode> <path>: the path is the rest of the line, spaces and all.
            const QList<QByteArray> parts = rest.split(' ');
            if (parts.size() < 4)
                return std::nullopt;
            Entry entry;
            entry.sha256 = parts[0];
            entry.size = parts[1].toLongLong(&ok);
            bool modeOk = false;
            entry.mode = parts[2].toInt(&modeOk, 8);
            const QString path = QString::fromUtf8(
                rest.mid(parts[0].size() + parts[1].size() + parts[2].size() + 3));
            if (!ok || !modeOk || entry.sha256.size() != 64 || path.isEmpty() ||
                path.startsWith('/') || path.split('/').contains(QStringLiteral("..")) ||
                manifest.files.count(path))
                return std::nullopt;
            manifest.files.emplace(path, entry);
        } else {
            return std::nullopt;
        }
        if (!ok)
            return std::nullopt;
    }
    if (manifest.version.isEmpty() || manifest.build <= 0 || manifest.key.isEmpty())
        return std::nullopt;
    return manifest;
}
