#include "app/CueListView.h"

#include <cmath>

#include <QHeaderView>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QStyledItemDelegate>

#include "cue/AppModel.h"

namespace {

QString clock(double seconds) {
    const auto whole = static_cast<std::int64_t>(std::floor(std::max(seconds, 0.0)));
    return QStringLiteral("%1:%2").arg(whole / 60).arg(whole % 60, 2, 10, QLatin1Char('0'));
}

// A progress bar, or where the cue can be sought a track with a handle and the time.
class ProgressDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter* p, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override {
        const double progress = index.data(CueListView::kProgressRole).toDouble();
        const QVariant position = index.data(CueListView::kPositionRole);
        const double duration = index.data(CueListView::kDurationRole).toDouble();
        const QRectF area = QRectF(option.rect).adjusted(4, 5, -4, -5);
        p->save();
        p->setRenderHint(QPainter::Antialiasing);
        p->fillRect(area, QColor(58, 60, 66));
        const double fraction =
            std::clamp(position.isValid() ? position.toDouble() : progress, 0.0, 1.0);
        p->fillRect(QRectF(area.left(), area.top(), area.width() * fraction, area.height()),
                    QColor(90, 170, 230));
        QString text = QString::number(std::lround(progress * 100)) + " %";
        if (position.isValid()) {
            // A slim handle, so the time under it stays readable.
            const double x = area.left() + area.width() * fraction;
            p->fillRect(QRectF(x - 1.5, option.rect.top() + 2, 3, option.rect.height() - 4),
                        QColor(255, 210, 80));
            text = clock(fraction * duration) + " / " + clock(duration);
        }
        p->setPen(Qt::white);
        p->drawText(area, Qt::AlignCenter, text);
        p->restore();
    }
};

} // namespace

CueListView::CueListView(AppModel& model, QWidget* parent)
    : QTableWidget(0, 5, parent), m_model(model) {
    setFocusPolicy(Qt::NoFocus);
    setHorizontalHeaderLabels({QStringLiteral("キュー"), QStringLiteral("ページ"),
                               QStringLiteral("項目"), QStringLiteral("進行"), QString()});
    horizontalHeader()->setSectionResizeMode(nameColumn, QHeaderView::Stretch);
    horizontalHeader()->setSectionResizeMode(progressColumn, QHeaderView::Stretch);
    setColumnWidth(pageColumn, 80);
    setColumnWidth(itemColumn, 60);
    setColumnWidth(stopColumn, 64);
    verticalHeader()->hide();
    verticalHeader()->setDefaultSectionSize(30);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setSelectionMode(QAbstractItemView::NoSelection);
    setItemDelegateForColumn(progressColumn, new ProgressDelegate(this));
    connect(&model.live(), &LiveState::cuesChanged, this, &CueListView::refresh);
}

void CueListView::refresh() {
    const auto& rows = m_model.live().cues();
    // Rows change 30 times a second (progress); their stop buttons only when cues come or go.
    std::vector<std::int64_t> ids;
    for (const CueRow& row : rows)
        ids.push_back(row.id);
    const bool sameCues = ids == m_listed;
    if (!sameCues) {
        m_listed = ids;
        setRowCount(0);
        setRowCount(static_cast<int>(rows.size()));
    }
    for (int r = 0; r < static_cast<int>(rows.size()); ++r) {
        const CueRow& row = rows[static_cast<std::size_t>(r)];
        auto cell = [this, r](int column) {
            QTableWidgetItem* item = this->item(r, column);
            if (!item) {
                item = new QTableWidgetItem;
                setItem(r, column, item);
            }
            return item;
        };
        cell(nameColumn)
            ->setText((row.stopping ? QStringLiteral("↘ ") : QString()) + row.name +
                      (row.hasVideo ? QStringLiteral("（映像）") : QString()));
        cell(pageColumn)->setText(row.pageName.value_or(QString()));
        QTableWidgetItem* item = cell(itemColumn);
        item->setText(row.slideText.value_or(QString()));
        item->setToolTip(row.itemName.value_or(QString()));
        QTableWidgetItem* progress = cell(progressColumn);
        // Progress moves every tick; the bar only when it grows by a pixel or its text changes.
        const QString shown = shownProgress(row);
        const bool due = !sameCues || m_model.live().isProgressTick();
        if (due && progress->data(kShownRole).toString() != shown) {
            progress->setData(kShownRole, shown);
            progress->setData(kProgressRole, row.progress);
            progress->setData(kPositionRole, row.position ? QVariant(*row.position) : QVariant());
            progress->setData(kDurationRole, row.duration);
        }
        if (!sameCues) {
            auto* stop = new QPushButton(QStringLiteral("停止"), this);
            stop->setFocusPolicy(Qt::NoFocus);
            const std::int64_t id = row.id;
            connect(stop, &QPushButton::clicked, this, [this, id] { m_model.stopCue(id); });
            setCellWidget(r, stopColumn, stop);
        }
    }
}

QString CueListView::shownProgress(const CueRow& row) const {
    const double width = std::max(columnWidth(progressColumn) - 8, 1);
    const double fraction = std::clamp(row.position ? *row.position : row.progress, 0.0, 1.0);
    const QString text = row.position ? clock(fraction * row.duration) + " / " + clock(row.duration)
                                      : QString::number(std::lround(row.progress * 100));
    return QString::number(std::lround(fraction * width)) + QLatin1Char('|') + text;
}

void CueListView::seekAt(const QPoint& point) {
    const QModelIndex index = indexAt(point);
    if (!index.isValid() || index.column() != progressColumn ||
        !index.data(kPositionRole).isValid() || index.row() >= static_cast<int>(m_listed.size()))
        return;
    const QRect bar = visualRect(index).adjusted(4, 0, -4, 0);
    const double fraction = static_cast<double>(point.x() - bar.left()) / std::max(bar.width(), 1);
    m_model.seek(m_listed[static_cast<std::size_t>(index.row())], std::clamp(fraction, 0.0, 1.0));
}

void CueListView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton)
        seekAt(event->position().toPoint());
}

void CueListView::mouseMoveEvent(QMouseEvent* event) {
    if (event->buttons() & Qt::LeftButton)
        seekAt(event->position().toPoint());
}
