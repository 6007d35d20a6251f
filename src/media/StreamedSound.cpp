#include "media/StreamedSound.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "audio/SampleBuffer.h"
#include "media/LoadError.h"
#include "media/MediaFile.h"
#include "media/RateConverter.h"

namespace {

// A decoding that lands this far after the place asked for is not padded further.
constexpr double kMaxLeadIn = 10.0;
// One track this far ahead of another (a track with a long gap in its packets) makes the others
// silent up to it, so that waiting for them never holds the file's sound in memory.
constexpr double kMaxSkew = 5.0;
// How long the decoding thread sleeps while the ring is full.
constexpr auto kIdle = std::chrono::milliseconds(10);

AVPacket* packetOf(void* packet) {
    return static_cast<AVPacket*>(packet);
}

} // namespace

struct StreamedSound::Track {
    std::unique_ptr<TrackDecoder> decoder;
    std::unique_ptr<RateConverter> converter; // none when the track is at the device's rate
    double timeBase = 0.0;
    std::vector<SampleBuffer> pending;       // at the device's rate, waiting for the ring
    std::vector<std::vector<float>> decoded; // one decoded frame
    std::vector<float*> into;                // its channels, for the decoder to fill
    std::vector<const float*> from;          // where the converter reads them
    // Frames still to drop before the place decoding started from; unknown (unset) until the
    // first frame says where the demuxer landed.
    std::optional<std::int64_t> skip;

    std::size_t frames() const { return pending.front().size(); }
};

StreamedSound::StreamedSound(std::string path, const Options& options)
    : m_path(std::move(path)), m_options(options) {
    const auto capacity =
        std::max<std::int64_t>(std::llround(options.rate * options.ringSeconds), 16384);
    m_stream = std::make_shared<AudioStream>(options.channels, capacity, options.rate,
                                             std::llround(options.from * options.rate),
                                             std::llround(options.duration * options.rate));
    m_silence.assign(static_cast<std::size_t>(capacity), 0.0f);
    m_packet = av_packet_alloc();
    if (!m_packet) {
        m_failure = LoadError::kNoBuffer;
        m_stream->finish();
        m_ended = true;
        return;
    }
    if (!options.inlineDecoding)
        m_thread = std::thread([this] { run(); });
}

StreamedSound::~StreamedSound() {
    {
        std::lock_guard lock(m_mutex);
        m_stop.store(true);
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
    m_tracks.clear();
    m_file.reset();
    AVPacket* packet = packetOf(m_packet);
    av_packet_free(&packet);
}

void StreamedSound::fill() {
    if (!m_options.inlineDecoding)
        return;
    try {
        while (step()) {
        }
    } catch (const LoadError& error) {
        std::lock_guard lock(m_mutex);
        m_failure = error.message();
        m_stream->finish();
        m_ended = true;
    }
}

std::optional<std::string> StreamedSound::takeFailure() {
    std::lock_guard lock(m_mutex);
    return std::exchange(m_failure, std::nullopt);
}

void StreamedSound::run() {
    while (!m_stop.load()) {
        bool progressed = false;
        try {
            progressed = step();
        } catch (const LoadError& error) {
            std::lock_guard lock(m_mutex);
            // Stopping interrupts FFmpeg's reads: that is no failure to report.
            if (!m_stop.load() && error.kind() != LoadError::Kind::cancelled)
                m_failure = error.message();
            m_stream->finish();
            m_ended = true;
        }
        if (m_ended)
            return;
        if (!progressed) {
            std::unique_lock lock(m_mutex);
            m_wake.wait_for(lock, kIdle, [this] { return m_stop.load(); });
        }
    }
}

bool StreamedSound::step() {
    if (m_ended)
        return false;
    if (!m_opened) {
        open();
        return true;
    }
    moveToRing();
    if (m_atEnd) {
        // Every track is padded to the same length by now: nothing pending means all is out.
        if (m_tracks.front()->frames() == 0) {
            m_stream->finish();
            m_ended = true;
        }
        return false;
    }
    if (m_stream->space() == 0)
        return false;
    AVPacket* packet = packetOf(m_packet);
    if (av_read_frame(m_file->context(), packet) < 0) {
        if (m_stop.load())
            return false;
        endOfFile(); // or a damaged tail: what decoded plays
        return true;
    }
    for (auto& track : m_tracks) {
        if (packet->stream_index == track->decoder->streamIndex())
            track->decoder->decode(
                packet, [&](const TrackDecoder::Samples& samples) { decodeInto(*track, samples); });
    }
    av_packet_unref(packet);
    return true;
}

void StreamedSound::open() {
    m_file = std::make_unique<MediaFile>(m_path, &m_stop);
    for (int index : m_file->audioStreams()) {
        auto track = std::make_unique<Track>();
        track->decoder = std::make_unique<TrackDecoder>(*m_file, index, 1);
        track->timeBase = av_q2d(m_file->stream(index)->time_base);
        const auto channels = static_cast<std::size_t>(track->decoder->channels());
        track->pending.resize(channels);
        track->decoded.resize(channels);
        track->into.resize(channels);
        track->from.resize(channels);
        m_tracks.push_back(std::move(track));
    }
    if (m_tracks.empty())
        throw LoadError::failed(LoadError::kNoAudioTrack);
    // Streams nobody decodes are not even demuxed.
    AVFormatContext* context = m_file->context();
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const auto& audio = m_file->audioStreams();
        const bool wanted =
            std::find(audio.begin(), audio.end(), static_cast<int>(i)) != audio.end();
        context->streams[i]->discard = wanted ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    m_opened = true;
    rewind(m_options.from);
}

void StreamedSound::rewind(double seconds) {
    m_position = std::max(seconds, 0.0);
    AVFormatContext* context = m_file->context();
    if (m_position > 0.0) {
        const auto target = static_cast<std::int64_t>(m_position * AV_TIME_BASE);
        // Where the demuxer cannot seek, decoding from the start and dropping gets there too.
        if (avformat_seek_file(context, -1, INT64_MIN, target, target, 0) < 0)
            av_seek_frame(context, -1, 0, AVSEEK_FLAG_BACKWARD);
    } else if (m_atEnd) {
        // Going round.
        av_seek_frame(context, -1, 0, AVSEEK_FLAG_BACKWARD);
    }
    for (auto& track : m_tracks) {
        track->decoder->reset();
        const double own = track->decoder->sampleRate();
        track->converter =
            own == m_options.rate
                ? nullptr
                : std::make_unique<RateConverter>(own, m_options.rate, track->decoder->channels());
        // From the start every decoded sample counts, as in a clip; elsewhere the first frame
        // says how much lies before the place.
        track->skip = m_position > 0.0 ? std::nullopt : std::optional<std::int64_t>(0);
    }
    m_atEnd = false;
}

void StreamedSound::decodeInto(Track& track, const TrackDecoder::Samples& samples) {
    std::vector<float*>& dest = track.into;
    for (std::size_t c = 0; c < dest.size(); ++c) {
        if (track.decoded[c].size() < samples.frames)
            track.decoded[c].resize(samples.frames);
        dest[c] = track.decoded[c].data();
    }
    samples.copyTo(dest.data());
    const double own = track.decoder->sampleRate();
    if (!track.skip) {
        const std::int64_t pts = samples.frame->best_effort_timestamp;
        const double at =
            pts == AV_NOPTS_VALUE ? m_position : static_cast<double>(pts) * track.timeBase;
        std::int64_t skip = std::llround((m_position - at) * own);
        // Landed after the place: silence up to where this frame belongs.
        for (auto lead = std::min<std::int64_t>(-skip, std::llround(kMaxLeadIn * own)); lead > 0;) {
            const auto piece =
                std::min<std::int64_t>(lead, static_cast<std::int64_t>(m_silence.size()));
            std::fill(track.from.begin(), track.from.end(), m_silence.data());
            feed(track, track.from.data(), static_cast<std::size_t>(piece));
            lead -= piece;
        }
        track.skip = std::max<std::int64_t>(skip, 0);
    }
    const auto dropped = static_cast<std::size_t>(
        std::min<std::int64_t>(*track.skip, static_cast<std::int64_t>(samples.frames)));
    *track.skip -= static_cast<std::int64_t>(dropped);
    for (std::size_t c = 0; c < dest.size(); ++c)
        track.from[c] = dest[c] + dropped;
    feed(track, track.from.data(), samples.frames - dropped);
}

void StreamedSound::feed(Track& track, const float* const* input, std::size_t frames) {
    if (frames == 0)
        return;
    if (track.converter) {
        track.converter->process(input, frames, track.pending.data());
        return;
    }
    for (std::size_t c = 0; c < track.pending.size(); ++c) {
        if (!track.pending[c].append(input[c], frames))
            throw LoadError::failed(LoadError::kNoBuffer);
    }
}

void StreamedSound::endOfFile() {
    std::size_t longest = 0;
    for (auto& track : m_tracks) {
        track->decoder->decode(
            nullptr, [&](const TrackDecoder::Samples& samples) { decodeInto(*track, samples); });
        if (track->converter)
            track->converter->flush(track->pending.data());
        longest = std::max(longest, track->frames());
    }
    // Like a clip: shorter tracks end in silence.
    for (auto& track : m_tracks) {
        for (auto& channel : track->pending) {
            if (!channel.padTo(longest))
                throw LoadError::failed(LoadError::kNoBuffer);
        }
    }
    m_atEnd = true;
    if (m_options.loop)
        rewind(0.0);
}

std::int64_t StreamedSound::moveToRing() {
    std::size_t fewest = m_tracks.front()->frames();
    std::size_t most = 0;
    for (const auto& track : m_tracks) {
        fewest = std::min(fewest, track->frames());
        most = std::max(most, track->frames());
    }
    if (static_cast<double>(most - fewest) > kMaxSkew * m_options.rate) {
        for (auto& track : m_tracks) {
            for (auto& channel : track->pending) {
                if (!channel.padTo(most))
                    throw LoadError::failed(LoadError::kNoBuffer);
            }
        }
        fewest = most;
    }
    const auto frames =
        std::min<std::int64_t>(static_cast<std::int64_t>(fewest), m_stream->space());
    if (frames <= 0)
        return 0;
    // The tracks' channels in order; channels the probe counted and no track has are silent.
    std::vector<const float*> source(static_cast<std::size_t>(m_stream->channelCount()),
                                     m_silence.data());
    std::size_t next = 0;
    for (const auto& track : m_tracks) {
        for (const auto& channel : track->pending) {
            if (next < source.size())
                source[next++] = channel.data();
        }
    }
    const std::int64_t written = m_stream->write(source.data(), frames);
    for (auto& track : m_tracks) {
        for (auto& channel : track->pending)
            channel.dropFront(static_cast<std::size_t>(written));
    }
    return written;
}
