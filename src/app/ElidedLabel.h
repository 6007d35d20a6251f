#pragma once

#include <QLabel>

// A one-line label that gives way when its row is narrow: it asks for its whole text's width
// but can be given less, and then shows the text cut with "…" and the whole text as its tooltip.
// Style sheets colour it as any label. Main thread.
class ElidedLabel : public QLabel {
public:
    using QLabel::QLabel;

    QSize minimumSizeHint() const override;
    // Whether the text is cut where it is drawn now.
    bool isElided() const;

protected:
    void paintEvent(QPaintEvent* event) override;
    bool event(QEvent* event) override;
};
