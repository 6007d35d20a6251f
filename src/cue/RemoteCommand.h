#pragma once

#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include <QString>

#include "model/KeyAssignment.h"

class AppModel;

// One operation from outside the window — an OSC message, a line of a render script — as
// exactly what the keyboard or the window does: a key going down or up, a page, stop all with
// its fade, stop all at once, the master volume, stopping or seeking one cue. So a remote show
// behaves as the keyboard does and renders the same.
//
// Addresses (arguments: i = integer, f = float, s = string; an integer serves for a float):
//   /vorlin/key <code i> <1|0 i>        a key by its code, down (1) or up (0)
//   /vorlin/key/<label> <1|0 i>         a key by its label on the drawn keyboard ("A", "F1",
//   "Space") /vorlin/page <index i | name s>     a page by its place (0-based) or its name
//   /vorlin/stop                        stop all, with the stop-all fade
//   /vorlin/panic                       stop all at once
//   /vorlin/master <gain f>             master volume 0…1
//   /vorlin/cue/<id>/stop               stop a running cue (its fade-out)
//   /vorlin/cue/<id>/seek <fraction f>  move a running cue (0…1)
//   /vorlin/subscribe, /vorlin/unsubscribe   feedback to the sender (OSC only)
// Main thread.
struct RemoteCommand {
    using Argument = std::variant<std::int64_t, double, QString>;

    enum class Kind {
        key,
        keyLabel,
        page,
        pageName,
        stop,
        panic,
        master,
        stopCue,
        seekCue,
        subscribe,
        unsubscribe
    };
    Kind kind = Kind::stop;
    KeyCode code = 0;
    bool down = true;
    QString name;            // a key's label or a page's name
    std::int64_t number = 0; // a page's index or a cue's id
    double value = 0.0;      // master gain or seek fraction

    // The command an OSC address and its arguments make; none when either is not one of ours
    // (unknown address, wrong number or type of arguments, a value out of its range).
    static std::optional<RemoteCommand> fromOsc(const QString& address,
                                                const std::vector<Argument>& arguments);

    // Does it to the model. False when it names what is not there (a key label, a page, a
    // running cue);
    // subscribe and unsubscribe are for the OSC server and do nothing here.
    bool apply(AppModel& model) const;
    // What it names, for the message when apply found nothing: the label or page name, else
    // the page index or cue id.
    QString target() const {
        if (kind == Kind::stopCue || kind == Kind::seekCue)
            return QStringLiteral("キュー %1").arg(number);
        return name.isEmpty() ? QString::number(number) : name;
    }
};
