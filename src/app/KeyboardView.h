#pragma once

#include <map>
#include <vector>

#include <QRectF>
#include <QWidget>

#include "model/KeyboardLayout.h"

class AppModel;

// The drawn keyboard: every cell of the layout in use, assigned keys in their palette colour
// with their name, running keys lit with their progress, the selected key outlined, the
// stop-all cell in the Escape position. A click selects a key (or stops all on the stop-all
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

protected:
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
    LiveLook lookOf(const Cell& cell) const;
    static double progressWidth(const Cell& cell);
    void liveChanged(bool everything);

    AppModel& m_model;
    std::vector<Cell> m_cells;
    std::map<KeyCode, LiveLook> m_shown;
};
