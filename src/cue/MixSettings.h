#pragma once

#include <cstdint>
#include <optional>
#include <set>

#include <QString>
#include <QStringList>

// What a show file keeps besides its pages: where and how loud it plays. A value: the session
// reads it from the owner when saving and hands a new one to the owner when a show opens.
struct MixSettings {
    std::optional<QString> outputDeviceUID; // none: the system default
    double masterVolume = 1.0;
    double stopAllFade = 1.0;
    std::set<std::int64_t> mutedOutputs;
    QStringList videoOutputs{QStringLiteral("window")};
};
