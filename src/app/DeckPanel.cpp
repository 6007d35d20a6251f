#include "app/DeckPanel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QListWidget>
#include <QPushButton>
#include <QTabBar>
#include <QVBoxLayout>

#include "app/NumberField.h"
#include "cue/AppModel.h"
#include "model/KeyboardLayout.h"

namespace {

constexpr int kIdRole = Qt::UserRole;
const QString kLive = QStringLiteral("▶ ");

QString kindMark(DeckItem::Kind kind) {
    switch (kind) {
    case DeckItem::Kind::video:
        // A word, not a film emoji: desktops often have no colour emoji font, and a box
        // would stand in its place.
        return QStringLiteral("［映像］");
    case DeckItem::Kind::audio:
        return QStringLiteral("♪ ");
    case DeckItem::Kind::image:
        break;
    }
    return {};
}

} // namespace

DeckPanel::DeckPanel(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    setFixedWidth(kWidth);
    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    m_tabs = new QTabBar(this);
    m_tabs->setFocusPolicy(Qt::NoFocus);
    m_tabs->setTabsClosable(true);
    m_tabs->setExpanding(false);
    column->addWidget(m_tabs);

    m_list = new QListWidget(this);
    m_list->setFocusPolicy(Qt::NoFocus);
    m_list->setIconSize(QSize(96, 54));
    m_list->setStyleSheet("QListWidget { font-size: 14px; } QListWidget::item { padding: 2px; }");
    column->addWidget(m_list, 1);

    auto* form = new QFormLayout;
    m_enabled = new QCheckBox(QStringLiteral("流す"), this);
    m_enabled->setFocusPolicy(Qt::NoFocus);
    form->addRow(QString(), m_enabled);
    m_advanceAfter = new QDoubleSpinBox(this);
    m_advanceAfter->setRange(0.0, 3600.0);
    m_advanceAfter->setSingleStep(0.5);
    m_advanceAfter->setSuffix(QStringLiteral(" 秒"));
    m_advanceAfter->setSpecialValueText(QStringLiteral("キーの設定"));
    form->addRow(QStringLiteral("自動で次へ"), m_advanceAfter);
    m_transition = new QDoubleSpinBox(this);
    m_transition->setRange(-0.1, 60.0);
    m_transition->setSingleStep(0.1);
    m_transition->setSuffix(QStringLiteral(" 秒"));
    m_transition->setSpecialValueText(QStringLiteral("キーの設定"));
    form->addRow(QStringLiteral("切り替え"), m_transition);
    m_volume = new QDoubleSpinBox(this);
    m_volume->setRange(0.0, 4.0);
    m_volume->setSingleStep(0.05);
    form->addRow(QStringLiteral("音量（倍）"), m_volume);
    m_endAction = new QComboBox(this);
    m_endAction->setFocusPolicy(Qt::NoFocus);
    m_endAction->addItems(
        {QStringLiteral("次へ"), QStringLiteral("そのまま止める"), QStringLiteral("繰り返す")});
    form->addRow(QStringLiteral("終わったら"), m_endAction);
    for (QDoubleSpinBox* box : {m_advanceAfter, m_transition, m_volume})
        NumberField::releaseKeysOnEnter(box);
    column->addLayout(form);

    auto* buttons = new QHBoxLayout;
    m_take = new QPushButton(QStringLiteral("ここから再生"), this);
    m_rename = new QPushButton(QStringLiteral("名前…"), this);
    m_reset = new QPushButton(QStringLiteral("元の一覧に戻す"), this);
    for (QPushButton* button : {m_take, m_rename, m_reset}) {
        button->setFocusPolicy(Qt::NoFocus);
        buttons->addWidget(button);
    }
    column->addLayout(buttons);

    connect(m_tabs, &QTabBar::currentChanged, this, [this](int index) {
        if (m_refreshing || index < 0)
            return;
        const auto& tabs = m_model.document().deckTabs;
        if (static_cast<std::size_t>(index) < tabs.size())
            m_model.editor().openDeckTab(tabs[static_cast<std::size_t>(index)]);
    });
    connect(m_tabs, &QTabBar::tabCloseRequested, this, [this](int index) {
        const auto& tabs = m_model.document().deckTabs;
        if (static_cast<std::size_t>(index) < tabs.size())
            m_model.editor().closeDeckTab(tabs[static_cast<std::size_t>(index)]);
    });
    connect(m_list, &QListWidget::currentRowChanged, this, &DeckPanel::showSelected);
    connect(m_list, &QListWidget::itemChanged, this, [this](QListWidgetItem* item) {
        if (m_refreshing)
            return;
        const bool on = item->checkState() == Qt::Checked;
        const QString id = item->data(kIdRole).toString();
        auto list = items();
        for (DeckItem& entry : list) {
            if (entry.id == id)
                entry.enabled = on;
        }
        m_model.editor().setDeckItems(*key(), list);
    });
    connect(m_list, &QListWidget::itemClicked, this, [this](QListWidgetItem* item) {
        const auto code = key();
        const auto& keys = m_model.document().assignments;
        if (code && keys.count(*code) && keys.at(*code).clickToTake)
            m_model.cueEngine().deckJump(*code, item->data(kIdRole).toString());
    });
    connect(m_enabled, &QCheckBox::toggled, this,
            [this](bool on) { editSelected([on](DeckItem& item) { item.enabled = on; }); });
    connect(m_advanceAfter, &QDoubleSpinBox::valueChanged, this, [this](double seconds) {
        editSelected([seconds](DeckItem& item) {
            item.advanceAfter = seconds > 0.0 ? std::optional<double>(seconds) : std::nullopt;
        });
    });
    connect(m_transition, &QDoubleSpinBox::valueChanged, this, [this](double seconds) {
        editSelected([seconds](DeckItem& item) {
            item.transition = seconds >= 0.0 ? std::optional<double>(seconds) : std::nullopt;
        });
    });
    connect(m_volume, &QDoubleSpinBox::valueChanged, this, [this](double volume) {
        editSelected([volume](DeckItem& item) { item.volume = volume; });
    });
    connect(m_endAction, &QComboBox::currentIndexChanged, this, [this](int index) {
        editSelected([index](DeckItem& item) {
            item.endAction = static_cast<DeckItem::EndAction>(std::clamp(index, 0, 2));
        });
    });
    connect(m_take, &QPushButton::clicked, this, [this] {
        if (const auto id = selectedID())
            m_model.cueEngine().deckJump(*key(), *id);
    });
    connect(m_rename, &QPushButton::clicked, this, [this] {
        if (const auto id = selectedID())
            m_model.editor().renameDeckItem(*key(), *id);
    });
    connect(m_reset, &QPushButton::clicked, this, [this] {
        if (const auto code = key())
            m_model.editor().resetDeckItems(*code);
    });

    connect(&model, &AppModel::deckTabsChanged, this, &DeckPanel::refreshTabs);
    connect(&model, &AppModel::assignmentsChanged, this, &DeckPanel::refreshTabs);
    connect(&model.session(), &ShowSession::lockChanged, this, &DeckPanel::showSelected);
    connect(&model.media(), &MediaLoader::mediaChanged, this, &DeckPanel::refreshItems);
    connect(&model.live(), &LiveState::deckCurrentChanged, this, &DeckPanel::refreshLive);
    refreshTabs();
}

std::optional<KeyCode> DeckPanel::key() const {
    return m_model.document().activeDeckTab;
}

std::vector<DeckItem> DeckPanel::items() const {
    const auto code = key();
    return code ? m_model.cueEngine().deckItems(*code) : std::vector<DeckItem>{};
}

std::optional<QString> DeckPanel::selectedID() const {
    const QListWidgetItem* item = m_list->currentItem();
    return item && key() ? std::optional<QString>(item->data(kIdRole).toString()) : std::nullopt;
}

void DeckPanel::refreshTabs() {
    m_refreshing = true;
    const ShowDocument& doc = m_model.document();
    while (m_tabs->count() > 0)
        m_tabs->removeTab(0);
    int active = -1;
    for (std::size_t i = 0; i < doc.deckTabs.size(); ++i) {
        const KeyCode code = doc.deckTabs[i];
        const auto held = doc.assignments.find(code);
        const QString name = held == doc.assignments.end() ? QString() : held->second.displayName();
        m_tabs->addTab(KeyboardLayout::label(code) + QStringLiteral("  ") + name);
        if (doc.activeDeckTab == code)
            active = static_cast<int>(i);
    }
    m_tabs->setCurrentIndex(active);
    m_refreshing = false;
    refreshItems();
}

void DeckPanel::refreshItems() {
    m_refreshing = true;
    const std::optional<QString> selected = selectedID();
    const int row = m_list->currentRow();
    m_list->clear();
    const auto code = key();
    const auto& keys = m_model.document().assignments;
    const MediaInfo* media =
        code && keys.count(*code) ? m_model.media().infoFor(keys.at(*code)) : nullptr;
    const DeckPtr deck = media ? media->deck : nullptr;
    for (const DeckItem& entry : items()) {
        auto* item = new QListWidgetItem(m_list);
        item->setData(kIdRole, entry.id);
        item->setText(
            QStringLiteral("%1  %2%3").arg(entry.slide).arg(kindMark(entry.kind), entry.title));
        item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
        item->setCheckState(entry.enabled ? Qt::Checked : Qt::Unchecked);
        if (deck) {
            const QImage thumbnail = deck->cachedThumbnail(entry.file);
            if (!thumbnail.isNull())
                item->setIcon(QPixmap::fromImage(thumbnail));
            else if (entry.kind != DeckItem::Kind::audio)
                deck->fetchThumbnail(entry, this, [this, id = entry.id](const QImage& image) {
                    setThumbnail(id, image);
                });
        }
        if (entry.id == selected)
            m_list->setCurrentItem(item);
    }
    if (!m_list->currentItem() && m_list->count() > 0)
        m_list->setCurrentRow(std::clamp(row, 0, m_list->count() - 1));
    if (media && media->loading)
        new QListWidgetItem(media->progressText, m_list);
    else if (media && media->error)
        new QListWidgetItem(*media->error, m_list);
    m_refreshing = false;
    refreshLive();
    showSelected();
}

void DeckPanel::setThumbnail(const QString& id, const QImage& thumbnail) {
    if (thumbnail.isNull())
        return;
    for (int i = 0; i < m_list->count(); ++i) {
        QListWidgetItem* item = m_list->item(i);
        if (item->data(kIdRole).toString() == id)
            item->setIcon(QPixmap::fromImage(thumbnail));
    }
}

void DeckPanel::refreshLive() {
    const auto code = key();
    const auto& current = m_model.live().deckCurrent();
    const auto live = code ? current.find(*code) : current.end();
    m_refreshing = true;
    for (int i = 0; i < m_list->count(); ++i) {
        QListWidgetItem* item = m_list->item(i);
        const bool isLive = live != current.end() && item->data(kIdRole).toString() == live->second;
        QString text = item->text();
        if (text.startsWith(kLive) != isLive)
            item->setText(isLive ? kLive + text : text.mid(kLive.size()));
        QFont font = item->font();
        font.setBold(isLive);
        item->setFont(font);
    }
    m_refreshing = false;
}

void DeckPanel::showSelected() {
    if (m_refreshing)
        return;
    const auto id = selectedID();
    const auto list = items();
    const auto found = DeckItem::indexOf(list, id);
    const bool has = found.has_value();
    // A locked show still plays from any item; its settings are only shown.
    const bool editable = has && !m_model.session().isLocked();
    for (QWidget* field : std::initializer_list<QWidget*>{m_enabled, m_advanceAfter, m_transition,
                                                          m_volume, m_endAction, m_rename})
        field->setEnabled(editable);
    m_take->setEnabled(has);
    const auto code = key();
    const auto& keys = m_model.document().assignments;
    m_reset->setEnabled(!m_model.session().isLocked() && code && keys.count(*code) &&
                        keys.at(*code).deckItems);
    if (!has)
        return;
    const DeckItem* entry = &list[*found];
    m_refreshing = true;
    m_enabled->setChecked(entry->enabled);
    m_advanceAfter->setValue(entry->advanceAfter.value_or(0.0));
    m_transition->setValue(entry->transition.value_or(m_transition->minimum()));
    m_volume->setValue(entry->volume);
    m_endAction->setCurrentIndex(static_cast<int>(entry->endAction));
    m_refreshing = false;
}

void DeckPanel::editSelected(const std::function<void(DeckItem&)>& change) {
    if (m_refreshing)
        return;
    const auto code = key();
    const auto id = selectedID();
    if (!code || !id)
        return;
    auto list = items();
    for (DeckItem& item : list) {
        if (item.id == *id)
            change(item);
    }
    m_model.editor().setDeckItems(*code, list);
}
