#include "device/PipeWireWatch.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <pipewire/pipewire.h>

#include "device/PipeWireSupport.h"

// The loop thread and context live as long as the watch; the core and registry as long as
// one server does.
struct PipeWireWatch::Connection {
    PipeWireWatch* owner = nullptr;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;         // under the loop's lock
    pw_registry* registry = nullptr; // under the loop's lock
    spa_hook coreListener{}, registryListener{};
    std::atomic<bool> gone{true};

    mutable std::mutex mutex;
    std::map<std::uint32_t, std::string> sinks; // registry id → "name\tdescription"

    void changed() {
        if (owner->m_changed)
            owner->m_changed();
    }

    // Under the loop's lock.
    void drop() {
        if (registry) {
            spa_hook_remove(&registryListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
            registry = nullptr;
        }
        if (core) {
            spa_hook_remove(&coreListener);
            pw_core_disconnect(core);
            core = nullptr;
        }
        std::lock_guard lock(mutex);
        sinks.clear();
    }

    ~Connection() {
        if (loop)
            pw_thread_loop_stop(loop);
        drop();
        if (context)
            pw_context_destroy(context);
        if (loop)
            pw_thread_loop_destroy(loop);
    }
};

namespace {

using Connection = PipeWireWatch::Connection;

const pw_core_events& coreEvents() {
    static const pw_core_events events = [] {
        pw_core_events e{};
        e.version = PW_VERSION_CORE_EVENTS;
        e.error = [](void* data, std::uint32_t id, int, int res, const char*) {
            if (id != PW_ID_CORE || (res != -EPIPE && res != -ECONNRESET))
                return;
            auto* connection = static_cast<Connection*>(data);
            if (!connection->gone.exchange(true)) {
                {
                    std::lock_guard lock(connection->mutex);
                    connection->sinks.clear();
                }
                connection->changed();
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
            if (std::strcmp(type, PW_TYPE_INTERFACE_Node) != 0 ||
                pipeWireProperty(props, PW_KEY_MEDIA_CLASS) != "Audio/Sink")
                return;
            auto* connection = static_cast<Connection*>(data);
            {
                std::lock_guard lock(connection->mutex);
                connection->sinks[id] = pipeWireProperty(props, PW_KEY_NODE_NAME) + '\t' +
                                        pipeWireProperty(props, PW_KEY_NODE_DESCRIPTION);
            }
            connection->changed();
        };
        e.global_remove = [](void* data, std::uint32_t id) {
            auto* connection = static_cast<Connection*>(data);
            {
                std::lock_guard lock(connection->mutex);
                if (connection->sinks.erase(id) == 0)
                    return;
            }
            connection->changed();
        };
        return e;
    }();
    return events;
}

} // namespace

PipeWireWatch::PipeWireWatch(std::function<void()> changed) : m_changed(std::move(changed)) {
    initialisePipeWire();
    auto connection = std::make_unique<Connection>();
    connection->owner = this;
    connection->loop = pw_thread_loop_new("vorlin-pw-watch", nullptr);
    if (connection->loop)
        connection->context = pw_context_new(pw_thread_loop_get_loop(connection->loop), nullptr, 0);
    if (connection->context && pw_thread_loop_start(connection->loop) == 0)
        m_connection = std::move(connection);
}

PipeWireWatch::~PipeWireWatch() = default;

void PipeWireWatch::look() {
    if (!m_connection || !m_connection->gone.load())
        return;
    Connection& c = *m_connection;
    pw_thread_loop_lock(c.loop);
    c.drop();
    c.core = pw_context_connect(c.context, nullptr, 0);
    if (c.core) {
        c.gone = false;
        pw_core_add_listener(c.core, &c.coreListener, &coreEvents(), &c);
        c.registry = pw_core_get_registry(c.core, PW_VERSION_REGISTRY, 0);
        pw_registry_add_listener(c.registry, &c.registryListener, &registryEvents(), &c);
    }
    pw_thread_loop_unlock(c.loop);
}

std::string PipeWireWatch::sinks() const {
    if (!m_connection)
        return {};
    std::lock_guard lock(m_connection->mutex);
    std::string text;
    for (const auto& [id, sink] : m_connection->sinks)
        text += sink + '\n';
    return text;
}
