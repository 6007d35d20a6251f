#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

struct AVFormatContext;
struct AVStream;

// An open media file (FFmpeg demuxer) with its streams identified.
//
// Threading: one thread at a time; any thread. The optional cancel flag may be set from another
// thread: blocking reads inside FFmpeg then give up, and the owner's loop checks it too.
class MediaFile {
public:
    // What FFmpeg's blocking reads check: the caller's cancel flag, and while opening a time
    // limit. Internal; public for the C callback.
    struct Interrupt {
        const std::atomic<bool>* cancel = nullptr;
        std::optional<std::chrono::steady_clock::time_point> deadline;
    };

    // Throws LoadError: "読み込みに失敗しました" when the file is not readable media or not a
    // regular file (a FIFO), kTooSlow when its headers cannot be read within 10 s, or
    // cancelled when the flag is set while opening.
    explicit MediaFile(const std::string& path, const std::atomic<bool>* cancel = nullptr);
    ~MediaFile();

    MediaFile(const MediaFile&) = delete;
    MediaFile& operator=(const MediaFile&) = delete;

    AVFormatContext* context() const { return m_context; }
    AVStream* stream(int index) const;

    // Stream indices of the audio tracks, in file order.
    const std::vector<int>& audioStreams() const { return m_audioStreams; }
    // The first moving-picture stream, or -1. Cover art and still images do not count.
    int videoStream() const { return m_videoStream; }
    // Seconds; 0 when the file does not say.
    double duration() const;

    // How far a video stream's pictures must be turned clockwise to stand upright (0, 90, 180
    // or 270 degrees), as a phone that filmed on its side records it.
    int rotation(int index) const;
    // Display size of a video stream: display matrix and pixel aspect applied, signs dropped.
    void videoSize(int index, double& width, double& height) const;

private:
    Interrupt m_interrupt;
    AVFormatContext* m_context = nullptr;
    std::vector<int> m_audioStreams;
    int m_videoStream = -1;
};
