#pragma once

#include <cstdint>
#include <functional>
#include <string>

class Mixer;

// One way of reaching an output device (JACK, ALSA, or none). A back end owns its device
// thread: once started it calls Mixer::render for every block with one non-interleaved float
// buffer per channel and the block's host time (CLOCK_MONOTONIC).
//
// Opening and starting are two steps so that the engine can set the mixer's rate and latency
// from what the device reports before the first block is rendered: a device at another rate
// must not play its first blocks at the old one.
//
// Threading: open/start/stop and the getters on the control (main) thread. `Notice` is called from
// the back end's own threads (possibly its real-time thread) when the device's configuration
// changes or the device goes away; it must only flag the change.
// Lifetime: stop() (or destruction) ends every call into the mixer before it returns.
class AudioBackend {
public:
    using Notice = std::function<void()>;

    virtual ~AudioBackend() = default;

    // Opens and configures the device; afterwards the getters report it. Nothing is rendered
    // yet. Throws AudioStartError.
    virtual void open() = 0;
    // Starts rendering into the mixer (after open). Throws AudioStartError.
    virtual void start(Mixer& mixer, Notice notice) = 0;
    // Ends rendering and closes the device.
    virtual void stop() = 0;

    virtual std::int64_t channelCount() const = 0; // at most 64
    virtual double sampleRate() const = 0;
    // Seconds from a block's host time until its first frame is heard.
    virtual double latency() const = 0;
};
