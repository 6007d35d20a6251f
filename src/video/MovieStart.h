#pragma once

#include <cstdint>
#include <functional>

#include <QString>

#include "video/VideoCue.h"

// What starting a movie on the outputs needs: the file, how it plays and where, and whom to
// tell. Callbacks run later on the main thread.
struct MovieStart {
    QString path;
    // The picture's length as the media loader probed it (seconds); negative: the loader found
    // no picture it can play. The output never opens the file on the caller's thread to learn it.
    double duration = -1.0;
    double fadeIn = 0.0; // seconds
    bool loop = false;
    float volume = 1.0f;
    double z = 0.0; // depth: layer × 1,000,000 + the picture's sequence number
    OutputSet outputs;
    bool holdAtEnd = false;                     // the last frame stays; onEnd once
    std::function<void()> onEnd;                // at the movie's end (never for a loop)
    std::function<void(std::uint64_t)> onStart; // the host time at which the picture starts
    std::function<void()> onFail;               // the file cannot be played
};
