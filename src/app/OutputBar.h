#pragma once

#include <memory>
#include <vector>

#include <QWidget>

#include "device/AudioDeviceList.h"
#include "device/AudioOutputDevice.h"

class AppModel;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QSlider;

// The strip above the keyboard: master volume, the output device (the list with channel counts,
// refreshed when devices come and go), the stop-all fade time and the stop-all button.
// Main thread; the device list is read on a worker thread, since listing may open ALSA devices.
class OutputBar : public QWidget {
    Q_OBJECT
public:
    explicit OutputBar(AppModel& model, QWidget* parent = nullptr);

    QComboBox& devices() { return *m_devices; }
    // Shows a device list (what the worker thread delivers).
    void setDevices(std::vector<AudioOutputDevice> devices);

private:
    void listDevices();
    void showActiveDevice();
    void refreshMix();

    AppModel& m_model;
    QSlider* m_master = nullptr;
    QLabel* m_masterText = nullptr;
    QComboBox* m_devices = nullptr;
    QLabel* m_active = nullptr;
    QDoubleSpinBox* m_stopAllFade = nullptr;
    std::vector<AudioOutputDevice> m_listed;
};
