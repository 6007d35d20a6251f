#include "app/OutputBar.h"

#include <cmath>

#include <QComboBox>
#include <QCoreApplication>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QSlider>
#include <QThreadPool>

#include "app/ElidedLabel.h"
#include "app/NumberField.h"
#include "cue/AppModel.h"
#include "model/ValueRanges.h"

namespace {

QString decibels(double gain) {
    return gain <= 0.0 ? QStringLiteral("−∞ dB")
                       : QString::number(20.0 * std::log10(gain), 'f', 1) + " dB";
}

} // namespace

OutputBar::OutputBar(AppModel& model, QWidget* parent) : QWidget(parent), m_model(model) {
    auto* row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->addWidget(new QLabel(QStringLiteral("マスター"), this));
    m_master = new QSlider(Qt::Horizontal, this);
    m_master->setFocusPolicy(Qt::NoFocus);
    m_master->setRange(0, 100);
    m_master->setMinimumWidth(80);
    m_master->setMaximumWidth(200);
    connect(m_master, &QSlider::valueChanged, this,
            [this](int v) { m_model.setMasterVolume(v / 100.0); });
    row->addWidget(m_master);
    m_masterText = new QLabel(this);
    m_masterText->setMinimumWidth(64);
    row->addWidget(m_masterText);

    row->addSpacing(16);
    row->addWidget(new QLabel(QStringLiteral("出力デバイス"), this));
    m_devices = new QComboBox(this);
    m_devices->setFocusPolicy(Qt::NoFocus);
    m_devices->setMinimumWidth(260);
    connect(m_devices, &QComboBox::activated, this, [this](int index) {
        const QVariant uid = m_devices->itemData(index);
        const std::optional<QString> chosen =
            uid.isValid() ? std::optional<QString>(uid.toString()) : std::nullopt;
        if (chosen != m_model.outputDeviceUID() && !m_model.editor().refuseWhenLocked())
            m_model.setOutputDeviceUID(chosen);
    });
    // The show's device is part of what a locked show keeps.
    connect(&m_model.session(), &ShowSession::lockChanged, m_devices,
            [this](bool locked) { m_devices->setEnabled(!locked); });
    row->addWidget(m_devices);
    m_active = new ElidedLabel(this); // a narrow window cuts the message, never the device list
    m_active->setStyleSheet("color: gray;");
    row->addWidget(m_active);

    row->addSpacing(16);
    row->addWidget(new QLabel(QStringLiteral("全停止のフェード"), this));
    m_stopAllFade = new QDoubleSpinBox(this);
    m_stopAllFade->setRange(0.0, ValueRanges::kMaxStopAllFade);
    m_stopAllFade->setDecimals(1);
    m_stopAllFade->setSingleStep(0.5);
    m_stopAllFade->setSuffix(QStringLiteral(" 秒"));
    NumberField::releaseKeysOnEnter(m_stopAllFade);
    connect(m_stopAllFade, &QDoubleSpinBox::valueChanged, this, [this](double seconds) {
        if (seconds != m_model.stopAllFade())
            m_model.setStopAllFade(seconds);
    });
    row->addWidget(m_stopAllFade);
    row->addStretch(1);

    auto* stopAll = new QPushButton(QStringLiteral("全停止"), this);
    stopAll->setFocusPolicy(Qt::NoFocus);
    stopAll->setStyleSheet("QPushButton { background: #a02828; color: white; padding: 6px 22px; "
                           "font-weight: bold; font-size: 15px; }");
    connect(stopAll, &QPushButton::clicked, this, [this] { m_model.stopAll(false); });
    row->addWidget(stopAll);

    connect(&model, &AppModel::mixSettingsChanged, this, &OutputBar::refreshMix);
    connect(&model, &AppModel::audioDeviceChanged, this, [this] { setDevices(m_listed); });
    refreshMix();
    setDevices({});
    if (!model.isOffline()) {
        listDevices();
        connect(&model, &AppModel::devicesChanged, this, &OutputBar::listDevices);
    }
}

void OutputBar::listDevices() {
    QPointer<OutputBar> self(this);
    // JACK's devices as the model's watch sees them: a listing client of our own would be
    // announced to every client of the server.
    QThreadPool::globalInstance()->start([self, jack = m_model.jackDevices()] {
        auto devices = AudioDeviceList::outputDevices(jack);
        // Delivered on the main thread, where `self` is checked: the bar may be gone by then.
        QMetaObject::invokeMethod(qApp, [self, devices = std::move(devices)]() mutable {
            if (self)
                self->setDevices(std::move(devices));
        });
    });
}

void OutputBar::setDevices(std::vector<AudioOutputDevice> devices) {
    m_listed = std::move(devices);
    const auto& chosen = m_model.outputDeviceUID();
    m_devices->clear();
    m_devices->addItem(QStringLiteral("システム既定"));
    bool chosenListed = !chosen;
    for (const AudioOutputDevice& device : m_listed) {
        const QString uid = QString::fromStdString(device.uid);
        m_devices->addItem(QStringLiteral("%1（%2 ch）")
                               .arg(QString::fromStdString(device.name))
                               .arg(device.channels),
                           uid);
        if (chosen && uid == *chosen) {
            m_devices->setCurrentIndex(m_devices->count() - 1);
            chosenListed = true;
        }
    }
    // A stored device that is not plugged in stays visible, so the operator sees what the show
    // asks for.
    if (!chosenListed) {
        m_devices->addItem(QStringLiteral("%1（見つかりません）").arg(*chosen), *chosen);
        m_devices->setCurrentIndex(m_devices->count() - 1);
    }
    showActiveDevice();
}

void OutputBar::showActiveDevice() {
    const AudioEngine& audio = m_model.audio();
    // Silence is the one state an operator must never have to guess at.
    if (audio.activeDevice() == "null") {
        m_active->setStyleSheet("color: #d03030; font-weight: bold;");
        m_active->setText(
            m_model.isOnFallback()
                ? QStringLiteral("→ 出力なし：音は出ていません（デバイスを待っています）")
                : QStringLiteral("→ 出力なし：音は出ていません"));
        return;
    }
    // What actually plays: the chosen device may have fallen back to the default.
    m_active->setStyleSheet(m_model.isOnFallback() ? "color: #c08000;" : "color: gray;");
    // Which system plays, and through what: "→ PipeWire: … · 8 ch · 48 kHz · 5.3 ms".
    m_active->setText(
        QStringLiteral("→ %1%2")
            .arg(QString::fromStdString(audio.playingDescription()))
            .arg(m_model.isOnFallback() ? QStringLiteral("（代わりの出力）") : QString()));
}

void OutputBar::refreshMix() {
    const QSignalBlocker blockMaster(m_master);
    m_master->setValue(static_cast<int>(std::lround(m_model.masterVolume() * 100)));
    m_masterText->setText(decibels(m_model.masterVolume()));
    if (!m_stopAllFade->hasFocus()) {
        const QSignalBlocker blockFade(m_stopAllFade);
        m_stopAllFade->setValue(m_model.stopAllFade());
    }
}
