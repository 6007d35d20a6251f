#include "cue/MediaLoader.h"

#include <set>

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>

#include "deck/DeckBuilder.h"
#include "deck/DeckError.h"
#include "media/MovieDecoder.h"

namespace {

const QString kLoading = QStringLiteral("読み込み中…");
const QString kBuildingSlides = QStringLiteral("スライドを展開中…（初回のみ）");
const QString kLoadingList = QStringLiteral("素材を読み込み中…");
const QString kNotFound = QStringLiteral("ファイルが見つかりません");

// A key of a slide file (not a list that happens to start with one).
bool isSlideKey(const KeyAssignment& a) {
    return !(a.sources && !a.sources->isEmpty()) && DeckBuilder::isSlideFile(a.path);
}

// What a single sound or movie file becomes; runs on a pool thread.
MediaInfo loadFile(const QString& path, double rate, const AudioLoader::CancelFlag* cancel,
                   QStringList& missing) {
    MediaInfo info;
    if (!QFileInfo(path).isFile()) {
        missing << QFileInfo(path).fileName();
        info.error = kNotFound;
        return info;
    }
    const std::string file = path.toStdString();
    info.probe = AudioLoader::probe(file, cancel);
    if (cancel && cancel->load())
        return info;
    if (!info.probe.hasAudio && !info.probe.hasVideo) {
        info.error = QStringLiteral("再生できないファイルです");
        return info;
    }
    if (const std::string refused = MovieDecoder::refusal(info.probe); !refused.empty()) {
        info.error = QString::fromStdString(refused);
        return info;
    }
    if (!info.probe.hasAudio)
        return info;
    try {
        info.clip = AudioLoader::loadClip(file, rate, info.probe, cancel);
        if (info.clip->damagedSamples > 0)
            info.warning = QStringLiteral("壊れたデータを含みます（%1 サンプルを無音にしました）")
                               .arg(info.clip->damagedSamples);
    } catch (const LoadError& error) {
        if (error.kind() == LoadError::Kind::cancelled)
            return info;
        if (info.probe.hasVideo)
            info.audioViaPlayer = true; // the picture still plays, with the player's own sound
        else
            info.error = QString::fromStdString(error.message());
    }
    return info;
}

// What a slide file, a list or a picture becomes: a deck with its sound decoded; runs on a pool
// thread.
MediaInfo loadDeck(const KeyAssignment& a, double rate, const AudioLoader::CancelFlag* cancel,
                   const DeckBuilder::Progress& progress, QStringList& missing) {
    MediaInfo info;
    const bool slides = isSlideKey(a);
    const QStringList files =
        slides ? QStringList{a.path} : a.listSources().value_or(QStringList{a.path});
    for (const QString& file : files) {
        if (!QFileInfo(file).isFile())
            missing << QFileInfo(file).fileName();
    }
    if (missing.size() == files.size()) {
        info.error = kNotFound; // nothing of it is there
        return info;
    }
    try {
        std::shared_ptr<Deck> deck = slides
                                         ? DeckBuilder::buildSlides(a.path, false, progress, cancel)
                                         : DeckBuilder::buildList(files, cancel);
        DeckBuilder::loadMedia(*deck, rate, cancel);
        if (files.size() == 1 && !slides) {
            // A key of one picture: a picture that is none is the key's error, and the first
            // press should find it decoded.
            const QString& file = deck->manifest.items.front().file;
            if (const auto failed = deck->failures.find(file); failed != deck->failures.end()) {
                info.error = failed->second;
                return info;
            }
            if (deck->manifest.items.front().kind == DeckItem::Kind::image)
                deck->picture(file);
        }
        info.deck = std::move(deck);
    } catch (const DeckError& error) {
        info.error = error.message();
    }
    return info;
}

} // namespace

MediaLoader::MediaLoader(ShowDocument& document, std::function<double()> targetRate,
                         QObject* parent)
    : QObject(parent), m_document(document), m_targetRate(std::move(targetRate)) {
    m_slideBuilds.setMaxThreadCount(1);
}

MediaLoader::~MediaLoader() {
    for (auto& [key, running] : m_running)
        *running.cancel = true;
    // Pool tasks hold what they use; their queued results find this object gone.
}

void MediaLoader::loadMedia(const KeyAssignment& assignment, bool force) {
    const QString key = assignment.mediaKey();
    if (!force && m_table.count(key))
        return;
    if (auto running = m_running.find(key); running != m_running.end())
        *running->second.cancel = true;
    const bool isDeck = assignment.isDeck();
    MediaInfo placeholder;
    placeholder.loading = true;
    const bool slides = isSlideKey(assignment);
    placeholder.progressText = !isDeck ? kLoading : slides ? kBuildingSlides : kLoadingList;
    m_table[key] = placeholder;
    const std::uint64_t generation = ++m_generation;
    auto cancel = std::make_shared<AudioLoader::CancelFlag>(false);
    m_running[key] = {generation, cancel};
    emit mediaChanged(key);

    const double rate = m_targetRate();
    QPointer<MediaLoader> self(this);
    QThreadPool* pool = slides ? &m_slideBuilds : QThreadPool::globalInstance();
    pool->start([self, key, assignment, isDeck, rate, cancel, generation] {
        // Results and progress go through the application object, which lives on the main
        // thread (a pool task has no event loop of its own).
        const auto toMain = [](auto call) {
            QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(call),
                                      Qt::QueuedConnection);
        };
        const DeckBuilder::Progress progress = [&](const QString& text) {
            toMain([self, key, generation, text] {
                if (self)
                    self->progressed(key, generation, text);
            });
        };
        QStringList missing;
        MediaInfo info = isDeck ? loadDeck(assignment, rate, cancel.get(), progress, missing)
                                : loadFile(assignment.path, rate, cancel.get(), missing);
        toMain([self, key, generation, info = std::move(info), missing]() mutable {
            if (self)
                self->finished(key, generation, std::move(info), missing);
        });
    });
}

void MediaLoader::progressed(const QString& key, std::uint64_t generation, const QString& text) {
    const auto running = m_running.find(key);
    const auto entry = m_table.find(key);
    if (running == m_running.end() || running->second.generation != generation ||
        entry == m_table.end())
        return;
    entry->second.progressText = text;
    emit mediaChanged(key);
}

void MediaLoader::finished(const QString& key, std::uint64_t generation, MediaInfo info,
                           QStringList missing) {
    const auto running = m_running.find(key);
    if (running == m_running.end() || running->second.generation != generation)
        return; // released or reloaded meanwhile
    m_running.erase(running);
    const std::optional<QString> warning = info.warning;
    if (m_table.count(key))
        m_table[key] = std::move(info);
    emit mediaChanged(key);
    if (!missing.isEmpty())
        emit missingFiles(missing);
    if (warning)
        emit damaged(QFileInfo(key).fileName() + QStringLiteral(": ") + *warning);
}

void MediaLoader::reloadAll(bool force) {
    // A file on many keys or pages is one media entry: load it once, not once per key (each
    // forced load would cancel the one before).
    std::set<QString> started;
    for (const KeyAssignment& a : m_document.allAssignments()) {
        if (started.insert(a.mediaKey()).second)
            loadMedia(a, force);
    }
}

void MediaLoader::releaseMediaIfUnused(const std::optional<QString>& excluding) {
    std::set<QString> used;
    for (const KeyAssignment& a : m_document.allAssignments())
        used.insert(a.mediaKey());
    for (auto it = m_table.begin(); it != m_table.end();) {
        if (used.count(it->first) || it->first == excluding) {
            ++it;
            continue;
        }
        if (auto running = m_running.find(it->first); running != m_running.end()) {
            *running->second.cancel = true;
            m_running.erase(running);
        }
        it = m_table.erase(it);
    }
}

void MediaLoader::clear() {
    for (auto& [key, running] : m_running)
        *running.cancel = true;
    m_running.clear();
    m_table.clear();
}
