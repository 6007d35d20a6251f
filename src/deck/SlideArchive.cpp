#include "deck/SlideArchive.h"

#include <archive.h>
#include <archive_entry.h>
#include <memory>

#include <QFile>

#include "deck/DeckError.h"

namespace SlideArchive {

namespace {

const QString kUnsafe = QStringLiteral("スライドのファイルに不正な項目があります: %1");
const QString kTooLarge =
    QStringLiteral("スライドのファイルが壊れています（展開すると大きすぎます）");
const QString kDamaged = QStringLiteral("スライドのファイルが壊れています");

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

// Reads the current entry's data in pieces, stopping at `limit` bytes or at an expansion no real
// file has.
void readData(archive* a, qint64 limit, const std::function<void(const char*, qint64)>& take) {
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
        if (produced > limit || (produced > (8 << 20) && produced > kMaxExpansion * (consumed + 1)))
            throw DeckError(kTooLarge);
        take(buffer, n);
    }
}

// Walks every entry, checking each name, and hands the wanted ones to `use`.
void forEachEntry(const QString& path, const std::function<bool(const QString&)>& wanted,
                  const std::function<void(archive*, const QString&)>& use) {
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
            use(a.get(), name);
    }
}

} // namespace

std::map<QString, QByteArray> readParts(const QString& archive,
                                        const std::function<bool(const QString&)>& wanted) {
    std::map<QString, QByteArray> parts;
    forEachEntry(archive, wanted, [&](struct archive* a, const QString& name) {
        QByteArray& part = parts[name];
        readData(a, kMaxPartBytes, [&](const char* data, qint64 n) { part.append(data, n); });
    });
    return parts;
}

void extract(const QString& archive, const std::map<QString, QString>& targets) {
    forEachEntry(
        archive, [&](const QString& name) { return targets.count(name) > 0; },
        [&](struct archive* a, const QString& name) {
            QFile out(targets.at(name));
            if (!out.open(QIODevice::WriteOnly))
                throw DeckError(DeckError::kNoFolder);
            readData(a, kMaxMediaBytes, [&](const char* data, qint64 n) {
                if (out.write(data, n) != n)
                    throw DeckError(DeckError::kNoFolder);
            });
        });
}

} // namespace SlideArchive
