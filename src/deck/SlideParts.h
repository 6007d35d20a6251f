#pragma once

#include <vector>

#include <QByteArray>
#include <QString>
#include <QStringList>

// What a presentation file says of its slides, read from its own XML parts (pugixml, no DTD or
// entity of the file's own is ever expanded): which slides are hidden and which movies and
// sounds each one holds, named by their entries in the archive. Any thread; throws DeckError.
namespace SlideParts {

struct SlideMeta {
    bool skipped = false; // hidden in the show
    QStringList media;    // archive entries of the slide's movies and sounds, in slide order
};

struct Relationship {
    QString id;
    QString type;
    QString target;
    bool external = false;
};

// The relationships of an Office relationship part (`*.rels`).
std::vector<Relationship> relationships(const QByteArray& part);

// A PowerPoint file's slides in show order (presentation.xml's slide list).
std::vector<SlideMeta> pptxSlides(const QString& pptx);

// An OpenDocument presentation's pages in order (hidden by their page style, media by their
// plugin frames embedded in the file).
std::vector<SlideMeta> odpSlides(const QString& odp);

} // namespace SlideParts
