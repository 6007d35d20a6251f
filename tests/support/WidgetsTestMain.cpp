// GoogleTest main for widget suites: a QApplication on the offscreen platform (no display
// needed), and preferences and data in a fresh folder per test process.
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include <QApplication>

int main(int argc, char** argv) {
    std::string config = (std::filesystem::temp_directory_path() / "vorlin-config-XXXXXX").string();
    if (!mkdtemp(config.data()))
        return 2;
    setenv("XDG_CONFIG_HOME", config.c_str(), 1);
    setenv("XDG_DATA_HOME", config.c_str(), 1);
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    setenv("JACK_DEFAULT_SERVER", "vorlin-no-such-server", 1);
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(config, ignored);
    return status;
}
