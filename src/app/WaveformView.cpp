#include "app/WaveformView.h"

#include <algorithm>

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

WaveformView::WaveformView(QWidget* parent) : QWidget(parent) {
    setFocusPolicy(Qt::NoFocus);
    setMinimumHeight(48);
}

void WaveformView::setPeaks(std::vector<float> peaks, const QString& emptyText) {
    if (peaks == m_peaks && emptyText == m_emptyText)
        return;
    m_peaks = std::move(peaks);
    m_emptyText = emptyText;
    m_shape = QPixmap();
    update();
}

void WaveformView::setPicture(const QImage& picture) {
    if (picture.isNull() && m_picture.isNull())
        return;
    m_picture = picture;
    update();
}

int WaveformView::lineX(double position) const {
    return position < 0.0 ? -1
                          : static_cast<int>(std::lround(std::clamp(position, 0.0, 1.0) *
                                                         (std::max(width(), 1) - 1)));
}

void WaveformView::setPosition(double position) {
    const int from = lineX(m_position), to = lineX(position);
    m_position = position;
    // The tick moves the line 30 times a second; only the strips it leaves and enters are
    // redrawn, and only when it moved by a pixel.
    if (from == to)
        return;
    for (const int x : {from, to})
        if (x >= 0)
            update(QRect(x - 2, 0, 5, height()));
}

void WaveformView::resizeEvent(QResizeEvent*) {
    m_shape = QPixmap();
}

void WaveformView::paintEvent(QPaintEvent*) {
    QPainter p(this);
    if (m_peaks.empty()) {
        p.fillRect(rect(), QColor(24, 25, 28));
        if (!m_picture.isNull()) {
            const QSize fitted = m_picture.size().scaled(size(), Qt::KeepAspectRatio);
            p.setRenderHint(QPainter::SmoothPixmapTransform);
            p.drawImage(
                QRect(QPoint((width() - fitted.width()) / 2, (height() - fitted.height()) / 2),
                      fitted),
                m_picture);
            return;
        }
        p.setPen(QColor(150, 150, 155));
        p.drawText(rect(), Qt::AlignCenter, m_emptyText);
        return;
    }
    if (m_shape.size() != size() * devicePixelRatioF())
        drawShape();
    p.drawPixmap(0, 0, m_shape);
    if (m_position >= 0.0) {
        const double x = lineX(m_position);
        p.setPen(QPen(QColor(255, 210, 80), 2));
        p.drawLine(QPointF(x, 0), QPointF(x, height()));
    }
}

void WaveformView::drawShape() {
    m_shape = QPixmap(size() * devicePixelRatioF());
    m_shape.setDevicePixelRatio(devicePixelRatioF());
    QPainter p(&m_shape);
    p.fillRect(rect(), QColor(24, 25, 28));
    // One column per pixel: the largest peak of the bins that fall on it, mirrored round the
    // middle line, so a 1500-bin overview reads the same at any width.
    const int w = std::max(width(), 1);
    const double mid = height() / 2.0;
    const auto bins = static_cast<double>(m_peaks.size());
    QPainterPath shape;
    shape.moveTo(0, mid);
    std::vector<double> column(static_cast<std::size_t>(w));
    for (int x = 0; x < w; ++x) {
        const auto from = static_cast<std::size_t>(x * bins / w);
        const auto to = std::max(from + 1, static_cast<std::size_t>((x + 1) * bins / w));
        float peak = 0.0f;
        for (std::size_t i = from; i < std::min(to, m_peaks.size()); ++i)
            peak = std::max(peak, m_peaks[i]);
        column[static_cast<std::size_t>(x)] = peak * (mid - 1);
        shape.lineTo(x, mid - column[static_cast<std::size_t>(x)]);
    }
    for (int x = w - 1; x >= 0; --x)
        shape.lineTo(x, mid + column[static_cast<std::size_t>(x)]);
    shape.closeSubpath();
    p.setRenderHint(QPainter::Antialiasing);
    p.fillPath(shape, QColor(90, 170, 230));
}

void WaveformView::seekTo(const QMouseEvent& event) {
    if (m_position >= 0.0 && onSeek)
        onSeek(std::clamp(event.position().x() / std::max(width() - 1, 1), 0.0, 1.0));
}

void WaveformView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton)
        seekTo(*event);
}

void WaveformView::mouseMoveEvent(QMouseEvent* event) {
    if (event->buttons() & Qt::LeftButton)
        seekTo(*event);
}
