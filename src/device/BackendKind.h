#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "device/AudioBackend.h"
#include "device/AudioOutputDevice.h"

// One kind of output device: how its uids are spelt, what the operator reads for it, and how
// one is made, checked and listed. The engine, the fallback search and the device list go
// through this table only, so a new back end is a new entry here and a class beside the others.
//
// A uid is the prefix followed by the device's name ("jack:system", "alsa:hw:1"); a prefix
// without a colon is a whole uid ("null").
//
// Any thread: nothing here keeps state; canOpen and list open devices briefly.
struct BackendKind {
    std::string_view prefix;
    // Before the name in the settings ("JACK: system"), or alone for a whole-uid kind.
    std::string_view label;
    // Throws AudioStartError.
    std::unique_ptr<AudioBackend> (*make)(const std::string& name);
    // Whether the device opens now.
    bool (*canOpen)(const std::string& name);
    // Appends the devices there are, uid and name without prefix and label.
    void (*list)(std::vector<AudioOutputDevice>& devices);

    // Every kind, in the order the device list shows them.
    static const std::vector<BackendKind>& all();
    // The kind a uid belongs to (none for a uid of no known kind), and the name after its
    // prefix.
    static const BackendKind* find(const std::string& uid, std::string* name = nullptr);
    // What the settings show for a uid ("JACK: system", "ALSA: hw:1", …).
    static std::string describe(const std::string& uid);
};
