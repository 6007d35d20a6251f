#include "app/RoutingSection.h"

#include <QComboBox>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

#include "app/RoutingMatrixView.h"
#include "audio/Routing.h"
#include "cue/AppModel.h"

namespace {

const QString kAutomatic = QStringLiteral("自動（例: 3、1-4、1,3 5）");

} // namespace

const QList<QPair<QString, QString>>& RoutingSection::quickRoutings() {
    static const QList<QPair<QString, QString>> list{
        {QStringLiteral("自動"), QString()}, {QStringLiteral("1-2"), "1-2"},
        {QStringLiteral("3-4"), "3-4"},      {QStringLiteral("5-6"), "5-6"},
        {QStringLiteral("7-8"), "7-8"},      {QStringLiteral("1 だけ"), "1"},
        {QStringLiteral("2 だけ"), "2"},     {QStringLiteral("1-8 すべて"), "1-8"}};
    return list;
}

RoutingSection::RoutingSection(AppModel& model, QWidget* parent)
    : DetailSection(QStringLiteral("ルーティング"), model, parent) {
    auto* route = new QGridLayout(this);
    m_outputMap = new QLineEdit(this);
    m_outputMap->setObjectName("outputMap");
    m_outputMap->setFocusPolicy(Qt::ClickFocus);
    m_outputMap->setPlaceholderText(kAutomatic);
    onCommit(m_outputMap, [this](const QString& text) {
        const KeyAssignment* a = selectedAssignment();
        if (a && (a->matrix || a->outputMap != text))
            m_model.setRouting(*selectedCode(), std::nullopt, text);
    });
    m_quick = unfocusable(new QComboBox(this));
    m_quick->addItem(QStringLiteral("よく使う…"));
    for (const auto& [text, map] : quickRoutings())
        m_quick->addItem(text, map);
    connect(m_quick, &QComboBox::activated, this, [this](int i) {
        if (i > 0 && selectedCode())
            m_model.applyQuickRouting(*selectedCode(), m_quick->itemData(i).toString());
        m_quick->setCurrentIndex(0);
    });
    m_matrix = new RoutingMatrixView(this);
    m_matrix->onToggle = [this](std::int64_t source, std::int64_t output) {
        if (const auto code = selectedCode())
            m_model.toggleRoute(*code, source, output);
    };
    m_describe = new QLabel(this);
    m_describe->setWordWrap(true);
    auto* routeAll =
        unfocusable(new QPushButton(QStringLiteral("このルーティングを全キーに適用"), this));
    connect(routeAll, &QPushButton::clicked, this, [this] {
        if (const auto code = selectedCode())
            m_model.editor().applyRoutingToAll(*code);
    });
    route->addWidget(new QLabel(QStringLiteral("出力"), this), 0, 0);
    route->addWidget(m_outputMap, 0, 1);
    route->addWidget(m_quick, 0, 2);
    route->addWidget(m_matrix, 1, 0, 1, 3);
    route->addWidget(m_describe, 2, 0, 1, 3);
    route->addWidget(routeAll, 3, 0, 1, 3);
    route->setRowStretch(1, 1);
    setMinimumWidth(300);
}

void RoutingSection::show(const KeyAssignment& a, const MediaInfo* media) {
    showValue(m_outputMap, a.matrix ? QString() : a.outputMap);
    m_outputMap->setPlaceholderText(a.matrix ? QStringLiteral("マトリクスで設定中") : kAutomatic);
    const std::int64_t sources = media && media->clip ? media->clip->channelCount : 0;
    const std::int64_t outputs = m_model.cueEngine().outputChannelCount();
    const std::string map = a.outputMap.toStdString();
    m_matrix->setMatrix(Routing::matrix(a.matrix, map, sources, outputs),
                        static_cast<int>(std::clamp<std::int64_t>(outputs, 8, 64)),
                        static_cast<int>(outputs));
    m_matrix->setVisible(sources > 0);
    m_describe->setText(
        sources > 0 ? QString::fromStdString(Routing::describe(a.matrix, map, sources, outputs))
                    : QStringLiteral("音を読み込むと、チャンネルごとの出力先が表示されます"));
}
