#include "JackRegistrations.h"

#include <jack/jack.h>

JackRegistrations::JackRegistrations() {
    jack_client_t* client = jack_client_open("registrations", JackNoStartServer, nullptr);
    if (!client)
        return;
    jack_set_client_registration_callback(
        client,
        [](const char*, int registered, void* self) {
            if (registered)
                ++static_cast<JackRegistrations*>(self)->m_count;
        },
        this);
    if (jack_activate(client) != 0) {
        jack_client_close(client);
        return;
    }
    m_client = client;
}

JackRegistrations::~JackRegistrations() {
    if (m_client)
        jack_client_close(m_client);
}
