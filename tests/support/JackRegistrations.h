#pragma once

#include <atomic>

typedef struct _jack_client jack_client_t;

// Counts the clients that register with the test's JACK server from now on (the server
// announces each to every client, during a show as much as in a test). Closed at the end unless
// abandoned: libjack may crash closing a client of a server that is gone, so a test that kills
// the server abandons it first.
class JackRegistrations {
public:
    JackRegistrations();
    ~JackRegistrations();

    JackRegistrations(const JackRegistrations&) = delete;
    JackRegistrations& operator=(const JackRegistrations&) = delete;

    bool connected() const { return m_client != nullptr; }
    int count() const { return m_count.load(); }
    void abandon() { m_client = nullptr; }

private:
    jack_client_t* m_client = nullptr;
    std::atomic<int> m_count{0};
};
