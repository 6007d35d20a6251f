#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>

// A whole file read or written in one call; writing makes the folder as needed.
namespace Files {

inline QByteArray read(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline bool write(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}

} // namespace Files
