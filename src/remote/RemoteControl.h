#pragma once

#include <QObject>
#include <QTimer>

#include "remote/OscServer.h"

class AppModel;

// Show control from outside: OSC commands applied to the model exactly as the keyboard and the
// window apply them, feedback to subscribed clients whenever the live state changes (at most
// 30 bursts a second), and a status-line message when a remote input is refused. Configured
// from the preferences (off by default; 127.0.0.1 unless a network address is chosen).
// Main thread.
class RemoteControl : public QObject {
    Q_OBJECT
public:
    static inline const QString kEnabled = QStringLiteral("pref.oscEnabled");
    static inline const QString kPort = QStringLiteral("pref.oscPort");
    static inline const QString kAddress = QStringLiteral("pref.oscAddress");
    // Sender addresses, separated by commas or spaces; empty: any.
    static inline const QString kAllowedSenders = QStringLiteral("pref.oscAllowedSenders");
    static constexpr int kDefaultPort = 53100;

    explicit RemoteControl(AppModel& model, QObject* parent = nullptr);

    // (Re)reads the preferences and listens, or stops listening. The reason when it cannot.
    std::optional<QString> configure();
    // Listens on address:port for every sender there, whatever the preferences say
    // (`vorlin play --osc`). The reason when it cannot.
    std::optional<QString> listenOn(const QHostAddress& address, quint16 port);
    OscServer& osc() { return m_osc; }

    // The allowed senders as stored (a string, or a list); an entry that is no address makes
    // it refuse everyone, and is named in `unreadable`.
    static OscServer::Senders allowedSenders(const QVariant& stored, QString& unreadable);

private:
    void apply(const RemoteCommand& command);
    void sendState();

    AppModel& m_model;
    OscServer m_osc;
    QTimer m_feedback; // single shot: one burst per 1/30 s at most
};
