#include "model/MediaType.h"

#include <algorithm>

#include <QMimeDatabase>
#include <QMimeType>

namespace MediaType {

bool is(const QString& path, QLatin1StringView family) {
    static const QMimeDatabase database;
    const QMimeType type = database.mimeTypeForFile(path, QMimeDatabase::MatchExtension);
    if (!type.isValid() || type.isDefault())
        return false;
    if (type.name().startsWith(family))
        return true;
    const QStringList ancestors = type.allAncestors();
    return std::any_of(ancestors.begin(), ancestors.end(),
                       [&](const QString& name) { return name.startsWith(family); });
}

} // namespace MediaType
