#pragma once

#include <memory>
#include <optional>
#include <string>

#include <QImage>

#include "media/MovieDecoder.h"

// The pictures of one movie by time: asked for the picture due at a moment of the movie (the
// latest whose time is not after it), it decodes forward to it, and seeks when asked for a
// moment behind the one shown or far ahead of it. The file is opened at the first question.
//
// Threading: one thread at a time (the one that draws).
class MoviePlayer {
public:
    explicit MoviePlayer(std::string path);
    ~MoviePlayer();

    // Null before the first picture is due, and when the file cannot be played (failed()).
    const QImage* frameAt(double seconds);
    bool failed() const { return m_failed; }

private:
    bool advance();

    std::string m_path;
    std::unique_ptr<MovieDecoder> m_decoder;
    bool m_failed = false;
    std::optional<MovieFrame> m_next; // decoded, not yet due
    double m_shownTime = -1.0;
    QImage m_shown;
};
