#include "app/SettingsWindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QRegularExpression>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include "app/Choices.h"
#include "app/KeyInput.h"
#include "deck/SlideConverter.h"
#include "model/Prefs.h"
#include "model/ValueRanges.h"
#include "remote/MidiControl.h"
#include "remote/RemoteControl.h"

SettingsWindow::SettingsWindow(int instanceNumber, QWidget* parent) : QWidget(parent, Qt::Window) {
    setWindowTitle(QStringLiteral("設定 — Vorlin #%1").arg(instanceNumber));
    setProperty(KeyInput::kClosesOnEscape, true); // as any settings window does
    resize(632, 460);
    auto* tabs = new QTabWidget(this);
    tabs->setObjectName(QStringLiteral("settingsTabs"));
    // One form per tab, so that the window fits a 768-pixel-high screen whole.
    const auto tab = [this, tabs](const QString& title) {
        auto* form = new QFormLayout;
        form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
        form->setRowWrapPolicy(
            QFormLayout::WrapLongRows); // long labels above their field, nothing cut off
        auto* page = new QWidget(this);
        page->setLayout(form);
        tabs->addTab(page, title);
        return form;
    };

    auto check = [this](const QString& key, bool fallback) {
        auto* box = new QCheckBox(this);
        box->setChecked(Prefs::value(key, fallback).toBool());
        connect(box, &QCheckBox::toggled, this, [key](bool on) { Prefs::setValue(key, on); });
        return box;
    };
    auto seconds = [this](const QString& key) {
        auto* box = new QDoubleSpinBox(this);
        box->setRange(0.0, ValueRanges::kMaxFade);
        box->setDecimals(2);
        box->setSingleStep(0.1);
        box->setSuffix(QStringLiteral(" 秒"));
        box->setValue(Prefs::value(key).toDouble());
        connect(box, &QDoubleSpinBox::valueChanged, this,
                [key](double v) { Prefs::setValue(key, v); });
        return box;
    };

    QFormLayout* form = tab(QStringLiteral("全般"));
    form->addRow(
        QStringLiteral("キーボード配列"),
        choice(Prefs::kKeyboardLayout,
               {{"自動（接続中のキーボード）", "auto"}, {"JIS（日本語）", "jis"}, {"US", "us"}}));
    auto* note = new QLabel(QStringLiteral("配列の変更は次に起動したときに反映されます。"), this);
    note->setStyleSheet("color: gray;");
    form->addRow(QString(), note);
    form->addRow(QStringLiteral("起動したら前回のキーマップを開く"),
                 check(Prefs::kReopenLastKeymap, true));
    QCheckBox* background = check(Prefs::kBackgroundInput, false);
    connect(background, &QCheckBox::toggled, this, [this](bool on) {
        if (onBackgroundInputChange)
            onBackgroundInputChange(on);
    });
    form->addRow(QStringLiteral("ほかのアプリが前面でもキーで鳴らす（バックグラウンド入力）"),
                 background);
    form->addRow(QStringLiteral("起動したら本番モード（編集をロック）にする"),
                 check(Prefs::kStartLocked, false));
    form->addRow(QStringLiteral("すでに素材があるキーに入れたとき"),
                 choice(Prefs::kOccupiedDrop, {{"毎回確認する", "ask"},
                                               {"いつも後ろに追加（押すたび次へ）", "append"},
                                               {"いつも差し替える", "replace"}}));
    form->addRow(QStringLiteral("複数のファイルを空いたキーに入れたとき"),
                 choice(Prefs::kMultiDrop, {{"毎回確認する", "ask"},
                                            {"そのキーにまとめる（押すたび次へ）", "list"},
                                            {"後ろの空きキーに 1 つずつ", "spread"}}));
    // The new-key defaults, the video output, then the slides.
    form = tab(QStringLiteral("新しいキー"));
    form->addRow(QStringLiteral("モード"), choice(Prefs::kDefaultMode, Choices::modes()));
    form->addRow(QStringLiteral("次の素材が流れたら"),
                 choice(Prefs::kDefaultOnNext, Choices::onNext()));
    form->addRow(QStringLiteral("フェード IN"), seconds(Prefs::kDefaultFadeIn));
    form->addRow(QStringLiteral("フェード OUT"), seconds(Prefs::kDefaultFadeOut));
    form = tab(QStringLiteral("映像"));
    form->addRow(QStringLiteral("縦横比が画面と違うとき"),
                 choice(Prefs::kVideoFill, {{"全体を映す（余白は背景色）", "fit"},
                                            {"画面いっぱい（はみ出しは切る）", "fill"},
                                            {"引き伸ばす", "stretch"}}));
    form->addRow(QStringLiteral("背景色"),
                 choice(Prefs::kVideoBackground, {{"黒", "black"}, {"白", "white"}}));
    form->addRow(QStringLiteral("起動したら映像出力を開く"),
                 check(Prefs::kOpenVideoOnLaunch, false));
    form = tab(QStringLiteral("スライド"));
    // Presentations are converted by LibreOffice here: say which one, or that it is missing
    // (asked of the program itself, off the window's way).
    auto* converter = new QLabel(this);
    converter->setObjectName(QStringLiteral("slideConverter"));
    const QString office = SlideConverter::installedProgram();
    if (office.isEmpty()) {
        converter->setText(
            QStringLiteral("LibreOffice が見つかりません（スライドの変換に必要です）"));
    } else {
        converter->setText(QStringLiteral("LibreOffice で変換します"));
        auto* version = new QProcess(converter);
        connect(version, &QProcess::finished, converter, [converter, version] {
            static const QRegularExpression number(QStringLiteral("LibreOffice (\\d+\\.\\d+)"));
            const auto found = number.match(QString::fromUtf8(version->readAllStandardOutput()));
            if (found.hasMatch())
                converter->setText(
                    QStringLiteral("LibreOffice %1 で変換します").arg(found.captured(1)));
        });
        version->start(office, {QStringLiteral("--version")});
    }
    form->addRow(QStringLiteral("pptx の変換"), converter);
    form = tab(QStringLiteral("リモート操作"));
    const auto remoteChanged = [this] {
        if (onRemoteChange)
            onRemoteChange();
    };
    QCheckBox* osc = check(RemoteControl::kEnabled, false);
    connect(osc, &QCheckBox::toggled, this, remoteChanged);
    form->addRow(QStringLiteral("OSC でキーや停止を受け付ける"), osc);
    auto* port = new QSpinBox(this);
    port->setRange(1024, 65535);
    port->setValue(Prefs::value(RemoteControl::kPort, RemoteControl::kDefaultPort).toInt());
    connect(port, &QSpinBox::editingFinished, this, [port, remoteChanged] {
        Prefs::setValue(RemoteControl::kPort, port->value());
        remoteChanged();
    });
    form->addRow(QStringLiteral("ポート（UDP）"), port);
    auto text = [this, remoteChanged](const QString& key, const QString& fallback,
                                      const QString& placeholder) {
        // A list written into the settings file by hand comes back as a list.
        const QVariant stored = Prefs::value(key, fallback);
        auto* field = new QLineEdit(stored.typeId() == QMetaType::QStringList
                                        ? stored.toStringList().join(QStringLiteral(", "))
                                        : stored.toString(),
                                    this);
        field->setPlaceholderText(placeholder);
        connect(field, &QLineEdit::editingFinished, this, [key, field, remoteChanged] {
            Prefs::setValue(key, field->text().trimmed());
            remoteChanged();
        });
        return field;
    };
    QLineEdit* address = text(RemoteControl::kAddress, QStringLiteral("127.0.0.1"),
                              QStringLiteral("127.0.0.1 または 0.0.0.0（すべてのネットワーク）"));
    form->addRow(QStringLiteral("受け付けるアドレス（127.0.0.1: このコンピュータからだけ）"),
                 address);
    QLineEdit* senders = text(RemoteControl::kAllowedSenders, QString(),
                              QStringLiteral("192.168.1.20, 192.168.1.21"));
    form->addRow(QStringLiteral("送信元を限る（カンマ区切り、空欄: 限らない）"), senders);
    // Open to the network with nobody named: say what that means.
    auto* open = new QLabel(
        QStringLiteral("⚠ ネットワーク上のどのコンピュータからでもキーを鳴らせます"), this);
    open->setObjectName(QStringLiteral("oscOpenWarning"));
    open->setStyleSheet(QStringLiteral("color: #c0392b;"));
    const auto warn = [address, senders, open] {
        const QHostAddress listened(address->text().trimmed());
        open->setVisible(!listened.isNull() && !listened.isLoopback() &&
                         senders->text().trimmed().isEmpty());
    };
    connect(address, &QLineEdit::editingFinished, this, warn);
    connect(senders, &QLineEdit::editingFinished, this, warn);
    warn();
    form->addRow(QString(), open);
    QCheckBox* midi = check(MidiControl::kEnabled, false);
    connect(midi, &QCheckBox::toggled, this, remoteChanged);
    form->addRow(QStringLiteral("MIDI 入力を受け付ける（ALSA シーケンサ）"), midi);
    form->addRow(QStringLiteral("MIDI ポートの名前"),
                 text(MidiControl::kPortName, QStringLiteral("Vorlin"), QStringLiteral("Vorlin")));

    form = tab(QStringLiteral("アップデート"));
    form->addRow(QStringLiteral("起動したときに新しい版があるか確かめる（1 日 1 回）"),
                 check(Prefs::kAutoCheckUpdates, true));

    auto* outer = new QVBoxLayout(this);
    outer->addWidget(tabs);
}

QComboBox* SettingsWindow::choice(const QString& key,
                                  const QList<QPair<QString, QString>>& options) {
    auto* box = new QComboBox(this);
    const QString stored = Prefs::value(key).toString();
    for (const auto& [label, value] : options) {
        box->addItem(label, value);
        if (value == stored)
            box->setCurrentIndex(box->count() - 1);
    }
    connect(box, &QComboBox::currentIndexChanged, this, [key, box](int) {
        const QString value = box->currentData().toString();
        // The PowerPoint choice is a yes/no preference; the others are stored as their names.
        if (value == "true" || value == "false")
            Prefs::setValue(key, value == "true");
        else
            Prefs::setValue(key, value);
    });
    return box;
}
