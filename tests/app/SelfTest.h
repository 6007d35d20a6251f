#pragma once

class AppModel;
class MainWindow;

// Scripted end-to-end checks of the application as `vorlin` builds it (tests/app/selftest_main),
// chosen by these variables:
//   VORLIN_SELFTEST_LAYOUT=1          log the drawn layout and check every key has its cell
//   VORLIN_SELFTEST_SCREENSHOT=FILE   play four demo keys from two pages, grab the real window
//                                     to FILE (PNG) and the settings window next to it, and
//                                     check what they draw: cells, cue list, meters, page list,
//                                     detail panel, and a glyph for every character shown
//   VORLIN_SELFTEST_OPERATOR=FILE     drive the window with real X clicks and keys (XTest, under a
//                                     window manager): a field clicked into and the ways out,
//                                     Enter in a field, keys while a menu is open; a screenshot
//                                     per step next to FILE
// Each check is logged as a PASS or FAIL line, then "N passed, M failed". Main thread.
namespace SelfTest {

// Runs the requested checks; returns the process exit status (0 when every check passed).
int run(AppModel& model, MainWindow& window);

} // namespace SelfTest
