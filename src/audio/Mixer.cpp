#include "audio/Mixer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "audio/AtomicPeak.h"
#include "audio/HostTime.h"
#include "audio/VectorMath.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
// 2π × 1000 Hz: the test tone's phase advance per second.
constexpr double kTonePhasePerSecond = 6283.185307179586;

// Start offset of a waiting voice in a block, in frames; a huge distance saturates instead of
// overflowing the conversion.
std::int64_t startOffset(double rate, double secondsPerTick, std::int64_t ticksAhead,
                         double latency) {
    const double frames = rate * (secondsPerTick * static_cast<double>(ticksAhead) - latency);
    constexpr double kLimit = 9.0e18;
    return static_cast<std::int64_t>(std::clamp(frames, -kLimit, kLimit));
}

} // namespace

Mixer::Mixer()
    : m_scratchIndex(new std::int64_t[kChunk]), m_scratchNext(new std::int64_t[kChunk]),
      m_scratchFrac(new float[kChunk]), m_scratchGain(new float[kChunk]),
      m_scratchLevel(new float[kChunk]) {
    m_voices.reserve(kReservedVoices);
    m_retired.reserve(kReservedVoices);
    m_virtualBuffers.assign(kVirtualChannels, std::vector<float>(kVirtualFrames, 0.0f));
}

Mixer::~Mixer() = default;

Voice* Mixer::find(std::int64_t id) {
    for (auto& voice : m_voices) {
        if (voice->id == id)
            return voice.get();
    }
    return nullptr;
}

namespace {

// One output frame's step of a voice's fade envelope. False when it has faded out: that frame
// is already silent and the voice is done.
inline bool stepEnvelope(float& env, float& envStep) noexcept {
    if (envStep == 0.0f)
        return true;
    const float e = env + envStep;
    if (e >= 1.0f) {
        env = 1.0f;
        envStep = 0.0f;
    } else if (e > 0.0f) {
        env = e;
    } else {
        env = 0.0f;
        return false;
    }
    return true;
}

// Gains come from the control side already bounded; this only keeps a NaN, an infinity or a
// negative gain (which no caller means) from ever reaching the output.
float usableGain(float gain) {
    return std::isfinite(gain) && gain > 0.0f ? gain : 0.0f;
}

} // namespace

std::int64_t Mixer::play(AudioClipPtr clip, const RouteList& routes, float volume, double fadeIn,
                         bool loop, bool deferred) {
    if (!clip || clip->frameCount < 1 || clip->channelCount < 1)
        return 0;
    const std::int64_t channels = clip->channelCount;
    auto voice = std::make_unique<Voice>(std::move(clip), usableRoutes(routes, channels));
    voice->loop = loop;
    return add(std::move(voice), volume, fadeIn, deferred);
}

std::int64_t Mixer::playStream(AudioStreamPtr stream, const RouteList& routes, float volume,
                               double fadeIn, bool deferred) {
    if (!stream)
        return 0;
    const std::int64_t channels = stream->channelCount();
    return add(std::make_unique<Voice>(std::move(stream), usableRoutes(routes, channels)), volume,
               fadeIn, deferred);
}

RouteList Mixer::usableRoutes(const RouteList& routes, std::int64_t channels) {
    RouteList usable;
    usable.reserve(routes.size());
    for (const Route& route : routes) {
        if (route.source >= 0 && route.source < channels && route.output >= 0 &&
            route.output < kMaxOutputs)
            usable.push_back(route);
    }
    return usable;
}

std::int64_t Mixer::add(std::unique_ptr<Voice> voice, float volume, double fadeIn, bool deferred) {
    // Everything that allocates happens before the lock.
    voice->volume = usableGain(volume);
    voice->startHost = deferred ? Voice::kArmed : 0;

    std::vector<std::unique_ptr<Voice>> grown;
    if (m_voices.size() == m_voices.capacity())
        grown.reserve(std::max<std::size_t>(kReservedVoices, m_voices.capacity() * 2));

    std::lock_guard guard(m_lock);
    const float fadeFrames = static_cast<float>(fadeIn * m_sampleRate);
    if (fadeFrames >= 1.0f) {
        voice->env = 0.0f;
        voice->envStep = 1.0f / fadeFrames;
    } else {
        voice->env = 1.0f;
        voice->envStep = 0.0f;
    }
    voice->id = m_nextID++;
    const std::int64_t id = voice->id;
    if (grown.capacity() > m_voices.capacity()) {
        // Moving the owners is pointer moves only; the old array is freed after the lock.
        for (auto& existing : m_voices)
            grown.push_back(std::move(existing));
        m_voices.swap(grown);
    }
    m_voices.push_back(std::move(voice));
    return id;
}

void Mixer::stop(std::int64_t id, double fade) {
    std::lock_guard guard(m_lock);
    Voice* voice = find(id);
    if (!voice || voice->done)
        return;
    if (!voice->started) {
        voice->done = true;
        voice->publish();
        return;
    }
    const float frames = static_cast<float>(std::max(fade, 0.005) * m_sampleRate);
    voice->envStep = -std::max(voice->env, 0.0001f) / frames;
}

void Mixer::setVolume(std::int64_t id, float volume) {
    std::lock_guard guard(m_lock);
    if (Voice* voice = find(id))
        voice->volume = usableGain(volume);
}

void Mixer::setLoop(std::int64_t id, bool loop) {
    std::lock_guard guard(m_lock);
    if (Voice* voice = find(id))
        voice->loop = loop;
}

void Mixer::setStart(std::int64_t id, std::uint64_t hostTime) {
    std::lock_guard guard(m_lock);
    if (Voice* voice = find(id))
        voice->startHost = hostTime;
}

void Mixer::seek(std::int64_t id, double seconds, std::uint64_t startHost) {
    std::lock_guard guard(m_lock);
    Voice* voice = find(id);
    // A stream is sought by playing a new one from there.
    if (!voice || voice->done || voice->stream)
        return;
    const AudioClip& clip = *voice->clip;
    // max before min: a NaN position lands on 0, an infinite one on the last frame.
    voice->position = std::min(static_cast<double>(clip.frameCount - 1),
                               std::max(0.0, seconds * clip.sampleRate));
    if (startHost != 0) {
        voice->started = false;
        voice->startHost = startHost;
    }
    voice->publish();
}

void Mixer::removeDone() {
    // Done is final and published under the lock, so a voice seen done here is done under it.
    const bool anyDone = std::any_of(m_voices.begin(), m_voices.end(), [](const auto& voice) {
        return voice->shownDone.load(std::memory_order_acquire);
    });
    if (!anyDone)
        return;
    // Room for every voice is made before the lock, so moving them out never allocates.
    if (m_retired.capacity() < m_voices.size())
        m_retired.reserve(m_voices.size());
    {
        std::lock_guard guard(m_lock);
        std::size_t kept = 0;
        for (auto& voice : m_voices) {
            if (voice->done)
                m_retired.push_back(std::move(voice));
            else
                m_voices[kept++] = std::move(voice);
        }
        // Only null owners remain past `kept`: shrinking frees nothing.
        m_voices.resize(kept);
    }
    m_retired.clear();
}

std::map<std::int64_t, VoiceStatus> Mixer::snapshot() {
    // The list's shape and the voices' ids change only on this thread; everything the render
    // thread changes is read from what it published.
    std::map<std::int64_t, VoiceStatus> result;
    for (const auto& owner : m_voices) {
        Voice& voice = *owner;
        VoiceStatus status;
        status.done = voice.shownDone.load(std::memory_order_acquire);
        status.progress = voice.shownProgress.load(std::memory_order_relaxed);
        status.levels.resize(static_cast<std::size_t>(voice.channelCount));
        for (std::size_t c = 0; c < status.levels.size(); ++c)
            status.levels[c] = AtomicPeak::take(voice.peaks[c]);
        result.emplace(voice.id, std::move(status));
    }
    return result;
}

void Mixer::setMuted(const std::set<std::int64_t>& channels) {
    std::array<bool, kMaxOutputs> muted{};
    for (int c = 0; c < kMaxOutputs; ++c)
        muted[c] = channels.count(c) != 0;
    std::lock_guard guard(m_lock);
    m_muted = muted;
}

void Mixer::setMasterVolume(double volume) {
    std::lock_guard guard(m_lock);
    m_masterVolume = usableGain(static_cast<float>(volume));
}

void Mixer::setToneChannel(std::optional<std::int64_t> channel) {
    std::lock_guard guard(m_lock);
    m_toneChannel = channel.value_or(-1);
    m_tonePhase = 0.0;
}

std::vector<float> Mixer::takeMeters(std::int64_t count) {
    std::vector<float> meters(
        static_cast<std::size_t>(std::clamp<std::int64_t>(count, 0, kMaxOutputs)));
    for (std::size_t c = 0; c < meters.size(); ++c)
        meters[c] = AtomicPeak::take(m_meterPeaks[c]);
    return meters;
}

void Mixer::setSampleRate(double rate) {
    std::lock_guard guard(m_lock);
    m_sampleRate = rate;
}

void Mixer::setLatency(double seconds) {
    std::lock_guard guard(m_lock);
    m_latency = seconds;
}

double Mixer::sampleRate() const {
    std::lock_guard guard(m_lock);
    return m_sampleRate;
}

double Mixer::latency() const {
    std::lock_guard guard(m_lock);
    return m_latency;
}

std::size_t Mixer::voiceCount() const {
    return m_voices.size();
}

void Mixer::render(std::int64_t n, const AudioTimeStamp& timestamp,
                   AudioBufferList bufferList) noexcept {
    const std::size_t count = bufferList.size();
    int outCount = static_cast<int>(std::min<std::size_t>(count, kMaxOutputs));

    for (const AudioChannelBuffer& buffer : bufferList) {
        if (buffer.data)
            std::memset(buffer.data, 0, buffer.byteSize);
    }
    if (n <= 0)
        return;

    const std::size_t blockBytes = static_cast<std::size_t>(n) * sizeof(float);
    for (int c = 0; c < outCount; ++c) {
        const AudioChannelBuffer& buffer = bufferList[static_cast<std::size_t>(c)];
        m_outs[c] = buffer.byteSize >= blockBytes ? buffer.data : nullptr;
    }
    // Scratch channels let the first eight meters show routing on a device with fewer outputs.
    if (count < static_cast<std::size_t>(kVirtualChannels) && n <= kVirtualFrames) {
        for (int c = outCount; c < kVirtualChannels; ++c) {
            std::fill_n(m_virtualBuffers[c].data(), n, 0.0f);
            m_outs[c] = m_virtualBuffers[c].data();
        }
        outCount = kVirtualChannels;
    }
    for (int c = outCount; c < kMaxOutputs; ++c)
        m_outs[c] = nullptr;

    const std::uint64_t asked = HostTime::now();
    std::lock_guard guard(m_lock);
    m_lastLockWait = HostTime::now() - asked;
    const std::uint64_t blockHost = timestamp.hostTime;
    const bool hostValid = timestamp.hostTimeValid;
    const double sr = m_sampleRate;
    const float mv = m_masterVolume;
    const double secondsPerTick = HostTime::ticksToSeconds();
    if (hostValid)
        advanceDeviceClock(blockHost, static_cast<double>(n) / sr);

    for (auto& owner : m_voices) {
        Voice& voice = *owner;
        if (voice.done)
            continue;
        std::int64_t offset = 0;
        if (!voice.started) {
            if (voice.startHost == Voice::kArmed)
                continue;
            if (voice.startHost != 0 && hostValid) {
                const auto ahead = static_cast<std::int64_t>(voice.startHost - blockHost);
                offset = startOffset(sr, secondsPerTick, ahead, m_latency);
                if (offset >= n)
                    continue;
                // A late start begins at the block's first frame without skipping material.
                offset = std::max<std::int64_t>(offset, 0);
            }
            voice.started = true;
        }
        if (voice.stream)
            mixStream(voice, offset, n, mv, outCount);
        else
            mixVoice(voice, offset, n, sr, mv, outCount);
    }

    if (m_toneChannel >= 0 && m_toneChannel < outCount && m_outs[m_toneChannel]) {
        float* out = m_outs[m_toneChannel];
        const float amplitude = mv * 0.1f;
        const double increment = kTonePhasePerSecond / sr;
        double phase = m_tonePhase;
        for (std::int64_t i = 0; i < n; ++i) {
            out[i] += amplitude * static_cast<float>(std::sin(phase));
            phase += increment;
        }
        m_tonePhase = std::fmod(phase, kTwoPi);
    }

    for (int c = 0; c < outCount; ++c) {
        float* out = m_outs[c];
        if (!out)
            continue;
        if (m_muted[c])
            std::fill_n(out, n, 0.0f);
        else
            AtomicPeak::raise(m_meterPeaks[c], VectorMath::maxMagnitude(out, n));
    }
}

void Mixer::advanceDeviceClock(std::uint64_t blockHost, double blockLength) noexcept {
    // A block normally begins where the previous one ended by the device's count; one that
    // comes much later or earlier (the device stopped, or another took over) begins where
    // host time says, so the clock neither stands still nor jumps back.
    constexpr double kGap = 0.1;
    const double secondsPerTick = HostTime::ticksToSeconds();
    double seconds = static_cast<double>(blockHost) * secondsPerTick;
    if (m_lastBlockLength >= 0.0) {
        const double sinceLast =
            static_cast<double>(static_cast<std::int64_t>(blockHost - m_lastBlockHost)) *
            secondsPerTick;
        seconds = std::fabs(sinceLast - m_lastBlockLength) < kGap
                      ? m_lastBlockSeconds + m_lastBlockLength
                      : m_lastBlockSeconds + sinceLast;
    }
    m_lastBlockHost = blockHost;
    m_lastBlockSeconds = seconds;
    m_lastBlockLength = blockLength;

    const std::uint32_t sequence = m_clockSequence.load(std::memory_order_relaxed);
    m_clockSequence.store(sequence + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    m_clockHost.store(blockHost, std::memory_order_relaxed);
    m_clockSeconds.store(seconds, std::memory_order_relaxed);
    m_clockSequence.store(sequence + 2, std::memory_order_release);
}

double Mixer::deviceSeconds(std::uint64_t hostTime) const {
    const double secondsPerTick = HostTime::ticksToSeconds();
    for (;;) {
        const std::uint32_t before = m_clockSequence.load(std::memory_order_acquire);
        if (before == 0)
            return static_cast<double>(hostTime) * secondsPerTick;
        const std::uint64_t host = m_clockHost.load(std::memory_order_relaxed);
        const double seconds = m_clockSeconds.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        if ((before & 1u) == 0 && m_clockSequence.load(std::memory_order_relaxed) == before)
            return seconds +
                   static_cast<double>(static_cast<std::int64_t>(hostTime - host)) * secondsPerTick;
    }
}

// Mixes one voice from frame `offset` of the block. Done in passes of up to kChunk frames: the
// first walks the envelope and the read position frame by frame and records, per frame, the
// two frames to interpolate, the fraction and the gain; the second adds each route's
// interpolated samples in one tight loop. Every output sample receives exactly the same
// operations in the same order as a frame-by-frame mix, so the result is identical.
void Mixer::mixVoice(Voice& voice, std::int64_t offset, std::int64_t n, double sr, float mv,
                     int outCount) noexcept {
    const AudioClip& clip = *voice.clip;
    const std::int64_t frames = clip.frameCount;
    const double framesD = static_cast<double>(frames);
    const double step = clip.sampleRate / sr;
    const float volume = voice.volume;
    const bool loop = voice.loop;
    const float* const* channels = clip.channels.data();
    const std::size_t routeCount = voice.src.size();

    std::int64_t* const index = m_scratchIndex.get();
    std::int64_t* const next = m_scratchNext.get();
    float* const frac = m_scratchFrac.get();
    float* const gain = m_scratchGain.get();
    float* const level = m_scratchLevel.get();

    double position = voice.position;
    float env = voice.env;
    float envStep = voice.envStep;
    bool done = false;

    for (std::int64_t passStart = offset; passStart < n && !done; passStart += kChunk) {
        const std::int64_t passEnd = std::min(n, passStart + kChunk);
        const std::int64_t length = passEnd - passStart;
        // The usual case: the loader converts every clip to the device's rate, so a voice that
        // is neither fading nor near its end reads whole frames at a constant gain. The general
        // pass below would compute exactly these values (its fraction is 0, its gain the same
        // product), frame by frame; here they are one scaled add per route.
        if (step == 1.0 && envStep == 0.0f && position == std::floor(position) &&
            position + static_cast<double>(length) < framesD) {
            const auto first = static_cast<std::int64_t>(position);
            const float passGain = mv * volume * env * env;
            const float passLevel = env * env * volume;
            for (std::size_t k = 0; k < routeCount; ++k) {
                const std::int64_t o = voice.dst[k];
                if (o >= outCount || !m_outs[o])
                    continue;
                float* out = m_outs[o] + passStart;
                const float* samples = channels[voice.src[k]] + first;
                for (std::int64_t j = 0; j < length; ++j)
                    out[j] += passGain * samples[j];
            }
            // Scaling by a positive constant keeps the order of magnitudes, so this is the
            // largest of the per-frame products.
            for (std::int64_t c = 0; c < clip.channelCount; ++c)
                AtomicPeak::raise(voice.peaks[static_cast<std::size_t>(c)],
                                  passLevel *
                                      VectorMath::maxMagnitude(channels[c] + first, length));
            position += static_cast<double>(length);
            continue;
        }
        std::int64_t mixed = 0;
        for (std::int64_t i = passStart; i < passEnd; ++i) {
            if (!stepEnvelope(env, envStep)) {
                done = true;
                break;
            }
            const auto idx = static_cast<std::int64_t>(position);
            std::int64_t nxt = idx + 1;
            if (nxt >= frames)
                nxt = loop ? 0 : idx;
            index[mixed] = idx;
            next[mixed] = nxt;
            frac[mixed] = static_cast<float>(position - static_cast<double>(idx));
            gain[mixed] = mv * volume * env * env;
            level[mixed] = env * env * volume;
            ++mixed;

            position += step;
            if (position >= framesD) {
                if (!loop) {
                    done = true; // the last frame has been mixed
                    break;
                }
                // One subtraction for any real clip; the loop only guards absurd rate ratios.
                while (position >= framesD)
                    position -= framesD;
            }
        }

        for (std::size_t k = 0; k < routeCount; ++k) {
            const std::int64_t o = voice.dst[k];
            if (o >= outCount || !m_outs[o])
                continue;
            float* out = m_outs[o] + passStart;
            const float* samples = channels[voice.src[k]];
            for (std::int64_t j = 0; j < mixed; ++j) {
                const float s0 = samples[index[j]];
                const float s1 = samples[next[j]];
                out[j] += gain[j] * (s0 + (s1 - s0) * frac[j]);
            }
        }

        for (std::int64_t c = 0; c < clip.channelCount; ++c) {
            const float* samples = channels[c];
            float peak = 0.0f;
            for (std::int64_t j = 0; j < mixed; ++j)
                peak = std::max(peak, level[j] * std::fabs(samples[index[j]]));
            AtomicPeak::raise(voice.peaks[static_cast<std::size_t>(c)], peak);
        }
    }

    voice.position = position;
    voice.env = env;
    voice.envStep = envStep;
    voice.done = done;
    voice.publish();
}

// Mixes a stream voice from frame `offset` of the block: the frames the stream holds, at the
// device's rate (its feeder converted them), with the same envelope and gains as a clip. Where
// the stream has run dry the voice is silent and counts what it missed, to skip it later.
void Mixer::mixStream(Voice& voice, std::int64_t offset, std::int64_t n, float mv,
                      int outCount) noexcept {
    AudioStream& stream = *voice.stream;
    float* const gain = m_scratchGain.get();
    float* const level = m_scratchLevel.get();
    const float volume = voice.volume;
    const std::size_t routeCount = voice.src.size();
    float env = voice.env;
    float envStep = voice.envStep;
    bool done = false;

    std::int64_t available = stream.available();
    const std::int64_t skipped = std::min(voice.owed, available);
    stream.consume(skipped);
    voice.owed -= skipped;
    voice.position += static_cast<double>(skipped);
    available -= skipped;

    for (std::int64_t passStart = offset; passStart < n && !done; passStart += kChunk) {
        const std::int64_t passEnd = std::min(n, passStart + kChunk);
        std::int64_t mixed = 0;
        for (std::int64_t i = passStart; i < passEnd; ++i) {
            if (!stepEnvelope(env, envStep)) {
                done = true;
                break;
            }
            gain[mixed] = mv * volume * env * env;
            level[mixed] = env * env * volume;
            ++mixed;
        }
        const std::int64_t have = std::min(mixed, available);
        // At most two pieces: the ring may wrap within the pass.
        for (std::int64_t from = 0; from < have;) {
            std::int64_t length = 0;
            for (std::size_t k = 0; k < routeCount; ++k) {
                const std::int64_t o = voice.dst[k];
                const float* samples = stream.piece(voice.src[k], from, have - from, length);
                if (o >= outCount || !m_outs[o])
                    continue;
                float* out = m_outs[o] + passStart + from;
                const float* g = gain + from;
                for (std::int64_t j = 0; j < length; ++j)
                    out[j] += g[j] * samples[j];
            }
            for (std::int64_t c = 0; c < voice.channelCount; ++c) {
                const float* samples = stream.piece(c, from, have - from, length);
                float peak = 0.0f;
                for (std::int64_t j = 0; j < length; ++j)
                    peak = std::max(peak, level[from + j] * std::fabs(samples[j]));
                AtomicPeak::raise(voice.peaks[static_cast<std::size_t>(c)], peak);
            }
            from += length;
        }
        stream.consume(have);
        available -= have;
        voice.position += static_cast<double>(have);
        if (have < mixed && !done) {
            if (stream.ended())
                done = true; // played to its end
            else
                voice.owed += mixed - have; // ran dry
        }
    }
    if (!done && available == 0 && stream.ended())
        done = true;

    voice.env = env;
    voice.envStep = envStep;
    voice.done = done;
    voice.publish();
}
