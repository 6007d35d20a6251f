#pragma once

#include <string>
#include <sys/types.h>

// A JACK server with the dummy driver, started and stopped by the test itself under a name of
// its own (JACK_DEFAULT_SERVER points every client of this process at it).
class JackServer {
public:
    // `realtime`: run the server with SCHED_FIFO (needs the right to; tests run without).
    JackServer(int playbackPorts = 8, int rate = 48000, int period = 256, bool realtime = false);
    ~JackServer();

    JackServer(const JackServer&) = delete;
    JackServer& operator=(const JackServer&) = delete;

    // Whether a client could connect within a few seconds of starting.
    bool ready() const { return m_ready; }
    // Ends the server abruptly, as a crash would.
    void kill();
    const std::string& name() const { return m_name; }

private:
    std::string m_name;
    pid_t m_pid = -1;
    int m_slotLock = -1; // flock held on the name slot for as long as the server is ours
    bool m_ready = false;
};
