#include "deck/Deck.h"

#include <list>
#include <mutex>

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>

#include "media/MovieDecoder.h"
#include "video/Compositor.h"
#include "video/PictureFile.h"

namespace {

// A movie's first picture, upright.
QImage firstPicture(const QString& path) {
    try {
        MovieDecoder decoder(path.toStdString());
        const std::optional<MovieFrame> frame = decoder.next();
        if (!frame)
            return {};
        // Converted straight to the thumbnail's size.
        const QSize upright = Compositor::uprightSize(*frame);
        return Compositor::imageOf(
            *frame, upright.scaled(Deck::kThumbnailSize, Deck::kThumbnailSize, Qt::KeepAspectRatio),
            PictureDetail::reduced);
    } catch (const std::exception&) {
        return {};
    }
}

// Makes a picture on a pool thread and hands it to `done` on the main thread, unless `context`
// is gone by then.
void onPool(std::function<QImage()> make, QObject* context,
            std::function<void(const QImage&)> done) {
    QThreadPool::globalInstance()->start(
        [make = std::move(make), target = QPointer<QObject>(context), done = std::move(done)] {
            QMetaObject::invokeMethod(
                QCoreApplication::instance(), // the main thread; the context may be gone
                [target, image = make(), done] {
                    if (target)
                        done(image);
                },
                Qt::QueuedConnection);
        });
}

QImage makeThumbnail(const QString& path, DeckItem::Kind kind) {
    if (kind == DeckItem::Kind::audio)
        return {};
    QString error; // a list shows no thumbnail for what is no picture
    if (kind == DeckItem::Kind::image)
        return PictureFile::read(path, error, Deck::kThumbnailSize);
    const QImage beside =
        PictureFile::read(path + QStringLiteral(".thumb.png"), error, Deck::kThumbnailSize);
    return beside.isNull() ? firstPicture(path) : beside;
}

} // namespace

// Shared with the pool tasks that decode, so a deck may go while one runs.
struct Deck::Pictures {
    std::mutex mutex;
    std::map<QString, QImage> images;     // by path
    std::list<QString> order;             // least recently used first
    std::map<QString, QImage> thumbnails; // by path; small, all kept

    QImage find(const QString& path) {
        std::lock_guard lock(mutex);
        const auto found = images.find(path);
        if (found == images.end())
            return {};
        order.remove(path);
        order.push_back(path);
        return found->second;
    }
    QImage decode(const QString& path) {
        if (QImage cached = find(path); !cached.isNull())
            return cached;
        QString error;
        QImage image = PictureFile::read(path, error); // outside the lock: it takes a while
        if (image.isNull())
            return image;
        std::lock_guard lock(mutex);
        if (images.emplace(path, image).second)
            order.push_back(path);
        while (order.size() > kCachedPictures) {
            images.erase(order.front());
            order.pop_front();
        }
        return image;
    }
};

Deck::Deck(QString deckFolder, DeckManifest deckManifest)
    : folder(std::move(deckFolder)), manifest(std::move(deckManifest)),
      m_pictures(std::make_shared<Pictures>()) {
    for (const DeckItem& item : manifest.items) {
        if (!QFileInfo::exists(pathOf(item.file)))
            missing << item.file;
    }
}

QString Deck::pathOf(const QString& file) const {
    return file.startsWith('/') || folder.isEmpty() ? file : folder + '/' + file;
}

std::vector<DeckItem> Deck::itemsFor(const KeyAssignment& a) const {
    if (!a.deckItems || a.deckItems->empty())
        return manifest.items;
    if (!isList())
        return DeckItem::merge(*a.deckItems, manifest.items);
    // A list's items are its files: what they are comes from the files, how they play from the
    // key (editing a list keeps the two aligned).
    std::vector<DeckItem> items = manifest.items;
    for (std::size_t i = 0; i < items.size() && i < a.deckItems->size(); ++i) {
        const DeckItem& saved = (*a.deckItems)[i];
        DeckItem& item = items[i];
        item.title = saved.title;
        item.enabled = saved.enabled;
        item.advanceAfter = saved.advanceAfter;
        item.transition = saved.transition;
        item.volume = saved.volume;
        item.endAction = saved.endAction;
    }
    return items;
}

std::vector<DeckItem> Deck::enabledOnly(const std::vector<DeckItem>& items) {
    std::vector<DeckItem> enabled;
    for (const DeckItem& item : items) {
        if (item.enabled)
            enabled.push_back(item);
    }
    return enabled;
}

QImage Deck::picture(const QString& file) const {
    return m_pictures->decode(pathOf(file));
}

QImage Deck::cachedPicture(const QString& file) const {
    return m_pictures->find(pathOf(file));
}

void Deck::fetchPicture(const QString& file, QObject* context,
                        std::function<void(const QImage&)> done) const {
    onPool([pictures = m_pictures, path = pathOf(file)] { return pictures->decode(path); }, context,
           std::move(done));
}

QImage Deck::cachedThumbnail(const QString& file) const {
    std::lock_guard lock(m_pictures->mutex);
    const auto found = m_pictures->thumbnails.find(pathOf(file));
    return found == m_pictures->thumbnails.end() ? QImage() : found->second;
}

void Deck::fetchThumbnail(const DeckItem& item, QObject* context,
                          std::function<void(const QImage&)> done) const {
    onPool(
        [pictures = m_pictures, path = pathOf(item.file), kind = item.kind] {
            {
                std::lock_guard lock(pictures->mutex);
                if (const auto found = pictures->thumbnails.find(path);
                    found != pictures->thumbnails.end())
                    return found->second;
            }
            QImage thumbnail = makeThumbnail(path, kind);
            std::lock_guard lock(pictures->mutex);
            pictures->thumbnails[path] = thumbnail;
            return thumbnail;
        },
        context, std::move(done));
}
