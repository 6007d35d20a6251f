#pragma once

// Runs the application with its window: preferences, instance number, model, window, audio and
// tick, the last show (or the demo show on a first start, or the show named on the command
// line), the key input. Returns the exit status. Main thread.
int runApplication(int argc, char** argv);
