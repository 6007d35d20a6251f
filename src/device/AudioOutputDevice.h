#pragma once

#include <cstdint>
#include <string>

// One output device as the settings list shows it. `uid` is what the show and the preferences
// store: "jack:<client>", "alsa:<pcm>" or "null".
struct AudioOutputDevice {
    std::uint32_t id = 0; // position in this listing
    std::string uid;
    std::string name;
    std::int64_t channels = 0;
};
