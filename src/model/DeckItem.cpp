#include "model/DeckItem.h"

#include <map>

#include "model/JsonRead.h"
#include "model/ValueRanges.h"

namespace {

const QString kKinds[] = {QStringLiteral("image"), QStringLiteral("video"),
                          QStringLiteral("audio")};
const QString kEndActions[] = {QStringLiteral("next"), QStringLiteral("hold"),
                               QStringLiteral("loop")};

template <typename Enum, std::size_t N>
Enum parse(const QString (&names)[N], const QString& text, const QString& field) {
    for (std::size_t i = 0; i < N; ++i) {
        if (names[i] == text)
            return static_cast<Enum>(i);
    }
    throw JsonRead::wrongType(field);
}

} // namespace

QJsonObject DeckItem::toJson() const {
    QJsonObject o{{"id", id},         {"kind", kKinds[static_cast<int>(kind)]},
                  {"file", file},     {"slide", static_cast<qint64>(slide)},
                  {"title", title},   {"enabled", enabled},
                  {"volume", volume}, {"endAction", kEndActions[static_cast<int>(endAction)]}};
    if (advanceAfter)
        o["advanceAfter"] = *advanceAfter;
    if (transition)
        o["transition"] = *transition;
    return o;
}

DeckItem DeckItem::fromJson(const QJsonObject& o) {
    DeckItem item;
    item.id = JsonRead::requiredString(o, "id");
    item.kind = parse<Kind>(kKinds, JsonRead::requiredString(o, "kind"), "kind");
    item.file = JsonRead::requiredString(o, "file");
    item.slide = JsonRead::integer(o, "slide", 0);
    item.title = JsonRead::string(o, "title", item.id);
    item.enabled = JsonRead::boolean(o, "enabled", true);
    if (o.contains("advanceAfter"))
        item.advanceAfter =
            JsonRead::number(o, "advanceAfter", 0.0, 0.0, ValueRanges::kMaxSlideInterval);
    if (o.contains("transition"))
        item.transition = JsonRead::number(o, "transition", 0.0, 0.0, ValueRanges::kMaxTransition);
    item.volume = JsonRead::number(o, "volume", 1.0, 0.0, ValueRanges::kMaxVolume);
    item.endAction =
        parse<EndAction>(kEndActions, JsonRead::string(o, "endAction", "next"), "endAction");
    return item;
}

std::optional<std::size_t> DeckItem::indexOf(const std::vector<DeckItem>& items,
                                             const std::optional<QString>& id) {
    for (std::size_t i = 0; id && i < items.size(); ++i) {
        if (items[i].id == *id)
            return i;
    }
    return std::nullopt;
}

std::vector<DeckItem> DeckItem::merge(const std::vector<DeckItem>& saved,
                                      const std::vector<DeckItem>& fresh) {
    std::map<QString, const DeckItem*> byID;
    for (const DeckItem& item : saved)
        byID.emplace(item.id, &item);
    std::vector<DeckItem> merged;
    merged.reserve(fresh.size());
    for (const DeckItem& item : fresh) {
        const auto found = byID.find(item.id);
        merged.push_back(found == byID.end() ? item : *found->second);
    }
    return merged;
}
