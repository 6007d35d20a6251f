#include "video/MoviePlayer.h"

#include "media/LoadError.h"

namespace {

// Further ahead than this, seeking costs less than decoding every picture on the way.
constexpr double kSeekAhead = 2.0;

} // namespace

MoviePlayer::MoviePlayer(std::string path) : m_path(std::move(path)) {}

MoviePlayer::~MoviePlayer() = default;

bool MoviePlayer::advance() {
    m_next = m_decoder->next();
    if (!m_next && m_decoder->failed())
        m_failed = true;
    return m_next.has_value();
}

const QImage* MoviePlayer::frameAt(double seconds) {
    if (m_failed)
        return nullptr;
    if (!m_decoder) {
        try {
            m_decoder = std::make_unique<MovieDecoder>(m_path);
        } catch (const LoadError&) {
            m_failed = true;
            return nullptr;
        }
        advance();
    }
    const bool behind = !m_shown.isNull() && seconds + 1e-6 < m_shownTime;
    const bool farAhead = m_next && seconds > m_next->time + kSeekAhead;
    if (behind || farAhead) {
        m_decoder->seek(seconds);
        m_shown = QImage();
        m_shownTime = -1.0;
        advance();
    }
    bool moved = false;
    std::optional<MovieFrame> due;
    while (m_next && m_next->time <= seconds + 1e-6) {
        due = std::move(m_next);
        moved = true;
        advance();
    }
    if (moved) {
        m_shownTime = due->time;
        m_shown = QImage(due->rgba.data(), due->width, due->height, due->width * 4,
                         QImage::Format_RGBA8888)
                      .copy();
    }
    return m_shown.isNull() ? nullptr : &m_shown;
}
