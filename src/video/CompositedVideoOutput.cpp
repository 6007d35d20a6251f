#include "video/CompositedVideoOutput.h"

#include <algorithm>

#include <QFileInfo>
#include <QGuiApplication>
#include <QPainter>
#include <QScreen>

#include "audio/HostTime.h"
#include "video/OutputSurface.h"
#include "video/PictureRenderer.h"
#include "video/ScreenList.h"

namespace {

constexpr std::uint64_t kStartDelay = 80'000'000; // 80 ms, as a real player needs to preroll

double secondsBetween(std::uint64_t from, std::uint64_t to) {
    return to >= from ? static_cast<double>(to - from) * HostTime::ticksToSeconds()
                      : -static_cast<double>(from - to) * HostTime::ticksToSeconds();
}

// A linear fade from `from` over `seconds`; 1 when there is none.
double fadedIn(std::uint64_t from, double seconds, std::uint64_t now) {
    return seconds > 0.0 ? std::clamp(secondsBetween(from, now) / seconds, 0.0, 1.0) : 1.0;
}

// A layer's opacity at `now`: faded in from `shown`, and out over `fadeOut` up to `finishAt`
// (0: not stopping).
double opacityAt(std::uint64_t shown, double fadeIn, std::uint64_t finishAt, double fadeOut,
                 std::uint64_t now) {
    const double in = fadedIn(shown, fadeIn, now);
    if (finishAt == 0)
        return in;
    return in * (1.0 - fadedIn(finishAt - HostTime::secondsToTicks(fadeOut), fadeOut, now));
}

bool showsOn(const OutputSet& outputs, const std::optional<QString>& output) {
    return !output || !outputs || outputs->contains(*output);
}

} // namespace

class CompositedVideoOutput::Movie : public VideoCue {
public:
    Movie(Clock clock, AudioClock audio, double length)
        : m_clock(std::move(clock)), m_audio(std::move(audio)), m_length(length) {}

    double progress() const override {
        if (!started || m_length <= 0.0)
            return 0.0;
        return std::clamp(elapsed(m_clock()) / m_length, 0.0, 1.0);
    }
    double duration() const override { return m_length; }

    // Seconds of the movie played at host time `now` (negative before its start), counted on
    // the audio clock.
    double elapsed(std::uint64_t now) const { return m_audio(now) - startAudio; }
    // Plays the movie's `seconds` at host time `host`, and on from there.
    void playAt(std::uint64_t host, double seconds) { startAudio = m_audio(host) - seconds; }

    // Copies: a cue may outlive its output.
    Clock m_clock;
    AudioClock m_audio;
    double m_length;
    bool failed = false;
    bool holdAtEnd = false;
    bool endReported = false;
    std::uint64_t startHost = 0; // when the first picture came up: fades count from here
    double startAudio = 0.0;     // the audio clock at the movie's time 0
    double fadeIn = 0.0;
    std::uint64_t finishAt = 0; // set while stopping with a fade
    double fadeOut = 0.0;
    std::string path;
    std::unique_ptr<MoviePlayer> player; // made at the first picture drawn
    std::function<void()> onEnd;
    std::function<void(std::uint64_t)> onStart;
    std::function<void()> onFail;
};

CompositedVideoOutput::CompositedVideoOutput(Clock clock, bool autoPoll, QObject* parent)
    : QObject(parent), m_clock(clock ? std::move(clock) : Clock(&HostTime::now)),
      m_audioClock([](std::uint64_t host) {
          return static_cast<double>(host) * HostTime::ticksToSeconds();
      }),
      m_look(CompositorLook::fromPreferences()),
      m_wait(autoPoll ? MoviePlayer::Wait::never : MoviePlayer::Wait::forPicture) {
    if (autoPoll) {
        m_timer.setTimerType(Qt::PreciseTimer);
        m_timer.setInterval(10);
        connect(&m_timer, &QTimer::timeout, this, &CompositedVideoOutput::poll);
        m_autoPoll = true;
    }
}

CompositedVideoOutput::~CompositedVideoOutput() = default;

void CompositedVideoOutput::setAudioClock(AudioClock clock) {
    if (clock)
        m_audioClock = std::move(clock);
}

std::shared_ptr<VideoCue> CompositedVideoOutput::play(MovieStart start) {
    show();
    auto movie = std::make_shared<Movie>(m_clock, m_audioClock, std::max(start.duration, 0.0));
    // A file the loader found no picture in, or one gone since, fails as a player's would.
    movie->failed = !(start.duration >= 0.0) || !QFileInfo(start.path).isFile();
    movie->loop = start.loop;
    movie->volume = start.volume;
    movie->z = start.z;
    movie->outputs = std::move(start.outputs);
    movie->holdAtEnd = start.holdAtEnd;
    movie->fadeIn = start.fadeIn;
    movie->path = start.path.toStdString();
    movie->onEnd = std::move(start.onEnd);
    movie->onStart = std::move(start.onStart);
    movie->onFail = std::move(start.onFail);
    // A player made ahead has its first pictures decoded: this start shows at once, and the
    // next start of the file gets the next one.
    if (auto ready = m_prepared.find(start.path); ready != m_prepared.end() && !movie->failed) {
        movie->player = std::move(ready->second);
        m_prepared.erase(ready);
    }
    if (!movie->failed)
        prepare(start.path);
    m_movies.push_back(movie);
    watch();
    return movie;
}

void CompositedVideoOutput::prepare(const QString& path) {
    const auto found = m_prepared.find(path);
    if (found != m_prepared.end() && !found->second->failed())
        return;
    m_prepared[path] = std::make_unique<MoviePlayer>(path.toStdString(), m_wait);
}

void CompositedVideoOutput::resetPrepared() {
    m_prepared.clear();
}

std::shared_ptr<ImageCue> CompositedVideoOutput::showImage(std::function<QImage()> load,
                                                           double fadeIn, double z,
                                                           const OutputSet& outputs) {
    show();
    auto cue = std::make_shared<ImageCue>();
    cue->z = z;
    cue->outputs = outputs;
    Image image;
    image.cue = cue;
    image.load = std::move(load);
    image.shownAt = m_clock();
    image.fadeIn = fadeIn;
    m_images.push_back(std::move(image));
    watch();
    return cue;
}

void CompositedVideoOutput::watch() {
    if (m_autoPoll && !m_timer.isActive())
        m_timer.start();
    redraw();
}

void CompositedVideoOutput::redraw() {
    m_composed.reset();
    for (const auto& surface : m_surfaces)
        surface->wake();
}

void CompositedVideoOutput::enableSurfaces(int instanceNumber) {
    m_surfacesFor = instanceNumber;
    // A display plugged, unplugged or changed: the outputs follow.
    for (auto signal : {&QGuiApplication::screenAdded, &QGuiApplication::screenRemoved,
                        &QGuiApplication::primaryScreenChanged})
        connect(
            qGuiApp, signal, this, [this] { rebuildOutputs(); }, Qt::QueuedConnection);
    // A display changing its resolution: its surface covers it again.
    auto follow = [this](QScreen* screen) {
        connect(
            screen, &QScreen::geometryChanged, this, [this] { rebuildOutputs(); },
            Qt::QueuedConnection);
    };
    for (QScreen* screen : QGuiApplication::screens())
        follow(screen);
    connect(qGuiApp, &QGuiApplication::screenAdded, this, follow);
}

void CompositedVideoOutput::show() {
    // Outputs already open stay as they are: a start asks for them each time.
    if (m_showing && !m_outputs.isEmpty())
        return;
    if (m_outputs.isEmpty())
        m_outputs = {QStringLiteral("window")};
    m_showing = true;
    rebuildOutputs();
}

void CompositedVideoOutput::hide() {
    m_showing = false;
    rebuildOutputs();
}

void CompositedVideoOutput::setOutputs(const QStringList& outputs) {
    m_outputs = outputs;
    rebuildOutputs();
}

QStringList CompositedVideoOutput::surfaceIds() const {
    QStringList ids;
    for (const auto& surface : m_surfaces)
        ids << surface->id();
    return ids;
}

void CompositedVideoOutput::rebuildOutputs() {
    if (!m_surfacesFor)
        return;
    const ScreenList screens = ScreenList::current();
    QStringList wanted;
    if (m_showing) {
        for (const QString& output : m_outputs) {
            if ((output == QStringLiteral("window") || screens.find(output)) &&
                !wanted.contains(output))
                wanted << output;
        }
    }
    std::erase_if(m_surfaces, [&](const std::unique_ptr<OutputSurface>& surface) {
        return !wanted.contains(surface->id());
    });
    const auto draw = [this](PictureRenderer& renderer, const QSize& area, double ratio,
                             const QString& id, std::uint64_t now) {
        this->draw(renderer, area, ratio, now, id);
        return hasPictures();
    };
    const auto key = [this](const QString& id, std::uint64_t now) {
        return OutputSurface::Scene{sceneKey(now, id), hasPictures()};
    };
    const QList<QScreen*> qtScreens = ScreenList::qtScreens();
    for (const auto& surface : m_surfaces) {
        if (const auto index = screens.find(surface->id());
            surface->id() != QStringLiteral("window") && index && *index < qtScreens.size())
            surface->cover(qtScreens[*index]);
    }
    for (const QString& id : wanted) {
        if (std::any_of(m_surfaces.begin(), m_surfaces.end(),
                        [&](const auto& surface) { return surface->id() == id; }))
            continue;
        std::unique_ptr<OutputSurface> surface;
        if (id == QStringLiteral("window"))
            surface = OutputSurface::window(*m_surfacesFor, draw, key);
        else if (const auto index = screens.find(id); index && *index < qtScreens.size())
            surface = OutputSurface::display(id, qtScreens[*index], draw, key);
        if (!surface)
            continue;
        // Closing the window by hand: it is no longer wanted. Queued: the surface is the sender.
        connect(
            surface.get(), &OutputSurface::closedByHand, this,
            [this](const QString& closed) {
                m_outputs.removeAll(closed);
                rebuildOutputs();
            },
            Qt::QueuedConnection);
        m_surfaces.push_back(std::move(surface));
    }
}

CompositedVideoOutput::Movie* CompositedVideoOutput::movieFor(VideoCue& cue) {
    for (auto& movie : m_movies) {
        if (movie.get() == &cue)
            return movie.get();
    }
    return nullptr;
}

void CompositedVideoOutput::stop(VideoCue& cue, double fade) {
    Movie* movie = movieFor(cue);
    if (!movie || movie->stopping || movie->finished)
        return;
    movie->stopping = true;
    m_composed.reset();
    if (movie->started && fade > 0.0) {
        movie->finishAt = m_clock() + HostTime::secondsToTicks(fade);
        movie->fadeOut = fade;
    } else
        finish(cue);
}

void CompositedVideoOutput::stop(ImageCue& cue, double fade) {
    if (cue.stopping || cue.finished)
        return;
    cue.stopping = true;
    if (fade <= 0.0)
        return finish(cue);
    for (auto& image : m_images) {
        if (image.cue.get() == &cue) {
            image.finishAt = m_clock() + HostTime::secondsToTicks(fade);
            image.fadeOut = fade;
            watch();
        }
    }
}

void CompositedVideoOutput::finish(VideoCue& cue) {
    if (cue.finished)
        return;
    cue.finished = true;
    remove(cue);
}

void CompositedVideoOutput::finish(ImageCue& cue) {
    if (cue.finished)
        return;
    cue.finished = true;
    std::erase_if(m_images, [&](const Image& image) { return image.cue.get() == &cue; });
    redraw();
}

void CompositedVideoOutput::remove(VideoCue& cue) {
    std::erase_if(m_movies, [&](const std::shared_ptr<Movie>& movie) {
        if (movie.get() != &cue)
            return false;
        // The cue may be held on to; its pictures and decoder go now.
        movie->player.reset();
        return true;
    });
    redraw();
}

bool CompositedVideoOutput::seek(VideoCue& cue, double seconds, std::uint64_t hostTime) {
    Movie* movie = movieFor(cue);
    if (!movie || !movie->started || movie->finished)
        return false;
    // The fades keep counting from the first picture; the pictures from the new place.
    m_composed.reset();
    movie->playAt(hostTime, seconds);
    movie->endReported = false;
    return true;
}

void CompositedVideoOutput::poll() {
    m_composed.reset();
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
            movie->playAt(movie->startHost, 0.0);
            if (movie->onStart)
                movie->onStart(movie->startHost);
            continue;
        }
        const double length = movie->duration();
        if (movie->elapsed(now) < length || movie->endReported)
            continue;
        if (movie->loop && length > 0.0) {
            while (movie->elapsed(now) >= length)
                movie->startAudio += length;
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
    // Nothing moves without a cue: an idle show wakes nobody.
    const bool waiting =
        !m_movies.empty() || std::any_of(m_images.begin(), m_images.end(),
                                         [](const Image& image) { return image.finishAt != 0; });
    if (!waiting)
        m_timer.stop();
}

std::vector<CompositorLayer> CompositedVideoOutput::compose(std::uint64_t now,
                                                            const std::optional<QString>& output) {
    if (m_composed && m_composed->now == now && m_composed->output == output)
        return m_composed->layers;
    std::vector<CompositorLayer> layers;
    for (const auto& movie : m_movies) {
        if (movie->finished || !movie->started || !showsOn(movie->outputs, output))
            continue;
        if (now < movie->startHost)
            continue;
        double elapsed = std::max(movie->elapsed(now), 0.0);
        const double length = movie->duration();
        if (movie->loop && length > 0.0)
            elapsed = std::fmod(elapsed, length);
        if (!movie->player)
            movie->player = std::make_unique<MoviePlayer>(movie->path, m_wait);
        layers.push_back(
            {nullptr, movie->player->frameAt(elapsed), movie->z,
             opacityAt(movie->startHost, movie->fadeIn, movie->finishAt, movie->fadeOut, now)});
    }
    for (auto& image : m_images) {
        if (image.cue->finished || !showsOn(image.cue->outputs, output))
            continue;
        if (image.load) {
            image.picture = image.load();
            image.load = nullptr;
        }
        layers.push_back(
            {&image.picture, nullptr, image.cue->z,
             opacityAt(image.shownAt, image.fadeIn, image.finishAt, image.fadeOut, now)});
    }
    m_composed = Composed{now, output, layers};
    return layers;
}

void CompositedVideoOutput::draw(QPainter& painter, const QRect& area, std::uint64_t now,
                                 const std::optional<QString>& output, PictureDetail detail) {
    Compositor::draw(painter, area, compose(now, output), m_look, detail);
}

void CompositedVideoOutput::draw(PictureRenderer& renderer, const QSize& area, double ratio,
                                 std::uint64_t now, const QString& output) {
    renderer.draw(compose(now, output), m_look, area, ratio);
}

std::uint64_t CompositedVideoOutput::sceneKey(std::uint64_t now, const QString& output) {
    // FNV-1a over what decides the pixels.
    std::uint64_t key = 1469598103934665603ull;
    const auto mix = [&key](std::uint64_t value) { key = (key ^ value) * 1099511628211ull; };
    mix(static_cast<std::uint64_t>(m_look.fit));
    mix(m_look.background.rgba());
    for (const CompositorLayer& layer : compose(now, output)) {
        // A movie's pictures and still pictures are numbered apart: a serial is odd, a key even.
        mix(layer.frame     ? layer.frame->serial() * 2 + 1
            : layer.picture ? static_cast<std::uint64_t>(layer.picture->cacheKey()) * 2
                            : 0);
        mix(static_cast<std::uint64_t>(std::llround(layer.depth)));
        // A thousandth of opacity is below what eight bits per channel show.
        mix(static_cast<std::uint64_t>(std::llround(layer.opacity * 1000.0)));
    }
    return key;
}
