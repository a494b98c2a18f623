#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QUrl>
#include <optional>
#include <utility>

class QTcpServer;
class QTcpSocket;

// A small HTTP/1.1 server on a real loopback socket for tests of our HTTP clients. Subclasses
// decide the answers; every request is recorded, and an answer may be delayed or replaced by a
// dropped connection. Like the local servers it stands in for, it serves one request per
// connection at a time.
class FakeHttpServer : public QObject {
    Q_OBJECT
public:
    struct Part {
        QByteArray name;
        QByteArray filename;
        QByteArray contentType;
        QByteArray data;
    };

    struct Request {
        QByteArray method;
        // As sent, with any query.
        QByteArray path;
        QList<std::pair<QByteArray, QByteArray>> headers;
        QByteArray body;

        // The first header of that name (case-insensitive).
        std::optional<QByteArray> header(const QByteArray &name) const;
        // The boundary of a multipart/form-data request, empty for any other.
        QByteArray boundary() const;
        // The parts of a multipart/form-data body, in order; empty when the body is not one.
        QList<Part> parts() const;
        // The value of the named part.
        std::optional<QByteArray> field(const QByteArray &name) const;
    };

    struct Response {
        int status = 200;
        QByteArray contentType = "application/json";
        QByteArray body;
        // Answer after this long (ms); 0 answers at once.
        int delayMs = 0;
        // Close the connection without answering (after the delay).
        bool drop = false;
        // The Content-Length announced instead of the body's own, when not negative.
        qint64 announcedLength = -1;
        // Close the connection once the body is sent.
        bool closeAfterBody = false;

        static Response json(int status, const QByteArray &body);
        static Response plainText(int status, const QByteArray &body);
        // 200 with an application/json body that does not parse.
        static Response invalidJson();
        static Response droppedConnection();
        // Announces a whole body, sends half of it and closes the connection.
        Response cutShort() const;
        // Announces a body of several gigabytes, sends its first bytes and keeps the connection open.
        static Response enormous();
        Response delayedBy(int milliseconds) const;
        Response withStatus(int status) const;
    };

    // Listens on 127.0.0.1 on a free port.
    explicit FakeHttpServer(QObject *parent = nullptr);
    ~FakeHttpServer() override;

    quint16 port() const;
    // http://127.0.0.1:<port>
    QUrl url() const;

    const QList<Request> &requests() const { return m_requests; }
    // Forgets the recorded requests, so that a long benchmark does not hold every body.
    void clearRequests() { m_requests.clear(); }
    // The recorded requests with this method and path (query ignored).
    QList<Request> requestsTo(const QByteArray &method, const QByteArray &path) const;

    // Stops accepting connections (they are refused, as when the server is down) and drops those
    // it holds, or starts again on the same port.
    void setListening(bool listening);

    // A loopback port with nothing listening on it (connections are refused).
    static quint16 closedPort();

protected:
    // The answer to one well-formed request.
    virtual Response respond(const Request &request) = 0;
    // The path without its query.
    static QByteArray pathOf(const Request &request);

private:
    struct Connection;
    void onNewConnection();
    void process(Connection *connection);
    void send(Connection *connection, const Response &response);

    QTcpServer *m_server;
    // The port to listen on again after setListening(false).
    quint16 m_port = 0;
    QList<Request> m_requests;
};
