#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "media/MovieFrame.h"

class MediaFile;
struct MediaProbe;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;

// Decodes the pictures of a file's first moving-picture stream in presentation order, at the
// stream's own size and, where it has one, in its own YUV layout (see MovieFrame). Damaged packets
// are skipped as the audio loader skips them; a decoder that stops producing pictures mid-way ends
// the movie there (`failed` says so).
//
// Threading: one thread at a time, any thread; the cancel flag may be set from another thread.
class MovieDecoder {
public:
    // Where converted pixels go. A player hands out buffers it recycles: a fresh 8 MB block per
    // 1080p picture would be zeroed and faulted in anew.
    using Allocate = MovieFrame::Allocate;

    // Throws LoadError: the file's own errors (see MediaFile), or kNoPicture when it has no
    // moving picture a decoder takes. Without `allocate`, every picture gets a new buffer.
    explicit MovieDecoder(const std::string& path, const std::atomic<bool>* cancel = nullptr,
                          Allocate allocate = {});
    ~MovieDecoder();

    MovieDecoder(const MovieDecoder&) = delete;
    MovieDecoder& operator=(const MovieDecoder&) = delete;

    static inline const std::string kNoPicture = "映像を再生できません";
    // No output shows more: a movie wider or taller is refused rather than decoded into
    // pictures of 16384 × 16384 × 4 bytes.
    static constexpr int kLargestSide = 8192;
    // Why a movie of this probe cannot be shown (too large), or empty.
    static std::string refusal(const MediaProbe& probe);

    int width() const;
    int height() const;
    // Seconds; 0 when the file does not say.
    double duration() const;

    // The next picture; none at the end of the stream (or when cancelled).
    std::optional<MovieFrame> next();
    // Starts again at the key frame at or before `seconds`; the pictures before `seconds` are
    // decoded but not returned, so the next one returned is the one due at `seconds`.
    void seek(double seconds);
    // Whether the stream ended with an error rather than at its end.
    bool failed() const { return m_failed; }

private:
    // Decodes until a picture is in m_frame; false at the end, on failure or when cancelled.
    bool receive();
    double timeOf(const AVFrame* frame) const;
    std::optional<MovieFrame> convert(const AVFrame* frame);

    std::unique_ptr<MediaFile> m_file;
    const std::atomic<bool>* m_cancel = nullptr;
    Allocate m_allocate;
    int m_stream = -1;
    double m_timeBase = 0.0;
    double m_startTime = 0.0;
    int m_rotation = 0;
    AVCodecContext* m_codec = nullptr;
    AVPacket* m_packet = nullptr;
    AVFrame* m_frame = nullptr;
    AVFrame* m_held = nullptr;    // after a seek: the latest picture due by its time
    AVFrame* m_waiting = nullptr; // the picture after it, handed out next
    bool m_draining = false;
    bool m_failed = false;
    double m_skipBefore = -1.0; // after a seek: the time of the first picture wanted
    int m_errorsInARow = 0;
};
