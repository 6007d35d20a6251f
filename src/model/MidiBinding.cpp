#include "model/MidiBinding.h"

#include <array>

#include "model/DocumentError.h"

namespace {

constexpr std::array kMessages{"note", "control", "program"};
constexpr std::array kActions{"key", "page", "stop", "panic", "master"};

template <typename Enum, std::size_t N>
Enum named(const QJsonObject& object, const char* field, const std::array<const char*, N>& names) {
    const QString text = object.value(QLatin1String(field)).toString();
    for (std::size_t i = 0; i < N; ++i) {
        if (text == QLatin1String(names[i]))
            return static_cast<Enum>(i);
    }
    throw DocumentError(
        QStringLiteral("MIDI の割り当ての %1 が読めません: %2").arg(QLatin1String(field), text));
}

int ranged(const QJsonObject& object, const char* field, int low, int high) {
    const QJsonValue value = object.value(QLatin1String(field));
    const double number = value.toDouble(-1.0);
    if (!value.isDouble() || number < low || number > high || number != static_cast<int>(number))
        throw DocumentError(QStringLiteral("MIDI の割り当ての %1 は %2〜%3 です")
                                .arg(QLatin1String(field))
                                .arg(low)
                                .arg(high));
    return static_cast<int>(number);
}

} // namespace

QString MidiBinding::label() const {
    static const std::array<const char*, 12> kNames{"C",  "C#", "D",  "D#", "E",  "F",
                                                    "F#", "G",  "G#", "A",  "A#", "B"};
    QString text;
    switch (message) {
    case Message::note:
        text = QStringLiteral("♪%1%2").arg(QLatin1String(kNames[number % 12])).arg(number / 12 - 1);
        break;
    case Message::control:
        text = QStringLiteral("CC%1").arg(number);
        break;
    case Message::program:
        text = QStringLiteral("PC%1").arg(number);
        break;
    }
    return channel == 1 ? text : text + QStringLiteral("/%1").arg(channel);
}

QJsonObject MidiBinding::toJson() const {
    QJsonObject o{{"message", QLatin1String(kMessages[static_cast<std::size_t>(message)])},
                  {"channel", channel},
                  {"number", number},
                  {"action", QLatin1String(kActions[static_cast<std::size_t>(action)])}};
    if (action == Action::key)
        o["key"] = static_cast<int>(key);
    if (action == Action::page)
        o["page"] = static_cast<qint64>(page);
    return o;
}

MidiBinding MidiBinding::fromJson(const QJsonObject& o) {
    MidiBinding binding;
    binding.message = named<Message>(o, "message", kMessages);
    binding.channel = ranged(o, "channel", 1, 16);
    binding.number = ranged(o, "number", 0, 127);
    binding.action = named<Action>(o, "action", kActions);
    if (binding.action == Action::key)
        binding.key = static_cast<KeyCode>(ranged(o, "key", 0, 65534));
    if (binding.action == Action::page)
        binding.page = ranged(o, "page", 0, 9999);
    return binding;
}
