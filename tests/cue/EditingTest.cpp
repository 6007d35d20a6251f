#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

#include <QDir>
#include <QFile>
#include <QThread>

#include "CueStage.h"
#include "MediaFixtures.h"
#include "ScriptedInteraction.h"
#include "TempDir.h"
#include "Wait.h"
#include "model/KeyboardLayout.h"
#include "model/Prefs.h"

namespace {

class Editing : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        Prefs::setValue(Prefs::kKeyboardLayout, "us");
        for (const QString& key : {Prefs::kOccupiedDrop, Prefs::kMultiDrop})
            Prefs::remove(key);
        stage.model.setInteraction(&script);
    }
    QString file(const QString& name) {
        return QString::fromStdString(dir.file(name.toStdString()));
    }
    ShowEditor& editor() { return stage.model.editor(); }
    std::map<KeyCode, KeyAssignment>& keys() { return stage.doc().assignments; }

    TempDir dir;
    CueStage stage;
    Script script;
};

constexpr KeyCode kA = 0, kS = 1, kD = 2, kF = 3, kQ = 12;

TEST_F(Editing, DropPoliciesAskAppendReplaceOrCancel) {
    editor().place({file("old.wav")}, kA);
    ASSERT_EQ(keys().at(kA).path, file("old.wav"));

    script.buttons = {2}; // cancel
    editor().place({file("new.wav")}, kA);
    EXPECT_EQ(keys().at(kA).path, file("old.wav"));
    EXPECT_EQ(script.asked[0], "A キーにはすでに素材があります");
    EXPECT_EQ(script.asked[1], "いま「old」が入っています。\n「後ろに追加」にすると、A "
                               "キーを押すたびに順番に切り替わります。");
    EXPECT_EQ(script.asked[2], "後ろに追加|差し替える|キャンセル");

    script.buttons = {0}; // append: the old file first
    editor().place({file("new.wav")}, kA);
    EXPECT_EQ(*keys().at(kA).sources, (QStringList{file("old.wav"), file("new.wav")}));
    EXPECT_EQ(stage.model.status().text(),
              "A キーに 1 個追加しました（押すたび順に切り替わります）");

    Prefs::setValue(Prefs::kOccupiedDrop, "replace");
    editor().place({file("x.mp3"), file("notes.txt"), file("y.flac")}, kA);
    EXPECT_EQ(*keys().at(kA).sources, (QStringList{file("x.mp3"), file("y.flac")}));
    editor().place({file("notes.txt")}, kA);
    EXPECT_EQ(stage.model.status().text(), "対応していないファイルです");
}

TEST_F(Editing, SeveralFilesOnAnEmptyKeyBecomeAListOrSpreadOverFreeKeys) {
    script.buttons = {2, 0}; // cancelled: nothing placed; then one list
    editor().place({file("1.wav"), file("2.wav"), file("3.wav")}, kQ);
    EXPECT_TRUE(keys().empty());
    editor().place({file("1.wav"), file("2.wav"), file("3.wav")}, kQ);
    EXPECT_EQ(script.asked[0], "3 個のファイルをどう入れますか？");
    EXPECT_EQ(script.asked[2], "Q キーにまとめる|後ろの空きキーに 1 つずつ|キャンセル");
    EXPECT_EQ(keys().at(kQ).sources->size(), 3u);
    EXPECT_EQ(keys().at(kQ).displayName(), "1 ほか 2");

    // Spread: the key itself, then the next free keys of the fill order (W is taken).
    editor().assign(file("w.wav"), 13);
    Prefs::setValue(Prefs::kMultiDrop, "spread");
    editor().clear(kQ);
    editor().place({file("a.wav"), file("b.wav"), file("c.wav")}, kQ);
    EXPECT_EQ(keys().at(kQ).path, file("a.wav"));
    EXPECT_EQ(keys().at(13).path, file("w.wav"));
    EXPECT_EQ(keys().at(14).path, file("b.wav")); // E
    EXPECT_EQ(keys().at(15).path, file("c.wav")); // R

    // Near the end of the fill order: ◀ ▼ ▶ are the last three keys.
    editor().assign(
        QStringList{file("1.wav"), file("2.wav"), file("3.wav"), file("4.wav"), file("5.wav")},
        123);
    EXPECT_EQ(stage.model.status().text(),
              "空きキーが足りず 2 個のファイルを割り当てられませんでした");
    EXPECT_EQ(keys().at(124).path, file("3.wav"));
}

TEST_F(Editing, ColoursFollowTheKeyCountAndKeepTheReplacedOnes) {
    const auto& order = KeyboardLayout::fillOrder();
    for (int i = 0; i < 13; ++i)
        editor().assign(file(QString::number(i) + ".wav"), order[static_cast<std::size_t>(i)]);
    EXPECT_EQ(keys().at(order[11]).colorIndex, 11);
    EXPECT_EQ(keys().at(order[12]).colorIndex, 0); // the 13th key wraps round
    editor().assign(file("again.wav"), order[5]);
    EXPECT_EQ(keys().at(order[5]).colorIndex, 5);
}

TEST_F(Editing, ListItemsAreRemovedDownToAnEmptyKey) {
    editor().assignList({file("a.wav"), file("b.wav"), file("c.wav")}, kS);
    editor().removeFromList(kS, "1");
    EXPECT_EQ(*keys().at(kS).sources, (QStringList{file("a.wav"), file("c.wav")}));
    editor().removeFromList(kS, "0");
    EXPECT_EQ(keys().at(kS).path, file("c.wav"));
    EXPECT_EQ(stage.model.media().table().count("list:" + file("c.wav")), 1u);
    EXPECT_EQ(stage.model.media().table().count("list:" + file("a.wav") + "\n" + file("c.wav")),
              0u); // released
    editor().removeFromList(kS, "0");
    EXPECT_EQ(keys().count(kS), 0u);
    EXPECT_TRUE(stage.model.media().table().empty());
}

TEST_F(Editing, CopyRoutingUpdateAndRename) {
    editor().assign(file("a.wav"), kA);
    editor().assign(file("s.wav"), kS);
    editor().newPage(false);
    EXPECT_EQ(stage.doc().currentPage, 1u);
    editor().assign(file("other.wav"), kA);
    editor().switchPage(0);
    script.buttons = {1}; // refuse to overwrite
    editor().copyKey(kA, 1);
    EXPECT_EQ(stage.doc().pages[1].keys.at(kA).path, file("other.wav"));
    script.buttons = {0};
    editor().copyKey(kA, 1);
    EXPECT_EQ(stage.doc().pages[1].keys.at(kA).path, file("a.wav"));
    EXPECT_TRUE(stage.model.status().text().endsWith("」にコピーしました"));

    KeyAssignment routed = keys().at(kA);
    routed.outputMap = "5";
    routed.matrix = RoutingMatrix{{6}};
    editor().update(kA, routed);
    editor().applyRoutingToAll(kA);
    EXPECT_EQ(keys().at(kS).outputMap, "5");
    EXPECT_EQ(keys().at(kS).matrix, routed.matrix);
    EXPECT_EQ(stage.model.status().text(), "A のルーティングを全キーに適用しました");

    script.names = {QString("開演ベル"), std::nullopt};
    editor().renameKey(kA);
    editor().renameKey(kS); // cancelled
    EXPECT_EQ(keys().at(kA).title, "開演ベル");
    EXPECT_EQ(keys().at(kS).title, "");
    EXPECT_TRUE(stage.model.isDirty());
}

TEST_F(Editing, AnEditReachesTheRunningVoiceAtOnce) {
    stage.addKey(kD, "d", 0.5f, "1");
    stage.press(kD);
    stage.run(0.05);
    KeyAssignment quieter = keys().at(kD);
    quieter.volume = 0.5;
    editor().update(kD, quieter);
    EXPECT_EQ(stage.run(0.05)[0].back(), 0.25f);
    editor().assignList({file("x.wav"), file("y.wav")}, kD); // other files: its sound goes
    EXPECT_TRUE(silentFrom(stage.run(0.1)[0], 2400));
}

TEST_F(Editing, PagesAreAddedSteppedRenamedMovedAndDeleted) {
    editor().assign(file("a.wav"), kA);
    editor().assignList({file("one.wav"), file("two.wav")}, kQ);
    editor().openDeckTab(kQ);
    editor().switchPage(0); // the page it is on already: its list's tab stays open
    EXPECT_EQ(stage.doc().deckTabs, std::vector<KeyCode>{kQ});
    editor().newPage(true);
    EXPECT_TRUE(stage.doc().deckTabs.empty()); // another page: the tabs of the last one close
    EXPECT_EQ(stage.doc().pages[1].name, "ページ 1 のコピー");
    EXPECT_EQ(keys().at(kA).path, file("a.wav"));
    editor().newPage(false);
    EXPECT_EQ(stage.doc().pages[2].name, "ページ 3");
    editor().stepPage(1); // the last page: nothing
    EXPECT_EQ(stage.doc().currentPage, 2u);
    editor().stepPage(-2);
    EXPECT_EQ(stage.doc().currentPage, 0u);

    script.names = {QString("幕間")};
    editor().renamePage(2);
    EXPECT_EQ(stage.doc().pages[2].name, "幕間");
    editor().movePages({2}, 0);
    EXPECT_EQ(stage.doc().pages[0].name, "幕間");
    EXPECT_EQ(stage.doc().currentPage, 1u); // still the page that was current

    // Deleting the current page while its key plays: the cue goes on under "削除したページ".
    stage.addKey(kF, "bell", 0.5f, "1");
    stage.press(kF);
    script.buttons = {1};
    editor().deletePage(1); // cancelled
    EXPECT_EQ(stage.doc().pages.size(), 3u);
    script.buttons = {0};
    editor().deletePage(1);
    EXPECT_EQ(script.asked.last(), "削除|キャンセル");
    EXPECT_EQ(stage.doc().pages.size(), 2u);
    stage.run(0.05);
    ASSERT_EQ(stage.model.live().cues().size(), 1u);
    EXPECT_EQ(stage.model.live().cues()[0].pageName, QString("削除したページ"));

    // Deleting a page in front of the current one keeps what the current one just got.
    editor().assign(file("s.wav"), kS);
    script.buttons = {0};
    editor().deletePage(0);
    ASSERT_EQ(stage.doc().pages.size(), 1u);
    EXPECT_EQ(keys().at(kS).path, file("s.wav"));
}

// Every edit is one step: undo gives back the document before it (all pages, the current page,
// list items and their settings, the selection), redo the one after, and the show is unchanged
// again exactly when the stack is back where it was saved. A key playing through it all whose
// files no step changes keeps playing; a key whose files a step changes stops.
TEST_F(Editing, EveryEditIsOneStepThatUndoesAndRedoesExactly) {
    editor().assignList({file("one.wav"), file("two.wav"), file("three.wav")}, kQ);
    editor().assign(file("a.wav"), kA);
    stage.addKey(kD, "drone", 0.5f, "1");
    editor().newPage(false);
    editor().assign(file("b.wav"), kA);
    editor().switchPage(0);
    stage.model.save(file("show.vorlin"));
    stage.press(kD);
    EditHistory& history = stage.model.session().history();
    struct Row {
        QString label; // the step as the menu names it
        std::function<void()> edit;
    };
    const std::vector<Row> rows{
        {"S キーにドロップ", [&] { editor().place({file("s.wav")}, kS); }},
        {"F キーから割り当て",
         [&] {
             editor().assign({file("f.wav"), file("g.wav")}, kF);
         }},
        {"S キーに追加", [&] { editor().appendToKey({file("s2.wav")}, kS); }},
        {"Q キーの項目を削除", [&] { editor().removeFromList(kQ, "1"); }},
        {"A キーの設定を変更",
         [&] {
             KeyAssignment a = keys().at(kA);
             a.fadeIn = 2.5;
             a.loop = true;
             editor().update(kA, a);
         }},
        {"A キーのルーティングを変更", [&] { stage.model.setRouting(kA, RoutingMatrix{{1}}, ""); }},
        {"A のルーティングを全キーに適用", [&] { editor().applyRoutingToAll(kA); }},
        {"A キーの名前を変更",
         [&] {
             script.names = {QString("開演ベル")};
             editor().renameKey(kA);
         }},
        {"Q キーの項目を変更",
         [&] {
             DeckItem first;
             first.id = "one";
             first.kind = DeckItem::Kind::audio;
             first.file = "one.wav";
             DeckItem last = first;
             last.id = last.title = "three";
             last.enabled = false;
             editor().setDeckItems(kQ, {first, last});
         }},
        {"Q キーの項目を元に戻す", [&] { editor().resetDeckItems(kQ); }},
        {"A キーをコピー",
         [&] {
             script.buttons = {0}; // over page 2's own A
             editor().copyKey(kA, 1);
         }},
        {"D キーをクリア", [&] { editor().clear(kD); }},
        {"ページを複製", [&] { editor().newPage(true); }},
        {"ページの名前を変更",
         [&] {
             script.names = {QString("幕間")};
             editor().renamePage(0);
         }},
        {"ページを移動", [&] { editor().movePages({2}, 0); }},
        {"ページを追加", [&] { editor().newPage(false); }},
        {"ページを削除",
         [&] {
             script.buttons = {0};
             editor().deletePage(1);
         }},
        {"Q キーにリストを割り当て",
         [&] {
             editor().assignList({file("x.wav"), file("y.wav")}, kQ);
         }},
        {"A キーに割り当て", // 差し替え… with one file chosen
         [&] {
             script.files = {{file("r.wav")}};
             editor().replaceFile(kA);
         }},
        {"Q キーに追加", // ファイルを追加…
         [&] {
             script.files = {{file("z.wav")}};
             editor().addFiles(kQ);
         }},
    };
    const auto same = [](const EditHistory::State& a, const EditHistory::State& b) {
        return EditHistory::sameDocument(a, b) && a.selectedKey == b.selectedKey;
    };
    ShowSession& session = stage.model.session();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const Row& row = rows[i];
        SCOPED_TRACE(row.label.toStdString());
        const EditHistory::State before = history.capture();
        const int steps = history.stack().count();
        // Locked for the show, the edit changes nothing and asks nothing; D plays on.
        session.setLocked(true);
        const std::size_t questions = script.asked.size();
        row.edit();
        EXPECT_TRUE(same(history.capture(), before));
        EXPECT_EQ(history.stack().count(), steps);
        EXPECT_EQ(script.asked.size(), questions);
        EXPECT_TRUE(stage.model.status().text().startsWith("本番モード中は編集できません"));
        EXPECT_EQ(stage.model.isRunning(kD), i < 12);
        session.setLocked(false);
        row.edit();
        const EditHistory::State after = history.capture();
        ASSERT_FALSE(same(before, after));
        EXPECT_EQ(history.stack().count(), steps + 1);
        EXPECT_EQ(history.stack().undoText(), row.label);
        EXPECT_TRUE(stage.model.isDirty());
        history.stack().undo();
        EXPECT_TRUE(same(history.capture(), before));
        EXPECT_EQ(stage.model.isDirty(), i > 0); // back where it was saved after the first
        history.stack().redo();
        EXPECT_TRUE(same(history.capture(), after));
        EXPECT_TRUE(stage.model.isDirty());
        const bool cleared = i >= 11; // D's own step and every one after it
        EXPECT_EQ(stage.model.isRunning(kD), !cleared);
    }
    // A step that changes nothing is none; back to where it was saved, the show is as saved.
    script.names = {std::nullopt};
    editor().renameKey(kA);
    EXPECT_EQ(history.stack().undoText(), rows.back().label);
    for (std::size_t i = 0; i < rows.size(); ++i)
        history.stack().undo();
    EXPECT_FALSE(stage.model.isDirty());
    EXPECT_EQ(stage.doc().pages.size(), 2u);
    EXPECT_EQ(keys().at(kA).path, file("a.wav"));
    EXPECT_EQ(keys().at(kQ).sources->size(), 3u);
    EXPECT_FALSE(keys().count(kS));
    stage.model.newDocument();
    EXPECT_FALSE(history.stack().canRedo());

    // Undone on its own page, a list keeps its open tab while its key still holds a list; the
    // tab closes when the key goes back to one file.
    editor().assign(file("s.wav"), kS);
    editor().assignList({file("s.wav"), file("t.wav")}, kS);
    editor().openDeckTab(kS);
    editor().assign(file("f.wav"), kF);
    history.stack().undo();
    EXPECT_EQ(stage.doc().deckTabs, std::vector<KeyCode>{kS});
    history.stack().undo();
    EXPECT_TRUE(stage.doc().deckTabs.empty());
}

TEST_F(Editing, MediaLoadsOffTheMainThreadAndIsFreedWhenNoKeyUsesIt) {
    const QString tone = file("tone.wav");
    ASSERT_TRUE(MediaFixtures::write(tone.toStdString(), "pcm_s16le", {{2, 48000, 1.0}}));
    editor().assign(tone, kA);
    EXPECT_TRUE(stage.model.media().table().at(tone).loading);
    stage.press(kA);
    EXPECT_EQ(stage.model.status().text(), "tone は読み込み中…");
    const auto loaded = [&] { return stage.model.media().pending() == 0; };
    Wait::until(loaded, 10000);
    const MediaInfo& info = stage.model.media().table().at(tone);
    ASSERT_FALSE(info.loading);
    ASSERT_TRUE(info.clip);
    EXPECT_EQ(info.clip->channelCount, 2);
    std::weak_ptr<const AudioClip> clip = info.clip;

    editor().assign(file("gone.wav"), kS);
    QFile notAPdf(file("deck.pdf"));
    ASSERT_TRUE(notAPdf.open(QIODevice::WriteOnly) && notAPdf.write("%PDF-1.4 nothing else") > 0);
    notAPdf.close();
    editor().assign(file("deck.pdf"), kD);
    editor().assignList({tone, tone}, kF);
    const MediaFixtures::Video picture{64, 48, 0.0, 0.5};
    ASSERT_TRUE(MediaFixtures::write(dir.file("silent.mp4"), "aac", {}, &picture));
    editor().assign(file("silent.mp4"), 5);
    Wait::until(loaded, 10000);
    const MediaInfo& silent = stage.model.media().table().at(file("silent.mp4"));
    EXPECT_TRUE(silent.probe.hasVideo && !silent.clip && !silent.audioViaPlayer &&
                !silent.error); // a movie without sound: pictures, nothing to hear
    EXPECT_EQ(stage.model.media().table().at(file("gone.wav")).error,
              QString("ファイルが見つかりません"));
    EXPECT_EQ(stage.model.status().text(), "見つからないファイルがあります: gone.wav");
    EXPECT_EQ(stage.model.media().table().at(file("deck.pdf")).error,
              QString("スライドを読み込めません"));
    const MediaInfo& list = stage.model.media().table().at("list:" + tone + "\n" + tone);
    ASSERT_TRUE(list.deck);
    EXPECT_EQ(list.deck->manifest.items.size(), 2u);
    EXPECT_EQ(list.deck->clips.at(tone)->channelCount, 2); // one file, decoded once

    editor().clear(kA);
    EXPECT_EQ(stage.model.media().table().count(tone), 0u);
    EXPECT_TRUE(clip.expired()); // the decoded audio itself is gone
    // An assignment undone lets its file go too.
    editor().assign(file("undone.wav"), kQ);
    EXPECT_EQ(stage.model.media().table().count(file("undone.wav")), 1u);
    stage.model.session().history().stack().undo();
    EXPECT_EQ(stage.model.media().table().count(file("undone.wav")), 0u);
}

} // namespace

namespace {

// A slide conversion takes as long as the office needs; sounds load meanwhile.
TEST_F(Editing, SoundsLoadWhileASlideFileIsStillConverting) {
    const QString bin = file("bin");
    QDir().mkpath(bin);
    QFile office(bin + "/soffice");
    ASSERT_TRUE(office.open(QIODevice::WriteOnly));
    office.write("#!/bin/sh\nsleep 4\n");
    office.close();
    office.setPermissions(QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", bin.toUtf8() + ":" + path);
    // Two of them: one converting, one waiting its turn; neither may hold up the sound.
    for (const char* name : {"talk.ppt", "other.ppt"}) {
        QFile slides(file(name));
        ASSERT_TRUE(slides.open(QIODevice::WriteOnly) && slides.write("zip") > 0);
    }
    editor().assign(file("talk.ppt"), kA);
    editor().assign(file("other.ppt"), kD);
    QThread::msleep(100); // the conversion has begun
    const QString tone = file("tone.wav");
    ASSERT_TRUE(MediaFixtures::write(tone.toStdString(), "pcm_s16le", {{1, 48000, 0.5}}));
    editor().assign(tone, kS);
    Wait::until([&] { return !stage.model.media().table().at(tone).loading; }, 3000);
    EXPECT_TRUE(stage.model.media().table().at(tone).clip);
    EXPECT_TRUE(stage.model.media().table().at(file("talk.ppt")).loading);
    EXPECT_EQ(stage.model.media().table().at(file("talk.ppt")).progressText,
              "LibreOffice で変換中…");
    editor().clear(kA); // cancels the conversion: the office is ended, not waited for
    editor().clear(kD);
    qputenv("PATH", path);
}

} // namespace
