#pragma once

#include <QString>
#include <QVariant>

#include "model/KeyMode.h"
#include "model/NextBehavior.h"

// The user's preferences, in the per-user QSettings store (~/.config/Vorlin/Vorlin.conf),
// shared by every instance; only the last show is per instance. Main thread.
namespace Prefs {

inline const QString kKeyboardLayout = QStringLiteral("pref.keyboardLayout");
inline const QString kReopenLastKeymap = QStringLiteral("pref.reopenLastKeymap");
inline const QString kMultiDrop = QStringLiteral("pref.multiDrop");
inline const QString kOccupiedDrop = QStringLiteral("pref.occupiedDrop");
inline const QString kPreferPowerPoint = QStringLiteral("pref.preferPowerPoint");
inline const QString kDefaultFadeIn = QStringLiteral("pref.defaultFadeIn");
inline const QString kDefaultFadeOut = QStringLiteral("pref.defaultFadeOut");
inline const QString kDefaultMode = QStringLiteral("pref.defaultMode");
inline const QString kDefaultOnNext = QStringLiteral("pref.defaultOnNext");
inline const QString kVideoFill = QStringLiteral("pref.videoFill");
inline const QString kVideoBackground = QStringLiteral("pref.videoBackground");
inline const QString kOpenVideoOnLaunch = QStringLiteral("pref.openVideoOnLaunch");
inline const QString kAutoCheckUpdates = QStringLiteral("pref.autoCheckUpdates");
// Keys from the keyboard devices while another program is in front (off unless switched on).
inline const QString kBackgroundInput = QStringLiteral("pref.backgroundInput");
// The program starts with the show locked against edits (off unless switched on).
inline const QString kStartLocked = QStringLiteral("pref.startLocked");
// What the side panel's meters show: "output" (the device outputs, the default) or "source"
// (the source channels of the keys that play).
inline const QString kMeterMode = QStringLiteral("pref.meterMode");

// Makes the twelve registered defaults what a read returns while the user never set a key.
// Called first thing at start-up.
void registerDefaults();

// The stored value, else the registered default, else `fallback`.
QVariant value(const QString& key, const QVariant& fallback = {});
void setValue(const QString& key, const QVariant& value);
void remove(const QString& key);

// pref.defaultMode as a mode; any unknown text is toggle.
KeyMode defaultMode();
// pref.defaultOnNext as a behaviour; any unknown text is keep.
NextBehavior defaultOnNext();

// "lastKeymap.instance" + n.
QString lastKeymapKey(int instanceNumber);

} // namespace Prefs
