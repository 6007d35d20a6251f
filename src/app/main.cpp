#include <QCoreApplication>
#include <QStringList>
#include <QTextStream>

#include "app/Application.h"
#include "app/PlayCommand.h"
#include "cli/Commands.h"

// `vorlin` opens the window; `vorlin play|devices|probe|render|help …` runs without a display.
int main(int argc, char** argv) {
    QStringList args;
    for (int i = 1; i < argc; ++i)
        args << QString::fromLocal8Bit(argv[i]);
    if (args.value(0) == QStringLiteral("play"))
        return runPlay(argc, argv, args);
    if (Commands::isCommand(args)) {
        QCoreApplication app(argc, argv);
        QCoreApplication::setApplicationName(QStringLiteral("Vorlin"));
        QTextStream out(stdout);
        QTextStream err(stderr);
        return Commands::run(args, out, err);
    }
    if (const auto refused = Commands::refuseWindowArguments(args)) {
        QTextStream(stderr) << *refused;
        return 2;
    }
    if (const auto missing = Commands::missingDisplay(args)) {
        QTextStream(stderr) << *missing;
        return 1;
    }
    return runApplication(argc, argv);
}
