#pragma once

#include <functional>
#include <optional>

#include <QObject>
#include <QString>

#include "cue/EditHistory.h"
#include "cue/MixSettings.h"
#include "model/KeymapDocument.h"
#include "model/ShowDocument.h"

class CueEngine;
class MediaLoader;
class StatusLine;

// The show as a file: saving, opening, a new show, reopening the last one, dirty tracking, the
// undo stack (cleared with every show opened or made) and the name in the title. The show is
// changed when the undo stack is away from where the file was saved or opened, or a setting
// kept in the file (mix, outputs, MIDI) changed since. It replaces the document's pages itself; the
// mix settings the file keeps are the owner's, read through `current` and handed over through
// `apply`. Main thread.
class ShowSession : public QObject {
    Q_OBJECT
public:
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

private:
    void finishOpening(const QString& path, const KeymapDocument& doc);
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
};
