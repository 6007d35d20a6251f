// GoogleTest main for suites that use Qt: a QCoreApplication; built with VORLIN_TEST_WIDGETS,
// a QApplication on the offscreen platform (no display needed); built with VORLIN_TEST_DISPLAY,
// a QGuiApplication on a virtual X server of its own with two displays, for OpenGL surfaces. Preferences and data live in a
// fresh folder per test process, so no test reads or writes the user's own settings or another
// test's, and the updater's feed is a closed local port. (Qt's own test mode is not used: it
// sends every process to one shared folder.)
#if defined(VORLIN_TEST_WIDGETS)
#include <QApplication>
using TestApplication = QApplication;
#elif defined(VORLIN_TEST_DISPLAY)
#include <QGuiApplication>

#include "VirtualDisplay.h"
using TestApplication = QGuiApplication;
#else
#include <QCoreApplication>
using TestApplication = QCoreApplication;
#endif

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

int main(int argc, char** argv) {
    std::string config = (std::filesystem::temp_directory_path() / "vorlin-config-XXXXXX").string();
    if (!mkdtemp(config.data()))
        return 2;
    setenv("XDG_CONFIG_HOME", config.c_str(), 1);
    setenv("XDG_DATA_HOME", config.c_str(), 1);
    // No test, nor a program a test starts, asks the product's real release feed.
    setenv("VORLIN_UPDATE_URL", "http://127.0.0.1:9/version.json", 0);
#ifdef VORLIN_TEST_WIDGETS
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    setenv("JACK_DEFAULT_SERVER", "vorlin-no-such-server", 1);
#endif
#ifdef VORLIN_TEST_DISPLAY
    // The server must be there before Qt connects to it.
    VirtualDisplay display({"1280x720x24", "640x360x24"});
    setenv("DISPLAY", display.name().toLocal8Bit().constData(), 1);
    setenv("QT_QPA_PLATFORM", "xcb", 1);
#endif
    TestApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(config, ignored);
    return status;
}
