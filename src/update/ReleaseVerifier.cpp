#include "update/ReleaseVerifier.h"

#include <sys/stat.h>

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include "update/Ed25519.h"
#include "update/ReleaseManifest.h"

namespace {

QByteArray readAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Whether the file is what the manifest says: a regular file (not a link) of that size, mode
// and digest.
bool matches(const QString& path, const ReleaseManifest::Entry& entry) {
    struct stat status {};
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size != entry.size || static_cast<int>(status.st_mode & 07777) != entry.mode)
        return false;
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) &&
           hash.result().toHex() == entry.sha256;
}

} // namespace

std::optional<QString> ReleaseVerifier::check(const QString& folder,
                                              const Release& expected) const {
    const QDir root(folder);
    const QByteArray text = readAll(root.filePath(ReleaseManifest::kFileName));
    const auto manifest = ReleaseManifest::parse(text);
    if (!manifest || !Ed25519::verify(manifest->key, text,
                                      readAll(root.filePath(ReleaseManifest::kSignatureName))))
        return kBadSignature;
    // Exactly the files listed: anything more (a link included) or less is refused.
    std::size_t seen = 0;
    QDirIterator walk(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                      QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString path = walk.next();
        const QFileInfo info = walk.fileInfo();
        if (info.isDir() && !info.isSymLink())
            continue;
        const QString name = root.relativeFilePath(path);
        if (name == ReleaseManifest::kFileName || name == ReleaseManifest::kSignatureName)
            continue;
        const auto entry = manifest->files.find(name);
        if (entry == manifest->files.end() || !matches(path, entry->second))
            return kBadSignature;
        ++seen;
    }
    if (seen != manifest->files.size())
        return kBadSignature;
    if (m_trustedKey.isEmpty())
        return kUnsignedProgram;
    if (manifest->key != m_trustedKey)
        return kOtherPublisher;
    if (manifest->version != expected.version || manifest->build != expected.build)
        return kOtherRelease.arg(manifest->version).arg(manifest->build);
    return std::nullopt;
}
