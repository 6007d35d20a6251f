#pragma once

#include <optional>

#include <QString>

// The script that puts a verified release in place of the installed program once the program
// has quit, and starts the new one (POSIX sh; run detached):
//   swap PID NEW TARGET WORK [POLLS]
// waits up to 120 s (POLLS, 600 unless given, 0.2 s apart) for process PID to end, else gives
// up (exit 1);
// moves TARGET to WORK/old, then NEW to TARGET — on failure WORK/old goes back (exit 1);
// starts TARGET/bin/vorlin and removes WORK.
namespace SwapScript {

QString text();

// Writes the script into `work` and starts it detached; the error when it cannot be started.
std::optional<QString> start(qint64 pid, const QString& newTree, const QString& target,
                             const QString& work);

} // namespace SwapScript
