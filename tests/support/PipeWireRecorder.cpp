#include "PipeWireRecorder.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>

struct PipeWireRecorder::Impl {
    pw_thread_loop* loop = nullptr;
    pw_stream* stream = nullptr;
    spa_hook listener{};
    int channels = 1;
    double rate = 48000.0;
    std::atomic<std::int64_t> frames{0};
    std::atomic<std::uint64_t> firstSound{0};
    // The last second, interleaved; `written` counts every frame that came.
    mutable std::mutex ringLock;
    std::vector<float> ring;
    std::size_t written = 0;

    void process() {
        pw_buffer* b = pw_stream_dequeue_buffer(stream);
        if (!b)
            return;
        pw_time time{};
        pw_stream_get_time_n(stream, &time, sizeof time);
        const spa_data& d = b->buffer->datas[0];
        const auto* samples = static_cast<const float*>(d.data);
        const std::uint32_t count =
            samples && d.chunk ? d.chunk->size / (sizeof(float) * channels) : 0;
        if (firstSound.load() == 0 && time.now > 0) {
            for (std::uint32_t i = 0; i < count; ++i) {
                if (std::fabs(samples[static_cast<std::size_t>(i) * channels]) > 0.1f) {
                    firstSound = static_cast<std::uint64_t>(time.now) +
                                 static_cast<std::uint64_t>(i * 1e9 / rate);
                    break;
                }
            }
        }
        frames += count;
        {
            const std::lock_guard lock(ringLock);
            const std::size_t size = ring.size() / channels;
            for (std::uint32_t i = 0; i < count; ++i, ++written)
                std::copy_n(samples + static_cast<std::size_t>(i) * channels, channels,
                            ring.begin() +
                                static_cast<std::ptrdiff_t>((written % size) * channels));
        }
        pw_stream_queue_buffer(stream, b);
    }
};

PipeWireRecorder::PipeWireRecorder(const std::string& sink, int channels)
    : m_impl(std::make_unique<Impl>()) {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
    Impl& impl = *m_impl;
    impl.channels = channels;
    impl.ring.assign(static_cast<std::size_t>(channels) * 48000, 0.0f);
    impl.loop = pw_thread_loop_new("test-recorder", nullptr);
    if (!impl.loop || pw_thread_loop_start(impl.loop) != 0)
        return;
    static const pw_stream_events events = [] {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.process = [](void* data) { static_cast<Impl*>(data)->process(); };
        return e;
    }();
    pw_thread_loop_lock(impl.loop);
    impl.stream = pw_stream_new_simple(
        pw_thread_loop_get_loop(impl.loop), "test-recorder",
        pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture",
                          PW_KEY_STREAM_CAPTURE_SINK, "true", "target.object", sink.c_str(),
                          PW_KEY_NODE_LATENCY, "256/48000", "stream.dont-remix", "true", nullptr),
        &events, &impl);
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32;
    info.channels = static_cast<std::uint32_t>(channels);
    info.rate = 48000;
    info.flags = SPA_AUDIO_FLAG_UNPOSITIONED;
    std::uint8_t space[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof space);
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    m_connected =
        impl.stream && pw_stream_connect(impl.stream, PW_DIRECTION_INPUT, PW_ID_ANY,
                                         static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT |
                                                                      PW_STREAM_FLAG_MAP_BUFFERS |
                                                                      PW_STREAM_FLAG_RT_PROCESS),
                                         params, 1) == 0;
    pw_thread_loop_unlock(impl.loop);
}

PipeWireRecorder::~PipeWireRecorder() {
    if (m_impl->loop)
        pw_thread_loop_stop(m_impl->loop);
    if (m_impl->stream)
        pw_stream_destroy(m_impl->stream);
    if (m_impl->loop)
        pw_thread_loop_destroy(m_impl->loop);
}

std::int64_t PipeWireRecorder::frames() const {
    return m_impl->frames.load();
}

std::uint64_t PipeWireRecorder::firstSoundHostTime() const {
    return m_impl->firstSound.load();
}

void PipeWireRecorder::rearm() {
    m_impl->firstSound = 0;
}

std::vector<std::vector<float>> PipeWireRecorder::last(std::size_t count) const {
    const Impl& impl = *m_impl;
    const auto channels = static_cast<std::size_t>(impl.channels);
    std::vector<std::vector<float>> planes(channels);
    const std::lock_guard lock(impl.ringLock);
    const std::size_t size = impl.ring.size() / channels;
    count = std::min({count, size, impl.written});
    for (std::size_t f = impl.written - count; f < impl.written; ++f)
        for (std::size_t c = 0; c < channels; ++c)
            planes[c].push_back(impl.ring[(f % size) * channels + c]);
    return planes;
}
