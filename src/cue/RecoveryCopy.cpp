#include "cue/RecoveryCopy.h"

#include <chrono>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "model/DocumentError.h"
#include "model/ShowFile.h"

RecoveryCopy::RecoveryCopy(const QString& folder, int instanceNumber)
    : m_folder(folder), m_instance(instanceNumber), m_thread([this] { run(); }) {}

RecoveryCopy::~RecoveryCopy() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

QString RecoveryCopy::copyPath() const {
    return m_folder + QStringLiteral("/instance-%1.vorlin").arg(m_instance);
}

QString RecoveryCopy::originPath() const {
    return m_folder + QStringLiteral("/instance-%1.origin").arg(m_instance);
}

std::optional<QByteArray> RecoveryCopy::writtenOrigin() const {
    QFile file(originPath());
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.readAll();
}

std::optional<RecoveryCopy::Found> RecoveryCopy::find() const {
    // A write killed before its rename left a temporary nobody will finish.
    ShowFile::removeLeftovers(copyPath(), std::chrono::seconds(0));
    ShowFile::removeLeftovers(originPath(), std::chrono::seconds(0));
    const QFileInfo copy(copyPath());
    if (!copy.isFile())
        return std::nullopt;
    Found found{copy.absoluteFilePath(), std::nullopt, copy.lastModified()};
    if (const auto origin = writtenOrigin(); origin && !origin->isEmpty())
        found.origin = QString::fromUtf8(*origin);
    return found;
}

void RecoveryCopy::write(const QByteArray& show, const std::optional<QString>& origin) {
    post(Job{false, show, origin});
}

void RecoveryCopy::remove() {
    post(Job{});
}

void RecoveryCopy::post(Job job) {
    {
        const std::lock_guard lock(m_mutex);
        m_pending = std::move(job);
    }
    m_wake.notify_all();
}

void RecoveryCopy::flush() {
    std::unique_lock lock(m_mutex);
    m_wake.wait(lock, [this] { return !m_pending && !m_busy; });
}

std::optional<QString> RecoveryCopy::takeError() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_error, std::nullopt);
}

void RecoveryCopy::run() {
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_pending || m_stopping; });
        if (!m_pending)
            return;
        const Job job = std::move(*m_pending);
        m_pending.reset();
        m_busy = true;
        lock.unlock();
        std::optional<QString> error;
        try {
            perform(job);
        } catch (const DocumentError& failure) {
            error = failure.message();
        }
        lock.lock();
        m_busy = false;
        if (error)
            m_error = error;
        m_wake.notify_all();
    }
}

void RecoveryCopy::perform(const Job& job) {
    if (job.remove) {
        QFile::remove(copyPath());
        QFile::remove(originPath());
        return;
    }
    // Read back each time rather than remembered: a copy restored after a crash, with its
    // origin, is still the only one and stays until replaced.
    const QByteArray origin = job.origin ? job.origin->toUtf8() : QByteArray();
    if (writtenOrigin() != origin) {
        // The copy there belongs to the show of the old origin: it goes before the origin
        // changes, or a kill in between would pair it with this show's file.
        QFile::remove(copyPath());
        if (!QDir().mkpath(m_folder))
            throw DocumentError(QStringLiteral("フォルダ「%1」を作れません").arg(m_folder));
        ShowFile::writeAtomically(originPath(), origin);
    }
    ShowFile::writeAtomically(copyPath(), job.show);
}
