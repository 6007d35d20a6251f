#include "app/MainWindow.h"

#include <QApplication>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QPainter>
#include <QProcess>
#include <QPushButton>
#include <QScreen>
#include <QSettings>
#include <QSlider>
#include <QStatusBar>
#include <QTableWidget>
#include <QVBoxLayout>

#include "app/KeyboardView.h"
#include "app/SettingsWindow.h"
#include "cue/AppModel.h"
#include "model/DocumentError.h"
#include "model/KeyboardLayout.h"

namespace {

// Output meters: one bar per meter channel from the live state, with the output number.
class MetersView : public QWidget {
public:
    explicit MetersView(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
        setMinimumWidth(140);
        setFocusPolicy(Qt::NoFocus);
        connect(&model.live(), &LiveState::metersChanged, this, qOverload<>(&QWidget::update));
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.fillRect(rect(), QColor(24, 25, 28));
        const auto& meters = m_model.live().meters();
        if (meters.empty())
            return;
        const double w = static_cast<double>(width()) / static_cast<double>(meters.size());
        for (std::size_t i = 0; i < meters.size(); ++i) {
            // −60 dB … 0 dB over the height.
            const double db = meters[i] > 1e-6f ? 20.0 * std::log10(meters[i]) : -60.0;
            const double level = std::clamp((db + 60.0) / 60.0, 0.0, 1.0);
            const QRectF bar(i * w + 2, (height() - 16) * (1.0 - level), w - 4,
                             (height() - 16) * level);
            p.fillRect(bar, db > -3 ? QColor(220, 60, 50) : QColor(80, 200, 110));
            p.setPen(QColor(170, 170, 175));
            p.drawText(QRectF(i * w, height() - 15, w, 14), Qt::AlignCenter,
                       QString::number(i + 1));
        }
    }

private:
    AppModel& m_model;
};

template <typename Widget> Widget* unfocusable(Widget* widget) {
    widget->setFocusPolicy(Qt::NoFocus);
    return widget;
}

} // namespace

MainWindow::MainWindow(AppModel& model, int instanceNumber, QWidget* parent)
    : QMainWindow(parent), m_model(model), m_instance(instanceNumber), m_dialogs(this) {
    m_model.setInteraction(&m_dialogs);
    auto* central = new QWidget(this);
    auto* column = new QVBoxLayout(central);

    auto* top = new QHBoxLayout;
    top->addWidget(new QLabel(QStringLiteral("マスター"), central));
    m_master = unfocusable(new QSlider(Qt::Horizontal, central));
    m_master->setRange(0, 100);
    m_master->setValue(static_cast<int>(std::lround(m_model.masterVolume() * 100)));
    m_master->setMaximumWidth(220);
    connect(m_master, &QSlider::valueChanged, this,
            [this](int v) { m_model.setMasterVolume(v / 100.0); });
    top->addWidget(m_master);
    top->addStretch(1);
    auto* stopAll = unfocusable(new QPushButton(QStringLiteral("全停止"), central));
    stopAll->setStyleSheet(
        "QPushButton { background: #a02828; color: white; padding: 6px 18px; font-weight: bold; }");
    connect(stopAll, &QPushButton::clicked, this, [this] { m_model.stopAll(false); });
    top->addWidget(stopAll);
    column->addLayout(top);

    m_keyboard = new KeyboardView(m_model, central);
    column->addWidget(m_keyboard, 3);

    auto* bottom = new QHBoxLayout;
    m_cueList = unfocusable(new QTableWidget(0, 4, central));
    m_cueList->setHorizontalHeaderLabels(
        {QStringLiteral("キュー"), QStringLiteral("ページ"), QStringLiteral("進行"), QString()});
    m_cueList->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_cueList->verticalHeader()->hide();
    m_cueList->setEditTriggers(QAbstractItemView::NoEditTriggers);
    bottom->addWidget(m_cueList, 3);
    m_meters = new MetersView(m_model, central);
    bottom->addWidget(m_meters, 1);
    column->addLayout(bottom, 1);
    setCentralWidget(central);

    connect(&m_model.live(), &LiveState::cuesChanged, this, &MainWindow::refreshCues);
    connect(&m_model.cueEngine(), &CueEngine::statusMessageChanged, this,
            [this](const QString& message) { statusBar()->showMessage(message); });
    connect(&m_model, &AppModel::assignmentsChanged, this, &MainWindow::updateTitle);
    m_model.session().onTitleChange = [this] { updateTitle(); };

    resize(1500, 920);
    setMinimumSize(980, 680);
    buildMenu();
    updateTitle();
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

void MainWindow::refreshCues() {
    const auto& rows = m_model.live().cues();
    // Rows change 30 times a second (progress); their stop buttons only when cues come or go.
    std::vector<std::int64_t> ids;
    for (const CueRow& row : rows)
        ids.push_back(row.id);
    const bool sameCues = ids == m_listedCues;
    if (!sameCues) {
        m_listedCues = ids;
        m_cueList->setRowCount(0);
        m_cueList->setRowCount(static_cast<int>(rows.size()));
    }
    for (int r = 0; r < static_cast<int>(rows.size()); ++r) {
        const CueRow& row = rows[static_cast<std::size_t>(r)];
        const QString name = (row.stopping ? QStringLiteral("↘ ") : QString()) + row.name;
        const QString progress = QString::number(std::lround(row.progress * 100)) + " %";
        const QString texts[] = {name, row.pageName.value_or(QString()), progress};
        for (int c = 0; c < 3; ++c) {
            if (QTableWidgetItem* item = m_cueList->item(r, c))
                item->setText(texts[c]);
            else
                m_cueList->setItem(r, c, new QTableWidgetItem(texts[c]));
        }
        if (!sameCues) {
            auto* stop = unfocusable(new QPushButton(QStringLiteral("停止"), m_cueList));
            const std::int64_t id = row.id;
            connect(stop, &QPushButton::clicked, this, [this, id] { m_model.stopCue(id); });
            m_cueList->setCellWidget(r, 3, stop);
        }
    }
}

void MainWindow::showError(const QString& message) {
    QMessageBox::warning(this, QStringLiteral("Vorlin"), message);
}

bool MainWindow::saveDocument(bool forcePanel) {
    QString path = m_model.session().documentPath().value_or(QString());
    if (forcePanel || path.isEmpty()) {
        path = QFileDialog::getSaveFileName(this, QStringLiteral("キーマップを保存"),
                                            m_model.documentName(),
                                            QStringLiteral("Vorlin キーマップ (*.vorlin)"));
        if (path.isEmpty())
            return false;
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
    const QString path =
        QFileDialog::getOpenFileName(this, QStringLiteral("キーマップを開く"), QString(),
                                     QStringLiteral("Vorlin キーマップ (*.vorlin)"));
    if (path.isEmpty())
        return;
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
    QSettings().setValue(QStringLiteral("window/VorlinMain-%1").arg(m_instance), saveGeometry());
    event->accept();
}

void MainWindow::showSettings() {
    if (!m_settings) {
        auto* settings = new SettingsWindow(m_instance, this);
        settings->setAttribute(Qt::WA_DeleteOnClose);
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
    updateMinWidth();
}

void MainWindow::updateMinWidth(bool pageListShown, bool deckTabOpen) {
    const int base = (pageListShown ? 1152 : 971) + (deckTabOpen ? 361 : 0);
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

void MainWindow::buildMenu() {
    auto add = [this](QMenu* menu, const QString& text, const QKeySequence& keys, auto action) {
        QAction* item = menu->addAction(text);
        item->setShortcut(keys);
        connect(item, &QAction::triggered, this, action);
        return item;
    };
    QMenu* app = menuBar()->addMenu(QStringLiteral("Vorlin"));
    add(app, QStringLiteral("Vorlin について"), {}, [this] {
        QMessageBox::about(this, QStringLiteral("Vorlin"),
                           QStringLiteral("Vorlin — キーボードで鳴らすキュープレイヤー"));
    });
    app->addSeparator();
    add(app, QStringLiteral("設定…"), QKeySequence(Qt::CTRL | Qt::Key_Comma), [] {
    })->setEnabled(false);
    app->addSeparator();
    add(app, QStringLiteral("アップデートを確認…"), {}, [] {})->setEnabled(false);
    app->addSeparator();
    add(app, QStringLiteral("新しいインスタンスを起動"),
        QKeySequence(Qt::ALT | Qt::CTRL | Qt::Key_N),
        [] { QProcess::startDetached(QCoreApplication::applicationFilePath(), {}); });
    app->addSeparator();
    add(app, QStringLiteral("Vorlin を終了"), QKeySequence(Qt::CTRL | Qt::Key_Q),
        [this] { close(); });

    QMenu* file = menuBar()->addMenu(QStringLiteral("ファイル"));
    add(file, QStringLiteral("新規キーマップ"), QKeySequence(Qt::CTRL | Qt::Key_N), [this] {
        if (confirmDiscard())
            m_model.newDocument();
        update();
    });
    add(file, QStringLiteral("開く…"), QKeySequence(Qt::CTRL | Qt::Key_O),
        [this] { openDocument(); });
    file->addSeparator();
    add(file, QStringLiteral("保存"), QKeySequence(Qt::CTRL | Qt::Key_S),
        [this] { saveDocument(false); });
    add(file, QStringLiteral("別名で保存…"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_S),
        [this] { saveDocument(true); });
    file->addSeparator();
    add(file, QStringLiteral("選択中のキーにファイルを割り当て…"),
        QKeySequence(Qt::CTRL | Qt::Key_I), [this] {
            if (const auto key = m_model.document().selectedKey) {
                const QStringList files = m_dialogs.chooseFiles(
                    KeyboardLayout::label(*key) + " キーに入れるファイル（複数選べます）",
                    ShowEditor::openPanelTypes(), true);
                if (!files.isEmpty())
                    m_model.editor().place(files, *key);
            }
        });
    add(file, QStringLiteral("すべてのファイルを読み込み直す"),
        QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_R),
        [this] { m_model.media().reloadAll(true); });

    QMenu* edit = menuBar()->addMenu(QStringLiteral("編集"));
    // Text fields handle these themselves; the menu names them with their keys.
    const std::pair<const char*, QKeySequence::StandardKey> editing[] = {
        {"取り消す", QKeySequence::Undo},  {"やり直す", QKeySequence::Redo},
        {"カット", QKeySequence::Cut},     {"コピー", QKeySequence::Copy},
        {"ペースト", QKeySequence::Paste}, {"すべてを選択", QKeySequence::SelectAll}};
    for (const auto& [text, keys] : editing) {
        QAction* item = edit->addAction(QString::fromUtf8(text));
        item->setShortcut(keys);
        item->setEnabled(false);
        if (keys == QKeySequence::Redo)
            edit->addSeparator();
    }

    QMenu* play = menuBar()->addMenu(QStringLiteral("再生"));
    add(play, QStringLiteral("全停止（フェード）"), QKeySequence(Qt::CTRL | Qt::Key_Period),
        [this] { m_model.stopAll(false); });
    add(play, QStringLiteral("全停止（即時）"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_Period),
        [this] { m_model.stopAll(true); });
    play->addSeparator();
    add(play, QStringLiteral("映像出力を開く／閉じる"),
        QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_F), [] {})
        ->setEnabled(false);
    play->addSeparator();
    add(play, QStringLiteral("次のページ（プレイリスト）"), QKeySequence(Qt::CTRL | Qt::Key_Right),
        [this] {
            m_model.editor().stepPage(1);
            updateTitle();
            update();
        });
    add(play, QStringLiteral("前のページ（プレイリスト）"), QKeySequence(Qt::CTRL | Qt::Key_Left),
        [this] {
            m_model.editor().stepPage(-1);
            updateTitle();
            update();
        });
    add(play, QStringLiteral("新しいページ"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_N),
        [this] { m_model.editor().newPage(false); });
    add(play, QStringLiteral("このページを複製"), QKeySequence(Qt::SHIFT | Qt::CTRL | Qt::Key_D),
        [this] { m_model.editor().newPage(true); });
    add(play, QStringLiteral("プレイリストを表示／隠す"),
        QKeySequence(Qt::ALT | Qt::CTRL | Qt::Key_L), [] {})
        ->setEnabled(false);

    QMenu* window = menuBar()->addMenu(QStringLiteral("ウインドウ"));
    add(window, QStringLiteral("しまう"), QKeySequence(Qt::CTRL | Qt::Key_M),
        [this] { showMinimized(); });
}
