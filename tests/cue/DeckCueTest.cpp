#include <gtest/gtest.h>

#include "CueStage.h"

namespace {

constexpr KeyCode kA = 0;

// A list key of three sounds, each a second long at its own constant level (0.1, 0.2, 0.3),
// with the second switched off.
class DeckCues : public ::testing::Test {
protected:
    void SetUp() override {
        KeyAssignment& a = stage.addListKey(kA, 3, kSeconds);
        a.fadeOut = 0.0;
        a.deckItems->at(1).enabled = false;
    }
    float level() {
        const auto out = stage.run(0.05);
        return out[0].back();
    }
    static constexpr double kSeconds = 1.0;
    CueStage stage;
};

TEST_F(DeckCues, AJumpStartsTheKeyThereOrMovesItAndASwitchedOffItemIsRefused) {
    stage.engine().deckJump(kA, "2");
    EXPECT_FLOAT_EQ(level(), 0.3f);
    EXPECT_EQ(stage.model.live().cues().at(0).slideText, QString("2/2"));
    EXPECT_EQ(stage.model.live().deckCurrent().at(kA), "2");
    stage.engine().deckJump(kA, "1");
    EXPECT_EQ(stage.model.status().text(), "無効にした素材は流せません");
    EXPECT_FLOAT_EQ(level(), 0.3f);
    stage.engine().deckJump(kA, "0");
    EXPECT_FLOAT_EQ(level(), 0.1f);
    ASSERT_EQ(stage.engine().cues().size(), 1u); // moved, not started again
    EXPECT_EQ(stage.model.live().cues().at(0).itemName, QString("項目 0"));
}

TEST_F(DeckCues, SoundsGoOnAtTheirEndPastTheSwitchedOffOneAndTheLastEndsTheList) {
    stage.press(kA);
    EXPECT_FLOAT_EQ(level(), 0.1f);
    // A seek moves the sound of the current item, half-way from its length.
    const std::int64_t cue = stage.engine().cues().at(0)->id;
    stage.engine().seek(cue, 0.5);
    stage.run(0.4);
    EXPECT_FLOAT_EQ(level(), 0.1f);
    stage.run(0.2); // past the first sound's end: on to the third
    EXPECT_FLOAT_EQ(level(), 0.3f);
    EXPECT_EQ(stage.model.live().cues().at(0).slideText, QString("2/2"));
    stage.run(1.0);
    EXPECT_FLOAT_EQ(level(), 0.0f);
    EXPECT_TRUE(stage.engine().cues().empty()); // past the last item the list ended
}

TEST_F(DeckCues, EverythingSwitchedOffSaysSoAndStartsNothing) {
    auto& a = stage.doc().assignments.at(kA);
    for (DeckItem& item : *a.deckItems)
        item.enabled = false;
    stage.press(kA);
    EXPECT_EQ(stage.model.status().text(),
              a.displayName() + ": 流す素材がありません（一覧ですべて無効になっています）");
    EXPECT_TRUE(stage.engine().cues().empty());
    EXPECT_EQ(stage.engine().nextCueID(), 2); // the id was taken all the same
}

// Presses step a list through its enabled items: the first press starts at the first enabled
// one, each press shows the next, and a press past the last ends the list unless it loops, when
// it comes round. An item plays at the key's volume times its own.
TEST(DeckStepping, PressesGoThroughTheEnabledItemsAndEndOrComeRound) {
    struct Row {
        std::vector<int> off; // items switched off, of four at 0.1, 0.2, 0.3, 0.4
        bool loop;
        int presses;
        float level; // 0: the list has ended
    };
    const Row rows[] = {
        {{}, false, 1, 0.1f},     {{}, false, 2, 0.2f},     {{}, false, 4, 0.4f},
        {{}, false, 5, 0.0f},     {{}, true, 5, 0.1f},      {{1}, false, 2, 0.3f},
        {{1, 2}, false, 2, 0.4f}, {{1, 2}, false, 3, 0.0f}, {{1, 2}, true, 3, 0.1f},
        {{0}, false, 1, 0.2f},    {{3}, false, 4, 0.0f},    {{3}, true, 4, 0.1f},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.off.size() << " off, loop " << row.loop << ", "
                                        << row.presses << " presses");
        CueStage stage;
        KeyAssignment& a = stage.addListKey(kA, 4, 10.0);
        a.fadeOut = 0.0;
        a.slideLoop = row.loop;
        for (int i : row.off)
            a.deckItems->at(static_cast<std::size_t>(i)).enabled = false;
        for (int p = 0; p < row.presses; ++p) {
            stage.press(kA);
            stage.run(0.05);
        }
        EXPECT_FLOAT_EQ(stage.run(0.05)[0].back(), row.level);
        EXPECT_EQ(stage.model.isRunning(kA), row.level > 0.0f);
    }
    CueStage stage;
    KeyAssignment& a = stage.addListKey(kA, 2, 10.0);
    a.volume = 0.5;
    a.deckItems->at(0).volume = 0.5;
    stage.press(kA);
    EXPECT_FLOAT_EQ(stage.run(0.05)[0].back(), 0.025f);
}

// A picture advances after its own time, else the key's interval when the key advances by
// itself, else never; a time of 0 or less never advances, and none advances sooner than 0.3 s.
TEST(DeckStepping, APictureAdvancesAfterItsOwnTimeOrTheKeysAndNeverWithinAThirdOfASecond) {
    struct Row {
        std::optional<double> advanceAfter;
        bool slideAuto;
        double slideInterval;
        double advancesAt; // -1: stays
    };
    const Row rows[] = {
        {0.5, false, 5.0, 0.5}, {0.5, true, 0.9, 0.5},  {{}, true, 0.8, 0.8},
        {{}, false, 0.5, -1},   {0.1, false, 0.0, 0.3}, {{}, true, 0.2, 0.3},
        {0.0, true, 0.5, -1},   {{}, true, 0.0, -1},    {{}, true, -1.0, -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "own " << row.advanceAfter.value_or(-1) << ", auto "
                                        << row.slideAuto << " every " << row.slideInterval);
        CueStage stage;
        KeyAssignment& a = stage.addListKey(kA, 3, 0.0, true);
        a.slideAuto = row.slideAuto;
        a.slideInterval = row.slideInterval;
        for (DeckItem& item : *a.deckItems)
            item.advanceAfter = row.advanceAfter;
        stage.press(kA);
        const auto pressed = stage.device->framesRendered();
        double advanced = -1.0; // seconds after the press, a block at a time
        while (advanced < 0 && stage.device->framesRendered() - pressed < 1.2 * 48000) {
            stage.run(256.0 / 48000.0);
            if (stage.model.live().deckCurrent().at(kA) != "0")
                advanced = static_cast<double>(stage.device->framesRendered() - pressed) / 48000;
        }
        if (row.advancesAt < 0)
            EXPECT_EQ(advanced, -1.0);
        else
            EXPECT_NEAR(advanced, row.advancesAt, 0.04); // a tick and a block
    }
}

} // namespace

namespace {

// A deck's progress is the item shown among the enabled ones, whatever the items are: on the
// cue's row and on the key.
TEST(DeckProgress, IsTheItemShownOfTheEnabledOnes) {
    for (const bool pictures : {false, true}) {
        SCOPED_TRACE(pictures ? "pictures" : "sounds");
        CueStage stage;
        KeyAssignment& a = stage.addListKey(kA, 4, 10.0, pictures);
        a.deckItems->at(2).enabled = false;
        for (const auto& [presses, expected] :
             std::vector<std::pair<int, double>>{{1, 1.0 / 3}, {2, 2.0 / 3}, {3, 1.0}}) {
            stage.press(kA);
            stage.run(0.4);
            ASSERT_FALSE(stage.model.live().cues().empty()) << presses;
            EXPECT_DOUBLE_EQ(stage.model.live().cues().at(0).progress, expected) << presses;
            EXPECT_DOUBLE_EQ(stage.model.live().progress().at(kA), expected) << presses;
        }
    }
}

} // namespace
