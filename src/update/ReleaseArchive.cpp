#include "update/ReleaseArchive.h"

#include <archive.h>
#include <archive_entry.h>
#include <memory>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "update/UpdateError.h"

namespace ReleaseArchive {

namespace {

const QString kCannotUnpack = QStringLiteral("アーカイブを展開できません: %1");

[[noreturn]] void refuse(const QString& reason) {
    throw UpdateError(kCannotUnpack.arg(reason));
}

bool isLink(const QString& path) {
    struct stat status {};
    return ::lstat(QFile::encodeName(path).constData(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool unsafeName(const QString& name) {
    return name.isEmpty() || name.startsWith('/') || name.contains('\\') ||
           name.split('/').contains(QStringLiteral(".."));
}

} // namespace

void unpack(const QString& archivePath, const QString& folder) {
    std::unique_ptr<archive, decltype(&archive_read_free)> a(archive_read_new(),
                                                             &archive_read_free);
    archive_read_support_filter_all(a.get());
    archive_read_support_format_tar(a.get());
    if (archive_read_open_filename(a.get(), QFile::encodeName(archivePath).constData(),
                                   64 * 1024) != ARCHIVE_OK)
        refuse(QString::fromUtf8(archive_error_string(a.get())));
    const QDir root(folder);
    qint64 total = 0;
    int entries = 0;
    archive_entry* entry = nullptr;
    for (;;) {
        const int status = archive_read_next_header(a.get(), &entry);
        if (status == ARCHIVE_EOF)
            return;
        // A warning (an unreadable pax attribute, say) leaves the entry whole; anything else
        // (a damaged header the reader would skip) leaves no entry to trust.
        if (status != ARCHIVE_OK && status != ARCHIVE_WARN)
            refuse(QString::fromUtf8(archive_error_string(a.get())));
        if (++entries > kMaxEntries)
            refuse(QStringLiteral("項目が多すぎます"));
        const char* raw = archive_entry_pathname_utf8(entry);
        QString name = QString::fromUtf8(raw ? raw : "");
        while (name.endsWith('/'))
            name.chop(1);
        if (name.startsWith(QStringLiteral("./")))
            name = name.mid(2);
        if (unsafeName(name) || archive_entry_hardlink(entry))
            refuse(QStringLiteral("不正な項目 %1").arg(name));
        const QString path = root.filePath(name);
        // Never beneath a link, never over one: a link could lead anywhere.
        const QStringList parts = name.split('/');
        for (qsizetype i = 1; i <= parts.size(); ++i) {
            if (isLink(root.filePath(parts.mid(0, i).join('/'))))
                refuse(QStringLiteral("不正な項目 %1").arg(name));
        }
        const auto type = archive_entry_filetype(entry);
        if (type == AE_IFDIR) {
            if (!root.mkpath(name))
                refuse(name);
            continue;
        }
        if (!root.mkpath(QFileInfo(name).path()))
            refuse(name);
        if (type == AE_IFLNK) {
            const char* target = archive_entry_symlink_utf8(entry);
            const QString to = QString::fromUtf8(target ? target : "");
            if (unsafeName(to) || !QFile::link(to, path))
                refuse(QStringLiteral("不正なリンク %1").arg(name));
            continue;
        }
        if (type != AE_IFREG)
            refuse(QStringLiteral("不正な項目 %1").arg(name));
        QFile file(path);
        if (file.exists() || !file.open(QIODevice::WriteOnly))
            refuse(name);
        char buffer[64 * 1024];
        for (;;) {
            const la_ssize_t n = archive_read_data(a.get(), buffer, sizeof buffer);
            if (n == 0)
                break;
            if (n < 0)
                refuse(QString::fromUtf8(archive_error_string(a.get())));
            total += n;
            if (total > kMaxBytes)
                refuse(QStringLiteral("展開すると大きすぎます"));
            if (file.write(buffer, n) != n)
                refuse(file.errorString());
        }
        file.close();
        ::chmod(QFile::encodeName(path).constData(),
                static_cast<mode_t>(archive_entry_perm(entry) & 0755));
    }
}

} // namespace ReleaseArchive
