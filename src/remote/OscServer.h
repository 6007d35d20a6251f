#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <QHostAddress>
#include <QObject>
#include <QSet>
#include <QUdpSocket>

#include "cue/RemoteCommand.h"

// OSC over UDP: datagrams (messages, and bundles of them) are read on the main thread from a
// socket bound to the address the operator chose (127.0.0.1 unless a network address is set),
// decoded with liblo, and turned into RemoteCommands; only senders on the allowed list (none:
// any) are heard. What is not ours — a malformed datagram, an unknown address, wrong arguments,
// a sender not allowed — is counted and reported, never acted on. A client that sends
// /vorlin/subscribe is sent the show's state as OSC whenever it changes (sendState), until it
// sends /vorlin/unsubscribe.
//
// A flood cannot hold the main thread: at most kBatch datagrams are read per turn of the event
// loop, the rest wait in the socket (and beyond its buffer are dropped by the system).
// Main thread.
class OscServer : public QObject {
    Q_OBJECT
public:
    static constexpr int kBatch = 256;
    static constexpr int kMaxBundleDepth = 8;

    struct Counts {
        std::int64_t received = 0;  // messages that became commands
        std::int64_t malformed = 0; // not OSC, or not one of our addresses and arguments
        std::int64_t refused = 0;   // from a sender not allowed
    };

    explicit OscServer(QObject* parent = nullptr);

    // Listens on address:port; `allowed` empty lets every sender in. The reason when it
    // cannot ("ポート 9000 を開けません（…）").
    std::optional<QString> listen(const QHostAddress& address, quint16 port,
                                  const QSet<QHostAddress>& allowed);
    void close();
    bool isListening() const { return m_socket.state() == QAbstractSocket::BoundState; }
    quint16 port() const { return m_socket.localPort(); }
    const Counts& counts() const { return m_counts; }

    // Sends `address` with `arguments` to every subscriber.
    void sendToSubscribers(const QByteArray& address,
                           const std::vector<RemoteCommand::Argument>& arguments);
    std::size_t subscriberCount() const { return m_subscribers.size(); }

    // One datagram as OSC: the messages it holds (a bundle's, in order), each as its address and
    // arguments; none when any part is not valid OSC.
    using Message = std::pair<QString, std::vector<RemoteCommand::Argument>>;
    static std::optional<std::vector<Message>> decode(const QByteArray& datagram);
    // A message as an OSC datagram.
    static QByteArray encode(const QByteArray& address,
                             const std::vector<RemoteCommand::Argument>& arguments);

signals:
    void command(const RemoteCommand& command);
    // A datagram was refused or not understood (counts() says how many so far).
    void rejected(const QString& why);

private:
    void readPending();
    void handle(const QByteArray& datagram, const QHostAddress& sender, quint16 port);

    QUdpSocket m_socket;
    QSet<QHostAddress> m_allowed;
    std::vector<std::pair<QHostAddress, quint16>> m_subscribers;
    Counts m_counts;
    bool m_scheduled = false;
};
