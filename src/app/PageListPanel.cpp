#include "app/PageListPanel.h"

#include <QGridLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QTimer>

#include "cue/AppModel.h"

PageListPanel::PageListPanel(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    auto* grid = new QGridLayout(this);
    grid->setContentsMargins(0, 0, 0, 0);
    grid->addWidget(new QLabel(QStringLiteral("ページ"), this), 0, 0, 1, 2);
    m_list = new QListWidget(this);
    m_list->setFocusPolicy(Qt::NoFocus);
    m_list->setDragDropMode(QAbstractItemView::InternalMove);
    m_list->setDefaultDropAction(Qt::MoveAction);
    m_list->setStyleSheet("QListWidget { font-size: 15px; } QListWidget::item { padding: 4px; }");
    grid->addWidget(m_list, 1, 0, 1, 2);
    auto button = [this](const QString& text, auto action) {
        auto* b = new QPushButton(text, this);
        b->setFocusPolicy(Qt::NoFocus);
        connect(b, &QPushButton::clicked, this, action);
        return b;
    };
    grid->addWidget(button(QStringLiteral("追加"), [this] { m_model.editor().newPage(false); }), 2,
                    0);
    grid->addWidget(button(QStringLiteral("複製"), [this] { m_model.editor().newPage(true); }), 2,
                    1);
    grid->addWidget(button(QStringLiteral("名前…"),
                           [this] { m_model.editor().renamePage(m_model.document().currentPage); }),
                    3, 0);
    grid->addWidget(button(QStringLiteral("削除…"),
                           [this] { m_model.editor().deletePage(m_model.document().currentPage); }),
                    3, 1);

    // A click (not the press that may start a drag) switches.
    connect(m_list, &QListWidget::itemClicked, this, [this](QListWidgetItem* item) {
        m_model.editor().switchPage(static_cast<std::size_t>(m_list->row(item)));
    });
    // A drop has moved the row in the list; the show follows, and the list is rebuilt from the
    // show once the drop has finished.
    connect(m_list->model(), &QAbstractItemModel::rowsMoved, this,
            [this](const QModelIndex&, int start, int end, const QModelIndex&, int destination) {
                if (m_refreshing)
                    return;
                std::set<std::size_t> moved;
                for (int i = start; i <= end; ++i)
                    moved.insert(static_cast<std::size_t>(i));
                QTimer::singleShot(0, this, [this, moved, destination] {
                    m_model.editor().movePages(moved, static_cast<std::size_t>(destination));
                });
            });
    connect(&model, &AppModel::assignmentsChanged, this, &PageListPanel::refresh);
    connect(&model.live(), &LiveState::playingPagesChanged, this, &PageListPanel::refresh);
    refresh();
}

void PageListPanel::refresh() {
    m_refreshing = true;
    const ShowDocument& doc = m_model.document();
    const auto& playing = m_model.live().playingPages();
    if (m_list->count() != static_cast<int>(doc.pages.size())) {
        m_list->clear();
        for (std::size_t i = 0; i < doc.pages.size(); ++i)
            m_list->addItem(QString());
    }
    for (std::size_t i = 0; i < doc.pages.size(); ++i) {
        const KeyPage& page = doc.pages[i];
        const bool sounds = playing.count(page.id) > 0;
        QListWidgetItem* item = m_list->item(static_cast<int>(i));
        item->setText(QStringLiteral("%1  %2%3")
                          .arg(i + 1)
                          .arg(page.name, sounds ? QStringLiteral("  ▶") : QString()));
        item->setForeground(sounds ? QColor(80, 200, 110) : palette().color(QPalette::Text));
    }
    m_list->setCurrentRow(static_cast<int>(doc.currentPage));
    m_refreshing = false;
}
