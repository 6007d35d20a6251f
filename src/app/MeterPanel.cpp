#include "app/MeterPanel.h"

#include <algorithm>
#include <cmath>

#include <QButtonGroup>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>

#include "cue/AppModel.h"
#include "model/KeyboardLayout.h"
#include "model/Prefs.h"

// The bars themselves: painted, since 64 outputs of widgets would not fit. The live state
// publishes meters 30 times a second; a bar is repainted only when its lit height moved by a
// pixel, so silence costs nothing and a steady tone little.
class MeterBars : public QWidget {
public:
    static constexpr int kLabelHeight = 18;

    MeterBars(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
        setFocusPolicy(Qt::NoFocus);
        setMinimumSize(160, 100); // bars of 74 pixels and their channel numbers
        connect(&model.live(), &LiveState::metersChanged, this, [this] {
            if (!sources)
                levelsChanged(m_model.live().meters());
        });
        connect(&model.live(), &LiveState::sourceMetersChanged, this, [this] {
            if (sources)
                sourceLevelsChanged();
        });
        connect(&model, &AppModel::mixSettingsChanged, this, &MeterBars::redrawAll);
    }

    bool sources = false;

    void redrawAll() {
        m_shown.clear();
        m_shownSources.clear();
        update();
    }

    QRect muteRect(int channel) const {
        const int count = static_cast<int>(m_model.live().meters().size());
        if (channel < 0 || channel >= count)
            return {};
        const double w = static_cast<double>(width()) / count;
        return QRectF(channel * w + 1, height() - kLabelHeight, w - 2, kLabelHeight).toRect();
    }

protected:
    void paintEvent(QPaintEvent* event) override {
        QPainter p(this);
        p.fillRect(event->rect(), QColor(24, 25, 28));
        if (sources)
            paintSources(p);
        else
            paintOutputs(p, event->region());
    }

    void resizeEvent(QResizeEvent*) override { redrawAll(); }

    void mousePressEvent(QMouseEvent* event) override {
        if (sources)
            return;
        const int count = static_cast<int>(m_model.live().meters().size());
        for (int c = 0; c < count; ++c)
            if (muteRect(c).contains(event->position().toPoint())) {
                auto muted = m_model.mutedOutputs();
                if (!muted.erase(c))
                    muted.insert(c);
                m_model.setMutedOutputs(muted);
                return;
            }
    }

private:
    static double decibels(float level) { return level > 1e-6f ? 20.0 * std::log10(level) : -60.0; }

    // How many pixels of a bar of `height` a level lights.
    static int litPixels(double height, float level) {
        return static_cast<int>(
            std::lround(height * std::clamp((decibels(level) + 60.0) / 60.0, 0.0, 1.0)));
    }

    QRectF barArea(int channel, int count) const {
        const double w = static_cast<double>(width()) / count;
        const double gap = w > 8 ? 2 : 0.5;
        return QRectF(channel * w + gap, 4, w - 2 * gap, height() - kLabelHeight - 8);
    }

    void levelsChanged(const std::vector<float>& meters) {
        const int count = static_cast<int>(meters.size());
        if (m_shown.size() != meters.size()) {
            m_shown.assign(meters.size(), -1);
            update();
        }
        for (int c = 0; c < count; ++c) {
            const QRectF area = barArea(c, count);
            const int lit = litPixels(area.height(), meters[static_cast<std::size_t>(c)]);
            if (lit != m_shown[static_cast<std::size_t>(c)]) {
                m_shown[static_cast<std::size_t>(c)] = lit;
                update(area.toAlignedRect());
            }
        }
    }

    // Source bars come and go with the playing keys; the whole view is redrawn when any of
    // them moved by a pixel.
    void sourceLevelsChanged() {
        std::vector<int> lit;
        const double height = this->height() - kLabelHeight - 8;
        for (const auto& [code, levels] : m_model.live().sourceMeters()) {
            lit.push_back(-static_cast<int>(code) - 1);
            for (float level : levels)
                lit.push_back(litPixels(height, level));
        }
        if (lit != m_shownSources) {
            m_shownSources = std::move(lit);
            update();
        }
    }

    // −60 … 0 dB over the height, lit in three zones as on a desk: green below −18 dB, yellow up
    // to −3 dB, red above.
    static void bar(QPainter& p, const QRectF& area, float level) {
        const double db = decibels(level);
        const auto heightAt = [&area](double dB) {
            return area.height() * std::clamp((dB + 60.0) / 60.0, 0.0, 1.0);
        };
        p.fillRect(area, QColor(40, 42, 46));
        const std::pair<double, QColor> zones[] = {{-18.0, QColor(80, 200, 110)},
                                                   {-3.0, QColor(230, 200, 60)},
                                                   {0.0, QColor(220, 60, 50)}};
        double from = -60.0;
        for (const auto& [to, colour] : zones) {
            const double top = std::min(db, to);
            if (top > from)
                p.fillRect(QRectF(area.left(), area.bottom() - heightAt(top), area.width(),
                                  heightAt(top) - heightAt(from)),
                           colour);
            from = to;
        }
    }

    void paintOutputs(QPainter& p, const QRegion& region) {
        const auto& meters = m_model.live().meters();
        if (meters.empty())
            return;
        const int count = static_cast<int>(meters.size());
        const double w = static_cast<double>(width()) / count;
        QFont small = font();
        small.setPixelSize(count > 16 ? 9 : 12);
        p.setFont(small);
        const auto& muted = m_model.mutedOutputs();
        const auto tone = m_model.toneChannel();
        for (int c = 0; c < count; ++c) {
            if (!region.intersects(QRectF(c * w, 0, w, height()).toAlignedRect()))
                continue;
            bar(p, barArea(c, count), meters[static_cast<std::size_t>(c)]);
            const QRect mute = muteRect(c);
            const bool isMuted = muted.count(c) > 0;
            p.fillRect(mute, isMuted ? QColor(200, 50, 50) : QColor(58, 60, 66));
            p.setPen(isMuted ? Qt::white : QColor(190, 190, 195));
            const bool everyLabel = w >= 14;
            if (everyLabel || c % 4 == 0 || isMuted)
                p.drawText(mute, Qt::AlignCenter,
                           isMuted && w >= 22 ? QStringLiteral("M%1").arg(c + 1)
                                              : QString::number(c + 1));
            if (tone && *tone == c) { // a marker over the output the tone goes to
                p.setPen(QPen(QColor(255, 210, 80), 2));
                p.drawLine(QPointF(c * w + 2, 2), QPointF((c + 1) * w - 2, 2));
            }
        }
    }

    void paintSources(QPainter& p) {
        const auto& keys = m_model.live().sourceMeters();
        p.setPen(QColor(170, 170, 175));
        if (keys.empty()) {
            p.drawText(rect(), Qt::AlignCenter | Qt::TextWordWrap,
                       QStringLiteral("このページで鳴っているキーはありません"));
            return;
        }
        std::size_t columns = 0;
        for (const auto& [code, levels] : keys)
            columns += std::max<std::size_t>(levels.size(), 1) + 1; // a gap after each key
        const double w = static_cast<double>(width()) / static_cast<double>(columns);
        double x = 0;
        for (const auto& [code, levels] : keys) {
            const double groupWidth =
                w * static_cast<double>(std::max<std::size_t>(levels.size(), 1));
            for (std::size_t s = 0; s < levels.size(); ++s)
                bar(p, QRectF(x + s * w + 1, 4, w - 2, height() - kLabelHeight - 8), levels[s]);
            p.setPen(QColor(190, 190, 195));
            p.drawText(QRectF(x, height() - kLabelHeight, groupWidth, kLabelHeight),
                       Qt::AlignCenter, KeyboardLayout::label(code));
            x += groupWidth + w;
        }
    }

    AppModel& m_model;
    std::vector<int> m_shown;        // lit pixels of each output bar as last drawn
    std::vector<int> m_shownSources; // key codes and lit pixels of the source bars
};

MeterPanel::MeterPanel(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    auto* modes = new QHBoxLayout;
    modes->addWidget(new QLabel(QStringLiteral("メーター"), this));
    m_sourceMode = new QPushButton(QStringLiteral("素材"), this);
    m_outputMode = new QPushButton(QStringLiteral("出力"), this);
    auto* group = new QButtonGroup(this);
    for (QPushButton* button : {m_sourceMode, m_outputMode}) {
        button->setCheckable(true);
        button->setFocusPolicy(Qt::NoFocus);
        group->addButton(button);
        modes->addWidget(button);
    }
    column->addLayout(modes);
    m_bars = new MeterBars(model, this);
    column->addWidget(m_bars, 1);
    auto* toneRow = new QHBoxLayout;
    toneRow->addWidget(new QLabel(QStringLiteral("テストトーン"), this));
    m_tone = new QComboBox(this);
    m_tone->setFocusPolicy(Qt::NoFocus);
    toneRow->addWidget(m_tone, 1);
    column->addLayout(toneRow);

    connect(m_sourceMode, &QPushButton::clicked, this, [this] { setShowsSources(true); });
    connect(m_outputMode, &QPushButton::clicked, this, [this] { setShowsSources(false); });
    m_bars->sources = Prefs::value(Prefs::kMeterMode).toString() == QStringLiteral("source");
    m_sourceMode->setChecked(m_bars->sources);
    m_outputMode->setChecked(!m_bars->sources);
    connect(m_tone, &QComboBox::activated, this, [this](int) {
        const QVariant channel = m_tone->currentData();
        m_model.setToneChannel(channel.isValid() ? std::optional<std::int64_t>(channel.toLongLong())
                                                 : std::nullopt);
    });
    connect(&model, &AppModel::audioDeviceChanged, this, &MeterPanel::refreshTone);
    connect(&model, &AppModel::mixSettingsChanged, this, &MeterPanel::showToneChoice);
    refreshTone();
}

bool MeterPanel::showsSources() const {
    return m_bars->sources;
}

void MeterPanel::setShowsSources(bool sources) {
    m_bars->sources = sources;
    m_sourceMode->setChecked(sources);
    m_outputMode->setChecked(!sources);
    Prefs::setValue(Prefs::kMeterMode,
                    sources ? QStringLiteral("source") : QStringLiteral("output"));
    m_bars->redrawAll();
}

QRect MeterPanel::muteRect(int channel) const {
    return m_bars->muteRect(channel).translated(m_bars->pos());
}

void MeterPanel::refreshTone() {
    // The tone goes to the device's real outputs only: outputs past them reach no speaker.
    const auto outputs = std::clamp<std::int64_t>(m_model.cueEngine().outputChannelCount(), 1, 64);
    m_tone->clear();
    m_tone->addItem(QStringLiteral("オフ"));
    for (std::int64_t c = 0; c < outputs; ++c)
        m_tone->addItem(QStringLiteral("出力 %1（1 kHz）").arg(c + 1), QVariant::fromValue(c));
    showToneChoice();
}

void MeterPanel::showToneChoice() {
    const auto tone = m_model.toneChannel();
    m_tone->setCurrentIndex(tone && *tone < m_tone->count() - 1 ? static_cast<int>(*tone) + 1 : 0);
}
