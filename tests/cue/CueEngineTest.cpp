#include <gtest/gtest.h>

#include <QImage>
#include <QPainter>

#include "CueStage.h"
#include "MediaFixtures.h"
#include "TempDir.h"
#include "media/AudioLoader.h"

namespace {

constexpr KeyCode kA = 0, kS = 1, kD = 2, kF = 3, kG = 5, kEsc = 53;

// What a key event did to the key's first cue and to the show: how many cues it started, and
// when that cue's sound ended after it, in seconds (-1: not within `horizon`).
struct Outcome {
    std::int64_t started;
    double endedAfter;
};

Outcome outcomeOf(CueStage& stage, const std::function<void()>& event, double horizon = 0.7) {
    const auto& cues = stage.engine().cues();
    const auto voice = cues.empty() ? std::nullopt : cues.front()->voiceID;
    const auto ids = stage.engine().nextCueID();
    event();
    const auto started = stage.engine().nextCueID() - ids;
    const double block = 256.0 / 48000.0;
    for (double t = block; voice && t <= horizon; t += block) {
        stage.run(block);
        const auto status = stage.model.mixer().snapshot();
        if (!status.count(*voice) || status.at(*voice).done)
            return {started, t};
    }
    return {started, -1.0};
}

// A stop's fade is seen in when the old sound ends: 5 ms at the least, within a 256-frame block
// either way.
void expectEndsAfter(const Outcome& outcome, double seconds) {
    if (seconds < 0)
        EXPECT_EQ(outcome.endedAfter, -1.0);
    else
        EXPECT_NEAR(outcome.endedAfter, std::max(seconds, 0.005), 0.011);
}

// The mode table: toggle, retrigger and hold keys, stopped or running, pressed, released,
// repeated or pressed with Shift.
TEST(KeyModes, EachModeStartsAndStopsAsItsTableSays) {
    enum Event { down, up, repeat, shiftDown };
    struct Row {
        KeyMode mode;
        double fadeOut;
        bool running;
        Event event;
        std::int64_t starts;
        double endsAfter; // -1: the sound goes on
    };
    const auto toggle = KeyMode::toggle, retrigger = KeyMode::retrigger, hold = KeyMode::hold;
    const Row rows[] = {
        {toggle, 0.2, false, down, 1, -1},     {toggle, 0.2, true, down, 0, 0.2},
        {toggle, 0.2, true, up, 0, -1},        {toggle, 0.2, true, repeat, 0, -1},
        {toggle, 0.2, true, shiftDown, 0, 0},  {toggle, 0.2, false, shiftDown, 0, -1},
        {retrigger, 2.0, true, down, 1, 0.03}, {retrigger, 0.01, true, down, 1, 0.01},
        {retrigger, 2.0, true, repeat, 0, -1}, {retrigger, 2.0, true, shiftDown, 0, 0},
        {hold, 0.2, false, down, 1, -1},       {hold, 0.2, true, down, 0, -1},
        {hold, 0.2, true, up, 0, 0.2},         {hold, 0.2, false, up, 0, -1},
        {hold, 0.2, true, shiftDown, 0, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << "mode " << static_cast<int>(row.mode) << ", "
                     << (row.running ? "running" : "stopped") << ", event " << row.event);
        CueStage stage;
        KeyAssignment& key = stage.addKey(kA, "a", 0.5f, "1");
        key.mode = row.mode;
        key.fadeOut = row.fadeOut;
        stage.doc().selectedKey.reset();
        int announced = 0; // selections the views hear of
        QObject::connect(&stage.engine(), &CueEngine::selectedKeyChanged, [&] { ++announced; });
        if (row.running) {
            stage.press(kA);
            stage.run(0.05);
        }
        const Outcome outcome = outcomeOf(stage, [&] {
            stage.model.handleKey(kA, row.event != up, row.event == shiftDown, row.event == repeat);
        });
        EXPECT_EQ(outcome.started, row.starts);
        expectEndsAfter(outcome, row.endsAfter);
        if (row.event == shiftDown || (row.event == down && !row.running)) {
            EXPECT_EQ(stage.doc().selectedKey, kA);
        }
        EXPECT_EQ(announced, stage.doc().selectedKey ? 1 : 0); // pressed again, not announced
        const auto out = stage.run(0.05);
        EXPECT_EQ(out[1].back(), 0.0f); // routed to output 1 only
    }
}

// Escape stops every cue with the stop-all fade, Shift+Escape at once; a cue already fading keeps
// its own fade unless the stop is immediate. Its release and repeats do nothing, and a key
// assigned to Escape never plays.
TEST(KeyModes, EscapeStopsEverythingAndAFadingCueKeepsItsOwnFade) {
    struct Row {
        bool fading; // stopped with its own 2 s fade before
        bool down, shift, repeat;
        double endsAfter;
    };
    const Row rows[] = {
        {false, true, false, false, 0.5}, {false, true, true, false, 0.0},
        {true, true, false, false, -1},   {true, true, true, false, 0.0},
        {false, false, false, false, -1}, {false, true, false, true, -1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "fading " << row.fading << ", down " << row.down
                                        << ", shift " << row.shift << ", repeat " << row.repeat);
        CueStage stage;
        stage.addKey(kA, "a", 0.5f, "1").fadeOut = 2.0;
        stage.addKey(kEsc, "never", 0.5f, "3");
        stage.engine().setStopAllFade(0.5);
        stage.press(kA);
        stage.run(0.05);
        if (row.fading)
            stage.press(kA);
        const Outcome outcome =
            outcomeOf(stage, [&] { stage.model.handleKey(kEsc, row.down, row.shift, row.repeat); });
        EXPECT_EQ(outcome.started, 0);
        expectEndsAfter(outcome, row.endsAfter);
    }
}

// A start makes each other running cue do what that cue's own `onNext` says (keep, fade with its
// own fade, cut) when the cue is of group 0 or of the starting key's group. It applies before
// the start is built, also when the start then routes nowhere, but not when the key cannot
// start at all (its media still loading or failed); a stopping cue is left to its own fade.
TEST(NextMaterial, RunningCuesYieldByTheirOwnBehaviourAndGroup) {
    enum Next { ready, routedNowhere, loading, failed };
    struct Row {
        NextBehavior onNext;
        int group, startGroup;
        Next next;
        double endsAfter;
        bool stopping = false;
    };
    const auto keep = NextBehavior::keep, fade = NextBehavior::fade, cut = NextBehavior::cut;
    const Row rows[] = {
        {keep, 0, 0, ready, -1}, {fade, 0, 0, ready, 0.2},      {fade, 0, 2, ready, 0.2},
        {cut, 0, 1, ready, 0},   {cut, 1, 0, ready, -1},        {cut, 1, 1, ready, 0},
        {fade, 1, 2, ready, -1}, {cut, 0, 0, routedNowhere, 0}, {cut, 0, 0, loading, -1},
        {cut, 0, 0, failed, -1}, {cut, 0, 0, ready, -1, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << "onNext " << static_cast<int>(row.onNext) << ", group " << row.group
                     << ", a start of group " << row.startGroup << ", next " << row.next);
        CueStage stage;
        KeyAssignment& running = stage.addKey(kA, "bed", 0.5f, "1");
        running.onNext = row.onNext;
        running.group = row.group;
        running.fadeOut = row.stopping ? 2.0 : 0.2;
        KeyAssignment& next = stage.addKey(kS, "next", 0.5f, "2");
        next.group = row.startGroup;
        if (row.next == routedNowhere)
            next.matrix = RoutingMatrix{};
        stage.press(kA);
        stage.run(0.05);
        if (row.stopping)
            stage.press(kA);
        MediaInfo& media = stage.model.media().table()[next.mediaKey()];
        media.loading = row.next == loading;
        if (row.next == failed)
            media.error = QStringLiteral("読み込みに失敗しました");
        const Outcome outcome = outcomeOf(
            stage, [&] { stage.press(kS); }, 0.3);
        EXPECT_EQ(outcome.started, row.next == ready || row.next == routedNowhere ? 1 : 0);
        const auto& cues = stage.engine().cues();
        EXPECT_EQ(
            std::count_if(cues.begin(), cues.end(), [](const auto& c) { return c->key == kS; }),
            row.next == ready ? 1 : 0); // routed nowhere, nothing plays
        expectEndsAfter(outcome, row.endsAfter);
        if (row.next == routedNowhere) {
            EXPECT_TRUE(stage.model.status().text().endsWith(
                "出力先のチャンネルがありません（ルーティングを確認）"));
        }
    }
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
    // Two seconds of a ramp: every sample tells where in the sound it is. A seek lands at its
    // fraction of the length, 0 at the least and 99.9 % at the most, in the very next block;
    // a cue that is stopping stays where it is.
    const std::pair<double, double> rows[] = {{0.5, 0.5},  {0.25, 0.25},   {0.0, 0.0},
                                              {-1.0, 0.0}, {0.999, 0.999}, {1.0, 0.999},
                                              {7.0, 0.999}};
    for (const auto& [fraction, lands] : rows) {
        CueStage stage;
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
        stage.model.seek(stage.engine().cues()[0]->id, fraction);
        const auto out = stage.run(0.1);
        EXPECT_NEAR(out[0][0], lands, 1e-4) << fraction;
        if (lands < 0.9) {
            ASSERT_TRUE(stage.model.live().cues()[0].position) << fraction;
            EXPECT_NEAR(*stage.model.live().cues()[0].position, lands + 0.1 / 2.0, 0.02);
        } else { // 2 ms left: it ends
            EXPECT_EQ(out[0][200], 0.0f) << fraction;
            EXPECT_TRUE(stage.model.live().cues().empty()) << fraction;
            continue;
        }
        stage.press(kA); // toggle: fades out over 1 s, and a seek leaves it alone
        stage.model.seek(stage.engine().cues()[0]->id, 0.9);
        EXPECT_NEAR(stage.run(0.1)[0][0], lands + 0.1 / 2.0, 1e-3) << fraction;
    }
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
// exactly at the sample sought; a looping key goes round; without its picture it plays alone;
// a file gone says so.
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

    // The sound alone, the picture switched off: it starts after the decoder's first fill.
    stage.model.stopAll(true);
    stage.run(0.1);
    stage.doc().assignments[kS].showVideo = false;
    stage.press(kS);
    EXPECT_GE(findRun(stage.run(0.5)[0], sound, 12000, 0, 12000), 0);

    // The sound alone of a movie whose file went away after loading.
    stage.model.stopAll(true);
    stage.run(0.1);
    std::remove(path.c_str());
    stage.press(kS);
    stage.run(0.1);
    EXPECT_EQ(stage.model.status().text(), "long: 音声を再生できません（読み込みに失敗しました）");
}

} // namespace
