#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "audio/AudioStream.h"
#include "media/TrackDecoder.h"

class MediaFile;

// The sound of a file decoded while it plays, into an AudioStream at the device's rate: how a
// movie whose sound is too long to decode into memory is heard. Like a clip it holds every
// audio track, their channels in track order, shorter tracks padded with silence. It starts at
// any position of the file and, looping, goes round at the end.
//
// Threads: the decoding runs on a thread of its own that keeps the ring topped up (it never
// touches the mixer); or, made inline, only inside fill(), which a headless render calls before
// every block so that a render is repeatable. The public methods are for the thread that made
// it (the control thread). Destroying it stops the thread; a blocking read inside FFmpeg is
// interrupted.
class StreamedSound {
public:
    struct Options {
        double rate = 48000.0;     // the device's: the stream is written at it
        std::int64_t channels = 2; // of the stream: the tracks' channels, summed
        double from = 0.0;         // seconds into the file
        double duration = 0.0;     // of the file's sound (for progress), seconds
        bool loop = false;
        bool inlineDecoding = false;
        double ringSeconds = 1.0;
    };

    StreamedSound(std::string path, const Options& options);
    ~StreamedSound();

    StreamedSound(const StreamedSound&) = delete;
    StreamedSound& operator=(const StreamedSound&) = delete;

    const AudioStreamPtr& stream() const { return m_stream; }

    // Inline only: decodes until the ring is full or the sound has ended.
    void fill();

    // Why the sound ended early (the file could not be opened or decoded), once.
    std::optional<std::string> takeFailure();

private:
    struct Track;

    void run();
    // One step of decoding; false when nothing can be done now (the ring is full, or the sound
    // has ended).
    bool step();
    void open();
    void rewind(double seconds);
    void decodeInto(Track& track, const TrackDecoder::Samples& samples);
    void feed(Track& track, const float* const* input, std::size_t frames);
    void endOfFile();
    std::int64_t moveToRing();

    const std::string m_path;
    const Options m_options;
    AudioStreamPtr m_stream;

    // Decoding state: the decoding thread's (or the caller's when inline).
    std::unique_ptr<MediaFile> m_file;
    std::vector<std::unique_ptr<Track>> m_tracks;
    void* m_packet = nullptr; // AVPacket
    std::vector<float> m_silence;
    double m_position = 0.0; // seconds of the file where decoding (re)started
    bool m_opened = false;
    bool m_atEnd = false; // the file is read out and not going round: what is pending is all
    bool m_ended = false; // the stream is finished

    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::optional<std::string> m_failure; // under m_mutex
    std::thread m_thread;
};
