#include <chrono>
#include <gtest/gtest.h>
#include <thread>

#include <QFile>
#include <QImage>
#include <QPainter>
#include <QProcess>

#include "MediaFixtures.h"
#include "TempDir.h"
#include "audio/HostTime.h"
#include "video/CompositedVideoOutput.h"
#include "video/Compositor.h"
#include "video/MoviePlayer.h"
#include "video/PictureFile.h"

using namespace std::chrono_literals;

namespace {

// A movie's picture as a render draws it.
QImage imageOf(const MovieFrame* frame) {
    return frame ? Compositor::imageOf(*frame, {}, PictureDetail::exact) : QImage();
}

int greyAt(const MovieFrame* frame) {
    const QImage picture = imageOf(frame);
    return picture.isNull() ? -1 : qGray(picture.pixel(picture.width() / 2, picture.height() / 2));
}

} // namespace

// Drawing for a screen never waits for the decoder: the picture before stays up until the due
// one is there, and a jump back or far ahead is a seek of the player's own thread.
TEST(MoviePlayer, ForAScreenNeverWaitsAndSeeksBackAndAhead) {
    TempDir dir;
    const MediaFixtures::Video video{160, 120, 0.0, 3.0};
    ASSERT_TRUE(MediaFixtures::write(dir.file("movie.mkv"), "pcm_s16le", {}, &video));
    MoviePlayer player(dir.file("movie.mkv"), MoviePlayer::Wait::never);
    auto settled = [&](double seconds) {
        const MovieFrame* picture = nullptr;
        for (int tries = 0; tries < 200; ++tries) {
            const auto began = std::chrono::steady_clock::now();
            picture = player.frameAt(seconds);
            EXPECT_LT(std::chrono::steady_clock::now() - began, 20ms); // never a decoder's wait
            if (picture && std::abs(greyAt(picture) - MediaFixtures::pictureGrey(static_cast<int>(
                                                          seconds * 25 + 1e-6))) < 4)
                return true;
            std::this_thread::sleep_for(10ms);
        }
        return false;
    };
    EXPECT_TRUE(settled(0.0));
    EXPECT_TRUE(settled(0.4));  // picture 10, decoded ahead
    EXPECT_TRUE(settled(0.12)); // back: a seek
    EXPECT_TRUE(settled(2.8));  // far ahead: a seek (picture 70 shows grey of 70 mod 27)
    EXPECT_FALSE(player.failed());

    // A movie filmed on its side stands upright.
    const MediaFixtures::Video turned{160, 120, 90.0, 1.0};
    ASSERT_TRUE(MediaFixtures::write(dir.file("turned.mp4"), "aac", {}, &turned));
    MoviePlayer upright(dir.file("turned.mp4"), MoviePlayer::Wait::forPicture);
    EXPECT_EQ(imageOf(upright.frameAt(0.5)).size(), QSize(120, 160));

    MoviePlayer missing(dir.file("nothing.mkv"), MoviePlayer::Wait::forPicture);
    EXPECT_EQ(missing.frameAt(0.5), nullptr);
    EXPECT_TRUE(missing.failed());
}

// Pictures of any size come out whole: swscale writes aligned blocks past a row's end, so the
// sizes that are not multiples of 16 or 64 are the ones that overran a tight buffer.
TEST(MoviePlayer, PicturesOfAwkwardSizesComeOutWhole) {
    struct Row {
        int width, height;
        const char* codec;
        const char* file;
    };
    const Row rows[] = {
        {4, 4, "ffv1", "tiny.mkv"},
        {200, 150, "libx264", "small.mp4"},
        {426, 240, "libx264", "240p.mp4"},
        {721, 481, "ffv1", "odd.mkv"},
        {1918, 1078, "libx264", "near1080.mp4"},
    };
    TempDir dir;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.file);
        MediaFixtures::Video video{row.width, row.height, 0.0, 0.4};
        video.codec = row.codec;
        ASSERT_TRUE(MediaFixtures::write(dir.file(row.file), "pcm_s16le", {}, &video));
        MoviePlayer player(dir.file(row.file), MoviePlayer::Wait::forPicture);
        for (int n : {0, 3, 7}) {
            const QImage picture = imageOf(player.frameAt((n + 0.5) / 25.0)); // mid-picture
            ASSERT_EQ(picture.size(), QSize(row.width, row.height));
            // Both ends of the last row: a wrong stride shears the picture.
            for (const QPoint at : {QPoint(0, 0), QPoint(row.width - 1, row.height - 1)})
                EXPECT_NEAR(qGray(picture.pixel(at)), MediaFixtures::pictureGrey(n), 4.0) << n;
        }
        EXPECT_FALSE(player.failed());
    }
}

// A photograph of a camera's size shows, reduced; what cannot be decoded within bounds, or is no
// picture, says why before anything is decoded.
TEST(PictureFile, LargePhotographsShowReducedAndWhatCannotSaysWhy) {
    TempDir dir;
    const QString photo = QString::fromStdString(dir.file("photo.png"));
    ASSERT_EQ(QProcess::execute("ffmpeg", {"-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                           "color=c=0x336699:s=8000x6000", "-frames:v", "1",
                                           "-pix_fmt", "rgb48be", photo}),
              0);
    const auto write = [&](const char* name, const QByteArray& bytes) {
        QFile file(QString::fromStdString(dir.file(name)));
        file.open(QIODevice::WriteOnly);
        file.write(bytes);
        return file.fileName();
    };
    struct Row {
        QString path;
        QString refused;
        QSize shown;
    };
    const Row rows[] = {
        {photo, "", {7680, 5760}},
        {write("bomb.png", QByteArray::fromStdString(MediaFixtures::pngClaiming(16384, 16384))),
         "画像が大きすぎます（16384 × 16384 ピクセル）",
         {}},
        {write("text.png", "just some text"), "画像として読めません", {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path.toStdString());
        EXPECT_EQ(PictureFile::check(row.path), row.refused);
        QString error;
        const QImage image = PictureFile::read(row.path, error);
        EXPECT_EQ(error, row.refused);
        EXPECT_EQ(image.isNull() ? QSize() : image.size(), row.shown);
        if (!image.isNull()) {
            const QColor colour = image.pixelColor(100, 100); // 0x336699 through YUV and back
            EXPECT_NEAR(colour.red(), 0x33, 4);
            EXPECT_NEAR(colour.green(), 0x66, 4);
            EXPECT_NEAR(colour.blue(), 0x99, 4);
        }
    }
}

// A second start of a file takes the player made ahead at the first: its first pictures are
// decoded already, so the picture is there the moment it is due.
TEST(VideoOutput, ASecondStartOfAFileShowsAtOnceFromAPreparedPlayer) {
    TempDir dir;
    const MediaFixtures::Video video{160, 120, 0.0, 1.0};
    ASSERT_TRUE(MediaFixtures::write(dir.file("movie.mp4"), "aac", {}, &video));
    CompositedVideoOutput output;
    MovieStart start;
    start.path = QString::fromStdString(dir.file("movie.mp4"));
    start.duration = 1.0;
    output.finish(*output.play(start));
    EXPECT_EQ(output.preparedCount(), 1u);
    std::this_thread::sleep_for(300ms);

    const auto cue = output.play(start);
    EXPECT_EQ(output.preparedCount(), 1u); // taken, and another made for the next start
    output.poll();                         // started 80 ms from now
    ASSERT_TRUE(cue->started);
    QImage target(160, 120, QImage::Format_RGB32);
    QPainter painter(&target);
    output.draw(painter, target.rect(), HostTime::now() + HostTime::secondsToTicks(0.2));
    painter.end();
    EXPECT_NEAR(qGray(target.pixel(80, 60)), MediaFixtures::pictureGrey(3), 4.0);
    output.resetPrepared();
    EXPECT_EQ(output.preparedCount(), 0u);
}

TEST(Compositor, FitFillAndStretchPlaceA4To3PictureInA16To9Output) {
    const QRect output(0, 0, 320, 180);
    EXPECT_EQ(Compositor::placement({160, 120}, output, PictureFit::fit), QRectF(40, 0, 240, 180));
    EXPECT_EQ(Compositor::placement({160, 120}, output, PictureFit::fill),
              QRectF(0, -30, 320, 240));
    EXPECT_EQ(Compositor::placement({160, 120}, output, PictureFit::stretch), QRectF(output));

    // Deeper layers first, each at its opacity, over the background.
    QImage red(8, 8, QImage::Format_RGB32), blue(8, 8, QImage::Format_RGB32);
    red.fill(Qt::red);
    blue.fill(Qt::blue);
    QImage target(16, 16, QImage::Format_RGB32);
    QPainter painter(&target);
    Compositor::draw(painter, target.rect(),
                     {{&blue, nullptr, 7e6, 0.5}, {&red, nullptr, 2e6, 1.0}},
                     {PictureFit::stretch, Qt::white});
    painter.end();
    const QColor mixed = target.pixelColor(8, 8);
    EXPECT_NEAR(mixed.red(), 128, 2);
    EXPECT_NEAR(mixed.blue(), 128, 2);
}

// The three ways a movie ends, on a simulated clock (1 s movie, started at 1.08 s): a loop
// starts again and never reports an end, its fade-in counted once; a movie held at its end
// keeps its last picture and reports the end once; a stop with a fade takes the picture down
// linearly and then finishes the cue.
TEST(VideoOutput, LoopHoldAtEndAndStopWithAFade) {
    TempDir dir;
    const MediaFixtures::Video video{160, 120, 0.0, 1.0};
    ASSERT_TRUE(MediaFixtures::write(dir.file("movie.mkv"), "pcm_s16le", {}, &video));
    std::uint64_t now = HostTime::secondsToTicks(1.0);
    CompositedVideoOutput output([&] { return now; }, false);
    const auto at = [&](double seconds) {
        now = HostTime::secondsToTicks(seconds);
        output.poll();
        QImage target(160, 120, QImage::Format_RGB32);
        QPainter painter(&target);
        output.draw(painter, target.rect(), now);
        painter.end();
        return qGray(target.pixel(80, 60));
    };
    int loopEnds = 0, heldEnds = 0;
    MovieStart looped;
    looped.path = QString::fromStdString(dir.file("movie.mkv"));
    looped.duration = 1.0;
    looped.loop = true;
    looped.fadeIn = 0.5;
    looped.onEnd = [&] { ++loopEnds; };
    const auto loop = output.play(looped);
    EXPECT_EQ(loop->progress(), 0.0); // not under way yet
    at(1.0); // started: its time 0 is at 1.08 s
    EXPECT_NEAR(at(1.08 + 0.25 + 0.001), MediaFixtures::pictureGrey(6) * 0.5, 4.0);
    // Round again: picture 10 at full opacity (the fade-in is not played again).
    EXPECT_NEAR(at(1.08 + 1.4 + 0.001), MediaFixtures::pictureGrey(10), 4.0);
    EXPECT_NEAR(at(1.08 + 3.2 + 0.001), MediaFixtures::pictureGrey(5), 4.0);
    EXPECT_EQ(loopEnds, 0);
    EXPECT_FALSE(loop->finished);
    output.finish(*loop);

    MovieStart held = looped;
    held.loop = false;
    held.fadeIn = 0.0;
    held.holdAtEnd = true;
    held.onEnd = [&] { ++heldEnds; };
    const auto hold = output.play(held);
    at(10.0); // its time 0 at 10.08 s
    EXPECT_NEAR(at(10.08 + 0.5 + 0.001), MediaFixtures::pictureGrey(12), 4.0);
    for (double t : {11.2, 11.5, 12.0})
        EXPECT_NEAR(at(t), MediaFixtures::pictureGrey(24), 4.0) << t; // the last picture stays
    EXPECT_EQ(heldEnds, 1);
    EXPECT_FALSE(hold->finished);

    output.stop(*hold, 1.0); // at 12 s: half down at 12.5, gone at 13
    EXPECT_NEAR(at(12.5), MediaFixtures::pictureGrey(24) * 0.5, 4.0);
    EXPECT_FALSE(hold->finished);
    EXPECT_EQ(at(13.01), 0);
    EXPECT_TRUE(hold->finished);
    EXPECT_EQ(output.movieCount(), 0u);
}
