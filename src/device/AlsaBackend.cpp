#include "device/AlsaBackend.h"

#include <algorithm>
#include <alsa/asoundlib.h>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <sched.h>

#include "audio/HostTime.h"
#include "audio/Mixer.h"
#include "device/AudioStartError.h"
#include "device/Interleave.h"
#include "device/PipeWireBackend.h"

namespace {

bool isListedPcm(const std::string& name) {
    static const char* kPrefixes[] = {"hw:", "plughw:", "hdmi:"};
    if (name == "default" || name == "pipewire" || name == "pulse" || name == "jack")
        return true;
    return std::any_of(std::begin(kPrefixes), std::end(kPrefixes),
                       [&](const char* p) { return name.rfind(p, 0) == 0; });
}

// The channels of PipeWire's default output in a look at its graph; stereo without one.
std::int64_t defaultSinkChannels(const std::optional<PipeWireBackend::Graph>& graph) {
    if (graph)
        for (const PipeWireBackend::Sink& sink : graph->sinks)
            if (sink.name == graph->defaultSink)
                return sink.channels;
    return 2;
}

// `serverChannels`: what a sound server's PCM is worth sending (AlsaBackend::serverChannels).
std::int64_t alsaChannels(const std::string& name, std::int64_t serverChannels) {
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, name.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0)
        return 0;
    snd_pcm_hw_params_t* hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    unsigned channels = 0;
    if (snd_pcm_hw_params_any(pcm, hw) >= 0)
        snd_pcm_hw_params_get_channels_max(hw, &channels);
    snd_pcm_close(pcm);
    return std::min<std::int64_t>(channels, AlsaBackend::isSoundServer(name) ? serverChannels
                                                                             : Mixer::kMaxOutputs);
}

constexpr snd_pcm_uframes_t kPeriodFrames = 256;
// Writes failing one after another, no frame taken between: the device is gone.
constexpr int kLostAfterFailures = 8;
constexpr unsigned kPeriods = 4;

std::string alsaReason(int error) {
    return std::string("ALSA: ") + snd_strerror(error);
}

void ignoreAlsaError(const char*, int, const char*, int, const char*, ...) {}

} // namespace

void AlsaBackend::silenceLibraryMessages() {
    static std::once_flag once;
    std::call_once(once, [] { snd_lib_error_set_handler(&ignoreAlsaError); });
}

bool AlsaBackend::isSoundServer(const std::string& pcmName) {
    return pcmName == "default" || pcmName.rfind("sysdefault", 0) == 0 ||
           pcmName.rfind("pulse", 0) == 0 || pcmName.rfind("pipewire", 0) == 0;
}

std::int64_t AlsaBackend::serverChannels() {
    return defaultSinkChannels(PipeWireBackend::graph());
}

bool AlsaBackend::canOpen(const std::string& pcmName) {
    silenceLibraryMessages();
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, pcmName.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0)
        return false;
    snd_pcm_close(pcm);
    return true;
}

AlsaBackend::AlsaBackend(std::string pcmName) : m_name(std::move(pcmName)) {}

AlsaBackend::~AlsaBackend() {
    stop();
}

void AlsaBackend::open() {
    stop();
    silenceLibraryMessages();
    // Non-blocking open: a device held by someone else fails at once instead of hanging.
    int error = snd_pcm_open(&m_pcm, m_name.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (error < 0) {
        m_pcm = nullptr;
        throw AudioStartError::cannotSelect(alsaReason(error));
    }
    snd_pcm_nonblock(m_pcm, 0);

    snd_pcm_hw_params_t* hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    snd_pcm_hw_params_any(m_pcm, hw);
    error = snd_pcm_hw_params_set_access(m_pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED);
    if (snd_pcm_hw_params_test_format(m_pcm, hw, SND_PCM_FORMAT_FLOAT_LE) == 0) {
        m_format = SampleFormat::float32;
        snd_pcm_hw_params_set_format(m_pcm, hw, SND_PCM_FORMAT_FLOAT_LE);
    } else if (snd_pcm_hw_params_test_format(m_pcm, hw, SND_PCM_FORMAT_S32_LE) == 0) {
        m_format = SampleFormat::int32;
        snd_pcm_hw_params_set_format(m_pcm, hw, SND_PCM_FORMAT_S32_LE);
    } else if (snd_pcm_hw_params_test_format(m_pcm, hw, SND_PCM_FORMAT_S16_LE) == 0) {
        m_format = SampleFormat::int16;
        snd_pcm_hw_params_set_format(m_pcm, hw, SND_PCM_FORMAT_S16_LE);
    } else {
        error = -EINVAL;
    }
    unsigned maxChannels = 0;
    snd_pcm_hw_params_get_channels_max(hw, &maxChannels);
    unsigned channels = std::clamp(maxChannels, 1u, static_cast<unsigned>(Mixer::kMaxOutputs));
    // Sound servers' plugins accept any channel count and fold it onto the server's default
    // output: send that output's own count (its order is ALSA's, not the output's: the
    // PipeWire back end plays each channel where the output has it).
    if (isSoundServer(m_name))
        channels = std::min(channels, static_cast<unsigned>(serverChannels()));
    unsigned rate = 48000;
    snd_pcm_uframes_t period = kPeriodFrames;
    snd_pcm_uframes_t buffer = kPeriodFrames * kPeriods;
    if (error >= 0)
        error = snd_pcm_hw_params_set_channels_near(m_pcm, hw, &channels);
    if (error >= 0)
        error = snd_pcm_hw_params_set_rate_near(m_pcm, hw, &rate, nullptr);
    if (error >= 0)
        snd_pcm_hw_params_set_period_size_near(m_pcm, hw, &period, nullptr);
    if (error >= 0)
        snd_pcm_hw_params_set_buffer_size_near(m_pcm, hw, &buffer);
    if (error >= 0)
        error = snd_pcm_hw_params(m_pcm, hw);
    if (error < 0) {
        stop();
        throw AudioStartError::noFormat();
    }
    snd_pcm_hw_params_get_period_size(hw, &period, nullptr);
    snd_pcm_hw_params_get_buffer_size(hw, &buffer);

    m_channels = channels;
    m_rate = rate;
    m_period = static_cast<std::int64_t>(period);
    m_latency = static_cast<double>(buffer) / m_rate;
    m_planar.assign(channels, std::vector<float>(period, 0.0f));
    m_buffers.clear();
    for (auto& channel : m_planar)
        m_buffers.push_back({channel.data(), channel.size() * sizeof(float)});
    const std::size_t sampleBytes = m_format == SampleFormat::int16 ? 2 : 4;
    m_interleaved.assign(period * channels * sampleBytes, 0);
}

void AlsaBackend::start(Mixer& mixer, Notice notice) {
    if (!m_pcm)
        throw AudioStartError::cannotSelect(alsaReason(-EBADFD));
    m_mixer = &mixer;
    m_notice = std::move(notice);
    m_running = true;
    m_thread = std::thread([this] { run(); });
}

void AlsaBackend::stop() {
    m_running = false;
    if (m_thread.joinable())
        m_thread.join();
    if (m_pcm) {
        snd_pcm_drop(m_pcm);
        snd_pcm_close(m_pcm);
        m_pcm = nullptr;
    }
}

void AlsaBackend::run() {
    sched_param param{};
    param.sched_priority = std::max(1, sched_get_priority_max(SCHED_FIFO) - 10);
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &param); // refused without the right: fine
    const std::uint64_t started = HostTime::now();
    std::int64_t frames = 0;
    while (m_running.load(std::memory_order_relaxed)) {
        if (!writePeriod()) {
            if (m_notice)
                m_notice();
            return;
        }
        frames += m_period;
        // A real device blocks once its buffer is full. A PCM without a clock (null, file)
        // never does: keep it to real time instead of letting it spin a core.
        const double aheadOfTime = static_cast<double>(frames) / m_rate - m_latency;
        const std::uint64_t due = started + HostTime::secondsToTicks(aheadOfTime);
        if (aheadOfTime > 0 && HostTime::now() < due) {
            timespec until{static_cast<time_t>(due / 1'000'000'000ull),
                           static_cast<long>(due % 1'000'000'000ull)};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
        }
    }
}

// Renders one period and writes it; false when the device is gone or broken for good.
bool AlsaBackend::writePeriod() {
    // The block's first frame is heard once what is queued before it has played: delay frames
    // from now. The mixer adds the latency itself, so hand it the time less that.
    snd_pcm_sframes_t queued = 0;
    if (snd_pcm_delay(m_pcm, &queued) < 0 || queued < 0)
        queued = 0;
    const double ahead = static_cast<double>(queued) / m_rate - m_latency;
    const std::uint64_t now = HostTime::now();
    const std::uint64_t blockTime =
        ahead >= 0 ? now + HostTime::secondsToTicks(ahead) : now - HostTime::secondsToTicks(-ahead);
    m_mixer->render(m_period, AudioTimeStamp{blockTime, true}, m_buffers);
    switch (m_format) {
    case SampleFormat::float32:
        Interleave::toFloat(m_planar, m_period, reinterpret_cast<float*>(m_interleaved.data()));
        break;
    case SampleFormat::int32:
        Interleave::toInteger(m_planar, m_period,
                              reinterpret_cast<std::int32_t*>(m_interleaved.data()));
        break;
    case SampleFormat::int16:
        Interleave::toInteger(m_planar, m_period,
                              reinterpret_cast<std::int16_t*>(m_interleaved.data()));
        break;
    }
    const std::size_t frameBytes = m_interleaved.size() / static_cast<std::size_t>(m_period);
    std::int64_t written = 0;
    int failedInARow = 0;
    while (written < m_period && m_running.load(std::memory_order_relaxed)) {
        const snd_pcm_sframes_t n = snd_pcm_writei(
            m_pcm, m_interleaved.data() + static_cast<std::size_t>(written) * frameBytes,
            static_cast<snd_pcm_uframes_t>(m_period - written));
        if (n >= 0) {
            written += n;
            if (n > 0)
                failedInARow = 0;
            continue;
        }
        if (n == -EAGAIN) {
            snd_pcm_wait(m_pcm, 100);
            continue;
        }
        if (n == -EPIPE)
            m_xruns.fetch_add(1, std::memory_order_relaxed);
        // Underruns and suspends are recovered; an unplugged device (ENODEV) is not. Nor is a
        // sound server's plugin whose server died: it fails every write while its recovery
        // "succeeds" (tens of thousands of times a second), so a run of failures with no frame
        // taken counts as lost whatever recovery says. (PipeWire's plugin also sends its
        // stream's parameters again on each recovery; with the server gone they pile up,
        // ~100 KB each, in the protocol's unsent buffer: hundreds of MB a second.)
        if (++failedInARow >= kLostAfterFailures ||
            snd_pcm_recover(m_pcm, static_cast<int>(n), 1) < 0)
            return false;
    }
    return true;
}

void AlsaBackend::addDevices(std::vector<AudioOutputDevice>& devices) {
    silenceLibraryMessages();
    // One look at PipeWire for the whole listing, however many PCMs lead to it.
    const auto graph = PipeWireBackend::graph();
    const std::int64_t serverChannels = defaultSinkChannels(graph);
    void** hints = nullptr;
    if (snd_device_name_hint(-1, "pcm", &hints) < 0)
        return;
    for (void** hint = hints; *hint; ++hint) {
        char* name = snd_device_name_get_hint(*hint, "NAME");
        char* description = snd_device_name_get_hint(*hint, "DESC");
        char* direction = snd_device_name_get_hint(*hint, "IOID");
        const bool output = !direction || std::string(direction) == "Output";
        if (name && output && isListedPcm(name)) {
            if (const std::int64_t channels = alsaChannels(name, serverChannels); channels > 0) {
                std::string label = description ? description : name;
                std::replace(label.begin(), label.end(), '\n', ' ');
                if (isSoundServer(name) && channels > 2 && graph)
                    label +=
                        "（PipeWire 経由: チャンネルの並びは PipeWire の出力を選ぶと確実です）";
                devices.push_back({0, name, label, channels});
            }
        }
        free(name);
        free(description);
        free(direction);
    }
    snd_device_name_free_hint(hints);
}
