#include "cue/ShowSession.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>

#include "cue/CueEngine.h"
#include "cue/Interaction.h"
#include "cue/MediaLoader.h"
#include "cue/StatusLine.h"
#include "device/AudioDeviceList.h"
#include "model/DocumentError.h"
#include "model/Prefs.h"
#include "model/ShowFile.h"

namespace {

const QString kFirstPage = QStringLiteral("ページ 1");

QString folderOf(const QString& path) {
    return QDir::cleanPath(QFileInfo(path).absolutePath());
}

KeymapDocument readShow(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw DocumentError(QStringLiteral("「%1」を開けません（%2）")
                                .arg(QFileInfo(path).fileName(), file.errorString()));
    return KeymapDocument::decode(file.readAll());
}

} // namespace

ShowSession::ShowSession(ShowDocument& document, MediaLoader& media, CueEngine& cues,
                         StatusLine& status, Settings settings)
    : m_document(document), m_media(media), m_cues(cues), m_status(status),
      m_settings(std::move(settings)), m_history(document) {
    connect(&m_history.stack(), &QUndoStack::cleanChanged, this, [this] { titleChanged(); });
    connect(&m_history.stack(), &QUndoStack::indexChanged, this, [this] { scheduleRecovery(); });
    m_recoveryTimer.setSingleShot(true);
    m_recoveryTimer.setInterval(kRecoveryDelay);
    connect(&m_recoveryTimer, &QTimer::timeout, this, [this] { updateRecovery(); });
}

QString ShowSession::documentName() const {
    return m_path ? QFileInfo(*m_path).fileName() : QStringLiteral("名称未設定.vorlin");
}

void ShowSession::titleChanged() {
    if (onTitleChange)
        onTitleChange();
}

void ShowSession::markDirty() {
    if (m_applying)
        return;
    scheduleRecovery();
    if (m_dirty)
        return;
    m_dirty = true;
    titleChanged();
}

KeymapDocument ShowSession::snapshot(const QString& base) {
    ShowDocument& show = m_document;
    show.storeCurrentPage();

    KeymapDocument doc;
    std::vector<PageDocument> pages;
    for (const KeyPage& page : show.pages)
        pages.push_back({page.name, ShowFile::stored(page.keys, base)});
    doc.pages = std::move(pages);
    doc.keys = ShowFile::stored(show.assignments, base);
    const MixSettings settings = m_settings.current();
    doc.outputDeviceUID = settings.outputDeviceUID;
    doc.masterVolume = settings.masterVolume;
    doc.stopAllFade = settings.stopAllFade;
    doc.currentPage = static_cast<std::int64_t>(show.currentPage);
    doc.midiBindings = show.midiBindings;
    const QStringList& outputs = settings.videoOutputs;
    doc.videoOutputs = outputs;
    doc.videoTarget = outputs.isEmpty() || outputs.first() == QStringLiteral("window")
                          ? QStringLiteral("window")
                          : QStringLiteral("display:") + outputs.first();
    doc.mutedOutputs =
        std::vector<std::int64_t>(settings.mutedOutputs.begin(), settings.mutedOutputs.end());
    return doc;
}

void ShowSession::save(const QString& path) {
    ShowFile::writeAtomically(path, snapshot(folderOf(path)).encode());
    m_path = path;
    m_dirty = false;
    m_history.stack().setClean();
    discardRecovery();
    Prefs::setValue(Prefs::lastKeymapKey(m_instance), path);
    titleChanged();
    emit assignmentsChanged();
}

void ShowSession::open(const QString& path) {
    const KeymapDocument doc = readShow(path);
    ShowFile::removeLeftovers(path, std::chrono::seconds(10));
    m_applying = true;
    load(doc, folderOf(path));
    finishOpening(path, doc, false);
    m_applying = false;
    reportSkippedKeys(doc);
}

void ShowSession::load(const KeymapDocument& doc, const QString& base) {
    m_cues.stopAll(true);
    std::vector<KeyPage> pages;
    if (doc.pages) {
        for (const PageDocument& page : *doc.pages) {
            KeyPage made;
            made.name = page.name;
            made.keys = ShowFile::resolve(page.keys, base);
            pages.push_back(std::move(made));
        }
    } else {
        KeyPage made;
        made.name = kFirstPage;
        made.keys = ShowFile::resolve(doc.keys, base);
        pages.push_back(std::move(made));
    }
    if (pages.empty()) {
        KeyPage empty;
        empty.name = kFirstPage;
        pages.push_back(std::move(empty));
    }
    const std::int64_t wanted = std::max<std::int64_t>(doc.currentPage.value_or(0), 0);
    const auto current = static_cast<std::size_t>(
        std::min<std::int64_t>(wanted, static_cast<std::int64_t>(pages.size()) - 1));

    ShowDocument& show = m_document;
    m_media.clear();
    show.pages = std::move(pages);
    show.loadPage(current);
    show.midiBindings = doc.midiBindings;

    MixSettings settings;
    settings.masterVolume = doc.masterVolume;
    settings.stopAllFade = doc.stopAllFade;
    const auto muted = doc.mutedOutputs.value_or(std::vector<std::int64_t>{});
    settings.mutedOutputs = {muted.begin(), muted.end()};
    if (doc.videoOutputs)
        settings.videoOutputs = *doc.videoOutputs;
    else if (doc.videoTarget.startsWith(QStringLiteral("display:")))
        settings.videoOutputs = {doc.videoTarget.mid(8)};
    settings.outputDeviceUID = doc.outputDeviceUID;
    m_settings.apply(settings);
}

void ShowSession::reportSkippedKeys(const KeymapDocument& doc) {
    QStringList skipped;
    auto collect = [&skipped](const std::map<QString, KeyAssignment>& keys) {
        for (const auto& [text, assignment] : keys)
            if (!ShowFile::keyCode(text) && !skipped.contains(text))
                skipped << text;
    };
    if (doc.pages) {
        for (const PageDocument& page : *doc.pages)
            collect(page.keys);
    } else {
        collect(doc.keys);
    }
    if (!skipped.isEmpty())
        m_status.show(QStringLiteral("キーとして読めない項目を読み飛ばしました: ") +
                      skipped.join(QStringLiteral("、")));
}

void ShowSession::finishOpening(const std::optional<QString>& path, const KeymapDocument& doc,
                                bool dirty) {
    if (doc.outputDeviceUID && !m_offline) {
        bool listed = false;
        for (const AudioOutputDevice& device : AudioDeviceList::outputDevices())
            listed = listed || QString::fromStdString(device.uid) == *doc.outputDeviceUID;
        if (!listed)
            m_status.show(QStringLiteral(
                "保存時の出力デバイスが見つからないため、システム既定に出力しています"));
    }
    m_path = path;
    m_dirty = dirty;
    m_history.stack().clear();
    if (!dirty)
        discardRecovery();
    m_media.reloadAll(true);
    if (path)
        Prefs::setValue(Prefs::lastKeymapKey(m_instance), *path);
    titleChanged();
    emit assignmentsChanged();
}

void ShowSession::newDocument() {
    m_cues.stopAll(true);
    m_applying = true;
    ShowDocument& show = m_document;
    show.assignments.clear();
    KeyPage first;
    first.name = kFirstPage;
    show.pages = {first};
    show.loadPage(0);
    show.midiBindings.clear();
    m_media.clear();
    MixSettings settings = m_settings.current();
    settings.mutedOutputs.clear();
    m_settings.apply(settings);
    m_applying = false;
    m_path.reset();
    m_dirty = false;
    m_history.stack().clear();
    discardRecovery();
    Prefs::remove(Prefs::lastKeymapKey(m_instance));
    titleChanged();
    emit assignmentsChanged();
}

void ShowSession::restoreLastDocument() {
    if (!Prefs::value(Prefs::kReopenLastKeymap, true).toBool())
        return;
    const QString last = Prefs::value(Prefs::lastKeymapKey(m_instance)).toString();
    if (last.isEmpty() || !QFileInfo::exists(last))
        return;
    try {
        open(last);
    } catch (const DocumentError& error) {
        m_status.show(QStringLiteral("前回のキーマップを開けません: ") + error.message());
    }
}

void ShowSession::enableRecovery(const QString& folder) {
    m_recovery = std::make_unique<RecoveryCopy>(folder, m_instance);
}

bool ShowSession::offerRecovery(Interaction& interaction) {
    const auto found = recoveryCopy();
    if (!found)
        return false;
    const QString name =
        found->origin ? QFileInfo(*found->origin).fileName() : QStringLiteral("名称未設定.vorlin");
    const QString when =
        QLocale(QLocale::Japanese).toString(found->written, QStringLiteral("yyyy/MM/dd HH:mm:ss"));
    const int answer =
        interaction.alert(QStringLiteral("保存されていない変更が残っています。復元しますか？"),
                          QStringLiteral("%1（%2 の時点）").arg(name, when),
                          {QStringLiteral("復元する"), QStringLiteral("破棄する")});
    if (answer != 0) {
        discardRecovery();
        return false;
    }
    try {
        restore(*found);
    } catch (const DocumentError& error) {
        m_status.show(QStringLiteral("保存されていない変更を復元できません: ") + error.message());
        return false;
    }
    return true;
}

void ShowSession::restore(const RecoveryCopy::Found& found) {
    const KeymapDocument doc = readShow(found.copyPath);
    // The copy was written with the paths relative to where it names the show (or to its own
    // folder for a show never saved), so media are found as an open of that file finds them.
    const QString base = found.origin ? folderOf(*found.origin) : folderOf(found.copyPath);
    m_applying = true;
    load(doc, base);
    finishOpening(found.origin, doc, true);
    m_applying = false;
    m_status.show(QStringLiteral("保存されていない変更を復元しました"));
}

void ShowSession::discardRecovery() {
    m_recoveryTimer.stop();
    if (m_recovery)
        m_recovery->remove();
}

void ShowSession::scheduleRecovery() {
    if (m_recovery && !m_recoveryTimer.isActive())
        m_recoveryTimer.start();
}

void ShowSession::flushRecovery() {
    if (!m_recovery)
        return;
    if (m_recoveryTimer.isActive()) {
        m_recoveryTimer.stop();
        updateRecovery();
    }
    m_recovery->flush();
}

void ShowSession::updateRecovery() {
    if (!isDirty()) {
        m_recovery->remove();
    } else {
        const QString base = m_path ? folderOf(*m_path) : m_recovery->folder();
        m_recovery->write(snapshot(base).encode(), m_path);
    }
    if (const auto error = m_recovery->takeError())
        m_status.show(QStringLiteral("復元用のコピーを書けません: ") + *error);
}

void ShowSession::setLocked(bool locked) {
    if (locked == m_locked)
        return;
    m_locked = locked;
    m_status.show(locked ? QStringLiteral("本番モード: 編集をロックしました")
                         : QStringLiteral("本番モードを解除しました"));
    emit lockChanged(locked);
}
