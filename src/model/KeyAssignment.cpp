#include "model/KeyAssignment.h"

#include <algorithm>

#include <QFileInfo>
#include <QMimeDatabase>
#include <QMimeType>

#include "model/Prefs.h"

KeyAssignment::KeyAssignment(QString filePath, std::int64_t color)
    : path(std::move(filePath)), colorIndex(color) {}

QString KeyAssignment::displayName() const {
    if (!title.isEmpty())
        return title;
    QString name = QFileInfo(path).completeBaseName();
    if (sources && sources->size() >= 2)
        name += QStringLiteral(" ほか ") + QString::number(sources->size() - 1);
    return name;
}

bool KeyAssignment::isImage() const {
    // By extension only, like a type registry: the file need not exist or be readable.
    static const QMimeDatabase database;
    const QMimeType type = database.mimeTypeForFile(path, QMimeDatabase::MatchExtension);
    if (!type.isValid() || type.isDefault())
        return false;
    if (type.name().startsWith(QStringLiteral("image/")))
        return true;
    const QStringList ancestors = type.allAncestors();
    return std::any_of(ancestors.begin(), ancestors.end(), [](const QString& name) {
        return name.startsWith(QStringLiteral("image/"));
    });
}

std::optional<QStringList> KeyAssignment::listSources() const {
    if (sources && !sources->isEmpty())
        return sources;
    if (isImage())
        return QStringList{path};
    return std::nullopt;
}

bool KeyAssignment::isDeck() const {
    if (deckItems && !deckItems->empty())
        return true;
    if (isImage())
        return true;
    const QString extension = QFileInfo(path).suffix().toLower();
    return extension == "pptx" || extension == "ppt" || extension == "key" || extension == "pdf";
}

QString KeyAssignment::mediaKey() const {
    if (sources && !sources->isEmpty())
        return QStringLiteral("list:") + sources->join(QLatin1Char('\n'));
    return path;
}

KeyAssignment newAssignment(const QString& path, std::int64_t colorIndex) {
    KeyAssignment a(path, colorIndex);
    a.mode = Prefs::defaultMode();
    a.fadeIn = Prefs::value(Prefs::kDefaultFadeIn).toDouble();
    a.fadeOut = Prefs::value(Prefs::kDefaultFadeOut).toDouble();
    a.onNext = Prefs::defaultOnNext();
    return a;
}
