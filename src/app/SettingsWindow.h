#pragma once

#include <functional>

#include <QWidget>

class QComboBox;

// The settings window (632 × 460, "設定 — Vorlin #n"): every preference under its label, in
// tabs (全般, 新しいキー, 映像, スライド, リモート操作, アップデート) so that it fits a laptop's
// screen whole, each stored the moment it changes.
// Main thread.
class SettingsWindow : public QWidget {
    Q_OBJECT
public:
    SettingsWindow(int instanceNumber, QWidget* parent = nullptr);

    // Called when the background-input switch changes (the application opens or closes the
    // keyboard devices).
    std::function<void(bool)> onBackgroundInputChange;
    // Called when a setting of the remote control (OSC) changes: the application listens anew.
    std::function<void()> onRemoteChange;

private:
    QComboBox* choice(const QString& key, const QList<QPair<QString, QString>>& options);
};
