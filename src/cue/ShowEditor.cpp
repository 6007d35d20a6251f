#include "cue/ShowEditor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <QFileInfo>
#include <QMimeDatabase>

#include "audio/Mixer.h"
#include "cue/CueEngine.h"
#include "cue/MediaLoader.h"
#include "cue/ShowSession.h"
#include "cue/StatusLine.h"
#include "model/KeyboardLayout.h"
#include "model/Prefs.h"
#include "model/ShowFile.h"

namespace {

const QStringList kExtensions = {
    // audio
    "wav", "wave", "aif", "aiff", "aifc", "flac", "mp3", "m4a", "aac", "ogg", "oga", "opus", "caf",
    "wma",
    // video
    "mp4", "m4v", "mov", "mkv", "webm", "avi", "mpg", "mpeg", "ts", "mts", "m2ts",
    // pictures
    "png", "jpg", "jpeg", "gif", "bmp", "tif", "tiff", "webp", "heic",
    // documents and presentations
    "pdf", "pptx", "ppt", "key", "odp"};

QString labelOf(KeyCode code) {
    return KeyboardLayout::label(code);
}

} // namespace

ShowEditor::ShowEditor(ShowDocument& document, CueEngine& cues, Mixer& mixer, MediaLoader& media,
                       StatusLine& status, ShowSession& session)
    : m_document(document), m_cues(cues), m_mixer(mixer), m_media(media), m_status(status),
      m_session(session) {
    session.history().setRestore([this](const EditHistory::State& state) { restore(state); });
}

QStringList ShowEditor::openPanelTypes() {
    return kExtensions;
}

bool ShowEditor::isSupported(const QString& file) {
    if (kExtensions.contains(QFileInfo(file).suffix().toLower()))
        return true;
    static const QMimeDatabase database;
    const QString type = database.mimeTypeForFile(file, QMimeDatabase::MatchExtension).name();
    return type.startsWith("audio/") || type.startsWith("video/") || type.startsWith("image/");
}

bool ShowEditor::isPermissionError(const QString& file) {
    const int fd = ::open(QFile::encodeName(file).constData(), O_RDONLY);
    if (fd >= 0) {
        ::close(fd);
        return false;
    }
    return errno == EACCES || errno == EPERM;
}

QStringList ShowEditor::supported(const QStringList& files) {
    QStringList kept;
    for (const QString& file : files)
        if (isSupported(file))
            kept << file;
    if (kept.isEmpty())
        m_status.show(QStringLiteral("対応していないファイルです"));
    return kept;
}

std::int64_t ShowEditor::colorFor(KeyCode code) const {
    const auto& keys = m_document.assignments;
    const auto found = keys.find(code);
    if (found != keys.end())
        return found->second.colorIndex;
    return static_cast<std::int64_t>(keys.size() % 12);
}

bool ShowEditor::refuseWhenLocked() {
    if (!m_session.isLocked())
        return false;
    m_status.show(QStringLiteral("本番モード中は編集できません（再生 › 本番モードで解除）"));
    // A view may already show what it asked for (a ticked box, a moved row): it shows the
    // document again, once the widget that asked is out of its own signal (a list rebuilt
    // inside its item's change would delete the item under it).
    QMetaObject::invokeMethod(this, &ShowEditor::assignmentsChanged, Qt::QueuedConnection);
    return true;
}

void ShowEditor::store(KeyCode code, const KeyAssignment& assignment) {
    m_document.assignments[code] = assignment;
    m_media.loadMedia(assignment, false);
    m_media.releaseMediaIfUnused();
    changed();
}

void ShowEditor::changed() {
    emit assignmentsChanged(); // the undo stack says the show changed
}

void ShowEditor::place(const QStringList& dropped, KeyCode code) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーにドロップ");
    const QStringList files = supported(dropped);
    if (files.isEmpty())
        return;
    const QString L = labelOf(code);
    const auto& keys = m_document.assignments;
    if (const auto held = keys.find(code); held != keys.end()) {
        QString policy = Prefs::value(Prefs::kOccupiedDrop).toString();
        if (policy != "append" && policy != "replace") {
            const int answer = m_ask->alert(L + " キーにはすでに素材があります",
                                            "いま「" + held->second.displayName() +
                                                "」が入っています。\n「後ろに追加」にすると、" + L +
                                                " キーを押すたびに順番に切り替わります。",
                                            {"後ろに追加", "差し替える", "キャンセル"});
            if (answer != 0 && answer != 1)
                return;
            policy = answer == 0 ? "append" : "replace";
        }
        if (policy == "append")
            appendToKey(files, code);
        else if (files.size() > 1)
            assignList(files, code);
        else
            assign(files.first(), code);
        return;
    }
    if (files.size() == 1)
        return assign(files.first(), code);
    QString policy = Prefs::value(Prefs::kMultiDrop).toString();
    if (policy != "list" && policy != "spread") {
        const int answer = m_ask->alert(
            QString::number(files.size()) + " 個のファイルをどう入れますか？",
            "「" + L + " キーにまとめる」にすると、" + L +
                " キーを押すたびに順番に切り替わります（Keynote・PowerPoint のように）。",
            {L + " キーにまとめる", "後ろの空きキーに 1 つずつ", "キャンセル"});
        if (answer != 0 && answer != 1)
            return;
        policy = answer == 0 ? "list" : "spread";
    }
    if (policy == "list")
        assignList(files, code);
    else
        assign(files, code);
}

void ShowEditor::assign(const QString& file, KeyCode code) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーに割り当て");
    if (m_document.assignments.count(code))
        m_cues.stopKey(code, kEditFade);
    store(code, newAssignment(file, colorFor(code)));
}

void ShowEditor::assign(const QStringList& dropped, KeyCode startingAt) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(startingAt) + " キーから割り当て");
    const QStringList files = supported(dropped);
    if (files.isEmpty())
        return;
    assign(files.first(), startingAt);
    const auto& order = KeyboardLayout::fillOrder();
    auto next = std::find(order.begin(), order.end(), startingAt);
    qsizetype placed = 1;
    if (next != order.end()) {
        for (++next; next != order.end() && placed < files.size(); ++next) {
            if (!m_document.assignments.count(*next))
                assign(files[placed++], *next);
        }
    }
    if (const qsizetype left = files.size() - placed; left > 0)
        m_status.show("空きキーが足りず " + QString::number(left) +
                      " 個のファイルを割り当てられませんでした");
}

void ShowEditor::assignList(const QStringList& dropped, KeyCode code) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーにリストを割り当て");
    const QStringList files = supported(dropped);
    if (files.isEmpty())
        return;
    if (m_document.assignments.count(code))
        m_cues.stopKey(code, kEditFade);
    KeyAssignment a = newAssignment(files.first(), colorFor(code));
    a.sources = files;
    if (const auto& path = m_session.documentPath()) {
        QStringList relative;
        for (const QString& file : files)
            relative << ShowFile::relativePath(file, QFileInfo(*path).absolutePath());
        a.relativeSources = relative;
    }
    store(code, a);
}

void ShowEditor::appendToKey(const QStringList& dropped, KeyCode code) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーに追加");
    const QStringList files = supported(dropped);
    if (files.isEmpty())
        return;
    auto& keys = m_document.assignments;
    const auto held = keys.find(code);
    if (held == keys.end())
        return assignList(files, code);
    KeyAssignment a = held->second;
    QStringList sources = a.sources && !a.sources->isEmpty() ? *a.sources : QStringList{a.path};
    sources << files;
    a.sources = sources;
    a.relativeSources.reset(); // made anew when the show is saved
    store(code, a);
    m_status.show(labelOf(code) + " キーに " + QString::number(files.size()) +
                  " 個追加しました（押すたび順に切り替わります）");
}

void ShowEditor::removeFromList(KeyCode code, const QString& itemID) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーの項目を削除");
    auto& keys = m_document.assignments;
    const auto held = keys.find(code);
    if (held == keys.end())
        return;
    KeyAssignment a = held->second;
    QStringList sources = a.sources ? *a.sources : QStringList{a.path};
    qsizetype index = -1;
    if (a.deckItems) {
        if (const auto found = DeckItem::indexOf(*a.deckItems, itemID))
            index = static_cast<qsizetype>(*found);
    }
    if (index < 0) {
        bool ok = false;
        index = itemID.toLongLong(&ok);
        if (!ok)
            return;
    }
    if (index < 0 || index >= sources.size())
        return;
    m_cues.stopKey(code, kEditFade);
    sources.removeAt(index);
    if (a.relativeSources && index < a.relativeSources->size())
        a.relativeSources->removeAt(index);
    if (a.deckItems && index < static_cast<qsizetype>(a.deckItems->size()))
        a.deckItems->erase(a.deckItems->begin() + index);
    if (sources.isEmpty())
        return clear(code);
    a.sources = sources;
    a.path = sources.first();
    store(code, a);
}

void ShowEditor::clear(KeyCode code) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーをクリア");
    if (!m_document.assignments.count(code))
        return;
    closeDeckTab(code);
    m_cues.stopKey(code, kEditFade);
    m_document.assignments.erase(code);
    m_media.releaseMediaIfUnused();
    changed();
}

void ShowEditor::copyKey(KeyCode code, std::size_t toPage) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーをコピー");
    ShowDocument& show = m_document;
    const auto held = show.assignments.find(code);
    if (held == show.assignments.end() || toPage >= show.pages.size())
        return;
    auto& target = toPage == show.currentPage ? show.assignments : show.pages[toPage].keys;
    if (const auto there = target.find(code);
        there != target.end() && !(there->second == held->second)) {
        if (m_ask->alert(labelOf(code) + " キーにはすでに素材があります", "上書きしますか？",
                         {"上書きする", "キャンセル"}) != 0)
            return;
    }
    target[code] = held->second;
    m_status.show(labelOf(code) + " キーを「" + show.pages[toPage].name + "」にコピーしました");
    changed();
}

void ShowEditor::applyRoutingToAll(KeyCode from) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(),
                                 labelOf(from) + " のルーティングを全キーに適用");
    auto& keys = m_document.assignments;
    const auto source = keys.find(from);
    if (source == keys.end())
        return;
    for (auto& [code, a] : keys) {
        a.outputMap = source->second.outputMap;
        a.matrix = source->second.matrix;
    }
    m_status.show(labelOf(from) + " のルーティングを全キーに適用しました");
    changed();
}

void ShowEditor::replaceFile(KeyCode code) {
    if (refuseWhenLocked())
        return;
    const QStringList files = m_ask->chooseFiles(
        labelOf(code) + " キーの素材を差し替え（複数選ぶと順番に切り替わる 1 つのキーになります）",
        openPanelTypes(), true);
    if (files.size() > 1)
        assignList(files, code);
    else if (files.size() == 1)
        assign(files.first(), code);
}

void ShowEditor::addFiles(KeyCode code) {
    if (refuseWhenLocked())
        return;
    const QStringList files =
        m_ask->chooseFiles(labelOf(code) + " キーの最後に追加するファイル", openPanelTypes(), true);
    if (!files.isEmpty())
        appendToKey(files, code);
}

void ShowEditor::update(KeyCode code, const KeyAssignment& assignment) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーの設定を変更");
    applyToRunning(code, assignment);
    store(code, assignment);
}

void ShowEditor::applyToRunning(KeyCode code, const KeyAssignment& assignment) {
    for (const ActiveCuePtr& cue : m_cues.cues()) {
        if (!m_cues.runsFor(*cue, code) || !cue->voiceID)
            continue;
        m_mixer.setVolume(*cue->voiceID, static_cast<float>(assignment.volume));
        m_mixer.setLoop(*cue->voiceID, assignment.loop);
    }
}

void ShowEditor::restore(const EditHistory::State& state) {
    ShowDocument& show = m_document;
    if (state.pages.empty())
        return;
    const std::size_t current = std::min(state.currentPage, state.pages.size() - 1);
    const KeyPage& target = state.pages[current];
    // The keys the page to be shown has now: the working copy, another page's, or none (a
    // deleted page coming back).
    const bool samePage = show.currentPageID() == target.id;
    std::map<KeyCode, KeyAssignment> before;
    if (samePage) {
        before = show.assignments;
    } else {
        for (const KeyPage& page : show.pages)
            if (page.id == target.id)
                before = page.keys;
    }
    show.pages = state.pages;
    if (samePage) {
        show.currentPage = current;
        show.assignments = target.keys;
        const std::vector<KeyCode> tabs = show.deckTabs;
        for (KeyCode code : tabs) {
            const auto held = show.assignments.find(code);
            if (held == show.assignments.end() || !held->second.isDeck())
                closeDeckTab(code);
        }
    } else {
        show.loadPage(current);
    }
    show.selectedKey = state.selectedKey;
    // A key whose files change stops with the short fade, as the edit itself stopped it; one
    // whose settings change keeps playing with the volume and loop it has again.
    for (const auto& [code, was] : before) {
        const auto now = show.assignments.find(code);
        if (now == show.assignments.end() || now->second.path != was.path ||
            now->second.sources != was.sources)
            m_cues.stopKey(code, kEditFade);
        else if (!(now->second == was))
            applyToRunning(code, now->second);
    }
    m_media.reloadAll(false);
    m_media.releaseMediaIfUnused();
    emit assignmentsChanged();
    emit deckTabsChanged();
}

void ShowEditor::renameKey(KeyCode code) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーの名前を変更");
    auto& keys = m_document.assignments;
    const auto held = keys.find(code);
    if (held == keys.end())
        return;
    if (const auto name =
            m_ask->askName(QStringLiteral("キーの名前を変更"), held->second.displayName())) {
        held->second.title = *name;
        changed();
    }
}

void ShowEditor::renameDeckItem(KeyCode code, const QString& itemID) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーの項目の名前を変更");
    if (!m_document.assignments.count(code))
        return;
    // The key's own list, or the deck's as the key would play it: renaming makes it the key's.
    std::vector<DeckItem> items = m_cues.deckItems(code);
    const auto found = DeckItem::indexOf(items, itemID);
    if (!found)
        return;
    DeckItem& item = items[*found];
    if (const auto name = m_ask->askName(QStringLiteral("項目の名前を変更"), item.title)) {
        item.title = *name;
        setDeckItems(code, items);
    }
}

void ShowEditor::setDeckItems(KeyCode code, const std::vector<DeckItem>& items) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーの項目を変更");
    const auto held = m_document.assignments.find(code);
    if (held == m_document.assignments.end())
        return;
    KeyAssignment a = held->second;
    a.deckItems = items;
    store(code, a);
}

void ShowEditor::resetDeckItems(KeyCode code) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), labelOf(code) + " キーの項目を元に戻す");
    const auto held = m_document.assignments.find(code);
    if (held == m_document.assignments.end() || !held->second.deckItems)
        return;
    KeyAssignment a = held->second;
    a.deckItems.reset();
    store(code, a);
}

void ShowEditor::openDeckTab(KeyCode code) {
    ShowDocument& show = m_document;
    const auto held = show.assignments.find(code);
    if (held == show.assignments.end() || !held->second.isDeck())
        return;
    if (std::find(show.deckTabs.begin(), show.deckTabs.end(), code) == show.deckTabs.end())
        show.deckTabs.push_back(code);
    show.activeDeckTab = code;
    emit deckTabsChanged();
}

void ShowEditor::closeDeckTab(KeyCode code) {
    ShowDocument& show = m_document;
    const auto tab = std::find(show.deckTabs.begin(), show.deckTabs.end(), code);
    if (tab == show.deckTabs.end())
        return;
    show.deckTabs.erase(tab);
    if (show.activeDeckTab == code)
        show.activeDeckTab =
            show.deckTabs.empty() ? std::nullopt : std::optional<KeyCode>(show.deckTabs.back());
    emit deckTabsChanged();
}

void ShowEditor::newPage(bool duplicate) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), duplicate ? QStringLiteral("ページを複製")
                                                                : QStringLiteral("ページを追加"));
    ShowDocument& show = m_document;
    show.storeCurrentPage();
    KeyPage page;
    if (duplicate) {
        page.name = show.pages[show.currentPage].name + " のコピー";
        page.keys = show.assignments;
    } else {
        page.name = "ページ " + QString::number(show.pages.size() + 1);
    }
    show.pages.push_back(std::move(page));
    switchPage(show.pages.size() - 1);
}

void ShowEditor::switchPage(std::size_t index) {
    ShowDocument& show = m_document;
    if (index >= show.pages.size() || index == show.currentPage)
        return;
    // Running cues keep playing; they are listed with their page.
    const bool hadTabs = !show.deckTabs.empty();
    show.storeCurrentPage();
    show.loadPage(index);
    m_media.reloadAll(false);
    emit assignmentsChanged();
    if (hadTabs)
        emit deckTabsChanged();
}

void ShowEditor::stepPage(int delta) {
    const auto target = static_cast<std::int64_t>(m_document.currentPage) + delta;
    if (target >= 0 && target < static_cast<std::int64_t>(m_document.pages.size()))
        switchPage(static_cast<std::size_t>(target));
}

void ShowEditor::renamePage(std::size_t index) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), QStringLiteral("ページの名前を変更"));
    ShowDocument& show = m_document;
    if (index >= show.pages.size())
        return;
    if (const auto name =
            m_ask->askName(QStringLiteral("ページの名前を変更"), show.pages[index].name)) {
        show.pages[index].name = *name;
        changed();
    }
}

void ShowEditor::deletePage(std::size_t index) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), QStringLiteral("ページを削除"));
    ShowDocument& show = m_document;
    if (index >= show.pages.size())
        return;
    if (m_ask->alert("「" + show.pages[index].name + "」を削除しますか？",
                     "このページのキーの割り当てが消えます（素材のファイルは消えません）。",
                     {"削除", "キャンセル"}) != 0)
        return;
    show.storeCurrentPage();
    show.pages.erase(show.pages.begin() + static_cast<std::ptrdiff_t>(index));
    if (show.pages.empty()) { // a show always has a page
        KeyPage first;
        first.name = "ページ 1";
        show.pages.push_back(first);
    }
    std::size_t current = show.currentPage;
    if (index < current)
        --current;
    show.loadPage(std::min(current, show.pages.size() - 1));
    m_media.reloadAll(false);
    m_media.releaseMediaIfUnused();
    changed();
}

void ShowEditor::movePages(const std::set<std::size_t>& from, std::size_t to) {
    if (refuseWhenLocked())
        return;
    const EditHistory::Step step(m_session.history(), QStringLiteral("ページを移動"));
    ShowDocument& show = m_document;
    show.storeCurrentPage();
    const QUuid current = show.currentPageID();
    std::vector<KeyPage> moved, rest;
    std::size_t before = 0; // moved pages that stood in front of the destination
    for (std::size_t i = 0; i < show.pages.size(); ++i) {
        if (from.count(i)) {
            moved.push_back(show.pages[i]);
            before += i < to;
        } else {
            rest.push_back(show.pages[i]);
        }
    }
    const std::size_t at = std::min(to - std::min(to, before), rest.size());
    rest.insert(rest.begin() + static_cast<std::ptrdiff_t>(at), moved.begin(), moved.end());
    show.pages = std::move(rest);
    for (std::size_t i = 0; i < show.pages.size(); ++i)
        if (show.pages[i].id == current)
            show.currentPage = i;
    changed();
}
