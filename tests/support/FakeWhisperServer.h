#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QQueue>
#include <QUrl>
#include <optional>
#include <utility>

class QTcpServer;
class QTcpSocket;

// A whisper.cpp server on a real loopback socket, answering the way the real one does: GET / is a
// help page, GET /health is {"status":"ok"}, unknown paths are 404 "File Not Found (<path>)", and a
// POST /inference without a usable WAV file part is 400 "Invalid request". Other /inference answers
// come from a queue of scripted responses, then from a default. Every request is recorded.
class FakeWhisperServer : public QObject {
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

        // 200 {"text": text}, as the server answers a transcription.
        static Response transcript(const QString &text);
        static Response json(int status, const QByteArray &body);
        static Response plainText(int status, const QByteArray &body);
        // 200 with an application/json body that does not parse.
        static Response invalidJson();
        static Response droppedConnection();
        Response delayedBy(int milliseconds) const;
    };

    // Listens on 127.0.0.1 on a free port.
    explicit FakeWhisperServer(QObject *parent = nullptr);
    ~FakeWhisperServer() override;

    quint16 port() const;
    // http://127.0.0.1:<port>
    QUrl url() const;

    // The next POST /inference that passes validation gets the first queued response.
    void enqueueInference(const Response &response);
    // Used once the queue is empty; initially 200 {"text":" Hello world.\n"}.
    void setDefaultInference(const Response &response);

    const QList<Request> &requests() const { return m_requests; }
    QList<Request> inferenceRequests() const;

    // A loopback port with nothing listening on it (connections are refused).
    static quint16 closedPort();

signals:
    void requestReceived(const FakeWhisperServer::Request &request);

private:
    struct Connection;
    void onNewConnection();
    void process(Connection *connection);
    Response respond(const Request &request);
    void send(Connection *connection, const Response &response);

    QTcpServer *m_server;
    QList<Request> m_requests;
    QQueue<Response> m_scripted;
    Response m_default;
};
