#include "cue/MediaLoader.h"

#include <set>

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>
#include <QThreadPool>

#include "video/PictureFile.h"

namespace {

const QString kLoading = QStringLiteral("読み込み中…");

// What a single file becomes; runs on a pool thread.
MediaInfo loadFile(const QString& path, bool isPicture, double rate,
                   const AudioLoader::CancelFlag* cancel, bool& missing) {
    MediaInfo info;
    if (!QFileInfo(path).isFile()) {
        missing = true;
        info.error = QStringLiteral("ファイルが見つかりません");
        return info;
    }
    if (isPicture) {
        QString error;
        info.picture = PictureFile::read(path, error);
        if (info.picture.isNull())
            info.error = error;
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

std::optional<QString> notYetPlayable(const KeyAssignment& a) {
    if (a.sources && !a.sources->isEmpty())
        return QStringLiteral("リスト（押すたび次へ）の再生にはまだ対応していません");
    // A single picture is a deck of one; until decks play it is shown as an image cue.
    if (a.isDeck() && !a.isImage())
        return QStringLiteral("スライドの再生にはまだ対応していません");
    return std::nullopt;
}

} // namespace

MediaLoader::MediaLoader(ShowDocument& document, std::function<double()> targetRate,
                         QObject* parent)
    : QObject(parent), m_document(document), m_targetRate(std::move(targetRate)) {}

MediaLoader::~MediaLoader() {
    for (auto& [key, running] : m_running)
        *running.cancel = true;
    // Pool tasks hold what they use; their queued results find this object gone.
}

void MediaLoader::loadMedia(const KeyAssignment& assignment, bool force) {
    const QString key = assignment.mediaKey();
    if (!force && m_table.count(key))
        return;
    if (const auto reason = notYetPlayable(assignment)) {
        MediaInfo info;
        info.error = *reason;
        m_table[key] = info;
        emit mediaChanged(key);
        return;
    }
    if (auto running = m_running.find(key); running != m_running.end())
        *running->second.cancel = true;
    MediaInfo placeholder;
    placeholder.loading = true;
    placeholder.progressText = kLoading;
    m_table[key] = placeholder;
    const std::uint64_t generation = ++m_generation;
    auto cancel = std::make_shared<AudioLoader::CancelFlag>(false);
    m_running[key] = {generation, cancel};
    emit mediaChanged(key);

    const QString path = assignment.path;
    const bool isPicture = assignment.isImage();
    const double rate = m_targetRate();
    QPointer<MediaLoader> self(this);
    QThreadPool::globalInstance()->start([self, key, path, isPicture, rate, cancel, generation] {
        bool missing = false;
        MediaInfo info = loadFile(path, isPicture, rate, cancel.get(), missing);
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), // lives on the main thread, unlike a pool task
            [self, key, generation, info = std::move(info), missing]() mutable {
                if (self)
                    self->finished(key, generation, std::move(info), missing);
            },
            Qt::QueuedConnection);
    });
}

void MediaLoader::finished(const QString& key, std::uint64_t generation, MediaInfo info,
                           bool missing) {
    const auto running = m_running.find(key);
    if (running == m_running.end() || running->second.generation != generation)
        return; // released or reloaded meanwhile
    m_running.erase(running);
    const std::optional<QString> warning = info.warning;
    if (m_table.count(key))
        m_table[key] = std::move(info);
    emit mediaChanged(key);
    if (missing)
        emit missingFiles({QFileInfo(key).fileName()});
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
