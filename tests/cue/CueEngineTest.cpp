#include <gtest/gtest.h>

#include <QImage>
#include <QPainter>

#include "CueStage.h"
#include "MediaFixtures.h"
#include "TempDir.h"
#include "media/AudioLoader.h"

namespace {

constexpr KeyCode kA = 0, kS = 1, kD = 2, kF = 3, kG = 5, kEsc = 53;

TEST(KeyModes, ToggleStartsThenFadesOutWithItsOwnFade) {
    CueStage stage;
    stage.addKey(kA, "a", 0.5f, "1").fadeOut = 0.2;
    stage.press(kA);
    auto out = stage.run(0.1);
    EXPECT_EQ(out[0].back(), 0.5f);
    EXPECT_EQ(out[1].back(), 0.0f); // routed to output 1 only
    EXPECT_TRUE(stage.model.isRunning(kA));

    stage.press(kA);
    EXPECT_FALSE(stage.model.isRunning(kA));
    out = stage.run(0.3);
    // Half way through the fade the envelope is ½, heard squared: a quarter of the level.
    EXPECT_NEAR(out[0][4800], 0.125f, 0.01f);
    EXPECT_TRUE(silentFrom(out[0], 9700));
    EXPECT_TRUE(stage.engine().cues().empty());
}

TEST(KeyModes, RetriggerCutsTheOldInstanceWithin30ms) {
    CueStage stage;
    stage.addKey(kS, "s", 0.25f, "2").mode = KeyMode::retrigger;
    stage.doc().assignments[kS].fadeOut = 2.0;
    stage.press(kS);
    stage.run(0.1);
    stage.press(kS);
    const auto out = stage.run(0.1);
    // While the old one fades both sound; from 30 ms on only the new one does.
    EXPECT_GT(out[1][100], 0.25f);
    for (std::size_t i = 1440 + 256; i < out[1].size(); ++i)
        ASSERT_EQ(out[1][i], 0.25f) << "frame " << i;
    EXPECT_EQ(stage.engine().cues().size(), 1u);
}

TEST(KeyModes, HoldPlaysWhileHeldAndShiftNeverStarts) {
    CueStage stage;
    KeyAssignment& hold = stage.addKey(kD, "d", 0.5f, "3");
    hold.mode = KeyMode::hold;
    hold.fadeOut = 0.0;
    stage.press(kD);
    stage.press(kD); // held down again: nothing new
    auto out = stage.run(0.05);
    EXPECT_EQ(out[2].back(), 0.5f);
    EXPECT_EQ(stage.engine().cues().size(), 1u);
    stage.release(kD);
    out = stage.run(0.05);
    EXPECT_TRUE(silentFrom(out[2], 240 + 256));

    stage.addKey(kF, "f", 0.5f, "4");
    stage.press(kF, true);
    out = stage.run(0.05);
    EXPECT_EQ(firstNonZero(out[3]), -1);
    EXPECT_EQ(stage.doc().selectedKey, kF);

    // Auto-repeats never act, and releases of toggle keys neither.
    stage.model.handleKey(kF, true, false, true);
    stage.release(kF);
    EXPECT_FALSE(stage.model.isRunning(kF));
}

TEST(KeyModes, EscapeStopsEverythingWithTheStopAllFadeShiftAtOnce) {
    CueStage stage;
    stage.addKey(kA, "a", 0.5f, "1");
    stage.addKey(kS, "s", 0.5f, "2");
    stage.addKey(kEsc, "never", 0.5f, "3");
    stage.engine().setStopAllFade(0.5);
    stage.press(kA);
    stage.press(kS);
    stage.run(0.05);
    stage.model.handleKey(kEsc, false, false, false); // key up: nothing
    stage.model.handleKey(kEsc, true, false, true);   // repeat: nothing
    EXPECT_TRUE(stage.model.isRunning(kA));

    stage.press(kEsc);
    auto out = stage.run(0.1);
    EXPECT_GT(out[0].back(), 0.2f); // still fading
    EXPECT_EQ(firstNonZero(out[2]), -1);

    stage.press(kEsc, true); // Shift+Escape cuts the fades short
    out = stage.run(0.05);
    EXPECT_TRUE(silentFrom(out[0], 240 + 256));
    EXPECT_TRUE(silentFrom(out[1], 240 + 256));
}

TEST(NextMaterial, RunningCuesYieldByTheirOwnBehaviourAndGroup) {
    CueStage stage;
    KeyAssignment& bed = stage.addKey(kA, "bed", 0.5f, "1");
    bed.onNext = NextBehavior::fade;
    bed.fadeOut = 0.2;
    KeyAssignment& band = stage.addKey(kS, "band", 0.5f, "2");
    band.onNext = NextBehavior::cut;
    band.group = 1;
    stage.addKey(kD, "jingle", 0.5f, "3");           // group 0, keep
    stage.addKey(kF, "group1", 0.5f, "4").group = 1; // group 1, keep

    // The band (group 1) first: the bed's group-0 start leaves it alone.
    stage.press(kS);
    stage.press(kA);
    auto both = stage.run(0.05);
    EXPECT_EQ(both[0].back(), 0.5f);
    EXPECT_EQ(both[1].back(), 0.5f);
    // A group-1 start: the group-0 bed fades (group 0 yields to all), and the group-1 band is cut.
    stage.press(kF);
    auto out = stage.run(0.1);
    EXPECT_TRUE(silentFrom(out[1], 240 + 256));
    EXPECT_GT(out[0][1000], 0.1f);
    EXPECT_LT(out[0].back(), 0.2f);

    // A group-0 start leaves a running group-1 cue alone.
    stage.press(kS);
    stage.run(0.05);
    stage.press(kD);
    out = stage.run(0.05);
    EXPECT_EQ(out[1].back(), 0.5f);
}

TEST(NextMaterial, AppliesBeforeAStartThatYieldsNothingAndConsumesACueID) {
    CueStage stage;
    KeyAssignment& bed = stage.addKey(kA, "bed", 0.5f, "1");
    bed.onNext = NextBehavior::cut;
    stage.addKey(kS, "nowhere", 0.5f, "").matrix = RoutingMatrix{}; // routes nowhere
    stage.press(kA);
    stage.run(0.05);
    const auto before = stage.engine().nextCueID();
    stage.press(kS);
    EXPECT_EQ(stage.model.status().text(),
              "nowhere: 出力先のチャンネルがありません（ルーティングを確認）");
    EXPECT_EQ(stage.engine().nextCueID(), before + 1);
    const auto out = stage.run(0.05);
    EXPECT_TRUE(silentFrom(out[0], 240 + 256));
    EXPECT_EQ(firstNonZero(out[1]), -1);
}

TEST(Pages, CuesOutliveAPageSwitchAndOnlyEscapeOrTheRuleReachThem) {
    CueStage stage;
    stage.addKey(kA, "a", 0.25f, "1");
    stage.press(kA);
    stage.run(0.05);
    // Page 2 has the same key with the same file.
    stage.doc().storeCurrentPage();
    KeyPage second{QUuid::createUuid(), "2", {{kA, stage.doc().assignments[kA]}}};
    stage.doc().pages.push_back(second);
    stage.doc().loadPage(1);
    EXPECT_FALSE(stage.model.isRunning(kA));

    stage.press(kA); // a second instance, on page 2
    auto out = stage.run(0.05);
    EXPECT_EQ(out[0].back(), 0.5f);
    stage.press(kA); // stops only the page-2 instance
    out = stage.run(1.2);
    EXPECT_EQ(out[0].back(), 0.25f);
    ASSERT_EQ(stage.model.live().cues().size(), 1u);
    EXPECT_EQ(stage.model.live().cues()[0].pageName, QString("ページ 1"));
    EXPECT_TRUE(stage.model.live().playingPages().count(stage.doc().pages[0].id));

    stage.press(kEsc, true);
    out = stage.run(0.05);
    EXPECT_TRUE(silentFrom(out[0], 240 + 256));
}

TEST(Messages, LoadingFailedOrUnassignedKeysStartNothing) {
    CueStage stage;
    stage.addKey(kA, "tone", 0.5f, "1");
    MediaInfo& info = stage.model.media().table()["/show/tone.wav"];
    info.loading = true;
    info.progressText = "読み込み中 45%";
    stage.press(kA);
    EXPECT_EQ(stage.model.status().text(), "tone は読み込み中 45%");

    stage.model.media().table().clear();
    stage.press(kA);
    EXPECT_EQ(stage.model.status().text(), "tone は読み込み中です");

    stage.model.media().table()["/show/tone.wav"].error = QString("読み込みに失敗しました");
    stage.press(kA);
    EXPECT_EQ(stage.model.status().text(), "tone: 読み込みに失敗しました");
    EXPECT_EQ(stage.beeps, 1);

    stage.press(kG); // no assignment: only the selection moves
    EXPECT_EQ(stage.doc().selectedKey, kG);
    EXPECT_TRUE(stage.engine().cues().empty());
    EXPECT_EQ(firstNonZero(stage.run(0.05)[0]), -1);
    EXPECT_EQ(stage.engine().nextCueID(), 1);
}

TEST(VideoKeys, SoundWaitsForThePictureAndPlaysWithoutItWhenItFails) {
    TempDir dir;
    CueStage stage;
    ASSERT_TRUE(stage.addVideoKey(kA, dir.file("movie.mp4"), 1.0, "1"));
    const MediaInfo info = stage.model.media().table().begin()->second;

    stage.run(0.01); // two blocks: frames 0–511, with the tick at frame 0
    stage.press(kA);
    ASSERT_EQ(stage.engine().cues().size(), 1u);
    ASSERT_TRUE(stage.engine().cues()[0]->video);
    auto out = stage.run(0.5);
    // The next tick runs at the block starting at frame 1792; the picture starts 80 ms
    // (3840 frames) after it, at frame 5632, and the sound with it: index 5120 of this run.
    // Host times are whole nanoseconds, so the start may land one frame early.
    for (std::size_t i = 0; i < 5119; ++i)
        ASSERT_EQ(out[0][i], 0.0f) << "frame " << i;
    EXPECT_LE(firstNonZero(out[0]), 5122);
    EXPECT_TRUE(stage.model.video().isShowing());

    // A movie file gone since it was loaded: the sound is released at once, with a message.
    CueStage broken;
    KeyAssignment b("/show/not-a-movie.wav", 0);
    b.outputMap = "1";
    MediaInfo fake = info;
    broken.model.media().table()[b.path] = fake;
    broken.doc().assignments[kS] = b;
    broken.press(kS);
    out = broken.run(0.1);
    EXPECT_NE(firstNonZero(out[0]), -1);
    EXPECT_LT(firstNonZero(out[0]), 512);
    EXPECT_EQ(broken.model.status().text(), "not-a-movie: 映像を再生できません");
}

TEST(CueList, StopCueAndTogglePlaybackFromTheViews) {
    CueStage stage;
    stage.addKey(kA, "a", 0.5f, "1").mode = KeyMode::hold;
    stage.doc().assignments[kA].fadeOut = 0.0;
    stage.model.togglePlayback(kA); // starts regardless of the mode
    stage.run(0.05);
    ASSERT_TRUE(stage.model.isRunning(kA));
    stage.model.stopCue(stage.engine().cues()[0]->id);
    auto out = stage.run(0.05);
    EXPECT_TRUE(silentFrom(out[0], 240 + 256));
    stage.model.togglePlayback(kA);
    EXPECT_TRUE(stage.model.isRunning(kA));
    stage.model.togglePlayback(kA);
    EXPECT_FALSE(stage.model.isRunning(kA));
}

TEST(Seek, AudioMovesAtOnceNeverQuiteToTheEndAndNotWhileStopping) {
    CueStage stage;
    // Two seconds of a ramp: every sample tells where in the sound it is.
    const KeyAssignment& a = stage.addKey(kA, "ramp", 0.0f, "1", 2.0);
    std::vector<float> ramp(96000);
    for (std::size_t i = 0; i < ramp.size(); ++i)
        ramp[i] = static_cast<float>(i) / 96000.0f;
    stage.model.media().table()[a.mediaKey()].clip =
        std::make_shared<const AudioClip>(std::vector<std::vector<float>>{ramp}, 48000.0);
    stage.press(kA);
    stage.run(0.1);
    ASSERT_EQ(stage.model.live().cues().size(), 1u);
    EXPECT_EQ(stage.model.live().cues()[0].duration, 2.0);
    const std::int64_t id = stage.engine().cues()[0]->id;

    stage.model.seek(id, 0.5);
    auto out = stage.run(0.1);
    EXPECT_NEAR(out[0][0], 0.5f, 1e-4); // the very next block plays from 1 s
    const CueRow row = stage.model.live().cues()[0];
    ASSERT_TRUE(row.position);
    EXPECT_NEAR(*row.position, 0.5 + 0.1 / 2.0, 0.02);

    stage.model.seek(id, 7.0); // clamped to 99.9 %: 2 ms are left to play
    out = stage.run(0.1);
    EXPECT_NEAR(out[0][0], 0.999f, 1e-4);
    EXPECT_EQ(out[0][200], 0.0f);
    EXPECT_TRUE(stage.model.live().cues().empty());

    // A cue fading out stays where it is.
    stage.press(kA);
    stage.run(0.5);
    stage.press(kA); // toggle: fades out over 1 s
    const std::int64_t fading = stage.engine().cues()[0]->id;
    stage.model.seek(fading, 0.0);
    stage.run(0.1);
    ASSERT_EQ(stage.model.live().cues().size(), 1u);
    EXPECT_GT(*stage.model.live().cues()[0].position, 0.25);
}

TEST(Seek, MovieAndItsSoundResumeTogetherATenthOfASecondLater) {
    TempDir dir;
    CueStage stage;
    stage.engine().setHostClock([&stage] { return stage.device->hostTime(); });
    ASSERT_TRUE(stage.addVideoKey(kS, dir.file("movie.mp4"), 1.0, "1"));
    stage.press(kS);
    stage.run(0.3);
    const ActiveCuePtr cue = stage.engine().cues().at(0);
    ASSERT_TRUE(cue->video && cue->video->started);
    EXPECT_GT(stage.model.live().cues()[0].duration, 0.9);

    stage.model.seek(cue->id, 0.6);
    const auto out = stage.run(0.2);
    // Silent until the resume time (4800 frames on), then the tone again.
    EXPECT_EQ(
        std::count_if(out[0].begin(), out[0].begin() + 4700, [](float v) { return v != 0.0f; }), 0);
    EXPECT_GE(firstNonZero(out[0]), 4700);
    EXPECT_LE(firstNonZero(out[0]), 4900);
    // Picture and sound at 0.6 s + the ~0.1 s since they resumed.
    const CueRow row = stage.model.live().cues().at(0);
    ASSERT_TRUE(row.position);
    EXPECT_NEAR(*row.position, 0.7, 0.05);
    EXPECT_NEAR(cue->video->progress(), *row.position, 0.05);
    // The picture drawn now is the one due at that point of the movie (25 a second, each grey
    // telling its number).
    QImage picture(160, 120, QImage::Format_RGB32);
    QPainter painter(&picture);
    stage.video().draw(painter, picture.rect(), stage.device->hostTime());
    painter.end();
    const double due = std::floor(cue->video->progress() * cue->video->duration() * 25.0 + 1e-6);
    EXPECT_NEAR(qGray(picture.pixel(80, 60)), MediaFixtures::pictureGrey(static_cast<int>(due)),
                4.0);

    // Asked before the picture is under way, a seek moves neither: the sound still waits for
    // the picture's start and plays with it from the beginning.
    stage.model.stopAll(true);
    stage.run(0.1);
    stage.press(kS);
    stage.model.seek(stage.engine().cues().back()->id, 0.6);
    stage.run(0.3);
    const ActiveCuePtr early = stage.engine().cues().back();
    const CueRow earlyRow = stage.model.live().cues().back();
    ASSERT_TRUE(earlyRow.position);
    EXPECT_LT(*earlyRow.position, 0.3);
    EXPECT_NEAR(*earlyRow.position, early->video->progress(), 0.05);
}

// Where `expected` first appears in `out` at or after `from` (within `within` frames), or -1.
std::int64_t findRun(const std::vector<float>& out, const float* expected, std::int64_t length,
                     std::int64_t from, std::int64_t within) {
    for (std::int64_t at = std::max<std::int64_t>(from, 0); at <= from + within; ++at) {
        if (at + length <= static_cast<std::int64_t>(out.size()) &&
            std::equal(expected, expected + length, out.begin() + at))
            return at;
    }
    return -1;
}

// A movie whose sound is too long to decode into memory is heard streamed: sample for sample
// what a clip of it would hold, from its first picture on; a seek resumes it with the picture
// exactly at the sample sought; a looping key goes round; a file gone says so.
TEST(Seek, AStreamedMovieSoundIsTheFilesSoundOnTimeAfterASeekAndRoundTheLoop) {
    TempDir dir;
    CueStage stage(1);
    stage.engine().setDecodeInline(true);
    const std::string path = dir.file("long.mov");
    ASSERT_TRUE(stage.addStreamedMovieKey(kS, path, 2.0));
    stage.doc().assignments[kS].loop = true;
    const AudioClipPtr clip = AudioLoader::loadClip(path, 48000.0, AudioLoader::probe(path));
    const float* sound = clip->channels[0];

    stage.run(0.01);
    stage.press(kS);
    auto out = stage.run(0.5);
    // As the clip would (see the test above): the start lands at index 5120 of this run.
    EXPECT_GE(findRun(out[0], sound, 12000, 5118, 4), 5118);

    const ActiveCuePtr cue = stage.engine().cues().at(0);
    ASSERT_TRUE(cue->stream);
    stage.model.seek(cue->id, 0.6);
    out = stage.run(1.5);
    // The sound before the seek fades out in 5 ms; then silence up to the resume 0.1 s (4800
    // frames) later, and frame 1.2 × 48000 on; 0.8 s later it goes round to the first frame.
    const std::int64_t resumed = findRun(out[0], sound + 57600, 2400, 4798, 4);
    ASSERT_GE(resumed, 4798);
    EXPECT_EQ(std::count_if(out[0].begin() + 241, out[0].begin() + 4790, [](float v) { return v; }),
              0);
    const std::int64_t tail = clip->frameCount - 57600;
    EXPECT_TRUE(std::equal(sound + 57600, sound + clip->frameCount, out[0].begin() + resumed));
    EXPECT_TRUE(std::equal(sound, sound + 20000, out[0].begin() + resumed + tail));
    const CueRow row = stage.model.live().cues().at(0);
    ASSERT_TRUE(row.position);
    EXPECT_NEAR(*row.position, (static_cast<double>(out[0].size() - resumed - tail)) / 96000.0,
                0.03);

    // The same movie as the item of a list: its sound is streamed too, and follows a seek.
    stage.model.stopAll(true);
    stage.run(0.1);
    KeyAssignment& list = stage.addListKey(kD, 1, 1.0);
    DeckItem& item = (*list.deckItems)[0];
    item.kind = DeckItem::Kind::video;
    item.file = QString::fromStdString(path);
    list.sources = QStringList{item.file};
    MediaInfo& info = stage.model.media().table()[list.mediaKey()];
    DeckManifest manifest;
    manifest.engine = Deck::kListEngine;
    manifest.items = {item};
    auto deck = std::make_shared<Deck>(QString(), manifest);
    deck->probes[item.file] = AudioLoader::probe(path);
    info.deck = deck;
    stage.press(kD);
    out = stage.run(0.5);
    EXPECT_GE(findRun(out[0], sound, 12000, 0, 24000), 0);
    stage.model.seek(stage.engine().cues().back()->id, 0.5);
    out = stage.run(0.5);
    EXPECT_GE(findRun(out[0], sound + 48000, 12000, 4798, 4), 4798);

    // The sound alone of a movie whose file went away after loading.
    stage.model.stopAll(true);
    stage.run(0.1);
    stage.doc().assignments[kS].showVideo = false;
    std::remove(path.c_str());
    stage.press(kS);
    stage.run(0.1);
    EXPECT_EQ(stage.model.status().text(), "long: 音声を再生できません（読み込みに失敗しました）");
}

} // namespace
