#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "audio/AudioBufferList.h"
#include "audio/AudioClip.h"
#include "audio/AudioStream.h"
#include "audio/PriorityMutex.h"
#include "audio/Route.h"
#include "audio/Voice.h"
#include "audio/VoiceStatus.h"

// The real-time mixer: sums every playing Voice into the device's channel buffers once per
// block, with per-route interpolation, a squared fade envelope, per-voice and master volume,
// an optional 1 kHz test tone, output mutes and peak meters.
//
// Threads:
// - The render thread (the audio back end's real-time thread, or an OfflineRenderer) calls
//   render() once per block. It holds the mixer lock for the whole mix and never allocates,
//   frees, logs or waits on anything else.
// - One control thread (the main thread) calls every other method. Each takes the lock only
//   for a few loads and stores; anything that allocates or frees (voices, status records,
//   retired voices) is done outside it.
// - The engine calls setSampleRate/setLatency from the control thread when the device
//   (re)starts; voices keep playing across a restart.
//
// Lifetime: created once with the audio engine and lives as long as the application. Voices are
// owned by the mixer; callers keep voice ids, never voices. Unknown ids are ignored.
class Mixer {
public:
    static constexpr int kMaxOutputs = 64;
    static constexpr int kVirtualChannels = 8;
    static constexpr std::int64_t kVirtualFrames = 8192;
    static constexpr std::size_t kReservedVoices = 512;

    Mixer();
    ~Mixer();

    Mixer(const Mixer&) = delete;
    Mixer& operator=(const Mixer&) = delete;

    // Control thread. Adds a voice and returns its id (from 1 upwards). The voice starts at the
    // next block, or, when deferred, waits for setStart. fadeIn is in seconds. Routes whose
    // source is not a channel of the clip, or whose output is outside 0…63, are dropped here so
    // the render thread never has to check them. Returns 0 (no voice) for a clip without
    // frames or channels.
    std::int64_t play(AudioClipPtr clip, const RouteList& routes, float volume, double fadeIn,
                      bool loop, bool deferred);

    // Control thread. Adds a voice that plays a stream from where it stands, at the device's
    // rate (the stream is written at sampleRate()), until the stream has ended; otherwise as
    // play. It cannot loop or seek: its feeder goes round, and a seek plays a new stream.
    std::int64_t playStream(AudioStreamPtr stream, const RouteList& routes, float volume,
                            double fadeIn, bool deferred);

    // Control thread. Fades a playing voice out over `fade` seconds (at least 5 ms); a voice
    // that has not started yet is done at once.
    void stop(std::int64_t id, double fade);

    // Control thread. Take effect at the next block.
    void setVolume(std::int64_t id, float volume);
    void setLoop(std::int64_t id, bool loop);

    // Control thread. Releases an armed (deferred) voice at a host time (HostTime ticks).
    void setStart(std::int64_t id, std::uint64_t hostTime);

    // Control thread. Moves the read position, clamped to the clip. With startHost ≠ 0 the
    // voice stops sounding and starts again at that host time; with 0 it jumps at the next
    // block. No effect on a done voice.
    void seek(std::int64_t id, double seconds, std::uint64_t startHost);

    // Control thread. Drops every done voice (survivors keep their order). The voices, and
    // possibly their clips, are freed on the calling thread after the lock is released. Takes
    // the lock only when some voice is done.
    void removeDone();

    // Control thread. Status of every voice, done ones included; resets the voices' peaks.
    // Takes no lock: it reads what the render thread published, so the tick never holds up a
    // block however many voices play.
    std::map<std::int64_t, VoiceStatus> snapshot();

    // Control thread. Outputs (0-based) to silence; all others are unmuted.
    void setMuted(const std::set<std::int64_t>& channels);
    void setMasterVolume(double volume);
    // The output that carries the 1 kHz test tone, or none.
    void setToneChannel(std::optional<std::int64_t> channel);

    // Control thread. Peak of each of the first `count` outputs (at most 64) since the last
    // call, then resets them. Takes no lock.
    std::vector<float> takeMeters(std::int64_t count);

    // Control thread (the engine, when the device starts).
    void setSampleRate(double rate);
    void setLatency(double seconds);
    double sampleRate() const;
    double latency() const;

    // Control thread.
    std::size_t voiceCount() const;

    // Any thread, lock-free. The audio device's own clock, in seconds, at a host time: what the
    // device's sample count says at its latest block, carried on at the host's pace from there.
    // Pictures of a movie run on it so that they stay with the movie's sound, which the device
    // plays at its own rate, however far its crystal is from the host's. Before the first block
    // and across a gap between blocks (a device restarted) it goes on from host time, so it
    // never jumps.
    double deviceSeconds(std::uint64_t hostTime) const;

    // Render thread only. Zeroes every buffer of the list, then mixes one block of frameCount
    // frames into the first 64. A null buffer, or one smaller than the block, is never fed.
    void render(std::int64_t frameCount, const AudioTimeStamp& timestamp,
                AudioBufferList bufferList) noexcept;

    // Render thread only: nanoseconds the last render waited for the lock (for the engine's
    // cycle statistics: whether a long cycle was the mix or the control thread).
    std::uint64_t lastLockWait() const { return m_lastLockWait; }

private:
    // Frames per pass of the two-pass voice mix; the scratch arrays hold one pass.
    static constexpr std::int64_t kChunk = 1024;

    Voice* find(std::int64_t id); // under the lock
    static RouteList usableRoutes(const RouteList& routes, std::int64_t channels);
    std::int64_t add(std::unique_ptr<Voice> voice, float volume, double fadeIn, bool deferred);
    void advanceDeviceClock(std::uint64_t blockHost, double blockLength) noexcept;
    void mixVoice(Voice& voice, std::int64_t offset, std::int64_t frameCount, double rate,
                  float master, int outCount) noexcept;
    void mixStream(Voice& voice, std::int64_t offset, std::int64_t frameCount, float master,
                   int outCount) noexcept;

    mutable PriorityMutex m_lock;

    // Guarded by m_lock. The vector's shape (size, order) changes only on the control thread,
    // which may therefore read its size without the lock.
    std::vector<std::unique_ptr<Voice>> m_voices;
    std::int64_t m_nextID = 1;
    double m_sampleRate = 48000.0;
    double m_latency = 0.0;
    float m_masterVolume = 1.0f;
    // Raised by the render thread, taken by the control thread, without the lock.
    std::array<std::atomic<float>, kMaxOutputs> m_meterPeaks{};
    std::array<bool, kMaxOutputs> m_muted{};
    std::int64_t m_toneChannel = -1;
    double m_tonePhase = 0.0;

    // Control thread only: voices taken out by removeDone, freed once the lock is released.
    std::vector<std::unique_ptr<Voice>> m_retired;

    // The device clock of the latest block, published by the render thread as a sequence lock
    // (odd while being written); 0 before the first block.
    std::atomic<std::uint32_t> m_clockSequence{0};
    std::atomic<std::uint64_t> m_clockHost{0};
    std::atomic<double> m_clockSeconds{0.0};
    // Render thread only: the previous block's host time, device clock and length in seconds.
    std::uint64_t m_lastBlockHost = 0;
    double m_lastBlockSeconds = 0.0;
    double m_lastBlockLength = -1.0; // < 0: no block yet

    // Render thread only, outside the lock.
    std::array<float*, kMaxOutputs> m_outs{};
    std::uint64_t m_lastLockWait = 0;
    std::vector<std::vector<float>> m_virtualBuffers;

    // Render thread only, under the lock: one pass of per-frame read positions and gains.
    std::unique_ptr<std::int64_t[]> m_scratchIndex;
    std::unique_ptr<std::int64_t[]> m_scratchNext;
    std::unique_ptr<float[]> m_scratchFrac;
    std::unique_ptr<float[]> m_scratchGain;
    std::unique_ptr<float[]> m_scratchLevel;
};
