#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <sys/resource.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

#include "Files.h"
#include "MediaFixtures.h"
#include "ScriptedInteraction.h"
#include "TempDir.h"
#include "Wait.h"
#include "cue/AppModel.h"
#include "model/DocumentError.h"
#include "model/Prefs.h"
#include "model/ShowFile.h"

namespace {

using Files::read;
using Files::write;

// The sample show, as the program writes it: one page "ページ 1" with intro.wav on the A key.
QByteArray sampleFile(const QString& folder) {
    return read(QStringLiteral(SAMPLE_SHOW)).replace("FOLDER", folder.toUtf8());
}

class Document : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        setenv("JACK_DEFAULT_SERVER", "vorlin-no-such-server", 1);
        folder = QString::fromStdString(dir.file("Show"));
        QDir().mkpath(folder);
    }
    TempDir dir;
    QString folder;
};

TEST_F(Document, TheSampleShowIsWrittenByteForByteAndAgainIdentically) {
    AppModel model;
    model.document().assignments[0] = KeyAssignment(folder + "/intro.wav", 0);
    model.setVideoOutputs({"window"});
    int titles = 0;
    model.session().onTitleChange = [&] { ++titles; };
    const QString path = folder + "/show.vorlin";
    model.save(path);
    EXPECT_EQ(read(path), sampleFile(folder));
    model.save(path);
    EXPECT_EQ(read(path), sampleFile(folder));
    EXPECT_FALSE(model.isDirty());
    EXPECT_EQ(model.documentName(), "show.vorlin");
    EXPECT_EQ(titles, 2);
    EXPECT_EQ(Prefs::value(Prefs::lastKeymapKey(1)).toString(), path);
    EXPECT_FALSE(QDir(folder).entryList(QDir::Files).join(",").contains("saving"));
}

TEST_F(Document, EveryFieldSurvivesARoundTrip) {
    AppModel model;
    KeyAssignment a(folder + "/曲/オープニング.wav", 7);
    a.title = "開演 ♪";
    a.mode = KeyMode::retrigger;
    a.fadeIn = 0.25;
    a.fadeOut = 2.5;
    a.volume = 0.7071067811865476;
    a.loop = true;
    a.outputMap = "3-4";
    a.matrix = RoutingMatrix{{5}, {0, 7}, {}};
    a.showVideo = false;
    a.onNext = NextBehavior::cut;
    a.group = 2;
    a.layer = 9;
    a.slideAuto = true;
    a.slideInterval = 2.5;
    a.slideLoop = true;
    a.slideTransition = 0;
    using Kind = DeckItem::Kind;
    using End = DeckItem::EndAction;
    a.deckItems = std::vector<DeckItem>{
        {"s1", Kind::video, "s1-m1.mp4", 3, "映像", false, 4.0, std::nullopt, 0.5, End::loop},
        {"s2", Kind::image, "s002.png", 2, "2", true, {}, 0.1, 1.0, End::hold}};
    a.sources = QStringList{folder + "/a.wav", "/elsewhere/b.wav"};
    a.clickToTake = true;
    a.screens = QStringList{"window", "2: Beamer（1920×1080）"};
    model.document().assignments[93] = a;
    KeyPage second;
    second.name = "第二幕";
    second.keys[0] = KeyAssignment(folder + "/x.wav", 1);
    model.document().pages.push_back(second);
    model.setMasterVolume(0.5);
    model.setStopAllFade(3);
    model.setMutedOutputs({7, 2});
    model.setVideoOutputs({"1: Main（1512×982）", "window"});
    model.setOutputDeviceUID(QString("null"));
    const QString path = folder + "/all.vorlin";
    model.save(path);

    AppModel reopened;
    reopened.open(path);
    ASSERT_EQ(reopened.document().pages.size(), 2u);
    KeyAssignment expected = a;
    expected.relativePath = "曲/オープニング.wav";
    expected.relativeSources = QStringList{"a.wav", "../../../elsewhere/b.wav"};
    EXPECT_EQ(reopened.document().assignments.at(93), expected);
    EXPECT_EQ(reopened.document().pages[1].name, "第二幕");
    EXPECT_EQ(reopened.document().pages[1].keys.at(0).path, folder + "/x.wav");
    EXPECT_EQ(reopened.masterVolume(), 0.5);
    EXPECT_EQ(reopened.cueEngine().stopAllFade(), 3.0);
    EXPECT_EQ(reopened.mutedOutputs(), (std::set<std::int64_t>{2, 7}));
    EXPECT_EQ(reopened.videoOutputs(), (QStringList{"1: Main（1512×982）", "window"}));
    EXPECT_EQ(reopened.outputDeviceUID(), QString("null"));
    EXPECT_TRUE(read(path).contains("\"videoTarget\": \"display:1: Main（1512×982）\""));
    EXPECT_FALSE(reopened.isDirty());
}

TEST_F(Document, ReadRulesForPagesCurrentPageAndKeyStrings) {
    const QString path = folder + "/rules.vorlin";
    QByteArray base = sampleFile(folder);
    auto withTop = [&](const QByteArray& pagesJson, const QByteArray& current) {
        QByteArray text = base;
        const int from = text.indexOf("    \"pages\"");
        const int to = text.indexOf("    \"stopAllFade\"");
        text.replace(from, to - from, "    \"pages\": " + pagesJson + ",\n");
        text.replace("\"currentPage\": 0", "\"currentPage\": " + current);
        return text;
    };
    AppModel model;

    QByteArray noPages = base;
    noPages.remove(noPages.indexOf("    \"pages\""),
                   noPages.indexOf("    \"stopAllFade\"") - noPages.indexOf("    \"pages\""));
    write(path, noPages);
    model.open(path);
    ASSERT_EQ(model.document().pages.size(), 1u);
    EXPECT_EQ(model.document().pages[0].name, "ページ 1");
    EXPECT_EQ(model.document().assignments.count(0), 1u);

    write(path, withTop("[]", "0"));
    model.open(path);
    ASSERT_EQ(model.document().pages.size(), 1u);
    EXPECT_TRUE(model.document().assignments.empty()); // the top-level keys are ignored

    const QByteArray three = R"([{"name": "1", "keys": {}}, {"name": "2", "keys": {}},
        {"name": "3", "keys": {"300000": {"path": "/a"}, "abc": {"path": "/b"}, "12": {"path": "/c"}}}])";
    write(path, withTop(three, "7"));
    model.open(path);
    EXPECT_EQ(model.document().currentPage, 2u);
    // Dropped, and the operator told so: the next save will not write them.
    EXPECT_EQ(model.status().text(), "キーとして読めない項目を読み飛ばしました: 300000、abc");
    ASSERT_EQ(model.document().assignments.size(), 1u);
    EXPECT_EQ(model.document().assignments.begin()->first, 12);
    const KeyAssignment& defaults = model.document().assignments.at(12);
    EXPECT_EQ(defaults.fadeOut, 1.0);
    EXPECT_EQ(defaults.layer, 5);
    EXPECT_EQ(defaults.slideTransition, 0.3);
    EXPECT_TRUE(defaults.showVideo);
    EXPECT_FALSE(defaults.matrix || defaults.sources || defaults.screens || defaults.relativePath);
    write(path, withTop(three, "-1"));
    model.open(path);
    EXPECT_EQ(model.document().currentPage, 0u);

    // A file with one picture output only, as older files have it.
    QByteArray oneTarget = base;
    oneTarget.replace("\"videoOutputs\": [\n        \"window\"\n    ],\n", "");
    oneTarget.replace("\"videoTarget\": \"window\"", "\"videoTarget\": \"display:2: Beamer\"");
    write(path, oneTarget);
    model.open(path);
    EXPECT_EQ(model.videoOutputs(), QStringList{"2: Beamer"});
}

// A file that cannot be read whole is not opened at all, and says why: not JSON, not an object,
// a value no editor could set (naming its page and key when it is a key's), a file not there.
TEST_F(Document, ABadFileFailsWholeAndLeavesTheModelUntouched) {
    AppModel model;
    model.document().assignments[0] = KeyAssignment("/show/keep.wav", 0);
    const QString path = folder + "/bad.vorlin";
    const QByteArray good = sampleFile(folder);
    // The sample file with `from` replaced by `to`, in the page's copy of the key or in the
    // top level's; "*" stands for the whole file.
    const std::tuple<const char*, const char*, bool, const char*> rows[] = {
        {"*", "{ not json", false, "JSON として読めません"},
        {"*", "[]", false, "キーマップの形式ではありません（JSON のオブジェクトではありません）"},
        {"\"mode\": \"toggle\"", "\"mode\": \"loop-forever\"", false,
         "キー A（0）: 「mode」の値が正しくありません"},
        {"\"volume\": 1", "\"volume\": 1e18", true,
         "ページ「ページ 1」のキー A（0）: 「volume」の値が範囲外です（0〜3.98107）"},
        {"\"fadeIn\": 0", "\"fadeIn\": -2", false,
         "キー A（0）: 「fadeIn」の値が範囲外です（0〜60）"},
        {"\"masterVolume\": 1", "\"masterVolume\": 1e39", false,
         "「masterVolume」の値が範囲外です（0〜1）"},
        {"\"mutedOutputs\": [", "\"mutedOutputs\": [65", false,
         "「mutedOutputs」の値が範囲外です（1〜64）"},
        {"\"mutedOutputs\": [", R"("midiBindings": [{"message": "note", "channel": 1,
         "number": 128, "action": "stop"}], "mutedOutputs": [)",
         false, "MIDI の割り当ての number は 0〜127 です"},
        {"\"mutedOutputs\": [", R"("midiBindings": [{"message": "note", "channel": 0,
         "number": 60, "action": "stop"}], "mutedOutputs": [)",
         false, "MIDI の割り当ての channel は 1〜16 です"},
        {"\"mutedOutputs\": [", R"("midiBindings": [{"message": "note", "channel": 16,
         "number": 127, "action": "key", "key": 65535}], "mutedOutputs": [)",
         false, "MIDI の割り当ての key は 0〜65534 です"},
        {"\"mutedOutputs\": [", R"("midiBindings": [{"message": "control", "channel": 1,
         "number": 0, "action": "page", "page": 10000}], "mutedOutputs": [)",
         false, "MIDI の割り当ての page は 0〜9999 です"},
    };
    for (const auto& [from, to, inPage, said] : rows) {
        QByteArray text = to;
        if (QByteArray(from) != "*") {
            text = good;
            text.replace(inPage ? text.lastIndexOf(from) : text.indexOf(from),
                         static_cast<qsizetype>(std::strlen(from)), to);
        }
        write(path, text);
        QString message = "opened";
        try {
            model.open(path);
        } catch (const DocumentError& error) {
            message = error.message();
        }
        EXPECT_TRUE(message.startsWith(QString::fromUtf8(said))) << message.toStdString();
        EXPECT_EQ(model.document().assignments.at(0).path, "/show/keep.wav") << said;
        EXPECT_FALSE(model.session().documentPath()) << said;
    }
    EXPECT_THROW(model.open(folder + "/missing.vorlin"), DocumentError);
}

TEST_F(Document, SavingKeepsPermissionsFollowsLinksAndLeavesNoTemporaries) {
    AppModel model;
    model.document().assignments[0] = KeyAssignment(folder + "/intro.wav", 0);
    const QString real = folder + "/private.vorlin";
    model.save(real);
    const QString link = folder + "/current.vorlin";
    ASSERT_TRUE(QFile::link(real, link));
    // Private, and shared with the group (not what a new temporary file gets).
    for (const QFileDevice::Permissions kept :
         {QFile::ReadOwner | QFile::WriteOwner,
          QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther}) {
        ASSERT_TRUE(QFile::setPermissions(real, kept));
        model.document().assignments[1] = KeyAssignment(folder + "/second.wav", 1);
        model.save(link);
        EXPECT_TRUE(QFileInfo(link).isSymLink());
        EXPECT_TRUE(read(real).contains("second.wav"));
        const QFileDevice::Permissions user = QFile::ReadUser | QFile::WriteUser | QFile::ExeUser;
        EXPECT_EQ(QFile::permissions(real) & ~user, kept);
    }

    // A save killed between writing and renaming leaves its temporary; opening cleans it up
    // once it is old enough not to be another instance's save under way.
    const QString stale = real + ".saving-Ab12Cd";
    const QString fresh = real + ".saving-Ef34Gh";
    write(stale, "{");
    write(fresh, "{");
    QFile staleFile(stale);
    staleFile.open(QIODevice::ReadWrite);
    staleFile.setFileTime(QDateTime::currentDateTime().addSecs(-60),
                          QFileDevice::FileModificationTime);
    staleFile.close();
    model.open(link);
    EXPECT_FALSE(QFile::exists(stale));
    EXPECT_TRUE(QFile::exists(fresh));
    EXPECT_EQ(QDir(folder).entryList(QDir::Files).size(), 3); // the show, the link, the fresh one
}

TEST_F(Document, OneFileOnThousandsOfKeysIsLoadedOnce) {
    AppModel model;
    model.setOffline(true);
    const QString file = folder + "/tone.wav";
    ASSERT_TRUE(MediaFixtures::write(file.toStdString(), "pcm_s16le", {{1, 48000, 0.5}}));
    KeyPage second;
    second.name = "2";
    for (KeyCode code = 0; code < 1500; ++code) {
        model.document().assignments[code] = KeyAssignment(file, 0);
        second.keys[code] = KeyAssignment(file, 0);
    }
    model.document().pages.push_back(second);
    model.save(folder + "/many.vorlin");
    int changes = 0;
    QObject::connect(&model.media(), &MediaLoader::mediaChanged, [&] { ++changes; });
    model.open(folder + "/many.vorlin");
    // Every forced load of the same entry would cancel the one before: one load, not 3000.
    EXPECT_EQ(model.media().pending(), 1);
    ASSERT_TRUE(Wait::until([&] { return model.media().pending() == 0; }, 20000));
    EXPECT_EQ(changes, 2); // started, finished
    ASSERT_EQ(model.media().table().size(), 1u);
    const MediaInfo* first = model.media().infoFor(model.document().assignments.at(0));
    ASSERT_TRUE(first && first->clip);
    EXPECT_EQ(model.media().infoFor(model.document().pages[1].keys.at(1499))->clip, first->clip);
}

TEST_F(Document, AMovedShowFolderFindsItsMediaThroughRelativePaths) {
    QFile(folder + "/intro.wav").open(QIODevice::WriteOnly);
    AppModel model;
    KeyAssignment list(folder + "/intro.wav", 0);
    list.sources = QStringList{folder + "/intro.wav"};
    model.document().assignments[0] = list;
    model.save(folder + "/show.vorlin");

    const QString moved = QString::fromStdString(dir.file("Moved"));
    ASSERT_TRUE(QDir().rename(folder, moved));
    AppModel reopened;
    reopened.open(moved + "/show.vorlin");
    EXPECT_EQ(reopened.document().assignments.at(0).path, moved + "/intro.wav");
    EXPECT_EQ(reopened.document().assignments.at(0).sources->first(), moved + "/intro.wav");
    reopened.save(moved + "/show.vorlin");
    EXPECT_TRUE(
        read(moved + "/show.vorlin").contains(("\"path\": \"" + moved + "/intro.wav\"").toUtf8()));
    for (const auto& [path, relative] :
         {std::pair{"/Volumes/Disk/a.wav", "../../../Volumes/Disk/a.wav"},
          {"/Users/op/Show/a.wav", "a.wav"},
          {"/Users/op/a.wav", "../a.wav"},
          {"/Users/op", ".."}})
        EXPECT_EQ(ShowFile::relativePath(path, "/Users/op/Show"), relative);

    // A copy of the show beside other files of the same names: the absolute path wins while
    // it exists; the relative one is only the fallback.
    const QString copy = QString::fromStdString(dir.file("Copy"));
    QDir().mkpath(copy);
    QFile(copy + "/intro.wav").open(QIODevice::WriteOnly);
    QFile::copy(moved + "/show.vorlin", copy + "/show.vorlin");
    AppModel copied;
    copied.open(copy + "/show.vorlin");
    EXPECT_EQ(copied.document().assignments.at(0).path, moved + "/intro.wav");
    EXPECT_EQ(copied.document().assignments.at(0).sources->first(), moved + "/intro.wav");
}

TEST_F(Document, AFailedWriteKeepsTheOldFileAndTheDocumentDirty) {
    AppModel model;
    model.document().assignments[0] = KeyAssignment(folder + "/intro.wav", 0);
    const QString path = folder + "/show.vorlin";
    model.save(path);
    const QByteArray before = read(path);
    for (KeyCode k = 1; k < 40; ++k)
        model.document().assignments[k] = KeyAssignment(folder + "/more.wav", k);
    model.markDirty();

    // A full disk, as far as this process can tell: writes past 1 KiB fail.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = 1024;
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_THROW(model.save(path), DocumentError);
    setrlimit(RLIMIT_FSIZE, &old);

    EXPECT_EQ(read(path), before);
    EXPECT_TRUE(model.isDirty());
    EXPECT_EQ(QDir(folder).entryList(QDir::Files), QStringList{"show.vorlin"});
    EXPECT_THROW(model.save(folder + "/no/such/folder/show.vorlin"), DocumentError);
    EXPECT_EQ(*model.session().documentPath(), path);
}

TEST_F(Document, DirtyTrackingNewDocumentAndReopeningTheLastShow) {
    AppModel model;
    int titles = 0;
    model.session().onTitleChange = [&] { ++titles; };
    EXPECT_EQ(model.documentName(), "名称未設定.vorlin");
    model.setMasterVolume(0.8);
    EXPECT_TRUE(model.isDirty());
    model.setMasterVolume(0.9); // already dirty: no second title change
    EXPECT_EQ(titles, 1);
    const QString path = folder + "/last.vorlin";
    model.save(path);

    AppModel next;
    next.restoreLastDocument();
    EXPECT_EQ(next.session().documentPath(), path);
    EXPECT_EQ(next.masterVolume(), 0.9);
    EXPECT_FALSE(next.isDirty()); // applying a file marks nothing

    next.editor().newPage(false); // on its second page
    next.newDocument();
    EXPECT_EQ(next.document().pages.size(), 1u);
    EXPECT_EQ(next.document().currentPage, 0u);
    EXPECT_FALSE(next.session().documentPath());
    EXPECT_FALSE(Prefs::value(Prefs::lastKeymapKey(1)).isValid());

    Prefs::setValue(Prefs::lastKeymapKey(1), path);
    write(path, "garbage");
    AppModel third;
    third.restoreLastDocument();
    EXPECT_TRUE(third.status().text().startsWith("前回のキーマップを開けません: "));
    Prefs::setValue(Prefs::kReopenLastKeymap, false);
    AppModel fourth;
    fourth.restoreLastDocument();
    EXPECT_TRUE(fourth.status().text().isEmpty());
    Prefs::remove(Prefs::kReopenLastKeymap);
}

TEST_F(Document, ThousandsOfMutatedFilesOpenCleanlyOrFailWithTheModelUnchanged) {
    AppModel model;
    const QString path = folder + "/fuzz.vorlin";
    const QByteArray seed = sampleFile(folder);
    std::mt19937 random(2026);
    const char* tokens[] = {"null",
                            "[]",
                            "{}",
                            "-1",
                            "1e400",
                            "\"x\"",
                            "true",
                            "\"300000\"",
                            ":",
                            ",",
                            "\"mode\": \"hold\""};
    int opened = 0, refused = 0;
    for (int round = 0; round < 3000; ++round) {
        QByteArray text = seed;
        const int edits = 1 + static_cast<int>(random() % 4);
        for (int e = 0; e < edits; ++e) {
            const int at = static_cast<int>(random() % text.size());
            switch (random() % 4) {
            case 0:
                text[at] = static_cast<char>(random() % 256);
                break;
            case 1:
                text.remove(at, static_cast<int>(random() % 40));
                break;
            case 2:
                text.insert(at, tokens[random() % std::size(tokens)]);
                break;
            default:
                text.truncate(at);
                break;
            }
        }
        write(path, text);
        const auto pages = model.document().pages.size();
        const auto keys = model.document().assignments;
        const auto current = model.document().currentPage;
        try {
            model.open(path);
            ++opened;
            ASSERT_FALSE(model.document().pages.empty());
            ASSERT_LT(model.document().currentPage, model.document().pages.size());
        } catch (const DocumentError&) {
            ++refused;
            ASSERT_EQ(model.document().pages.size(), pages);
            ASSERT_EQ(model.document().assignments, keys);
            ASSERT_EQ(model.document().currentPage, current);
        }
        if (round % 200 == 0)
            QCoreApplication::processEvents();
    }
    EXPECT_GT(opened, 10);
    EXPECT_GT(refused, 1000);
}

} // namespace

namespace {

// The recovery copy is there exactly while the show has unsaved changes, and names the show's
// own file (none for a show never saved); restoring brings the changes back as the show at
// that file, still to be saved; declining throws the copy away.
TEST_F(Document, TheRecoveryCopyFollowsUnsavedChangesAndRestoresAsTheShowItself) {
    const QString intro = folder + "/intro.wav";
    QFile(intro).open(QIODevice::WriteOnly);
    const QString recovery = QString::fromStdString(dir.file("Recovery"));
    const QString copy = recovery + "/instance-1.vorlin";
    const QString show = folder + "/show.vorlin", other = folder + "/other.vorlin";
    AppModel model;
    ShowSession& session = model.session();
    session.enableRecovery(recovery);
    model.save(other);
    ShowEditor& editor = model.editor();
    QUndoStack& stack = session.history().stack();
    struct Row {
        const char* what;
        std::function<void()> act;
        std::optional<QString> names; // the show file the copy names ("" none); no copy: nullopt
    };
    const std::vector<Row> rows{
        {"an untitled show edited",
         [&] {
             model.newDocument();
             editor.assign(intro, 0);
         },
         QString()},
        {"saved", [&] { model.save(show); }, std::nullopt},
        {"a key edited", [&] { editor.assign(intro, 1); }, show},
        {"undone back to the save", [&] { stack.undo(); }, std::nullopt},
        {"redone", [&] { stack.redo(); }, show},
        {"saved, then a setting the file keeps",
         [&] {
             model.save(show);
             model.setMasterVolume(0.5);
         },
         show},
        {"another show opened", [&] { model.open(other); }, std::nullopt},
        {"that show edited", [&] { editor.assign(intro, 2); }, other},
        {"given up on quitting", [&] { session.discardRecovery(); }, std::nullopt},
        {"edited, then a new show",
         [&] {
             editor.assign(intro, 3);
             model.newDocument();
         },
         std::nullopt},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        row.act();
        session.flushRecovery();
        ASSERT_EQ(QFile::exists(copy), row.names.has_value());
        if (!row.names)
            continue;
        const auto found = session.recoveryCopy();
        ASSERT_TRUE(found);
        EXPECT_EQ(found->origin.value_or(QString()), *row.names);
        const KeymapDocument kept = KeymapDocument::decode(read(copy));
        EXPECT_EQ(kept.pages->front().keys.size(), model.document().assignments.size());
    }

    // Not flushed: an edit reaches the copy by itself, a short while later.
    model.open(show);
    editor.assign(intro, 4);
    ASSERT_TRUE(Wait::until([&] { return QFile::exists(copy); }, 10000));

    Script declining;
    AppModel declined;
    declined.session().enableRecovery(recovery);
    EXPECT_FALSE(declined.session().offerRecovery(declining));
    declined.session().flushRecovery();
    EXPECT_FALSE(QFile::exists(copy));
    EXPECT_FALSE(declined.isDirty());

    editor.assign(intro, 5);
    session.flushRecovery();
    Script accepting;
    accepting.buttons = {0};
    AppModel restored;
    restored.session().enableRecovery(recovery);
    ASSERT_TRUE(restored.session().offerRecovery(accepting));
    EXPECT_EQ(accepting.asked[0], "保存されていない変更が残っています。復元しますか？");
    EXPECT_TRUE(accepting.asked[1].startsWith("show.vorlin（"));
    EXPECT_EQ(accepting.asked[2], "復元する|破棄する");
    EXPECT_EQ(restored.session().documentPath(), show);
    EXPECT_TRUE(restored.isDirty());
    for (const KeyCode key : {0, 1, 4, 5})
        EXPECT_EQ(restored.document().assignments.at(key).path, intro) << key;
    restored.session().flushRecovery();
    EXPECT_TRUE(QFile::exists(copy)); // still the only record until saved
    restored.save(show);
    restored.session().flushRecovery();
    EXPECT_FALSE(QFile::exists(copy));
    AppModel reopened;
    reopened.open(show);
    EXPECT_EQ(reopened.document().assignments.size(), 4u);

    // A copy that cannot be written is said, when the next edit is kept.
    AppModel blocked;
    blocked.session().enableRecovery(intro + "/Recovery"); // a file where its folder should be
    blocked.editor().assign(intro, 0);
    blocked.session().flushRecovery();
    blocked.editor().assign(intro, 1);
    blocked.session().flushRecovery();
    EXPECT_TRUE(blocked.status().text().startsWith("復元用のコピーを書けません: "))
        << blocked.status().text().toStdString();
}

// Killed at random moments while it writes, the writer never touches the show's own file and
// always leaves a whole copy, never older than the last one seen.
TEST_F(Document, AKilledRecoveryWriterLeavesTheShowAndTheLastCopyWhole) {
    const QString recovery = QString::fromStdString(dir.file("Recovery"));
    const QString show = folder + "/show.vorlin";
    write(show, sampleFile(folder));
    const QByteArray own = read(show);
    std::mt19937 random(29);
    std::uniform_int_distribution<int> delay(0, 15000);
    long last = 0;
    for (int round = 0; round < 200; ++round) {
        QProcess probe;
        probe.start(RECOVERY_PROBE, {recovery, show});
        ASSERT_TRUE(probe.waitForReadyRead(10000)) << round;
        QThread::usleep(static_cast<unsigned long>(delay(random)));
        ::kill(static_cast<pid_t>(probe.processId()), SIGKILL);
        probe.waitForFinished();
        ASSERT_EQ(read(show), own) << round;
        const QByteArray copy = read(recovery + "/instance-1.vorlin");
        long number = 0;
        ASSERT_NO_THROW(number = KeymapDocument::decode(copy).pages->front().name.toLong())
            << round;
        ASSERT_GE(number, last) << round;
        last = number;
        EXPECT_EQ(read(recovery + "/instance-1.origin"), show.toUtf8());
    }
    EXPECT_GE(last, 200); // a whole copy at least per round (a slow build is killed in its second)
}

} // namespace
