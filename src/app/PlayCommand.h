#pragma once

#include <QStringList>

// `vorlin play SHOW [--device UID] [--osc PORT]`: a show on the real output device without a
// window, for rack machines, installations and a backup computer driven by the same OSC as the
// main one. The show opens with its media, on its saved device or --device; OSC is heard on
// 127.0.0.1:PORT with --osc; keys come from the background input when the settings allow it;
// every status line goes to stderr. SIGINT or SIGTERM stops everything at once and ends with
// status 0. Needs no display. Main thread; returns the exit status.
int runPlay(int& argc, char** argv, const QStringList& args);
