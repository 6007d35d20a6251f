#pragma once

#include <functional>
#include <optional>

#include <QString>

#include "model/KeymapDocument.h"

class AppModel;

// The show as a file: saving, opening, a new show, reopening the last one, dirty tracking and
// the name in the title. Operates on the AppModel that owns it. Main thread.
class ShowSession {
public:
    explicit ShowSession(AppModel& model);

    // Throws DocumentError; on failure the location, the dirty flag and the last-show
    // preference stay as they were and the old file is intact.
    void save(const QString& path);
    // Throws DocumentError; the model is untouched unless the whole file decoded.
    void open(const QString& path);
    void newDocument();
    // Reopens this instance's last show when the preference says so; a failure goes to the
    // status line, a missing file is ignored.
    void restoreLastDocument();

    void markDirty();
    bool isDirty() const { return m_dirty; }
    const std::optional<QString>& documentPath() const { return m_path; }
    // The file's name, or "名称未設定.vorlin".
    QString documentName() const;

    int instanceNumber() const { return m_instance; }
    void setInstanceNumber(int n) { m_instance = n; }
    // Called after anything that changes the window title.
    std::function<void()> onTitleChange;

private:
    void finishOpening(const QString& path, const KeymapDocument& doc);
    void titleChanged();
    // Key strings that name no key are left out of the show (a key code is 0…65535); the
    // operator is told which, since the next save will not write them again.
    void reportSkippedKeys(const KeymapDocument& doc);

    AppModel& m_model;
    std::optional<QString> m_path;
    bool m_dirty = false;
    bool m_applying = false;
    int m_instance = 1;
};
