#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMouseEvent>
#include <QPushButton>
#include <QTimer>

#include "CueStage.h"
#include "Files.h"
#include "ScriptedInteraction.h"
#include "TempDir.h"
#include "Widgets.h"
#include "app/CueListView.h"
#include "app/DeckPanel.h"
#include "app/DetailPanel.h"
#include "app/KeyInput.h"
#include "app/KeyboardView.h"
#include "app/MainWindow.h"
#include "app/MeterPanel.h"
#include "app/OutputBar.h"
#include "app/PageListPanel.h"
#include "app/RoutingMatrixView.h"
#include "app/UpdaterDialogs.h"
#include "app/WaveformView.h"
#include "model/Prefs.h"

namespace {

// The largest magnitude of a rendered channel over its last `frames` samples.
float peakOfTail(const std::vector<float>& channel, std::size_t frames = 480) {
    float peak = 0.0f;
    for (std::size_t i = channel.size() - std::min(frames, channel.size()); i < channel.size(); ++i)
        peak = std::max(peak, std::abs(channel[i]));
    return peak;
}

// A left click at a point of `widget`, delivered to the child drawn there.
void click(QWidget* widget, QPoint at) {
    QWidget* target = widget->childAt(at) ? widget->childAt(at) : widget;
    const QPointF local = target->mapFrom(widget, at);
    QMouseEvent press(QEvent::MouseButtonPress, local, target->mapToGlobal(local), Qt::LeftButton,
                      Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &press);
}

// The main window on a show rendered offline: the views act on the real model, and what they
// change is heard in the rendered buffers.
class Views : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        Prefs::setValue(Prefs::kKeyboardLayout, "us");
        Prefs::remove(Prefs::kMeterMode);
        stage.model.setOffline(true);
        window = std::make_unique<MainWindow>(stage.model, 1);
        stage.model.setInteraction(&script);
        window->show();
    }

    void select(KeyCode code) {
        stage.doc().selectedKey = code;
        emit stage.engine().selectedKeyChanged();
    }
    template <typename Field> Field* field(const char* name) {
        auto* found = window->detail().findChild<Field*>(name);
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

    CueStage stage;
    Script script;
    std::unique_ptr<MainWindow> window;
};

TEST_F(Views, DetailPanelEditsTheKeyAndThePlayingVoiceAtOnce) {
    stage.addKey(2, "d", 0.5f, "1", 0.3);
    select(2);
    EXPECT_EQ(field<QLineEdit>("title")->placeholderText(), "d");
    stage.press(2);
    EXPECT_NEAR(peakOfTail(stage.run(0.1)[0]), 0.5f, 1e-6);

    // Half the gain halves the running voice at once; the dB field follows.
    field<QDoubleSpinBox>("volume")->setValue(0.5);
    EXPECT_EQ(stage.doc().assignments[2].volume, 0.5);
    EXPECT_EQ(field<QDoubleSpinBox>("volumeDb")->value(), -6.0);
    EXPECT_NEAR(peakOfTail(stage.run(0.05)[0]), 0.25f, 1e-6);

    // Loop switched on while it plays: the 0.3 s sound is still there at 0.6 s.
    field<QCheckBox>("loop")->click();
    EXPECT_TRUE(stage.doc().assignments[2].loop);
    EXPECT_NEAR(peakOfTail(stage.run(0.45)[0]), 0.25f, 1e-6);
    EXPECT_TRUE(stage.model.isRunning(2));

    // The minimum of the dB field is silence, not −60 dB.
    field<QDoubleSpinBox>("volumeDb")->setValue(-60.0);
    EXPECT_EQ(stage.doc().assignments[2].volume, 0.0);
    EXPECT_EQ(peakOfTail(stage.run(0.05)[0]), 0.0f);

    auto* title = field<QLineEdit>("title");
    title->setText("開演ベル");
    emit title->editingFinished();
    EXPECT_EQ(stage.doc().assignments[2].title, "開演ベル");
    EXPECT_TRUE(stage.model.isDirty());
    auto* mode = field<QComboBox>("mode");
    emit mode->activated(2);
    EXPECT_EQ(stage.doc().assignments[2].mode, KeyMode::hold);
    auto* fadeOut = field<QDoubleSpinBox>("fadeOut");
    fadeOut->setValue(3.5);
    EXPECT_EQ(stage.doc().assignments[2].fadeOut, 3.5);

    // The waveform fills its width whenever it changes.
    auto* waveform = window->detail().findChild<WaveformView*>();
    ASSERT_NE(waveform, nullptr);
    for (const int width : {waveform->width() + 150, waveform->width() / 2}) {
        waveform->resize(width, waveform->height());
        const QImage drawn = waveform->grab().toImage();
        EXPECT_EQ(drawn.pixelColor(width - 4, drawn.height() / 2), QColor(90, 170, 230)) << width;
    }

    // Another key selected: the panel shows that one; an empty key says how to fill it.
    stage.addKey(3, "f", 0.5f, "1");
    select(3);
    EXPECT_EQ(field<QDoubleSpinBox>("fadeOut")->value(), 1.0);
    // A file that failed to load says why, in the panel.
    stage.model.media().table()[stage.doc().assignments[3].mediaKey()].error =
        "見つからないファイルです";
    select(3);
    auto labels = window->detail().findChildren<QLabel*>();
    EXPECT_TRUE(std::any_of(labels.begin(), labels.end(), [](QLabel* l) {
        return l->isVisibleTo(l->window()) && l->text() == "見つからないファイルです";
    }));
}

TEST_F(Views, MatrixClicksAndQuickChoicesRouteTheKey) {
    stage.addKey(3, "m", 0.5f, "1");
    select(3);
    RoutingMatrixView& matrix = window->detail().matrix();
    // Output 5 added to the mono source, then output 1 taken away.
    click(&matrix, matrix.cellRect(0, 4).center().toPoint());
    click(&matrix, matrix.cellRect(0, 0).center().toPoint());
    const KeyAssignment& a = stage.doc().assignments[3];
    ASSERT_TRUE(a.matrix);
    EXPECT_EQ(*a.matrix, (RoutingMatrix{{4}}));
    EXPECT_EQ(a.outputMap, "");
    auto labels = window->detail().findChildren<QLabel*>();
    EXPECT_TRUE(
        std::any_of(labels.begin(), labels.end(), [](QLabel* l) { return l->text() == "1→5"; }));

    stage.press(3);
    const auto out = stage.run(0.1);
    EXPECT_NEAR(peakOfTail(out[4]), 0.5f, 1e-6);
    EXPECT_EQ(peakOfTail(out[0]), 0.0f);

    // A quick choice gives the text back its say and drops the matrix.
    auto* quick = window->detail().findChildren<QComboBox*>().last();
    const int index = quick->findText("3-4");
    ASSERT_GT(index, 0);
    emit quick->activated(index);
    EXPECT_FALSE(stage.doc().assignments[3].matrix);
    EXPECT_EQ(stage.doc().assignments[3].outputMap, "3-4");
    EXPECT_EQ(field<QLineEdit>("outputMap")->text(), "3-4");
}

TEST_F(Views, MuteSwitchesSilenceTheirOutputAndTheToneGoesWhereChosen) {
    stage.addKey(2, "d", 0.5f, "1-2");
    stage.press(2);
    stage.run(0.1); // ticks: eight meters on the 8-channel stage
    MeterPanel& meters = window->meters();
    click(&meters, meters.muteRect(1).center());
    EXPECT_EQ(stage.model.mutedOutputs(), (std::set<std::int64_t>{1}));
    auto out = stage.run(1.0);
    EXPECT_NEAR(peakOfTail(out[0]), 0.5f, 1e-6);
    EXPECT_EQ(peakOfTail(out[1], out[1].size()), 0.0f);
    EXPECT_LT(stage.model.live().meters()[1], 0.01f); // falling away, fed nothing
    EXPECT_NEAR(stage.model.live().meters()[0], 0.5f, 1e-6);
    click(&meters, meters.muteRect(1).center());
    EXPECT_NEAR(peakOfTail(stage.run(0.1)[1]), 0.5f, 1e-6);

    // The tone (1 kHz at a tenth of full scale) on output 4, which nothing else plays.
    auto* tone = meters.findChild<QComboBox*>();
    tone->setCurrentIndex(4);
    emit tone->activated(4);
    EXPECT_EQ(stage.model.toneChannel(), 3);
    EXPECT_NEAR(peakOfTail(stage.run(0.1)[3]), 0.1f, 1e-3);
    tone->setCurrentIndex(0);
    emit tone->activated(0);
    EXPECT_EQ(peakOfTail(stage.run(0.1)[3]), 0.0f);
    // A tone set elsewhere follows in the choice: the last output, or off past the outputs.
    for (const auto& [channel, shown] : {std::pair{7, 8}, {8, 0}, {2, 3}}) {
        stage.model.setToneChannel(channel);
        EXPECT_EQ(tone->currentIndex(), shown) << channel;
    }
    stage.model.setToneChannel(std::nullopt);

    // More outputs than room for every number: every fourth output and the muted ones say theirs.
    CueStage wide(24);
    wide.run(0.05);
    wide.model.setMutedOutputs({2});
    MeterPanel panel(wide.model);
    panel.resize(220, 200);
    const QImage drawn = panel.grab().toImage();
    for (int c = 0; c < 24; ++c) {
        const QRect cell = panel.muteRect(c);
        bool written = false;
        for (int y = cell.top(); y <= cell.bottom(); ++y)
            for (int x = cell.left(); x <= cell.right(); ++x)
                written = written || qGray(drawn.pixel(x, y)) > 150;
        EXPECT_EQ(written, c % 4 == 0 || c == 2) << "output " << c + 1;
    }

    // The meter mode is remembered for the next window.
    EXPECT_FALSE(meters.showsSources());
    QPushButton* sources = startingWith(meters.findChildren<QPushButton*>(), "素材");
    ASSERT_NE(sources, nullptr);
    sources->click();
    EXPECT_EQ(Prefs::value(Prefs::kMeterMode).toString(), "source");
    EXPECT_TRUE(MeterPanel(stage.model).showsSources());
}

TEST_F(Views, PageListSwitchesReordersDeletesAndMarksPlayingPages) {
    window->setPageListShown(true);
    EXPECT_GE(window->minimumWidth(),
              std::min(1152, window->screen()->availableGeometry().width()));
    stage.addKey(2, "d", 0.5f, "1");
    stage.model.editor().newPage(false); // "ページ 2", now current
    stage.model.editor().newPage(false); // "ページ 3"
    QListWidget& list = window->pageList().list();
    ASSERT_EQ(list.count(), 3);
    EXPECT_EQ(list.currentRow(), 2);

    emit list.itemClicked(list.item(0));
    EXPECT_EQ(stage.doc().currentPage, 0u);
    stage.press(2);
    stage.model.editor().switchPage(1);
    stage.run(0.1);
    EXPECT_TRUE(list.item(0)->text().endsWith("▶"));
    EXPECT_FALSE(list.item(1)->text().endsWith("▶"));

    // A drag of the last page to the top: the show's pages follow, the current one stays.
    ASSERT_TRUE(list.model()->moveRows(QModelIndex(), 2, 1, QModelIndex(), 0));
    QApplication::processEvents();
    ASSERT_EQ(stage.doc().pages.size(), 3u);
    EXPECT_EQ(stage.doc().pages[0].name, "ページ 3");
    EXPECT_EQ(stage.doc().pages[1].name, "ページ 1");
    EXPECT_EQ(stage.doc().pages[stage.doc().currentPage].name, "ページ 2");
    EXPECT_TRUE(list.item(0)->text().contains("ページ 3"));

    // Delete asks first; "キャンセル" keeps the page, "削除" removes it.
    QPushButton* remove = startingWith(window->pageList().findChildren<QPushButton*>(), "削除…");
    ASSERT_NE(remove, nullptr);
    script.buttons = {1};
    remove->click();
    EXPECT_EQ(list.count(), 3);
    script.buttons = {0};
    remove->click();
    EXPECT_EQ(list.count(), 2);
    EXPECT_TRUE(script.asked.contains("「ページ 2」を削除しますか？"));
}

// A key whose media cannot play does not look like one that can: each state has its mark on the
// cell and its reason as the cell's tooltip.
TEST_F(Views, KeyCellsShowTheirMediaState) {
    TempDir dir;
    const auto file = [&](const char* name) {
        const QString path = QString::fromStdString(dir.file(name));
        EXPECT_TRUE(Files::write(path, "RIFF"));
        return path;
    };
    const QString deleted = file("deleted.wav");
    struct Row {
        KeyCode code;
        QString path;
        std::function<void(MediaInfo&)> state;
        QString said; // the tooltip
        QRgb mark;    // the colour in the middle of the mark (0: none drawn)
    };
    const Row rows[] = {
        {0, file("fine.wav"), [](MediaInfo&) {}, "", 0},
        {1, file("loading.pdf"),
         [](MediaInfo& i) {
             i.loading = true;
             i.progressText = "12/40";
         },
         "12/40", 0},
        {2, file("broken.wav"), [](MediaInfo& i) { i.error = "再生できないファイルです"; },
         "再生できないファイルです", qRgb(210, 30, 30)},
        {3, file("damaged.wav"), [](MediaInfo& i) { i.warning = "壊れたデータを含みます"; },
         "壊れたデータを含みます", qRgb(245, 170, 20)},
        {5, deleted, [](MediaInfo&) {},
         "ファイルが見つかりません（読み込んだ音で再生します）: " + deleted, qRgb(245, 170, 20)},
    };
    for (const Row& row : rows) {
        KeyAssignment a(row.path, 0);
        MediaInfo info;
        row.state(info);
        stage.model.media().table()[a.mediaKey()] = info;
        stage.doc().assignments[row.code] = a;
    }
    QFile::remove(deleted);
    auto* keyboard = window->findChild<KeyboardView*>();
    ASSERT_NE(keyboard, nullptr);
    keyboard->checkFilesOnDisk();
    const QImage drawn = keyboard->grab().toImage();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.code);
        EXPECT_EQ(keyboard->mediaState(row.code), row.said);
        if (row.mark == 0)
            continue;
        const QRectF r = keyboard->cellRect(row.code).adjusted(2, 2, -2, -2);
        const double size = std::max(10.0, r.height() * 0.22);
        // Inside either shape and clear of the bar across it.
        const QPoint middle(static_cast<int>(r.right() - 5 - size / 2 + size * 0.2),
                            static_cast<int>(r.bottom() - 12 - size * 0.2));
        EXPECT_EQ(drawn.pixel(middle), row.mark);
    }
}

TEST_F(Views, CueListShowsEveryRunningCueWithItsPageAndProgress) {
    stage.addKey(2, "d", 0.5f, "1", 2.0);
    stage.press(2);
    stage.model.editor().newPage(false);
    stage.addKey(3, "f", 0.5f, "1", 5.0);
    stage.press(3);
    stage.run(1.0);
    QTableWidget& cues = window->cueList();
    ASSERT_EQ(cues.rowCount(), 2);
    EXPECT_EQ(cues.item(0, CueListView::nameColumn)->text(), "d");
    EXPECT_EQ(cues.item(0, CueListView::pageColumn)->text(), "ページ 1");
    EXPECT_EQ(cues.item(1, CueListView::pageColumn)->text(), "");
    EXPECT_NEAR(
        cues.item(0, CueListView::progressColumn)->data(CueListView::kProgressRole).toDouble(), 0.5,
        0.03);
    qobject_cast<QPushButton*>(cues.cellWidget(0, CueListView::stopColumn))->click();
    stage.run(1.2); // the key's 1 s fade
    ASSERT_EQ(cues.rowCount(), 1);
    EXPECT_EQ(cues.item(0, CueListView::nameColumn)->text(), "f");
}

TEST_F(Views, OutputBarListsDevicesAndChoosesOne) {
    OutputBar& bar = window->outputBar();
    bar.setDevices({{0, "jack:system", "JACK system", 8}, {1, "alsa:hw:1", "USB Audio", 2}});
    QComboBox& devices = bar.devices();
    ASSERT_EQ(devices.count(), 3);
    EXPECT_EQ(devices.itemText(0), "システム既定");
    EXPECT_EQ(devices.itemText(1), "JACK system（8 ch）");
    stage.model.session().setLocked(true); // the show's device is kept while locked
    EXPECT_FALSE(devices.isEnabled());
    emit devices.activated(2);
    EXPECT_FALSE(stage.model.outputDeviceUID());
    stage.model.session().setLocked(false);
    emit devices.activated(2);
    EXPECT_EQ(stage.model.outputDeviceUID(), QString("alsa:hw:1"));
    // Unplugged: the show's device stays named, so the operator sees what is missing.
    bar.setDevices({{0, "jack:system", "JACK system", 8}});
    EXPECT_EQ(devices.currentText(), "alsa:hw:1（見つかりません）");

    stage.model.setMasterVolume(0.5);
    auto labels = bar.findChildren<QLabel*>();
    EXPECT_TRUE(std::any_of(labels.begin(), labels.end(),
                            [](QLabel* l) { return l->text() == "-6.0 dB"; }));
    auto* fade = bar.findChild<QDoubleSpinBox*>();
    fade->setValue(2.5);
    EXPECT_EQ(stage.model.stopAllFade(), 2.5);

    // Silence is said in red: no operator has to guess at it.
    stage.model.audio().start(std::string("null"));
    bar.setDevices({});
    QLabel* active = nullptr;
    for (QLabel* label : bar.findChildren<QLabel*>())
        active = label->text().startsWith("→") ? label : active;
    ASSERT_NE(active, nullptr);
    EXPECT_TRUE(active->text().startsWith("→ 出力なし")) << active->text().toStdString();
    const QImage drawn = active->grab().toImage();
    int red = 0;
    for (int y = 0; y < drawn.height(); ++y)
        for (int x = 0; x < drawn.width(); ++x) {
            const QColor c = drawn.pixelColor(x, y);
            red += c.red() > 150 && c.green() < 100 && c.blue() < 100;
        }
    EXPECT_GT(red, 20);
    stage.model.audio().stop();
}

} // namespace

namespace {

// The deck panel on a list of three sounds (levels 0.1, 0.2, 0.3): a tick switches an item off
// for the presses, "ここから再生" takes an item live, the reset brings the deck's own list back.
TEST_F(Views, DeckPanelSwitchesItemsOffTakesOneLiveAndResets) {
    stage.addListKey(0, 3, 5.0);
    stage.model.editor().openDeckTab(0);

    auto* panel = window->findChild<DeckPanel*>();
    ASSERT_TRUE(panel && panel->isVisible());
    QListWidget& list = panel->list();
    ASSERT_EQ(list.count(), 3);
    list.item(1)->setCheckState(Qt::Unchecked);
    ASSERT_TRUE(stage.doc().assignments.at(0).deckItems);
    EXPECT_FALSE(stage.doc().assignments.at(0).deckItems->at(1).enabled);
    stage.press(0);
    stage.press(0); // past the switched-off second
    EXPECT_FLOAT_EQ(peakOfTail(stage.run(0.1)[0]), 0.3f);
    EXPECT_TRUE(list.item(2)->text().startsWith("▶"));

    list.setCurrentRow(0);
    auto* take = panel->findChildren<QPushButton*>().at(0);
    ASSERT_EQ(take->text(), "ここから再生");
    take->click();
    EXPECT_FLOAT_EQ(peakOfTail(stage.run(0.1)[0]), 0.1f);
    EXPECT_TRUE(list.item(0)->text().startsWith("▶"));

    // Locked for the show: an item still plays from here, its settings are only shown, and a
    // box ticked anyway is unticked again.
    stage.model.session().setLocked(true);
    list.item(1)->setCheckState(Qt::Checked);
    QCoreApplication::processEvents();
    EXPECT_EQ(list.item(1)->checkState(), Qt::Unchecked);
    EXPECT_FALSE(stage.doc().assignments.at(0).deckItems->at(1).enabled);
    EXPECT_FALSE(panel->findChildren<QPushButton*>().at(1)->isEnabled()); // 名前…
    list.setCurrentRow(2);
    take->click();
    EXPECT_FLOAT_EQ(peakOfTail(stage.run(0.1)[0]), 0.3f);
    stage.model.session().setLocked(false);
    list.setCurrentRow(0);

    script.names = {"幕間の音"};
    panel->findChildren<QPushButton*>().at(1)->click(); // 名前…
    EXPECT_EQ(stage.doc().assignments.at(0).deckItems->at(0).title, "幕間の音");
    EXPECT_TRUE(list.item(0)->text().contains("幕間の音"));
    panel->findChildren<QPushButton*>().at(2)->click(); // 元の一覧に戻す
    EXPECT_FALSE(stage.doc().assignments.at(0).deckItems);
    EXPECT_EQ(list.item(1)->checkState(), Qt::Checked);
    stage.model.editor().closeDeckTab(0);
    EXPECT_FALSE(panel->isVisible());
}

} // namespace

namespace {

// Release notes of any length scroll inside an offer that fits a 768-pixel screen.
TEST(UpdaterOffer, LongNotesScrollInADialogThatFitsALaptopScreen) {
    UpdaterDialogs dialogs(nullptr, [] {});
    QStringList notes;
    for (int line = 0; line < 2000; ++line)
        notes << QStringLiteral("修正 %1: 長い説明がここに続きます").arg(line);
    int height = 0;
    QTimer::singleShot(0, [&] {
        QWidget* box = QApplication::activeModalWidget();
        ASSERT_NE(box, nullptr);
        height = box->sizeHint().height();
        for (auto* button : box->findChildren<QPushButton*>())
            if (button->text() == "この版はスキップ")
                button->click();
    });
    EXPECT_EQ(dialogs.offer("Vorlin 0.2.0があります\n" + notes.join('\n'), true),
              UpdaterUi::Choice::skip);
    EXPECT_GT(height, 0);
    EXPECT_LT(height, 600);
}

} // namespace
