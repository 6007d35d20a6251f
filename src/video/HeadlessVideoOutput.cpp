#include "video/HeadlessVideoOutput.h"

#include <algorithm>

#include <QFileInfo>

#include "audio/HostTime.h"

namespace {

constexpr std::uint64_t kStartDelay = 80'000'000; // 80 ms, as a real player needs to preroll

} // namespace

class HeadlessVideoOutput::Movie : public VideoCue {
public:
    Movie(Clock clock, double length) : m_clock(std::move(clock)), m_length(length) {}

    double progress() const override {
        if (!started || m_length <= 0.0)
            return 0.0;
        const auto now = m_clock();
        const double elapsed =
            now > startHost ? static_cast<double>(now - startHost) * HostTime::ticksToSeconds()
                            : 0.0;
        return std::clamp(elapsed / m_length, 0.0, 1.0);
    }
    double duration() const override { return m_length; }

    Clock m_clock; // a copy: a cue may outlive its output
    double m_length;
    bool failed = false;
    bool holdAtEnd = false;
    bool endReported = false;
    std::uint64_t startHost = 0;
    std::uint64_t finishAt = 0; // set while stopping with a fade
    std::function<void()> onEnd;
    std::function<void(std::uint64_t)> onStart;
    std::function<void()> onFail;
};

HeadlessVideoOutput::HeadlessVideoOutput(Clock clock, bool autoPoll, QObject* parent)
    : QObject(parent), m_clock(clock ? std::move(clock) : Clock(&HostTime::now)) {
    if (autoPoll) {
        m_timer.setTimerType(Qt::PreciseTimer);
        m_timer.setInterval(10);
        connect(&m_timer, &QTimer::timeout, this, &HeadlessVideoOutput::poll);
        m_timer.start();
    }
}

HeadlessVideoOutput::~HeadlessVideoOutput() = default;

std::shared_ptr<VideoCue> HeadlessVideoOutput::play(MovieStart start) {
    show();
    auto movie = std::make_shared<Movie>(m_clock, std::max(start.duration, 0.0));
    // A file the loader found no picture in, or one gone since, fails as a player's would.
    movie->failed = !(start.duration >= 0.0) || !QFileInfo(start.path).isFile();
    movie->loop = start.loop;
    movie->usesPlayerAudio = start.playerAudio;
    movie->volume = start.volume;
    movie->z = start.z;
    movie->outputs = std::move(start.outputs);
    movie->holdAtEnd = start.holdAtEnd;
    movie->onEnd = std::move(start.onEnd);
    movie->onStart = std::move(start.onStart);
    movie->onFail = std::move(start.onFail);
    m_movies.push_back(movie);
    return movie;
}

std::shared_ptr<ImageCue> HeadlessVideoOutput::showImage(std::function<QImage()> load,
                                                         double fadeIn, double z,
                                                         const OutputSet& outputs) {
    Q_UNUSED(load);
    Q_UNUSED(fadeIn);
    show();
    auto cue = std::make_shared<ImageCue>();
    cue->z = z;
    cue->outputs = outputs;
    m_images.push_back({cue, 0});
    return cue;
}

HeadlessVideoOutput::Movie* HeadlessVideoOutput::movieFor(VideoCue& cue) {
    for (auto& movie : m_movies) {
        if (movie.get() == &cue)
            return movie.get();
    }
    return nullptr;
}

void HeadlessVideoOutput::stop(VideoCue& cue, double fade) {
    Movie* movie = movieFor(cue);
    if (!movie || movie->stopping || movie->finished)
        return;
    movie->stopping = true;
    if (movie->started && fade > 0.0)
        movie->finishAt = m_clock() + HostTime::secondsToTicks(fade);
    else
        finish(cue);
}

void HeadlessVideoOutput::stop(ImageCue& cue, double fade) {
    if (cue.stopping || cue.finished)
        return;
    cue.stopping = true;
    if (fade <= 0.0)
        return finish(cue);
    for (auto& image : m_images) {
        if (image.cue.get() == &cue)
            image.finishAt = m_clock() + HostTime::secondsToTicks(fade);
    }
}

void HeadlessVideoOutput::finish(VideoCue& cue) {
    if (cue.finished)
        return;
    cue.finished = true;
    remove(cue);
}

void HeadlessVideoOutput::finish(ImageCue& cue) {
    if (cue.finished)
        return;
    cue.finished = true;
    std::erase_if(m_images, [&](const Image& image) { return image.cue.get() == &cue; });
}

void HeadlessVideoOutput::remove(VideoCue& cue) {
    std::erase_if(m_movies,
                  [&](const std::shared_ptr<Movie>& movie) { return movie.get() == &cue; });
}

bool HeadlessVideoOutput::seek(VideoCue& cue, double seconds, std::uint64_t hostTime) {
    Movie* movie = movieFor(cue);
    if (!movie || !movie->started || movie->finished)
        return false;
    movie->startHost = hostTime - std::min(hostTime, HostTime::secondsToTicks(seconds));
    movie->endReported = false;
    return true;
}

void HeadlessVideoOutput::poll() {
    const std::uint64_t now = m_clock();
    // Callbacks may start or stop cues: walk a copy.
    const auto movies = m_movies;
    for (const auto& movie : movies) {
        if (movie->finished)
            continue;
        if (movie->failed) {
            finish(*movie);
            if (movie->onFail)
                movie->onFail();
            continue;
        }
        if (movie->stopping) {
            if (movie->finishAt != 0 && now >= movie->finishAt)
                finish(*movie);
            continue;
        }
        if (!movie->started) {
            movie->started = true;
            movie->startHost = now + kStartDelay;
            if (movie->onStart)
                movie->onStart(movie->startHost);
            continue;
        }
        const std::uint64_t length = HostTime::secondsToTicks(movie->duration());
        if (now < movie->startHost + length || movie->endReported)
            continue;
        if (movie->loop && length > 0) {
            while (now >= movie->startHost + length)
                movie->startHost += length;
        } else if (movie->holdAtEnd) {
            movie->endReported = true;
            if (movie->onEnd)
                movie->onEnd();
        } else {
            finish(*movie);
            if (movie->onEnd)
                movie->onEnd();
        }
    }
    const auto images = m_images;
    for (const auto& image : images) {
        if (image.cue->stopping && image.finishAt != 0 && now >= image.finishAt)
            finish(*image.cue);
    }
}
