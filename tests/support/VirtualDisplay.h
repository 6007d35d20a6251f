#pragma once

#include <chrono>
#include <thread>

#include <QFile>
#include <QProcess>
#include <QString>
#include <QStringList>

// A virtual X server (Xvfb) on a display number nobody uses, for as long as the object lives.
// `screens`: one size per X screen ("1920x1200x24"); two give Qt two displays.
class VirtualDisplay {
public:
    explicit VirtualDisplay(const QStringList& screens = {"1920x1200x24"}) {
        using namespace std::chrono_literals;
        for (int n = 150; n < 200 && m_name.isEmpty(); ++n)
            if (!QFile::exists(QString("/tmp/.X11-unix/X%1").arg(n)) &&
                !QFile::exists(QString("/tmp/.X%1-lock").arg(n)))
                m_name = QString(":%1").arg(n);
        QStringList arguments{m_name};
        for (int s = 0; s < screens.size(); ++s)
            arguments << "-screen" << QString::number(s) << screens[s];
        m_server.start("Xvfb", arguments << "-nolisten"
                                         << "tcp");
        for (int i = 0; i < 50 && !QFile::exists("/tmp/.X11-unix/X" + m_name.mid(1)); ++i)
            std::this_thread::sleep_for(100ms);
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
