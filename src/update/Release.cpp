#include "update/Release.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

std::optional<QString> optionalText(const QJsonObject& object, const char* key) {
    const QJsonValue value = object.value(QLatin1String(key));
    return value.isString() ? std::optional<QString>(value.toString()) : std::nullopt;
}

} // namespace

std::optional<Release> Release::fromJson(const QByteArray& json) {
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isObject())
        return std::nullopt;
    const QJsonObject object = document.object();
    const QJsonValue build = object.value(QStringLiteral("build"));
    Release release;
    release.version = object.value(QStringLiteral("version")).toString();
    release.url = object.value(QStringLiteral("url")).toString();
    release.zip = object.value(QStringLiteral("zip")).toString();
    if (release.version.isEmpty() || release.zip.isEmpty() || !build.isDouble() ||
        build.toDouble() != static_cast<double>(build.toInt()))
        return std::nullopt;
    release.build = build.toInt();
    release.page = optionalText(object, "page");
    release.date = optionalText(object, "date");
    release.minimumSystemVersion = optionalText(object, "minimumSystemVersion");
    for (const QJsonValue& note : object.value(QStringLiteral("notes")).toArray())
        release.notes << note.toString();
    return release;
}

int Release::compareVersions(const QString& a, const QString& b) {
    const QStringList left = a.split('.');
    const QStringList right = b.split('.');
    for (qsizetype i = 0; i < std::max(left.size(), right.size()); ++i) {
        const qlonglong x = i < left.size() ? left[i].toLongLong() : 0;
        const qlonglong y = i < right.size() ? right[i].toLongLong() : 0;
        if (x != y)
            return x < y ? -1 : 1;
    }
    return 0;
}

bool Release::isNewer(const QString& currentVersion, int currentBuild) const {
    if (build == currentBuild)
        return compareVersions(version, currentVersion) > 0;
    return currentBuild < build;
}
