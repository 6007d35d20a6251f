#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>

#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "JackServer.h"
#include "MediaFixtures.h"
#include "PdfFixture.h"
#include "TempDir.h"
#include "TypedCommand.h"
#include "deck/DeckCache.h"
#include "model/BuildInfo.h"

namespace {

using Result = TypedCommand;

Result runCommand(const QStringList& args) {
    return TypedCommand::run(args);
}

TEST(ProbeCommand, PrintsOneJsonRecordPerFileInOrder) {
    TempDir dir;
    const auto wav = dir.file("two.wav");
    ASSERT_TRUE(MediaFixtures::write(wav, "pcm_s16le", {{2, 44100, 1.5}}));
    const MediaFixtures::Video video{320, 180, 0.0, 1.0};
    const auto mp4 = dir.file("clip.mp4");
    ASSERT_TRUE(MediaFixtures::write(mp4, "aac", {{1, 48000, 1.0}, {2, 48000, 1.0}}, &video));

    const Result result =
        runCommand({"probe", QString::fromStdString(wav), QString::fromStdString(mp4)});
    EXPECT_EQ(result.status, 0) << result.err.toStdString();
    const QJsonArray records = QJsonDocument::fromJson(result.out.toUtf8()).array();
    ASSERT_EQ(records.size(), 2);
    const QJsonObject audio = records[0].toObject();
    EXPECT_EQ(audio["file"].toString().toStdString(), wav);
    EXPECT_TRUE(audio["hasAudio"].toBool());
    EXPECT_FALSE(audio["hasVideo"].toBool());
    EXPECT_EQ(audio["sourceSampleRate"].toDouble(), 44100.0);
    EXPECT_NEAR(audio["duration"].toDouble(), 1.5, 0.01);
    EXPECT_GT(audio["fileSize"].toInteger(), 0);
    const QJsonObject movie = records[1].toObject();
    EXPECT_EQ(movie["audioTracks"].toInteger(), 2);
    EXPECT_EQ(movie["sourceChannels"].toInteger(), 3);
    EXPECT_EQ(movie["videoSize"].toObject()["width"].toDouble(), 320.0);
    EXPECT_FALSE(movie.contains("error"));
}

TEST(ProbeCommand, MissingOrNonMediaFilesAreReportedAndFailTheRun) {
    TempDir dir;
    const auto text = dir.file("notes.txt");
    std::ofstream(text) << "hello\n";
    const Result result = runCommand(
        {"probe", QString::fromStdString(dir.file("gone.wav")), QString::fromStdString(text)});
    EXPECT_EQ(result.status, 1);
    const QJsonArray records = QJsonDocument::fromJson(result.out.toUtf8()).array();
    ASSERT_EQ(records.size(), 2);
    EXPECT_EQ(records[0].toObject()["error"].toString(), QString("ファイルを読めません"));
    EXPECT_EQ(records[1].toObject()["error"].toString(),
              QString("メディアファイルとして読めません"));
    EXPECT_TRUE(result.err.contains("gone.wav"));

    EXPECT_EQ(runCommand({"probe"}).status, 2);
    EXPECT_EQ(runCommand({"bogus"}).status, 2);
}

TEST(CommandLine, EveryCommandRunsWithoutADisplayAndEveryMistakeSaysWhat) {
    const Result help = runCommand({"help"});
    EXPECT_EQ(help.status, 0);
    for (const char* command : {"vorlin devices", "vorlin probe", "vorlin render"})
        EXPECT_TRUE(help.out.contains(command)) << command;
    const Result version = runCommand({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(
        version.out.trimmed(),
        QStringLiteral("Vorlin %1（ビルド %2）").arg(BuildInfo::kVersion).arg(BuildInfo::kBuild));

    // A misspelt command, a show that is not there and an unknown option of a command are
    // refused before any window is tried.
    const Result misspelt = runCommand({"devicez"});
    EXPECT_EQ(misspelt.status, 2);
    EXPECT_TRUE(misspelt.err.startsWith("不明なコマンドです: devicez"))
        << misspelt.err.toStdString();
    const Result missing = runCommand({"/nowhere/show.vorlin"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err.trimmed(), QString("キーマップが見つかりません: /nowhere/show.vorlin"));
    EXPECT_EQ(runCommand({"render", "--bogus"}).status, 2);

    // The window itself needs a screen: without one, a message instead of Qt's abort.
    TempDir dir;
    const auto show = dir.file("a.vorlin");
    std::ofstream(show) << "{}";
    for (const QStringList& args : {QStringList{}, QStringList{QString::fromStdString(show)}}) {
        const Result window = runCommand(args);
        EXPECT_EQ(window.status, 1);
        EXPECT_TRUE(window.err.startsWith("画面に接続できないため")) << window.err.toStdString();
        EXPECT_FALSE(window.err.contains("qt.qpa"));
    }
}

TEST(DevicesCommand, ListsJackAlsaAndNullDevices) {
    JackServer server(6);
    ASSERT_TRUE(server.ready());
    const Result result = runCommand({"devices"});
    EXPECT_EQ(result.status, 0);
    const QJsonArray devices = QJsonDocument::fromJson(result.out.toUtf8()).array();
    ASSERT_GE(devices.size(), 2);
    EXPECT_EQ(devices.first().toObject()["uid"].toString(), QString("jack:system"));
    EXPECT_EQ(devices.first().toObject()["channels"].toInteger(), 6);
    EXPECT_EQ(devices.last().toObject()["uid"].toString(), QString("null"));
    for (const auto& device : devices)
        EXPECT_FALSE(device.toObject()["name"].toString().isEmpty());
}

} // namespace

namespace {

// `vorlin deck` as typed: a PDF becomes a deck in the cache, found again the second time; what
// is no slide file, or is damaged, says so.
TEST(DeckCommand, BuildsThenFindsADeckAndSaysWhatIsWrong) {
    TempDir dir;
    const QString pdf = QString::fromStdString(dir.file("talk.pdf"));
    ASSERT_TRUE(writePdf(pdf, {Qt::red, Qt::blue}));
    const TypedCommand built = TypedCommand::run({"deck", pdf});
    ASSERT_EQ(built.status, 0) << built.err.toStdString();
    EXPECT_TRUE(built.err.contains("2/2")) << built.err.toStdString(); // progress on stderr
    const QJsonObject deck = QJsonDocument::fromJson(built.out.toUtf8()).object();
    const QJsonArray items = deck["manifest"].toObject()["items"].toArray();
    ASSERT_EQ(items.size(), 2);
    EXPECT_EQ(items[1].toObject()["file"].toString(), "s002.png");
    EXPECT_TRUE(QFileInfo(deck["folder"].toString() + "/s002.png").isFile());

    const TypedCommand again = TypedCommand::run({"deck", pdf});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, built.out);
    EXPECT_FALSE(again.err.contains("2/2")); // nothing rendered again

    const QString junk = QString::fromStdString(dir.file("junk.pdf"));
    std::ofstream(junk.toStdString()) << "no pdf at all";
    const TypedCommand damaged = TypedCommand::run({"deck", junk});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_TRUE(damaged.err.contains("スライドを読み込めません"));
    EXPECT_EQ(TypedCommand::run({"deck", QString::fromStdString(dir.file("song.wav"))}).status, 1);
    EXPECT_EQ(TypedCommand::run({"deck"}).status, 2);
}

// Pages of any shape cost a bounded amount of memory (a tall one is scaled down and says so),
// a deck of too many pages is refused leaving nothing behind, and a long name still builds.
TEST(DeckCommand, PagesOfAnyShapeOrCountAreBoundedAndLongNamesBuild) {
    TempDir dir;
    const auto path = [&](const QString& name) {
        return QString::fromStdString(dir.file(name.toStdString()));
    };
    struct Row {
        QString name;
        int pages;
        QSizeF points;
        int status;
        QString said;  // on stderr, or the last item's title
        QSize picture; // of the last page
    };
    const QString longName = QString(82, QChar(0x3042)); // 82 × "あ", 246 bytes
    const Row rows[] = {
        {"tall.pdf", 1, {200, 14400}, 0, "スライド 1（縦に長すぎるため縮小）", {114, 8192}},
        {"sliver.pdf", 1, {1, 14400}, 0, "スライド 1（縦に長すぎるため縮小）", {1, 8192}},
        {longName + ".pdf", 2, {320, 180}, 0, "スライド 2", {2560, 1440}},
        {"many.pdf",
         2001,
         {32, 18},
         1,
         "ページが多すぎます（2001 ページ。2000 ページまでのファイルにしてください）",
         {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name.toStdString());
        ASSERT_TRUE(writePdf(path(row.name), std::vector<QColor>(row.pages, Qt::red), row.points));
        const TypedCommand built = TypedCommand::run({"deck", path(row.name)});
        ASSERT_EQ(built.status, row.status) << built.err.toStdString();
        if (row.status != 0) {
            EXPECT_TRUE(built.err.contains(row.said)) << built.err.toStdString();
            continue;
        }
        const QJsonObject deck = QJsonDocument::fromJson(built.out.toUtf8()).object();
        const QJsonArray items = deck["manifest"].toObject()["items"].toArray();
        EXPECT_EQ(items.last().toObject()["title"].toString(), row.said);
        EXPECT_EQ(
            QImage(deck["folder"].toString() + '/' + items.last().toObject()["file"].toString())
                .size(),
            row.picture);
    }
    // Built or refused, no folder was left for the refused one.
    for (const QString& folder :
         QDir(DeckCache::root()).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        EXPECT_FALSE(folder.startsWith("many-")) << folder.toStdString();
    // A 200 × 14,400-point page at full width would have been 2560 × 184,320 pixels (3 GB).
    rusage children{};
    getrusage(RUSAGE_CHILDREN, &children);
    EXPECT_LT(children.ru_maxrss, 400 * 1024) << "kB";
}

} // namespace
