#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

#include "JackServer.h"
#include "MediaFixtures.h"
#include "TempDir.h"
#include "cli/Commands.h"

namespace {

struct Result {
    int status = 0;
    QString out;
    QString err;
};

Result runCommand(const QStringList& args) {
    Result result;
    QTextStream out(&result.out);
    QTextStream err(&result.err);
    result.status = Commands::run(args, out, err);
    out.flush();
    err.flush();
    return result;
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

TEST(ProbeCommand, ExecutableWritesJsonToStandardOutput) {
    TempDir dir;
    const auto flac = dir.file("tone.flac");
    ASSERT_TRUE(MediaFixtures::write(flac, "flac", {{1, 48000, 0.5}}));
    const std::string command = std::string(VORLIN_EXECUTABLE) + " probe '" + flac + "'";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char chunk[4096];
    while (const auto n = fread(chunk, 1, sizeof chunk, pipe))
        output.append(chunk, n);
    EXPECT_EQ(pclose(pipe), 0);
    const QJsonArray records = QJsonDocument::fromJson(QByteArray::fromStdString(output)).array();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].toObject()["sourceChannels"].toInteger(), 1);
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
