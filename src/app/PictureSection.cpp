#include "app/PictureSection.h"

#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QRegularExpression>
#include <QSpinBox>

#include "app/NumberField.h"
#include "model/ValueRanges.h"

PictureSection::PictureSection(AppModel& model, QWidget* parent)
    : DetailSection(QStringLiteral("映像とスライド"), model, parent) {
    auto* grid = new QGridLayout(this);
    auto label = [this](const QString& text) { return new QLabel(text, this); };
    auto check = [this](const QString& text) { return unfocusable(new QCheckBox(text, this)); };
    m_showVideo = check(QStringLiteral("映像を表示"));
    bind<bool>(m_showVideo, &QCheckBox::toggled, &KeyAssignment::showVideo);
    m_layer = new QSpinBox(this);
    m_layer->setRange(0, ValueRanges::kMaxLayer);
    NumberField::releaseKeysOnEnter(m_layer);
    bind<int>(m_layer, &QSpinBox::valueChanged, &KeyAssignment::layer);
    m_screens = new QLineEdit(this);
    m_screens->setFocusPolicy(Qt::ClickFocus);
    m_screens->setPlaceholderText(QStringLiteral("すべての出力"));
    onCommit(m_screens, [this](const QString& text) {
        QStringList ids;
        for (const QString& part : text.split(QRegularExpression("[,、\\s]+"), Qt::SkipEmptyParts))
            ids << part;
        edit([&](KeyAssignment& a) {
            a.screens = ids.isEmpty() ? std::nullopt : std::optional<QStringList>(ids);
        });
    });
    m_clickToTake = check(QStringLiteral("クリックで即切り替え"));
    bind<bool>(m_clickToTake, &QCheckBox::toggled, &KeyAssignment::clickToTake);
    m_slideAuto = check(QStringLiteral("自動送り"));
    bind<bool>(m_slideAuto, &QCheckBox::toggled, &KeyAssignment::slideAuto);
    m_slideInterval = seconds(ValueRanges::kMaxSlideInterval);
    bind<double>(m_slideInterval, &QDoubleSpinBox::valueChanged, &KeyAssignment::slideInterval);
    m_slideLoop = check(QStringLiteral("最後から最初へ"));
    bind<bool>(m_slideLoop, &QCheckBox::toggled, &KeyAssignment::slideLoop);
    m_slideTransition = seconds(ValueRanges::kMaxTransition);
    bind<double>(m_slideTransition, &QDoubleSpinBox::valueChanged, &KeyAssignment::slideTransition);
    grid->addWidget(m_showVideo, 0, 0);
    grid->addWidget(label(QStringLiteral("レイヤー")), 0, 2, Qt::AlignRight);
    grid->addWidget(m_layer, 0, 3);
    grid->addWidget(label(QStringLiteral("出力先の画面")), 1, 0);
    grid->addWidget(m_screens, 1, 1, 1, 3);
    grid->addWidget(label(QStringLiteral("スライド")), 2, 0);
    grid->addWidget(m_slideAuto, 2, 1);
    grid->addWidget(label(QStringLiteral("間隔")), 2, 2, Qt::AlignRight);
    grid->addWidget(m_slideInterval, 2, 3);
    grid->addWidget(m_slideLoop, 3, 1);
    grid->addWidget(label(QStringLiteral("切替")), 3, 2, Qt::AlignRight);
    grid->addWidget(m_slideTransition, 3, 3);
    grid->addWidget(m_clickToTake, 4, 1, 1, 3);
    grid->setRowStretch(5, 1);
}

void PictureSection::show(const KeyAssignment& a, const MediaInfo*) {
    m_showVideo->setChecked(a.showVideo);
    showValue(m_layer, static_cast<int>(a.layer));
    showValue(m_screens, a.screens ? a.screens->join(QStringLiteral(", ")) : QString());
    m_clickToTake->setChecked(a.clickToTake);
    m_slideAuto->setChecked(a.slideAuto);
    showValue(m_slideInterval, a.slideInterval);
    m_slideLoop->setChecked(a.slideLoop);
    showValue(m_slideTransition, a.slideTransition);
}
