#pragma once

#include <QLatin1StringView>
#include <QString>

// What a file is by its name, like a type registry: the MIME type its extension gives, or one
// it derives from, lies under `family` ("image/", "video/", "audio/"). The file need not exist.
// Any thread.
namespace MediaType {

bool is(const QString& path, QLatin1StringView family);

} // namespace MediaType
