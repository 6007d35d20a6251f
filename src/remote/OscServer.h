#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <QHostAddress>
#include <QObject>
#include <QSet>
#include <QSocketNotifier>

#include "cue/RemoteCommand.h"

// OSC over UDP: datagrams (messages, and bundles of them) are read on the main thread from a
// socket bound to the address the operator chose (127.0.0.1 unless a network address is set),
// decoded with liblo, and turned into RemoteCommands; only allowed senders are heard. What is
// not ours — a malformed datagram, an unknown address, wrong arguments, a sender not allowed —
// is counted and reported, never acted on.
//
// A flood can neither hold the main thread nor make the server deaf. The socket is a plain
// non-blocking one under a level-triggered notifier: every wake-up reads what is waiting (up
// to kDrain datagrams; the notifier fires again at once for the rest), acts on at most kBatch
// commands and sheds the others with a count. A fader's burst of /vorlin/master values is one
// change: only the last value of a wake-up is applied.
//
// Feedback: a client that sends /vorlin/subscribe is sent the show's state as OSC whenever it
// changes (sendToSubscribers), one subscription per address and port, for
// kSubscriptionLifetime unless it subscribes again, until it unsubscribes, or until its port
// answers "unreachable". At most kMaxSubscribers at once; further ones are refused and counted.
// So a forged sender address gets at most the feedback rate for one lifetime.
// Main thread.
class OscServer : public QObject {
    Q_OBJECT
public:
    static constexpr int kDrain = 2048;
    static constexpr int kBatch = 256;
    static constexpr int kMaxBundleDepth = 8;
    static constexpr std::size_t kMaxSubscribers = 8;
    static constexpr std::chrono::seconds kSubscriptionLifetime{60};

    struct Counts {
        std::int64_t received = 0;           // messages that became commands
        std::int64_t malformed = 0;          // not OSC, or not one of our addresses and arguments
        std::int64_t refused = 0;            // from a sender not allowed
        std::int64_t shed = 0;               // commands beyond a wake-up's kBatch, not acted on
        std::int64_t subscribersRefused = 0; // subscriptions beyond kMaxSubscribers
    };

    // Who may send: anyone, or the addresses listed (an empty list: nobody).
    struct Senders {
        bool anyone = true;
        QSet<QHostAddress> allowed;
    };

    explicit OscServer(QObject* parent = nullptr);
    ~OscServer() override;

    // Listens on address:port. The reason when it cannot ("ポート 9000 を開けません（…）").
    std::optional<QString> listen(const QHostAddress& address, quint16 port,
                                  const Senders& senders);
    void close();
    bool isListening() const { return m_fd >= 0; }
    quint16 port() const { return m_port; }
    const Counts& counts() const { return m_counts; }

    // Sends `address` with `arguments` to every live subscriber.
    void sendToSubscribers(const QByteArray& address,
                           const std::vector<RemoteCommand::Argument>& arguments);
    std::size_t subscriberCount();
    // Tests shorten the lifetime; the program keeps kSubscriptionLifetime.
    void setSubscriptionLifetime(std::chrono::milliseconds lifetime) { m_lifetime = lifetime; }

    // One datagram as OSC: the messages it holds (a bundle's, in order), each as its address and
    // arguments; none when any part is not valid OSC.
    using Message = std::pair<QString, std::vector<RemoteCommand::Argument>>;
    static std::optional<std::vector<Message>> decode(const QByteArray& datagram);
    // A message as an OSC datagram.
    static QByteArray encode(const QByteArray& address,
                             const std::vector<RemoteCommand::Argument>& arguments);

signals:
    void command(const RemoteCommand& command);
    // Datagrams were refused, not understood or shed since the last report (counts() says how
    // many so far): at most one report per wake-up.
    void rejected(const QString& why);

private:
    struct Subscriber {
        QHostAddress host;
        quint16 port = 0;
        std::chrono::steady_clock::time_point until;
        bool is(const QHostAddress& h, quint16 p) const { return port == p && host == h; }
    };

    void readPending();
    void dropUnreachable();
    bool isAllowed(const QHostAddress& sender) const;
    // Acts on one datagram's commands within the wake-up's budget; the last master value is
    // kept in `master` instead.
    void handle(const QByteArray& datagram, const QHostAddress& sender, quint16 port, int& acted,
                std::optional<RemoteCommand>& master, QString& why);
    // Subscribes or renews; false when a new one would pass kMaxSubscribers.
    bool subscribe(const QHostAddress& host, quint16 port);
    void unsubscribe(const QHostAddress& host, quint16 port);
    void dropExpired();

    int m_fd = -1;
    int m_family = 0; // AF_INET or AF_INET6
    quint16 m_port = 0;
    std::unique_ptr<QSocketNotifier> m_notifier;
    Senders m_senders;
    std::vector<Subscriber> m_subscribers;
    std::chrono::milliseconds m_lifetime = kSubscriptionLifetime;
    Counts m_counts;
    QByteArray m_buffer; // one datagram at a time, the largest UDP can carry
};
