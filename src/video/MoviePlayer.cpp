#include "video/MoviePlayer.h"

#include <utility>

#include "media/LoadError.h"

// Buffers of one size for converted pictures, handed back when the last picture holding one goes
// (on whatever thread that is).
struct MoviePlayer::Buffers {
    std::mutex mutex;
    std::size_t bytes = 0;
    struct Release {
        void operator()(std::uint8_t* pixels) const { MovieFrame::freePixels(pixels); }
    };
    using Buffer = std::unique_ptr<std::uint8_t[], Release>;
    std::vector<Buffer> free;

    static std::shared_ptr<std::uint8_t[]> take(const std::shared_ptr<Buffers>& self,
                                                std::size_t bytes) {
        Buffer buffer;
        {
            std::lock_guard lock(self->mutex);
            if (self->bytes != bytes) {
                self->free.clear();
                self->bytes = bytes;
            }
            if (!self->free.empty()) {
                buffer = std::move(self->free.back());
                self->free.pop_back();
            }
        }
        if (!buffer)
            buffer.reset(MovieFrame::allocatePixels(bytes)); // not zeroed: every pixel is written
        std::weak_ptr<Buffers> pool = self;
        return std::shared_ptr<std::uint8_t[]>(buffer.release(), [pool, bytes](std::uint8_t* p) {
            Buffer back(p);
            if (const auto buffers = pool.lock()) {
                std::lock_guard lock(buffers->mutex);
                if (buffers->bytes == bytes && buffers->free.size() < kKept)
                    buffers->free.push_back(std::move(back));
            }
        });
    }

    static constexpr std::size_t kKept = 4;
};

namespace {

// Further ahead of the queue than this, seeking costs less than decoding every picture between.
constexpr double kSeekAhead = 2.0;
// Times are compared with this slack: a picture due "now" must not miss by a rounding.
constexpr double kSlack = 1e-6;

} // namespace

MoviePlayer::MoviePlayer(std::string path, Wait wait)
    : m_path(std::move(path)), m_wait(wait), m_buffers(std::make_shared<Buffers>()),
      m_thread([this] { decode(); }) {}

MoviePlayer::~MoviePlayer() {
    {
        std::lock_guard lock(m_mutex);
        m_quit = true;
    }
    m_cancel = true;
    m_changed.notify_all();
    m_thread.join();
}

bool MoviePlayer::failed() const {
    std::lock_guard lock(m_mutex);
    return m_failed;
}

void MoviePlayer::decode() {
    std::unique_ptr<MovieDecoder> decoder;
    try {
        decoder = std::make_unique<MovieDecoder>(
            m_path, &m_cancel,
            [buffers = m_buffers](std::size_t bytes) { return Buffers::take(buffers, bytes); });
    } catch (const LoadError&) {
        std::lock_guard lock(m_mutex);
        m_failed = true;
        m_ended = true;
        m_changed.notify_all();
        return;
    }
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_changed.wait(
            lock, [this] { return m_quit || m_seekTo || (!m_ended && m_queue.size() < kQueued); });
        if (m_quit)
            return;
        const std::optional<double> seekTo = std::exchange(m_seekTo, std::nullopt);
        lock.unlock();
        if (seekTo)
            decoder->seek(*seekTo);
        std::optional<MovieFrame> picture = decoder->next();
        const bool broken = !picture && decoder->failed();
        lock.lock();
        if (m_seekTo)
            continue; // asked elsewhere meanwhile: this picture is of the old place
        if (seekTo) {
            m_queue.clear();
            m_ended = false;
        }
        if (picture)
            m_queue.push_back(std::move(*picture));
        else
            m_ended = true;
        m_failed = m_failed || broken;
        m_changed.notify_all();
    }
}

const MovieFrame* MoviePlayer::frameAt(double seconds) {
    std::unique_lock lock(m_mutex);
    if (m_failed && m_queue.empty())
        return nullptr;
    const bool behind = m_shown && seconds + kSlack < m_shown->time;
    const bool farAhead = !m_queue.empty() && seconds > m_queue.back().time + kSeekAhead;
    if (behind || farAhead) {
        m_seekTo = seconds;
        m_queue.clear();
        m_ended = false;
        m_shown.reset();
        m_changed.notify_all();
    }
    // Take every picture due; a render then waits until the one after them is queued (or the
    // movie ends), since only then is the last one taken the picture due.
    std::optional<MovieFrame> due;
    for (;;) {
        while (!m_seekTo && !m_queue.empty() && m_queue.front().time <= seconds + kSlack) {
            due = std::move(m_queue.front());
            m_queue.pop_front();
            m_changed.notify_all(); // room in the queue
        }
        const bool known = m_ended || m_failed || (!m_seekTo && !m_queue.empty());
        if (m_wait == Wait::never || known)
            break;
        m_changed.wait(lock);
    }
    if (due)
        m_shown = std::move(due);
    return m_shown ? &*m_shown : nullptr;
}
