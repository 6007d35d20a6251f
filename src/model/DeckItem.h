#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <QJsonObject>
#include <QString>

// One item of a slide deck or list, as the manifest and a key's `deckItems` store it.
struct DeckItem {
    enum class Kind { image, video, audio };
    enum class EndAction { next, hold, loop };

    QString id;
    Kind kind = Kind::image;
    QString file; // relative to the deck folder
    std::int64_t slide = 0;
    QString title;
    bool enabled = true;
    std::optional<double> advanceAfter;
    std::optional<double> transition;
    double volume = 1.0;
    EndAction endAction = EndAction::next;

    bool operator==(const DeckItem&) const = default;

    // The JSON form shared by deck manifests and show files. Reading requires "id", "kind" and
    // "file" and throws DocumentError otherwise.
    QJsonObject toJson() const;
    static DeckItem fromJson(const QJsonObject& object);

    // After a rebuild: the fresh items in their order, each replaced by the saved item with the
    // same id when there is one (the operator's settings survive); saved items no longer built
    // are dropped.
    // Where the item with `id` is in `items` (none: not there, or no id).
    static std::optional<std::size_t> indexOf(const std::vector<DeckItem>& items,
                                              const std::optional<QString>& id);

    static std::vector<DeckItem> merge(const std::vector<DeckItem>& saved,
                                       const std::vector<DeckItem>& fresh);
};
