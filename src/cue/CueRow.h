#pragma once

#include <cstdint>
#include <optional>

#include <QString>

#include "model/KeyAssignment.h"

// One line of the cue list. Compared by value, so the list is republished only on change.
struct CueRow {
    std::int64_t id = 0;
    KeyCode key = 0;
    QString name;
    double progress = 0.0;
    bool stopping = false;
    bool hasVideo = false;
    std::optional<QString> slideText; // "2/5" for a deck
    std::optional<double> position;   // seek bar 0…1; absent when the cue cannot be sought
    double duration = 0.0;
    std::optional<QString> itemName;
    // Absent for the current page; the cue's page name, or "削除したページ".
    std::optional<QString> pageName;

    bool operator==(const CueRow&) const = default;
};
