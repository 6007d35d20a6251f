#include "media/TrackDecoder.h"

#include "media/LoadError.h"
#include "media/MediaFile.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cstdint>

namespace {

template <typename T> float toFloat(T v);
template <> float toFloat(std::uint8_t v) {
    return (static_cast<float>(v) - 128.0f) * (1.0f / 128.0f);
}
template <> float toFloat(std::int16_t v) {
    return static_cast<float>(v) * (1.0f / 32768.0f);
}
template <> float toFloat(std::int32_t v) {
    return static_cast<float>(static_cast<double>(v) * (1.0 / 2147483648.0));
}
template <> float toFloat(std::int64_t v) {
    return static_cast<float>(static_cast<double>(v) * (1.0 / 9223372036854775808.0));
}
template <> float toFloat(float v) {
    return v;
}
template <> float toFloat(double v) {
    return static_cast<float>(v);
}

// Spreads `channels` channels of a frame (planar or interleaved) into dest[0..channels).
template <typename T>
void spread(const AVFrame* frame, bool planar, int frameChannels, int channels,
            float* const* dest) {
    const auto frames = static_cast<std::size_t>(frame->nb_samples);
    for (int c = 0; c < channels; ++c) {
        float* out = dest[c];
        if (c >= frameChannels) {
            std::fill_n(out, frames, 0.0f);
        } else if (planar) {
            const T* in = reinterpret_cast<const T*>(frame->extended_data[c]);
            for (std::size_t i = 0; i < frames; ++i)
                out[i] = toFloat<T>(in[i]);
        } else {
            const T* in = reinterpret_cast<const T*>(frame->extended_data[0]) + c;
            for (std::size_t i = 0; i < frames; ++i)
                out[i] = toFloat<T>(in[i * static_cast<std::size_t>(frameChannels)]);
        }
    }
}

} // namespace

TrackDecoder::TrackDecoder(const MediaFile& file, int streamIndex, int threads)
    : m_streamIndex(streamIndex) {
    const AVStream* stream = file.stream(streamIndex);
    const AVCodecParameters* parameters = stream->codecpar;
    const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
    m_channels = parameters->ch_layout.nb_channels;
    m_sampleRate = parameters->sample_rate;
    if (!codec || m_channels < 1 || m_sampleRate <= 0)
        throw LoadError::failed(LoadError::kUnknownFormat);

    m_codec = avcodec_alloc_context3(codec);
    m_frame = av_frame_alloc();
    if (!m_codec || !m_frame) {
        avcodec_free_context(&m_codec);
        av_frame_free(&m_frame);
        throw LoadError::failed(LoadError::kNoBuffer);
    }
    m_codec->thread_count = threads;
    m_codec->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    if (avcodec_parameters_to_context(m_codec, parameters) < 0 ||
        avcodec_open2(m_codec, codec, nullptr) < 0) {
        avcodec_free_context(&m_codec);
        av_frame_free(&m_frame);
        throw LoadError::failed(LoadError::kUnknownFormat);
    }
    char description[128] = {};
    if (av_channel_layout_describe(&parameters->ch_layout, description, sizeof description) > 0)
        m_layout = description;
}

TrackDecoder::~TrackDecoder() {
    avcodec_free_context(&m_codec);
    av_frame_free(&m_frame);
}

void TrackDecoder::decode(const AVPacket* packet, const Sink& sink) {
    if (avcodec_send_packet(m_codec, packet) < 0) {
        ++m_errors;
        if (packet)
            return;
    }
    for (;;) {
        const int result = avcodec_receive_frame(m_codec, m_frame);
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
            return;
        if (result < 0) {
            ++m_errors;
            return;
        }
        const auto format = av_get_packed_sample_fmt(static_cast<AVSampleFormat>(m_frame->format));
        const bool known = format == AV_SAMPLE_FMT_U8 || format == AV_SAMPLE_FMT_S16 ||
                           format == AV_SAMPLE_FMT_S32 || format == AV_SAMPLE_FMT_S64 ||
                           format == AV_SAMPLE_FMT_FLT || format == AV_SAMPLE_FMT_DBL;
        if (!known)
            ++m_errors;
        else if (m_frame->nb_samples > 0)
            sink(Samples{m_frame, m_channels, static_cast<std::size_t>(m_frame->nb_samples)});
        av_frame_unref(m_frame);
    }
}

void TrackDecoder::reset() {
    avcodec_flush_buffers(m_codec);
}

void TrackDecoder::Samples::copyTo(float* const* dest) const {
    const int frameChannels = frame->ch_layout.nb_channels;
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const bool planar = av_sample_fmt_is_planar(format);
    switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8:
        return spread<std::uint8_t>(frame, planar, frameChannels, channels, dest);
    case AV_SAMPLE_FMT_S16:
        return spread<std::int16_t>(frame, planar, frameChannels, channels, dest);
    case AV_SAMPLE_FMT_S32:
        return spread<std::int32_t>(frame, planar, frameChannels, channels, dest);
    case AV_SAMPLE_FMT_S64:
        return spread<std::int64_t>(frame, planar, frameChannels, channels, dest);
    case AV_SAMPLE_FMT_FLT:
        return spread<float>(frame, planar, frameChannels, channels, dest);
    default:
        return spread<double>(frame, planar, frameChannels, channels, dest);
    }
}
