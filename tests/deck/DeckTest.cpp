#include "deck/Deck.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonDocument>
#include <QProcess>

#include "Files.h"
#include "MediaFixtures.h"
#include "PdfFixture.h"
#include "TempDir.h"
#include "deck/DeckBuilder.h"
#include "deck/DeckCache.h"
#include "deck/DeckError.h"
#include "model/DocumentError.h"

namespace {

DeckItem item(const QString& id, bool enabled = true) {
    DeckItem i;
    i.id = id;
    i.file = id + ".png";
    i.title = id;
    i.enabled = enabled;
    return i;
}

TEST(DeckItemRecord, JsonLeavesOutAbsentTimingsAndReadsWhatIsMissingAsTheDefaults) {
    const QJsonObject written = item("s1").toJson();
    EXPECT_FALSE(written.contains("advanceAfter"));
    EXPECT_FALSE(written.contains("transition"));
    EXPECT_EQ(DeckItem::fromJson(written), item("s1"));
    DeckItem timed = item("s2");
    timed.advanceAfter = 2.5;
    timed.transition = 0.0; // present though zero
    EXPECT_EQ(DeckItem::fromJson(timed.toJson()), timed);

    const DeckItem bare =
        DeckItem::fromJson({{"id", "s7"}, {"kind", "video"}, {"file", "s7-m1.mp4"}});
    EXPECT_EQ(bare.title, "s7");
    EXPECT_TRUE(bare.enabled);
    EXPECT_EQ(bare.endAction, DeckItem::EndAction::next);
    EXPECT_EQ(bare.volume, 1.0);
    EXPECT_EQ(bare.slide, 0);
    EXPECT_FALSE(bare.advanceAfter);
    EXPECT_THROW(DeckItem::fromJson({{"id", "s1"}, {"kind", "image"}}), DocumentError);
    EXPECT_THROW(DeckItem::fromJson({{"id", "s1"}, {"kind", "slide"}, {"file", "x"}}),
                 DocumentError);
}

TEST(DeckItemRecord, MergeKeepsTheSavedSettingsInTheFreshOrderAndDropsWhatIsGone) {
    DeckItem hidden = item("s2", false);
    hidden.title = "休憩";
    const auto merged = DeckItem::merge({item("s9"), hidden}, {item("s1"), item("s2"), item("s3")});
    ASSERT_EQ(merged.size(), 3u);
    EXPECT_EQ(merged[0], item("s1"));
    EXPECT_EQ(merged[1], hidden);
    EXPECT_EQ(merged[2], item("s3"));

    // A list's items are its files in their order, played as the key's saved items at the same
    // places say; a file added since plays as it is.
    DeckManifest list;
    list.engine = Deck::kListEngine;
    list.items = {item("a"), item("b"), item("c")};
    DeckItem saved = item("x", false);
    saved.advanceAfter = 4.0;
    saved.transition = 0.0;
    saved.volume = 0.5;
    saved.endAction = DeckItem::EndAction::hold;
    KeyAssignment key("/show/a.png", 0);
    key.deckItems = std::vector<DeckItem>{saved, item("y")};
    DeckItem first = saved, second = item("b");
    first.id = "a";
    first.file = "a.png";
    second.title = "y";
    EXPECT_EQ(Deck(QString(), list).itemsFor(key),
              (std::vector<DeckItem>{first, second, item("c")}));
}

class Decks : public ::testing::Test {
protected:
    QString file(const QString& name) const {
        return QString::fromStdString(dir.file(name.toStdString()));
    }
    // Every file under the deck cache, relative to it.
    QStringList cacheFiles() const {
        QStringList files;
        const QDir root(DeckCache::root());
        for (const QFileInfo& info :
             root.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
            for (const QString& name : QDir(info.filePath()).entryList(QDir::Files, QDir::Name))
                files << info.fileName() + '/' + name;
        return files;
    }
    TempDir dir;
};

TEST_F(Decks, TheFolderIsNamedByTheStampAndATouchedSourceGetsANewOne) {
    const QString pdf = file("talk.v2.pdf");
    ASSERT_TRUE(writePdf(pdf, {Qt::red}));
    const QString stamp = DeckCache::stamp(pdf, "pdf");
    EXPECT_EQ(stamp, pdf + "|" + QString::number(QFileInfo(pdf).lastModified().toSecsSinceEpoch()) +
                         "|" + QString::number(QFileInfo(pdf).size()) + "|pdf|v2");
    const QString digest =
        QCryptographicHash::hash(stamp.toUtf8(), QCryptographicHash::Sha256).toHex().left(12);
    EXPECT_EQ(DeckCache::folderFor(pdf, stamp), DeckCache::root() + "/talk.v2-" + digest);
    // A long name is cut at a character's end to 200 bytes of UTF-8 ("é" is 2, "あ" 3, "🎵" 4
    // in two UTF-16 units).
    const QString e(QChar(0xe9)), a(QChar(0x3042)), note = QString::fromUtf8("🎵");
    for (const auto& [name, kept] : {std::pair{QString(200, 'x'), 200},
                                     {QString(201, 'x'), 200},
                                     {e.repeated(101), 100},
                                     {a.repeated(67), 66},
                                     {a.repeated(66) + "xy", 68},
                                     {note.repeated(51), 100}})
        EXPECT_EQ(QFileInfo(DeckCache::folderFor(name + ".pdf", stamp)).fileName().size(),
                  kept + 13)
            << name.size();

    QFile touched(pdf);
    ASSERT_TRUE(touched.open(QIODevice::ReadWrite));
    ASSERT_TRUE(touched.setFileTime(QDateTime::currentDateTime().addSecs(60),
                                    QFileDevice::FileModificationTime));
    touched.close();
    const QString newStamp = DeckCache::stamp(pdf, "pdf");
    EXPECT_NE(newStamp, stamp);
    EXPECT_NE(DeckCache::folderFor(pdf, newStamp), DeckCache::folderFor(pdf, stamp));
}

TEST_F(Decks, PdfPagesAreRenderedWideOnWhiteAndReusedWhileTheSourceIsUnchanged) {
    const QString pdf = file("talk.pdf");
    const std::vector<QColor> colours{Qt::red, Qt::green, Qt::blue};
    ASSERT_TRUE(writePdf(pdf, colours));
    QStringList progress;
    const auto deck =
        DeckBuilder::buildSlides(pdf, false, [&](const QString& text) { progress << text; });
    EXPECT_EQ(progress.last(), "3/3");
    EXPECT_EQ(deck->manifest.engine, "pdf");
    EXPECT_EQ(deck->manifest.slideCount, 3);
    ASSERT_EQ(deck->manifest.items.size(), 3u);
    EXPECT_TRUE(deck->missing.isEmpty());
    for (int n = 1; n <= 3; ++n) {
        const DeckItem& slide = deck->manifest.items[static_cast<std::size_t>(n - 1)];
        EXPECT_EQ(slide.id, "s" + QString::number(n));
        EXPECT_EQ(slide.file, QString("s%1.png").arg(n, 3, 10, QChar('0')));
        EXPECT_EQ(slide.title, "スライド " + QString::number(n));
        EXPECT_EQ(slide.slide, n);
        EXPECT_TRUE(slide.enabled);
        const QImage page(deck->pathOf(slide.file));
        ASSERT_EQ(page.size(), QSize(2560, 1440)) << n;
        EXPECT_EQ(page.pixelColor(1280, 720).rgb(), colours[static_cast<std::size_t>(n - 1)].rgb());
        EXPECT_EQ(page.pixel(40, 40), qRgb(255, 255, 255)) << "paper";
    }
    // The manifest on disk is the deck's.
    QFile manifest(deck->folder + "/manifest.json");
    ASSERT_TRUE(manifest.open(QIODevice::ReadOnly));
    EXPECT_EQ(DeckManifest::fromJson(QJsonDocument::fromJson(manifest.readAll()).object()),
              deck->manifest);

    // Unchanged: found, not built again (no page is written anew).
    const QDateTime rendered = QFileInfo(deck->pathOf("s001.png")).lastModified();
    QFile::remove(deck->pathOf("s002.png")); // a rebuild would bring it back
    progress.clear();
    const auto again =
        DeckBuilder::buildSlides(pdf, false, [&](const QString& text) { progress << text; });
    EXPECT_TRUE(progress.isEmpty());
    EXPECT_EQ(again->folder, deck->folder);
    EXPECT_EQ(again->manifest, deck->manifest);
    EXPECT_EQ(again->missing, QStringList{"s002.png"});
    EXPECT_EQ(QFileInfo(deck->pathOf("s001.png")).lastModified(), rendered);
    // Forced: built afresh.
    const auto rebuilt = DeckBuilder::buildSlides(pdf, true, {});
    EXPECT_TRUE(rebuilt->missing.isEmpty());
    EXPECT_EQ(cacheFiles().size(), 4); // three pages and the manifest, nothing else anywhere
}

TEST_F(Decks, BadSlideFilesFailWithTheirMessageAndWriteNothingOutsideTheirFolder) {
    const QStringList before = cacheFiles(); // another test's decks, when run in one process
    const auto failure = [](const QString& path) {
        try {
            DeckBuilder::buildSlides(path, false, {});
        } catch (const DeckError& error) {
            return error.message();
        }
        return QString("built");
    };
    ASSERT_TRUE(Files::write(file("junk.pdf"), QByteArray(5000, 'x')));
    EXPECT_EQ(failure(file("junk.pdf")), "スライドを読み込めません");

    // Half a PDF: whatever of it Poppler can still read, or the same message; never a crash.
    ASSERT_TRUE(writePdf(file("whole.pdf"), {Qt::red, Qt::green, Qt::blue, Qt::yellow}));
    QFile::copy(file("whole.pdf"), file("cut.pdf"));
    QFile cut(file("cut.pdf"));
    ASSERT_TRUE(cut.resize(cut.size() / 2));
    const QString cutResult = failure(file("cut.pdf"));
    EXPECT_TRUE(cutResult == "built" || cutResult == "スライドを読み込めません")
        << cutResult.toStdString();

    // Locked with a password: Poppler cannot open it without one.
    ASSERT_TRUE(writePdf(file("plain.pdf"), {Qt::red}));
    ASSERT_EQ(QProcess::execute("qpdf", {"--encrypt", "secret", "owner", "256", "--",
                                         file("plain.pdf"), file("locked.pdf")}),
              0);
    EXPECT_EQ(failure(file("locked.pdf")), DeckError::kLocked);

    // A page of no width has nothing to show.
    ASSERT_TRUE(Files::write(file("flat.pdf"), "%PDF-1.4\n1 0 obj <</Type/Catalog/Pages 2 0 R>> "
                                               "endobj 2 0 obj <</Type/Pages/Kids[3 0 R]/Count 1>> "
                                               "endobj 3 0 obj <</Type/Page/Parent 2 0 R/MediaBox"
                                               "[0 0 0 100]>> endobj trailer <</Root 1 0 R>>\n"));
    EXPECT_EQ(failure(file("flat.pdf")), DeckError::kEmptyPage);

    const QStringList files = cacheFiles();
    for (const QString& written : files)
        EXPECT_TRUE(written.startsWith("cut-") || before.contains(written))
            << written.toStdString();
    EXPECT_EQ(QDir(file("")).entryList(QDir::Files).size(), 6); // the sources, untouched
}

// Clearing the key, closing the show or quitting cancels a build: it stops within a page or two
// and leaves no half-filled folder.
TEST_F(Decks, ACancelledBuildStopsAtOnceAndLeavesNothing) {
    const QString pdf = file("long.pdf");
    ASSERT_TRUE(writePdf(pdf, std::vector<QColor>(400, Qt::red), QSizeF(64, 36)));
    DeckBuilder::CancelFlag cancel{false};
    QString last;
    try {
        DeckBuilder::buildSlides(
            pdf, false,
            [&](const QString& text) {
                last = text;
                if (text == "5/400")
                    cancel = true;
            },
            &cancel);
        FAIL() << "built";
    } catch (const DeckError& error) {
        EXPECT_EQ(error.message(), DeckError::kCancelled);
    }
    EXPECT_LT(last.section('/', 0, 0).toInt(), 10);
    EXPECT_TRUE(QDir(DeckCache::root()).entryList({"long-*"}, QDir::Dirs).isEmpty());
}

TEST_F(Decks, AListIsItsFilesInOrderWithTheirSoundDecodedOnce) {
    ASSERT_TRUE(MediaFixtures::write(dir.file("tone.wav"), "pcm_s16le", {{2, 44100, 0.5}}));
    const MediaFixtures::Video video{160, 120, 0.0, 0.5};
    ASSERT_TRUE(MediaFixtures::write(dir.file("movie.mp4"), "aac", {{1, 48000, 0.5}}, &video));
    QImage picture(8, 8, QImage::Format_RGB32);
    picture.fill(Qt::cyan);
    ASSERT_TRUE(picture.save(file("cyan.png")));
    ASSERT_TRUE(Files::write(file("fake.png"), "no picture"));
    const QStringList files{file("tone.wav"), file("cyan.png"), file("movie.mp4"),
                            file("fake.png"), file("gone.wav"), file("tone.wav")};

    const auto deck = DeckBuilder::buildList(files);
    const DeckBuilder::CancelFlag cancelled{true};
    EXPECT_THROW(DeckBuilder::loadMedia(*deck, 48000.0, &cancelled), DeckError);
    EXPECT_TRUE(deck->clips.empty()); // cancelled: nothing decoded
    DeckBuilder::loadMedia(*deck, 48000.0);
    ASSERT_EQ(deck->manifest.items.size(), 6u);
    EXPECT_EQ(deck->manifest.slideCount, 6); // as `vorlin deck` prints it
    using Kind = DeckItem::Kind;
    const std::vector<Kind> kinds{Kind::audio, Kind::image, Kind::video,
                                  Kind::image, Kind::audio, Kind::audio};
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        EXPECT_EQ(deck->manifest.items[i].kind, kinds[i]) << i;
        EXPECT_EQ(deck->manifest.items[i].id, QString::number(i));
        EXPECT_EQ(deck->pathOf(deck->manifest.items[i].file), files[static_cast<qsizetype>(i)]);
    }
    EXPECT_EQ(deck->manifest.items[1].title, "cyan");
    EXPECT_EQ(deck->clips.size(), 2u); // tone.wav (twice on the list) and the movie's sound
    EXPECT_EQ(deck->clips.at(file("tone.wav"))->sampleRate, 48000.0);
    EXPECT_EQ(deck->clips.at(file("tone.wav"))->channelCount, 2);
    EXPECT_EQ(deck->failures.at(file("fake.png")), "画像として読めません");
    EXPECT_EQ(deck->missing, QStringList{file("gone.wav")});
    EXPECT_EQ(deck->picture(file("cyan.png")).pixel(4, 4), QColor(Qt::cyan).rgb());
    // The six pictures used last are kept; the one used longest ago goes first, and a file that
    // is no picture takes no place.
    QStringList pictures;
    for (int n = 0; n < 7; ++n) {
        pictures << file(QString("p%1.png").arg(n));
        ASSERT_TRUE(picture.save(pictures.back()));
    }
    for (const int n : {0, 1, 2, 3, 4, 5, 0, -1, 6})
        EXPECT_EQ(deck->picture(n < 0 ? file("fake.png") : pictures[n]).isNull(), n < 0);
    for (int n = 0; n < 7; ++n)
        EXPECT_EQ(deck->cachedPicture(pictures[n]).isNull(), n == 1) << n;
}

} // namespace
