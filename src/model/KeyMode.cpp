#include "model/KeyMode.h"

QString keyModeName(KeyMode mode) {
    switch (mode) {
    case KeyMode::retrigger:
        return QStringLiteral("retrigger");
    case KeyMode::hold:
        return QStringLiteral("hold");
    default:
        return QStringLiteral("toggle");
    }
}

std::optional<KeyMode> parseKeyMode(const QString& text) {
    for (KeyMode mode : kAllKeyModes) {
        if (keyModeName(mode) == text)
            return mode;
    }
    return std::nullopt;
}
