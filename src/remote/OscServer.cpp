#include "remote/OscServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/errqueue.h>
#include <lo/lo.h>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtEndian>

namespace {

const QString kNotOsc = QStringLiteral("OSC として読めません");
const QString kUnknown = QStringLiteral("知らないアドレスか引数です: %1");
const QString kNotAllowed = QStringLiteral("許可していない送り手です: %1");
const QString kTooMany = QStringLiteral("一度に届いた数が多すぎます");
const QString kTooManySubscribers = QStringLiteral("購読できるのは %1 か所までです");

// The largest datagram UDP carries.
constexpr int kLargest = 65536;

using Message = OscServer::Message;

std::optional<Message> decodeMessage(const char* data, qsizetype size) {
    int result = 0;
    std::unique_ptr<std::remove_pointer_t<lo_message>, decltype(&lo_message_free)> message(
        lo_message_deserialise(const_cast<char*>(data), static_cast<size_t>(size), &result),
        &lo_message_free);
    if (!message || result != 0)
        return std::nullopt;
    Message decoded;
    decoded.first = QString::fromUtf8(lo_get_path(const_cast<char*>(data), size));
    const char* types = lo_message_get_types(message.get());
    lo_arg** argv = lo_message_get_argv(message.get());
    for (int i = 0; types && types[i]; ++i) {
        // liblo packs arguments at 4-byte steps: an 8-byte value may sit unaligned, so each is
        // copied out rather than read through the union.
        const auto* raw = reinterpret_cast<const char*>(argv[i]);
        const auto read = [raw](auto value) {
            std::memcpy(&value, raw, sizeof value);
            return value;
        };
        switch (types[i]) {
        case LO_INT32:
            decoded.second.emplace_back(static_cast<std::int64_t>(read(std::int32_t{})));
            break;
        case LO_INT64:
            decoded.second.emplace_back(static_cast<std::int64_t>(read(std::int64_t{})));
            break;
        case LO_FLOAT:
            decoded.second.emplace_back(static_cast<double>(read(float{})));
            break;
        case LO_DOUBLE:
            decoded.second.emplace_back(read(double{}));
            break;
        case LO_STRING:
        case LO_SYMBOL:
            decoded.second.emplace_back(QString::fromUtf8(raw));
            break;
        case LO_TRUE:
            decoded.second.emplace_back(std::int64_t{1});
            break;
        case LO_FALSE:
            decoded.second.emplace_back(std::int64_t{0});
            break;
        default:
            return std::nullopt; // blobs, MIDI, time tags …: none of ours takes them
        }
    }
    return decoded;
}

// A bundle: "#bundle\0", an 8-byte time tag, then elements of a 4-byte size and the element.
bool decodeInto(const char* data, qsizetype size, int depth, std::vector<Message>& out) {
    static constexpr char kBundle[] = "#bundle";
    if (size >= 16 && std::memcmp(data, kBundle, 8) == 0) {
        if (depth >= OscServer::kMaxBundleDepth)
            return false;
        for (qsizetype at = 16; at < size;) {
            if (size - at < 4)
                return false;
            const auto length = static_cast<qsizetype>(qFromBigEndian<quint32>(data + at));
            at += 4;
            if (length <= 0 || length > size - at || !decodeInto(data + at, length, depth + 1, out))
                return false;
            at += length;
        }
        return true;
    }
    const auto message = decodeMessage(data, size);
    if (!message)
        return false;
    out.push_back(*message);
    return true;
}

// An address and port as the system's socket address, in the family of a socket (an IPv4
// address on an IPv6 socket as ::ffff:a.b.c.d).
socklen_t socketAddress(const QHostAddress& host, quint16 port, int family, sockaddr_storage& out) {
    std::memset(&out, 0, sizeof out);
    bool isV4 = false;
    const quint32 v4 = host.toIPv4Address(&isV4);
    if (family == AF_INET) {
        auto& in = reinterpret_cast<sockaddr_in&>(out);
        in.sin_family = AF_INET;
        in.sin_port = htons(port);
        in.sin_addr.s_addr = htonl(v4);
        return sizeof in;
    }
    auto& in6 = reinterpret_cast<sockaddr_in6&>(out);
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(port);
    const Q_IPV6ADDR bytes =
        isV4 ? QHostAddress(QStringLiteral("::ffff:") + host.toString()).toIPv6Address()
             : host.toIPv6Address();
    std::memcpy(in6.sin6_addr.s6_addr, bytes.c, 16);
    return sizeof in6;
}

// A sender as an address (an IPv4 sender on an IPv6 socket as plain IPv4) and a port.
std::pair<QHostAddress, quint16> senderOf(const sockaddr_storage& from) {
    QHostAddress host(reinterpret_cast<const sockaddr*>(&from));
    bool isV4 = false;
    const quint32 v4 = host.toIPv4Address(&isV4);
    if (isV4)
        host = QHostAddress(v4);
    const quint16 port = from.ss_family == AF_INET
                             ? ntohs(reinterpret_cast<const sockaddr_in&>(from).sin_port)
                             : ntohs(reinterpret_cast<const sockaddr_in6&>(from).sin6_port);
    return {host, port};
}

} // namespace

OscServer::OscServer(QObject* parent) : QObject(parent), m_buffer(kLargest, Qt::Uninitialized) {}

OscServer::~OscServer() {
    close();
}

std::optional<QString> OscServer::listen(const QHostAddress& address, quint16 port,
                                         const Senders& senders) {
    close();
    m_senders = senders;
    const auto failed = [&](int error) {
        close();
        return QStringLiteral("ポート %1 を開けません（%2）")
            .arg(port)
            .arg(QString::fromLocal8Bit(std::strerror(error)));
    };
    const int family = address.protocol() == QAbstractSocket::IPv4Protocol ? AF_INET : AF_INET6;
    m_family = family;
    m_fd = ::socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd < 0)
        return failed(errno);
    const int on = 1, off = 0;
    // Errors of what we send (a subscriber's port that went away) come back as messages.
    if (family == AF_INET) {
        ::setsockopt(m_fd, IPPROTO_IP, IP_RECVERR, &on, sizeof on);
    } else {
        ::setsockopt(m_fd, IPPROTO_IPV6, IPV6_RECVERR, &on, sizeof on);
        if (address.protocol() == QAbstractSocket::AnyIPProtocol)
            ::setsockopt(m_fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    }
    sockaddr_storage bound;
    const socklen_t length = socketAddress(address, port, family, bound);
    if (::bind(m_fd, reinterpret_cast<const sockaddr*>(&bound), length) != 0)
        return failed(errno);
    socklen_t got = sizeof bound;
    ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&bound), &got);
    m_port = senderOf(bound).second;
    m_notifier = std::make_unique<QSocketNotifier>(m_fd, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &OscServer::readPending);
    return std::nullopt;
}

void OscServer::close() {
    m_notifier.reset();
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    m_port = 0;
    m_subscribers.clear();
}

bool OscServer::isAllowed(const QHostAddress& sender) const {
    if (m_senders.anyone)
        return true;
    for (const QHostAddress& allowed : m_senders.allowed)
        if (allowed.isEqual(sender, QHostAddress::TolerantConversion))
            return true;
    return false;
}

void OscServer::readPending() {
    int acted = 0;
    std::optional<RemoteCommand> master;
    QString why;
    for (int n = 0; n < kDrain && m_fd >= 0; ++n) {
        sockaddr_storage from;
        socklen_t fromLength = sizeof from;
        const ssize_t size = ::recvfrom(m_fd, m_buffer.data(), static_cast<size_t>(kLargest), 0,
                                        reinterpret_cast<sockaddr*>(&from), &fromLength);
        if (size < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                break;
            continue; // an error of something we sent (its details wait in the error queue)
        }
        const auto [host, port] = senderOf(from);
        if (!isAllowed(host)) {
            ++m_counts.refused;
            why = kNotAllowed.arg(host.toString());
            continue;
        }
        if (acted >= kBatch) {
            ++m_counts.shed; // not even decoded: a flood costs no more than reading it
            why = kTooMany;
            continue;
        }
        handle(QByteArray::fromRawData(m_buffer.constData(), size), host, port, acted, master, why);
    }
    dropUnreachable();
    if (master)
        emit command(*master);
    if (!why.isEmpty())
        emit rejected(why);
}

void OscServer::handle(const QByteArray& datagram, const QHostAddress& sender, quint16 port,
                       int& acted, std::optional<RemoteCommand>& master, QString& why) {
    const auto messages = decode(datagram);
    if (!messages) {
        ++m_counts.malformed;
        why = kNotOsc;
        return;
    }
    bool subscribed = false; // a bundle of subscriptions is one request
    for (const Message& message : *messages) {
        const auto command = RemoteCommand::fromOsc(message.first, message.second);
        if (!command) {
            ++m_counts.malformed;
            why = kUnknown.arg(message.first);
            continue;
        }
        if (acted >= kBatch) {
            ++m_counts.shed;
            why = kTooMany;
            continue;
        }
        ++m_counts.received;
        ++acted;
        switch (command->kind) {
        case RemoteCommand::Kind::master:
            master = command;
            continue;
        case RemoteCommand::Kind::subscribe:
            if (std::exchange(subscribed, true))
                continue;
            if (!subscribe(sender, port)) {
                ++m_counts.subscribersRefused;
                why = kTooManySubscribers.arg(kMaxSubscribers);
                continue;
            }
            break;
        case RemoteCommand::Kind::unsubscribe:
            unsubscribe(sender, port);
            break;
        default:
            break;
        }
        emit this->command(*command);
    }
}

bool OscServer::subscribe(const QHostAddress& host, quint16 port) {
    const auto until = std::chrono::steady_clock::now() + m_lifetime;
    const auto found = std::find_if(m_subscribers.begin(), m_subscribers.end(),
                                    [&](const Subscriber& s) { return s.is(host, port); });
    if (found != m_subscribers.end()) {
        found->until = until;
        return true;
    }
    dropExpired();
    if (m_subscribers.size() >= kMaxSubscribers)
        return false;
    m_subscribers.push_back({host, port, until});
    return true;
}

void OscServer::unsubscribe(const QHostAddress& host, quint16 port) {
    std::erase_if(m_subscribers, [&](const Subscriber& s) { return s.is(host, port); });
}

void OscServer::dropExpired() {
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(m_subscribers, [&](const Subscriber& s) { return s.until <= now; });
}

// The system answers a datagram sent to a closed port with "port unreachable"; with
// IP_RECVERR that answer waits in the socket's error queue, naming where the datagram went.
void OscServer::dropUnreachable() {
    for (int n = 0; n < kDrain && m_fd >= 0; ++n) {
        sockaddr_storage to;
        char control[512];
        char byte;
        iovec part{&byte, 1};
        msghdr header{};
        header.msg_name = &to;
        header.msg_namelen = sizeof to;
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        if (::recvmsg(m_fd, &header, MSG_ERRQUEUE | MSG_DONTWAIT) < 0)
            return;
        for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
            if (!((c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_RECVERR) ||
                  (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_RECVERR)))
                continue;
            const auto* error = reinterpret_cast<const sock_extended_err*>(CMSG_DATA(c));
            if (error->ee_errno == ECONNREFUSED || error->ee_errno == EHOSTUNREACH ||
                error->ee_errno == ENETUNREACH) {
                const auto [host, port] = senderOf(to);
                unsubscribe(host, port);
            }
        }
    }
}

std::size_t OscServer::subscriberCount() {
    dropExpired();
    return m_subscribers.size();
}

std::optional<std::vector<Message>> OscServer::decode(const QByteArray& datagram) {
    std::vector<Message> messages;
    if (!decodeInto(datagram.constData(), datagram.size(), 0, messages))
        return std::nullopt;
    return messages;
}

QByteArray OscServer::encode(const QByteArray& address,
                             const std::vector<RemoteCommand::Argument>& arguments) {
    std::unique_ptr<std::remove_pointer_t<lo_message>, decltype(&lo_message_free)> message(
        lo_message_new(), &lo_message_free);
    for (const auto& argument : arguments) {
        if (const auto* i = std::get_if<std::int64_t>(&argument))
            lo_message_add_int32(message.get(), static_cast<int32_t>(*i));
        else if (const auto* d = std::get_if<double>(&argument))
            lo_message_add_float(message.get(), static_cast<float>(*d));
        else
            lo_message_add_string(message.get(), std::get<QString>(argument).toUtf8().constData());
    }
    QByteArray bytes(static_cast<qsizetype>(lo_message_length(message.get(), address.constData())),
                     '\0');
    size_t size = static_cast<size_t>(bytes.size());
    lo_message_serialise(message.get(), address.constData(), bytes.data(), &size);
    return bytes;
}

void OscServer::sendToSubscribers(const QByteArray& address,
                                  const std::vector<RemoteCommand::Argument>& arguments) {
    dropUnreachable();
    dropExpired();
    if (m_subscribers.empty() || m_fd < 0)
        return;
    const QByteArray bytes = encode(address, arguments);
    for (const Subscriber& subscriber : m_subscribers) {
        sockaddr_storage to;
        const socklen_t toLength = socketAddress(subscriber.host, subscriber.port, m_family, to);
        // The "unreachable" answer to a send before this one is pending on the socket, and a
        // send reports it instead of sending: once it is taken, the send goes out.
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (::sendto(m_fd, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_DONTWAIT,
                         reinterpret_cast<const sockaddr*>(&to), toLength) >= 0 ||
                (errno != ECONNREFUSED && errno != EHOSTUNREACH && errno != ENETUNREACH))
                break;
        }
    }
}
