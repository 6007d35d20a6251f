#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include <QObject>
#include <QString>
#include <QTimer>

#include "cue/EditHistory.h"
#include "cue/MixSettings.h"
#include "cue/RecoveryCopy.h"
#include "model/KeymapDocument.h"
#include "model/ShowDocument.h"

class CueEngine;
class Interaction;
class MediaLoader;
class StatusLine;

// The show as a file: saving, opening, a new show, reopening the last one, dirty tracking, the
// undo stack (cleared with every show opened or made) and the name in the title. The show is
// changed when the undo stack is away from where the file was saved or opened, or a setting
// kept in the file (mix, outputs, MIDI) changed since. It replaces the document's pages itself; the
// mix settings the file keeps are the owner's, read through `current` and handed over through
// `apply`. While the show is changed, a recovery copy of it is kept (once enabled), written a
// short while after each edit. Main thread.
class ShowSession : public QObject {
    Q_OBJECT
public:
    // An edit reaches the recovery copy this long after it, at the latest (a stream of edits
    // does not put it off).
    static constexpr std::chrono::milliseconds kRecoveryDelay{2000};

    struct Settings {
        std::function<MixSettings()> current;
        std::function<void(const MixSettings&)> apply;
    };

    ShowSession(ShowDocument& document, MediaLoader& media, CueEngine& cues, StatusLine& status,
                Settings settings);

    // Throws DocumentError; on failure the location, the dirty flag and the last-show
    // preference stay as they were and the old file is intact.
    void save(const QString& path);
    // Throws DocumentError; the model is untouched unless the whole file decoded.
    void open(const QString& path);
    void newDocument();
    // Reopens this instance's last show when the preference says so; a failure goes to the
    // status line, a missing file is ignored.
    void restoreLastDocument();

    // Keeps a recovery copy in `folder` under this instance's number from now on.
    void enableRecovery(const QString& folder);
    // The copy this instance number left behind (none before enableRecovery).
    std::optional<RecoveryCopy::Found> recoveryCopy() const {
        return m_recovery ? m_recovery->find() : std::nullopt;
    }
    // When this instance left a recovery copy, asks whether to restore it: restoring opens it
    // as the show at its own file, changed; declining removes it. Whether it was restored.
    bool offerRecovery(Interaction& interaction);
    // Throws DocumentError; the copy stays until the show is saved or discarded.
    void restore(const RecoveryCopy::Found& found);
    // The changes are given up (the program quits without saving): their copy goes.
    void discardRecovery();
    // Does what waits for kRecoveryDelay now, and waits until the copy is written or removed.
    void flushRecovery();

    // The show lock for the performance: while on, every edit is refused (ShowEditor and the
    // views ask); playing, saving and live controls are untouched.
    bool isLocked() const { return m_locked; }
    void setLocked(bool locked);

    // A setting kept in the file changed (edits of keys and pages are told by the undo stack).
    void markDirty();
    bool isDirty() const { return m_dirty || !m_history.stack().isClean(); }
    EditHistory& history() { return m_history; }
    const std::optional<QString>& documentPath() const { return m_path; }
    // The file's name, or "名称未設定.vorlin".
    QString documentName() const;

    int instanceNumber() const { return m_instance; }
    void setInstanceNumber(int n) { m_instance = n; }
    // Called after anything that changes the window title.
    std::function<void()> onTitleChange;
    // Offline runs play on no device: a show's device is not looked for.
    void setOffline(bool offline) { m_offline = offline; }

signals:
    // Another show was opened or started, or the show was saved.
    void assignmentsChanged();
    void lockChanged(bool locked);

private:
    // The show as a save into `base` would write it.
    KeymapDocument snapshot(const QString& base);
    // Puts a decoded show in place of this one (paths relative to `base`).
    void load(const KeymapDocument& doc, const QString& base);
    void finishOpening(const std::optional<QString>& path, const KeymapDocument& doc, bool dirty);
    void scheduleRecovery();
    void updateRecovery();
    void titleChanged();
    // Key strings that name no key are left out of the show (a key code is 0…65535); the
    // operator is told which, since the next save will not write them again.
    void reportSkippedKeys(const KeymapDocument& doc);

    ShowDocument& m_document;
    MediaLoader& m_media;
    CueEngine& m_cues;
    StatusLine& m_status;
    Settings m_settings;
    bool m_offline = false;
    std::optional<QString> m_path;
    EditHistory m_history;
    bool m_dirty = false;
    bool m_applying = false;
    int m_instance = 1;
    bool m_locked = false;
    std::unique_ptr<RecoveryCopy> m_recovery;
    QTimer m_recoveryTimer;
};
