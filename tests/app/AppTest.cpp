#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/input-event-codes.h>
#include <set>
#include <sys/wait.h>
#include <unistd.h>

#include "TempDir.h"
#include "Wait.h"
#include "app/InstanceLock.h"
#include "app/KeyCodeMap.h"
#include "model/KeyboardLayout.h"

namespace {

TEST(KeyCodeMap, EveryKeyOfBothLayoutsComesFromExactlyOneLinuxKey) {
    for (const auto* rows : {&KeyboardLayout::usRows(), &KeyboardLayout::jisRows()}) {
        for (KeyCode code : KeyboardLayout::fillOrderOf(*rows)) {
            const auto evdev = KeyCodeMap::toEvdev(code);
            ASSERT_TRUE(evdev) << "no Linux key for layout code " << code;
            EXPECT_EQ(KeyCodeMap::fromEvdev(*evdev), code);
        }
    }
    // No two Linux keys land on one layout key, except the two spellings of 英数 and かな.
    std::set<KeyCode> seen;
    int twins = 0;
    for (std::uint32_t evdev = 0; evdev < 256; ++evdev)
        if (const auto code = KeyCodeMap::fromEvdev(evdev); code && !seen.insert(*code).second)
            ++twins;
    EXPECT_EQ(twins, 2);
}

TEST(KeyCodeMap, PhysicalPositionsIncludingTheJisKeys) {
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_A), 0);
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_SPACE), 49);
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_ESC), 53);
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_F1), 122);
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_YEN), 93);        // ¥
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_RO), 94);         // _
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_EQUAL), 24);      // = on US, ^ on JIS
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_APOSTROPHE), 39); // ' on US, : on JIS
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_HANJA), 102);     // 英数
    EXPECT_EQ(KeyCodeMap::fromEvdev(KEY_HENKAN), 104);    // かな
    EXPECT_FALSE(KeyCodeMap::fromEvdev(KEY_LEFTSHIFT));
    EXPECT_FALSE(KeyCodeMap::fromEvdev(KEY_LEFTCTRL));
    // X11 and Wayland key codes are evdev + 8.
    EXPECT_EQ(KeyCodeMap::fromXkb(KEY_A + 8), 0);
    EXPECT_FALSE(KeyCodeMap::fromXkb(3));
    // A key event without a scan code is placed by its Qt key where the physical key is.
    const std::pair<int, int> same[] = {
        {Qt::Key_Backspace, KEY_BACKSPACE}, {Qt::Key_Return, KEY_ENTER},
        {Qt::Key_Enter, KEY_ENTER},         {Qt::Key_Tab, KEY_TAB},
        {Qt::Key_Space, KEY_SPACE},         {Qt::Key_Escape, KEY_ESC},
        {Qt::Key_QuoteLeft, KEY_GRAVE},     {Qt::Key_yen, KEY_YEN},
        {Qt::Key_Slash, KEY_SLASH},
    };
    for (const auto& [qt, evdev] : same)
        EXPECT_EQ(KeyCodeMap::fromQtKey(qt), KeyCodeMap::fromEvdev(evdev)) << qt;
    // Every digit, letter and function key, row by row as the keys lie.
    const std::pair<const char*, int> rows[] = {
        {"1234567890", KEY_1}, {"QWERTYUIOP", KEY_Q}, {"ASDFGHJKL", KEY_A}, {"ZXCVBNM", KEY_Z}};
    for (const auto& [keys, first] : rows)
        for (int i = 0; keys[i]; ++i)
            EXPECT_EQ(KeyCodeMap::fromQtKey(keys[i]), KeyCodeMap::fromEvdev(first + i)) << keys[i];
    const int functions[] = {KEY_F1, KEY_F2, KEY_F3, KEY_F4,  KEY_F5,  KEY_F6,
                             KEY_F7, KEY_F8, KEY_F9, KEY_F10, KEY_F11, KEY_F12};
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(KeyCodeMap::fromQtKey(Qt::Key_F1 + i), KeyCodeMap::fromEvdev(functions[i]))
            << "F" << i + 1;
}

// A copy of the probe program holding an instance number.
struct Probe {
    pid_t pid = -1;
    int input = -1;
    int number = 0;
    int locked = 0;
};

Probe startProbe(const std::string& folder) {
    int toChild[2], fromChild[2];
    EXPECT_EQ(pipe2(toChild, O_CLOEXEC), 0); // later probes must not inherit these ends
    EXPECT_EQ(pipe2(fromChild, O_CLOEXEC), 0);
    Probe probe;
    probe.pid = fork();
    if (probe.pid == 0) {
        dup2(toChild[0], 0);
        dup2(fromChild[1], 1);
        close(toChild[1]);
        close(fromChild[0]);
        execl(INSTANCE_PROBE, INSTANCE_PROBE, folder.c_str(), nullptr);
        _exit(127);
    }
    close(toChild[0]);
    close(fromChild[1]);
    probe.input = toChild[1];
    FILE* out = fdopen(fromChild[0], "r");
    if (std::fscanf(out, "%d %d", &probe.number, &probe.locked) != 2)
        probe.number = -1;
    std::fclose(out);
    return probe;
}

void quit(Probe& probe, bool kill) {
    if (kill)
        ::kill(probe.pid, SIGKILL);
    close(probe.input);
    waitpid(probe.pid, nullptr, 0);
}

TEST(Instances, RunningCopiesNumberThemselvesAndAFreedNumberIsReused) {
    TempDir dir;
    const std::string folder = dir.file("Vorlin");
    Probe first = startProbe(folder);
    Probe second = startProbe(folder);
    EXPECT_EQ(first.number, 1);
    EXPECT_EQ(second.number, 2);
    EXPECT_EQ(first.locked + second.locked, 2);

    quit(first, true); // even a killed copy frees its number
    Probe third = startProbe(folder);
    EXPECT_EQ(third.number, 1);
    quit(second, false);
    Probe fourth = startProbe(folder);
    EXPECT_EQ(fourth.number, 2);
    quit(third, false);
    quit(fourth, false);
}

} // namespace

#include <QFileInfo>

#include "app/DemoShow.h"
#include "cue/AppModel.h"

namespace {

TEST(DemoShow, IsMadeOnceAndPlaysFromTheFirstPress) {
    TempDir dir;
    const QString folder = QString::fromStdString(dir.file("Demo"));
    const QString show = DemoShow::create(folder);
    const auto written = QFileInfo(show).lastModified();
    EXPECT_EQ(DemoShow::create(folder), show); // left as it is the second time
    EXPECT_EQ(QFileInfo(show).lastModified(), written);

    AppModel model;
    model.setOffline(true);
    model.open(show);
    ASSERT_EQ(model.document().pages.size(), 2u);
    EXPECT_EQ(model.document().pages[1].name, "第二部");
    EXPECT_EQ(model.document().assignments.size(), 4u);
    ASSERT_TRUE(Wait::until([&] { return model.media().pending() == 0; }, 20000));
    const MediaInfo* bell = model.media().infoFor(model.document().assignments.at(0));
    ASSERT_TRUE(bell && bell->clip);
    EXPECT_GT(*std::max_element(bell->clip->peaks.begin(), bell->clip->peaks.end()), 0.3f);
    const MediaInfo* drone = model.media().infoFor(model.document().assignments.at(1));
    ASSERT_TRUE(drone && drone->clip);
    EXPECT_EQ(drone->clip->frameCount, 8 * 48000);
    // The drone loops without a seam: its last frame runs on into its first.
    const float* x = drone->clip->channels[0];
    EXPECT_NEAR(x[drone->clip->frameCount - 1] + (x[1] - x[0]), x[0], 0.01);
    // The list key: three cues, one a press, and the fourth press ends it.
    const MediaInfo* list = model.media().infoFor(model.document().assignments.at(3));
    ASSERT_TRUE(list && list->deck);
    ASSERT_EQ(list->deck->manifest.items.size(), 3u);
    EXPECT_EQ(list->deck->clips.size(), 3u);
    for (int press = 1; press <= 3; ++press) {
        model.handleKey(3, true, false, false);
        model.handleKey(3, false, false, false);
        model.tick();
        ASSERT_EQ(model.live().cues().size(), 1u) << press;
        EXPECT_EQ(model.live().cues()[0].slideText, QString("%1/3").arg(press));
    }
    model.handleKey(3, true, false, false);
    EXPECT_FALSE(model.isRunning(3));
}

} // namespace

#include <QDir>
#include <QSettings>

#include "app/DialogInteraction.h"

namespace {

// File dialogs open beside the show, else where the last one was used, else at home — never
// in the folder the program happened to be started from.
TEST(FileDialogs, StartBesideTheShowElseWhereTheLastOneWasUsedElseAtHome) {
    TempDir dir;
    const QString shows = QString::fromStdString(dir.file("shows"));
    const QString media = QString::fromStdString(dir.file("media"));
    QDir().mkpath(shows);
    QDir().mkpath(media);
    QSettings().remove("dialog/lastFolder");
    struct Row {
        std::optional<QString> show;
        QString chosenBefore; // what a dialog returned before, if anything
        QString expected;
    };
    const Row rows[] = {
        {std::nullopt, "", QDir::homePath()},
        {std::nullopt, media + "/tone.wav", media},
        {shows + "/night.vorlin", media + "/tone.wav", shows},
        {QString::fromStdString(dir.file("gone/night.vorlin")), media + "/tone.wav", media},
    };
    for (const Row& row : rows) {
        DialogInteraction::remember(row.chosenBefore);
        EXPECT_EQ(DialogInteraction::startFolder(row.show), row.expected)
            << row.show.value_or("none").toStdString();
    }
    QSettings().remove("dialog/lastFolder");
}

} // namespace
