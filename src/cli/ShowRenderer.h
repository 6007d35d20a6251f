#pragma once

#include <memory>
#include <optional>

#include <QSize>
#include <QString>
#include <QStringList>

#include "audio/OfflineRenderer.h"
#include "cli/EventScript.h"
#include "cue/AppModel.h"

class WavWriter;

// Pictures of a render: at every frame time k / fps of the simulated clock, what an output shows
// (none: the monitor view, which shows every cue) as DIR/frame_000001.png, ….
struct FrameOptions {
    QString folder;
    double fps = 30.0;
    QSize size{640, 360};
    std::optional<QString> output;
};

// Plays a show without a device, on a simulated clock, for `vorlin render`: the real model,
// cue engine and mixer; the headless video output on the same clock; the 30 Hz tick run between
// blocks. Simulated time starts at host time 1 s. Script times, ticks and pictures are on the
// host clock; the WAV holds the device's frames. Before each block every event due by the
// block's start is applied in order, then every due tick runs, then the block is rendered with
// its start as host time and no latency. The same input gives the same output, bit for bit.
// Main thread.
class ShowRenderer {
public:
    // `devicePpm`: the simulated device's sample clock runs that many ppm off the host's.
    ShowRenderer(int sampleRate, int channels, std::int64_t blockFrames, double devicePpm = 0.0);

    // Opens the show and waits until every key's media has loaded. Throws DocumentError.
    void open(const QString& path);
    // One line per media entry that failed to load or loaded with damage, for the terminal.
    QStringList mediaProblems() const;
    // Renders [0, seconds) into `out`, and the pictures when `frames` is given; false when
    // writing fails.
    bool run(const std::vector<ScriptEvent>& events, double seconds, WavWriter& out,
             const FrameOptions* frames = nullptr);

    AppModel& model() { return *m_model; }
    // One line per event that named what the show does not have (an OSC page name or key label).
    const QStringList& eventProblems() const { return m_eventProblems; }

private:
    void apply(const ScriptEvent& event);
    bool writeFrame(const FrameOptions& frames, std::int64_t index);

    int m_rate;
    std::unique_ptr<AppModel> m_model;
    std::unique_ptr<OfflineRenderer> m_device;
    QStringList m_eventProblems;
};
