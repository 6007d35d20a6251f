#pragma once

#include <cstdint>
#include <vector>

#include <QJsonObject>
#include <QString>

#include "model/DeckItem.h"

// What a deck folder holds: where it came from and how it was made (`stamp`), the engine that
// made its PDF, the source's slide count (hidden ones included) and the items in show order.
// Kept as "manifest.json" in the deck's folder.
struct DeckManifest {
    QString stamp;
    QString engine; // "pdf", "libreoffice"; "list" for a key's list of files (never written)
    std::int64_t slideCount = 0;
    std::vector<DeckItem> items;

    bool operator==(const DeckManifest&) const = default;

    QJsonObject toJson() const;
    // Throws DocumentError when a field is missing or of the wrong type.
    static DeckManifest fromJson(const QJsonObject& object);
};
