#include "cli/EventScript.h"

#include <cmath>

#include <QRegularExpression>
#include <QStringList>

#include "audio/Routing.h"
#include "model/ValueRanges.h"

namespace EventScript {

namespace {

// "<seconds> osc <address> [arguments]": integers, decimals, and words or "quoted text".
std::optional<RemoteCommand> oscCommand(const QString& line, const QStringList& words) {
    if (words.size() < 3)
        return std::nullopt;
    std::vector<RemoteCommand::Argument> arguments;
    const QString rest = line.section(QLatin1Char(' '), 3, -1, QString::SectionSkipEmpty);
    static const QRegularExpression token(QStringLiteral("\"([^\"]*)\"|(\\S+)"));
    for (auto match = token.globalMatch(rest); match.hasNext();) {
        const auto found = match.next();
        if (found.hasCaptured(1)) {
            arguments.emplace_back(found.captured(1));
            continue;
        }
        const QString word = found.captured(2);
        bool ok = false;
        if (const qlonglong integer = word.toLongLong(&ok); ok)
            arguments.emplace_back(static_cast<std::int64_t>(integer));
        else if (const double real = word.toDouble(&ok); ok)
            arguments.emplace_back(real);
        else
            arguments.emplace_back(word);
    }
    return RemoteCommand::fromOsc(words[2], arguments);
}

} // namespace

std::vector<ScriptEvent> parse(const QString& text) {
    std::vector<ScriptEvent> events;
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (qsizetype n = 0; n < lines.size(); ++n) {
        const QString line = lines[n].section(QLatin1Char('#'), 0, 0).trimmed();
        if (line.isEmpty())
            continue;
        const auto fail = [&] {
            return EventScriptError(QStringLiteral("イベントファイルの %1 行目が読めません: %2")
                                        .arg(n + 1)
                                        .arg(lines[n].trimmed())
                                        .toStdString());
        };
        const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        if (words.size() < 2)
            throw fail();
        ScriptEvent event;
        bool ok = false;
        event.seconds = words[0].toDouble(&ok);
        if (!ok || !std::isfinite(event.seconds) || event.seconds < 0)
            throw fail();
        // Events run in file order; one that goes back in time would be silently late.
        if (!events.empty() && event.seconds < events.back().seconds)
            throw EventScriptError(
                QStringLiteral("イベントファイルの %1 行目: 時刻が前の行（%2 秒）より前です: %3")
                    .arg(n + 1)
                    .arg(events.back().seconds)
                    .arg(lines[n].trimmed())
                    .toStdString());
        const QString& verb = words[1];
        if (verb == "down" || verb == "up") {
            const uint code = words.value(2).toUInt(&ok);
            if (!ok || code > 65535 || words.size() > 5)
                throw fail();
            event.kind = ScriptEvent::Kind::key;
            event.code = static_cast<KeyCode>(code);
            event.down = verb == "down";
            for (qsizetype w = 3; w < words.size(); ++w) {
                if (words[w] == "shift")
                    event.shift = true;
                else if (words[w] == "repeat")
                    event.repeat = true;
                else
                    throw fail();
            }
        } else if (verb == "page") {
            event.kind = ScriptEvent::Kind::page;
            event.page = words.value(2).toLongLong(&ok);
            if (!ok || words.size() != 3 || event.page < 0)
                throw fail();
        } else if (verb == "mute") {
            event.kind = ScriptEvent::Kind::mute;
            const QString outputs = QStringList(words.mid(2)).join(QLatin1Char(' '));
            for (std::int64_t output : Routing::parse(outputs.toStdString()))
                event.muted.insert(output);
            if (!outputs.isEmpty() && event.muted.empty())
                throw fail();
        } else if (verb == "master") {
            event.kind = ScriptEvent::Kind::master;
            event.gain = words.value(2).toDouble(&ok);
            if (!ok || words.size() != 3 || !(event.gain >= 0.0) ||
                event.gain > ValueRanges::kMaxMasterVolume)
                throw fail();
        } else if (verb == "osc") {
            const auto command = oscCommand(line, words);
            if (!command)
                throw fail();
            event.kind = ScriptEvent::Kind::osc;
            event.command = *command;
        } else {
            throw fail();
        }
        events.push_back(std::move(event));
    }
    return events;
}

} // namespace EventScript
