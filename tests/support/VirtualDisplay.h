#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// A virtual X server (Xvfb) on a display number nobody uses, for as long as the object lives.
// `screens`: one size per X screen ("1920x1200x24"); two give Qt two displays. The server picks
// its own free number and tells it (-displayfd): test processes started side by side never
// race for the same one.
class VirtualDisplay {
public:
    explicit VirtualDisplay(const QStringList& screens = {"1920x1200x24"}) {
        QStringList arguments{"-displayfd", "1"};
        for (int s = 0; s < screens.size(); ++s)
            arguments << "-screen" << QString::number(s) << screens[s];
        m_server.setProcessChannelMode(QProcess::SeparateChannels);
        m_server.setStandardErrorFile(QProcess::nullDevice());
        m_server.start("Xvfb", arguments << "-nolisten"
                                         << "tcp");
        QByteArray number;
        while (!number.endsWith('\n') && m_server.waitForReadyRead(10000))
            number += m_server.readAllStandardOutput();
        if (!number.trimmed().isEmpty())
            m_name = ":" + QString::fromLatin1(number.trimmed());
    }
    ~VirtualDisplay() {
        m_server.terminate();
        m_server.waitForFinished(3000);
    }
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    const QString& name() const { return m_name; }
    qint64 pid() const { return m_server.processId(); }

private:
    QString m_name;
    QProcess m_server;
};
