#pragma once

#include <map>
#include <optional>

#include <QString>

#include "audio/AudioClip.h"
#include "deck/Deck.h"
#include "media/MediaProbe.h"
#include "model/KeyAssignment.h"

// Load state of one entry of the media table (by media key).
// Slide files, lists and single pictures load as a `deck` (a picture is a deck of one).
struct MediaInfo {
    bool loading = false;
    QString progressText;
    MediaProbe probe;
    AudioClipPtr clip;           // decoded audio when the mixer plays it
    DeckPtr deck;                // slides, a list of files or a picture, item by item
    bool audioViaPlayer = false; // no clip: the sound is decoded while it plays (too long)
    std::optional<QString> error;
    // Loaded, but with something the operator should know (damaged samples silenced).
    std::optional<QString> warning;
};

// The runtime media table: what each media key's file holds once loaded, shared by every key
// and page that uses the file. Main thread.
using MediaTable = std::map<QString, MediaInfo>; // by media key

inline const MediaInfo* mediaFor(const MediaTable& table, const KeyAssignment& assignment) {
    const auto found = table.find(assignment.mediaKey());
    return found == table.end() ? nullptr : &found->second;
}
