#include "cue/EditHistory.h"

#include <utility>

// One recorded edit. Pushing runs redo() at once; the edit has already happened then.
class HistoryStep : public QUndoCommand {
public:
    HistoryStep(EditHistory& history, const QString& label, EditHistory::State before,
                EditHistory::State after)
        : QUndoCommand(label), m_history(history), m_before(std::move(before)),
          m_after(std::move(after)) {}
    void undo() override { m_history.apply(m_before); }
    void redo() override {
        if (!std::exchange(m_pushed, true))
            return;
        m_history.apply(m_after);
    }

private:
    EditHistory& m_history;
    EditHistory::State m_before, m_after;
    bool m_pushed = false;
};

EditHistory::EditHistory(ShowDocument& document) : m_document(document) {
    m_stack.setUndoLimit(kLimit);
}

EditHistory::State EditHistory::capture() const {
    State state{m_document.pages, m_document.currentPage, m_document.selectedKey};
    if (state.currentPage < state.pages.size())
        state.pages[state.currentPage].keys = m_document.assignments;
    return state;
}

bool EditHistory::sameDocument(const State& a, const State& b) {
    if (a.currentPage != b.currentPage || a.pages.size() != b.pages.size())
        return false;
    for (std::size_t i = 0; i < a.pages.size(); ++i) {
        const KeyPage &x = a.pages[i], &y = b.pages[i];
        if (x.id != y.id || x.name != y.name || x.keys != y.keys)
            return false;
    }
    return true;
}

void EditHistory::apply(const State& state) {
    if (!m_restore)
        return;
    m_restoring = true;
    m_restore(state);
    m_restoring = false;
}

EditHistory::Step::Step(EditHistory& history, const QString& label) : m_history(history) {
    if (m_history.m_restoring || m_history.m_depth++ > 0)
        return;
    m_history.m_before = m_history.capture();
    m_history.m_label = label;
}

EditHistory::Step::~Step() {
    if (m_history.m_restoring || --m_history.m_depth > 0)
        return;
    State after = m_history.capture();
    if (sameDocument(m_history.m_before, after))
        return;
    m_history.m_stack.push(new HistoryStep(m_history, m_history.m_label,
                                           std::move(m_history.m_before), std::move(after)));
}
