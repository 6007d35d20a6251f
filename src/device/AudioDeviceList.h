#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "device/AudioOutputDevice.h"

// The output devices the operator can choose: PipeWire's sinks when a PipeWire server runs, JACK
// devices (clients with physical playback ports) when a JACK server runs, ALSA playback PCMs,
// and "null" (no output).
// Any thread; listing may open ALSA devices briefly (non-blocking), so keep it off the main
// thread where a list is refreshed often.
namespace AudioDeviceList {

// With `jackDevices` (what a device watch's client sees) the JACK devices are taken from there
// instead of from a client opened for the listing, which every client of the server would hear of.
std::vector<AudioOutputDevice>
outputDevices(const std::optional<std::vector<AudioOutputDevice>>& jackDevices = std::nullopt);

// Watches for devices coming and going (sound cards plugged, PipeWire sinks, JACK servers and
// hardware ports appearing) and calls `changed` from a watcher thread. Watching ends when the
// returned handle is destroyed.
class Watch {
public:
    virtual ~Watch() = default;
    // The JACK devices (uid and name: the client's name) the watch's own client saw at its last
    // look, or none while it has no server. Lets a caller list them, or tell whether one is
    // there, without opening a client of its own. Any thread.
    virtual std::optional<std::vector<AudioOutputDevice>> jackDevices() const = 0;
};
std::unique_ptr<Watch> observeChanges(std::function<void()> changed);

} // namespace AudioDeviceList
