#pragma once

#include <spa/utils/dict.h>
#include <string>

// A property of a PipeWire object's dictionary, empty when absent (or no dictionary).
inline std::string pipeWireProperty(const spa_dict* props, const char* key) {
    const char* value = props ? spa_dict_lookup(props, key) : nullptr;
    return value ? value : "";
}
