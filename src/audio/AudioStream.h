#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

// Sound that is decoded while it plays, on its way to the mixer: a bounded ring of
// non-interleaved float frames with one writer and one reader. It carries the sound of a movie
// too long to decode into a clip.
//
// Threads: one writer (a feeder's decoding thread, or the control thread when it fills the
// stream inline) calls space/write/finish; one reader, the render thread under the mixer lock,
// calls available/piece/consume/ended. Neither ever waits for the other: the writer publishes
// its count of written frames with release order after the samples, the reader acquires it
// before reading them, and the read count travels back the same way, so a frame is never read
// before it is written nor overwritten before it is read. No call allocates after
// construction.
//
// Like a clip's, the samples the reader sees are finite and within ±AudioClip::kDamagedLevel:
// write() silences anything else, so the render thread never checks a sample.
//
// Lifetime: shared (AudioStreamPtr) by its feeder and the mixer voice that plays it; the voice
// is retired on the control thread, so the ring is never freed on the render thread.
class AudioStream {
public:
    // `startFrame` and `totalFrames` say where the stream starts within its sound and how long
    // the whole sound is, in frames at `sampleRate`: what a seek bar shows.
    AudioStream(std::int64_t channels, std::int64_t capacity, double sampleRate,
                std::int64_t startFrame, std::int64_t totalFrames);

    AudioStream(const AudioStream&) = delete;
    AudioStream& operator=(const AudioStream&) = delete;

    std::int64_t channelCount() const { return m_channelCount; }
    std::int64_t capacity() const { return m_capacity; }
    double sampleRate() const { return m_sampleRate; }
    std::int64_t startFrame() const { return m_startFrame; }
    std::int64_t totalFrames() const { return m_totalFrames; }

    // Writer. Frames that can be written now.
    std::int64_t space() const noexcept;
    // Writer. Appends min(frames, space()) frames of src[0..channelCount) and returns how many.
    std::int64_t write(const float* const* src, std::int64_t frames) noexcept;
    // Writer. No frames follow: the sound ended, or could not be decoded further.
    void finish() noexcept;

    // Reader. Frames written and not yet read.
    std::int64_t available() const noexcept;
    // Reader. The samples of channel c from `from` frames past the read position on, as far as
    // they lie in one piece of the ring: at most `frames` of them, their count in `length`.
    const float* piece(std::int64_t c, std::int64_t from, std::int64_t frames,
                       std::int64_t& length) const noexcept;
    // Reader. Gives up `frames` (at most available()) frames.
    void consume(std::int64_t frames) noexcept;
    // Reader. Finished, and every frame read.
    bool ended() const noexcept;

private:
    const std::int64_t m_channelCount;
    const std::int64_t m_capacity;
    const double m_sampleRate;
    const std::int64_t m_startFrame;
    const std::int64_t m_totalFrames;
    std::vector<std::unique_ptr<float[]>> m_samples; // one ring per channel
    std::atomic<std::int64_t> m_written{0};
    std::atomic<std::int64_t> m_read{0};
    std::atomic<bool> m_finished{false};
};

using AudioStreamPtr = std::shared_ptr<AudioStream>;
