#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include <QByteArray>
#include <QDateTime>
#include <QString>

// The unsaved show kept where a crash cannot take it: "instance-N.vorlin" (what a save would
// write) and "instance-N.origin" (the show's own file, empty for an untitled show) in one folder,
// one pair per instance number. Writes happen on a thread of their own, each file replaced
// atomically, so a kill at any moment leaves the previous copy or the new one, never a mix; the
// origin is written before a copy that needs it and removed after the copy, so a copy is never
// read with another show's origin. Jobs are the whole wanted state (a copy, or none): a job not
// yet started is replaced by a newer one. Public functions: main thread.
class RecoveryCopy {
public:
    struct Found {
        QString copyPath;
        // The show's own file; none for a show never saved.
        std::optional<QString> origin;
        QDateTime written;
    };

    RecoveryCopy(const QString& folder, int instanceNumber);
    // Finishes the job under way and the one waiting.
    ~RecoveryCopy();
    RecoveryCopy(const RecoveryCopy&) = delete;
    RecoveryCopy& operator=(const RecoveryCopy&) = delete;

    // A copy left by this instance number, if any. Only called while this process holds the
    // number, so whoever wrote it is gone.
    std::optional<Found> find() const;
    const QString& folder() const { return m_folder; }

    void write(const QByteArray& show, const std::optional<QString>& origin);
    void remove();
    // Waits until every job asked for is done.
    void flush();
    // The last failure to write, once (the writer cannot say it itself).
    std::optional<QString> takeError();

private:
    struct Job {
        bool remove = true;
        QByteArray show;
        std::optional<QString> origin;
    };

    void post(Job job);
    void run();
    void perform(const Job& job);
    QString copyPath() const;
    // What the origin file holds; none when there is none.
    std::optional<QByteArray> writtenOrigin() const;
    QString originPath() const;

    const QString m_folder;
    const int m_instance;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::optional<Job> m_pending;
    bool m_busy = false;
    bool m_stopping = false;
    std::optional<QString> m_error;
    std::thread m_thread;
};
