#include "app/DetailPanel.h"

#include <cmath>

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileInfo>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QRegularExpression>
#include <QSpinBox>
#include <QToolButton>
#include <QVBoxLayout>

#include "app/Choices.h"
#include "app/NumberField.h"
#include "app/RedrawPace.h"
#include "app/RoutingMatrixView.h"
#include "app/WaveformView.h"
#include "audio/Routing.h"
#include "cue/AppModel.h"
#include "model/KeyboardLayout.h"
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

QString duration(double seconds) {
    const auto tenths = static_cast<std::int64_t>(std::llround(seconds * 10));
    return QStringLiteral("%1:%2.%3")
        .arg(tenths / 600)
        .arg((tenths / 10) % 60, 2, 10, QLatin1Char('0'))
        .arg(tenths % 10);
}

QString byteSize(std::int64_t bytes) {
    if (bytes >= 1'000'000)
        return QString::number(static_cast<double>(bytes) / 1e6, 'f', 1) + " MB";
    return QString::number(static_cast<double>(bytes) / 1e3, 'f', 0) + " KB";
}

template <typename Widget> Widget* unfocusable(Widget* widget) {
    widget->setFocusPolicy(Qt::NoFocus);
    return widget;
}

// Sets a field's value from the model unless the operator is typing in it.
template <typename Field, typename Value> void showValue(Field* field, const Value& value) {
    if (field->hasFocus())
        return;
    if constexpr (std::is_same_v<Value, QString>)
        field->setText(value);
    else
        field->setValue(value);
}

int indexOfName(const Choices::List& list, const QString& name) {
    for (int i = 0; i < list.size(); ++i)
        if (list[i].second == name)
            return i;
    return 0;
}

} // namespace

const QList<QPair<QString, QString>>& DetailPanel::quickRoutings() {
    static const QList<QPair<QString, QString>> list{
        {QStringLiteral("自動"), QString()}, {QStringLiteral("1-2"), "1-2"},
        {QStringLiteral("3-4"), "3-4"},      {QStringLiteral("5-6"), "5-6"},
        {QStringLiteral("7-8"), "7-8"},      {QStringLiteral("1 だけ"), "1"},
        {QStringLiteral("2 だけ"), "2"},     {QStringLiteral("1-8 すべて"), "1-8"}};
    return list;
}

QDoubleSpinBox* DetailPanel::seconds(QWidget* parent, double maximum) {
    auto* box = new QDoubleSpinBox(parent);
    box->setRange(0.0, maximum);
    box->setDecimals(2);
    box->setSingleStep(0.1);
    box->setSuffix(QStringLiteral(" 秒"));
    NumberField::releaseKeysOnEnter(box);
    return box;
}

template <typename Value, typename Sender, typename Signal, typename Field>
void DetailPanel::bind(Sender* sender, Signal signal, Field KeyAssignment::*field) {
    connect(sender, signal, this, [this, field](Value value) {
        edit([&](KeyAssignment& a) { a.*field = static_cast<Field>(value); });
    });
}

void DetailPanel::onCommit(QLineEdit* field, const std::function<void(const QString&)>& commit) {
    connect(field, &QLineEdit::editingFinished, this, [field, commit] { commit(field->text()); });
    connect(field, &QLineEdit::returnPressed, field, [field] { field->clearFocus(); });
}

DetailPanel::DetailPanel(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    m_empty = new QLabel(this);
    m_empty->setAlignment(Qt::AlignCenter);
    m_empty->setWordWrap(true);
    outer->addWidget(m_empty);
    m_body = new QWidget(this);
    outer->addWidget(m_body);
    auto* columns = new QHBoxLayout(m_body);
    columns->setContentsMargins(0, 0, 0, 0);

    // The key and its file.
    auto* fileBox = new QGroupBox(QStringLiteral("キー"), m_body);
    auto* file = new QGridLayout(fileBox);
    m_keyLabel = new QLabel(fileBox);
    m_keyLabel->setStyleSheet("font-size: 20px; font-weight: bold;");
    m_keyLabel->setMinimumWidth(44);
    file->addWidget(m_keyLabel, 0, 0);
    m_title = new QLineEdit(fileBox);
    m_title->setObjectName("title");
    m_title->setFocusPolicy(Qt::ClickFocus);
    onCommit(m_title,
             [this](const QString& text) { edit([&](KeyAssignment& a) { a.title = text; }); });
    file->addWidget(m_title, 0, 1, 1, 3);
    m_file = new QLabel(fileBox);
    m_file->setTextInteractionFlags(Qt::NoTextInteraction);
    file->addWidget(m_file, 1, 0, 1, 4);
    m_info = new QLabel(fileBox);
    file->addWidget(m_info, 2, 0, 1, 4);
    m_state = new QLabel(fileBox);
    m_state->setWordWrap(true);
    file->addWidget(m_state, 3, 0, 1, 4);
    m_waveform = new WaveformView(fileBox);
    m_waveform->onSeek = [this](double fraction) {
        const auto code = selectedCode();
        if (const ActiveCuePtr cue = code ? m_model.cueEngine().newestRunning(*code) : nullptr)
            m_model.seek(cue->id, fraction);
    };
    file->addWidget(m_waveform, 4, 0, 1, 4);
    file->setRowStretch(4, 1);
    auto button = [fileBox](const QString& text) {
        return unfocusable(new QPushButton(text, fileBox));
    };
    m_replace = button(QStringLiteral("差し替え…"));
    m_add = button(QStringLiteral("ファイルを追加…"));
    m_rename = button(QStringLiteral("名前を変更…"));
    m_clear = button(QStringLiteral("クリア"));
    m_copy = unfocusable(new QToolButton(fileBox));
    m_copy->setText(QStringLiteral("ほかのページへコピー"));
    m_copy->setPopupMode(QToolButton::InstantPopup);
    m_copy->setMenu(new QMenu(m_copy));
    connect(m_copy->menu(), &QMenu::aboutToShow, this, &DetailPanel::fillCopyMenu);
    file->addWidget(m_replace, 5, 0, 1, 2);
    file->addWidget(m_add, 5, 2);
    file->addWidget(m_rename, 5, 3);
    file->addWidget(m_copy, 6, 0, 1, 3);
    file->addWidget(m_clear, 6, 3);
    connect(m_replace, &QPushButton::clicked, this, [this] {
        if (const auto code = selectedCode())
            m_model.editor().replaceFile(*code);
    });
    connect(m_add, &QPushButton::clicked, this, [this] {
        if (const auto code = selectedCode())
            m_model.editor().addFiles(*code);
    });
    connect(m_rename, &QPushButton::clicked, this, [this] {
        if (const auto code = selectedCode())
            m_model.editor().renameKey(*code);
    });
    connect(m_clear, &QPushButton::clicked, this, [this] {
        if (const auto code = selectedCode())
            m_model.editor().clear(*code);
    });
    columns->addWidget(fileBox, 4);

    // How it plays.
    auto* playBox = new QGroupBox(QStringLiteral("再生"), m_body);
    auto* play = new QGridLayout(playBox);
    auto label = [playBox](const QString& text) { return new QLabel(text, playBox); };
    auto choice = [playBox](const Choices::List& list) {
        auto* box = unfocusable(new QComboBox(playBox));
        for (const auto& [text, name] : list)
            box->addItem(text, name);
        return box;
    };
    auto check = [playBox](const QString& text) {
        return unfocusable(new QCheckBox(text, playBox));
    };
    auto number = [playBox](int maximum) {
        auto* box = new QSpinBox(playBox);
        box->setRange(0, maximum);
        NumberField::releaseKeysOnEnter(box);
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
    m_fadeIn = seconds(playBox, ValueRanges::kMaxFade);
    m_fadeIn->setObjectName("fadeIn");
    bind<double>(m_fadeIn, &QDoubleSpinBox::valueChanged, &KeyAssignment::fadeIn);
    m_fadeOut = seconds(playBox, ValueRanges::kMaxFade);
    m_fadeOut->setObjectName("fadeOut");
    bind<double>(m_fadeOut, &QDoubleSpinBox::valueChanged, &KeyAssignment::fadeOut);
    m_volumeDb = new QDoubleSpinBox(playBox);
    m_volumeDb->setObjectName("volumeDb");
    m_volumeDb->setRange(kMinDb, kMaxDb);
    m_volumeDb->setDecimals(1);
    m_volumeDb->setSingleStep(1.0);
    m_volumeDb->setSuffix(QStringLiteral(" dB"));
    m_volumeDb->setSpecialValueText(QStringLiteral("−∞ dB"));
    NumberField::releaseKeysOnEnter(m_volumeDb);
    connect(m_volumeDb, &QDoubleSpinBox::valueChanged, this,
            [this](double db) { edit([&](KeyAssignment& a) { a.volume = fromDb(db); }); });
    m_volume = new QDoubleSpinBox(playBox);
    m_volume->setObjectName("volume");
    m_volume->setRange(0.0, ValueRanges::kMaxVolume);
    m_volume->setDecimals(3);
    m_volume->setSingleStep(0.05);
    m_volume->setPrefix(QStringLiteral("× "));
    NumberField::releaseKeysOnEnter(m_volume);
    bind<double>(m_volume, &QDoubleSpinBox::valueChanged, &KeyAssignment::volume);
    m_loop = check(QStringLiteral("ループ"));
    m_loop->setObjectName("loop");
    bind<bool>(m_loop, &QCheckBox::toggled, &KeyAssignment::loop);
    m_group = number(ValueRanges::kMaxGroup);
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

    // Picture and slides.
    m_showVideo = check(QStringLiteral("映像を表示"));
    bind<bool>(m_showVideo, &QCheckBox::toggled, &KeyAssignment::showVideo);
    m_layer = number(ValueRanges::kMaxLayer);
    bind<int>(m_layer, &QSpinBox::valueChanged, &KeyAssignment::layer);
    m_screens = new QLineEdit(playBox);
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
    m_slideInterval = seconds(playBox, ValueRanges::kMaxSlideInterval);
    bind<double>(m_slideInterval, &QDoubleSpinBox::valueChanged, &KeyAssignment::slideInterval);
    m_slideLoop = check(QStringLiteral("最後から最初へ"));
    bind<bool>(m_slideLoop, &QCheckBox::toggled, &KeyAssignment::slideLoop);
    m_slideTransition = seconds(playBox, ValueRanges::kMaxTransition);
    bind<double>(m_slideTransition, &QDoubleSpinBox::valueChanged, &KeyAssignment::slideTransition);
    play->addWidget(m_showVideo, 5, 0);
    play->addWidget(label(QStringLiteral("レイヤー")), 5, 2, Qt::AlignRight);
    play->addWidget(m_layer, 5, 3);
    play->addWidget(label(QStringLiteral("出力先の画面")), 6, 0);
    play->addWidget(m_screens, 6, 1, 1, 3);
    play->addWidget(label(QStringLiteral("スライド")), 7, 0);
    play->addWidget(m_slideAuto, 7, 1);
    play->addWidget(label(QStringLiteral("間隔")), 7, 2, Qt::AlignRight);
    play->addWidget(m_slideInterval, 7, 3);
    play->addWidget(m_slideLoop, 8, 1);
    play->addWidget(label(QStringLiteral("切替")), 8, 2, Qt::AlignRight);
    play->addWidget(m_slideTransition, 8, 3);
    play->addWidget(m_clickToTake, 9, 1, 1, 3);
    play->setRowStretch(10, 1);
    columns->addWidget(playBox, 4);

    // Where it sounds.
    auto* routeBox = new QGroupBox(QStringLiteral("ルーティング"), m_body);
    auto* route = new QGridLayout(routeBox);
    m_outputMap = new QLineEdit(routeBox);
    m_outputMap->setObjectName("outputMap");
    m_outputMap->setFocusPolicy(Qt::ClickFocus);
    m_outputMap->setPlaceholderText(QStringLiteral("自動（例: 3、1-4、1,3 5）"));
    onCommit(m_outputMap, [this](const QString& text) {
        const KeyAssignment* a = selectedAssignment();
        if (a && (a->matrix || a->outputMap != text))
            m_model.setRouting(*selectedCode(), std::nullopt, text);
    });
    m_quick = unfocusable(new QComboBox(routeBox));
    m_quick->addItem(QStringLiteral("よく使う…"));
    for (const auto& [text, map] : quickRoutings())
        m_quick->addItem(text, map);
    connect(m_quick, &QComboBox::activated, this, [this](int i) {
        if (i > 0 && selectedCode())
            m_model.applyQuickRouting(*selectedCode(), m_quick->itemData(i).toString());
        m_quick->setCurrentIndex(0);
    });
    m_matrix = new RoutingMatrixView(routeBox);
    m_matrix->onToggle = [this](std::int64_t source, std::int64_t output) {
        if (const auto code = selectedCode())
            m_model.toggleRoute(*code, source, output);
    };
    m_describe = new QLabel(routeBox);
    m_describe->setWordWrap(true);
    m_routeAll =
        unfocusable(new QPushButton(QStringLiteral("このルーティングを全キーに適用"), routeBox));
    connect(m_routeAll, &QPushButton::clicked, this, [this] {
        if (const auto code = selectedCode())
            m_model.editor().applyRoutingToAll(*code);
    });
    route->addWidget(new QLabel(QStringLiteral("出力"), routeBox), 0, 0);
    route->addWidget(m_outputMap, 0, 1);
    route->addWidget(m_quick, 0, 2);
    route->addWidget(m_matrix, 1, 0, 1, 3);
    route->addWidget(m_describe, 2, 0, 1, 3);
    route->addWidget(m_routeAll, 3, 0, 1, 3);
    route->setRowStretch(1, 1);
    routeBox->setMinimumWidth(300);
    columns->addWidget(routeBox, 4);

    connect(&m_model.cueEngine(), &CueEngine::selectedKeyChanged, this, &DetailPanel::refresh);
    connect(&m_model, &AppModel::assignmentsChanged, this, &DetailPanel::refresh);
    connect(&m_model, &AppModel::audioDeviceChanged, this, &DetailPanel::refresh);
    connect(&m_model.media(), &MediaLoader::mediaChanged, this, &DetailPanel::refresh);
    connect(&m_model.live(), &LiveState::progressChanged, this, &DetailPanel::refreshPosition);
    refresh();
}

std::optional<KeyCode> DetailPanel::selectedCode() const {
    return m_model.document().selectedKey;
}

const KeyAssignment* DetailPanel::selectedAssignment() const {
    const auto code = selectedCode();
    if (!code)
        return nullptr;
    const auto& keys = m_model.document().assignments;
    const auto found = keys.find(*code);
    return found == keys.end() ? nullptr : &found->second;
}

void DetailPanel::edit(const std::function<void(KeyAssignment&)>& change) {
    const KeyAssignment* current = selectedAssignment();
    if (m_refreshing || !current)
        return;
    KeyAssignment edited = *current;
    change(edited);
    if (edited != *current)
        m_model.editor().update(*selectedCode(), edited);
}

void DetailPanel::refresh() {
    const auto code = selectedCode();
    const KeyAssignment* a = selectedAssignment();
    m_body->setVisible(a != nullptr);
    m_empty->setVisible(a == nullptr);
    if (!a) {
        m_empty->setText(
            code
                ? KeyboardLayout::label(*code) +
                      QStringLiteral(" キーは空いています。ファイルをキーにドロップするか、"
                                     "「ファイル › 選択中のキーにファイルを割り当て…」で入れます。")
                : QStringLiteral("キーをクリックすると、ここで設定できます。"));
        return;
    }
    m_refreshing = true;
    m_keyLabel->setText(KeyboardLayout::label(*code));
    m_title->setPlaceholderText(a->displayName());
    showValue(m_title, a->title);
    const QStringList files = a->listSources().value_or(QStringList{a->path});
    m_file->setText(files.size() > 1 ? QStringLiteral("%1 ほか %2 個のファイル")
                                           .arg(QFileInfo(files.first()).fileName())
                                           .arg(files.size() - 1)
                                     : QFileInfo(a->path).fileName());
    m_file->setToolTip(files.join('\n'));

    const MediaInfo* media = m_model.media().infoFor(*a);
    QStringList info;
    if (media && !media->loading && !media->error) {
        const MediaProbe& probe = media->probe;
        info << duration(probe.duration);
        if (probe.hasVideo)
            info << QStringLiteral("映像 %1×%2").arg(probe.videoWidth).arg(probe.videoHeight);
        if (probe.sourceChannels > 0)
            info << QStringLiteral("%1 ch").arg(probe.sourceChannels)
                 << QString::number(probe.sourceSampleRate / 1000.0, 'g', 4) + " kHz";
        info << byteSize(probe.fileSize);
    }
    m_info->setText(info.join(QStringLiteral(" · ")));
    QString state;
    QString stateStyle;
    if (!media || media->loading) {
        state = media ? media->progressText : QStringLiteral("読み込み待ち");
    } else if (media->error) {
        state = *media->error;
        stateStyle = "color: #e05050; font-weight: bold;";
    } else if (media->audioViaPlayer) {
        state = QStringLiteral("準備完了（音は映像と一緒に再生）");
    } else {
        state = QStringLiteral("準備完了");
    }
    m_state->setText(state);
    m_state->setStyleSheet(stateStyle);
    m_waveform->setPeaks(media && media->clip ? media->clip->peaks : std::vector<float>{},
                         media && media->loading ? media->progressText
                                                 : QStringLiteral("波形なし"));

    m_mode->setCurrentIndex(indexOfName(Choices::modes(), keyModeName(a->mode)));
    m_onNext->setCurrentIndex(indexOfName(Choices::onNext(), nextBehaviorName(a->onNext)));
    showValue(m_fadeIn, a->fadeIn);
    showValue(m_fadeOut, a->fadeOut);
    showValue(m_volumeDb, toDb(a->volume));
    showValue(m_volume, a->volume);
    m_loop->setChecked(a->loop);
    showValue(m_group, static_cast<int>(a->group));
    m_showVideo->setChecked(a->showVideo);
    showValue(m_layer, static_cast<int>(a->layer));
    showValue(m_screens, a->screens ? a->screens->join(QStringLiteral(", ")) : QString());
    m_clickToTake->setChecked(a->clickToTake);
    m_slideAuto->setChecked(a->slideAuto);
    showValue(m_slideInterval, a->slideInterval);
    m_slideLoop->setChecked(a->slideLoop);
    showValue(m_slideTransition, a->slideTransition);
    refreshRouting(*a);
    refreshPosition();
    m_refreshing = false;
}

void DetailPanel::refreshRouting(const KeyAssignment& a) {
    showValue(m_outputMap, a.matrix ? QString() : a.outputMap);
    m_outputMap->setPlaceholderText(a.matrix ? QStringLiteral("マトリクスで設定中")
                                             : QStringLiteral("自動（例: 3、1-4、1,3 5）"));
    const MediaInfo* media = m_model.media().infoFor(a);
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

void DetailPanel::refreshPosition() {
    const auto code = selectedCode();
    const auto& progress = m_model.live().progress();
    const auto found = code ? progress.find(*code) : progress.end();
    const double position = found == progress.end() ? -1.0 : found->second;
    // The line appears and disappears at once; it moves on progress ticks.
    const bool appearsOrGoes = (position < 0.0) != (m_waveform->position() < 0.0);
    if (appearsOrGoes || m_refreshing || RedrawPace::isProgressTick(m_model.live()))
        m_waveform->setPosition(position);
}

void DetailPanel::fillCopyMenu() {
    QMenu* menu = m_copy->menu();
    menu->clear();
    const ShowDocument& doc = m_model.document();
    for (std::size_t i = 0; i < doc.pages.size(); ++i) {
        if (i == doc.currentPage)
            continue;
        menu->addAction(doc.pages[i].name, this, [this, i] {
            if (const auto code = selectedCode())
                m_model.editor().copyKey(*code, i);
        });
    }
    if (menu->isEmpty())
        menu->addAction(QStringLiteral("ほかのページがありません"))->setEnabled(false);
}
