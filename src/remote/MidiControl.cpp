#include "remote/MidiControl.h"

#include <QMetaObject>

#include "cue/AppModel.h"
#include "cue/RemoteCommand.h"
#include "model/KeyboardLayout.h"
#include "model/Prefs.h"

namespace {

const QString kLearned = QStringLiteral("MIDI を割り当てました: %1 → %2");

} // namespace

QString MidiControl::actionName(const MidiBinding& binding) {
    switch (binding.action) {
    case MidiBinding::Action::key:
        return KeyboardLayout::label(binding.key);
    case MidiBinding::Action::page:
        return QStringLiteral("ページ %1").arg(binding.page + 1);
    case MidiBinding::Action::stop:
        return QStringLiteral("すべて停止");
    case MidiBinding::Action::panic:
        return QStringLiteral("すべて即停止");
    case MidiBinding::Action::master:
        return QStringLiteral("マスター音量");
    }
    return {};
}

MidiControl::MidiControl(AppModel& model, QObject* parent) : QObject(parent), m_model(model) {}

std::optional<QString> MidiControl::configure() {
    m_input.close();
    if (!Prefs::value(kEnabled, false).toBool())
        return std::nullopt;
    const QString name = Prefs::value(kPortName, QStringLiteral("Vorlin")).toString();
    // Queued to the main thread: the sequencer's thread never touches the model.
    const auto error = m_input.open(name.toStdString(), [this](const MidiEvent& event) {
        QMetaObject::invokeMethod(
            this, [this, event] { handle(event); }, Qt::QueuedConnection);
    });
    if (error)
        return QStringLiteral("MIDI 入力を開けません（%1）").arg(QString::fromStdString(*error));
    return std::nullopt;
}

void MidiControl::learn(const MidiBinding& target) {
    m_learning = target;
}

void MidiControl::handle(const MidiEvent& event) {
    MidiBinding heard;
    heard.channel = event.channel;
    heard.number = event.number;
    switch (event.type) {
    case MidiEvent::Type::noteOn:
    case MidiEvent::Type::noteOff:
        heard.message = MidiBinding::Message::note;
        break;
    case MidiEvent::Type::control:
        heard.message = MidiBinding::Message::control;
        break;
    case MidiEvent::Type::program:
        heard.message = MidiBinding::Message::program;
        break;
    }
    if (m_learning) {
        if (event.type == MidiEvent::Type::noteOff)
            return;
        MidiBinding binding = *m_learning;
        binding.message = heard.message;
        binding.channel = heard.channel;
        binding.number = heard.number;
        m_learning.reset();
        auto& bindings = m_model.document().midiBindings;
        std::erase_if(bindings, [&](const MidiBinding& b) { return b.sameMessage(binding); });
        bindings.push_back(binding);
        m_model.session().markDirty();
        m_model.status().show(kLearned.arg(binding.label(), actionName(binding)));
        emit learned(binding);
        return;
    }
    const auto& bindings = m_model.document().midiBindings;
    const auto found = std::find_if(bindings.begin(), bindings.end(),
                                    [&](const MidiBinding& b) { return b.sameMessage(heard); });
    if (found == bindings.end())
        return;
    const MidiBinding binding = *found; // the lists may change while it acts
    switch (event.type) {
    case MidiEvent::Type::noteOn:
        press(binding, true);
        break;
    case MidiEvent::Type::noteOff:
        if (binding.action == MidiBinding::Action::key)
            press(binding, false);
        break;
    case MidiEvent::Type::program:
        press(binding, true);
        if (binding.action == MidiBinding::Action::key)
            press(binding, false);
        break;
    case MidiEvent::Type::control: {
        if (binding.action == MidiBinding::Action::master) {
            RemoteCommand command;
            command.kind = RemoteCommand::Kind::master;
            command.value = static_cast<double>(std::clamp(event.value, 0, 127)) / 127.0;
            command.apply(m_model);
            break;
        }
        bool& high = m_high[{event.channel, event.number}];
        const bool now = event.value >= 64;
        if (now == high)
            break;
        high = now;
        if (now || binding.action == MidiBinding::Action::key)
            press(binding, now);
        break;
    }
    }
}

void MidiControl::press(const MidiBinding& binding, bool down) {
    RemoteCommand command;
    command.down = down;
    switch (binding.action) {
    case MidiBinding::Action::key:
        command.kind = RemoteCommand::Kind::key;
        command.code = binding.key;
        break;
    case MidiBinding::Action::page:
        command.kind = RemoteCommand::Kind::page;
        command.number = binding.page;
        break;
    case MidiBinding::Action::stop:
        command.kind = RemoteCommand::Kind::stop;
        break;
    case MidiBinding::Action::panic:
        command.kind = RemoteCommand::Kind::panic;
        break;
    case MidiBinding::Action::master:
        return;
    }
    command.apply(m_model);
}
