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
    return root() + '/' + QFileInfo(sourcePath).completeBaseName() + '-' +
           QString::fromLatin1(digest.left(12));
}

} // namespace DeckCache
