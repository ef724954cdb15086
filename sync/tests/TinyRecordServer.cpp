#include "TinyRecordServer.h"

#include <QTcpSocket>

namespace hl::test {

namespace {

QByteArray header(const QByteArray& request, const QByteArray& name) {
    for (const QByteArray& line : request.left(request.indexOf("\r\n\r\n")).split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == name.toLower()) {
            return line.mid(colon + 1).trimmed();
        }
    }
    return {};
}

}  // namespace

TinyRecordServer::TinyRecordServer(Settings settings) : settings_(settings) {
    server_.listen(QHostAddress::LocalHost, 0);
    connect(&server_, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = server_.nextPendingConnection()) {
            auto* buffer = new QByteArray;
            connect(socket, &QTcpSocket::disconnected, socket, [socket, buffer] {
                delete buffer;
                socket->deleteLater();
            });
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
                buffer->append(socket->readAll());
                const qsizetype end = buffer->indexOf("\r\n\r\n");
                if (end < 0 || settings_.silent) return;
                const qsizetype length = header(*buffer, "Content-Length").toLongLong();
                if (buffer->size() < end + 4 + length) return;
                answer(socket, *buffer);
                buffer->clear();
            });
        }
    });
}

QUrl TinyRecordServer::url() const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1/state.json").arg(server_.serverPort()));
}

void TinyRecordServer::replace(const QByteArray& bytes) {
    body = bytes;
    ++generation_;
    sinceWrite_.start();
}

QByteArray TinyRecordServer::currentTag() const {
    const QByteArray tag = "\"g" + QByteArray::number(generation_) + "\"";
    const bool weak = sinceWrite_.isValid() && sinceWrite_.elapsed() < settings_.weakAfterWriteMs;
    return weak ? "W/" + tag : tag;
}

void TinyRecordServer::answer(QTcpSocket* socket, const QByteArray& request) {
    const QByteArray verb = request.left(request.indexOf(' '));
    ++requests;
    int status = 200;
    QByteArray content;
    bool withTag = false;
    const bool authorized = settings_.login.isEmpty() || header(request, "Authorization") ==
                                                             "Basic " + settings_.login.toBase64();
    if (settings_.forcedStatus != 0) {
        status = settings_.forcedStatus;
    } else if (!authorized) {
        status = 401;
    } else if (verb == "GET") {
        const QByteArray seen = header(request, "If-None-Match").replace("W/", "");
        if (body && !seen.isEmpty() && seen == QByteArray(currentTag()).replace("W/", "")) {
            status = 304;
            ++notModified;
        } else {
            status = body ? 200 : 404;
            content = body.value_or(QByteArray());
        }
        withTag = body.has_value();
    } else if (verb == "PUT") {
        const QByteArray ifMatch = header(request, "If-Match");
        const QByteArray ifNoneMatch = header(request, "If-None-Match");
        const QByteArray strongTag = "\"g" + QByteArray::number(generation_) + "\"";
        const bool allowed =
            (ifNoneMatch == "*" && !body) || (!ifMatch.isEmpty() && body && ifMatch == strongTag);
        if (allowed) {
            status = body ? 204 : 201;
            body = request.mid(request.indexOf("\r\n\r\n") + 4);
            ++generation_;
            sinceWrite_.start();
        } else {
            status = 412;
            ++refusedPuts;
        }
    } else {
        status = 405;
    }
    QByteArray reply = "HTTP/1.1 " + QByteArray::number(status) + " Status\r\n";
    if (withTag && settings_.givesETag) reply += "ETag: " + currentTag() + "\r\n";
    if (status == 401) reply += "WWW-Authenticate: Basic realm=\"records\"\r\n";
    reply += "Content-Length: " + QByteArray::number(content.size()) +
             "\r\nConnection: close\r\n\r\n" + content;
    socket->write(reply);
    socket->disconnectFromHost();
    if (verb == "GET" && afterNextGet) std::exchange(afterNextGet, nullptr)();
}

}  // namespace hl::test
