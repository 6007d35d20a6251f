#include "deck/SlideArchive.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <memory>
#include <pugixml.hpp>
#include <sstream>

#include <QFile>

#include "deck/DeckError.h"

namespace SlideArchive {

namespace {

const QString kUnsafe = QStringLiteral("スライドのファイルに不正な項目があります: %1");
const QString kTooLarge =
    QStringLiteral("スライドのファイルが壊れています（展開すると大きすぎます）");
const QString kDamaged = QStringLiteral("スライドのファイルが壊れています");
const QString kPartsTooLarge =
    QStringLiteral("スライドのファイルの XML が大きすぎます（1 つ %1 MB、合わせて %2 MB まで）");

using Archive = std::unique_ptr<archive, decltype(&archive_read_free)>;

Archive open(const QString& path) {
    Archive a(archive_read_new(), &archive_read_free);
    archive_read_support_format_zip(a.get());
    if (archive_read_open_filename(a.get(), QFile::encodeName(path).constData(), 64 * 1024) !=
        ARCHIVE_OK)
        throw DeckError(DeckError::kUnreadable);
    return a;
}

// The entry's name, refusing one that would reach outside the archive's own tree.
QString checkedName(archive_entry* entry) {
    const char* raw = archive_entry_pathname_utf8(entry);
    if (!raw)
        raw = archive_entry_pathname(entry);
    const QString name = QString::fromUtf8(raw ? raw : "");
    const auto type = archive_entry_filetype(entry);
    const bool link = type == AE_IFLNK || archive_entry_hardlink(entry) != nullptr;
    if (name.isEmpty() || name.startsWith('/') || name.contains('\\') || link ||
        name.split('/').contains(QStringLiteral("..")))
        throw DeckError(kUnsafe.arg(name));
    return name;
}

// Reads the current entry's data in pieces, stopping at `limit` bytes (with `overLimit`) or at
// an expansion no real file has.
void readData(archive* a, qint64 limit, const std::function<void(const char*, qint64)>& take,
              const QString& overLimit = kTooLarge) {
    const la_int64_t consumedAtStart = archive_filter_bytes(a, -1);
    qint64 produced = 0;
    char buffer[64 * 1024];
    for (;;) {
        const la_ssize_t n = archive_read_data(a, buffer, sizeof buffer);
        if (n == 0)
            return;
        if (n < 0)
            throw DeckError(kDamaged);
        produced += n;
        const qint64 consumed = archive_filter_bytes(a, -1) - consumedAtStart;
        if (produced > limit)
            throw DeckError(overLimit);
        if (produced > (8 << 20) && produced > kMaxExpansion * (consumed + 1))
            throw DeckError(kTooLarge);
        take(buffer, n);
    }
}

// Walks every entry, checking each name, and hands the wanted ones to `use`.
void forEachEntry(const QString& path, const std::function<bool(const QString&)>& wanted,
                  const std::function<void(archive*, const QString&, archive_entry*)>& use) {
    Archive a = open(path);
    archive_entry* entry = nullptr;
    for (;;) {
        const int status = archive_read_next_header(a.get(), &entry);
        if (status == ARCHIVE_EOF)
            return;
        if (status < ARCHIVE_WARN)
            throw DeckError(kDamaged);
        const QString name = checkedName(entry);
        if (archive_entry_filetype(entry) == AE_IFREG && wanted(name))
            use(a.get(), name, entry);
    }
}

} // namespace

std::map<QString, QByteArray> readParts(const QString& archive,
                                        const std::function<bool(const QString&)>& wanted) {
    std::map<QString, QByteArray> parts;
    qint64 total = 0;
    const QString overLimit = kPartsTooLarge.arg(kMaxPartBytes >> 20).arg(kMaxPartsBytes >> 20);
    forEachEntry(archive, wanted, [&](struct archive* a, const QString& name, archive_entry*) {
        QByteArray& part = parts[name];
        readData(
            a, std::min(kMaxPartBytes, kMaxPartsBytes - total),
            [&](const char* data, qint64 n) { part.append(data, n); }, overLimit);
        total += part.size();
    });
    return parts;
}

void extract(const QString& archive, const std::map<QString, QString>& targets) {
    forEachEntry(
        archive, [&](const QString& name) { return targets.count(name) > 0; },
        [&](struct archive* a, const QString& name, archive_entry*) {
            QFile out(targets.at(name));
            if (!out.open(QIODevice::WriteOnly))
                throw DeckError(DeckError::kNoFolder);
            readData(a, kMaxMediaBytes, [&](const char* data, qint64 n) {
                if (out.write(data, n) != n)
                    throw DeckError(DeckError::kNoFolder);
            });
        });
}

void copyWithoutExternalLinks(const QString& pptx, const QString& copy) {
    using Writer = std::unique_ptr<struct archive, decltype(&archive_write_free)>;
    Writer out(archive_write_new(), &archive_write_free);
    archive_write_set_format_zip(out.get());
    if (archive_write_open_filename(out.get(), QFile::encodeName(copy).constData()) != ARCHIVE_OK)
        throw DeckError(DeckError::kNoFolder);
    const auto header = [&](const QString& name, la_int64_t size) {
        std::unique_ptr<archive_entry, decltype(&archive_entry_free)> entry(archive_entry_new(),
                                                                            &archive_entry_free);
        archive_entry_set_pathname_utf8(entry.get(), name.toUtf8().constData());
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0644);
        if (size >= 0)
            archive_entry_set_size(entry.get(), size);
        if (archive_write_header(out.get(), entry.get()) != ARCHIVE_OK)
            throw DeckError(DeckError::kNoFolder);
    };
    const auto write = [&](const char* data, qint64 n) {
        if (archive_write_data(out.get(), data, static_cast<size_t>(n)) != n)
            throw DeckError(DeckError::kNoFolder);
    };
    forEachEntry(
        pptx, [](const QString&) { return true; },
        [&](struct archive* a, const QString& name, archive_entry* entry) {
            if (!name.endsWith(QLatin1StringView(".rels"))) {
                // Slides, pictures and media go across as they are, a piece at a time.
                header(name, archive_entry_size_is_set(entry) ? archive_entry_size(entry) : -1);
                readData(a, kMaxMediaBytes, write);
                return;
            }
            QByteArray data;
            readData(a, kMaxPartBytes, [&](const char* bytes, qint64 n) { data.append(bytes, n); });
            pugi::xml_document xml;
            if (xml.load_buffer(data.constData(), static_cast<size_t>(data.size()),
                                pugi::parse_default & ~pugi::parse_doctype)) {
                for (pugi::xml_node r = xml.document_element().first_child(); r;) {
                    const pugi::xml_node next = r.next_sibling();
                    if (QByteArray(r.attribute("TargetMode").value()).toLower() == "external")
                        xml.document_element().remove_child(r);
                    r = next;
                }
                std::ostringstream text;
                xml.save(text, "", pugi::format_raw);
                data = QByteArray::fromStdString(text.str());
            } else {
                data.clear(); // unreadable: no relationships at all rather than its links
            }
            header(name, data.size());
            write(data.constData(), data.size());
        });
    if (archive_write_close(out.get()) != ARCHIVE_OK)
        throw DeckError(DeckError::kNoFolder);
}

} // namespace SlideArchive
