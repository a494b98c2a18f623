#include "core/LoopbackHttp.h"

#include <QCoro/QCoroAbstractSocket>
#include <QCoro/QCoroSignal>
#include <QDeadlineTimer>
#include <QJsonParseError>
#include <QNetworkProxy>
#include <QTcpSocket>
#include <chrono>
#include <memory>
#include <optional>

namespace {

// A head larger than this is not from one of our servers.
constexpr qsizetype kMaxHeadBytes = 64 * 1024;

// Reads one HTTP/1.x response from bytes as they arrive: status line, headers, then a body delimited
// by Content-Length, by chunked transfer coding, or by the end of the connection.
class ResponseReader {
public:
    void feed(const QByteArray &bytes) {
        m_started = m_started || !bytes.isEmpty();
        m_buffer += bytes;
        while (step()) {
        }
        m_buffer.remove(0, m_pos);
        m_pos = 0;
    }

    // The peer has closed: true when that completes the answer.
    bool finishAtClose() {
        if (m_state == State::untilClose)
            m_state = State::done;
        return m_state == State::done;
    }

    bool started() const { return m_started; }
    bool done() const { return m_state == State::done; }
    bool malformed() const { return m_state == State::malformed; }
    int status() const { return m_status; }
    QByteArray takeBody() { return std::move(m_body); }

private:
    enum class State { head, length, untilClose, chunkSize, chunkData, chunkEnd, trailers, done, malformed };

    qsizetype available() const { return m_buffer.size() - m_pos; }

    // The next CR LF-terminated line, without its terminator.
    std::optional<QByteArray> takeLine() {
        const qsizetype end = m_buffer.indexOf("\r\n", m_pos);
        if (end < 0)
            return std::nullopt;
        QByteArray line = m_buffer.mid(m_pos, end - m_pos);
        m_pos = end + 2;
        return line;
    }

    void takeBodyBytes() {
        const qsizetype count = std::min<qint64>(m_remaining, available());
        m_body.append(m_buffer.constData() + m_pos, count);
        m_pos += count;
        m_remaining -= count;
    }

    // Parses what it can; false once it needs more bytes.
    bool step() {
        switch (m_state) {
        case State::head: {
            const qsizetype end = m_buffer.indexOf("\r\n\r\n", m_pos);
            if (end < 0) {
                if (available() > kMaxHeadBytes)
                    m_state = State::malformed;
                return false;
            }
            const QByteArray head = m_buffer.mid(m_pos, end - m_pos);
            m_pos = end + 4;
            readHead(head);
            return m_state != State::malformed && m_state != State::done;
        }
        case State::length:
            takeBodyBytes();
            if (m_remaining == 0)
                m_state = State::done;
            return false;
        case State::untilClose:
            m_body.append(m_buffer.constData() + m_pos, available());
            m_pos = m_buffer.size();
            return false;
        case State::chunkSize: {
            const auto line = takeLine();
            if (!line)
                return false;
            // Chunk extensions after ';' carry nothing we need.
            const qsizetype semicolon = line->indexOf(';');
            bool ok = false;
            m_remaining = (semicolon < 0 ? *line : line->left(semicolon)).trimmed().toLongLong(&ok, 16);
            if (!ok || m_remaining < 0)
                m_state = State::malformed;
            else
                m_state = m_remaining == 0 ? State::trailers : State::chunkData;
            return m_state != State::malformed;
        }
        case State::chunkData:
            takeBodyBytes();
            if (m_remaining > 0)
                return false;
            m_state = State::chunkEnd;
            return true;
        case State::chunkEnd:
            if (available() < 2)
                return false;
            if (m_buffer.mid(m_pos, 2) != "\r\n") {
                m_state = State::malformed;
                return false;
            }
            m_pos += 2;
            m_state = State::chunkSize;
            return true;
        case State::trailers: {
            const auto line = takeLine();
            if (!line)
                return false;
            if (line->isEmpty())
                m_state = State::done;
            return m_state != State::done;
        }
        case State::done:
        case State::malformed:
            return false;
        }
        return false;
    }

    void readHead(const QByteArray &head) {
        const QList<QByteArray> lines = head.split('\n');
        const QList<QByteArray> statusLine = lines.first().trimmed().split(' ');
        bool ok = false;
        m_status = statusLine.size() >= 2 ? statusLine[1].toInt(&ok) : 0;
        if (!statusLine.first().startsWith("HTTP/1.") || !ok || m_status < 100 || m_status > 999) {
            m_state = State::malformed;
            return;
        }
        bool chunked = false;
        std::optional<qint64> length;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const qsizetype colon = lines[i].indexOf(':');
            if (colon <= 0)
                continue;
            const QByteArray name = lines[i].left(colon).trimmed().toLower();
            const QByteArray value = lines[i].mid(colon + 1).trimmed().toLower();
            if (name == "transfer-encoding") {
                chunked = value.endsWith("chunked");
            } else if (name == "content-length") {
                length = value.toLongLong(&ok);
                if (!ok || *length < 0) {
                    m_state = State::malformed;
                    return;
                }
            }
        }
        if (m_status < 200 && m_status != 101) {
            // An interim answer (100 Continue); the real one follows.
            m_state = State::head;
        } else if (m_status == 101 || m_status == 204 || m_status == 304) {
            m_state = State::done;
        } else if (chunked) {
            m_state = State::chunkSize;
        } else if (length) {
            m_remaining = *length;
            m_state = m_remaining == 0 ? State::done : State::length;
        } else {
            m_state = State::untilClose;
        }
    }

    State m_state = State::head;
    QByteArray m_buffer;
    qsizetype m_pos = 0;
    bool m_started = false;
    int m_status = 0;
    qint64 m_remaining = 0;
    QByteArray m_body;
};

struct Target {
    QString host;
    quint16 port = 80;
    QByteArray requestBytes;
};

// How one connection ended: an answer, or a failure and whether any answer had begun.
struct Attempt {
    std::optional<LoopbackHttp::Reply> reply;
    QNetworkReply::NetworkError code = QNetworkReply::NoError;
    QString text;
    bool unanswered = false;
};

// The texts are Qt's own for the same failures.
Attempt failure(QNetworkReply::NetworkError code, const QString &text, bool unanswered = false) {
    Attempt attempt;
    attempt.code = code;
    attempt.text = text;
    attempt.unanswered = unanswered;
    return attempt;
}

Attempt timedOut(int timeoutMs) {
    const QString limit = timeoutMs % 1000 == 0 ? QStringLiteral("%1 seconds").arg(timeoutMs / 1000)
                                                : QStringLiteral("%1 ms").arg(timeoutMs);
    return failure(QNetworkReply::TimeoutError, QStringLiteral("the server did not answer within ") + limit);
}

Attempt connectFailure(const QTcpSocket &socket, const QString &host) {
    switch (socket.error()) {
    case QAbstractSocket::ConnectionRefusedError:
        return failure(QNetworkReply::ConnectionRefusedError, QStringLiteral("Connection refused"));
    case QAbstractSocket::HostNotFoundError:
        return failure(QNetworkReply::HostNotFoundError, QStringLiteral("Host %1 not found").arg(host));
    case QAbstractSocket::RemoteHostClosedError:
        return failure(QNetworkReply::RemoteHostClosedError, QStringLiteral("Connection closed"), true);
    default:
        return failure(QNetworkReply::UnknownNetworkError, socket.errorString());
    }
}

struct SocketDeleter {
    // The coroutine may resume inside one of the socket's own signals.
    void operator()(QTcpSocket *socket) const { socket->deleteLater(); }
};

QCoro::Task<Attempt> attempt(const Target &target, int timeoutMs) {
    // The limit is on the whole exchange: a server that takes the request and never answers is given
    // up on once, however the upload went. As with Qt's transfer time-out, 0 means none.
    const QDeadlineTimer deadline(timeoutMs > 0 ? qint64(timeoutMs) : qint64(-1));
    const auto remaining = [&deadline] {
        return std::chrono::milliseconds(deadline.isForever() ? -1 : std::max<qint64>(deadline.remainingTime(), 1));
    };
    std::unique_ptr<QTcpSocket, SocketDeleter> socket(new QTcpSocket);
    socket->setProxy(QNetworkProxy::NoProxy);
    socket->connectToHost(target.host, target.port);
    while (socket->state() == QAbstractSocket::HostLookupState || socket->state() == QAbstractSocket::ConnectingState) {
        // The state changes on success and on failure alike; a refusal must not wait out the time-out.
        const auto changed = co_await qCoro(socket.get(), &QAbstractSocket::stateChanged, remaining());
        if (!changed || deadline.hasExpired())
            co_return timedOut(timeoutMs);
    }
    if (socket->state() != QAbstractSocket::ConnectedState)
        co_return connectFailure(*socket, target.host);

    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    socket->write(target.requestBytes);

    ResponseReader reader;
    for (;;) {
        reader.feed(socket->readAll());
        if (reader.malformed())
            co_return failure(QNetworkReply::ProtocolFailure, QStringLiteral("Invalid HTTP response"));
        if (reader.done() || (socket->state() != QAbstractSocket::ConnectedState && reader.finishAtClose())) {
            Attempt answered;
            answered.reply.emplace();
            answered.reply->status = reader.status();
            answered.reply->body = reader.takeBody();
            co_return answered;
        }
        if (socket->state() != QAbstractSocket::ConnectedState)
            co_return failure(QNetworkReply::RemoteHostClosedError, QStringLiteral("Connection closed"),
                              !reader.started());
        if (deadline.hasExpired())
            co_return timedOut(timeoutMs);
        co_await qCoro(socket.get()).waitForReadyRead(remaining());
    }
}

QByteArray hostHeader(const QUrl &url) {
    QByteArray host = url.host(QUrl::FullyEncoded).toLatin1();
    if (host.contains(':'))
        host = '[' + host + ']';
    if (url.port() != -1)
        host += ':' + QByteArray::number(url.port());
    return host;
}

QByteArray requestBytes(const QUrl &url, const QByteArray &method, const QByteArray &contentType,
                        const std::optional<QByteArray> &body) {
    QByteArray path = url.path(QUrl::FullyEncoded).toLatin1();
    if (path.isEmpty())
        path = "/";
    if (url.hasQuery())
        path += '?' + url.query(QUrl::FullyEncoded).toLatin1();
    QByteArray bytes = method + ' ' + path + " HTTP/1.1\r\nHost: " + hostHeader(url) + "\r\n";
    if (body) {
        bytes += "Content-Type: " + contentType + "\r\n";
        bytes += "Content-Length: " + QByteArray::number(body->size()) + "\r\n";
    }
    bytes += "Connection: close\r\n\r\n";
    if (body) {
        bytes.reserve(bytes.size() + body->size());
        bytes += *body;
    }
    return bytes;
}

// Takes everything by value: nothing of the caller is touched once the request has left.
QCoro::Task<LoopbackHttp::Reply> exchange(QUrl url, QByteArray method, QByteArray contentType,
                                          std::optional<QByteArray> body, int timeoutMs) {
    if (url.scheme() != QLatin1String("http"))
        throw LoopbackHttp::TransportError(
            QNetworkReply::ProtocolUnknownError,
            QStringLiteral("Only plain http is supported for local servers, not %1").arg(url.scheme()));
    Target target;
    target.host = url.host();
    target.port = static_cast<quint16>(url.port(80));
    target.requestBytes = requestBytes(url, method, contentType, body);
    // A GET dropped before any answer is tried once more: a server may close an idle connection just
    // as the request arrives. A POST is not, since the server may have run it (a second inference).
    const int maxTries = method == "GET" ? 2 : 1;
    for (int tries = 1;; ++tries) {
        Attempt outcome = co_await attempt(target, timeoutMs);
        if (outcome.reply)
            co_return std::move(*outcome.reply);
        if (!outcome.unanswered || tries == maxTries)
            throw LoopbackHttp::TransportError(outcome.code, outcome.text);
    }
}

} // namespace

LoopbackHttp::LoopbackHttp() = default;
LoopbackHttp::~LoopbackHttp() = default;

QCoro::Task<LoopbackHttp::Reply> LoopbackHttp::get(const QUrl &url, int timeoutMs) {
    return exchange(url, "GET", QByteArray(), std::nullopt, timeoutMs);
}

QCoro::Task<LoopbackHttp::Reply> LoopbackHttp::post(const QUrl &url, const QByteArray &contentType,
                                                    const QByteArray &body, int timeoutMs) {
    return exchange(url, "POST", contentType, body, timeoutMs);
}

QUrl LoopbackHttp::appendPath(const QUrl &base, const QString &relativePath) {
    QUrl url = base;
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    url.setPath(path + relativePath);
    return url;
}

QJsonDocument LoopbackHttp::parseJson(const QByteArray &body) {
    QJsonParseError parseError;
    QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw ParseError(parseError.errorString());
    return document;
}
