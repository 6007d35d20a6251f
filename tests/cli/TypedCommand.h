#pragma once

#include <sys/resource.h>

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// The `vorlin` executable run the way a user types it in a terminal: real arguments, no display
// and no Qt platform chosen, its real exit status and output.
struct TypedCommand {
    int status = -1;
    QString out;
    QString err;

    static TypedCommand run(const QStringList& args, int timeoutMs = 120000) {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            environment.remove(QString::fromLatin1(variable));
        process.setProcessEnvironment(environment);
        // A command whose length check regressed must not fill the disk: it dies at 256 MB.
        process.setChildProcessModifier([] {
            const rlimit limit{256ull << 20, 256ull << 20};
            setrlimit(RLIMIT_FSIZE, &limit);
        });
        process.start(QStringLiteral(VORLIN_EXECUTABLE), args);
        TypedCommand result;
        if (!process.waitForFinished(timeoutMs)) {
            process.kill();
            process.waitForFinished();
            result.err = QStringLiteral("timed out");
            return result;
        }
        result.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.out = QString::fromUtf8(process.readAllStandardOutput());
        result.err = QString::fromUtf8(process.readAllStandardError());
        return result;
    }
};
