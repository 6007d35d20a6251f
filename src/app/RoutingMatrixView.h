#pragma once

#include <cstdint>
#include <functional>

#include <QWidget>

#include "model/KeyAssignment.h"

// Sources × outputs of one key: a lit cell is a route. A click on a cell reports (source,
// output), 0-based; outputs beyond the device's are drawn dimmer (they reach only the meters).
// Main thread.
class RoutingMatrixView : public QWidget {
    Q_OBJECT
public:
    explicit RoutingMatrixView(QWidget* parent = nullptr);

    // Rows as Routing::matrix gives them, the output columns to draw and the device's real ones.
    void setMatrix(RoutingMatrix rows, int outputColumns, int deviceOutputs);
    QRectF cellRect(int source, int output) const;

    std::function<void(std::int64_t source, std::int64_t output)> onToggle;

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;

private:
    double cellSize() const;

    RoutingMatrix m_rows;
    int m_columns = 8;
    int m_deviceOutputs = 8;
};
