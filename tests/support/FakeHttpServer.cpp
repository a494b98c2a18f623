#include "FakeHttpServer.h"

#include <QHash>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

// One client connection: the bytes not yet parsed, and whether an answer is still pending.
struct FakeHttpServer::Connection : QObject {
    explicit Connection(QTcpSocket *owner) : QObject(owner), socket(owner) {}
    QTcpSocket *socket;
    QByteArray pending;
    bool busy = false;
};

namespace {

QByteArray reasonPhrase(int status) {
    static const QHash<int, QByteArray> phrases{{200, "OK"},
                                                {400, "Bad Request"},
                                                {404, "Not Found"},
                                                {500, "Internal Server Error"},
                                                {503, "Service Unavailable"}};
    return phrases.value(status, "Status");
}

// The value of `key="value"` (or key=value) inside a header value such as Content-Disposition.
QByteArray headerParameter(const QByteArray &value, const QByteArray &key) {
    const QRegularExpression pattern(
        QStringLiteral("(?:^|;)\\s*%1=(\"([^\"]*)\"|[^;\\s]*)").arg(QString::fromLatin1(key)),
        QRegularExpression::CaseInsensitiveOption);
    const auto match = pattern.match(QString::fromUtf8(value));
    if (!match.hasMatch())
        return {};
    return (match.capturedStart(2) >= 0 ? match.captured(2) : match.captured(1)).toUtf8();
}

} // namespace

std::optional<QByteArray> FakeHttpServer::Request::header(const QByteArray &name) const {
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return std::nullopt;
}

QByteArray FakeHttpServer::Request::boundary() const {
    const QByteArray type = header("Content-Type").value_or(QByteArray());
    if (!type.trimmed().toLower().startsWith("multipart/form-data"))
        return {};
    return headerParameter(type, "boundary");
}

QList<FakeHttpServer::Part> FakeHttpServer::Request::parts() const {
    const QByteArray mark = boundary();
    if (mark.isEmpty())
        return {};
    // With a line break in front, every delimiter (the first one too) reads CR LF "--" boundary.
    const QByteArray text = "\r\n" + body;
    const QByteArray delimiter = "\r\n--" + mark;
    QList<Part> parts;
    qsizetype at = text.indexOf(delimiter);
    while (at >= 0) {
        qsizetype cursor = at + delimiter.size();
        // "--" after the boundary closes the body.
        if (text.mid(cursor, 2) != "\r\n")
            break;
        cursor += 2;
        const qsizetype headersEnd = text.indexOf("\r\n\r\n", cursor);
        const qsizetype next = text.indexOf(delimiter, cursor);
        if (headersEnd < 0 || next < 0 || headersEnd > next)
            return {};
        Part part;
        for (const QByteArray &line : text.mid(cursor, headersEnd - cursor).split('\n')) {
            const qsizetype colon = line.indexOf(':');
            if (colon < 0)
                continue;
            const QByteArray key = line.left(colon).trimmed().toLower();
            const QByteArray value = line.mid(colon + 1).trimmed();
            if (key == "content-disposition") {
                part.name = headerParameter(value, "name");
                part.filename = headerParameter(value, "filename");
            } else if (key == "content-type") {
                part.contentType = value;
            }
        }
        part.data = text.mid(headersEnd + 4, next - headersEnd - 4);
        parts.append(part);
        at = next;
    }
    return parts;
}

std::optional<QByteArray> FakeHttpServer::Request::field(const QByteArray &name) const {
    for (const Part &part : parts()) {
        if (part.name == name)
            return part.data;
    }
    return std::nullopt;
}

FakeHttpServer::Response FakeHttpServer::Response::json(int status, const QByteArray &body) {
    Response response;
    response.status = status;
    response.body = body;
    return response;
}

FakeHttpServer::Response FakeHttpServer::Response::plainText(int status, const QByteArray &body) {
    Response response;
    response.status = status;
    response.contentType = "text/plain";
    response.body = body;
    return response;
}

FakeHttpServer::Response FakeHttpServer::Response::invalidJson() {
    return json(200, "{\"unterminated\": ");
}

FakeHttpServer::Response FakeHttpServer::Response::droppedConnection() {
    Response response;
    response.drop = true;
    return response;
}

FakeHttpServer::Response FakeHttpServer::Response::cutShort() const {
    Response response = *this;
    response.announcedLength = body.size();
    response.body.truncate(body.size() / 2);
    response.closeAfterBody = true;
    return response;
}

FakeHttpServer::Response FakeHttpServer::Response::enormous() {
    Response response = json(200, "{\"text\": \"" + QByteArray(64 * 1024, 'a'));
    response.announcedLength = 5LL * 1024 * 1024 * 1024;
    return response;
}

FakeHttpServer::Response FakeHttpServer::Response::delayedBy(int milliseconds) const {
    Response response = *this;
    response.delayMs = milliseconds;
    return response;
}

FakeHttpServer::Response FakeHttpServer::Response::withStatus(int code) const {
    Response response = *this;
    response.status = code;
    return response;
}

FakeHttpServer::FakeHttpServer(QObject *parent) : QObject(parent), m_server(new QTcpServer(this)) {
    connect(m_server, &QTcpServer::newConnection, this, &FakeHttpServer::onNewConnection);
    if (!m_server->listen(QHostAddress::LocalHost, 0))
        qFatal("FakeHttpServer: cannot listen on 127.0.0.1: %s", qPrintable(m_server->errorString()));
}

FakeHttpServer::~FakeHttpServer() = default;

quint16 FakeHttpServer::port() const {
    return m_server->isListening() ? m_server->serverPort() : m_port;
}

QUrl FakeHttpServer::url() const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port()));
}

QList<FakeHttpServer::Request> FakeHttpServer::requestsTo(const QByteArray &method, const QByteArray &path) const {
    QList<Request> found;
    for (const Request &request : m_requests) {
        if (request.method == method && pathOf(request) == path)
            found.append(request);
    }
    return found;
}

QByteArray FakeHttpServer::pathOf(const Request &request) {
    const qsizetype query = request.path.indexOf('?');
    return query < 0 ? request.path : request.path.left(query);
}

void FakeHttpServer::setListening(bool listening) {
    if (listening == m_server->isListening())
        return;
    if (!listening) {
        m_port = m_server->serverPort();
        m_server->close();
        // A server that is down holds no connections either, idle ones included.
        for (QTcpSocket *socket : m_server->findChildren<QTcpSocket *>())
            socket->abort();
    } else if (!m_server->listen(QHostAddress::LocalHost, m_port)) {
        qFatal("FakeHttpServer: cannot listen on 127.0.0.1:%u again: %s", m_port, qPrintable(m_server->errorString()));
    }
}

quint16 FakeHttpServer::closedPort() {
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        qFatal("FakeHttpServer: cannot find a free loopback port");
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

void FakeHttpServer::onNewConnection() {
    while (QTcpSocket *socket = m_server->nextPendingConnection()) {
        auto *connection = new Connection(socket);
        connect(socket, &QTcpSocket::readyRead, connection, [this, connection] {
            connection->pending += connection->socket->readAll();
            process(connection);
        });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
}

void FakeHttpServer::process(Connection *connection) {
    while (!connection->busy) {
        QByteArray &pending = connection->pending;
        const qsizetype headEnd = pending.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return;
        const QList<QByteArray> lines = pending.left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
        Request request;
        bool wellFormed = requestLine.size() == 3 && requestLine[2].startsWith("HTTP/1.");
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const qsizetype colon = lines[i].indexOf(':');
            if (colon <= 0) {
                wellFormed = false;
                continue;
            }
            request.headers.append({lines[i].left(colon).trimmed(), lines[i].mid(colon + 1).trimmed()});
        }
        bool lengthOk = true;
        const qsizetype length = request.header("Content-Length").value_or("0").toLongLong(&lengthOk);
        if (!wellFormed || !lengthOk || length < 0) {
            send(connection, Response::plainText(400, "Invalid request"));
            connection->socket->disconnectFromHost();
            return;
        }
        if (pending.size() < headEnd + 4 + length)
            return;
        request.method = requestLine[0];
        request.path = requestLine[1];
        request.body = pending.mid(headEnd + 4, length);
        pending.remove(0, headEnd + 4 + length);

        m_requests.append(request);
        const Response response = respond(request);
        if (response.delayMs > 0) {
            connection->busy = true;
            QTimer::singleShot(response.delayMs, connection, [this, connection, response] {
                connection->busy = false;
                send(connection, response);
                if (!response.drop)
                    process(connection);
            });
            return;
        }
        send(connection, response);
        if (response.drop)
            return;
    }
}

void FakeHttpServer::send(Connection *connection, const Response &response) {
    QTcpSocket *socket = connection->socket;
    if (response.drop) {
        socket->abort();
        return;
    }
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reasonPhrase(response.status) + "\r\n";
    head += "Content-Type: " + response.contentType + "\r\n";
    head += "Content-Length: " +
            QByteArray::number(response.announcedLength < 0 ? response.body.size() : response.announcedLength) + "\r\n";
    head += "Keep-Alive: timeout=5, max=5\r\n\r\n";
    socket->write(head + response.body);
    if (response.closeAfterBody)
        socket->disconnectFromHost();
}
