#pragma once

#include <map>

#include <QByteArray>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

// A small HTTP/1.1 server on 127.0.0.1 for the updater's tests: each path answers with its
// bytes (and a status of its own), or only half of them before the connection closes (a cut
// download), or never, or without end (its bytes again and again, with no length), or a byte every
// half second.
class TestServer {
public:
    enum class Answer { whole, cut, never, endless, trickle };
    struct Route {
        QByteArray body;
        Answer answer = Answer::whole;
        int status = 200; // of a whole answer
    };

    TestServer() {
        m_server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&m_server, &QTcpServer::newConnection, [this] {
            while (QTcpSocket* socket = m_server.nextPendingConnection())
                QObject::connect(socket, &QTcpSocket::readyRead, [this, socket] { serve(socket); });
        });
    }

    QString url(const QString& path) const {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path);
    }
    std::map<QByteArray, Route> routes;

private:
    void serve(QTcpSocket* socket) {
        const QByteArray request = socket->readAll();
        if (!request.contains("\r\n\r\n"))
            return;
        const QByteArray path = request.split(' ').value(1);
        const auto found = routes.find(path);
        if (found == routes.end()) {
            socket->write(
                "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
            socket->disconnectFromHost();
            return;
        }
        const Route& route = found->second;
        if (route.answer == Answer::never)
            return;
        if (route.answer == Answer::endless || route.answer == Answer::trickle) {
            socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
            const QByteArray body = route.body;
            if (route.answer == Answer::endless) {
                QObject::connect(socket, &QTcpSocket::bytesWritten, socket, [socket, body] {
                    if (socket->bytesToWrite() < (1 << 20))
                        socket->write(body);
                });
                socket->write(body);
            } else {
                auto* timer = new QTimer(socket);
                QObject::connect(timer, &QTimer::timeout, socket, [socket] { socket->write(" "); });
                timer->start(500);
            }
            return;
        }
        socket->write("HTTP/1.1 " + QByteArray::number(route.status) +
                      " Answer\r\nContent-Length: " + QByteArray::number(route.body.size()) +
                      "\r\nConnection: close\r\n\r\n");
        socket->write(route.answer == Answer::cut ? route.body.left(route.body.size() / 2)
                                                  : route.body);
        socket->disconnectFromHost();
    }

    QTcpServer m_server;
};
