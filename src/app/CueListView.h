#pragma once

#include <cstdint>
#include <vector>

#include <QTableWidget>

#include "cue/CueRow.h"

class AppModel;

// The running cues, one row per CueRow in start order: name (↘ while it fades out), the page it
// came from when that is not the current one, the deck's item counter and item name, a bar with
// its progress — a seek bar with the time where the cue can be sought, which a click or drag
// moves — and a stop button.
// Rows are rebuilt only when cues come or go; otherwise only their texts and bars change.
// Never takes the keyboard. Main thread.
class CueListView : public QTableWidget {
    Q_OBJECT
public:
    enum Column { nameColumn, pageColumn, itemColumn, progressColumn, stopColumn };
    // Item data of the progress cell: progress 0…1, position 0…1 (absent: cannot be sought),
    // duration in seconds.
    static constexpr int kProgressRole = Qt::UserRole;
    static constexpr int kPositionRole = Qt::UserRole + 1;
    static constexpr int kDurationRole = Qt::UserRole + 2;
    // What the bar shows, in pixels and text: the cell is repainted only when this changes.
    static constexpr int kShownRole = Qt::UserRole + 3;

    explicit CueListView(AppModel& model, QWidget* parent = nullptr);

protected:
    // A press or drag on a seek bar moves that cue.
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    void refresh();
    QString shownProgress(const CueRow& row) const;
    void seekAt(const QPoint& point);

    AppModel& m_model;
    std::vector<std::int64_t> m_listed; // the cue ids the rows stand for
};
