#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "audio/AudioClip.h"
#include "audio/AudioStream.h"
#include "audio/Route.h"

// One playing clip, or one stream of sound decoded while it plays, inside the Mixer.
//
// Threading: built completely on the control thread before the mixer lock is taken, then owned
// by Mixer::voices. Afterwards its plain mutable fields are read and written only under the
// mixer lock (by the render thread for each block, by the control thread for each operation).
// What the tick needs — progress, done and the peaks — is also published in atomics that the
// control thread reads without the lock: a control thread preempted while holding the lock for
// a status read of hundreds of voices would stall the render thread. It is destroyed on the
// control thread, after Mixer::removeDone has taken it out of the list.
class Voice {
public:
    // startHost value of a voice that waits for Mixer::setStart.
    static constexpr std::uint64_t kArmed = std::numeric_limits<std::uint64_t>::max();

    Voice(AudioClipPtr clip, const RouteList& routes);
    Voice(AudioStreamPtr stream, const RouteList& routes);

    Voice(const Voice&) = delete;
    Voice& operator=(const Voice&) = delete;

    std::int64_t id = 0; // handed out by Mixer::play under the lock
    // Exactly one of the two is set.
    const AudioClipPtr clip;
    const AudioStreamPtr stream;
    const std::int64_t channelCount;
    // Route k feeds clip channel src[k] into output dst[k].
    const std::vector<std::int64_t> src;
    const std::vector<std::int64_t> dst;

    double position = 0.0; // read position in clip frames; frames taken from a stream
    // A stream's frames that were due while it had none: dropped as they arrive, so that the
    // sound stays where its picture is.
    std::int64_t owed = 0;
    float env = 1.0f;     // fade envelope 0…1, applied squared
    float envStep = 0.0f; // change of env per output frame; 0 = no ramp
    float volume = 1.0f;  // linear
    bool loop = false;
    std::uint64_t startHost = 0; // 0 = next block, kArmed = waits for setStart, else host time
    bool started = false;
    bool done = false;

    // Under the lock, after position or done changed: makes them visible to lock-free readers.
    void publish() noexcept;

    // Published state, written under the lock (publish) and read by the control thread without
    // it. `shownDone` is stored last with release order, so a reader that sees it also sees the
    // final progress.
    static_assert(std::atomic<double>::is_always_lock_free); // read and written in real time
    std::atomic<double> shownProgress{0.0};
    std::atomic<bool> shownDone{false};
    // Per clip channel peak since the last snapshot, max(channelCount, 1) values: raised by the
    // render thread (AtomicPeak::raise), taken and zeroed by the control thread.
    const std::unique_ptr<std::atomic<float>[]> peaks;
};
