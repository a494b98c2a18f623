#include "FakeHttpServer.h"
#include "core/Async.h"
#include "core/HttpResponseReader.h"
#include "core/LoopbackHttp.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <memory>

namespace {

// What the server does with one connection once it has read the whole request.
struct Script {
    // Written one after another, `gapMs` apart, each flushed on its own.
    QList<QByteArray> pieces;
    int gapMs = 0;
    // Close after the last piece; otherwise the connection stays open, as keep-alive servers leave it.
    bool close = false;

    static Script answer(const QByteArray &bytes) { return Script{{bytes}, 0, false}; }
    static Script drop() { return Script{{}, 0, true}; }
    static Script silence() { return Script{{}, 0, false}; }
};

// A raw HTTP server on 127.0.0.1 that plays one script per connection (the last one repeats) and
// records each request as received, read by read.
class ScriptedServer : public QObject {
public:
    explicit ScriptedServer(QList<Script> scripts) : m_scripts(std::move(scripts)) {
        connect(&m_server, &QTcpServer::newConnection, this, &ScriptedServer::accept);
        if (!m_server.listen(QHostAddress::LocalHost, 0))
            qFatal("cannot listen on 127.0.0.1");
    }

    QUrl url(const QString &path = QStringLiteral("/")) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path));
    }
    quint16 port() const { return m_server.serverPort(); }

    // Per connection that sent a whole request: the reads it arrived in.
    QList<QList<QByteArray>> requests;
    int connections = 0;

    // Resets every connection that has not sent a byte, as a server's idle time-out would.
    void resetIdleConnections() {
        for (QTcpSocket *socket : m_server.findChildren<QTcpSocket *>())
            if (socket->property("idle").toBool())
                socket->abort();
    }

private:
    void accept() {
        while (QTcpSocket *socket = m_server.nextPendingConnection()) {
            ++connections;
            socket->setProperty("idle", true);
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            auto reads = std::make_shared<QList<QByteArray>>();
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket, reads] {
                socket->setProperty("idle", false);
                reads->append(socket->readAll());
                if (isWhole(reads->join())) {
                    requests.append(*reads);
                    reads->clear();
                    const Script script = m_scripts.at(std::min<qsizetype>(requests.size(), m_scripts.size()) - 1);
                    play(socket, script, 0);
                }
            });
        }
    }

    static bool isWhole(const QByteArray &received) {
        const qsizetype headEnd = received.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return false;
        qsizetype length = 0;
        for (const QByteArray &line : received.left(headEnd).split('\n')) {
            if (line.toLower().startsWith("content-length:"))
                length = line.mid(15).trimmed().toLongLong();
        }
        return received.size() >= headEnd + 4 + length;
    }

    void play(QTcpSocket *socket, const Script &script, qsizetype next) {
        if (next == script.pieces.size()) {
            if (script.close)
                socket->abort();
            return;
        }
        socket->write(script.pieces[next]);
        socket->flush();
        QTimer::singleShot(script.gapMs, socket, [this, socket, script, next] { play(socket, script, next + 1); });
    }

    QTcpServer m_server;
    QList<Script> m_scripts;
};

struct Failure {
    QNetworkReply::NetworkError code = QNetworkReply::NoError;
    QString text;
};

Failure failureOf(QCoro::Task<LoopbackHttp::Reply> request) {
    try {
        syncWait(std::move(request));
    } catch (const LoopbackHttp::TransportError &error) {
        return Failure{error.code(), error.text()};
    }
    return {};
}

} // namespace

Q_DECLARE_METATYPE(QList<Script>)

class TestLoopbackHttp : public QObject {
    Q_OBJECT

private slots:
    void readsEveryKindOfReply_data() {
        QTest::addColumn<QList<Script>>("scripts");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("requests");
        QTest::newRow("content length, connection left open")
            << QList{Script::answer("HTTP/1.1 200 OK\r\nContent-Length: 5\r\nKeep-Alive: timeout=5\r\n\r\nhello")}
            << 200 << QByteArray("hello") << 1;
        QTest::newRow("chunked, split inside chunks, with extension and trailer")
            << QList{Script{{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5;name=x\r\nhel", "lo\r\nA\r",
                             "\n, 3456789!\r\n0\r\nX-Trailer: 1\r\n\r\n"},
                            20,
                            false}}
            << 200 << QByteArray("hello, 3456789!") << 1;
        QTest::newRow("body until close")
            << QList{Script{{"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\nfirst ", "second"}, 20, true}} << 200
            << QByteArray("first second") << 1;
        QTest::newRow("head split across reads, header names in any case")
            << QList{Script{{"HTT", "P/1.1 404 Not Found\r\nconTENT-length:", " 3\r\n", "\r\nnop"}, 20, false}} << 404
            << QByteArray("nop") << 1;
        QTest::newRow("redirect is only a status")
            << QList{Script::answer("HTTP/1.1 302 Found\r\nLocation: /elsewhere\r\nContent-Length: 4\r\n\r\nmove")}
            << 302 << QByteArray("move") << 1;
        QTest::newRow("interim answer skipped")
            << QList{Script::answer("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok")}
            << 200 << QByteArray("ok") << 1;
        QTest::newRow("no content has no body")
            << QList{Script::answer("HTTP/1.1 204 No Content\r\n\r\n")} << 204 << QByteArray() << 1;
        QTest::newRow("dropped before any answer, tried once more")
            << QList{Script::drop(), Script::answer("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nagain")} << 200
            << QByteArray("again") << 2;
    }
    void readsEveryKindOfReply() {
        QFETCH(QList<Script>, scripts);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(int, requests);
        ScriptedServer server(scripts);
        // The client goes away while its request is in flight.
        auto http = std::make_unique<LoopbackHttp>();
        auto request = http->get(server.url(), 2000);
        http.reset();
        const LoopbackHttp::Reply reply = syncWait(std::move(request));
        QCOMPARE(reply.status, status);
        QCOMPARE(reply.body, body);
        QCOMPARE(server.requests.size(), requests);
    }

    void sendsTheRequestInOneWrite() {
        ScriptedServer server({Script::answer("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")});
        // Larger than the 16 KB pieces Qt's own client writes a body in.
        const QByteArray body(32 * 1024, 'w');
        LoopbackHttp http;
        syncWait(http.post(server.url(QStringLiteral("/a/b?x=1")), "audio/wav", body, 2000));
        QCOMPARE(server.requests.size(), 1);
        // Headers and body in a single read: nothing held the body back behind the headers.
        QCOMPARE(server.requests.first().size(), 1);
        const QByteArray expected =
            "POST /a/b?x=1 HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(server.port()) +
            "\r\nContent-Type: audio/wav\r\nContent-Length: 32768\r\nConnection: close\r\n\r\n" + body;
        QCOMPARE(server.requests.first().first(), expected);
    }

    void reportsTransportFailures_data() {
        QTest::addColumn<QList<Script>>("scripts");
        QTest::addColumn<QString>("scheme");
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<int>("code");
        QTest::addColumn<int>("requests");
        const int closed = QNetworkReply::RemoteHostClosedError;
        const int timedOut = QNetworkReply::TimeoutError;
        QTest::newRow("silent server times out once")
            << QList{Script::silence()} << "http" << QByteArray("POST") << timedOut << 1;
        QTest::newRow("silent server, GET") << QList{Script::silence()} << "http" << QByteArray("GET") << timedOut << 1;
        QTest::newRow("closed mid body, not retried")
            << QList{Script{{"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc"}, 0, true}} << "http"
            << QByteArray("GET") << closed << 1;
        QTest::newRow("closed mid head, not retried")
            << QList{Script{{"HTTP/1.1 200 OK\r\nContent-"}, 0, true}} << "http" << QByteArray("GET") << closed << 1;
        QTest::newRow("GET dropped twice") << QList{Script::drop()} << "http" << QByteArray("GET") << closed << 2;
        QTest::newRow("POST dropped, not sent again")
            << QList{Script::drop()} << "http" << QByteArray("POST") << closed << 1;
        QTest::newRow("malformed chunk") << QList{Script::answer(
                                                "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n")}
                                         << "http" << QByteArray("POST") << int(QNetworkReply::ProtocolFailure) << 1;
        QTest::newRow("not HTTP") << QList{Script::answer("SSH-2.0-OpenSSH\r\n\r\n")} << "http" << QByteArray("POST")
                                  << int(QNetworkReply::ProtocolFailure) << 1;
        QTest::newRow("https") << QList{Script::silence()} << "https" << QByteArray("POST")
                               << int(QNetworkReply::ProtocolUnknownError) << 0;
    }
    void reportsTransportFailures() {
        QFETCH(QList<Script>, scripts);
        QFETCH(QString, scheme);
        QFETCH(QByteArray, method);
        QFETCH(int, code);
        QFETCH(int, requests);
        ScriptedServer server(scripts);
        QUrl url = server.url();
        url.setScheme(scheme);
        LoopbackHttp http;
        QElapsedTimer clock;
        clock.start();
        const int limitMs = 300;
        const Failure failure =
            failureOf(method == "GET" ? http.get(url, limitMs) : http.post(url, "text/plain", "hi", limitMs));
        QCOMPARE(int(failure.code), code);
        QVERIFY(!failure.text.isEmpty());
        QCOMPARE(server.requests.size(), requests);
        if (failure.code == QNetworkReply::TimeoutError) {
            QCOMPARE(failure.text, QStringLiteral("the server did not answer within 300 ms"));
            // The limit is the whole exchange's: the upload does not start it again.
            QVERIFY2(clock.elapsed() >= limitMs - 10 && clock.elapsed() < limitMs * 8 / 5,
                     qPrintable(QString::number(clock.elapsed())));
        }
    }

    // However the body is delimited, reading stops at the ceiling instead of holding what a runaway
    // server sends.
    void answersPastTheCeilingAreRefused_data() {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<bool>("accepted");
        const qint64 ceiling = HttpResponseReader::kMaxBodyBytes;
        const QByteArray half(ceiling / 2, 'x');
        const QByteArray chunk = QByteArray::number(half.size(), 16) + "\r\n" + half + "\r\n";
        QTest::newRow("announced, at the ceiling")
            << "HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(ceiling) + "\r\n\r\n" + half + half << true;
        QTest::newRow("announced, gigabytes")
            << QByteArray("HTTP/1.1 200 OK\r\nContent-Length: 5368709120\r\n\r\n{\"text\": \"") << false;
        QTest::newRow("chunked, at the ceiling")
            << "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk + chunk + "0\r\n\r\n"
            << true;
        QTest::newRow("chunked, a byte past")
            << "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk + chunk + "1\r\nx\r\n0\r\n\r\n"
            << false;
        QTest::newRow("until close, a byte past") << "HTTP/1.0 200 OK\r\n\r\n" + half + half + "x" << false;
    }
    void answersPastTheCeilingAreRefused() {
        QFETCH(QByteArray, answer);
        QFETCH(bool, accepted);
        // Left open: a refusal must come from counting, not from the end of the connection.
        ScriptedServer server({Script::answer(answer)});
        LoopbackHttp http;
        try {
            const LoopbackHttp::Reply reply = syncWait(http.get(server.url(), 5000));
            QVERIFY(accepted);
            QCOMPARE(reply.body.size(), HttpResponseReader::kMaxBodyBytes);
        } catch (const LoopbackHttp::TransportError &error) {
            QVERIFY2(!accepted, qPrintable(error.text()));
            QCOMPARE(error.text(), QStringLiteral("the server's answer is larger than 8 MB"));
        }
    }

    // The connection opened ahead carries the request when it can, and a fresh one does when the
    // server closed it meanwhile, whether or not our event loop has seen the close yet.
    void connectionOpenedAheadCarriesTheNextRequest_data() {
        QTest::addColumn<QList<Script>>("scripts");
        QTest::addColumn<QString>("serverCloses");
        QTest::addColumn<int>("connections");
        QTest::addColumn<int>("requests");
        const Script ok = Script::answer("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
        QTest::newRow("open") << QList{ok} << "never" << 1 << 1;
        QTest::newRow("closed, seen") << QList{ok} << "seen" << 2 << 1;
        QTest::newRow("closed, not yet seen") << QList{ok} << "unseen" << 2 << 1;
        // Closed just as the request went out: the server never answered it, so it goes again.
        QTest::newRow("dropped unanswered") << QList{Script::drop(), ok} << "never" << 2 << 2;
    }
    void connectionOpenedAheadCarriesTheNextRequest() {
        QFETCH(QList<Script>, scripts);
        QFETCH(QString, serverCloses);
        QFETCH(int, connections);
        QFETCH(int, requests);
        ScriptedServer server(scripts);
        LoopbackHttp http;
        http.connectAhead(server.url());
        QTRY_COMPARE(server.connections, 1);
        if (serverCloses == QLatin1String("seen")) {
            server.resetIdleConnections();
            QTest::qWait(50);
        } else if (serverCloses == QLatin1String("unseen")) {
            server.resetIdleConnections();
            QThread::msleep(20);
        }
        const LoopbackHttp::Reply reply =
            syncWait(http.post(server.url(QStringLiteral("/inference")), "text/plain", "hi", 2000));
        QCOMPARE(reply.body, QByteArray("ok"));
        QCOMPARE(server.connections, connections);
        QCOMPARE(server.requests.size(), requests);
    }

    // An idle time-out of the server is followed by a new connection, for the request still to come.
    void connectionAheadIsOpenedAgainAfterAnIdleClose() {
        ScriptedServer server({Script::answer("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")});
        LoopbackHttp http;
        http.connectAhead(server.url());
        QTRY_COMPARE(server.connections, 1);
        QTest::qWait(1100);
        server.resetIdleConnections();
        QTRY_COMPARE(server.connections, 2);
        syncWait(http.get(server.url(), 2000));
        QCOMPARE(server.connections, 2);
        // Dropped, it is not opened again.
        http.connectAhead(server.url());
        QTRY_COMPARE(server.connections, 3);
        http.dropConnectionAhead();
        QTest::qWait(50);
        QCOMPARE(server.connections, 3);
    }

    void refusedConnectionFailsAtOnce() {
        LoopbackHttp http;
        QElapsedTimer clock;
        clock.start();
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/").arg(FakeHttpServer::closedPort()));
        const Failure failure = failureOf(http.get(url, 5000));
        QCOMPARE(failure.code, QNetworkReply::ConnectionRefusedError);
        QCOMPARE(failure.text, QStringLiteral("Connection refused"));
        QVERIFY(clock.elapsed() < 2000);
    }
};

QTEST_GUILESS_MAIN(TestLoopbackHttp)
#include "tst_loopback_http.moc"
