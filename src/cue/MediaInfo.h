#pragma once

#include <map>
#include <optional>

#include <QImage>
#include <QString>

#include "audio/AudioClip.h"
#include "media/MediaProbe.h"
#include "model/KeyAssignment.h"

// Load state of one entry of the media table (by media key).
// A still picture is decoded (upright) when it loads; decks (slide files, lists) get their
// `deck` with the deck builder; until then such entries carry an error and never a deck.
struct MediaInfo {
    bool loading = false;
    QString progressText;
    MediaProbe probe;
    AudioClipPtr clip;           // decoded audio when the mixer plays it
    QImage picture;              // a still picture, decoded (null: none)
    bool audioViaPlayer = false; // the sound is played by the video player
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
