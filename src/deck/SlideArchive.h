#pragma once

#include <functional>
#include <map>

#include <QByteArray>
#include <QString>

// The zip container of a presentation (PPTX, ODP), read in process with libarchive. Entry names
// are never used as paths on disk: parts are read into memory, and media are written only under
// names the caller gives. An archive with an entry that points outside it (an absolute name, a
// ".." step, a link) is refused as a whole, and so is an entry that expands far beyond its
// compressed size (a zip bomb) or a part larger than any real slide needs. Any thread; throws
// DeckError.
namespace SlideArchive {

// XML parts are small; anything larger is not a presentation's, and neither are parts this large
// together (the parts read are held in memory at once).
constexpr qint64 kMaxPartBytes = 16ll << 20;
constexpr qint64 kMaxPartsBytes = 48ll << 20;
// A movie on a slide may be long, but not this long.
constexpr qint64 kMaxMediaBytes = 8ll << 30;
// Deflate reaches about 1000:1 only on runs of one byte; real parts and media stay far below.
constexpr qint64 kMaxExpansion = 200;

// The entries `wanted` accepts (by their names in the archive), read whole.
std::map<QString, QByteArray> readParts(const QString& archive,
                                        const std::function<bool(const QString&)>& wanted);

// Copies entries to files: `targets` maps an entry name to the file it becomes.
void extract(const QString& archive, const std::map<QString, QString>& targets);

// Writes a copy of a PowerPoint file without its links to the outside (relationships with
// TargetMode="External": addresses and files beside the presentation), so that opening it
// fetches nothing and reads no other file.
void copyWithoutExternalLinks(const QString& pptx, const QString& copy);

} // namespace SlideArchive
