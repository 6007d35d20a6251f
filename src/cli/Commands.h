#pragma once

#include <optional>

#include <QString>
#include <QStringList>

class QTextStream;

// The headless `vorlin` subcommands: they need no display and print machine-readable output
// on `out`; messages for the operator go to `err` in Japanese. Each returns the process exit
// status. Main thread.
namespace Commands {

// "Vorlin 0.1.0（ビルド 1）": what `vorlin --version` and the about box say.
QString versionText();

// Whether args[0] names a subcommand (the application opens its window otherwise).
bool isCommand(const QStringList& args);

// For a command line that opens the window: why it cannot (an unknown command, a show file that
// is not there), as the message for the terminal. The window is never opened for these.
std::optional<QString> refuseWindowArguments(const QStringList& args);

// Why the window cannot open here (no display to connect to), as the message for the terminal;
// Qt itself would abort with its own English message.
std::optional<QString> missingDisplay(const QStringList& args);

// Runs the subcommand named by args[0] with the rest as its arguments.
int run(const QStringList& args, QTextStream& out, QTextStream& err);

// `vorlin devices`: the output devices (uid, name, channels) as a JSON array.
int devices(QTextStream& out);

// `vorlin render SHOW --events FILE --out OUT.wav [--rate R] [--channels N] [--block B]
// [--seconds S]`: plays the show headless on a simulated clock and writes every output channel
// to a 32-bit float WAV.
int render(const QStringList& args, QTextStream& out, QTextStream& err);

// `vorlin probe FILE…`: the media probe of each file, as a JSON array in argument order.
// Exit status 1 when a file is missing or unreadable (its entry then carries "error").
int probe(const QStringList& files, QTextStream& out, QTextStream& err);

// `vorlin deck FILE [--force]`: builds the slide file's deck in the deck cache, or finds it
// built, and prints its folder and manifest as JSON. Exit status 1 when it cannot be built.
int deck(const QStringList& args, QTextStream& out, QTextStream& err);

} // namespace Commands
