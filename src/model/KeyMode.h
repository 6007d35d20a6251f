#pragma once

#include <array>
#include <optional>

#include <QString>

// How a key press acts on the key's cue; the names are the stored texts.
enum class KeyMode { toggle, retrigger, hold };

inline constexpr std::array<KeyMode, 3> kAllKeyModes{KeyMode::toggle, KeyMode::retrigger,
                                                     KeyMode::hold};

QString keyModeName(KeyMode mode);
// No value for an unknown text (callers substitute toggle).
std::optional<KeyMode> parseKeyMode(const QString& text);
