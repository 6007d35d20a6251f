#include "cue/RemoteCommand.h"

#include <cmath>

#include <QStringList>

#include "cue/AppModel.h"
#include "model/KeyboardLayout.h"
#include "model/ValueRanges.h"

namespace {

std::optional<std::int64_t> integer(const RemoteCommand::Argument& argument) {
    if (const auto* value = std::get_if<std::int64_t>(&argument))
        return *value;
    return std::nullopt;
}

std::optional<double> real(const RemoteCommand::Argument& argument) {
    if (const auto* value = std::get_if<double>(&argument))
        return std::isfinite(*value) ? std::optional<double>(*value) : std::nullopt;
    if (const auto* value = std::get_if<std::int64_t>(&argument))
        return static_cast<double>(*value);
    return std::nullopt;
}

// 1 or 0: down or up.
std::optional<bool> state(const RemoteCommand::Argument& argument) {
    const auto value = integer(argument);
    if (!value || (*value != 0 && *value != 1))
        return std::nullopt;
    return *value == 1;
}

} // namespace

std::optional<RemoteCommand> RemoteCommand::fromOsc(const QString& address,
                                                    const std::vector<Argument>& arguments) {
    const QStringList parts = address.split('/');
    // "/vorlin/…" splits into "", "vorlin", …
    if (parts.size() < 3 || !parts[0].isEmpty() || parts[1] != QStringLiteral("vorlin"))
        return std::nullopt;
    const QString& verb = parts[2];
    const std::size_t count = arguments.size();
    RemoteCommand command;
    if (verb == QStringLiteral("key") && parts.size() == 3 && count == 2) {
        const auto code = integer(arguments[0]);
        const auto down = state(arguments[1]);
        if (!code || !down || *code < 0 || *code >= KeySpec::kNoCode)
            return std::nullopt;
        command.kind = Kind::key;
        command.code = static_cast<KeyCode>(*code);
        command.down = *down;
        return command;
    }
    if (verb == QStringLiteral("key") && parts.size() == 4 && !parts[3].isEmpty() && count == 1) {
        const auto down = state(arguments[0]);
        if (!down)
            return std::nullopt;
        command.kind = Kind::keyLabel;
        command.name = parts[3];
        command.down = *down;
        return command;
    }
    if (parts.size() == 3 && verb == QStringLiteral("page") && count == 1) {
        if (const auto index = integer(arguments[0]); index && *index >= 0) {
            command.kind = Kind::page;
            command.number = *index;
            return command;
        }
        if (const auto* name = std::get_if<QString>(&arguments[0])) {
            command.kind = Kind::pageName;
            command.name = *name;
            return command;
        }
        return std::nullopt;
    }
    if (parts.size() == 3 && count == 0) {
        if (verb == QStringLiteral("stop"))
            command.kind = Kind::stop;
        else if (verb == QStringLiteral("panic"))
            command.kind = Kind::panic;
        else if (verb == QStringLiteral("subscribe"))
            command.kind = Kind::subscribe;
        else if (verb == QStringLiteral("unsubscribe"))
            command.kind = Kind::unsubscribe;
        else
            return std::nullopt;
        return command;
    }
    if (parts.size() == 3 && verb == QStringLiteral("master") && count == 1) {
        const auto gain = real(arguments[0]);
        if (!gain || *gain < 0.0 || *gain > ValueRanges::kMaxMasterVolume)
            return std::nullopt;
        command.kind = Kind::master;
        command.value = *gain;
        return command;
    }
    if (parts.size() == 5 && verb == QStringLiteral("cue")) {
        bool ok = false;
        command.number = parts[3].toLongLong(&ok);
        if (!ok)
            return std::nullopt;
        if (parts[4] == QStringLiteral("stop") && count == 0) {
            command.kind = Kind::stopCue;
            return command;
        }
        const auto fraction = count == 1 ? real(arguments[0]) : std::nullopt;
        if (parts[4] == QStringLiteral("seek") && fraction && *fraction >= 0.0 &&
            *fraction <= 1.0) {
            command.kind = Kind::seekCue;
            command.value = *fraction;
            return command;
        }
    }
    return std::nullopt;
}

bool RemoteCommand::apply(AppModel& model) const {
    switch (kind) {
    case Kind::key:
        model.handleKey(code, down, false, false);
        return true;
    case Kind::keyLabel:
        for (const auto& [keyCode, label] : KeyboardLayout::labels()) {
            if (label.compare(name, Qt::CaseInsensitive) == 0) {
                model.handleKey(keyCode, down, false, false);
                return true;
            }
        }
        return false;
    case Kind::page:
        if (number >= static_cast<std::int64_t>(model.document().pages.size()))
            return false;
        model.editor().switchPage(static_cast<std::size_t>(number));
        return true;
    case Kind::pageName: {
        const auto& pages = model.document().pages;
        for (std::size_t i = 0; i < pages.size(); ++i) {
            if (pages[i].name == name) {
                model.editor().switchPage(i);
                return true;
            }
        }
        return false;
    }
    case Kind::stop:
        model.stopAll(false);
        return true;
    case Kind::panic:
        model.stopAll(true);
        return true;
    case Kind::master:
        model.setMasterVolume(value);
        return true;
    case Kind::stopCue:
        return model.stopCue(number);
    case Kind::seekCue:
        return model.seek(number, value);
    case Kind::subscribe:
    case Kind::unsubscribe:
        return true;
    }
    return false;
}
