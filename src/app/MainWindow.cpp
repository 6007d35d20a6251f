#include "app/MainWindow.h"

#include <QAbstractSpinBox>
#include <QApplication>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QSettings>
#include <QSplitter>
#include <QStatusBar>
#include <QTableWidget>
#include <QTimer>
#include <QUndoStack>
#include <QVBoxLayout>
#include <QWindow>

#include "app/CueListView.h"
#include "app/DeckPanel.h"
#include "app/DetailPanel.h"
#include "app/KeyboardView.h"
#include "app/MeterPanel.h"
#include "app/MonitorView.h"
#include "app/OutputBar.h"
#include "app/PageListPanel.h"
#include "app/ScreenIdentifier.h"
#include "app/SettingsWindow.h"
#include "cli/Commands.h"
#include "cue/AppModel.h"
#include "model/DocumentError.h"
#include "model/KeyboardLayout.h"
#include "video/ScreenList.h"

namespace {

const QString kLockEntry = QStringLiteral("本番モード（編集をロック）");

} // namespace

MainWindow::MainWindow(AppModel& model, int instanceNumber, QWidget* parent)
    : QMainWindow(parent), m_model(model), m_instance(instanceNumber),
      m_dialogs(this, [this] { return m_model.session().documentPath(); }) {
    m_model.setInteraction(&m_dialogs);
    auto* central = new QWidget(this);
    auto* column = new QVBoxLayout(central);

    m_outputBar = new OutputBar(m_model, central);
    column->addWidget(m_outputBar);
    // Where the operator looks, so a locked show is never mistaken for a broken one.
    auto* lockBand = new QLabel(QStringLiteral("本番モード — 編集はロックされています"), central);
    lockBand->setObjectName(QStringLiteral("lockBand"));
    lockBand->setAlignment(Qt::AlignCenter);
    lockBand->setStyleSheet(
        QStringLiteral("background: #b8401a; color: white; font-weight: bold; padding: 3px;"));
    lockBand->setVisible(m_model.session().isLocked());
    connect(&m_model.session(), &ShowSession::lockChanged, lockBand, &QLabel::setVisible);
    column->addWidget(lockBand);

    auto* middle = new QHBoxLayout;
    m_pages = new PageListPanel(m_model, central);
    m_pages->setFixedWidth(180);
    m_pages->hide();
    middle->addWidget(m_pages);
    m_keyboard = new KeyboardView(m_model, central);
    middle->addWidget(m_keyboard, 1);
    m_deckPanel = new DeckPanel(m_model, central);
    m_deckPanel->hide();
    middle->addWidget(m_deckPanel);
    // The monitor of every picture above the meters.
    auto* right = new QVBoxLayout;
    right->addWidget(new MonitorView(m_model, central));
    m_meters = new MeterPanel(m_model, central);
    m_meters->setFixedWidth(320);
    right->addWidget(m_meters, 1);
    middle->addLayout(right);
    column->addLayout(middle, 5);

    auto* bottom = new QSplitter(Qt::Horizontal, central);
    m_cueList = new CueListView(m_model, bottom);
    m_detail = new DetailPanel(m_model);
    // On a laptop's screen the details scroll rather than squeeze their fields.
    auto* detailArea = new QScrollArea(bottom);
    detailArea->setWidget(m_detail);
    detailArea->setWidgetResizable(true);
    detailArea->setFrameShape(QFrame::NoFrame);
    bottom->addWidget(m_cueList);
    bottom->addWidget(detailArea);
    // The details' three columns take about 1000 points; the cue list a third of that. Kept
    // in that ratio whatever the width: on a narrow window the details scroll.
    bottom->setSizes({340, 1000});
    bottom->setStretchFactor(0, 1);
    bottom->setStretchFactor(1, 3);
    bottom->setChildrenCollapsible(false);
    column->addWidget(bottom, 4);
    setCentralWidget(central);

    // The status line is there from the start at one height, message or not: a line that came
    // and went would shift the whole window under the operator's mouse.
    statusBar()->setSizeGripEnabled(false);
    statusBar()->setFixedHeight(statusBar()->fontMetrics().height() + 8);
    connect(&m_model.status(), &StatusLine::changed, this,
            [this](const QString& message) { statusBar()->showMessage(message); });
    connect(&m_model, &AppModel::assignmentsChanged, this, &MainWindow::updateTitle);
    connect(&m_model, &AppModel::deckTabsChanged, this, [this] {
        const bool open = !m_model.document().deckTabs.empty();
        if (open != m_deckPanel->isVisible())
            resizeForDeckPanel(open);
    });
    m_model.session().onTitleChange = [this] { updateTitle(); };

    resize(1500, 920);
    setMinimumSize(980, 680);
    buildMenu();
    updateTitle();
}

QTableWidget& MainWindow::cueList() {
    return *m_cueList;
}

void MainWindow::setPageListShown(bool shown) {
    m_pages->setVisible(shown);
    QSettings().setValue(QStringLiteral("window/pageListShown"), shown);
    updateMinWidth();
}

void MainWindow::updateTitle() {
    const ShowDocument& doc = m_model.document();
    const QString page =
        doc.currentPage < doc.pages.size() ? doc.pages[doc.currentPage].name : QString();
    setWindowTitle(QStringLiteral("Vorlin #%1 — %2[*] — %3")
                       .arg(m_instance)
                       .arg(m_model.documentName(), page));
    setWindowModified(m_model.isDirty());
    setWindowFilePath(m_model.session().documentPath().value_or(QString()));
}

void MainWindow::showError(const QString& message) {
    QMessageBox::warning(this, QStringLiteral("Vorlin"), message);
}

bool MainWindow::saveDocument(bool forcePanel) {
    QString path = m_model.session().documentPath().value_or(QString());
    if (forcePanel || path.isEmpty()) {
        path = QFileDialog::getSaveFileName(
            this, QStringLiteral("キーマップを保存"),
            QDir(DialogInteraction::startFolder(m_model.session().documentPath()))
                .filePath(m_model.documentName()),
            QStringLiteral("Vorlin キーマップ (*.vorlin)"));
        if (path.isEmpty())
            return false;
        DialogInteraction::remember(path);
        if (!path.endsWith(".vorlin"))
            path += ".vorlin";
    }
    try {
        m_model.save(path);
        return true;
    } catch (const DocumentError& error) {
        showError(error.message());
        return false;
    }
}

bool MainWindow::confirmDiscard() {
    if (!m_model.isDirty())
        return true;
    const int answer = m_dialogs.alert(
        m_model.documentName() + " の変更を保存しますか？", QString(),
        {QStringLiteral("保存"), QStringLiteral("キャンセル"), QStringLiteral("保存しない")});
    if (answer == 0)
        return saveDocument(false);
    return answer == 2;
}

void MainWindow::openDocument() {
    if (!confirmDiscard())
        return;
    const QString path = QFileDialog::getOpenFileName(
        this, QStringLiteral("キーマップを開く"),
        DialogInteraction::startFolder(m_model.session().documentPath()),
        QStringLiteral("Vorlin キーマップ (*.vorlin)"));
    if (path.isEmpty())
        return;
    DialogInteraction::remember(path);
    try {
        m_model.open(path);
    } catch (const DocumentError& error) {
        showError(error.message());
    }
    update();
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (!confirmDiscard()) {
        event->ignore();
        return;
    }
    // Saved, unchanged, or given up: nothing is left to recover.
    m_model.session().discardRecovery();
    QSettings().setValue(QStringLiteral("window/VorlinMain-%1").arg(m_instance), saveGeometry());
    event->accept();
    // The main window closing ends the program: output windows and overlays close with it
    // (they would otherwise keep it running, and the next start would be instance 2).
    QTimer::singleShot(0, qApp, [] {
        for (QWindow* window : QGuiApplication::topLevelWindows())
            window->hide();
        QCoreApplication::quit();
    });
}

void MainWindow::learnMidi(MidiBinding::Action action, KeyCode key) {
    if (!onLearnMidi)
        return;
    MidiBinding target;
    target.action = action;
    target.key = key;
    target.page = static_cast<std::int64_t>(m_model.document().currentPage);
    onLearnMidi(target);
}

void MainWindow::showSettings() {
    if (!m_settings) {
        auto* settings = new SettingsWindow(m_instance, this);
        settings->setAttribute(Qt::WA_DeleteOnClose);
        settings->onRemoteChange = [this] {
            if (onRemoteChange)
                onRemoteChange();
        };
        settings->onBackgroundInputChange = [this](bool on) {
            if (onBackgroundInputChange)
                onBackgroundInputChange(on);
        };
        m_settings = settings;
    }
    m_settings->show();
    m_settings->raise();
    m_settings->activateWindow();
}

void MainWindow::placeOnScreen() {
    const QByteArray saved =
        QSettings().value(QStringLiteral("window/VorlinMain-%1").arg(m_instance)).toByteArray();
    if (saved.isEmpty() || !restoreGeometry(saved)) {
        if (const QScreen* screen = this->screen()) {
            QRect frame = frameGeometry();
            frame.moveCenter(screen->availableGeometry().center());
            move(frame.topLeft() + QPoint((m_instance - 1) * 30, (m_instance - 1) * 30));
        }
    }
    setPageListShown(QSettings().value(QStringLiteral("window/pageListShown"), false).toBool());
}

void MainWindow::resizeForDeckPanel(bool open) {
    m_deckPanel->setVisible(open);
    // The layout's minimum must follow the panel before the window can give its width back.
    centralWidget()->layout()->activate();
    if (!open)
        updateMinWidth(); // the floor goes down first, or the width could not be given back
    if (!isMaximized() && !isFullScreen())
        resize(width() + (open ? DeckPanel::kWidth : -DeckPanel::kWidth), height());
    updateMinWidth();
}

void MainWindow::updateMinWidth() {
    const int base = (m_pages->isVisibleTo(this) ? 1152 : 971) +
                     (m_deckPanel->isVisibleTo(this) ? DeckPanel::kWidth : 0);
    const int screenWidth = screen() ? screen()->availableGeometry().width() : 1800;
    const int minimum = std::min(std::max(980, base), screenWidth);
    setMinimumWidth(minimum);
    if (width() < minimum && !isFullScreen())
        resize(minimum, height());
    fitWindowToScreen();
}

void MainWindow::fitWindowToScreen() {
    if (isFullScreen() || !screen())
        return;
    const QRect visible = screen()->availableGeometry();
    QRect frame = geometry();
    frame.setWidth(std::min(frame.width(), visible.width()));
    frame.setHeight(std::min(frame.height(), visible.height()));
    frame.moveLeft(
        std::min(std::max(frame.left(), visible.left()), visible.right() - frame.width() + 1));
    frame.moveTop(
        std::min(std::max(frame.top(), visible.top()), visible.bottom() - frame.height() + 1));
    if (frame != geometry())
        setGeometry(frame);
}

void MainWindow::toggleVideoOutput() {
    VideoOutput& video = m_model.video();
    if (video.isShowing())
        video.hide();
    else
        video.show();
    m_model.status().show(video.isShowing() ? QStringLiteral("映像出力は開いています")
                                            : QStringLiteral("映像出力は閉じています"));
    activateWindow(); // the keys stay with the show
}

void MainWindow::buildMenu() {
    // A menu is a title and its entries; an entry without text is a separator, one without an
    // action is shown disabled (what the system or a text field does itself, or what is still
    // to come).
    struct Entry {
        QString text;
        QKeySequence keys;
        std::function<void()> run;
    };
    const Entry separator;
    auto pageStep = [this](int delta) {
        return [this, delta] {
            m_model.editor().stepPage(delta);
            updateTitle();
            update();
        };
    };
    const std::vector<std::pair<QString, std::vector<Entry>>> menus{
        {QStringLiteral("Vorlin"),
         {{QStringLiteral("Vorlin について"),
           {},
           [this] {
               QMessageBox::about(this, QStringLiteral("Vorlin"),
                                  Commands::versionText() +
                                      QStringLiteral("\nキーボードで鳴らすキュープレイヤー"));
           }},
          separator,
          {QStringLiteral("設定…"), QKeySequence(Qt::CTRL | Qt::Key_Comma),
           [this] { showSettings(); }},
          separator,
          {QStringLiteral("アップデートを確認…"),
           {},
           [this] {
               if (onCheckForUpdates)
                   onCheckForUpdates();
           }},
          separator,
          {QStringLiteral("新しいインスタンスを起動"), QKeySequence(Qt::ALT | Qt::CTRL | Qt::Key_N),
           [] { QProcess::startDetached(QCoreApplication::applicationFilePath(), {}); }},
          separator,
          {QStringLiteral("Vorlin を終了"), QKeySequence(Qt::CTRL | Qt::Key_Q),
           [this] { close(); }}}},
        {QStringLiteral("ファイル"),
         {{QStringLiteral("新規キーマップ"), QKeySequence(Qt::CTRL | Qt::Key_N),
           [this] {
               if (confirmDiscard())
                   m_model.newDocument();
               update();
           }},
          {QStringLiteral("開く…"), QKeySequence(Qt::CTRL | Qt::Key_O), [this] { openDocument(); }},
          separator,
          {QStringLiteral("保存"), QKeySequence(Qt::CTRL | Qt::Key_S),
           [this] { saveDocument(false); }},
          {QStringLiteral("別名で保存…"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_S),
           [this] { saveDocument(true); }},
          separator,
          {QStringLiteral("選択中のキーにファイルを割り当て…"), QKeySequence(Qt::CTRL | Qt::Key_I),
           [this] {
               const auto key = m_model.document().selectedKey;
               if (key && !m_model.editor().refuseWhenLocked()) {
                   const QStringList files = m_dialogs.chooseFiles(
                       KeyboardLayout::label(*key) + " キーに入れるファイル（複数選べます）",
                       ShowEditor::openPanelTypes(), true);
                   if (!files.isEmpty())
                       m_model.editor().place(files, *key);
               }
           }},
          {QStringLiteral("MIDI で割り当て: 選択中のキー"),
           QKeySequence(Qt::ALT | Qt::CTRL | Qt::Key_M),
           [this] {
               if (const auto key = m_model.document().selectedKey)
                   learnMidi(MidiBinding::Action::key, *key);
           }},
          {QStringLiteral("MIDI で割り当て: このページへの切り替え"),
           {},
           [this] { learnMidi(MidiBinding::Action::page, 0); }},
          {QStringLiteral("MIDI で割り当て: すべて停止"),
           {},
           [this] { learnMidi(MidiBinding::Action::stop, 0); }},
          {QStringLiteral("MIDI で割り当て: すべて即停止"),
           {},
           [this] { learnMidi(MidiBinding::Action::panic, 0); }},
          {QStringLiteral("MIDI で割り当て: マスター音量（コントロール）"),
           {},
           [this] { learnMidi(MidiBinding::Action::master, 0); }},
          {QStringLiteral("すべてのファイルを読み込み直す"),
           QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_R),
           [this] { m_model.media().reloadAll(true); }}}},
        // Text fields handle these themselves; the menu names them with their keys. Undo and
        // redo act on the show's edits, or on the text of a field that has the keyboard.
        {QStringLiteral("編集"),
         {{QStringLiteral("取り消す"), QKeySequence::Undo, [this] { undoOrRedo(false); }},
          {QStringLiteral("やり直す"), QKeySequence::Redo, [this] { undoOrRedo(true); }},
          separator,
          {QStringLiteral("カット"), QKeySequence::Cut, nullptr},
          {QStringLiteral("コピー"), QKeySequence::Copy, nullptr},
          {QStringLiteral("ペースト"), QKeySequence::Paste, nullptr},
          {QStringLiteral("すべてを選択"), QKeySequence::SelectAll, nullptr}}},
        {QStringLiteral("再生"),
         {{QStringLiteral("全停止（フェード）"), QKeySequence(Qt::CTRL | Qt::Key_Period),
           [this] { m_model.stopAll(false); }},
          {QStringLiteral("全停止（即時）"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_Period),
           [this] { m_model.stopAll(true); }},
          separator,
          {QStringLiteral("映像出力を開く／閉じる"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_F),
           [this] { toggleVideoOutput(); }},
          separator,
          {QStringLiteral("次のページ（プレイリスト）"), QKeySequence(Qt::CTRL | Qt::Key_Right),
           pageStep(1)},
          {QStringLiteral("前のページ（プレイリスト）"), QKeySequence(Qt::CTRL | Qt::Key_Left),
           pageStep(-1)},
          {QStringLiteral("新しいページ"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_N),
           [this] { m_model.editor().newPage(false); }},
          {QStringLiteral("このページを複製"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_D),
           [this] { m_model.editor().newPage(true); }},
          {QStringLiteral("プレイリストを表示／隠す"), QKeySequence(Qt::ALT | Qt::CTRL | Qt::Key_L),
           [this] { setPageListShown(m_pages->isHidden()); }},
          separator,
          {kLockEntry, QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_L),
           [this] { m_model.session().setLocked(!m_model.session().isLocked()); }}}},
        {QStringLiteral("ウインドウ"),
         {{QStringLiteral("しまう"), QKeySequence(Qt::CTRL | Qt::Key_M),
           [this] { showMinimized(); }}}},
    };
    for (const auto& [title, entries] : menus) {
        QMenu* menu = menuBar()->addMenu(title);
        for (const Entry& entry : entries) {
            if (entry.text.isEmpty()) {
                menu->addSeparator();
                continue;
            }
            QAction* item = menu->addAction(entry.text);
            item->setShortcut(entry.keys);
            // Quitting works from every window of the program (an output window in front).
            if (entry.keys == QKeySequence(Qt::CTRL | Qt::Key_Q))
                item->setShortcutContext(Qt::ApplicationShortcut);
            item->setEnabled(entry.run != nullptr);
            if (entry.run)
                connect(item, &QAction::triggered, this, entry.run);
            if (entry.text == kLockEntry) {
                item->setCheckable(true);
                item->setChecked(m_model.session().isLocked());
                connect(&m_model.session(), &ShowSession::lockChanged, item, &QAction::setChecked);
            }
            if (entry.text == QStringLiteral("取り消す") ||
                entry.text == QStringLiteral("やり直す"))
                followHistory(*item, entry.text == QStringLiteral("やり直す"));
            // Where the pictures go, right under the entry that opens them.
            if (entry.text == QStringLiteral("映像出力を開く／閉じる")) {
                QMenu* outputs = menu->addMenu(QStringLiteral("映像の出力先"));
                connect(outputs, &QMenu::aboutToShow, this,
                        [this, outputs] { fillOutputMenu(*outputs); });
                connect(menu->addAction(QStringLiteral("画面を識別（番号を表示）")),
                        &QAction::triggered, this, [] { ScreenIdentifier::show(); });
            }
        }
    }
}

void MainWindow::followHistory(QAction& item, bool redo) {
    const QUndoStack& stack = m_model.session().history().stack();
    if (redo) // Ctrl+Y as well, as many programs have it
        item.setShortcuts({QKeySequence::Redo, QKeySequence(Qt::CTRL | Qt::Key_Y)});
    const auto follow = [this, &item, redo] {
        const QUndoStack& stack = m_model.session().history().stack();
        const QString step = redo ? stack.redoText() : stack.undoText();
        const QString verb = redo ? QStringLiteral("やり直す") : QStringLiteral("取り消す");
        item.setText(step.isEmpty() ? verb : verb + QStringLiteral(": ") + step);
        item.setEnabled(redo ? stack.canRedo() : stack.canUndo());
    };
    connect(&stack, &QUndoStack::indexChanged, &item, follow); // clear() says so too
    follow();
}

void MainWindow::undoOrRedo(bool redo) {
    // A field with the keyboard takes back its own typing, as in any program.
    QWidget* focus = QApplication::focusWidget();
    auto* field = qobject_cast<QLineEdit*>(focus);
    if (auto* box = qobject_cast<QAbstractSpinBox*>(focus))
        field = box->findChild<QLineEdit*>();
    if (field) {
        redo ? field->redo() : field->undo();
        return;
    }
    if (m_model.editor().refuseWhenLocked())
        return;
    QUndoStack& stack = m_model.session().history().stack();
    redo ? stack.redo() : stack.undo();
}

void MainWindow::fillOutputMenu(QMenu& menu) {
    menu.clear();
    VideoOutput& video = m_model.video();
    const ScreenList screens = ScreenList::current();
    const QStringList wanted = video.outputs();
    // A display is wanted when a wanted label finds it.
    auto isWanted = [&](int index) {
        return std::any_of(wanted.begin(), wanted.end(),
                           [&](const QString& name) { return screens.find(name) == index; });
    };
    auto add = [&](const QString& text, const QString& name, bool on) {
        QAction* item = menu.addAction(text);
        item->setCheckable(true);
        item->setChecked(on);
        connect(item, &QAction::triggered, this,
                [this, name](bool checked) { setOutput(name, checked); });
    };
    add(QStringLiteral("ウィンドウ"), QStringLiteral("window"),
        wanted.contains(QStringLiteral("window")));
    const QStringList labels = screens.labels();
    const auto control = ScreenList::qtScreens().indexOf(screen());
    for (int i = 0; i < labels.size(); ++i)
        add(labels[i] + (i == control ? QStringLiteral("　※操作画面") : QString()), labels[i],
            isWanted(i));
    for (const QString& gone : screens.missing(wanted)) {
        QAction* item = menu.addAction(
            gone + QStringLiteral("（いまつながっていません。つなぐと自動で出ます）"));
        item->setEnabled(false);
    }
}

void MainWindow::setOutput(const QString& name, bool on) {
    VideoOutput& video = m_model.video();
    QStringList outputs = video.outputs();
    const ScreenList screens = ScreenList::current();
    if (on) {
        if (!outputs.contains(name))
            outputs << name;
    } else {
        // Every entry that means this output, whatever label it was stored under.
        const auto index = screens.find(name);
        outputs.removeIf([&](const QString& entry) {
            return entry == name ||
                   (index && name != QStringLiteral("window") && screens.find(entry) == index);
        });
    }
    m_model.setVideoOutputs(outputs);
    m_model.markDirty();
    if (on && !video.isShowing())
        video.show();
    activateWindow();
}
