#include "deck/DeckBuilder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>

#include "deck/DeckCache.h"
#include "deck/DeckError.h"
#include "deck/PdfPages.h"
#include "deck/SlideArchive.h"
#include "deck/SlideConverter.h"
#include "deck/SlideParts.h"
#include "media/AudioLoader.h"
#include "media/MovieDecoder.h"
#include "model/DocumentError.h"
#include "model/MediaType.h"
#include "video/PictureFile.h"

namespace DeckBuilder {

namespace {

const QString kManifest = QStringLiteral("manifest.json");

void checkCancel(const CancelFlag* cancel) {
    if (cancel && cancel->load())
        throw DeckError(DeckError::kCancelled);
}

// The manifest in `folder` when it reads and carries `stamp`.
std::optional<DeckManifest> reusable(const QString& folder, const QString& stamp) {
    QFile file(folder + '/' + kManifest);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonDocument json = QJsonDocument::fromJson(file.readAll());
    if (!json.isObject())
        return std::nullopt;
    try {
        DeckManifest manifest = DeckManifest::fromJson(json.object());
        if (manifest.stamp == stamp)
            return manifest;
    } catch (const DocumentError&) {
    }
    return std::nullopt;
}

void writeManifest(const QString& folder, const DeckManifest& manifest) {
    QSaveFile file(folder + '/' + kManifest);
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(QJsonDocument(manifest.toJson()).toJson(QJsonDocument::Indented)) < 0 ||
        !file.commit())
        throw DeckError(DeckError::kNoFolder);
}

DeckItem slideItem(int slide) {
    DeckItem item;
    item.id = QStringLiteral("s") + QString::number(slide);
    item.kind = DeckItem::Kind::image;
    item.file = PdfPages::fileName(slide);
    item.slide = slide;
    item.title = QStringLiteral("スライド ") + QString::number(slide);
    return item;
}

DeckManifest build(const QString& source, const QString& folder, const Progress& progress,
                   const CancelFlag* cancel);

// What a file taken from a slide is, by its type: a movie, a sound, or nothing to play.
std::optional<DeckItem::Kind> mediaKind(const QString& file) {
    if (MediaType::is(file, QLatin1StringView("video/")))
        return DeckItem::Kind::video;
    if (MediaType::is(file, QLatin1StringView("audio/")))
        return DeckItem::Kind::audio;
    return std::nullopt;
}

} // namespace

bool isSlideFile(const QString& path) {
    const QString extension = QFileInfo(path).suffix().toLower();
    return extension == "pdf" || extension == "pptx" || extension == "ppt" || extension == "key" ||
           extension == "odp";
}

std::shared_ptr<Deck> buildSlides(const QString& source, bool force, const Progress& progress,
                                  const CancelFlag* cancel) {
    const QString extension = QFileInfo(source).suffix().toLower();
    if (!isSlideFile(source))
        throw DeckError(DeckError::kUnsupported);
    const bool isPdf = extension == "pdf";
    const QString engine = isPdf ? QStringLiteral("pdf") : QStringLiteral("libreoffice");
    const QString stamp = DeckCache::stamp(source, engine);
    const QString folder = DeckCache::folderFor(source, stamp);
    if (!force) {
        if (auto manifest = reusable(folder, stamp))
            return std::make_shared<Deck>(folder, std::move(*manifest));
    }
    QDir dir(folder);
    if (dir.exists() && !dir.removeRecursively())
        throw DeckError(DeckError::kNoFolder);
    if (!QDir().mkpath(folder))
        throw DeckError(DeckError::kNoFolder);
    try {
        DeckManifest manifest = build(source, folder, progress, cancel);
        manifest.stamp = stamp;
        manifest.engine = engine;
        writeManifest(folder, manifest);
        return std::make_shared<Deck>(folder, std::move(manifest));
    } catch (...) {
        // A failed or stopped build leaves nothing half-filled behind.
        dir.removeRecursively();
        throw;
    }
}

namespace {

// Renders the slides and copies their media into `folder`; the manifest without its stamp.
DeckManifest build(const QString& source, const QString& folder, const Progress& progress,
                   const CancelFlag* cancel) {
    checkCancel(cancel);
    const QString extension = QFileInfo(source).suffix().toLower();
    const bool isPdf = extension == "pdf";

    // The PDF, and what the file itself says of its slides: hidden ones, movies and sounds.
    QString pdf = source;
    QStringList intermediate;
    if (!isPdf) {
        if (progress) {
            progress(QStringLiteral("スライドを書き出し中…"));
            progress(QStringLiteral("LibreOffice で変換中…"));
        }
        pdf = SlideConverter::convert(source, folder, "pdf", cancel);
        intermediate << pdf;
    }
    std::vector<SlideParts::SlideMeta> slides;
    QString mediaArchive = source;
    if (extension == "pptx") {
        slides = SlideParts::pptxSlides(source);
    } else if (extension == "odp") {
        slides = SlideParts::odpSlides(source);
    } else if (!isPdf) {
        // Other formats are read through an OpenDocument copy made by the same converter.
        mediaArchive = SlideConverter::convert(source, folder, "odp", cancel);
        intermediate << mediaArchive;
        slides = SlideParts::odpSlides(mediaArchive);
    }

    DeckManifest manifest;
    const PdfPages::Rendered rendered = PdfPages::render(pdf, folder, progress, cancel);
    manifest.slideCount = rendered.pages;
    std::map<QString, QString> copies; // archive entry → file in the deck folder
    for (int slide = 1; slide <= manifest.slideCount; ++slide) {
        DeckItem image = slideItem(slide);
        if (std::binary_search(rendered.reduced.begin(), rendered.reduced.end(), slide))
            image.title += QStringLiteral("（縦に長すぎるため縮小）");
        const auto meta = static_cast<std::size_t>(slide - 1) < slides.size()
                              ? &slides[static_cast<std::size_t>(slide - 1)]
                              : nullptr;
        image.enabled = !(meta && meta->skipped);
        manifest.items.push_back(image);
        if (!meta)
            continue;
        int number = 0;
        for (const QString& entry : meta->media) {
            const auto kind = mediaKind(entry);
            if (!kind)
                continue;
            ++number;
            const QString id = QStringLiteral("s%1-m%2").arg(slide).arg(number);
            // A file on two slides is copied once, under the first slide's name.
            if (!copies.count(entry))
                copies[entry] = id + '.' + QFileInfo(entry).suffix().toLower();
            DeckItem item;
            item.id = id;
            item.kind = *kind;
            item.file = copies[entry];
            item.slide = slide;
            item.title = QStringLiteral("スライド %1 の %2（%3）")
                             .arg(slide)
                             .arg(*kind == DeckItem::Kind::video ? QStringLiteral("映像")
                                                                 : QStringLiteral("音声"),
                                  QFileInfo(entry).completeBaseName());
            item.enabled = image.enabled;
            manifest.items.push_back(item);
        }
    }
    std::map<QString, QString> targets;
    for (const auto& [entry, file] : copies)
        targets[entry] = folder + '/' + file;
    if (!targets.empty())
        SlideArchive::extract(mediaArchive, targets);
    for (const QString& file : intermediate)
        QFile::remove(file);
    return manifest;
}

} // namespace

std::shared_ptr<Deck> buildList(const QStringList& files, const CancelFlag* cancel) {
    DeckManifest manifest;
    manifest.engine = Deck::kListEngine;
    manifest.slideCount = files.size();
    for (qsizetype i = 0; i < files.size(); ++i) {
        checkCancel(cancel);
        const QString& file = files[i];
        DeckItem item;
        item.id = QString::number(i);
        item.file = file;
        item.slide = i + 1;
        item.title = QFileInfo(file).completeBaseName();
        if (MediaType::is(file, QLatin1StringView("image/"))) {
            item.kind = DeckItem::Kind::image;
        } else {
            const MediaProbe probe = AudioLoader::probe(file.toStdString(), cancel);
            item.kind = probe.hasVideo ? DeckItem::Kind::video : DeckItem::Kind::audio;
        }
        manifest.items.push_back(std::move(item));
    }
    return std::make_shared<Deck>(QString(), std::move(manifest));
}

void loadMedia(Deck& deck, double rate, const CancelFlag* cancel) {
    for (const DeckItem& item : deck.manifest.items) {
        checkCancel(cancel);
        if (deck.missing.contains(item.file) || deck.probes.count(item.file) ||
            deck.failures.count(item.file))
            continue; // a file on two items is loaded once
        const QString path = deck.pathOf(item.file);
        if (item.kind == DeckItem::Kind::image) {
            // Only the header: pictures are decoded when shown.
            if (const QString refused = PictureFile::check(path); !refused.isEmpty())
                deck.failures[item.file] = refused;
            continue;
        }
        const std::string file = path.toStdString();
        const MediaProbe probe = AudioLoader::probe(file, cancel);
        deck.probes[item.file] = probe;
        if (const std::string refused = MovieDecoder::refusal(probe); !refused.empty()) {
            deck.failures[item.file] = QString::fromStdString(refused);
            continue;
        }
        if (!probe.hasAudio) {
            if (!probe.hasVideo)
                deck.failures[item.file] = QStringLiteral("再生できないファイルです");
            continue;
        }
        try {
            deck.clips[item.file] = AudioLoader::loadClip(file, rate, probe, cancel);
        } catch (const LoadError& error) {
            if (error.kind() == LoadError::Kind::cancelled)
                throw DeckError(DeckError::kCancelled);
            if (!probe.hasVideo) // a movie still shows without its sound
                deck.failures[item.file] = QString::fromStdString(error.message());
        }
    }
}

} // namespace DeckBuilder
