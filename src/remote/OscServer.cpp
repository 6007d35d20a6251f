#include "remote/OscServer.h"

#include <lo/lo.h>
#include <memory>

#include <QNetworkDatagram>
#include <QTimer>
#include <QtEndian>

namespace {

const QString kNotOsc = QStringLiteral("OSC として読めません");
const QString kUnknown = QStringLiteral("知らないアドレスか引数です: %1");
const QString kNotAllowed = QStringLiteral("許可していない送り手です: %1");

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
        switch (types[i]) {
        case LO_INT32:
            decoded.second.emplace_back(static_cast<std::int64_t>(argv[i]->i));
            break;
        case LO_INT64:
            decoded.second.emplace_back(static_cast<std::int64_t>(argv[i]->h));
            break;
        case LO_FLOAT:
            decoded.second.emplace_back(static_cast<double>(argv[i]->f));
            break;
        case LO_DOUBLE:
            decoded.second.emplace_back(argv[i]->d);
            break;
        case LO_STRING:
        case LO_SYMBOL:
            decoded.second.emplace_back(QString::fromUtf8(&argv[i]->s));
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

} // namespace

OscServer::OscServer(QObject* parent) : QObject(parent) {
    connect(&m_socket, &QUdpSocket::readyRead, this, &OscServer::readPending);
}

std::optional<QString> OscServer::listen(const QHostAddress& address, quint16 port,
                                         const QSet<QHostAddress>& allowed) {
    close();
    m_allowed = allowed;
    if (!m_socket.bind(address, port))
        return QStringLiteral("ポート %1 を開けません（%2）").arg(port).arg(m_socket.errorString());
    return std::nullopt;
}

void OscServer::close() {
    m_socket.close();
    m_subscribers.clear();
}

void OscServer::readPending() {
    m_scheduled = false;
    for (int n = 0; n < kBatch && m_socket.hasPendingDatagrams(); ++n) {
        const QNetworkDatagram datagram = m_socket.receiveDatagram();
        handle(datagram.data(), datagram.senderAddress(),
               static_cast<quint16>(datagram.senderPort()));
    }
    // The rest on the next turn, after whatever else waits (the tick, the window).
    if (m_socket.hasPendingDatagrams() && !m_scheduled) {
        m_scheduled = true;
        QTimer::singleShot(0, this, &OscServer::readPending);
    }
}

void OscServer::handle(const QByteArray& datagram, const QHostAddress& sender, quint16 port) {
    if (!m_allowed.isEmpty() && !m_allowed.contains(sender)) {
        ++m_counts.refused;
        emit rejected(kNotAllowed.arg(sender.toString()));
        return;
    }
    const auto messages = decode(datagram);
    if (!messages) {
        ++m_counts.malformed;
        emit rejected(kNotOsc);
        return;
    }
    for (const Message& message : *messages) {
        const auto command = RemoteCommand::fromOsc(message.first, message.second);
        if (!command) {
            ++m_counts.malformed;
            emit rejected(kUnknown.arg(message.first));
            continue;
        }
        ++m_counts.received;
        const std::pair<QHostAddress, quint16> client{sender, port};
        if (command->kind == RemoteCommand::Kind::subscribe) {
            if (std::find(m_subscribers.begin(), m_subscribers.end(), client) ==
                m_subscribers.end())
                m_subscribers.push_back(client);
        } else if (command->kind == RemoteCommand::Kind::unsubscribe) {
            m_subscribers.erase(std::remove(m_subscribers.begin(), m_subscribers.end(), client),
                                m_subscribers.end());
        }
        emit this->command(*command);
    }
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
    if (m_subscribers.empty())
        return;
    const QByteArray bytes = encode(address, arguments);
    for (const auto& [host, port] : m_subscribers)
        m_socket.writeDatagram(bytes, host, port);
}
