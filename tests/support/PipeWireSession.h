#pragma once

#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

// A private PipeWire session for the tests, as a desktop has one: a session bus, pipewire and
// wireplumber, in folders of its own (runtime, configuration, state), with the null sinks of
// tests/support/pipewire/vorlin-sinks.conf: "vorlin-test-stereo" (the default) and
// "vorlin-test-8ch" (FL FR FC LFE RL RR SL SR). Nothing of the machine's own sound setup is
// read or changed. Clients reach it through environment() (set it in the test process with
// use(), or hand it to a child). Where PipeWire's ALSA plugin is found (installed, or unpacked
// into .cache/ by scripts/setup), the environment also gives ALSA a private configuration with
// the PCMs "vorlin_pipewire" and "vorlin_pipewire_stereo", playing into "vorlin-test-8ch" and
// "vorlin-test-stereo" through the plugin.
class PipeWireSession {
public:
    PipeWireSession();
    ~PipeWireSession();
    PipeWireSession(const PipeWireSession&) = delete;
    PipeWireSession& operator=(const PipeWireSession&) = delete;

    // Whether the session came up with both sinks (false where PipeWire is not installed).
    bool ready() const { return m_ready; }
    // Whether ALSA clients of the session have "vorlin_pipewire".
    bool hasAlsaPlugin() const { return !m_alsaConfig.empty(); }
    // NAME=value pairs a client of the session needs.
    std::vector<std::pair<std::string, std::string>> environment() const;
    // Points this process's own clients at the session.
    void use() const;

    // Ends the server abruptly, as a crash would (SIGKILL), and its session manager with it.
    void kill();
    // Starts server and session manager again; whether the sinks are back.
    bool restart();

private:
    pid_t spawn(const std::vector<std::string>& args) const;
    bool waitForSinks() const;

    std::string m_dir;
    std::string m_alsaConfig; // the private ALSA configuration, when the plugin is there
    pid_t m_bus = -1, m_pipewire = -1, m_manager = -1;
    bool m_ready = false;
};
