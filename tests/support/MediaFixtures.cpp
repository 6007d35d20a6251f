#include "MediaFixtures.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

#include <cmath>
#include <cstdio>
#include <memory>

namespace MediaFixtures {
namespace {

struct Output {
    AVStream* stream = nullptr;
    AVCodecContext* codec = nullptr;
    AVFrame* frame = nullptr;
    std::int64_t next = 0;  // next frame (video) or sample (audio) to encode
    std::int64_t total = 0; // frames or samples in all
    const Tone* tone = nullptr;
    std::optional<std::array<int, 3>> levels; // a video's fixed levels
    bool finished = false;
    std::uint64_t noiseState = 1;
};

bool encode(AVFormatContext* container, Output& out, AVFrame* frame) {
    if (avcodec_send_frame(out.codec, frame) < 0)
        return false;
    AVPacket* packet = av_packet_alloc();
    int result = 0;
    while ((result = avcodec_receive_packet(out.codec, packet)) == 0) {
        av_packet_rescale_ts(packet, out.codec->time_base, out.stream->time_base);
        packet->stream_index = out.stream->index;
        if (av_interleaved_write_frame(container, packet) < 0) {
            av_packet_free(&packet);
            return false;
        }
    }
    av_packet_free(&packet);
    return result == AVERROR(EAGAIN) || result == AVERROR_EOF;
}

void fillAudio(Output& out, int samples) {
    AVFrame* frame = out.frame;
    frame->nb_samples = samples;
    av_frame_make_writable(frame);
    const Tone& tone = *out.tone;
    const auto format = static_cast<AVSampleFormat>(frame->format);
    const bool planar = av_sample_fmt_is_planar(format);
    for (int i = 0; i < samples; ++i) {
        const double t = static_cast<double>(out.next + i) / tone.sampleRate;
        for (int c = 0; c < tone.channels; ++c) {
            double v = tone.amplitude * std::sin(2.0 * M_PI * tone.frequency * (c + 1) * t);
            if (tone.noise > 0.0) {
                // A fixed linear congruential sequence: the same file every time.
                out.noiseState = out.noiseState * 6364136223846793005ull + 1442695040888963407ull;
                v += tone.noise *
                     (static_cast<double>(out.noiseState >> 11) / 9007199254740992.0 - 0.5);
            }
            const int slot = planar ? i : i * tone.channels + c;
            std::uint8_t* base = frame->extended_data[planar ? c : 0];
            switch (av_get_packed_sample_fmt(format)) {
            case AV_SAMPLE_FMT_S16:
                reinterpret_cast<std::int16_t*>(base)[slot] =
                    static_cast<std::int16_t>(std::lrint(v * 32767));
                break;
            case AV_SAMPLE_FMT_S32:
                reinterpret_cast<std::int32_t*>(base)[slot] =
                    static_cast<std::int32_t>(std::lrint(v * 2147483647.0));
                break;
            case AV_SAMPLE_FMT_DBL:
                reinterpret_cast<double*>(base)[slot] = v;
                break;
            default:
                reinterpret_cast<float*>(base)[slot] = static_cast<float>(v);
            }
        }
    }
    frame->pts = out.next;
    out.next += samples;
}

void setRotation(AVStream* stream, double degrees) {
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 31, 102)
    AVPacketSideData* data = av_packet_side_data_new(
        &stream->codecpar->coded_side_data, &stream->codecpar->nb_coded_side_data,
        AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(std::int32_t), 0);
    if (data)
        av_display_rotation_set(reinterpret_cast<std::int32_t*>(data->data), degrees);
#else
    auto* matrix = reinterpret_cast<std::int32_t*>(
        av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(std::int32_t)));
    if (matrix)
        av_display_rotation_set(matrix, degrees);
#endif
}

bool writeAll(AVFormatContext* container, const std::string& path, const std::string& audioCodec,
              const std::vector<Tone>& tracks, const Video* video, std::vector<Output>& outs) {
    const bool globalHeader = container->oformat->flags & AVFMT_GLOBALHEADER;
    if (video) {
        const AVCodec* codec = avcodec_find_encoder_by_name(video->codec.c_str());
        if (!codec)
            return false;
        Output out;
        out.stream = avformat_new_stream(container, nullptr);
        out.codec = avcodec_alloc_context3(codec);
        out.codec->width = video->width;
        out.codec->height = video->height;
        const AVPixelFormat format = av_get_pix_fmt(video->pixelFormat.c_str());
        if (format == AV_PIX_FMT_NONE)
            return false;
        out.codec->pix_fmt = format;
        out.codec->color_range = video->fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
        out.codec->colorspace = video->matrix == "bt709"   ? AVCOL_SPC_BT709
                                : video->matrix == "bt601" ? AVCOL_SPC_SMPTE170M
                                                           : AVCOL_SPC_UNSPECIFIED;
        out.codec->time_base = AVRational{1, video->fps};
        out.codec->gop_size = video->fps;
        // A fixed fine quantiser: at the default bit rate a 1080p grey came back up to 5 levels
        // off, more than half the step between two pictures' greys.
        out.codec->flags |= AV_CODEC_FLAG_QSCALE;
        out.codec->global_quality = FF_QP2LAMBDA * 2;
        if (globalHeader)
            out.codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        if (avcodec_open2(out.codec, codec, nullptr) < 0)
            return false;
        avcodec_parameters_from_context(out.stream->codecpar, out.codec);
        out.stream->time_base = out.codec->time_base;
        if (video->rotation != 0.0)
            setRotation(out.stream, video->rotation);
        out.frame = av_frame_alloc();
        out.frame->format = format;
        out.frame->color_range = out.codec->color_range;
        out.frame->colorspace = out.codec->colorspace;
        out.levels = video->levels;
        out.frame->width = video->width;
        out.frame->height = video->height;
        out.frame->quality = out.codec->global_quality;
        av_frame_get_buffer(out.frame, 0);
        out.total = static_cast<std::int64_t>(video->seconds * video->fps);
        outs.push_back(out);
    }
    for (const Tone& tone : tracks) {
        const AVCodec* codec = avcodec_find_encoder_by_name(audioCodec.c_str());
        if (!codec)
            return false;
        Output out;
        out.tone = &tone;
        out.stream = avformat_new_stream(container, nullptr);
        out.codec = avcodec_alloc_context3(codec);
        out.codec->sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
        out.codec->sample_rate = tone.sampleRate;
        av_channel_layout_default(&out.codec->ch_layout, tone.channels);
        out.codec->time_base = AVRational{1, tone.sampleRate};
        out.codec->bit_rate = 192000;
        out.codec->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
        if (globalHeader)
            out.codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        if (avcodec_open2(out.codec, codec, nullptr) < 0)
            return false;
        avcodec_parameters_from_context(out.stream->codecpar, out.codec);
        out.stream->time_base = out.codec->time_base;
        out.frame = av_frame_alloc();
        out.frame->format = out.codec->sample_fmt;
        av_channel_layout_copy(&out.frame->ch_layout, &out.codec->ch_layout);
        out.frame->sample_rate = tone.sampleRate;
        out.frame->nb_samples = out.codec->frame_size > 0 ? out.codec->frame_size : 1024;
        av_frame_get_buffer(out.frame, 0);
        out.total = static_cast<std::int64_t>(std::llround(tone.seconds * tone.sampleRate));
        outs.push_back(out);
    }

    if (!(container->oformat->flags & AVFMT_NOFILE) &&
        avio_open(&container->pb, path.c_str(), AVIO_FLAG_WRITE) < 0)
        return false;
    if (avformat_write_header(container, nullptr) < 0)
        return false;

    // Interleave by time: always advance the output that is furthest behind.
    for (;;) {
        Output* behind = nullptr;
        double behindTime = 0.0;
        for (auto& out : outs) {
            if (out.finished)
                continue;
            const double t = static_cast<double>(out.next) * av_q2d(out.codec->time_base);
            if (!behind || t < behindTime) {
                behind = &out;
                behindTime = t;
            }
        }
        if (!behind)
            break;
        Output& out = *behind;
        if (out.next >= out.total) {
            if (!encode(container, out, nullptr))
                return false;
            out.finished = true;
            continue;
        }
        if (out.tone) {
            const int capacity = out.codec->frame_size > 0 ? out.codec->frame_size : 1024;
            const auto left =
                static_cast<int>(std::min<std::int64_t>(capacity, out.total - out.next));
            // Fixed-frame-size encoders take a short last frame only when they say so.
            if (left < capacity && out.codec->frame_size > 0 &&
                !(out.codec->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) &&
                !(out.codec->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME)) {
                out.next = out.total;
                continue;
            }
            fillAudio(out, left);
        } else {
            av_frame_make_writable(out.frame);
            const AVPixFmtDescriptor* desc =
                av_pix_fmt_desc_get(static_cast<AVPixelFormat>(out.frame->format));
            const int depth = desc->comp[0].depth;
            for (int p = 0; p < 3; ++p) {
                const int level = out.levels ? (*out.levels)[p]
                                  : p        ? 128
                                             : static_cast<int>(16 + (out.next * 8) % 216);
                // Chroma of an odd size covers the last column and row too.
                const int w = p ? -((-out.frame->width) >> desc->log2_chroma_w) : out.frame->width;
                const int h =
                    p ? -((-out.frame->height) >> desc->log2_chroma_h) : out.frame->height;
                for (int y = 0; y < h; ++y) {
                    std::uint8_t* row = out.frame->data[p] + y * out.frame->linesize[p];
                    if (depth > 8)
                        std::fill_n(reinterpret_cast<std::uint16_t*>(row), w,
                                    static_cast<std::uint16_t>(level << (depth - 8)));
                    else
                        std::fill_n(row, w, static_cast<std::uint8_t>(level));
                }
            }
            out.frame->pts = out.next++;
        }
        if (!encode(container, out, out.frame))
            return false;
    }
    return av_write_trailer(container) == 0;
}

} // namespace

bool write(const std::string& path, const std::string& audioCodec, const std::vector<Tone>& tracks,
           const Video* video) {
    av_log_set_level(AV_LOG_QUIET);
    AVFormatContext* container = nullptr;
    if (avformat_alloc_output_context2(&container, nullptr, nullptr, path.c_str()) < 0)
        return false;
    std::vector<Output> outs;
    const bool ok = writeAll(container, path, audioCodec, tracks, video, outs);
    for (auto& out : outs) {
        avcodec_free_context(&out.codec);
        av_frame_free(&out.frame);
    }
    if (container->pb && !(container->oformat->flags & AVFMT_NOFILE))
        avio_closep(&container->pb);
    avformat_free_context(container);
    if (!ok)
        std::remove(path.c_str());
    return ok;
}

std::string pngClaiming(std::uint32_t width, std::uint32_t height) {
    const auto bigEndian = [](std::uint32_t v) {
        return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                           static_cast<char>(v >> 8), static_cast<char>(v)};
    };
    const auto crc = [](const std::string& bytes) {
        std::uint32_t c = 0xffffffffu;
        for (const char byte : bytes) {
            c ^= static_cast<std::uint8_t>(byte);
            for (int k = 0; k < 8; ++k)
                c = (c >> 1) ^ (0xedb88320u & (0u - (c & 1u)));
        }
        return ~c;
    };
    const auto chunk = [&](const std::string& type, const std::string& data) {
        return bigEndian(static_cast<std::uint32_t>(data.size())) + type + data +
               bigEndian(crc(type + data));
    };
    // 8 bits per channel, RGBA, no interlace.
    const std::string header = bigEndian(width) + bigEndian(height) + std::string{8, 6, 0, 0, 0};
    // An empty zlib stream as the picture data.
    const std::string data("\x78\x9c\x03\x00\x00\x00\x00\x01", 8);
    return std::string("\x89PNG\r\n\x1a\n", 8) + chunk("IHDR", header) + chunk("IDAT", data) +
           chunk("IEND", {});
}

} // namespace MediaFixtures
