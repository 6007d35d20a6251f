#pragma once

#include <functional>
#include <optional>
#include <vector>

#include <QObject>
#include <QString>
#include <QUndoStack>

#include "model/KeyPage.h"
#include "model/ShowDocument.h"

// The show's undo stack. Each editing operation is one step holding what an edit can change of
// the document — every page (the current one with its working keys), which page is current,
// the selection — as it was before and after. An operation made of others (a drop spread over
// several keys, a list that empties and clears its key) is one step: only the outermost Step
// records, and only when the document changed. Undo and redo hand a state to `restore`, which
// brings the document, its media and the running keys to it; what restore does is never
// recorded. Main thread.
class EditHistory : public QObject {
    Q_OBJECT
public:
    struct State {
        std::vector<KeyPage> pages;
        std::size_t currentPage = 0;
        std::optional<KeyCode> selectedKey;
    };
    using Restore = std::function<void(const State&)>;

    // Records one step named `label` (e.g. "A キーをクリア") from its construction to its end.
    class Step {
    public:
        Step(EditHistory& history, const QString& label);
        ~Step();
        Step(const Step&) = delete;
        Step& operator=(const Step&) = delete;

    private:
        EditHistory& m_history;
    };

    // Steps kept; the oldest go first.
    static constexpr int kLimit = 200;

    explicit EditHistory(ShowDocument& document);
    // A stack that goes says it is clean; nobody listening then may still be there.
    ~EditHistory() override { m_stack.blockSignals(true); }

    void setRestore(Restore restore) { m_restore = std::move(restore); }
    QUndoStack& stack() { return m_stack; }
    const QUndoStack& stack() const { return m_stack; }
    State capture() const;
    // The same pages (ids, names, keys in order) and the same current page.
    static bool sameDocument(const State& a, const State& b);

private:
    friend class HistoryStep;
    void apply(const State& state);

    ShowDocument& m_document;
    QUndoStack m_stack;
    Restore m_restore;
    int m_depth = 0;
    bool m_restoring = false;
    State m_before;
    QString m_label;
};
