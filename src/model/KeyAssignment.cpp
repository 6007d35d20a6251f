#include "model/KeyAssignment.h"

#include <algorithm>

#include <QFileInfo>
#include <QJsonArray>

#include "model/JsonRead.h"
#include "model/MediaType.h"
#include "model/Prefs.h"
#include "model/ValueRanges.h"

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
    return MediaType::is(path, QLatin1StringView("image/"));
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
    if (sources && !sources->isEmpty())
        return true; // a list steps one file per press
    if (isImage())
        return true;
    const QString extension = QFileInfo(path).suffix().toLower();
    return extension == "pptx" || extension == "ppt" || extension == "key" || extension == "pdf" ||
           extension == "odp";
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

QJsonObject KeyAssignment::toJson() const {
    QJsonObject o{{"path", path},
                  {"title", title},
                  {"mode", keyModeName(mode)},
                  {"fadeIn", fadeIn},
                  {"fadeOut", fadeOut},
                  {"volume", volume},
                  {"loop", loop},
                  {"outputMap", outputMap},
                  {"colorIndex", static_cast<qint64>(colorIndex)},
                  {"showVideo", showVideo},
                  {"onNext", nextBehaviorName(onNext)},
                  {"group", static_cast<qint64>(group)},
                  {"layer", static_cast<qint64>(layer)},
                  {"slideAuto", slideAuto},
                  {"slideInterval", slideInterval},
                  {"slideLoop", slideLoop},
                  {"slideTransition", slideTransition},
                  {"clickToTake", clickToTake}};
    if (relativePath)
        o["relativePath"] = *relativePath;
    if (matrix) {
        QJsonArray rows;
        for (const auto& row : *matrix) {
            QJsonArray outputs;
            for (std::int64_t output : row)
                outputs.append(static_cast<qint64>(output));
            rows.append(outputs);
        }
        o["matrix"] = rows;
    }
    if (deckItems) {
        QJsonArray items;
        for (const DeckItem& item : *deckItems)
            items.append(item.toJson());
        o["deckItems"] = items;
    }
    if (sources)
        o["sources"] = JsonRead::strings(*sources);
    if (relativeSources)
        o["relativeSources"] = JsonRead::strings(*relativeSources);
    if (screens)
        o["screens"] = JsonRead::strings(*screens);
    return o;
}

KeyAssignment KeyAssignment::fromJson(const QJsonObject& o) {
    using namespace JsonRead;
    KeyAssignment a(requiredString(o, "path"), integer(o, "colorIndex", 0));
    a.relativePath = optionalString(o, "relativePath");
    a.title = string(o, "title", {});
    const auto mode = parseKeyMode(string(o, "mode", "toggle"));
    if (!mode)
        throw wrongType("mode");
    a.mode = *mode;
    a.fadeIn = number(o, "fadeIn", 0.0, 0.0, ValueRanges::kMaxFade);
    a.fadeOut = number(o, "fadeOut", 1.0, 0.0, ValueRanges::kMaxFade);
    a.volume = number(o, "volume", 1.0, 0.0, ValueRanges::kMaxVolume);
    a.loop = boolean(o, "loop", false);
    a.outputMap = string(o, "outputMap", {});
    if (o.contains("matrix")) {
        if (!o.value("matrix").isArray())
            throw wrongType("matrix");
        RoutingMatrix rows;
        for (const QJsonValue& row : o.value("matrix").toArray()) {
            if (!row.isArray())
                throw wrongType("matrix");
            std::vector<std::int64_t> outputs;
            for (const QJsonValue& output : row.toArray())
                outputs.push_back(integer(output, "matrix"));
            rows.push_back(std::move(outputs));
        }
        a.matrix = std::move(rows);
    }
    a.showVideo = boolean(o, "showVideo", true);
    const auto onNext = parseNextBehavior(string(o, "onNext", "keep"));
    if (!onNext)
        throw wrongType("onNext");
    a.onNext = *onNext;
    a.group = integer(o, "group", 0, 0, ValueRanges::kMaxGroup);
    a.layer = integer(o, "layer", 5, 0, ValueRanges::kMaxLayer);
    a.slideAuto = boolean(o, "slideAuto", false);
    a.slideInterval = number(o, "slideInterval", 5.0, 0.0, ValueRanges::kMaxSlideInterval);
    a.slideLoop = boolean(o, "slideLoop", false);
    a.slideTransition = number(o, "slideTransition", 0.3, 0.0, ValueRanges::kMaxTransition);
    if (o.contains("deckItems")) {
        if (!o.value("deckItems").isArray())
            throw wrongType("deckItems");
        std::vector<DeckItem> items;
        for (const QJsonValue& item : o.value("deckItems").toArray()) {
            if (!item.isObject())
                throw wrongType("deckItems");
            items.push_back(DeckItem::fromJson(item.toObject()));
        }
        a.deckItems = std::move(items);
    }
    a.sources = optionalStrings(o, "sources");
    a.relativeSources = optionalStrings(o, "relativeSources");
    a.clickToTake = boolean(o, "clickToTake", false);
    a.screens = optionalStrings(o, "screens");
    return a;
}
