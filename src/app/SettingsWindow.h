#pragma once

#include <functional>

#include <QWidget>

class QComboBox;

// The settings window (632 × 552, "設定 — Vorlin #n"): every preference under its label, in the
// order the operator knows them from the documentation, each stored the moment it changes.
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
