#include "app/BackgroundInput.h"

#include <cerrno>
#include <fcntl.h>
#include <libevdev/libevdev.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QSocketNotifier>

#include "app/KeyCodeMap.h"
#include "cue/AppModel.h"

struct BackgroundInput::Device {
    int fd = -1;
    libevdev* evdev = nullptr;
    std::unique_ptr<QSocketNotifier> notifier;

    ~Device() {
        notifier.reset();
        if (evdev)
            libevdev_free(evdev);
        if (fd >= 0)
            ::close(fd);
    }
};

BackgroundInput::BackgroundInput(AppModel& model, std::function<bool()> isActive, QObject* parent)
    : QObject(parent), m_model(model), m_isActive(std::move(isActive)) {}

BackgroundInput::~BackgroundInput() = default;

int BackgroundInput::setEnabled(bool on, const QString& folder) {
    m_devices.clear();
    m_shift = m_modifiers = 0;
    if (!on)
        return 0;
    const QStringList names =
        QDir(folder).entryList({QStringLiteral("event*")}, QDir::System | QDir::Files);
    for (const QString& name : names) {
        const int fd = ::open(QFile::encodeName(folder + "/" + name).constData(),
                              O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            continue;
        auto device = std::make_unique<Device>();
        device->fd = fd;
        // Keyboards only: a device with letter keys (mice and buttons have none).
        if (libevdev_new_from_fd(fd, &device->evdev) < 0 ||
            !libevdev_has_event_code(device->evdev, EV_KEY, KEY_A))
            continue;
        device->notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
        Device* raw = device.get();
        connect(device->notifier.get(), &QSocketNotifier::activated, this,
                [this, raw] { readDevice(*raw); });
        m_devices.push_back(std::move(device));
    }
    if (m_devices.empty())
        m_model.status().show(kNoAccessMessage);
    return static_cast<int>(m_devices.size());
}

void BackgroundInput::readDevice(Device& device) {
    input_event event{};
    int status = 0;
    while ((status = libevdev_next_event(device.evdev, LIBEVDEV_READ_FLAG_NORMAL, &event)) >= 0) {
        if (status == LIBEVDEV_READ_STATUS_SYNC)
            continue; // dropped events: the state is resynchronised, no key is replayed
        if (event.type == EV_KEY)
            keyEvent(event.code, event.value);
    }
    if (status != -EAGAIN)
        device.notifier->setEnabled(false); // unplugged: stop listening to it
}

void BackgroundInput::keyEvent(std::uint32_t evdevCode, int value) {
    const int delta = value == 1 ? 1 : value == 0 ? -1 : 0;
    switch (evdevCode) {
    case KEY_LEFTSHIFT:
    case KEY_RIGHTSHIFT:
        m_shift = std::max(0, m_shift + delta);
        return;
    case KEY_LEFTCTRL:
    case KEY_RIGHTCTRL:
    case KEY_LEFTALT:
    case KEY_RIGHTALT:
    case KEY_LEFTMETA:
    case KEY_RIGHTMETA:
        m_modifiers = std::max(0, m_modifiers + delta);
        return;
    default:
        break;
    }
    if (m_isActive() || m_modifiers > 0)
        return;
    const auto code = KeyCodeMap::fromEvdev(evdevCode);
    if (!code)
        return;
    m_model.handleKey(*code, value != 0, m_shift > 0, value == 2);
}
