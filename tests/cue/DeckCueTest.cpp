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

// Pictures that advance by themselves never go sooner than 0.3 s, however short their time.
TEST(DeckTiming, APictureNeverAdvancesSoonerThanAThirdOfASecond) {
    CueStage stage;
    for (DeckItem& item : *stage.addListKey(kA, 3, 0.0, true).deckItems)
        item.advanceAfter = 0.1;
    stage.press(kA);
    stage.run(0.25);
    EXPECT_EQ(stage.model.live().deckCurrent().at(kA), "0");
    stage.run(0.1);
    EXPECT_EQ(stage.model.live().deckCurrent().at(kA), "1");
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
