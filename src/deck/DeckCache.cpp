#include "deck/DeckCache.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFileInfo>
#include <QStandardPaths>

namespace DeckCache {

QString root() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/Vorlin/Decks");
}

QString stamp(const QString& sourcePath, const QString& engine) {
    const QFileInfo source(sourcePath);
    return sourcePath + '|' + QString::number(source.lastModified().toSecsSinceEpoch()) + '|' +
           QString::number(source.size()) + '|' + engine + QStringLiteral("|v2");
}

QString folderFor(const QString& sourcePath, const QString& stamp) {
    const QByteArray digest =
        QCryptographicHash::hash(stamp.toUtf8(), QCryptographicHash::Sha256).toHex();
    // A folder name holds 255 bytes; a long Japanese file name is three bytes a character. The
    // name is cut at a character's end (the digest keeps folders apart).
    const QString name = QFileInfo(sourcePath).completeBaseName();
    qsizetype bytes = 0, end = 0;
    for (const uint c : name.toUcs4()) {
        bytes += c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4; // its length in UTF-8
        if (bytes > kMaxNameBytes)
            break;
        end += QChar::requiresSurrogates(c) ? 2 : 1;
    }
    return root() + '/' + name.left(end) + '-' + QString::fromLatin1(digest.left(12));
}

} // namespace DeckCache
