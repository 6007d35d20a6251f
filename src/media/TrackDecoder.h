#pragma once

#include <cstddef>
#include <functional>
#include <string>

class MediaFile;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;

// Decodes one audio stream of a MediaFile into non-interleaved 32-bit floats, whatever the
// codec's own sample format. Threading: one thread at a time.
class TrackDecoder {
public:
    // One decoded frame, converted on demand straight into the caller's buffers.
    struct Samples {
        const AVFrame* frame = nullptr;
        int channels = 0;
        std::size_t frames = 0;
        // Writes `frames` floats to each of dest[0..channels); missing channels are silent.
        void copyTo(float* const* dest) const;
    };
    using Sink = std::function<void(const Samples&)>;

    // Throws LoadError "音声フォーマットを判別できません" when no decoder takes the stream.
    // `threads` is the codec's own decoding threads (0: one per core), for codecs that can.
    TrackDecoder(const MediaFile& file, int streamIndex, int threads);
    ~TrackDecoder();

    TrackDecoder(const TrackDecoder&) = delete;
    TrackDecoder& operator=(const TrackDecoder&) = delete;

    int streamIndex() const { return m_streamIndex; }
    int channels() const { return m_channels; }
    double sampleRate() const { return m_sampleRate; }
    const std::string& layout() const { return m_layout; }
    // Packets or frames the codec rejected (damaged data is skipped, not fatal).
    std::size_t errors() const { return m_errors; }

    // Decodes one packet of this stream (null: end of stream, drains the codec) and hands every
    // frame to the sink. A frame with fewer channels than the stream is padded with silence.
    void decode(const AVPacket* packet, const Sink& sink);
    // Forgets what the codec holds (after a seek, or after the end to decode again from the
    // start).
    void reset();

private:
    AVCodecContext* m_codec = nullptr;
    AVFrame* m_frame = nullptr;
    int m_streamIndex;
    int m_channels = 0;
    double m_sampleRate = 0.0;
    std::string m_layout;
    std::size_t m_errors = 0;
};
