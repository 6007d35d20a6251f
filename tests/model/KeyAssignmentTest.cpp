#include "model/KeyAssignment.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QSettings>

#include "model/KeyPalette.h"
#include "model/Prefs.h"
#include "model/ShowDocument.h"

namespace {

class Preferences : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        for (const QString& key : {Prefs::kDefaultMode, Prefs::kDefaultOnNext,
                                   Prefs::kDefaultFadeIn, Prefs::kDefaultFadeOut})
            Prefs::setValue(key, QVariant());
    }
};

TEST_F(Preferences, FreshAccountReadsTheRegisteredDefaults) {
    const KeyAssignment a = newAssignment("/show/a.wav", 3);
    EXPECT_EQ(a.mode, KeyMode::toggle);
    EXPECT_EQ(a.fadeIn, 0.0);
    EXPECT_EQ(a.fadeOut, 1.0);
    EXPECT_EQ(a.onNext, NextBehavior::keep);
    EXPECT_EQ(a.colorIndex, 3);
    EXPECT_EQ(a.layer, 5);
    EXPECT_TRUE(a.showVideo);
    EXPECT_EQ(Prefs::value(Prefs::kKeyboardLayout).toString(), "auto");
    EXPECT_TRUE(Prefs::value(Prefs::kReopenLastKeymap).toBool());
    EXPECT_EQ(Prefs::value(Prefs::kMultiDrop).toString(), "ask");
    EXPECT_FALSE(Prefs::value(Prefs::kOpenVideoOnLaunch).toBool());
    // Unregistered keys fall back to what the reader gives.
    EXPECT_TRUE(Prefs::value(Prefs::kAutoCheckUpdates, true).toBool());
    EXPECT_EQ(Prefs::lastKeymapKey(2), "lastKeymap.instance2");

    // Changes are in the file at once, for another instance or a command started now.
    QFile file(QSettings(QStringLiteral("Vorlin"), QStringLiteral("Vorlin")).fileName());
    const auto onDisk = [&] {
        file.open(QIODevice::ReadOnly);
        const bool found = file.readAll().contains("spread");
        file.close();
        return found;
    };
    Prefs::setValue(Prefs::kMultiDrop, "spread");
    EXPECT_TRUE(onDisk());
    Prefs::remove(Prefs::kMultiDrop);
    EXPECT_FALSE(onDisk());
}

TEST_F(Preferences, NewAssignmentsReadTheDefaultsAtTheMomentOfTheCall) {
    Prefs::setValue(Prefs::kDefaultMode, "hold");
    Prefs::setValue(Prefs::kDefaultOnNext, "cut");
    Prefs::setValue(Prefs::kDefaultFadeIn, 0.25);
    Prefs::setValue(Prefs::kDefaultFadeOut, 3.0);
    KeyAssignment a = newAssignment("/show/a.wav", 0);
    EXPECT_EQ(a.mode, KeyMode::hold);
    EXPECT_EQ(a.onNext, NextBehavior::cut);
    EXPECT_EQ(a.fadeIn, 0.25);
    EXPECT_EQ(a.fadeOut, 3.0);

    Prefs::setValue(Prefs::kDefaultMode, "loop-forever");
    Prefs::setValue(Prefs::kDefaultOnNext, "explode");
    a = newAssignment("/show/b.wav", 0);
    EXPECT_EQ(a.mode, KeyMode::toggle);
    EXPECT_EQ(a.onNext, NextBehavior::keep);
}

TEST(KeyAssignment, DisplayNameUsesTitleElseFileNameAndListCount) {
    KeyAssignment a("/show/music/intro.wav", 0);
    EXPECT_EQ(a.displayName(), "intro");
    a.sources = QStringList{"/show/music/intro.wav"};
    EXPECT_EQ(a.displayName(), "intro");
    a.sources = QStringList{"/a/intro.wav", "/a/b.wav", "/a/c.wav", "/a/d.wav"};
    EXPECT_EQ(a.displayName(), "intro ほか 3");
    EXPECT_EQ(a.mediaKey(), "list:/a/intro.wav\n/a/b.wav\n/a/c.wav\n/a/d.wav");
    a.title = "オープニング";
    EXPECT_EQ(a.displayName(), "オープニング");
    EXPECT_EQ(KeyAssignment("/x/archive.tar.gz", 0).displayName(), "archive.tar");
}

TEST(KeyAssignment, ImagesAndSlideFilesAreDecks) {
    EXPECT_TRUE(KeyAssignment("/show/logo.png", 0).isImage());
    EXPECT_TRUE(KeyAssignment("/show/PHOTO.JPG", 0).isDeck());
    EXPECT_TRUE(KeyAssignment("/show/talk.PDF", 0).isDeck());
    EXPECT_FALSE(KeyAssignment("/show/talk.PDF", 0).isImage());
    EXPECT_TRUE(KeyAssignment("/show/deck.pptx", 0).isDeck());
    EXPECT_FALSE(KeyAssignment("/show/song.wav", 0).isDeck());
    EXPECT_FALSE(KeyAssignment("/show/clip.mp4", 0).isImage());
    EXPECT_FALSE(KeyAssignment("/show/noextension", 0).isImage());

    KeyAssignment image("/show/logo.png", 0);
    EXPECT_EQ(image.listSources(), QStringList{"/show/logo.png"});
    EXPECT_FALSE(KeyAssignment("/show/song.wav", 0).listSources());
    KeyAssignment withItems("/show/song.wav", 0);
    withItems.deckItems = std::vector<DeckItem>{DeckItem{}};
    EXPECT_TRUE(withItems.isDeck());
    KeyAssignment list("/show/a.wav", 0);
    list.sources = QStringList{"/show/a.wav", "/show/b.wav"};
    EXPECT_TRUE(list.isDeck());
}

TEST(KeyAssignment, EnumerationsReadOnlyTheirOwnNames) {
    EXPECT_EQ(parseKeyMode("retrigger"), KeyMode::retrigger);
    EXPECT_FALSE(parseKeyMode("Toggle"));
    EXPECT_EQ(keyModeName(KeyMode::hold), "hold");
    EXPECT_EQ(parseNextBehavior("cut"), NextBehavior::cut);
    EXPECT_FALSE(parseNextBehavior(""));
}

TEST(KeyPalette, ColourIndexWrapsAroundTwelve) {
    EXPECT_EQ(KeyPalette::colorFor(12).red, KeyPalette::colors[0].red);
    EXPECT_EQ(KeyPalette::colorFor(13).blue, KeyPalette::colors[1].blue);
    EXPECT_EQ(KeyPalette::colorFor(-1).green, KeyPalette::colors[11].green);
}

TEST(ShowDocument, AllAssignmentsTakeTheCurrentPageFromTheWorkingCopy) {
    ShowDocument doc;
    doc.pages.push_back(KeyPage{QUuid::createUuid(), "2", {{1, KeyAssignment("/b.wav", 0)}}});
    doc.assignments[0] = KeyAssignment("/a.wav", 0); // not yet stored into page 1
    const auto all = doc.allAssignments();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].path, "/a.wav");
    doc.storeCurrentPage();
    doc.loadPage(1);
    EXPECT_EQ(doc.assignments.begin()->second.path, "/b.wav");
    EXPECT_EQ(doc.pages[0].keys.at(0).path, "/a.wav");
    EXPECT_EQ(doc.pageName(doc.pages[1].id), "2");
    EXPECT_FALSE(doc.pageName(QUuid::createUuid()));
    // A page that is not there is not loaded: the working copy stays on page 2.
    for (const std::size_t missing : {std::size_t{2}, std::size_t{7}}) {
        doc.loadPage(missing);
        EXPECT_EQ(doc.currentPage, 1u) << missing;
        EXPECT_EQ(doc.assignments.begin()->second.path, "/b.wav") << missing;
    }
}

} // namespace
