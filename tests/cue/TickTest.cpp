#include <gtest/gtest.h>

#include "CueStage.h"
#include "MediaFixtures.h"
#include "TempDir.h"
#include "media/AudioLoader.h"

namespace {

constexpr KeyCode kA = 0, kS = 1;

TEST(Tick, OutputMetersAttackAtOnceAndReleaseBy086PerTick) {
    CueStage stage(2);
    stage.addKey(kA, "blip", 1.0f, "1", 0.001); // 48 frames at full scale
    stage.press(kA);
    stage.device->renderBlock();
    stage.model.tick();
    ASSERT_EQ(stage.model.live().meters().size(), 8u); // eight even on a stereo device
    EXPECT_EQ(stage.model.live().meters()[0], 1.0f);
    stage.model.tick();
    EXPECT_FLOAT_EQ(stage.model.live().meters()[0], 0.86f);
    for (int i = 0; i < 9; ++i)
        stage.model.tick();
    EXPECT_NEAR(stage.model.live().meters()[0], 0.2213, 1e-3);
    EXPECT_EQ(stage.model.live().meters()[1], 0.0f);

    // As many meters as outputs, from 8 up to 64.
    for (const auto& [outputs, meters] :
         {std::pair{1, 8u}, {8, 8u}, {9, 9u}, {64, 64u}, {65, 64u}}) {
        CueStage device(outputs);
        device.model.tick();
        EXPECT_EQ(device.model.live().meters().size(), meters) << outputs << " outputs";
    }
}

TEST(Tick, SourceMetersFollowTheKeysVoicesAndDropWhenTheyStop) {
    CueStage stage;
    KeyAssignment& a = stage.addKey(kA, "a", 0.8f, "1");
    a.volume = 0.5;
    a.fadeOut = 0.0;
    stage.press(kA);
    stage.run(0.1);
    ASSERT_EQ(stage.model.live().sourceMeters().count(kA), 1u);
    EXPECT_FLOAT_EQ(stage.model.live().sourceMeters().at(kA)[0], 0.4f);
    EXPECT_GT(stage.model.live().progress().at(kA), 0.0);
    stage.press(kA);
    stage.run(0.1);
    EXPECT_EQ(stage.model.live().sourceMeters().count(kA), 0u);
    EXPECT_EQ(stage.model.live().progress().count(kA), 0u);

    // A voice that plays on in silence: its meter falls by 0.86 a tick.
    std::vector<float> loudThenSilent(48000, 0.0f);
    std::fill_n(loudThenSilent.begin(), 4800, 0.5f);
    stage.model.media().table()[a.mediaKey()].clip =
        std::make_shared<const AudioClip>(std::vector<std::vector<float>>{loudThenSilent}, 48000.0);
    stage.press(kA);
    stage.run(0.2);
    const float before = stage.model.live().sourceMeters().at(kA)[0];
    EXPECT_TRUE(before > 0.0f && before < 0.25f) << before;
    for (int i = 0; i < 5 && stage.model.live().sourceMeters().at(kA)[0] == before; ++i)
        stage.run(0.02); // a tick at the most in 20 ms
    EXPECT_FLOAT_EQ(stage.model.live().sourceMeters().at(kA)[0], before * 0.86f);

    // Retriggered with a stereo file, then a mono one: a meter a channel, as many as it plays
    // now (the falling ones of the channel that went are not kept).
    a.mode = KeyMode::retrigger;
    for (const std::size_t channels : {2u, 1u}) {
        stage.model.media().table()[a.mediaKey()].clip = std::make_shared<const AudioClip>(
            std::vector<std::vector<float>>(channels, std::vector<float>(48000, 0.5f)), 48000.0);
        stage.press(kA);
        stage.run(0.2);
        EXPECT_EQ(stage.model.live().sourceMeters().at(kA).size(), channels);
    }
}

TEST(Tick, FinishedCuesAreRemovedAndTheListPublishedOnlyOnChange) {
    CueStage stage;
    stage.addKey(kA, "short", 0.5f, "1", 0.05);
    int cueLists = 0, progressMaps = 0, pageSets = 0, meterLists = 0;
    QObject::connect(&stage.model.live(), &LiveState::cuesChanged, [&] { ++cueLists; });
    QObject::connect(&stage.model.live(), &LiveState::progressChanged, [&] { ++progressMaps; });
    QObject::connect(&stage.model.live(), &LiveState::playingPagesChanged, [&] { ++pageSets; });
    QObject::connect(&stage.model.live(), &LiveState::metersChanged, [&] { ++meterLists; });

    stage.run(0.2); // idle ticks publish the meters only
    EXPECT_EQ(cueLists + progressMaps + pageSets, 0);
    EXPECT_GE(meterLists, 6);

    stage.press(kA);
    stage.run(0.5);
    EXPECT_TRUE(stage.engine().cues().empty());
    EXPECT_TRUE(stage.model.live().cues().empty());
    EXPECT_TRUE(stage.model.live().playingPages().empty());
    EXPECT_EQ(pageSets, 2); // playing, then not
    const int listsWhilePlaying = cueLists;
    EXPECT_GE(listsWhilePlaying, 2);
    stage.run(0.5);
    EXPECT_EQ(cueLists, listsWhilePlaying);
    EXPECT_EQ(stage.model.mixer().voiceCount(), 0u); // reaped

    // A page whose last cue is fading out no longer plays, while the cue is still listed.
    stage.addKey(kA, "long", 0.5f, "1").fadeOut = 1.0;
    stage.press(kA);
    stage.run(0.1);
    EXPECT_FALSE(stage.model.live().playingPages().empty());
    stage.press(kA);
    stage.run(0.1);
    EXPECT_TRUE(stage.model.live().playingPages().empty());
    EXPECT_EQ(stage.model.live().cues().size(), 1u);
}

TEST(Tick, ACueOfAnotherOrADeletedPageIsListedWithThatPage) {
    CueStage stage;
    stage.addKey(kA, "a", 0.5f, "1");
    stage.press(kA);
    stage.doc().pages[0].name = "オープニング";
    stage.doc().storeCurrentPage();
    stage.doc().pages.push_back(KeyPage{QUuid::createUuid(), "2", {}});
    stage.doc().loadPage(1);
    stage.run(0.05);
    ASSERT_EQ(stage.model.live().cues().size(), 1u);
    EXPECT_EQ(stage.model.live().cues()[0].pageName, QString("オープニング"));
    EXPECT_EQ(stage.model.live().progress().count(kA), 0u); // not a key of this page

    stage.doc().pages.erase(stage.doc().pages.begin());
    stage.doc().currentPage = 0;
    stage.run(0.05);
    EXPECT_EQ(stage.model.live().cues()[0].pageName, QString("削除したページ"));
}

TEST(Tick, ACueStaysWhileItsVideoPlaysAfterItsSoundEnded) {
    TempDir dir;
    CueStage stage;
    ASSERT_TRUE(stage.addVideoKey(kS, dir.file("movie.mp4"), 0.2, ""));
    stage.press(kS);
    stage.run(0.6); // the sound (0.2 s) is over, the picture (1 s) is not
    ASSERT_EQ(stage.model.live().cues().size(), 1u);
    const CueRow& row = stage.model.live().cues()[0];
    EXPECT_TRUE(row.hasVideo);
    EXPECT_NEAR(row.progress, 0.5, 0.1);
    stage.run(0.7);
    EXPECT_TRUE(stage.model.live().cues().empty());
}

} // namespace
