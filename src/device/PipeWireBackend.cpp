#include "device/PipeWireBackend.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/audio/type-info.h>
#include <spa/utils/json.h>

#include "audio/AudioBufferList.h"
#include "audio/Mixer.h"
#include "device/AudioStartError.h"
#include "device/PipeWireSupport.h"

namespace {

// How long a look at the graph or a stream's negotiation may take before the server counts as
// not answering.
constexpr int kAnswerMs = 2000;

// "[ FL FR FC ]" or "FL,FR" → {"FL", "FR", "FC"}.
std::vector<std::string> positionsOf(const std::string& text) {
    std::vector<std::string> positions;
    std::string word;
    for (const char c : text + ' ') {
        if (std::isalnum(static_cast<unsigned char>(c))) {
            word += c;
        } else if (!word.empty()) {
            positions.push_back(word);
            word.clear();
        }
    }
    return positions;
}

std::uint32_t channelId(const std::string& name) {
    for (const spa_type_info* info = spa_type_audio_channel; info->name; ++info) {
        const char* shortName = std::strrchr(info->name, ':');
        if (shortName && name == shortName + 1)
            return info->type;
    }
    return SPA_AUDIO_CHANNEL_UNKNOWN;
}

// {"name":"alsa_output.…"} → alsa_output.…
std::string nameInJson(const char* json) {
    if (!json)
        return {};
    spa_json it[2];
    spa_json_init(&it[0], json, std::strlen(json));
    if (spa_json_enter_object(&it[0], &it[1]) <= 0)
        return {};
    char key[64];
    while (spa_json_get_string(&it[1], key, sizeof key) > 0) {
        char value[1024];
        if (std::strcmp(key, "name") == 0 && spa_json_get_string(&it[1], value, sizeof value) > 0)
            return value;
        const char* skip = nullptr;
        if (spa_json_next(&it[1], &skip) <= 0)
            break;
    }
    return {};
}

// One look at a running graph: its sinks (bound for their properties), the default sink and
// the clock rate (from the "default" and "settings" metadata). Two round trips on a loop of
// its own, bounded in time.
struct GraphQuery {
    struct Node {
        GraphQuery* query = nullptr;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
        PipeWireBackend::Sink sink;
        bool seen = false;
    };
    struct Metadata {
        GraphQuery* query = nullptr;
        pw_proxy* proxy = nullptr;
        spa_hook listener{};
        std::string name;
    };

    pw_main_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    spa_hook coreListener{};
    spa_hook registryListener{};
    spa_source* timer = nullptr;
    std::vector<std::unique_ptr<Node>> nodes;
    std::vector<std::unique_ptr<Metadata>> metadata;
    PipeWireBackend::Graph graph;
    int pending = 0;
    int round = 0;
    bool answered = false;

    std::optional<PipeWireBackend::Graph> run() {
        initialisePipeWire();
        loop = pw_main_loop_new(nullptr);
        if (!loop)
            return std::nullopt;
        context = pw_context_new(pw_main_loop_get_loop(loop), nullptr, 0);
        core = context ? pw_context_connect(context, nullptr, 0) : nullptr;
        if (!core)
            return std::nullopt;
        static const pw_core_events coreEvents = [] {
            pw_core_events e{};
            e.version = PW_VERSION_CORE_EVENTS;
            e.done = [](void* data, std::uint32_t id, int seq) {
                auto* self = static_cast<GraphQuery*>(data);
                if (id != PW_ID_CORE || seq != self->pending)
                    return;
                if (++self->round == 1) {
                    self->pending =
                        pw_core_sync(self->core, PW_ID_CORE, 0); // bound objects' events
                } else {
                    self->answered = true;
                    pw_main_loop_quit(self->loop);
                }
            };
            e.error = [](void* data, std::uint32_t id, int, int, const char*) {
                if (id == PW_ID_CORE)
                    pw_main_loop_quit(static_cast<GraphQuery*>(data)->loop);
            };
            return e;
        }();
        pw_core_add_listener(core, &coreListener, &coreEvents, this);
        registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
        static const pw_registry_events registryEvents = [] {
            pw_registry_events e{};
            e.version = PW_VERSION_REGISTRY_EVENTS;
            e.global = [](void* data, std::uint32_t id, std::uint32_t, const char* type,
                          std::uint32_t, const spa_dict* props) {
                static_cast<GraphQuery*>(data)->global(id, type, props);
            };
            return e;
        }();
        pw_registry_add_listener(registry, &registryListener, &registryEvents, this);
        pending = pw_core_sync(core, PW_ID_CORE, 0);
        timer = pw_loop_add_timer(
            pw_main_loop_get_loop(loop),
            [](void* data, std::uint64_t) {
                pw_main_loop_quit(static_cast<GraphQuery*>(data)->loop);
            },
            this);
        timespec timeout{kAnswerMs / 1000, (kAnswerMs % 1000) * 1000000L};
        pw_loop_update_timer(pw_main_loop_get_loop(loop), timer, &timeout, nullptr, false);
        pw_main_loop_run(loop);
        if (!answered)
            return std::nullopt;
        for (const auto& node : nodes)
            if (node->seen)
                graph.sinks.push_back(node->sink);
        return graph;
    }

    void global(std::uint32_t id, const char* type, const spa_dict* props) {
        if (std::strcmp(type, PW_TYPE_INTERFACE_Node) == 0 &&
            pipeWireProperty(props, PW_KEY_MEDIA_CLASS) == "Audio/Sink") {
            auto node = std::make_unique<Node>();
            node->query = this;
            node->proxy = static_cast<pw_proxy*>(
                pw_registry_bind(registry, id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
            static const pw_node_events nodeEvents = [] {
                pw_node_events e{};
                e.version = PW_VERSION_NODE_EVENTS;
                e.info = [](void* data, const pw_node_info* info) {
                    auto* node = static_cast<Node*>(data);
                    PipeWireBackend::Sink& sink = node->sink;
                    sink.name = pipeWireProperty(info->props, PW_KEY_NODE_NAME);
                    sink.description = pipeWireProperty(info->props, PW_KEY_NODE_DESCRIPTION);
                    if (sink.description.empty())
                        sink.description = sink.name;
                    sink.positions = positionsOf(pipeWireProperty(info->props, "audio.position"));
                    const std::string channels = pipeWireProperty(info->props, "audio.channels");
                    sink.channels = !channels.empty()
                                        ? std::atoll(channels.c_str())
                                        : static_cast<std::int64_t>(sink.positions.size());
                    node->seen = !sink.name.empty() && sink.channels > 0;
                };
                return e;
            }();
            if (node->proxy) {
                pw_proxy_add_object_listener(node->proxy, &node->listener, &nodeEvents, node.get());
                nodes.push_back(std::move(node));
            }
        } else if (std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0) {
            const std::string name = pipeWireProperty(props, "metadata.name");
            if (name != "default" && name != "settings")
                return;
            auto meta = std::make_unique<Metadata>();
            meta->query = this;
            meta->name = name;
            meta->proxy = static_cast<pw_proxy*>(
                pw_registry_bind(registry, id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, 0));
            static const pw_metadata_events metadataEvents = [] {
                pw_metadata_events e{};
                e.version = PW_VERSION_METADATA_EVENTS;
                e.property = [](void* data, std::uint32_t subject, const char* key, const char*,
                                const char* value) {
                    auto* meta = static_cast<Metadata*>(data);
                    if (subject != PW_ID_CORE || !key)
                        return 0;
                    if (meta->name == "default" && std::strcmp(key, "default.audio.sink") == 0)
                        meta->query->graph.defaultSink = nameInJson(value);
                    if (meta->name == "settings" && std::strcmp(key, "clock.rate") == 0 && value)
                        meta->query->graph.rate = std::atof(value);
                    return 0;
                };
                return e;
            }();
            if (meta->proxy) {
                pw_proxy_add_object_listener(meta->proxy, &meta->listener, &metadataEvents,
                                             meta.get());
                metadata.push_back(std::move(meta));
            }
        }
    }

    ~GraphQuery() {
        for (auto& node : nodes) {
            spa_hook_remove(&node->listener);
            pw_proxy_destroy(node->proxy);
        }
        for (auto& meta : metadata) {
            spa_hook_remove(&meta->listener);
            pw_proxy_destroy(meta->proxy);
        }
        if (registry) {
            spa_hook_remove(&registryListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
        }
        if (core) {
            spa_hook_remove(&coreListener);
            pw_core_disconnect(core);
        }
        if (context)
            pw_context_destroy(context);
        if (loop)
            pw_main_loop_destroy(loop);
    }
};

} // namespace

// The live connection of one back end: its loop thread, the stream and what it listens to.
struct PipeWireBackend::Impl {
    PipeWireBackend* owner = nullptr;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    pw_stream* stream = nullptr;
    pw_proxy* metadata = nullptr;
    spa_hook coreListener{}, registryListener{}, streamListener{}, metadataListener{};
    bool followDefault = false;

    // Loop thread and the control thread under the loop's lock.
    double negotiatedRate = 0.0;
    bool failed = false;

    // Set by start under the loop's lock; read by the process callback.
    Mixer* mixer = nullptr;
    Notice notice;
    std::atomic<bool> lost{false};
    std::vector<AudioChannelBuffer> buffers; // one per channel, sized at open
    std::atomic<std::int64_t> delayNs{0};

    void tell() {
        if (!lost.exchange(true) && notice)
            notice();
    }

    void process() {
        pw_buffer* b = pw_stream_dequeue_buffer(stream);
        if (!b)
            return;
        spa_buffer* buffer = b->buffer;
        std::uint32_t frames = buffer->datas[0].maxsize / sizeof(float);
        if (b->requested != 0 && b->requested < frames)
            frames = static_cast<std::uint32_t>(b->requested);
        const std::size_t bytes = frames * sizeof(float);
        for (std::size_t c = 0; c < buffers.size(); ++c) {
            spa_data* data = c < buffer->n_datas ? &buffer->datas[c] : nullptr;
            if (!data || !data->data || data->maxsize < bytes) {
                buffers[c] = {};
                continue;
            }
            buffers[c] = {static_cast<float*>(data->data), bytes};
            data->chunk->offset = 0;
            data->chunk->stride = sizeof(float);
            data->chunk->size = static_cast<std::uint32_t>(bytes);
        }
        pw_time time{};
        pw_stream_get_time_n(stream, &time, sizeof time);
        // The delay is counted in the graph's clock (rate = 1/48000 s per unit, say).
        std::int64_t delay = 0;
        if (time.rate.denom != 0)
            delay = time.delay * 1'000'000'000LL * time.rate.num / time.rate.denom;
        delayNs.store(delay, std::memory_order_relaxed);
        owner->m_quantumSeen.store(frames, std::memory_order_relaxed);
        if (mixer && !lost.load(std::memory_order_relaxed)) {
            const std::uint64_t cpu = RenderTimes::threadNow();
            mixer->render(
                frames, AudioTimeStamp{static_cast<std::uint64_t>(time.now + delay), time.now > 0},
                buffers);
            owner->m_renderTimes.record(RenderTimes::threadNow() - cpu);
        } else {
            for (const AudioChannelBuffer& channel : buffers)
                if (channel.data)
                    std::memset(channel.data, 0, bytes);
        }
        pw_stream_queue_buffer(stream, b);
    }
};

namespace {

using Impl = PipeWireBackend::Impl;

const pw_core_events& coreEvents() {
    static const pw_core_events events = [] {
        pw_core_events e{};
        e.version = PW_VERSION_CORE_EVENTS;
        e.error = [](void* data, std::uint32_t id, int, int res, const char*) {
            // The server went away (EPIPE) or refused us: the device is lost.
            if (id == PW_ID_CORE && (res == -EPIPE || res == -ECONNRESET || res == -ENOENT)) {
                auto* impl = static_cast<Impl*>(data);
                impl->failed = true;
                impl->tell();
                pw_thread_loop_signal(impl->loop, false);
            }
        };
        return e;
    }();
    return events;
}

const pw_registry_events& registryEvents() {
    static const pw_registry_events events = [] {
        pw_registry_events e{};
        e.version = PW_VERSION_REGISTRY_EVENTS;
        e.global = [](void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                      const spa_dict* props) {
            auto* impl = static_cast<Impl*>(data);
            if (impl->followDefault && !impl->metadata &&
                std::strcmp(type, PW_TYPE_INTERFACE_Metadata) == 0 &&
                pipeWireProperty(props, "metadata.name") == "default") {
                impl->metadata = static_cast<pw_proxy*>(pw_registry_bind(
                    impl->registry, id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, 0));
                static const pw_metadata_events metadataEvents = [] {
                    pw_metadata_events m{};
                    m.version = PW_VERSION_METADATA_EVENTS;
                    m.property = [](void* data, std::uint32_t subject, const char* key, const char*,
                                    const char* value) {
                        auto* impl = static_cast<Impl*>(data);
                        // Another default chosen in the desktop's settings: follow it.
                        if (subject == PW_ID_CORE && key &&
                            std::strcmp(key, "default.audio.sink") == 0 && value &&
                            nameInJson(value) != impl->owner->sinkName())
                            impl->tell();
                        return 0;
                    };
                    return m;
                }();
                if (impl->metadata)
                    pw_proxy_add_object_listener(impl->metadata, &impl->metadataListener,
                                                 &metadataEvents, impl);
            }
        };
        return e;
    }();
    return events;
}

const pw_stream_events& streamEvents() {
    static const pw_stream_events events = [] {
        pw_stream_events e{};
        e.version = PW_VERSION_STREAM_EVENTS;
        e.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char*) {
            auto* impl = static_cast<Impl*>(data);
            if (state == PW_STREAM_STATE_ERROR ||
                (state == PW_STREAM_STATE_UNCONNECTED && impl->negotiatedRate > 0.0)) {
                impl->failed = true;
                impl->tell();
            }
            pw_thread_loop_signal(impl->loop, false);
        };
        e.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
            auto* impl = static_cast<Impl*>(data);
            if (!param || id != SPA_PARAM_Format)
                return;
            spa_audio_info_raw info{};
            if (spa_format_audio_raw_parse(param, &info) < 0)
                return;
            const double rate = info.rate;
            // A rate other than the one we started at is a real change: restart once at it.
            if (impl->negotiatedRate > 0.0 && rate != impl->negotiatedRate)
                impl->tell();
            impl->negotiatedRate = rate;
            pw_thread_loop_signal(impl->loop, false);
        };
        e.process = [](void* data) { static_cast<Impl*>(data)->process(); };
        return e;
    }();
    return events;
}

} // namespace

PipeWireBackend::PipeWireBackend(std::string sink, std::int64_t quantum)
    : m_sink(std::move(sink)), m_requestedQuantum(quantum) {}

PipeWireBackend::~PipeWireBackend() {
    stop();
}

std::optional<PipeWireBackend::Graph> PipeWireBackend::graph() {
    GraphQuery query;
    return query.run();
}

bool PipeWireBackend::canOpen(const std::string& sink) {
    const auto found = graph();
    if (!found)
        return false;
    return std::ranges::any_of(found->sinks,
                               [&](const Sink& s) { return sink.empty() ? true : s.name == sink; });
}

void PipeWireBackend::addDevices(std::vector<AudioOutputDevice>& devices) {
    const auto found = graph();
    if (!found)
        return;
    for (const Sink& sink : found->sinks)
        devices.push_back({static_cast<std::uint32_t>(devices.size()), sink.name, sink.description,
                           std::min<std::int64_t>(sink.channels, 64)});
}

double PipeWireBackend::latency() const {
    const double quantum = static_cast<double>(m_quantumSeen.load());
    const double delay = m_impl ? static_cast<double>(m_impl->delayNs.load()) * 1e-9 : 0.0;
    return m_rate > 0.0 ? quantum / m_rate + delay : 0.0;
}

void PipeWireBackend::open() {
    const auto found = graph();
    if (!found)
        throw AudioStartError::cannotSelect("PipeWire に接続できません");
    const bool followDefault = m_sink.empty();
    const std::string wanted = followDefault ? found->defaultSink : m_sink;
    const auto sink = std::ranges::find_if(
        found->sinks, [&](const Sink& s) { return wanted.empty() || s.name == wanted; });
    if (sink == found->sinks.end())
        throw AudioStartError::cannotSelect("PipeWire の出力が見つかりません: " + wanted);
    m_sink = sink->name;
    m_description = sink->description;
    m_channels = std::clamp<std::int64_t>(sink->channels, 1, 64);
    m_rate = found->rate > 0.0 ? found->rate : 48000.0;

    initialisePipeWire();
    m_impl = std::make_unique<Impl>();
    Impl& impl = *m_impl;
    impl.owner = this;
    impl.followDefault = followDefault;
    impl.buffers.assign(static_cast<std::size_t>(m_channels), {});
    impl.loop = pw_thread_loop_new("vorlin-pipewire", nullptr);
    impl.context =
        impl.loop ? pw_context_new(pw_thread_loop_get_loop(impl.loop), nullptr, 0) : nullptr;
    if (!impl.context || pw_thread_loop_start(impl.loop) != 0) {
        stop();
        throw AudioStartError::cannotSelect("PipeWire に接続できません");
    }
    pw_thread_loop_lock(impl.loop);
    impl.core = pw_context_connect(impl.context, nullptr, 0);
    if (!impl.core) {
        pw_thread_loop_unlock(impl.loop);
        stop();
        throw AudioStartError::cannotSelect("PipeWire に接続できません");
    }
    pw_core_add_listener(impl.core, &impl.coreListener, &coreEvents(), &impl);
    impl.registry = pw_core_get_registry(impl.core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(impl.registry, &impl.registryListener, &registryEvents(), &impl);

    const std::string latency =
        std::to_string(m_requestedQuantum) + "/" + std::to_string(static_cast<int>(m_rate));
    pw_properties* props = pw_properties_new(
        PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_MEDIA_ROLE,
        "Production", PW_KEY_APP_NAME, "Vorlin", PW_KEY_NODE_NAME, "vorlin", "target.object",
        m_sink.c_str(), PW_KEY_NODE_LATENCY, latency.c_str(), "stream.dont-remix", "true",
        "node.dont-reconnect", "true", nullptr);
    impl.stream = pw_stream_new(impl.core, "Vorlin", props);
    if (!impl.stream) {
        pw_thread_loop_unlock(impl.loop);
        stop();
        throw AudioStartError::noFormat();
    }
    pw_stream_add_listener(impl.stream, &impl.streamListener, &streamEvents(), &impl);

    // The sink's own channels, in its order; planar float at the graph's rate.
    spa_audio_info_raw info{};
    info.format = SPA_AUDIO_FORMAT_F32P;
    info.channels = static_cast<std::uint32_t>(m_channels);
    info.rate = static_cast<std::uint32_t>(m_rate);
    for (std::size_t c = 0; c < sink->positions.size() && c < SPA_AUDIO_MAX_CHANNELS &&
                            c < static_cast<std::size_t>(m_channels);
         ++c)
        info.position[c] = channelId(sink->positions[c]);
    if (sink->positions.size() < static_cast<std::size_t>(m_channels))
        info.flags |= SPA_AUDIO_FLAG_UNPOSITIONED;
    std::uint8_t space[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof space);
    const spa_pod* params[1] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info)};
    const int connected = pw_stream_connect(
        impl.stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                     PW_STREAM_FLAG_RT_PROCESS),
        params, 1);
    // Until the format is agreed (or the server says no).
    timespec deadline{};
    pw_thread_loop_get_time(impl.loop, &deadline, kAnswerMs * 1000000LL);
    while (connected == 0 && impl.negotiatedRate <= 0.0 && !impl.failed) {
        if (pw_thread_loop_timed_wait_full(impl.loop, &deadline) != 0)
            break;
    }
    const bool agreed = connected == 0 && impl.negotiatedRate > 0.0 && !impl.failed;
    if (agreed)
        m_rate = impl.negotiatedRate;
    pw_thread_loop_unlock(impl.loop);
    if (!agreed) {
        stop();
        throw AudioStartError::cannotSelect("PipeWire の出力を開けません: " + m_sink);
    }
}

void PipeWireBackend::start(Mixer& mixer, Notice notice) {
    if (!m_impl)
        throw AudioStartError::cannotSelect("PipeWire に接続できません");
    pw_thread_loop_lock(m_impl->loop);
    m_impl->notice = std::move(notice);
    m_impl->mixer = &mixer;
    const bool lost = m_impl->lost.load();
    pw_thread_loop_unlock(m_impl->loop);
    if (lost && m_impl->notice)
        m_impl->notice(); // lost between open and start: say so now
}

void PipeWireBackend::stop() {
    if (!m_impl)
        return;
    Impl& impl = *m_impl;
    if (impl.loop)
        pw_thread_loop_stop(impl.loop); // joins the loop thread; the data thread ends with it
    if (impl.stream) {
        spa_hook_remove(&impl.streamListener);
        pw_stream_destroy(impl.stream);
    }
    if (impl.metadata) {
        spa_hook_remove(&impl.metadataListener);
        pw_proxy_destroy(impl.metadata);
    }
    if (impl.registry) {
        spa_hook_remove(&impl.registryListener);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(impl.registry));
    }
    if (impl.core) {
        spa_hook_remove(&impl.coreListener);
        pw_core_disconnect(impl.core);
    }
    if (impl.context)
        pw_context_destroy(impl.context);
    if (impl.loop)
        pw_thread_loop_destroy(impl.loop);
    m_impl.reset();
}
