#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <QObject>
#include <QString>

#include "model/KeyAssignment.h"

class AppModel;
class QSocketNotifier;
struct libevdev;

// Keys while another program is in front: the keyboards' input devices (/dev/input/event*) read
// with libevdev. Only while Vorlin is not the active application, and never with Ctrl, Alt or
// Meta held, a key goes to AppModel::handleKey exactly as the local input would hand it. Reading
// the devices needs membership of the "input" group; without it the status line says so.
// Main thread (socket notifiers on the devices' descriptors).
class BackgroundInput : public QObject {
    Q_OBJECT
public:
    static inline const QString kNoAccessMessage =
        QStringLiteral("キーボードの入力デバイスを読めません。ユーザーを input "
                       "グループに追加して、ログインし直してください");

    // `isActive` tells whether Vorlin is the active application (then the local input has the
    // keys).
    BackgroundInput(AppModel& model, std::function<bool()> isActive, QObject* parent = nullptr);
    ~BackgroundInput() override;

    // Opens (or closes) the keyboards in `folder`; returns how many keyboards are read.
    int setEnabled(bool on, const QString& folder = QStringLiteral("/dev/input"));
    bool isEnabled() const { return !m_devices.empty(); }

    // One key event of a device (evdev code; value 1 down, 0 up, 2 repeat).
    void keyEvent(std::uint32_t evdevCode, int value);

private:
    struct Device;
    void readDevice(Device& device);

    AppModel& m_model;
    std::function<bool()> m_isActive;
    std::vector<std::unique_ptr<Device>> m_devices;
    int m_shift = 0;     // shift keys held, over all keyboards
    int m_modifiers = 0; // Ctrl, Alt and Meta keys held
};
