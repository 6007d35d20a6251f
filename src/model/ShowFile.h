#pragma once

#include <chrono>
#include <map>
#include <optional>

#include <QByteArray>
#include <QString>

#include "model/KeyAssignment.h"

// The file side of a show: relative paths that let a moved show folder find its media again,
// and the atomic write. Main thread (any thread would do: no state).
namespace ShowFile {

// The key code a show file's key string names ("0", "+49"), or none when it is not 0…65535.
std::optional<KeyCode> keyCode(const QString& text);

// `path` relative to the folder `base`: ".." for every component of base past the shared ones,
// then the rest of path ("intro.wav", "../Other/x.wav"). Both are standardised first.
QString relativePath(const QString& path, const QString& base);

// The keys of a file as the model holds them: key strings that are not 0…65535 are dropped;
// a file missing at its absolute path is looked for at base + its relative path (also for each
// list source). The absolute path wins whenever it still exists.
std::map<KeyCode, KeyAssignment> resolve(const std::map<QString, KeyAssignment>& keys,
                                         const QString& base);

// The keys as the file stores them: decimal key strings, relative paths filled in anew.
std::map<QString, KeyAssignment> stored(const std::map<KeyCode, KeyAssignment>& keys,
                                        const QString& base);

// Writes a temporary file in the same folder, syncs it, renames it over `path` and syncs the
// folder, so a failure at any point leaves the old file as it was. A link is followed (its
// target is replaced, the link stays); the old file's permissions are kept. Throws
// DocumentError.
void writeAtomically(const QString& path, const QByteArray& bytes);

// Removes the temporary files of saves of `path` that never finished (the process was killed
// between writing and renaming), once they are older than `olderThan`. Returns how many.
int removeLeftovers(const QString& path, std::chrono::seconds olderThan);

} // namespace ShowFile
