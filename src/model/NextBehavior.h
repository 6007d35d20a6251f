#pragma once

#include <array>
#include <optional>

#include <QString>

// What a running cue does when another key's cue starts and the group rule names it.
enum class NextBehavior { keep, fade, cut };

inline constexpr std::array<NextBehavior, 3> kAllNextBehaviors{
    NextBehavior::keep, NextBehavior::fade, NextBehavior::cut};

QString nextBehaviorName(NextBehavior behavior);
// No value for an unknown text (callers substitute keep).
std::optional<NextBehavior> parseNextBehavior(const QString& text);
