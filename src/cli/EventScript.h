#pragma once

#include <cstdint>
#include <set>
#include <stdexcept>
#include <vector>

#include <QString>

#include "cue/RemoteCommand.h"
#include "model/KeyAssignment.h"

// The timed events of a headless render, one per line:
//   <seconds> down|up <code> [shift] [repeat]
//   <seconds> page <index>            (0-based)
//   <seconds> mute <outputs>          (1-based, as the routing text: "1,3" or "5-8"; none unmutes)
//   <seconds> master <gain>
//   <seconds> osc <address> [arguments]  (an OSC command as a remote sends it: "0 osc /vorlin/key 0
//   1";
//                                      integers, decimals, and words or "quoted text" as strings)
// "#" starts a comment; blank lines are skipped.
struct ScriptEvent {
    enum class Kind { key, page, mute, master, osc };
    double seconds = 0.0;
    Kind kind = Kind::key;
    KeyCode code = 0;
    bool down = true;
    bool shift = false;
    bool repeat = false;
    std::int64_t page = 0;
    std::set<std::int64_t> muted;
    double gain = 1.0;
    RemoteCommand command;
};

class EventScriptError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

namespace EventScript {

// Events in file order, which must be the order of their times. Throws EventScriptError naming
// the line.
std::vector<ScriptEvent> parse(const QString& text);

} // namespace EventScript
