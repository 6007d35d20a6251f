#pragma once

#include <memory>

#include <QString>
#include <QStringList>

#include "audio/OfflineRenderer.h"
#include "cli/EventScript.h"
#include "cue/AppModel.h"

class WavWriter;

// Plays a show without a device, on a simulated clock, for `vorlin render`: the real model,
// cue engine and mixer; the headless video output on the same clock; the 30 Hz tick run between
// blocks. Simulated time starts at host time 1 s. Before each block every event due by the
// block's start is applied in order, then every due tick runs, then the block is rendered with
// its start as host time and no latency. The same input gives the same output, bit for bit.
// Main thread.
class ShowRenderer {
public:
    ShowRenderer(int sampleRate, int channels, std::int64_t blockFrames);

    // Opens the show and waits until every key's media has loaded. Throws DocumentError.
    void open(const QString& path);
    // One line per media entry that failed to load or loaded with damage, for the terminal.
    QStringList mediaProblems() const;
    // Renders [0, seconds) into `out`; false when writing fails.
    bool run(const std::vector<ScriptEvent>& events, double seconds, WavWriter& out);

    AppModel& model() { return *m_model; }

private:
    void apply(const ScriptEvent& event);

    int m_rate;
    std::unique_ptr<AppModel> m_model;
    std::unique_ptr<OfflineRenderer> m_device;
};
