#include "video/ScreenList.h"

#include <gtest/gtest.h>

// A stored output finds its display by its exact label first (two displays may share a name),
// then, after renumbering or a change of resolution, by the first display whose name begins the
// text after the label's first colon (trimmed); a display that is not attached is missing, never
// an error.
TEST(ScreenList, LabelsAndMatchingExactlyThenByName) {
    const ScreenList screens({{"Studio", {0, 0, 1920, 1080}},
                              {"Studio", {1920, 0, 1280, 720}},
                              {"HDMI-1", {3200, 0, 800, 600}}});
    EXPECT_EQ(screens.labels(), QStringList({"1: Studio（1920×1080）", "2: Studio（1280×720）",
                                             "3: HDMI-1（800×600）"}));
    const std::pair<const char*, std::optional<int>> rows[] = {
        {"2: Studio（1280×720）", 1},
        {"1: Studio（1920×1080）", 0},
        {"2: Studio（1920×1200）", 0},
        {"5: HDMI-1（800×600）", 2},
        {" HDMI-1 ", 2},
        {"1:Studio", 0},
        {"HDMI-10", 2},
        {"HDMI", std::nullopt},
        {"Projector", std::nullopt},
        {"", std::nullopt},
        {"a:b: Studio", std::nullopt},
        {"window", std::nullopt},
    };
    for (const auto& [name, found] : rows)
        EXPECT_EQ(screens.find(QString::fromUtf8(name)), found) << '"' << name << '"';
    EXPECT_EQ(screens.missing({"window", "3: HDMI-1（800×600）", "2: Projector（1024×768）"}),
              QStringList{"2: Projector（1024×768）"});
    EXPECT_EQ(ScreenList().find("1: Studio（1920×1080）"), std::nullopt);
}
