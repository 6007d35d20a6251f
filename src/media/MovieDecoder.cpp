#include "media/MovieDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cmath>

#include "media/LoadError.h"
#include "media/MediaFile.h"
#include "media/MediaProbe.h"

namespace {

// A decoder that rejects this many packets in a row has stopped working: the movie ends there.
constexpr int kErrorsInARow = 50;

} // namespace

std::string MovieDecoder::refusal(const MediaProbe& probe) {
    if (!probe.hasVideo || (probe.videoWidth <= kLargestSide && probe.videoHeight <= kLargestSide))
        return {};
    return "映像が大きすぎます（" + std::to_string(std::lround(probe.videoWidth)) + " × " +
           std::to_string(std::lround(probe.videoHeight)) + " ピクセル。" +
           std::to_string(kLargestSide) + " ピクセルまで）";
}

MovieDecoder::MovieDecoder(const std::string& path, const std::atomic<bool>* cancel,
                           Allocate allocate)
    : m_file(std::make_unique<MediaFile>(path, cancel)), m_cancel(cancel),
      m_allocate(allocate ? std::move(allocate) : [](std::size_t bytes) {
          return std::shared_ptr<std::uint8_t[]>(MovieFrame::allocatePixels(bytes),
                                                 MovieFrame::freePixels);
      }) {
    m_stream = m_file->videoStream();
    if (m_stream < 0)
        throw LoadError::failed(kNoPicture);
    const AVStream* stream = m_file->stream(m_stream);
    if (stream->codecpar->width > kLargestSide || stream->codecpar->height > kLargestSide)
        throw LoadError::failed(kNoPicture);
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!codec)
        throw LoadError::failed(kNoPicture);
    m_codec = avcodec_alloc_context3(codec);
    m_packet = av_packet_alloc();
    m_frame = av_frame_alloc();
    m_held = av_frame_alloc();
    m_waiting = av_frame_alloc();
    if (!m_codec || !m_packet || !m_frame || !m_held || !m_waiting)
        throw LoadError::failed(LoadError::kNoBuffer);
    m_codec->thread_count = 0; // one per core
    m_codec->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    if (avcodec_parameters_to_context(m_codec, stream->codecpar) < 0 ||
        avcodec_open2(m_codec, codec, nullptr) < 0 || m_codec->width <= 0 || m_codec->height <= 0)
        throw LoadError::failed(kNoPicture);
    m_timeBase = av_q2d(stream->time_base);
    m_rotation = m_file->rotation(m_stream);
    if (stream->start_time != AV_NOPTS_VALUE)
        m_startTime = static_cast<double>(stream->start_time) * m_timeBase;
}

MovieDecoder::~MovieDecoder() {
    av_frame_free(&m_waiting);
    av_frame_free(&m_held);
    av_frame_free(&m_frame);
    av_packet_free(&m_packet);
    avcodec_free_context(&m_codec);
}

int MovieDecoder::width() const {
    return m_codec->width;
}

int MovieDecoder::height() const {
    return m_codec->height;
}

double MovieDecoder::duration() const {
    return m_file->duration();
}

double MovieDecoder::timeOf(const AVFrame* frame) const {
    const std::int64_t stamp =
        frame->best_effort_timestamp != AV_NOPTS_VALUE ? frame->best_effort_timestamp : frame->pts;
    return stamp == AV_NOPTS_VALUE ? 0.0 : static_cast<double>(stamp) * m_timeBase - m_startTime;
}

bool MovieDecoder::receive() {
    for (;;) {
        if (m_cancel && m_cancel->load(std::memory_order_relaxed))
            return false;
        const int received = avcodec_receive_frame(m_codec, m_frame);
        if (received == 0)
            return true;
        if (received == AVERROR_EOF)
            return false;
        if (received != AVERROR(EAGAIN)) {
            m_failed = true;
            return false;
        }
        if (m_draining)
            return false;
        const int read = av_read_frame(m_file->context(), m_packet);
        if (read < 0) {
            // The end of the file (or of what can be read of it): out with what is queued.
            m_draining = true;
            avcodec_send_packet(m_codec, nullptr);
            continue;
        }
        if (m_packet->stream_index == m_stream) {
            if (avcodec_send_packet(m_codec, m_packet) < 0) {
                if (++m_errorsInARow >= kErrorsInARow) {
                    m_failed = true;
                    av_packet_unref(m_packet);
                    return false;
                }
            } else {
                m_errorsInARow = 0;
            }
        }
        av_packet_unref(m_packet);
    }
}

std::optional<MovieFrame> MovieDecoder::next() {
    if (m_waiting->buf[0]) {
        av_frame_unref(m_frame);
        av_frame_move_ref(m_frame, m_waiting);
        return convert(m_frame);
    }
    while (receive()) {
        if (m_skipBefore < 0.0)
            return convert(m_frame);
        // After a seek: keep the latest picture due by the seek's time, hand it out when the
        // first one after that time arrives, and that one next.
        if (timeOf(m_frame) <= m_skipBefore + 1e-6) {
            av_frame_unref(m_held);
            av_frame_move_ref(m_held, m_frame);
            continue;
        }
        m_skipBefore = -1.0;
        if (!m_held->buf[0])
            return convert(m_frame);
        av_frame_move_ref(m_waiting, m_frame);
        av_frame_move_ref(m_frame, m_held);
        return convert(m_frame);
    }
    if (m_skipBefore >= 0.0 && m_held->buf[0]) {
        // The seek went to the last picture.
        m_skipBefore = -1.0;
        av_frame_unref(m_frame);
        av_frame_move_ref(m_frame, m_held);
        return convert(m_frame);
    }
    return std::nullopt;
}

void MovieDecoder::seek(double seconds) {
    seconds = std::max(seconds, 0.0);
    const auto target = static_cast<std::int64_t>((seconds + m_startTime) / m_timeBase);
    av_seek_frame(m_file->context(), m_stream, target, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(m_codec);
    av_frame_unref(m_held);
    av_frame_unref(m_waiting);
    m_draining = false;
    m_failed = false;
    m_errorsInARow = 0;
    m_skipBefore = seconds;
}

std::optional<MovieFrame> MovieDecoder::convert(const AVFrame* frame) {
    std::optional<MovieFrame> picture = MovieFrame::of(frame, m_allocate);
    if (!picture) {
        m_failed = true;
        return std::nullopt;
    }
    picture->time = timeOf(frame);
    picture->rotation = m_rotation;
    return picture;
}
