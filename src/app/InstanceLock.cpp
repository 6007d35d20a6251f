#include "app/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

#include <QDir>
#include <QFile>
#include <QStandardPaths>

InstanceLock InstanceLock::acquire(const QString& folder) {
    QDir().mkpath(folder); // a failure shows as no lock below
    for (int n = 1; n <= kMaxInstances; ++n) {
        const QString path = folder + QStringLiteral("/instance-%1.lock").arg(n);
        const int fd =
            ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0)
            continue;
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
            return InstanceLock(n, fd);
        ::close(fd);
    }
    return InstanceLock(1, -1);
}

QString InstanceLock::defaultFolder() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/Vorlin");
}

InstanceLock::InstanceLock(InstanceLock&& other) noexcept
    : m_number(other.m_number), m_fd(std::exchange(other.m_fd, -1)) {}

InstanceLock::~InstanceLock() {
    if (m_fd >= 0)
        ::close(m_fd);
}
