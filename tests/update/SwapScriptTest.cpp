#include "update/SwapScript.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

#include "Files.h"
#include "TempDir.h"

namespace {

// Two trees and a work folder: the installed one says "old", the new one "new" and, started,
// writes the marker file.
class SwapScriptTest : public ::testing::Test {
protected:
    void SetUp() override {
        target = QString::fromStdString(dir.file("installed/vorlin"));
        work = QString::fromStdString(dir.file("work"));
        fresh = work + "/unpacked/vorlin";
        marker = QString::fromStdString(dir.file("started"));
        write(target + "/VERSION", "old");
        write(target + "/bin/vorlin", "#!/bin/sh\n");
        write(fresh + "/VERSION", "new");
        write(fresh + "/bin/vorlin", ("#!/bin/sh\necho \"$0\" > '" + marker + "'\n").toUtf8());
        QFile::setPermissions(fresh + "/bin/vorlin",
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        script = work + "/swap.sh";
        write(script, SwapScript::text().toUtf8());
    }
    static void write(const QString& path, const QByteArray& bytes) {
        ASSERT_TRUE(Files::write(path, bytes));
    }
    static QByteArray read(const QString& path) { return Files::read(path); }
    // Runs the script as the updater starts it, waiting for its end; its exit status (and in
    // `said`, what it wrote on the terminal).
    int swap(qint64 pid, const QString& from, const QStringList& more = {}) {
        QProcess process;
        process.start("/bin/sh",
                      QStringList{script, QString::number(pid), from, target, work} + more);
        EXPECT_TRUE(process.waitForFinished(30000));
        said = process.readAllStandardError();
        return process.exitCode();
    }

    TempDir dir;
    QString target, work, fresh, marker, script;
    QByteArray said;
};

TEST_F(SwapScriptTest, PutsTheNewTreeInPlaceOnceTheProgramHasQuitAndStartsIt) {
    // The program quits half a second later (and stays a zombie: nobody reaps it here).
    QProcess program;
    program.start("sleep", {"0.5"});
    ASSERT_TRUE(program.waitForStarted());
    QElapsedTimer waited;
    waited.start();
    EXPECT_EQ(swap(program.processId(), fresh), 0);
    EXPECT_GE(waited.elapsed(), 300); // it waited for the program
    EXPECT_EQ(said, "");              // nothing on the terminal the program was started from
    EXPECT_EQ(read(target + "/VERSION"), "new");
    for (int i = 0; i < 100 && !QFileInfo::exists(marker); ++i)
        QThread::msleep(50);
    EXPECT_EQ(read(marker).trimmed(), (target + "/bin/vorlin").toUtf8());
    EXPECT_FALSE(QFileInfo::exists(work));
}

TEST_F(SwapScriptTest, KeepsTheOldTreeWhenTheProgramNeverQuitsOrTheNewOneCannotMove) {
    QProcess program;
    program.start("sleep", {"60"});
    ASSERT_TRUE(program.waitForStarted());
    const qint64 pid = program.processId();
    EXPECT_EQ(swap(pid, fresh, {"5"}), 1); // five polls: a second
    EXPECT_EQ(read(target + "/VERSION"), "old");
    EXPECT_EQ(read(fresh + "/VERSION"), "new");
    program.kill();
    program.waitForFinished();

    // The process is gone; the new tree is not where it should be: the old one comes back.
    EXPECT_EQ(swap(pid, work + "/missing"), 1);
    EXPECT_TRUE(said.startsWith("mv: ")) << said.toStdString(); // only the failed move is said
    EXPECT_EQ(read(target + "/VERSION"), "old");
    EXPECT_EQ(read(target + "/bin/vorlin"), "#!/bin/sh\n");
    EXPECT_FALSE(QFileInfo::exists(marker));
}

} // namespace
