#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include <QImage>
#include <QString>
#include <QStringList>

#include "audio/AudioClip.h"
#include "deck/DeckManifest.h"
#include "media/MediaProbe.h"
#include "model/KeyAssignment.h"

class QObject;

// A built deck, or a key's list of files: its items and what they need at show time — the
// decoded sound of audio and video items, their probes, and the slide pictures, decoded on demand
// and a handful kept.
//
// Lifetime: made and filled on a loader thread, then shared read-only (`shared_ptr<const Deck>`)
// by the media table and the cues that play it. The picture cache is the one mutable part; it
// has its own lock and is safe from any thread.
class Deck {
public:
    static inline const QString kListEngine = QStringLiteral("list");
    // Decoded pictures kept (least recently used dropped first): a slide at 2560 px is ~15 MB.
    static constexpr std::size_t kCachedPictures = 6;

    // `folder` empty: a list, whose items name their files by absolute path.
    Deck(QString folder, DeckManifest manifest);

    const QString folder;
    const DeckManifest manifest;
    // By item file (as the item names it). Filled while loading, before the deck is shared.
    std::map<QString, AudioClipPtr> clips;
    std::map<QString, MediaProbe> probes;
    // Items that cannot play and why (a picture that is none, a sound that would not decode).
    std::map<QString, QString> failures;
    // Item files not in the folder.
    QStringList missing;

    bool isList() const { return manifest.engine == kListEngine; }
    // The item's file: as it stands when absolute, else in the deck's folder.
    QString pathOf(const QString& file) const;

    // The items as key `a` defines them: the deck's own, with the settings the operator gave
    // them. A list's saved items line up with its files; a slide deck's are matched by id, so
    // they survive a rebuild.
    std::vector<DeckItem> itemsFor(const KeyAssignment& a) const;
    static std::vector<DeckItem> enabledOnly(const std::vector<DeckItem>& items);

    // The picture of an image item file, decoded upright when not cached (blocks; any thread).
    // Null when the file is no picture.
    QImage picture(const QString& file) const;
    // The cached picture, or null without decoding.
    QImage cachedPicture(const QString& file) const;
    // Decodes on a pool thread when not cached; `done` runs on `context`'s thread unless the
    // context is gone.
    void fetchPicture(const QString& file, QObject* context,
                      std::function<void(const QImage&)> done) const;

    // Lists show items this small at most (longer side, pixels).
    static constexpr int kThumbnailSize = 360;
    // A small picture of the item for lists: a picture scaled down, a movie's first picture (or
    // a "<file>.thumb.png" beside it when there is one); null for a sound or what cannot be read.
    // Made on a pool thread once, then cached; `done` runs on the main thread unless `context`
    // is gone.
    void fetchThumbnail(const DeckItem& item, QObject* context,
                        std::function<void(const QImage&)> done) const;
    // The thumbnail when it has been made, else null.
    QImage cachedThumbnail(const QString& file) const;

private:
    struct Pictures;
    std::shared_ptr<Pictures> m_pictures;
};

using DeckPtr = std::shared_ptr<const Deck>;
