// Times GETs and 64 KB POSTs against a loopback server that answers the way whisper.cpp's server
// does (the whole answer in one write, connection kept unless the client asks to close), once with
// LoopbackHttp and once with a plain QNetworkAccessManager, and prints p50/p95 of each.
//
// Usage: bench_loopback_http [requests per series, default 200]

#include "core/Async.h"
#include "core/LoopbackHttp.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <future>
#include <vector>

namespace {

constexpr int kTimeoutMs = 5000;

// Reads whole requests and answers each with a short JSON transcript in a single write.
void serveConnection(QTcpSocket *socket) {
    auto pending = std::make_shared<QByteArray>();
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket, pending] {
        *pending += socket->readAll();
        for (;;) {
            const qsizetype headEnd = pending->indexOf("\r\n\r\n");
            if (headEnd < 0)
                return;
            const QByteArray head = pending->left(headEnd).toLower();
            qsizetype length = 0;
            for (const QByteArray &line : head.split('\n')) {
                if (line.startsWith("content-length:"))
                    length = line.mid(15).trimmed().toLongLong();
            }
            if (pending->size() < headEnd + 4 + length)
                return;
            pending->remove(0, headEnd + 4 + length);
            const QByteArray body = "{\"text\":\" Hello world.\\n\"}";
            socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                          QByteArray::number(body.size()) + "\r\nKeep-Alive: timeout=5, max=5\r\n\r\n" + body);
            if (head.contains("\r\nconnection: close")) {
                socket->disconnectFromHost();
                return;
            }
        }
    });
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
}

double percentile(std::vector<double> samples, double fraction) {
    std::sort(samples.begin(), samples.end());
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[index];
}

// Milliseconds per call of `once`, after a few unmeasured calls.
std::vector<double> measure(int count, const std::function<void()> &once) {
    for (int i = 0; i < 5; ++i)
        once();
    std::vector<double> samples;
    samples.reserve(static_cast<std::size_t>(count));
    QElapsedTimer clock;
    for (int i = 0; i < count; ++i) {
        clock.start();
        once();
        samples.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);
    }
    return samples;
}

void report(const char *label, const std::vector<double> &samples) {
    std::printf("%-28s %8.2f %8.2f\n", label, percentile(samples, 0.50), percentile(samples, 0.95));
}

void expectOk(int status) {
    if (status != 200)
        qFatal("bench_loopback_http: unexpected HTTP status %d", status);
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const int count = argc > 1 ? std::max(1, QByteArray(argv[1]).toInt()) : 200;

    // The server runs its own event loop, as a separate process would.
    std::promise<quint16> listening;
    QThread *serverThread = QThread::create([&listening] {
        QTcpServer server;
        if (!server.listen(QHostAddress::LocalHost, 0))
            qFatal("bench_loopback_http: cannot listen on 127.0.0.1");
        QObject::connect(&server, &QTcpServer::newConnection, &server, [&server] {
            while (QTcpSocket *socket = server.nextPendingConnection())
                serveConnection(socket);
        });
        listening.set_value(server.serverPort());
        // Ends with the thread's quit().
        QEventLoop loop;
        loop.exec();
    });
    serverThread->start();
    const quint16 port = listening.get_future().get();
    const QUrl getUrl(QStringLiteral("http://127.0.0.1:%1/").arg(port));
    const QUrl postUrl(QStringLiteral("http://127.0.0.1:%1/inference").arg(port));
    const QByteArray contentType = "multipart/form-data; boundary=bench";
    const QByteArray body(64 * 1024, 'a');

    LoopbackHttp http;
    QNetworkAccessManager manager;
    manager.setProxy(QNetworkProxy::NoProxy);
    auto viaManager = [&manager, &contentType](const QUrl &url, const QByteArray *payload) {
        QNetworkRequest request(url);
        request.setTransferTimeout(kTimeoutMs);
        request.setHeader(QNetworkRequest::ContentTypeHeader, contentType);
        QNetworkReply *reply = payload ? manager.post(request, *payload) : manager.get(request);
        QEventLoop loop;
        QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
        if (!reply->isFinished())
            loop.exec();
        expectOk(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt());
        reply->deleteLater();
    };

    std::printf("%d requests per series against a whisper.cpp-like server on 127.0.0.1 (ms)\n", count);
    std::printf("%-28s %8s %8s\n", "", "p50", "p95");
    report("GET   LoopbackHttp", measure(count, [&] { expectOk(syncWait(http.get(getUrl, kTimeoutMs)).status); }));
    report("GET   QNetworkAccessManager", measure(count, [&] { viaManager(getUrl, nullptr); }));
    report("POST  LoopbackHttp (64 KB)",
           measure(count, [&] { expectOk(syncWait(http.post(postUrl, contentType, body, kTimeoutMs)).status); }));
    report("POST  QNetworkAccessManager", measure(count, [&] { viaManager(postUrl, &body); }));

    serverThread->quit();
    serverThread->wait();
    delete serverThread;
    return 0;
}
