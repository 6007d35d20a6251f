#include "app/KeyboardView.h"

#include <algorithm>
#include <cmath>

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileInfo>
#include <QGuiApplication>
#include <QHelpEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QPainterPath>
#include <QTextLayout>
#include <QToolTip>

#include "cue/AppModel.h"
#include "model/KeyPalette.h"

namespace {

// A key's name in its cell: broken between words where it can be (anywhere in a word too long
// for a line), as many lines as the cell holds, the last one ending in "…" when the name goes
// on. Centred vertically, as the cell's text was.
void drawName(QPainter& p, const QRectF& area, const QString& name) {
    const QFontMetricsF metrics(p.font());
    QTextLayout layout(name, p.font());
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    const int fitting = std::max(1, static_cast<int>(area.height() / metrics.lineSpacing()));
    QStringList lines;
    layout.beginLayout();
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        line.setLineWidth(area.width());
        if (lines.size() == fitting - 1) {
            // The last line that fits takes the rest of the name, cut if it must be.
            lines << metrics.elidedText(name.mid(line.textStart()).simplified(), Qt::ElideRight,
                                        area.width());
            break;
        }
        lines << name.mid(line.textStart(), line.textLength()).trimmed();
    }
    layout.endLayout();
    const double height = lines.size() * metrics.lineSpacing();
    double y = area.top() + std::max(0.0, (area.height() - height) / 2);
    for (const QString& line : lines) {
        p.drawText(QRectF(area.left(), y, area.width(), metrics.lineSpacing()),
                   Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine, line);
        y += metrics.lineSpacing();
    }
}

} // namespace

KeyboardView::KeyboardView(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    setFocusPolicy(Qt::NoFocus);
    setAcceptDrops(true);
    setMinimumSize(620, 260); // beside the meters in the smallest window (980 wide)
    // Progress and lit keys change with the tick: only the cells whose drawing changes are
    // repainted. Assignments and the selection change with edits: everything is.
    connect(&model.live(), &LiveState::progressChanged, this, [this] { liveChanged(false); });
    connect(&model.live(), &LiveState::cuesChanged, this, [this] { liveChanged(false); });
    connect(&model, &AppModel::assignmentsChanged, this, [this] { liveChanged(true); });
    connect(&model.cueEngine(), &CueEngine::selectedKeyChanged, this,
            [this] { liveChanged(true); });
    connect(&model.media(), &MediaLoader::mediaChanged, this, [this] { update(); });
    // A file deleted or unplugged meanwhile is noticed when the operator comes back to the
    // window, and with every change of the show (an opened show included).
    connect(qApp, &QGuiApplication::applicationStateChanged, this,
            [this](Qt::ApplicationState state) {
                if (state == Qt::ApplicationActive)
                    checkFilesOnDisk();
            });
    connect(&model, &AppModel::assignmentsChanged, this, &KeyboardView::checkFilesOnDisk);
}

QString KeyboardView::mediaState(KeyCode code) const {
    const auto& keys = m_model.document().assignments;
    const auto key = keys.find(code);
    if (key == keys.end())
        return {};
    const auto& table = m_model.media().table();
    const auto info = table.find(key->second.mediaKey());
    if (info != table.end()) {
        if (info->second.loading)
            return info->second.progressText.isEmpty() ? QStringLiteral("読み込み中…")
                                                       : info->second.progressText;
        if (info->second.error)
            return *info->second.error;
    }
    if (m_gone.count(key->second.path))
        return QStringLiteral("ファイルが見つかりません（読み込んだ音で再生します）: ") +
               key->second.path;
    if (info != table.end() && info->second.warning)
        return *info->second.warning;
    return {};
}

void KeyboardView::checkFilesOnDisk() {
    std::set<QString> gone;
    for (const auto& [code, assignment] : m_model.document().assignments)
        if (!assignment.path.isEmpty() && !QFileInfo::exists(assignment.path))
            gone.insert(assignment.path);
    if (gone != m_gone) {
        m_gone = std::move(gone);
        update();
    }
}

bool KeyboardView::event(QEvent* event) {
    if (event->type() == QEvent::ToolTip) {
        const auto* help = static_cast<QHelpEvent*>(event);
        const KeySpec* spec = cellAt(help->pos());
        const QString state =
            spec && spec->kind == KeySpec::Kind::key ? mediaState(spec->code) : QString();
        if (state.isEmpty())
            QToolTip::hideText();
        else
            QToolTip::showText(help->globalPos(), state, this);
        return true;
    }
    return QWidget::event(event);
}

KeyboardView::LiveLook KeyboardView::lookOf(const Cell& cell) const {
    const KeyCode code = cell.spec->code;
    if (!m_model.document().assignments.count(code) || !m_model.isRunning(code))
        return {};
    const auto& progress = m_model.live().progress();
    const double done = progress.count(code) ? std::clamp(progress.at(code), 0.0, 1.0) : 0.0;
    return {true, static_cast<int>(std::lround(progressWidth(cell) * done))};
}

double KeyboardView::progressWidth(const Cell& cell) {
    return cell.rect.width() - 4 - 8; // the cell's inset, then the bar's
}

void KeyboardView::liveChanged(bool everything) {
    if (m_cells.empty())
        layoutCells();
    const bool progressTick = m_model.live().isProgressTick();
    for (const Cell& cell : m_cells) {
        if (cell.spec->kind != KeySpec::Kind::key)
            continue;
        const LiveLook look = lookOf(cell);
        LiveLook& shown = m_shown[cell.spec->code];
        if (look == shown)
            continue;
        // Lit or unlit at once; a bar that only grew waits for the next progress tick.
        if (!everything && look.running == shown.running && !progressTick)
            continue;
        if (!everything)
            update(cell.rect.toAlignedRect().adjusted(-1, -1, 1, 1));
        shown = look;
    }
    if (everything)
        update();
}

void KeyboardView::resizeEvent(QResizeEvent*) {
    layoutCells();
}

void KeyboardView::layoutCells() {
    m_cells.clear();
    const auto& rows = KeyboardLayout::rows();
    double widest = 0.0;
    for (const KeyRow& row : rows) {
        double w = 0.0;
        for (const KeySpec& spec : row.keys)
            w += spec.width;
        widest = std::max(widest, w);
    }
    const double unit = std::min(width() / widest, height() / KeyboardLayout::unitsHigh());
    double y = 0.0;
    for (const KeyRow& row : rows) {
        double x = 0.0;
        for (const KeySpec& spec : row.keys) {
            m_cells.push_back(
                {&spec, QRectF(x * unit, y * unit, spec.width * unit, row.height * unit)});
            x += spec.width;
        }
        y += row.height;
    }
}

const KeySpec* KeyboardView::cellAt(const QPointF& point) const {
    for (const Cell& cell : m_cells)
        if (cell.rect.contains(point) &&
            (cell.spec->kind == KeySpec::Kind::key || cell.spec->kind == KeySpec::Kind::stopAll))
            return cell.spec;
    return nullptr;
}

QRectF KeyboardView::cellRect(KeyCode code) const {
    for (const Cell& cell : m_cells)
        if (cell.spec->kind == KeySpec::Kind::key && cell.spec->code == code)
            return cell.rect;
    return {};
}

void KeyboardView::paintEvent(QPaintEvent* event) {
    if (m_cells.empty())
        layoutCells();
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(event->rect(), QColor(30, 31, 34));
    const auto& keys = m_model.document().assignments;
    const auto& progress = m_model.live().progress();
    const auto selected = m_model.document().selectedKey;
    for (const Cell& cell : m_cells) {
        const KeySpec& spec = *cell.spec;
        if (spec.kind == KeySpec::Kind::gap ||
            !event->region().intersects(cell.rect.toAlignedRect()))
            continue;
        const QRectF r = cell.rect.adjusted(2, 2, -2, -2);
        QColor fill(58, 60, 66);
        QString name;
        const bool assigned = spec.kind == KeySpec::Kind::key && keys.count(spec.code);
        if (spec.kind == KeySpec::Kind::stopAll)
            fill = QColor(150, 40, 40);
        else if (spec.kind == KeySpec::Kind::pad)
            fill = QColor(44, 45, 50);
        if (assigned) {
            const auto c = KeyPalette::colorFor(keys.at(spec.code).colorIndex);
            fill = QColor::fromRgbF(c.red, c.green, c.blue);
            name = keys.at(spec.code).displayName();
        }
        const bool running = assigned && m_model.isRunning(spec.code);
        if (running)
            fill = fill.lighter(160);
        // Light cells (pale palette colours, lit keys) get dark ink so names stay readable.
        const double luma = 0.299 * fill.redF() + 0.587 * fill.greenF() + 0.114 * fill.blueF();
        const QColor ink = luma > 0.6 ? QColor(25, 25, 28) : QColor(235, 235, 240);
        QPainterPath path;
        path.addRoundedRect(r, 5, 5);
        p.fillPath(path, fill);
        if (running) {
            // Readable from a distance: a white frame and a thick progress bar.
            p.setPen(QPen(Qt::white, 2.0));
            p.drawPath(path);
            const double done =
                progress.count(spec.code) ? std::clamp(progress.at(spec.code), 0.0, 1.0) : 0.0;
            const double bar = progressWidth(cell);
            p.fillRect(QRectF(r.left() + 4, r.bottom() - 9, bar, 5), fill.darker(170));
            p.fillRect(QRectF(r.left() + 4, r.bottom() - 9, std::round(bar * done), 5), ink);
        }
        if (selected && spec.kind == KeySpec::Kind::key && *selected == spec.code) {
            p.setPen(QPen(QColor(255, 214, 10), 2.5));
            p.drawPath(path);
        }
        p.setPen(spec.kind == KeySpec::Kind::pad ? QColor(120, 120, 125) : ink);
        QFont font = p.font();
        font.setPixelSize(std::max(9, static_cast<int>(r.height() * 0.2)));
        font.setBold(true);
        p.setFont(font);
        const QRectF labelArea = r.adjusted(5, 3, -5, -3);
        p.drawText(labelArea, Qt::AlignLeft | Qt::AlignTop,
                   QFontMetricsF(font).elidedText(spec.label, Qt::ElideRight, labelArea.width()));
        // The MIDI message bound to the key, in the top right corner.
        for (const MidiBinding& binding : m_model.document().midiBindings) {
            if (spec.kind != KeySpec::Kind::key || binding.action != MidiBinding::Action::key ||
                binding.key != spec.code)
                continue;
            QFont small = font;
            small.setBold(false);
            small.setPixelSize(std::max(8, static_cast<int>(r.height() * 0.15)));
            p.setFont(small);
            p.drawText(r.adjusted(5, 3, -5, -3), Qt::AlignRight | Qt::AlignTop, binding.label());
            p.setFont(font);
            break;
        }
        if (assigned)
            drawMediaMark(p, r, spec.code);
        if (!name.isEmpty()) {
            font.setBold(false);
            font.setPixelSize(std::max(9, static_cast<int>(r.height() * 0.17)));
            p.setFont(font);
            drawName(p, r.adjusted(5, r.height() * 0.3, -5, -8), name);
        }
    }
}

// Bottom right of a cell: a red disc with a white bar for media that cannot play, an amber
// triangle for damaged data or a file gone from disk, and the progress text while loading.
// Shapes, not glyphs: every font draws them.
void KeyboardView::drawMediaMark(QPainter& p, const QRectF& r, KeyCode code) const {
    const QString state = mediaState(code);
    if (state.isEmpty())
        return;
    const auto& table = m_model.media().table();
    const auto info = table.find(m_model.document().assignments.at(code).mediaKey());
    const double size = std::max(10.0, r.height() * 0.22);
    const QRectF mark(r.right() - size - 5, r.bottom() - size - 12, size, size);
    p.save();
    if (info != table.end() && info->second.loading) {
        QFont small = p.font();
        small.setBold(false);
        small.setItalic(true);
        small.setPixelSize(std::max(8, static_cast<int>(r.height() * 0.14)));
        p.setFont(small);
        p.setPen(QColor(250, 250, 250));
        p.drawText(r.adjusted(5, 0, -5, -12), Qt::AlignLeft | Qt::AlignBottom,
                   QFontMetrics(small).elidedText(state, Qt::ElideRight,
                                                  static_cast<int>(r.width() - 10)));
    } else if (info != table.end() && info->second.error) {
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(210, 30, 30));
        p.drawEllipse(mark);
        p.fillRect(QRectF(mark.left() + size * 0.2, mark.center().y() - size * 0.09, size * 0.6,
                          size * 0.18),
                   Qt::white);
    } else {
        QPainterPath triangle;
        triangle.moveTo(mark.center().x(), mark.top());
        triangle.lineTo(mark.right(), mark.bottom());
        triangle.lineTo(mark.left(), mark.bottom());
        triangle.closeSubpath();
        p.fillPath(triangle, QColor(245, 170, 20));
        p.fillRect(QRectF(mark.center().x() - size * 0.06, mark.top() + size * 0.35, size * 0.12,
                          size * 0.35),
                   QColor(30, 30, 30));
    }
    p.restore();
}

void KeyboardView::mousePressEvent(QMouseEvent* event) {
    const KeySpec* spec = cellAt(event->position());
    if (!spec)
        return;
    if (spec->kind == KeySpec::Kind::stopAll) {
        m_model.stopAll(false);
        return;
    }
    m_model.document().selectedKey = spec->code;
    emit m_model.cueEngine().selectedKeyChanged();
}

void KeyboardView::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls())
        event->acceptProposedAction();
}

void KeyboardView::dropEvent(QDropEvent* event) {
    const KeySpec* spec = cellAt(event->position());
    if (!spec || spec->kind != KeySpec::Kind::key)
        return;
    QStringList files;
    for (const QUrl& url : event->mimeData()->urls())
        if (url.isLocalFile())
            files << url.toLocalFile();
    m_model.editor().place(files, spec->code);
    event->acceptProposedAction();
    update();
}
