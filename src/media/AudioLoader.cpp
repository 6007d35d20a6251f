#include "media/AudioLoader.h"

#include "media/ConversionPipeline.h"
#include "media/MediaFile.h"
#include "media/RateConverter.h"
#include "media/TrackDecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <memory>
#include <thread>

namespace {

constexpr std::int64_t kMaxFrames = std::numeric_limits<std::uint32_t>::max();

bool sameRate(double a, double b) {
    return std::fabs(a - b) < 0.5;
}

bool cancelled(const AudioLoader::CancelFlag* cancel) {
    return cancel && cancel->load(std::memory_order_relaxed);
}

int conversionWorkers(int channels, int wanted) {
    if (wanted > 0)
        return std::clamp(std::min(channels, wanted), 1, 8);
    const int cores = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    // The decoding thread keeps one core busy; the converters share the others.
    return std::clamp(std::min(channels, cores - 1), 1, 8);
}

// One track being decoded: its decoder, its output channels and, when the rate changes, the
// conversion running beside the decoder.
struct TrackJob {
    std::unique_ptr<TrackDecoder> decoder;
    PcmBuffer buffer;
    std::unique_ptr<ConversionPipeline> pipeline;
    std::size_t decodedFrames = 0;
};

// Decodes the given audio streams in one pass over the file (a video with several audio tracks
// is read once, not once per track).
std::vector<PcmBuffer> decodeTracks(const MediaFile& file, const std::vector<int>& streams,
                                    double targetRate, const AudioLoader::CancelFlag* cancel,
                                    int workers = 0) {
    AVFormatContext* context = file.context();
    std::vector<TrackJob> jobs(streams.size());
    std::int64_t channelsInAll = 0;
    for (std::size_t t = 0; t < streams.size(); ++t) {
        TrackJob& job = jobs[t];
        const AVCodecParameters* parameters = file.stream(streams[t])->codecpar;
        // A track within 0.5 Hz of the engine keeps its own rate: it is used as decoded.
        const double ownRate = parameters->sample_rate;
        const double rate = targetRate > 0 && !sameRate(ownRate, targetRate) ? targetRate : ownRate;
        // The cores go to the conversion workers when there are any, else to the codec.
        job.decoder = std::make_unique<TrackDecoder>(file, streams[t], rate != ownRate ? 1 : 0);
        job.buffer.format =
            AudioLoader::makeFormat(rate, job.decoder->channels(), job.decoder->layout());
        job.buffer.channels.resize(static_cast<std::size_t>(job.decoder->channels()));
        channelsInAll += job.decoder->channels();
        // Reserve what the duration promises; unwritten pages cost nothing, and a longer
        // track grows in place.
        const double expected = file.duration() * rate * 1.02 + 8192.0;
        const auto reserve = static_cast<std::size_t>(std::min(expected, 4.0e8));
        for (auto& channel : job.buffer.channels) {
            if (!channel.reserve(reserve))
                throw LoadError::failed(LoadError::kNoBuffer);
        }
        if (rate != ownRate)
            job.pipeline = std::make_unique<ConversionPipeline>(
                job.decoder->sampleRate(), rate, job.buffer.channels,
                conversionWorkers(job.decoder->channels(), workers));
    }
    // Streams nobody decodes are not even demuxed.
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const bool wanted =
            std::find(streams.begin(), streams.end(), static_cast<int>(i)) != streams.end();
        context->streams[i]->discard = wanted ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }

    // Decoded material is checked against the size limit as it arrives: a file whose header
    // understates its length must not fill the memory.
    const double maxFrames =
        AudioLoader::kMaxClipBytes / 4.0 / std::max<std::int64_t>(channelsInAll, 1);
    std::vector<float*> dest;
    auto sinkFor = [&](TrackJob& job) {
        return [&job, &dest, maxFrames](const TrackDecoder::Samples& samples) {
            job.decodedFrames += samples.frames;
            const double ratio = job.buffer.format.sampleRate / job.decoder->sampleRate();
            if (static_cast<double>(job.decodedFrames) * ratio > maxFrames)
                throw LoadError::tooLarge();
            if (job.pipeline) {
                job.pipeline->push(samples.frames, [&](float* const* to) { samples.copyTo(to); });
                return;
            }
            dest.resize(job.buffer.channels.size());
            for (std::size_t c = 0; c < dest.size(); ++c) {
                dest[c] = job.buffer.channels[c].appendSpace(samples.frames);
                if (!dest[c])
                    throw LoadError::failed(LoadError::kNoBuffer);
            }
            samples.copyTo(dest.data());
            for (auto& channel : job.buffer.channels)
                channel.commit(samples.frames);
        };
    };
    std::vector<TrackDecoder::Sink> sinks;
    for (auto& job : jobs)
        sinks.push_back(sinkFor(job));

    AVPacket* packet = av_packet_alloc();
    if (!packet)
        throw LoadError::failed(LoadError::kNoBuffer);
    std::unique_ptr<AVPacket, void (*)(AVPacket*)> packetOwner(
        packet, [](AVPacket* p) { av_packet_free(&p); });
    for (;;) {
        if (cancelled(cancel))
            throw LoadError::cancelled();
        const int result = av_read_frame(context, packet);
        if (result < 0) {
            if (cancelled(cancel))
                throw LoadError::cancelled();
            break; // end of file, or a damaged tail: keep what decoded
        }
        for (std::size_t t = 0; t < jobs.size(); ++t) {
            if (packet->stream_index == jobs[t].decoder->streamIndex())
                jobs[t].decoder->decode(packet, sinks[t]);
        }
        av_packet_unref(packet);
    }

    std::vector<PcmBuffer> buffers;
    for (std::size_t t = 0; t < jobs.size(); ++t) {
        TrackJob& job = jobs[t];
        job.decoder->decode(nullptr, sinks[t]);
        if (job.decodedFrames == 0 && job.decoder->errors() > 0)
            throw LoadError::failed(LoadError::kReadFailed);
        if (job.pipeline)
            job.pipeline->finish();
        for (auto& channel : job.buffer.channels)
            channel.shrinkToFit();
        buffers.push_back(std::move(job.buffer));
    }
    return buffers;
}

} // namespace

namespace AudioLoader {

MediaProbe probe(const std::string& path, const CancelFlag* cancel) {
    MediaProbe result;
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (!error)
        result.fileSize = static_cast<std::int64_t>(size);
    try {
        const MediaFile file(path, cancel);
        result.duration = file.duration();
        result.audioTracks = static_cast<std::int64_t>(file.audioStreams().size());
        result.hasAudio = result.audioTracks > 0;
        for (int index : file.audioStreams()) {
            const AVCodecParameters* parameters = file.stream(index)->codecpar;
            result.sourceChannels += parameters->ch_layout.nb_channels;
            if (result.sourceSampleRate == 0.0 && parameters->sample_rate > 0)
                result.sourceSampleRate = parameters->sample_rate;
        }
        if (file.videoStream() >= 0) {
            result.hasVideo = true;
            file.videoSize(file.videoStream(), result.videoWidth, result.videoHeight);
        }
    } catch (const LoadError&) {
        // Not media: only the size is known.
    }
    return result;
}

AudioClipPtr loadClip(const std::string& path, double targetRate, const MediaProbe& probe,
                      const CancelFlag* cancel) {
    const double estimate = probe.duration * std::max(probe.sourceSampleRate, targetRate) *
                            static_cast<double>(std::max<std::int64_t>(probe.sourceChannels, 1)) *
                            4.0;
    if (estimate > kMaxClipBytes)
        throw LoadError::tooLarge();

    const MediaFile file(path, cancel);
    if (file.audioStreams().empty())
        throw LoadError::failed(LoadError::kNoAudioTrack);
    std::vector<PcmBuffer> tracks = decodeTracks(file, file.audioStreams(), targetRate, cancel);
    PcmBuffer buffer = tracks.size() == 1 ? std::move(tracks.front()) : combine(std::move(tracks));
    buffer = convert(std::move(buffer), targetRate);
    if (buffer.frameLength() <= 1)
        throw LoadError::failed(LoadError::kEmpty);
    for (auto& channel : buffer.channels) {
        if (!channel.padTo(static_cast<std::size_t>(buffer.frameLength())))
            throw LoadError::failed(LoadError::kNoBuffer);
    }
    return std::make_shared<const AudioClip>(std::move(buffer.channels), buffer.format.sampleRate);
}

PcmBuffer readTrack(const std::string& path, int track, double targetRate, const CancelFlag* cancel,
                    int conversionWorkers) {
    const MediaFile file(path, cancel);
    const auto& streams = file.audioStreams();
    if (track < 0 || track >= static_cast<int>(streams.size()))
        throw LoadError::failed(LoadError::kNoAudioTrack);
    return std::move(decodeTracks(file, {streams[static_cast<std::size_t>(track)]}, targetRate,
                                  cancel, conversionWorkers)
                         .front());
}

PcmBuffer combine(std::vector<PcmBuffer> buffers) {
    PcmBuffer result;
    std::int64_t frames = 1;
    std::int64_t channels = 0;
    for (const auto& buffer : buffers) {
        frames = std::max(frames, buffer.frameLength());
        channels += static_cast<std::int64_t>(buffer.channels.size());
    }
    if (frames > kMaxFrames)
        throw LoadError::failed(LoadError::kNoBuffer);
    const double rate = buffers.empty() ? 0.0 : buffers.front().format.sampleRate;
    result.format = makeFormat(rate, channels, "");
    result.channels.reserve(static_cast<std::size_t>(channels));
    for (auto& buffer : buffers) {
        for (auto& channel : buffer.channels) {
            if (!channel.padTo(static_cast<std::size_t>(frames)))
                throw LoadError::failed(LoadError::kNoBuffer);
            result.channels.push_back(std::move(channel));
        }
    }
    return result;
}

PcmBuffer convert(PcmBuffer buffer, double rate) {
    if (sameRate(buffer.format.sampleRate, rate))
        return buffer;
    const auto channels = static_cast<int>(buffer.channels.size());
    RateConverter converter(buffer.format.sampleRate, rate, channels);
    const std::int64_t frames = buffer.frameLength();
    PcmBuffer result;
    result.format = makeFormat(rate, channels, buffer.format.layout);
    result.channels.resize(buffer.channels.size());
    const auto capacity =
        static_cast<std::size_t>(static_cast<double>(frames) * rate / buffer.format.sampleRate) +
        4096;
    std::vector<const float*> inputs;
    for (std::size_t c = 0; c < buffer.channels.size(); ++c) {
        if (!buffer.channels[c].padTo(static_cast<std::size_t>(frames)) ||
            !result.channels[c].reserve(capacity))
            throw LoadError::failed(LoadError::kNoBuffer);
        inputs.push_back(buffer.channels[c].data());
    }
    converter.process(inputs.data(), static_cast<std::size_t>(frames), result.channels.data());
    converter.flush(result.channels.data());
    for (auto& channel : result.channels)
        channel.shrinkToFit();
    return result;
}

AudioFormat makeFormat(double sampleRate, std::int64_t channels, const std::string& layout) {
    AudioFormat format{sampleRate, channels, {}};
    if (!layout.empty()) {
        AVChannelLayout parsed{};
        if (av_channel_layout_from_string(&parsed, layout.c_str()) == 0 &&
            parsed.nb_channels == channels) {
            format.layout = layout;
            av_channel_layout_uninit(&parsed);
            return format;
        }
        av_channel_layout_uninit(&parsed);
    }
    if (channels > 2)
        format.layout = std::to_string(channels) + " channels";
    else
        format.layout = channels == 1 ? "mono" : "stereo";
    return format;
}

} // namespace AudioLoader
