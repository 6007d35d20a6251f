#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include <QImage>
#include <QRect>
#include <QString>
#include <QStringList>

#include "video/Compositor.h"
#include "video/MovieStart.h"
#include "video/VideoCue.h"

class QPainter;

// The picture side as the cue engine sees it: movies and images stacked by depth on every
// output. Callbacks are delivered later on the main thread, never from inside the call that
// registered them.
//
// Threading: main thread only. Host times are HostTime ticks; they are how a movie's picture
// and its mixer voice start together.
class VideoOutput {
public:
    virtual ~VideoOutput() = default;

    // Starts a movie (see MovieStart for what it is told and whom it tells).
    virtual std::shared_ptr<VideoCue> play(MovieStart start) = 0;
    // Shows a picture that `load` produces (possibly later).
    virtual std::shared_ptr<ImageCue> showImage(std::function<QImage()> load, double fadeIn,
                                                double z, const OutputSet& outputs) = 0;
    // Fades out and finishes; ignored when already stopping or finished.
    virtual void stop(VideoCue& cue, double fade) = 0;
    virtual void stop(ImageCue& cue, double fade) = 0;
    // Removes at once.
    virtual void finish(VideoCue& cue) = 0;
    virtual void finish(ImageCue& cue) = 0;
    // Plays on from `seconds` at `hostTime`; false when the movie is not ready for it.
    virtual bool seek(VideoCue& cue, double seconds, std::uint64_t hostTime) = 0;
    // Makes a player for the file ahead of time, so that its next start is instant; play() does
    // it for the file it starts. resetPrepared() lets them all go (another show).
    virtual void prepare(const QString& path) = 0;
    virtual void resetPrepared() = 0;
    // Opens the outputs (just the movable window when none is wanted); hide() closes them.
    // Cues go on while they are closed, seen in the monitor view.
    virtual void show() = 0;
    virtual void hide() = 0;
    virtual bool isShowing() const = 0;
    // Where pictures are wanted: "window" or display labels, in order.
    virtual const QStringList& outputs() const = 0;
    virtual void setOutputs(const QStringList& outputs) = 0;

    // Draws what `output` (none: every cue, as the monitor view shows them) shows at host time
    // `now` into `area`.
    virtual void draw(QPainter& painter, const QRect& area, std::uint64_t now,
                      const std::optional<QString>& output = std::nullopt,
                      PictureDetail detail = PictureDetail::exact) = 0;
    // Whether any picture is up (anything to draw besides the background).
    virtual bool hasPictures() const = 0;

    // The audio device's clock in seconds at a host time. Movies started from now on run on
    // it, so their pictures stay with their sound, which the device plays at its own rate.
    // Without one, movies run on host time.
    using AudioClock = std::function<double(std::uint64_t hostTime)>;
    virtual void setAudioClock(AudioClock clock) = 0;
};
