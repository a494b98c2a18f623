#include "core/LoopbackHttp.h"

#include "core/HttpResponseReader.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QJsonParseError>
#include <QNetworkProxy>
#include <QTcpSocket>
#include <QTimer>
#include <cerrno>
#include <chrono>
#include <coroutine>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace {

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

// Resumes its coroutine exactly once: at the socket's next state change or arrival of bytes, or when
// `wait` has passed (negative: never). QCoro's signal awaiters can be resumed a second time when two
// emissions queue up before the first is handled, which resumes a coroutine that has moved on.
class SocketEvent {
public:
    SocketEvent(QTcpSocket *socket, std::chrono::milliseconds wait) : m_socket(socket), m_wait(wait) {}
    // A coroutine destroyed while it waits must never be resumed.
    ~SocketEvent() {
        m_state->done = true;
        for (const auto &connection : m_state->connections)
            QObject::disconnect(connection);
    }
    SocketEvent(const SocketEvent &) = delete;
    SocketEvent &operator=(const SocketEvent &) = delete;

    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        auto wake = [state = m_state, waiting](bool fired) {
            if (state->done)
                return;
            state->done = true;
            state->fired = fired;
            for (const auto &connection : state->connections)
                QObject::disconnect(connection);
            waiting.resume();
        };
        m_state->connections = {
            QObject::connect(m_socket, &QAbstractSocket::stateChanged, m_socket, [wake] { wake(true); }),
            QObject::connect(m_socket, &QIODevice::readyRead, m_socket, [wake] { wake(true); })};
        // The timer dies with the socket; after a wake it finds the state done and does nothing.
        if (m_wait.count() >= 0)
            QTimer::singleShot(m_wait, m_socket, [wake] { wake(false); });
    }
    // False when the time ran out first.
    bool await_resume() const noexcept { return m_state->fired; }

private:
    struct State {
        bool done = false;
        bool fired = false;
        std::vector<QMetaObject::Connection> connections;
    };
    QTcpSocket *m_socket;
    std::chrono::milliseconds m_wait;
    std::shared_ptr<State> m_state = std::make_shared<State>();
};

struct SocketDeleter {
    // The coroutine may resume inside one of the socket's own signals.
    void operator()(QTcpSocket *socket) const { socket->deleteLater(); }
};
using Socket = std::unique_ptr<QTcpSocket, SocketDeleter>;

constexpr std::chrono::minutes aheadLifetime{15};
// A server that closes a connection at once is not asked for another again and again.
constexpr qint64 aheadShortestLifeMs = 1000;

QTcpSocket *openSocket(const QString &host, quint16 port) {
    auto *socket = new QTcpSocket;
    socket->setProxy(QNetworkProxy::NoProxy);
    socket->connectToHost(host, port);
    return socket;
}

// Whether a connection that waited idle can still carry a request: the server has not closed it
// and has sent nothing unasked.
bool idleAndOpen(QTcpSocket &socket) {
    if (socket.state() == QAbstractSocket::HostLookupState || socket.state() == QAbstractSocket::ConnectingState)
        return true;
    if (socket.state() != QAbstractSocket::ConnectedState || socket.bytesAvailable() > 0)
        return false;
    // A close that Qt's event loop has not looked at yet is known to the socket itself.
    char byte = 0;
    const ssize_t peeked = ::recv(int(socket.socketDescriptor()), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return peeked < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

// Over `ahead` when one was opened for this server, otherwise over a new connection.
QCoro::Task<Attempt> attempt(const Target &target, int timeoutMs, Socket ahead) {
    // The limit is on the whole exchange: a server that takes the request and never answers is given
    // up on once, however the upload went. As with Qt's transfer time-out, 0 means none.
    const QDeadlineTimer deadline(timeoutMs > 0 ? qint64(timeoutMs) : qint64(-1));
    const auto remaining = [&deadline] {
        return std::chrono::milliseconds(deadline.isForever() ? -1 : std::max<qint64>(deadline.remainingTime(), 1));
    };
    const bool opened = ahead != nullptr;
    Socket socket = opened ? std::move(ahead) : Socket(openSocket(target.host, target.port));
    while (socket->state() == QAbstractSocket::HostLookupState || socket->state() == QAbstractSocket::ConnectingState) {
        // The state changes on success and on failure alike; a refusal must not wait out the time-out.
        const bool changed = co_await SocketEvent(socket.get(), remaining());
        if (!changed || deadline.hasExpired())
            co_return timedOut(timeoutMs);
    }
    if (socket->state() != QAbstractSocket::ConnectedState) {
        // A connection opened ahead may have failed while the server was still starting; the
        // request never went out, and a fresh connection tells how the server is now.
        Attempt failed = connectFailure(*socket, target.host);
        failed.unanswered = failed.unanswered || opened;
        co_return failed;
    }

    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    socket->write(target.requestBytes);
    // Sent now rather than when the event loop next looks at the socket, behind whatever else
    // the main thread has queued meanwhile.
    socket->flush();

    HttpResponseReader reader;
    for (;;) {
        reader.feed(socket->readAll());
        if (reader.malformed())
            co_return failure(QNetworkReply::ProtocolFailure, QStringLiteral("Invalid HTTP response"));
        if (reader.tooLarge())
            co_return failure(QNetworkReply::ProtocolFailure,
                              QStringLiteral("the server's answer is larger than %1 MB")
                                  .arg(HttpResponseReader::kMaxBodyBytes / (1024 * 1024)));
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
        co_await SocketEvent(socket.get(), remaining());
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
                                          std::optional<QByteArray> body, int timeoutMs, Socket ahead) {
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
        const bool overAhead = ahead != nullptr;
        Attempt outcome = co_await attempt(target, timeoutMs, std::move(ahead));
        if (outcome.reply)
            co_return std::move(*outcome.reply);
        // A connection that waited may be closed by the server (an idle time-out) just as the
        // request goes out, unread; a new connection carries it, a POST too.
        if (outcome.unanswered && overAhead) {
            --tries;
            continue;
        }
        if (!outcome.unanswered || tries == maxTries)
            throw LoopbackHttp::TransportError(outcome.code, outcome.text);
    }
}

} // namespace

struct LoopbackHttp::Ahead {
    QString host;
    quint16 port = 0;
    QDeadlineTimer until;
    QElapsedTimer opened;
    QTcpSocket *socket = nullptr;
    QMetaObject::Connection closed;
};

LoopbackHttp::LoopbackHttp() = default;

LoopbackHttp::~LoopbackHttp() {
    dropConnectionAhead();
}

QCoro::Task<LoopbackHttp::Reply> LoopbackHttp::get(const QUrl &url, int timeoutMs) {
    return exchange(url, "GET", QByteArray(), std::nullopt, timeoutMs, Socket(takeConnectionAhead(url)));
}

QCoro::Task<LoopbackHttp::Reply> LoopbackHttp::post(const QUrl &url, const QByteArray &contentType,
                                                    const QByteArray &body, int timeoutMs) {
    return exchange(url, "POST", contentType, body, timeoutMs, Socket(takeConnectionAhead(url)));
}

void LoopbackHttp::connectAhead(const QUrl &url) {
    dropConnectionAhead();
    if (url.scheme() != QLatin1String("http"))
        return;
    m_ahead = std::make_unique<Ahead>();
    m_ahead->host = url.host();
    m_ahead->port = static_cast<quint16>(url.port(80));
    m_ahead->until = QDeadlineTimer(aheadLifetime);
    openAhead();
}

void LoopbackHttp::openAhead() {
    m_ahead->socket = openSocket(m_ahead->host, m_ahead->port);
    m_ahead->opened.start();
    m_ahead->closed = QObject::connect(m_ahead->socket, &QAbstractSocket::disconnected, m_ahead->socket, [this] {
        const bool again = !m_ahead->until.hasExpired() && m_ahead->opened.elapsed() >= aheadShortestLifeMs;
        QObject::disconnect(m_ahead->closed);
        std::exchange(m_ahead->socket, nullptr)->deleteLater();
        if (again)
            openAhead();
    });
}

void LoopbackHttp::dropConnectionAhead() {
    if (m_ahead && m_ahead->socket) {
        QObject::disconnect(m_ahead->closed);
        m_ahead->socket->deleteLater();
    }
    m_ahead.reset();
}

QTcpSocket *LoopbackHttp::takeConnectionAhead(const QUrl &url) {
    if (!m_ahead || !m_ahead->socket || url.scheme() != QLatin1String("http") || m_ahead->host != url.host() ||
        m_ahead->port != static_cast<quint16>(url.port(80)))
        return nullptr;
    QObject::disconnect(m_ahead->closed);
    QTcpSocket *socket = std::exchange(m_ahead->socket, nullptr);
    m_ahead.reset();
    if (idleAndOpen(*socket))
        return socket;
    socket->deleteLater();
    return nullptr;
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
