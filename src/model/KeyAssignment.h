#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include "model/DeckItem.h"
#include "model/KeyMode.h"
#include "model/NextBehavior.h"

using KeyCode = std::uint16_t;
using RoutingMatrix = std::vector<std::vector<std::int64_t>>;

// What one key plays and how. A plain value: copied into every cue it starts, so later edits
// never change a running cue. Field order is the show file's order.
struct KeyAssignment {
    KeyAssignment() = default;
    // The record with the file defaults (no preferences applied).
    KeyAssignment(QString path, std::int64_t colorIndex);

    QString path;
    std::optional<QString> relativePath;
    QString title;
    KeyMode mode = KeyMode::toggle;
    double fadeIn = 0.0;
    double fadeOut = 1.0;
    double volume = 1.0;
    bool loop = false;
    QString outputMap;
    std::optional<RoutingMatrix> matrix;
    std::int64_t colorIndex = 0;
    bool showVideo = true;
    NextBehavior onNext = NextBehavior::keep;
    std::int64_t group = 0;
    std::int64_t layer = 5;
    bool slideAuto = false;
    double slideInterval = 5.0;
    bool slideLoop = false;
    double slideTransition = 0.3;
    std::optional<std::vector<DeckItem>> deckItems;
    std::optional<QStringList> sources;
    std::optional<QStringList> relativeSources;
    bool clickToTake = false;
    std::optional<QStringList> screens;

    bool operator==(const KeyAssignment&) const = default;

    // The title, else the file name without extension ("intro ほか 3" for a list of four).
    QString displayName() const;
    // The file's type is an image type in the MIME database.
    bool isImage() const;
    // The files stepped through one per press: `sources`, or the image itself.
    std::optional<QStringList> listSources() const;
    // Plays item by item: deck items, a list, an image, or a slide file (pptx, ppt, key, odp, pdf).
    bool isDeck() const;
    // Key of the model's media table: "list:" + sources joined by line feeds, else the path.
    QString mediaKey() const;

    // The show file's form: the six optional fields only when present, the others always.
    QJsonObject toJson() const;
    // Only "path" is required; other missing fields take the file defaults. A field of the
    // wrong type, or an unknown mode or onNext, throws DocumentError.
    static KeyAssignment fromJson(const QJsonObject& object);
};

// A fresh assignment for a dropped or chosen file, with the user's default mode, fades and
// on-next behaviour read from the preferences now.
KeyAssignment newAssignment(const QString& path, std::int64_t colorIndex);
