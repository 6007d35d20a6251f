#pragma once

#include <optional>

#include <QString>

#include "audio/AudioClip.h"
#include "audio/MediaProbe.h"

// Load state of one entry of the model's media table (by media key).
// Decks (slide files, images, lists) get their `deck` with the deck builder; until then such
// entries carry an error and never a deck.
struct MediaInfo {
    bool loading = false;
    QString progressText;
    MediaProbe probe;
    AudioClipPtr clip;           // decoded audio when the mixer plays it
    bool audioViaPlayer = false; // the sound is played by the video player
    std::optional<QString> error;
    // Loaded, but with something the operator should know (damaged samples silenced).
    std::optional<QString> warning;
};
