#pragma once

#include <cstdint>
#include <optional>

#include <QSet>
#include <QString>

using OutputSet = std::optional<QSet<QString>>; // absent: every output

// One running movie on the outputs: created → started (at its start host time) → stopping →
// finished, or created → finished on failure or an early stop. Never comes back once finished.
// Main thread.
class VideoCue {
public:
    virtual ~VideoCue() = default;

    bool loop = false;
    float volume = 1.0f;
    double z = 0.0;
    OutputSet outputs;
    bool started = false;
    bool stopping = false;
    bool finished = false;

    // 0…1 of the movie's length.
    virtual double progress() const = 0;
    // Seconds.
    virtual double duration() const = 0;
};

// One picture on the outputs: shown → stopping → finished. Main thread.
class ImageCue {
public:
    virtual ~ImageCue() = default;

    double z = 0.0;
    OutputSet outputs;
    bool stopping = false;
    bool finished = false;
};
