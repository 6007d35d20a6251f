#include "device/BackendKind.h"

#include "device/AlsaBackend.h"
#include "device/AudioStartError.h"
#include "device/JackBackend.h"
#include "device/NullBackend.h"
#include "device/PipeWireBackend.h"

namespace {

// Nothing is heard from the null device: blocks of 21 ms keep meters and cue times at the
// tick's resolution while its thread wakes 47 times a second instead of 187.
constexpr std::int64_t kNullBlockFrames = 1024;

} // namespace

const std::vector<BackendKind>& BackendKind::all() {
    static const std::vector<BackendKind> kinds{
        // "pipewire:" alone is the desktop's default sink, followed when it changes.
        {"pipewire:", "PipeWire: ",
         [](const std::string& name) -> std::unique_ptr<AudioBackend> {
             return std::make_unique<PipeWireBackend>(name);
         },
         [](const std::string& name) { return PipeWireBackend::canOpen(name); },
         &PipeWireBackend::addDevices},
        // "jack:" alone is the first JACK device there is.
        {"jack:", "JACK: ",
         [](const std::string& name) -> std::unique_ptr<AudioBackend> {
             return std::make_unique<JackBackend>(name);
         },
         [](const std::string& name) { return JackBackend::hasPlaybackPorts(name); },
         [](std::vector<AudioOutputDevice>& devices) { JackBackend::addDevices(devices); }},
        {"alsa:", "ALSA: ",
         [](const std::string& name) -> std::unique_ptr<AudioBackend> {
             if (name.empty())
                 throw AudioStartError::cannotSelect("不明なデバイスです: alsa:");
             return std::make_unique<AlsaBackend>(name);
         },
         [](const std::string& name) { return !name.empty() && AlsaBackend::canOpen(name); },
         &AlsaBackend::addDevices},
        {"null", "出力なし（無音）",
         [](const std::string&) -> std::unique_ptr<AudioBackend> {
             return std::make_unique<NullBackend>(8, 48000.0, kNullBlockFrames);
         },
         [](const std::string&) { return true; },
         [](std::vector<AudioOutputDevice>& devices) {
             devices.push_back({0, "", "", 8});
         }},
    };
    return kinds;
}

const BackendKind* BackendKind::find(const std::string& uid, std::string* name) {
    for (const BackendKind& kind : all()) {
        const bool whole = kind.prefix.back() != ':';
        if (whole ? uid == kind.prefix : uid.starts_with(kind.prefix)) {
            if (name)
                *name = uid.substr(kind.prefix.size());
            return &kind;
        }
    }
    return nullptr;
}

std::string BackendKind::describe(const std::string& uid) {
    std::string name;
    const BackendKind* kind = find(uid, &name);
    return kind ? std::string(kind->label) + name : uid;
}
