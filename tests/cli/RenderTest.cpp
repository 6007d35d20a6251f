#include <cstring>
#include <gtest/gtest.h>

#include <QFile>

#include "Files.h"
#include "MediaFixtures.h"
#include "TempDir.h"
#include "TypedCommand.h"
#include "WavFiles.h"
#include "audio/WavWriter.h"
#include "cue/AppModel.h"
#include "model/Prefs.h"

namespace {

using RenderRun = TypedCommand;

RenderRun render(const QStringList& args) {
    return TypedCommand::run(QStringList{"render"} + args);
}

class Render : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        folder = QString::fromStdString(dir.file(""));
        constantWav(folder + "/half.wav", 0.5f, 10);
        constantWav(folder + "/quarter.wav", 0.25f, 10);
        constantWav(folder + "/eighth.wav", 0.125f, 10);
        AppModel model;
        model.setOffline(true);
        KeyAssignment a(folder + "/half.wav", 0);
        a.fadeIn = 0.1;
        a.fadeOut = 0.2;
        a.outputMap = "3-4";
        KeyAssignment s(folder + "/quarter.wav", 1);
        s.mode = KeyMode::retrigger;
        s.fadeOut = 1.0;
        s.outputMap = "1";
        KeyAssignment d(folder + "/eighth.wav", 2);
        d.mode = KeyMode::hold;
        d.fadeOut = 0.0;
        d.outputMap = "2";
        model.document().assignments = {{0, a}, {1, s}, {2, d}};
        show = folder + "/show.vorlin";
        model.save(show);
        events = folder + "/events.txt";
    }
    void script(const QByteArray& text) { Files::write(events, text); }

    TempDir dir;
    QString folder, show, events;
};

TEST_F(Render, ScriptedShowMatchesTheSamplesComputedFromItsEvents) {
    script("# a scripted show\n"
           "0.5 down 0\n"
           "1.0 mute 4\n"
           "1.2 master 0.5\n"
           "1.5 down 0      # toggle off, 0.2 s fade\n"
           "2.0 down 1\n"
           "2.5 down 1      # retrigger\n"
           "3.0 down 2\n"
           "3.5 up 2\n");
    const QString wav = folder + "/out.wav";
    const RenderRun run = render({show, "--events", events, "--out", wav, "--channels", "4"});
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    const auto out = readWav(wav, 4);
    ASSERT_EQ(out[0].size(), 264000u); // last event + 2 s

    // Events apply before the first 256-frame block starting at or after their time.
    // A at 24064, fading in over 4800 frames on outputs 3 and 4.
    EXPECT_EQ(out[2][24063], 0.0f);
    EXPECT_GT(out[2][24064], 0.0f);
    EXPECT_LT(out[2][24064], 1e-6f);
    EXPECT_NEAR(out[2][24064 + 2399], 0.125f, 0.001f);
    EXPECT_EQ(out[2][30000], 0.5f);
    EXPECT_EQ(out[3][30000], 0.5f);
    EXPECT_EQ(out[0][30000], 0.0f);
    // Output 4 muted from 48128; master ½ from 57600.
    EXPECT_EQ(out[3][48127], 0.5f);
    EXPECT_EQ(out[3][48128], 0.0f);
    EXPECT_EQ(out[2][57599], 0.5f);
    EXPECT_EQ(out[2][57600], 0.25f);
    // Toggled off at 72192 with a 9600-frame fade: a quarter of the level half-way.
    EXPECT_NEAR(out[2][72192 + 4799], 0.0625f, 0.002f);
    for (std::size_t i = 72192 + 9700; i < 96000; ++i)
        ASSERT_EQ(out[2][i], 0.0f) << i;
    // The retrigger key: 0.25 × master at 96000; retriggered at 120064, one instance after 30 ms.
    EXPECT_EQ(out[0][96000], 0.125f);
    EXPECT_GT(out[0][120064 + 100], 0.125f);
    for (std::size_t i = 120064 + 1440 + 256; i < 264000; ++i)
        ASSERT_EQ(out[0][i], 0.125f) << i;
    // The hold key sounds from 144128 until its release at 168192.
    EXPECT_EQ(out[1][144127], 0.0f);
    EXPECT_EQ(out[1][144128], 0.0625f);
    EXPECT_EQ(out[1][168191], 0.0625f);
    for (std::size_t i = 168192 + 256; i < 264000; ++i)
        ASSERT_EQ(out[1][i], 0.0f) << i;

    // The same input gives the same file, bit for bit.
    const QString again = folder + "/again.wav";
    ASSERT_EQ(render({show, "--events", events, "--out", again, "--channels", "4"}).status, 0);
    EXPECT_EQ(Files::read(wav), Files::read(again));
}

// OSC commands in a script, by key code or by label, do what the keyboard does, sample for
// sample; one naming a page the show lacks is named on the terminal, a malformed one refused.
TEST_F(Render, ARemoteShowRendersAsTheKeyboardPlaysIt) {
    const QString keys = folder + "/keys.wav", remote = folder + "/remote.wav";
    script("0.5 down 0\n1.2 master 0.5\n1.5 down 0\n2.0 down 1\n2.5 down 1\n3.0 down 2\n"
           "3.5 up 2\n");
    ASSERT_EQ(render({show, "--events", events, "--out", keys, "--channels", "4"}).status, 0);
    script("0.5 osc /vorlin/key/A 1\n1.2 osc /vorlin/master 0.5\n1.5 osc /vorlin/key 0 1\n"
           "2.0 osc /vorlin/key/s 1\n2.5 osc /vorlin/key 1 1\n3.0 osc /vorlin/key/D 1\n"
           "3.5 osc /vorlin/key/D 0\n3.6 osc /vorlin/page \"第 9 幕\"\n");
    const RenderRun run = render({show, "--events", events, "--out", remote, "--channels", "4"});
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    EXPECT_TRUE(run.err.contains("3.6 秒の osc: 第 9 幕 がありません")) << run.err.toStdString();
    // The remote script runs 0.1 s longer (its last event is later): the same samples up to there.
    const auto byKeys = readWav(keys, 4), byRemote = readWav(remote, 4);
    ASSERT_EQ(byRemote[0].size(), byKeys[0].size() + 4800);
    for (int c = 0; c < 4; ++c)
        EXPECT_TRUE(std::equal(byKeys[c].begin(), byKeys[c].end(), byRemote[c].begin())) << c;

    script("0 osc /vorlin/key x 1\n");
    const RenderRun bad = render({show, "--events", events, "--out", remote});
    EXPECT_EQ(bad.status, 2);
    EXPECT_TRUE(bad.err.contains("1 行目が読めません")) << bad.err.toStdString();
}

TEST_F(Render, OptionsAndPagesOfTheScript) {
    script("0 down 0\n0.25 page 0\n");
    const QString wav = folder + "/short.wav";
    ASSERT_EQ(render({show, "--events", events, "--out", wav, "--rate", "44100", "--channels", "2",
                      "--block", "100", "--seconds", "0.5"})
                  .status,
              0);
    const auto out = readWav(wav, 2);
    EXPECT_EQ(out[0].size(), 22050u);
    // Outputs 3–4 do not exist on two channels: the key is metered, not heard.
    for (float v : out[0])
        ASSERT_EQ(v, 0.0f);
}

TEST_F(Render, BadInputEndsWithAMessageAndAnErrorStatus) {
    script("0.5 down 0\n1.0 mute 4\nsoon down 1\n");
    RenderRun run = render({show, "--events", events, "--out", folder + "/x.wav"});
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(run.err.contains("イベントファイルの 3 行目が読めません: soon down 1"))
        << run.err.toStdString();

    script("0.5 down 0\n");
    run = render({folder + "/missing.vorlin", "--events", events, "--out", folder + "/x.wav"});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.err.startsWith("キーマップを開けません: ")) << run.err.toStdString();

    run = render({show, "--events", events, "--out", folder + "/no/such/dir/x.wav"});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.err.startsWith("出力ファイルを書けません: "));

    EXPECT_EQ(render({show, "--events", events}).status, 2);
    EXPECT_EQ(
        render({show, "--events", events, "--out", folder + "/x.wav", "--channels", "0"}).status,
        2);
}

TEST_F(Render, LengthsTimesAndGainsAreCheckedBeforeAnythingIsWritten) {
    script("0 down 0\n");
    const QString wav = folder + "/x.wav";
    const QStringList base{show, "--events", events, "--out", wav};
    for (const char* seconds : {"nan", "inf", "-1", "1e12"}) {
        const RenderRun run = render(base + QStringList{"--seconds", seconds});
        EXPECT_EQ(run.status, 2) << seconds;
        EXPECT_FALSE(QFile::exists(wav)) << seconds;
    }
    EXPECT_TRUE(render(base + QStringList{"--seconds", "1e12"}).err.contains("--allow-long"));

    // An event a day and more away would make the file that long.
    script("0 down 0\n86400 up 0\n");
    EXPECT_EQ(render(base).status, 2);
    EXPECT_FALSE(QFile::exists(wav));

    script("0.5 down 0\n0.2 down 1\n");
    RenderRun run = render(base);
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(run.err.contains("2 行目")) << run.err.toStdString();

    // The master is a gain of 0…1 in the window; the script obeys the same bound.
    for (const char* gain : {"1.5", "1e39", "nan", "-0.5"}) {
        script(QByteArray("0 master ") + gain + "\n");
        EXPECT_EQ(render(base).status, 2) << gain;
    }
}

// Whatever will not play is named, with why: a file gone, a damaged one, a movie too large to
// decode, a picture whose header claims more than can be decoded, a remote command for a cue
// that is not running.
TEST_F(Render, MediaThatCannotPlayIsNamedOnTheTerminal) {
    QFile::remove(folder + "/quarter.wav");
    Files::write(folder + "/eighth.wav", "RIFF and nothing more");
    MediaFixtures::Video wide{16384, 16, 0.0, 0.2};
    wide.codec = "ffv1";
    ASSERT_TRUE(MediaFixtures::write((folder + "/wide.mkv").toStdString(), "pcm_s16le", {}, &wide));
    ASSERT_TRUE(Files::write(folder + "/huge.png",
                             QByteArray::fromStdString(MediaFixtures::pngClaiming(16384, 16384))));
    {
        AppModel model;
        model.setOffline(true);
        model.open(show);
        model.document().assignments[3] = KeyAssignment(folder + "/wide.mkv", 3);
        model.document().assignments[5] = KeyAssignment(folder + "/huge.png", 5);
        model.save(show);
    }
    script("0 down 0\n0.05 osc /vorlin/cue/99/stop\n");
    const QString wav = folder + "/x.wav";
    const RenderRun run = render({show, "--events", events, "--out", wav, "--seconds", "0.1"});
    EXPECT_EQ(run.status, 0);
    for (const QString& said :
         {"メディアを読み込めません: " + folder + "/quarter.wav: ファイルが見つかりません",
          "メディアを読み込めません: " + folder + "/eighth.wav",
          "メディアを読み込めません: " + folder +
              "/wide.mkv: 映像が大きすぎます（16384 × 16 ピクセル。8192 ピクセルまで）",
          "メディアを読み込めません: " + folder +
              "/huge.png: 画像が大きすぎます（16384 × 16384 ピクセル）",
          QString("0.05 秒の osc: キュー 99 がありません")})
        EXPECT_TRUE(run.err.contains(said)) << said.toStdString() << "\n" << run.err.toStdString();
    EXPECT_FALSE(run.err.contains("half.wav"));
    EXPECT_TRUE(QFile::exists(wav));
}

} // namespace
