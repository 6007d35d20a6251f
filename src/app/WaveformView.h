#pragma once

#include <functional>
#include <vector>

#include <QImage>
#include <QPixmap>
#include <QWidget>

// The selected key's sound as an overview, drawn from the clip's peaks, with the play position
// of its running cue as a line; a click or drag there moves the cue. Shows a short text instead
// while there is nothing to draw.
// Main thread.
class WaveformView : public QWidget {
    Q_OBJECT
public:
    explicit WaveformView(QWidget* parent = nullptr);

    // Peaks 0…1 (empty: no sound), the text shown without peaks.
    void setPeaks(std::vector<float> peaks, const QString& emptyText);
    // A picture shown, fitted, where there are no peaks (a slide deck's or a picture key's
    // first picture); null: the text instead.
    void setPicture(const QImage& picture);
    // 0…1, or below 0 when the key is not playing.
    void setPosition(double position);
    double position() const { return m_position; }

    // Called with 0…1 when the operator clicks or drags on the waveform while it plays.
    std::function<void(double)> onSeek;

    QSize sizeHint() const override { return {320, 64}; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    void seekTo(const QMouseEvent& event);
    // The pixel column of the play line (−1: none).
    int lineX(double position) const;
    // Renders the overview into m_shape, which is drawn as it is until peaks or size change.
    void drawShape();

    QPixmap m_shape;
    QImage m_picture;
    std::vector<float> m_peaks;
    QString m_emptyText;
    double m_position = -1.0;
};
