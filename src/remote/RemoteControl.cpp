#include "remote/RemoteControl.h"

#include <QRegularExpression>

#include "cue/AppModel.h"
#include "model/Prefs.h"

namespace {

const QString kRefused =
    QStringLiteral("リモート入力を受け付けませんでした（%1。これまでに %2 件）");
const QString kNothingThere = QStringLiteral("リモート入力: %1 はありません");
const QString kUnreadableSenders =
    QStringLiteral("OSC の許可する送り手を読めません（%1）。どこからの入力も受け付けません");

} // namespace

RemoteControl::RemoteControl(AppModel& model, QObject* parent) : QObject(parent), m_model(model) {
    connect(&m_osc, &OscServer::command, this, &RemoteControl::apply);
    connect(&m_osc, &OscServer::rejected, this, [this](const QString& why) {
        const OscServer::Counts& counts = m_osc.counts();
        m_model.status().show(kRefused.arg(why).arg(counts.malformed + counts.refused +
                                                    counts.shed + counts.subscribersRefused));
    });
    m_feedback.setSingleShot(true);
    m_feedback.setInterval(33);
    connect(&m_feedback, &QTimer::timeout, this, &RemoteControl::sendState);
    const auto changed = [this] {
        if (m_osc.subscriberCount() > 0 && !m_feedback.isActive())
            m_feedback.start();
    };
    connect(&m_model.live(), &LiveState::cuesChanged, this, changed);
    connect(&m_model.live(), &LiveState::progressChanged, this, changed);
    connect(&m_model, &AppModel::assignmentsChanged, this, changed);
    connect(&m_model, &AppModel::mixSettingsChanged, this, changed);
}

std::optional<QString> RemoteControl::configure() {
    if (!Prefs::value(kEnabled, false).toBool()) {
        m_osc.close();
        return std::nullopt;
    }
    const QHostAddress address(Prefs::value(kAddress, QStringLiteral("127.0.0.1")).toString());
    const int port = Prefs::value(kPort, kDefaultPort).toInt();
    if (address.isNull() || port <= 0 || port > 65535)
        return QStringLiteral("OSC の設定が正しくありません");
    QString unreadable;
    const OscServer::Senders senders =
        allowedSenders(Prefs::value(kAllowedSenders, QString()), unreadable);
    if (const auto failed = m_osc.listen(address, static_cast<quint16>(port), senders))
        return failed;
    if (!unreadable.isEmpty())
        return kUnreadableSenders.arg(unreadable);
    return std::nullopt;
}

std::optional<QString> RemoteControl::listenOn(const QHostAddress& address, quint16 port) {
    return m_osc.listen(address, port, OscServer::Senders{});
}

OscServer::Senders RemoteControl::allowedSenders(const QVariant& stored, QString& unreadable) {
    // Typed in the settings window it is one string; written into the settings file by hand
    // ("a, b") QSettings reads it back as a list. Either way every entry counts.
    const QString text = stored.typeId() == QMetaType::QStringList
                             ? stored.toStringList().join(QLatin1Char(','))
                             : stored.toString();
    OscServer::Senders senders;
    for (const QString& sender :
         text.split(QRegularExpression(QStringLiteral("[,\\s]+")), Qt::SkipEmptyParts)) {
        senders.anyone = false;
        const QHostAddress address(sender);
        if (address.isNull()) {
            unreadable = sender;
            senders.allowed.clear();
            return senders; // a list we cannot read lets nobody in
        }
        senders.allowed.insert(address);
    }
    return senders;
}

void RemoteControl::apply(const RemoteCommand& command) {
    if (command.kind == RemoteCommand::Kind::subscribe) {
        // With the next feedback burst, at its bounded rate: a burst of subscriptions cannot
        // make us send more.
        if (!m_feedback.isActive())
            m_feedback.start();
        return;
    }
    if (!command.apply(m_model))
        m_model.status().show(kNothingThere.arg(command.target()));
}

void RemoteControl::sendState() {
    const ShowDocument& document = m_model.document();
    m_osc.sendToSubscribers("/vorlin/state/page", {static_cast<std::int64_t>(document.currentPage),
                                                   document.pages[document.currentPage].name});
    m_osc.sendToSubscribers("/vorlin/state/master", {m_model.masterVolume()});
    const auto& cues = m_model.live().cues();
    m_osc.sendToSubscribers("/vorlin/state/cues", {static_cast<std::int64_t>(cues.size())});
    for (const CueRow& row : cues)
        m_osc.sendToSubscribers("/vorlin/state/cue",
                                {row.id, static_cast<std::int64_t>(row.key), row.name, row.progress,
                                 static_cast<std::int64_t>(row.stopping)});
    // The keys of the current page that play, with their progress (as the drawn keys show it).
    m_osc.sendToSubscribers("/vorlin/state/keys",
                            {static_cast<std::int64_t>(m_model.live().progress().size())});
    for (const auto& [code, progress] : m_model.live().progress())
        m_osc.sendToSubscribers("/vorlin/state/key", {static_cast<std::int64_t>(code), progress});
}
