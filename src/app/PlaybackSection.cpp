#include "app/PlaybackSection.h"

#include <cmath>

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QGridLayout>
#include <QLabel>
#include <QSpinBox>

#include "app/Choices.h"
#include "app/NumberField.h"
#include "model/ValueRanges.h"

namespace {

constexpr double kMinDb = -60.0; // shown as −∞: the key is silent
constexpr double kMaxDb = 12.0;

double toDb(double linear) {
    return linear <= 0.0 ? kMinDb : std::clamp(20.0 * std::log10(linear), kMinDb, kMaxDb);
}

double fromDb(double db) {
    return db <= kMinDb ? 0.0 : std::pow(10.0, db / 20.0);
}

int indexOfName(const Choices::List& list, const QString& name) {
    for (int i = 0; i < list.size(); ++i)
        if (list[i].second == name)
            return i;
    return 0;
}

} // namespace

PlaybackSection::PlaybackSection(AppModel& model, QWidget* parent)
    : DetailSection(QStringLiteral("再生"), model, parent) {
    auto* play = new QGridLayout(this);
    auto label = [this](const QString& text) { return new QLabel(text, this); };
    auto choice = [this](const Choices::List& list) {
        auto* box = unfocusable(new QComboBox(this));
        for (const auto& [text, name] : list)
            box->addItem(text, name);
        return box;
    };
    m_mode = choice(Choices::modes());
    m_mode->setObjectName("mode");
    connect(m_mode, &QComboBox::activated, this, [this](int i) {
        edit([&](KeyAssignment& a) {
            a.mode = parseKeyMode(Choices::modes()[i].second).value_or(KeyMode::toggle);
        });
    });
    m_onNext = choice(Choices::onNext());
    connect(m_onNext, &QComboBox::activated, this, [this](int i) {
        edit([&](KeyAssignment& a) {
            a.onNext = parseNextBehavior(Choices::onNext()[i].second).value_or(NextBehavior::keep);
        });
    });
    m_fadeIn = seconds(ValueRanges::kMaxFade);
    m_fadeIn->setObjectName("fadeIn");
    bind<double>(m_fadeIn, &QDoubleSpinBox::valueChanged, &KeyAssignment::fadeIn);
    m_fadeOut = seconds(ValueRanges::kMaxFade);
    m_fadeOut->setObjectName("fadeOut");
    bind<double>(m_fadeOut, &QDoubleSpinBox::valueChanged, &KeyAssignment::fadeOut);
    m_volumeDb = new QDoubleSpinBox(this);
    m_volumeDb->setObjectName("volumeDb");
    m_volumeDb->setRange(kMinDb, kMaxDb);
    m_volumeDb->setDecimals(1);
    m_volumeDb->setSingleStep(1.0);
    m_volumeDb->setSuffix(QStringLiteral(" dB"));
    m_volumeDb->setSpecialValueText(QStringLiteral("−∞ dB"));
    NumberField::releaseKeysOnEnter(m_volumeDb);
    connect(m_volumeDb, &QDoubleSpinBox::valueChanged, this,
            [this](double db) { edit([&](KeyAssignment& a) { a.volume = fromDb(db); }); });
    m_volume = new QDoubleSpinBox(this);
    m_volume->setObjectName("volume");
    m_volume->setRange(0.0, ValueRanges::kMaxVolume);
    m_volume->setDecimals(3);
    m_volume->setSingleStep(0.05);
    m_volume->setPrefix(QStringLiteral("× "));
    NumberField::releaseKeysOnEnter(m_volume);
    bind<double>(m_volume, &QDoubleSpinBox::valueChanged, &KeyAssignment::volume);
    m_loop = unfocusable(new QCheckBox(QStringLiteral("ループ"), this));
    m_loop->setObjectName("loop");
    bind<bool>(m_loop, &QCheckBox::toggled, &KeyAssignment::loop);
    m_group = new QSpinBox(this);
    m_group->setRange(0, ValueRanges::kMaxGroup);
    NumberField::releaseKeysOnEnter(m_group);
    bind<int>(m_group, &QSpinBox::valueChanged, &KeyAssignment::group);
    play->addWidget(label(QStringLiteral("モード")), 0, 0);
    play->addWidget(m_mode, 0, 1, 1, 3);
    play->addWidget(label(QStringLiteral("次の素材が流れたら")), 1, 0);
    play->addWidget(m_onNext, 1, 1, 1, 2);
    play->addWidget(label(QStringLiteral("グループ")), 2, 0);
    play->addWidget(m_group, 2, 1);
    play->addWidget(m_loop, 2, 2, 1, 2);
    play->addWidget(label(QStringLiteral("フェード IN")), 3, 0);
    play->addWidget(m_fadeIn, 3, 1);
    play->addWidget(label(QStringLiteral("OUT")), 3, 2, Qt::AlignRight);
    play->addWidget(m_fadeOut, 3, 3);
    play->addWidget(label(QStringLiteral("音量")), 4, 0);
    play->addWidget(m_volumeDb, 4, 1);
    play->addWidget(m_volume, 4, 2, 1, 2);
    play->setRowStretch(5, 1);
}

void PlaybackSection::show(const KeyAssignment& a, const MediaInfo*) {
    m_mode->setCurrentIndex(indexOfName(Choices::modes(), keyModeName(a.mode)));
    m_onNext->setCurrentIndex(indexOfName(Choices::onNext(), nextBehaviorName(a.onNext)));
    showValue(m_fadeIn, a.fadeIn);
    showValue(m_fadeOut, a.fadeOut);
    showValue(m_volumeDb, toDb(a.volume));
    showValue(m_volume, a.volume);
    m_loop->setChecked(a.loop);
    showValue(m_group, static_cast<int>(a.group));
}
