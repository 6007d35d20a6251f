// GoogleTest main for suites that use Qt: a QCoreApplication, and preferences and data in a
// fresh folder per test process, so no test reads or writes the user's own settings or another
// test's. (Qt's own test mode is not used: it sends every process to one shared folder.)
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include <QCoreApplication>

int main(int argc, char** argv) {
    std::string config = (std::filesystem::temp_directory_path() / "vorlin-config-XXXXXX").string();
    if (!mkdtemp(config.data()))
        return 2;
    setenv("XDG_CONFIG_HOME", config.c_str(), 1);
    setenv("XDG_DATA_HOME", config.c_str(), 1);
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(config, ignored);
    return status;
}
