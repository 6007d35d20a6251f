#include "deck/DeckManifest.h"

#include <QJsonArray>

#include "model/JsonRead.h"

QJsonObject DeckManifest::toJson() const {
    QJsonArray list;
    for (const DeckItem& item : items)
        list.append(item.toJson());
    return {{"stamp", stamp},
            {"engine", engine},
            {"slideCount", static_cast<qint64>(slideCount)},
            {"items", list}};
}

DeckManifest DeckManifest::fromJson(const QJsonObject& o) {
    DeckManifest manifest;
    manifest.stamp = JsonRead::requiredString(o, "stamp");
    manifest.engine = JsonRead::requiredString(o, "engine");
    manifest.slideCount = JsonRead::integer(o, "slideCount", 0);
    if (!o.value("items").isArray())
        throw JsonRead::wrongType("items");
    for (const QJsonValue& item : o.value("items").toArray()) {
        if (!item.isObject())
            throw JsonRead::wrongType("items");
        manifest.items.push_back(DeckItem::fromJson(item.toObject()));
    }
    return manifest;
}
