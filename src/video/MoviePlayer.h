#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "media/MovieDecoder.h"

// The pictures of one movie by time. A thread of its own opens the file and decodes ahead into
// a small queue; asked for the picture due at a moment of the movie (the latest whose time is
// not after it), the player takes it from the queue. Asked for a moment behind the picture
// shown, or far ahead of what is queued, it has the thread seek there.
//
// Drawing for a screen never waits: until the due picture is decoded the one before stays up.
// A render (`Wait::forPicture`) waits for it, so the same input draws the same pictures.
//
// Threading: frameAt from one thread at a time (the one that draws); the decoding thread is the
// player's own and ends with it.
class MoviePlayer {
public:
    enum class Wait { never, forPicture };

    MoviePlayer(std::string path, Wait wait);
    ~MoviePlayer();

    MoviePlayer(const MoviePlayer&) = delete;
    MoviePlayer& operator=(const MoviePlayer&) = delete;

    // Null before the first picture is due, and when the file cannot be played (failed()). The
    // picture stays valid until the next call.
    const MovieFrame* frameAt(double seconds);
    bool failed() const;

private:
    void decode();
    struct Buffers;

    // Enough to ride out a slow picture; each is width × height × 1.5 bytes in the usual 4:2:0
    // layout (3 MB at 1080p), or × 4 as RGBA.
    static constexpr std::size_t kQueued = 4;

    const std::string m_path;
    const Wait m_wait;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<MovieFrame> m_queue; // in time order; handing one over copies no pixels
    std::optional<double> m_seekTo; // asked of the thread
    bool m_ended = false;           // nothing more will be queued until a seek
    bool m_failed = false;
    bool m_quit = false;
    std::atomic<bool> m_cancel{false};
    std::shared_ptr<Buffers> m_buffers;
    std::thread m_thread; // started in the constructor: it uses only the members above

    // The drawing thread's.
    std::optional<MovieFrame> m_shown;
};
