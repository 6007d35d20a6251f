#pragma once

#include <QObject>
#include <QString>

// The one line under the keyboard that tells the operator what just went wrong or was done
// ("見つからないファイルがあります: …"). Every part of the program says it here; the window shows
// the newest. Main thread.
class StatusLine : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    const QString& text() const { return m_text; }
    // An empty text clears the line.
    void show(const QString& text);

signals:
    void changed(const QString& text);

private:
    QString m_text;
};
