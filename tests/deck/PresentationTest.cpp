#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <QTcpServer>
#include <QUrl>

#include "Files.h"
#include "MediaFixtures.h"
#include "Presentations.h"
#include "TempDir.h"
#include "Wait.h"
#include "deck/DeckBuilder.h"
#include "deck/DeckCache.h"
#include "deck/DeckError.h"
#include "deck/SlideArchive.h"
#include "deck/SlideConverter.h"
#include "deck/SlideParts.h"

namespace {

using namespace std::chrono_literals;

const std::vector<QString> kColours{"#ff0000", "#00ff00", "#0000ff", "#ffff00"};

class Presentation : public ::testing::Test {
protected:
    QString file(const QString& name) const {
        return QString::fromStdString(dir.file(name.toStdString()));
    }
    bool write(const QString& name, const QByteArray& bytes) const {
        return Files::write(file(name), bytes);
    }
    // `what`'s message, or "built".
    static QString failure(const std::function<void()>& what) {
        try {
            what();
        } catch (const DeckError& error) {
            return error.message();
        }
        return QStringLiteral("built");
    }
    // Four slides, the third hidden, made by LibreOffice from a flat file as `format`.
    QString fourSlides(const QString& format) {
        if (!write("four.fodp", Presentations::flatOdp(kColours, {2})))
            return {};
        return SlideConverter::convert(file("four.fodp"), file(""), format, nullptr);
    }
    TempDir dir;
};

TEST_F(Presentation, PowerPointThroughLibreOfficeKeepsItsHiddenSlideInPlaceAndBringsItsMedia) {
    if (SlideConverter::installedProgram().isEmpty())
        GTEST_SKIP() << "LibreOffice is not installed (scripts/setup installs it)";
    const QString made = fourSlides("pptx");
    ASSERT_FALSE(made.isEmpty());
    // PowerPoint's way of holding a movie on slides 2 and 3 (linked as video and as media) and a
    // sound on slide 4 beside a link to a file outside the deck.
    auto entries = SlideArchive::readParts(made, [](const QString&) { return true; });
    Presentations::Entries zip(entries.begin(), entries.end());
    const MediaFixtures::Video video{160, 90, 0.0, 0.5};
    ASSERT_TRUE(MediaFixtures::write(dir.file("intro.mp4"), "aac", {{1, 48000, 0.5}}, &video));
    ASSERT_TRUE(MediaFixtures::write(dir.file("chime.wav"), "pcm_s16le", {{1, 48000, 0.3}}));
    QFile intro(file("intro.mp4")), chime(file("chime.wav"));
    ASSERT_TRUE(intro.open(QIODevice::ReadOnly) && chime.open(QIODevice::ReadOnly));
    zip.push_back({"ppt/media/intro.mp4", intro.readAll()});
    zip.push_back({"ppt/media/chime.wav", chime.readAll()});
    const QByteArray rels = R"(<?xml version="1.0" encoding="UTF-8"?>
<Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">)";
    const QByteArray layout =
        R"(<Relationship Id="rId1" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/slideLayout" Target="../slideLayouts/slideLayout1.xml"/>)";
    // Slide 1 shows two pictures linked from outside the file: an address on this machine and a
    // file beside it. Opening the presentation must reach neither.
    QTcpServer web;
    ASSERT_TRUE(web.listen(QHostAddress::LocalHost));
    QImage magenta(64, 32, QImage::Format_RGB32);
    magenta.fill(qRgb(255, 0, 255));
    ASSERT_TRUE(magenta.save(file("outside.png")));
    const auto linked = [](int id, int y) {
        return QStringLiteral(
                   R"(<p:pic><p:nvPicPr><p:cNvPr id="%1" name="linked%1"/><p:cNvPicPr/><p:nvPr/></p:nvPicPr><p:blipFill><a:blip r:link="rId%1"/><a:stretch><a:fillRect/></a:stretch></p:blipFill><p:spPr><a:xfrm><a:off x="0" y="%2"/><a:ext cx="720000" cy="360000"/></a:xfrm><a:prstGeom prst="rect"><a:avLst/></a:prstGeom></p:spPr></p:pic>)")
            .arg(id)
            .arg(y)
            .toUtf8();
    };
    for (auto& [name, bytes] : zip) {
        if (name == "ppt/slides/slide1.xml")
            bytes.replace("</p:spTree>", linked(91, 0) + linked(92, 400000) + "</p:spTree>");
        if (name == "ppt/slides/_rels/slide1.xml.rels")
            bytes =
                rels + layout +
                QStringLiteral(
                    R"(<Relationship Id="rId91" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/image" Target="http://127.0.0.1:%1/picture.png" TargetMode="External"/><Relationship Id="rId92" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/image" Target="%2" TargetMode="External"/></Relationships>)")
                    .arg(web.serverPort())
                    .arg(QUrl::fromLocalFile(file("outside.png")).toString())
                    .toUtf8();
        if (name == "ppt/slides/_rels/slide2.xml.rels" ||
            name == "ppt/slides/_rels/slide3.xml.rels")
            bytes =
                rels + layout +
                R"(<Relationship Id="rId7" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/video" Target="../media/intro.mp4"/><Relationship Id="rId8" Type="http://schemas.microsoft.com/office/2007/relationships/media" Target="../media/intro.mp4"/></Relationships>)";
        if (name == "ppt/slides/_rels/slide4.xml.rels")
            bytes =
                rels + layout +
                R"(<Relationship Id="rId3" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/audio" Target="file:///etc/passwd" TargetMode="External"/><Relationship Id="rId4" Type="http://schemas.openxmlformats.org/officeDocument/2006/relationships/audio" Target="../media/chime.wav"/></Relationships>)";
    }
    // A name LibreOffice would take for part of an address.
    const QString talk = file("talk%20one;2.pptx");
    ASSERT_TRUE(Presentations::writeZip(talk, zip));

    QStringList progress;
    const auto deck =
        DeckBuilder::buildSlides(talk, false, [&](const QString& text) { progress << text; });
    EXPECT_EQ(progress.mid(0, 2), (QStringList{"スライドを書き出し中…", "LibreOffice で変換中…"}));
    EXPECT_EQ(deck->manifest.engine, "libreoffice");
    EXPECT_EQ(deck->manifest.slideCount, 4);
    QStringList ids, files;
    for (const DeckItem& item : deck->manifest.items) {
        ids << item.id + (item.enabled ? "" : " off");
        files << item.file;
    }
    // The movie again on the hidden slide: copied once, and off with its slide.
    EXPECT_EQ(ids, (QStringList{"s1", "s2", "s2-m1", "s3 off", "s3-m1 off", "s4", "s4-m1"}));
    EXPECT_EQ(files[4], "s2-m1.mp4");
    EXPECT_EQ(deck->manifest.items[2].kind, DeckItem::Kind::video);
    EXPECT_EQ(deck->manifest.items[2].title, "スライド 2 の 映像（intro）");
    EXPECT_EQ(deck->manifest.items[6].kind, DeckItem::Kind::audio);
    EXPECT_EQ(deck->manifest.items[6].title, "スライド 4 の 音声（chime）");
    EXPECT_TRUE(deck->missing.isEmpty()) << deck->missing.join(",").toStdString();
    QFile copied(deck->pathOf("s2-m1.mp4"));
    ASSERT_TRUE(copied.open(QIODevice::ReadOnly));
    intro.seek(0);
    EXPECT_EQ(copied.readAll(), intro.readAll());
    // The hidden slide was exported in its place: page 3 is blue.
    const QImage third(deck->pathOf("s003.png"));
    ASSERT_EQ(third.width(), 2560);
    EXPECT_EQ(third.pixelColor(1280, third.height() / 2).rgb(), qRgb(0, 0, 255));
    EXPECT_EQ(QImage(deck->pathOf("s004.png")).pixel(1280, third.height() / 2), qRgb(255, 255, 0));
    // Nothing but pictures, media and the manifest stays in the folder, and no folder beside it.
    EXPECT_EQ(QDir(deck->folder).entryList(QDir::Files).size(), 7);
    EXPECT_EQ(
        QDir(DeckCache::root())
            .entryList({"*one*", ".convert*"}, QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden),
        QStringList{QFileInfo(deck->folder).fileName()});
    // The linked pictures are not on the slide, and nothing asked for the address.
    const QImage first(deck->pathOf("s001.png"));
    EXPECT_EQ(first.pixel(90, 45), qRgb(255, 255, 255));
    EXPECT_EQ(first.pixel(90, 150), qRgb(255, 255, 255));
    EXPECT_FALSE(web.waitForNewConnection(0));

    progress.clear();
    const auto again =
        DeckBuilder::buildSlides(talk, false, [&](const QString& text) { progress << text; });
    EXPECT_TRUE(progress.isEmpty()); // found, not converted again
    EXPECT_EQ(again->manifest, deck->manifest);
}

TEST_F(Presentation, OpenDocumentSlidesAreReadFromTheFileItself) {
    if (SlideConverter::installedProgram().isEmpty())
        GTEST_SKIP() << "LibreOffice is not installed (scripts/setup installs it)";
    const QString odp = fourSlides("odp");
    ASSERT_FALSE(odp.isEmpty());
    const auto slides = SlideParts::odpSlides(odp);
    ASSERT_EQ(slides.size(), 4u);
    EXPECT_FALSE(slides[1].skipped);
    EXPECT_TRUE(slides[2].skipped);
    const auto deck = DeckBuilder::buildSlides(odp, false, {});
    ASSERT_EQ(deck->manifest.items.size(), 4u);
    EXPECT_FALSE(deck->manifest.items[2].enabled);
    EXPECT_EQ(QImage(deck->pathOf("s002.png")).pixel(1280, 700), qRgb(0, 255, 0));
}

TEST_F(Presentation, HostileArchivesAreRefusedAndNothingLandsOutsideTheDeck) {
    // The slide's relationship before its number: another tool's order of the two.
    const QByteArray presentation = R"(<?xml version="1.0"?>
<p:presentation xmlns:p="p" xmlns:r="r"><p:sldIdLst><p:sldId r:id="rId2" id="256"/></p:sldIdLst></p:presentation>)";
    const QByteArray rels =
        R"(<Relationships><Relationship Id="rId2" Type="t/slide" Target="slides/slide1.xml"/></Relationships>)";
    const Presentations::Entries base{
        {"ppt/presentation.xml", presentation},
        {"ppt/_rels/presentation.xml.rels", rels},
        {"ppt/slides/slide1.xml", "<p:sld xmlns:p=\"p\" show=\"0\"/>"}};
    ASSERT_TRUE(Presentations::writeZip(file("plain.pptx"), base));
    const auto plain = SlideParts::pptxSlides(file("plain.pptx"));
    ASSERT_EQ(plain.size(), 1u);
    EXPECT_TRUE(plain[0].skipped);

    auto escaping = base;
    escaping.push_back({"../../evil", "gotcha"});
    ASSERT_TRUE(Presentations::writeZip(file("escaping.pptx"), escaping));
    EXPECT_EQ(failure([&] { SlideParts::pptxSlides(file("escaping.pptx")); }),
              "スライドのファイルに不正な項目があります: ../../evil");

    // 200 MB of one byte: a few hundred kilobytes in the archive.
    auto bomb = base;
    bomb[2].second = QByteArray(200 << 20, ' ');
    ASSERT_TRUE(Presentations::writeZip(file("bomb.pptx"), bomb));
    EXPECT_LT(QFileInfo(file("bomb.pptx")).size(), 2 << 20);
    EXPECT_EQ(failure([&] { SlideParts::pptxSlides(file("bomb.pptx")); }),
              "スライドのファイルが壊れています（展開すると大きすぎます）");

    // Many large parts, each within its limit: refused once they are too large together.
    auto many = base;
    for (int n = 2; n < 62; ++n)
        many.push_back({QString("ppt/slides/slide%1.xml").arg(n), QByteArray(1 << 20, ' ')});
    ASSERT_TRUE(Presentations::writeZip(file("many.pptx"), many));
    EXPECT_EQ(failure([&] { SlideParts::pptxSlides(file("many.pptx")); }),
              "スライドのファイルの XML が大きすぎます（1 つ 16 MB、合わせて 48 MB まで）");

    // The same in a movie, whose size may be large: stopped by how far it expands, early.
    ASSERT_TRUE(Presentations::writeZip(file("bomb-movie.pptx"),
                                        {{"ppt/media/movie.mp4", QByteArray(200 << 20, 0)}}));
    EXPECT_EQ(failure([&] {
                  SlideArchive::extract(file("bomb-movie.pptx"),
                                        {{"ppt/media/movie.mp4", file("movie-out.mp4")}});
              }),
              "スライドのファイルが壊れています（展開すると大きすぎます）");
    EXPECT_LE(QFileInfo(file("movie-out.mp4")).size(), 16 << 20);
    QFile::remove(file("movie-out.mp4"));

    // Entities of the file's own are never expanded: no file is read, no laugh multiplied.
    auto entities = base;
    entities[0].second = R"(<?xml version="1.0"?>
<!DOCTYPE p [<!ENTITY secret SYSTEM "file:///etc/passwd"><!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;"><!ENTITY c "&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;"><!ENTITY d "&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;"><!ENTITY e "&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;"><!ENTITY f "&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;"><!ENTITY g "&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;"><!ENTITY h "&g;&g;&g;&g;&g;&g;&g;&g;&g;&g;">]>
<p:presentation xmlns:p="p" xmlns:r="r"><p:sldIdLst><p:sldId id="256" r:id="rId2"/><p:sldId id="&h;" r:id="&secret;"/></p:sldIdLst></p:presentation>)";
    ASSERT_TRUE(Presentations::writeZip(file("entities.pptx"), entities));
    const auto start = std::chrono::steady_clock::now();
    const auto read = SlideParts::pptxSlides(file("entities.pptx"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    ASSERT_EQ(read.size(), 2u);
    EXPECT_TRUE(read[1].media.isEmpty());

    // A name in another encoding than UTF-8 (an old tool's Shift JIS) is no danger: read as
    // it stands.
    auto encoded = base;
    encoded.push_back({"ppt/media/XX.wav", "RIFF"});
    ASSERT_TRUE(Presentations::writeZip(file("encoded.pptx"), encoded));
    QByteArray zip = Files::read(file("encoded.pptx"));
    zip.replace("XX.wav", "\x83\x65.wav"); // テ, in the local header and the directory
    ASSERT_TRUE(write("encoded.pptx", zip));
    const auto parts =
        SlideArchive::readParts(file("encoded.pptx"), [](const QString&) { return true; });
    QStringList names;
    for (const auto& [name, bytes] : parts)
        names << name;
    EXPECT_EQ(names.size(), 4) << names.join(",").toStdString();

    // An ODP's own media are its slide's; a file linked from outside the package is not.
    ASSERT_TRUE(Presentations::writeZip(
        file("media.odp"),
        {{"content.xml",
          R"(<office:document-content xmlns:office="o" xmlns:draw="d" xmlns:xlink="x">
<office:body><office:presentation><draw:page><draw:plugin xlink:href="./Media/clip.wav"/>
<draw:plugin xlink:href="../outside.wav"/></draw:page></office:presentation></office:body>
</office:document-content>)"},
         {"Media/clip.wav", "RIFF"}}));
    const auto odp = SlideParts::odpSlides(file("media.odp"));
    ASSERT_EQ(odp.size(), 1u);
    EXPECT_EQ(odp[0].media, QStringList{"Media/clip.wav"});
    // A PowerPoint file's targets may also be written from the package's root.
    ASSERT_TRUE(Presentations::writeZip(
        file("rooted.pptx"),
        {{"ppt/presentation.xml", presentation},
         {"ppt/_rels/presentation.xml.rels",
          R"(<Relationships><Relationship Id="rId2" Type="t/slide" Target="/ppt/slides/slide1.xml"/></Relationships>)"},
         {"ppt/slides/slide1.xml", "<p:sld xmlns:p=\"p\"/>"},
         {"ppt/slides/_rels/slide1.xml.rels",
          R"(<Relationships><Relationship Id="rId3" Type="t/audio" Target="/ppt/media/chime.wav"/></Relationships>)"},
         {"ppt/media/chime.wav", "RIFF"}}));
    const auto rooted = SlideParts::pptxSlides(file("rooted.pptx"));
    ASSERT_EQ(rooted.size(), 1u);
    EXPECT_EQ(rooted[0].media, QStringList{"ppt/media/chime.wav"});

    ASSERT_TRUE(write("notzip.pptx", QByteArray(3000, 'z')));
    EXPECT_EQ(failure([&] { SlideParts::pptxSlides(file("notzip.pptx")); }),
              "スライドを読み込めません");

    // Nothing was written anywhere: not beside the fixtures, not in the deck cache.
    QDirIterator everywhere(QDir::cleanPath(DeckCache::root() + "/.."),
                            QDirIterator::Subdirectories);
    while (everywhere.hasNext())
        EXPECT_FALSE(everywhere.next().endsWith("evil"));
    EXPECT_FALSE(QFileInfo::exists(QDir::cleanPath(file("") + "/../../evil")));
}

TEST_F(Presentation, AMissingOrHangingConverterFailsWithItsMessageInTime) {
    ASSERT_TRUE(write("talk.ppt", "not really"));
    SlideConverter::Options missing;
    missing.program = file("no-such-office");
    EXPECT_EQ(failure([&] {
                  SlideConverter::convert(file("talk.ppt"), file(""), "pdf", nullptr, missing);
              }),
              "LibreOffice が見つかりません（スライドの変換に必要です）");

    // An office that never answers, and a child of it that would outlive a plain kill: both end
    // at the time limit, and when the build is cancelled. (It writes both their numbers first.)
    ASSERT_TRUE(write("hang.sh", "#!/bin/sh\necho $$ >\"$0.pids\"\nsleep 600 &\n"
                                 "echo $! >>\"$0.pids\"\nsleep 600\n"));
    QFile(file("hang.sh")).setPermissions(QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    const auto started = [&] { return Files::read(file("hang.sh.pids")).count('\n') == 2; };
    const auto ended = [&] { // gone, or only waiting to be reaped
        return Wait::until([&] {
            for (const QByteArray& pid : Files::read(file("hang.sh.pids")).trimmed().split('\n')) {
                const QByteArray stat = Files::read("/proc/" + pid + "/stat");
                if (!stat.isEmpty() && !stat.contains(") Z "))
                    return false;
            }
            return true;
        });
    };
    SlideConverter::Options hanging;
    hanging.program = file("hang.sh");
    hanging.timeLimit = 2s;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failure([&] {
                  SlideConverter::convert(file("talk.ppt"), file(""), "pdf", nullptr, hanging);
              }),
              "LibreOffice が 2 秒たっても応答しないため、変換を中止しました");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_TRUE(ended());
    QFile::remove(file("hang.sh.pids"));
    std::atomic<bool> cancel{false};
    std::thread operatorCancels([&] { // once the office has started its child
        for (int polls = 0; polls < 1000 && !started(); ++polls)
            std::this_thread::sleep_for(10ms);
        cancel = true;
    });
    EXPECT_EQ(failure([&] {
                  SlideConverter::convert(file("talk.ppt"), file(""), "pdf", &cancel, hanging);
              }),
              DeckError::kCancelled);
    operatorCancels.join();
    EXPECT_TRUE(ended());

    // The office runs cut off from the network, where the system allows it: an office that
    // tries to reach a server on this machine reaches nothing.
    QProcess isolated;
    isolated.start("unshare", {"--net", "--map-root-user", "--", "true"});
    if (isolated.waitForFinished() && isolated.exitCode() == 0) {
        QTcpServer web;
        ASSERT_TRUE(web.listen(QHostAddress::LocalHost));
        ASSERT_TRUE(write("reach.sh", QStringLiteral("#!/bin/bash\nexec 3<>/dev/tcp/127.0.0.1/%1\n")
                                          .arg(web.serverPort())
                                          .toUtf8()));
        QFile(file("reach.sh")).setPermissions(QFileDevice::ReadOwner | QFileDevice::ExeOwner);
        SlideConverter::Options reaching;
        reaching.program = file("reach.sh");
        failure(
            [&] { SlideConverter::convert(file("talk.ppt"), file(""), "pdf", nullptr, reaching); });
        EXPECT_FALSE(web.waitForNewConnection(200));
    }

    // A file the office cannot make slides of: whichever step finds out says so.
    if (SlideConverter::installedProgram().isEmpty())
        return;
    ASSERT_TRUE(write("empty.odp", ""));
    const QString empty = failure([&] { DeckBuilder::buildSlides(file("empty.odp"), false, {}); });
    EXPECT_TRUE(empty == "LibreOffice でファイルを開けませんでした" ||
                empty == "LibreOffice で PDF に書き出せませんでした" ||
                empty == "スライドを読み込めません")
        << empty.toStdString();
}

} // namespace
