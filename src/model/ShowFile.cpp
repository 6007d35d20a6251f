#include "model/ShowFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "model/DocumentError.h"

namespace {

QStringList components(const QString& path) {
    QStringList parts{QStringLiteral("/")};
    parts << QDir::cleanPath(path).split(QLatin1Char('/'), Qt::SkipEmptyParts);
    return parts;
}

QString found(const QString& path, const std::optional<QString>& relative, const QString& base) {
    if (QFileInfo::exists(path) || !relative)
        return path;
    const QString candidate = QDir::cleanPath(base + QLatin1Char('/') + *relative);
    return QFileInfo::exists(candidate) ? candidate : path;
}

// Between the name of the show and mkstemp's six characters in a temporary file of a save.
constexpr char kSavingMark[] = ".saving-";

DocumentError writeError(const QString& path) {
    return DocumentError(
        QStringLiteral("「%1」を保存できません（%2）")
            .arg(QFileInfo(path).fileName(), QString::fromLocal8Bit(std::strerror(errno))));
}

} // namespace

namespace ShowFile {

std::optional<KeyCode> keyCode(const QString& text) {
    bool ok = false;
    const qlonglong value = text.toLongLong(&ok, 10);
    if (!ok || value < 0 || value > 65535)
        return std::nullopt;
    return static_cast<KeyCode>(value);
}

QString relativePath(const QString& path, const QString& base) {
    const QStringList target = components(path);
    const QStringList folder = components(base);
    qsizetype common = 0;
    while (common < target.size() && common < folder.size() && target[common] == folder[common])
        ++common;
    QStringList result;
    for (qsizetype i = common; i < folder.size(); ++i)
        result << QStringLiteral("..");
    for (qsizetype i = common; i < target.size(); ++i)
        result << target[i];
    return result.join(QLatin1Char('/'));
}

std::map<KeyCode, KeyAssignment> resolve(const std::map<QString, KeyAssignment>& keys,
                                         const QString& base) {
    std::map<KeyCode, KeyAssignment> result;
    for (const auto& [text, stored] : keys) {
        const auto code = keyCode(text);
        if (!code)
            continue;
        KeyAssignment a = stored;
        a.path = found(a.path, a.relativePath, base);
        if (a.sources) {
            for (qsizetype i = 0; i < a.sources->size(); ++i) {
                std::optional<QString> relative;
                if (a.relativeSources && i < a.relativeSources->size())
                    relative = (*a.relativeSources)[i];
                (*a.sources)[i] = found((*a.sources)[i], relative, base);
            }
        }
        result.emplace(*code, std::move(a));
    }
    return result;
}

std::map<QString, KeyAssignment> stored(const std::map<KeyCode, KeyAssignment>& keys,
                                        const QString& base) {
    std::map<QString, KeyAssignment> result;
    for (const auto& [code, assignment] : keys) {
        KeyAssignment a = assignment;
        a.relativePath = relativePath(a.path, base);
        if (a.sources) {
            QStringList relative;
            for (const QString& source : *a.sources)
                relative << relativePath(source, base);
            a.relativeSources = relative;
        }
        result.emplace(QString::number(code), std::move(a));
    }
    return result;
}

void writeAtomically(const QString& path, const QByteArray& bytes) {
    // Saving through a link writes the file it points to; the link stays a link.
    const QFileInfo info(path);
    const QString real =
        info.isSymLink() && !info.canonicalFilePath().isEmpty() ? info.canonicalFilePath() : path;
    const QByteArray target = QFile::encodeName(real);
    QByteArray temporary = target + kSavingMark + "XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0)
        throw writeError(path);
    // The new file keeps the old one's permissions (a show kept private stays private); a new
    // one gets what any new file of the user gets.
    struct stat old {};
    if (::stat(target.constData(), &old) == 0) {
        fchmod(fd, old.st_mode & 07777);
    } else {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        fchmod(fd, 0666 & ~mask);
    }
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t n =
            ::write(fd, bytes.constData() + written, static_cast<size_t>(bytes.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const int saved = errno;
            ::close(fd);
            ::unlink(temporary.constData());
            errno = saved;
            throw writeError(path);
        }
        written += n;
    }
    if (::fsync(fd) != 0 || ::close(fd) != 0) {
        const int saved = errno;
        ::unlink(temporary.constData());
        errno = saved;
        throw writeError(path);
    }
    if (::rename(temporary.constData(), target.constData()) != 0) {
        const int saved = errno;
        ::unlink(temporary.constData());
        errno = saved;
        throw writeError(path);
    }
    // The rename itself must reach the disk too.
    const int folder = ::open(QFile::encodeName(QFileInfo(real).absolutePath()).constData(),
                              O_RDONLY | O_DIRECTORY);
    if (folder >= 0) {
        ::fsync(folder);
        ::close(folder);
    }
}

int removeLeftovers(const QString& path, std::chrono::seconds olderThan) {
    const QFileInfo info(path);
    const QString real = info.isSymLink() && !info.canonicalFilePath().isEmpty()
                             ? info.canonicalFilePath()
                             : info.absoluteFilePath();
    const QFileInfo show(real);
    QDir folder = show.absoluteDir();
    const QStringList names =
        folder.entryList({show.fileName() + QString::fromLatin1(kSavingMark) + "??????"},
                         QDir::Files | QDir::Hidden);
    const QDateTime limit = QDateTime::currentDateTime().addSecs(-olderThan.count());
    int removed = 0;
    for (const QString& name : names) {
        // A save of another instance may be under way right now; only old ones are leftovers.
        if (QFileInfo(folder.filePath(name)).lastModified() <= limit && folder.remove(name))
            ++removed;
    }
    return removed;
}

} // namespace ShowFile
