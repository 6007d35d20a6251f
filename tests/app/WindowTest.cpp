#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <QAbstractButton>
#include <QAbstractItemView>
#include <QAbstractSlider>
#include <QApplication>
#include <QComboBox>
#include <QImage>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QRegularExpression>
#include <QScrollBar>
#include <QTabBar>
#include <QTabWidget>
#include <QTableWidget>
#include <QTimer>

#include "MediaFixtures.h"
#include "PdfFixture.h"
#include "TempDir.h"
#include "Wait.h"
#include "Widgets.h"
#include "app/BackgroundInput.h"
#include "app/KeyInput.h"
#include "app/KeyboardView.h"
#include "app/MainWindow.h"
#include "app/MonitorView.h"
#include "app/ScreenIdentifier.h"
#include "app/WaveformView.h"
#include "cue/AppModel.h"
#include "media/AudioLoader.h"
#include "model/Prefs.h"
#include "remote/RemoteControl.h"
#include "video/ScreenList.h"

namespace {

// The D key (code 2) holding one second of sound, ready to play.
void addToggleKeyD(AppModel& model) {
    model.document().assignments[2] = KeyAssignment("/show/d.wav", 0);
    MediaInfo info;
    info.probe.hasAudio = true;
    info.clip = std::make_shared<const AudioClip>(
        std::vector<std::vector<float>>{std::vector<float>(48000, 0.5f)}, 48000.0);
    model.media().table()["/show/d.wav"] = info;
}

class Window : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        Prefs::setValue(Prefs::kKeyboardLayout, "us");
        model.setOffline(true);
        window = std::make_unique<MainWindow>(model, 1);
        window->show();
        qApp->installEventFilter(&keys);
    }
    void TearDown() override { qApp->removeEventFilter(&keys); }

    // A key event as X11 delivers it: Qt key, modifiers and the scan code (evdev + 8).
    void send(QEvent::Type type, int qtKey, std::uint32_t evdev, Qt::KeyboardModifiers mods = {},
              bool repeat = false, QWidget* to = nullptr) {
        QKeyEvent event(type, qtKey, mods, evdev + 8, 0, 0, QString(), repeat);
        QApplication::sendEvent(to ? to : window.get(), &event);
    }

    AppModel model;
    std::unique_ptr<MainWindow> window;
    KeyInput keys{model};
};

// A key from either input, the window's or the keyboard device's while another program is in
// front, goes by one rule: Ctrl, Alt or Meta held make it a shortcut, never a show key; a repeat
// does nothing; Shift only ever stops, on a stopped key it starts nothing.
TEST_F(Window, KeysFromTheWindowAndFromTheBackgroundGoByOneRule) {
    const Qt::KeyboardModifiers none;
    const struct Row {
        const char* what;
        Qt::KeyboardModifiers held;
        bool repeat, runningBefore, selected, runningAfter;
    } rows[] = {
        {"D", none, false, false, true, true},
        {"D again (a toggle)", none, false, true, true, false},
        {"a repeat", none, true, true, false, true},
        {"Shift+D running", Qt::ShiftModifier, false, true, true, false},
        {"Shift+D stopped", Qt::ShiftModifier, false, false, true, false},
        {"Ctrl+D", Qt::ControlModifier, false, false, false, false},
        {"Alt+D", Qt::AltModifier, false, false, false, false},
        {"Meta+D", Qt::MetaModifier, false, false, false, false},
        {"Ctrl+Shift+D running", Qt::ControlModifier | Qt::ShiftModifier, false, true, false, true},
        {"D, Shift let go", none, false, false, true, true},
    };
    const std::pair<Qt::KeyboardModifier, std::uint32_t> devices[] = {
        {Qt::ShiftModifier, KEY_RIGHTSHIFT},
        {Qt::ControlModifier, KEY_LEFTCTRL},
        {Qt::AltModifier, KEY_LEFTALT},
        {Qt::MetaModifier, KEY_LEFTMETA}};
    addToggleKeyD(model);
    BackgroundInput background(model, [] { return false; });
    for (const bool fromWindow : {true, false})
        for (const Row& row : rows) {
            SCOPED_TRACE(std::string(row.what) + (fromWindow ? " in the window" : " in front"));
            model.stopAll(true);
            if (row.runningBefore)
                model.handleKey(2, true, false, false);
            model.document().selectedKey = 1;
            if (fromWindow) {
                send(QEvent::KeyPress, Qt::Key_D, KEY_D, row.held, row.repeat);
                send(QEvent::KeyRelease, Qt::Key_D, KEY_D, row.held);
            } else {
                const auto modifiers = [&](int value) { // 1 pressed, 0 let go
                    for (const auto& [modifier, evdev] : devices)
                        if (row.held & modifier)
                            background.keyEvent(evdev, value);
                };
                modifiers(1);
                background.keyEvent(KEY_D, row.repeat ? 2 : 1);
                background.keyEvent(KEY_D, 0);
                modifiers(0);
            }
            EXPECT_EQ(model.document().selectedKey == 2, row.selected);
            EXPECT_EQ(model.isRunning(2), row.runningAfter);
        }
    // The background input leaves the keys to the window while the program is in front.
    bool front = true;
    BackgroundInput behind(model, [&] { return front; });
    model.document().selectedKey = 5;
    behind.keyEvent(KEY_S, 1);
    EXPECT_EQ(model.document().selectedKey, 5);
    front = false;
    behind.keyEvent(KEY_S, 1);
    EXPECT_EQ(model.document().selectedKey, 1);
}

TEST_F(Window, KeysReachTheShowByTheirPlaceAndTheCueListKeepsItsRows) {
    send(QEvent::KeyPress, Qt::Key_Semicolon, KEY_SEMICOLON);
    EXPECT_EQ(model.document().selectedKey, 41);
    // A platform without scan codes still works through the Qt key.
    QKeyEvent plain(QEvent::KeyPress, Qt::Key_F1, Qt::NoModifier);
    QApplication::sendEvent(window.get(), &plain);
    EXPECT_EQ(model.document().selectedKey, 122);

    addToggleKeyD(model);
    send(QEvent::KeyPress, Qt::Key_D, KEY_D);
    model.tick();
    ASSERT_EQ(window->cueList().rowCount(), 1);
    EXPECT_EQ(window->cueList().item(0, 0)->text(), "d");
    QWidget* stopButton = window->cueList().cellWidget(0, 4);
    model.tick(); // progress moves on; the row's button stays the same one
    EXPECT_EQ(window->cueList().cellWidget(0, 4), stopButton);
}

// Nothing in the window but a text field ever takes the keyboard: lists, buttons, choices and
// sliders leave the keys to the show.
TEST_F(Window, OnlyTextFieldsEverTakeTheKeyboard) {
    for (QWidget* widget : window->findChildren<QWidget*>()) {
        const bool control =
            qobject_cast<QAbstractItemView*>(widget) || qobject_cast<QAbstractButton*>(widget) ||
            qobject_cast<QComboBox*>(widget) ||
            (qobject_cast<QAbstractSlider*>(widget) && !qobject_cast<QScrollBar*>(widget));
        // (A tab bar's own scroll arrows take no focus on a click.)
        if (control && !qobject_cast<QTabBar*>(widget->parentWidget())) {
            EXPECT_EQ(widget->focusPolicy(), Qt::NoFocus)
                << widget->metaObject()->className() << " " << widget->objectName().toStdString();
        }
    }
}

TEST_F(Window, TitleFollowsDocumentPageAndChanges) {
    EXPECT_EQ(window->windowTitle(), "Vorlin #1 — 名称未設定.vorlin[*] — ページ 1");
    EXPECT_FALSE(window->isWindowModified());
    model.setMasterVolume(0.5);
    EXPECT_TRUE(window->isWindowModified());
    model.editor().newPage(false);
    window->updateTitle();
    EXPECT_TRUE(window->windowTitle().endsWith("— ページ 2"));
}

TEST_F(Window, CancelInTheSaveQuestionKeepsTheWindowOpen) {
    model.setMasterVolume(0.5); // a change to lose
    QTimer::singleShot(0, [] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(box->text(), "名称未設定.vorlin の変更を保存しますか？");
        for (QAbstractButton* button : box->buttons())
            if (button->text() == "キャンセル")
                button->click();
    });
    EXPECT_FALSE(window->close());
    EXPECT_TRUE(window->isVisible());
}

TEST_F(Window, FilesDroppedOnAKeyCellArePlacedOnIt) {
    TempDir dir;
    const QString file = QString::fromStdString(dir.file("drop.wav"));
    KeyboardView& keyboard = window->keyboard();
    keyboard.resize(1100, 420);
    QApplication::processEvents();
    const QRectF cell = keyboard.cellRect(3); // F
    ASSERT_FALSE(cell.isEmpty());
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(file)});
    // As a real drag does: enter, move, drop.
    QDragEnterEvent enter(cell.center().toPoint(), Qt::CopyAction, &data, Qt::LeftButton,
                          Qt::NoModifier);
    QApplication::sendEvent(&keyboard, &enter);
    ASSERT_TRUE(enter.isAccepted());
    QDragMoveEvent move(cell.center().toPoint(), Qt::CopyAction, &data, Qt::LeftButton,
                        Qt::NoModifier);
    QApplication::sendEvent(&keyboard, &move);
    QDropEvent drop(cell.center(), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&keyboard, &drop);
    ASSERT_EQ(model.document().assignments.count(3), 1u);
    EXPECT_EQ(model.document().assignments.at(3).path, file);
    // A click on the stop-all cell stops everything; on a key, selects it.
    QMouseEvent click(QEvent::MouseButtonPress, keyboard.cellRect(0).center(),
                      keyboard.mapToGlobal(keyboard.cellRect(0).center()), Qt::LeftButton,
                      Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&keyboard, &click);
    EXPECT_EQ(model.document().selectedKey, 0);

    // A MIDI binding of the key is drawn in its top right corner, and only there.
    const QRect corner = keyboard.cellRect(3).toRect().adjusted(40, 2, -2, -30);
    const QImage before = keyboard.grab().toImage().copy(corner);
    MidiBinding binding;
    binding.number = 60;
    binding.key = 3;
    model.document().midiBindings.push_back(binding);
    const QImage after = keyboard.grab().toImage().copy(corner);
    EXPECT_NE(before, after);
    binding.key = 5;
    model.document().midiBindings = {binding};
    EXPECT_EQ(keyboard.grab().toImage().copy(corner), before);
}

} // namespace

#include <QFile>

#include "app/DetailPanel.h"

namespace {

TEST(BackgroundKeys, NoReadableKeyboardSaysHowToGrantAccess) {
    TempDir dir;
    AppModel model;
    model.setOffline(true);
    BackgroundInput input(model, [] { return false; });
    QFile(QString::fromStdString(dir.file("event0"))).open(QIODevice::WriteOnly); // not a device
    EXPECT_EQ(input.setEnabled(true, QString::fromStdString(dir.file(""))), 0);
    EXPECT_EQ(model.status().text(), BackgroundInput::kNoAccessMessage);
    EXPECT_FALSE(input.isEnabled());
}

} // namespace

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>

namespace {

TEST_F(Window, SettingsShowEveryPreferenceInOrderAndStoreChangesAtOnce) {
    window->showSettings();
    QWidget* settings = window->settingsWindow();
    ASSERT_NE(settings, nullptr);
    EXPECT_EQ(settings->windowTitle(), "設定 — Vorlin #1");
    EXPECT_EQ(settings->size(), QSize(632, 460));
    window->showSettings(); // the same window again, not a second one
    EXPECT_EQ(window->settingsWindow(), settings);

    // Each tab's rows, in order.
    auto* tabs = settings->findChild<QTabWidget*>();
    ASSERT_NE(tabs, nullptr);
    std::vector<std::pair<QString, QStringList>> shown;
    for (int t = 0; t < tabs->count(); ++t) {
        QStringList labels;
        for (auto* form : tabs->widget(t)->findChildren<QFormLayout*>())
            for (int row = 0; row < form->rowCount(); ++row)
                if (auto* item = form->itemAt(row, QFormLayout::LabelRole))
                    if (auto* label = qobject_cast<QLabel*>(item->widget());
                        label && !label->text().isEmpty())
                        labels << label->text();
        shown.emplace_back(tabs->tabText(t), labels);
    }
    const std::vector<std::pair<QString, QStringList>> expected{
        {"全般",
         {"キーボード配列", "起動したら前回のキーマップを開く",
          "ほかのアプリが前面でもキーで鳴らす（バックグラウンド入力）",
          "起動したら本番モード（編集をロック）にする", "すでに素材があるキーに入れたとき",
          "複数のファイルを空いたキーに入れたとき"}},
        {"新しいキー", {"モード", "次の素材が流れたら", "フェード IN", "フェード OUT"}},
        {"映像", {"縦横比が画面と違うとき", "背景色", "起動したら映像出力を開く"}},
        {"スライド", {"pptx の変換"}},
        {"リモート操作",
         {"OSC でキーや停止を受け付ける", "ポート（UDP）",
          "受け付けるアドレス（127.0.0.1: このコンピュータからだけ）",
          "送信元を限る（カンマ区切り、空欄: 限らない）",
          "MIDI 入力を受け付ける（ALSA シーケンサ）", "MIDI ポートの名前"}},
        {"アップデート", {"起動したときに新しい版があるか確かめる（1 日 1 回）"}}};
    EXPECT_EQ(shown, expected);

    auto fieldFor = [&](const QString& text) -> QWidget* {
        for (auto* form : settings->findChildren<QFormLayout*>())
            for (int row = 0; row < form->rowCount(); ++row)
                if (auto* item = form->itemAt(row, QFormLayout::LabelRole))
                    if (auto* label = qobject_cast<QLabel*>(item->widget());
                        label && label->text() == text)
                        return form->itemAt(row, QFormLayout::FieldRole)->widget();
        return nullptr;
    };
    auto* mode = qobject_cast<QComboBox*>(fieldFor("モード"));
    ASSERT_NE(mode, nullptr);
    EXPECT_EQ(mode->currentText(), "トグル（もう一度押すとフェード停止）");
    mode->setCurrentIndex(2);
    EXPECT_EQ(Prefs::value(Prefs::kDefaultMode).toString(), "hold");
    EXPECT_EQ(newAssignment("/x.wav", 0).mode, KeyMode::hold); // read at the moment of use

    // Slides are converted by LibreOffice here: the row names it and its version.
    auto* converter = qobject_cast<QLabel*>(fieldFor("pptx の変換"));
    ASSERT_NE(converter, nullptr);
    EXPECT_TRUE(Wait::until(
        [&] {
            return converter->text().contains(
                QRegularExpression("^LibreOffice \\d+\\.\\d+ で変換します$"));
        },
        10000))
        << converter->text().toStdString();
    auto* fadeOut = qobject_cast<QDoubleSpinBox*>(fieldFor("フェード OUT"));
    fadeOut->setValue(2.5);
    EXPECT_EQ(Prefs::value(Prefs::kDefaultFadeOut).toDouble(), 2.5);

    bool switched = false;
    window->onBackgroundInputChange = [&](bool on) { switched = on; };
    qobject_cast<QCheckBox*>(fieldFor("ほかのアプリが前面でもキーで鳴らす（バックグラウンド入力）"))
        ->setChecked(true);
    EXPECT_TRUE(switched);
    EXPECT_TRUE(Prefs::value(Prefs::kBackgroundInput).toBool());
    Prefs::setValue(Prefs::kDefaultMode, "toggle");

    // Switching OSC on asks the application to listen anew.
    int remote = 0;
    window->onRemoteChange = [&] { ++remote; };
    qobject_cast<QCheckBox*>(fieldFor("OSC でキーや停止を受け付ける"))->setChecked(true);
    EXPECT_EQ(remote, 1);
    // Open to the network with nobody named, the window says what that means.
    auto* open = settings->findChild<QLabel*>("oscOpenWarning");
    auto* address = qobject_cast<QLineEdit*>(
        fieldFor("受け付けるアドレス（127.0.0.1: このコンピュータからだけ）"));
    auto* senders =
        qobject_cast<QLineEdit*>(fieldFor("送信元を限る（カンマ区切り、空欄: 限らない）"));
    EXPECT_TRUE(open->isHidden());
    for (const auto& [listen, allowed, warned] : {std::tuple{"0.0.0.0", "", true},
                                                  {"0.0.0.0", "192.168.1.20", false},
                                                  {"127.0.0.1", "", false}}) {
        address->setText(listen);
        senders->setText(allowed);
        emit senders->editingFinished();
        EXPECT_EQ(!open->isHidden(), warned) << listen << " " << allowed;
    }
    Prefs::setValue(RemoteControl::kAllowedSenders, QString());
    EXPECT_TRUE(Prefs::value(QStringLiteral("pref.oscEnabled")).toBool());
    Prefs::setValue(QStringLiteral("pref.oscEnabled"), false);
}

// What a key's details say of what it holds: a sound its length, channels and size; a picture its
// size in pixels and its first picture where a waveform would be; a PDF its pages. Never a
// length of 0:00.0 or a size of 0 KB for a file that has none of them.
TEST_F(Window, TheDetailsSayWhatAKeyHolds) {
    TempDir dir;
    const QString picture = QString::fromStdString(dir.file("still.png"));
    QImage still(640, 360, QImage::Format_RGB32);
    still.fill(QColor(200, 40, 40));
    ASSERT_TRUE(still.save(picture));
    const QString pdf = QString::fromStdString(dir.file("deck.pdf"));
    ASSERT_TRUE(writePdf(pdf, {Qt::red, Qt::green, Qt::blue}));
    model.setOffline(false);
    model.document().assignments[4] = KeyAssignment(picture, 4);
    model.document().assignments[5] = KeyAssignment(pdf, 5);
    for (const KeyCode code : {4, 5})
        model.media().loadMedia(model.document().assignments.at(code), false);
    Wait::until([&] { return model.media().pending() == 0; }, 20000);
    auto* waveform = window->findChild<WaveformView*>();
    ASSERT_NE(waveform, nullptr);
    const auto shown = [&](KeyCode code) {
        model.document().selectedKey = code;
        emit model.assignmentsChanged();
        QImage grabbed; // the first picture is made on a pool thread
        Wait::until([&] {
            grabbed = waveform->grab().toImage();
            return grabbed.pixelColor(grabbed.rect().center()).red() >= 150;
        });
        QStringList texts;
        for (QLabel* label : window->detail().findChildren<QLabel*>())
            texts << label->text();
        return std::pair{texts.join(" | "), grabbed.pixelColor(grabbed.rect().center())};
    };
    const auto [pictureTexts, pictureMiddle] = shown(4);
    EXPECT_TRUE(pictureTexts.contains(QRegularExpression("画像 640×360 · \\d+ KB")))
        << pictureTexts.toStdString();
    EXPECT_FALSE(pictureTexts.contains("0:00.0")) << pictureTexts.toStdString();
    EXPECT_GT(pictureMiddle.red(), 150) << "the picture where the waveform would be";
    EXPECT_LT(pictureMiddle.green(), 100);
    const auto [pdfTexts, pdfMiddle] = shown(5);
    EXPECT_TRUE(pdfTexts.contains(QRegularExpression("3 ページ · \\d+ KB")))
        << pdfTexts.toStdString();
    EXPECT_FALSE(pdfTexts.contains("0:00.0")) << pdfTexts.toStdString();
    EXPECT_GT(pdfMiddle.red(), 150) << "the first page, red";
}

// A movie key pressed in the window plays its pictures in the monitor view, fitted (a 4:3 movie
// in the 16:9 view has bars) and moving on the wall clock.
TEST_F(Window, AMoviePlaysInTheMonitorView) {
    TempDir dir;
    const MediaFixtures::Video video{160, 120, 0.0, 2.0};
    ASSERT_TRUE(
        MediaFixtures::write(dir.file("movie.mp4"), "aac", {{1, 48000, 2.0, 440.0, 0.5}}, &video));
    KeyAssignment a(QString::fromStdString(dir.file("movie.mp4")), 0);
    MediaInfo info;
    info.probe = AudioLoader::probe(dir.file("movie.mp4"));
    info.clip = AudioLoader::loadClip(dir.file("movie.mp4"), 48000.0, info.probe);
    model.document().assignments[2] = a;
    model.media().table()[a.mediaKey()] = info;
    auto* monitor = window->findChild<MonitorView*>();
    ASSERT_NE(monitor, nullptr);

    send(QEvent::KeyPress, Qt::Key_D, KEY_D);
    send(QEvent::KeyRelease, Qt::Key_D, KEY_D);
    auto greyAt = [&](int x) {
        QApplication::processEvents();
        return qGray(monitor->grab().toImage().pixel(x, 90));
    };
    int first = 0; // picture 1 and later are not black
    EXPECT_TRUE(Wait::until([&] { return (first = greyAt(160)) >= 9; }, 2000));
    Wait::pump(400);
    EXPECT_GT(greyAt(160), first); // later pictures are lighter
    EXPECT_EQ(greyAt(20), 0);      // the bar beside a fitted 4:3 picture
}

// 再生 › 映像の出力先 lists the window and every display (the main window's marked), chooses
// them, and names a wanted display that is not attached.
TEST_F(Window, TheOutputMenuListsTheWindowAndTheDisplays) {
    QMenu* menu = startingWith(window->findChildren<QMenu*>(), "映像の出力先");
    ASSERT_NE(menu, nullptr);
    auto entries = [&] {
        emit menu->aboutToShow();
        QStringList texts;
        for (QAction* action : menu->actions())
            texts << action->text();
        return texts;
    };
    const QString display = ScreenList::current().labels().value(0);
    ASSERT_FALSE(display.isEmpty());
    EXPECT_EQ(entries(), QStringList({"ウィンドウ", display + "　※操作画面"}));
    menu->actions().at(1)->trigger();
    EXPECT_EQ(model.videoOutputs(), QStringList{display});
    EXPECT_TRUE(model.video().isShowing());
    EXPECT_TRUE(menu->actions().at(1)->isChecked());

    model.setVideoOutputs({"window", "2: Projector（1024×768）"});
    const QStringList listed = entries();
    ASSERT_EQ(listed.size(), 3);
    EXPECT_EQ(listed[2],
              "2: Projector（1024×768）（いまつながっていません。つなぐと自動で出ます）");
    EXPECT_FALSE(menu->actions().at(2)->isEnabled());
    menu->actions().at(0)->trigger(); // the window off
    EXPECT_EQ(model.videoOutputs(), QStringList{"2: Projector（1024×768）"});

    // Identifying the displays: a number on each for 2.5 s.
    QAction* identify = startingWith(window->findChildren<QAction*>(), "画面を識別（番号を表示）");
    ASSERT_NE(identify, nullptr);
    identify->trigger();
    auto numbers = [] {
        int shown = 0;
        for (QWidget* top : QApplication::topLevelWidgets())
            if (auto* number = top->findChild<QLabel*>("number"); number && top->isVisible())
                shown += number->text() == "1";
        return shown;
    };
    EXPECT_EQ(numbers(), 1);
    Wait::pump(ScreenIdentifier::kShownMilliseconds + 300);
    EXPECT_EQ(numbers(), 0);
}

} // namespace
