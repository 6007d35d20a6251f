#pragma once

#include <map>
#include <set>
#include <vector>

#include <QRectF>
#include <QWidget>

#include "model/KeyboardLayout.h"

class AppModel;
class QPainter;

// The drawn keyboard: every cell of the layout in use, assigned keys in their palette colour
// with their name, running keys lit with their progress, the selected key outlined, the
// stop-all cell in the Escape position, and a mark for a key whose media is loading, cannot
// play, is damaged or has gone from disk (with the reason as the cell's tooltip). A click
// selects a key (or stops all on the stop-all
// cell); files dropped on a cell are placed on that key. It never takes keyboard focus, so
// the keys always reach the show. Main thread.
class KeyboardView : public QWidget {
    Q_OBJECT
public:
    explicit KeyboardView(AppModel& model, QWidget* parent = nullptr);

    // The cell under a point, for clicks and drops (kind stopAll, key, or none).
    const KeySpec* cellAt(const QPointF& point) const;
    // Where a key's cell is drawn (its first cell), for tests and drops.
    QRectF cellRect(KeyCode code) const;

    QSize sizeHint() const override { return {1100, 420}; }

    // What the key's cell says of its media, as its tooltip: the load's progress text, the
    // error of a file that cannot play, the warning of damaged data, or that the file has gone
    // from disk since it was loaded (it still plays from memory). Empty when all is well.
    QString mediaState(KeyCode code) const;
    // Looks again which assigned files are gone from disk (when the window regains the focus,
    // and before a show opens); repaints the cells whose mark changes.
    void checkFilesOnDisk();

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    struct Cell {
        const KeySpec* spec;
        QRectF rect;
    };
    // What the tick can change in a key's cell, in pixels: a cell is repainted only when this
    // changes, so a long cue's bar costs a repaint per pixel it grows, not 30 a second.
    struct LiveLook {
        bool running = false;
        int progressPixels = 0;
        bool operator==(const LiveLook&) const = default;
    };

    void layoutCells();
    void drawMediaMark(QPainter& p, const QRectF& r, KeyCode code) const;
    LiveLook lookOf(const Cell& cell) const;
    static double progressWidth(const Cell& cell);
    void liveChanged(bool everything);

    AppModel& m_model;
    std::vector<Cell> m_cells;
    std::map<KeyCode, LiveLook> m_shown;
    std::set<QString> m_gone; // assigned files not on disk at the last look
};
