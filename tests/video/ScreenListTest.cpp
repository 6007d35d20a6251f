#include "video/ScreenList.h"

#include <gtest/gtest.h>

// A stored output finds its display by its exact label first (two displays may share a name),
// then, after renumbering or a change of resolution, by the display's name; a display that is
// not attached is missing, never an error.
TEST(ScreenList, LabelsAndMatchingExactlyThenByName) {
    const ScreenList screens({{"Studio", {0, 0, 1920, 1080}},
                              {"Studio", {1920, 0, 1280, 720}},
                              {"HDMI-1", {3200, 0, 800, 600}}});
    EXPECT_EQ(screens.labels(), QStringList({"1: Studio（1920×1080）", "2: Studio（1280×720）",
                                             "3: HDMI-1（800×600）"}));
    EXPECT_EQ(screens.find("2: Studio（1280×720）"), 1);
    EXPECT_EQ(screens.find("2: Studio（1920×1200）"), 0);
    EXPECT_EQ(screens.find("5: HDMI-1（800×600）"), 2);
    EXPECT_EQ(screens.find(" HDMI-1 "), 2);
    EXPECT_EQ(screens.find("Projector"), std::nullopt);
    EXPECT_EQ(screens.missing({"window", "3: HDMI-1（800×600）", "2: Projector（1024×768）"}),
              QStringList{"2: Projector（1024×768）"});
    EXPECT_EQ(ScreenList().find("1: Studio（1920×1080）"), std::nullopt);
}
