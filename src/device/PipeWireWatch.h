#pragma once

#include <functional>
#include <memory>
#include <string>

// One client of a running PipeWire server, kept for the whole show, that hears from the
// server's registry the moment a sink (an Audio/Sink node) appears or goes, and when the server
// itself ends. Nothing is polled: a server that is not running is looked for again only when the
// owner calls look().
//
// Threading: look(), sinks() and the destructor on the owner's thread; `changed` is called on
// this watch's own PipeWire loop thread and must only pass the news on.
class PipeWireWatch {
public:
    explicit PipeWireWatch(std::function<void()> changed);
    ~PipeWireWatch();
    PipeWireWatch(const PipeWireWatch&) = delete;
    PipeWireWatch& operator=(const PipeWireWatch&) = delete;

    // Connects when no server is connected (the one it had ended, or none ran yet). Cheap when
    // connected; a failed attempt reaches no other client.
    void look();
    // "node.name\tdescription" of every sink the registry announced, one per line; empty while
    // no server is connected.
    std::string sinks() const;

    struct Connection;

private:
    std::function<void()> m_changed;
    std::unique_ptr<Connection> m_connection;
};
