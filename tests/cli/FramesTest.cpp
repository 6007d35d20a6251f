#include <cmath>
#include <gtest/gtest.h>

#include <QBuffer>
#include <QFile>
#include <QImage>

#include "Files.h"
#include "MediaFixtures.h"
#include "PdfFixture.h"
#include "Sanitizer.h"
#include "SignalMeasure.h"
#include "TempDir.h"
#include "TypedCommand.h"
#include "WavFiles.h"
#include "cue/AppModel.h"
#include "model/Prefs.h"

namespace {

// Pictures of `vorlin render --frames` for a show of movies.
class Frames : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        folder = QString::fromStdString(dir.file(""));
        const MediaFixtures::Video narrow{160, 120, 0.0, 1.0}; // 4:3
        const MediaFixtures::Video wide{320, 120, 0.0, 1.0};
        ASSERT_TRUE(MediaFixtures::write(dir.file("movie.mp4"), "aac",
                                         {{1, 48000, 1.0, 1000.0, 0.5}}, &narrow));
        ASSERT_TRUE(MediaFixtures::write(dir.file("wide.mp4"), "aac",
                                         {{1, 48000, 1.0, 1000.0, 0.5}}, &wide));
        show = folder + "/show.vorlin";
        events = folder + "/events.txt";
    }
    void makeShow(const std::vector<KeyAssignment>& keys) {
        AppModel model;
        model.setOffline(true);
        for (std::size_t i = 0; i < keys.size(); ++i)
            model.document().assignments[static_cast<KeyCode>(i)] = keys[i];
        model.save(show);
    }
    KeyAssignment movie(const QString& name) {
        KeyAssignment a(folder + "/" + name, 0);
        a.outputMap = "1";
        a.fadeOut = 0.0;
        return a;
    }
    TypedCommand render(const QByteArray& script, const QStringList& options,
                        const QString& frames) {
        Files::write(events, script);
        return TypedCommand::run(QStringList{"render", show, "--events", events, "--out",
                                             folder + "/out.wav", "--channels", "2", "--frames",
                                             frames} +
                                 options);
    }
    bool writeFile(const QString& name, const QByteArray& bytes) {
        return Files::write(folder + "/" + name, bytes);
    }
    // A list key of these files, cut from one to the next; "level.wav" (3 s at 0.25) and
    // "green.png" (0, 200, 0) are made here.
    KeyAssignment list(const QStringList& names) {
        constantWav(folder + "/level.wav", 0.25f, 3.0);
        QImage green(160, 120, QImage::Format_RGB32);
        green.fill(QColor(0, 200, 0));
        EXPECT_TRUE(green.save(folder + "/green.png"));
        KeyAssignment a = movie(names.first());
        a.sources = QStringList();
        for (const QString& name : names)
            *a.sources << folder + "/" + name;
        a.slideTransition = 0.0;
        return a;
    }
    QImage frame(const QString& frames, int number) {
        return QImage(frames + QStringLiteral("/frame_%1.png").arg(number, 6, 10, QChar('0')));
    }

    TempDir dir;
    QString folder, show, events;
};

TEST_F(Frames, EachPictureIsTheMovieFrameDueAndTheFirstComesWithTheSound) {
    makeShow({movie("movie.mp4")});
    const QString frames = folder + "/frames";
    const TypedCommand run =
        render("0 down 0\n", {"--seconds", "1", "--fps", "25", "--size", "160x120"}, frames);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    // The key is pressed at 0; the movie starts 80 ms later, at picture 3 (time 2/25).
    EXPECT_EQ(qGray(frame(frames, 1).pixel(80, 60)), 0);
    EXPECT_EQ(qGray(frame(frames, 2).pixel(80, 60)), 0);
    for (int k = 2; k < 24; ++k) {
        const QImage picture = frame(frames, k + 1);
        ASSERT_FALSE(picture.isNull()) << k;
        EXPECT_NEAR(qGray(picture.pixel(80, 60)), MediaFixtures::pictureGrey(k - 2), 4.0)
            << "picture " << k + 1;
    }
    EXPECT_FALSE(QFile::exists(frames + "/frame_000026.png"));
    // Its sound starts at the same host time: sample 3840 (a sine from phase 0).
    const std::int64_t first = SignalMeasure::firstNonZero(readWav(folder + "/out.wav", 2)[0]);
    EXPECT_GE(first, 3839);      // host times are whole nanoseconds: one frame early at most
    EXPECT_LE(first, 3840 + 48); // within a millisecond

    // The same input draws the same pictures.
    const QString again = folder + "/again";
    ASSERT_EQ(
        render("0 down 0\n", {"--seconds", "1", "--fps", "25", "--size", "160x120"}, again).status,
        0);
    for (const char* name : {"/frame_000003.png", "/frame_000012.png", "/frame_000025.png"})
        EXPECT_EQ(Files::read(frames + name), Files::read(again + name)) << name;
}

TEST_F(Frames, FadesLayersAndFitAsAnOutputShowsThem) {
    KeyAssignment faded = movie("movie.mp4");
    faded.fadeIn = 1.0;
    KeyAssignment high = movie("movie.mp4");
    high.layer = 7;
    KeyAssignment low = movie("wide.mp4");
    low.layer = 2;
    makeShow({faded, high, low});

    // A 1 s fade-in is half-way 0.5 s after the start (picture 12 of the movie is due).
    const QString fade = folder + "/fade";
    ASSERT_EQ(
        render("0 down 0\n", {"--seconds", "0.7", "--fps", "50", "--size", "160x120"}, fade).status,
        0);
    EXPECT_NEAR(qGray(frame(fade, 30).pixel(80, 60)), MediaFixtures::pictureGrey(12) / 2.0, 4.0);

    // A 4:3 movie on layer 7 stays above an 8:3 one on layer 2 started later (pressed at 0.2 s,
    // taken at the block of 0.2027 s, shown from 0.2827 s); fitted into 320×120 the narrow one
    // covers x 80…239 only.
    const QString layers = folder + "/layers";
    ASSERT_EQ(render("0 down 1\n0.2 down 2\n",
                     {"--seconds", "0.6", "--fps", "25", "--size", "320x120"}, layers)
                  .status,
              0);
    const QImage both = frame(layers, 13); // 0.48 s: the high one at picture 10, the low one at 4
    EXPECT_NEAR(qGray(both.pixel(160, 60)), MediaFixtures::pictureGrey(10), 4.0);
    EXPECT_NEAR(qGray(both.pixel(20, 60)), MediaFixtures::pictureGrey(4), 4.0);
    EXPECT_NEAR(qGray(both.pixel(300, 60)), MediaFixtures::pictureGrey(4), 4.0);

    // Filling instead of fitting: the 4:3 picture covers the whole 16:9 output, cropped.
    Prefs::setValue(Prefs::kVideoFill, "fill");
    const QString filled = folder + "/filled";
    ASSERT_EQ(render("0 down 1\n", {"--seconds", "0.3", "--fps", "25", "--size", "320x180"}, filled)
                  .status,
              0);
    EXPECT_NEAR(qGray(frame(filled, 5).pixel(5, 90)), MediaFixtures::pictureGrey(2), 4.0);
    Prefs::setValue(Prefs::kVideoFill, "fit");
    const QString fitted = folder + "/fitted";
    ASSERT_EQ(render("0 down 1\n", {"--seconds", "0.3", "--fps", "25", "--size", "320x180"}, fitted)
                  .status,
              0);
    EXPECT_EQ(qGray(frame(fitted, 5).pixel(5, 90)), 0);
    EXPECT_NEAR(qGray(frame(fitted, 5).pixel(160, 90)), MediaFixtures::pictureGrey(2), 4.0);
}

// A sound card's crystal is never the host's: over an hour at 100 ppm fast the sound is 0.36 s
// (9 pictures) ahead of host time. The pictures run on the device's clock and stay with it.
TEST_F(Frames, AnHourLongMovieStaysWithItsSoundOnADeviceClockThatRunsFast) {
    if (kSanitized)
        GTEST_SKIP() << "an hour of movie decoded under the sanitizer outlasts the test's limit";
    constexpr double kHour = 3600.0;
    const MediaFixtures::Video video{32, 24, 0.0, kHour};
    ASSERT_TRUE(MediaFixtures::write(dir.file("hour.mkv"), "pcm_s16le",
                                     {{1, 8000, kHour, 1000.0, 0.5}}, &video));
    makeShow({movie("hour.mkv")});
    const QString frames = folder + "/hour";
    const TypedCommand run =
        render("0 down 0\n",
               {"--seconds", "3600", "--rate", "8000", "--channels", "1", "--block", "4096",
                "--fps", "1", "--size", "32x24", "--device-ppm", "100"},
               frames);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();

    // The sound: released at host 0.08 s, which the fast device reaches at its frame
    // 0.08 × 8000 × 1.0001; from there it plays the movie's sound at the device's rate.
    QFile wav(folder + "/out.wav");
    ASSERT_TRUE(wav.open(QIODevice::ReadOnly));
    const QByteArray head = wav.read(4096);
    const qsizetype data = head.indexOf("data") + 8;
    wav.seek(data);
    const QByteArray start = wav.read(8000 * 4);
    qsizetype first = 0;
    while (first * 4 < start.size() &&
           *reinterpret_cast<const float*>(start.constData() + first * 4) == 0.0f)
        ++first;
    EXPECT_NEAR(first, 0.08 * 8000 * 1.0001, 1.0);
    EXPECT_EQ(wav.size() - data, static_cast<qint64>(kHour * 8000 * 4));

    // What the sound plays at host time t, in pictures: (t − 0.08) × 1.0001 × 25. The last
    // pictures show exactly that, not the host clock's (t − 0.08) × 25.
    for (int t : {3590, 3597}) {
        const double soundPicture = (t - 0.08) * 1.0001 * 25.0;
        const double hostPicture = (t - 0.08) * 25.0;
        ASSERT_GT(soundPicture - hostPicture, 8.0);
        const int due = static_cast<int>(std::floor(soundPicture));
        const double grey = qGray(frame(frames, t + 1).pixel(16, 12));
        EXPECT_NEAR(grey, MediaFixtures::pictureGrey(due), 4.0) << "at " << t << " s";
    }

    // At 192 kHz the hour's sound would need 2.8 GB as a clip: it is decoded while it plays,
    // and is heard as from a clip, starting with the first picture.
    const QString fast = folder + "/fast";
    const TypedCommand streamed = render(
        "0 down 0\n",
        {"--seconds", "1", "--rate", "192000", "--channels", "1", "--fps", "25", "--size", "32x24"},
        fast);
    ASSERT_EQ(streamed.status, 0) << streamed.err.toStdString();
    EXPECT_NEAR(qGray(frame(fast, 24).pixel(16, 12)), MediaFixtures::pictureGrey(21), 4.0);
    const std::vector<float> sound = readWav(folder + "/out.wav", 1)[0];
    EXPECT_GE(SignalMeasure::firstNonZero(sound), 15359);
    auto sample = [&](qsizetype i) { return sound[static_cast<std::size_t>(i)]; };
    // The 1 kHz tone from phase 0 at 0.08 s (past the converter's first 10 ms of settling); the
    // start may land a frame early, which moves the tone by 0.016 at most.
    for (qsizetype i = 15360 + 1920; i < 192000; i += 97)
        ASSERT_NEAR(sample(i), 0.5 * std::sin(2.0 * M_PI * 1000.0 * (i - 15360) / 192000.0), 0.02)
            << i;
}

// Still pictures on keys: turned upright as the file says, faded in, taken down by a second
// press; a file that is no picture is named on the terminal and the others show.
TEST_F(Frames, StillPicturesShowUprightFadeAndGoAndANonPictureSaysSo) {
    QImage flat(160, 120, QImage::Format_RGB32);
    flat.fill(QColor(200, 200, 200));
    ASSERT_TRUE(flat.save(folder + "/flat.png"));
    // A photo held sideways: stored 40×20, red left and blue right, marked "turn 90° clockwise".
    QImage stored(40, 20, QImage::Format_RGB32);
    stored.fill(Qt::blue);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 20; ++x)
            stored.setPixel(x, y, qRgb(255, 0, 0));
    // Qt's writer would turn the pixels themselves: the tag goes in by hand, as a camera writes
    // it (an EXIF block right after the start marker, Orientation = 6).
    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    ASSERT_TRUE(stored.save(&buffer, "JPG", 95));
    const char exif[] = "\xFF\xE1\x00\x22"
                        "Exif\0\0"
                        "MM\x00\x2A\x00\x00\x00\x08"
                        "\x00\x01"
                        "\x01\x12\x00\x03\x00\x00\x00\x01\x00\x06\x00\x00"
                        "\x00\x00\x00\x00";
    jpeg.insert(2, QByteArray(exif, sizeof exif - 1));
    ASSERT_TRUE(writeFile("sideways.jpg", jpeg));
    ASSERT_TRUE(writeFile("fake.png", "not a picture at all"));

    KeyAssignment faded = movie("flat.png");
    faded.fadeIn = 1.0;
    faded.fadeOut = 0.0;
    makeShow({faded, movie("sideways.jpg"), movie("fake.png")});
    const QString frames = folder + "/pictures";
    const TypedCommand run =
        render("0 down 0\n0 down 2\n1.5 down 0\n2 down 1\n",
               {"--seconds", "2.5", "--fps", "10", "--size", "160x120"}, frames);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    EXPECT_TRUE(run.err.contains("fake.png")) << run.err.toStdString();
    EXPECT_TRUE(run.err.contains(QStringLiteral("画像として読めません"))) << run.err.toStdString();
    EXPECT_NEAR(qGray(frame(frames, 6).pixel(80, 60)), 100, 4); // half-way through its fade-in
    EXPECT_NEAR(qGray(frame(frames, 13).pixel(80, 60)), 200, 4);
    EXPECT_EQ(qGray(frame(frames, 17).pixel(80, 60)), 0); // pressed again at 1.5 s: gone
    // Upright: 20×40, red above blue, fitted in the middle of 160×120.
    const QImage upright = frame(frames, 23);
    EXPECT_GT(qRed(upright.pixel(70, 30)), 180);
    EXPECT_LT(qBlue(upright.pixel(70, 30)), 80);
    EXPECT_GT(qBlue(upright.pixel(70, 90)), 180);
    EXPECT_LT(qRed(upright.pixel(70, 90)), 80);
    EXPECT_EQ(qGray(upright.pixel(20, 60)), 0); // beside the portrait picture: background
}

// A movie cut short shows what it holds and the show goes on; a file that is no movie fails
// with the engine's message; neither stops the pictures of the others.
TEST_F(Frames, DamagedMoviesFailAloneWithAMessage) {
    const MediaFixtures::Video video{160, 120, 0.0, 1.0};
    ASSERT_TRUE(MediaFixtures::write(dir.file("cut.mkv"), "pcm_s16le",
                                     {{1, 48000, 1.0, 1000.0, 0.5}}, &video));
    QFile cut(folder + "/cut.mkv");
    ASSERT_TRUE(cut.resize(cut.size() / 2));
    ASSERT_TRUE(writeFile("fake.mp4", QByteArray(4096, 'x')));
    KeyAssignment good = movie("movie.mp4");
    good.layer = 9; // above the others (5)
    makeShow({movie("cut.mkv"), movie("fake.mp4"), good});

    const QString frames = folder + "/damaged";
    const TypedCommand run =
        render("0 down 0\n0 down 1\n0 down 2\n",
               {"--seconds", "0.8", "--fps", "25", "--size", "160x120"}, frames);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    EXPECT_TRUE(run.err.contains("fake.mp4")) << run.err.toStdString();
    // The good movie is on top and plays on: at 0.6 s its picture 13.
    EXPECT_NEAR(qGray(frame(frames, 16).pixel(80, 60)), MediaFixtures::pictureGrey(13), 4.0);
}

// A list of a sound, a picture and a movie: one item a press, each replacing the one before, and
// a fourth press ends the list.
TEST_F(Frames, AListPlaysOneFileAPressAndAFourthPressEndsIt) {
    makeShow({list({"level.wav", "green.png", "movie.mp4"})});
    const QString frames = folder + "/list";
    const TypedCommand run = render("0 down 0\n1 down 0\n2 down 0\n2.5 down 0\n",
                                    {"--seconds", "3", "--fps", "10", "--size", "160x120"}, frames);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    const auto out = readWav(folder + "/out.wav", 2);
    const auto at = [&](double seconds) {
        return out[0][static_cast<std::size_t>(seconds * 48000)];
    };
    EXPECT_FLOAT_EQ(at(0.5), 0.25f); // the sound, with nothing on the outputs
    EXPECT_EQ(qGray(frame(frames, 6).pixel(80, 60)), 0);
    EXPECT_EQ(at(1.5), 0.0f); // the picture replaced it
    EXPECT_EQ(frame(frames, 16).pixel(80, 60), qRgb(0, 200, 0));
    // The movie from 2.08 s: at 2.3 s its picture 5, and its sound.
    EXPECT_NEAR(qGray(frame(frames, 24).pixel(80, 60)), MediaFixtures::pictureGrey(5), 10.0);
    float loudest = 0.0f;
    for (double t = 2.2; t < 2.4; t += 1.0 / 48000.0)
        loudest = std::max(loudest, std::abs(at(t)));
    EXPECT_GT(loudest, 0.4f);
    // Pressed past its last item: gone, sound and picture.
    EXPECT_EQ(qGray(frame(frames, 28).pixel(80, 60)), 0);
    for (double t = 2.6; t < 2.99; t += 0.01)
        ASSERT_EQ(at(t), 0.0f) << t;
}

// A sound item leaves the movie before it playing to its end; that end does not move the deck,
// which has gone on to the sound.
TEST_F(Frames, AMovieEndingUnderTheNextItemLeavesTheDeckWhereItIs) {
    makeShow({list({"movie.mp4", "level.wav", "green.png"})});
    const QString frames = folder + "/under";
    const TypedCommand run = render(
        "0 down 0\n0.3 down 0\n", {"--seconds", "1.6", "--fps", "10", "--size", "160x120"}, frames);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    // 1.5 s: the movie's last picture held, the sound playing, no green.
    EXPECT_NEAR(qGray(frame(frames, 16).pixel(80, 60)), MediaFixtures::pictureGrey(24), 10.0);
    EXPECT_FLOAT_EQ(readWav(folder + "/out.wav", 2)[0][static_cast<std::size_t>(1.5 * 48000)],
                    0.25f);
}

// A slide switched off is never shown, whether reached by a press, the picture timer or the end
// of a movie; a deck with slideLoop comes round, one without ends past its last item.
TEST_F(Frames, SlidesSwitchedOffAreSkippedByPressTimerAndMovieEnd) {
    ASSERT_TRUE(writePdf(folder + "/talk.pdf", {Qt::red, Qt::green, Qt::blue}));
    DeckItem second;
    second.id = "s2";
    second.file = "s002.png";
    second.slide = 2;
    second.title = "スライド 2";
    second.enabled = false;
    KeyAssignment timed = movie("talk.pdf");
    timed.deckItems = std::vector<DeckItem>{second}; // only the one changed: matched by id
    timed.slideAuto = true;
    timed.slideInterval = 0.5;
    timed.slideLoop = true;
    timed.slideTransition = 0.0;
    KeyAssignment pressed = timed;
    pressed.slideAuto = false;
    pressed.slideLoop = false;
    QImage red(160, 120, QImage::Format_RGB32), blue(160, 120, QImage::Format_RGB32);
    red.fill(Qt::red);
    blue.fill(Qt::blue);
    ASSERT_TRUE(red.save(folder + "/red.png") && blue.save(folder + "/blue.png"));
    KeyAssignment afterMovie = movie("movie.mp4");
    afterMovie.sources =
        QStringList{folder + "/movie.mp4", folder + "/red.png", folder + "/blue.png"};
    // The list's own items: the first as it is, the second (red) switched off.
    DeckItem first, off;
    first.id = "0";
    off.id = "1";
    off.enabled = false;
    afterMovie.deckItems = std::vector<DeckItem>{first, off};
    afterMovie.slideTransition = 0.0;
    makeShow({timed, pressed, afterMovie});
    const QString frames = folder + "/slides";
    const TypedCommand run =
        render("0 down 0\n1.4 down 0 shift\n"
               "2 down 1\n2.3 down 1\n2.6 down 1\n"
               "3 down 2\n",
               {"--seconds", "4.6", "--fps", "10", "--size", "160x90"}, frames);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    const auto colour = [&](int number) { return frame(frames, number).pixel(80, 45); };
    EXPECT_EQ(colour(4), qRgb(255, 0, 0));  // 0.3 s: the first slide
    EXPECT_EQ(colour(9), qRgb(0, 0, 255));  // 0.8 s: the timer skipped the second
    EXPECT_EQ(colour(14), qRgb(255, 0, 0)); // 1.3 s: round again
    EXPECT_EQ(colour(17), qRgb(0, 0, 0));   // stopped at 1.4 s
    EXPECT_EQ(colour(23), qRgb(255, 0, 0)); // 2.2 s
    EXPECT_EQ(colour(26), qRgb(0, 0, 255)); // 2.5 s: the press skipped the second
    EXPECT_EQ(colour(29), qRgb(0, 0, 0));   // 2.8 s: pressed past the end
    EXPECT_NEAR(qGray(colour(36)), MediaFixtures::pictureGrey(10),
                10.0);                      // 3.5 s: the movie, from 3.08 s
    EXPECT_EQ(colour(45), qRgb(0, 0, 255)); // 4.4 s: after its end, past the switched-off red
}

} // namespace
