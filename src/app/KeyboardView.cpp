#include "app/KeyboardView.h"

#include <algorithm>
#include <cmath>

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QPainterPath>

#include "app/RedrawPace.h"
#include "cue/AppModel.h"
#include "model/KeyPalette.h"

KeyboardView::KeyboardView(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    setFocusPolicy(Qt::NoFocus);
    setAcceptDrops(true);
    setMinimumSize(700, 260);
    // Progress and lit keys change with the tick: only the cells whose drawing changes are
    // repainted. Assignments and the selection change with edits: everything is.
    connect(&model.live(), &LiveState::progressChanged, this, [this] { liveChanged(false); });
    connect(&model.live(), &LiveState::cuesChanged, this, [this] { liveChanged(false); });
    connect(&model, &AppModel::assignmentsChanged, this, [this] { liveChanged(true); });
    connect(&model.cueEngine(), &CueEngine::selectedKeyChanged, this,
            [this] { liveChanged(true); });
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
    const bool progressTick = RedrawPace::isProgressTick(m_model.live());
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
        p.drawText(r.adjusted(5, 3, -5, -3), Qt::AlignLeft | Qt::AlignTop, spec.label);
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
        if (!name.isEmpty()) {
            font.setBold(false);
            font.setPixelSize(std::max(9, static_cast<int>(r.height() * 0.17)));
            p.setFont(font);
            p.drawText(r.adjusted(5, r.height() * 0.3, -5, -8),
                       Qt::AlignLeft | Qt::AlignVCenter | Qt::TextWordWrap, name);
        }
    }
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
