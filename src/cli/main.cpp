#include <cstdio>

#include <QCoreApplication>
#include <QTextStream>

#include "cli/Commands.h"

// The `vorlin` executable. Until the application window exists it runs the headless
// subcommands only.
int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("Vorlin");
    QTextStream out(stdout);
    QTextStream err(stderr);
    QStringList args = QCoreApplication::arguments().mid(1);
    if (args.isEmpty())
        args << "help";
    return Commands::run(args, out, err);
}
