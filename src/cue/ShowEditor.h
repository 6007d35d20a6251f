#pragma once

#include <set>

#include <QObject>
#include <QString>
#include <QStringList>

#include "cue/EditHistory.h"
#include "cue/Interaction.h"
#include "model/KeyAssignment.h"
#include "model/ShowDocument.h"

class CueEngine;
class MediaLoader;
class Mixer;
class ShowSession;
class StatusLine;

// Putting files on keys and arranging pages: every operation changes the current page's working
// copy (or the pages), keeps the media table in step and is one step of the show's undo stack
// (ShowSession::history), which it also brings back. Questions go through the Interaction; a
// cancelled question changes nothing. Main thread.
class ShowEditor : public QObject {
    Q_OBJECT
public:
    // Short fade with which a key is stopped before its content changes.
    static constexpr double kEditFade = 0.05;

    // `session` is asked for the show's folder (relative paths) and told of every change.
    ShowEditor(ShowDocument& document, CueEngine& cues, Mixer& mixer, MediaLoader& media,
               StatusLine& status, ShowSession& session);

    void setInteraction(Interaction* interaction) { m_ask = interaction ? interaction : &m_cancel; }

    // Files dropped on a key cell: the drop preferences decide (asking when they say "ask").
    // While the show is locked: says so in the status line and returns true; the caller then
    // changes nothing. Every edit below asks first.
    bool refuseWhenLocked();

    void place(const QStringList& files, KeyCode code);
    void assign(const QString& file, KeyCode code);
    void assign(const QStringList& files, KeyCode startingAt);
    void assignList(const QStringList& files, KeyCode code);
    void appendToKey(const QStringList& files, KeyCode code);
    // `itemID`: a deck item's id, or for a plain list the item's position ("0", "1", …).
    void removeFromList(KeyCode code, const QString& itemID);
    void clear(KeyCode code);
    void copyKey(KeyCode code, std::size_t toPage);
    void applyRoutingToAll(KeyCode from);
    void replaceFile(KeyCode code);
    void addFiles(KeyCode code);
    // An edited assignment; the key's running voices take the new volume and loop at once.
    void update(KeyCode code, const KeyAssignment& assignment);
    void renameKey(KeyCode code);
    void renameDeckItem(KeyCode code, const QString& itemID);
    // The key's own item list (what the operator changed of its deck or list), or none, so
    // that the deck's own list applies again. A running cue keeps the list it started with.
    void setDeckItems(KeyCode code, const std::vector<DeckItem>& items);
    void resetDeckItems(KeyCode code);

    // Tabs of the deck panel: only for a deck key of the current page; opening one shows it.
    void openDeckTab(KeyCode code);
    void closeDeckTab(KeyCode code);

    void newPage(bool duplicate);
    void switchPage(std::size_t index);
    void stepPage(int delta);
    void renamePage(std::size_t index);
    void deletePage(std::size_t index);
    void movePages(const std::set<std::size_t>& from, std::size_t to);

    // Extensions the open panels accept (audio, video, image, PDF and presentations).
    static QStringList openPanelTypes();
    static bool isSupported(const QString& file);
    // Whether a file exists but the system refuses to let us read it.
    static bool isPermissionError(const QString& file);

signals:
    void deckTabsChanged();
    // Keys or pages changed (an edit, or another page shown).
    void assignmentsChanged();

private:
    QStringList supported(const QStringList& files);
    std::int64_t colorFor(KeyCode code) const;
    void store(KeyCode code, const KeyAssignment& assignment);
    void changed();
    // The key's running voices take the volume and loop of `assignment`.
    void applyToRunning(KeyCode code, const KeyAssignment& assignment);
    // Undo and redo: the document, its media and the running keys brought to `state`.
    void restore(const EditHistory::State& state);

    ShowDocument& m_document;
    CueEngine& m_cues;
    Mixer& m_mixer;
    MediaLoader& m_media;
    StatusLine& m_status;
    ShowSession& m_session;
    CancellingInteraction m_cancel;
    Interaction* m_ask = &m_cancel;
};
