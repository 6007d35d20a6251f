#include "model/Prefs.h"

#include <QHash>
#include <QSettings>

namespace {

QHash<QString, QVariant>& registered() {
    static QHash<QString, QVariant> defaults;
    return defaults;
}

QSettings& store() {
    static QSettings settings(QStringLiteral("Vorlin"), QStringLiteral("Vorlin"));
    return settings;
}

} // namespace

namespace Prefs {

void registerDefaults() {
    auto& d = registered();
    d[kKeyboardLayout] = QStringLiteral("auto");
    d[kReopenLastKeymap] = true;
    d[kMultiDrop] = QStringLiteral("ask");
    d[kOccupiedDrop] = QStringLiteral("ask");
    d[kPreferPowerPoint] = true;
    d[kDefaultFadeIn] = 0.0;
    d[kDefaultFadeOut] = 1.0;
    d[kDefaultMode] = QStringLiteral("toggle");
    d[kDefaultOnNext] = QStringLiteral("keep");
    d[kVideoFill] = QStringLiteral("fit");
    d[kVideoBackground] = QStringLiteral("black");
    d[kOpenVideoOnLaunch] = false;
}

QVariant value(const QString& key, const QVariant& fallback) {
    const QVariant stored = store().value(key);
    if (stored.isValid())
        return stored;
    return registered().value(key, fallback);
}

// Written through at once: a crash right after a change keeps it, and another instance (or a
// command started now) reads it.
void setValue(const QString& key, const QVariant& v) {
    store().setValue(key, v);
    store().sync();
}

void remove(const QString& key) {
    store().remove(key);
    store().sync();
}

KeyMode defaultMode() {
    return parseKeyMode(value(kDefaultMode).toString()).value_or(KeyMode::toggle);
}

NextBehavior defaultOnNext() {
    return parseNextBehavior(value(kDefaultOnNext).toString()).value_or(NextBehavior::keep);
}

QString lastKeymapKey(int instanceNumber) {
    return QStringLiteral("lastKeymap.instance") + QString::number(instanceNumber);
}

} // namespace Prefs
