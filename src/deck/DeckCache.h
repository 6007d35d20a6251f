#pragma once

#include <QString>

// Where built decks live: one folder per source and way of building it, under
// $XDG_DATA_HOME/Vorlin/Decks. A changed, moved or differently converted source gets a new
// folder; the same source always finds its old one. Old folders are never removed by the
// program (a show may still refer to them after the source moved back). Any thread.
namespace DeckCache {

// $XDG_DATA_HOME/Vorlin/Decks (~/.local/share/Vorlin/Decks).
QString root();

// Path, modification time (whole seconds since 1970), size and engine: what makes a build
// reusable.
QString stamp(const QString& sourcePath, const QString& engine);

// Bytes of the source's name kept in a folder's name (at most: cut at a character's end).
constexpr qsizetype kMaxNameBytes = 200;

// root()/<source name without extension>-<first 12 hex digits of SHA-256(stamp)>.
QString folderFor(const QString& sourcePath, const QString& stamp);

} // namespace DeckCache
