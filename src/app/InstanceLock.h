#pragma once

#include <QString>

// The number of this running copy of Vorlin (1, 2, …): the lowest n whose lock file
// "instance-n.lock" in the per-user data folder can be locked exclusively. The lock is held for
// the life of the object — in the application, the life of the process — and the system
// releases it when the process ends, however it ends, so a crashed instance frees its number.
// Main thread.
class InstanceLock {
public:
    static constexpr int kMaxInstances = 99;

    // Takes the lowest free number in `folder` (created if missing). When none of the 99 can
    // be locked, the number is 1 without a lock.
    static InstanceLock acquire(const QString& folder);
    // $XDG_DATA_HOME/Vorlin (~/.local/share/Vorlin), where the lock files live.
    static QString defaultFolder();

    InstanceLock(InstanceLock&& other) noexcept;
    InstanceLock& operator=(InstanceLock&&) = delete;
    InstanceLock(const InstanceLock&) = delete;
    ~InstanceLock();

    int number() const { return m_number; }
    bool isLocked() const { return m_fd >= 0; }

private:
    InstanceLock(int number, int fd) : m_number(number), m_fd(fd) {}

    int m_number;
    int m_fd;
};
