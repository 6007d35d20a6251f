#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include <QObject>
#include <QStringList>
#include <QTimer>

#include "video/Compositor.h"
#include "video/MoviePlayer.h"
#include "video/VideoOutput.h"

// The video output: movies and pictures as layers by depth, with their fades, composited for
// every place they are shown — the output surfaces (the movable window, whole displays), the
// monitor view, and the pictures of a render. A movie plays for the duration the loader probed
// on a host clock, starting 80 ms after it is asked to (as a real player does), and reports
// start, end and failure through the callbacks; its pictures are decoded to the moment a
// surface draws. A file without a picture fails.
//
// Surfaces exist only in the application (enableSurfaces); headless runs and tests have none and
// draw on request. The wanted outputs ("window" or display labels) survive a display that is
// unplugged and come back with it.
//
// The clock is the monotonic host clock and a timer polls it, or, for offline renders, a
// simulated clock that the caller advances and polls itself. Fades run on that clock; a movie's
// pictures run on the audio clock (setAudioClock), the one its sound plays by. Main thread.
class OutputSurface;
class PictureRenderer;

class CompositedVideoOutput : public QObject, public VideoOutput {
    Q_OBJECT
public:
    using Clock = std::function<std::uint64_t()>;

    // With autoPoll a 10 ms timer calls poll() while cues are up; otherwise the owner does, on a
    // simulated clock, and a picture drawn waits for its movies to be decoded to it (a render's
    // pictures must not depend on how fast the machine decodes).
    explicit CompositedVideoOutput(Clock clock = {}, bool autoPoll = true,
                                   QObject* parent = nullptr);
    ~CompositedVideoOutput() override;

    std::shared_ptr<VideoCue> play(MovieStart start) override;
    std::shared_ptr<ImageCue> showImage(std::function<QImage()> load, double fadeIn, double z,
                                        const OutputSet& outputs) override;
    void stop(VideoCue& cue, double fade) override;
    void stop(ImageCue& cue, double fade) override;
    void finish(VideoCue& cue) override;
    void finish(ImageCue& cue) override;
    bool seek(VideoCue& cue, double seconds, std::uint64_t hostTime) override;
    void prepare(const QString& path) override;
    void resetPrepared() override;
    std::size_t preparedCount() const { return m_prepared.size(); }
    void show() override;
    void hide() override;
    bool isShowing() const override { return m_showing; }
    const QStringList& outputs() const override { return m_outputs; }
    void setOutputs(const QStringList& outputs) override;
    // From now on show() opens surfaces; `instanceNumber` names the window.
    void enableSurfaces(int instanceNumber);
    // The surfaces open now, in the order of the outputs.
    QStringList surfaceIds() const;

    // Runs what is due at the clock's present: starts, ends, finished fades, callbacks.
    void poll();

    void draw(QPainter& painter, const QRect& area, std::uint64_t now,
              const std::optional<QString>& output = std::nullopt,
              PictureDetail detail = PictureDetail::exact) override;
    // The same with OpenGL, as an output surface draws (`area` in its units, `ratio` pixels
    // each).
    void draw(PictureRenderer& renderer, const QSize& area, double ratio, std::uint64_t now,
              const QString& output);
    // What `output` shows at `now` in a number: the same number, the same picture (which
    // pictures, where, how opaque). A surface whose scene has not changed need not draw again.
    std::uint64_t sceneKey(std::uint64_t now, const QString& output);
    bool hasPictures() const override { return !m_movies.empty() || !m_images.empty(); }
    void setAudioClock(AudioClock clock) override;
    // The video preferences, read when the output is made.
    void setLook(const CompositorLook& look) { m_look = look; }

    std::size_t movieCount() const { return m_movies.size(); }
    std::size_t imageCount() const { return m_images.size(); }

private:
    class Movie;
    struct Image {
        std::shared_ptr<ImageCue> cue;
        std::function<QImage()> load; // until the picture is first drawn
        QImage picture;
        std::uint64_t shownAt = 0;
        double fadeIn = 0.0;
        std::uint64_t finishAt = 0;
        double fadeOut = 0.0;
    };

    // Polls by the timer from now on, when it polls itself; surfaces draw again.
    void watch();
    // The surfaces draw again at their next refresh.
    void redraw();
    // Makes the surfaces match the wanted outputs and the displays attached now.
    void rebuildOutputs();
    Movie* movieFor(VideoCue& cue);
    // The layers `output` (none: the monitor view) shows at `now`, movies decoded to it.
    std::vector<CompositorLayer> compose(std::uint64_t now, const std::optional<QString>& output);
    void remove(VideoCue& cue);

    Clock m_clock;
    AudioClock m_audioClock;
    QTimer m_timer;
    bool m_autoPoll = false;
    bool m_showing = false;
    std::vector<std::shared_ptr<Movie>> m_movies;
    std::vector<Image> m_images;
    CompositorLook m_look;
    MoviePlayer::Wait m_wait;
    std::map<QString, std::unique_ptr<MoviePlayer>> m_prepared; // by path
    QStringList m_outputs;
    std::optional<int> m_surfacesFor; // the instance number, once surfaces are enabled
    std::vector<std::unique_ptr<OutputSurface>> m_surfaces;
    // The last layers composed: a surface asks for the scene's key and then draws it at the same
    // moment, and the pictures are taken from their players once.
    struct Composed {
        std::uint64_t now = 0;
        std::optional<QString> output;
        std::vector<CompositorLayer> layers;
    };
    std::optional<Composed> m_composed; // dropped whenever a cue changes
};

