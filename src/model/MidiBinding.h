#pragma once

#include <optional>

#include <QJsonObject>

#include "model/KeyAssignment.h"

// What one MIDI message does in a show: a note, a controller or a program change on a channel,
// bound to a key or to one of the window's operations. Saved with the show; it names channels
// and numbers only, nothing of the machine (no port or device), so a show moves between
// computers and MIDI set-ups unchanged.
struct MidiBinding {
    enum class Message { note, control, program };
    enum class Action { key, page, stop, panic, master };

    Message message = Message::note;
    int channel = 1; // 1…16
    int number = 0;  // note, controller or program, 0…127
    Action action = Action::key;
    KeyCode key = 0;       // for Action::key
    std::int64_t page = 0; // for Action::page, 0-based

    bool sameMessage(const MidiBinding& other) const {
        return message == other.message && channel == other.channel && number == other.number;
    }
    bool operator==(const MidiBinding&) const = default;

    // What the drawn key shows of its binding: "♪C4" (a note), "CC7", "PC3"; channel 1 is not
    // named, others follow ("♪C4/2").
    QString label() const;

    QJsonObject toJson() const;
    // Throws DocumentError for an unknown message or action, or a number out of range.
    static MidiBinding fromJson(const QJsonObject& object);
};
