#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>

#include <QObject>
#include <QString>
#include <QStringList>
#include <QThreadPool>

#include "cue/MediaInfo.h"
#include "media/AudioLoader.h"
#include "model/ShowDocument.h"

// Owns the media table and keeps it in step with the keys: probes and decodes each key's media on
// Qt's thread pool and stores the result under its media key; drops what
// no key uses any more (freeing the decoded audio and cancelling a load still running).
//
// Slide files, pictures and lists become decks with the deck builder (a slide file's pictures
// are rendered once and kept in the deck cache); their entry shows the build's progress.
//
// Threading: main thread; the work runs on pool threads (slide files on a pool of their own) and
// its result comes back through a queued call. A result for an entry released or reloaded meanwhile
// is dropped.
class MediaLoader : public QObject {
    Q_OBJECT
public:
    // `targetRate` gives the engine's rate at the moment a load starts.
    MediaLoader(ShowDocument& document, std::function<double()> targetRate,
                QObject* parent = nullptr);
    ~MediaLoader() override;

    const MediaTable& table() const { return m_table; }
    // For putting a made-up entry in place (tests, benchmarks).
    MediaTable& table() { return m_table; }
    const MediaInfo* infoFor(const KeyAssignment& assignment) const {
        return mediaFor(m_table, assignment);
    }

    void loadMedia(const KeyAssignment& assignment, bool force);
    // Every assignment of every page.
    void reloadAll(bool force);
    void releaseMediaIfUnused(const std::optional<QString>& excluding = std::nullopt);
    // Empties the table and cancels every load (another show replaces this one).
    void clear();
    // Loads still running.
    int pending() const { return static_cast<int>(m_running.size()); }

signals:
    void mediaChanged(const QString& mediaKey);
    // Files that were not where their key says (names only).
    void missingFiles(const QStringList& names);
    // A file loaded with damage (its name and what was done about it).
    void damaged(const QString& message);

private:
    struct Running {
        std::uint64_t generation = 0;
        std::shared_ptr<AudioLoader::CancelFlag> cancel;
    };

    void finished(const QString& key, std::uint64_t generation, MediaInfo info,
                  QStringList missing);
    void progressed(const QString& key, std::uint64_t generation, const QString& text);

    ShowDocument& m_document;
    MediaTable m_table;
    std::function<double()> m_targetRate;
    std::map<QString, Running> m_running;
    // Slide files build here, one at a time: a conversion holds its thread for as long as the
    // office takes, and sounds must not wait behind it on Qt's global pool.
    QThreadPool m_slideBuilds;
    std::uint64_t m_generation = 0;
};
