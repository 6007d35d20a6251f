#pragma once

#include <mutex>
#include <pipewire/pipewire.h>
#include <spa/utils/dict.h>
#include <string>

// What the PipeWire back end and the device watch both need of the library.

// Initialises libpipewire once for the process, whoever comes first. Any thread.
inline void initialisePipeWire() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

// A property of a PipeWire object's dictionary, empty when absent (or no dictionary).
inline std::string pipeWireProperty(const spa_dict* props, const char* key) {
    const char* value = props ? spa_dict_lookup(props, key) : nullptr;
    return value ? value : "";
}
